// The software token's persistent store: every token, key and injected fault, shared by
// all processes that point at the same folder.
//
// Layout of the folder: "state-<generation>.json" (the whole state; the highest generation is
// the current one), "store.lock" (the file lock that serialises writers across processes) and
// "state.tmp" (a write in progress). A writer holding the lock writes state.tmp and renames it
// to the next generation's name: that rename is the only commit point, so a writer dying at
// any moment leaves the old or the new state. It then deletes the older generations.
// The current state file is never replaced in place, because Windows (and Wine) refuse to
// rename over a file that a reader holds open. Readers take no file lock: an unchanged store is
// answered from memory after one look at the commit count that writers share; they list the
// folder when the count moved, or when the folder's change notification (asked every few
// milliseconds, or on every call when none can be set up) fired, and parse only when the newest
// file is not the one they read last.
// StoreFiles holds the folder's files, WriterLock the writers' lock, CommitWatch how readers
// learn of a commit; Store.cpp the cache and the read and update logic over them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "token/SecretBytes.h"

namespace softtoken {

using Bytes = std::vector<unsigned char>;

// Secrets as the store keeps them: the PIN only as PBKDF2-HMAC-SHA256 under a salt of the
// token's own, key bytes only as DPAPI blobs of the user who stored them (softtoken/Secrets.h).
// The legacy fields hold what a store of the old format kept in clear, from its reading until
// Secrets protects it; the state file never holds them.
struct PinHash {
    Bytes salt;
    int iterations = 0;
    Bytes hash;
};

struct KeyPairRecord {
    int index = 0;
    Bytes keyId;
    std::string label;
    int usage = 0;
    int type = 0;
    int flag = 0;
    Bytes certLinkId;
    Bytes publicKey;         // bare big-endian modulus (RSA) or DER SubjectPublicKeyInfo (EC)
    Bytes privateKey;        // protected libgcrypt canonical s-expression
    orvane::SecretBuffer legacyPrivateKey;
};

struct CertificateRecord {
    int index = 0;
    Bytes der;
    Bytes certLinkId;
    std::string label;
};

struct SecretKeyRecord {
    int index = 0;
    Bytes keyId;
    Bytes reference;  // what the token hands out as OrvaneSymmetricKey::keyData
    std::string label;
    int type = 0;
    bool flag = false;
    Bytes value;  // protected
    orvane::SecretBuffer legacyValue;
};

struct TokenRecord {
    std::string serial;
    std::string label;
    PinHash pin;
    orvane::SecretBytes legacyPin;
    int maxRetries = 10;
    int retriesLeft = 10;
    int loginState = 0;
    int ssoState = 0;
    bool plugged = true;
    int nextIndex = 1;
    std::vector<KeyPairRecord> keyPairs;
    std::vector<CertificateRecord> certificates;
    std::vector<SecretKeyRecord> secretKeys;

    bool signedOn() const { return loginState == 1 && ssoState == 1; }
};

struct FaultRecord {
    int remaining = 0;
    int code = 0;
};

struct StoreState {
    uint64_t generation = 0;
    std::vector<TokenRecord> tokens;  // in creation order, which is the connected-list order
    std::map<std::string, FaultRecord> faults;
    // Read from a store of the old format: its secrets are in the legacy fields.
    bool legacy = false;

    TokenRecord* find(const std::string& serial);
    const TokenRecord* find(const std::string& serial) const;
    // A token that exists and is plugged in.
    const TokenRecord* connected(const char* serial) const;
};

// The folder named by ORVANE_TOKEN_STORE, else the user's own %LOCALAPPDATA%\Orvane\SoftToken.
std::string storeFolder();

// The last committed state, shared read-only: unchanged stores cost a look at the commit count only.
using Snapshot = std::shared_ptr<const StoreState>;

// Reads the current state. False (and an empty state) when the store is unreadable.
bool readStore(Snapshot& state);
Snapshot readStore();

// Runs mutate on the freshest committed state under the cross-process lock and commits the
// result when mutate returns 0. Returns mutate's result, or a store error code.
int updateStore(const std::function<int(StoreState&)>& mutate);

// Every library operation calls this first. It counts the call (per process) and, if a fault
// is armed for the operation, uses up one occurrence and returns its code; else 0 and, when
// state is given, the snapshot it looked at.
int consumeFault(const std::string& operation, Snapshot* state = nullptr);
int callCount(const std::string& operation);

}  // namespace softtoken
