// The CryptoAPI buffer-size protocol: a null output buffer asks for the size; a buffer
// that is too short gets the size and ERROR_MORE_DATA. The variants differ per parameter.
#pragma once

#include <windows.h>

#include <cstring>
#include <string>

#include "diagnostics/Log.h"
#include "provider/csp/CspResult.h"

namespace orvane::csp {

// A size query when pbData is null or *pdwDataLen is 0; a short buffer fails with
// ERROR_MORE_DATA after the failure log line shortLogText + the size; else copies.
inline BOOL answerBytes(const void* value, DWORD size, BYTE* pbData, DWORD* pdwDataLen, const char* shortLogText) {
    if (pbData == nullptr || *pdwDataLen == 0) {
        *pdwDataLen = size;
        return TRUE;
    }
    if (*pdwDataLen < size) {
        *pdwDataLen = size;
        if (shortLogText) Utils::logError(shortLogText + std::to_string(size));
        return failWith(static_cast<DWORD>(ERROR_MORE_DATA));
    }
    std::memcpy(pbData, value, size);
    *pdwDataLen = size;
    return TRUE;
}

inline BOOL answerDword(DWORD value, BYTE* pbData, DWORD* pdwDataLen, const char* shortLogText) {
    return answerBytes(&value, sizeof value, pbData, pdwDataLen, shortLogText);
}

// A 4-byte answer that succeeds whether or not it was written: a missing or short buffer
// gets the size and ERROR_MORE_DATA with TRUE, after the ordinary log line shortLogText.
inline BOOL answerDwordOrMoreData(DWORD value, BYTE* pbData, DWORD* pdwDataLen, const char* shortLogText = nullptr) {
    bool written = pbData != nullptr && *pdwDataLen >= sizeof value;
    if (written) std::memcpy(pbData, &value, sizeof value);
    *pdwDataLen = sizeof value;
    if (written) return TRUE;
    if (shortLogText) Utils::logMessage(shortLogText);
    SetLastError(ERROR_MORE_DATA);
    return TRUE;
}

}  // namespace orvane::csp
