// The PIN as a user meets it: the provider's dialog and message boxes, answered by a
// test thread on the Xvfb display, during signatures made through Wine's advapi32.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "tools/desktop/UiDriver.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;
using Seen = std::vector<std::string>;
using desktop::UiDriver;
using desktop::UiStep;

namespace {

struct Outcome {
    bool signedOk;
    DWORD error;
};

// A fresh token with one RSA key pair; the PIN is 1234.
void newToken(const std::string& serial, int retries = 5) {
    freshToken(serial, false, retries);
    newKeyPair(serial, ORVANE_KEY_RSA_1024);
}

Outcome signOnce() {
    HCRYPTPROV provider = 0;
    HCRYPTHASH hash = 0;
    if (!CryptAcquireContextA(&provider, nullptr, kProviderName, PROV_RSA_FULL, 0)) return {false, GetLastError()};
    CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash);
    CryptHashData(hash, reinterpret_cast<const BYTE*>("pin"), 3, 0);
    BYTE signature[512];
    DWORD length = sizeof signature;
    Outcome outcome{CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature, &length) != FALSE, GetLastError()};
    CryptDestroyHash(hash);
    CryptReleaseContext(provider, 0);
    return outcome;
}

// Signs while a watchdog would cancel any PIN dialog; says whether one appeared.
bool signsWithoutAnyDialog() {
    UiDriver watchdog({UiStep::cancel()}, 1500);
    Outcome outcome = signOnce();
    return outcome.signedOk && watchdog.finish() == Seen{"missing: pin dialog"};
}

TEST(PinDialog, LoginNeedsFourTo63CharactersAndThePinIsAskedOncePerToken) {
    newToken("PIN-ONCE");
    UiDriver user({UiStep::enterPin("1234")});
    EXPECT_TRUE(signOnce().signedOk);
    EXPECT_EQ(Seen{"pin dialog"}, user.finish());
    EXPECT_EQ("0110", user.loginButtonStates()) << "3, 4, 63 and 64 characters";
    EXPECT_EQ("1234", admin::lastPinReceived());

    int validations = admin::callCount("orvane_validatePassword");
    EXPECT_TRUE(signsWithoutAnyDialog()) << "the accepted PIN is cached for the token";
    EXPECT_EQ(validations, admin::callCount("orvane_validatePassword"));
}

TEST(PinDialog, WrongPinReportsTheRemainingAttemptsAndAsksAgain) {
    newToken("PIN-WRONG", 3);
    UiDriver user({UiStep::enterPin("0000"), UiStep::acknowledgeMessage(), UiStep::enterPin("9999"),
                   UiStep::acknowledgeMessage(), UiStep::enterPin("1234")});
    EXPECT_TRUE(signOnce().signedOk);
    EXPECT_EQ((Seen{"pin dialog", "message: Invalid user pin. Remaining attempts(2)", "pin dialog",
                    "message: Invalid user pin. Remaining attempts(1)", "pin dialog"}),
              user.finish());
}

TEST(PinDialog, LockedPinEndsThePromptsAndTheOperationFails) {
    newToken("PIN-LOCK", 1);
    UiDriver user({UiStep::enterPin("0000"), UiStep::acknowledgeMessage()});
    Outcome outcome = signOnce();
    EXPECT_FALSE(outcome.signedOk);
    EXPECT_EQ(static_cast<DWORD>(NTE_FAIL), outcome.error);
    EXPECT_EQ((Seen{"pin dialog", "message: User pin locked, re-initialise device"}), user.finish());
}

TEST(PinDialog, ClockMismatchIsReportedAndThePromptComesBack) {
    newToken("PIN-CLOCK");
    ASSERT_EQ(0, admin::injectFault("orvane_validatePassword", 1, ORVANE_CLOCK_MISMATCH));
    UiDriver user({UiStep::enterPin("1234"), UiStep::acknowledgeMessage(), UiStep::enterPin("1234")});
    EXPECT_TRUE(signOnce().signedOk);
    EXPECT_EQ((Seen{"pin dialog", "message: System time mismatch, Kidly login to Token Manager", "pin dialog"}),
              user.finish());
}

// Cancel is the fault sweep's (CryptSignHash, PIN dialog cancelled).
TEST(PinDialog, ClosingTheDialogFailsTheOperation) {
    newToken("PIN-CLOSE");
    UiDriver user({UiStep::closeWindow()});
    Outcome outcome = signOnce();
    EXPECT_FALSE(outcome.signedOk);
    EXPECT_EQ(static_cast<DWORD>(NTE_FAIL), outcome.error);
    EXPECT_EQ(Seen{"pin dialog"}, user.finish());
}

TEST(PinDialog, SignedOnTokenIsUsedWithAnEmptyPinAndNoDialog) {
    newToken("PIN-SSO");
    ASSERT_EQ(0, admin::setSignOn("PIN-SSO", 1, 1));
    EXPECT_TRUE(signsWithoutAnyDialog());
    EXPECT_EQ("", admin::lastPinReceived());
}

// The fault sweep checks the codes and counts the calls; here, what the user sees.
TEST(PinDialog, ExpiredSignOnPromptsOnceAndRetriesOnce) {
    newToken("PIN-EXPIRY");
    {
        UiDriver user({UiStep::enterPin("1234")});
        ASSERT_TRUE(signOnce().signedOk);
        user.finish();
    }
    ASSERT_EQ(0, admin::injectFault("orvane_signHash", 1, ORVANE_SSO_EXPIRED));
    {
        UiDriver user({UiStep::enterPin("1234")});
        EXPECT_TRUE(signOnce().signedOk);
        EXPECT_EQ(Seen{"pin dialog"}, user.finish());
    }
    ASSERT_EQ(0, admin::injectFault("orvane_signHash", 2, ORVANE_SSO_EXPIRED));
    UiDriver user({UiStep::enterPin("1234"), UiStep::enterPin("1234")}, 3000);
    EXPECT_FALSE(signOnce().signedOk);
    EXPECT_EQ((Seen{"pin dialog", "missing: pin dialog"}), user.finish()) << "one prompt, no third attempt";
}

}  // namespace
