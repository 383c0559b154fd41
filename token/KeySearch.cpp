#include "token/KeySearch.h"

#include <cstring>

namespace orvane {

std::vector<OrvaneKeyPair> readKeyPairs(const std::string& serial, void* libraryContext) {
    return orvane_getKeyPairList(serial.c_str(), libraryContext);
}

const OrvaneKeyPair* findKeyPairByName(const std::vector<OrvaneKeyPair>& keyPairs, const std::string& name) {
    for (const OrvaneKeyPair& keyPair : keyPairs)
        if (containerNameOf(keyPair) == name) return &keyPair;
    return nullptr;
}

const OrvaneKeyPair* findKeyPairById(const std::vector<OrvaneKeyPair>& keyPairs, const unsigned char* keyId) {
    for (const OrvaneKeyPair& keyPair : keyPairs)
        if (std::memcmp(keyPair.keyId, keyId, kKeyIdLength) == 0) return &keyPair;
    return nullptr;
}

bool containerKeyRole(const OrvaneKeyPair& keyPair, KeyRole& role) {
    if (keyPair.keyUsage == kUsageExchange)
        role = KeyRole::kExchange;
    else if (usageAllowsSigning(keyPair.keyUsage))
        role = KeyRole::kSigning;
    else
        return false;
    return true;
}

const OrvaneKeyPair* findKeyPairFor(const std::vector<OrvaneKeyPair>& keyPairs, const std::string& containerName,
                                    KeyRole role) {
    for (const OrvaneKeyPair& keyPair : keyPairs)
        if (inContainer(keyPair, containerName) && usageAllows(keyPair.keyUsage, role)) return &keyPair;
    return nullptr;
}

const OrvaneKeyPair* chooseSigningKeyPair(const std::vector<OrvaneKeyPair>& keyPairs, const std::string& containerName) {
    bool containerHasKeys = false;
    for (const OrvaneKeyPair& keyPair : keyPairs) {
        if (!inContainer(keyPair, containerName)) continue;
        containerHasKeys = true;
        if (usageAllowsSigning(keyPair.keyUsage)) return &keyPair;
    }
    const OrvaneKeyPair* last = nullptr;
    if (containerHasKeys)
        for (const OrvaneKeyPair& keyPair : keyPairs)
            if (usageAllowsSigning(keyPair.keyUsage)) last = &keyPair;
    return last;
}

bool keyPairHasName(const OrvaneKeyPair& keyPair, const std::string& name) {
    return containerNameOf(keyPair) == name || labelOf(keyPair) == name;
}

std::string findSerialForKeyName(const std::string& name) {
    std::vector<std::string> serials = orvane_getConnectedDeviceList(false, nullptr);
    for (const std::string& serial : serials) {
        std::vector<OrvaneKeyPair> keyPairs = readKeyPairs(serial, nullptr);
        for (const OrvaneKeyPair& keyPair : keyPairs)
            if (keyPairHasName(keyPair, name)) return serial;
    }
    return std::string();
}

}  // namespace orvane
