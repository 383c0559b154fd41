// What every exported call of the software token shares: the argument recorder, which lets
// tests see what the provider asked for, and the guard that keeps exceptions inside the DLL.
#pragma once

#include <map>
#include <string>

namespace softtoken {

using Arguments = std::map<std::string, long long>;

// Keeps the arguments of the latest call of operation in this process.
void recordArguments(const char* operation, Arguments arguments);
Arguments lastArguments(const std::string& operation);

// Call from inside a catch block: notes on stderr what escaped an operation.
void noteEscaped(const char* operation) noexcept;

// Runs body; anything it throws becomes fallback, since nothing may cross the DLL boundary.
template <typename Result, typename Body>
Result shielded(const char* operation, Result fallback, Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        noteEscaped(operation);
        return fallback;
    }
}

}  // namespace softtoken
