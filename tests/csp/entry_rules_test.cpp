// One rule per case for the hash and key entry points: exact error codes and the buffer-size
// protocol. Called through the exports, since advapi32 filters some of these calls itself.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include "encoding/Hex.h"
#include "provider/csp/CspInterface.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

#define CSP_EXPORT(name) decltype(&::name) const name = providerFunction<decltype(&::name)>(#name)

class CspEntryRules : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        freshToken("RULES-1", false);
        keyId_ = newKeyPair("RULES-1", ORVANE_KEY_RSA_3072, 3, "both");
        addToken("RULES-EMPTY", false);
    }

    void SetUp() override { provider_ = open(keyId_.c_str()); }
    void TearDown() override { CPReleaseContext(provider_, 0); }

    HCRYPTPROV open(const char* container) {
        VTableProvStruc table{};
        HCRYPTPROV handle = 0;
        EXPECT_TRUE(CPAcquireContext(&handle, container, 0, &table));
        return handle;
    }
    HCRYPTHASH hashOf(ALG_ID algorithm, const char* data) {
        HCRYPTHASH hash = 0;
        EXPECT_TRUE(CPCreateHash(provider_, algorithm, 0, 0, &hash));
        EXPECT_TRUE(CPHashData(provider_, hash, reinterpret_cast<const BYTE*>(data), static_cast<DWORD>(strlen(data)), 0));
        return hash;
    }
    std::string hashValue(HCRYPTHASH hash) {
        BYTE value[64];
        DWORD size = sizeof value;
        EXPECT_TRUE(CPGetHashParam(provider_, hash, HP_HASHVAL, value, &size, 0));
        return orvane::toHex(value, size);
    }

    CSP_EXPORT(CPAcquireContext);
    CSP_EXPORT(CPReleaseContext);
    CSP_EXPORT(CPCreateHash);
    CSP_EXPORT(CPHashData);
    CSP_EXPORT(CPGetHashParam);
    CSP_EXPORT(CPSetHashParam);
    CSP_EXPORT(CPDuplicateHash);
    CSP_EXPORT(CPDestroyHash);
    CSP_EXPORT(CPGetUserKey);
    CSP_EXPORT(CPGenKey);
    CSP_EXPORT(CPGetKeyParam);
    CSP_EXPORT(CPDestroyKey);
    CSP_EXPORT(CPSetKeyParam);
    CSP_EXPORT(CPSignHash);
    CSP_EXPORT(CPVerifySignature);
    CSP_EXPORT(CPEncrypt);
    CSP_EXPORT(CPDecrypt);

    static std::string keyId_;
    HCRYPTPROV provider_ = 0;
};

std::string CspEntryRules::keyId_;

const char kSha256OfAbc[] = "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";

TEST_F(CspEntryRules, HashCreationRefusesFlagsAndUnknownAlgorithms) {
    HCRYPTHASH hash = 0;
    EXPECT_TRUE(failsWith(CPCreateHash(provider_, CALG_SHA1, 0, 1, &hash), NTE_BAD_FLAGS));
    EXPECT_TRUE(failsWith(CPCreateHash(provider_, CALG_SHA1, 0, 0, nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER)));
    std::string before = readProviderLog();
    EXPECT_TRUE(failsWith(CPCreateHash(provider_, CALG_MD5, 0, 0, &hash), NTE_BAD_ALGID));
    EXPECT_NE(std::string::npos, logSince(before).find("->DEBUG ::=>Crete hash algorithm defaukt\n"));
    EXPECT_EQ(0u, hash);
}

TEST_F(CspEntryRules, HashValueSizeQueryAndShortBufferKeepTheDigest) {
    HCRYPTHASH hash = hashOf(CALG_SHA_256, "ab");
    DWORD size = 0;
    ASSERT_TRUE(CPGetHashParam(provider_, hash, HP_HASHVAL, nullptr, &size, 0));
    EXPECT_EQ(32u, size) << "a size query does not finish the hash";
    ASSERT_TRUE(CPHashData(provider_, hash, reinterpret_cast<const BYTE*>("c"), 1, 0));
    BYTE small[10];
    size = sizeof small;
    int finals = admin::callCount("orvane_finalHash");
    EXPECT_TRUE(failsWith(CPGetHashParam(provider_, hash, HP_HASHVAL, small, &size, 0), ERROR_MORE_DATA));
    EXPECT_EQ(32u, size);
    EXPECT_EQ(kSha256OfAbc, hashValue(hash));
    EXPECT_EQ(finals + 1, admin::callCount("orvane_finalHash")) << "the stored digest answers the second call";

    EXPECT_TRUE(failsWith(CPGetHashParam(provider_, hash, HP_HASHVAL, small, &size, 1), NTE_BAD_FLAGS));
    for (DWORD unknown : {0ul, 3ul}) EXPECT_TRUE(failsWith(CPGetHashParam(provider_, hash, unknown, small, &size, 0), NTE_BAD_TYPE));
    HMAC_INFO info{};
    EXPECT_TRUE(CPSetHashParam(provider_, hash, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0));
    size = sizeof info;
    EXPECT_TRUE(failsWith(CPGetHashParam(provider_, hash, HP_HMAC_INFO, reinterpret_cast<BYTE*>(&info), &size, 0), NTE_BAD_TYPE));
    CPDestroyHash(provider_, hash);
    EXPECT_TRUE(failsWith(CPDestroyHash(provider_, 0), NTE_BAD_HASH));
}

TEST_F(CspEntryRules, LongDigestsHaveNoReportableSizeAndDuplicatesStartEmpty) {
    HCRYPTHASH sha384 = hashOf(CALG_SHA_384, "x");
    DWORD value = 0, size = sizeof value;
    EXPECT_TRUE(failsWith(CPGetHashParam(provider_, sha384, HP_HASHSIZE, reinterpret_cast<BYTE*>(&value), &size, 0), NTE_BAD_ALGID));
    EXPECT_TRUE(failsWith(CPGetHashParam(provider_, sha384, HP_ALGID, reinterpret_cast<BYTE*>(&value), &size, 0), NTE_BAD_ALGID));
    CPDestroyHash(provider_, sha384);

    // The library state is not copied: the duplicate hashes only what it receives itself.
    HCRYPTHASH source = hashOf(CALG_SHA_256, "xyz"), copy = 0;
    ASSERT_TRUE(CPDuplicateHash(provider_, source, nullptr, 0, &copy));
    ASSERT_TRUE(CPHashData(provider_, copy, reinterpret_cast<const BYTE*>("abc"), 3, 0));
    EXPECT_EQ(kSha256OfAbc, hashValue(copy));
    CPDestroyHash(provider_, copy);
    CPDestroyHash(provider_, source);
}

TEST_F(CspEntryRules, UserKeysAndKeyParameters) {
    HCRYPTKEY key = 0;
    HCRYPTPROV lowerCased = open(lowerCase(keyId_).c_str());
    EXPECT_TRUE(failsWith(CPGetUserKey(lowerCased, AT_SIGNATURE, &key), NTE_BAD_KEY)) << "names compare exactly here";
    CPReleaseContext(lowerCased, 0);

    for (auto [keySpec, algorithm] : {std::pair<DWORD, DWORD>{AT_SIGNATURE, CALG_RSA_SIGN}, {AT_KEYEXCHANGE, CALG_RSA_KEYX}}) {
        ASSERT_TRUE(CPGetUserKey(provider_, keySpec, &key)) << "usage 3 serves both";
        DWORD value = 0, size = 0;
        EXPECT_TRUE(CPGetKeyParam(provider_, key, KP_ALGID, nullptr, &size, 0));
        EXPECT_EQ(4u, size);
        size = sizeof value;
        ASSERT_TRUE(CPGetKeyParam(provider_, key, KP_ALGID, reinterpret_cast<BYTE*>(&value), &size, 0));
        EXPECT_EQ(algorithm, value);
        size = 0;
        EXPECT_TRUE(CPGetKeyParam(provider_, key, KP_PERMISSIONS, reinterpret_cast<BYTE*>(&value), &size, 0));
        EXPECT_EQ(4u, size);
        size = 2;
        EXPECT_TRUE(failsWith(CPGetKeyParam(provider_, key, KP_KEYLEN, reinterpret_cast<BYTE*>(&value), &size, 0), ERROR_MORE_DATA));
        EXPECT_EQ(4u, size);
        size = sizeof value;
        EXPECT_TRUE(failsWith(CPGetKeyParam(provider_, key, KP_SALT, reinterpret_cast<BYTE*>(&value), &size, 0), NTE_BAD_TYPE));
        EXPECT_TRUE(CPSetKeyParam(provider_, key, KP_SALT, reinterpret_cast<const BYTE*>(&value), 0));
        EXPECT_TRUE(CPDestroyKey(provider_, key));
    }
}

TEST_F(CspEntryRules, GeneratedKeysRecordTheRequestedSize) {
    ASSERT_EQ(0, admin::setSignOn("RULES-1", 1, 1));
    HCRYPTKEY key = 0;
    EXPECT_TRUE(failsWith(CPGenKey(provider_, CALG_AES_128, 0, &key), NTE_BAD_ALGID));
    EXPECT_TRUE(failsWith(CPGenKey(provider_, CALG_RSA_SIGN, 0, nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER)));
    for (auto [flags, bits] : {std::pair<DWORD, DWORD>{0x04000000, 1024}, {0, 2048}}) {
        ASSERT_TRUE(CPGenKey(provider_, CALG_RSA_KEYX, flags, &key)) << std::hex << GetLastError();
        DWORD value = 0, size = sizeof value;
        ASSERT_TRUE(CPGetKeyParam(provider_, key, KP_KEYLEN, reinterpret_cast<BYTE*>(&value), &size, 0));
        EXPECT_EQ(bits, value);
        EXPECT_TRUE(CPDestroyKey(provider_, key));
    }
    ASSERT_EQ(0, admin::setSignOn("RULES-1", 0, 0));
}

TEST_F(CspEntryRules, EmptyInputsAndKeylessTokensFailBeforeAnyPin) {
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CPGetUserKey(provider_, AT_KEYEXCHANGE, &key));
    int pinChecks = admin::callCount("orvane_getTokenInfo");
    BYTE buffer[384] = {};
    DWORD length = 0;
    EXPECT_TRUE(CPEncrypt(provider_, key, 0, TRUE, 0, nullptr, &length, 0));
    EXPECT_EQ(384u, length);
    length = 0;
    EXPECT_TRUE(failsWith(CPEncrypt(provider_, key, 0, TRUE, 0, buffer, &length, sizeof buffer), NTE_BAD_LEN));
    std::string before = readProviderLog();
    EXPECT_TRUE(failsWith(CPDecrypt(provider_, key, 0, TRUE, 0, buffer, &length), NTE_BAD_DATA));
    EXPECT_NE(std::string::npos, logSince(before).find("->ERROR ::=>Invalid data length for decrypt : 0\n"));

    HCRYPTHASH hash = hashOf(CALG_SHA_256, "size");
    EXPECT_TRUE(CPSignHash(provider_, hash, AT_SIGNATURE, nullptr, 0, nullptr, &length));
    EXPECT_EQ(384u, length) << "RSA-3072";
    EXPECT_EQ(pinChecks, admin::callCount("orvane_getTokenInfo")) << "size questions never reach the PIN check";
    CPDestroyHash(provider_, hash);

    ASSERT_EQ(0, admin::setPlugged("RULES-1", false));
    HCRYPTPROV keyless = open(nullptr);
    ASSERT_EQ(0, admin::setPlugged("RULES-1", true));
    EXPECT_TRUE(failsWith(CPGetUserKey(keyless, AT_SIGNATURE, &key), NTE_NO_KEY));
    HCRYPTHASH keylessHash = 0;
    ASSERT_TRUE(CPCreateHash(keyless, CALG_SHA1, 0, 0, &keylessHash));
    EXPECT_TRUE(failsWith(CPSignHash(keyless, keylessHash, AT_SIGNATURE, nullptr, 0, nullptr, &length), NTE_NO_KEY));
    EXPECT_TRUE(failsWith(CPVerifySignature(keyless, keylessHash, buffer, 256, 0, nullptr, 0), NTE_BAD_KEY));
    CPReleaseContext(keyless, 0);
}

}  // namespace
