// The software token's contract, checked against OpenSSL on the host and published
// known-answer vectors.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

const char kSerial[] = "ST-CONTRACT";
const char kPin[] = "1234";

struct TokenKey {
    std::string name;
    int type;
    Bytes keyId;
    std::string publicKeyFile;  // DER SubjectPublicKeyInfo on the host
};

Bytes hexBytes(const std::string& hex) { return orvane::hexToBytes(hex); }

Bytes sign(const TokenKey& key, const Bytes& digest, const char* pin = kPin, int* status = nullptr) {
    Bytes signature(1024);
    int length = static_cast<int>(signature.size());
    int result = orvane_signHash(kSerial, key.keyId.data(), pin, digest.data(), static_cast<int>(digest.size()),
                                 signature.data(), &length, false, nullptr);
    if (status) *status = result;
    signature.resize(result == 0 ? static_cast<size_t>(length) : 0);
    return signature;
}

// ECDSA r || s as the DER ECDSA-Sig-Value that OpenSSL reads.
Bytes ecdsaDer(const Bytes& raw) {
    auto integer = [](Bytes half) {
        while (half.size() > 1 && half[0] == 0 && (half[1] & 0x80) == 0) half.erase(half.begin());
        return orvane::derInteger(half);
    };
    size_t half = raw.size() / 2;
    Bytes body = integer(Bytes(raw.begin(), raw.begin() + half));
    Bytes s = integer(Bytes(raw.begin() + half, raw.end()));
    body.insert(body.end(), s.begin(), s.end());
    return orvane::derWrap(0x30, body);
}

class SoftTokenTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        useFreshStore("contract");
        ASSERT_EQ(0, admin::createToken(kSerial, "Contract token", kPin, 5));
        const std::pair<const char*, int> types[] = {{"rsa1024", 1}, {"rsa2048", 2}, {"rsa3072", 3}, {"rsa4096", 4},
                                                     {"p256", 5},    {"p384", 6},    {"p521", 7}};
        for (const auto& [name, type] : types) {
            OrvaneKeyPair request{};
            request.keyType = type;
            request.keyUsage = 3;
            ASSERT_EQ(0, orvane_generateKeyPair(kSerial, kPin, &request, nullptr)) << name;
            TokenKey key{name, type, Bytes(request.keyId, request.keyId + 16), workDir() + "/" + name + ".pub.der"};
            Bytes spki;
            ASSERT_EQ(0, admin::exportPublicKey(kSerial, orvane::toHex(key.keyId), spki));
            writeFile(key.publicKeyFile, spki);
            keys_[name] = key;
        }
    }

    static const TokenKey& key(const std::string& name) { return keys_.at(name); }
    static Bytes publicKeyInfo(const std::string& name) { return readFile(key(name).publicKeyFile); }

    static std::map<std::string, TokenKey> keys_;
};

std::map<std::string, TokenKey> SoftTokenTest::keys_;

TEST_F(SoftTokenTest, SignaturesVerifyWithOpenSslForEveryKeyTypeAndDigestLength) {
    const std::map<size_t, std::string> digestNames = {{20, "sha1"}, {32, "sha256"}, {48, "sha384"}, {64, "sha512"}};
    std::string script = "set -u\n";
    int expected = 0;
    for (const auto& [name, tokenKey] : keys_) {
        for (const auto& [length, digestName] : digestNames) {
            Bytes digest(length);
            for (size_t i = 0; i < length; ++i) digest[i] = static_cast<unsigned char>(i * 7 + tokenKey.type);
            Bytes signature = sign(tokenKey, digest);
            ASSERT_FALSE(signature.empty()) << name << " " << digestName;
            bool rsa = tokenKey.type <= 4;
            if (rsa) {
                EXPECT_EQ(signature.size(), static_cast<size_t>(128 * tokenKey.type));
            }
            std::string stem = name + "-" + digestName;
            writeFile(workDir() + "/" + stem + ".digest", digest);
            writeFile(workDir() + "/" + stem + ".sig", rsa ? signature : ecdsaDer(signature));
            script += "openssl pkeyutl -verify -pubin -keyform DER -inkey " + name + ".pub.der -in " + stem +
                      ".digest -sigfile " + stem + ".sig" + (rsa ? " -pkeyopt digest:" + digestName : "") +
                      " >/dev/null 2>&1 && echo VERIFIED " + stem + "\n";
            ++expected;
        }
    }
    HostResult host = runHost(script);
    for (const auto& [name, tokenKey] : keys_)
        for (const auto& [length, digestName] : digestNames)
            EXPECT_NE(std::string::npos, host.output.find("VERIFIED " + name + "-" + digestName + "\n"))
                << name << " " << digestName << " did not verify:\n" << host.output;
}

TEST_F(SoftTokenTest, TokenVerificationAcceptsItsSignaturesAndRejectsAFlippedBit) {
    Bytes digest = hexBytes("BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    for (const char* name : {"rsa2048", "p256", "p521"}) {
        Bytes spki = publicKeyInfo(name);
        Bytes signature = sign(key(name), digest);
        EXPECT_EQ(0, orvane_verifySignatureHash(2, kSerial, digest.data(), 32, spki.data(), static_cast<int>(spki.size()),
                                                signature.data(), static_cast<int>(signature.size()), nullptr))
            << name;
        signature[signature.size() / 3] ^= 0x04;
        EXPECT_NE(0, orvane_verifySignatureHash(2, kSerial, digest.data(), 32, spki.data(), static_cast<int>(spki.size()),
                                                signature.data(), static_cast<int>(signature.size()), nullptr))
            << name;
    }
}

TEST_F(SoftTokenTest, DecryptsWhatOpenSslEncryptedWithPkcs1AndOaep) {
    writeText(workDir() + "/secret.txt", "attack at dawn");
    for (const char* name : {"rsa1024", "rsa2048", "rsa4096"}) {
        std::string n = name;
        HostResult host = runHost(
            "openssl pkeyutl -encrypt -pubin -keyform DER -inkey " + n + ".pub.der -in secret.txt -out " + n +
            ".pkcs1 && openssl pkeyutl -encrypt -pubin -keyform DER -inkey " + n +
            ".pub.der -pkeyopt rsa_padding_mode:oaep -in secret.txt -out " + n + ".oaep");
        ASSERT_EQ(0, host.exitCode) << host.output;
        for (const char* padding : {".pkcs1", ".oaep"}) {
            Bytes cipher = readFile(workDir() + "/" + n + padding);
            unsigned char* plain = nullptr;
            int plainLength = 0;
            ASSERT_EQ(0, orvane_decrypt(kSerial, key(n).keyId.data(), kPin, cipher.data(), static_cast<int>(cipher.size()),
                                        &plain, &plainLength, false, nullptr))
                << n << padding;
            EXPECT_EQ("attack at dawn", std::string(reinterpret_cast<char*>(plain), static_cast<size_t>(plainLength)));
            delete[] plain;
        }
    }
}

TEST_F(SoftTokenTest, DecryptionRefusesAPkcs1BlockWithFewerThanEightPaddingBytes) {
    // Raw RSA of hand-made blocks 00 02 PS 00 M: PS of 8 bytes is the least the scheme allows.
    for (size_t padding : {8u, 7u}) {
        Bytes block = {0x00, 0x02};
        block.insert(block.end(), padding, 0x5A);
        block.push_back(0x00);
        Bytes message(256 - block.size(), 0x33);
        block.insert(block.end(), message.begin(), message.end());
        writeFile(workDir() + "/raw.bin", block);
        HostResult host = runHost("openssl pkeyutl -encrypt -pubin -keyform DER -inkey rsa2048.pub.der "
                                  "-pkeyopt rsa_padding_mode:none -in raw.bin -out raw.enc");
        ASSERT_EQ(0, host.exitCode) << host.output;
        Bytes cipher = readFile(workDir() + "/raw.enc");
        unsigned char* plain = nullptr;
        int plainLength = 0;
        int status = orvane_decrypt(kSerial, key("rsa2048").keyId.data(), kPin, cipher.data(),
                                    static_cast<int>(cipher.size()), &plain, &plainLength, false, nullptr);
        if (padding == 8) {
            ASSERT_EQ(0, status);
            EXPECT_EQ(message, Bytes(plain, plain + plainLength));
            delete[] plain;
        } else {
            EXPECT_NE(0, status) << "seven padding bytes";
        }
    }
}

TEST_F(SoftTokenTest, EncryptsUpToEachPaddingsLimitForAnRsaKeyThatOpenSslDecrypts) {
    HostResult host = runHost(
        "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out host.key 2>/dev/null && "
        "openssl pkey -in host.key -pubout -outform DER -out host.pub.der");
    ASSERT_EQ(0, host.exitCode) << host.output;
    Bytes spki = readFile(workDir() + "/host.pub.der");
    struct Case {
        PaddingMode padding;
        size_t length;
        bool accepted;
    };
    // A 256-byte modulus: PKCS#1 v1.5 frames take 11 bytes, OAEP with SHA-1 42.
    const Case cases[] = {{PADDING_PKCS1, 14, true}, {PADDING_PKCS1, 245, true}, {PADDING_PKCS1, 246, false},
                          {PADDING_OAEP, 14, true},  {PADDING_OAEP, 214, true},  {PADDING_OAEP, 215, false}};
    for (const Case& c : cases) {
        Bytes message(c.length);
        for (size_t i = 0; i < message.size(); ++i) message[i] = static_cast<unsigned char>(i * 13 + c.length);
        Bytes cipher(256);
        int length = 0;
        int status = orvane_encrypt(ENCRYPTION_RSA_2048, c.padding, message.data(), static_cast<int>(message.size()),
                                    cipher.data(), &length, spki.data(), static_cast<int>(spki.size()), nullptr);
        if (!c.accepted) {
            EXPECT_NE(0, status) << c.length << " bytes, padding " << c.padding;
            continue;
        }
        ASSERT_EQ(0, status) << c.length << " bytes, padding " << c.padding;
        EXPECT_EQ(256, length);
        writeFile(workDir() + "/to-host.bin", cipher);
        HostResult decrypted = runHost(std::string("openssl pkeyutl -decrypt -inkey host.key -in to-host.bin -out "
                                                   "from-token.bin") +
                                       (c.padding == PADDING_OAEP ? " -pkeyopt rsa_padding_mode:oaep" : ""));
        EXPECT_EQ(0, decrypted.exitCode) << decrypted.output;
        EXPECT_EQ(message, readFile(workDir() + "/from-token.bin")) << c.length << " bytes, padding " << c.padding;
    }
}

TEST_F(SoftTokenTest, RecordsTheArgumentsOfTheLatestCallEvenWhenAFaultAnswers) {
    using Recorded = std::map<std::string, long long>;
    EXPECT_EQ(Recorded{}, admin::lastArguments("orvane_neverCalled"));
    Bytes spki = publicKeyInfo("rsa1024"), message = bytesOf("hello"), cipher(128);
    int length = 0;
    ASSERT_EQ(0, orvane_encrypt(ENCRYPTION_RSA_1024, PADDING_OAEP, message.data(), 5, cipher.data(), &length,
                                spki.data(), static_cast<int>(spki.size()), nullptr));
    EXPECT_EQ((Recorded{{"type", 7}, {"padding", 4}, {"plainLength", 5},
                        {"publicKeyLength", static_cast<long long>(spki.size())}}),
              admin::lastArguments("orvane_encrypt"));

    ASSERT_EQ(0, admin::injectFault("orvane_signHash", 1, 49));
    Bytes digest(32, 0x42), signature(512);
    length = 512;
    EXPECT_EQ(49, orvane_signHash(kSerial, key("p256").keyId.data(), kPin, digest.data(), 32, signature.data(), &length,
                                  true, nullptr));
    EXPECT_EQ((Recorded{{"flag", 1}, {"hashLength", 32}, {"signatureCapacity", 512}}),
              admin::lastArguments("orvane_signHash"));
}

TEST_F(SoftTokenTest, HashHandlesStayUsableAfterADigest) {
    const std::string abc = "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";
    // NIST's two-block message: "abc" followed by the rest of it.
    const std::string twoBlocks = "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1";
    const std::string rest = "dbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    auto digestOf = [](void* hash, int capacity, int* status) {
        unsigned char digest[64] = {};
        int length = capacity;
        *status = orvane_finalHash(hash, digest, &length, nullptr);
        return *status == 0 ? orvane::toHex(digest, static_cast<size_t>(length)) : std::to_string(length);
    };
    void* hash = nullptr;
    int status = -1;
    ASSERT_EQ(0, orvane_initHash(kSerial, 3, &hash, nullptr));
    ASSERT_EQ(0, orvane_updateHash(hash, reinterpret_cast<const unsigned char*>("abc"), 3, nullptr));
    EXPECT_EQ(abc, digestOf(hash, 64, &status));
    EXPECT_EQ(abc, digestOf(hash, 32, &status)) << "a second digest of the same data";
    EXPECT_EQ("32", digestOf(hash, 31, &status)) << "a short buffer gets the size needed";
    EXPECT_NE(0, status);
    ASSERT_EQ(0, orvane_updateHash(hash, reinterpret_cast<const unsigned char*>(rest.data()),
                                   static_cast<int>(rest.size()), nullptr));
    EXPECT_EQ(twoBlocks, digestOf(hash, 32, &status)) << "data after a digest adds to what came before";

    unsigned char notAHandle[64] = {};
    EXPECT_NE(0, orvane_updateHash(notAHandle, notAHandle, 1, nullptr));
    EXPECT_EQ("64", digestOf(reinterpret_cast<void*>(0x10), 64, &status)) << "length left alone";
    EXPECT_NE(0, status);
}

TEST_F(SoftTokenTest, UnwrapsOnlyWithTheRightTokenKek) {
    // An AES-128 KEK with the RFC 3394 (4.1) vector, and an AES-256 KEK whose wrapped key OpenSSL made.
    std::string rfcKekId, kekId;
    ASSERT_EQ(0, admin::importSecretKey(kSerial, 8, hexBytes("000102030405060708090A0B0C0D0E0F"), "RFC KEK", rfcKekId));
    Bytes kek = hexBytes("8C1F3A5E7D9B2C4E6F8091A2B3C4D5E6F708192A3B4C5D6E7F8091A2B3C4D5E6");
    ASSERT_EQ(0, admin::importSecretKey(kSerial, 10, kek, "KEK", kekId));
    HostResult host = runHost("openssl rand 32 > wrap.key && openssl enc -id-aes256-wrap -K " + orvane::toHex(kek) +
                              " -iv A6A6A6A6A6A6A6A6 -in wrap.key -out wrap.bin");
    ASSERT_EQ(0, host.exitCode) << host.output;
    struct Case {
        Bytes wrapped;
        std::string kekId;
        std::string key;
    };
    const Case cases[] = {{hexBytes("1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5"), rfcKekId,
                           "00112233445566778899AABBCCDDEEFF"},
                          {readFile(workDir() + "/wrap.bin"), kekId, orvane::toHex(readFile(workDir() + "/wrap.key"))}};

    std::vector<OrvaneSymmetricKey> candidates = orvane_getAesKeyList(kSerial, nullptr);
    for (const Case& c : cases) {
        std::vector<std::string> unwrappedBy;
        for (const OrvaneSymmetricKey& candidate : candidates) {
            unsigned char* key = nullptr;
            int keyLength = 0;
            if (orvane_decrypt_aes(kSerial, candidate.keyData, candidate.keyDataLength, c.wrapped.data(),
                                   static_cast<int>(c.wrapped.size()), &key, &keyLength, candidate.keyFlag, nullptr, 0,
                                   nullptr) != 0)
                continue;
            unwrappedBy.push_back(orvane::toHex(candidate.keyId, 16));
            EXPECT_EQ(c.key, orvane::toHex(key, static_cast<size_t>(keyLength)));
            delete[] key;
        }
        EXPECT_EQ(std::vector<std::string>{c.kekId}, unwrappedBy) << "a wrong KEK fails the integrity check";
    }
}

TEST_F(SoftTokenTest, SymmetricDecryptionAndHashesMatchKnownAnswers) {
    // NIST SP 800-38A F.1.1 (ECB) and F.2.1 (CBC), AES-128, first block.
    Bytes key = hexBytes("2B7E151628AED2A6ABF7158809CF4F3C");
    Bytes iv = hexBytes("000102030405060708090A0B0C0D0E0F");
    struct Case { const char* cipher; bool withIv; };
    for (Case c : {Case{"3AD77BB40D7A3660A89ECAF32466EF97", false}, Case{"7649ABAC8119B246CEE98E9B12E9197D", true}}) {
        Bytes cipher = hexBytes(c.cipher);
        Bytes plain(16);
        int length = 16;
        ASSERT_EQ(0, orvane_decryptSymetric(kSerial, cipher.data(), 16, plain.data(), &length,
                                            c.withIv ? iv.data() : nullptr, c.withIv ? 16 : 0, key.data(), 16, nullptr));
        EXPECT_EQ("6BC1BEE22E409F96E93D7E117393172A", orvane::toHex(plain));
    }

    const std::pair<int, const char*> digests[] = {
        {2, "A9993E364706816ABA3E25717850C26C9CD0D89D"},
        {3, "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"},
        {4, "CB00753F45A35E8BB5A03D699AC65007272C32AB0EDED1631A8B605A43FF5BED8086072BA1E7CC2358BAECA134C825A7"},
        {5, "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A2192992A274FC1A836BA3C23A3FEEBBD454D4423643CE80E"
            "2A9AC94FA54CA49F"}};
    for (const auto& [mechanism, expected] : digests) {
        void* hash = nullptr;
        ASSERT_EQ(0, orvane_initHash(kSerial, mechanism, &hash, nullptr));
        ASSERT_EQ(0, orvane_updateHash(hash, reinterpret_cast<const unsigned char*>("ab"), 2, nullptr));
        ASSERT_EQ(0, orvane_updateHash(hash, reinterpret_cast<const unsigned char*>("c"), 1, nullptr));
        unsigned char digest[64];
        int length = sizeof digest;
        ASSERT_EQ(0, orvane_finalHash(hash, digest, &length, nullptr));
        EXPECT_EQ(expected, orvane::toHex(digest, static_cast<size_t>(length))) << "mechanism " << mechanism;
    }

    unsigned char first[32] = {}, second[32] = {};
    ASSERT_EQ(0, orvane_generateRamdomNumber(kSerial, 32, first, true, nullptr));
    ASSERT_EQ(0, orvane_generateRamdomNumber(kSerial, 32, second, true, nullptr));
    EXPECT_NE(0, std::memcmp(first, second, 32));
}

TEST_F(SoftTokenTest, CertificatesPairWithTheirKeysByPublicKeyBytes) {
    std::string script =
        "set -e\n"
        "openssl req -x509 -new -newkey rsa:2048 -nodes -keyout ca.key -subj '/CN=Contract CA' -days 30 -out ca.pem "
        "2>/dev/null\n";
    for (const char* name : {"rsa2048", "p384"})
        script += std::string("openssl x509 -new -subj '/CN=") + name + " leaf' -force_pubkey " + name +
                  ".pub.der -CA ca.pem -CAkey ca.key -days 30 -outform DER -out " + name + ".cert.der\n";
    HostResult host = runHost(script);
    ASSERT_EQ(0, host.exitCode) << host.output;

    for (const char* name : {"rsa2048", "p384"}) {
        Bytes der = readFile(workDir() + "/" + name + ".cert.der");
        CertificateDetails details;
        ASSERT_EQ(0, orvane_getCertificateDetails(der.data(), static_cast<int>(der.size()), details, nullptr));
        EXPECT_EQ(std::string("CN=") + name + " leaf", details.subject);
        EXPECT_EQ("CN=Contract CA", details.issuer);

        std::vector<OrvaneKeyPair> keyPairs = orvane_getKeyPairList(kSerial, nullptr);
        const OrvaneKeyPair* owner = nullptr;
        for (const OrvaneKeyPair& keyPair : keyPairs)
            if (details.publicKey == Bytes(keyPair.publicKey, keyPair.publicKey + keyPair.publicKeyLength))
                owner = &keyPair;
        ASSERT_NE(nullptr, owner) << name;
        EXPECT_EQ(key(name).keyId, Bytes(owner->keyId, owner->keyId + 16));
        EXPECT_EQ(std::string(name) == "p384", owner->publicKey[0] == 0x30) << "RSA bare modulus, EC DER";

        OrvaneCertificate record{};
        std::memcpy(record.certData, der.data(), der.size());
        record.certLength = static_cast<int>(der.size());
        ASSERT_EQ(0, orvane_importCertificate(kSerial, kPin, &record, nullptr));
        EXPECT_EQ(Bytes(owner->certLinkId, owner->certLinkId + owner->certLinkIdLength),
                  Bytes(record.certLinkId, record.certLinkId + record.certLinkIdLength));
    }
    EXPECT_EQ(2u, orvane_getCertificateList(kSerial, nullptr).size());
}

TEST(SoftTokenPin, WrongPinCountsDownLocksAndBlocksPrivateKeyUse) {
    useFreshStore("pin");
    ASSERT_EQ(0, admin::createToken("PIN-1", "Pin token", "2468", 3));
    std::string keyIdHex;
    ASSERT_EQ(0, admin::generateKeyPair("PIN-1", 5, "sig", 3, 0, keyIdHex));
    Bytes keyId = hexBytes(keyIdHex), digest(32, 0x11), signature(132);
    int length = 132;

    EXPECT_NE(0, orvane_signHash("PIN-1", keyId.data(), "", digest.data(), 32, signature.data(), &length, false, nullptr))
        << "no PIN and no sign-on";
    int remaining = -1;
    EXPECT_NE(0, orvane_validatePassword("PIN-1", "0000", 1, &remaining, nullptr));
    EXPECT_EQ(2, remaining);
    EXPECT_EQ(0, orvane_validatePassword("PIN-1", "2468", 1, &remaining, nullptr));
    EXPECT_EQ(3, remaining) << "a right PIN refills the counter";
    for (int expected : {2, 1, 0}) {
        EXPECT_NE(0, orvane_validatePassword("PIN-1", "9999", 1, &remaining, nullptr));
        EXPECT_EQ(expected, remaining);
    }
    EXPECT_NE(0, orvane_validatePassword("PIN-1", "2468", 1, &remaining, nullptr)) << "locked";
    EXPECT_EQ(0, remaining);
    length = 132;
    EXPECT_NE(0, orvane_signHash("PIN-1", keyId.data(), "2468", digest.data(), 32, signature.data(), &length, false,
                                 nullptr));

    // Signed on in Token Manager: private-key use with an empty PIN.
    ASSERT_EQ(0, admin::setSignOn("PIN-1", 1, 1));
    TokenInfo info = orvane_getTokenInfo("PIN-1", nullptr);
    EXPECT_EQ("Pin token", info.label);
    EXPECT_EQ(1, info.loginState);
    EXPECT_EQ(1, info.ssoState);
    length = 132;
    EXPECT_EQ(0, orvane_signHash("PIN-1", keyId.data(), "", digest.data(), 32, signature.data(), &length, false, nullptr));
    EXPECT_EQ(64, length);
}

TEST(SoftTokenDevices, PlugStateAndFaultsSetByAnotherProcessApplyAtOnce) {
    useFreshStore("devices");
    ASSERT_EQ(0, runTool("create DEV-A --pin 1111"));
    ASSERT_EQ(0, runTool("create DEV-B --pin 2222"));
    EXPECT_EQ((std::vector<std::string>{"DEV-A", "DEV-B"}), orvane_getConnectedDeviceList(false, nullptr));
    EXPECT_EQ(0, orvane_initDevice("DEV-A", false, nullptr));

    ASSERT_EQ(0, runTool("unplug DEV-A"));
    EXPECT_EQ(std::vector<std::string>{"DEV-B"}, orvane_getConnectedDeviceList(false, nullptr));
    EXPECT_NE(0, orvane_initDevice("DEV-A", false, nullptr));
    EXPECT_TRUE(orvane_getTokenInfo("DEV-A", nullptr).label.empty()) << "an unplugged token has no label";
    ASSERT_EQ(0, runTool("plug DEV-A"));
    EXPECT_EQ(2u, orvane_getConnectedDeviceList(false, nullptr).size());

    ASSERT_EQ(0, runTool("fault orvane_initDevice 2 31"));
    EXPECT_EQ(31, orvane_initDevice("DEV-A", false, nullptr));
    EXPECT_EQ(31, orvane_initDevice("DEV-B", false, nullptr));
    EXPECT_EQ(0, orvane_initDevice("DEV-A", false, nullptr)) << "the fault fires exactly twice";

    ASSERT_EQ(0, runTool("fault orvane_validatePassword 1 48"));
    int remaining = -1;
    EXPECT_EQ(48, orvane_validatePassword("DEV-B", "2222", 1, &remaining, nullptr));
    EXPECT_EQ(10, remaining);
    ASSERT_EQ(0, runTool("fault orvane_getKeyPairList 1 1"));
    ASSERT_EQ(0, runTool("genkey DEV-B p256"));
    EXPECT_TRUE(orvane_getKeyPairList("DEV-B", nullptr).empty()) << "a failing list read is an empty list";
    EXPECT_EQ(1u, orvane_getKeyPairList("DEV-B", nullptr).size());
}

TEST(SoftTokenStore, AFolderRemovedAndMadeAgainUnderTheSameNameIsReadAfresh) {
    useFreshStore("remade");
    ASSERT_EQ(0, runTool("create OLD-1 --pin 1111"));
    EXPECT_EQ(std::vector<std::string>{"OLD-1"}, orvane_getConnectedDeviceList(false, nullptr));
    EXPECT_EQ(std::vector<std::string>{"OLD-1"}, orvane_getConnectedDeviceList(false, nullptr));

    useFreshStore("remade");
    EXPECT_TRUE(orvane_getConnectedDeviceList(false, nullptr).empty()) << "the old folder's state was kept";
    ASSERT_EQ(0, runTool("create NEW-1 --pin 1111"));
    EXPECT_EQ(std::vector<std::string>{"NEW-1"}, orvane_getConnectedDeviceList(false, nullptr));
    ASSERT_EQ(0, runTool("unplug NEW-1"));
    EXPECT_TRUE(orvane_getConnectedDeviceList(false, nullptr).empty()) << "a change in the new folder went unseen";
}

TEST(SoftTokenStore, SurvivesATornWriteAndRefusesToOverwriteACorruptStore) {
    std::string folder = useFreshStore("torn");
    ASSERT_EQ(0, admin::createToken("TORN-1", "Torn", "1234", 3));
    // A writer that died before its rename leaves a partial temporary file behind.
    writeText(folder + "/state.tmp", "{\"generation\": 9, \"tok");
    EXPECT_EQ(std::vector<std::string>{"TORN-1"}, orvane_getConnectedDeviceList(false, nullptr));
    EXPECT_EQ(0, admin::createToken("TORN-2", "Torn", "1234", 3));
    EXPECT_EQ(2u, orvane_getConnectedDeviceList(false, nullptr).size());

    std::string newest = folder + "/state-00000000000000000999.json";
    writeText(newest, "{ not json");
    EXPECT_TRUE(orvane_getConnectedDeviceList(false, nullptr).empty());
    EXPECT_NE(0, admin::createToken("TORN-3", "Torn", "1234", 3));
    EXPECT_EQ(bytesOf("{ not json"), readFile(newest)) << "a corrupt store is left for inspection";
}

}  // namespace
