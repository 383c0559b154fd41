// The provider's one name: the CryptoAPI provider name, the CNG provider name it registers
// under and the name both faces report.
#pragma once

#include <cstddef>

namespace orvane {

inline constexpr char kProviderName[] = "Orvane Cryptographic Provider CSP";

template <size_t Size>
struct WideText {
    wchar_t text[Size];
};

// The ASCII name widened unit by unit, at compile time.
template <size_t Size>
constexpr WideText<Size> widen(const char (&ascii)[Size]) {
    WideText<Size> wide{};
    for (size_t i = 0; i < Size; ++i) wide.text[i] = static_cast<wchar_t>(ascii[i]);
    return wide;
}

inline constexpr WideText<sizeof kProviderName> kProviderNameWide = widen(kProviderName);

}  // namespace orvane
