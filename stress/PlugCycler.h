// Unplugs and plugs the token from another process (orvane-token.exe), as a user pulling the
// token out and putting it back. A probe in this process asks the token library every few
// milliseconds whether the token is listed, so that each absence is known to within one
// probe step: the windows in which failures for an absent token are expected.
#pragma once

#include <windows.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "stress/Progress.h"

namespace stress {

struct PlugCycle {
    double unplugBegin = 0;  // orvane-token unplug started ...
    double unplugEnd = 0;    // ... and ended
    double plugBegin = 0;
    double plugEnd = 0;
};

// The token was listed at `from`, then not, and was listed again at `to`.
struct Absence {
    double from = 0;
    double to = 0;
};

class PlugCycler {
public:
    // Leaves the token out, then in, for periodMs after each change is made; 0 never unplugs.
    PlugCycler(std::string serial, unsigned periodMs, Progress& cycler, Progress& probe);
    ~PlugCycler();
    void start();
    // Plugs the token back in (if it is out) and stops.
    void stop();
    // For a run that ends abruptly: ends orvane-token if it runs. Under Wine a child whose
    // parent dies while creating it never starts, and keeps the prefix's wineserver alive.
    void abandon();

    // Unplugs begun so far: a handle opened at count n and used at a higher count crossed one.
    long long unplugsBegun() const { return unplugsBegun_.load(); }
    std::vector<PlugCycle> cycles() const;
    std::vector<Absence> absences() const;
    std::vector<std::string> toolFailures() const;

private:
    void cycle();
    void probe();
    bool runToolTimed(const char* action, double& begin, double& end);
    int runTool(const std::string& arguments);

    std::string serial_;
    unsigned periodMs_;
    Progress& cyclerProgress_;
    Progress& probeProgress_;
    HANDLE stopEvent_;
    std::atomic<bool> probing_{false};
    std::atomic<long long> unplugsBegun_{0};
    mutable std::mutex mutex_;
    std::timed_mutex toolMutex_;  // held while orvane-token is created and runs
    HANDLE tool_ = nullptr;
    std::vector<PlugCycle> cycles_;
    std::vector<Absence> absences_;
    std::vector<std::string> toolFailures_;
    std::thread cycler_, probe_;
};

// Whether [startMs, endMs] meets an absence widened by graceMs after the token came back.
bool meetsAbsence(const std::vector<Absence>& absences, double startMs, double endMs, double graceMs);
// How long after the token came back the moment is; negative while it was out or before any absence.
double sinceReplug(const std::vector<Absence>& absences, double timeMs);

}  // namespace stress
