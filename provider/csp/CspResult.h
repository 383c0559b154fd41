// How a CSP entry point reports: FALSE with the reason in the thread's last error.
// Nothing thrown inside an entry point may reach the caller's process.
#pragma once

#include <windows.h>

#include <exception>
#include <new>
#include <string>

#include "diagnostics/Log.h"

namespace orvane::csp {

inline BOOL failWith(DWORD lastError) {
    SetLastError(lastError);
    return FALSE;
}

inline BOOL failWith(HRESULT lastError) { return failWith(static_cast<DWORD>(lastError)); }

// Every entry point runs its body through this: its name is the first log line, and
// whatever the body throws becomes FALSE with a last error.
template <typename Body>
BOOL guardEntry(const char* entryName, Body&& body) {
    try {
        Utils::logMessage(entryName);
        return body();
    } catch (const std::bad_alloc&) {
        return failWith(NTE_NO_MEMORY);
    } catch (const std::exception& error) {
        Utils::logError(std::string(entryName) + " : unexpected failure : " + error.what());
        return failWith(NTE_FAIL);
    } catch (...) {
        Utils::logError(std::string(entryName) + " : unexpected failure");
        return failWith(NTE_FAIL);
    }
}

}  // namespace orvane::csp
