// The software token's store shared by several processes and threads.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

using Serials = std::vector<std::string>;

// Starts the provisioning tool with its output in outputFile (a Unix path).
HANDLE startTool(const std::string& arguments, const std::string& outputFile = workDir() + "/tool.out") {
    return startProgram("orvane-token.exe", arguments, outputFile);
}

std::string toolList() {
    EXPECT_EQ(0, finish(startTool("list")));
    Bytes output = readFile(workDir() + "/tool.out");
    return {output.begin(), output.end()};
}

// What a process that never read the store before sees: the plugged flag of a token in `list`.
std::string coldPluggedState(const std::string& serial) {
    std::string listed = toolList();
    size_t token = listed.find("\"serial\": \"" + serial + "\"");
    size_t plugged = listed.find("\"plugged\": ", token);
    if (token == std::string::npos || plugged == std::string::npos) return "missing";
    return listed.substr(plugged + 11, listed.find(',', plugged) - plugged - 11);
}

// Fills the stack below the caller with one handle value, so that whatever a callee leaves
// uninitialised there reads as that handle.
__attribute__((noinline)) void soakStackWith(HANDLE value) {
    volatile HANDLE soak[8192];
    for (auto& slot : soak) slot = value;
}

// Wine's CreateProcess of a Unix program (the host shell the tests use for OpenSSL and files)
// hands back process and thread handles taken from uninitialised stack; closing them closed
// whatever handle of the test process had that value (the named-object directory, the desktop),
// so later store operations failed or hung depending on the test folder's name.
TEST(TestHarness, HostCommandsLeaveTheCallersHandlesAlone) {
    HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_NE(nullptr, event);
    for (int i = 0; i < 3; ++i) {
        soakStackWith(event);
        EXPECT_EQ(0, runHost("true").exitCode);
        DWORD flags = 0;
        ASSERT_TRUE(GetHandleInformation(event, &flags)) << "run " << i << " closed the event";
    }
    CloseHandle(event);
}

TEST(SoftTokenStore, WrongPinsFromTwoProcessesAndTwoThreadsAllCount) {
    useFreshStore("pins");
    ASSERT_EQ(0, admin::createToken("PINS-1", "Pins", "2468", 200));
    HANDLE tools[] = {startTool("try-pin PINS-1 0000 30", workDir() + "/pins-a.out"),
                      startTool("try-pin PINS-1 1111 30", workDir() + "/pins-b.out")};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([] {
            for (int i = 0, remaining = -1; i < 30; ++i)
                EXPECT_EQ(5, orvane_validatePassword("PINS-1", "9999", 1, &remaining, nullptr));
        });
    for (std::thread& thread : threads) thread.join();
    for (HANDLE tool : tools) EXPECT_EQ(0, finish(tool));
    EXPECT_EQ(200 - 4 * 30, orvane_getTokenInfo("PINS-1", nullptr).pinRetriesLeft);
}

TEST(SoftTokenStore, AWriterKilledAtAnyStepLeavesTheOldOrTheNewStateAndNothingReverts) {
    for (const char* step : {"after-temp-write", "before-rename", "after-rename"}) {
        SCOPED_TRACE(step);
        useFreshStore(std::string("killed-") + step);
        ASSERT_EQ(0, admin::createToken("KILL-A", "A", "1234", 5));
        ASSERT_EQ(0, admin::createToken("KILL-B", "B", "1234", 5));
        ASSERT_EQ((Serials{"KILL-A", "KILL-B"}), orvane_getConnectedDeviceList(false, nullptr)) << "warm cache";

        SetEnvironmentVariableA("ORVANE_STORE_STOP_AT", step);
        int killed = finish(startTool("unplug KILL-A"));
        SetEnvironmentVariableA("ORVANE_STORE_STOP_AT", nullptr);
        ASSERT_EQ(86, killed) << "the writer stopped where it was told";

        bool committed = std::strcmp(step, "after-rename") == 0;
        Serials expected = committed ? Serials{"KILL-B"} : Serials{"KILL-A", "KILL-B"};
        EXPECT_EQ(expected, orvane_getConnectedDeviceList(false, nullptr)) << "warm reader";
        EXPECT_EQ(committed ? "false" : "true", coldPluggedState("KILL-A")) << "cold reader";

        ASSERT_EQ(0, admin::setRetriesLeft("KILL-B", 2)) << "an unrelated write by the warm reader";
        EXPECT_EQ(committed ? "false" : "true", coldPluggedState("KILL-A")) << "nothing reverts";
        EXPECT_EQ(2, orvane_getTokenInfo("KILL-B", nullptr).pinRetriesLeft);
    }
}

// A writer that died in the middle of a commit leaves the folder's commit count odd for as long
// as any process maps it. A folder emptied or made again afterwards must still work at once,
// for the writer and for readers, and nothing may wait for the dead writer.
TEST(SoftTokenStore, AFolderReplacedAfterAWriterDiedMidCommitWorksAtOnce) {
    for (const char* step : {"after-temp-write", "before-rename"}) {
        SCOPED_TRACE(step);
        std::string name = std::string("replaced-") + step;
        useFreshStore(name);
        ASSERT_EQ(0, admin::createToken("OLD-1", "Old", "1234", 5));
        SetEnvironmentVariableA("ORVANE_STORE_STOP_AT", step);
        int killed = finish(startTool("unplug OLD-1"));
        SetEnvironmentVariableA("ORVANE_STORE_STOP_AT", nullptr);
        ASSERT_EQ(86, killed);

        useFreshStore(name);
        auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(orvane_getConnectedDeviceList(false, nullptr).empty()) << "a reader of the empty folder";
        ASSERT_EQ(0, admin::createToken("NEW-1", "New", "1234", 5)) << "a writer of the empty folder";
        EXPECT_EQ(Serials{"NEW-1"}, orvane_getConnectedDeviceList(false, nullptr));
        EXPECT_EQ("true", coldPluggedState("NEW-1")) << "another process";
        EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 5.0);
    }
}

TEST(SoftTokenStore, AnUpdateByAnotherProcessDoesNotWaitBehindEightSigningThreads) {
    useFreshStore("busy");
    ASSERT_EQ(0, admin::createToken("BUSY-1", "Busy", "1234", 5));
    ASSERT_EQ(0, admin::createToken("BUSY-2", "Other", "1234", 5));
    std::string keyIdHex;
    ASSERT_EQ(0, admin::generateKeyPair("BUSY-1", 5, "sig", 3, 0, keyIdHex));
    Bytes keyId = orvane::hexToBytes(keyIdHex);
    auto timedUpdate = [](int retries) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, finish(startTool("set-retries BUSY-2 " + std::to_string(retries))));
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    double baseline = std::min(timedUpdate(1), timedUpdate(2));

    std::atomic<bool> stop{false};
    std::atomic<int> signatures{0}, failures{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 8; ++t)
        readers.emplace_back([&] {
            Bytes digest(32, 0x5A), signature(64);
            while (!stop) {
                int length = 64;
                bool ok = orvane_getConnectedDeviceList(false, nullptr).size() == 2 &&
                          orvane_getKeyPairList("BUSY-1", nullptr).size() == 1 &&
                          orvane_signHash("BUSY-1", keyId.data(), "1234", digest.data(), 32, signature.data(), &length,
                                          false, nullptr) == 0;
                ++(ok ? signatures : failures);
            }
        });
    Sleep(200);
    double slowest = 0;
    for (int i = 3; i < 6; ++i) slowest = std::max(slowest, timedUpdate(i));
    int retriesSeen = orvane_getTokenInfo("BUSY-2", nullptr).pinRetriesLeft;
    stop = true;
    for (std::thread& reader : readers) reader.join();
    EXPECT_LT(slowest - baseline, 1.0);
    EXPECT_EQ(5, retriesSeen) << "the readers see the last update";
    EXPECT_GT(signatures.load(), 0);
    EXPECT_EQ(0, failures.load());
}

TEST(SoftTokenStore, TextThatIsNotUtf8RoundTripsByteForByte) {
    useFreshStore("latin1");
    const std::string tokenLabel = "Cl\xE9", keyLabel = "\xC9t\xE9 \xFF";
    ASSERT_EQ(0, admin::createToken("LAT-1", tokenLabel, "1234", 3));
    OrvaneKeyPair request{};
    request.keyType = 5;
    request.keyUsage = 3;
    std::memcpy(request.label, keyLabel.data(), keyLabel.size());
    ASSERT_EQ(0, orvane_generateKeyPair("LAT-1", "1234", &request, nullptr));

    std::vector<OrvaneKeyPair> keys = orvane_getKeyPairList("LAT-1", nullptr);
    ASSERT_EQ(1u, keys.size());
    EXPECT_EQ(keyLabel, std::string(keys[0].label));
    EXPECT_EQ(tokenLabel, orvane_getTokenInfo("LAT-1", nullptr).label);
    std::string listed = toolList();
    EXPECT_NE(std::string::npos, listed.find("436CE9")) << listed;
    EXPECT_NE(std::string::npos, listed.find("C974E920FF")) << listed;
}

}  // namespace
