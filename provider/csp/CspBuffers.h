// The CryptoAPI buffer-size protocol. Which answer a missing or short buffer gets differs per
// parameter by design; each rule is named here once, and every entry answers through one.
#pragma once

#include <windows.h>

#include <cstring>
#include <optional>
#include <string>

#include "diagnostics/Log.h"
#include "provider/csp/CspResult.h"

namespace orvane::csp {

enum class SizeRule {
    // Null buffer: the size and TRUE. Short buffer: the size, FALSE and ERROR_MORE_DATA.
    kNullAsksShortFails,
    // The same, and a zero length asks for the size as a null buffer does.
    kNullOrEmptyAsksShortFails,
    // Null buffer: the size, TRUE and ERROR_MORE_DATA. Short buffer: the size, FALSE and ERROR_MORE_DATA.
    kNullAsksWithMoreDataShortFails,
    // Null or short buffer: the size, TRUE and ERROR_MORE_DATA.
    kMissingOrShortIsMoreData,
    // Null or short buffer: the size and TRUE, nothing reported; the value is written only when it fits.
    kWrittenWhenRoom,
};

// The outcome of a call whose buffer is missing or short under the rule (the size is already
// in *pdwDataLen); empty when `available` bytes hold the value, which is then the caller's to copy.
// shortLogLine, written before the last error is set: with kNullOrEmptyAsksShortFails a failure
// line followed by the size when the buffer is short, with kMissingOrShortIsMoreData an
// ordinary line whenever the value is not written.
inline std::optional<BOOL> answerSizeOnly(SizeRule rule, const BYTE* pbData, DWORD available, DWORD size,
                                          DWORD* pdwDataLen, const char* shortLogLine = nullptr) {
    bool asks = pbData == nullptr || (rule == SizeRule::kNullOrEmptyAsksShortFails && available == 0);
    if (!asks && available >= size) return std::nullopt;
    *pdwDataLen = size;
    switch (rule) {
    case SizeRule::kNullAsksShortFails:
    case SizeRule::kNullOrEmptyAsksShortFails:
        if (asks) return TRUE;
        if (shortLogLine != nullptr && rule == SizeRule::kNullOrEmptyAsksShortFails)
            Utils::logError(shortLogLine + std::to_string(size));
        return failWith(static_cast<DWORD>(ERROR_MORE_DATA));
    case SizeRule::kNullAsksWithMoreDataShortFails:
        if (!asks) return failWith(static_cast<DWORD>(ERROR_MORE_DATA));
        SetLastError(ERROR_MORE_DATA);
        return TRUE;
    case SizeRule::kMissingOrShortIsMoreData:
        if (shortLogLine != nullptr) Utils::logMessage(shortLogLine);
        SetLastError(ERROR_MORE_DATA);
        return TRUE;
    case SizeRule::kWrittenWhenRoom:
        break;
    }
    return TRUE;
}

// The value under the rule: the size-only answer, or the value copied and its size.
inline BOOL answerValue(SizeRule rule, const void* value, DWORD size, BYTE* pbData, DWORD* pdwDataLen,
                        const char* shortLogLine = nullptr) {
    if (std::optional<BOOL> sizeOnly = answerSizeOnly(rule, pbData, *pdwDataLen, size, pdwDataLen, shortLogLine))
        return *sizeOnly;
    if (size != 0) std::memcpy(pbData, value, size);
    *pdwDataLen = size;
    return TRUE;
}

inline BOOL answerDword(SizeRule rule, DWORD value, BYTE* pbData, DWORD* pdwDataLen, const char* shortLogLine = nullptr) {
    return answerValue(rule, &value, sizeof value, pbData, pdwDataLen, shortLogLine);
}

}  // namespace orvane::csp
