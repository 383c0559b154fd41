// What a long-running host would watch for leaks in its own process: kernel handles, threads,
// thread-local storage slots, and the live blocks of every heap.
#pragma once

#include <windows.h>

namespace orvanetest {

struct ProcessFigures {
    long long handles = 0;
    long long threads = 0;
    long long tlsSlots = 0;   // the lowest free TLS index: slots taken and never given back push it up
    long long heapBytes = 0;  // live blocks of every process heap, by HeapWalk
    long long heapBlocks = 0;
};

ProcessFigures measureProcess();

// An unsigned number from the environment, or fallback when it is not set.
long long environmentNumber(const char* name, long long fallback);

// ORVANE_RELIABILITY_LONG=1 switches every reliability check to its long form.
bool longForm();

}  // namespace orvanetest
