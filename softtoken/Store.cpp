#include "softtoken/Store.h"

#include <windows.h>
#include <shlobj.h>

#include <cstdio>
#include <mutex>

#include "softtoken/CommitWatch.h"
#include "softtoken/Secrets.h"
#include "softtoken/Status.h"
#include "softtoken/StoreFiles.h"
#include "softtoken/StoreFormat.h"
#include "softtoken/WriterLock.h"

namespace softtoken {
namespace {

// Last state read in this process, with the listing entry of the file it came from. The lock is
// an SRW lock: readers of an unchanged store share it, and a wait for it stays inside the process.
struct Cache {
    SRWLOCK lock = SRWLOCK_INIT;
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
    // When (GetTickCount64) the watch last said the folder was unchanged since `confirmed`.
    ULONGLONG watchCheckedAt = 0;
};

// Holds an SRW lock for a scope, in the mode its two functions take it.
template <void(WINAPI* Acquire)(PSRWLOCK), void(WINAPI* Release)(PSRWLOCK)>
class SrwGuard {
public:
    explicit SrwGuard(SRWLOCK& lock) : lock_(lock) { Acquire(&lock_); }
    ~SrwGuard() { Release(&lock_); }
    SrwGuard(const SrwGuard&) = delete;
    SrwGuard& operator=(const SrwGuard&) = delete;

private:
    SRWLOCK& lock_;
};
using SharedGuard = SrwGuard<AcquireSRWLockShared, ReleaseSRWLockShared>;
using ExclusiveGuard = SrwGuard<AcquireSRWLockExclusive, ReleaseSRWLockExclusive>;

Cache& cache() {
    static Cache instance;
    return instance;
}

const Snapshot& emptyState() {
    static const Snapshot empty = std::make_shared<const StoreState>();
    return empty;
}

bool loadUnderWriterLock(const std::string& folder, Snapshot& out);

// Commits by the store's writers show in the shared commit count, which an unchanged store is
// answered on. What goes past the writers (the folder removed and made again, a file put there
// by hand, a writer in another session) shows only in the folder's change notifications, which
// are asked at most this often, so that a call costs no wait for wineserver.
const ULONGLONG kFolderCheckMilliseconds = 5;

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
        if (!underWriterLock) {
            SharedGuard guard(c.lock);
            if (c.valid && c.folder == folder && c.commits.counts(folder) && c.confirmed != 0 &&
                GetTickCount64() - c.watchCheckedAt < kFolderCheckMilliseconds) {
                commits = c.commits.read(folder);
                if (commits % 2 == 0 && commits == c.commitsConfirmed) {
                    out = c.state;
                    return true;
                }
            }
        }
        {
            ExclusiveGuard guard(c.lock);
            commits = c.commits.read(folder);
            bool unchanged = c.watch.unchanged(folder, epoch);
            c.watchCheckedAt = unchanged && c.valid && c.folder == folder && c.confirmed == epoch ? GetTickCount64() : 0;
            if (unchanged && !underWriterLock && c.valid && c.folder == folder && c.confirmed == epoch &&
                commits % 2 == 0 && commits == c.commitsConfirmed) {
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
                ExclusiveGuard guard(c.lock);
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
            ExclusiveGuard guard(c.lock);
            if (c.valid && c.folder == folder && c.file == newest) {
                if (epoch > c.confirmed) {
                    c.confirmed = epoch;
                    c.watchCheckedAt = GetTickCount64();
                }
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
            if (read != ReadResult::kOk || !readStateText(content, parsed, reason)) {
                std::fprintf(stderr, "soft token: store %s is unreadable (%s): %s\n", folder.c_str(),
                             newest.name.c_str(), reason.c_str());
                return false;
            }
            // The name orders the files, so it is what the next commit must go past.
            parsed.generation = generationOf(newest.name);
            state = std::make_shared<const StoreState>(std::move(parsed));
        }
        ExclusiveGuard guard(c.lock);
        // A slower reader must not put back an older state than one already cached; a state
        // confirmed before an earlier arming may come from a folder since made again, though.
        if (!c.valid || c.folder != folder || c.state->generation <= state->generation || c.confirmed < epoch) {
            c.folder = folder;
            c.file = newest;
            c.state = state;
            c.valid = true;
            c.confirmed = epoch;
            c.watchCheckedAt = GetTickCount64();
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
        ExclusiveGuard guard(c.lock);
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
    // The user's own profile: its access list keeps other users out.
    if (SHGetFolderPathA(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, buffer) != S_OK) return std::string();
    return std::string(buffer) + "\\Orvane\\SoftToken";
}

bool readStore(Snapshot& state) {
    std::string folder = storeFolder();
    if (loadCurrent(folder, state)) {
        // A store of the old format is written again at once, in the new one.
        if (state->legacy && updateStore([](StoreState& fresh) {
                if (!fresh.legacy) return static_cast<int>(kAlreadyExists);
                fresh.legacy = false;
                return static_cast<int>(kOk);
            }) == kOk)
            loadCurrent(folder, state);
        return true;
    }
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
        ExclusiveGuard guard(c.lock);
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
        ExclusiveGuard guard(c.lock);
        c.commits.beginCommit(folder);
    }
    bool committedNow = commit(folder, written->generation, text);
    uint64_t commits = 1;
    {
        ExclusiveGuard guard(c.lock);
        commits = c.commits.endCommit(folder);
    }
    if (!committedNow) return kStoreError;

    // Older generations are only history now; one still open in a reader goes when it closes.
    Newest newest;
    std::vector<std::string> older;
    if (findNewest(folder, newest, &older)) {
        for (const std::string& name : older) DeleteFileA((folder + "\\" + name).c_str());
        // Remember what was committed so that this process does not parse its own write again.
        ExclusiveGuard guard(c.lock);
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

SRWLOCK callCountLock = SRWLOCK_INIT;
std::map<std::string, int> callCounts;

}  // namespace

int callCount(const std::string& operation) {
    ExclusiveGuard guard(callCountLock);
    auto found = callCounts.find(operation);
    return found == callCounts.end() ? 0 : found->second;
}

int consumeFault(const std::string& operation, Snapshot* state) {
    {
        ExclusiveGuard guard(callCountLock);
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
