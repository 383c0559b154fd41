// Signing, verification, encryption and decryption through Wine's advapi32, with a token
// that is signed on (no PIN dialog). Results are checked by OpenSSL on the host and by the
// token library itself at the byte-order boundary.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <cstring>

#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Matchers.h"
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
        ec256_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_EC_P256, 1);
        ProvisionedKey ec384 = provisionKeyWithCertificate(kSerial, ORVANE_KEY_EC_P384, 1);
        ec384_ = ec384.keyId;
        ec384Certificate_ = ec384.certificateFile;
    }

    static ProvisionedKey rsa2048_, rsa3072_, ec256_;
    static std::string ec384_, ec384Certificate_;
};

ProvisionedKey CspCryptoTest::rsa2048_, CspCryptoTest::rsa3072_, CspCryptoTest::ec256_;
std::string CspCryptoTest::ec384_, CspCryptoTest::ec384Certificate_;

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
                   Case{&rsa3072_, CALG_SHA1, "sha1", 384}, Case{&rsa3072_, CALG_SHA_256, "sha256", 384},
                   Case{&rsa2048_, CALG_SHA_384, "sha384", 256}, Case{&rsa3072_, CALG_SHA_512, "sha512", 384}}) {
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
        // It cannot read a SHA-384/512 digest from the hash object, so those stop here.
        CryptDestroyHash(hash);
        if (c.algorithm == CALG_SHA_384 || c.algorithm == CALG_SHA_512) continue;
        HCRYPTKEY key = 0;
        ASSERT_TRUE(CryptGetUserKey(container.handle(), AT_SIGNATURE, &key));
        HCRYPTHASH check = container.hashOf(c.algorithm, message);
        EXPECT_TRUE(CryptVerifySignatureA(check, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0))
            << std::hex << GetLastError();
        signature[17] ^= 0x10;
        EXPECT_TRUE(failsWith(CryptVerifySignatureA(check, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0), NTE_BAD_SIGNATURE));
        CryptDestroyHash(check);
        CryptDestroyKey(key);
    }
}

TEST_F(CspCryptoTest, EcdsaSignaturesVerifyWithOpenSslAgainstTheKeyCertificate) {
    const std::string message = "Elliptic curves sign through CryptoAPI too";
    writeText(workDir() + "/ec-message.txt", message);
    struct Case {
        std::string keyId, certificateFile;
        ALG_ID algorithm;
        const char* digest;
        size_t size;
    };
    for (const Case& c : {Case{ec256_.keyId, ec256_.certificateFile, CALG_SHA_256, "sha256", 64},
                          Case{ec384_, ec384Certificate_, CALG_SHA_384, "sha384", 96},
                          Case{ec384_, ec384Certificate_, CALG_SHA_512, "sha512", 96}}) {
        Container container(c.keyId);
        HCRYPTHASH hash = container.hashOf(c.algorithm, message);
        Bytes signature = container.sign(hash);
        CryptDestroyHash(hash);
        ASSERT_EQ(c.size, signature.size()) << c.digest;

        std::string file = std::string("ecsig-") + c.digest + "-" + std::to_string(c.size) + ".der";
        writeFile(workDir() + "/" + file, orvane::encodeEcdsaSignatureDer(reversed(signature)));
        HostResult host = runHost("openssl x509 -inform DER -in " + c.certificateFile +
                                  " -pubkey -noout > ec-cert-key.pem && openssl dgst -" + c.digest +
                                  " -verify ec-cert-key.pem -signature " + file + " ec-message.txt");
        EXPECT_NE(std::string::npos, host.output.find("Verified OK")) << c.digest << ": " << host.output;
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
        EXPECT_TRUE(failsWith(CryptGetHashParam(hash, HP_HASHVAL, value, &size, 0), NTE_BAD_ALGID));
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
        EXPECT_TRUE(failsWith(CryptEncrypt(key, 0, TRUE, flags, buffer.data(), &used, 255), ERROR_MORE_DATA));
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
    EXPECT_TRUE(failsWith(CryptGetUserKey(container.handle(), AT_KEYEXCHANGE, &key), NTE_BAD_KEY)) << "a signature-only key pair";
}

TEST_F(CspCryptoTest, KeyCertificateComesFromTheToken) {
    Container container(rsa2048_.keyId);
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGetUserKey(container.handle(), AT_SIGNATURE, &key));
    DWORD size = 2;
    BYTE small[2];
    Bytes expected = readFile(rsa2048_.certificateFile);
    EXPECT_TRUE(failsWith(CryptGetKeyParam(key, KP_CERTIFICATE, small, &size, 0), ERROR_MORE_DATA));
    EXPECT_EQ(expected.size(), size);
    Bytes certificate(size);
    ASSERT_TRUE(CryptGetKeyParam(key, KP_CERTIFICATE, certificate.data(), &size, 0));
    EXPECT_EQ(expected, certificate);
    CryptDestroyKey(key);
}

TEST_F(CspCryptoTest, TokenIsAskedForWhatTheCallerAskedFor) {
    Container container(rsa2048_.keyId);
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGetUserKey(container.handle(), AT_KEYEXCHANGE, &key));
    for (DWORD flags : {0ul, static_cast<unsigned long>(CRYPT_OAEP)}) {
        BYTE buffer[256] = "padding";
        DWORD used = 8;
        ASSERT_TRUE(CryptEncrypt(key, 0, TRUE, flags, buffer, &used, sizeof buffer)) << std::hex << GetLastError();
        auto encrypt = admin::lastArguments("orvane_encrypt");
        EXPECT_EQ(flags ? PADDING_OAEP : PADDING_PKCS1, encrypt["padding"]) << "flags " << flags;
        EXPECT_EQ(ENCRYPTION_RSA_2048, encrypt["type"]);
        EXPECT_EQ(8, encrypt["plainLength"]);
        ASSERT_TRUE(CryptDecrypt(key, 0, TRUE, flags, buffer, &used)) << std::hex << GetLastError();
        EXPECT_EQ(256, admin::lastArguments("orvane_decrypt")["cipherLength"]);
        EXPECT_EQ("padding", std::string(reinterpret_cast<char*>(buffer)));
    }
    CryptDestroyKey(key);

    struct Case {
        ALG_ID algorithm;
        int mechanism;
        int digestLength;
    };
    for (Case c : {Case{CALG_SHA1, ORVANE_MECH_SHA1, 20}, Case{CALG_SHA_256, ORVANE_MECH_SHA256, 32},
                   Case{CALG_SHA_384, ORVANE_MECH_SHA384, 48}, Case{CALG_SHA_512, ORVANE_MECH_SHA512, 64}}) {
        HCRYPTHASH hash = container.hashOf(c.algorithm, "mechanisms");
        EXPECT_EQ(c.mechanism, admin::lastArguments("orvane_initHash")["mechanism"]);
        container.sign(hash);
        auto sign = admin::lastArguments("orvane_signHash");
        EXPECT_EQ(c.digestLength, sign["hashLength"]) << "the bare digest";
        EXPECT_EQ(0, sign["flag"]);
        CryptDestroyHash(hash);
    }
}

}  // namespace
