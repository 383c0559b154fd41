#include "token/KeySearch.h"

#include <vector>

#include "token/KeyPairFacts.h"

namespace orvane {

bool keyPairHasName(const OrvaneKeyPair& keyPair, const std::string& name) {
    return containerNameOf(keyPair) == name || labelOf(keyPair) == name;
}

std::string findSerialForKeyName(const std::string& name) {
    std::vector<std::string> serials = orvane_getConnectedDeviceList(false, nullptr);
    for (const std::string& serial : serials) {
        std::vector<OrvaneKeyPair> keyPairs = orvane_getKeyPairList(serial.c_str(), nullptr);
        for (const OrvaneKeyPair& keyPair : keyPairs)
            if (keyPairHasName(keyPair, name)) return serial;
    }
    return std::string();
}

}  // namespace orvane
