// The software token's secrets at rest. The PIN is kept only as PBKDF2-HMAC-SHA256 under a
// random salt of the token's own, with its iteration count beside it so that the count can be
// raised later (a PIN accepted under a lower count is hashed again). Private and secret key
// bytes are kept only as DPAPI blobs of the user who stored them, as Windows' own software key
// storage keeps its keys; they are in clear only in a wiping holder, while in use.
#pragma once

#include <cstddef>
#include <string>

#include "softtoken/Store.h"
#include "token/SecretBytes.h"

namespace softtoken {

// The iteration count for a PIN hashed now: NIST SP 800-63B asks for at least 10,000 for
// PBKDF2. A check costs about 20 ms under Wine, once per PIN check of an operation (a token
// signed on in Token Manager needs none). No count protects a 4-digit PIN from a search by
// someone who has the file: what keeps the file from others is the profile's access list.
extern const int kPinIterations;

// A new hash of the PIN under a fresh salt.
PinHash hashPin(const char* pin, size_t length);

// A PIN given for one operation. Its hash under a record's salt is kept for the operation's
// life only, so that the check made before the store's writer lock and the one under it
// derive once.
class PinCheck {
public:
    explicit PinCheck(const char* pin) : pin_(pin) {}
    const char* text() const { return pin_; }
    // Compared in constant time. A null PIN or an incomplete record never matches.
    bool matches(const PinHash& stored) const;

private:
    const char* pin_;
    mutable Bytes salt_;
    mutable int iterations_ = 0;
    mutable orvane::SecretBuffer derived_;
};

// Key bytes protected for the current user (CryptProtectData, user scope, no UI), and back.
// Unprotecting fails for another user's blob and for a damaged one.
bool protectSecret(const unsigned char* data, size_t length, Bytes& sealed);
bool unprotectSecret(const Bytes& sealed, orvane::SecretBuffer& clear);

// parseStoreText, then the secrets of an old-format file hashed and protected at once; such a
// state keeps `legacy` set, so that the store writes it again in the new format.
bool readStateText(const std::string& text, StoreState& state, std::string& reason);

}  // namespace softtoken
