// Signing, verification, encryption and decryption through Wine's advapi32, with a token
// that is signed on (no PIN dialog). Results are checked by OpenSSL on the host and by the
// token library itself at the byte-order boundary.
#include <windows.h>
#include <psapi.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <cstring>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Blobs.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

const char kSerial[] = "CRYPTO-1";

class CspCryptoTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        freshToken(kSerial);
        rsa2048_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_2048, 3);
        rsa3072_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_3072, 3);
        ec256_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_EC_P256, 1);
        ec384_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_EC_P384, 1);
    }

    static ProvisionedKey rsa2048_, rsa3072_, ec256_, ec384_;
};

ProvisionedKey CspCryptoTest::rsa2048_, CspCryptoTest::rsa3072_, CspCryptoTest::ec256_, CspCryptoTest::ec384_;

// Each hash algorithm reaches the token as its mechanism and bare digest, and the reversed
// signature verifies with OpenSSL against the key's certificate.
TEST_F(CspCryptoTest, SignaturesVerifyWithOpenSslAgainstTheKeyCertificate) {
    const std::string message = "The quick brown fox signs through CryptoAPI";
    struct Case {
        const ProvisionedKey* key;
        ALG_ID algorithm;
        const char* digest;
        int mechanism, digestLength;
        DWORD size;
    };
    for (Case c : {Case{&rsa2048_, CALG_SHA1, "sha1", ORVANE_MECH_SHA1, 20, 256},
                   Case{&rsa3072_, CALG_SHA_256, "sha256", ORVANE_MECH_SHA256, 32, 384},
                   Case{&rsa2048_, CALG_SHA_384, "sha384", ORVANE_MECH_SHA384, 48, 256},
                   Case{&rsa3072_, CALG_SHA_512, "sha512", ORVANE_MECH_SHA512, 64, 384},
                   Case{&ec256_, CALG_SHA_256, "sha256", ORVANE_MECH_SHA256, 32, 64},
                   Case{&ec384_, CALG_SHA_384, "sha384", ORVANE_MECH_SHA384, 48, 96},
                   Case{&ec384_, CALG_SHA_512, "sha512", ORVANE_MECH_SHA512, 64, 96}}) {
        SCOPED_TRACE(std::string(c.digest) + ", " + std::to_string(c.size) + "-byte signature");
        ContextHandle container(c.key->keyId);
        HCRYPTHASH hash = container.hash(c.algorithm, message);
        EXPECT_EQ(c.mechanism, admin::lastArguments("orvane_initHash")["mechanism"]);
        bool longDigest = c.algorithm == CALG_SHA_384 || c.algorithm == CALG_SHA_512;
        if (longDigest) {  // signed, but their value is not reported
            BYTE value[64];
            DWORD size = sizeof value;
            EXPECT_TRUE(failsWith(CryptGetHashParam(hash, HP_HASHVAL, value, &size, 0), NTE_BAD_ALGID));
        }
        DWORD queried = 0;
        Bytes signature = container.sign(hash, AT_SIGNATURE, &queried);
        CryptDestroyHash(hash);
        bool rsa = c.key == &rsa2048_ || c.key == &rsa3072_;
        if (rsa) {  // an EC key's size query is answered with 256
            EXPECT_EQ(c.size, queried);
        }
        ASSERT_EQ(c.size, signature.size());
        EXPECT_EQ(c.digestLength, admin::lastArguments("orvane_signHash")["hashLength"]) << "the bare digest";
        EXPECT_EQ(0, admin::lastArguments("orvane_signHash")["flag"]);
        EXPECT_TRUE(verifiedByOpenSsl(c.key->certificateFile, c.digest, message,
                                      rsa ? reversed(signature) : ecdsaDer(reversed(signature))));

        // CryptVerifySignature cannot read a SHA-384/512 digest from the hash object.
        if (!rsa || longDigest) continue;
        HCRYPTKEY key = container.userKey(AT_SIGNATURE);
        EXPECT_TRUE(container.verify(c.algorithm, message, signature, key)) << std::hex << GetLastError();
        signature[17] ^= 0x10;
        EXPECT_TRUE(failsWith(container.verify(c.algorithm, message, signature, key), NTE_BAD_SIGNATURE));
        CryptDestroyKey(key);
    }
}

// A caller's buffer length sizes nothing: told 4 GB, the provider asks the token for at most
// twice the largest signature and the process does not grow by anything like it.
TEST_F(CspCryptoTest, AFourGigabyteSignatureLengthSizesNoAllocation) {
    ContextHandle container(rsa2048_.keyId);
    HCRYPTHASH hash = container.hash(CALG_SHA_256, "a length nobody has");
    BYTE signature[512];
    DWORD size = 0xFFFFFFFF;
    PROCESS_MEMORY_COUNTERS before{}, after{};
    ASSERT_TRUE(K32GetProcessMemoryInfo(GetCurrentProcess(), &before, sizeof before));
    EXPECT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature, &size)) << std::hex << GetLastError();
    ASSERT_TRUE(K32GetProcessMemoryInfo(GetCurrentProcess(), &after, sizeof after));
    CryptDestroyHash(hash);
    EXPECT_EQ(256u, size);
    EXPECT_EQ(1024, admin::lastArguments("orvane_signHash")["signatureCapacity"]);
    EXPECT_LT(after.PeakWorkingSetSize - before.PeakWorkingSetSize, SIZE_T{64} << 20);
    EXPECT_LT(after.PeakPagefileUsage - before.PeakPagefileUsage, SIZE_T{64} << 20);
}

TEST_F(CspCryptoTest, DecryptsWhatOpenSslEncryptedAndTheTokenReadsWhatItEncrypts) {
    writeText(workDir() + "/plain.txt", "meet me at noon");
    Bytes cipher = onHost("openssl x509 -inform DER -in " + rsa2048_.certificateFile +
                              " -pubkey -noout > enc-key.pem && openssl pkeyutl -encrypt -pubin -inkey enc-key.pem "
                              "-in plain.txt -out openssl.cipher",
                          "openssl.cipher");
    ContextHandle container(rsa2048_.keyId);
    HCRYPTKEY key = container.userKey(AT_KEYEXCHANGE);
    Bytes data = reversed(cipher);
    DWORD length = static_cast<DWORD>(data.size());
    ASSERT_TRUE(CryptDecrypt(key, 0, TRUE, 0, data.data(), &length)) << std::hex << GetLastError();
    EXPECT_EQ("meet me at noon", std::string(data.begin(), data.begin() + length));

    for (DWORD flags : {0ul, static_cast<unsigned long>(CRYPT_OAEP)}) {
        SCOPED_TRACE(flags);
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
        auto encrypt = admin::lastArguments("orvane_encrypt");
        EXPECT_EQ(flags ? PADDING_OAEP : PADDING_PKCS1, encrypt["padding"]);
        EXPECT_EQ(ENCRYPTION_RSA_2048, encrypt["type"]);
        EXPECT_EQ(static_cast<long long>(secret.size()), encrypt["plainLength"]);

        // Little-endian out of CryptoAPI: reversed, the token decrypts it directly.
        Bytes forToken = reversed(buffer), keyId = orvane::hexToBytes(rsa2048_.keyId);
        unsigned char* plain = nullptr;
        int plainLength = 0;
        ASSERT_EQ(0, orvane_decrypt(kSerial, keyId.data(), "", forToken.data(), 256, &plain, &plainLength, false, nullptr));
        EXPECT_EQ(secret, std::string(reinterpret_cast<char*>(plain), static_cast<size_t>(plainLength)));
        delete[] plain;

        ASSERT_TRUE(CryptDecrypt(key, 0, TRUE, flags, buffer.data(), &used)) << std::hex << GetLastError();
        EXPECT_EQ(256, admin::lastArguments("orvane_decrypt")["cipherLength"]);
        EXPECT_EQ(secret, std::string(buffer.begin(), buffer.begin() + used));
    }
    CryptDestroyKey(key);
}

TEST_F(CspCryptoTest, EcKeyPairIsASignatureKeyWithItsAlgorithmAndSize) {
    ContextHandle container(ec384_.keyId);
    HCRYPTKEY key = container.userKey(AT_SIGNATURE);
    DWORD value = 0, size = sizeof value;
    ASSERT_TRUE(CryptGetKeyParam(key, KP_ALGID, reinterpret_cast<BYTE*>(&value), &size, 0));
    EXPECT_EQ(static_cast<DWORD>(CALG_DSS_SIGN), value);
    ASSERT_TRUE(CryptGetKeyParam(key, KP_KEYLEN, reinterpret_cast<BYTE*>(&value), &size, 0));
    EXPECT_EQ(384u, value);
    CryptDestroyKey(key);
    EXPECT_TRUE(failsWith(CryptGetUserKey(container, AT_KEYEXCHANGE, &key), NTE_BAD_KEY)) << "a signature-only key pair";
}

TEST_F(CspCryptoTest, KeyCertificateComesFromTheToken) {
    ContextHandle container(rsa2048_.keyId);
    HCRYPTKEY key = container.userKey(AT_SIGNATURE);
    Bytes expected = readFile(rsa2048_.certificateFile), certificate(2);
    DWORD size = 2;
    EXPECT_TRUE(failsWith(CryptGetKeyParam(key, KP_CERTIFICATE, certificate.data(), &size, 0), ERROR_MORE_DATA));
    EXPECT_EQ(expected.size(), size);
    certificate.resize(size);
    ASSERT_TRUE(CryptGetKeyParam(key, KP_CERTIFICATE, certificate.data(), &size, 0));
    EXPECT_EQ(expected, certificate);
    CryptDestroyKey(key);
}

}  // namespace
