// Process-wide state per token serial number: is the device initialised, is a PIN validated
// and which. Shared by the CryptoAPI and CNG faces; outlives every context and provider handle.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace orvane {

struct DeviceSession {
    bool pinValidated = false;
    std::string pin;
    bool deviceInitialized = false;
};

// Each accessor takes the session mutex for its whole body; none calls the token library.
bool isDeviceInitialized(const std::string& serial);
void markDeviceInitialized(const std::string& serial);
bool isPinValidated(const std::string& serial);
std::string getCachedPin(const std::string& serial);
void storeValidatedPin(const std::string& serial, const std::string& pin);
void clearPin(const std::string& serial);
void removeSession(const std::string& serial);
// Erases the entries of every token not in `connected`, in serial order; returns their serials.
std::vector<std::string> removeSessionsExcept(const std::set<std::string>& connected);

// The texts that tell the two faces' logs apart.
struct DeviceInitTexts {
    const char* noToken;         // error line when nothing is connected
    const char* initFailedFor;   // error line prefix before "<serial> : <code>"
};
extern const DeviceInitTexts kCspDeviceInitTexts;
extern const DeviceInitTexts kKspDeviceInitTexts;

// orvane_init, the device monitor, then orvane_initDevice for each connected token not yet
// initialised in this process. False (after the error line) when no token is connected.
bool initializeConnectedDevices(void* libraryContext, const DeviceInitTexts& texts);
// The same, handing back the serials it read (the KSP keeps the first), so no second list call is made.
bool initializeConnectedDevices(void* libraryContext, const DeviceInitTexts& texts, std::vector<std::string>& serials);

// The token holding a key pair whose hex key id equals the name (ignoring case); with no
// name or no match, the first connected token; empty when none is connected.
std::string findSerialForContainer(const std::string& containerName);
// Wide key names are narrowed by taking the low byte of each UTF-16 unit.
std::string findSerialForContainer(const std::wstring& keyName);

}  // namespace orvane
