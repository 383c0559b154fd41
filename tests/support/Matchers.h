// "FALSE with this last error" in one assertion: EXPECT_TRUE(failsWith(call(...), NTE_BAD_KEY)).
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>

namespace orvanetest {

// Any code type (DWORD, HRESULT, a plain int) is compared as the DWORD GetLastError answers.
template <typename Code>
::testing::AssertionResult failsWith(BOOL result, Code expectedCode) {
    DWORD error = GetLastError(), expected = static_cast<DWORD>(expectedCode);
    if (!result && error == expected) return ::testing::AssertionSuccess();
    char text[96];
    std::snprintf(text, sizeof text, "result %d, last error 0x%lX, expected 0x%lX", static_cast<int>(result),
                  static_cast<unsigned long>(error), static_cast<unsigned long>(expected));
    return ::testing::AssertionFailure() << text;
}

}  // namespace orvanetest
