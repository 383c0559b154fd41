#include "softtoken/Store.h"

#include <windows.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "softtoken/Status.h"
#include "softtoken/StoreFormat.h"

namespace softtoken {
namespace {

const char kStatePrefix[] = "state-";
const char kStateSuffix[] = ".json";
const size_t kGenerationDigits = 20;
const char kTemporaryFile[] = "\\state.tmp";
const char kLegacyFile[] = "tokens.json";  // the single state file of earlier versions

bool createFolders(const std::string& path) {
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

// A test hook: ORVANE_STORE_STOP_AT=<step> kills a writing process at that step of a commit,
// so that tests can watch what other processes make of a writer that died there.
void stopPoint(const char* step) {
    char wanted[64];
    DWORD length = GetEnvironmentVariableA("ORVANE_STORE_STOP_AT", wanted, sizeof wanted);
    if (length > 0 && length < sizeof wanted && std::strcmp(wanted, step) == 0) TerminateProcess(GetCurrentProcess(), 86);
}

// The name of the state file of a generation; fixed width, so names sort like generations.
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

// The newest committed state file as a directory listing shows it. A committed file is never
// written again, so the same name, size and time mean the same content: that comparison is
// the whole change check of a reader.
struct Newest {
    bool exists = false;
    std::string name;
    DWORD sizeHigh = 0, sizeLow = 0;
    FILETIME written{};

    bool operator==(const Newest& o) const {
        return exists == o.exists && (!exists || (name == o.name && sizeHigh == o.sizeHigh && sizeLow == o.sizeLow &&
                                                  CompareFileTime(&written, &o.written) == 0));
    }
};

// Lists the folder: the newest state file, and the older ones (for clean-up) when asked.
bool findNewest(const std::string& folder, Newest& newest, std::vector<std::string>* older = nullptr) {
    newest = Newest{};
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
    if (!newest.exists) {
        WIN32_FILE_ATTRIBUTE_DATA legacy;
        if (GetFileAttributesExA((folder + "\\" + kLegacyFile).c_str(), GetFileExInfoStandard, &legacy))
            newest = Newest{true, kLegacyFile, legacy.nFileSizeHigh, legacy.nFileSizeLow, legacy.ftLastWriteTime};
    } else if (older) {
        names.push_back(kLegacyFile);
        names.push_back("generation");  // the change counter of earlier versions
    }
    if (older) older->swap(names);
    return true;
}

enum class ReadResult { kOk, kGone, kFailed };

// Whole-file read. Files are opened sharing delete, so that a writer can remove old ones.
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

// Writes the temporary file and renames it to the next generation's name. That rename is the
// commit; its target name is new, so no reader can hold it open and block it.
bool commit(const std::string& folder, uint64_t generation, const std::string& content) {
    std::string temporary = folder + kTemporaryFile;
    HANDLE file = CreateFileA(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
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

// How long a writer waits for another one before it gives up with a store error: a commit
// takes milliseconds, and a process that died holding the lock loses it with its handles.
const DWORD kWriterLockWaitMs = 10000;

// The exclusive cross-process lock that serialises writers. Readers take it only to settle an
// empty listing while the commit count says a commit is under way (see loadCurrent).
class WriterLock {
public:
    enum class Folder { kCreate, kExisting };

    WriterLock(const std::string& folder, Folder mode) {
        if (mode == Folder::kCreate && !createFolders(folder)) return;
        file_ = CreateFileA((folder + "\\store.lock").c_str(), GENERIC_READ | GENERIC_WRITE,
                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            mode == Folder::kCreate ? OPEN_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file_ == INVALID_HANDLE_VALUE) {
            DWORD error = GetLastError();
            noLockFile_ = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
            return;
        }
        // Polled rather than waited for, so that a writer stuck in a commit cannot hang everyone.
        ULONGLONG deadline = GetTickCount64() + kWriterLockWaitMs;
        for (int attempt = 0;; ++attempt) {
            OVERLAPPED region{};
            if (LockFileEx(file_, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &region)) {
                locked_ = true;
                return;
            }
            if (GetLastError() != ERROR_LOCK_VIOLATION || GetTickCount64() > deadline) return;
            Sleep(attempt < 4 ? 0 : 1);
        }
    }
    ~WriterLock() {
        if (locked_) {
            OVERLAPPED region{};
            UnlockFileEx(file_, 0, 1, 0, &region);
        }
        if (file_ != INVALID_HANDLE_VALUE) CloseHandle(file_);
    }
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;
    bool locked() const { return locked_; }
    // The folder or its lock file does not exist: no writer ever committed there.
    bool noLockFile() const { return noLockFile_; }

private:
    HANDLE file_ = INVALID_HANDLE_VALUE;
    bool locked_ = false;
    bool noLockFile_ = false;
};

// Change notifications on the store folder (files created, renamed, deleted, written) and
// on its parent (the folder itself removed or made again). While neither has fired since
// the last listing, the folder holds what that listing saw. Each signal re-creates both
// handles, so that they follow a folder made again under the same name.
class FolderWatch {
public:
    ~FolderWatch() { close(); }

    // True when the folder is watched and nothing changed since the current arming, whose
    // number goes to epoch; false when the caller must list (epoch is 0 when unwatched).
    bool unchanged(const std::string& folder, uint64_t& epoch) {
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
        store_ = FindFirstChangeNotificationA(folder.c_str(), FALSE,
                                              FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_LAST_WRITE);
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

private:
    static std::string parentOf(std::string folder) {
        while (folder.size() > 1 && (folder.back() == '\\' || folder.back() == '/')) folder.pop_back();
        size_t cut = folder.find_last_of("\\/");
        if (cut == std::string::npos) return std::string();
        return folder.substr(0, cut == 0 || folder[cut - 1] == ':' ? cut + 1 : cut);
    }

    void close() {
        if (store_ != INVALID_HANDLE_VALUE) FindCloseChangeNotification(store_);
        if (parent_ != INVALID_HANDLE_VALUE) FindCloseChangeNotification(parent_);
        store_ = parent_ = INVALID_HANDLE_VALUE;
    }

    std::string folder_;
    HANDLE store_ = INVALID_HANDLE_VALUE;
    HANDLE parent_ = INVALID_HANDLE_VALUE;
    uint64_t epoch_ = 0;
};

// A count of the commits made to one store folder, in a named section that every process
// using the folder maps, so that a reader sees another process's commit at once. The folder's
// change notification alone is not enough: Wine delivers it a moment after the commit, even
// after the writer has exited. Writers make the count odd before the rename and even after
// it; an odd count is a commit under way, or a writer that died in one, and is never trusted.
// Writers in another session use another section; for them the notification still applies.
class CommitCounter {
public:
    ~CommitCounter() { close(); }

    // The count for folder; odd (so not trusted) when the section cannot be had.
    uint64_t read(const std::string& folder) {
        if (folder != folder_) open(folder);
        if (count_ == nullptr) return 1;
        return static_cast<uint64_t>(InterlockedCompareExchange64(count_, 0, 0));
    }

    // Writers only, under the writer lock. There an odd count can only be left by a writer that
    // died in a commit; making it even again lets readers trust their caches once more.
    void settleAfterDeadWriter(const std::string& folder) {
        if (read(folder) % 2 == 1 && count_ != nullptr) InterlockedIncrement64(count_);
    }
    void beginCommit(const std::string& folder) {
        uint64_t count = read(folder);
        if (count_ != nullptr) InterlockedExchangeAdd64(count_, count % 2 == 0 ? 1 : 2);
    }
    uint64_t endCommit(const std::string& folder) {
        if (read(folder) % 2 == 1 && count_ != nullptr) InterlockedIncrement64(count_);
        return read(folder);
    }

private:
    void open(const std::string& folder) {
        close();
        folder_ = folder;
        HANDLE section = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(LONG64),
                                            sectionName(folder).c_str());
        if (section == nullptr) return;
        void* view = MapViewOfFile(section, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(LONG64));
        if (view == nullptr) {
            CloseHandle(section);
            return;
        }
        section_ = section;
        count_ = static_cast<LONG64 volatile*>(view);
    }

    void close() {
        if (count_ != nullptr) UnmapViewOfFile(const_cast<LONG64*>(count_));
        if (section_ != nullptr) CloseHandle(section_);
        count_ = nullptr;
        section_ = nullptr;
    }

    // One name per folder however it is spelt: full path, lower case, backslashes, no
    // trailing separator, hashed (FNV-1a) to fit a section name.
    static std::string sectionName(const std::string& folder) {
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

    std::string folder_;
    HANDLE section_ = nullptr;
    LONG64 volatile* count_ = nullptr;
};

// Last state read in this process, with the listing entry of the file it came from.
struct Cache {
    std::mutex mutex;
    std::string folder;
    Newest file;
    bool valid = false;
    Snapshot state;
    FolderWatch watch;
    // The arming after which the cached state was confirmed as the newest; 0 for none.
    uint64_t confirmed = 0;
    CommitCounter commits;
    // The commit count read before the listing that confirmed the cached state.
    uint64_t commitsConfirmed = 1;
};

Cache& cache() {
    static Cache instance;
    return instance;
}

const Snapshot& emptyState() {
    static const Snapshot empty = std::make_shared<const StoreState>();
    return empty;
}

bool loadUnderWriterLock(const std::string& folder, Snapshot& out);

// How often a reader lists again when a listing showed no state file while the commit count
// was odd or moved, before it asks the writer lock instead.
const int kEmptyListingRetries = 20;

// The committed state, parsed only when the newest file differs from the one cached. The file
// work happens outside the cache mutex, so concurrent readers only queue for the comparison.
// A writer (under the writer lock) lists the folder whatever the watch says: change
// notifications reach this process a moment after another process's commit, and a commit on a
// stale state would reuse a name.
bool loadCurrent(const std::string& folder, Snapshot& out, bool underWriterLock = false) {
    Cache& c = cache();
    for (int attempt = 0; attempt < 100; ++attempt) {
        uint64_t epoch = 0, commits = 1;
        {
            std::lock_guard<std::mutex> guard(c.mutex);
            commits = c.commits.read(folder);
            if (c.watch.unchanged(folder, epoch) && !underWriterLock && c.valid && c.folder == folder &&
                c.confirmed == epoch && commits % 2 == 0 && commits == c.commitsConfirmed) {
                out = c.state;
                return true;
            }
        }
        Newest newest;
        if (!findNewest(folder, newest)) return false;
        if (!newest.exists && !underWriterLock) {
            // A listing made while a commit renames the new file in and deletes the old one can
            // show neither: Wine reads the names first and drops those gone by the time it looks
            // at them. Only a listing during which no commit ran can show a store without state.
            // The count stays odd after a writer died in a commit, and is odd for good when the
            // section cannot be had, so after a few tries the writer lock settles it: under it
            // no commit runs.
            uint64_t after = 1;
            {
                std::lock_guard<std::mutex> guard(c.mutex);
                after = c.commits.read(folder);
            }
            if (after != commits || after % 2 == 1) {
                if (attempt < kEmptyListingRetries) {
                    Sleep(0);
                    continue;
                }
                return loadUnderWriterLock(folder, out);
            }
        }
        {
            std::lock_guard<std::mutex> guard(c.mutex);
            if (c.valid && c.folder == folder && c.file == newest) {
                if (epoch > c.confirmed) c.confirmed = epoch;
                c.commitsConfirmed = commits;
                out = c.state;
                return true;
            }
        }
        Snapshot state = emptyState();
        if (newest.exists) {
            std::string content;
            ReadResult read = readWhole(folder + "\\" + newest.name, content);
            if (read == ReadResult::kGone) continue;
            StoreState parsed;
            std::string reason = "read failed";
            if (read != ReadResult::kOk || !parseStoreText(content, parsed, reason)) {
                std::fprintf(stderr, "soft token: store %s is unreadable (%s): %s\n", folder.c_str(),
                             newest.name.c_str(), reason.c_str());
                return false;
            }
            // The name orders the files, so it is what the next commit must go past.
            if (isStateName(newest.name))
                parsed.generation = std::strtoull(newest.name.c_str() + sizeof kStatePrefix - 1, nullptr, 10);
            state = std::make_shared<const StoreState>(std::move(parsed));
        }
        std::lock_guard<std::mutex> guard(c.mutex);
        // A slower reader must not put back an older state than one already cached; a state
        // confirmed before an earlier arming may come from a folder since made again, though.
        if (!c.valid || c.folder != folder || c.state->generation <= state->generation || c.confirmed < epoch) {
            c.folder = folder;
            c.file = newest;
            c.state = state;
            c.valid = true;
            c.confirmed = epoch;
            c.commitsConfirmed = commits;
        }
        out = std::move(state);
        return true;
    }
    return false;
}

// Serialises this process's writers before they queue for the file lock.
std::mutex& writerMutex() {
    static std::mutex instance;
    return instance;
}

bool loadUnderWriterLock(const std::string& folder, Snapshot& out) {
    std::lock_guard<std::mutex> writer(writerMutex());
    WriterLock lock(folder, WriterLock::Folder::kExisting);
    if (!lock.locked()) {
        if (!lock.noLockFile()) return false;
        out = emptyState();
        return true;
    }
    {
        Cache& c = cache();
        std::lock_guard<std::mutex> guard(c.mutex);
        c.commits.settleAfterDeadWriter(folder);
    }
    return loadCurrent(folder, out, true);
}

}  // namespace

TokenRecord* StoreState::find(const std::string& serial) {
    for (TokenRecord& token : tokens)
        if (token.serial == serial) return &token;
    return nullptr;
}

const TokenRecord* StoreState::find(const std::string& serial) const {
    return const_cast<StoreState*>(this)->find(serial);
}

const TokenRecord* StoreState::connected(const char* serial) const {
    if (serial == nullptr) return nullptr;
    const TokenRecord* token = find(serial);
    return token != nullptr && token->plugged ? token : nullptr;
}

std::string storeFolder() {
    char buffer[MAX_PATH];
    DWORD length = GetEnvironmentVariableA("ORVANE_TOKEN_STORE", buffer, sizeof buffer);
    if (length > 0 && length < sizeof buffer) return std::string(buffer, length);
    length = GetEnvironmentVariableA("ProgramData", buffer, sizeof buffer);
    std::string base = (length > 0 && length < sizeof buffer) ? std::string(buffer, length) : "C:\\ProgramData";
    return base + "\\Orvane\\SoftToken";
}

bool readStore(Snapshot& state) {
    if (loadCurrent(storeFolder(), state)) return true;
    state = emptyState();
    return false;
}

Snapshot readStore() {
    Snapshot state;
    readStore(state);
    return state;
}

int updateStore(const std::function<int(StoreState&)>& mutate) {
    std::string folder = storeFolder();
    std::lock_guard<std::mutex> writer(writerMutex());
    WriterLock lock(folder, WriterLock::Folder::kCreate);
    if (!lock.locked()) return kStoreError;
    Cache& c = cache();
    {
        std::lock_guard<std::mutex> guard(c.mutex);
        c.commits.settleAfterDeadWriter(folder);
    }
    // Under the file lock nobody else commits, so the listing shows the freshest state.
    Snapshot committed;
    if (!loadCurrent(folder, committed, true)) return kStoreError;

    StoreState next = *committed;
    int result = mutate(next);
    if (result != kOk) return result;
    next.generation = committed->generation + 1;
    Snapshot written = std::make_shared<const StoreState>(std::move(next));
    std::string text = formatStoreText(*written);
    {
        std::lock_guard<std::mutex> guard(c.mutex);
        c.commits.beginCommit(folder);
    }
    bool committedNow = commit(folder, written->generation, text);
    uint64_t commits = 1;
    {
        std::lock_guard<std::mutex> guard(c.mutex);
        commits = c.commits.endCommit(folder);
    }
    if (!committedNow) return kStoreError;

    // Older generations are only history now; one still open in a reader goes when it closes.
    Newest newest;
    std::vector<std::string> older;
    if (findNewest(folder, newest, &older)) {
        for (const std::string& name : older) DeleteFileA((folder + "\\" + name).c_str());
        // Remember what was committed so that this process does not parse its own write again.
        std::lock_guard<std::mutex> guard(c.mutex);
        if (newest.name == stateName(written->generation)) {
            // Still under the file lock: this is the newest state whenever the watch was armed.
            if (c.folder != folder) c.confirmed = 0;
            c.folder = folder;
            c.file = newest;
            c.state = written;
            c.valid = true;
            c.commitsConfirmed = commits;
        }
    }
    return kOk;
}

namespace {

std::mutex callCountMutex;
std::map<std::string, int> callCounts;

}  // namespace

int callCount(const std::string& operation) {
    std::lock_guard<std::mutex> guard(callCountMutex);
    auto found = callCounts.find(operation);
    return found == callCounts.end() ? 0 : found->second;
}

int consumeFault(const std::string& operation, Snapshot* state) {
    {
        std::lock_guard<std::mutex> guard(callCountMutex);
        ++callCounts[operation];
    }
    Snapshot current = readStore();
    auto armed = current->faults.find(operation);
    if (armed == current->faults.end() || armed->second.remaining <= 0) {
        if (state) *state = std::move(current);
        return kOk;
    }

    int code = kOk;
    updateStore([&](StoreState& fresh) {
        auto fault = fresh.faults.find(operation);
        if (fault == fresh.faults.end() || fault->second.remaining <= 0) return static_cast<int>(kOk);
        code = fault->second.code;
        if (--fault->second.remaining == 0) fresh.faults.erase(fault);
        return static_cast<int>(kOk);
    });
    if (code == kOk && state) *state = readStore();
    return code;
}

}  // namespace softtoken
