#include "stress/PlugCycler.h"

#include <algorithm>
#include <chrono>

#include "stress/Records.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

namespace stress {
namespace {

const DWORD kProbeMs = 5;

}  // namespace

PlugCycler::PlugCycler(std::string serial, unsigned periodMs, Progress& cycler, Progress& probe)
    : serial_(std::move(serial)), periodMs_(periodMs), cyclerProgress_(cycler), probeProgress_(probe),
      stopEvent_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}

PlugCycler::~PlugCycler() {
    stop();
    CloseHandle(stopEvent_);
}

void PlugCycler::start() {
    probing_ = true;
    probe_ = std::thread([this] { probe(); });
    if (periodMs_ > 0) cycler_ = std::thread([this] { cycle(); });
}

void PlugCycler::stop() {
    SetEvent(stopEvent_);
    if (cycler_.joinable()) cycler_.join();
    // The last replug must be seen before the probe goes.
    Sleep(4 * kProbeMs);
    probing_ = false;
    if (probe_.joinable()) probe_.join();
}

std::vector<PlugCycle> PlugCycler::cycles() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return cycles_;
}

std::vector<Absence> PlugCycler::absences() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return absences_;
}

std::vector<std::string> PlugCycler::toolFailures() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return toolFailures_;
}

int PlugCycler::runTool(const std::string& arguments) {
    char folder[MAX_PATH] = {};
    GetEnvironmentVariableA("ORVANE_BIN", folder, sizeof folder);
    std::string command = "\"" + orvanetest::windowsPath(folder) + "\\orvane-token.exe\" " + arguments;
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    std::unique_lock<std::timed_mutex> lock(toolMutex_);
    if (!CreateProcessA(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) return -1;
    CloseHandle(process.hThread);
    tool_ = process.hProcess;
    lock.unlock();
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD exitCode = 0;
    GetExitCodeProcess(process.hProcess, &exitCode);
    lock.lock();
    tool_ = nullptr;
    CloseHandle(process.hProcess);
    return static_cast<int>(exitCode);
}

void PlugCycler::abandon() {
    if (!toolMutex_.try_lock_for(std::chrono::seconds(5))) return;
    if (tool_ != nullptr) TerminateProcess(tool_, 1);
    toolMutex_.unlock();
}

bool PlugCycler::runToolTimed(const char* action, double& begin, double& end) {
    cyclerProgress_.enter(action[0] == 'u' ? "orvane-token unplug" : "orvane-token plug");
    begin = nowMs();
    int exitCode = runTool(std::string(action) + " " + serial_);
    end = nowMs();
    if (exitCode == 0) return true;
    std::lock_guard<std::mutex> lock(mutex_);
    toolFailures_.push_back(std::string("orvane-token ") + action + " exited with " + std::to_string(exitCode) +
                            " at " + std::to_string(static_cast<long long>(begin)) + " ms");
    return false;
}

void PlugCycler::cycle() {
    cyclerProgress_.threadId = GetCurrentThreadId();
    // The run starts with the token in for one period.
    bool stopping = WaitForSingleObject(stopEvent_, periodMs_) == WAIT_OBJECT_0;
    while (!stopping) {
        PlugCycle cycle;
        unplugsBegun_.fetch_add(1);
        runToolTimed("unplug", cycle.unplugBegin, cycle.unplugEnd);
        cyclerProgress_.enter("waiting, token out");
        DWORD wait = static_cast<DWORD>(std::max(0.0, cycle.unplugEnd + periodMs_ - nowMs()));
        stopping = WaitForSingleObject(stopEvent_, wait) == WAIT_OBJECT_0;
        // Always back in, also when told to stop: the run ends with the token present.
        runToolTimed("plug", cycle.plugBegin, cycle.plugEnd);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            cycles_.push_back(cycle);
        }
        if (stopping) break;
        cyclerProgress_.enter("waiting, token in");
        wait = static_cast<DWORD>(std::max(0.0, cycle.plugEnd + periodMs_ - nowMs()));
        stopping = WaitForSingleObject(stopEvent_, wait) == WAIT_OBJECT_0;
    }
    cyclerProgress_.finished = true;
}

void PlugCycler::probe() {
    probeProgress_.threadId = GetCurrentThreadId();
    double lastPresent = nowMs();
    bool present = true;
    while (probing_) {
        probeProgress_.enter("orvane_getConnectedDeviceList");
        std::vector<std::string> serials = orvane_getConnectedDeviceList(false, nullptr);
        double now = nowMs();
        bool listed = std::find(serials.begin(), serials.end(), serial_) != serials.end();
        if (listed && !present) {
            std::lock_guard<std::mutex> lock(mutex_);
            absences_.push_back(Absence{lastPresent, now});
        }
        if (listed) lastPresent = now;
        present = listed;
        probeProgress_.enter("sleeping");
        Sleep(kProbeMs);
    }
    if (!present) {
        std::lock_guard<std::mutex> lock(mutex_);
        absences_.push_back(Absence{lastPresent, nowMs()});
    }
    probeProgress_.finished = true;
}

bool meetsAbsence(const std::vector<Absence>& absences, double startMs, double endMs, double graceMs) {
    for (const Absence& absence : absences)
        if (startMs <= absence.to + graceMs && endMs >= absence.from) return true;
    return false;
}

double sinceReplug(const std::vector<Absence>& absences, double timeMs) {
    double latest = -1;
    for (const Absence& absence : absences) {
        if (timeMs >= absence.from && timeMs <= absence.to) return -1;
        if (absence.to <= timeMs) latest = absence.to;
    }
    return latest < 0 ? -1 : timeMs - latest;
}

}  // namespace stress
