// Signing, verification, encryption and decryption through Wine's advapi32, with a token
// that is signed on (no PIN dialog). Results are checked by OpenSSL on the host and by the
// token library itself at the byte-order boundary.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <cstring>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

const char kSerial[] = "CRYPTO-1";

Bytes reversed(Bytes bytes) { return Bytes(bytes.rbegin(), bytes.rend()); }

// One context on one container, released at the end.
class Container {
public:
    explicit Container(const std::string& keyId) {
        EXPECT_TRUE(CryptAcquireContextA(&provider_, keyId.c_str(), kProviderName, PROV_RSA_FULL, 0))
            << std::hex << GetLastError();
    }
    ~Container() {
        if (provider_) CryptReleaseContext(provider_, 0);
    }
    HCRYPTPROV handle() const { return provider_; }

    HCRYPTHASH hashOf(ALG_ID algorithm, const std::string& data) const {
        HCRYPTHASH hash = 0;
        EXPECT_TRUE(CryptCreateHash(provider_, algorithm, 0, 0, &hash)) << std::hex << GetLastError();
        EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>(data.data()), static_cast<DWORD>(data.size()), 0));
        return hash;
    }

    // Size query, then the signature (little-endian, as CryptoAPI hands it out).
    Bytes sign(HCRYPTHASH hash, DWORD* queriedSize = nullptr) const {
        DWORD size = 0;
        EXPECT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, nullptr, &size)) << std::hex << GetLastError();
        if (queriedSize) *queriedSize = size;
        Bytes signature(size + 64);
        size = static_cast<DWORD>(signature.size());
        EXPECT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &size)) << std::hex << GetLastError();
        signature.resize(size);
        return signature;
    }

private:
    HCRYPTPROV provider_ = 0;
};

class CspCryptoTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        useFreshStore("crypto");
        ASSERT_EQ(0, admin::createToken(kSerial, "Crypto token", "1234", 5));
        ASSERT_EQ(0, admin::setSignOn(kSerial, 1, 1));
        rsa2048_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_2048, 3);
        rsa3072_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_3072, 3);
        std::string ecKey;
        ASSERT_EQ(0, admin::generateKeyPair(kSerial, ORVANE_KEY_EC_P384, "ec", 1, 0, ecKey));
        ec384_ = ecKey;
    }

    static ProvisionedKey rsa2048_, rsa3072_;
    static std::string ec384_;
};

ProvisionedKey CspCryptoTest::rsa2048_, CspCryptoTest::rsa3072_;
std::string CspCryptoTest::ec384_;

TEST_F(CspCryptoTest, SignaturesVerifyWithOpenSslAgainstTheKeyCertificate) {
    const std::string message = "The quick brown fox signs through CryptoAPI";
    writeText(workDir() + "/message.txt", message);
    struct Case {
        const ProvisionedKey* key;
        ALG_ID algorithm;
        const char* digest;
        DWORD size;
    };
    for (Case c : {Case{&rsa2048_, CALG_SHA1, "sha1", 256}, Case{&rsa2048_, CALG_SHA_256, "sha256", 256},
                   Case{&rsa3072_, CALG_SHA1, "sha1", 384}, Case{&rsa3072_, CALG_SHA_256, "sha256", 384}}) {
        Container container(c.key->keyId);
        HCRYPTHASH hash = container.hashOf(c.algorithm, message);
        DWORD queried = 0;
        Bytes signature = container.sign(hash, &queried);
        EXPECT_EQ(c.size, queried);
        ASSERT_EQ(c.size, signature.size());

        std::string file = std::string("sig-") + c.digest + "-" + std::to_string(c.size) + ".bin";
        writeFile(workDir() + "/" + file, reversed(signature));
        HostResult host = runHost("openssl x509 -inform DER -in " + c.key->certificateFile +
                                  " -pubkey -noout > cert-key.pem && openssl dgst -" + c.digest +
                                  " -verify cert-key.pem -signature " + file + " message.txt");
        EXPECT_NE(std::string::npos, host.output.find("Verified OK")) << c.digest << " " << c.size << ": " << host.output;

        // CryptVerifySignature with the container's key accepts it and refuses one flipped bit.
        HCRYPTKEY key = 0;
        ASSERT_TRUE(CryptGetUserKey(container.handle(), AT_SIGNATURE, &key));
        HCRYPTHASH check = container.hashOf(c.algorithm, message);
        EXPECT_TRUE(CryptVerifySignatureA(check, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0))
            << std::hex << GetLastError();
        signature[17] ^= 0x10;
        EXPECT_FALSE(CryptVerifySignatureA(check, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0));
        EXPECT_EQ(static_cast<DWORD>(NTE_BAD_SIGNATURE), GetLastError());
        CryptDestroyHash(check);
        CryptDestroyKey(key);
        CryptDestroyHash(hash);
    }
}

TEST_F(CspCryptoTest, SignatureIsTheTokenSignatureInReverseOrder) {
    Container container(rsa2048_.keyId);
    HCRYPTHASH hash = container.hashOf(CALG_SHA_256, "abc");
    Bytes signature = container.sign(hash);
    CryptDestroyHash(hash);

    // RSA PKCS#1 v1.5 is deterministic: the token's own signature of SHA-256("abc").
    Bytes digest = orvane::hexToBytes("BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    Bytes keyId = orvane::hexToBytes(rsa2048_.keyId), direct(256);
    int length = 256;
    ASSERT_EQ(0, orvane_signHash(kSerial, keyId.data(), "", digest.data(), 32, direct.data(), &length, false, nullptr));
    EXPECT_EQ(direct, reversed(signature));
}

TEST_F(CspCryptoTest, Sha384AndSha512HashesSignButDoNotReportTheirValue) {
    Container container(rsa2048_.keyId);
    for (ALG_ID algorithm : {CALG_SHA_384, CALG_SHA_512}) {
        HCRYPTHASH hash = container.hashOf(algorithm, "long digests");
        BYTE value[64];
        DWORD size = sizeof value;
        EXPECT_FALSE(CryptGetHashParam(hash, HP_HASHVAL, value, &size, 0));
        EXPECT_EQ(static_cast<DWORD>(NTE_BAD_ALGID), GetLastError());
        EXPECT_EQ(256u, container.sign(hash).size());
        CryptDestroyHash(hash);
    }
}

TEST_F(CspCryptoTest, DecryptsWhatOpenSslEncryptedAndRoundTripsItsOwnEncryption) {
    writeText(workDir() + "/plain.txt", "meet me at noon");
    HostResult host = runHost("openssl x509 -inform DER -in " + rsa2048_.certificateFile +
                              " -pubkey -noout > enc-key.pem && openssl pkeyutl -encrypt -pubin -inkey enc-key.pem "
                              "-in plain.txt -out openssl.cipher");
    ASSERT_EQ(0, host.exitCode) << host.output;

    Container container(rsa2048_.keyId);
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGetUserKey(container.handle(), AT_KEYEXCHANGE, &key)) << std::hex << GetLastError();
    Bytes data = reversed(readFile(workDir() + "/openssl.cipher"));
    DWORD length = static_cast<DWORD>(data.size());
    ASSERT_TRUE(CryptDecrypt(key, 0, TRUE, 0, data.data(), &length)) << std::hex << GetLastError();
    EXPECT_EQ("meet me at noon", std::string(data.begin(), data.begin() + length));

    for (DWORD flags : {0ul, static_cast<unsigned long>(CRYPT_OAEP)}) {
        const std::string secret = "round trip";
        DWORD size = 0;
        ASSERT_TRUE(CryptEncrypt(key, 0, TRUE, flags, nullptr, &size, 0));
        EXPECT_EQ(256u, size);
        Bytes buffer(size);
        std::memcpy(buffer.data(), secret.data(), secret.size());
        DWORD used = static_cast<DWORD>(secret.size());
        EXPECT_FALSE(CryptEncrypt(key, 0, TRUE, flags, buffer.data(), &used, 255));
        EXPECT_EQ(static_cast<DWORD>(ERROR_MORE_DATA), GetLastError());
        used = static_cast<DWORD>(secret.size());
        ASSERT_TRUE(CryptEncrypt(key, 0, TRUE, flags, buffer.data(), &used, size)) << std::hex << GetLastError();
        ASSERT_EQ(256u, used);

        // Little-endian out of CryptoAPI: reversed, the token decrypts it directly.
        Bytes forToken = reversed(buffer);
        Bytes keyId = orvane::hexToBytes(rsa2048_.keyId);
        unsigned char* plain = nullptr;
        int plainLength = 0;
        ASSERT_EQ(0, orvane_decrypt(kSerial, keyId.data(), "", forToken.data(), 256, &plain, &plainLength, false, nullptr));
        EXPECT_EQ(secret, std::string(reinterpret_cast<char*>(plain), static_cast<size_t>(plainLength)));
        delete[] plain;

        ASSERT_TRUE(CryptDecrypt(key, 0, TRUE, flags, buffer.data(), &used)) << std::hex << GetLastError();
        EXPECT_EQ(secret, std::string(buffer.begin(), buffer.begin() + used)) << "flags " << flags;
    }
    CryptDestroyKey(key);
}

TEST_F(CspCryptoTest, EcKeyPairIsASignatureKeyWithItsAlgorithmAndSize) {
    Container container(ec384_);
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGetUserKey(container.handle(), AT_SIGNATURE, &key));
    DWORD value = 0, size = sizeof value;
    ASSERT_TRUE(CryptGetKeyParam(key, KP_ALGID, reinterpret_cast<BYTE*>(&value), &size, 0));
    EXPECT_EQ(static_cast<DWORD>(CALG_DSS_SIGN), value);
    size = sizeof value;
    ASSERT_TRUE(CryptGetKeyParam(key, KP_KEYLEN, reinterpret_cast<BYTE*>(&value), &size, 0));
    EXPECT_EQ(384u, value);
    CryptDestroyKey(key);
    EXPECT_FALSE(CryptGetUserKey(container.handle(), AT_KEYEXCHANGE, &key)) << "a signature-only key pair";
    EXPECT_EQ(static_cast<DWORD>(NTE_BAD_KEY), GetLastError());
}

TEST_F(CspCryptoTest, KeyCertificateComesFromTheToken) {
    Container container(rsa2048_.keyId);
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGetUserKey(container.handle(), AT_SIGNATURE, &key));
    DWORD size = 2;
    BYTE small[2];
    Bytes expected = readFile(rsa2048_.certificateFile);
    EXPECT_FALSE(CryptGetKeyParam(key, KP_CERTIFICATE, small, &size, 0));
    EXPECT_EQ(static_cast<DWORD>(ERROR_MORE_DATA), GetLastError());
    EXPECT_EQ(expected.size(), size);
    Bytes certificate(size);
    ASSERT_TRUE(CryptGetKeyParam(key, KP_CERTIFICATE, certificate.data(), &size, 0));
    EXPECT_EQ(expected, certificate);
    CryptDestroyKey(key);
}

}  // namespace
