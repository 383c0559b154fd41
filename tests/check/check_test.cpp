// orvane-check.exe run as an administrator runs it, against a software token provisioned here
// with RSA and EC key pairs, some without a certificate or a signing use: the report for a
// healthy token, for an unplugged one, a wrong PIN and token operations that fail, and --write.
// The PIN is always given on standard input (--pin-stdin), so no dialog ever appears.
#include <windows.h>

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

const char kSerial[] = "CHECK-1";
const char kPin[] = "1234";
const char kPinLine[] = "1234\r\n";  // as a Windows console or file hands it over
const int kRetries = 5;
const DWORD kRunLimitMs = 120000;

struct CheckRun {
    int exitCode = -1;
    std::string output;

    // One section of the report: "-- CryptoAPI" or "-- Key storage provider".
    std::string section(const std::string& heading) const {
        size_t start = output.find("\n-- " + heading);
        if (start == std::string::npos) return "";
        size_t end = output.find("\n-- ", start + 1);
        return output.substr(start, end == std::string::npos ? std::string::npos : end - start);
    }
};

// The report line of a step about a subject ("" for any) in a part of the report.
std::string lineOf(const std::string& text, const std::string& step, const std::string& subject = "") {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line.size() > 6 && line.compare(6, step.size(), step) == 0 && line.find(subject) != std::string::npos)
            return line;
    return "(no line for " + step + " " + subject + ")";
}

// The key or container a report line is about: its 32-digit hex name.
std::string keyNameIn(const std::string& line) {
    std::smatch name;
    return std::regex_search(line, name, std::regex("\\b[0-9A-F]{32}\\b")) ? name.str() : "";
}

bool starts(const std::string& line, const std::string& outcome) {
    return line.compare(0, outcome.size(), outcome) == 0;
}

// The line of a step about a subject begins with the outcome and holds the text.
::testing::AssertionResult reports(const std::string& part, const std::string& step, const std::string& subject,
                                   const std::string& outcome, const std::string& text = "") {
    std::string line = lineOf(part, step, subject);
    if (starts(line, outcome) && line.find(text) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not " << outcome << " " << text << ": " << line << "\n" << part;
}

// orvane-check.exe from the build with its report in a file and `input` as its standard input;
// a run that outlasts the limit (a dialog nobody answers) is ended and reported as exit code -1.
CheckRun runCheck(const std::string& arguments, const std::string& input = "") {
    std::string reportFile = workDir() + "/report.txt", inputFile = workDir() + "/check-input.txt";
    writeText(inputFile, input);
    CheckRun run;
    run.exitCode = finish(startProgram("orvane-check.exe", arguments, reportFile, inputFile), kRunLimitMs);
    Bytes report = readFile(reportFile);
    run.output.assign(report.begin(), report.end());
    return run;
}

std::vector<std::string> keyIdsOnToken() {
    std::vector<std::string> ids;
    for (const OrvaneKeyPair& key : orvane_getKeyPairList(kSerial, nullptr))
        ids.push_back(orvane::toHex(key.keyId, 16));
    return ids;
}

class OrvaneCheck : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        useFreshStore("check");
        addToken(kSerial, false, kRetries);
        rsa_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_2048, 1).keyId;
        ec_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_EC_P256, 1).keyId;
        // Keys the provider serves only in part.
        exchange_ = newKeyPair(kSerial, ORVANE_KEY_RSA_2048, 2, "exchange");
        rsa3072_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_3072, 1).keyId;
        p384_ = newKeyPair(kSerial, ORVANE_KEY_EC_P384, 1, "no certificate");
    }
    void TearDown() override {
        admin::clearFaults();
        admin::setPlugged(kSerial, true);
        admin::setRetriesLeft(kSerial, kRetries);
        admin::setSignOn(kSerial, 0, 0);
    }

    static std::string rsa_, ec_, exchange_, rsa3072_, p384_;
};

std::string OrvaneCheck::rsa_, OrvaneCheck::ec_, OrvaneCheck::exchange_, OrvaneCheck::rsa3072_, OrvaneCheck::p384_;

TEST_F(OrvaneCheck, AnswersHelpAndRefusesWhatItDoesNotKnow) {
    CheckRun help = runCheck("--help");
    EXPECT_EQ(0, help.exitCode);
    EXPECT_NE(std::string::npos, help.output.find("usage: orvane-check [--pin-stdin | --ask-pin] [--write]"))
        << help.output;
    EXPECT_EQ(2, runCheck("--pins 1234").exitCode);
    EXPECT_EQ(2, runCheck("--pin-stdin").exitCode) << "no PIN on standard input";
    EXPECT_EQ(2, runCheck("--pin-stdin --ask-pin", "1234\n1234\n").exitCode);
    // A PIN on the command line is refused, with how to give it instead.
    CheckRun onCommandLine = runCheck(std::string("--pin ") + kPin);
    EXPECT_EQ(2, onCommandLine.exitCode);
    EXPECT_NE(std::string::npos, onCommandLine.output.find("--pin-stdin")) << onCommandLine.output;
}

TEST_F(OrvaneCheck, PassesForRsaAndEcKeysAndSkipsWhatTheProviderDoesNotOffer) {
    CheckRun run = runCheck("--pin-stdin", kPinLine);
    ASSERT_EQ(0, run.exitCode) << run.output;
    EXPECT_EQ(std::string::npos, run.output.find("FAIL")) << run.output;
    EXPECT_NE(std::string::npos, run.output.find(", 0 failed,")) << run.output;

    std::string csp = run.section("CryptoAPI"), ksp = run.section("Key storage provider");
    EXPECT_TRUE(reports(csp, "CryptAcquireContext", "", "PASS"));
    EXPECT_TRUE(reports(csp, "PIN (PP_SIGNATURE_PIN)", "", "PASS"));
    EXPECT_TRUE(reports(ksp, "KSPOpenProvider + KSPEnumKeys", "", "PASS"));
    EXPECT_TRUE(reports(ksp, "PIN (SmartCardPin property)", "", "PASS"));
    for (const std::string& key : {rsa_, ec_}) {
        for (const char* step : {"certificate (KP_CERTIFICATE)", "CryptSignHash (SHA-256)",
                                 "CryptVerifySignature (provider)", "verify with Windows' own crypto"})
            EXPECT_TRUE(reports(csp, step, key, "PASS"));
        for (const char* step : {"certificate (SmartCardKeyCertificate)", "KSPSignHash (SHA-256)",
                                 "KSPVerifySignature (provider)", "verify with Windows' own crypto"})
            EXPECT_TRUE(reports(ksp, step, key, "PASS"));
    }
    // The RSA key's exported blob is checked against its certificate and then used by the
    // system's RSA provider; the provider exports no EC key, so the certificate stands in.
    EXPECT_TRUE(reports(csp, "CryptExportKey", rsa_, "PASS", "the public key of the key's certificate"));
    EXPECT_TRUE(reports(csp, "verify with Windows' own crypto", rsa_, "PASS", "Microsoft Enhanced RSA"));
    EXPECT_TRUE(reports(csp, "CryptExportKey", ec_, "SKIP", "NTE_BAD_KEY"));
    EXPECT_TRUE(reports(csp, "verify with Windows' own crypto", ec_, "PASS", "certificate's key"));
    EXPECT_TRUE(reports(ksp, "KSPExportKey (RSAPUBLICBLOB)", rsa_, "PASS", "the public key of the key's certificate"));
    EXPECT_TRUE(reports(ksp, "verify with Windows' own crypto", rsa_, "PASS", "the exported key"));
    EXPECT_TRUE(reports(ksp, "KSPExportKey (ECCPUBLICBLOB)", ec_, "SKIP"));

    // What the provider does not offer is skipped with the reason, not failed, and the signature
    // is checked with whatever key material is left. An exchange-only key is not asked to sign.
    EXPECT_TRUE(reports(csp, "PP_KEYSPEC", exchange_, "", "AT_KEYEXCHANGE"));
    EXPECT_TRUE(reports(csp, "CryptSignHash", exchange_, "SKIP"));
    EXPECT_TRUE(reports(ksp, "KSPSignHash", exchange_, "SKIP"));

    // RSA-3072: the CSP exports no such key, so the certificate's key checks the CSP's
    // (little-endian) signature; the KSP's blob is there.
    EXPECT_TRUE(reports(csp, "CryptExportKey", rsa3072_, "SKIP"));
    EXPECT_TRUE(reports(csp, "verify with Windows' own crypto", rsa3072_, "PASS", "certificate's key"));
    EXPECT_TRUE(reports(ksp, "KSPExportKey (RSAPUBLICBLOB)", rsa3072_, "PASS"));

    // P-384 without a certificate: signed and checked by the provider, nothing else to check with.
    for (const std::string& face : {csp, ksp}) {
        EXPECT_TRUE(reports(face, "certificate", p384_, "SKIP"));
        EXPECT_TRUE(reports(face, "verify with Windows' own crypto", p384_, "SKIP"));
    }
    EXPECT_TRUE(reports(csp, "CryptVerifySignature (provider)", p384_, "PASS"));
    EXPECT_TRUE(reports(ksp, "KSPSignHash", p384_, "PASS", "96-byte signature"));
}

TEST_F(OrvaneCheck, NeedsNoPinWhileTokenManagerHasSignedOn) {
    ASSERT_EQ(0, admin::setSignOn(kSerial, 1, 1));
    CheckRun run = runCheck("");
    EXPECT_EQ(0, run.exitCode) << run.output;
    EXPECT_TRUE(reports(run.section("CryptoAPI"), "PIN (PP_SIGNATURE_PIN)", "", "SKIP"));
    EXPECT_TRUE(reports(run.section("CryptoAPI"), "CryptSignHash", ec_, "PASS"));
    EXPECT_TRUE(reports(run.section("Key storage provider"), "KSPSignHash", rsa_, "PASS"));
}

TEST_F(OrvaneCheck, ReportsAnUnpluggedTokenOnBothFaces) {
    ASSERT_EQ(0, admin::setPlugged(kSerial, false));
    CheckRun run = runCheck("--pin-stdin", kPinLine);
    EXPECT_EQ(1, run.exitCode) << run.output;
    EXPECT_TRUE(reports(run.section("CryptoAPI"), "CryptAcquireContext", "", "FAIL",
                        "0x80090023 NTE_TOKEN_KEYSET_STORAGE_FULL: "));
    EXPECT_TRUE(reports(run.section("CryptoAPI"), "CryptAcquireContext", "", "FAIL", "no token is connected"));
    EXPECT_TRUE(reports(run.section("Key storage provider"), "KSPOpenProvider", "", "FAIL",
                        "0x80090035 NTE_DEVICE_NOT_FOUND: "));
}

TEST_F(OrvaneCheck, TriesAWrongPinOnceAndSignsNothing) {
    CheckRun run = runCheck("--ask-pin", "9999\n");  // not a console: the line is read as it is
    EXPECT_EQ(1, run.exitCode) << run.output;
    std::string csp = run.section("CryptoAPI"), ksp = run.section("Key storage provider");
    EXPECT_TRUE(reports(csp, "PIN (PP_SIGNATURE_PIN)", "", "FAIL", "0x8009001A NTE_KEYSET_ENTRY_BAD: "));
    EXPECT_TRUE(reports(csp, "PIN (PP_SIGNATURE_PIN)", "", "FAIL", "the token refused the PIN"));
    EXPECT_TRUE(reports(ksp, "PIN (SmartCardPin property)", "", "SKIP"));
    for (const std::string& key : {rsa_, ec_}) {
        EXPECT_TRUE(reports(csp, "CryptSignHash", key, "SKIP"));
        EXPECT_TRUE(reports(ksp, "KSPSignHash", key, "SKIP"));
    }
    // One attempt used up, not one per face.
    EXPECT_EQ(kRetries - 1, orvane_getTokenInfo(kSerial, nullptr).pinRetriesLeft);
}

// The codes of failing token operations are the fault sweep's; here, the provider's own
// verification failing is told apart from a bad signature. Faults armed here live in the
// token's store, so the tool's process meets them too.
TEST_F(OrvaneCheck, ReportsTheProvidersOwnVerificationFailingApartFromABadSignature) {
    ASSERT_EQ(0, admin::injectFault("orvane_verifySignatureHash", 100, 9));
    CheckRun verifying = runCheck("--pin-stdin", kPinLine);
    EXPECT_EQ(1, verifying.exitCode) << verifying.output;
    std::string csp = verifying.section("CryptoAPI"), ksp = verifying.section("Key storage provider");
    EXPECT_TRUE(reports(csp, "CryptVerifySignature (provider)", rsa_, "FAIL", "0x80090006 NTE_BAD_SIGNATURE: "));
    EXPECT_TRUE(reports(csp, "verify with Windows' own crypto", rsa_, "PASS"));
    EXPECT_TRUE(reports(ksp, "KSPVerifySignature (provider)", ec_, "FAIL"));
    EXPECT_TRUE(reports(ksp, "verify with Windows' own crypto", ec_, "PASS"));
}

TEST_F(OrvaneCheck, WriteMakesUsesAndDeletesATestKey) {
    std::vector<std::string> before = keyIdsOnToken();
    CheckRun run = runCheck("--pin-stdin --write", kPinLine);
    EXPECT_EQ(0, run.exitCode) << run.output;
    std::string ksp = run.section("Key storage provider");
    std::string made = lineOf(ksp, "KSPFinalizeKey (new RSA-2048 key)");
    ASSERT_TRUE(starts(made, "PASS")) << ksp;
    std::string testKey = keyNameIn(made);
    ASSERT_FALSE(testKey.empty()) << made;
    for (const char* step :
         {"KSPSignHash (SHA-256)", "KSPVerifySignature (provider)", "verify with Windows' own crypto", "KSPDeleteKey"})
        EXPECT_TRUE(reports(ksp, step, testKey, "PASS"));
    EXPECT_TRUE(reports(ksp, "key list after the test", "", "PASS"));
    EXPECT_EQ(before, keyIdsOnToken());
}

// A certificate stored under a key's label but made for another key: the provider hands it out
// as the key's certificate, and the check must not take it on trust.
TEST(OrvaneCheckForeignCertificates, ReportsThatTheSignaturesDoNotMatchThem) {
    const char kForeign[] = "CHECK-FOREIGN";
    freshToken(kForeign, false);
    const std::string rsa = newKeyPair(kForeign, ORVANE_KEY_RSA_2048, 1, "rsa-label");
    const std::string ec = newKeyPair(kForeign, ORVANE_KEY_EC_P256, 1, "ec-label");
    for (const std::string kind : {"rsa", "ec"}) {
        std::string newKey = kind == "rsa" ? "rsa:2048" : "ec -pkeyopt ec_paramgen_curve:P-256", linked;
        Bytes der = onHost("openssl req -x509 -new -newkey " + newKey + " -nodes -keyout foreign.key -days 30 "
                           "-subj '/CN=foreign' -outform DER -out foreign.der 2>/dev/null", "foreign.der");
        ASSERT_EQ(0, admin::importCertificate(kForeign, der, kind + "-label", linked));
    }
    CheckRun run = runCheck("--pin-stdin", kPinLine);
    EXPECT_EQ(1, run.exitCode) << run.output;
    std::string csp = run.section("CryptoAPI"), ksp = run.section("Key storage provider");
    for (const std::string& face : {csp, ksp}) {
        EXPECT_TRUE(reports(face, face == csp ? "CryptExportKey" : "KSPExportKey", rsa, "FAIL",
                            "not the public key in the key's certificate"));
        for (const std::string& key : {rsa, ec})
            EXPECT_TRUE(reports(face, "verify with Windows' own crypto", key, "FAIL", "BCryptVerifySignature"));
    }
    // The provider checks with the key itself and is satisfied.
    EXPECT_TRUE(reports(csp, "CryptVerifySignature (provider)", ec, "PASS"));
}

}  // namespace
