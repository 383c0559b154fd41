// Creating objects on a token: shared by the library operations (which need the PIN or a
// sign-on) and the administration interface (which does not).
#pragma once

#include "softtoken/Secrets.h"
#include "softtoken/Store.h"

namespace softtoken {

struct Access {
    bool administrative = false;
    PinCheck pin{nullptr};  // checked unless administrative
};

// key carries type (0 = RSA 2048), usage, flag and label; receives id, index and public key.
int addKeyPair(const char* serial, const Access& access, KeyPairRecord& key);
// record carries der and optionally certLinkId and label; a missing link and label are
// taken from the key pair with the same public key. linkedKeyId receives that key's id.
int addCertificate(const char* serial, const Access& access, CertificateRecord& record, Bytes* linkedKeyId = nullptr);
// secret carries type, flag and label; receives id, reference, index and value, protected.
int addSecretKey(const char* serial, const Access& access, SecretKeyRecord& secret, const orvane::SecretBuffer& value);

// A private-key operation may go ahead when the token is signed on, or the PIN is right
// and not locked. Only orvane_validatePassword counts wrong tries.
int authorise(const TokenRecord& token, const PinCheck& pin);
// The PIN argument of the last private-key operation in this process.
std::string lastPinReceived();

}  // namespace softtoken
