// The operations the benchmark times, shared by orvane-bench (over the software token) and
// orvane-bench-null (over a token library that does nothing): the token library called as
// the provider calls it, CryptoAPI through the provider, and the key storage provider's table.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <string>
#include <vector>

#include "provider/ksp/KspInterface.h"
#include "token/OrvaneDSCLibrary.h"

namespace orvanebench {

using Bytes = std::vector<unsigned char>;

// The CryptoAPI name the provider is registered under for this program.
extern std::string providerName;

void check(bool ok, const std::string& what);
bool parseHex(const std::string& text, unsigned char* out, size_t size);
std::string toHex(const unsigned char* data, size_t size);

// The provider's log level, set between timed calls (never inside one). The provider learns of
// a change a moment after it: with a probe context, set() returns only once a provider call on
// it follows the new level (3: its line is written; otherwise not), and answers how long that
// took in milliseconds, the last probe call included.
class LogLevel {
public:
    LogLevel();
    ~LogLevel();
    void probeWith(HCRYPTPROV context) { probe_ = context; }
    double set(DWORD level);

private:
    HKEY key_ = nullptr;
    HCRYPTPROV probe_ = 0;
};

// Size of the provider's log file of this process today.
long long providerLogSize();

struct TokenKey {
    std::string serial;
    std::string containerName;  // hex key id, as CryptoAPI names the container
    unsigned char keyId[16] = {};
    bool ecdsa = false;
};
TokenKey tokenKey(const std::string& serial, const std::string& keyIdHex, bool ecdsa);

// What CPCreateHash, CPHashData and CPSignHash ask of the library for one hash+sign on a
// container-bound context whose token is signed on (so the PIN check reads the token info).
bool libraryHashAndSign(const TokenKey& key, const Bytes& data, Bytes& signature);
bool libraryHashOnly(const TokenKey& key, const Bytes& data);
bool libraryKeyPairList(const TokenKey& key);
bool libraryTokenInfo(const TokenKey& key);
bool librarySign(const TokenKey& key, const Bytes& digest, Bytes& signature);
// What KSPSignHash asks of the library on a token signed on: the token info, then the signature.
bool libraryInfoAndSign(const TokenKey& key, const Bytes& digest, Bytes& signature);

bool cryptoApiHashAndSign(HCRYPTPROV provider, const Bytes& data, Bytes& signature);
HCRYPTPROV acquireOrvane(const char* container, DWORD flags = 0);
bool cryptoApiAcquireSignRelease(const TokenKey& key, const Bytes& data, Bytes& signature);

struct Ksp {
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    NCRYPT_PROV_HANDLE provider = 0;
};
Ksp openKsp();
NCRYPT_KEY_HANDLE openKspKey(const Ksp& ksp, const TokenKey& key);
bool kspSign(const Ksp& ksp, NCRYPT_KEY_HANDLE handle, bool ecdsa, const Bytes& digest, Bytes& signature);

}  // namespace orvanebench
