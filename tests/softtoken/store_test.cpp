// The software token's store shared by several processes and threads.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstring>
#include <map>
#include <thread>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Blobs.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

using Serials = std::vector<std::string>;

// Starts the provisioning tool with its output in outputFile (a Unix path) and, when given,
// its standard input from inputFile.
HANDLE startTool(const std::string& arguments, const std::string& outputFile = workDir() + "/tool.out",
                 const std::string& inputFile = "") {
    return startProgram("orvane-token.exe", arguments, outputFile, inputFile);
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
    writeText(workDir() + "/pins-a.in", "0000\n");
    writeText(workDir() + "/pins-b.in", "1111\n");
    HANDLE tools[] = {startTool("try-pin PINS-1 30 --pin-stdin", workDir() + "/pins-a.out", workDir() + "/pins-a.in"),
                      startTool("try-pin PINS-1 30 --pin-stdin", workDir() + "/pins-b.out", workDir() + "/pins-b.in")};
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
        ASSERT_EQ(0, finish(startTool("unplug NEW-1")));
        EXPECT_TRUE(orvane_getConnectedDeviceList(false, nullptr).empty()) << "another process's change went unseen";
    }
}

TEST(SoftTokenStore, AnUpdateByAnotherProcessDoesNotWaitBehindEightSigningThreads) {
    useFreshStore("busy");
    ASSERT_EQ(0, admin::createToken("BUSY-1", "Busy", "1234", 5));
    ASSERT_EQ(0, admin::createToken("BUSY-2", "Other", "1234", 5));
    std::string keyIdHex;
    ASSERT_EQ(0, admin::generateKeyPair("BUSY-1", 5, "sig", 3, 0, keyIdHex));
    Bytes keyId = orvane::hexToBytes(keyIdHex);
    // A writer that waited for the readers to pause would never finish while they sign.
    auto update = [](int retries) {
        return finish(startTool("set-retries BUSY-2 " + std::to_string(retries)), 60000);
    };
    ASSERT_EQ(0, update(1));
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
    for (int i = 3; i < 6; ++i) EXPECT_EQ(0, update(i)) << "an update behind eight signing threads";
    int retriesSeen = orvane_getTokenInfo("BUSY-2", nullptr).pinRetriesLeft;
    stop = true;
    for (std::thread& reader : readers) reader.join();
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

// No file of the folder holds any of the secrets: as bytes, nor as hex in either case.
void expectNowhereInClear(const std::string& folder, const std::map<std::string, Bytes>& secrets) {
    WIN32_FIND_DATAA found;
    HANDLE search = FindFirstFileA((windowsPath(folder) + "\\*").c_str(), &found);
    ASSERT_NE(INVALID_HANDLE_VALUE, search);
    int files = 0;
    do {
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) continue;
        ++files;
        Bytes bytes = readFile(folder + "/" + found.cFileName);
        std::string content(bytes.begin(), bytes.end());
        for (const auto& [what, secret] : secrets) {
            std::string hex = orvane::toHex(secret);
            for (const std::string& form : {std::string(secret.begin(), secret.end()), hex, lowerCase(hex)})
                EXPECT_EQ(std::string::npos, content.find(form)) << what << " in " << found.cFileName;
        }
    } while (FindNextFileA(search, &found));
    FindClose(search);
    EXPECT_GE(files, 1);
}

// The text of the store's current state file.
std::string stateText(const std::string& folder) {
    WIN32_FIND_DATAA found;
    HANDLE search = FindFirstFileA((windowsPath(folder) + "\\state-*.json").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return "";
    std::string newest;
    do newest = std::max(newest, std::string(found.cFileName));
    while (FindNextFileA(search, &found));
    FindClose(search);
    Bytes bytes = readFile(folder + "/" + newest);
    return std::string(bytes.begin(), bytes.end());
}

// The first text field of that name in a state file.
std::string field(const std::string& text, const std::string& name) {
    size_t at = text.find("\"" + name + "\": \"");
    if (at == std::string::npos) return "";
    at += name.size() + 5;
    return text.substr(at, text.find('"', at) - at);
}

// PBKDF2-HMAC-SHA256 as OpenSSL computes it, in hex.
std::string opensslPbkdf2(const std::string& pin, const std::string& saltHex, int iterations) {
    return runHost("openssl kdf -keylen 32 -kdfopt digest:SHA256 -kdfopt 'pass:" + pin + "' -kdfopt hexsalt:" +
                   saltHex + " -kdfopt iter:" + std::to_string(iterations) + " PBKDF2 | tr -d ':\\n'")
        .output;
}

// The PIN opens the token and no other does; the key pair signs (checked by OpenSSL against
// its public key) and the secret key unwraps what OpenSSL wrapped under it.
void expectUsable(const std::string& serial, const std::string& pin, const Bytes& keyId, const Bytes& publicKeyInfo,
                  const Bytes& kekReference, const Bytes& kek) {
    int remaining = -1;
    EXPECT_EQ(5, orvane_validatePassword(serial.c_str(), "zq#PIN!0000", 1, &remaining, nullptr));
    EXPECT_EQ(0, orvane_validatePassword(serial.c_str(), pin.c_str(), 1, &remaining, nullptr));
    Bytes digest(32, 0x3C), signature(64);
    int length = 64;
    ASSERT_EQ(0, orvane_signHash(serial.c_str(), keyId.data(), pin.c_str(), digest.data(), 32, signature.data(), &length,
                                 false, nullptr));
    writeFile(workDir() + "/rest.pub.der", publicKeyInfo);
    writeFile(workDir() + "/rest.digest", digest);
    writeFile(workDir() + "/rest.sig", ecdsaDer(signature));
    EXPECT_EQ(0, runHost("openssl pkeyutl -verify -pubin -keyform DER -inkey rest.pub.der -in rest.digest "
                         "-sigfile rest.sig").exitCode)
        << serial;
    Bytes sessionKey(32, 0x5E), wrapped = aesWrap(kek, sessionKey);
    unsigned char* unwrapped = nullptr;
    int unwrappedLength = 0;
    EXPECT_EQ(0, orvane_decrypt_aes(serial.c_str(), kekReference.data(), static_cast<int>(kekReference.size()),
                                    wrapped.data(), static_cast<int>(wrapped.size()), &unwrapped, &unwrappedLength,
                                    false, nullptr, 0, nullptr));
    EXPECT_EQ(sessionKey, Bytes(unwrapped, unwrapped + unwrappedLength)) << serial;
    delete[] unwrapped;
}

TEST(SoftTokenStore, FilesHoldNeitherThePinNorKeyBytesInClearAndAnOldStoreIsRewrittenSo) {
    const std::string pin = "zq#PIN!8642";
    const Bytes kek = orvane::hexToBytes("A0A1A2A3A4A5A6A7A8A9AAABACADAEAF");

    // A token made by the tool, the PIN on its standard input.
    std::string folder = useFreshStore("at-rest");
    EXPECT_NE(0, runTool("create AT-1 --pin " + pin)) << "a PIN on the command line is refused";
    ASSERT_EQ(0, runTool("create AT-1 --pin-stdin", pin + "\n"));
    std::string kekIdHex, keyIdHex;
    ASSERT_EQ(0, admin::importSecretKey("AT-1", 8, kek, "kek", kekIdHex));
    ASSERT_EQ(0, admin::generateKeyPair("AT-1", 5, "sig", 3, 0, keyIdHex));
    expectNowhereInClear(folder, {{"the PIN", bytesOf(pin)}, {"the secret key", kek},
                                  {"a private key", bytesOf("private-key")}});
    // The hash is PBKDF2-HMAC-SHA256 as OpenSSL makes it. One of fewer iterations, as an earlier
    // version could have written, is made again with today's count at the next right PIN.
    std::string state = stateText(folder), salt = field(state, "salt"), hash = field(state, "hash");
    ASSERT_EQ(opensslPbkdf2(pin, salt, 10000), hash);
    state.replace(state.find(hash), hash.size(), opensslPbkdf2(pin, salt, 1000));
    const std::string count = "\"iterations\": 10000";
    state.replace(state.find(count), count.size(), "\"iterations\": 1000");
    writeText(folder + "/state-00000000000000000099.json", state);
    int remaining = -1;
    EXPECT_EQ(0, orvane_validatePassword("AT-1", pin.c_str(), 1, &remaining, nullptr));
    state = stateText(folder);
    EXPECT_NE(std::string::npos, state.find(count)) << state;
    EXPECT_EQ(opensslPbkdf2(pin, field(state, "salt"), 10000), field(state, "hash"));
    Bytes publicKeyInfo;
    ASSERT_EQ(0, admin::exportPublicKey("AT-1", keyIdHex, publicKeyInfo));
    expectUsable("AT-1", pin, orvane::hexToBytes(keyIdHex), publicKeyInfo, orvane::hexToBytes(kekIdHex), kek);

    // A store of the old format, which kept the PIN and the keys in clear, with a P-256 key
    // that OpenSSL made: d and q sliced from its ECPrivateKey, as libgcrypt's s-expression.
    folder = useFreshStore("old-format");
    Bytes der = onHost("openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out old.pem && "
                       "openssl ec -in old.pem -outform DER -out old.der 2>/dev/null && "
                       "openssl pkey -in old.pem -pubout -outform DER -out old.pub.der",
                       "old.der");
    ASSERT_EQ(121u, der.size());
    Bytes d(der.begin() + 7, der.begin() + 39), q(der.begin() + 56, der.end());
    std::string sexp = "(11:private-key(3:ecc(5:curve10:NIST P-256)(1:q65:" + std::string(q.begin(), q.end()) +
                       ")(1:d32:" + std::string(d.begin(), d.end()) + ")))";
    const std::string id = "0102030405060708090A0B0C0D0E0F10", oldPin = "zq#OLD!1357";
    writeText(folder + "/state-00000000000000000003.json",
              R"({"generation": 3, "tokens": [{"serial": "OLD-1", "label": "Old", "pin": ")" + oldPin +
                  R"(", "maxRetries": 5, "retriesLeft": 5, "loginState": 0, "ssoState": 0, "plugged": true,
                  "nextIndex": 3, "keyPairs": [{"index": 1, "keyId": ")" + id + R"(", "label": "old key",
                  "usage": 3, "type": 5, "flag": 0, "certLinkId": ")" + id + R"(", "publicKey": ")" +
                  orvane::toHex(readFile(workDir() + "/old.pub.der")) + R"(", "privateKey": ")" +
                  orvane::toHex(bytesOf(sexp)) + R"("}], "certificates": [], "secretKeys": [{"index": 2,
                  "keyId": "F0F1", "reference": "F0F1", "label": "old kek", "type": 8, "flag": false, "value": ")" +
                  orvane::toHex(kek) + R"("}]}], "faults": {}})");
    ASSERT_EQ(Serials{"OLD-1"}, orvane_getConnectedDeviceList(false, nullptr)) << "the old store is read";
    expectNowhereInClear(folder, {{"the PIN", bytesOf(oldPin)}, {"the secret key", kek}, {"d", d},
                                  {"a private key", bytesOf("private-key")}});
    expectUsable("OLD-1", oldPin, orvane::hexToBytes(id), readFile(workDir() + "/old.pub.der"),
                 orvane::hexToBytes("F0F1"), kek);

    // Without ORVANE_TOKEN_STORE, each user's tokens live in that user's own profile.
    char local[MAX_PATH] = {};
    GetEnvironmentVariableA("LOCALAPPDATA", local, sizeof local);
    SetEnvironmentVariableA("ORVANE_TOKEN_STORE", nullptr);
    std::string byDefault = admin::storeFolder();
    SetEnvironmentVariableA("ORVANE_TOKEN_STORE", windowsPath(folder).c_str());
    EXPECT_EQ(std::string(local) + "\\Orvane\\SoftToken", byDefault);
}

}  // namespace
