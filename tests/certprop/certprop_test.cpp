// orvane-certprop with Wine's real crypt32: the tokens' certificates in the user's stores, and
// applications reaching the token through them as a mail client does. Wine's crypt32 follows
// only CryptoAPI bindings, so the client half runs with propagateRsaToCsp = 1; the default
// key storage binding is checked in the store's property.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Blobs.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "tools/desktop/UiDriver.h"
#include "tools/orvane-certprop/Propagation.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

const DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
const char kTokenA[] = "PROP-A";
const char kTokenB[] = "PROP-B";

void setRsaToCsp(DWORD value) {
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExA(HKEY_LOCAL_MACHINE, "Software\\Kestrelon\\Orvane", 0, nullptr, 0,
                                             KEY_SET_VALUE, nullptr, &key, nullptr));
    RegSetValueExA(key, "propagateRsaToCsp", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
    RegCloseKey(key);
}

int runAgent(const std::string& arguments) {
    return finish(startProgram("orvane-certprop.exe", arguments, workDir() + "/agent-once.txt"), 30000);
}

bool waitFor(const std::function<bool()>& condition) {
    for (int waited = 0; waited < 15000; waited += 100, Sleep(100))
        if (condition()) return true;
    return false;
}

// A certificate of the user's store, opened afresh each time (another process changes it).
struct StoreCertificate {
    HCERTSTORE store;
    PCCERT_CONTEXT context = nullptr;
    StoreCertificate(const wchar_t* name, const Bytes& der)
        : store(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, name)) {
        PCCERT_CONTEXT wanted = CertCreateCertificateContext(kEncoding, der.data(), static_cast<DWORD>(der.size()));
        context = CertFindCertificateInStore(store, kEncoding, 0, CERT_FIND_EXISTING, wanted, nullptr);
        CertFreeCertificateContext(wanted);
    }
    ~StoreCertificate() {
        if (context) CertFreeCertificateContext(context);
        CertCloseStore(store, 0);
    }
    bool propagated() const { return context && certprop::isPropagated(context); }
    // "<provider>|<container>|<type>|<key role>"
    std::string binding() const {
        DWORD size = 0;
        if (!context || !CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) return "";
        Bytes buffer(size);
        CertGetCertificateContextProperty(context, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(), &size);
        auto* info = reinterpret_cast<CRYPT_KEY_PROV_INFO*>(buffer.data());
        std::wstring provider = info->pwszProvName, container = info->pwszContainerName;
        return std::string(provider.begin(), provider.end()) + "|" + std::string(container.begin(), container.end()) +
               "|" + std::to_string(info->dwProvType) + "|" + std::to_string(info->dwKeySpec);
    }
};

int copiesIn(const wchar_t* storeName, const Bytes& der) {
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, storeName);
    int copies = 0;
    for (PCCERT_CONTEXT c = CertEnumCertificatesInStore(store, nullptr); c; c = CertEnumCertificatesInStore(store, c))
        copies += c->cbCertEncoded == der.size() && std::equal(der.begin(), der.end(), c->pbCertEncoded);
    CertCloseStore(store, 0);
    return copies;
}

// orvane-check's line on a key's certificate in the store starts with the outcome and holds the text.
::testing::AssertionResult checkSays(const std::string& key, const std::string& outcome, const std::string& text) {
    writeText(workDir() + "/pin.txt", "1234\r\n");
    finish(startProgram("orvane-check.exe", "--pin-stdin", workDir() + "/check.txt", workDir() + "/pin.txt"), 120000);
    Bytes report = readFile(workDir() + "/check.txt");
    std::istringstream lines(std::string(report.begin(), report.end()));
    for (std::string line; std::getline(lines, line);)
        if (line.find("certificate in the user's MY store") != std::string::npos && line.find(key) != std::string::npos)
            if (line.compare(0, outcome.size(), outcome) == 0 && line.find(text) != std::string::npos)
                return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << outcome << " " << text << " for " << key << " in:\n"
                                         << std::string(report.begin(), report.end());
}

bool agentSaid(const std::string& file, const std::string& text) {
    Bytes output = readFile(workDir() + "/" + file);
    return std::string(output.begin(), output.end()).find(text) != std::string::npos;
}

bool inMy(const Bytes& der) { return StoreCertificate(L"MY", der).propagated(); }

class Propagation : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        freshToken(kTokenA, false);
        addToken(kTokenB);
        rsa_ = provisionKeyWithCertificate(kTokenA, ORVANE_KEY_RSA_2048, 3);
        ec_ = provisionKeyWithCertificate(kTokenA, ORVANE_KEY_EC_P256, 1);
        other_ = provisionKeyWithCertificate(kTokenB, ORVANE_KEY_RSA_2048, 3);
        ca_ = onHost("openssl x509 -in ca.pem -outform DER -out ca.der", "ca.der");
        std::string linked;
        ASSERT_EQ(0, admin::importCertificate(kTokenA, ca_, "issuer", linked));
        runAgent("--remove");
    }
    static void TearDownTestSuite() { runAgent("--remove"); }

    static Bytes der(const ProvisionedKey& key) { return readFile(key.certificateFile); }
    static ProvisionedKey rsa_, ec_, other_;
    static Bytes ca_;
};

ProvisionedKey Propagation::rsa_, Propagation::ec_, Propagation::other_;
Bytes Propagation::ca_;

TEST_F(Propagation, OnceBindsTheTokenCertificatesAndMailClientsSignAndDecryptThroughThem) {
    const std::string ksp = std::string(kProviderName) + "|";
    setRsaToCsp(0);
    ASSERT_EQ(0, runAgent("--once"));
    EXPECT_EQ(ksp + rsa_.keyId + "|0|" + std::to_string(AT_SIGNATURE), StoreCertificate(L"MY", der(rsa_)).binding());
    EXPECT_EQ(ksp + ec_.keyId + "|0|" + std::to_string(AT_SIGNATURE), StoreCertificate(L"MY", der(ec_)).binding());
    EXPECT_TRUE(StoreCertificate(L"CA", ca_).propagated());
    EXPECT_EQ(0, copiesIn(L"MY", ca_));
    EXPECT_EQ(0, copiesIn(L"Root", ca_));

    // The setting rebinds RSA keys at the next synchronisation; EC keys stay with the KSP.
    setRsaToCsp(1);
    ASSERT_EQ(0, runAgent("--once"));
    EXPECT_EQ(ksp + rsa_.keyId + "|1|" + std::to_string(AT_SIGNATURE), StoreCertificate(L"MY", der(rsa_)).binding());
    EXPECT_EQ(ksp + ec_.keyId + "|0|" + std::to_string(AT_SIGNATURE), StoreCertificate(L"MY", der(ec_)).binding());
    EXPECT_EQ(1, copiesIn(L"MY", der(rsa_)));

    // orvane-check judges the binding against the setting: right now, wrong once it changes.
    EXPECT_TRUE(checkSays(rsa_.keyId, "PASS", "CryptoAPI provider"));
    EXPECT_TRUE(checkSays(ec_.keyId, "PASS", "key storage provider"));
    setRsaToCsp(0);
    EXPECT_TRUE(checkSays(rsa_.keyId, "FAIL", "expected the key storage provider"));
    setRsaToCsp(1);

    // A mail client: the signer's certificate from "MY", its private key through the binding.
    StoreCertificate signer(L"MY", der(rsa_));
    ASSERT_NE(nullptr, signer.context);
    const std::string content = "Signed through the user's store with a key on the token";
    CRYPT_SIGN_MESSAGE_PARA parameters{};
    parameters.cbSize = sizeof parameters;
    parameters.dwMsgEncodingType = kEncoding;
    parameters.pSigningCert = signer.context;
    parameters.HashAlgorithm.pszObjId = const_cast<char*>(szOID_NIST_sha256);
    parameters.cMsgCert = 1;
    parameters.rgpMsgCert = &signer.context;
    const BYTE* contents[] = {reinterpret_cast<const BYTE*>(content.data())};
    DWORD contentSizes[] = {static_cast<DWORD>(content.size())};
    Bytes message(8192);
    DWORD size = static_cast<DWORD>(message.size());
    desktop::UiDriver user({desktop::UiStep::enterPin("1234")});
    ASSERT_TRUE(CryptSignMessage(&parameters, FALSE, 1, contents, contentSizes, message.data(), &size))
        << std::hex << GetLastError();
    EXPECT_EQ(std::vector<std::string>{"pin dialog"}, user.finish());
    message.resize(size);
    writeFile(workDir() + "/message.p7s", message);
    HostResult host = runHost("openssl cms -verify -inform DER -in message.p7s -CAfile ca.pem -out verified.txt");
    EXPECT_NE(std::string::npos, host.output.find("Verification successful")) << host.output;
    EXPECT_EQ(bytesOf(content), readFile(workDir() + "/verified.txt"));

    // An S/MIME reader: a message encrypted for the certificate, opened through the store.
    // Wine's crypt32 has no CryptDecryptMessage, and its CMSG_CTRL_DECRYPT knows no AES and
    // sets no IV, so the test takes Windows' crypt32 steps itself: the session key imported
    // under the certificate's private key, the IV from the message, the content decrypted.
    const std::string secret = "For the token holder only";
    writeText(workDir() + "/secret.txt", secret);
    HostResult parts = runHost(
        "set -e\nopenssl x509 -inform DER -in " + rsa_.certificateFile + " -out reader.pem\n"
        "openssl cms -encrypt -binary -aes256 -in secret.txt -outform DER -out secret.p7m reader.pem\n"
        "openssl asn1parse -inform DER -in secret.p7m > parsed.txt\n"
        "sed -n 's/.*OCTET STRING.*HEX DUMP]://p' parsed.txt > octets.txt\n"
        "set -- $(awk '/prim: cont \\[ 0 \\]/ { gsub(/[:=]/, \" \"); print $1, $5, $7 }' parsed.txt)\n"
        "dd if=secret.p7m of=content.bin bs=1 skip=$(($1 + $2)) count=$3 2>/dev/null");
    ASSERT_EQ(0, parts.exitCode) << parts.output;
    Bytes octets = readFile(workDir() + "/octets.txt");
    std::string keyHex, ivHex;
    std::istringstream(std::string(octets.begin(), octets.end())) >> keyHex >> ivHex;
    Bytes sessionKey = orvane::hexToBytes(keyHex), iv = orvane::hexToBytes(ivHex);
    Bytes plain = readFile(workDir() + "/content.bin");

    HCRYPTPROV provider = 0;
    DWORD keySpec = 0;
    BOOL mustFree = FALSE;
    ASSERT_TRUE(CryptAcquireCertificatePrivateKey(signer.context, 0, nullptr, &provider, &keySpec, &mustFree))
        << std::hex << GetLastError();
    HCRYPTKEY privateKey = 0, contentKey = 0;
    ASSERT_TRUE(CryptGetUserKey(provider, keySpec, &privateKey));
    Bytes blob = join({blobHeader(SIMPLEBLOB, CALG_AES_256), dword(CALG_RSA_KEYX), reversed(sessionKey)});
    ASSERT_TRUE(CryptImportKey(provider, blob.data(), static_cast<DWORD>(blob.size()), privateKey, 0, &contentKey))
        << std::hex << GetLastError();
    ASSERT_TRUE(CryptSetKeyParam(contentKey, KP_IV, iv.data(), 0));
    size = static_cast<DWORD>(plain.size());
    ASSERT_TRUE(CryptDecrypt(contentKey, 0, TRUE, 0, plain.data(), &size)) << std::hex << GetLastError();
    CryptDestroyKey(contentKey);
    CryptDestroyKey(privateKey);
    if (mustFree) CryptReleaseContext(provider, 0);
    // The provider leaves the block padding in, whatever Final says.
    EXPECT_EQ(secret + std::string(7, '\x07'), std::string(plain.begin(), plain.begin() + size));
}

TEST_F(Propagation, RunningAgentFollowsPlugAndUnplugOfTwoTokensAddsNothingTwiceAndLeavesTheUsersOwn) {
    setRsaToCsp(1);
    // The user's own certificate, put in "MY" by hand: never the agent's to touch.
    Bytes own = readFile(issueCertificate(kTokenB, other_.keyId, "users-own"));
    HCERTSTORE my = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, L"MY");
    ASSERT_TRUE(CertAddEncodedCertificateToStore(my, kEncoding, own.data(), static_cast<DWORD>(own.size()),
                                                 CERT_STORE_ADD_NEW, nullptr));
    CertCloseStore(my, 0);

    ASSERT_EQ(0, admin::setPlugged(kTokenB, false));
    void* agent = startProgram("orvane-certprop.exe", "", workDir() + "/agent.txt");
    ASSERT_TRUE(waitFor([&] { return agentSaid("agent.txt", "in step"); }));
    EXPECT_TRUE(inMy(der(rsa_)) && StoreCertificate(L"CA", ca_).propagated());
    EXPECT_FALSE(inMy(der(other_)));
    EXPECT_EQ(3, runAgent("--once")) << "one agent per logon session";

    ASSERT_EQ(0, admin::setPlugged(kTokenA, false));
    EXPECT_TRUE(waitFor([&] { return copiesIn(L"MY", der(rsa_)) + copiesIn(L"MY", der(ec_)) + copiesIn(L"CA", ca_) == 0; }));
    ASSERT_EQ(0, admin::setPlugged(kTokenB, true));
    EXPECT_TRUE(waitFor([&] { return inMy(der(other_)); }));
    ASSERT_EQ(0, admin::setPlugged(kTokenA, true));
    EXPECT_TRUE(waitFor([&] { return inMy(der(rsa_)) && inMy(der(ec_)); }));

    // Ended at sign-out and started at the next logon: it finds its own work and adds nothing.
    finish(agent, 0);
    agent = startProgram("orvane-certprop.exe", "", workDir() + "/agent-again.txt");
    EXPECT_TRUE(waitFor([&] { return agentSaid("agent-again.txt", "in step"); }));
    for (const Bytes& certificate : {der(rsa_), der(ec_), der(other_)}) EXPECT_EQ(1, copiesIn(L"MY", certificate));
    EXPECT_EQ(1, copiesIn(L"CA", ca_));

    // --remove stops the running agent and takes back all it added, and only that.
    EXPECT_EQ(0, runAgent("--remove"));
    EXPECT_NE(-1, finish(agent, 15000));
    for (const Bytes& certificate : {der(rsa_), der(ec_), der(other_)}) EXPECT_EQ(0, copiesIn(L"MY", certificate));
    EXPECT_EQ(0, copiesIn(L"CA", ca_));
    StoreCertificate users(L"MY", own);
    EXPECT_NE(nullptr, users.context);
    EXPECT_EQ("", users.binding());
    if (users.context) CertDeleteCertificateFromStore(CertDuplicateCertificateContext(users.context));
}

}  // namespace
