// Opening and closing provider contexts, through Wine's own advapi32 where it passes the
// call on unchanged, and through the exports where advapi32 would get in the way.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <cstdlib>

#include "provider/csp/CspContext.h"
#include "provider/csp/CspInterface.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"

using namespace orvanetest;
namespace admin = softtoken::admin;
using orvane::csp::CspContext;

namespace {

bool acquire(HCRYPTPROV& provider, const char* container, DWORD flags = 0) {
    return CryptAcquireContextA(&provider, container, kProviderName, PROV_RSA_FULL, flags) != FALSE;
}

// The provider's own record, from a direct call of the export.
CspContext* acquireDirect(const char* container) {
    auto acquireExport = providerFunction<decltype(&CPAcquireContext)>("CPAcquireContext");
    VTableProvStruc table{};
    HCRYPTPROV handle = 0;
    if (!acquireExport(&handle, container, 0, &table)) return nullptr;
    return reinterpret_cast<CspContext*>(handle);
}

void releaseDirect(CspContext* context) {
    providerFunction<decltype(&CPReleaseContext)>("CPReleaseContext")(reinterpret_cast<HCRYPTPROV>(context), 0);
}

// A fresh folder under the work folder holding copies of files (Windows paths) under new names.
std::string folderWith(const std::string& name, const std::vector<std::pair<std::string, std::string>>& copies) {
    std::string folder = workDir() + "/" + name;
    CreateDirectoryA(windowsPath(folder).c_str(), nullptr);
    for (const auto& copy : copies)
        EXPECT_TRUE(CopyFileA(copy.first.c_str(), (windowsPath(folder) + "\\" + copy.second).c_str(), FALSE))
            << copy.first;
    return folder;
}

// Runs the probe host (a Windows path) on the provider at providerPath; what it printed.
std::string probe(const std::string& host, const std::string& providerPath) {
    std::string output = workDir() + "/probe-output.txt";
    EXPECT_EQ(0, finish(startProgram(host, "\"" + providerPath + "\"", output), 60000));
    std::string printed;
    for (unsigned char c : readFile(output))
        if (c != '\r') printed += static_cast<char>(c);
    return printed;
}

TEST(TokenLibrary, IsLoadedOnlyFromTheProvidersFolder) {
    freshToken("BESIDE-1");
    const std::string bin = windowsPath(std::getenv("ORVANE_BIN"));

    // A host in a folder where someone planted a library under the token library's name.
    std::string host = folderWith("planted", {{bin + "\\orvane-library-probe.exe", "probe.exe"},
                                              {bin + "\\orvane-planted-library.dll", "OrvaneDSCLibrary.dll"}});
    std::string printed = probe(windowsPath(host) + "\\probe.exe", bin + "\\OrvaneCSP.dll");
    EXPECT_NE(std::string::npos, printed.find("acquire 1 00000000\nopen 00000000\n")) << printed;
    EXPECT_NE(std::string::npos, printed.find("library " + bin + "\\OrvaneDSCLibrary.dll\n")) << printed;
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesA(windowsPath(host + "/OrvaneDSCLibrary.dll.loaded").c_str()));

    // The provider alone in a folder: the library in the host's folder (bin) is not taken
    // either, and both faces answer as without a token, in their log too.
    std::string alone = folderWith("alone", {{bin + "\\OrvaneCSP.dll", "OrvaneCSP.dll"}});
    std::string probeLog = providerLogPath();
    probeLog.replace(probeLog.find("csp_context_test.exe"), 20, "orvane-library-probe.exe");
    std::string before = readProviderLog(probeLog);
    printed = probe("orvane-library-probe.exe", windowsPath(alone) + "\\OrvaneCSP.dll");
    EXPECT_NE(std::string::npos, printed.find("acquire 0 80090023\nopen 80090035\nlibrary none\n")) << printed;
    std::string written = logSince(before, probeLog);
    EXPECT_NE(std::string::npos, written.find("->DEBUG ::=>CPAcquireContext\n")) << written;
    EXPECT_NE(std::string::npos, written.find("->ERROR ::=>Valid token not connected\n")) << written;
    EXPECT_NE(std::string::npos, written.find("->ERROR ::=>KSP: No valid token connected\n")) << written;

    // A library of another build beside the provider (its functions under other names) is
    // let go of instead of failing in the host at the first call.
    std::string foreign = folderWith("foreign", {{bin + "\\OrvaneCSP.dll", "OrvaneCSP.dll"},
                                                 {bin + "\\orvane-planted-library.dll", "OrvaneDSCLibrary.dll"}});
    printed = probe("orvane-library-probe.exe", windowsPath(foreign) + "\\OrvaneCSP.dll");
    EXPECT_NE(std::string::npos, printed.find("acquire 0 80090023\nopen 80090035\nlibrary none\n")) << printed;
}

TEST(CspAcquireContext, ChoosesTheTokenThatHoldsTheContainer) {
    useFreshStore("choose");
    for (const char* serial : {"CHOOSE-A", "CHOOSE-B", "CHOOSE-EMPTY"}) addToken(serial, false);
    std::string a1 = newKeyPair("CHOOSE-A", 5), a2 = newKeyPair("CHOOSE-A", 5), b1 = newKeyPair("CHOOSE-B", 5);
    std::string lowerB1 = lowerCase(b1);

    CspContext* context = acquireDirect(nullptr);
    ASSERT_NE(nullptr, context);
    EXPECT_EQ("CHOOSE-A", context->serialNumber);
    EXPECT_EQ("", context->containerName);
    EXPECT_EQ((std::vector<std::string>{a1, a2}), context->containerNames);
    EXPECT_EQ(0x1000u, context->keysetType);
    releaseDirect(context);

    context = acquireDirect(lowerB1.c_str());
    ASSERT_NE(nullptr, context);
    EXPECT_EQ("CHOOSE-B", context->serialNumber);
    EXPECT_EQ(lowerB1, context->containerName) << "kept as given";
    EXPECT_EQ(std::vector<std::string>{b1}, context->containerNames);
    releaseDirect(context);

    // Which token an unknown container opens is the container lookup's rule (token_core_test).
    // A token without key pairs: reached by unplugging the others.
    ASSERT_EQ(0, admin::setPlugged("CHOOSE-A", false));
    ASSERT_EQ(0, admin::setPlugged("CHOOSE-B", false));
    std::string before = readProviderLog();
    HCRYPTPROV provider = 0;
    ASSERT_TRUE(acquire(provider, nullptr, CRYPT_DELETEKEYSET)) << "no flag changes the behaviour";
    EXPECT_NE(std::string::npos, logSince(before).find("->DEBUG ::=>Acquire Context :: Key List is empty\n"));
}

TEST(CspAcquireContext, ContainerNameWithLineBreaksStaysOnItsOwnLine) {
    freshToken("BREAK-1");
    std::string before = readProviderLog();
    HCRYPTPROV provider = 0;
    if (acquire(provider, "00\r\n01/01::00:00:00:000-> ->ERROR ::=>forged\t\x7F")) CryptReleaseContext(provider, 0);
    std::string written = logSince(before);
    EXPECT_NE(std::string::npos,
              written.find("->DEBUG ::=>CPAcquireContext - Container name : "
                           "00\\r\\n01/01::00:00:00:000-> ->ERROR ::=>forged\\x09\\x7F\n"))
        << written;
    EXPECT_EQ(std::string::npos, written.find("\n01/01::")) << written;
}

TEST(CspAcquireContext, InitialisesEachTokenOncePerProcessAndRetriesAFailedOne) {
    useFreshStore("once");
    addToken("ONCE-1", false);
    addToken("ONCE-2", false);
    int calls = admin::callCount("orvane_initDevice");

    // ONCE-1 fails to initialise, which does not fail the acquire; ONCE-2 initialises.
    ASSERT_EQ(0, admin::injectFault("orvane_initDevice", 1, 31));
    std::string before = readProviderLog();
    HCRYPTPROV provider = 0;
    ASSERT_TRUE(acquire(provider, nullptr));
    EXPECT_EQ(calls + 2, admin::callCount("orvane_initDevice"));
    EXPECT_NE(std::string::npos, logSince(before).find("->ERROR ::=>Init device failed for ONCE-1 : 31\n"));
    ASSERT_TRUE(CryptReleaseContext(provider, 0));

    ASSERT_TRUE(acquire(provider, nullptr));
    EXPECT_EQ(calls + 3, admin::callCount("orvane_initDevice")) << "only the failed token is tried again";
    ASSERT_TRUE(CryptReleaseContext(provider, 0));

    // advapi32 frees the provider library after each release: its sessions must survive that.
    ASSERT_TRUE(acquire(provider, nullptr));
    EXPECT_EQ(calls + 3, admin::callCount("orvane_initDevice"));
    ASSERT_TRUE(CryptReleaseContext(provider, 0));
}

TEST(CspReleaseContext, RefusesFlagsAndBadHandlesAndKeepsTheContext) {
    freshToken("REL-1", false);
    auto release = providerFunction<decltype(&CPReleaseContext)>("CPReleaseContext");
    auto acquireExport = providerFunction<decltype(&CPAcquireContext)>("CPAcquireContext");

    CspContext* context = acquireDirect(nullptr);
    ASSERT_NE(nullptr, context);
    SetLastError(0);
    EXPECT_TRUE(failsWith(release(reinterpret_cast<HCRYPTPROV>(context), 1), NTE_BAD_FLAGS));
    EXPECT_TRUE(context->isInitialized) << "still usable";
    EXPECT_TRUE(failsWith(release(0, 0), NTE_BAD_UID));
    EXPECT_TRUE(release(reinterpret_cast<HCRYPTPROV>(context), 0));

    HCRYPTPROV handle = 0;
    VTableProvStruc table{};
    EXPECT_TRUE(failsWith(acquireExport(nullptr, nullptr, 0, &table), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(failsWith(acquireExport(&handle, nullptr, 0, nullptr), ERROR_INVALID_PARAMETER));
    EXPECT_EQ(0u, handle);
}

TEST(DeviceMonitor, ForgetsAnUnpluggedTokenAndInitialisesItAgainWhenBack) {
    freshToken("MON-1", false);
    HCRYPTPROV provider = 0;
    ASSERT_TRUE(acquire(provider, nullptr));
    ASSERT_TRUE(CryptReleaseContext(provider, 0));
    int calls = admin::callCount("orvane_initDevice");

    std::string before = readProviderLog();
    ASSERT_EQ(0, runTool("unplug MON-1"));
    DWORD start = GetTickCount();
    bool seen = false;
    while (!seen && GetTickCount() - start < 2500) {
        Sleep(50);
        seen = logSince(before).find("->DEBUG ::=>Device disconnected: MON-1\n") != std::string::npos;
    }
    EXPECT_TRUE(seen) << "within about two seconds";

    ASSERT_EQ(0, runTool("plug MON-1"));
    ASSERT_TRUE(acquire(provider, nullptr));
    EXPECT_EQ(calls + 1, admin::callCount("orvane_initDevice"));
    ASSERT_TRUE(CryptReleaseContext(provider, 0));

    before = readProviderLog();
    ASSERT_TRUE(acquire(provider, nullptr));
    EXPECT_NE(std::string::npos, logSince(before).find("Monitor thread already running, not starting again."));
    ASSERT_TRUE(CryptReleaseContext(provider, 0));
}

}  // namespace
