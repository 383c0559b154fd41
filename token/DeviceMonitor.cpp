#include "token/DeviceMonitor.h"

#include <windows.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics/Log.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/Sessions.h"

namespace orvane {
namespace {

std::atomic<bool> monitorRunning{false};
std::atomic<bool> monitorStopRequested{false};
// Heap-held so that no joinable std::thread is ever destroyed at process exit.
std::thread* monitorThread = nullptr;

// An exception leaving a thread's body ends the host process: a failed sweep is skipped and
// the next one tries again.
void monitorLoop() {
    Utils::logMessage("Device monitor thread started.");
    while (!monitorStopRequested.load()) {
        try {
            sweepUnpluggedTokens();
        } catch (...) {
            Utils::logError("Device monitor sweep failed");
        }
        Sleep(kDevicePollMilliseconds);
    }
    Utils::logMessage("Device monitor thread stopped.");
}

// The thread runs our code, so the module must never unload under it.
bool keepModuleLoaded() {
    HMODULE self = nullptr;
    return GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                              reinterpret_cast<LPCSTR>(&monitorLoop), &self) != FALSE;
}

}  // namespace

std::vector<std::string> sweepUnpluggedTokens() {
    std::vector<std::string> serials = orvane_getConnectedDeviceList(false, nullptr);
    std::set<std::string> connected(serials.begin(), serials.end());
    for (const std::string& serial : removeSessionsExcept(connected)) Utils::logMessage("Device disconnected: " + serial);
    return serials;
}

void startDeviceMonitor() {
    if (monitorRunning.exchange(true)) {
        Utils::logMessage("Monitor thread already running, not starting again.");
        return;
    }
    monitorStopRequested.store(false);
    if (!keepModuleLoaded()) {
        Utils::logError("Monitor thread not started: module could not be kept loaded");
        monitorRunning.store(false);
        return;
    }
    try {
        monitorThread = new std::thread(monitorLoop);
    } catch (...) {
        monitorRunning.store(false);
        throw;
    }
    Utils::logMessage("Monitor thread started (startDeviceMonitor).");
}

void stopDeviceMonitor() {
    monitorStopRequested.store(true);
    if (monitorThread != nullptr && monitorThread->joinable() && monitorThread->get_id() != std::this_thread::get_id()) {
        monitorThread->join();
        delete monitorThread;
        monitorThread = nullptr;
        Utils::logMessage("Monitor thread joined (stopDeviceMonitor).");
    }
    monitorRunning.store(false);
}

void abandonDeviceMonitor() {
    monitorStopRequested.store(true);
    if (monitorThread != nullptr && monitorThread->joinable()) monitorThread->detach();
    monitorRunning.store(false);
}

}  // namespace orvane
