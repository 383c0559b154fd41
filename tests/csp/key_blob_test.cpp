// Key export and import through Wine's advapi32: public keys checked by Wine's own provider,
// session keys encrypted and wrapped by OpenSSL, malformed blobs read against a guard page.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <map>

#include "encoding/Hex.h"
#include "provider/csp/CspInterface.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Blobs.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;
using orvane::hexToBytes;
using orvane::toHex;

namespace {

const char kSerial[] = "BLOBS-1";
const char kWrapSerial[] = "BLOBS-WRAP";
const std::string kIv = "000102030405060708090A0B0C0D0E0F";
const std::string kPlain = "Three AES blocks in CBC mode, no padding: 48 B..";
const std::string kSessionKey = "603DEB1015CA71BE2B73AEF0857D77811F352C073B6108D72D9810A30914DFF4";

Bytes rsaBlob(DWORD magic, DWORD bits, size_t modulusBytes) {
    return capiRsaBlob(CALG_RSA_KEYX, magic, bits, Bytes(modulusBytes, 0xA5));
}

class KeyBlobTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        freshToken(kSerial);
        addToken(kWrapSerial);
        rsa2048_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_2048, 3);
        rsa1024_ = newKeyPair(kSerial, ORVANE_KEY_RSA_1024);
        wrapContainer_ = newKeyPair(kWrapSerial, ORVANE_KEY_RSA_2048);
    }

    static ProvisionedKey rsa2048_;
    static std::string rsa1024_, wrapContainer_;
};

ProvisionedKey KeyBlobTest::rsa2048_;
std::string KeyBlobTest::rsa1024_, KeyBlobTest::wrapContainer_;

TEST_F(KeyBlobTest, ExportedPublicKeyAnswersTheSizeProtocolAndOnlyAsAPublicKeyBlob) {
    ContextHandle token(rsa2048_.keyId);
    HCRYPTKEY signing = token.userKey(AT_SIGNATURE);
    DWORD size = 0;
    ASSERT_TRUE(CryptExportKey(signing, 0, PUBLICKEYBLOB, 0, nullptr, &size));
    EXPECT_EQ(static_cast<DWORD>(ERROR_MORE_DATA), GetLastError());
    EXPECT_EQ(276u, size);
    Bytes blob(size);
    size = 275;
    EXPECT_TRUE(failsWith(CryptExportKey(signing, 0, PUBLICKEYBLOB, 0, blob.data(), &size), ERROR_MORE_DATA));
    EXPECT_EQ(276u, size);
    ASSERT_TRUE(CryptExportKey(signing, 0, PUBLICKEYBLOB, 0, blob.data(), &size)) << std::hex << GetLastError();
    EXPECT_EQ(toHex(join({blobHeader(PUBLICKEYBLOB, CALG_RSA_SIGN), dword(kRsa1), dword(2048), dword(65537)})),
              toHex(blob.data(), 20));

    // Wine's rsaenh verifying a token signature with this blob is orvane-check's step (check_test).
    HCRYPTKEY exchange = token.userKey(AT_KEYEXCHANGE);
    EXPECT_EQ(toHex(blobHeader(PUBLICKEYBLOB, CALG_RSA_KEYX)), toHex(exportPublicKeyBlob(exchange).data(), 8));
    CryptDestroyKey(exchange);

    EXPECT_TRUE(failsWith(CryptExportKey(signing, 0, PRIVATEKEYBLOB, 0, blob.data(), &size), ERROR_ACCESS_DENIED));
    for (DWORD type : {SIMPLEBLOB, PLAINTEXTKEYBLOB, OPAQUEKEYBLOB, SYMMETRICWRAPKEYBLOB})
        EXPECT_TRUE(failsWith(CryptExportKey(signing, 0, type, 0, blob.data(), &size), NTE_BAD_TYPE)) << type;
    CryptDestroyKey(signing);
    ContextHandle small(rsa1024_);
    HCRYPTKEY smallKey = small.userKey(AT_SIGNATURE);
    EXPECT_TRUE(failsWith(CryptExportKey(smallKey, 0, PUBLICKEYBLOB, 0, nullptr, &size), NTE_BAD_KEY));
    CryptDestroyKey(smallKey);
}

TEST_F(KeyBlobTest, PublicKeyFromWinesProviderEncryptsAndVerifiesForIt) {
    ContextHandle token(rsa2048_.keyId), wine;
    HCRYPTKEY pair = 0;
    ASSERT_TRUE(CryptGenKey(wine, AT_KEYEXCHANGE, (2048 << 16) | CRYPT_EXPORTABLE, &pair)) << std::hex << GetLastError();
    HCRYPTKEY imported = token.import(exportPublicKeyBlob(pair));
    for (DWORD flags : {0ul, static_cast<unsigned long>(CRYPT_OAEP)}) {
        const std::string secret = "only Wine can read this";
        Bytes data(256);
        std::memcpy(data.data(), secret.data(), secret.size());
        DWORD length = static_cast<DWORD>(secret.size());
        ASSERT_TRUE(CryptEncrypt(imported, 0, TRUE, flags, data.data(), &length, 256)) << std::hex << GetLastError();
        ASSERT_TRUE(CryptDecrypt(pair, 0, TRUE, flags, data.data(), &length)) << std::hex << GetLastError();
        EXPECT_EQ(secret, std::string(data.begin(), data.begin() + length)) << "flags " << flags;
    }
    EXPECT_TRUE(token.verify(CALG_SHA1, "signed by Wine", wine.sign(CALG_SHA1, "signed by Wine", AT_KEYEXCHANGE), imported))
        << std::hex << GetLastError();
    DWORD size = 0;  // its key pair is not on the token: nothing to export
    EXPECT_TRUE(failsWith(CryptExportKey(imported, 0, PUBLICKEYBLOB, 0, nullptr, &size), NTE_BAD_KEY));
    CryptDestroyKey(imported);
    CryptDestroyKey(pair);
}

TEST_F(KeyBlobTest, SessionKeyEncryptedByOpenSslImportsInEitherByteOrder) {
    writeFile(workDir() + "/session.key", hexToBytes(kSessionKey));
    writeText(workDir() + "/session.plain", kPlain);
    Bytes encrypted = onHost("openssl x509 -inform DER -in " + rsa2048_.certificateFile +
                                 " -pubkey -noout > session.pem && openssl pkeyutl -encrypt -pubin -inkey session.pem "
                                 "-in session.key -out session.rsa && openssl enc -aes-256-cbc -nopad -K " + kSessionKey +
                                 " -iv " + kIv + " -in session.plain -out session.aes",
                             "session.rsa");
    Bytes cipher = readFile(workDir() + "/session.aes");

    ContextHandle token(rsa2048_.keyId);
    HCRYPTKEY exchange = token.userKey(AT_KEYEXCHANGE);
    for (const Bytes& order : {reversed(encrypted), encrypted}) {
        HCRYPTKEY session = token.import(join({blobHeader(SIMPLEBLOB, CALG_AES_256), dword(CALG_RSA_KEYX), order}), exchange);
        ASSERT_TRUE(CryptSetKeyParam(session, KP_IV, hexToBytes(kIv).data(), 0)) << std::hex << GetLastError();
        Bytes data = cipher;
        DWORD length = static_cast<DWORD>(data.size());
        ASSERT_TRUE(CryptDecrypt(session, 0, TRUE, 0, data.data(), &length)) << std::hex << GetLastError();
        EXPECT_EQ(kPlain, std::string(data.begin(), data.begin() + length));
        CryptDestroyKey(session);
    }
    HCRYPTKEY refused = 0;
    Bytes aes192 = join({blobHeader(SIMPLEBLOB, CALG_AES_192), dword(CALG_RSA_KEYX), reversed(encrypted)});
    EXPECT_TRUE(failsWith(CryptImportKey(token, aes192.data(), static_cast<DWORD>(aes192.size()), exchange, 0, &refused),
                          NTE_BAD_ALGID));
    CryptDestroyKey(exchange);
}

TEST_F(KeyBlobTest, PlaintextAesKeyIsStoredOnTheToken) {
    const Bytes value = hexToBytes("000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F");
    std::vector<OrvaneSymmetricKey> before = orvane_getAesKeyList(kSerial, nullptr);
    // Other algorithms are refused with NTE_BAD_ALGID: the malformed-blob table below.
    ContextHandle token(rsa2048_.keyId);
    CryptDestroyKey(token.import(join({blobHeader(PLAINTEXTKEYBLOB, CALG_AES_256), dword(32), value})));
    expectStoredAesKey(kSerial, before, ORVANE_KEY_AES_256, value);
}

TEST_F(KeyBlobTest, WrappedKeyIsUnwrappedByTheFittingTokenKekAndStored) {
    const Bytes kek = hexToBytes("8C1F3A5E7D9B2C4E6F8091A2B3C4D5E6F708192A3B4C5D6E7F8091A2B3C4D5E6");
    std::string id;
    ASSERT_EQ(0, admin::importSecretKey(kWrapSerial, ORVANE_KEY_AES_128, Bytes(16, 0x11), "other", id));
    ASSERT_EQ(0, admin::importSecretKey(kWrapSerial, ORVANE_KEY_DES3, Bytes(24, 0x22), "des", id));
    ASSERT_EQ(0, admin::importSecretKey(kWrapSerial, ORVANE_KEY_AES_256, kek, "kek", id));
    ContextHandle token(wrapContainer_);
    // The wrapped key starts at offset 8; four bytes follow it.
    auto blobOf = [](ALG_ID algorithm, const Bytes& wrapped) {
        return join({blobHeader(SYMMETRICWRAPKEYBLOB, algorithm), wrapped, dword(0)});
    };
    const Bytes value = hexToBytes(kSessionKey);
    // A key no token KEK unwraps is refused with NTE_BAD_KEY: the fault sweep's unwrap rows.
    for (size_t length : {32, 16}) {
        Bytes key(value.begin(), value.begin() + length);
        std::vector<OrvaneSymmetricKey> before = orvane_getAesKeyList(kWrapSerial, nullptr);
        CryptDestroyKey(token.import(blobOf(length == 32 ? CALG_AES_256 : CALG_AES_128, aesWrap(kek, key))));
        expectStoredAesKey(kWrapSerial, before, length == 32 ? ORVANE_KEY_AES_256 : ORVANE_KEY_AES_128, key);
    }
}

TEST_F(KeyBlobTest, MalformedBlobsAndNullArgumentsAreRefusedWithoutReadingPastThem) {
    auto importKey = providerFunction<decltype(&::CPImportKey)>("CPImportKey");
    auto exportKey = providerFunction<decltype(&::CPExportKey)>("CPExportKey");
    auto destroyKey = providerFunction<decltype(&::CPDestroyKey)>("CPDestroyKey");
    VTableProvStruc table{};
    HCRYPTPROV provider = 0;
    ASSERT_TRUE(providerFunction<decltype(&::CPAcquireContext)>("CPAcquireContext")(&provider, rsa2048_.keyId.c_str(), 0, &table));
    HCRYPTKEY exchange = 0;
    ASSERT_TRUE(providerFunction<decltype(&::CPGetUserKey)>("CPGetUserKey")(provider, AT_KEYEXCHANGE, &exchange));

    const Bytes whole = rsaBlob(kRsa1, 2048, 256);
    auto prefix = [&whole](size_t length) { return Bytes(whole.begin(), whole.begin() + length); };
    struct Case {
        std::string what;
        Bytes blob;
        HRESULT expected;  // 0: accepted
    };
    std::vector<Case> cases = {
        {"empty", {}, NTE_INVALID_PARAMETER},
        {"public key cut in its exponent", prefix(19), NTE_BAD_DATA},
        {"public key without a modulus", prefix(20), NTE_BAD_DATA},
        {"modulus one byte short", prefix(275), NTE_BAD_DATA},
        {"bit length past the data", rsaBlob(kRsa1, 2056, 256), NTE_BAD_DATA},
        {"bit length near 2^32", rsaBlob(kRsa1, 0xFFFFFFF8, 256), NTE_BAD_DATA},
        {"private-key magic", rsaBlob(0x32415352, 2048, 256), NTE_BAD_DATA},
        {"1536-bit key", rsaBlob(kRsa1, 1536, 192), NTE_BAD_DATA},
        {"zero-bit key", rsaBlob(kRsa1, 0, 8), NTE_BAD_DATA},
        {"whole public key", whole, 0},
        {"session key without an exchange key", join({blobHeader(SIMPLEBLOB, CALG_AES_256), Bytes(260, 1)}), NTE_BAD_TYPE},
        {"AES-192 plaintext key", join({blobHeader(PLAINTEXTKEYBLOB, CALG_AES_192), dword(24), Bytes(24, 7)}), NTE_BAD_ALGID},
        {"13-byte plaintext key", join({blobHeader(PLAINTEXTKEYBLOB, CALG_AES_192), dword(1), {7}}), NTE_BAD_ALGID},
        {"13-byte wrapped key", join({blobHeader(SYMMETRICWRAPKEYBLOB, CALG_AES_256), Bytes(5, 9)}), NTE_BAD_KEY},
        {"wrapped key without its four trailing bytes", join({blobHeader(SYMMETRICWRAPKEYBLOB, CALG_AES_256), Bytes(40, 9)}), NTE_BAD_KEY},
    };
    for (size_t length : {7, 8, 11, 12})
        cases.push_back({std::to_string(length) + " bytes", prefix(length), NTE_INVALID_PARAMETER});
    for (BYTE type : {0, 2, 3, 4, 5, 7, 9, 10, 12, 0xFF})
        cases.push_back({"type " + std::to_string(type), join({blobHeader(type, CALG_AES_256), Bytes(24, 3)}), NTE_BAD_TYPE});

    GuardPage guard;
    auto place = [&](const Bytes& blob) { return guard.place(blob); };
    for (const Case& c : cases) {
        HCRYPTKEY key = 0;
        BOOL imported = importKey(provider, place(c.blob), static_cast<DWORD>(c.blob.size()), 0, 0, &key);
        if (c.expected != 0) EXPECT_TRUE(failsWith(imported, c.expected)) << c.what;
        else EXPECT_TRUE(imported) << c.what << std::hex << ": " << GetLastError();
        if (imported) destroyKey(provider, key);
    }
    // A session key that the token cannot decrypt fails (no particular code).
    for (size_t length : {1, 255}) {
        HCRYPTKEY key = 0;
        Bytes blob = join({blobHeader(SIMPLEBLOB, CALG_AES_256), dword(CALG_RSA_KEYX), Bytes(length, 0xFF)});
        EXPECT_FALSE(importKey(provider, place(blob), static_cast<DWORD>(blob.size()), exchange, 0, &key)) << length;
    }
    DWORD size = 0;
    EXPECT_TRUE(failsWith(exportKey(provider, 0, 0, PUBLICKEYBLOB, 0, nullptr, &size), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(failsWith(exportKey(provider, exchange, 0, PUBLICKEYBLOB, 0, nullptr, nullptr), ERROR_INVALID_PARAMETER));
    BYTE random[1];
    EXPECT_TRUE(failsWith(providerFunction<decltype(&::CPGenRandom)>("CPGenRandom")(provider, 0, random), ERROR_INVALID_PARAMETER));
    destroyKey(provider, exchange);
    providerFunction<decltype(&::CPReleaseContext)>("CPReleaseContext")(provider, 0);
}

TEST_F(KeyBlobTest, RandomNumbersFollowTheHardwareGeneratorSwitch) {
    ContextHandle token(rsa2048_.keyId);
    BYTE bytes[16] = {};
    // dwFlags 0: Wine never passes a call with bit 0 set to the provider.
    for (DWORD hardware : {0ul, 1ul}) {
        ASSERT_TRUE(CryptSetProvParam(token, PP_USE_HARDWARE_RNG, reinterpret_cast<const BYTE*>(&hardware), 0)) << std::hex << GetLastError();
        ASSERT_TRUE(CryptGenRandom(token, 16, bytes)) << std::hex << GetLastError();
        std::map<std::string, long long> arguments = admin::lastArguments("orvane_generateRamdomNumber");
        EXPECT_EQ(hardware ? 0 : 1, arguments["flag"]) << "hardware " << hardware;
        EXPECT_EQ(16, arguments["length"]);
    }
}

}  // namespace
