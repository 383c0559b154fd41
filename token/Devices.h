// Finding and initialising the connected tokens: the one place that starts the device
// monitor and marks devices initialised in the session table.
#pragma once

#include <string>
#include <vector>

namespace orvane {

// The texts that tell the two faces' logs apart.
struct DeviceInitTexts {
    const char* noToken;         // error line when nothing is connected
    const char* initFailedFor;   // error line prefix before "<serial> : <code>"
};
extern const DeviceInitTexts kCspDeviceInitTexts;
extern const DeviceInitTexts kKspDeviceInitTexts;

// orvane_init, the device monitor, then orvane_initDevice for each connected token not yet
// initialised in this process. False (after the error line) when no token is connected or
// the token library cannot be loaded; no library call is made before this one.
bool initializeConnectedDevices(void* libraryContext, const DeviceInitTexts& texts);
// The same, handing back the serials it read (the KSP keeps the first), so no second list call is made.
bool initializeConnectedDevices(void* libraryContext, const DeviceInitTexts& texts, std::vector<std::string>& serials);

// orvane_initDevice for each listed token not yet initialised in this process (orvane_init
// before each); a failure is logged with texts.initFailedFor and tried again next time.
void initializeListedDevices(const std::vector<std::string>& serials, void* libraryContext,
                             const DeviceInitTexts& texts);

// The token holding a key pair whose hex key id equals the name (ignoring case); with no
// name or no match, the first connected token; empty when none is connected.
std::string findSerialForContainer(const std::string& containerName);
// Wide key names are narrowed by taking the low byte of each UTF-16 unit.
std::string findSerialForContainer(const std::wstring& keyName);

}  // namespace orvane
