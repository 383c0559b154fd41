#include "softtoken/StoreFiles.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace softtoken {
namespace {

const char kStatePrefix[] = "state-";
const char kStateSuffix[] = ".json";
const size_t kGenerationDigits = 20;
const char kTemporaryFile[] = "\\state.tmp";

// A test hook: ORVANE_STORE_STOP_AT=<step> kills a writing process at that step of a commit,
// so that tests can watch what other processes make of a writer that died there.
void stopPoint(const char* step) {
    char wanted[64];
    DWORD length = GetEnvironmentVariableA("ORVANE_STORE_STOP_AT", wanted, sizeof wanted);
    if (length > 0 && length < sizeof wanted && std::strcmp(wanted, step) == 0) TerminateProcess(GetCurrentProcess(), 86);
}

}  // namespace

std::string stateName(uint64_t generation) {
    char digits[32];
    std::snprintf(digits, sizeof digits, "%020llu", static_cast<unsigned long long>(generation));
    return kStatePrefix + std::string(digits) + kStateSuffix;
}

bool isStateName(const std::string& name) {
    size_t prefix = sizeof kStatePrefix - 1, suffix = sizeof kStateSuffix - 1;
    if (name.size() != prefix + kGenerationDigits + suffix || name.compare(0, prefix, kStatePrefix) != 0 ||
        name.compare(prefix + kGenerationDigits, suffix, kStateSuffix) != 0)
        return false;
    for (size_t i = prefix; i < prefix + kGenerationDigits; ++i)
        if (name[i] < '0' || name[i] > '9') return false;
    return true;
}

uint64_t generationOf(const std::string& stateFileName) {
    return std::strtoull(stateFileName.c_str() + sizeof kStatePrefix - 1, nullptr, 10);
}

bool createFolders(const std::string& path) {
    if (path.empty()) return false;  // no folder could be named: never the current drive's root
    for (size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '\\' || path[i] == '/') {
            std::string prefix = path.substr(0, i);
            if (prefix.empty() || prefix.back() == ':') continue;
            if (GetFileAttributesA(prefix.c_str()) == INVALID_FILE_ATTRIBUTES && !CreateDirectoryA(prefix.c_str(), nullptr) &&
                GetLastError() != ERROR_ALREADY_EXISTS)
                return false;
        }
    }
    return true;
}

bool findNewest(const std::string& folder, Newest& newest, std::vector<std::string>* older) {
    newest = Newest{};
    if (folder.empty()) return false;
    std::vector<std::string> names;
    WIN32_FIND_DATAA found;
    HANDLE search = FindFirstFileA((folder + "\\" + kStatePrefix + "*" + kStateSuffix).c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        DWORD error = GetLastError();
        if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND && error != ERROR_NO_MORE_FILES) return false;
    } else {
        do {
            std::string name = found.cFileName;
            if (!isStateName(name)) continue;
            if (newest.exists && name < newest.name) {
                names.push_back(name);
                continue;
            }
            if (newest.exists) names.push_back(newest.name);
            newest = Newest{true, name, found.nFileSizeHigh, found.nFileSizeLow, found.ftLastWriteTime};
        } while (FindNextFileA(search, &found));
        FindClose(search);
    }
    if (older) older->swap(names);
    return true;
}

ReadResult readWhole(const std::string& path, std::string& content) {
    HANDLE file = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        DWORD error = GetLastError();
        // Removed, or pending removal, after a newer commit: the caller lists again.
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION
                   ? ReadResult::kGone
                   : ReadResult::kFailed;
    }
    content.clear();
    char buffer[65536];
    DWORD got = 0;
    bool ok;
    while ((ok = ReadFile(file, buffer, sizeof buffer, &got, nullptr) != FALSE) && got > 0) content.append(buffer, got);
    CloseHandle(file);
    return ok ? ReadResult::kOk : ReadResult::kFailed;
}

bool commit(const std::string& folder, uint64_t generation, const std::string& content) {
    std::string temporary = folder + kTemporaryFile;
    // A new file, never one already there: a link left in the temporary file's place is removed
    // (not followed), and one made in between makes the creation fail.
    DeleteFileA(temporary.c_str());
    HANDLE file = CreateFileA(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD written = 0;
    bool ok = WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr) &&
              written == content.size();
    stopPoint("after-temp-write");
    ok = ok && FlushFileBuffers(file);
    CloseHandle(file);
    if (!ok) return false;
    stopPoint("before-rename");
    if (!MoveFileExA(temporary.c_str(), (folder + "\\" + stateName(generation)).c_str(), MOVEFILE_WRITE_THROUGH))
        return false;
    stopPoint("after-rename");
    return true;
}

}  // namespace softtoken
