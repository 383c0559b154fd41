// The key storage provider half: the module is loaded from the image path CryptoAPI uses and
// driven through the table its GetKeyStorageInterface hands out, as the CNG router would.
#include <windows.h>
#include <bcrypt.h>
#include <ncrypt.h>
#include <wincrypt.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "provider/ksp/KspInterface.h"
#include "tools/orvane-check/Checks.h"
#include "tools/orvane-check/WindowsCrypto.h"

namespace check {
namespace {

using Table = NCRYPT_KEY_STORAGE_FUNCTION_TABLE;
using GetKeyStorageInterfaceFn = NTSTATUS(WINAPI*)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE**, DWORD);

const wchar_t kTestKeyName[] = L"orvane-check test key";

std::string narrow(const std::wstring& wide) {
    std::string text;
    for (wchar_t c : wide) text.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    return text;
}

// One key as KSPEnumKeys lists it.
struct ListedKey {
    std::wstring name;
    DWORD legacyKeySpec = 0;
};

// What the checks of one key learn on the way.
struct KeyFacts {
    std::string name;
    std::wstring algorithmGroup;  // "RSA" or "ECDSA"
    DWORD bits = 0;
    DWORD usage = 0;  // NCRYPT_ALLOW_*_FLAG
    Bytes certificate;
    Bytes rsaPublicBlob;

    bool ecdsa() const { return algorithmGroup == L"ECDSA"; }
    // The length of a signature: RSA the modulus, ECDSA r and s of the curve's size each.
    DWORD signatureSize() const { return ecdsa() ? 2 * ((bits + 7) / 8) : bits / 8; }
};

class KeyStorage {
public:
    KeyStorage(const Table& table, NCRYPT_PROV_HANDLE provider) : ksp(table), provider(provider) {}

    SECURITY_STATUS property(NCRYPT_KEY_HANDLE key, const wchar_t* name, Bytes& value) const {
        DWORD size = 0;
        SECURITY_STATUS status = ksp.GetKeyProperty(provider, key, name, nullptr, 0, &size, 0);
        if (status != ERROR_SUCCESS) return status;
        value.assign(size, 0);
        status = ksp.GetKeyProperty(provider, key, name, value.data(), size, &size, 0);
        value.resize(status == ERROR_SUCCESS ? size : 0);
        return status;
    }

    SECURITY_STATUS exportKey(NCRYPT_KEY_HANDLE key, const wchar_t* blobType, Bytes& blob) const {
        DWORD size = 0;
        SECURITY_STATUS status = ksp.ExportKey(provider, key, 0, blobType, nullptr, nullptr, 0, &size, 0);
        if (status != ERROR_SUCCESS) return status;
        blob.assign(size, 0);
        status = ksp.ExportKey(provider, key, 0, blobType, nullptr, blob.data(), size, &size, 0);
        blob.resize(status == ERROR_SUCCESS ? size : 0);
        return status;
    }

    // KSPEnumKeys until NTE_NO_MORE_ITEMS; the status that ended it otherwise.
    SECURITY_STATUS listKeys(std::vector<ListedKey>& keys) const {
        void* state = nullptr;
        SECURITY_STATUS status = ERROR_SUCCESS;
        for (size_t guard = 0; guard < 100000 && status == ERROR_SUCCESS; ++guard) {
            NCryptKeyName* entry = nullptr;
            status = ksp.EnumKeys(provider, nullptr, &entry, &state, 0);
            if (status != ERROR_SUCCESS) break;
            ListedKey key;
            key.name = entry->pszName != nullptr ? entry->pszName : L"";
            key.legacyKeySpec = entry->dwLegacyKeySpec;
            keys.push_back(key);
            ksp.FreeBuffer(entry);
        }
        if (state != nullptr) ksp.FreeBuffer(state);
        return status == NTE_NO_MORE_ITEMS ? ERROR_SUCCESS : status;
    }

    const Table& ksp;
    NCRYPT_PROV_HANDLE provider;
};

DWORD dwordOf(const Bytes& value) {
    DWORD number = 0;
    if (value.size() >= sizeof number) std::memcpy(&number, value.data(), sizeof number);
    return number;
}

std::wstring wideTextOf(const Bytes& value) {
    std::wstring text(value.size() / sizeof(wchar_t), L'\0');
    if (!text.empty()) std::memcpy(&text[0], value.data(), text.size() * sizeof(wchar_t));
    return std::wstring(text.c_str());  // up to the terminator
}

const Table* loadTable(Report& report, const std::string& imagePath) {
    // Kept loaded until the process ends, as the router keeps its providers.
    HMODULE module = LoadLibraryA(imagePath.c_str());
    if (module == nullptr) {
        report.fail("LoadLibrary", "", GetLastError(), imagePath);
        return nullptr;
    }
    auto getInterface = reinterpret_cast<GetKeyStorageInterfaceFn>(
        reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")));
    if (getInterface == nullptr) {
        report.fail("GetProcAddress (GetKeyStorageInterface)", "", GetLastError());
        return nullptr;
    }
    Table* table = nullptr;
    NTSTATUS status = getInterface(L"Orvane Cryptographic Provider CSP", &table, 0);
    if (status != 0 || table == nullptr) {
        report.fail("GetKeyStorageInterface", "", static_cast<unsigned long>(status != 0 ? status : NTE_FAIL));
        return nullptr;
    }
    const bool entries[] = {table->OpenProvider != nullptr,
                            table->OpenKey != nullptr,
                            table->CreatePersistedKey != nullptr,
                            table->GetProviderProperty != nullptr,
                            table->GetKeyProperty != nullptr,
                            table->SetProviderProperty != nullptr,
                            table->SetKeyProperty != nullptr,
                            table->FinalizeKey != nullptr,
                            table->DeleteKey != nullptr,
                            table->FreeProvider != nullptr,
                            table->FreeKey != nullptr,
                            table->FreeBuffer != nullptr,
                            table->Encrypt != nullptr,
                            table->Decrypt != nullptr,
                            table->IsAlgSupported != nullptr,
                            table->EnumAlgorithms != nullptr,
                            table->EnumKeys != nullptr,
                            table->ImportKey != nullptr,
                            table->ExportKey != nullptr,
                            table->SignHash != nullptr,
                            table->VerifySignature != nullptr,
                            table->PromptUser != nullptr,
                            table->NotifyChangeKey != nullptr,
                            table->SecretAgreement != nullptr,
                            table->DeriveKey != nullptr,
                            table->FreeSecret != nullptr};
    long present = static_cast<long>(std::count(std::begin(entries), std::end(entries), true));
    std::string version =
        std::to_string(table->Version.MajorVersion) + "." + std::to_string(table->Version.MinorVersion);
    if (table->Version.MajorVersion != 1 || present != 26) {
        report.failCheck("GetKeyStorageInterface", "",
                         "interface version " + version + " with " + std::to_string(present) +
                             " of 26 entries; a version 1 table with every entry is needed");
        return nullptr;
    }
    report.pass("GetKeyStorageInterface", "", "interface version " + version + ", 26 entries");
    return table;
}

void givePin(Session& session, const KeyStorage& storage) {
    Report& report = session.report;
    const char step[] = "PIN (SmartCardPin property)";
    if (!session.options.pinGiven) {
        report.skip(step, "",
                    "no PIN given (--pin-stdin, --ask-pin): the provider asks for the PIN itself when a key is used");
        return;
    }
    if (session.pin == PinState::kRefused) {
        report.skip(step, "",
                    "not offered again: the token refused it through CryptoAPI, and every try uses up one "
                    "of the token's PIN attempts");
        return;
    }
    // The provider reads this property as narrow text up to its terminator.
    std::string pin = session.options.pin;
    SECURITY_STATUS status = storage.ksp.SetProviderProperty(
        storage.provider, NCRYPT_PIN_PROPERTY, reinterpret_cast<PBYTE>(&pin[0]), static_cast<DWORD>(pin.size() + 1), 0);
    if (status == ERROR_SUCCESS) {
        session.pin = PinState::kAccepted;
        report.pass(step, "", "accepted by the token");
    } else {
        session.pin = PinState::kRefused;
        report.fail(step, "", static_cast<unsigned long>(status), "the token refused the PIN");
    }
}

bool readKeyFacts(Report& report, const KeyStorage& storage, NCRYPT_KEY_HANDLE key, KeyFacts& facts,
                  const std::string& step) {
    Bytes group, length, usage;
    SECURITY_STATUS status = storage.property(key, NCRYPT_ALGORITHM_GROUP_PROPERTY, group);
    if (status == ERROR_SUCCESS) status = storage.property(key, NCRYPT_LENGTH_PROPERTY, length);
    if (status == ERROR_SUCCESS) status = storage.property(key, NCRYPT_KEY_USAGE_PROPERTY, usage);
    if (status != ERROR_SUCCESS) {
        report.fail(step + ", key properties", facts.name, static_cast<unsigned long>(status));
        return false;
    }
    facts.algorithmGroup = wideTextOf(group);
    facts.bits = dwordOf(length);
    facts.usage = dwordOf(usage);
    std::string uses;
    if (facts.usage & NCRYPT_ALLOW_SIGNING_FLAG) uses = "signing";
    if (facts.usage & NCRYPT_ALLOW_DECRYPT_FLAG) uses += uses.empty() ? "decryption" : " and decryption";
    report.pass(step, facts.name,
                narrow(facts.algorithmGroup) + ", " + std::to_string(facts.bits) + " bits, for " +
                    (uses.empty() ? "nothing (key usage 0)" : uses));
    return true;
}

void readCertificate(Report& report, const KeyStorage& storage, NCRYPT_KEY_HANDLE key, KeyFacts& facts) {
    const char step[] = "certificate (SmartCardKeyCertificate)";
    SECURITY_STATUS status = storage.property(key, NCRYPT_CERTIFICATE_PROPERTY, facts.certificate);
    if (status == NTE_NOT_FOUND) {
        report.skip(step, facts.name, "no certificate for this key on the token");
        return;
    }
    if (status != ERROR_SUCCESS) {
        report.fail(step, facts.name, static_cast<unsigned long>(status));
        return;
    }
    std::string described = describeCertificate(facts.certificate);
    if (described.empty()) {
        report.failCheck(step, facts.name,
                         std::to_string(facts.certificate.size()) + " bytes that crypt32 cannot read as a certificate");
        facts.certificate.clear();
        return;
    }
    report.pass(step, facts.name, std::to_string(facts.certificate.size()) + " bytes, " + described);
}

// Exponent (without leading zeros) and modulus of a BCRYPT_RSAPUBLIC_BLOB; false when it is
// not a whole one.
bool readRsaPublicBlob(const Bytes& blob, Bytes& exponent, Bytes& modulus) {
    BCRYPT_RSAKEY_BLOB header = {};
    if (blob.size() < sizeof header) return false;
    std::memcpy(&header, blob.data(), sizeof header);
    if (header.Magic != BCRYPT_RSAPUBLIC_MAGIC ||
        blob.size() != sizeof header + size_t{header.cbPublicExp} + header.cbModulus)
        return false;
    auto at = blob.begin() + sizeof header;
    exponent.assign(at, at + header.cbPublicExp);
    modulus.assign(at + header.cbPublicExp, blob.end());
    exponent.erase(exponent.begin(),
                   std::find_if(exponent.begin(), exponent.end(), [](unsigned char b) { return b != 0; }));
    return true;
}

bool sameRsaPublicKey(const Bytes& one, const Bytes& other) {
    Bytes exponent, modulus, otherExponent, otherModulus;
    return readRsaPublicBlob(one, exponent, modulus) && readRsaPublicBlob(other, otherExponent, otherModulus) &&
           exponent == otherExponent && modulus == otherModulus;
}

void exportPublicKey(Report& report, const KeyStorage& storage, NCRYPT_KEY_HANDLE key, KeyFacts& facts) {
    if (facts.ecdsa()) {
        const char step[] = "KSPExportKey (ECCPUBLICBLOB)";
        Bytes blob;
        SECURITY_STATUS status = storage.exportKey(key, BCRYPT_ECCPUBLIC_BLOB, blob);
        // The provider hands out RSA public blobs only; ECDSA keys are checked against their
        // certificates instead.
        if (status == NTE_NOT_SUPPORTED)
            report.skip(step, facts.name,
                        "not applicable: the provider exports RSA public keys only (it answered " +
                            describeError(static_cast<unsigned long>(status)) + ")");
        else if (status != ERROR_SUCCESS)
            report.fail(step, facts.name, static_cast<unsigned long>(status));
        else
            report.pass(step, facts.name, std::to_string(blob.size()) + " bytes");
        return;
    }
    const char step[] = "KSPExportKey (RSAPUBLICBLOB)";
    Bytes blob;
    SECURITY_STATUS status = storage.exportKey(key, BCRYPT_RSAPUBLIC_BLOB, blob);
    if (status != ERROR_SUCCESS) {
        report.fail(step, facts.name, static_cast<unsigned long>(status));
        return;
    }
    BCRYPT_RSAKEY_BLOB header = {};
    Bytes exponent, modulus;
    if (blob.size() >= sizeof header) std::memcpy(&header, blob.data(), sizeof header);
    if (!readRsaPublicBlob(blob, exponent, modulus) || header.BitLength != facts.bits ||
        modulus.size() != facts.bits / 8) {
        report.failCheck(step, facts.name,
                         std::to_string(blob.size()) + " bytes that are not the RSAPUBLICBLOB of a " +
                             std::to_string(facts.bits) + "-bit key");
        return;
    }
    if (facts.certificate.empty()) {
        facts.rsaPublicBlob = blob;
        report.pass(step, facts.name, std::to_string(blob.size()) + " bytes (no certificate to compare it with)");
        return;
    }
    if (!sameRsaPublicKey(blob, certificateRsaKeyAsRsaPublicBlob(facts.certificate))) {
        report.failCheck(step, facts.name, "the exported key is not the public key in the key's certificate");
        return;
    }
    facts.rsaPublicBlob = blob;
    report.pass(step, facts.name, std::to_string(blob.size()) + " bytes, the public key of the key's certificate");
}

void signAndVerify(Session& session, const KeyStorage& storage, NCRYPT_KEY_HANDLE key, const KeyFacts& facts) {
    Report& report = session.report;
    const char signStep[] = "KSPSignHash (SHA-256)";
    if (!(facts.usage & NCRYPT_ALLOW_SIGNING_FLAG)) {
        report.skip(signStep, facts.name, "not applicable: the key's usage does not include signing");
        return;
    }
    if (session.pin == PinState::kRefused) {
        report.skip(signStep, facts.name, "the token refused the PIN given; signing would ask for it again");
        return;
    }
    Bytes digest;
    if (!sha256(testMessage(), digest)) {
        report.skip(signStep, facts.name, "bcrypt cannot make a SHA-256 hash here");
        return;
    }
    BCRYPT_PKCS1_PADDING_INFO pkcs1 = {BCRYPT_SHA256_ALGORITHM};
    void* padding = facts.ecdsa() ? nullptr : &pkcs1;
    DWORD flags = facts.ecdsa() ? 0 : BCRYPT_PAD_PKCS1;
    // With the PIN given up front, a sign-on that was lost fails instead of opening a dialog.
    DWORD signFlags = flags | (session.pin == PinState::kAccepted ? NCRYPT_SILENT_FLAG : 0);

    DWORD announced = 0;
    SECURITY_STATUS status = storage.ksp.SignHash(storage.provider, key, padding, digest.data(),
                                                  static_cast<DWORD>(digest.size()), nullptr, 0, &announced, signFlags);
    if (status != ERROR_SUCCESS) {
        report.fail(std::string(signStep) + ", size", facts.name, static_cast<unsigned long>(status));
        return;
    }
    // The provider announces the key size in bytes, which an ECDSA signature (r and s) exceeds.
    Bytes signature(std::max(announced, facts.signatureSize()));
    DWORD size = 0;
    status = storage.ksp.SignHash(storage.provider, key, padding, digest.data(), static_cast<DWORD>(digest.size()),
                                  signature.data(), static_cast<DWORD>(signature.size()), &size, signFlags);
    if (status != ERROR_SUCCESS) {
        report.fail(signStep, facts.name, static_cast<unsigned long>(status));
        return;
    }
    signature.resize(std::min<size_t>(size, signature.size()));
    std::string detail = std::to_string(size) + "-byte signature";
    if (announced < size) detail += " (the size query answered " + std::to_string(announced) + ")";
    report.pass(signStep, facts.name, detail);

    status =
        storage.ksp.VerifySignature(storage.provider, key, padding, digest.data(), static_cast<DWORD>(digest.size()),
                                    signature.data(), static_cast<DWORD>(signature.size()), flags);
    if (status != ERROR_SUCCESS)
        report.fail("KSPVerifySignature (provider)", facts.name, static_cast<unsigned long>(status));
    else
        report.pass("KSPVerifySignature (provider)", facts.name, "accepted");

    if (!facts.rsaPublicBlob.empty())
        reportVerdict(report, facts.name, verifyWithRsaPublicBlob(facts.rsaPublicBlob, digest, signature));
    else if (!facts.certificate.empty())
        reportVerdict(report, facts.name, verifyWithCertificateKey(facts.certificate, digest, signature));
    else
        report.skip(kIndependentStep, facts.name,
                    "no exported public key and no certificate to check the signature with");
}

void checkKey(Session& session, const KeyStorage& storage, const ListedKey& listed) {
    KeyFacts facts;
    facts.name = narrow(listed.name);
    NCRYPT_KEY_HANDLE key = 0;
    SECURITY_STATUS status = storage.ksp.OpenKey(storage.provider, &key, listed.name.c_str(), listed.legacyKeySpec, 0);
    if (status != ERROR_SUCCESS) {
        session.report.fail("KSPOpenKey", facts.name, static_cast<unsigned long>(status));
        return;
    }
    if (readKeyFacts(session.report, storage, key, facts, "KSPOpenKey")) {
        readCertificate(session.report, storage, key, facts);
        exportPublicKey(session.report, storage, key, facts);
        signAndVerify(session, storage, key, facts);
    }
    storage.ksp.FreeKey(storage.provider, key);
}

std::string namesOf(const std::vector<ListedKey>& keys) {
    std::string text;
    for (const ListedKey& key : keys) text += (text.empty() ? "" : " ") + narrow(key.name);
    return text.empty() ? "(none)" : text;
}

// --write: an RSA-2048 signature key made on the token, used, and deleted again.
void checkKeyLifecycle(Session& session, const KeyStorage& storage, const std::vector<ListedKey>& before) {
    Report& report = session.report;
    const char createStep[] = "KSPFinalizeKey (new RSA-2048 key)";
    if (session.pin == PinState::kRefused) {
        report.skip(createStep, "", "the token refused the PIN given; making a key would ask for it again");
        return;
    }
    NCRYPT_KEY_HANDLE key = 0;
    SECURITY_STATUS status =
        storage.ksp.CreatePersistedKey(storage.provider, &key, BCRYPT_RSA_ALGORITHM, kTestKeyName, AT_SIGNATURE, 0);
    if (status != ERROR_SUCCESS) {
        report.fail("KSPCreatePersistedKey (RSA)", "", static_cast<unsigned long>(status));
        return;
    }
    DWORD bits = 2048;
    status = storage.ksp.SetKeyProperty(storage.provider, key, NCRYPT_LENGTH_PROPERTY, reinterpret_cast<PBYTE>(&bits),
                                        sizeof bits, 0);
    if (status == ERROR_SUCCESS) status = storage.ksp.FinalizeKey(storage.provider, key, 0);
    if (status != ERROR_SUCCESS) {
        report.fail(createStep, "", static_cast<unsigned long>(status));
        storage.ksp.FreeKey(storage.provider, key);
        return;
    }
    KeyFacts facts;
    Bytes name;
    storage.property(key, NCRYPT_NAME_PROPERTY, name);
    facts.name = narrow(wideTextOf(name));
    report.pass(createStep, facts.name, "made on the token");
    if (readKeyFacts(report, storage, key, facts, "test key properties")) {
        exportPublicKey(report, storage, key, facts);
        signAndVerify(session, storage, key, facts);
    }
    status = storage.ksp.DeleteKey(storage.provider, key, 0);
    if (status != ERROR_SUCCESS)
        report.fail("KSPDeleteKey", facts.name, static_cast<unsigned long>(status),
                    "the test key is still on the token");
    else
        report.pass("KSPDeleteKey", facts.name, "deleted");
    storage.ksp.FreeKey(storage.provider, key);

    std::vector<ListedKey> after;
    status = storage.listKeys(after);
    if (status != ERROR_SUCCESS) {
        report.fail("KSPEnumKeys (after the test key)", "", static_cast<unsigned long>(status));
        return;
    }
    if (namesOf(after) != namesOf(before))
        report.failCheck("key list after the test", "", "was: " + namesOf(before) + "; is: " + namesOf(after));
    else
        report.pass("key list after the test", "", "as before (" + std::to_string(after.size()) + " key(s))");
}

}  // namespace

void checkKeyStorage(Session& session, const std::string& imagePath) {
    Report& report = session.report;
    report.heading("Key storage provider: GetKeyStorageInterface of " + imagePath);
    const Table* table = loadTable(report, imagePath);
    if (table == nullptr) return;
    NCRYPT_PROV_HANDLE provider = 0;
    SECURITY_STATUS status = table->OpenProvider(&provider, L"Orvane Cryptographic Provider CSP", 0);
    if (status != ERROR_SUCCESS) {
        report.fail("KSPOpenProvider", "", static_cast<unsigned long>(status),
                    status == NTE_DEVICE_NOT_FOUND ? "no token is connected" : "");
        return;
    }
    KeyStorage storage(*table, provider);
    std::vector<ListedKey> keys;
    status = storage.listKeys(keys);
    if (status != ERROR_SUCCESS) {
        report.fail("KSPEnumKeys", "", static_cast<unsigned long>(status));
    } else {
        report.pass("KSPOpenProvider + KSPEnumKeys", "", std::to_string(keys.size()) + " key(s)");
        givePin(session, storage);
        for (const ListedKey& key : keys) checkKey(session, storage, key);
        if (session.options.write) checkKeyLifecycle(session, storage, keys);
    }
    table->FreeProvider(provider);
}

}  // namespace check
