// Container chains built from certificates made by OpenSSL, and the chain export's answers.
// crypt32 reading the certificates of the PKCS#7 back is checked through PP_CERTCHAIN in params_test.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/CertificateChain.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

const char kSerial[] = "CHAIN-1";

std::vector<Bytes> dersOf(const orvane::CertificateChain& chain) {
    std::vector<Bytes> ders;
    for (const OrvaneCertificate& record : chain) ders.emplace_back(record.certData, record.certData + record.certLength);
    return ders;
}

std::vector<Bytes> files(std::initializer_list<const char*> names) {
    std::vector<Bytes> ders;
    for (const char* name : names) ders.push_back(readFile(workDir() + "/" + name));
    return ders;
}

// Runs the OpenSSL script on the host and stores the named certificates on the token, in that order.
void issueAndImport(const std::string& serial, const std::string& script, std::initializer_list<const char*> names) {
    HostResult host = runHost("set -e\n" + script);
    ASSERT_EQ(0, host.exitCode) << host.output;
    for (const char* name : names) {
        std::string linked;
        ASSERT_EQ(0, admin::importCertificate(serial, readFile(workDir() + "/" + name), name, linked)) << name;
    }
}

std::map<std::string, orvane::CertificateChain> tokenChains() {
    return orvane::buildContainerChains(orvane_getKeyPairList(kSerial, nullptr), orvane_getCertificateList(kSerial, nullptr));
}

class CertificateChainTest : public ::testing::Test {
protected:
    // Root -> intermediate -> leaf for an RSA key, and a P-256 key whose issuer is not on the token.
    // The root comes before the intermediate, so the walk must scan again from the start.
    static void SetUpTestSuite() {
        useFreshStore("chain");
        ASSERT_EQ(0, admin::createToken(kSerial, "Chains", "1234", 5));
        ASSERT_EQ(0, admin::generateKeyPair(kSerial, ORVANE_KEY_RSA_2048, "", 3, 0, leafKey_));
        ASSERT_EQ(0, admin::generateKeyPair(kSerial, ORVANE_KEY_EC_P256, "", 1, 0, orphanKey_));
        Bytes spki;
        ASSERT_EQ(0, admin::exportPublicKey(kSerial, leafKey_, spki));
        writeFile(workDir() + "/leaf.pub.der", spki);
        ASSERT_EQ(0, admin::exportPublicKey(kSerial, orphanKey_, spki));
        writeFile(workDir() + "/orphan.pub.der", spki);
        issueAndImport(kSerial,
            "printf 'basicConstraints=critical,CA:TRUE\\nkeyUsage=keyCertSign\\n' > ca.ext\n"
            "openssl req -x509 -new -newkey rsa:2048 -nodes -keyout root.key -subj '/CN=Chain Root' -out root.pem\n"
            "openssl req -x509 -new -newkey rsa:2048 -nodes -keyout outside.key -subj '/CN=Outside CA' -out outside.pem\n"
            "openssl x509 -in root.pem -outform DER -out root.der\n"
            "openssl req -new -newkey rsa:2048 -nodes -keyout inter.key -subj '/CN=Chain Intermediate' -out inter.csr\n"
            "openssl x509 -req -in inter.csr -CA root.pem -CAkey root.key -extfile ca.ext -out inter.pem\n"
            "openssl x509 -in inter.pem -outform DER -out inter.der\n"
            "openssl x509 -new -subj '/CN=Chain Leaf' -force_pubkey leaf.pub.der -CA inter.pem -CAkey inter.key "
            "-outform DER -out leaf.der\n"
            "openssl x509 -new -subj '/CN=Orphan' -force_pubkey orphan.pub.der -CA outside.pem -CAkey outside.key "
            "-outform DER -out orphan.der\n",
            {"leaf.der", "root.der", "orphan.der", "inter.der"});
    }

    static std::string leafKey_, orphanKey_;
};

std::string CertificateChainTest::leafKey_, CertificateChainTest::orphanKey_;

TEST_F(CertificateChainTest, EachKeyGetsItsLeafFollowedByTheIssuersOnTheToken) {
    std::map<std::string, orvane::CertificateChain> chains = tokenChains();
    ASSERT_EQ(2u, chains.size()) << "the root and the intermediate hold no token key";
    EXPECT_EQ(files({"leaf.der", "inter.der", "root.der"}), dersOf(chains[leafKey_]));
    EXPECT_EQ(files({"orphan.der"}), dersOf(chains[orphanKey_])) << "its issuer is not on the token";
}

TEST_F(CertificateChainTest, Pkcs7HoldsNoSignerAnswersSizesAndRefusesAMissingOrUnreadableLeaf) {
    orvane::CertificateChain chain = tokenChains()[leafKey_];
    DWORD size = 0;
    orvane::Pkcs7Outcome outcome = orvane::encodeChainAsPkcs7(chain, nullptr, &size);
    EXPECT_TRUE(outcome.ok && outcome.lastError == ERROR_MORE_DATA) << outcome.lastError;
    Bytes message(size + 16, 0xCC);
    DWORD length = size - 1;
    outcome = orvane::encodeChainAsPkcs7(chain, message.data(), &length);
    EXPECT_TRUE(outcome.ok && outcome.lastError == ERROR_MORE_DATA) << outcome.lastError;
    EXPECT_EQ(size, length);
    EXPECT_EQ(0xCC, message[0]) << "a short buffer is left alone";
    length = static_cast<DWORD>(message.size());
    outcome = orvane::encodeChainAsPkcs7(chain, message.data(), &length);
    EXPECT_TRUE(outcome.ok && outcome.lastError == 0) << outcome.lastError;
    EXPECT_EQ(size, length);
    HCRYPTMSG decoder = CryptMsgOpenToDecode(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, 0, 0, nullptr, nullptr);
    ASSERT_TRUE(CryptMsgUpdate(decoder, message.data(), length, TRUE));
    DWORD signers = 1;
    length = sizeof signers;
    EXPECT_TRUE(CryptMsgGetParam(decoder, CMSG_SIGNER_COUNT_PARAM, 0, &signers, &length));
    CryptMsgClose(decoder);
    EXPECT_EQ(0u, signers) << "certificates only";

    outcome = orvane::encodeChainAsPkcs7({}, nullptr, &length);
    EXPECT_TRUE(!outcome.ok && outcome.lastError == static_cast<DWORD>(NTE_NO_KEY)) << outcome.lastError;
    OrvaneCertificate garbage{};
    garbage.certLength = 5;
    outcome = orvane::encodeChainAsPkcs7({garbage}, nullptr, &length);
    EXPECT_TRUE(!outcome.ok && outcome.lastError == static_cast<DWORD>(NTE_BAD_KEY)) << outcome.lastError;
    EXPECT_EQ(1u, orvane::buildIssuerChain(0, {garbage}).size());
}

TEST_F(CertificateChainTest, IssuersNamingEachOtherEndTheWalk) {
    ASSERT_EQ(0, admin::createToken("CHAIN-LOOP", "Loop", "1234", 5));
    issueAndImport("CHAIN-LOOP",
        "for n in X Y; do openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout $n.key "
        "-subj \"/CN=Loop $n\" -out $n.pem; openssl pkey -in $n.key -pubout -out $n.pub; done\n"
        "openssl x509 -new -subj '/CN=Loop Leaf' -force_pubkey Y.pub -CA X.pem -CAkey X.key -outform DER -out loopLeaf.der\n"
        "openssl x509 -new -subj '/CN=Loop X' -force_pubkey X.pub -CA Y.pem -CAkey Y.key -outform DER -out loopA.der\n"
        "openssl x509 -new -subj '/CN=Loop Y' -force_pubkey Y.pub -CA X.pem -CAkey X.key -outform DER -out loopB.der\n",
        {"loopLeaf.der", "loopA.der", "loopB.der"});
    std::vector<OrvaneCertificate> certificates = orvane_getCertificateList("CHAIN-LOOP", nullptr);
    ASSERT_EQ(3u, certificates.size());
    std::vector<Bytes> loop = files({"loopA.der", "loopB.der"});

    // The leaf is never a candidate for its own issuer, so starting inside the loop ends after one step.
    EXPECT_EQ(loop, dersOf(orvane::buildIssuerChain(1, certificates)));
    // From outside the loop the walk goes round until the list outgrows the token.
    std::vector<Bytes> walked = dersOf(orvane::buildIssuerChain(0, certificates));
    ASSERT_EQ(certificates.size() + 2, walked.size());
    for (size_t index = 1; index < walked.size(); ++index) EXPECT_EQ(loop[(index - 1) % 2], walked[index]) << index;
}

}  // namespace
