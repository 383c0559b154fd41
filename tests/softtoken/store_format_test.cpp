// The text of the software token's state file: a file as the token writes it is read field by
// field, and every kind of damage is refused with the field it was found in, never thrown out
// and never half read.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>

#include "encoding/Hex.h"
#include "softtoken/StoreFormat.h"

namespace {

using softtoken::StoreState;

// Shaped as the token writes its state (one-space indent, fields in the writer's order).
const std::string kWritten = R"({
 "format": 2,
 "generation": 12,
 "tokens": [
  {
   "serial": "DEV-1",
   "label": {"hex": "C4E4D6"},
   "pinHash": {"salt": "5A5A", "iterations": 10000, "hash": "C0FFEE"},
   "maxRetries": 5,
   "retriesLeft": 4,
   "loginState": 1,
   "ssoState": 0,
   "plugged": true,
   "nextIndex": 4,
   "keyPairs": [
    {"index": 1, "keyId": "000102030405060708090A0B0C0D0E0F", "label": "Signing key", "usage": 3, "type": 2,
     "flag": 0, "certLinkId": "000102030405060708090A0B0C0D0E0F", "publicKey": "C3A1", "protectedPrivateKey": "0100DD"}
   ],
   "certificates": [
    {"index": 2, "der": "3003020101", "certLinkId": "000102030405060708090A0B0C0D0E0F", "label": "Signing key"}
   ],
   "secretKeys": [
    {"index": 3, "keyId": "F0F1", "reference": "F0F1", "label": "KEK", "type": 10, "flag": true,
     "protectedValue": "0100EE"}
   ]
  }
 ],
 "faults": {"orvane_signHash": {"remaining": 2, "code": 49}}
})";

// kWritten with each first text replaced by the second.
std::string replaced(std::initializer_list<std::pair<std::string, std::string>> changes) {
    std::string text = kWritten;
    for (const auto& [from, to] : changes) {
        size_t at = text.find(from);
        EXPECT_NE(std::string::npos, at) << from;
        if (at != std::string::npos) text.replace(at, from.size(), to);
    }
    return text;
}

std::string replaced(const std::string& from, const std::string& to) { return replaced({{from, to}}); }

// The old format, with the PIN and the keys in clear, is read and rewritten in store_test.
TEST(StoreFormat, ReadsTheStateAsTheTokenWritesIt) {
    StoreState state;
    std::string reason;
    ASSERT_TRUE(softtoken::parseStoreText(kWritten, state, reason)) << reason;
    EXPECT_EQ(12u, state.generation);
    ASSERT_EQ(1u, state.tokens.size());
    const softtoken::TokenRecord& token = state.tokens[0];
    EXPECT_EQ("DEV-1", token.serial);
    EXPECT_EQ("\xC4\xE4\xD6", token.label) << "text that is not UTF-8 comes back byte for byte";
    EXPECT_EQ(4, token.retriesLeft);
    EXPECT_TRUE(token.plugged);
    EXPECT_FALSE(token.signedOn());
    ASSERT_EQ(1u, token.keyPairs.size());
    EXPECT_EQ("000102030405060708090A0B0C0D0E0F", orvane::toHex(token.keyPairs[0].keyId));
    EXPECT_EQ("C3A1", orvane::toHex(token.keyPairs[0].publicKey));
    EXPECT_EQ("0100DD", orvane::toHex(token.keyPairs[0].privateKey));
    ASSERT_EQ(1u, token.certificates.size());
    EXPECT_EQ("3003020101", orvane::toHex(token.certificates[0].der));
    ASSERT_EQ(1u, token.secretKeys.size());
    EXPECT_TRUE(token.secretKeys[0].flag);
    EXPECT_EQ("0100EE", orvane::toHex(token.secretKeys[0].value));
    EXPECT_EQ(10000, token.pin.iterations);
    EXPECT_EQ("C0FFEE", orvane::toHex(token.pin.hash));
    EXPECT_EQ(49, state.faults.at("orvane_signHash").code);
    EXPECT_FALSE(state.legacy);
}

TEST(StoreFormat, RefusesDamageNamingTheField) {
    struct Case {
        const char* what;
        std::string text;
        std::string reason;
    };
    const Case cases[] = {
        // Numbers a field cannot hold (a fraction or exponent beyond int was undefined behaviour).
        {"1e300 in an int field", replaced("\"maxRetries\": 5", "\"maxRetries\": 1e300"),
         "tokens[0].maxRetries: not a whole number"},
        {"a fraction", replaced("\"type\": 10", "\"type\": 10.5"), "tokens[0].secretKeys[0].type: not a whole number"},
        {"2^31", replaced("\"code\": 49", "\"code\": 2147483648"), "faults.orvane_signHash.code: out of range"},
        {"-2^31 - 1", replaced("\"usage\": 3", "\"usage\": -2147483649"), "tokens[0].keyPairs[0].usage: out of range"},
        {"a generation beyond 64 bits", replaced("\"generation\": 12", "\"generation\": 18446744073709551616"),
         "generation: not a whole number of at least 0"},
        {"a negative generation", replaced("\"generation\": 12", "\"generation\": -1"),
         "generation: not a whole number of at least 0"},
        // Shapes and types.
        {"an object for a list",
         replaced({{"\"keyPairs\": [", "\"keyPairs\": {\"0\": ["}, {"],\n   \"certificates\"", "]},\n   \"certificates\""}}),
         "tokens[0].keyPairs: not an array"},
        {"a number for a flag", replaced("\"flag\": true", "\"flag\": 1"), "tokens[0].secretKeys[0].flag: not true or false"},
        {"odd hex", replaced("\"publicKey\": \"C3A1\"", "\"publicKey\": \"C3A\""),
         "tokens[0].keyPairs[0].publicKey: not hex"},
        {"text without its hex", replaced("{\"hex\": \"C4E4D6\"}", "{\"text\": \"C4E4D6\"}"), "tokens[0].label.hex: missing"},
        {"a list of strings for tokens", "{\"generation\": 1, \"tokens\": [\"DEV-1\"], \"faults\": {}}",
         "tokens[0]: not an object"},
        {"no faults", "{\"generation\": 1, \"tokens\": []}", "faults: missing"},
        {"a newer format", replaced("\"format\": 2", "\"format\": 3"), "format: not a format this token reads"},
        {"a PIN in clear in the new format", replaced("\"pinHash\"", "\"pin\""), "tokens[0].pinHash: missing"},
        {"a list for the document", "[]", "not an object"},
    };
    for (const Case& c : cases) {
        StoreState state;
        state.generation = 77;
        std::string reason;
        EXPECT_FALSE(softtoken::parseStoreText(c.text, state, reason)) << c.what;
        EXPECT_EQ(c.reason, reason) << c.what;
        EXPECT_EQ(77u, state.generation) << c.what << ": a refused text leaves the state as it was";
        EXPECT_TRUE(state.tokens.empty()) << c.what;
    }
    StoreState state;
    std::string reason;
    EXPECT_FALSE(softtoken::parseStoreText(kWritten.substr(0, 200), state, reason));
    EXPECT_NE(std::string::npos, reason.find("parse error")) << reason;
}

}  // namespace
