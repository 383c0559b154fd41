// The log writer and the container lookup, linked in directly.
#include <gtest/gtest.h>

#include <regex>

#include "diagnostics/Utils.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/Sessions.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

class LogWriterTest : public ::testing::Test {
protected:
    void TearDown() override { setLogLevel(3); }

    // Writes one ordinary and one failure line at the given level and returns what reached the file.
    static std::string writeBothAt(int level) {
        setLogLevel(level);
        std::string before = readProviderLog();
        Utils::logMessage("ordinary line");
        Utils::logError("failure line");
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
    std::string levels = logSince(before);
    EXPECT_NE(std::string::npos, levels.find("->EXCEP ::=>exception\n"));
    EXPECT_NE(std::string::npos, levels.find("->INFO  ::=>other\n"));
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

TEST_F(LogWriterTest, MessageWithLineBreaksIsWrittenAsItIs) {
    std::string written = writeBothAt(3);
    std::string before = readProviderLog();
    Utils::logError("first\r\nsecond\nthird");
    EXPECT_NE(std::string::npos, logSince(before).find("->ERROR ::=>first\r\nsecond\nthird\n"));
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
    std::string lowerCase = onSecond;
    for (char& c : lowerCase) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));

    EXPECT_EQ("LOOK-B", orvane::findSerialForContainer(onSecond));
    EXPECT_EQ("LOOK-B", orvane::findSerialForContainer(lowerCase));
    EXPECT_EQ("LOOK-B", orvane::findSerialForContainer(std::wstring(lowerCase.begin(), lowerCase.end())));
    EXPECT_EQ("LOOK-A", orvane::findSerialForContainer(onFirst));
    EXPECT_EQ("LOOK-A", orvane::findSerialForContainer(std::string("FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF")));
    EXPECT_EQ("LOOK-A", orvane::findSerialForContainer(std::string()));
    // Narrowing keeps only the low byte: U+0141 ('Ł') becomes 'A'.
    std::wstring wide(onSecond.begin(), onSecond.end());
    for (wchar_t& unit : wide)
        if (unit == L'A') unit = 0x0141;
    EXPECT_EQ("LOOK-B", orvane::findSerialForContainer(wide));
}

}  // namespace
