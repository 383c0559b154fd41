#include "softtoken/CommitWatch.h"

#include <cctype>
#include <cstdio>

namespace softtoken {
namespace {

std::string parentOf(std::string folder) {
    while (folder.size() > 1 && (folder.back() == '\\' || folder.back() == '/')) folder.pop_back();
    size_t cut = folder.find_last_of("\\/");
    if (cut == std::string::npos) return std::string();
    return folder.substr(0, cut == 0 || folder[cut - 1] == ':' ? cut + 1 : cut);
}

// One name per folder however it is spelt: full path, lower case, backslashes, no
// trailing separator, hashed (FNV-1a) to fit a section name.
std::string sectionName(const std::string& folder) {
    char full[MAX_PATH];
    DWORD length = GetFullPathNameA(folder.c_str(), sizeof full, full, nullptr);
    std::string path = length > 0 && length < sizeof full ? std::string(full, length) : folder;
    for (char& c : path) c = c == '/' ? '\\' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    while (path.size() > 1 && path.back() == '\\') path.pop_back();
    uint64_t hash = 14695981039346656037ull;
    for (unsigned char c : path) hash = (hash ^ c) * 1099511628211ull;
    char name[64];
    std::snprintf(name, sizeof name, "OrvaneSoftTokenCommits-%016llx", static_cast<unsigned long long>(hash));
    return name;
}

}  // namespace

bool FolderWatch::unchanged(const std::string& folder, uint64_t& epoch) {
    epoch = 0;
    if (folder != folder_) {
        close();
        folder_ = folder;
    }
    if (store_ != INVALID_HANDLE_VALUE) {
        HANDLE both[2] = {store_, parent_};
        if (WaitForMultipleObjects(2, both, FALSE, 0) == WAIT_TIMEOUT) {
            epoch = epoch_;
            return true;
        }
        close();
    }
    // Armed before the caller lists, so a change during the listing is not missed.
    store_ = FindFirstChangeNotificationA(folder.c_str(), FALSE, FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_LAST_WRITE);
    std::string parent = parentOf(folder);
    if (store_ != INVALID_HANDLE_VALUE && !parent.empty())
        parent_ = FindFirstChangeNotificationA(parent.c_str(), FALSE, FILE_NOTIFY_CHANGE_DIR_NAME);
    if (parent_ == INVALID_HANDLE_VALUE) {
        close();
        return false;
    }
    epoch = ++epoch_;
    return false;
}

void FolderWatch::close() {
    if (store_ != INVALID_HANDLE_VALUE) FindCloseChangeNotification(store_);
    if (parent_ != INVALID_HANDLE_VALUE) FindCloseChangeNotification(parent_);
    store_ = parent_ = INVALID_HANDLE_VALUE;
}

uint64_t CommitCounter::read(const std::string& folder) {
    if (folder != folder_) open(folder);
    if (count_ == nullptr) return 1;
    return static_cast<uint64_t>(InterlockedCompareExchange64(count_, 0, 0));
}

void CommitCounter::settleAfterDeadWriter(const std::string& folder) {
    if (read(folder) % 2 == 1 && count_ != nullptr) InterlockedIncrement64(count_);
}

void CommitCounter::beginCommit(const std::string& folder) {
    uint64_t count = read(folder);
    if (count_ != nullptr) InterlockedExchangeAdd64(count_, count % 2 == 0 ? 1 : 2);
}

uint64_t CommitCounter::endCommit(const std::string& folder) {
    if (read(folder) % 2 == 1 && count_ != nullptr) InterlockedIncrement64(count_);
    return read(folder);
}

void CommitCounter::open(const std::string& folder) {
    close();
    folder_ = folder;
    HANDLE section =
        CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(LONG64), sectionName(folder).c_str());
    if (section == nullptr) return;
    void* view = MapViewOfFile(section, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(LONG64));
    if (view == nullptr) {
        CloseHandle(section);
        return;
    }
    section_ = section;
    count_ = static_cast<LONG64 volatile*>(view);
}

void CommitCounter::close() {
    if (count_ != nullptr) UnmapViewOfFile(const_cast<LONG64*>(count_));
    if (section_ != nullptr) CloseHandle(section_);
    count_ = nullptr;
    section_ = nullptr;
}

}  // namespace softtoken
