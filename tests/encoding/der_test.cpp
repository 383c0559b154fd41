// SubjectPublicKeyInfo encoding of RSA moduli: exact bytes for the cases that matter, and
// OpenSSL reading the result as the same RSA key.
#include <gtest/gtest.h>

#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "encoding/PublicKeyForm.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
using orvane::Bytes;

namespace {

std::string hexOf(const Bytes& bytes) { return orvane::toHex(bytes); }

TEST(DerEncoding, LengthsIntegersAndTheExponent) {
    EXPECT_EQ("7F", hexOf(orvane::derLength(127)));
    EXPECT_EQ("8180", hexOf(orvane::derLength(128)));
    EXPECT_EQ("81C8", hexOf(orvane::derLength(200)));
    EXPECT_EQ("820100", hexOf(orvane::derLength(256)));
    EXPECT_EQ("0203010001", hexOf(orvane::derInteger(orvane::hexToBytes("010001"))));
    EXPECT_EQ("020200FF", hexOf(orvane::derInteger({0xFF})));
    EXPECT_EQ("0202007F", hexOf(orvane::derInteger({0x00, 0x7F}))) << "leading zeros are kept";
    EXPECT_EQ("0200", hexOf(orvane::derInteger({})));
}

TEST(DerEncoding, HexTextIsReadLeniently) {
    EXPECT_EQ("0ABC", hexOf(orvane::hexToBytes("0xABC")));
    EXPECT_EQ("0ABC", hexOf(orvane::hexToBytes("0XAbc")));
    EXPECT_EQ("A0", hexOf(orvane::hexToBytes("ag"))) << "a non-digit counts as 0";
    EXPECT_EQ("00", hexOf(orvane::hexToBytes("  ")));
    EXPECT_EQ("", hexOf(orvane::hexToBytes("")));
}

TEST(DerEncoding, ModulusWithTopBitSetAndWithout) {
    Bytes modulus(256, 0x5A);
    modulus[0] = 0xC3;
    Bytes der = orvane::encodeRsaPublicKeyDer(modulus, orvane::kRsaPublicExponent);
    ASSERT_EQ(294u, der.size());
    EXPECT_EQ("30820122300D06092A864886F70D01010105000382010F003082010A0282010100C3", hexOf(Bytes(der.begin(), der.begin() + 34)));
    EXPECT_EQ("0203010001", hexOf(Bytes(der.end() - 5, der.end())));

    Bytes small(128, 0x11);
    Bytes der128 = orvane::encodeRsaPublicKeyDer(small, orvane::kRsaPublicExponent);
    EXPECT_NE(std::string::npos, hexOf(der128).find("02818011111111")) << "INTEGER 0x02 0x81 0x80 and the modulus";
}

TEST(DerEncoding, StoredKeyFormFollowsTheFirstByte) {
    Bytes der = {0x30, 0x03, 0x02, 0x01, 0x05};
    EXPECT_TRUE(orvane::isStoredPublicKeyDer(der.data(), der.size()));
    EXPECT_EQ(der, orvane::publicKeyAsDer(der.data(), der.size()));
    EXPECT_TRUE(orvane::isStoredPublicKeyDer(nullptr, 0)) << "an empty key stays empty";
    Bytes modulus(128, 0x9C);
    EXPECT_FALSE(orvane::isStoredPublicKeyDer(modulus.data(), modulus.size()));
    EXPECT_EQ(orvane::encodeRsaPublicKeyDer(modulus, {0x01, 0x00, 0x01}),
              orvane::publicKeyAsDer(modulus.data(), modulus.size()));
}

TEST(DerEncoding, OpenSslReadsTheEncodingAsTheSameRsaKey) {
    for (int bits : {1024, 2048, 4096}) {
        std::string name = "rsa" + std::to_string(bits);
        HostResult modulus = runHost("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:" + std::to_string(bits) +
                                     " -out " + name + ".key 2>/dev/null && openssl rsa -in " + name +
                                     ".key -noout -modulus | sed 's/^Modulus=//'");
        ASSERT_EQ(0, modulus.exitCode) << modulus.output;
        std::string hex = modulus.output.substr(0, modulus.output.find('\n'));
        ASSERT_EQ(static_cast<size_t>(bits / 4), hex.size());

        writeFile(workDir() + "/" + name + ".ours.der", orvane::encodeRsaPublicKeyDer(orvane::hexToBytes(hex), {0x01, 0x00, 0x01}));
        HostResult check = runHost("openssl rsa -pubin -inform DER -in " + name +
                                   ".ours.der -noout -modulus | sed 's/^Modulus=//' && "
                                   "openssl rsa -in " + name + ".key -pubout -outform DER -out " + name +
                                   ".openssl.der 2>/dev/null && cmp " + name + ".ours.der " + name + ".openssl.der && echo SAME");
        EXPECT_EQ(hex + "\nSAME\n", check.output) << bits;
    }
}

TEST(DerEncoding, OpenSslReadsATokenModulusAsTheTokenKey) {
    useFreshStore("der");
    ASSERT_EQ(0, softtoken::admin::createToken("DER-1", "Der", "1234", 3));
    std::string keyId;
    ASSERT_EQ(0, softtoken::admin::generateKeyPair("DER-1", ORVANE_KEY_RSA_2048, "", 3, 0, keyId));
    std::vector<OrvaneKeyPair> keyPairs = orvane_getKeyPairList("DER-1", nullptr);
    ASSERT_EQ(1u, keyPairs.size());
    const OrvaneKeyPair& keyPair = keyPairs[0];
    ASSERT_NE(0x30, keyPair.publicKey[0]) << "the token keeps RSA keys as a bare modulus";

    // The token signs; OpenSSL checks the signature with the key as we encoded it.
    Bytes der = orvane::publicKeyAsDer(keyPair.publicKey, static_cast<size_t>(keyPair.publicKeyLength));
    Bytes digest(32, 0x42), signature(256);
    int length = 256;
    ASSERT_EQ(0, orvane_signHash("DER-1", keyPair.keyId, "1234", digest.data(), 32, signature.data(), &length, false,
                                 nullptr));
    writeFile(workDir() + "/token.pub.der", der);
    writeFile(workDir() + "/token.digest", digest);
    writeFile(workDir() + "/token.sig", signature);
    HostResult check = runHost("openssl rsa -pubin -inform DER -in token.pub.der -noout -modulus && "
                               "openssl pkeyutl -verify -pubin -keyform DER -inkey token.pub.der -in token.digest "
                               "-sigfile token.sig -pkeyopt digest:sha256");
    EXPECT_NE(std::string::npos, check.output.find("Modulus=" + orvane::toHex(keyPair.publicKey, 256) + "\n"))
        << check.output;
    EXPECT_NE(std::string::npos, check.output.find("Signature Verified Successfully")) << check.output;
}

}  // namespace
