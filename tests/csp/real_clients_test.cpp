// The provider as real Windows applications reach it: through a certificate whose key
// provider information names this provider and a container, with crypt32 doing the rest.
// OpenSSL checks what comes out. Signing and decrypting messages through the user's store is
// in certprop_test.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <string>

#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/KspHarness.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

const char kSerial[] = "CLIENTS-1";

class RealClients : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        freshToken(kSerial);
        key_ = provisionKeyWithCertificate(kSerial, ORVANE_KEY_RSA_2048, 3);
    }

    // Key provider information as a certificate store keeps it for a token key.
    static CRYPT_KEY_PROV_INFO providerInfo(std::wstring& container, std::wstring& provider) {
        container = widen(key_.keyId);
        provider = widen(kProviderName);
        CRYPT_KEY_PROV_INFO info{};
        info.pwszContainerName = &container[0];
        info.pwszProvName = &provider[0];
        info.dwProvType = PROV_RSA_FULL;
        info.dwKeySpec = AT_SIGNATURE;
        return info;
    }

    static ProvisionedKey key_;
};

ProvisionedKey RealClients::key_;

TEST_F(RealClients, SelfSignedCertificateForATokenKeyVerifiesWithOpenSsl) {
    CERT_NAME_BLOB subject{};
    const char* name = "CN=Orvane self-signed";
    ASSERT_TRUE(CertStrToNameA(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, nullptr, nullptr, &subject.cbData, nullptr));
    Bytes subjectBytes(subject.cbData);
    subject.pbData = subjectBytes.data();
    ASSERT_TRUE(CertStrToNameA(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, nullptr, subject.pbData, &subject.cbData,
                               nullptr));
    std::wstring container, provider;
    CRYPT_KEY_PROV_INFO info = providerInfo(container, provider);
    CRYPT_ALGORITHM_IDENTIFIER algorithm{};
    algorithm.pszObjId = const_cast<char*>(szOID_RSA_SHA256RSA);

    // The application holds a context on the container, as certificate enrolment tools do.
    HCRYPTPROV context = 0;
    ASSERT_TRUE(CryptAcquireContextA(&context, key_.keyId.c_str(), kProviderName, PROV_RSA_FULL, 0));
    PCCERT_CONTEXT certificate =
        CertCreateSelfSignCertificate(context, &subject, 0, &info, &algorithm, nullptr, nullptr, nullptr);
    ASSERT_NE(nullptr, certificate) << std::hex << GetLastError();
    CryptReleaseContext(context, 0);
    writeFile(workDir() + "/self.der",
              Bytes(certificate->pbCertEncoded, certificate->pbCertEncoded + certificate->cbCertEncoded));
    CertFreeCertificateContext(certificate);

    // The certificate carries the token key and is signed by it.
    HostResult host = runHost(
        "openssl x509 -inform DER -in self.der -out self.pem && openssl verify -CAfile self.pem self.pem && "
        "openssl x509 -in self.pem -pubkey -noout | openssl pkey -pubin -outform DER -out self-key.der && "
        "cmp self-key.der " + key_.keyId + ".pub.der && echo same-key");
    EXPECT_NE(std::string::npos, host.output.find("self.pem: OK")) << host.output;
    EXPECT_NE(std::string::npos, host.output.find("same-key")) << host.output;
}

}  // namespace
