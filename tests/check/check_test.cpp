// orvane-check.exe run as an administrator runs it, against a software token provisioned here
// with an RSA-2048 and a P-256 key pair and their certificates: the report for a healthy token,
// for an unplugged one, a wrong PIN and token operations that fail, and --write. The PIN is
// always given on the command line, so no dialog ever appears.
#include <windows.h>

#include <gtest/gtest.h>

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
    std::istringstream words(line);
    for (std::string word; words >> word;)
        if (word.size() == 32 && word.find_first_not_of("0123456789ABCDEF") == std::string::npos) return word;
    return "";
}

bool starts(const std::string& line, const std::string& outcome) {
    return line.compare(0, outcome.size(), outcome) == 0;
}

// orvane-check.exe from the build with its report in a file; a run that outlasts the limit
// (a dialog nobody answers) is ended and reported as exit code -1.
CheckRun runCheck(const std::string& arguments) {
    char bin[MAX_PATH] = {};
    GetEnvironmentVariableA("ORVANE_BIN", bin, sizeof bin);
    std::string reportFile = workDir() + "/report.txt";
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE file = CreateFileA(windowsPath(reportFile).c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable,
                              CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    std::string command = "\"" + windowsPath(bin) + "\\orvane-check.exe\" " + arguments;
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = file;
    startup.hStdError = file;
    PROCESS_INFORMATION process = {};
    CheckRun run;
    BOOL started =
        CreateProcessA(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process);
    CloseHandle(file);
    if (!started) {
        run.output = "cannot start " + command;
        return run;
    }
    if (WaitForSingleObject(process.hProcess, kRunLimitMs) == WAIT_TIMEOUT) {
        TerminateProcess(process.hProcess, 1);
        WaitForSingleObject(process.hProcess, 10000);
    } else {
        DWORD exitCode = 0;
        GetExitCodeProcess(process.hProcess, &exitCode);
        run.exitCode = static_cast<int>(exitCode);
    }
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    Bytes report = readFile(reportFile);
    run.output.append(report.begin(), report.end());
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
        ASSERT_EQ(0, admin::createToken(kSerial, "Check token", kPin, kRetries));
        rsa_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_2048, 1).keyId;
        ec_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_EC_P256, 1).keyId;
    }
    void TearDown() override {
        admin::clearFaults();
        admin::setPlugged(kSerial, true);
        admin::setRetriesLeft(kSerial, kRetries);
        admin::setSignOn(kSerial, 0, 0);
    }

    static std::string rsa_, ec_;
};

std::string OrvaneCheck::rsa_, OrvaneCheck::ec_;

TEST_F(OrvaneCheck, AnswersHelpAndRefusesWhatItDoesNotKnow) {
    CheckRun help = runCheck("--help");
    EXPECT_EQ(0, help.exitCode);
    EXPECT_NE(std::string::npos, help.output.find("usage: orvane-check [--pin PIN] [--write]")) << help.output;
    EXPECT_EQ(2, runCheck("--pins 1234").exitCode);
    EXPECT_EQ(2, runCheck("--pin").exitCode);
}

TEST_F(OrvaneCheck, PassesForRsaAndEcKeysWithCertificates) {
    CheckRun run = runCheck(std::string("--pin ") + kPin);
    ASSERT_EQ(0, run.exitCode) << run.output;
    EXPECT_EQ(std::string::npos, run.output.find("FAIL")) << run.output;

    std::string csp = run.section("CryptoAPI");
    EXPECT_TRUE(starts(lineOf(csp, "CryptAcquireContext"), "PASS")) << csp;
    EXPECT_TRUE(starts(lineOf(csp, "PIN (PP_SIGNATURE_PIN)"), "PASS")) << csp;
    for (const std::string& key : {rsa_, ec_}) {
        for (const char* step : {"certificate (KP_CERTIFICATE)", "CryptSignHash (SHA-256)",
                                 "CryptVerifySignature (provider)", "verify with Windows' own crypto"})
            EXPECT_TRUE(starts(lineOf(csp, step, key), "PASS")) << step << " " << key << "\n" << csp;
    }
    // The RSA key's exported blob is checked against its certificate and then used by the
    // system's RSA provider; the provider exports no EC key, so the certificate stands in.
    EXPECT_TRUE(starts(lineOf(csp, "CryptExportKey", rsa_), "PASS")) << csp;
    EXPECT_NE(std::string::npos, lineOf(csp, "CryptExportKey", rsa_).find("the public key of the key's certificate"));
    EXPECT_NE(std::string::npos, lineOf(csp, "verify with Windows' own crypto", rsa_).find("Microsoft Enhanced RSA"));
    EXPECT_TRUE(starts(lineOf(csp, "CryptExportKey", ec_), "SKIP")) << csp;
    EXPECT_NE(std::string::npos, lineOf(csp, "CryptExportKey", ec_).find("NTE_BAD_KEY"));
    EXPECT_NE(std::string::npos, lineOf(csp, "verify with Windows' own crypto", ec_).find("certificate's key"));

    std::string ksp = run.section("Key storage provider");
    EXPECT_TRUE(starts(lineOf(ksp, "KSPOpenProvider + KSPEnumKeys"), "PASS")) << ksp;
    EXPECT_TRUE(starts(lineOf(ksp, "PIN (SmartCardPin property)"), "PASS")) << ksp;
    for (const std::string& key : {rsa_, ec_}) {
        for (const char* step : {"certificate (SmartCardKeyCertificate)", "KSPSignHash (SHA-256)",
                                 "KSPVerifySignature (provider)", "verify with Windows' own crypto"})
            EXPECT_TRUE(starts(lineOf(ksp, step, key), "PASS")) << step << " " << key << "\n" << ksp;
    }
    EXPECT_TRUE(starts(lineOf(ksp, "KSPExportKey (RSAPUBLICBLOB)", rsa_), "PASS")) << ksp;
    EXPECT_TRUE(starts(lineOf(ksp, "KSPExportKey (ECCPUBLICBLOB)", ec_), "SKIP")) << ksp;
    EXPECT_NE(std::string::npos, run.output.find(", 0 failed,")) << run.output;
}

TEST_F(OrvaneCheck, NeedsNoPinWhileTokenManagerHasSignedOn) {
    ASSERT_EQ(0, admin::setSignOn(kSerial, 1, 1));
    CheckRun run = runCheck("");
    EXPECT_EQ(0, run.exitCode) << run.output;
    EXPECT_TRUE(starts(lineOf(run.section("CryptoAPI"), "PIN (PP_SIGNATURE_PIN)"), "SKIP")) << run.output;
    EXPECT_TRUE(starts(lineOf(run.section("CryptoAPI"), "CryptSignHash", ec_), "PASS")) << run.output;
    EXPECT_TRUE(starts(lineOf(run.section("Key storage provider"), "KSPSignHash", rsa_), "PASS")) << run.output;
}

TEST_F(OrvaneCheck, ReportsAnUnpluggedTokenOnBothFaces) {
    ASSERT_EQ(0, admin::setPlugged(kSerial, false));
    CheckRun run = runCheck(std::string("--pin ") + kPin);
    EXPECT_EQ(1, run.exitCode) << run.output;
    std::string acquire = lineOf(run.section("CryptoAPI"), "CryptAcquireContext");
    EXPECT_TRUE(starts(acquire, "FAIL")) << acquire;
    EXPECT_NE(std::string::npos, acquire.find("0x80090023 NTE_TOKEN_KEYSET_STORAGE_FULL: ")) << acquire;
    EXPECT_NE(std::string::npos, acquire.find("no token is connected")) << acquire;
    std::string open = lineOf(run.section("Key storage provider"), "KSPOpenProvider");
    EXPECT_TRUE(starts(open, "FAIL")) << open;
    EXPECT_NE(std::string::npos, open.find("0x80090035 NTE_DEVICE_NOT_FOUND: ")) << open;
}

TEST_F(OrvaneCheck, TriesAWrongPinOnceAndSignsNothing) {
    CheckRun run = runCheck("--pin 9999");
    EXPECT_EQ(1, run.exitCode) << run.output;
    std::string csp = run.section("CryptoAPI"), ksp = run.section("Key storage provider");
    std::string pin = lineOf(csp, "PIN (PP_SIGNATURE_PIN)");
    EXPECT_TRUE(starts(pin, "FAIL")) << pin;
    EXPECT_NE(std::string::npos, pin.find("0x8009001A NTE_KEYSET_ENTRY_BAD: ")) << pin;
    EXPECT_NE(std::string::npos, pin.find("the token refused the PIN")) << pin;
    EXPECT_TRUE(starts(lineOf(ksp, "PIN (SmartCardPin property)"), "SKIP")) << ksp;
    for (const std::string& key : {rsa_, ec_}) {
        EXPECT_TRUE(starts(lineOf(csp, "CryptSignHash", key), "SKIP")) << csp;
        EXPECT_TRUE(starts(lineOf(ksp, "KSPSignHash", key), "SKIP")) << ksp;
    }
    // One attempt used up, not one per face.
    EXPECT_EQ(kRetries - 1, orvane_getTokenInfo(kSerial, nullptr).pinRetriesLeft);
}

TEST_F(OrvaneCheck, ReportsTokenOperationsThatFail) {
    // Faults armed here live in the token's store, so the tool's process meets them too.
    ASSERT_EQ(0, admin::injectFault("orvane_signHash", 100, 8));
    CheckRun signing = runCheck(std::string("--pin ") + kPin);
    EXPECT_EQ(1, signing.exitCode) << signing.output;
    for (const std::string& key : {rsa_, ec_}) {
        std::string csp = lineOf(signing.section("CryptoAPI"), "CryptSignHash", key);
        EXPECT_TRUE(starts(csp, "FAIL")) << csp;
        EXPECT_NE(std::string::npos, csp.find("0x8009001D NTE_PROVIDER_DLL_FAIL: ")) << csp;
        std::string ksp = lineOf(signing.section("Key storage provider"), "KSPSignHash", key);
        EXPECT_TRUE(starts(ksp, "FAIL")) << ksp;
        EXPECT_NE(std::string::npos, ksp.find("0x8009002D NTE_INTERNAL_ERROR: ")) << ksp;
    }
    ASSERT_EQ(0, admin::clearFaults());

    // The provider's own verification failing is told apart from a bad signature.
    ASSERT_EQ(0, admin::injectFault("orvane_verifySignatureHash", 100, 9));
    CheckRun verifying = runCheck(std::string("--pin ") + kPin);
    EXPECT_EQ(1, verifying.exitCode) << verifying.output;
    std::string csp = verifying.section("CryptoAPI"), ksp = verifying.section("Key storage provider");
    std::string provider = lineOf(csp, "CryptVerifySignature (provider)", rsa_);
    EXPECT_TRUE(starts(provider, "FAIL")) << provider;
    EXPECT_NE(std::string::npos, provider.find("0x80090006 NTE_BAD_SIGNATURE: ")) << provider;
    EXPECT_TRUE(starts(lineOf(csp, "verify with Windows' own crypto", rsa_), "PASS")) << csp;
    EXPECT_TRUE(starts(lineOf(ksp, "KSPVerifySignature (provider)", ec_), "FAIL")) << ksp;
    EXPECT_TRUE(starts(lineOf(ksp, "verify with Windows' own crypto", ec_), "PASS")) << ksp;
}

TEST_F(OrvaneCheck, WriteMakesUsesAndDeletesATestKey) {
    std::vector<std::string> before = keyIdsOnToken();
    CheckRun run = runCheck(std::string("--pin ") + kPin + " --write");
    EXPECT_EQ(0, run.exitCode) << run.output;
    std::string ksp = run.section("Key storage provider");
    std::string made = lineOf(ksp, "KSPFinalizeKey (new RSA-2048 key)");
    ASSERT_TRUE(starts(made, "PASS")) << ksp;
    std::string testKey = keyNameIn(made);
    ASSERT_FALSE(testKey.empty()) << made;
    for (const char* step :
         {"KSPSignHash (SHA-256)", "KSPVerifySignature (provider)", "verify with Windows' own crypto", "KSPDeleteKey"})
        EXPECT_TRUE(starts(lineOf(ksp, step, testKey), "PASS")) << step << "\n" << ksp;
    EXPECT_TRUE(starts(lineOf(ksp, "key list after the test"), "PASS")) << ksp;
    EXPECT_EQ(before, keyIdsOnToken());
}

// Keys the provider serves only in part: what it does not offer is skipped with the reason,
// not failed, and the signature is checked with whatever key material is left.
class OrvaneCheckPartlyServedKeys : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        useFreshStore("check-partly-served");
        ASSERT_EQ(0, admin::createToken(kSerial, "Check token", kPin, kRetries));
        ASSERT_EQ(0, admin::generateKeyPair(kSerial, ORVANE_KEY_RSA_2048, "exchange", 2, 0, exchange_));
        rsa3072_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_3072, 1).keyId;
        ASSERT_EQ(0, admin::generateKeyPair(kSerial, ORVANE_KEY_EC_P384, "no certificate", 1, 0, p384_));
    }

    static std::string exchange_, rsa3072_, p384_;
};

std::string OrvaneCheckPartlyServedKeys::exchange_, OrvaneCheckPartlyServedKeys::rsa3072_,
    OrvaneCheckPartlyServedKeys::p384_;

TEST_F(OrvaneCheckPartlyServedKeys, SkipsWhatTheProviderDoesNotOfferAndPassesTheRest) {
    CheckRun run = runCheck(std::string("--pin ") + kPin);
    EXPECT_EQ(0, run.exitCode) << run.output;
    std::string csp = run.section("CryptoAPI"), ksp = run.section("Key storage provider");

    // An exchange-only key is not asked to sign on either face.
    EXPECT_NE(std::string::npos, lineOf(csp, "PP_KEYSPEC", exchange_).find("AT_KEYEXCHANGE")) << csp;
    EXPECT_TRUE(starts(lineOf(csp, "CryptSignHash", exchange_), "SKIP")) << csp;
    EXPECT_TRUE(starts(lineOf(ksp, "KSPSignHash", exchange_), "SKIP")) << ksp;

    // RSA-3072: the CSP exports no such key, so the certificate's key checks the CSP's
    // (little-endian) signature; the KSP's blob is there.
    EXPECT_TRUE(starts(lineOf(csp, "CryptExportKey", rsa3072_), "SKIP")) << csp;
    std::string independent = lineOf(csp, "verify with Windows' own crypto", rsa3072_);
    EXPECT_TRUE(starts(independent, "PASS")) << csp;
    EXPECT_NE(std::string::npos, independent.find("certificate's key")) << independent;
    EXPECT_TRUE(starts(lineOf(ksp, "KSPExportKey (RSAPUBLICBLOB)", rsa3072_), "PASS")) << ksp;

    // P-384 without a certificate: signed and checked by the provider, nothing else to check with.
    for (const std::string& face : {csp, ksp}) {
        EXPECT_TRUE(starts(lineOf(face, "certificate", p384_), "SKIP")) << face;
        EXPECT_TRUE(starts(lineOf(face, "verify with Windows' own crypto", p384_), "SKIP")) << face;
    }
    EXPECT_TRUE(starts(lineOf(csp, "CryptVerifySignature (provider)", p384_), "PASS")) << csp;
    std::string signature = lineOf(ksp, "KSPSignHash", p384_);
    EXPECT_TRUE(starts(signature, "PASS")) << signature;
    EXPECT_NE(std::string::npos, signature.find("96-byte signature")) << signature;
}

// A certificate stored under a key's label but made for another key: the provider hands it out
// as the key's certificate, and the check must not take it on trust.
class OrvaneCheckForeignCertificates : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        useFreshStore("check-foreign-certificates");
        ASSERT_EQ(0, admin::createToken(kSerial, "Check token", kPin, kRetries));
        ASSERT_EQ(0, admin::generateKeyPair(kSerial, ORVANE_KEY_RSA_2048, "rsa-label", 1, 0, rsa_));
        ASSERT_EQ(0, admin::generateKeyPair(kSerial, ORVANE_KEY_EC_P256, "ec-label", 1, 0, ec_));
        HostResult host = runHost(
            "set -e\n"
            "openssl req -x509 -new -newkey rsa:2048 -nodes -keyout foreign-rsa.key -subj '/CN=foreign' -days 30 "
            "-outform DER -out foreign-rsa.der 2>/dev/null\n"
            "openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout foreign-ec.key "
            "-subj '/CN=foreign' -days 30 -outform DER -out foreign-ec.der 2>/dev/null");
        ASSERT_EQ(0, host.exitCode) << host.output;
        std::string linked;
        ASSERT_EQ(0, admin::importCertificate(kSerial, readFile(workDir() + "/foreign-rsa.der"), "rsa-label", linked));
        ASSERT_EQ(0, admin::importCertificate(kSerial, readFile(workDir() + "/foreign-ec.der"), "ec-label", linked));
    }

    static std::string rsa_, ec_;
};

std::string OrvaneCheckForeignCertificates::rsa_, OrvaneCheckForeignCertificates::ec_;

TEST_F(OrvaneCheckForeignCertificates, ReportsThatTheSignaturesDoNotMatchThem) {
    CheckRun run = runCheck(std::string("--pin ") + kPin);
    EXPECT_EQ(1, run.exitCode) << run.output;
    std::string csp = run.section("CryptoAPI"), ksp = run.section("Key storage provider");
    for (const std::string& face : {csp, ksp}) {
        std::string exported = lineOf(face, face == csp ? "CryptExportKey" : "KSPExportKey", rsa_);
        EXPECT_TRUE(starts(exported, "FAIL")) << exported;
        EXPECT_NE(std::string::npos, exported.find("not the public key in the key's certificate")) << exported;
        for (const std::string& key : {rsa_, ec_}) {
            std::string independent = lineOf(face, "verify with Windows' own crypto", key);
            EXPECT_TRUE(starts(independent, "FAIL")) << independent;
            EXPECT_NE(std::string::npos, independent.find("BCryptVerifySignature")) << independent;
        }
    }
    // The provider checks with the key itself and is satisfied.
    EXPECT_TRUE(starts(lineOf(csp, "CryptVerifySignature (provider)", ec_), "PASS")) << csp;
}

}  // namespace
