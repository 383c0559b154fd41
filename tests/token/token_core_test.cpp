// The face-neutral core linked in directly: the log writer, the session table, the
// container lookup, the certificate lookup and the wiping holders.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <regex>

#include <windows.h>
#include <psapi.h>
#include <sddl.h>

#include "diagnostics/Log.h"
#include "diagnostics/LogOwner.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/Devices.h"
#include "token/KeyCertificate.h"
#include "token/SecretBytes.h"
#include "token/Sessions.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

// The writer learns of a change to logLevel from its watcher thread, a moment after the change.
void setLevelAndWaitUntilSeen(int level) {
    setLogLevel(level);
    for (int waited = 0; waited < 5000; ++waited) {
        unsigned long seen = 0;
        bool set = Utils::currentLevel(seen);
        if (level < 0 ? !set : set && seen == static_cast<unsigned long>(level)) return;
        Sleep(1);
    }
    ADD_FAILURE() << "the log writer never saw logLevel " << level;
}

class LogWriterTest : public ::testing::Test {
protected:
    void TearDown() override { setLevelAndWaitUntilSeen(3); }

    // Writes one ordinary and one failure line at the given level and returns what reached the file.
    static std::string writeBothAt(int level) {
        setLevelAndWaitUntilSeen(level);
        std::string before = readProviderLog();
        SetLastError(ERROR_MORE_DATA);  // entry points set their last error and then log
        Utils::logMessage("ordinary line");
        Utils::logError("failure line");
        EXPECT_EQ(static_cast<DWORD>(ERROR_MORE_DATA), GetLastError()) << "logLevel " << level;
        return logSince(before);
    }
};

TEST_F(LogWriterTest, LinesCarryTheTimestampDoubledArrowAndLevelPrefix) {
    std::string written = writeBothAt(3);
    const std::regex format(
        "[0-3][0-9]/[01][0-9]::[0-2][0-9]:[0-5][0-9]:[0-5][0-9]:[0-9]{3}-> ->DEBUG ::=>ordinary line\n"
        "[0-3][0-9]/[01][0-9]::[0-2][0-9]:[0-5][0-9]:[0-5][0-9]:[0-9]{3}-> ->ERROR ::=>failure line\n");
    EXPECT_TRUE(std::regex_match(written, format)) << written;

    std::string before = readProviderLog();
    Utils::writeLine(1, "exception");
    Utils::writeLine(7, "other");
    Utils::logError("first\r\nsecond\nthird");  // written as it is: callers escape what they log
    std::string levels = logSince(before);
    EXPECT_NE(std::string::npos, levels.find("->EXCEP ::=>exception\n"));
    EXPECT_NE(std::string::npos, levels.find("->INFO  ::=>other\n"));
    EXPECT_NE(std::string::npos, levels.find("->ERROR ::=>first\r\nsecond\nthird\n"));
}

TEST_F(LogWriterTest, LogLevelDecidesWhichLinesAreWritten) {
    struct Case {
        int level;
        bool ordinary;
        bool failure;
    };
    for (Case c : {Case{-1, false, true}, Case{0, false, false}, Case{1, false, false}, Case{2, false, true},
                   Case{3, true, true}, Case{4, false, true}}) {
        std::string written = writeBothAt(c.level);
        EXPECT_EQ(c.ordinary, written.find("DEBUG ::=>ordinary line") != std::string::npos) << "logLevel " << c.level;
        EXPECT_EQ(c.failure, written.find("ERROR ::=>failure line") != std::string::npos) << "logLevel " << c.level;
    }
}

TEST_F(LogWriterTest, SettingsKeyMadeAgainAndLinesFromOtherWritersAreFollowed) {
    writeBothAt(3);
    ASSERT_EQ(ERROR_SUCCESS, RegDeleteKeyA(HKEY_LOCAL_MACHINE, "Software\\Kestrelon\\Orvane"));
    std::string written = writeBothAt(-1);  // makes the key again, without the value
    EXPECT_EQ(std::string::npos, written.find("DEBUG ::=>ordinary line")) << written;
    EXPECT_NE(std::string::npos, written.find("ERROR ::=>failure line")) << written;
    EXPECT_NE(std::string::npos, writeBothAt(3).find("DEBUG ::=>ordinary line")) << "the new key went unwatched";

    // Another writer appends to the same day's file between two lines: nothing is overwritten.
    std::string before = readProviderLog();
    Utils::logMessage("first");
    HANDLE other = CreateFileA(providerLogPath().c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                               OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, other);
    DWORD done = 0;
    WriteFile(other, "foreign\n", 8, &done, nullptr);
    CloseHandle(other);
    Utils::logMessage("second");
    std::regex order("[^\n]*->DEBUG ::=>first\nforeign\n[^\n]*->DEBUG ::=>second\n");
    std::string since = logSince(before);
    EXPECT_TRUE(std::regex_match(since, order)) << since;
}

TEST_F(LogWriterTest, DayFileStopsAtItsLimitWithOneLineSayingSo) {
    std::string before = readProviderLog();
    Utils::reopenDayFile(before.size() + 400);
    for (int i = 0; i < 20; ++i) Utils::logError("line " + std::to_string(i) + std::string(40, '.'));
    std::string since = logSince(before);
    Utils::reopenDayFile();
    const std::string limitLine = "->INFO  ::=>Log file size limit reached: no more lines today\n";
    EXPECT_LE(since.size(), 400u);
    EXPECT_NE(std::string::npos, since.find("ERROR ::=>line 2.")) << since;
    ASSERT_GE(since.size(), limitLine.size());
    EXPECT_EQ(limitLine, since.substr(since.size() - limitLine.size())) << "the last line, and only once: " << since;
    EXPECT_EQ(since.find("limit reached"), since.rfind("limit reached"));
}

// The temporary folder redirected to a scratch folder where a test can plant links.
class LogPlaceTest : public LogWriterTest {
protected:
    void SetUp() override {
        haveTmp_ = GetEnvironmentVariableA("TMP", savedTmp_, sizeof savedTmp_) != 0;
        char process[MAX_PATH] = {};
        K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, process, sizeof process);
        processName_ = process;
    }
    void TearDown() override {
        SetEnvironmentVariableA("TMP", haveTmp_ ? savedTmp_ : nullptr);
        Utils::reopenDayFile();
        LogWriterTest::TearDown();
    }
    // Prepares linked-temp (as TMP) and elsewhere/kept.txt with the script, then logs a line:
    // whether it reached the day's file.
    bool lineWrittenAfter(const std::string& script) {
        HostResult host = runHost("rm -rf linked-temp elsewhere && mkdir -p linked-temp elsewhere/" + processName_ +
                                  " && echo kept > elsewhere/kept.txt && cd linked-temp && " + script);
        EXPECT_EQ(0, host.exitCode) << host.output;
        SetEnvironmentVariableA("TMP", (windowsPath(workDir() + "/linked-temp") + "\\").c_str());
        Utils::reopenDayFile();
        SetLastError(ERROR_MORE_DATA);
        Utils::logError("placed line");
        EXPECT_EQ(static_cast<DWORD>(ERROR_MORE_DATA), GetLastError()) << "the caller goes on untouched";
        EXPECT_EQ("kept\n", runHost("cat elsewhere/kept.txt; find elsewhere -name '*.LOG'").output) << script;
        return readProviderLog().find("ERROR ::=>placed line\n") != std::string::npos;
    }

    std::string processName_;
    char savedTmp_[MAX_PATH] = {};
    bool haveTmp_ = false;
};

TEST_F(LogPlaceTest, FolderOrFileThatLeadsElsewhereGetsNoLine) {
    std::string day = providerLogPath().substr(providerLogPath().rfind('/') + 1);
    EXPECT_TRUE(lineWrittenAfter("true")) << "a place of its own is used";
    EXPECT_FALSE(lineWrittenAfter("ln -s ../elsewhere Kestrelon"));
    EXPECT_FALSE(lineWrittenAfter("mkdir Kestrelon && ln -s ../../elsewhere/" + processName_ + " Kestrelon/" +
                                  processName_));
    EXPECT_FALSE(lineWrittenAfter("mkdir -p Kestrelon/" + processName_ + " && ln ../elsewhere/kept.txt Kestrelon/" +
                                  processName_ + "/" + day));
}

TEST(LogText, ControlCharactersInCallerNamesAreEscaped) {
    EXPECT_EQ("00112233445566778899AABBCCDDEEFF", orvane::escapeControlCharacters("00112233445566778899AABBCCDDEEFF"));
    EXPECT_EQ("C:\\key \xE9~", orvane::escapeControlCharacters("C:\\key \xE9~")) << "backslash and high bytes stay";
    EXPECT_EQ("a\\r\\nb\\x09\\x00\\x1F\\x7F", orvane::escapeControlCharacters(std::string("a\r\nb\t\0\x1F\x7F", 8)));
}

TEST(LogText, OnlyTheUserSystemAndAdministratorsMayOwnTheLogsPlace) {
    auto sid = [](const char* text) {
        PSID value = nullptr;
        EXPECT_TRUE(ConvertStringSidToSidA(text, &value)) << text;
        return std::shared_ptr<void>(value, LocalFree);
    };
    auto user = sid("S-1-5-21-1-2-3-1001");
    struct Case {
        const char* owner;
        bool trusted;
    };
    for (Case c : {Case{"S-1-5-21-1-2-3-1001", true}, Case{"S-1-5-18", true}, Case{"S-1-5-32-544", true},
                   Case{"S-1-5-21-1-2-3-1002", false}, Case{"S-1-5-32-545", false}, Case{"S-1-1-0", false},
                   Case{"S-1-5-11", false}, Case{"S-1-3-0", false}}) {
        EXPECT_EQ(c.trusted, orvane::isTrustedLogOwner(sid(c.owner).get(), user.get())) << c.owner;
    }
    EXPECT_FALSE(orvane::isTrustedLogOwner(nullptr, user.get()));
    EXPECT_FALSE(orvane::isTrustedLogOwner(user.get(), nullptr)) << "no user known: only SYSTEM and Administrators";
    EXPECT_TRUE(orvane::isTrustedLogOwner(sid("S-1-5-18").get(), nullptr));
}

TEST(ContainerLookup, FindsTheTokenHoldingTheKeyAndFallsBackToTheFirst) {
    useFreshStore("lookup");
    EXPECT_EQ("", orvane::findSerialForContainer(std::string("00112233445566778899AABBCCDDEEFF")))
        << "no token connected";

    std::string onFirst, onSecond;
    ASSERT_EQ(0, admin::createToken("LOOK-A", "A", "1234", 5));
    ASSERT_EQ(0, admin::createToken("LOOK-B", "B", "1234", 5));
    ASSERT_EQ(0, admin::generateKeyPair("LOOK-A", 5, "a", 3, 0, onFirst));
    ASSERT_EQ(0, admin::generateKeyPair("LOOK-B", 5, "b", 3, 0, onSecond));

    const std::string lower = lowerCase(onSecond);
    EXPECT_EQ("LOOK-B", orvane::findSerialForContainer(onSecond));
    EXPECT_EQ("LOOK-B", orvane::findSerialForContainer(lower));
    EXPECT_EQ("LOOK-B", orvane::findSerialForContainer(std::wstring(lower.begin(), lower.end())));
    EXPECT_EQ("LOOK-A", orvane::findSerialForContainer(onFirst));
    EXPECT_EQ("LOOK-A", orvane::findSerialForContainer(std::string("FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF")));
    EXPECT_EQ("LOOK-A", orvane::findSerialForContainer(std::string()));
    // Narrowing keeps only the low byte: U+0141 ('Ł') becomes 'A'.
    std::wstring wide(onSecond.begin(), onSecond.end());
    for (wchar_t& unit : wide)
        if (unit == L'A') unit = 0x0141;
    EXPECT_EQ("LOOK-B", orvane::findSerialForContainer(wide));
}

TEST(SessionTable, PinAndDeviceStateLiveApartAndForgettingAPinCreatesNothing) {
    const std::string serial = "SESSION-RULES";
    orvane::clearPin(serial);
    EXPECT_FALSE(orvane::isPinValidated(serial));
    EXPECT_STREQ("", orvane::getCachedPin(serial).c_str());
    std::vector<std::string> removed = orvane::removeSessionsExcept({});
    EXPECT_EQ(removed.end(), std::find(removed.begin(), removed.end(), serial)) << "clearPin made an entry";

    orvane::markDeviceInitialized(serial);
    orvane::storeValidatedPin(serial, orvane::SecretBytes("1234", 4));
    EXPECT_TRUE(orvane::isPinValidated(serial));
    EXPECT_STREQ("1234", orvane::getCachedPin(serial).c_str());
    orvane::clearPin(serial);
    EXPECT_FALSE(orvane::isPinValidated(serial));
    EXPECT_STREQ("", orvane::getCachedPin(serial).c_str());
    EXPECT_TRUE(orvane::isDeviceInitialized(serial)) << "forgetting the PIN keeps the device initialised";

    // Single sign-on stands in for the PIN: validated, with nothing cached.
    orvane::storeValidatedPin(serial, orvane::SecretBytes());
    EXPECT_TRUE(orvane::isPinValidated(serial));
    orvane::removeSession(serial);
    EXPECT_FALSE(orvane::isDeviceInitialized(serial));
    EXPECT_FALSE(orvane::isPinValidated(serial));
}

// An allocator under the wiping one looks at each block as it is freed, while the block is
// still ours: every block a secret vector lets go of (when it grows, when it is destroyed or
// moved over) must be zero by then.
int freedBlocks = 0, freedUnwiped = 0;

template <class T>
struct WatchingAllocator : std::allocator<T> {
    using value_type = T;
    template <class U>
    struct rebind {
        using other = WatchingAllocator<U>;
    };
    WatchingAllocator() = default;
    template <class U>
    WatchingAllocator(const WatchingAllocator<U>&) noexcept {}
    void deallocate(T* block, size_t count) {
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(block);
        ++freedBlocks;
        if (std::any_of(bytes, bytes + count * sizeof(T), [](unsigned char b) { return b != 0; })) ++freedUnwiped;
        std::allocator<T>().deallocate(block, count);
    }
};

using Watched = std::vector<unsigned char, orvane::WipingAllocator<unsigned char, WatchingAllocator<unsigned char>>>;

TEST(SecretMemory, EveryBlockIsWipedBeforeItIsFreed) {
    struct Record {
        unsigned char keyData[32];
        int length;
    };
    freedBlocks = freedUnwiped = 0;
    {
        Watched key;
        for (int i = 0; i < 100; ++i) key.push_back(0xA5);  // grows several times
        Watched other(64, 0x5A);
        other = std::move(key);  // other's own block goes
        Watched copy(other);
        // Records wider than a byte: every byte of each one is wiped, not only the first count.
        std::vector<Record, orvane::WipingAllocator<Record, WatchingAllocator<Record>>> records(3, Record{{1, 2, 3}, 3});
        records.push_back(Record{{4}, 1});
    }
    EXPECT_GT(freedBlocks, 6);
    EXPECT_EQ(0, freedUnwiped);
}

TEST(SecretBytes, HoldersOwnTheirTextAndTakingAStringOrVectorEmptiesIt) {
    std::string typed = "a PIN longer than the short-string buffer";
    const std::string expected = typed;
    orvane::SecretBytes held(std::move(typed));
    EXPECT_TRUE(typed.empty());
    EXPECT_EQ(expected, held.c_str());

    orvane::SecretBytes copy = held;
    held.assign(held.c_str() + 2, 3);  // from its own text
    EXPECT_STREQ("PIN", held.c_str());
    EXPECT_EQ(expected, copy.c_str());
    orvane::SecretBytes moved = std::move(copy);
    EXPECT_TRUE(copy.empty());
    EXPECT_STREQ("", copy.c_str());
    EXPECT_EQ(expected, moved.c_str());

    std::vector<unsigned char> plain(16, 0x11);
    orvane::SecretBuffer secret = orvane::takeSecret(std::move(plain));
    EXPECT_EQ(orvane::SecretBuffer(16, 0x11), secret);
    EXPECT_TRUE(plain.empty());
}

TEST(KeyCertificateLookup, LabelOrLinkFirstAndThePublicKeyOnlyWhenAsked) {
    useFreshStore("certificates");
    ASSERT_EQ(0, admin::createToken("CERT-1", "Certificates", "1234", 5));
    ProvisionedKey key = provisionKeyWithCertificate("CERT-1", ORVANE_KEY_EC_P256, 1);
    std::vector<OrvaneKeyPair> keyPairs = orvane_getKeyPairList("CERT-1", nullptr);
    ASSERT_EQ(1u, keyPairs.size());
    orvane::KeyPairSnapshot snapshot{};
    orvane::takeSnapshot(snapshot, keyPairs[0]);
    std::vector<unsigned char> der;
    using orvane::CertificateSearch;
    ASSERT_TRUE(orvane::findKeyCertificate("CERT-1", nullptr, snapshot, CertificateSearch::kLabelOrLink, der));
    EXPECT_EQ(readFile(key.certificateFile), der);

    // A key whose link and label tell nothing is found by its public key, and only when asked.
    snapshot.certLinkIdLength = 3;
    std::memcpy(snapshot.certLinkId, "xyz", 3);
    std::strcpy(snapshot.label, "unrelated");
    der.clear();
    EXPECT_FALSE(orvane::findKeyCertificate("CERT-1", nullptr, snapshot, CertificateSearch::kLabelOrLink, der));
    ASSERT_TRUE(
        orvane::findKeyCertificate("CERT-1", nullptr, snapshot, CertificateSearch::kLabelOrLinkThenPublicKey, der));
    EXPECT_EQ(readFile(key.certificateFile), der);
}

}  // namespace
