// PIN on KSP private-key operations, token not signed on; a test thread answers the dialog on Xvfb.
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
// A token of its own for the silent case, so that no PIN was given for it whatever ran before.
const char kSilentSerial[] = "KSP-PIN-SILENT";

class KspPinTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        freshToken(kSerial, false);
        keyId_ = newKeyPair(kSerial, ORVANE_KEY_RSA_1024);
        addToken(kSilentSerial, false);
        silentKeyId_ = newKeyPair(kSilentSerial, ORVANE_KEY_RSA_1024);
    }
    void SetUp() override { ASSERT_EQ(0, provider_.status()); }

    SECURITY_STATUS sign(DWORD flags) {
        BYTE digest[32] = {1, 2, 3}, signature[128];
        DWORD size = 0;
        return ksp().SignHash(provider_.get(), key_.get(), nullptr, digest, sizeof digest, signature,
                              sizeof signature, &size, flags);
    }

    static std::string keyId_, silentKeyId_;
    KspProviderHandle provider_;
    KspKeyHandle key_{provider_.get(), openKspKey(provider_.get(), keyId_)};
};

std::string KspPinTest::keyId_, KspPinTest::silentKeyId_;

TEST_F(KspPinTest, SilentFlagRefusesInsteadOfPrompting) {
    KspKeyHandle silentKey{provider_.get(), openKspKey(provider_.get(), silentKeyId_)};
    int decryptions = admin::callCount("orvane_decrypt");
    UiDriver watchdog({UiStep::cancel()}, 1500);
    BYTE cipher[128] = {1}, plain[128];
    DWORD size = 0;
    EXPECT_EQ(NTE_SILENT_CONTEXT,
              ksp().Decrypt(provider_.get(), silentKey.get(), cipher, sizeof cipher, nullptr, plain, sizeof plain, &size, NCRYPT_SILENT_FLAG));
    EXPECT_EQ(Seen{"missing: pin dialog"}, watchdog.finish());
    EXPECT_EQ(decryptions, admin::callCount("orvane_decrypt"));
}

// Two expiries in a row: one prompt, no third attempt (csp/pin_test; the KSP's code in the fault sweep).
TEST_F(KspPinTest, ExpiredSignOnPromptsAgainAndRetries) {
    auto signAnswering = [&] {
        UiDriver user({UiStep::enterPin("1234")});
        EXPECT_EQ(0, sign(0));
        EXPECT_EQ(Seen{"pin dialog"}, user.finish());
    };
    signAnswering();
    EXPECT_EQ(0, sign(NCRYPT_SILENT_FLAG)) << "a cached PIN needs no prompt";

    int signatures = admin::callCount("orvane_signHash");
    std::string before = readProviderLog();
    ASSERT_EQ(0, admin::injectFault("orvane_signHash", 1, ORVANE_SSO_EXPIRED));
    signAnswering();
    EXPECT_EQ(signatures + 2, admin::callCount("orvane_signHash"));
    EXPECT_NE(std::string::npos, logSince(before).find("KSP: SignHash SSO expired, re-prompting for PIN"));
}

}  // namespace
