// The CryptoAPI buffer-size protocol: a null output buffer asks for the size; a buffer
// that is too short gets the size and ERROR_MORE_DATA. The variants differ per parameter.
#pragma once

#include <windows.h>

#include <cstring>
#include <string>

#include "diagnostics/Utils.h"
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

}  // namespace orvane::csp
