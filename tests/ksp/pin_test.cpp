// The PIN on the key storage provider's private-key operations, on a token that is not signed
// on: the silent flag refuses instead of prompting, and an expired sign-on prompts once and
// retries once. The PIN dialog is answered by a test thread on the Xvfb display.
#include <gtest/gtest.h>

#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/KspHarness.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"
#include "tools/desktop/UiDriver.h"

using namespace orvanetest;
namespace admin = softtoken::admin;
using Seen = std::vector<std::string>;
using desktop::UiDriver;
using desktop::UiStep;

namespace {

const char kSerial[] = "KSP-PIN-1";

class KspPinTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        useFreshStore("ksp-pin");
        ASSERT_EQ(0, admin::createToken(kSerial, "KSP pin token", "1234", 5));
        ASSERT_EQ(0, admin::generateKeyPair(kSerial, ORVANE_KEY_RSA_1024, "", 3, 0, keyId_));
    }

    SECURITY_STATUS sign(const KspProviderHandle& provider, NCRYPT_KEY_HANDLE key, DWORD flags) {
        BYTE digest[32] = {1, 2, 3}, signature[128];
        DWORD size = 0;
        return ksp().SignHash(provider.get(), key, nullptr, digest, sizeof digest, signature, sizeof signature, &size, flags);
    }

    static std::string keyId_;
};

std::string KspPinTest::keyId_;

// Runs first (gtest keeps the order within a file): no PIN has been given in this process yet.
TEST_F(KspPinTest, SilentFlagRefusesInsteadOfPrompting) {
    KspProviderHandle provider;
    ASSERT_EQ(0, provider.status());
    KspKeyHandle key(provider.get(), openKspKey(provider.get(), keyId_));
    int signatures = admin::callCount("orvane_signHash");
    UiDriver watchdog({UiStep::cancel()}, 1500);
    EXPECT_EQ(NTE_SILENT_CONTEXT, sign(provider, key.get(), NCRYPT_SILENT_FLAG));
    BYTE cipher[128] = {1}, plain[128];
    DWORD size = 0;
    EXPECT_EQ(NTE_SILENT_CONTEXT, ksp().Decrypt(provider.get(), key.get(), cipher, sizeof cipher, nullptr, plain,
                                                sizeof plain, &size, NCRYPT_SILENT_FLAG));
    EXPECT_EQ(Seen{"missing: pin dialog"}, watchdog.finish());
    EXPECT_EQ(signatures, admin::callCount("orvane_signHash"));
}

TEST_F(KspPinTest, ExpiredSignOnPromptsOnceAndRetriesOnce) {
    KspProviderHandle provider;
    ASSERT_EQ(0, provider.status());
    KspKeyHandle key(provider.get(), openKspKey(provider.get(), keyId_));
    {
        UiDriver user({UiStep::enterPin("1234")});
        ASSERT_EQ(0, sign(provider, key.get(), 0));
        EXPECT_EQ(Seen{"pin dialog"}, user.finish());
    }
    EXPECT_EQ(0, sign(provider, key.get(), NCRYPT_SILENT_FLAG)) << "a cached PIN needs no prompt";

    int signatures = admin::callCount("orvane_signHash");
    std::string before = readProviderLog();
    ASSERT_EQ(0, admin::injectFault("orvane_signHash", 1, ORVANE_SSO_EXPIRED));
    {
        UiDriver user({UiStep::enterPin("1234")});
        EXPECT_EQ(0, sign(provider, key.get(), 0));
        EXPECT_EQ(Seen{"pin dialog"}, user.finish());
    }
    EXPECT_EQ(signatures + 2, admin::callCount("orvane_signHash"));
    EXPECT_NE(std::string::npos, logSince(before).find("KSP: SignHash SSO expired, re-prompting for PIN"));

    ASSERT_EQ(0, admin::injectFault("orvane_signHash", 2, ORVANE_SSO_EXPIRED));
    {
        UiDriver user({UiStep::enterPin("1234"), UiStep::enterPin("1234")}, 3000);
        EXPECT_EQ(NTE_INTERNAL_ERROR, sign(provider, key.get(), 0));
        EXPECT_EQ((Seen{"pin dialog", "missing: pin dialog"}), user.finish()) << "one prompt, no third attempt";
    }
    EXPECT_EQ(signatures + 4, admin::callCount("orvane_signHash"));
}

}  // namespace
