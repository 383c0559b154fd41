// How a reader learns that the store folder changed: the folder's change notifications and a
// commit count shared by every process using the folder.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace softtoken {

// Change notifications on the store folder (files created, renamed, deleted, written) and
// on its parent (the folder itself removed or made again). While neither has fired since
// the last listing, the folder holds what that listing saw. Each signal re-creates both
// handles, so that they follow a folder made again under the same name.
class FolderWatch {
public:
    FolderWatch() = default;
    ~FolderWatch() { close(); }
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    // True when the folder is watched and nothing changed since the current arming, whose
    // number goes to epoch; false when the caller must list (epoch is 0 when unwatched).
    bool unchanged(const std::string& folder, uint64_t& epoch);

private:
    void close();

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
    CommitCounter() = default;
    ~CommitCounter() { close(); }
    CommitCounter(const CommitCounter&) = delete;
    CommitCounter& operator=(const CommitCounter&) = delete;

    // The count for folder; odd (so not trusted) when the section cannot be had.
    uint64_t read(const std::string& folder);
    // Whether read(folder) needs nothing more than a look at the mapped count.
    bool counts(const std::string& folder) const { return count_ != nullptr && folder == folder_; }

    // Writers only, under the writer lock. There an odd count can only be left by a writer that
    // died in a commit; making it even again lets readers trust their caches once more.
    void settleAfterDeadWriter(const std::string& folder);
    void beginCommit(const std::string& folder);
    uint64_t endCommit(const std::string& folder);

private:
    void open(const std::string& folder);
    void close();

    std::string folder_;
    HANDLE section_ = nullptr;
    LONG64 volatile* count_ = nullptr;
};

}  // namespace softtoken
