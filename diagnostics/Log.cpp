#include "diagnostics/Log.h"

#include <windows.h>
#include <aclapi.h>
#include <psapi.h>
#include <sddl.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "diagnostics/LogOwner.h"
#include "encoding/Hex.h"

namespace {

const char kSettingsKey[] = "Software\\Kestrelon\\Orvane";
const size_t kPathCapacity = 1024;

// Watched for logLevel changes: the settings key's parent with everything below it, and
// "Software" for the parent's own creation or removal. A removed key does not signal its
// own watch under Wine, so the settings key is not watched itself.
const char kParentKey[] = "Software\\Kestrelon";
const char kSoftwareKey[] = "Software";

// What the writer makes gets this access list instead of the temporary folder's (which, as
// C:\Windows\Temp, lets every user in): full control for the owner, SYSTEM and
// Administrators, nobody else, nothing inherited.
const char kLogAccess[] = "D:P(A;OICI;FA;;;OW)(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
const char kLimitReached[] = "Log file size limit reached: no more lines today";

// Anything but ERROR_SUCCESS when the key or value is missing or unreadable.
LONG readLogLevel(HKEY key, const char* subKey, DWORD& level) {
    unsigned char buffer[32] = {};
    DWORD size = sizeof buffer;
    LONG status = RegGetValueA(key, subKey, "logLevel", RRF_RT_ANY, nullptr, buffer, &size);
    if (status == ERROR_SUCCESS) std::memcpy(&level, buffer, sizeof level);
    return status;
}

// The level as the watcher last read it: kLevelRead with the value in the low 32 bits, 0 when
// logLevel is missing or unreadable, kLevelUnknown before the first line.
const uint64_t kLevelUnknown = ~0ull;
const uint64_t kLevelRead = 1ull << 32;
std::atomic<uint64_t> publishedLevel{kLevelUnknown};
// Set from DllMain's process detach: under the loader lock no thread may be started.
std::atomic<bool> moduleDetaching{false};
std::mutex watcherStartMutex;
// How often the watcher reads the value when the notification cannot be set up.
const DWORD kUnwatchedPollMilliseconds = 20;

uint64_t readLevelNow() {
    DWORD value = 0;
    return readLogLevel(HKEY_LOCAL_MACHINE, kSettingsKey, value) == ERROR_SUCCESS ? kLevelRead | value : 0;
}

// The registry keys whose change notifications tell the watcher that logLevel may have changed.
struct LevelWatch {
    HKEY watched[2] = {nullptr, nullptr};
    HANDLE changed = CreateEventA(nullptr, FALSE, FALSE, nullptr);

    void closeKeys() {
        for (HKEY& key : watched) {
            if (key) RegCloseKey(key);
            key = nullptr;
        }
    }

    // Arms the notifications before the value is read, so that no change is missed.
    bool arm() {
        closeKeys();
        if (changed == nullptr) return false;
        ResetEvent(changed);  // closing a watched key signals it
        if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kSoftwareKey, 0, KEY_NOTIFY, &watched[0]) != ERROR_SUCCESS)
            watched[0] = nullptr;
        if (watched[0] == nullptr ||
            RegNotifyChangeKeyValue(watched[0], FALSE, REG_NOTIFY_CHANGE_NAME, changed, TRUE) != ERROR_SUCCESS) {
            closeKeys();
            return false;
        }
        LONG opened = RegOpenKeyExA(HKEY_LOCAL_MACHINE, kParentKey, 0, KEY_NOTIFY, &watched[1]);
        if (opened != ERROR_SUCCESS) watched[1] = nullptr;
        if (opened == ERROR_FILE_NOT_FOUND) return true;  // its creation signals the first watch
        if (opened != ERROR_SUCCESS ||
            RegNotifyChangeKeyValue(watched[1], TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, changed,
                                    TRUE) != ERROR_SUCCESS) {
            closeKeys();
            return false;
        }
        return true;
    }
};

// Reads logLevel whenever the registry says it may have changed, so that a line costs no
// registry read and no wait. The notifications belong to this thread, which therefore never
// ends; it holds a reference on the module, so the module is never unloaded under it.
DWORD WINAPI watchLevel(void*) {
    LevelWatch watch;
    for (;;) {
        bool armed = watch.arm();
        publishedLevel.store(readLevelNow(), std::memory_order_release);
        if (watch.changed == nullptr)
            Sleep(kUnwatchedPollMilliseconds);
        else
            WaitForSingleObject(watch.changed, armed ? INFINITE : kUnwatchedPollMilliseconds);
    }
}

// The first line reads the level itself and starts the watcher; until a watcher runs, every
// line reads the registry.
uint64_t startWatchingLevel() {
    if (moduleDetaching.load()) return readLevelNow();
    std::lock_guard<std::mutex> guard(watcherStartMutex);
    uint64_t level = publishedLevel.load(std::memory_order_acquire);
    if (level != kLevelUnknown) return level;
    level = readLevelNow();
    HMODULE self = nullptr;
    if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCSTR>(&watchLevel), &self))
        return level;
    // Published before the thread runs, so that the thread's own (later) reading wins.
    publishedLevel.store(level, std::memory_order_release);
    HANDLE thread = CreateThread(nullptr, 64 * 1024, watchLevel, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    if (thread == nullptr) {
        publishedLevel.store(kLevelUnknown, std::memory_order_release);
        FreeLibrary(self);
        return level;
    }
    CloseHandle(thread);
    return level;
}

// One atomic load per line once the watcher runs.
uint64_t levelForLine() {
    uint64_t level = publishedLevel.load(std::memory_order_acquire);
    return level != kLevelUnknown ? level : startWatchingLevel();
}

// Everything a line needs that would be costly to find again for each line. Guarded by the
// log mutex; the file is opened again only when the day changes or a write fails.
struct LogState {
    std::mutex mutex;

    bool haveProcessName = false;
    char processName[MAX_PATH] = {};

    HANDLE file = INVALID_HANDLE_VALUE;
    WORD fileYear = 0, fileMonth = 0, fileDay = 0;
    std::uint64_t sizeLimit = Utils::kDayFileLimit;
    bool dayFull = false;  // the limit's line is written: nothing more until the next day

    PSECURITY_DESCRIPTOR access = nullptr;  // kLogAccess, built on first use

    void closeFile() {
        if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
        file = INVALID_HANDLE_VALUE;
    }
    void closeAll() {
        closeFile();
        if (access) LocalFree(access);
        access = nullptr;
    }

    ~LogState() {
        // At process exit a killed thread may still own the mutex: then leave the handles.
        if (mutex.try_lock()) {
            closeAll();
            mutex.unlock();
        }
    }
};

LogState& logState() {
    static LogState state;
    return state;
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

// The SID of the user this thread writes as (its impersonation token's, else the process's)
// in buffer; null when it cannot be read.
PSID currentUser(std::vector<unsigned char>& buffer) {
    HANDLE token = nullptr;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token) &&
        !OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return nullptr;
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    buffer.assign(size, 0);
    bool read = size != 0 && GetTokenInformation(token, TokenUser, buffer.data(), size, &size);
    CloseHandle(token);
    return read ? reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid : nullptr;
}

bool trustedOwner(DWORD status, PSID owner, PSECURITY_DESCRIPTOR descriptor, PSID user) {
    bool trusted = status == ERROR_SUCCESS && orvane::isTrustedLogOwner(owner, user);
    if (status == ERROR_SUCCESS) LocalFree(descriptor);
    return trusted;
}

// Made with the log's access list when missing, then used only if it is a real folder (not a
// junction, symbolic link or mount point) of a trusted owner: checked after the creation, so a
// folder that someone else made first in between is refused too.
bool preparedFolder(const std::string& folder, SECURITY_ATTRIBUTES& access, PSID user) {
    if (GetFileAttributesA(folder.c_str()) == INVALID_FILE_ATTRIBUTES) CreateDirectoryA(folder.c_str(), &access);
    DWORD attributes = GetFileAttributesA(folder.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 ||
        (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        return false;
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    DWORD status = GetNamedSecurityInfoA(folder.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr,
                                         nullptr, nullptr, &descriptor);
    return trustedOwner(status, owner, descriptor, user);
}

// The opened day's file is used only if it is no reparse point, has no second name (a hard
// link to a file elsewhere) and has a trusted owner.
bool acceptedFile(HANDLE file, PSID user) {
    BY_HANDLE_FILE_INFORMATION facts{};
    if (!GetFileInformationByHandle(file, &facts) || facts.nNumberOfLinks != 1 ||
        (facts.dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) != 0)
        return false;
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    DWORD status = GetSecurityInfo(file, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr,
                                   nullptr, &descriptor);
    return trustedOwner(status, owner, descriptor, user);
}

// The day's file path; empty when one of its folders is refused.
std::string logFilePath(LogState& state, const SYSTEMTIME& today, SECURITY_ATTRIBUTES& access, PSID user) {
    char temp[kPathCapacity] = {};
    std::string path;
    DWORD length = GetTempPathA(sizeof temp, temp);
    if (length == 0 || length >= sizeof temp)
        std::fputs("\nUnable to getLogBaseFolderPath", stdout);
    else
        path = temp;

    if (!state.haveProcessName)
        state.haveProcessName =
            K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, state.processName, sizeof state.processName) != 0;
    appendBounded(path, "/Kestrelon");
    if (!preparedFolder(path, access, user)) return std::string();
    appendBounded(path, "/");
    appendBounded(path, state.processName);
    if (!preparedFolder(path, access, user)) return std::string();
    appendBounded(path, "/");

    char date[16] = {};
    std::snprintf(date, sizeof date, "%04d-%02d-%02d", today.wYear, today.wMonth, today.wDay);  // %Y-%m-%d
    appendBounded(path, date);
    appendBounded(path, ".LOG");
    return path;
}

// The day's file, opened once and kept for the following lines of the same day.
bool openDayFile(LogState& state, const SYSTEMTIME& now) {
    if (state.file != INVALID_HANDLE_VALUE && state.fileYear == now.wYear && state.fileMonth == now.wMonth &&
        state.fileDay == now.wDay)
        return true;
    state.closeFile();
    if (state.fileYear != now.wYear || state.fileMonth != now.wMonth || state.fileDay != now.wDay)
        state.dayFull = false;

    std::vector<unsigned char> userBuffer;
    PSID user = currentUser(userBuffer);
    if (user == nullptr) return false;
    if (state.access == nullptr &&
        !ConvertStringSecurityDescriptorToSecurityDescriptorA(kLogAccess, SDDL_REVISION_1, &state.access, nullptr))
        return false;
    SECURITY_ATTRIBUTES access{sizeof access, state.access, FALSE};
    std::string path = logFilePath(state, now, access, user);
    if (path.empty()) return false;
    // Size and owner are read through the handle; a reparse point is opened as itself, not followed.
    state.file = CreateFileA(path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | READ_CONTROL,
                             FILE_SHARE_READ | FILE_SHARE_WRITE, &access, OPEN_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (state.file == INVALID_HANDLE_VALUE) return false;
    if (!acceptedFile(state.file, user)) {
        state.closeFile();
        return false;
    }
    state.fileYear = now.wYear;
    state.fileMonth = now.wMonth;
    state.fileDay = now.wDay;
    return true;
}

// Whether line still fits in the day's file with room left for the limit's own line.
bool fitsUnderLimit(const LogState& state, const std::string& line, const std::string& limitLine) {
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(state.file, &size)) return true;  // the write itself will tell
    return static_cast<std::uint64_t>(size.QuadPart) + line.size() + limitLine.size() <= state.sizeLimit;
}

bool writeAll(HANDLE file, const std::string& line) {
    DWORD written = 0;
    return WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr) && written == line.size();
}

}  // namespace

// Logging runs inside every entry point and on the monitor thread: a failure to log
// (no memory, no disk) is swallowed, never passed to the caller.
// Entry points set their last error before logging at times, so a log line leaves the
// thread's last error as it found it. A line that is not written takes no lock.
void Utils::logMessage(std::string message) {
    DWORD lastError = GetLastError();
    try {
        if (levelForLine() == (kLevelRead | 3)) {
            std::lock_guard<std::mutex> guard(logState().mutex);
            appendLine(kDebug, message);
        }
    } catch (...) {
    }
    SetLastError(lastError);
}

void Utils::logError(std::string message) {
    DWORD lastError = GetLastError();
    try {
        uint64_t level = levelForLine();
        if ((level & kLevelRead) == 0 || static_cast<DWORD>(level) >= 2) {
            std::lock_guard<std::mutex> guard(logState().mutex);
            appendLine(kError, message);
        }
    } catch (...) {
    }
    SetLastError(lastError);
}

bool Utils::currentLevel(unsigned long& level) {
    uint64_t known = levelForLine();
    level = static_cast<DWORD>(known);
    return (known & kLevelRead) != 0;
}

void Utils::beforeModuleUnload() { moduleDetaching.store(true); }

void Utils::writeLine(int level, const std::string& message) {
    DWORD lastError = GetLastError();
    try {
        std::lock_guard<std::mutex> guard(logState().mutex);
        appendLine(level, message);
    } catch (...) {
    }
    SetLastError(lastError);
}

void Utils::appendLine(int level, const std::string& message) {
    LogState& state = logState();
    SYSTEMTIME now;
    GetLocalTime(&now);
    if (!openDayFile(state, now)) {
        std::fputs("\nUnable to write log", stdout);
        return;
    }
    if (state.dayFull) return;
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%02d/%02d::%02d:%02d:%02d:%03d-> ", now.wDay, now.wMonth, now.wHour,
                  now.wMinute, now.wSecond, now.wMilliseconds);
    std::string line = std::string(stamp) + "->" + levelPrefix(level) + message + "\n";
    std::string limitLine = std::string(stamp) + "->" + levelPrefix(0) + kLimitReached + "\n";
    if (!fitsUnderLimit(state, line, limitLine)) {
        state.dayFull = true;
        writeAll(state.file, limitLine);
        return;
    }
    if (writeAll(state.file, line)) return;
    // The kept handle may have gone bad (a volume gone, a file replaced): try once with a fresh one.
    state.closeFile();
    if (!openDayFile(state, now) || !writeAll(state.file, line)) {
        std::fputs("\nUnable to write log", stdout);
        state.closeFile();
    }
}

void Utils::reopenDayFile(std::uint64_t sizeLimit) {
    DWORD lastError = GetLastError();
    try {
        LogState& state = logState();
        std::lock_guard<std::mutex> guard(state.mutex);
        state.closeFile();
        state.sizeLimit = sizeLimit;
        state.dayFull = false;
    } catch (...) {
    }
    SetLastError(lastError);
}

namespace orvane {

std::string escapeControlCharacters(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (char c : text) {
        unsigned char byte = static_cast<unsigned char>(c);
        if (byte == '\r') {
            escaped += "\\r";
        } else if (byte == '\n') {
            escaped += "\\n";
        } else if (byte < 0x20 || byte == 0x7F) {
            escaped += "\\x" + toHex(&byte, 1);
        } else {
            escaped += c;
        }
    }
    return escaped;
}

bool isTrustedLogOwner(PSID owner, PSID currentUser) {
    if (owner == nullptr || !IsValidSid(owner)) return false;
    return (currentUser != nullptr && IsValidSid(currentUser) && EqualSid(owner, currentUser)) ||
           IsWellKnownSid(owner, WinLocalSystemSid) || IsWellKnownSid(owner, WinBuiltinAdministratorsSid);
}

}  // namespace orvane
