// The key storage provider's table and provider object, driven as the CNG router would: opening,
// provider properties and their size protocol, algorithm queries, refusing entries, and the PIN
// (a test thread answers the dialog on Xvfb).
#include <windows.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "provider/ksp/KspObjects.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/KspHarness.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"
#include "tools/desktop/UiDriver.h"

using namespace orvanetest;
namespace admin = softtoken::admin;
using desktop::UiDriver;
using desktop::UiStep;
using orvane::ksp::KspProvider;
using Seen = std::vector<std::string>;

namespace {

bool logged(const std::string& written, const std::string& level, const std::string& text) {
    return written.find("->" + level + " ::=>" + text + "\n") != std::string::npos;
}

SECURITY_STATUS setProperty(NCRYPT_PROV_HANDLE provider, const wchar_t* name, const void* value, DWORD size) {
    return ksp().SetProviderProperty(provider, name, static_cast<PBYTE>(const_cast<void*>(value)), size, 0);
}

// "Already validated" in the log means the PIN check passed on the cached PIN, without a prompt.
bool promptsNotAndUsesCachedPin(NCRYPT_PROV_HANDLE provider) {
    UiDriver watchdog({UiStep::cancel()}, 1500);
    std::string before = readProviderLog();
    SECURITY_STATUS status = ksp().PromptUser(provider, 0, nullptr, 0);
    return status == 0 && logged(logSince(before), "DEBUG", "KSP: PIN already validated") &&
           watchdog.finish() == Seen{"missing: pin dialog"};
}

TEST(KspTable, IsTheVersionOneTableWithEveryEntryTheSameEveryTime) {
    using GetInterface = NTSTATUS(WINAPI*)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE**, DWORD);
    auto getInterface = providerFunction<GetInterface>("GetKeyStorageInterface");
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE *first = nullptr, *second = nullptr;
    ASSERT_EQ(0, getInterface(L"Orvane Cryptographic Provider CSP", &first, 0));
    ASSERT_EQ(0, getInterface(L"any other name", &second, 0xFFFFFFFF)) << "name and flags are not examined";
    EXPECT_EQ(first, second);
    EXPECT_EQ(1, first->Version.MajorVersion);
    void* slots[26];
    std::memcpy(slots, reinterpret_cast<const char*>(first) + offsetof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE, OpenProvider),
                sizeof slots);
    for (int slot = 0; slot < 26; ++slot) EXPECT_NE(nullptr, slots[slot]) << "slot " << slot + 1;
}

TEST(KspOpenProvider, FailsWithoutATokenAndOpensOnTheFirstEvenWhenItFailsToInitialise) {
    useFreshStore("ksp-two");
    NCRYPT_PROV_HANDLE handle = 0x5A5A;
    EXPECT_EQ(NTE_DEVICE_NOT_FOUND, ksp().OpenProvider(&handle, L"Orvane Cryptographic Provider CSP", 0));
    EXPECT_EQ(0x5A5Au, handle);
    EXPECT_EQ(NTE_INVALID_PARAMETER, ksp().OpenProvider(nullptr, nullptr, 0));
    EXPECT_EQ(NTE_INVALID_HANDLE, ksp().FreeProvider(0));

    // Which tokens are initialised again is the core's rule, checked through the CSP (csp_context_test).
    addToken("KSPTWO-A", false);
    addToken("KSPTWO-B", false);
    ASSERT_EQ(0, admin::injectFault("orvane_initDevice", 1, 31));
    KspProviderHandle provider;
    ASSERT_EQ(0, provider.status());
    EXPECT_EQ("KSPTWO-A", reinterpret_cast<KspProvider*>(provider.get())->serialNumber);
}

TEST(KspProviderProperties, AnswerWithTheSizeProtocol) {
    freshToken("KSPPROP-1", false);
    KspProviderHandle provider;
    ASSERT_EQ(0, provider.status());
    NCRYPT_PROV_HANDLE p = provider.get();

    const wchar_t kName[] = L"Orvane Cryptographic Provider CSP";
    DWORD size = 0;
    EXPECT_EQ(0, ksp().GetProviderProperty(p, NCRYPT_NAME_PROPERTY, nullptr, 0, &size, 0));
    EXPECT_EQ(68u, size);
    std::vector<BYTE> buffer(80, 0xCC);
    EXPECT_EQ(NTE_BUFFER_TOO_SMALL, ksp().GetProviderProperty(p, NCRYPT_NAME_PROPERTY, buffer.data(), 67, &size, 0));
    EXPECT_EQ(std::vector<BYTE>(80, 0xCC), buffer) << "nothing written to a short buffer";
    EXPECT_EQ(0, ksp().GetProviderProperty(p, NCRYPT_NAME_PROPERTY, buffer.data(), 68, &size, 0));
    EXPECT_EQ(0, std::memcmp(kName, buffer.data(), sizeof kName));
    EXPECT_EQ(0xCC, buffer[68]);
    EXPECT_EQ(NTE_NOT_SUPPORTED, ksp().GetProviderProperty(p, L"name", buffer.data(), 80, &size, 0)) << "case matters";

    KspProvider notOpen;
    const NCRYPT_PROV_HANDLE closed = reinterpret_cast<NCRYPT_PROV_HANDLE>(&notOpen);
    EXPECT_EQ(NTE_INVALID_HANDLE, ksp().GetProviderProperty(closed, NCRYPT_NAME_PROPERTY, nullptr, 0, &size, 0));
    EXPECT_EQ(NTE_INVALID_PARAMETER, ksp().GetProviderProperty(p, nullptr, nullptr, 0, &size, 0));
    EXPECT_EQ(NTE_INVALID_PARAMETER, ksp().GetProviderProperty(p, NCRYPT_NAME_PROPERTY, nullptr, 0, nullptr, 0));

    // The window handle: eight bytes set it, anything shorter clears it.
    KspProvider* object = reinterpret_cast<KspProvider*>(p);
    HWND window = reinterpret_cast<HWND>(static_cast<uintptr_t>(0x1122334455667788ull));
    EXPECT_EQ(0, setProperty(p, NCRYPT_WINDOW_HANDLE_PROPERTY, &window, 8));
    EXPECT_EQ(window, object->parentWindow);
    EXPECT_EQ(0, setProperty(p, NCRYPT_WINDOW_HANDLE_PROPERTY, &window, 4));
    EXPECT_EQ(nullptr, object->parentWindow);
    EXPECT_EQ(NTE_NOT_SUPPORTED, setProperty(p, NCRYPT_NAME_PROPERTY, kName, sizeof kName));
    EXPECT_EQ(NTE_INVALID_PARAMETER, setProperty(p, nullptr, &window, 8));
    EXPECT_EQ(NTE_INVALID_HANDLE, setProperty(closed, NCRYPT_WINDOW_HANDLE_PROPERTY, &window, 8));
}

TEST(KspPromptUser, AsksWhenNoPinStandsAndAPinPropertyIsCached) {
    useFreshStore("ksp-prompt");
    ASSERT_EQ(0, admin::createToken("KSPPROMPT-1", "Prompt", "1", 5));
    KspProviderHandle provider;
    ASSERT_EQ(0, provider.status());
    NCRYPT_PROV_HANDLE p = provider.get();
    EXPECT_EQ(NTE_INVALID_HANDLE, ksp().PromptUser(0, 0, nullptr, 0));
    {
        UiDriver user({UiStep::cancel()});
        EXPECT_EQ(NTE_FAIL, ksp().PromptUser(p, 0, nullptr, 0));
        EXPECT_EQ(Seen{"pin dialog"}, user.finish());
    }
    EXPECT_EQ(NTE_INVALID_PARAMETER, setProperty(p, NCRYPT_PIN_PROPERTY, nullptr, 4));
    EXPECT_EQ(NTE_VALIDATION_FAILED, setProperty(p, NCRYPT_PIN_PROPERTY, "9", 2));
    EXPECT_EQ(1, admin::lastArguments("orvane_validatePassword")["userType"]);
    const wchar_t widePin[] = L"1234";  // read as narrow text: the token sees "1" and accepts it
    EXPECT_EQ(0, setProperty(p, NCRYPT_PIN_PROPERTY, widePin, sizeof widePin));
    EXPECT_TRUE(promptsNotAndUsesCachedPin(p));
    EXPECT_EQ(NTE_VALIDATION_FAILED, setProperty(p, NCRYPT_PIN_PROPERTY, "0", 2));
    EXPECT_TRUE(promptsNotAndUsesCachedPin(p)) << "a rejected PIN leaves the cached one";
}

TEST(KspAlgorithms, EnumerationSelectsByOperationAndIsAlgSupportedAcceptsHashesToo) {
    freshToken("KSPALG-1", false);
    KspProviderHandle provider;
    ASSERT_EQ(0, provider.status());

    const std::vector<std::wstring> all = {NCRYPT_RSA_ALGORITHM, NCRYPT_ECDSA_P256_ALGORITHM,
                                           NCRYPT_ECDSA_P384_ALGORITHM, NCRYPT_ECDSA_P521_ALGORITHM};
    const struct { DWORD operations; std::vector<std::wstring> names; } cases[] = {
                 {0, all},
                 {NCRYPT_SIGNATURE_OPERATION, all},
                 {NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION, {NCRYPT_RSA_ALGORITHM}},
                 {NCRYPT_CIPHER_OPERATION | NCRYPT_HASH_OPERATION | NCRYPT_SECRET_AGREEMENT_OPERATION, {}}};
    for (const auto& selection : cases) {
        DWORD count = 99;
        NCryptAlgorithmName* list = nullptr;
        ASSERT_EQ(0, ksp().EnumAlgorithms(provider.get(), selection.operations, &count, &list, 0));
        ASSERT_EQ(selection.names.size(), count) << "operations " << selection.operations;
        for (DWORD i = 0; i < count; ++i) {
            EXPECT_EQ(selection.names[i], list[i].pszName);
            const bool rsa = selection.names[i] == NCRYPT_RSA_ALGORITHM;
            const DWORD rsaOperations = NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION;
            EXPECT_EQ(rsa ? NCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE : NCRYPT_SIGNATURE_INTERFACE, list[i].dwClass);
            EXPECT_EQ(rsa ? rsaOperations : NCRYPT_SIGNATURE_OPERATION, list[i].dwAlgOperations);
            EXPECT_EQ(0, ksp().IsAlgSupported(provider.get(), list[i].pszName, 0));
        }
        EXPECT_EQ(0, ksp().FreeBuffer(list));
    }
    NCryptAlgorithmName* list = nullptr;
    EXPECT_EQ(NTE_INVALID_HANDLE, ksp().EnumAlgorithms(0, 0, nullptr, &list, 0));
    EXPECT_EQ(NTE_INVALID_PARAMETER, ksp().EnumAlgorithms(provider.get(), 0, nullptr, &list, 0));

    for (const wchar_t* hash : {NCRYPT_SHA1_ALGORITHM, NCRYPT_SHA512_ALGORITHM})
        EXPECT_EQ(0, ksp().IsAlgSupported(0, hash, 0)) << "the provider is not examined";
    for (const wchar_t* other : {L"sha256", BCRYPT_AES_ALGORITHM, NCRYPT_ECDH_P256_ALGORITHM})
        EXPECT_EQ(NTE_NOT_SUPPORTED, ksp().IsAlgSupported(provider.get(), other, 0));
}

TEST(KspUnsupportedEntries, RefuseWithoutLookingAtTheirArguments) {
    EXPECT_EQ(NTE_NOT_SUPPORTED, ksp().NotifyChangeKey(0, nullptr, 0));
    EXPECT_EQ(NTE_NOT_SUPPORTED, ksp().SecretAgreement(0, 0, 0, nullptr, 0));
    EXPECT_EQ(NTE_NOT_SUPPORTED, ksp().DeriveKey(0, 0, nullptr, nullptr, nullptr, 0, nullptr, 0));
    EXPECT_EQ(0, ksp().FreeSecret(1, 2));
}

// PIN on private-key operations, token not signed on.
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
