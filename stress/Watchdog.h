// Ends the run when a thread stops moving (a hang) or the process takes an unhandled
// exception (a crash), after printing which call it was in and the frames of its stack
// (resolve them with x86_64-w64-mingw32-addr2line -f -C -e MODULE ADDRESS).
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "stress/Progress.h"

namespace stress {

const int kExitHang = 2;
const int kExitCrash = 3;

class Watchdog {
public:
    Watchdog(std::vector<Progress*> watched, unsigned hangSeconds);
    ~Watchdog();
    void start();
    void stop();

private:
    void run();
    [[noreturn]] void reportHang(const Progress& stuck, double stuckMs);

    std::vector<Progress*> watched_;
    unsigned hangSeconds_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// Reports an unhandled exception with the step of the thread it hit, and ends the process.
// beforeExit runs first, on a hang too (it must not wait long).
void installCrashReport(std::vector<Progress*> watched, std::function<void()> beforeExit);

}  // namespace stress
