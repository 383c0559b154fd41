// "FALSE with this last error" in one assertion: EXPECT_TRUE(failsWith(call(...), NTE_BAD_KEY)).
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>

namespace orvanetest {

inline ::testing::AssertionResult failsWith(BOOL result, DWORD expected) {
    DWORD error = GetLastError();
    if (!result && error == expected) return ::testing::AssertionSuccess();
    char text[96];
    std::snprintf(text, sizeof text, "result %d, last error 0x%lX, expected 0x%lX", static_cast<int>(result),
                  static_cast<unsigned long>(error), static_cast<unsigned long>(expected));
    return ::testing::AssertionFailure() << text;
}

inline ::testing::AssertionResult failsWith(BOOL result, HRESULT expected) {
    return failsWith(result, static_cast<DWORD>(expected));
}

inline ::testing::AssertionResult failsWith(BOOL result, int expected) {
    return failsWith(result, static_cast<DWORD>(expected));
}

}  // namespace orvanetest
