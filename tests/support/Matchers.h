// "FALSE with this last error" in one assertion: EXPECT_TRUE(failsWith(call(...), NTE_BAD_KEY)).
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

namespace orvanetest {

inline ::testing::AssertionResult failsWith(BOOL result, DWORD expected) {
    DWORD error = GetLastError();
    if (!result && error == expected) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "result " << result << ", last error 0x" << std::hex << error
                                         << ", expected 0x" << expected;
}

inline ::testing::AssertionResult failsWith(BOOL result, HRESULT expected) {
    return failsWith(result, static_cast<DWORD>(expected));
}

inline ::testing::AssertionResult failsWith(BOOL result, int expected) {
    return failsWith(result, static_cast<DWORD>(expected));
}

}  // namespace orvanetest
