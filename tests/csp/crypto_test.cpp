// Signing, verification, encryption and decryption through Wine's advapi32, with a token
// that is signed on (no PIN dialog). Results are checked by OpenSSL on the host and by the
// token library itself at the byte-order boundary. Also call sequences that once crashed or
// corrupted the host (every heap must validate after each test), and crypt32 making a
// certificate with a token key as real applications do.
#include <windows.h>
#include <psapi.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <cstring>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Blobs.h"
#include "tests/support/KspHarness.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

const char kSerial[] = "CRYPTO-1";
const char kSha1OfAbc[] = "A9993E364706816ABA3E25717850C26C9CD0D89D";
const char kSha256OfAbc[] = "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";
const char kSha256OfAbcdef[] = "BEF57EC7F53A6D40BEB640A780A639C83BC29AC8A9816F1FC6C5C6DCD93C4721";

bool everyHeapValidates() {
    HANDLE heaps[256];
    DWORD count = GetProcessHeaps(256, heaps);
    for (DWORD i = 0; i < count && i < 256; ++i)
        if (!HeapValidate(heaps[i], 0, nullptr)) return false;
    return count > 0;
}

std::string hashValue(HCRYPTHASH hash) {
    BYTE value[32];
    DWORD size = sizeof value;
    EXPECT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, value, &size, 0)) << std::hex << GetLastError();
    return orvane::toHex(value, size);
}

class CspCryptoTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        freshToken(kSerial);
        rsa2048_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_2048, 3);
        rsa3072_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_3072, 3);
        ec256_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_EC_P256, 1);
        ec384_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_EC_P384, 1);
    }
    void TearDown() override { EXPECT_TRUE(everyHeapValidates()); }

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

TEST_F(CspCryptoTest, SelfSignedCertificateForATokenKeyVerifiesWithOpenSsl) {
    CERT_NAME_BLOB subject{};
    const char* name = "CN=Orvane self-signed";
    ASSERT_TRUE(CertStrToNameA(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, nullptr, nullptr, &subject.cbData, nullptr));
    Bytes subjectBytes(subject.cbData);
    subject.pbData = subjectBytes.data();
    ASSERT_TRUE(CertStrToNameA(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, nullptr, subject.pbData, &subject.cbData,
                               nullptr));
    // Key provider information as a certificate store keeps it for a token key.
    std::wstring containerName = widen(rsa2048_.keyId), providerName = widen(kProviderName);
    CRYPT_KEY_PROV_INFO info{};
    info.pwszContainerName = &containerName[0];
    info.pwszProvName = &providerName[0];
    info.dwProvType = PROV_RSA_FULL;
    info.dwKeySpec = AT_SIGNATURE;
    CRYPT_ALGORITHM_IDENTIFIER algorithm{};
    algorithm.pszObjId = const_cast<char*>(szOID_RSA_SHA256RSA);

    // The application holds a context on the container, as certificate enrolment tools do.
    ContextHandle container(rsa2048_.keyId);
    PCCERT_CONTEXT certificate =
        CertCreateSelfSignCertificate(container, &subject, 0, &info, &algorithm, nullptr, nullptr, nullptr);
    ASSERT_NE(nullptr, certificate) << std::hex << GetLastError();
    writeFile(workDir() + "/self.der",
              Bytes(certificate->pbCertEncoded, certificate->pbCertEncoded + certificate->cbCertEncoded));
    CertFreeCertificateContext(certificate);

    // The certificate carries the token key and is signed by it.
    HostResult host = runHost(
        "openssl x509 -inform DER -in self.der -out self.pem && openssl verify -CAfile self.pem self.pem && "
        "openssl x509 -in self.pem -pubkey -noout | openssl pkey -pubin -outform DER -out self-key.der && "
        "cmp self-key.der " + rsa2048_.keyId + ".pub.der && echo same-key");
    EXPECT_NE(std::string::npos, host.output.find("self.pem: OK")) << host.output;
    EXPECT_NE(std::string::npos, host.output.find("same-key")) << host.output;
}

TEST_F(CspCryptoTest, DigestCanBeAskedForAfterTheHashWasSigned) {
    ContextHandle container(rsa2048_.keyId);
    // Signing finishes the library hash; reading the value finishes it once more.
    HCRYPTHASH hash = container.hash(CALG_SHA1, "abc");
    container.sign(hash);
    EXPECT_EQ(kSha1OfAbc, hashValue(hash));
    EXPECT_TRUE(CryptDestroyHash(hash));

    // After signing, the hash object answers for the key's type (2 for RSA-2048), whose digest
    // size is SHA-1's: the token refuses to put a SHA-256 digest in 20 bytes, and says so.
    hash = container.hash(CALG_SHA_256, "abc");
    container.sign(hash);
    BYTE value[20];
    DWORD size = sizeof value;
    EXPECT_TRUE(failsWith(CryptGetHashParam(hash, HP_HASHVAL, value, &size, 0), NTE_FAIL));
    EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("more"), 4, 0)) << std::hex << GetLastError();
    EXPECT_TRUE(CryptDestroyHash(hash));
}

TEST_F(CspCryptoTest, DataAfterTheDigestIsAcceptedAndLeavesTheDigestAlone) {
    ContextHandle container(rsa2048_.keyId);
    HCRYPTHASH hash = container.hash(CALG_SHA_256, "abc");
    BYTE small[10];
    DWORD size = sizeof small;
    EXPECT_TRUE(failsWith(CryptGetHashParam(hash, HP_HASHVAL, small, &size, 0), ERROR_MORE_DATA));
    EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("def"), 3, 0)) << std::hex << GetLastError();
    EXPECT_EQ(kSha256OfAbc, hashValue(hash));
    EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("def"), 3, 0)) << std::hex << GetLastError();
    // Signing a hash whose value was read signs that value; the library hash kept the later data.
    container.sign(hash);
    EXPECT_TRUE(CryptDestroyHash(hash));

    hash = container.hash(CALG_SHA_256, "abc");
    EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("def"), 3, 0));
    EXPECT_EQ(kSha256OfAbcdef, hashValue(hash));
    EXPECT_TRUE(CryptDestroyHash(hash));
}

// Last: the key it generates stays on the token.
TEST_F(CspCryptoTest, KeySmallerThanTheTokenKeyCannotOverrunTheCiphertextBuffer) {
    ContextHandle container(rsa2048_.keyId);
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGenKey(container, CALG_RSA_KEYX, 512u << 16, &key)) << std::hex << GetLastError();
    DWORD size = 0;
    ASSERT_TRUE(CryptEncrypt(key, 0, TRUE, 0, nullptr, &size, 0));
    EXPECT_EQ(64u, size) << "the handle answers the size it was asked for";

    // The token's key is 2048 bits: 256 bytes of ciphertext do not fit in 64.
    BYTE buffer[256] = "sixteen bytes!!";
    DWORD length = 16;
    EXPECT_TRUE(failsWith(CryptEncrypt(key, 0, TRUE, 0, buffer, &length, 64), ERROR_MORE_DATA));
    EXPECT_EQ(256u, length);
    EXPECT_TRUE(everyHeapValidates());

    length = 16;
    ASSERT_TRUE(CryptEncrypt(key, 0, TRUE, 0, buffer, &length, sizeof buffer)) << std::hex << GetLastError();
    ASSERT_EQ(256u, length);
    ASSERT_TRUE(CryptDecrypt(key, 0, TRUE, 0, buffer, &length)) << std::hex << GetLastError();
    EXPECT_EQ("sixteen bytes!!", std::string(reinterpret_cast<char*>(buffer), length - 1));
    EXPECT_TRUE(CryptDestroyKey(key));
}

}  // namespace
