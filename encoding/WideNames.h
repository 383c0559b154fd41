// Key names arrive from CNG as UTF-16. They are narrowed by keeping the low byte of every
// unit, with no code-page conversion, so that a name compares byte for byte with the
// hexadecimal key ids and the labels the token reports.
#pragma once

#include <string>

namespace orvane {

inline std::string narrowLowBytes(const wchar_t* wide) {
    std::string narrow;
    if (wide == nullptr) return narrow;
    for (; *wide != L'\0'; ++wide) narrow.push_back(static_cast<char>(static_cast<unsigned>(*wide) & 0xFF));
    return narrow;
}

inline std::string narrowLowBytes(const std::wstring& wide) { return narrowLowBytes(wide.c_str()); }

}  // namespace orvane
