#include "diagnostics/Utils.h"

#include <windows.h>
#include <psapi.h>

#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

const char kSettingsKey[] = "Software\\Kestrelon\\Orvane";
const size_t kPathCapacity = 1024;

std::mutex& logMutex() {
    static std::mutex mutex;
    return mutex;
}

// False when the key or value is missing or unreadable.
bool readLogLevel(DWORD& level) {
    unsigned char buffer[32] = {};
    DWORD size = sizeof buffer;
    if (RegGetValueA(HKEY_LOCAL_MACHINE, kSettingsKey, "logLevel", RRF_RT_ANY, nullptr, buffer, &size) != ERROR_SUCCESS)
        return false;
    std::memcpy(&level, buffer, sizeof level);
    return true;
}

const char* levelPrefix(int level) {
    switch (level) {
    case Utils::kException: return "EXCEP ::=>";
    case Utils::kError: return "ERROR ::=>";
    case Utils::kDebug: return "DEBUG ::=>";
    default: return "INFO  ::=>";
    }
}

// Appends text as far as the fixed-size path buffer has room.
void appendBounded(std::string& path, const std::string& text) {
    size_t room = kPathCapacity - 1 > path.size() ? kPathCapacity - 1 - path.size() : 0;
    path.append(text, 0, room);
}

void ensureFolder(const std::string& folder) {
    if (GetFileAttributesA(folder.c_str()) == INVALID_FILE_ATTRIBUTES) CreateDirectoryA(folder.c_str(), nullptr);
}

std::string logFilePath() {
    char temp[kPathCapacity] = {};
    std::string path;
    DWORD length = GetTempPathA(sizeof temp, temp);
    if (length == 0 || length >= sizeof temp)
        std::fputs("\nUnable to getLogBaseFolderPath", stdout);
    else
        path = temp;

    char process[MAX_PATH] = {};
    K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, process, sizeof process);
    appendBounded(path, "/Kestrelon/");
    ensureFolder(path);
    appendBounded(path, process);
    appendBounded(path, "/");
    ensureFolder(path);

    SYSTEMTIME today;
    GetLocalTime(&today);
    char date[16] = {};
    std::snprintf(date, sizeof date, "%04d-%02d-%02d", today.wYear, today.wMonth, today.wDay);  // %Y-%m-%d
    appendBounded(path, date);
    appendBounded(path, ".LOG");
    return path;
}

}  // namespace

// Logging runs inside every entry point and on the monitor thread: a failure to log
// (no memory, no disk) is swallowed, never passed to the caller.
// Entry points set their last error before logging at times, so a log line leaves the
// thread's last error as it found it.
void Utils::logMessage(std::string message) {
    DWORD lastError = GetLastError();
    try {
        DWORD level = 0;
        if (readLogLevel(level) && level == 3) appendLine(kDebug, message);
    } catch (...) {
    }
    SetLastError(lastError);
}

void Utils::logError(std::string message) {
    DWORD lastError = GetLastError();
    try {
        DWORD level = 0;
        if (!readLogLevel(level) || level >= 2) appendLine(kError, message);
    } catch (...) {
    }
    SetLastError(lastError);
}

void Utils::writeLine(int level, const std::string& message) {
    DWORD lastError = GetLastError();
    try {
        appendLine(level, message);
    } catch (...) {
    }
    SetLastError(lastError);
}

void Utils::appendLine(int level, const std::string& message) {
    std::string path = logFilePath();
    std::lock_guard<std::mutex> guard(logMutex());
    HANDLE file = CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        std::fputs("\nUnable to write log", stdout);
        return;
    }
    SYSTEMTIME now;
    GetLocalTime(&now);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%02d/%02d::%02d:%02d:%02d:%03d-> ", now.wDay, now.wMonth, now.wHour,
                  now.wMinute, now.wSecond, now.wMilliseconds);
    std::string line = std::string(stamp) + "->" + levelPrefix(level) + message + "\n";
    DWORD written = 0;
    if (!WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr) || written != line.size())
        std::fputs("\nUnable to write log", stdout);
    CloseHandle(file);
}
