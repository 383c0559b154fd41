// Ordinary CryptoAPI call sequences that once crashed or corrupted the host process. Each
// runs through Wine's advapi32; afterwards the process is alive, every heap validates and
// each call has answered with a documented code.
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <cstring>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;
namespace admin = softtoken::admin;

namespace {

const char kSerial[] = "SAFE-1";
const char kSha1OfAbc[] = "A9993E364706816ABA3E25717850C26C9CD0D89D";
const char kSha256OfAbc[] = "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD";
const char kSha256OfAbcdef[] = "BEF57EC7F53A6D40BEB640A780A639C83BC29AC8A9816F1FC6C5C6DCD93C4721";

bool everyHeapValidates() {
    HANDLE heaps[256];
    DWORD count = GetProcessHeaps(256, heaps);
    for (DWORD i = 0; i < count && i < 256; ++i)
        if (!HeapValidate(heaps[i], 0, nullptr)) return false;
    return count > 0;
}

class HostSafety : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        freshToken(kSerial);
        keyId_ = newKeyPair(kSerial, ORVANE_KEY_RSA_2048, 3, "rsa");
    }
    void SetUp() override {
        ASSERT_TRUE(CryptAcquireContextA(&provider_, keyId_.c_str(), kProviderName, PROV_RSA_FULL, 0))
            << std::hex << GetLastError();
    }
    void TearDown() override {
        CryptReleaseContext(provider_, 0);
        EXPECT_TRUE(everyHeapValidates());
    }

    HCRYPTHASH sha256Of(const char* data) {
        HCRYPTHASH hash = 0;
        EXPECT_TRUE(CryptCreateHash(provider_, CALG_SHA_256, 0, 0, &hash)) << std::hex << GetLastError();
        EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>(data), static_cast<DWORD>(strlen(data)), 0));
        return hash;
    }
    std::string hashValue(HCRYPTHASH hash) {
        BYTE value[32];
        DWORD size = sizeof value;
        EXPECT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, value, &size, 0)) << std::hex << GetLastError();
        return orvane::toHex(value, size);
    }

    static std::string keyId_;
    HCRYPTPROV provider_ = 0;
};

std::string HostSafety::keyId_;

TEST_F(HostSafety, DigestCanBeAskedForAfterTheHashWasSigned) {
    // Signing finishes the library hash; reading the value finishes it once more.
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CryptCreateHash(provider_, CALG_SHA1, 0, 0, &hash));
    ASSERT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("abc"), 3, 0));
    BYTE signature[256];
    DWORD length = sizeof signature;
    ASSERT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature, &length)) << std::hex << GetLastError();
    BYTE value[20];
    DWORD size = sizeof value;
    ASSERT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, value, &size, 0)) << std::hex << GetLastError();
    EXPECT_EQ(kSha1OfAbc, orvane::toHex(value, size));
    EXPECT_TRUE(CryptDestroyHash(hash));

    // After signing, the hash object answers for the key's type (2 for RSA-2048), whose digest
    // size is SHA-1's: the token refuses to put a SHA-256 digest in 20 bytes, and says so.
    hash = sha256Of("abc");
    length = 0;
    ASSERT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, nullptr, &length));
    length = sizeof signature;
    ASSERT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature, &length)) << std::hex << GetLastError();
    size = sizeof value;
    EXPECT_TRUE(failsWith(CryptGetHashParam(hash, HP_HASHVAL, value, &size, 0), NTE_FAIL));
    EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("more"), 4, 0)) << std::hex << GetLastError();
    EXPECT_TRUE(CryptDestroyHash(hash));
}

TEST_F(HostSafety, DataAfterTheDigestIsAcceptedAndLeavesTheDigestAlone) {
    HCRYPTHASH hash = sha256Of("abc");
    BYTE small[10];
    DWORD size = sizeof small;
    EXPECT_TRUE(failsWith(CryptGetHashParam(hash, HP_HASHVAL, small, &size, 0), ERROR_MORE_DATA));
    EXPECT_EQ(32u, size);
    EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("def"), 3, 0)) << std::hex << GetLastError();
    EXPECT_EQ(kSha256OfAbc, hashValue(hash));
    EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("def"), 3, 0)) << std::hex << GetLastError();
    EXPECT_TRUE(CryptDestroyHash(hash));

    // Signing a hash whose value was read signs that value; the library hash kept the later data.
    hash = sha256Of("abc");
    EXPECT_EQ(kSha256OfAbc, hashValue(hash));
    EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("def"), 3, 0));
    BYTE signature[256];
    DWORD length = sizeof signature;
    EXPECT_TRUE(CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature, &length)) << std::hex << GetLastError();
    EXPECT_TRUE(CryptDestroyHash(hash));

    hash = sha256Of("abc");
    EXPECT_TRUE(CryptHashData(hash, reinterpret_cast<const BYTE*>("def"), 3, 0));
    EXPECT_EQ(kSha256OfAbcdef, hashValue(hash));
    EXPECT_TRUE(CryptDestroyHash(hash));
}

TEST_F(HostSafety, KeySmallerThanTheTokenKeyCannotOverrunTheCiphertextBuffer) {
    HCRYPTKEY key = 0;
    ASSERT_TRUE(CryptGenKey(provider_, CALG_RSA_KEYX, 512u << 16, &key)) << std::hex << GetLastError();
    DWORD size = 0;
    ASSERT_TRUE(CryptEncrypt(key, 0, TRUE, 0, nullptr, &size, 0));
    EXPECT_EQ(64u, size) << "the handle answers the size it was asked for";

    // The token's key is 2048 bits: 256 bytes of ciphertext do not fit in 64.
    BYTE buffer[256] = "sixteen bytes!!";
    DWORD length = 16;
    EXPECT_TRUE(failsWith(CryptEncrypt(key, 0, TRUE, 0, buffer, &length, 64), ERROR_MORE_DATA));
    EXPECT_EQ(256u, length);
    EXPECT_TRUE(everyHeapValidates());

    length = 16;
    ASSERT_TRUE(CryptEncrypt(key, 0, TRUE, 0, buffer, &length, sizeof buffer)) << std::hex << GetLastError();
    ASSERT_EQ(256u, length);
    ASSERT_TRUE(CryptDecrypt(key, 0, TRUE, 0, buffer, &length)) << std::hex << GetLastError();
    EXPECT_EQ("sixteen bytes!!", std::string(reinterpret_cast<char*>(buffer), length - 1));
    EXPECT_TRUE(CryptDestroyKey(key));
}

}  // namespace
