// "SmartCardPin", set on the provider or on a key: the same PIN check either way.
#pragma once

#include <windows.h>
#include <ncrypt.h>

#include <string>

#include "encoding/ProviderPropertyValues.h"
#include "provider/ksp/KspObjects.h"
#include "token/Pin.h"

namespace orvane::ksp {

// A null value is refused; otherwise the token checks the PIN, which is cached when accepted.
inline SECURITY_STATUS acceptPinProperty(const KspProvider& provider, PBYTE pbInput, DWORD cbInput) {
    if (pbInput == nullptr) return NTE_INVALID_PARAMETER;
    SecretBytes pin(properties::pinFromPropertyValue(pbInput, cbInput));
    return acceptCallerPin(provider.serialNumber, pin, provider.libraryContext, kKspPinTexts) == 0
               ? ERROR_SUCCESS
               : NTE_VALIDATION_FAILED;
}

}  // namespace orvane::ksp
