// The user at the screen: answers every PIN dialog and "Orvane" message box that appears in
// this process (cancelling, or typing the PIN), and notes which worker's call showed it.
#pragma once

#include <windows.h>

#include <atomic>
#include <mutex>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "stress/Progress.h"
#include "stress/Records.h"

namespace stress {

class Desktop {
public:
    // An empty pin cancels every PIN dialog; otherwise it is typed in and confirmed.
    Desktop(std::vector<Progress*> workers, std::string pin, Progress& progress);
    ~Desktop();
    void start();
    void stop();
    std::vector<WindowEvent> events() const;
    // Whether this process can show a dialog at all: without a display (or inside a Wine
    // desktop started without one) every dialog fails to open and a PIN prompt fails at once.
    static bool canShowDialogs();

private:
    void run();
    void answer(HWND window);
    int workerOf(DWORD threadId) const;

    std::vector<Progress*> workers_;
    std::string pin_;
    Progress& progress_;
    std::atomic<bool> stopping_{false};
    std::map<HWND, double> answered_;  // when each window was last answered
    mutable std::mutex mutex_;
    std::vector<WindowEvent> events_;
    std::thread thread_;
};

}  // namespace stress
