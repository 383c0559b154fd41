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
const DWORD kRsa1 = 0x31415352;
const std::string kIv = "000102030405060708090A0B0C0D0E0F";
const std::string kPlain = "Three AES blocks in CBC mode, no padding: 48 B..";
const std::string kSessionKey = "603DEB1015CA71BE2B73AEF0857D77811F352C073B6108D72D9810A30914DFF4";

Bytes reversed(Bytes bytes) { return Bytes(bytes.rbegin(), bytes.rend()); }
Bytes dword(DWORD value) { return Bytes{BYTE(value), BYTE(value >> 8), BYTE(value >> 16), BYTE(value >> 24)}; }
Bytes join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& piece : parts) all.insert(all.end(), piece.begin(), piece.end());
    return all;
}
Bytes header(BYTE type, ALG_ID algorithm) { return join({{type, 2, 0, 0}, dword(algorithm)}); }
Bytes rsaBlob(DWORD magic, DWORD bits, size_t modulusBytes) {
    return join({header(PUBLICKEYBLOB, CALG_RSA_KEYX), dword(magic), dword(bits), dword(65537), Bytes(modulusBytes, 0xA5)});
}

// Runs an OpenSSL script in the work folder; the bytes of the file it wrote.
Bytes onHost(const std::string& script, const std::string& output) {
    HostResult host = runHost(script);
    EXPECT_EQ(0, host.exitCode) << script << "\n" << host.output;
    return readFile(workDir() + "/" + output);
}
Bytes wrapOnHost(const Bytes& kek, const Bytes& key) {
    writeFile(workDir() + "/wrap-in.bin", key);
    return onHost("openssl enc -id-aes" + std::to_string(kek.size() * 8) + "-wrap -K " + toHex(kek) +
                      " -iv A6A6A6A6A6A6A6A6 -in wrap-in.bin -out wrap-out.bin",
                  "wrap-out.bin");
}

std::vector<OrvaneSymmetricKey> added(const char* serial, const std::vector<OrvaneSymmetricKey>& before) {
    std::vector<OrvaneSymmetricKey> fresh;
    for (const OrvaneSymmetricKey& key : orvane_getAesKeyList(serial, nullptr))
        if (std::none_of(before.begin(), before.end(),
                         [&](const OrvaneSymmetricKey& old) { return std::memcmp(old.keyId, key.keyId, 16) == 0; }))
            fresh.push_back(key);
    return fresh;
}

// The list holds references, not values: the stored key proves its value by unwrapping what
// OpenSSL wrapped under that value.
void expectStoredValue(const char* serial, const std::vector<OrvaneSymmetricKey>& before, int32_t type, const Bytes& value) {
    std::vector<OrvaneSymmetricKey> fresh = added(serial, before);
    ASSERT_EQ(1u, fresh.size());
    const OrvaneSymmetricKey& stored = fresh[0];
    EXPECT_EQ(type, stored.keyType);
    const Bytes probe = hexToBytes("00112233445566778899AABBCCDDEEFF");
    Bytes wrapped = wrapOnHost(value, probe);
    unsigned char* unwrapped = nullptr;
    int length = 0;
    ASSERT_EQ(0, orvane_decrypt_aes(serial, stored.keyData, stored.keyDataLength, wrapped.data(),
                                    static_cast<int>(wrapped.size()), &unwrapped, &length, stored.keyFlag, nullptr, 0,
                                    nullptr));
    EXPECT_EQ(toHex(probe), toHex(unwrapped, static_cast<size_t>(length)));
    delete[] unwrapped;
}

// A context of this provider (a container) or of Wine's own (a verification context).
class Context {
public:
    explicit Context(const std::string& container) {
        EXPECT_TRUE(CryptAcquireContextA(&handle_, container.c_str(), kProviderName, PROV_RSA_FULL, 0)) << std::hex << GetLastError();
    }
    Context() { EXPECT_TRUE(CryptAcquireContextA(&handle_, nullptr, MS_ENHANCED_PROV_A, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)); }
    ~Context() { if (handle_) CryptReleaseContext(handle_, 0); }
    operator HCRYPTPROV() const { return handle_; }

    HCRYPTKEY userKey(DWORD which) const {
        HCRYPTKEY key = 0;
        EXPECT_TRUE(CryptGetUserKey(handle_, which, &key)) << std::hex << GetLastError();
        return key;
    }
    HCRYPTKEY import(const Bytes& blob, HCRYPTKEY unwrapping = 0) const {
        HCRYPTKEY key = 0;
        EXPECT_TRUE(CryptImportKey(handle_, blob.data(), static_cast<DWORD>(blob.size()), unwrapping, 0, &key)) << std::hex << GetLastError();
        return key;
    }
    HCRYPTHASH sha1(const std::string& data) const {  // Wine's provider of this type has no SHA-2
        HCRYPTHASH hash = 0;
        EXPECT_TRUE(CryptCreateHash(handle_, CALG_SHA1, 0, 0, &hash)) << std::hex << GetLastError();
        EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>(data.data()), static_cast<DWORD>(data.size()), 0));
        return hash;
    }
    Bytes sign(const std::string& message, DWORD which) const {
        HCRYPTHASH hash = sha1(message);
        Bytes signature(256);
        DWORD size = 256;
        EXPECT_TRUE(CryptSignHashA(hash, which, nullptr, 0, signature.data(), &size)) << std::hex << GetLastError();
        CryptDestroyHash(hash);
        signature.resize(size);
        return signature;
    }
    BOOL verify(const std::string& message, const Bytes& signature, HCRYPTKEY key) const {
        HCRYPTHASH hash = sha1(message);
        BOOL ok = CryptVerifySignatureA(hash, signature.data(), static_cast<DWORD>(signature.size()), key, nullptr, 0);
        DWORD error = GetLastError();
        CryptDestroyHash(hash);
        SetLastError(error);
        return ok;
    }

private:
    HCRYPTPROV handle_ = 0;
};

Bytes exportPublicKey(HCRYPTKEY key) {
    DWORD size = 0;
    EXPECT_TRUE(CryptExportKey(key, 0, PUBLICKEYBLOB, 0, nullptr, &size)) << std::hex << GetLastError();
    Bytes blob(size);
    EXPECT_TRUE(CryptExportKey(key, 0, PUBLICKEYBLOB, 0, blob.data(), &size)) << std::hex << GetLastError();
    blob.resize(size);
    return blob;
}

class KeyBlobTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        useFreshStore("blobs");
        for (const char* serial : {kSerial, kWrapSerial}) {
            ASSERT_EQ(0, admin::createToken(serial, serial, "1234", 5));
            ASSERT_EQ(0, admin::setSignOn(serial, 1, 1));
        }
        rsa2048_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_2048, 3);
        ASSERT_EQ(0, admin::generateKeyPair(kSerial, ORVANE_KEY_RSA_1024, "small", 3, 0, rsa1024_));
        ASSERT_EQ(0, admin::generateKeyPair(kWrapSerial, ORVANE_KEY_RSA_2048, "wrap", 3, 0, wrapContainer_));
    }

    static ProvisionedKey rsa2048_;
    static std::string rsa1024_, wrapContainer_;
};

ProvisionedKey KeyBlobTest::rsa2048_;
std::string KeyBlobTest::rsa1024_, KeyBlobTest::wrapContainer_;

TEST_F(KeyBlobTest, ExportedPublicKeyServesWinesOwnProvider) {
    Context token(rsa2048_.keyId), wine;
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
    EXPECT_EQ(toHex(join({header(PUBLICKEYBLOB, CALG_RSA_SIGN), dword(kRsa1), dword(2048), dword(65537)})),
              toHex(blob.data(), 20));

    const std::string message = "exported keys verify elsewhere";
    Bytes signature = token.sign(message, AT_SIGNATURE);
    HCRYPTKEY verifying = wine.import(blob);
    EXPECT_TRUE(wine.verify(message, signature, verifying)) << std::hex << GetLastError();
    signature[100] ^= 0x01;
    EXPECT_TRUE(failsWith(wine.verify(message, signature, verifying), NTE_BAD_SIGNATURE));
    CryptDestroyKey(verifying);
    HCRYPTKEY exchange = token.userKey(AT_KEYEXCHANGE);
    EXPECT_EQ(toHex(header(PUBLICKEYBLOB, CALG_RSA_KEYX)), toHex(exportPublicKey(exchange).data(), 8));
    CryptDestroyKey(exchange);

    EXPECT_TRUE(failsWith(CryptExportKey(signing, 0, PRIVATEKEYBLOB, 0, blob.data(), &size), ERROR_ACCESS_DENIED));
    for (DWORD type : {SIMPLEBLOB, PLAINTEXTKEYBLOB, OPAQUEKEYBLOB, SYMMETRICWRAPKEYBLOB})
        EXPECT_TRUE(failsWith(CryptExportKey(signing, 0, type, 0, blob.data(), &size), NTE_BAD_TYPE)) << type;
    CryptDestroyKey(signing);
    Context small(rsa1024_);
    HCRYPTKEY smallKey = small.userKey(AT_SIGNATURE);
    EXPECT_TRUE(failsWith(CryptExportKey(smallKey, 0, PUBLICKEYBLOB, 0, nullptr, &size), NTE_BAD_KEY));
    CryptDestroyKey(smallKey);
}

TEST_F(KeyBlobTest, PublicKeyFromWinesProviderEncryptsAndVerifiesForIt) {
    Context token(rsa2048_.keyId), wine;
    HCRYPTKEY pair = 0;
    ASSERT_TRUE(CryptGenKey(wine, AT_KEYEXCHANGE, (2048 << 16) | CRYPT_EXPORTABLE, &pair)) << std::hex << GetLastError();
    HCRYPTKEY imported = token.import(exportPublicKey(pair));
    for (DWORD flags : {0ul, static_cast<unsigned long>(CRYPT_OAEP)}) {
        const std::string secret = "only Wine can read this";
        Bytes data(256);
        std::memcpy(data.data(), secret.data(), secret.size());
        DWORD length = static_cast<DWORD>(secret.size());
        ASSERT_TRUE(CryptEncrypt(imported, 0, TRUE, flags, data.data(), &length, 256)) << std::hex << GetLastError();
        ASSERT_TRUE(CryptDecrypt(pair, 0, TRUE, flags, data.data(), &length)) << std::hex << GetLastError();
        EXPECT_EQ(secret, std::string(data.begin(), data.begin() + length)) << "flags " << flags;
    }
    EXPECT_TRUE(token.verify("signed by Wine", wine.sign("signed by Wine", AT_KEYEXCHANGE), imported)) << std::hex << GetLastError();
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

    Context token(rsa2048_.keyId);
    HCRYPTKEY exchange = token.userKey(AT_KEYEXCHANGE);
    for (const Bytes& order : {reversed(encrypted), encrypted}) {
        HCRYPTKEY session = token.import(join({header(SIMPLEBLOB, CALG_AES_256), dword(CALG_RSA_KEYX), order}), exchange);
        ASSERT_TRUE(CryptSetKeyParam(session, KP_IV, hexToBytes(kIv).data(), 0)) << std::hex << GetLastError();
        Bytes data = cipher;
        DWORD length = static_cast<DWORD>(data.size());
        ASSERT_TRUE(CryptDecrypt(session, 0, TRUE, 0, data.data(), &length)) << std::hex << GetLastError();
        EXPECT_EQ(kPlain, std::string(data.begin(), data.begin() + length));
        CryptDestroyKey(session);
    }
    HCRYPTKEY refused = 0;
    Bytes aes192 = join({header(SIMPLEBLOB, CALG_AES_192), dword(CALG_RSA_KEYX), reversed(encrypted)});
    EXPECT_TRUE(failsWith(CryptImportKey(token, aes192.data(), static_cast<DWORD>(aes192.size()), exchange, 0, &refused),
                          NTE_BAD_ALGID));
    CryptDestroyKey(exchange);
}

TEST_F(KeyBlobTest, PlaintextAesKeyIsStoredOnTheToken) {
    const Bytes value = hexToBytes("000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F");
    std::vector<OrvaneSymmetricKey> before = orvane_getAesKeyList(kSerial, nullptr);
    Context token(rsa2048_.keyId);
    HCRYPTKEY refused = 0;
    Bytes des = join({header(PLAINTEXTKEYBLOB, CALG_3DES), dword(32), value});
    EXPECT_TRUE(failsWith(CryptImportKey(token, des.data(), static_cast<DWORD>(des.size()), 0, 0, &refused), NTE_BAD_ALGID));
    EXPECT_TRUE(added(kSerial, before).empty());

    CryptDestroyKey(token.import(join({header(PLAINTEXTKEYBLOB, CALG_AES_256), dword(32), value})));
    expectStoredValue(kSerial, before, ORVANE_KEY_AES_256, value);
}

TEST_F(KeyBlobTest, WrappedKeyIsUnwrappedByTheFittingTokenKekAndStored) {
    const Bytes kek = hexToBytes("8C1F3A5E7D9B2C4E6F8091A2B3C4D5E6F708192A3B4C5D6E7F8091A2B3C4D5E6");
    std::string id;
    ASSERT_EQ(0, admin::importSecretKey(kWrapSerial, ORVANE_KEY_AES_128, Bytes(16, 0x11), "other", id));
    ASSERT_EQ(0, admin::importSecretKey(kWrapSerial, ORVANE_KEY_DES3, Bytes(24, 0x22), "des", id));
    ASSERT_EQ(0, admin::importSecretKey(kWrapSerial, ORVANE_KEY_AES_256, kek, "kek", id));
    Context token(wrapContainer_);
    // The wrapped key starts at offset 8; four bytes follow it.
    auto blobOf = [](ALG_ID algorithm, const Bytes& wrapped) {
        return join({header(SYMMETRICWRAPKEYBLOB, algorithm), wrapped, dword(0)});
    };
    const Bytes value = hexToBytes(kSessionKey);
    std::vector<OrvaneSymmetricKey> before = orvane_getAesKeyList(kWrapSerial, nullptr);
    Bytes foreign = blobOf(CALG_AES_256, wrapOnHost(Bytes(32, 0x33), value));
    HCRYPTKEY refused = 0;
    EXPECT_TRUE(failsWith(CryptImportKey(token, foreign.data(), static_cast<DWORD>(foreign.size()), 0, 0, &refused),
                          NTE_BAD_KEY));
    EXPECT_TRUE(added(kWrapSerial, before).empty());

    for (size_t length : {32, 16}) {
        Bytes key(value.begin(), value.begin() + length);
        before = orvane_getAesKeyList(kWrapSerial, nullptr);
        CryptDestroyKey(token.import(blobOf(length == 32 ? CALG_AES_256 : CALG_AES_128, wrapOnHost(kek, key))));
        expectStoredValue(kWrapSerial, before, length == 32 ? ORVANE_KEY_AES_256 : ORVANE_KEY_AES_128, key);
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
        {"session key without an exchange key", join({header(SIMPLEBLOB, CALG_AES_256), Bytes(260, 1)}), NTE_BAD_TYPE},
        {"AES-192 plaintext key", join({header(PLAINTEXTKEYBLOB, CALG_AES_192), dword(24), Bytes(24, 7)}), NTE_BAD_ALGID},
        {"13-byte plaintext key", join({header(PLAINTEXTKEYBLOB, CALG_AES_192), dword(1), {7}}), NTE_BAD_ALGID},
        {"13-byte wrapped key", join({header(SYMMETRICWRAPKEYBLOB, CALG_AES_256), Bytes(5, 9)}), NTE_BAD_KEY},
        {"wrapped key without its four trailing bytes", join({header(SYMMETRICWRAPKEYBLOB, CALG_AES_256), Bytes(40, 9)}), NTE_BAD_KEY},
    };
    for (size_t length : {7, 8, 11, 12})
        cases.push_back({std::to_string(length) + " bytes", prefix(length), NTE_INVALID_PARAMETER});
    for (BYTE type : {0, 2, 3, 4, 5, 7, 9, 10, 12, 0xFF})
        cases.push_back({"type " + std::to_string(type), join({header(type, CALG_AES_256), Bytes(24, 3)}), NTE_BAD_TYPE});

    // Each blob ends where a PAGE_NOACCESS page begins, so reading past it faults.
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    BYTE* base = static_cast<BYTE*>(VirtualAlloc(nullptr, 2 * info.dwPageSize, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD old = 0;
    ASSERT_TRUE(VirtualProtect(base + info.dwPageSize, info.dwPageSize, PAGE_NOACCESS, &old));
    auto place = [&](const Bytes& blob) {
        return static_cast<BYTE*>(std::memcpy(base + info.dwPageSize - blob.size(), blob.data(), blob.size()));
    };
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
        Bytes blob = join({header(SIMPLEBLOB, CALG_AES_256), dword(CALG_RSA_KEYX), Bytes(length, 0xFF)});
        EXPECT_FALSE(importKey(provider, place(blob), static_cast<DWORD>(blob.size()), exchange, 0, &key)) << length;
    }
    DWORD size = 0;
    EXPECT_TRUE(failsWith(exportKey(provider, 0, 0, PUBLICKEYBLOB, 0, nullptr, &size), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(failsWith(exportKey(provider, exchange, 0, PUBLICKEYBLOB, 0, nullptr, nullptr), ERROR_INVALID_PARAMETER));
    BYTE random[1];
    EXPECT_TRUE(failsWith(providerFunction<decltype(&::CPGenRandom)>("CPGenRandom")(provider, 0, random), ERROR_INVALID_PARAMETER));
    destroyKey(provider, exchange);
    providerFunction<decltype(&::CPReleaseContext)>("CPReleaseContext")(provider, 0);
    VirtualFree(base, 0, MEM_RELEASE);
}

TEST_F(KeyBlobTest, RandomNumbersFollowTheHardwareGeneratorSwitch) {
    Context token(rsa2048_.keyId);
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
