#include "token/Sessions.h"

#include <map>
#include <mutex>

namespace orvane {
namespace {

std::mutex sessionMutex;
std::map<std::string, DeviceSession> sessions;

}  // namespace

bool isDeviceInitialized(const std::string& serial) {
    std::lock_guard<std::mutex> lock(sessionMutex);
    auto entry = sessions.find(serial);
    return entry != sessions.end() && entry->second.deviceInitialized;
}

void markDeviceInitialized(const std::string& serial) {
    std::lock_guard<std::mutex> lock(sessionMutex);
    sessions[serial].deviceInitialized = true;
}

bool isPinValidated(const std::string& serial) {
    std::lock_guard<std::mutex> lock(sessionMutex);
    auto entry = sessions.find(serial);
    return entry != sessions.end() && entry->second.pinValidated;
}

SecretBytes getCachedPin(const std::string& serial) {
    std::lock_guard<std::mutex> lock(sessionMutex);
    auto entry = sessions.find(serial);
    return entry != sessions.end() ? entry->second.pin : SecretBytes();
}

void storeValidatedPin(const std::string& serial, const SecretBytes& pin) {
    std::lock_guard<std::mutex> lock(sessionMutex);
    DeviceSession& session = sessions[serial];
    if (&session.pin != &pin) session.pin = pin;
    session.pinValidated = true;
}

void clearPin(const std::string& serial) {
    std::lock_guard<std::mutex> lock(sessionMutex);
    auto entry = sessions.find(serial);
    if (entry == sessions.end()) return;
    entry->second.pinValidated = false;
    entry->second.pin.clear();
}

void removeSession(const std::string& serial) {
    std::lock_guard<std::mutex> lock(sessionMutex);
    sessions.erase(serial);
}

std::vector<std::string> removeSessionsExcept(const std::set<std::string>& connected) {
    std::vector<std::string> removed;
    std::lock_guard<std::mutex> lock(sessionMutex);
    for (auto entry = sessions.begin(); entry != sessions.end();) {
        if (connected.count(entry->first) == 0) {
            removed.push_back(entry->first);
            entry = sessions.erase(entry);
        } else {
            ++entry;
        }
    }
    return removed;
}

}  // namespace orvane
