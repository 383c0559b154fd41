// The key storage provider's table and provider object, driven through the table as the CNG
// router would: opening over zero, one and two tokens, provider properties and their size
// protocol, the PIN given as a property, the algorithm queries and the entries that refuse.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "provider/ksp/KspObjects.h"
#include "softtoken/SoftTokenAdmin.h"
#include "softtoken/Status.h"
#include "tests/support/KspHarness.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "tools/desktop/UiDriver.h"

using namespace orvanetest;
namespace admin = softtoken::admin;
using desktop::UiDriver;
using desktop::UiStep;
using orvane::ksp::KspProvider;
using Seen = std::vector<std::string>;

namespace {

const SECURITY_STATUS kFail = static_cast<SECURITY_STATUS>(0x80090020);
const SECURITY_STATUS kInvalidHandle = static_cast<SECURITY_STATUS>(0x80090026);
const SECURITY_STATUS kInvalidParameter = static_cast<SECURITY_STATUS>(0x80090027);
const SECURITY_STATUS kBufferTooSmall = static_cast<SECURITY_STATUS>(0x80090028);
const SECURITY_STATUS kNotSupported = static_cast<SECURITY_STATUS>(0x80090029);
const SECURITY_STATUS kValidationFailed = static_cast<SECURITY_STATUS>(0x80090032);
const SECURITY_STATUS kDeviceNotFound = static_cast<SECURITY_STATUS>(0x80090035);

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
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* first = nullptr;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* second = nullptr;
    ASSERT_EQ(0, getInterface(L"Orvane Cryptographic Provider CSP", &first, 0));
    ASSERT_EQ(0, getInterface(L"any other name", &second, 0xFFFFFFFF)) << "name and flags are not examined";
    EXPECT_EQ(first, second);
    EXPECT_EQ(&ksp(), first);
    EXPECT_EQ(1, first->Version.MajorVersion);
    EXPECT_EQ(0, first->Version.MinorVersion);

    static_assert(sizeof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE) == 8 + 26 * sizeof(void*), "26 slots, no more");
    void* slots[26];
    std::memcpy(slots, reinterpret_cast<const char*>(first) + offsetof(NCRYPT_KEY_STORAGE_FUNCTION_TABLE, OpenProvider),
                sizeof slots);
    for (int slot = 0; slot < 26; ++slot) EXPECT_NE(nullptr, slots[slot]) << "slot " << slot + 1;
}

TEST(KspOpenProvider, WithoutATokenFailsAndLeavesTheHandle) {
    useFreshStore("ksp-none");
    NCRYPT_PROV_HANDLE handle = 0x5A5A;
    std::string before = readProviderLog();
    EXPECT_EQ(kDeviceNotFound, ksp().OpenProvider(&handle, L"Orvane Cryptographic Provider CSP", 0));
    EXPECT_EQ(0x5A5Au, handle);
    std::string written = logSince(before);
    EXPECT_TRUE(logged(written, "ERROR", "KSP: No valid token connected")) << written;
    EXPECT_EQ(kInvalidParameter, ksp().OpenProvider(nullptr, nullptr, 0));
    EXPECT_EQ(kInvalidHandle, ksp().FreeProvider(0));
}

TEST(KspOpenProvider, OpensOnTheFirstTokenEvenWhenItFailsToInitialise) {
    useFreshStore("ksp-two");
    ASSERT_EQ(0, admin::createToken("KSPTWO-A", "Fails first", "1234", 5));
    ASSERT_EQ(0, admin::createToken("KSPTWO-B", "Second", "1234", 5));
    int initDevices = admin::callCount("orvane_initDevice"), inits = admin::callCount("orvane_init");
    ASSERT_EQ(0, admin::injectFault("orvane_initDevice", 1, 31));

    std::string before = readProviderLog();
    {
        KspProviderHandle provider;
        ASSERT_EQ(0, provider.status());
        EXPECT_EQ("KSPTWO-A", reinterpret_cast<KspProvider*>(provider.get())->serialNumber);
        std::string written = logSince(before);
        EXPECT_TRUE(logged(written, "ERROR", "KSP: Init device failed for KSPTWO-A : 31")) << written;
        EXPECT_TRUE(logged(written, "DEBUG", "KSP: Provider opened successfully"));
        EXPECT_EQ(initDevices + 2, admin::callCount("orvane_initDevice"));
        EXPECT_EQ(inits + 3, admin::callCount("orvane_init")) << "once, then once before each device";
        EXPECT_EQ(0, admin::lastArguments("orvane_initDevice")["flag"]);
        EXPECT_EQ(2, admin::lastArguments("orvane_init")["option"]);
        EXPECT_EQ(0, admin::lastArguments("orvane_getConnectedDeviceList")["flag"]);
    }
    KspProviderHandle again;
    ASSERT_EQ(0, again.status());
    EXPECT_EQ(initDevices + 3, admin::callCount("orvane_initDevice")) << "only the failed token is tried again";
}

TEST(KspProviderProperties, AnswerWithTheSizeProtocol) {
    useFreshStore("ksp-props");
    ASSERT_EQ(0, admin::createToken("KSPPROP-1", "Props", "1234", 5));
    KspProviderHandle provider;
    ASSERT_EQ(0, provider.status());
    NCRYPT_PROV_HANDLE p = provider.get();

    const wchar_t kName[] = L"Orvane Cryptographic Provider CSP";
    DWORD size = 0;
    EXPECT_EQ(0, ksp().GetProviderProperty(p, NCRYPT_NAME_PROPERTY, nullptr, 0, &size, 0));
    EXPECT_EQ(68u, size);
    std::vector<BYTE> buffer(80, 0xCC);
    size = 0;
    EXPECT_EQ(kBufferTooSmall, ksp().GetProviderProperty(p, NCRYPT_NAME_PROPERTY, buffer.data(), 67, &size, 0));
    EXPECT_EQ(68u, size);
    EXPECT_EQ(std::vector<BYTE>(80, 0xCC), buffer) << "nothing written to a short buffer";
    EXPECT_EQ(0, ksp().GetProviderProperty(p, NCRYPT_NAME_PROPERTY, buffer.data(), 68, &size, 0));
    EXPECT_EQ(0, std::memcmp(kName, buffer.data(), sizeof kName));
    EXPECT_EQ(0xCC, buffer[68]);

    EXPECT_EQ(0, ksp().GetProviderProperty(p, NCRYPT_ALGORITHM_PROPERTY, buffer.data(), 80, &size, 0));
    EXPECT_EQ(8u, size);
    EXPECT_EQ(0, std::memcmp(NCRYPT_RSA_ALGORITHM, buffer.data(), 8));
    DWORD implType = 0;
    EXPECT_EQ(0, ksp().GetProviderProperty(p, NCRYPT_IMPL_TYPE_PROPERTY, reinterpret_cast<PBYTE>(&implType), 4,
                                           &size, 0));
    EXPECT_EQ(static_cast<DWORD>(NCRYPT_IMPL_HARDWARE_FLAG | NCRYPT_IMPL_REMOVABLE_FLAG), implType);

    std::string before = readProviderLog();
    EXPECT_EQ(kNotSupported, ksp().GetProviderProperty(p, NCRYPT_USE_COUNT_PROPERTY, buffer.data(), 80, &size, 0));
    EXPECT_FALSE(logged(logSince(before), "DEBUG", "KSP: Unsupported provider property"));
    before = readProviderLog();
    EXPECT_EQ(kNotSupported, ksp().GetProviderProperty(p, L"name", buffer.data(), 80, &size, 0)) << "case matters";
    EXPECT_TRUE(logged(logSince(before), "DEBUG", "KSP: Unsupported provider property"));

    KspProvider notOpen;
    EXPECT_EQ(kInvalidHandle, ksp().GetProviderProperty(reinterpret_cast<NCRYPT_PROV_HANDLE>(&notOpen),
                                                        NCRYPT_NAME_PROPERTY, nullptr, 0, &size, 0));
    EXPECT_EQ(kInvalidParameter, ksp().GetProviderProperty(p, nullptr, nullptr, 0, &size, 0));
    EXPECT_EQ(kInvalidParameter, ksp().GetProviderProperty(p, NCRYPT_NAME_PROPERTY, nullptr, 0, nullptr, 0));

    // The window handle: eight bytes set it, anything shorter clears it.
    KspProvider* object = reinterpret_cast<KspProvider*>(p);
    HWND window = reinterpret_cast<HWND>(static_cast<uintptr_t>(0x1122334455667788ull));
    EXPECT_EQ(0, setProperty(p, NCRYPT_WINDOW_HANDLE_PROPERTY, &window, 8));
    EXPECT_EQ(window, object->parentWindow);
    EXPECT_EQ(0, setProperty(p, NCRYPT_WINDOW_HANDLE_PROPERTY, &window, 4));
    EXPECT_EQ(nullptr, object->parentWindow);
    EXPECT_EQ(kNotSupported, setProperty(p, NCRYPT_NAME_PROPERTY, kName, sizeof kName));
    EXPECT_EQ(kInvalidParameter, setProperty(p, nullptr, &window, 8));
    EXPECT_EQ(kInvalidHandle, setProperty(reinterpret_cast<NCRYPT_PROV_HANDLE>(&notOpen),
                                          NCRYPT_WINDOW_HANDLE_PROPERTY, &window, 8));
}

TEST(KspPinProperty, AcceptedPinIsCachedAndARejectedOneChangesNothing) {
    useFreshStore("ksp-pin");
    ASSERT_EQ(0, admin::createToken("KSPPIN-1", "Pin", "1", 5));
    KspProviderHandle provider;
    ASSERT_EQ(0, provider.status());
    NCRYPT_PROV_HANDLE p = provider.get();

    EXPECT_EQ(kInvalidParameter, setProperty(p, NCRYPT_PIN_PROPERTY, nullptr, 4));
    std::string before = readProviderLog();
    EXPECT_EQ(kValidationFailed, setProperty(p, NCRYPT_PIN_PROPERTY, "9", 2));
    std::string written = logSince(before);
    EXPECT_TRUE(logged(written, "DEBUG", "KSP: Setting PIN via property"));
    EXPECT_TRUE(logged(written, "ERROR", "KSP: PIN validation failed: " + std::to_string(softtoken::kPinIncorrect)))
        << written;
    EXPECT_EQ(1, admin::lastArguments("orvane_validatePassword")["userType"]);

    // A wide PIN is read as narrow text: the token sees "1" and accepts it.
    const wchar_t widePin[] = L"1234";
    EXPECT_EQ(0, setProperty(p, NCRYPT_PIN_PROPERTY, widePin, sizeof widePin));
    EXPECT_TRUE(promptsNotAndUsesCachedPin(p));
    EXPECT_EQ(kValidationFailed, setProperty(p, NCRYPT_PIN_PROPERTY, "0", 2));
    EXPECT_TRUE(promptsNotAndUsesCachedPin(p)) << "a rejected PIN leaves the cached one";
}

TEST(KspPromptUser, AsksOnlyWhenNeitherPinNorSignOnStands) {
    useFreshStore("ksp-prompt");
    ASSERT_EQ(0, admin::createToken("KSPPROMPT-1", "Prompt", "1234", 5));
    KspProviderHandle provider;
    ASSERT_EQ(0, provider.status());
    EXPECT_EQ(kInvalidHandle, ksp().PromptUser(0, 0, nullptr, 0));
    {
        UiDriver user({UiStep::cancel()});
        std::string before = readProviderLog();
        EXPECT_EQ(kFail, ksp().PromptUser(provider.get(), 0, nullptr, 0));
        EXPECT_TRUE(logged(logSince(before), "DEBUG", "KSP: User cancelled password dialog"));
        EXPECT_EQ(Seen{"pin dialog"}, user.finish());
    }
    {
        UiDriver user({UiStep::enterPin("1234")});
        EXPECT_EQ(0, ksp().PromptUser(provider.get(), 0, nullptr, 0));
        EXPECT_EQ(Seen{"pin dialog"}, user.finish());
    }
    EXPECT_TRUE(promptsNotAndUsesCachedPin(provider.get()));

    ASSERT_EQ(0, admin::createToken("KSPPROMPT-SSO", "Signed on", "1234", 5));
    ASSERT_EQ(0, admin::setPlugged("KSPPROMPT-1", false));
    ASSERT_EQ(0, admin::setSignOn("KSPPROMPT-SSO", 1, 1));
    KspProviderHandle signedOn;
    ASSERT_EQ(0, signedOn.status());
    UiDriver watchdog({UiStep::cancel()}, 1500);
    std::string before = readProviderLog();
    EXPECT_EQ(0, ksp().PromptUser(signedOn.get(), 0, nullptr, 0));
    EXPECT_TRUE(logged(logSince(before), "DEBUG", "KSP: Password not validated, checking SSO"));
    EXPECT_EQ(Seen{"missing: pin dialog"}, watchdog.finish());
}

TEST(KspAlgorithms, EnumerationSelectsByOperationAndIsAlgSupportedAcceptsHashesToo) {
    useFreshStore("ksp-algs");
    ASSERT_EQ(0, admin::createToken("KSPALG-1", "Algs", "1234", 5));
    KspProviderHandle provider;
    ASSERT_EQ(0, provider.status());

    const DWORD rsaOperations = NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION | NCRYPT_SIGNATURE_OPERATION;
    const std::vector<std::wstring> all = {NCRYPT_RSA_ALGORITHM, NCRYPT_ECDSA_P256_ALGORITHM,
                                           NCRYPT_ECDSA_P384_ALGORITHM, NCRYPT_ECDSA_P521_ALGORITHM};
    const struct {
        DWORD operations;
        std::vector<std::wstring> names;
    } cases[] = {{0, all},
                 {NCRYPT_SIGNATURE_OPERATION, all},
                 {NCRYPT_ASYMMETRIC_ENCRYPTION_OPERATION, {NCRYPT_RSA_ALGORITHM}},
                 {NCRYPT_CIPHER_OPERATION, {}},
                 {NCRYPT_HASH_OPERATION, {}},
                 {NCRYPT_SECRET_AGREEMENT_OPERATION, {}},
                 {NCRYPT_RNG_OPERATION, {}}};
    for (const auto& selection : cases) {
        DWORD count = 99;
        NCryptAlgorithmName* list = nullptr;
        std::string before = readProviderLog();
        ASSERT_EQ(0, ksp().EnumAlgorithms(provider.get(), selection.operations, &count, &list, 0));
        EXPECT_TRUE(logged(logSince(before), "DEBUG",
                           "KSP: Enumerated " + std::to_string(selection.names.size()) + " algorithms"));
        ASSERT_EQ(selection.names.size(), count) << "operations " << selection.operations;
        for (DWORD i = 0; i < count; ++i) {
            EXPECT_EQ(selection.names[i], list[i].pszName);
            bool rsa = selection.names[i] == NCRYPT_RSA_ALGORITHM;
            EXPECT_EQ(rsa ? NCRYPT_ASYMMETRIC_ENCRYPTION_INTERFACE : NCRYPT_SIGNATURE_INTERFACE, list[i].dwClass);
            EXPECT_EQ(rsa ? rsaOperations : NCRYPT_SIGNATURE_OPERATION, list[i].dwAlgOperations);
            EXPECT_EQ(0u, list[i].dwFlags);
            EXPECT_EQ(0, ksp().IsAlgSupported(provider.get(), list[i].pszName, 0));
        }
        EXPECT_EQ(0, ksp().FreeBuffer(list));
    }
    DWORD count = 0;
    NCryptAlgorithmName* list = nullptr;
    EXPECT_EQ(kInvalidHandle, ksp().EnumAlgorithms(0, 0, &count, &list, 0));
    EXPECT_EQ(kInvalidParameter, ksp().EnumAlgorithms(provider.get(), 0, nullptr, &list, 0));
    EXPECT_EQ(kInvalidParameter, ksp().EnumAlgorithms(provider.get(), 0, &count, nullptr, 0));

    for (const wchar_t* hash : {NCRYPT_SHA1_ALGORITHM, NCRYPT_SHA256_ALGORITHM, NCRYPT_SHA384_ALGORITHM,
                                NCRYPT_SHA512_ALGORITHM})
        EXPECT_EQ(0, ksp().IsAlgSupported(0, hash, 0)) << "the provider is not examined";
    for (const wchar_t* other : {L"sha256", BCRYPT_AES_ALGORITHM, NCRYPT_ECDH_P256_ALGORITHM, L""})
        EXPECT_EQ(kNotSupported, ksp().IsAlgSupported(provider.get(), other, 0));
    EXPECT_EQ(kInvalidParameter, ksp().IsAlgSupported(0, nullptr, 0));
}

TEST(KspUnsupportedEntries, RefuseWithoutLookingAtTheirArguments) {
    EXPECT_EQ(kNotSupported, ksp().NotifyChangeKey(0, nullptr, 0));
    EXPECT_EQ(kNotSupported, ksp().SecretAgreement(0, 0, 0, nullptr, 0));
    EXPECT_EQ(kNotSupported, ksp().DeriveKey(0, 0, nullptr, nullptr, nullptr, 0, nullptr, 0));
    EXPECT_EQ(0, ksp().FreeSecret(0, 0));
    EXPECT_EQ(0, ksp().FreeSecret(1, 2));
    EXPECT_EQ(0, ksp().FreeBuffer(nullptr));
}

}  // namespace
