// Provider parameters as management tools and applications read them through Wine's
// advapi32: the enumerations and their cursors, names, the container's PP_KEYSPEC answer and the
// certificate chain. A PIN given through PP_SIGNATURE_PIN is checked by orvane-check's test and the fault sweep.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

class ProviderParams : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        freshToken("PARAMS-1", false);
        signer_ = newKeyPair("PARAMS-1", ORVANE_KEY_RSA_1024, 1, "signs");
        both_ = newKeyPair("PARAMS-1", ORVANE_KEY_RSA_1024, 3, "both");
        exchange_ = newKeyPair("PARAMS-1", ORVANE_KEY_RSA_1024, 2, "exchange");
    }
    static DWORD dwordParam(HCRYPTPROV provider, DWORD param) {
        DWORD value = 0, size = sizeof value;
        EXPECT_TRUE(CryptGetProvParam(provider, param, reinterpret_cast<BYTE*>(&value), &size, 0)) << param;
        EXPECT_EQ(4u, size);
        return value;
    }

    static std::string signer_, both_, exchange_;
};

std::string ProviderParams::signer_, ProviderParams::both_, ProviderParams::exchange_;

TEST_F(ProviderParams, AlgorithmsAreEnumeratedWithOneSharedCursor) {
    ContextHandle provider(signer_);
    std::vector<std::string> names;
    PROV_ENUMALGS entry;
    for (DWORD flags = CRYPT_FIRST;; flags = CRYPT_NEXT) {
        DWORD size = sizeof entry;
        if (!CryptGetProvParam(provider, PP_ENUMALGS, reinterpret_cast<BYTE*>(&entry), &size, flags)) {
            EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_ITEMS), GetLastError());
            break;
        }
        EXPECT_EQ(strlen(entry.szName), entry.dwNameLen);
        names.push_back(entry.szName);
    }
    EXPECT_EQ((std::vector<std::string>{"RSA-Sign", "RSA-KeyX", "SHA1", "SHA256"}), names);

    // A size query moves the cursor too; a short buffer fails while a missing one succeeds.
    PROV_ENUMALGS_EX extended;
    DWORD size = 0;
    ASSERT_TRUE(CryptGetProvParam(provider, PP_ENUMALGS_EX, nullptr, &size, CRYPT_FIRST));
    EXPECT_EQ(sizeof extended, size);
    size = 10;
    EXPECT_TRUE(failsWith(CryptGetProvParam(provider, PP_ENUMALGS_EX, reinterpret_cast<BYTE*>(&extended), &size,
                                            CRYPT_NEXT),
                          ERROR_MORE_DATA));
    size = sizeof extended;
    ASSERT_TRUE(CryptGetProvParam(provider, PP_ENUMALGS_EX, reinterpret_cast<BYTE*>(&extended), &size, CRYPT_NEXT));
    EXPECT_STREQ("SHA1", extended.szName);
    EXPECT_STREQ("SHA-1 Hash Algorithm", extended.szLongName);
    EXPECT_EQ(256u, extended.dwMaxLen);
    EXPECT_TRUE(failsWith(CryptGetProvParam(provider, PP_ENUMALGS, reinterpret_cast<BYTE*>(&entry), &size, 4),
                          ERROR_INVALID_PARAMETER));
}

TEST_F(ProviderParams, ContainersAreEnumeratedAsTheTokenListsThem) {
    ContextHandle provider("");
    std::vector<std::string> names;
    char name[64];
    DWORD size = 0;
    ASSERT_TRUE(CryptGetProvParam(provider, PP_ENUMCONTAINERS, nullptr, &size, CRYPT_FIRST));
    EXPECT_EQ(33u, size);
    size = 5;
    EXPECT_TRUE(CryptGetProvParam(provider, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &size, CRYPT_FIRST))
        << "a short buffer is answered with the size";
    EXPECT_EQ(static_cast<DWORD>(ERROR_MORE_DATA), GetLastError());
    for (DWORD flags = CRYPT_FIRST;; flags = CRYPT_NEXT) {
        size = sizeof name;
        if (!CryptGetProvParam(provider, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &size, flags)) {
            EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_ITEMS), GetLastError());
            break;
        }
        names.push_back(name);
    }
    EXPECT_EQ((std::vector<std::string>{signer_, both_, exchange_}), names);
}

TEST_F(ProviderParams, NamesContainerAndKeySpec) {
    ContextHandle provider(both_), exchange(exchange_), none("");
    char text[64];
    DWORD size = sizeof text;
    ASSERT_TRUE(CryptGetProvParam(provider, PP_NAME, reinterpret_cast<BYTE*>(text), &size, 0));
    EXPECT_STREQ(kProviderName, text);
    EXPECT_EQ(33u, size) << "a copied name reports its length without the NUL";
    size = 10;
    ASSERT_TRUE(CryptGetProvParam(provider, PP_NAME, reinterpret_cast<BYTE*>(text), &size, 0));
    EXPECT_EQ(34u, size);
    size = sizeof text;
    ASSERT_TRUE(CryptGetProvParam(provider, PP_CONTAINER, reinterpret_cast<BYTE*>(text), &size, 0));
    EXPECT_EQ(both_, text);
    EXPECT_EQ(2u, dwordParam(provider, PP_KEYSPEC)) << "a key pair that does both reports signature only";
    EXPECT_EQ(9u, dwordParam(provider, PP_KEYSTORAGE));
    EXPECT_EQ(1u, dwordParam(provider, PP_SIGNATURE_PIN));
    size = 2;
    EXPECT_TRUE(CryptGetProvParam(provider, PP_KEYSTORAGE, reinterpret_cast<BYTE*>(text), &size, 0));
    EXPECT_EQ(static_cast<DWORD>(ERROR_MORE_DATA), GetLastError());
    EXPECT_TRUE(failsWith(CryptGetProvParam(provider, 7, reinterpret_cast<BYTE*>(text), &size, 0), NTE_BAD_TYPE));
    EXPECT_TRUE(failsWith(CryptGetProvParam(provider, 41, reinterpret_cast<BYTE*>(text), &size, 0), NTE_BAD_TYPE));
    EXPECT_EQ(1u, dwordParam(exchange, PP_KEYSPEC));
    size = sizeof text;
    EXPECT_TRUE(failsWith(CryptGetProvParam(none, PP_KEYSPEC, reinterpret_cast<BYTE*>(text), &size, 0), NTE_NO_KEY));
    EXPECT_TRUE(failsWith(CryptSetProvParam(none, PP_ADMIN_PIN, reinterpret_cast<const BYTE*>("1234"), 0), NTE_BAD_TYPE));
}

TEST_F(ProviderParams, CertificateChainHoldsTheLeafAndItsIssuer) {
    // On a token of its own, so that the container enumeration sees the same keys in any order.
    // Longer chains are the chain builder's (certificate_chain_test).
    addToken("PARAMS-CHAIN", false);
    ProvisionedKey leaf = provisionKeyWithCertificate("PARAMS-CHAIN", ORVANE_KEY_RSA_2048, 1);
    Bytes ca = onHost("openssl x509 -in ca.pem -outform DER -out ca.der", "ca.der");
    std::string linked;
    ASSERT_EQ(0, admin::importCertificate("PARAMS-CHAIN", ca, "root", linked));

    ContextHandle provider(leaf.keyId);
    DWORD size = 0;
    ASSERT_TRUE(CryptGetProvParam(provider, PP_CERTCHAIN, nullptr, &size, 0)) << std::hex << GetLastError();
    std::vector<BYTE> message(size);
    ASSERT_TRUE(CryptGetProvParam(provider, PP_CERTCHAIN, message.data(), &size, 0)) << std::hex << GetLastError();
    CRYPT_DATA_BLOB blob{size, message.data()};
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_PKCS7, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, 0, &blob);
    ASSERT_NE(nullptr, store);
    std::vector<Bytes> certificates;
    PCCERT_CONTEXT certificate = nullptr;
    while ((certificate = CertEnumCertificatesInStore(store, certificate)) != nullptr)
        certificates.emplace_back(certificate->pbCertEncoded, certificate->pbCertEncoded + certificate->cbCertEncoded);
    CertCloseStore(store, 0);
    // The provider hands crypt32 the chain root first, but Wine's encoder sorts the SET OF
    // certificates by their bytes, so only the set can be compared here.
    std::vector<Bytes> expected = {ca, readFile(leaf.certificateFile)};
    std::sort(expected.begin(), expected.end());
    std::sort(certificates.begin(), certificates.end());
    EXPECT_EQ(expected, certificates);

    ContextHandle uncertified(exchange_);
    size = 0;
    EXPECT_TRUE(failsWith(CryptGetProvParam(uncertified, PP_CERTCHAIN, nullptr, &size, 0), NTE_NO_KEY))
        << "a container without a certificate";
}

}  // namespace
