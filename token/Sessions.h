// Process-wide state per token serial number: is the device initialised, is a PIN validated
// and which. Shared by the CryptoAPI and CNG faces; outlives every context and provider handle.
// A leaf: it knows nothing of the token library or of the code that fills it.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "token/SecretBytes.h"

namespace orvane {

struct DeviceSession {
    bool pinValidated = false;
    SecretBytes pin;  // kept until the PIN is cleared
    bool deviceInitialized = false;
};

// Each accessor takes the session mutex for its whole body; none calls the token library.
bool isDeviceInitialized(const std::string& serial);
void markDeviceInitialized(const std::string& serial);
bool isPinValidated(const std::string& serial);
SecretBytes getCachedPin(const std::string& serial);
void storeValidatedPin(const std::string& serial, const SecretBytes& pin);
void clearPin(const std::string& serial);
void removeSession(const std::string& serial);
// Erases the entries of every token not in `connected`, in serial order; returns their serials.
std::vector<std::string> removeSessionsExcept(const std::set<std::string>& connected);

}  // namespace orvane
