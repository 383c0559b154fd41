// The software token's contract, checked against OpenSSL on the host and known-answer vectors.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <tuple>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Blobs.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

const char kSerial[] = "ST-CONTRACT";
const char kPin[] = "1234";

struct TokenKey {
    int type;
    Bytes keyId;
};

Bytes hexBytes(const std::string& hex) { return orvane::hexToBytes(hex); }

Bytes sign(const TokenKey& key, const Bytes& digest) {
    Bytes signature(1024);
    int length = static_cast<int>(signature.size());
    int result = orvane_signHash(kSerial, key.keyId.data(), kPin, digest.data(), static_cast<int>(digest.size()),
                                 signature.data(), &length, false, nullptr);
    signature.resize(result == 0 ? static_cast<size_t>(length) : 0);
    return signature;
}

// Decrypts with a token key; returns the status and fills plain on success.
int decrypt(const Bytes& keyId, const Bytes& cipher, Bytes& plain) {
    unsigned char* out = nullptr;
    int length = 0;
    int status = orvane_decrypt(kSerial, keyId.data(), kPin, cipher.data(), static_cast<int>(cipher.size()), &out,
                                &length, false, nullptr);
    if (status == 0) plain.assign(out, out + length);
    delete[] out;
    return status;
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
            keys_[name] = TokenKey{type, Bytes(request.keyId, request.keyId + 16)};
            Bytes spki;
            ASSERT_EQ(0, admin::exportPublicKey(kSerial, orvane::toHex(keys_[name].keyId), spki));
            writeFile(workDir() + "/" + name + ".pub.der", spki);
        }
    }

    static const TokenKey& key(const std::string& name) { return keys_.at(name); }
    static Bytes publicKeyInfo(const std::string& name) { return readFile(workDir() + "/" + name + ".pub.der"); }

    static std::map<std::string, TokenKey> keys_;
};

std::map<std::string, TokenKey> SoftTokenTest::keys_;

TEST_F(SoftTokenTest, SignaturesVerifyWithOpenSslForEveryKeyTypeAndDigestLength) {
    const std::map<size_t, std::string> digestNames = {{20, "sha1"}, {32, "sha256"}, {48, "sha384"}, {64, "sha512"}};
    std::string script;
    for (const auto& [name, tokenKey] : keys_) {
        for (const auto& [length, digestName] : digestNames) {
            Bytes digest(length);
            for (size_t i = 0; i < length; ++i) digest[i] = static_cast<unsigned char>(i * 7 + tokenKey.type);
            Bytes signature = sign(tokenKey, digest);
            ASSERT_FALSE(signature.empty()) << name << " " << digestName;
            bool rsa = tokenKey.type <= 4;
            if (rsa) { EXPECT_EQ(signature.size(), static_cast<size_t>(128 * tokenKey.type)); }
            std::string stem = name + "-" + digestName;
            writeFile(workDir() + "/" + stem + ".digest", digest);
            writeFile(workDir() + "/" + stem + ".sig", rsa ? signature : ecdsaDer(signature));
            script += "openssl pkeyutl -verify -pubin -keyform DER -inkey " + name + ".pub.der -in " + stem +
                      ".digest -sigfile " + stem + ".sig" + (rsa ? " -pkeyopt digest:" + digestName : "") +
                      " >/dev/null 2>&1 && echo VERIFIED " + stem + "\n";
        }
    }
    HostResult host = runHost(script);
    for (const auto& [name, tokenKey] : keys_)
        for (const auto& [length, digestName] : digestNames)
            EXPECT_NE(std::string::npos, host.output.find("VERIFIED " + name + "-" + digestName + "\n"))
                << name << " " << digestName << " did not verify:\n" << host.output;
}

// RSA and the smaller curves are verified through KSPVerifySignature in ksp/crypto_test.
TEST_F(SoftTokenTest, TokenVerificationOfP521AcceptsItsSignatureAndRejectsAFlippedBit) {
    Bytes digest(32, 0x61), spki = publicKeyInfo("p521"), signature = sign(key("p521"), digest);
    for (bool flipped : {false, true}) {
        if (flipped) signature[signature.size() / 3] ^= 0x04;
        EXPECT_EQ(flipped, 0 != orvane_verifySignatureHash(2, kSerial, digest.data(), 32, spki.data(),
                                                           static_cast<int>(spki.size()), signature.data(),
                                                           static_cast<int>(signature.size()), nullptr));
    }
}

TEST_F(SoftTokenTest, DecryptsOpenSslPkcs1AndOaepAndRefusesShortPkcs1Padding) {
    writeText(workDir() + "/secret.txt", "attack at dawn");
    // Raw RSA of hand-made blocks 00 02 PS 00 M: a PS of 8 bytes is the least the scheme allows.
    Bytes message(256 - 11, 0x33);
    for (size_t padding : {8u, 7u}) {
        Bytes block = {0x00, 0x02};
        block.insert(block.end(), padding, 0x5A);
        block.push_back(0x00);
        block.insert(block.end(), 256 - block.size(), 0x33);
        writeFile(workDir() + "/raw" + std::to_string(padding) + ".bin", block);
    }
    HostResult host = runHost(
        "set -e\nfor k in rsa1024 rsa4096; do for p in pkcs1 oaep; do openssl pkeyutl -encrypt -pubin -keyform DER "
        "-inkey $k.pub.der -pkeyopt rsa_padding_mode:$p -in secret.txt -out $k.$p; done; done\n"
        "for n in 8 7; do openssl pkeyutl -encrypt -pubin -keyform DER -inkey rsa2048.pub.der "
        "-pkeyopt rsa_padding_mode:none -in raw$n.bin -out rsa2048.raw$n; done");
    ASSERT_EQ(0, host.exitCode) << host.output;
    const Bytes secret = bytesOf("attack at dawn");
    const std::tuple<const char*, const char*, Bytes> cases[] = {
        {"rsa1024", "pkcs1", secret}, {"rsa1024", "oaep", secret}, {"rsa4096", "pkcs1", secret},
        {"rsa4096", "oaep", secret},  {"rsa2048", "raw8", message}, {"rsa2048", "raw7", {}}};
    for (const auto& [name, file, expected] : cases) {
        Bytes plain;
        EXPECT_EQ(!expected.empty(), 0 == decrypt(key(name).keyId, readFile(workDir() + "/" + name + "." + file), plain))
            << name << "." << file;
        EXPECT_EQ(expected, plain) << name << "." << file;
    }
}

// OpenSSL reading what the token encrypts is checked in ksp/crypto_test; at the limits the
// token's own decryption, checked against OpenSSL above, reads it back.
TEST_F(SoftTokenTest, EncryptsUpToEachPaddingsLimit) {
    Bytes spki = publicKeyInfo("rsa2048");
    // A 256-byte modulus: PKCS#1 v1.5 frames take 11 bytes, OAEP with SHA-1 42.
    const std::tuple<PaddingMode, size_t, bool> cases[] = {
        {PADDING_PKCS1, 245, true}, {PADDING_PKCS1, 246, false}, {PADDING_OAEP, 214, true}, {PADDING_OAEP, 215, false}};
    for (const auto& [padding, size, accepted] : cases) {
        SCOPED_TRACE(std::to_string(size) + " bytes, padding " + std::to_string(padding));
        Bytes message(size), cipher(256), plain;
        for (size_t i = 0; i < size; ++i) message[i] = static_cast<unsigned char>(i * 13 + size);
        int length = 0;
        int status = orvane_encrypt(ENCRYPTION_RSA_2048, padding, message.data(), static_cast<int>(size), cipher.data(),
                                    &length, spki.data(), static_cast<int>(spki.size()), nullptr);
        ASSERT_EQ(accepted, status == 0);
        if (!accepted) continue;
        EXPECT_EQ(256, length);
        EXPECT_EQ(0, decrypt(key("rsa2048").keyId, cipher, plain));
        EXPECT_EQ(message, plain);
    }
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
    EXPECT_EQ(abc, digestOf(hash, 32, &status));
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
    // The RFC 3394 (4.1) vector, tried under every AES key on the token: only its AES-128 KEK opens it.
    std::string kekId, otherId;
    ASSERT_EQ(0, admin::importSecretKey(kSerial, 8, hexBytes("000102030405060708090A0B0C0D0E0F"), "KEK", kekId));
    ASSERT_EQ(0, admin::importSecretKey(kSerial, 10, Bytes(32, 0x8C), "Other KEK", otherId));
    Bytes wrapped = hexBytes("1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5");
    std::vector<std::string> unwrappedBy;
    for (const OrvaneSymmetricKey& candidate : orvane_getAesKeyList(kSerial, nullptr)) {
        unsigned char* key = nullptr;
        int keyLength = 0;
        if (orvane_decrypt_aes(kSerial, candidate.keyData, candidate.keyDataLength, wrapped.data(),
                               static_cast<int>(wrapped.size()), &key, &keyLength, candidate.keyFlag, nullptr, 0,
                               nullptr) != 0)
            continue;
        unwrappedBy.push_back(orvane::toHex(candidate.keyId, 16));
        EXPECT_EQ("00112233445566778899AABBCCDDEEFF", orvane::toHex(key, static_cast<size_t>(keyLength)));
        delete[] key;
    }
    EXPECT_EQ(std::vector<std::string>{kekId}, unwrappedBy) << "a wrong KEK fails the integrity check";
}

TEST_F(SoftTokenTest, CertificatesPairWithTheirKeysByPublicKeyBytes) {
    std::string script = "set -e\nopenssl req -x509 -new -newkey rsa:2048 -nodes -keyout ca.key -subj '/CN=Contract CA' "
                         "-days 30 -out ca.pem 2>/dev/null\n";
    for (std::string name : {"rsa2048", "p384"})
        script += "openssl x509 -new -subj '/CN=" + name + " leaf' -force_pubkey " + name +
                  ".pub.der -CA ca.pem -CAkey ca.key -days 30 -outform DER -out " + name + ".cert.der\n";
    HostResult host = runHost(script);
    ASSERT_EQ(0, host.exitCode) << host.output;

    for (std::string name : {"rsa2048", "p384"}) {
        Bytes der = readFile(workDir() + "/" + name + ".cert.der");
        CertificateDetails details;
        ASSERT_EQ(0, orvane_getCertificateDetails(der.data(), static_cast<int>(der.size()), details, nullptr));
        EXPECT_EQ("CN=" + name + " leaf", details.subject);
        EXPECT_EQ("CN=Contract CA", details.issuer);

        std::vector<OrvaneKeyPair> keyPairs = orvane_getKeyPairList(kSerial, nullptr);
        const OrvaneKeyPair* owner = nullptr;
        for (const OrvaneKeyPair& keyPair : keyPairs)
            if (details.publicKey == Bytes(keyPair.publicKey, keyPair.publicKey + keyPair.publicKeyLength))
                owner = &keyPair;
        ASSERT_NE(nullptr, owner) << name;
        EXPECT_EQ(key(name).keyId, Bytes(owner->keyId, owner->keyId + 16));
        EXPECT_EQ(name == "p384", owner->publicKey[0] == 0x30) << "RSA bare modulus, EC DER";

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
    auto signWith = [&](const char* pin) {
        int length = 132;
        return orvane_signHash("PIN-1", keyId.data(), pin, digest.data(), 32, signature.data(), &length, false, nullptr);
    };

    EXPECT_NE(0, signWith("")) << "no PIN and no sign-on";
    int remaining = -1;
    EXPECT_NE(0, orvane_validatePassword("PIN-1", "0000", 1, &remaining, nullptr));
    EXPECT_EQ(2, remaining);
    EXPECT_EQ(0, orvane_validatePassword("PIN-1", "2468", 1, &remaining, nullptr));
    EXPECT_EQ(3, remaining) << "a right PIN refills the counter";
    // Each step down is also checked by the PIN dialog's messages in csp/pin_test.
    for (int i = 0; i < 3; ++i) EXPECT_NE(0, orvane_validatePassword("PIN-1", "9999", 1, &remaining, nullptr));
    EXPECT_NE(0, orvane_validatePassword("PIN-1", "2468", 1, &remaining, nullptr)) << "locked";
    EXPECT_EQ(0, remaining);
    EXPECT_NE(0, signWith("2468"));

    // Signed on in Token Manager: private-key use with an empty PIN.
    ASSERT_EQ(0, admin::setSignOn("PIN-1", 1, 1));
    EXPECT_EQ(0, signWith(""));
}

// A failing list read answering an empty list is relied on, and so checked, by the fault sweep.
TEST(SoftTokenDevices, PlugStateAndFaultsSetByAnotherProcessApplyAtOnce) {
    useFreshStore("devices");
    ASSERT_EQ(0, runTool("create DEV-A --pin-stdin", "1111\n"));
    ASSERT_EQ(0, runTool("create DEV-B --pin-stdin", "2222\n"));
    EXPECT_EQ((std::vector<std::string>{"DEV-A", "DEV-B"}), orvane_getConnectedDeviceList(false, nullptr));

    ASSERT_EQ(0, runTool("unplug DEV-A"));
    EXPECT_EQ(std::vector<std::string>{"DEV-B"}, orvane_getConnectedDeviceList(false, nullptr));
    EXPECT_NE(0, orvane_initDevice("DEV-A", false, nullptr));
    EXPECT_TRUE(orvane_getTokenInfo("DEV-A", nullptr).label.empty()) << "an unplugged token has no label";
    ASSERT_EQ(0, runTool("plug DEV-A"));

    ASSERT_EQ(0, runTool("fault orvane_initDevice 2 31"));
    EXPECT_EQ(31, orvane_initDevice("DEV-A", false, nullptr));
    EXPECT_EQ(31, orvane_initDevice("DEV-B", false, nullptr));
    EXPECT_EQ(0, orvane_initDevice("DEV-A", false, nullptr)) << "the fault fires exactly twice, and plug applied";
}

TEST(SoftTokenStore, RefusesToOverwriteACorruptStore) {
    std::string folder = useFreshStore("torn");
    ASSERT_EQ(0, admin::createToken("TORN-1", "Torn", "1234", 3));
    std::string newest = folder + "/state-00000000000000000999.json";
    writeText(newest, "{ not json");
    Sleep(50);  // a file put in past the writers is seen when the folder is next looked at, within milliseconds
    EXPECT_TRUE(orvane_getConnectedDeviceList(false, nullptr).empty());
    EXPECT_NE(0, admin::createToken("TORN-3", "Torn", "1234", 3));
    EXPECT_EQ(bytesOf("{ not json"), readFile(newest)) << "a corrupt store is left as it was";
}

}  // namespace
