// How a KSP entry reports: the returned SECURITY_STATUS. Every entry runs its body through
// guardEntry, which logs the entry's name first and turns anything thrown into a status;
// every value that leaves goes through copyPropertyValue; every buffer handed to the caller
// for KSPFreeBuffer comes from allocateForCaller.
#pragma once

#include <windows.h>
#include <ncrypt.h>

#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <string>

#include "diagnostics/Log.h"

namespace orvane::ksp {

template <typename Body>
SECURITY_STATUS guardEntry(const char* entryName, Body&& body) {
    try {
        Utils::logMessage(entryName);
        return body();
    } catch (const std::bad_alloc&) {
        return NTE_NO_MEMORY;
    } catch (const std::exception& error) {
        Utils::logError(std::string("KSP: ") + entryName + " : unexpected failure : " + error.what());
        return NTE_INTERNAL_ERROR;
    } catch (...) {
        Utils::logError(std::string("KSP: ") + entryName + " : unexpected failure");
        return NTE_INTERNAL_ERROR;
    }
}

// The rule for every value that leaves: the size first; a null buffer is a size query, a short
// buffer NTE_BUFFER_TOO_SMALL. Empty when the buffer holds the value.
inline std::optional<SECURITY_STATUS> answerSizeOnly(DWORD size, PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult) {
    *pcbResult = size;
    if (pbOutput == nullptr) return ERROR_SUCCESS;
    if (cbOutput < size) return NTE_BUFFER_TOO_SMALL;
    return std::nullopt;
}

// The value under that rule.
inline SECURITY_STATUS copyPropertyValue(const void* value, DWORD size, PBYTE pbOutput, DWORD cbOutput,
                                         DWORD* pcbResult) {
    if (std::optional<SECURITY_STATUS> sizeOnly = answerSizeOnly(size, pbOutput, cbOutput, pcbResult)) return *sizeOnly;
    if (size != 0) std::memcpy(pbOutput, value, size);
    return ERROR_SUCCESS;
}

// The heap that KSPFreeBuffer releases into.
inline void* allocateForCaller(size_t size) { return HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size); }
inline void releaseForCaller(void* buffer) {
    if (buffer != nullptr) HeapFree(GetProcessHeap(), 0, buffer);
}

}  // namespace orvane::ksp
