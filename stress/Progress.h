// Each thread of the run publishes the call it is in; the watchdog reads that to tell a slow
// thread from a stuck one and to name the call a stuck thread is in.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>

namespace stress {

struct Progress {
    std::string name;                    // "worker 3", "plug cycler", ...
    std::atomic<const char*> step{"starting"};
    std::atomic<unsigned long long> moves{0};  // bumped at every step
    std::atomic<long long> operations{0};      // operations finished (workers)
    std::atomic<DWORD> threadId{0};
    std::atomic<bool> finished{false};

    void enter(const char* what) {
        step.store(what);
        moves.fetch_add(1);
    }
};

}  // namespace stress
