// SubjectPublicKeyInfo encoding of RSA moduli: exact bytes for the cases that matter, and
// OpenSSL reading the result as the same RSA key. A token's bare modulus read as its signing key
// is checked by OpenSSL in softtoken/contract_test (the public key export goes through publicKeyAsDer).
#include <gtest/gtest.h>

#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "encoding/PublicKeyForm.h"
#include "tests/support/TestSupport.h"

using namespace orvanetest;
using orvane::Bytes;

namespace {

std::string hexOf(const Bytes& bytes) { return orvane::toHex(bytes); }

// The exponent and every long form a real key needs are compared with OpenSSL's bytes below.
TEST(DerEncoding, LengthsAndIntegersAtTheirBoundaries) {
    EXPECT_EQ("7F", hexOf(orvane::derLength(127)));
    EXPECT_EQ("8180", hexOf(orvane::derLength(128)));
    EXPECT_EQ("81C8", hexOf(orvane::derLength(200)));
    EXPECT_EQ("820100", hexOf(orvane::derLength(256)));
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

TEST(DerEncoding, StoredKeyFormFollowsTheFirstByte) {
    Bytes der = {0x30, 0x03, 0x02, 0x01, 0x05};
    EXPECT_TRUE(orvane::isStoredPublicKeyDer(der.data(), der.size()));
    EXPECT_EQ(der, orvane::publicKeyAsDer(der.data(), der.size()));
    EXPECT_TRUE(orvane::isStoredPublicKeyDer(nullptr, 0)) << "an empty key stays empty";
    // Top bit clear, so no leading zero: OpenSSL's moduli below all have it set.
    Bytes modulus(128, 0x11);
    EXPECT_FALSE(orvane::isStoredPublicKeyDer(modulus.data(), modulus.size()));
    Bytes encoded = orvane::publicKeyAsDer(modulus.data(), modulus.size());
    EXPECT_EQ(orvane::encodeRsaPublicKeyDer(modulus, {0x01, 0x00, 0x01}), encoded);
    EXPECT_NE(std::string::npos, hexOf(encoded).find("02818011111111")) << "INTEGER 0x02 0x81 0x80 and the modulus";
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

}  // namespace
