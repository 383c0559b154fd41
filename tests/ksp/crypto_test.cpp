// KSP sign/verify/encrypt/decrypt/export/import on a signed-on token, checked by OpenSSL, bcrypt, advapi32.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Blobs.h"
#include "tests/support/KspHarness.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;
using orvane::hexToBytes;
using orvane::toHex;

namespace {

const char kSerial[] = "KSP-CRYPTO-1";
const std::string kKek = "000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F";
const std::string kAes128 = "2B7E151628AED2A6ABF7158809CF4F3C";
const std::string kIv = "000102030405060708090A0B0C0D0E0F";
const std::string kBlocks = "Two AES blocks, no padding: 32 B";

// The token key's public key, as provisioning left it for OpenSSL.
std::string publicKeyOf(const ProvisionedKey& key) { return " -pubin -keyform DER -inkey " + key.keyId + ".pub.der"; }
Bytes digestOf(const std::string& algorithm, const std::string& message) {
    writeText(workDir() + "/message.txt", message);
    return onHost("openssl dgst -" + algorithm + " -binary message.txt > digest.bin", "digest.bin");
}
std::string oaepOption(bool oaep) { return oaep ? " -pkeyopt rsa_padding_mode:oaep" : ""; }
Bytes modulusFrom(const std::string& command) {
    Bytes text = onHost(command + " -modulus -noout > modulus.txt", "modulus.txt");
    std::string hex(text.begin(), text.end());
    Bytes modulus = hexToBytes(hex.substr(hex.find('=') + 1, 512));
    EXPECT_EQ(256u, modulus.size());
    return modulus;
}
Bytes capiPublicBlob(ALG_ID algorithm, const Bytes& modulus) { return capiRsaBlob(algorithm, kRsa1, 2048, reversed(modulus)); }

class KspCryptoTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        freshToken(kSerial);
        rsa_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_2048, 3);
        ec256_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_EC_P256, 1);
        ec384_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_EC_P384, 1);
        std::string kekId;
        ASSERT_EQ(0, admin::importSecretKey(kSerial, ORVANE_KEY_AES_256, hexToBytes(kKek), "KEK", kekId));
        provider_ = new KspProviderHandle();
    }
    static void TearDownTestSuite() { delete provider_; }
    void SetUp() override { ASSERT_EQ(0, provider_->status()); }

    NCRYPT_PROV_HANDLE provider() const { return provider_->get(); }
    std::unique_ptr<KspKeyHandle> open(const ProvisionedKey& key) const {
        NCRYPT_KEY_HANDLE handle = openKspKey(provider(), key.keyId);
        EXPECT_NE(0u, handle) << key.keyId;
        return std::make_unique<KspKeyHandle>(provider(), handle);
    }
    std::unique_ptr<KspKeyHandle> import(const wchar_t* type, Bytes blob, SECURITY_STATUS expected = 0,
                                         NCRYPT_KEY_HANDLE importKey = 0) const {
        NCRYPT_KEY_HANDLE handle = 0;
        EXPECT_EQ(expected, ksp().ImportKey(provider(), importKey, type, nullptr, &handle, blob.data(), DWORD(blob.size()), 0))
            << std::hex << std::string(type, type + wcslen(type));
        return std::make_unique<KspKeyHandle>(provider(), handle);
    }
    Bytes sign(NCRYPT_KEY_HANDLE key, Bytes digest, size_t capacity, DWORD flags = BCRYPT_PAD_PKCS1) const {
        Bytes signature(capacity);
        DWORD size = 0;
        EXPECT_EQ(0, ksp().SignHash(provider(), key, nullptr, digest.data(), DWORD(digest.size()), signature.data(),
                                    DWORD(capacity), &size, flags));
        signature.resize(std::min<size_t>(size, capacity));
        return signature;
    }
    SECURITY_STATUS verify(NCRYPT_KEY_HANDLE key, Bytes digest, Bytes signature, DWORD flags) const {
        return ksp().VerifySignature(provider(), key, nullptr, digest.data(), DWORD(digest.size()), signature.data(),
                                     DWORD(signature.size()), flags);
    }

    static KspProviderHandle* provider_;
    static ProvisionedKey rsa_, ec256_, ec384_;
};

KspProviderHandle* KspCryptoTest::provider_ = nullptr;
ProvisionedKey KspCryptoTest::rsa_, KspCryptoTest::ec256_, KspCryptoTest::ec384_;

TEST_F(KspCryptoTest, SignaturesVerifyWithOpenSslAgainstTheKeyCertificate) {
    struct Case { const ProvisionedKey* key; const char* digest; DWORD announced; size_t length; };
    for (Case c : {Case{&rsa_, "sha256", 256, 256}, Case{&ec256_, "sha256", 32, 64}, Case{&ec384_, "sha384", 48, 96}}) {
        auto key = open(*c.key);
        Bytes digest = digestOf(c.digest, "Signed through the key storage provider");
        DWORD size = 0;
        ASSERT_EQ(0, ksp().SignHash(provider(), key->get(), nullptr, digest.data(), DWORD(digest.size()), nullptr, 0, &size, 0));
        EXPECT_EQ(c.announced, size) << "bitLength / 8, also for EC keys";

        Bytes signature = sign(key->get(), digest, c.length, c.key == &rsa_ ? BCRYPT_PAD_PKCS1 : 0);
        ASSERT_EQ(c.length, signature.size()) << c.digest;
        EXPECT_TRUE(verifiedByOpenSsl(c.key->certificateFile, c.digest, "Signed through the key storage provider",
                                      c.key == &rsa_ ? signature : ecdsaDer(signature)));
        EXPECT_EQ(0, verify(key->get(), digest, signature, 0));
        signature[9] ^= 0x04;
        EXPECT_EQ(NTE_BAD_SIGNATURE, verify(key->get(), digest, signature, 0));
    }
}

TEST_F(KspCryptoTest, SizesBuffersAndPaddingFlags) {
    auto key = open(rsa_);
    Bytes digest = digestOf("sha256", "flags"), buffer(256);
    DWORD size = 0;
    EXPECT_EQ(0, ksp().Encrypt(provider(), key->get(), digest.data(), 32, nullptr, nullptr, 0, &size, 0));
    EXPECT_EQ(256u, size);
    size = 0;
    EXPECT_EQ(NTE_BUFFER_TOO_SMALL, ksp().SignHash(provider(), key->get(), nullptr, digest.data(), 32, buffer.data(), 255, &size, 0));
    EXPECT_EQ(256u, size);

    std::string before = readProviderLog();
    int signatures = admin::callCount("orvane_signHash");
    EXPECT_EQ(NTE_NOT_SUPPORTED, ksp().SignHash(provider(), key->get(), nullptr, digest.data(), 32, buffer.data(), 256, &size, BCRYPT_PAD_PSS));
    EXPECT_NE(std::string::npos, logSince(before).find("KSP: PSS padding not supported"));
    EXPECT_EQ(signatures, admin::callCount("orvane_signHash")) << "refused before the token";
    EXPECT_EQ(256u, sign(key->get(), digest, 256, BCRYPT_PAD_PSS | BCRYPT_PAD_PKCS1).size());
    EXPECT_EQ(0, admin::lastArguments("orvane_signHash")["flag"]);

    EXPECT_EQ(NTE_INVALID_HANDLE, ksp().SignHash(0, key->get(), nullptr, digest.data(), 32, buffer.data(), 256, &size, 0));
    EXPECT_EQ(NTE_INVALID_PARAMETER, ksp().SignHash(provider(), key->get(), nullptr, digest.data(), 32, buffer.data(), 256, nullptr, 0));
}

TEST_F(KspCryptoTest, DecryptsWhatOpenSslEncryptedForTheTokenKey) {
    auto key = open(rsa_);
    writeText(workDir() + "/secret.txt", "meet me at noon");
    for (bool oaep : {false, true}) {
        Bytes cipher = onHost("openssl pkeyutl -encrypt" + publicKeyOf(rsa_) + oaepOption(oaep) +
                                  " -in secret.txt -out s.bin", "s.bin");
        BCRYPT_OAEP_PADDING_INFO padding{BCRYPT_SHA1_ALGORITHM, nullptr, 0};
        Bytes plain(256);
        DWORD size = 0, flags = oaep ? NCRYPT_PAD_OAEP_FLAG : NCRYPT_PAD_PKCS1_FLAG;
        EXPECT_EQ(NTE_BUFFER_TOO_SMALL, ksp().Decrypt(provider(), key->get(), cipher.data(), 256, &padding, plain.data(), 3, &size, flags));
        EXPECT_EQ(15u, size);
        ASSERT_EQ(0, ksp().Decrypt(provider(), key->get(), cipher.data(), 256, &padding, plain.data(), 256, &size, flags));
        EXPECT_EQ("meet me at noon", std::string(plain.begin(), plain.begin() + size)) << "oaep " << oaep;
    }
}

// Both blob forms: of the token key they verify its signatures; of a host key they encrypt for OpenSSL.
TEST_F(KspCryptoTest, ImportedPublicBlobsVerifyTokenSignaturesAndEncryptForOpenSsl) {
    Bytes tokenModulus = modulusFrom("openssl x509 -inform DER -in " + rsa_.certificateFile);
    Bytes hostModulus = modulusFrom("openssl genrsa -out host.key 2048 2>/dev/null && openssl rsa -in host.key");
    Bytes digest = digestOf("sha256", "verified with an imported public key");
    Bytes signature = sign(open(rsa_)->get(), digest, 256);
    ASSERT_EQ(256u, signature.size());
    const std::string secret = "for OpenSSL only";
    for (bool capi : {false, true}) {
        const wchar_t* type = capi ? L"CAPIPUBLICBLOB" : L"RSAPUBLICBLOB";
        auto verifier = import(type, capi ? capiPublicBlob(CALG_RSA_SIGN, tokenModulus) : cngRsaBlob(2048, tokenModulus));
        Bytes flipped = signature;
        flipped[100] ^= 0x01;
        EXPECT_EQ(0, verify(verifier->get(), digest, signature, BCRYPT_PAD_PKCS1));
        EXPECT_EQ(NTE_BAD_SIGNATURE, verify(verifier->get(), digest, flipped, BCRYPT_PAD_PKCS1));

        auto key = import(type, capi ? capiPublicBlob(CALG_RSA_KEYX, hostModulus) : cngRsaBlob(2048, hostModulus));
        for (bool oaep : {false, true}) {
            Bytes cipher(256);
            DWORD size = 0;
            ASSERT_EQ(0, ksp().Encrypt(provider(), key->get(), (PBYTE)secret.data(), DWORD(secret.size()), nullptr,
                                       cipher.data(), 256, &size, oaep ? NCRYPT_PAD_OAEP_FLAG : NCRYPT_PAD_PKCS1_FLAG));
            ASSERT_EQ(256u, size);
            writeFile(workDir() + "/ours.cipher", cipher);
            Bytes plain = onHost("openssl pkeyutl -decrypt -inkey host.key" + oaepOption(oaep) + " -in ours.cipher -out ours.plain", "ours.plain");
            EXPECT_EQ(secret, std::string(plain.begin(), plain.end())) << "oaep " << oaep << " capi " << capi;
        }
    }
}

// The RSAPUBLICBLOB, compared with the certificate's key and used by bcrypt: check_test.
TEST_F(KspCryptoTest, ExportedPublicBlobVerifiesTokenSignaturesInWine) {
    auto key = open(rsa_);
    DWORD size = 0;
    BYTE small[8];
    EXPECT_EQ(NTE_NOT_SUPPORTED, ksp().ExportKey(provider(), key->get(), 0, L"PRIVATEBLOB", nullptr, nullptr, 0, &size, 0));
    EXPECT_EQ(NTE_BUFFER_TOO_SMALL, ksp().ExportKey(provider(), key->get(), 0, L"PUBLICBLOB", nullptr, small, 8, &size, 0));
    EXPECT_EQ(283u, size);
    ASSERT_EQ(0, ksp().ExportKey(provider(), key->get(), 0, L"CAPIPUBLICBLOB", nullptr, nullptr, 0, &size, 0));
    Bytes capi(size);
    ASSERT_EQ(0, ksp().ExportKey(provider(), key->get(), 0, L"CAPIPUBLICBLOB", nullptr, capi.data(), size, &size, 0));
    const std::string message = "legacy";
    Bytes signature = sign(key->get(), digestOf("sha1", message), 256);
    ContextHandle wine;
    HCRYPTKEY legacyKey = wine.import(capi);
    EXPECT_TRUE(wine.verify(CALG_SHA1, message, reversed(signature), legacyKey)) << std::hex << GetLastError();
    CryptDestroyKey(legacyKey);
}

TEST_F(KspCryptoTest, AesKeysArriveInClearWrappedOrEncryptedUnderATokenKey) {
    std::vector<OrvaneSymmetricKey> before = orvane_getAesKeyList(kSerial, nullptr);
    const Bytes value256 = hexToBytes("603DEB1015CA71BE2B73AEF0857D77811F352C073B6108D72D9810A30914DFF4");
    import(L"KeyDataBlob", keyDataBlob(32, value256));
    expectStoredAesKey(kSerial, before, ORVANE_KEY_AES_256, value256);
    before = orvane_getAesKeyList(kSerial, nullptr);
    import(L"OpaqueKeyBlob", aesWrap(hexToBytes(kKek), hexToBytes(kAes128)));
    expectStoredAesKey(kSerial, before, ORVANE_KEY_AES_128, hexToBytes(kAes128));

    writeFile(workDir() + "/aes128.bin", hexToBytes(kAes128));
    auto tokenKey = open(rsa_);
    Bytes encrypted = onHost("openssl pkeyutl -encrypt" + publicKeyOf(rsa_) + " -in aes128.bin -out e.bin", "e.bin");
    import(L"OpaqueTransport", encrypted, NTE_BAD_KEY);
    import(L"SomeOtherBlob", encrypted, NTE_NOT_SUPPORTED);
    auto aes = import(L"OpaqueTransport", encrypted, 0, tokenKey->get());
    writeText(workDir() + "/blocks.txt", kBlocks);
    Bytes iv = hexToBytes(kIv);
    ASSERT_EQ(0, ksp().SetKeyProperty(provider(), aes->get(), L"IV", iv.data(), 16, 0));
    for (std::string mode : {"cbc", "ecb"}) {
        if (mode == "ecb") {
            std::wstring ecb = L"ChainingModeECB";
            ASSERT_EQ(0, ksp().SetKeyProperty(provider(), aes->get(), L"ChainingMode", (PBYTE)ecb.c_str(), DWORD(ecb.size() * 2 + 2), 0));
        }
        Bytes cipher = onHost("openssl enc -aes-128-" + mode + " -nopad -K " + kAes128 + (mode == "cbc" ? " -iv " + kIv : "") +
                                  " -in blocks.txt -out blocks.enc", "blocks.enc");
        DWORD size = 0;
        Bytes plain(32);
        ASSERT_EQ(0, ksp().Decrypt(provider(), aes->get(), cipher.data(), 32, nullptr, nullptr, 0, &size, 0));
        EXPECT_EQ(32u, size);
        ASSERT_EQ(0, ksp().Decrypt(provider(), aes->get(), cipher.data(), 32, nullptr, plain.data(), 32, &size, 0));
        EXPECT_EQ(kBlocks, std::string(plain.begin(), plain.end())) << mode;
    }
}

TEST_F(KspCryptoTest, MalformedImportBlobsAreRefusedWithTheirCodes) {
    Bytes modulus(256, 0xC5);
    Bytes overflowing = cngRsaBlob(2048, modulus), truncated = cngRsaBlob(2048, modulus);
    truncated.pop_back();
    std::memcpy(&overflowing[8], dword(0xFFFFFFFF).data(), 4);
    struct Case { const wchar_t* type; Bytes blob; SECURITY_STATUS expected; };
    GuardPage guard;
    for (const Case& c : {Case{L"RSAPUBLICBLOB", Bytes(23, 0), NTE_BAD_DATA},
                          Case{L"RSAPUBLICBLOB", join({dword(0x32415352), Bytes(300, 1)}), NTE_BAD_DATA},
                          Case{L"PUBLICBLOB", truncated, NTE_BAD_DATA},
                          Case{L"PUBLICBLOB", overflowing, NTE_BAD_DATA},
                          Case{L"RSAPUBLICBLOB", cngRsaBlob(1536, Bytes(192, 0xC5)), NTE_NOT_SUPPORTED},
                          Case{L"CAPIPUBLICBLOB", capiPublicBlob(CALG_RSA_KEYX, Bytes(255, 1)), NTE_BAD_DATA},
                          Case{L"KeyDataBlob", keyDataBlob(32, Bytes(16, 7)), NTE_BAD_DATA},
                          Case{L"KeyDataBlob", keyDataBlob(20, Bytes(20, 7)), NTE_NOT_SUPPORTED},
                          Case{L"KeyDataBlob", Bytes(11, 0), NTE_BAD_DATA}}) {
        NCRYPT_KEY_HANDLE refused = 0;
        EXPECT_EQ(c.expected, ksp().ImportKey(provider(), 0, c.type, nullptr, &refused, guard.place(c.blob), DWORD(c.blob.size()), 0))
            << std::string(c.type, c.type + wcslen(c.type)) << " of " << c.blob.size() << " bytes";
        EXPECT_EQ(0u, refused);
    }
    NCRYPT_KEY_HANDLE handle = 0;
    BYTE one = 1;
    EXPECT_EQ(NTE_INVALID_PARAMETER, ksp().ImportKey(provider(), 0, L"KeyDataBlob", nullptr, &handle, &one, 0, 0));
    EXPECT_EQ(NTE_INVALID_HANDLE, ksp().ImportKey(0, 0, L"KeyDataBlob", nullptr, &handle, &one, 1, 0));
}

}  // namespace
