// Registration with CNG: the logic against a stand-in that records every call. The real exports
// run through regsvr32 in deploy_install_test, which counts the lines they log.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "provider/registration/CngRegistration.h"
#include "tests/support/ProviderSupport.h"

using namespace orvanetest;
using orvane::registration::CngRegistrationApi;

namespace {

// Remembers calls and what was registered, as CNG would, and answers chosen statuses.
struct RecordingCng {
    std::vector<std::string> calls;
    bool registered = false;
    bool inContext = false;
    NTSTATUS registerStatus = 0;
    NTSTATUS addStatus = 0;
    std::wstring image, function;
    ULONG interfaceId = 0, table = 0, position = 0;

    CngRegistrationApi api() {
        CngRegistrationApi api;
        api.registerProvider = [this](LPCWSTR provider, ULONG, PCRYPT_PROVIDER_REG registration) {
            calls.push_back("register");
            EXPECT_STREQ(L"Orvane Cryptographic Provider CSP", provider);
            image = registration->pUM->pszImage;
            interfaceId = registration->pUM->rgpInterfaces[0]->dwInterface;
            table = registration->pUM->rgpInterfaces[0]->dwFlags;
            function = registration->pUM->rgpInterfaces[0]->rgpszFunctions[0];
            if (registerStatus == 0) registered = true;
            return registerStatus;
        };
        api.unregisterProvider = [this](LPCWSTR) {
            calls.push_back("unregister");
            registered = false;
            return static_cast<NTSTATUS>(0);
        };
        api.addContextFunctionProvider = [this](ULONG tableId, LPCWSTR context, ULONG, LPCWSTR, LPCWSTR,
                                                ULONG where) {
            calls.push_back("add");
            EXPECT_EQ(nullptr, context) << "the default context";
            position = where;
            table = tableId;
            if (addStatus == 0) inContext = true;
            return addStatus;
        };
        api.removeContextFunctionProvider = [this](ULONG, LPCWSTR, ULONG, LPCWSTR, LPCWSTR) {
            calls.push_back("remove");
            inContext = false;
            return static_cast<NTSTATUS>(0);
        };
        return api;
    }
};

TEST(CngRegistration, RegistersTwiceByClearingFirstAndUnregistersCleanly) {
    RecordingCng cng;
    EXPECT_EQ(S_OK, orvane::registration::registerKeyStorageProvider(cng.api()));
    EXPECT_EQ(S_OK, orvane::registration::registerKeyStorageProvider(cng.api()));
    EXPECT_EQ((std::vector<std::string>{"remove", "unregister", "register", "add", "remove", "unregister", "register",
                                        "add"}),
              cng.calls);
    EXPECT_TRUE(cng.registered && cng.inContext);
    EXPECT_EQ(L"OrvaneCSP.dll", cng.image);
    EXPECT_EQ(L"KEY_STORAGE", cng.function);
    EXPECT_EQ(0x00010001u, cng.interfaceId);
    EXPECT_EQ(static_cast<ULONG>(CRYPT_LOCAL), cng.table);
    EXPECT_EQ(static_cast<ULONG>(CRYPT_PRIORITY_BOTTOM), cng.position);

    EXPECT_EQ(S_OK, orvane::registration::unregisterKeyStorageProvider(cng.api()));
    EXPECT_FALSE(cng.registered || cng.inContext);
    EXPECT_EQ(S_OK, orvane::registration::unregisterKeyStorageProvider(cng.api())) << "nothing registered";
}

TEST(CngRegistration, CngFailuresBecomeHresultsAndMissingFunctionsFail) {
    RecordingCng cng;
    cng.registerStatus = static_cast<NTSTATUS>(0xC000000D);
    std::string before = readProviderLog();
    EXPECT_EQ(static_cast<HRESULT>(0xD000000D), orvane::registration::registerKeyStorageProvider(cng.api()));
    EXPECT_NE(std::string::npos, logSince(before).find("ERROR ::=>BCryptRegisterProvider failed: 0x-1073741811\n"));
    EXPECT_EQ(cng.calls.back(), "register") << "nothing is added after a failed registration";

    cng.registerStatus = 0;
    cng.addStatus = static_cast<NTSTATUS>(0xC0000001);
    EXPECT_EQ(static_cast<HRESULT>(0xD0000001), orvane::registration::registerKeyStorageProvider(cng.api()));
    EXPECT_TRUE(cng.registered) << "the provider registration stays";

    CngRegistrationApi partial = cng.api();
    partial.addContextFunctionProvider = nullptr;
    cng.calls.clear();
    EXPECT_EQ(E_FAIL, orvane::registration::registerKeyStorageProvider(partial));
    EXPECT_TRUE(cng.calls.empty());
    cng.addStatus = 0;
    partial = cng.api();
    partial.removeContextFunctionProvider = nullptr;
    EXPECT_EQ(S_OK, orvane::registration::registerKeyStorageProvider(partial)) << "removal is optional";
}

}  // namespace
