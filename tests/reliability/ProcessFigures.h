// What a long-running host would watch for leaks in its own process: kernel handles, threads,
// thread-local storage slots, committed private memory, and the bytes held in live blocks of
// every heap.
#pragma once

#include <windows.h>

#include <string>

namespace orvanetest {

struct ProcessFigures {
    long long handles = 0;
    long long threads = 0;
    long long tlsSlots = 0;      // the lowest free TLS index: slots taken and never given back push it up
    long long privateBytes = 0;  // GetProcessMemoryInfo PrivateUsage (PagefileUsage under Wine)
    long long heapBytes = 0;     // live blocks of every process heap, by HeapWalk
    long long heapBlocks = 0;
};

ProcessFigures measureProcess();

// "handles +0, threads +0, TLS slots +0, heap +312 B (+2 blocks), private +4096 B"
std::string describeGrowth(const ProcessFigures& before, const ProcessFigures& after);

// An unsigned number from the environment, or fallback when it is not set.
long long environmentNumber(const char* name, long long fallback);

// ORVANE_RELIABILITY_LONG=1 switches every reliability check to its long form.
bool longForm();

}  // namespace orvanetest
