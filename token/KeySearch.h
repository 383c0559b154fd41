// Finding key pairs on a token: by container (CryptoAPI), by name (CNG), by key id and by
// what a key pair may be used for. Both faces search through these, never through lists of
// their own.
#pragma once

#include <string>
#include <vector>

#include "token/KeyPairFacts.h"
#include "token/OrvaneDSCLibrary.h"

namespace orvane {

// A copy of the token's key pair list, in token order.
std::vector<OrvaneKeyPair> readKeyPairs(const std::string& serial, void* libraryContext);

// The CryptoAPI container filter: no container name takes every key pair, a name only the
// key pair whose hexadecimal key id it is (case matters).
inline bool inContainer(const OrvaneKeyPair& keyPair, const std::string& containerName) {
    return containerName.empty() || containerNameOf(keyPair) == containerName;
}

// The first key pair whose hexadecimal key id is the name (case matters); null when none is.
const OrvaneKeyPair* findKeyPairByName(const std::vector<OrvaneKeyPair>& keyPairs, const std::string& name);

// The key pair with this 16-byte key id; null when none has it.
const OrvaneKeyPair* findKeyPairById(const std::vector<OrvaneKeyPair>& keyPairs, const unsigned char* keyId);

enum class KeyRole { kSigning, kExchange };

inline bool usageAllows(int64_t usage, KeyRole role) {
    return role == KeyRole::kSigning ? usageAllowsSigning(usage) : usageAllowsExchange(usage);
}

// The role CryptoAPI gives a container's key pair (PP_KEYSPEC, and the AT_ value under which
// CPGetUserKey on that container returns it): an exchange-only key exchanges, a key that may
// sign signs, a key for both purposes signs too. False for a key pair that does neither.
bool containerKeyRole(const OrvaneKeyPair& keyPair, KeyRole& role);

// The first key pair in the container that may be used in this role; null when none may.
const OrvaneKeyPair* findKeyPairFor(const std::vector<OrvaneKeyPair>& keyPairs, const std::string& containerName,
                                    KeyRole role);

// The CryptoAPI signing key of a container: its first key pair that can sign; when the
// container holds key pairs but none of them can sign, the token's last key pair that can.
const OrvaneKeyPair* chooseSigningKeyPair(const std::vector<OrvaneKeyPair>& keyPairs, const std::string& containerName);

// The name is the key pair's upper-case hex key id or its label, exactly.
bool keyPairHasName(const OrvaneKeyPair& keyPair, const std::string& name);

// The first connected token (in list order) holding a key pair of that name; empty when none
// does or nothing is connected. Unlike the CryptoAPI container lookup, case matters and a name
// that matches nothing finds no token. Lists are read with a null library context.
std::string findSerialForKeyName(const std::string& name);

}  // namespace orvane
