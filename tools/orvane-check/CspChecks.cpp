// The CryptoAPI half: everything goes through advapi32 under the provider's registered name,
// as an application's calls would.
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/orvane-check/Checks.h"
#include "tools/orvane-check/WindowsCrypto.h"

namespace check {
namespace {

// The error this provider gives CryptAcquireContext when no token is plugged in.
const char kNoTokenMeaning[] = "the provider's answer when no token is connected";

class Context {
public:
    ~Context() {
        if (handle != 0) CryptReleaseContext(handle, 0);
    }
    HCRYPTPROV handle = 0;
};

class Key {
public:
    ~Key() {
        if (handle != 0) CryptDestroyKey(handle);
    }
    HCRYPTKEY handle = 0;
};

class Hash {
public:
    ~Hash() {
        if (handle != 0) CryptDestroyHash(handle);
    }
    HCRYPTHASH handle = 0;
};

// What the checks of one container learn on the way.
struct Container {
    std::string name;
    DWORD keySpec = 0;
    ALG_ID algId = 0;
    DWORD bits = 0;
    Bytes certificate;    // empty: none on the token
    Bytes publicKeyBlob;  // empty: not exported

    bool rsa() const { return algId == CALG_RSA_SIGN || algId == CALG_RSA_KEYX; }
};

std::string keyText(const Container& container) {
    std::string size = std::to_string(container.bits) + " bits";
    switch (container.algId) {
    case CALG_RSA_SIGN: return "RSA signature key (CALG_RSA_SIGN), " + size;
    case CALG_RSA_KEYX: return "RSA exchange key (CALG_RSA_KEYX), " + size;
    // The provider names its ECDSA keys CALG_DSS_SIGN.
    case CALG_DSS_SIGN: return "ECDSA key (KP_ALGID CALG_DSS_SIGN), " + size;
    default: {
        char algId[16];
        std::snprintf(algId, sizeof algId, "0x%04X", static_cast<unsigned>(container.algId));
        return std::string("KP_ALGID ") + algId + ", " + size;
    }
    }
}

// PP_ENUMCONTAINERS from CRYPT_FIRST until ERROR_NO_MORE_ITEMS. The provider answers a short
// buffer with TRUE and ERROR_MORE_DATA, and moves its cursor on every call, size queries
// included, so one generous buffer is used and the length it reports is checked.
bool listContainers(HCRYPTPROV provider, std::vector<std::string>& names, DWORD& error) {
    char name[512];
    for (DWORD flags = CRYPT_FIRST; names.size() < 100000; flags = CRYPT_NEXT) {
        DWORD size = sizeof name;
        if (!CryptGetProvParam(provider, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &size, flags)) {
            error = GetLastError();
            return error == ERROR_NO_MORE_ITEMS;
        }
        if (size > sizeof name) {
            error = ERROR_MORE_DATA;
            return false;
        }
        names.emplace_back(name, strnlen(name, size));
    }
    error = ERROR_MORE_DATA;  // a cursor that never ends
    return false;
}

bool keyParameter(HCRYPTKEY key, DWORD parameter, DWORD& value) {
    DWORD size = sizeof value;
    return CryptGetKeyParam(key, parameter, reinterpret_cast<BYTE*>(&value), &size, 0) != FALSE;
}

void givePin(Session& session, HCRYPTPROV provider) {
    Report& report = session.report;
    const char step[] = "PIN (PP_SIGNATURE_PIN)";
    if (!session.options.pinGiven) {
        report.skip(step, "",
                    "no PIN given (--pin-stdin, --ask-pin): the provider asks for the PIN itself when a key is used");
        return;
    }
    // dwFlags stays 0: Wine's advapi32 never passes a call with bit 0 set on to the provider.
    if (CryptSetProvParam(provider, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(session.options.pin.c_str()), 0)) {
        session.pin = PinState::kAccepted;
        report.pass(step, "", "accepted by the token");
    } else {
        session.pin = PinState::kRefused;
        report.fail(step, "", GetLastError(), "the token refused the PIN");
    }
}

bool openUserKey(Session& session, HCRYPTPROV provider, Container& container, Key& key) {
    Report& report = session.report;
    DWORD keySpec = 0, size = sizeof keySpec;
    if (!CryptGetProvParam(provider, PP_KEYSPEC, reinterpret_cast<BYTE*>(&keySpec), &size, 0)) {
        report.fail("PP_KEYSPEC", container.name, GetLastError());
        return false;
    }
    if (keySpec != AT_SIGNATURE && keySpec != AT_KEYEXCHANGE) {
        report.skip("PP_KEYSPEC", container.name,
                    "answered " + std::to_string(keySpec) +
                        ": the key pair is neither a signature nor an exchange key "
                        "for this provider, so nothing more is checked");
        return false;
    }
    container.keySpec = keySpec;
    report.pass("PP_KEYSPEC", container.name, keySpec == AT_SIGNATURE ? "AT_SIGNATURE" : "AT_KEYEXCHANGE");

    const std::string step =
        keySpec == AT_SIGNATURE ? "CryptGetUserKey (AT_SIGNATURE)" : "CryptGetUserKey (AT_KEYEXCHANGE)";
    if (!CryptGetUserKey(provider, keySpec, &key.handle)) {
        report.fail(step, container.name, GetLastError());
        return false;
    }
    DWORD algId = 0;
    if (!keyParameter(key.handle, KP_ALGID, algId) || !keyParameter(key.handle, KP_KEYLEN, container.bits)) {
        report.fail(step + ", KP_ALGID/KP_KEYLEN", container.name, GetLastError());
        return false;
    }
    container.algId = algId;
    report.pass(step, container.name, keyText(container));
    return true;
}

void readCertificate(Report& report, HCRYPTKEY key, Container& container) {
    const char step[] = "certificate (KP_CERTIFICATE)";
    DWORD size = 0;
    BOOL read = CryptGetKeyParam(key, KP_CERTIFICATE, nullptr, &size, 0);
    if (read) {
        container.certificate.resize(size);
        read = CryptGetKeyParam(key, KP_CERTIFICATE, container.certificate.data(), &size, 0);
    }
    if (!read) {
        DWORD error = GetLastError();
        container.certificate.clear();
        if (error == static_cast<DWORD>(NTE_NOT_FOUND))
            report.skip(step, container.name, "no certificate for this key on the token");
        else
            report.fail(step, container.name, error);
        return;
    }
    container.certificate.resize(size);
    std::string described = describeCertificate(container.certificate);
    if (described.empty()) {
        report.failCheck(step, container.name,
                         std::to_string(size) + " bytes that crypt32 cannot read as a certificate");
        container.certificate.clear();
        return;
    }
    report.pass(step, container.name, std::to_string(size) + " bytes, " + described);
}

void exportPublicKey(Report& report, HCRYPTKEY key, Container& container) {
    const char step[] = "CryptExportKey (PUBLICKEYBLOB)";
    Bytes blob;
    DWORD size = 0;
    BOOL exported = CryptExportKey(key, 0, PUBLICKEYBLOB, 0, nullptr, &size);
    if (exported) {
        blob.resize(size);
        exported = CryptExportKey(key, 0, PUBLICKEYBLOB, 0, blob.data(), &size);
    }
    if (!exported) {
        DWORD error = GetLastError();
        // The provider hands out the public keys of RSA-2048 key pairs only, and refuses the
        // others with NTE_BAD_KEY; those are checked against their certificates instead.
        if (error == static_cast<DWORD>(NTE_BAD_KEY) && !(container.rsa() && container.bits == 2048))
            report.skip(step, container.name,
                        "not applicable: the provider exports RSA-2048 public keys only (it answered " +
                            describeError(error) + ")");
        else
            report.fail(step, container.name, error);
        return;
    }
    blob.resize(size);
    DWORD magic = 0, bitLength = 0;
    if (blob.size() >= 20) {
        std::memcpy(&magic, &blob[8], 4);
        std::memcpy(&bitLength, &blob[12], 4);
    }
    if (blob.size() != 20 + container.bits / 8 || blob[0] != PUBLICKEYBLOB || magic != 0x31415352 ||
        bitLength != container.bits) {
        report.failCheck(step, container.name,
                         std::to_string(blob.size()) + " bytes that are not the PUBLICKEYBLOB of a " +
                             std::to_string(container.bits) + "-bit RSA key");
        return;
    }
    container.publicKeyBlob = blob;
    if (container.certificate.empty()) {
        report.pass(step, container.name, std::to_string(size) + " bytes (no certificate to compare it with)");
        return;
    }
    // The blob header's ALG_ID follows the key's use; RSAPUBKEY and modulus must be the certificate's.
    Bytes expected = certificateRsaKeyAsPublicKeyBlob(container.certificate);
    if (expected.size() != blob.size() || std::memcmp(&expected[8], &blob[8], blob.size() - 8) != 0) {
        report.failCheck(step, container.name, "the exported key is not the public key in the key's certificate");
        container.publicKeyBlob.clear();
        return;
    }
    report.pass(step, container.name, std::to_string(size) + " bytes, the public key of the key's certificate");
}

// Signs the test message's SHA-256 hash on the token, then has the provider and Windows'
// own cryptography check the signature.
void signAndVerify(Session& session, HCRYPTPROV provider, HCRYPTKEY key, const Container& container) {
    Report& report = session.report;
    const char signStep[] = "CryptSignHash (SHA-256)";
    const char verifyStep[] = "CryptVerifySignature (provider)";
    if (container.keySpec == AT_KEYEXCHANGE) {
        // CryptSignHash would take another key pair of the token for an exchange-only container.
        report.skip(signStep, container.name, "not applicable: an exchange-only key does not sign");
        return;
    }
    if (session.pin == PinState::kRefused) {
        report.skip(signStep, container.name, "the token refused the PIN given; signing would ask for it again");
        return;
    }
    const Bytes message = testMessage();
    Hash hash;
    if (!CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash.handle) ||
        !CryptHashData(hash.handle, message.data(), static_cast<DWORD>(message.size()), 0)) {
        report.fail("CryptCreateHash/CryptHashData (SHA-256)", container.name, GetLastError());
        return;
    }
    DWORD size = 0;
    Bytes signature;
    BOOL signedIt = CryptSignHashA(hash.handle, container.keySpec, nullptr, 0, nullptr, &size);
    if (signedIt) {
        signature.resize(size);
        signedIt = CryptSignHashA(hash.handle, container.keySpec, nullptr, 0, signature.data(), &size);
    }
    if (!signedIt) {
        report.fail(signStep, container.name, GetLastError());
        return;
    }
    signature.resize(size);
    report.pass(signStep, container.name, std::to_string(size) + "-byte signature");

    Hash check;
    if (!CryptCreateHash(provider, CALG_SHA_256, 0, 0, &check.handle) ||
        !CryptHashData(check.handle, message.data(), static_cast<DWORD>(message.size()), 0))
        report.fail("CryptCreateHash/CryptHashData (SHA-256)", container.name, GetLastError());
    else if (!CryptVerifySignatureA(check.handle, signature.data(), size, key, nullptr, 0))
        report.fail(verifyStep, container.name, GetLastError());
    else
        report.pass(verifyStep, container.name, "accepted");

    if (!container.publicKeyBlob.empty()) {
        reportVerdict(report, container.name, verifyWithSystemRsaProvider(container.publicKeyBlob, message, signature));
        return;
    }
    if (container.certificate.empty()) {
        report.skip(kIndependentStep, container.name,
                    "no exported public key and no certificate to check the signature with");
        return;
    }
    // CryptoAPI signatures are little-endian: reversed whole, an RSA signature and the
    // provider's ECDSA r || s come back to the big-endian order bcrypt reads.
    Bytes digest, bigEndian(signature.rbegin(), signature.rend());
    if (!sha256(message, digest)) {
        report.skip(kIndependentStep, container.name, "bcrypt cannot make a SHA-256 hash here");
        return;
    }
    reportVerdict(report, container.name, verifyWithCertificateKey(container.certificate, digest, bigEndian));
}

void checkContainer(Session& session, const std::string& name) {
    Context context;
    Container container;
    container.name = name;
    if (!CryptAcquireContextA(&context.handle, name.c_str(), kProviderName, PROV_RSA_FULL, 0)) {
        session.report.fail("CryptAcquireContext (container)", name, GetLastError());
        return;
    }
    Key key;
    if (!openUserKey(session, context.handle, container, key)) return;
    readCertificate(session.report, key.handle, container);
    if (!container.certificate.empty())
        checkStoreBinding(session.report, name, container.certificate, container.rsa(), container.keySpec);
    exportPublicKey(session.report, key.handle, container);
    signAndVerify(session, context.handle, key.handle, container);
}

}  // namespace

void checkCryptoApi(Session& session) {
    Report& report = session.report;
    report.heading(std::string("CryptoAPI: \"") + kProviderName + "\" through advapi32");
    Context context;
    if (!CryptAcquireContextA(&context.handle, nullptr, kProviderName, PROV_RSA_FULL, 0)) {
        DWORD error = GetLastError();
        report.fail("CryptAcquireContext", "", error,
                    error == static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL) ? kNoTokenMeaning : "");
        return;
    }
    std::vector<std::string> containers;
    DWORD error = 0;
    if (!listContainers(context.handle, containers, error)) {
        report.fail("CryptGetProvParam (PP_ENUMCONTAINERS)", "", error);
        return;
    }
    report.pass("CryptAcquireContext", "", std::to_string(containers.size()) + " container(s) (PP_ENUMCONTAINERS)");
    givePin(session, context.handle);
    for (const std::string& name : containers) checkContainer(session, name);

    if (session.options.write)
        report.skip("CryptGenKey", "",
                    "not run: the provider cannot delete a container (CRYPT_DELETEKEYSET deletes nothing), so the "
                    "test key is made and deleted through the key storage provider");
}

}  // namespace check
