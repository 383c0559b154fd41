// Key objects and key properties through the provider's table, as the CNG router drives them.
// Tokens are signed on (no PIN dialog) except the one the PIN property unlocks.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "encoding/Hex.h"
#include "provider/ksp/KspObjects.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/KspHarness.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

const char kFirst[] = "KEYS-1", kSecond[] = "KEYS-2", kCerts[] = "KEYS-3", kLocked[] = "KEYS-PIN";

bool onToken(const std::string& serial, const std::string& keyId) {
    for (const OrvaneKeyPair& keyPair : orvane_getKeyPairList(serial.c_str(), nullptr))
        if (orvane::toHex(keyPair.keyId, 16) == keyId) return true;
    return false;
}

// A wide text property without its terminator; a 32-bit property as a number.
std::string text(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const wchar_t* name) {
    std::string bytes = kspKeyProperty(provider, key, name);
    std::string narrow;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) narrow.push_back(bytes[i]);
    EXPECT_TRUE(!narrow.empty() && narrow.back() == '\0') << "terminated";
    if (!narrow.empty()) narrow.pop_back();
    return narrow;
}
DWORD number(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const wchar_t* name) {
    std::string bytes = kspKeyProperty(provider, key, name);
    DWORD value = 0;
    EXPECT_EQ(4u, bytes.size());
    std::memcpy(&value, bytes.data(), std::min<size_t>(4, bytes.size()));
    return value;
}
SECURITY_STATUS set(NCRYPT_PROV_HANDLE p, NCRYPT_KEY_HANDLE key, const wchar_t* name, const void* value, DWORD size) {
    return ksp().SetKeyProperty(p, key, name, static_cast<PBYTE>(const_cast<void*>(value)), size, 0);
}
SECURITY_STATUS setNumber(NCRYPT_PROV_HANDLE p, NCRYPT_KEY_HANDLE key, const wchar_t* name, DWORD value) {
    return set(p, key, name, &value, sizeof value);
}

class KspKeys : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        useFreshStore("ksp-keys");
        for (const char* serial : {kFirst, kSecond, kCerts}) addToken(serial);
        ASSERT_EQ(0, admin::createToken(kLocked, "Locked", "4321", 5));
        gamma_ = newKeyPair(kSecond, ORVANE_KEY_RSA_1024, 2, "gamma");
        captured_ = newKeyPair(kSecond, ORVANE_KEY_EC_P256, 1, "captured");
        ASSERT_EQ(0, admin::generateKeyPair(kFirst, ORVANE_KEY_RSA_2048, "alpha", 1, 1, alpha_));
        beta_ = newKeyPair(kFirst, ORVANE_KEY_EC_P256, 3, "beta");
        // Labelled with a second-token key's name: the token search stops at the first token.
        trap_ = newKeyPair(kFirst, ORVANE_KEY_RSA_1024, 2, captured_);
        nocert_ = newKeyPair(kCerts, ORVANE_KEY_RSA_1024, 3, "nocert");
        locked_ = newKeyPair(kLocked, ORVANE_KEY_RSA_1024, 1, "locked");
    }

    KspProviderHandle provider_;
    NCRYPT_PROV_HANDLE p_ = provider_.get();
    static std::string gamma_, captured_, alpha_, beta_, trap_, locked_, nocert_;
};

std::string KspKeys::gamma_, KspKeys::captured_, KspKeys::alpha_, KspKeys::beta_, KspKeys::trap_, KspKeys::locked_,
    KspKeys::nocert_;

std::vector<std::string> enumerate(NCRYPT_PROV_HANDLE provider) {
    std::vector<std::string> keys;  // "<name> <algorithm> <legacy AT_ value><flags>"
    void* state = nullptr;
    NCryptKeyName* record = nullptr;
    while (ksp().EnumKeys(provider, nullptr, &record, &state, 0) == 0) {
        keys.push_back(std::string(record->pszName, record->pszName + wcslen(record->pszName)) + " " +
                       std::string(record->pszAlgid, record->pszAlgid + wcslen(record->pszAlgid)) + " " +
                       std::to_string(record->dwLegacyKeySpec) + std::to_string(record->dwFlags));
        ksp().FreeBuffer(record->pszName);  // three separate blocks, as NCrypt callers free them
        ksp().FreeBuffer(record->pszAlgid);
        ksp().FreeBuffer(record);
    }
    EXPECT_EQ(NTE_NO_MORE_ITEMS, ksp().EnumKeys(provider, nullptr, &record, &state, 0)) << "stays exhausted";
    ksp().FreeBuffer(state);
    return keys;
}

TEST_F(KspKeys, OpensOnlyAnExactHexNameAndEnumeratesItsToken) {
    ASSERT_EQ(0, provider_.status());
    // Usage 1 enumerates as AT_SIGNATURE (2), usage 2 or 3 as AT_KEYEXCHANGE (1).
    EXPECT_EQ((std::vector<std::string>{alpha_ + " RSA 20", beta_ + " ECDSA_P256 10", trap_ + " RSA 10"}),
              enumerate(p_));

    SECURITY_STATUS status = 0;
    std::string before = readProviderLog();
    for (const std::string& name : {lowerCase(alpha_), std::string("alpha"), std::string(""), captured_, std::string("AB\r\nCD")}) {
        EXPECT_EQ(0u, openKspKey(p_, name, AT_SIGNATURE, &status)) << name;
        EXPECT_EQ(NTE_NO_KEY, status) << name;
    }
    std::string written = logSince(before);
    EXPECT_NE(std::string::npos, written.find("->DEBUG ::=>KSP: Opening key: AB\\r\\nCD\n")) << "a name keeps its line";
    EXPECT_NE(std::string::npos, written.find("->ERROR ::=>KSP: Input key not found on token: AB\\r\\nCD\n"));
    KspKeyHandle gamma(p_, openKspKey(p_, gamma_, 0, &status));
    ASSERT_EQ(0, status);
    EXPECT_EQ(gamma_, text(p_, gamma.get(), L"Name"));
    EXPECT_EQ(2u, enumerate(p_).size()) << "the provider moved to the second token";
    EXPECT_EQ(NTE_INVALID_PARAMETER, ksp().EnumKeys(p_, nullptr, nullptr, nullptr, 0));
}

// A record and its strings given back in any order are each released exactly once: a block
// that takes over a released string's address between the calls must survive them.
TEST_F(KspKeys, KeyNamesComeBackWholeOrPieceByPieceInAnyOrder) {
    HANDLE heap = GetProcessHeap();
    enum Order { kStringsFirst, kRecordFirst, kRecordOnly };
    for (int round = 0; round < 30; ++round) {
        const Order order = static_cast<Order>(round % 3);
        SCOPED_TRACE(order);
        void* state = nullptr;
        NCryptKeyName* record = nullptr;
        ASSERT_EQ(0, ksp().EnumKeys(p_, nullptr, &record, &state, 0));
        wchar_t *name = record->pszName, *algorithm = record->pszAlgid;
        const SIZE_T nameSize = HeapSize(heap, 0, name);
        void* bystander = nullptr;
        if (order == kStringsFirst) {
            ksp().FreeBuffer(name);
            ksp().FreeBuffer(algorithm);
            bystander = HeapAlloc(heap, 0, nameSize);
            ksp().FreeBuffer(record);
        } else {
            ksp().FreeBuffer(record);
            bystander = HeapAlloc(heap, 0, sizeof(NCryptKeyName));
            EXPECT_TRUE(HeapValidate(heap, 0, name)) << "a string outlives its record until given back";
            EXPECT_EQ(32u, wcslen(name));
            if (order == kRecordFirst) {
                ksp().FreeBuffer(algorithm);
                ksp().FreeBuffer(name);
            }
        }
        EXPECT_TRUE(HeapValidate(heap, 0, bystander));
        HeapFree(heap, 0, bystander);
        ksp().FreeBuffer(state);
    }
    EXPECT_TRUE(HeapValidate(heap, 0, nullptr));
}

TEST_F(KspKeys, PropertiesDescribeTheKeyAndSettingThemTouchesOnlyTheHandle) {
    KspKeyHandle key(p_, openKspKey(p_, beta_));
    ASSERT_NE(0u, key.get());
    EXPECT_EQ("ECDSA_P256", text(p_, key.get(), L"Algorithm Name"));
    EXPECT_EQ("ECDSA", text(p_, key.get(), L"Algorithm Group"));
    EXPECT_EQ(3u, number(p_, key.get(), L"Key Usage"));
    EXPECT_EQ(16u, kspKeyProperty(p_, key.get(), L"Lengths").size());
    SECURITY_STATUS status = 0;
    kspKeyProperty(p_, key.get(), L"name", &status);
    EXPECT_EQ(NTE_NOT_SUPPORTED, status) << "case matters";

    DWORD bits = 3072;
    EXPECT_EQ(0, set(p_, key.get(), L"Length", &bits, 2));
    EXPECT_EQ(256u, number(p_, key.get(), L"Length")) << "two bytes change nothing";
    EXPECT_EQ(0, setNumber(p_, key.get(), L"Length", 3072));
    EXPECT_EQ(3072u, number(p_, key.get(), L"Length"));
    for (DWORD flags : {0x1u, 0x4u}) EXPECT_EQ(0, setNumber(p_, key.get(), L"Key Usage", flags));
    EXPECT_EQ(1u, number(p_, key.get(), L"Key Usage")) << "decrypt only; then neither flag: unchanged";
    EXPECT_EQ(0, set(p_, key.get(), L"ChainingMode", L"ChainingModeECB", sizeof L"ChainingModeECB"));
    EXPECT_EQ(NTE_NOT_SUPPORTED, set(p_, key.get(), L"ChainingMode", L"ChainingModeCBC", 12)) << "read as far as given";
    EXPECT_EQ("ChainingModeECB", text(p_, key.get(), L"ChainingMode"));
    KspKeyHandle fresh(p_, openKspKey(p_, beta_));
    EXPECT_EQ(256u, number(p_, fresh.get(), L"Length"));
    EXPECT_EQ("ChainingModeCBC", text(p_, fresh.get(), L"ChainingMode"));
}

TEST_F(KspKeys, IvSizeIsCheckedOnlyForSymmetricKeyLengths) {
    // Only key import makes keys holding a symmetric key: give the handle the lengths directly.
    KspKeyHandle key(p_, openKspKey(p_, alpha_));
    ASSERT_NE(0u, key.get());
    const BYTE iv[20] = {};
    const struct { DWORD keyLength, ivSize; SECURITY_STATUS expected; } cases[] = {
        {24, 8, 0}, {24, 16, NTE_INVALID_PARAMETER}, {32, 16, 0}, {32, 8, NTE_INVALID_PARAMETER}, {0, 20, 0}, {0, 0, 0}};
    for (const auto& c : cases) {
        reinterpret_cast<orvane::ksp::KspKey*>(key.get())->symmetricKeyLength = c.keyLength;
        EXPECT_EQ(c.expected, set(p_, key.get(), L"IV", c.ivSize ? iv : nullptr, c.ivSize)) << c.keyLength << "/" << c.ivSize;
    }
}

TEST_F(KspKeys, FinalizeGeneratesWhatWasAskedForAndDeleteRemovesIt) {
    KspKeyHandle onCerts(p_, openKspKey(p_, nocert_));  // moves the provider to that token
    // The key type and usage asked of the token; the length the key then reports.
    const struct { const wchar_t* algorithm; DWORD legacy, length; int32_t keyType, usage; DWORD reported; } cases[] = {
        {L"RSA", AT_KEYEXCHANGE, 1024, ORVANE_KEY_RSA_1024, 2, 1024},
        {L"RSA", AT_SIGNATURE, 512, ORVANE_KEY_RSA_2048, 1, 512},  // reports the size asked for
        {L"ECDSA_P256", AT_KEYEXCHANGE, 0, ORVANE_KEY_EC_P256, 1, 256},
        {L"ECDSA_P384", 0, 0, ORVANE_KEY_EC_P384, 1, 384},
        {L"ECDSA_P521", 0, 0, ORVANE_KEY_EC_P521, 1, 521}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.keyType);
        NCRYPT_KEY_HANDLE created = 0;
        ASSERT_EQ(0, ksp().CreatePersistedKey(p_, &created, c.algorithm, nullptr, c.legacy, 0));
        KspKeyHandle key(p_, created);
        if (c.length != 0) { EXPECT_EQ(0, setNumber(p_, key.get(), L"Length", c.length)); }
        ASSERT_EQ(0, ksp().FinalizeKey(p_, key.get(), 0));
        EXPECT_EQ(c.keyType, admin::lastArguments("orvane_generateKeyPair")["keyType"]);
        EXPECT_EQ(c.usage, admin::lastArguments("orvane_generateKeyPair")["keyUsage"]);
        EXPECT_EQ(c.reported, number(p_, key.get(), L"Length"));
        std::string keyId = text(p_, key.get(), L"Name");
        ASSERT_TRUE(onToken(kCerts, keyId));
        int generated = admin::callCount("orvane_generateKeyPair");
        EXPECT_EQ(0, ksp().FinalizeKey(p_, key.get(), 0)) << "final once on the token";
        EXPECT_EQ(generated, admin::callCount("orvane_generateKeyPair"));
        EXPECT_EQ(0, ksp().DeleteKey(p_, key.get(), 0));
        EXPECT_FALSE(onToken(kCerts, keyId));
        EXPECT_EQ(keyId, text(p_, key.get(), L"Name")) << "the handle lives until freed";
    }
    NCRYPT_KEY_HANDLE refused = 0;
    EXPECT_EQ(NTE_NOT_SUPPORTED, ksp().CreatePersistedKey(p_, &refused, L"rsa", nullptr, 0, 0));
    ASSERT_EQ(0, ksp().CreatePersistedKey(p_, &refused, L"RSA", nullptr, 0, 0));
    KspKeyHandle request(p_, refused);
    ASSERT_EQ(0, admin::injectFault("orvane_generateKeyPair", 1, 7));
    EXPECT_EQ(NTE_INTERNAL_ERROR, ksp().FinalizeKey(p_, request.get(), 0));
    EXPECT_EQ(0u, number(p_, request.get(), L"Length")) << "a refused generation leaves the request as it was";
}

// Found by public key: fault sweep and token_core_test. Here what is set is stored and found.
TEST_F(KspKeys, KeyCertificateIsStoredLinkedToTheKey) {
    KspKeyHandle key(p_, openKspKey(p_, nocert_));
    SECURITY_STATUS status = 0;
    kspKeyProperty(p_, key.get(), L"SmartCardKeyCertificate", &status);
    EXPECT_EQ(NTE_NOT_FOUND, status);
    const Bytes der = readFile(issueCertificate(kCerts, nocert_, "stored")), tooLong(3073, 0x30);
    EXPECT_EQ(NTE_INVALID_PARAMETER, set(p_, key.get(), L"SmartCardKeyCertificate", tooLong.data(), 3073));
    ASSERT_EQ(0, set(p_, key.get(), L"SmartCardKeyCertificate", der.data(), static_cast<DWORD>(der.size())));
    std::vector<OrvaneCertificate> certificates = orvane_getCertificateList(kCerts, nullptr);
    EXPECT_EQ(nocert_, orvane::toHex(certificates.back().certLinkId, certificates.back().certLinkIdLength));
    EXPECT_EQ(std::string(der.begin(), der.end()), kspKeyProperty(p_, key.get(), L"SmartCardKeyCertificate"));
}

TEST_F(KspKeys, PinPropertyUnlocksTheTokenForKeyOperations) {
    KspKeyHandle key(p_, openKspKey(p_, locked_));
    ASSERT_EQ(0, set(p_, key.get(), L"SmartCardPin", "4321", 5));
    EXPECT_EQ(0, ksp().DeleteKey(p_, key.get(), 0)) << "no prompt: the PIN given is used";
    EXPECT_EQ("4321", admin::lastPinReceived());
    EXPECT_FALSE(onToken(kLocked, locked_));
}

}  // namespace
