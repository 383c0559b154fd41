// Every token library operation that either face calls, made to fail with each class of code
// the token can answer (token absent, wrong PIN, PIN locked, general failure, clock mismatch,
// sign-on expired once and twice, a code nobody knows). Each entry point that calls the
// operation must answer its published code, leave no handle behind, and succeed on the same
// call once the fault is disarmed. The CSP is driven through Wine's advapi32 with the
// registered provider, the KSP through its function table. One table drives it.
//
// The first pass warms up; the measured passes after it also watch handles and heap blocks.
// ORVANE_SWEEP_PASSES sets the measured passes (default 1; 5 with ORVANE_RELIABILITY_LONG=1);
// ORVANE_SWEEP_ONLY=<text> runs only the rows whose operation or entry point contains the text.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>

#include "encoding/Hex.h"
#include "tests/support/Blobs.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/reliability/ProcessFigures.h"
#include "tests/support/KspHarness.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"
#include "tools/desktop/UiDriver.h"

using namespace orvanetest;
namespace admin = softtoken::admin;
using desktop::UiDriver;
using desktop::UiStep;

namespace {

const char kSerial[] = "SWEEP-1";
const char kPin[] = "1234";

// The published answers, as numbers, so that a renamed constant cannot hide a changed one.
const DWORD kSucceeds = 0;
const DWORD kNoUsableToken = 0x80090023;  // CSP: no token, and any key generation failure
const DWORD kBadKey = 0x80090003;
const DWORD kBadHash = 0x80090002;
const DWORD kBadSignature = 0x80090006;
const DWORD kBadType = 0x8009000A;
const DWORD kNoKey = 0x8009000D;
const DWORD kNotFound = 0x80090011;
const DWORD kKeysetEntryBad = 0x8009001A;
const DWORD kProviderDllFail = 0x8009001D;
const DWORD kFail = 0x80090020;
const DWORD kSilentContext = 0x80090022;
const DWORD kNoMoreItems = 0x8009002A;
const DWORD kInternalError = 0x8009002D;
const DWORD kValidationFailed = 0x80090032;
const DWORD kDeviceNotFound = 0x80090035;
const DWORD kBadData = 0x80090005;

const int kSignOnExpired = 49;
// Armed for every call the entry makes (the fault is disarmed after the case).
const int kEveryCall = 64;

struct FailureClass {
    const char* name;
    int code;
    int occurrences;  // for the operations retried after an expired sign-on; others fail on every call
};

const FailureClass kStatusClasses[] = {
    {"token absent", 3, kEveryCall},
    {"wrong PIN", 5, kEveryCall},
    {"PIN locked", 6, kEveryCall},
    {"general failure", 1, kEveryCall},
    {"clock mismatch", 48, kEveryCall},
    {"sign-on expired", kSignOnExpired, 1},
    {"sign-on expired twice", kSignOnExpired, 2},
    {"unknown code 12345", 12345, kEveryCall},
};
// Lists and the token record have no status: any fault makes them come back empty.
const FailureClass kNoAnswer = {"empty answer", 1, kEveryCall};

// Arms the case's fault at the moment the row calls arm(), so that the row's own set-up
// (a hash to sign, a key to delete) runs unharmed. The disarmed call gets an inert one.
struct Fault {
    const char* operation = nullptr;  // none: inert
    int occurrences = 0, code = 0;
    int callsAtArming = 0;
    bool armed = false;

    void arm() {
        if (operation == nullptr) return;
        ASSERT_EQ(0, admin::injectFault(operation, occurrences, code));
        callsAtArming = admin::callCount(operation);
        armed = true;
    }
    // Calls of the operation since it was armed: each of them failed.
    int failedCalls() const { return armed ? admin::callCount(operation) - callsAtArming : 0; }
};

DWORD cspCode(BOOL result) { return result ? kSucceeds : GetLastError(); }
DWORD kspCode(SECURITY_STATUS status) { return static_cast<DWORD>(status); }

std::string hex(DWORD code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(code));
    return text;
}

// Library hashes that received data: the library keeps a digest context for each of them.
long long hashesWithData = 0;

// Everything the calls use, made once before the sweep.
struct Sweep {
    ProvisionedKey rsa;              // RSA-2048, usage 3, certificate tied by label and link
    std::string publicKeyOnly;       // P-256 key whose certificate matches it by public key only
    std::set<std::string> keyPairs;  // the token's key pairs before the sweep
    Bytes certificate;
    Bytes kek = Bytes(32, 0x4B);  // an AES-256 key-encryption key on the token
    Bytes wrapped;                // a 32-byte AES key wrapped under it (RFC 3394)

    std::unique_ptr<ContextHandle> csp;  // on the RSA key's container
    HCRYPTKEY signatureKey = 0, exchangeKey = 0, sessionKey = 0;
    Bytes cspSignature, cspCipher, simpleBlob, plaintextBlob, wrapBlob;

    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE rsaKey = 0, publicKeyOnlyKey = 0, secretKey = 0;
    Bytes digest = Bytes(32, 0x5A), kspSignature, kspCipher, transportBlob, keyDataBlob;
};

Sweep s;
int tokensMade = 0;

// The out-parameter of a call that makes a handle, freed at the end of the statement.
template <typename Handle>
struct Freed {
    std::function<void(Handle)> free;
    Handle handle = 0;
    ~Freed() {
        if (handle) free(handle);
    }
    Handle* out() { return &handle; }
};
void releaseContext(HCRYPTPROV context) { CryptReleaseContext(context, 0); }
Freed<NCRYPT_KEY_HANDLE> kspKey(NCRYPT_PROV_HANDLE provider) {
    return {[provider](NCRYPT_KEY_HANDLE key) { ksp().FreeKey(provider, key); }};
}

// A token plugged in since the last open (the next open initialises it), removed at the end
// of the scope.
struct PluggedToken {
    std::string serial = "PLUGGED-" + std::to_string(++tokensMade);
    PluggedToken() { addToken(serial); }
    ~PluggedToken() { EXPECT_EQ(0, admin::removeToken(serial)); }
};

// The scratch token's KEK and P-256 key pair; its key id.
std::string scratchKeys(const std::string& serial) {
    std::string kekId;
    EXPECT_EQ(0, admin::importSecretKey(serial, ORVANE_KEY_AES_256, s.kek, "kek", kekId));
    return newKeyPair(serial, ORVANE_KEY_EC_P256, 3, "scratch");
}

// A token of its own for a call that stores a key or a certificate on the token, removed
// afterwards so that nothing piles up from case to case: it holds the same KEK and a P-256
// key pair, with a CSP context and a KSP provider and key working on it.
struct ScratchToken {
    PluggedToken token;
    std::string keyId = scratchKeys(token.serial);
    ContextHandle context{keyId};
    KspProviderHandle provider;
    KspKeyHandle key{provider.get(), openKspKey(provider.get(), keyId)};  // moves the provider onto this token
};

DWORD importWithCsp(HCRYPTPROV context, const Bytes& blob, HCRYPTKEY unwrapping = 0) {
    return cspCode(CryptImportKey(context, blob.data(), static_cast<DWORD>(blob.size()), unwrapping, 0,
                                  Freed<HCRYPTKEY>{CryptDestroyKey}.out()));
}

DWORD importWithKsp(NCRYPT_PROV_HANDLE provider, const wchar_t* type, const Bytes& blob,
                    NCRYPT_KEY_HANDLE importKey = 0) {
    return kspCode(ksp().ImportKey(provider, importKey, type, nullptr, kspKey(provider).out(),
                                   const_cast<BYTE*>(blob.data()), static_cast<DWORD>(blob.size()), 0));
}

// Sign, encrypt and decrypt with the RSA key of either face; the result when asked for.
BOOL signHash(HCRYPTHASH hash) {
    BYTE signature[512];
    DWORD size = sizeof signature;
    return CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature, &size);
}

DWORD kspSign(DWORD flags, Bytes* signature = nullptr) {
    Bytes data(256);
    DWORD size = 0;
    DWORD code =
        kspCode(ksp().SignHash(s.provider, s.rsaKey, nullptr, s.digest.data(), 32, data.data(), 256, &size, flags));
    if (signature) *signature = data;
    return code;
}

DWORD cspEncrypt(const Bytes& plain, Bytes* cipher = nullptr) {
    Bytes data(plain);
    data.resize(256);
    DWORD size = static_cast<DWORD>(plain.size());
    DWORD code = cspCode(CryptEncrypt(s.exchangeKey, 0, TRUE, 0, data.data(), &size, 256));
    if (cipher) *cipher = data;
    return code;
}

DWORD kspEncrypt(const Bytes& plain, Bytes* cipher = nullptr) {
    Bytes data(256);
    DWORD size = 0;
    DWORD code = kspCode(ksp().Encrypt(s.provider, s.rsaKey, const_cast<BYTE*>(plain.data()),
                                       static_cast<DWORD>(plain.size()), nullptr, data.data(), 256, &size, 0));
    if (cipher) *cipher = data;
    return code;
}

DWORD cspDecrypt(HCRYPTKEY key, Bytes data) {
    DWORD size = static_cast<DWORD>(data.size());
    return cspCode(CryptDecrypt(key, 0, TRUE, 0, data.data(), &size));
}

DWORD kspDecrypt(NCRYPT_KEY_HANDLE key, const Bytes& cipher) {
    BYTE plain[256];
    DWORD size = 0;
    return kspCode(ksp().Decrypt(s.provider, key, const_cast<BYTE*>(cipher.data()), static_cast<DWORD>(cipher.size()),
                                 nullptr, plain, sizeof plain, &size, 0));
}

DWORD kspCertificate(NCRYPT_KEY_HANDLE key) {
    SECURITY_STATUS status = 0;
    kspKeyProperty(s.provider, key, L"SmartCardKeyCertificate", &status);
    return kspCode(status);
}

DWORD acquireAndRelease(const char* container) {
    return cspCode(CryptAcquireContextA(Freed<HCRYPTPROV>{releaseContext}.out(), container, kProviderName,
                                        PROV_RSA_FULL, 0));
}

DWORD openAndFreeProvider() {
    return kspCode(ksp().OpenProvider(Freed<NCRYPT_PROV_HANDLE>{ksp().FreeProvider}.out(),
                                      L"Orvane Cryptographic Provider CSP", 0));
}

BOOL verifyHash(HCRYPTHASH hash) {
    return CryptVerifySignatureA(hash, s.cspSignature.data(), static_cast<DWORD>(s.cspSignature.size()), s.signatureKey,
                                 nullptr, 0);
}

// A call of an entry point: it arms the fault once its own set-up (a hash to sign, a key to
// delete) is done, and answers the published code.
using Call = std::function<DWORD(Fault&)>;

// No set-up: the fault is armed, then the call made.
Call armedThen(std::function<DWORD()> call) {
    return [call](Fault& fault) {
        fault.arm();
        return call();
    };
}

// The fault armed after a SHA-256 hash of data was made, then the call on that hash.
Call onHashOf(const char* data, std::function<BOOL(HCRYPTHASH)> call) {
    return [data, call](Fault& fault) {
        HCRYPTHASH hash = s.csp->hash(CALG_SHA_256, data);
        if (*data) ++hashesWithData;
        fault.arm();
        DWORD code = cspCode(call(hash));
        CryptDestroyHash(hash);
        return code;
    };
}

// The user cancels the PIN dialog that an armed fault brings up.
Call cancellingThePrompt(Call call) {
    return [call](Fault& fault) {
        std::unique_ptr<UiDriver> user;
        if (fault.operation) user.reset(new UiDriver({UiStep::cancel()}, 10000));
        DWORD code = call(fault);
        if (user) {
            EXPECT_EQ(std::vector<std::string>{"pin dialog"}, user->finish());
        }
        return code;
    };
}

// The fault armed once a token was plugged in (a PluggedToken, so that the call's open
// initialises it, or a ScratchToken), then the call made; the token is removed afterwards.
template <typename Token>
Call onToken(std::function<DWORD(const Token&)> call) {
    return [call](Fault& fault) {
        Token token;
        fault.arm();
        return call(token);
    };
}

DWORD setCspPin(DWORD param) { return cspCode(CryptSetProvParam(*s.csp, param, (const BYTE*)kPin, 0)); }

// Every entry point call the sweep makes, by name.
const std::map<std::string, Call>& catalogue() {
    static const std::map<std::string, Call> calls = {
        {"CryptAcquireContext", armedThen([] { return acquireAndRelease(nullptr); })},
        {"CryptAcquireContext (container)", armedThen([] { return acquireAndRelease(s.rsa.keyId.c_str()); })},
        {"CryptAcquireContext (new token)", onToken<PluggedToken>([](auto&) { return acquireAndRelease(nullptr); })},
        {"KSPOpenProvider", armedThen(openAndFreeProvider)},
        {"KSPOpenProvider (new token)", onToken<PluggedToken>([](auto&) { return openAndFreeProvider(); })},
        {"KSPOpenKey", armedThen([] {
             return kspCode(ksp().OpenKey(s.provider, kspKey(s.provider).out(), widen(s.rsa.keyId).c_str(), 0, 0));
         })},
        {"KSPEnumKeys", armedThen([] {
             return kspCode(ksp().EnumKeys(s.provider, nullptr, Freed<NCryptKeyName*>{ksp().FreeBuffer}.out(),
                                           Freed<void*>{ksp().FreeBuffer}.out(), 0));
         })},
        {"CryptGetUserKey", armedThen([] {
             return cspCode(CryptGetUserKey(*s.csp, AT_SIGNATURE, Freed<HCRYPTKEY>{CryptDestroyKey}.out()));
         })},
        {"CryptGetKeyParam(KP_CERTIFICATE)", armedThen([] {
             BYTE certificate[4096];
             DWORD size = sizeof certificate;
             return cspCode(CryptGetKeyParam(s.exchangeKey, KP_CERTIFICATE, certificate, &size, 0));
         })},
        {"KSPGetKeyProperty(SmartCardKeyCertificate)", armedThen([] { return kspCertificate(s.rsaKey); })},
        {"KSPGetKeyProperty(SmartCardKeyCertificate, by public key)",
         armedThen([] { return kspCertificate(s.publicKeyOnlyKey); })},
        {"CryptGetProvParam(PP_CERTCHAIN)", armedThen([] {
             DWORD size = 0;
             return cspCode(CryptGetProvParam(*s.csp, PP_CERTCHAIN, nullptr, &size, 0));
         })},
        {"CryptGetProvParam(PP_KEYSPEC)", armedThen([] {
             DWORD keySpec = 0, size = sizeof keySpec;
             return cspCode(CryptGetProvParam(*s.csp, PP_KEYSPEC, reinterpret_cast<BYTE*>(&keySpec), &size, 0));
         })},
        {"CryptExportKey(PUBLICKEYBLOB)", armedThen([] {
             DWORD size = 0;
             return cspCode(CryptExportKey(s.exchangeKey, 0, PUBLICKEYBLOB, 0, nullptr, &size));
         })},
        // PIN given by the caller.
        {"CryptSetProvParam(PP_SIGNATURE_PIN)", armedThen([] { return setCspPin(PP_SIGNATURE_PIN); })},
        {"CryptSetProvParam(PP_KEYEXCHANGE_PIN)", armedThen([] { return setCspPin(PP_KEYEXCHANGE_PIN); })},
        {"KSPSetProviderProperty(SmartCardPin)", armedThen([] {
             return kspCode(ksp().SetProviderProperty(s.provider, L"SmartCardPin", (PBYTE)kPin, sizeof kPin, 0));
         })},
        {"KSPSetKeyProperty(SmartCardPin)", armedThen([] {
             return kspCode(ksp().SetKeyProperty(s.provider, s.rsaKey, L"SmartCardPin", (PBYTE)kPin, sizeof kPin, 0));
         })},
        // Private-key operations.
        {"CryptSignHash", onHashOf("abc", signHash)},
        {"CryptSignHash (PIN dialog cancelled)",
         cancellingThePrompt(onHashOf("abc", signHash))},
        {"KSPSignHash", armedThen([] { return kspSign(0); })},
        {"KSPSignHash (silent)", armedThen([] { return kspSign(NCRYPT_SILENT_FLAG); })},
        {"KSPSignHash (PIN dialog cancelled)", cancellingThePrompt(armedThen([] { return kspSign(0); }))},
        {"CryptDecrypt", armedThen([] { return cspDecrypt(s.exchangeKey, s.cspCipher); })},
        {"KSPDecrypt", armedThen([] { return kspDecrypt(s.rsaKey, s.kspCipher); })},
        {"CryptDecrypt (imported session key)", armedThen([] { return cspDecrypt(s.sessionKey, Bytes(32, 0xC3)); })},
        {"KSPDecrypt (imported secret key)", armedThen([] { return kspDecrypt(s.secretKey, Bytes(32, 0xC3)); })},
        // Key management and import.
        {"CryptGenKey", armedThen([] {
             return cspCode(CryptGenKey(*s.csp, CALG_RSA_SIGN, 0, Freed<HCRYPTKEY>{CryptDestroyKey}.out()));
         })},
        {"KSPFinalizeKey",
         [](Fault& f) {
             NCRYPT_KEY_HANDLE key = 0;
             EXPECT_EQ(0, ksp().CreatePersistedKey(s.provider, &key, L"ECDSA_P256", nullptr, 0, 0));
             KspKeyHandle freed(s.provider, key);
             f.arm();
             return kspCode(ksp().FinalizeKey(s.provider, key, 0));
         }},
        {"KSPDeleteKey",
         [](Fault& f) {
             KspKeyHandle key(s.provider, openKspKey(s.provider, newKeyPair(kSerial, ORVANE_KEY_EC_P256, 1, "doomed")));
             f.arm();
             return kspCode(ksp().DeleteKey(s.provider, key.get(), 0));
         }},
        {"KSPSetKeyProperty(SmartCardKeyCertificate)", onToken<ScratchToken>([](const ScratchToken& t) {
             return kspCode(ksp().SetKeyProperty(t.provider.get(), t.key.get(), L"SmartCardKeyCertificate",
                                                 s.certificate.data(), DWORD(s.certificate.size()), 0));
         })},
        {"CryptImportKey(PLAINTEXTKEYBLOB)",
         onToken<ScratchToken>([](const ScratchToken& t) { return importWithCsp(t.context, s.plaintextBlob); })},
        {"CryptImportKey(SYMMETRICWRAPKEYBLOB)",
         onToken<ScratchToken>([](const ScratchToken& t) { return importWithCsp(t.context, s.wrapBlob); })},
        {"CryptImportKey(SIMPLEBLOB)", armedThen([] { return importWithCsp(*s.csp, s.simpleBlob, s.exchangeKey); })},
        {"KSPImportKey(KeyDataBlob)", onToken<ScratchToken>([](const ScratchToken& t) {
             return importWithKsp(t.provider.get(), L"KeyDataBlob", s.keyDataBlob);
         })},
        {"KSPImportKey(OpaqueKeyBlob)", onToken<ScratchToken>([](const ScratchToken& t) {
             return importWithKsp(t.provider.get(), L"OpaqueKeyBlob", s.wrapped);
         })},
        {"KSPImportKey(OpaqueTransport)",
         armedThen([] { return importWithKsp(s.provider, L"OpaqueTransport", s.transportBlob, s.rsaKey); })},
        // Public-key operations in the library.
        {"CryptEncrypt", armedThen([] { return cspEncrypt(bytesOf("sweep")); })},
        {"KSPEncrypt", armedThen([] { return kspEncrypt(bytesOf("sweep")); })},
        {"CryptVerifySignature", onHashOf("abc", verifyHash)},
        {"KSPVerifySignature", armedThen([] {
             return kspCode(ksp().VerifySignature(s.provider, s.rsaKey, nullptr, s.digest.data(), 32,
                                                  s.kspSignature.data(), DWORD(s.kspSignature.size()), 0));
         })},
        // Hashing in the library.
        {"CryptCreateHash", armedThen([] {
             return cspCode(CryptCreateHash(*s.csp, CALG_SHA_256, 0, 0, Freed<HCRYPTHASH>{CryptDestroyHash}.out()));
         })},
        {"CryptDuplicateHash", onHashOf("abc", [](HCRYPTHASH hash) {
             return CryptDuplicateHash(hash, nullptr, 0, Freed<HCRYPTHASH>{CryptDestroyHash}.out());
         })},
        {"CryptSetHashParam(HP_HMAC_INFO)", onHashOf("abc", [](HCRYPTHASH hash) {
             HMAC_INFO info{};
             info.HashAlgid = CALG_SHA1;
             return CryptSetHashParam(hash, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0);
         })},
        {"CryptHashData", onHashOf("", [](HCRYPTHASH hash) {
             BOOL hashed = CryptHashData(hash, reinterpret_cast<const BYTE*>("abc"), 3, 0);
             if (hashed) ++hashesWithData;
             return hashed;
         })},
        {"CryptGetHashParam(HP_HASHVAL)", onHashOf("abc", [](HCRYPTHASH hash) {
             BYTE value[32];
             DWORD size = sizeof value;
             return CryptGetHashParam(hash, HP_HASHVAL, value, &size, 0);
         })},
        {"CryptGenRandom", armedThen([] {
             BYTE random[16];
             return cspCode(CryptGenRandom(*s.csp, sizeof random, random));
         })},
    };
    return calls;
}

enum Traits {
    kStatus = 1,      // answers a status; lists and the token record come back empty instead
    kRetried = 2,     // one new sign-on and one more call after code 49
    kKeepsPin = 4,    // the disarmed call leaves a PIN cached in the process
};

struct Row {
    const char* operation;
    const char* entry;  // in the catalogue
    DWORD failure;      // the published answer while the operation fails
    int traits;
};

const Row kRows[] = {
    // Library and device. A token that fails to initialise is logged and skipped, and tried
    // again at the next open; the certificate lookups open the device again and do not look.
    {"orvane_init", "CryptAcquireContext", kSucceeds, kStatus},
    {"orvane_init", "KSPOpenProvider", kSucceeds, kStatus},
    {"orvane_getConnectedDeviceList", "CryptAcquireContext", kNoUsableToken, 0},
    {"orvane_getConnectedDeviceList", "KSPOpenProvider", kDeviceNotFound, 0},
    // The token search finds nothing and the provider keeps the token it works on.
    {"orvane_getConnectedDeviceList", "KSPOpenKey", kSucceeds, 0},
    {"orvane_initDevice", "CryptAcquireContext (new token)", kSucceeds, kStatus},
    {"orvane_initDevice", "KSPOpenProvider (new token)", kSucceeds, kStatus},
    {"orvane_initDevice", "CryptGetKeyParam(KP_CERTIFICATE)", kSucceeds, kStatus},
    {"orvane_initDevice", "KSPGetKeyProperty(SmartCardKeyCertificate)", kSucceeds, kStatus},
    // Without the token record the token is not signed on: the PIN is asked for.
    {"orvane_getTokenInfo", "CryptSignHash (PIN dialog cancelled)", kFail, 0},
    {"orvane_getTokenInfo", "KSPSignHash (silent)", kSilentContext, 0},
    {"orvane_getTokenInfo", "KSPSignHash (PIN dialog cancelled)", kFail, 0},
    {"orvane_validatePassword", "CryptSetProvParam(PP_SIGNATURE_PIN)", kKeysetEntryBad, kStatus | kKeepsPin},
    {"orvane_validatePassword", "CryptSetProvParam(PP_KEYEXCHANGE_PIN)", kKeysetEntryBad, kStatus | kKeepsPin},
    {"orvane_validatePassword", "KSPSetProviderProperty(SmartCardPin)", kValidationFailed, kStatus | kKeepsPin},
    {"orvane_validatePassword", "KSPSetKeyProperty(SmartCardPin)", kValidationFailed, kStatus | kKeepsPin},
    // Lists.
    {"orvane_getKeyPairList", "CryptAcquireContext (container)", kSucceeds, 0},
    {"orvane_getKeyPairList", "CryptGetUserKey", kNoKey, 0},
    {"orvane_getKeyPairList", "CryptSignHash", kNoKey, 0},
    {"orvane_getKeyPairList", "CryptExportKey(PUBLICKEYBLOB)", kBadKey, 0},
    {"orvane_getKeyPairList", "CryptGetProvParam(PP_KEYSPEC)", kNoKey, 0},
    {"orvane_getKeyPairList", "CryptGetProvParam(PP_CERTCHAIN)", kNoKey, 0},
    {"orvane_getKeyPairList", "KSPOpenKey", kNoKey, 0},
    {"orvane_getKeyPairList", "KSPEnumKeys", kNoMoreItems, 0},
    {"orvane_getCertificateList", "CryptGetKeyParam(KP_CERTIFICATE)", kNotFound, 0},
    {"orvane_getCertificateList", "CryptGetProvParam(PP_CERTCHAIN)", kNoKey, 0},
    {"orvane_getCertificateList", "KSPGetKeyProperty(SmartCardKeyCertificate)", kNotFound, 0},
    {"orvane_getAesKeyList", "CryptImportKey(SYMMETRICWRAPKEYBLOB)", kBadKey, 0},
    {"orvane_getAesKeyList", "KSPImportKey(OpaqueKeyBlob)", kBadKey, 0},
    {"orvane_getCertificateDetails", "CryptGetProvParam(PP_CERTCHAIN)", kNoKey, kStatus},
    {"orvane_getCertificateDetails", "KSPGetKeyProperty(SmartCardKeyCertificate, by public key)", kNotFound, kStatus},
    // Key management.
    {"orvane_generateKeyPair", "CryptGenKey", kNoUsableToken, kStatus},
    {"orvane_generateKeyPair", "KSPFinalizeKey", kInternalError, kStatus},
    {"orvane_deleteKeyPair", "KSPDeleteKey", kInternalError, kStatus},
    {"orvane_importCertificate", "KSPSetKeyProperty(SmartCardKeyCertificate)", kInternalError, kStatus},
    {"orvane_importAesKey", "CryptImportKey(PLAINTEXTKEYBLOB)", kBadType, kStatus},
    {"orvane_importAesKey", "CryptImportKey(SYMMETRICWRAPKEYBLOB)", kBadType, kStatus},
    {"orvane_importAesKey", "KSPImportKey(KeyDataBlob)", kBadType, kStatus},
    {"orvane_importAesKey", "KSPImportKey(OpaqueKeyBlob)", kBadType, kStatus},
    // Private-key operations on the token; an unwrapping with no code of its own fails as a
    // token operation, and a key-encryption key that fails to unwrap is not the right one.
    {"orvane_signHash", "CryptSignHash", kProviderDllFail, kStatus | kRetried},
    {"orvane_signHash", "KSPSignHash", kInternalError, kStatus | kRetried},
    {"orvane_decrypt", "CryptDecrypt", kProviderDllFail, kStatus | kRetried},
    {"orvane_decrypt", "KSPDecrypt", kInternalError, kStatus | kRetried},
    {"orvane_decrypt", "CryptImportKey(SIMPLEBLOB)", kProviderDllFail, kStatus},
    {"orvane_decrypt", "KSPImportKey(OpaqueTransport)", kBadData, kStatus},
    {"orvane_decryptSymetric", "CryptDecrypt (imported session key)", kProviderDllFail, kStatus},
    {"orvane_decryptSymetric", "KSPDecrypt (imported secret key)", kInternalError, kStatus},
    {"orvane_decrypt_aes", "CryptImportKey(SYMMETRICWRAPKEYBLOB)", kBadKey, kStatus},
    {"orvane_decrypt_aes", "KSPImportKey(OpaqueKeyBlob)", kBadKey, kStatus},
    // Public-key operations and hashing in the library.
    {"orvane_encrypt", "CryptEncrypt", kProviderDllFail, kStatus},
    {"orvane_encrypt", "KSPEncrypt", kInternalError, kStatus},
    {"orvane_verifySignatureHash", "CryptVerifySignature", kBadSignature, kStatus},
    {"orvane_verifySignatureHash", "KSPVerifySignature", kBadSignature, kStatus},
    {"orvane_initHash", "CryptCreateHash", kFail, kStatus},
    {"orvane_initHash", "CryptDuplicateHash", kFail, kStatus},
    {"orvane_initHash", "CryptSetHashParam(HP_HMAC_INFO)", kFail, kStatus},
    {"orvane_updateHash", "CryptHashData", kFail, kStatus},
    {"orvane_finalHash", "CryptGetHashParam(HP_HASHVAL)", kFail, kStatus},
    {"orvane_finalHash", "CryptSignHash", kFail, kStatus},
    {"orvane_finalHash", "CryptVerifySignature", kBadHash, kStatus},
    {"orvane_generateRamdomNumber", "CryptGenRandom", kProviderDllFail, kStatus},
};

// Back to the state before the case: key pairs the case made or failed to delete are removed,
// and a PIN the case gave is forgotten the way an expired sign-on forgets it.
void restoreToken(const Row& row) {
    for (const OrvaneKeyPair& keyPair : std::vector<OrvaneKeyPair>(orvane_getKeyPairList(kSerial, nullptr))) {
        std::string keyId = orvane::toHex(keyPair.keyId, sizeof keyPair.keyId);
        if (s.keyPairs.count(keyId) == 0) {
            EXPECT_EQ(0, orvane_deleteKeyPair(kSerial, keyPair.keyId, kPin, false, nullptr));
        }
    }
    if (row.traits & kKeepsPin) {
        Fault expired{"orvane_signHash", 1, kSignOnExpired};
        EXPECT_EQ(hex(kSucceeds), hex(catalogue().at("CryptSignHash")(expired)));
    }
}

// initHash calls that an armed fault failed: they made no library hash.
long long failedHashStarts = 0;

// One case: the fault armed, the published answer, the fault disarmed, success.
void runCase(const Row& row, const FailureClass& failure) {
    SCOPED_TRACE(std::string(row.entry) + " while " + row.operation + " fails: " + failure.name);
    bool retried = (row.traits & kRetried) && failure.code == kSignOnExpired;
    DWORD expected = retried && failure.occurrences == 1 ? kSucceeds : row.failure;
    int callsBefore = admin::callCount(row.operation);

    Fault fault{row.operation, retried ? failure.occurrences : kEveryCall, failure.code};
    const Call& call = catalogue().at(row.entry);
    DWORD outcome = call(fault);
    int calls = admin::callCount(row.operation) - callsBefore;
    if (std::string(row.operation) == "orvane_initHash") failedHashStarts += std::min(fault.failedCalls(), kEveryCall);
    ASSERT_EQ(0, admin::injectFault(row.operation, 0, 0));
    EXPECT_TRUE(fault.armed);
    EXPECT_EQ(hex(expected), hex(outcome));
    if (row.traits & kRetried) {
        EXPECT_EQ(retried ? 2 : 1, calls) << "one more call only after an expired sign-on";
    }

    Fault disarmed;
    EXPECT_EQ(hex(kSucceeds), hex(call(disarmed))) << "once the fault is disarmed";
    restoreToken(row);
}

std::vector<FailureClass> classesFor(const Row& row) {
    if (!(row.traits & kStatus)) return {kNoAnswer};
    std::vector<FailureClass> classes;
    for (const FailureClass& failure : kStatusClasses)
        if (failure.occurrences != 2 || (row.traits & kRetried)) classes.push_back(failure);
    return classes;
}

// The token library keeps every hash it made: it has no call to release one. What that costs
// is measured with the library alone, used as the provider uses it: a bare hash, and one that
// received data (and so holds a digest context). Heap blocks are exact; bytes also move when
// the library's registry of hashes grows its table.
struct LibraryHashCost {
    ProcessFigures bare, withData;  // per hash: heapBytes and heapBlocks

    long long of(long long ProcessFigures::*figure, long long hashes, long long withDataCount) const {
        return (hashes - withDataCount) * (bare.*figure) + withDataCount * (withData.*figure);
    }
};

LibraryHashCost libraryHashCost() {
    const int kHashes = 64;
    auto perHash = [&](bool data) {
        ProcessFigures before = measureProcess();
        for (int i = 0; i < kHashes; ++i) {
            void* hash = nullptr;
            unsigned char digest[32];
            int length = sizeof digest;
            EXPECT_EQ(0, orvane_initHash(kSerial, 3, &hash, nullptr));
            if (!data) continue;
            EXPECT_EQ(0, orvane_updateHash(hash, reinterpret_cast<const unsigned char*>("abc"), 3, nullptr));
            EXPECT_EQ(0, orvane_finalHash(hash, digest, &length, nullptr));
        }
        ProcessFigures after = measureProcess(), cost;
        cost.heapBytes = (after.heapBytes - before.heapBytes + kHashes / 2) / kHashes;
        cost.heapBlocks = (after.heapBlocks - before.heapBlocks + kHashes / 2) / kHashes;
        return cost;
    };
    perHash(true);  // the registry's first growth
    LibraryHashCost cost;
    cost.bare = perHash(false);
    cost.withData = perHash(true);
    return cost;
}

// The process's figures, once the device monitor thread is not in the middle of a store read.
ProcessFigures settled() {
    ProcessFigures figures = measureProcess();
    for (int attempt = 0, same = 0; attempt < 40 && same < 2; ++attempt) {
        Sleep(25);
        ProcessFigures again = measureProcess();
        same = again.handles == figures.handles && again.threads == figures.threads ? same + 1 : 0;
        figures = again;
    }
    return figures;
}

long long libraryHashes() { return admin::callCount("orvane_initHash") - failedHashStarts; }

// What the process kept since a Mark, besides the library hashes made since.
struct Residue {
    long long handles, threads, tlsSlots, blocks, bytes, hashes;
    bool none() const { return handles <= 0 && threads <= 0 && blocks <= 0; }
};

struct Mark {
    ProcessFigures figures = settled();
    long long hashesAt = libraryHashes(), withDataAt = hashesWithData;

    Residue since(const LibraryHashCost& cost) const {
        ProcessFigures now = settled();
        long long hashes = libraryHashes() - hashesAt, withData = hashesWithData - withDataAt;
        return {now.handles - figures.handles,
                now.threads - figures.threads,
                now.tlsSlots - figures.tlsSlots,
                now.heapBlocks - figures.heapBlocks - cost.of(&ProcessFigures::heapBlocks, hashes, withData),
                now.heapBytes - figures.heapBytes - cost.of(&ProcessFigures::heapBytes, hashes, withData),
                hashes};
    }
};

class FaultSweep : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
};

void FaultSweep::SetUpTestSuite() {
    freshToken(kSerial);
    s.rsa = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_2048, 3);
    s.certificate = readFile(s.rsa.certificateFile);
    // A P-256 key pair whose certificate has another label and another link: only the public
    // key ties them together.
    s.publicKeyOnly = newKeyPair(kSerial, ORVANE_KEY_EC_P256, 1, "public key only");
    Bytes der = readFile(issueCertificate(kSerial, s.publicKeyOnly, "public-key-only"));
    OrvaneCertificate record{};
    std::memcpy(record.certData, der.data(), der.size());
    record.certLength = static_cast<int32_t>(der.size());
    record.certLinkId[0] = 0xEE;
    record.certLinkIdLength = 1;
    std::strcpy(record.label, "another label");
    ASSERT_EQ(0, orvane_importCertificate(kSerial, kPin, &record, nullptr));
    for (const OrvaneKeyPair& keyPair : std::vector<OrvaneKeyPair>(orvane_getKeyPairList(kSerial, nullptr)))
        s.keyPairs.insert(orvane::toHex(keyPair.keyId, sizeof keyPair.keyId));

    // The key-encryption key on the token, and a key wrapped under it by OpenSSL.
    Bytes secret(32, 0x53), session;
    std::string kekId;
    ASSERT_EQ(0, admin::importSecretKey(kSerial, ORVANE_KEY_AES_256, s.kek, "kek", kekId));
    s.wrapped = aesWrap(s.kek, secret);
    s.wrapBlob = join({blobHeader(SYMMETRICWRAPKEYBLOB, CALG_AES_256), s.wrapped, dword(0)});
    s.plaintextBlob = join({blobHeader(PLAINTEXTKEYBLOB, CALG_AES_256), dword(32), secret});
    s.keyDataBlob = keyDataBlob(32, secret);

    s.csp.reset(new ContextHandle(s.rsa.keyId));
    s.signatureKey = s.csp->userKey(AT_SIGNATURE);
    s.exchangeKey = s.csp->userKey(AT_KEYEXCHANGE);
    s.cspSignature = s.csp->sign(CALG_SHA_256, "abc");
    ++hashesWithData;
    ASSERT_EQ(hex(kSucceeds), hex(cspEncrypt(bytesOf("sweep"), &s.cspCipher)));
    ASSERT_EQ(hex(kSucceeds), hex(cspEncrypt(secret, &session)));
    s.simpleBlob = join({blobHeader(SIMPLEBLOB, CALG_AES_256), dword(CALG_RSA_KEYX), session});
    s.sessionKey = s.csp->import(s.simpleBlob, s.exchangeKey);

    ASSERT_EQ(0, ksp().OpenProvider(&s.provider, L"Orvane Cryptographic Provider CSP", 0));
    s.rsaKey = openKspKey(s.provider, s.rsa.keyId);
    s.publicKeyOnlyKey = openKspKey(s.provider, s.publicKeyOnly);
    ASSERT_NE(0u, s.rsaKey);
    ASSERT_NE(0u, s.publicKeyOnlyKey);
    ASSERT_EQ(hex(kSucceeds), hex(kspSign(0, &s.kspSignature)));
    ASSERT_EQ(hex(kSucceeds), hex(kspEncrypt(bytesOf("sweep"), &s.kspCipher)));
    ASSERT_EQ(hex(kSucceeds), hex(kspEncrypt(secret, &s.transportBlob)));
    ASSERT_EQ(0, ksp().ImportKey(s.provider, s.rsaKey, L"OpaqueTransport", nullptr, &s.secretKey,
                                 s.transportBlob.data(), static_cast<DWORD>(s.transportBlob.size()), 0));
}

void FaultSweep::TearDownTestSuite() {
    for (NCRYPT_KEY_HANDLE key : {s.rsaKey, s.publicKeyOnlyKey, s.secretKey})
        if (key) ksp().FreeKey(s.provider, key);
    if (s.provider) ksp().FreeProvider(s.provider);
    for (HCRYPTKEY key : {s.signatureKey, s.exchangeKey, s.sessionKey})
        if (key) CryptDestroyKey(key);
    s.csp.reset();
}

// Long enough for the device monitor to forget the sessions of the tokens a row removed.
const DWORD kMonitorSweep = 1200;
// The bytes the library's hash registry may add when it grows its table, per hash it holds.
const long long kRegistryBytesPerHash = 16;

Residue runRow(const Row& row, const LibraryHashCost& hashCost, bool waitForMonitor) {
    if (waitForMonitor) Sleep(kMonitorSweep);
    Mark mark;
    for (const FailureClass& failure : classesFor(row)) runCase(row, failure);
    if (waitForMonitor) Sleep(kMonitorSweep);
    return mark.since(hashCost);
}

// ORVANE_SWEEP_ONLY=<text> keeps the rows whose operation or entry point contains the text.
std::vector<Row> selectedRows() {
    char only[128] = "";
    if (GetEnvironmentVariableA("ORVANE_SWEEP_ONLY", only, sizeof only) >= sizeof only) only[0] = 0;
    std::vector<Row> kept;
    for (const Row& row : kRows)
        if (std::strstr(row.operation, only) || std::strstr(row.entry, only)) kept.push_back(row);
    return kept;
}

TEST_F(FaultSweep, EveryOperationFailingGivesThePublishedAnswerLeavesNothingBehindAndRecovers) {
    std::vector<Row> rows = selectedRows();
    size_t cases = 0;
    for (const Row& row : rows) cases += classesFor(row).size();
    LibraryHashCost hashCost = libraryHashCost();
    long long passes = environmentNumber("ORVANE_SWEEP_PASSES", longForm() ? 5 : 1);
    std::printf("[sweep] %zu rows, %zu cases a pass; the library keeps %lld B (%lld blocks) of a bare hash, %lld B "
                "(%lld blocks) of one with data\n",
                rows.size(), cases, hashCost.bare.heapBytes, hashCost.bare.heapBlocks, hashCost.withData.heapBytes,
                hashCost.withData.heapBlocks);
    for (long long pass = 0; pass <= passes; ++pass) {
        std::string name = pass == 0 ? "warm-up" : "pass " + std::to_string(pass);
        SCOPED_TRACE(name);
        Sleep(kMonitorSweep);
        Mark start;
        int rerun = 0;
        for (const Row& row : rows) {
            Residue residue = runRow(row, hashCost, false);
            if (pass == 0 || residue.none()) continue;
            // A lock that meets contention for the first time gets a wait event for good, and the
            // device monitor forgets the sessions of removed tokens up to a second later: what
            // every further run of the row, with the monitor given time, leaves again is the
            // row's own. Two locks may meet their first contention in two runs in a row.
            ++rerun;
            for (int again = 0; again < 3 && !residue.none(); ++again) residue = runRow(row, hashCost, true);
            SCOPED_TRACE(std::string(row.entry) + " / " + row.operation);
            EXPECT_LE(residue.handles, 0) << "handles kept";
            EXPECT_LE(residue.threads, 0) << "threads kept";
            EXPECT_LE(residue.blocks, 0) << "heap blocks kept (" << residue.bytes << " B)";
        }
        Sleep(kMonitorSweep);
        Residue kept = start.since(hashCost);
        std::printf(
            "[sweep] %s: %zu cases (%d rows run again); handles %+lld, threads %+lld, heap %+lld B (%+lld blocks) "
            "besides the %lld library hashes\n",
            name.c_str(), cases, rerun, kept.handles, kept.threads, kept.bytes, kept.blocks, kept.hashes);
        std::fflush(stdout);
        if (pass == 0) continue;
        EXPECT_EQ(0, kept.tlsSlots) << "TLS slots taken for good";
        EXPECT_LE(kept.bytes, 16384 + kRegistryBytesPerHash * libraryHashes()) << "heap bytes the provider kept";
    }
}

}  // namespace
