// Judges what the run recorded and prints the summary. A failure is accepted only when its
// code is one the provider gives for a token that is away, for that call, and the operation
// met an absence of the token as the probe saw it, or began within a grace period after it.
#pragma once

#include <string>
#include <vector>

#include "stress/PlugCycler.h"
#include "stress/Records.h"

namespace stress {

// Whether the provider answers this call with this code when the token is away.
bool documentedForAbsentToken(const char* step, DWORD code, Anomaly anomaly);
std::string codeName(DWORD code);

struct RunFacts {
    int threads = 0;
    long long opsPerThread = 0;
    unsigned periodMs = 0;
    double graceMs = 0;
    double durationMs = 0;
    bool pinTyped = false;  // the desktop typed the PIN into dialogs rather than cancelling them
    bool dialogsShown = true;  // a dialog could be shown at all
    std::vector<WorkerTotals> workers;
    std::vector<PlugCycle> cycles;
    std::vector<Absence> absences;
    std::vector<WindowEvent> windows;
    std::vector<std::string> toolFailures;
    bool heapsValid = true;
};

// Prints the summary; returns the number of errors (0: the run was clean).
int printSummary(const RunFacts& facts);

}  // namespace stress
