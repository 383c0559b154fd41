// What orvane-check's two halves share: the options, the fate of the PIN given on the command
// line, the message that gets signed, and the checks of each face of the provider.
#pragma once

#include <string>
#include <vector>

#include "tools/orvane-check/Report.h"

namespace check {

using Bytes = std::vector<unsigned char>;

extern const char kProviderName[];

struct Options {
    bool write = false;
    bool pinGiven = false;
    std::string pin;
};

// A wrong PIN uses up one of the token's attempts each time it is tried, so once the token has
// refused the PIN it is not offered again, and nothing that would need it (and so ask for it in
// a dialog) is run.
enum class PinState { kNotGiven, kNotTriedYet, kAccepted, kRefused };

struct Session {
    Options options;
    PinState pin = PinState::kNotGiven;
    Report& report;
};

// The message every check signs.
Bytes testMessage();

// HKLM\Software\Microsoft\Cryptography\Defaults\Provider\<name>: "Image Path" and "Type".
// Returns the image path, empty when the provider is not registered as CryptoAPI needs it.
std::string checkRegistration(Report& report);

// Through advapi32, as an application reaches the provider.
void checkCryptoApi(Session& session);

// Whether a key's certificate is in the current user's "MY" store with key provider
// information that leads to this key, as orvane-certprop binds it: the key storage provider,
// or for an RSA key with propagateRsaToCsp = 1 the CryptoAPI provider under keySpec.
void checkStoreBinding(Report& report, const std::string& container, const Bytes& certificate, bool rsa,
                       unsigned long keySpec);

// Through the module's GetKeyStorageInterface table, as the CNG router reaches it.
void checkKeyStorage(Session& session, const std::string& imagePath);

}  // namespace check
