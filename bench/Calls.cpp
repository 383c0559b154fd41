#include "bench/Calls.h"

#include <psapi.h>

#include <cstdio>

#include "bench/Stats.h"

namespace orvanebench {

std::string providerName = "Orvane Cryptographic Provider CSP";

void check(bool ok, const std::string& what) {
    if (!ok) die(what, GetLastError());
}

bool parseHex(const std::string& text, unsigned char* out, size_t size) {
    if (text.size() != 2 * size) return false;
    for (size_t i = 0; i < size; ++i) {
        unsigned value = 0;
        if (std::sscanf(text.c_str() + 2 * i, "%2x", &value) != 1) return false;
        out[i] = static_cast<unsigned char>(value);
    }
    return true;
}

std::string toHex(const unsigned char* data, size_t size) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += digits[data[i] >> 4];
        text += digits[data[i] & 15];
    }
    return text;
}

namespace {

bool sameName(const std::string& a, const std::string& b) { return _stricmp(a.c_str(), b.c_str()) == 0; }

}  // namespace

LogLevel::LogLevel() {
    check(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "Software\\Kestrelon\\Orvane", 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key_,
                          nullptr) == ERROR_SUCCESS,
          "opening HKLM\\Software\\Kestrelon\\Orvane");
}

LogLevel::~LogLevel() { RegCloseKey(key_); }

double LogLevel::set(DWORD level) {
    check(RegSetValueExA(key_, "logLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&level), sizeof level) ==
              ERROR_SUCCESS,
          "setting logLevel");
    double start = nowMicros();
    if (probe_ == 0) return 0;
    for (;;) {
        long long before = providerLogSize();
        char name[128];
        DWORD size = sizeof name;
        CryptGetProvParam(probe_, PP_NAME, reinterpret_cast<BYTE*>(name), &size, 0);
        if ((providerLogSize() != before) == (level == 3)) return (nowMicros() - start) / 1000;
        if (nowMicros() - start > 5e6) die("the provider following logLevel " + std::to_string(level) + " within 5 s", 0);
    }
}

// Size of the provider's log file of this process today, to confirm that level 3 writes and level 0 does not.
long long providerLogSize() {
    char temp[MAX_PATH], process[MAX_PATH];
    GetTempPathA(sizeof temp, temp);
    K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, process, sizeof process);
    SYSTEMTIME today;
    GetLocalTime(&today);
    char path[2 * MAX_PATH + 64];
    std::snprintf(path, sizeof path, "%s/Kestrelon/%s/%04d-%02d-%02d.LOG", temp, process, today.wYear, today.wMonth,
                  today.wDay);
    WIN32_FILE_ATTRIBUTE_DATA attributes;
    if (!GetFileAttributesExA(path, GetFileExInfoStandard, &attributes)) return 0;
    return (static_cast<long long>(attributes.nFileSizeHigh) << 32) | attributes.nFileSizeLow;
}

// ---- The token library, called as the provider calls it -------------------------------------

// What CPCreateHash, CPHashData and CPSignHash ask of the library for one hash+sign on a
// container-bound context whose token is signed on (so the PIN check reads the token info).
bool libraryHashAndSign(const TokenKey& key, const Bytes& data, Bytes& signature) {
    void* hash = nullptr;
    if (orvane_initHash(key.serial.c_str(), ORVANE_MECH_SHA256, &hash, nullptr) != 0) return false;
    if (orvane_updateHash(hash, data.data(), static_cast<int>(data.size()), nullptr) != 0) return false;
    unsigned char digest[128];
    int digestLength = sizeof digest;
    if (orvane_finalHash(hash, digest, &digestLength, nullptr) != 0) return false;
    std::vector<OrvaneKeyPair> keyPairs = orvane_getKeyPairList(key.serial.c_str(), nullptr);
    const OrvaneKeyPair* chosen = nullptr;
    for (const OrvaneKeyPair& keyPair : keyPairs)
        if (sameName(toHex(keyPair.keyId, sizeof keyPair.keyId), key.containerName) && (keyPair.keyUsage & 1)) {
            chosen = &keyPair;
            break;
        }
    if (chosen == nullptr) return false;
    TokenInfo info = orvane_getTokenInfo(key.serial.c_str(), nullptr);
    if (info.label.empty() || info.loginState != 1 || info.ssoState != 1) return false;
    signature.resize(1024);
    int signatureLength = static_cast<int>(signature.size());
    if (orvane_signHash(key.serial.c_str(), chosen->keyId, "", digest, digestLength, signature.data(), &signatureLength,
                        false, nullptr) != 0)
        return false;
    signature.resize(static_cast<size_t>(signatureLength));
    return true;
}

// The three calls around the signature, one at a time.
bool libraryHashOnly(const TokenKey& key, const Bytes& data) {
    void* hash = nullptr;
    unsigned char digest[128];
    int digestLength = sizeof digest;
    return orvane_initHash(key.serial.c_str(), ORVANE_MECH_SHA256, &hash, nullptr) == 0 &&
           orvane_updateHash(hash, data.data(), static_cast<int>(data.size()), nullptr) == 0 &&
           orvane_finalHash(hash, digest, &digestLength, nullptr) == 0;
}

bool libraryKeyPairList(const TokenKey& key) { return !orvane_getKeyPairList(key.serial.c_str(), nullptr).empty(); }

bool libraryTokenInfo(const TokenKey& key) { return !orvane_getTokenInfo(key.serial.c_str(), nullptr).label.empty(); }

bool librarySign(const TokenKey& key, const Bytes& digest, Bytes& signature) {
    signature.resize(1024);
    int signatureLength = static_cast<int>(signature.size());
    if (orvane_signHash(key.serial.c_str(), key.keyId, "", digest.data(), static_cast<int>(digest.size()),
                        signature.data(), &signatureLength, false, nullptr) != 0)
        return false;
    signature.resize(static_cast<size_t>(signatureLength));
    return true;
}

bool libraryInfoAndSign(const TokenKey& key, const Bytes& digest, Bytes& signature) {
    TokenInfo info = orvane_getTokenInfo(key.serial.c_str(), nullptr);
    if (info.label.empty() || info.loginState != 1 || info.ssoState != 1) return false;
    return librarySign(key, digest, signature);
}

// ---- CryptoAPI -------------------------------------------------------------------------------

bool cryptoApiHashAndSign(HCRYPTPROV provider, const Bytes& data, Bytes& signature) {
    HCRYPTHASH hash = 0;
    if (!CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash)) return false;
    signature.resize(1024);
    DWORD length = static_cast<DWORD>(signature.size());
    bool ok = CryptHashData(hash, data.data(), static_cast<DWORD>(data.size()), 0) &&
              CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length);
    DWORD error = GetLastError();
    CryptDestroyHash(hash);
    SetLastError(error);
    if (ok) signature.resize(length);
    return ok;
}

HCRYPTPROV acquireOrvane(const char* container, DWORD flags) {
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextA(&provider, container, providerName.c_str(), PROV_RSA_FULL, flags)) return 0;
    return provider;
}

bool cryptoApiAcquireSignRelease(const TokenKey& key, const Bytes& data, Bytes& signature) {
    HCRYPTPROV provider = acquireOrvane(key.containerName.c_str());
    if (provider == 0) return false;
    bool ok = cryptoApiHashAndSign(provider, data, signature);
    DWORD error = GetLastError();
    CryptReleaseContext(provider, 0);
    SetLastError(error);
    return ok;
}

// ---- The key storage provider's table --------------------------------------------------------

Ksp openKsp() {
    Ksp ksp;
    HMODULE module = LoadLibraryA("OrvaneCSP.dll");
    using GetInterface = NTSTATUS(WINAPI*)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE**, DWORD);
    auto getInterface = module ? reinterpret_cast<GetInterface>(
                                     reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")))
                               : nullptr;
    std::wstring name(providerName.begin(), providerName.end());
    if (getInterface == nullptr || getInterface(name.c_str(), &ksp.table, 0) != 0)
        die("GetKeyStorageInterface", GetLastError());
    if (SECURITY_STATUS status = ksp.table->OpenProvider(&ksp.provider, name.c_str(), 0))
        die("KSPOpenProvider", static_cast<unsigned long>(status));
    return ksp;
}

NCRYPT_KEY_HANDLE openKspKey(const Ksp& ksp, const TokenKey& key) {
    NCRYPT_KEY_HANDLE handle = 0;
    std::wstring name(key.containerName.begin(), key.containerName.end());
    if (SECURITY_STATUS status = ksp.table->OpenKey(ksp.provider, &handle, name.c_str(), 0, 0))
        die("KSPOpenKey " + key.containerName, static_cast<unsigned long>(status));
    return handle;
}

bool kspSign(const Ksp& ksp, NCRYPT_KEY_HANDLE handle, bool ecdsa, const Bytes& digest, Bytes& signature) {
    BCRYPT_PKCS1_PADDING_INFO padding = {BCRYPT_SHA256_ALGORITHM};
    signature.resize(1024);
    DWORD size = 0;
    SECURITY_STATUS status = ksp.table->SignHash(ksp.provider, handle, ecdsa ? nullptr : &padding,
                                                 const_cast<PBYTE>(digest.data()), static_cast<DWORD>(digest.size()),
                                                 signature.data(), static_cast<DWORD>(signature.size()), &size,
                                                 ecdsa ? 0 : BCRYPT_PAD_PKCS1);
    if (status != 0) {
        SetLastError(static_cast<DWORD>(status));
        return false;
    }
    signature.resize(size);
    return true;
}

TokenKey tokenKey(const std::string& serial, const std::string& keyIdHex, bool ecdsa) {
    TokenKey key;
    key.serial = serial;
    key.containerName = keyIdHex;
    key.ecdsa = ecdsa;
    if (!parseHex(keyIdHex, key.keyId, sizeof key.keyId)) die("key id " + keyIdHex + " is not 32 hex digits", 0);
    return key;
}

}  // namespace orvanebench
