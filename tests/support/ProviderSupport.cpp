#include "tests/support/ProviderSupport.h"

#include <psapi.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"

namespace orvanetest {

const char kProviderName[] = "Orvane Cryptographic Provider CSP";

::testing::AssertionResult verifiedByOpenSsl(const std::string& certificateFile, const std::string& digest,
                                             const std::string& message, const Bytes& signature) {
    writeText(workDir() + "/signed.txt", message);
    writeFile(workDir() + "/signature.bin", signature);
    HostResult host = runHost("openssl x509 -inform DER -in " + certificateFile + " -pubkey -noout > signer.pem && " +
                              "openssl dgst -" + digest + " -verify signer.pem -signature signature.bin signed.txt");
    if (host.output.find("Verified OK") != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << digest << ": " << host.output;
}

ContextHandle::ContextHandle(const std::string& container) {
    EXPECT_TRUE(CryptAcquireContextA(&handle_, container.empty() ? nullptr : container.c_str(), kProviderName,
                                     PROV_RSA_FULL, 0))
        << std::hex << GetLastError();
}

ContextHandle::ContextHandle() {
    EXPECT_TRUE(CryptAcquireContextA(&handle_, nullptr, MS_ENHANCED_PROV_A, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
}

ContextHandle::~ContextHandle() {
    if (handle_) CryptReleaseContext(handle_, 0);
}

HCRYPTKEY ContextHandle::userKey(DWORD keySpec) const {
    HCRYPTKEY key = 0;
    EXPECT_TRUE(CryptGetUserKey(handle_, keySpec, &key)) << std::hex << GetLastError();
    return key;
}

HCRYPTKEY ContextHandle::import(const Bytes& blob, HCRYPTKEY unwrapping) const {
    HCRYPTKEY key = 0;
    EXPECT_TRUE(CryptImportKey(handle_, blob.data(), static_cast<DWORD>(blob.size()), unwrapping, 0, &key))
        << std::hex << GetLastError();
    return key;
}

HCRYPTHASH ContextHandle::hash(ALG_ID algorithm, const std::string& data) const {
    HCRYPTHASH hash = 0;
    EXPECT_TRUE(CryptCreateHash(handle_, algorithm, 0, 0, &hash)) << std::hex << GetLastError();
    EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>(data.data()), static_cast<DWORD>(data.size()), 0));
    return hash;
}

Bytes ContextHandle::sign(HCRYPTHASH hash, DWORD keySpec, DWORD* queriedSize) const {
    DWORD size = 0;
    EXPECT_TRUE(CryptSignHashA(hash, keySpec, nullptr, 0, nullptr, &size)) << std::hex << GetLastError();
    if (queriedSize) *queriedSize = size;
    Bytes signature(size + 64);
    size = static_cast<DWORD>(signature.size());
    EXPECT_TRUE(CryptSignHashA(hash, keySpec, nullptr, 0, signature.data(), &size)) << std::hex << GetLastError();
    signature.resize(size);
    return signature;
}

Bytes ContextHandle::sign(ALG_ID algorithm, const std::string& data, DWORD keySpec) const {
    HCRYPTHASH hashed = hash(algorithm, data);
    Bytes signature = sign(hashed, keySpec);
    CryptDestroyHash(hashed);
    return signature;
}

BOOL ContextHandle::verify(ALG_ID algorithm, const std::string& data, const Bytes& signature, HCRYPTKEY key) const {
    HCRYPTHASH hashed = hash(algorithm, data);
    BOOL ok = CryptVerifySignatureA(hashed, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0);
    DWORD error = GetLastError();
    CryptDestroyHash(hashed);
    SetLastError(error);
    return ok;
}

Bytes exportPublicKeyBlob(HCRYPTKEY key) {
    DWORD size = 0;
    EXPECT_TRUE(CryptExportKey(key, 0, PUBLICKEYBLOB, 0, nullptr, &size)) << std::hex << GetLastError();
    Bytes blob(size);
    EXPECT_TRUE(CryptExportKey(key, 0, PUBLICKEYBLOB, 0, blob.data(), &size)) << std::hex << GetLastError();
    blob.resize(size);
    return blob;
}

std::string providerLogPath() {
    char temp[MAX_PATH], process[MAX_PATH];
    GetTempPathA(sizeof temp, temp);
    K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, process, sizeof process);
    SYSTEMTIME today;
    GetLocalTime(&today);
    char date[16];
    std::snprintf(date, sizeof date, "%04d-%02d-%02d", today.wYear, today.wMonth, today.wDay);
    return std::string(temp) + "/Kestrelon/" + process + "/" + date + ".LOG";
}

std::string readProviderLog(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

std::string logSince(const std::string& before, const std::string& path) {
    std::string now = readProviderLog(path);
    return now.size() >= before.size() ? now.substr(before.size()) : now;
}

void setLogLevel(int level) {
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, "Software\\Kestrelon\\Orvane", 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key,
                        nullptr) != ERROR_SUCCESS)
        throw std::runtime_error("cannot open the provider's settings key");
    if (level < 0) {
        RegDeleteValueA(key, "logLevel");
    } else {
        DWORD value = static_cast<DWORD>(level);
        RegSetValueExA(key, "logLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
    }
    RegCloseKey(key);
}

FARPROC providerExport(const char* name) {
    static HMODULE provider = LoadLibraryA("OrvaneCSP.dll");
    FARPROC function = provider ? GetProcAddress(provider, name) : nullptr;
    if (function == nullptr) throw std::runtime_error(std::string("OrvaneCSP.dll does not export ") + name);
    return function;
}

std::string issueCertificate(const std::string& serial, const std::string& keyId, const std::string& subject) {
    Bytes spki;
    softtoken::admin::exportPublicKey(serial, keyId, spki);
    writeFile(workDir() + "/" + keyId + ".pub.der", spki);
    std::string file = workDir() + "/" + subject + ".cert.der";
    HostResult host = runHost(
        "set -e\n"
        "[ -f ca.pem ] || openssl req -x509 -new -newkey rsa:2048 -nodes -keyout ca.key -subj '/CN=Orvane Test CA' "
        "-days 30 -out ca.pem 2>/dev/null\n"
        "openssl x509 -new -subj '/CN=" + subject + "' -force_pubkey " + keyId +
        ".pub.der -CA ca.pem -CAkey ca.key -days 30 -outform DER -out " + file);
    if (host.exitCode != 0) throw std::runtime_error("certificate issue failed: " + host.output);
    return file;
}

ProvisionedKey provisionKeyWithCertificate(const std::string& serial, int keyType, int usage) {
    ProvisionedKey key;
    if (softtoken::admin::generateKeyPair(serial, keyType, "", usage, 0, key.keyId) != 0)
        throw std::runtime_error("key generation failed");
    key.certificateFile = issueCertificate(serial, key.keyId, key.keyId);
    std::string linked;
    if (softtoken::admin::importCertificate(serial, readFile(key.certificateFile), "", linked) != 0 || linked != key.keyId)
        throw std::runtime_error("certificate import failed");
    return key;
}

void expectStoredAesKey(const std::string& serial, const std::vector<OrvaneSymmetricKey>& before, int32_t type,
                        const Bytes& value) {
    std::vector<OrvaneSymmetricKey> fresh;
    for (const OrvaneSymmetricKey& key : orvane_getAesKeyList(serial.c_str(), nullptr))
        if (std::none_of(before.begin(), before.end(),
                         [&](const OrvaneSymmetricKey& old) { return std::memcmp(old.keyId, key.keyId, 16) == 0; }))
            fresh.push_back(key);
    ASSERT_EQ(1u, fresh.size());
    EXPECT_EQ(type, fresh[0].keyType);
    const Bytes probe = orvane::hexToBytes("00112233445566778899AABBCCDDEEFF");
    Bytes wrapped = aesWrap(value, probe);
    unsigned char* unwrapped = nullptr;
    int length = 0;
    ASSERT_EQ(0, orvane_decrypt_aes(serial.c_str(), fresh[0].keyData, fresh[0].keyDataLength, wrapped.data(),
                                    static_cast<int>(wrapped.size()), &unwrapped, &length, fresh[0].keyFlag, nullptr, 0,
                                    nullptr));
    EXPECT_EQ(orvane::toHex(probe), orvane::toHex(unwrapped, static_cast<size_t>(length)));
    delete[] unwrapped;
}

}  // namespace orvanetest
