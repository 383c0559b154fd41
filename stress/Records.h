// What the stress run records: the operations, the calls that failed and the provider windows
// that appeared, each with its time, so that they can be set against the unplug windows later.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace stress {

using Bytes = std::vector<unsigned char>;

// Milliseconds since the program started (QueryPerformanceCounter), the run's one clock.
double nowMs();

enum class Op {
    CspSignRsaHeld,
    CspSignEcHeld,
    CspSignRsaFresh,
    CspSignEcFresh,
    CspDecrypt,
    CspEnumContainers,
    KspSignRsa,
    KspSignEc,
    KspDecrypt,
    KspEnumKeys,
    Count
};
const int kOpCount = static_cast<int>(Op::Count);
const char* opName(Op op);

// A failure that is not an API code.
enum class Anomaly {
    None,
    ShortEnumeration,  // fewer names than the token holds: the list was read while it was away
    WrongSignature,    // the call succeeded but the independent check refused its output
    WrongPlaintext,
    CheckerBroken,     // the independent side itself failed: the run proves nothing
};
const char* anomalyName(Anomaly anomaly);

struct Failure {
    double startMs = 0;  // of the operation that failed
    double endMs = 0;
    int worker = 0;
    Op op = Op::Count;
    const char* step = "";  // the call that failed
    DWORD code = 0;         // last error or SECURITY_STATUS; 0 with an anomaly
    Anomaly anomaly = Anomaly::None;
};

// A PIN dialog or "Orvane" message box that appeared in this process.
struct WindowEvent {
    double timeMs = 0;
    int worker = -1;  // the worker whose call showed it, -1 when not one of ours
    const char* step = "";
    bool pinDialog = true;
    std::string text;  // the message box's text
};

struct WorkerTotals {
    long long attempts[kOpCount] = {};
    long long succeeded[kOpCount] = {};
    long long reacquired = 0;          // held handles dropped after a failure, to be opened again
    long long heldSurvivedReplug = 0;  // held handles used successfully after an unplug and replug
    std::vector<Failure> failures;
};

}  // namespace stress
