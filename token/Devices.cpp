#include "token/Devices.h"

#include "diagnostics/Log.h"
#include "encoding/WideNames.h"
#include "token/DeviceMonitor.h"
#include "token/KeyPairFacts.h"
#include "token/LibraryLoader.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/Sessions.h"

namespace orvane {
namespace {

bool equalIgnoringCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 'a' + 'A');
        if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 'a' + 'A');
        if (x != y) return false;
    }
    return true;
}

}  // namespace

const DeviceInitTexts kCspDeviceInitTexts = {"Valid token not connected", "Init device failed for "};
const DeviceInitTexts kKspDeviceInitTexts = {"KSP: No valid token connected", "KSP: Init device failed for "};

bool initializeConnectedDevices(void* libraryContext, const DeviceInitTexts& texts) {
    std::vector<std::string> serials;
    return initializeConnectedDevices(libraryContext, texts, serials);
}

bool initializeConnectedDevices(void* libraryContext, const DeviceInitTexts& texts, std::vector<std::string>& serials) {
    // Without the library beside the provider there is no token to reach.
    if (!tokenLibraryAvailable()) {
        serials.clear();
        Utils::logError(texts.noToken);
        return false;
    }
    orvane_init(0, nullptr, 2);
    startDeviceMonitor();
    serials = orvane_getConnectedDeviceList(false, libraryContext);
    if (serials.empty()) {
        Utils::logError(texts.noToken);
        return false;
    }
    initializeListedDevices(serials, libraryContext, texts);
    return true;
}

void initializeListedDevices(const std::vector<std::string>& serials, void* libraryContext,
                             const DeviceInitTexts& texts) {
    for (const std::string& serial : serials) {
        if (isDeviceInitialized(serial)) continue;
        orvane_init(0, nullptr, 2);
        int result = orvane_initDevice(serial.c_str(), false, libraryContext);
        if (result != 0) {
            Utils::logError(texts.initFailedFor + serial + " : " + std::to_string(result));
            continue;
        }
        markDeviceInitialized(serial);
    }
}

std::string findSerialForContainer(const std::string& containerName) {
    std::vector<std::string> serials = orvane_getConnectedDeviceList(false, nullptr);
    if (serials.empty()) return std::string();
    if (containerName.empty()) return serials.front();
    for (const std::string& serial : serials) {
        std::vector<OrvaneKeyPair> keyPairs = orvane_getKeyPairList(serial.c_str(), nullptr);
        for (const OrvaneKeyPair& keyPair : keyPairs)
            if (equalIgnoringCase(containerNameOf(keyPair), containerName)) return serial;
    }
    return serials.front();
}

std::string findSerialForContainer(const std::wstring& keyName) { return findSerialForContainer(narrowLowBytes(keyName)); }

}  // namespace orvane
