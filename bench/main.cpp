// orvane-bench: measures, side by side in one process, what a signature costs through the
// token library directly, through CryptoAPI with the provider, through the key storage
// provider's table, through Wine's rsaenh and through libgcrypt alone; then what a context
// costs as the token holds more key pairs, and how long a store update waits beside signers.
//
//   orvane-bench SERIAL RSA2048_KEYID P256_KEYID [ROUNDS]
//
// Each round runs every variant once (starting at a different variant each round), so slow
// drift of the machine hits all variants alike; ratios are medians of per-round ratios.
#include <windows.h>
#include <wincrypt.h>

#include <gcrypt.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <psapi.h>
#include <string>
#include <thread>
#include <vector>

#include "bench/Stats.h"
#include "provider/ksp/KspInterface.h"
#include "softtoken/SoftTokenAdmin.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanebench;

namespace {

using Bytes = std::vector<unsigned char>;

const char kProviderName[] = "Orvane Cryptographic Provider CSP";
const wchar_t kProviderNameW[] = L"Orvane Cryptographic Provider CSP";
const DWORD kProviderType = PROV_RSA_FULL;
const size_t kDataSize = 1024;

[[noreturn]] void die(const std::string& what, unsigned long code) {
    std::fprintf(stderr, "orvane-bench: %s failed (0x%08lX)\n", what.c_str(), code);
    std::exit(1);
}

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

bool sameName(const std::string& a, const std::string& b) { return _stricmp(a.c_str(), b.c_str()) == 0; }

// The provider's log level, set between variants (never inside a timed call).
class LogLevel {
public:
    LogLevel() {
        check(RegCreateKeyExA(HKEY_LOCAL_MACHINE, "Software\\Kestrelon\\Orvane", 0, nullptr, 0, KEY_SET_VALUE, nullptr,
                              &key_, nullptr) == ERROR_SUCCESS,
              "opening HKLM\\Software\\Kestrelon\\Orvane");
    }
    ~LogLevel() { RegCloseKey(key_); }
    void set(DWORD level) {
        check(RegSetValueExA(key_, "logLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&level), sizeof level) ==
                  ERROR_SUCCESS,
              "setting logLevel");
    }

private:
    HKEY key_ = nullptr;
};

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

struct TokenKey {
    std::string serial;
    std::string containerName;  // hex key id, as CryptoAPI names the container
    unsigned char keyId[16] = {};
    bool ecdsa = false;
};

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

HCRYPTPROV acquireOrvane(const char* container, DWORD flags = 0) {
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextA(&provider, container, kProviderName, kProviderType, flags)) return 0;
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

// Wine's own provider with a 2048-bit signature key it generated in memory.
HCRYPTPROV openRsaenh() {
    HCRYPTPROV provider = 0;
    HCRYPTKEY key = 0;
    if (CryptAcquireContextA(&provider, nullptr, MS_ENH_RSA_AES_PROV_A, PROV_RSA_AES, CRYPT_VERIFYCONTEXT) &&
        CryptGenKey(provider, AT_SIGNATURE, 2048u << 16, &key)) {
        CryptDestroyKey(key);
        return provider;
    }
    die("rsaenh context with a generated RSA-2048 key", GetLastError());
}

// ---- The key storage provider's table --------------------------------------------------------

struct Ksp {
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* table = nullptr;
    NCRYPT_PROV_HANDLE provider = 0;
};

Ksp openKsp() {
    Ksp ksp;
    HMODULE module = LoadLibraryA("OrvaneCSP.dll");
    using GetInterface = NTSTATUS(WINAPI*)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE**, DWORD);
    auto getInterface = module ? reinterpret_cast<GetInterface>(
                                     reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")))
                               : nullptr;
    if (getInterface == nullptr || getInterface(kProviderNameW, &ksp.table, 0) != 0)
        die("GetKeyStorageInterface", GetLastError());
    if (SECURITY_STATUS status = ksp.table->OpenProvider(&ksp.provider, kProviderNameW, 0))
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

// ---- libgcrypt, the floor --------------------------------------------------------------------

gcry_sexp_t generateGcryptKey(const char* parameters) {
    gcry_sexp_t request = nullptr, pair = nullptr;
    if (gcry_sexp_new(&request, parameters, 0, 1) || gcry_pk_genkey(&pair, request)) die("gcry_pk_genkey", 0);
    gcry_sexp_release(request);
    gcry_sexp_t secret = gcry_sexp_find_token(pair, "private-key", 0);
    gcry_sexp_release(pair);
    return secret;
}

bool gcryptSign(gcry_sexp_t secret, bool ecdsa, const Bytes& digest) {
    gcry_sexp_t data = nullptr, signature = nullptr;
    gcry_error_t error =
        ecdsa ? gcry_sexp_build(&data, nullptr, "(data (flags raw) (value %b))", static_cast<int>(digest.size()),
                                digest.data())
              : gcry_sexp_build(&data, nullptr, "(data (flags pkcs1) (hash sha256 %b))",
                                static_cast<int>(digest.size()), digest.data());
    if (!error) error = gcry_pk_sign(&signature, data, secret);
    gcry_sexp_release(data);
    gcry_sexp_release(signature);
    return !error;
}

// ---- Rounds ----------------------------------------------------------------------------------

struct Variant {
    std::string name;
    std::function<bool()> run;
    std::function<void()> before;  // untimed set-up, e.g. the log level
    std::function<void()> after;
    std::vector<double> samples;
};

// Every round runs each variant once; the starting variant moves on each round.
void runRounds(std::vector<Variant>& variants, int rounds) {
    for (Variant& variant : variants) variant.samples.reserve(static_cast<size_t>(rounds));
    size_t count = variants.size();
    for (int round = 0; round < rounds; ++round) {
        for (size_t step = 0; step < count; ++step) {
            Variant& variant = variants[(static_cast<size_t>(round) + step) % count];
            if (variant.before) variant.before();
            double start = nowMicros();
            bool ok = variant.run();
            double elapsed = nowMicros() - start;
            if (!ok) die(variant.name + " (round " + std::to_string(round) + ")", GetLastError());
            if (variant.after) variant.after();
            variant.samples.push_back(elapsed);
        }
    }
}

Variant* find(std::vector<Variant>& variants, const std::string& name) {
    for (Variant& variant : variants)
        if (variant.name == name) return &variant;
    die("no variant " + name, 0);
}

Row row(std::vector<Variant>& variants, const std::string& name, const std::string& display,
        const std::string& numerator = "", const std::string& denominator = "", const std::string& ratioOf = "") {
    Variant* self = find(variants, name);
    Row result;
    result.variant = display;
    result.medianMicros = median(self->samples);
    result.p99Micros = percentile(self->samples, 99);
    if (!denominator.empty()) {
        result.ratio = pairedRatio(find(variants, numerator.empty() ? name : numerator)->samples,
                                   find(variants, denominator)->samples);
        result.ratioOf = ratioOf;
    }
    return result;
}

TokenKey tokenKey(const std::string& serial, const std::string& keyIdHex, bool ecdsa) {
    TokenKey key;
    key.serial = serial;
    key.containerName = keyIdHex;
    key.ecdsa = ecdsa;
    if (!parseHex(keyIdHex, key.keyId, sizeof key.keyId)) die("key id " + keyIdHex + " is not 32 hex digits", 0);
    return key;
}

// ---- Phase 1: a signature, every way -------------------------------------------------------

void signingPhase(const TokenKey& rsa, const TokenKey& ec, int rounds, LogLevel& logLevel) {
    Bytes data(kDataSize);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 131 + 7);
    Bytes digest(32);
    gcry_md_hash_buffer(GCRY_MD_SHA256, digest.data(), data.data(), data.size());

    logLevel.set(0);
    HCRYPTPROV heldRsa = acquireOrvane(rsa.containerName.c_str());
    check(heldRsa != 0, "CryptAcquireContext on the RSA container");
    HCRYPTPROV heldEc = acquireOrvane(ec.containerName.c_str());
    check(heldEc != 0, "CryptAcquireContext on the P-256 container");
    HCRYPTPROV rsaenh = openRsaenh();
    Ksp ksp = openKsp();
    NCRYPT_KEY_HANDLE kspRsa = openKspKey(ksp, rsa);
    NCRYPT_KEY_HANDLE kspP256 = openKspKey(ksp, ec);
    std::printf("Generating the libgcrypt floor keys (RSA-2048, P-256)...\n");
    std::fflush(stdout);
    gcry_sexp_t gcryRsa = generateGcryptKey("(genkey (rsa (nbits 4:2048)))");
    gcry_sexp_t gcryEc = generateGcryptKey("(genkey (ecc (curve \"NIST P-256\")))");

    // PKCS#1 v1.5 is deterministic: the library's and CryptoAPI's signatures must agree (byte order aside).
    Bytes direct, viaCryptoApi;
    check(libraryHashAndSign(rsa, data, direct), "library hash+sign (RSA)");
    check(cryptoApiHashAndSign(heldRsa, data, viaCryptoApi), "CryptoAPI hash+sign (RSA)");
    Bytes reversed(viaCryptoApi.rbegin(), viaCryptoApi.rend());
    if (direct.size() != 256 || reversed != direct) die("comparing the library's and CryptoAPI's RSA signatures", 0);

    Bytes sink;
    auto level3 = [&] { logLevel.set(3); };
    auto level0 = [&] { logLevel.set(0); };
    std::vector<Variant> v;
    for (const TokenKey* key : {&rsa, &ec}) {
        std::string tag = key->ecdsa ? "ec " : "rsa ";
        HCRYPTPROV held = key->ecdsa ? heldEc : heldRsa;
        NCRYPT_KEY_HANDLE kspKey = key->ecdsa ? kspP256 : kspRsa;
        gcry_sexp_t gcryKey = key->ecdsa ? gcryEc : gcryRsa;
        v.push_back({tag + "library", [&, key] { return libraryHashAndSign(*key, data, sink); }, {}, {}, {}});
        v.push_back({tag + "capi0", [&, held] { return cryptoApiHashAndSign(held, data, sink); }, {}, {}, {}});
        v.push_back({tag + "capi3", [&, held] { return cryptoApiHashAndSign(held, data, sink); }, level3, level0, {}});
        v.push_back({tag + "acquire", [&, key] { return cryptoApiAcquireSignRelease(*key, data, sink); }, {}, {}, {}});
        v.push_back({tag + "ksp", [&, key, kspKey] { return kspSign(ksp, kspKey, key->ecdsa, digest, sink); }, {}, {}, {}});
        v.push_back({tag + "libsign", [&, key] { return librarySign(*key, digest, sink); }, {}, {}, {}});
        v.push_back({tag + "gcrypt", [&, key, gcryKey] { return gcryptSign(gcryKey, key->ecdsa, digest); }, {}, {}, {}});
    }
    v.push_back({"rsa rsaenh", [&] { return cryptoApiHashAndSign(rsaenh, data, sink); }, {}, {}, {}});
    // The short library calls get rounds of their own: right after a signature, the first
    // call that waits for wineserver pays tens of microseconds more, whichever call it is.
    std::vector<Variant> calls;
    for (const TokenKey* key : {&rsa, &ec})
        calls.push_back({std::string(key->ecdsa ? "ec " : "rsa ") + "libhash", [&, key] { return libraryHashOnly(*key, data); },
                         {}, {}, {}});
    calls.push_back({"tokeninfo", [&] { return libraryTokenInfo(rsa); }, {}, {}, {}});
    calls.push_back({"keypairs", [&] { return libraryKeyPairList(rsa); }, {}, {}, {}});

    // One pass at each level first, to confirm that the level reaches the log writer.
    long long before = providerLogSize();
    check(cryptoApiHashAndSign(heldRsa, data, sink), "CryptoAPI hash+sign at level 0");
    long long atLevel0 = providerLogSize() - before;
    level3();
    before = providerLogSize();
    check(cryptoApiHashAndSign(heldRsa, data, sink), "CryptoAPI hash+sign at level 3");
    long long atLevel3 = providerLogSize() - before;
    level0();
    std::printf("Provider log per CryptoAPI hash+sign: %lld bytes at level 0, %lld bytes at level 3\n", atLevel0,
                atLevel3);
    if (atLevel0 != 0 || atLevel3 == 0) std::printf("NOTE: the log level did not take effect as expected\n");

    std::printf("Signing rounds: %d (each round runs all %zu variants once)...\n", rounds, v.size());
    std::fflush(stdout);
    double start = nowMicros();
    runRounds(v, rounds);
    runRounds(calls, rounds);
    std::printf("Signing rounds took %.1f s\n", (nowMicros() - start) / 1e6);

    for (const char* tag : {"rsa ", "ec "}) {
        std::string t = tag;
        bool isRsa = t == "rsa ";
        std::string title = isRsa ? "RSA-2048, SHA-256 over 1 KiB (" : "P-256, SHA-256 over 1 KiB (";
        title += std::to_string(rounds) + " rounds)";
        std::vector<Row> rows = {
            row(v, t + "library", "library calls direct (hash+sign, as the CSP)"),
            row(v, t + "capi0", "CryptoAPI held context, log 0", "", t + "library", "provider overhead: / library calls"),
            row(v, t + "capi3", "CryptoAPI held context, log 3", "", t + "capi0", "/ log 0"),
            row(v, t + "acquire", "CryptoAPI acquire+sign+release", "", t + "capi0", "/ held context"),
            row(v, t + "ksp", "KSP SignHash, held key (digest given)", "", t + "libsign", "/ orvane_signHash alone"),
            row(v, t + "libsign", "orvane_signHash alone (digest given)", "", t + "gcrypt", "token sign / libgcrypt"),
            row(calls, t + "libhash", "orvane_initHash+updateHash+finalHash (1 KiB)"),
        };
        if (isRsa)
            rows.push_back(row(v, "rsa rsaenh", "Wine rsaenh held context (own 2048-bit key)", "rsa capi0",
                               "rsa rsaenh", "ours (log 0) / rsaenh"));
        rows.push_back(row(v, t + "gcrypt", isRsa ? "libgcrypt PKCS#1 sign (floor)" : "libgcrypt ECDSA sign (floor)"));
        if (isRsa) {
            rows.push_back(row(calls, "keypairs", "orvane_getKeyPairList alone (2 key pairs)"));
            rows.push_back(row(calls, "tokeninfo", "orvane_getTokenInfo alone"));
        }
        printTable(title, rows);
    }

    gcry_sexp_release(gcryRsa);
    gcry_sexp_release(gcryEc);
    ksp.table->FreeKey(ksp.provider, kspRsa);
    ksp.table->FreeKey(ksp.provider, kspP256);
    ksp.table->FreeProvider(ksp.provider);
    CryptReleaseContext(rsaenh, 0);
    // heldRsa and heldEc stay open: they keep the provider loaded for the later phases, as
    // in a process that already uses it.
}

// ---- Phase 2: a store update beside eight signers --------------------------------------------

void storeUpdatePhase(const TokenKey& rsa, int rounds) {
    const int kThreads = 8;
    Bytes digest(32, 0x5A);
    std::atomic<bool> stop{false}, paused{true};
    std::atomic<int> inFlight{0};
    std::atomic<long> signatures{0}, failures{0};
    std::vector<std::thread> signers;
    for (int i = 0; i < kThreads; ++i)
        signers.emplace_back([&] {
            Bytes signature;
            while (!stop) {
                if (paused) {
                    Sleep(1);
                    continue;
                }
                ++inFlight;
                if (!paused) {
                    if (librarySign(rsa, digest, signature))
                        ++signatures;
                    else
                        ++failures;
                }
                --inFlight;
            }
        });

    std::vector<double> idle, busy;
    std::printf("\nStore update rounds: %d (setPlugged with signers paused, then with 8 signing)...\n", rounds);
    std::fflush(stdout);
    for (int round = 0; round < rounds; ++round) {
        paused = true;
        while (inFlight != 0) Sleep(1);
        double start = nowMicros();
        if (softtoken::admin::setPlugged(rsa.serial, true) != 0) die("setPlugged (idle)", 0);
        idle.push_back(nowMicros() - start);

        paused = false;
        Sleep(15);  // every signer is inside a signature by now
        start = nowMicros();
        if (softtoken::admin::setPlugged(rsa.serial, true) != 0) die("setPlugged (busy)", 0);
        busy.push_back(nowMicros() - start);
    }
    stop = true;
    paused = false;
    for (std::thread& signer : signers) signer.join();

    Row quiet{"store update, signers paused", median(idle), percentile(idle, 99), -1, ""};
    Row loaded{"store update, 8 threads signing", median(busy), percentile(busy, 99), pairedRatio(busy, idle),
               "/ signers paused"};
    printTable("Store update wait (setPlugged), " + std::to_string(rounds) + " rounds; " +
                   std::to_string(signatures.load()) + " signatures beside it, " + std::to_string(failures.load()) +
                   " failed",
               {quiet, loaded});
    if (failures != 0) std::printf("NOTE: signatures failed while the store was updated\n");
}

// ---- Phase 3: contexts as the token holds more key pairs -------------------------------------

bool enumerateContainers(HCRYPTPROV provider, size_t& names) {
    names = 0;
    char name[256];
    for (DWORD flags = CRYPT_FIRST;; flags = CRYPT_NEXT) {
        DWORD size = sizeof name;
        if (!CryptGetProvParam(provider, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &size, flags)) break;
        ++names;
    }
    return GetLastError() == ERROR_NO_MORE_ITEMS;
}

bool acquireEnumerateRelease(size_t& names) {
    HCRYPTPROV provider = acquireOrvane(nullptr, CRYPT_VERIFYCONTEXT);
    if (provider == 0) return false;
    bool ended = enumerateContainers(provider, names);
    DWORD error = GetLastError();
    CryptReleaseContext(provider, 0);
    SetLastError(ended ? 0 : error);
    return ended;
}

// Median over rounds of (high[i] - low[i]) / keyPairsAdded: the cost of one more key pair.
double pairedSlope(const std::vector<double>& high, const std::vector<double>& low, size_t keyPairsAdded) {
    std::vector<double> slopes;
    for (size_t i = 0; i < high.size() && i < low.size(); ++i)
        slopes.push_back((high[i] - low[i]) / static_cast<double>(keyPairsAdded));
    return median(slopes);
}

Row slopeRow(const std::string& label, size_t from, size_t to, double micros, const std::string& how) {
    Row r;
    r.variant = label + " per key pair, " + std::to_string(from) + "->" + std::to_string(to);
    r.medianMicros = micros;
    r.ratioOf = how;
    return r;
}

void keyCountPhase(const TokenKey& rsa, int rounds, LogLevel& logLevel) {
    const size_t kCounts[] = {2, 20, 100};
    std::vector<Row> rows;
    std::map<size_t, double> acquireAt, acquireAtLevel3, enumerateAt;
    std::vector<size_t> actual;
    // Contexts opened at each count; each lists the containers it saw at acquire, so their
    // enumerations can alternate in one set of rounds once all counts exist.
    std::vector<HCRYPTPROV> heldAtCount;
    std::printf("\nKey-count rounds: %d per count (log 0, and acquire+release at log 3)...\n", rounds);
    std::fflush(stdout);
    for (size_t target : kCounts) {
        size_t have = orvane_getKeyPairList(rsa.serial.c_str(), nullptr).size();
        while (have < target) {
            std::string keyId;
            if (softtoken::admin::generateKeyPair(rsa.serial, ORVANE_KEY_EC_P256, "bench filler", 3, 0, keyId) != 0)
                die("generating a filler key pair", 0);
            ++have;
        }
        HCRYPTPROV held = acquireOrvane(nullptr, CRYPT_VERIFYCONTEXT);
        check(held != 0, "CryptAcquireContext for enumeration");
        heldAtCount.push_back(held);
        actual.push_back(have);

        // Acquire costs depend on the token as it is now: these rounds cannot mix counts.
        size_t names = 0;
        std::vector<Variant> v;
        v.push_back({"acquire", [&] {
                         HCRYPTPROV provider = acquireOrvane(rsa.containerName.c_str());
                         return provider != 0 && CryptReleaseContext(provider, 0);
                     },
                     {}, {}, {}});
        v.push_back({"enumerate", [&] { return acquireEnumerateRelease(names); }, {}, {}, {}});
        v.push_back({"acquire3", v[0].run, [&] { logLevel.set(3); }, [&] { logLevel.set(0); }, {}});
        runRounds(v, rounds);
        if (names != have) std::printf("NOTE: PP_ENUMCONTAINERS listed %zu containers for %zu key pairs\n", names, have);
        acquireAt[have] = median(v[0].samples);
        enumerateAt[have] = median(v[1].samples);
        acquireAtLevel3[have] = median(v[2].samples);
        rows.push_back(row(v, "acquire", "acquire+release, " + std::to_string(have) + " key pairs"));
        rows.push_back(row(v, "acquire3", "acquire+release at log 3, " + std::to_string(have) + " key pairs"));
        rows.push_back(row(v, "enumerate",
                           "acquire+PP_ENUMCONTAINERS all+release, " + std::to_string(have) + " key pairs"));
    }

    // Enumeration alone on the held contexts, all counts in the same rounds, beside one
    // provider call that touches neither the token nor the key pairs (the entry's own cost).
    std::vector<Variant> held;
    std::vector<size_t> listed(heldAtCount.size());
    for (size_t i = 0; i < heldAtCount.size(); ++i)
        held.push_back({"held " + std::to_string(i),
                        [&, i] { return enumerateContainers(heldAtCount[i], listed[i]); }, {}, {}, {}});
    held.push_back({"name", [&] {
                        char name[128];
                        DWORD size = sizeof name;
                        return CryptGetProvParam(heldAtCount[0], PP_NAME, reinterpret_cast<BYTE*>(name), &size, 0) !=
                               FALSE;
                    },
                    {}, {}, {}});
    // A bare wineserver round trip, the unit that Wine-side costs come in.
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    check(event != nullptr, "CreateEvent");
    held.push_back({"wait", [&] { return WaitForSingleObject(event, 0) == WAIT_TIMEOUT; }, {}, {}, {}});
    runRounds(held, 4 * rounds);
    CloseHandle(event);
    for (size_t i = 0; i < heldAtCount.size(); ++i) {
        if (listed[i] != actual[i])
            std::printf("NOTE: a held context listed %zu containers for %zu key pairs\n", listed[i], actual[i]);
        rows.push_back(row(held, "held " + std::to_string(i),
                           "PP_ENUMCONTAINERS all, held context, " + std::to_string(actual[i]) + " key pairs"));
        CryptReleaseContext(heldAtCount[i], 0);
    }
    rows.push_back(row(held, "name", "one CryptGetProvParam(PP_NAME), held context", "", "wait", "/ server round trip"));
    rows.push_back(row(held, "wait", "WaitForSingleObject(event, 0): a server round trip"));

    // The cost of one more key pair, between neighbouring counts and over the whole range.
    auto fromMedians = [&](std::map<size_t, double>& at, size_t from, size_t to) {
        return (at[to] - at[from]) / static_cast<double>(to - from);
    };
    for (auto [at, label] : {std::pair{&acquireAt, "acquire+release"}, std::pair{&acquireAtLevel3, "acquire+release, log 3"},
                             std::pair{&enumerateAt, "acquire+enumerate"}}) {
        for (size_t i = 0; i + 1 < actual.size(); ++i)
            rows.push_back(slopeRow(label, actual[i], actual[i + 1], fromMedians(*at, actual[i], actual[i + 1]),
                                    "difference of medians"));
        rows.push_back(slopeRow(label, actual.front(), actual.back(),
                                fromMedians(*at, actual.front(), actual.back()), "difference of medians"));
    }
    for (size_t i = 0; i + 1 < actual.size(); ++i)
        rows.push_back(slopeRow("enumerate, held context", actual[i], actual[i + 1],
                                pairedSlope(held[i + 1].samples, held[i].samples, actual[i + 1] - actual[i]),
                                "per-round pairs"));
    rows.push_back(slopeRow("enumerate, held context", actual.front(), actual.back(),
                            pairedSlope(held[actual.size() - 1].samples, held[0].samples, actual.back() - actual.front()),
                            "per-round pairs"));
    printTable("Contexts by key pairs on the token (slopes in \xC2\xB5s per key pair)", rows);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4 || argc > 5) {
        std::fprintf(stderr, "usage: orvane-bench SERIAL RSA2048_KEYID P256_KEYID [ROUNDS]\n");
        return 2;
    }
    int rounds = argc == 5 ? std::atoi(argv[4]) : 200;
    if (rounds < 1) rounds = 1;
    std::setvbuf(stdout, nullptr, _IOLBF, 4096);

    gcry_check_version(nullptr);
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);

    TokenKey rsa = tokenKey(argv[1], argv[2], false);
    TokenKey ec = tokenKey(argv[1], argv[3], true);
    LogLevel logLevel;

    signingPhase(rsa, ec, rounds, logLevel);
    storeUpdatePhase(rsa, std::max(20, rounds / 2));
    keyCountPhase(rsa, std::max(10, rounds / 4), logLevel);
    logLevel.set(3);  // the prefix's default again
    return 0;
}
