#include "tests/reliability/ProcessFigures.h"

#include <tlhelp32.h>

#include <cstdlib>
#include <vector>

namespace orvanetest {
namespace {

long long threadsOfThisProcess() {
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return -1;
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    long long count = 0;
    DWORD self = GetCurrentProcessId();
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
        if (entry.th32OwnerProcessID == self) ++count;
    CloseHandle(snapshot);
    return count;
}

// Wine 8 answers 0 to GetProcessHandleCount; its system handle list (SystemHandleInformation)
// is complete, so the handles of this process are counted there.
long long handlesOfThisProcess() {
    DWORD count = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &count) && count > 0) return count;
    struct Entry {
        ULONG process;
        BYTE type, flags;
        USHORT handle;
        void* object;
        ACCESS_MASK access;
    };
    using Query = LONG(WINAPI*)(ULONG, void*, ULONG, ULONG*);
    static Query query = reinterpret_cast<Query>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation")));
    const ULONG kSystemHandleInformation = 16;
    const LONG kInfoLengthMismatch = static_cast<LONG>(0xC0000004);
    static std::vector<unsigned char> buffer(1 << 20);
    ULONG length = 0;
    LONG status;
    while ((status = query(kSystemHandleInformation, buffer.data(), static_cast<ULONG>(buffer.size()), &length)) ==
           kInfoLengthMismatch)
        buffer.resize(buffer.size() * 2);
    if (status != 0) return -1;
    ULONG entries = *reinterpret_cast<ULONG*>(buffer.data());
    const Entry* entry = reinterpret_cast<const Entry*>(buffer.data() + sizeof(void*));
    long long mine = 0;
    for (ULONG i = 0; i < entries; ++i)
        if (entry[i].process == GetCurrentProcessId()) ++mine;
    return mine;
}

// No allocation while a heap is locked: the walk reads into fixed storage only.
void addLiveBlocks(ProcessFigures& figures) {
    HANDLE heaps[256];
    DWORD count = GetProcessHeaps(256, heaps);
    for (DWORD i = 0; i < count && i < 256; ++i) {
        if (!HeapLock(heaps[i])) continue;
        PROCESS_HEAP_ENTRY entry{};
        while (HeapWalk(heaps[i], &entry))
            if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) {
                figures.heapBytes += static_cast<long long>(entry.cbData);
                ++figures.heapBlocks;
            }
        HeapUnlock(heaps[i]);
    }
}

}  // namespace

ProcessFigures measureProcess() {
    ProcessFigures figures;
    figures.handles = handlesOfThisProcess();
    figures.threads = threadsOfThisProcess();
    DWORD slot = TlsAlloc();
    if (slot != TLS_OUT_OF_INDEXES) {
        TlsFree(slot);
        figures.tlsSlots = slot;
    }
    addLiveBlocks(figures);
    return figures;
}

long long environmentNumber(const char* name, long long fallback) {
    char value[32];
    DWORD length = GetEnvironmentVariableA(name, value, sizeof value);
    if (length == 0 || length >= sizeof value) return fallback;
    return std::atoll(value);
}

bool longForm() { return environmentNumber("ORVANE_RELIABILITY_LONG", 0) != 0; }

}  // namespace orvanetest
