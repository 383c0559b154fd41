#include "softtoken/WriterLock.h"

#include "softtoken/StoreFiles.h"

namespace softtoken {
namespace {

// How long a writer waits for another one before it gives up with a store error: a commit
// takes milliseconds, and a process that died holding the lock loses it with its handles.
const DWORD kWriterLockWaitMs = 10000;

}  // namespace

WriterLock::WriterLock(const std::string& folder, Folder mode) {
    if (mode == Folder::kCreate && !createFolders(folder)) return;
    file_ = CreateFileA((folder + "\\store.lock").c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        nullptr, mode == Folder::kCreate ? OPEN_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
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

WriterLock::~WriterLock() {
    if (locked_) {
        OVERLAPPED region{};
        UnlockFileEx(file_, 0, 1, 0, &region);
    }
    if (file_ != INVALID_HANDLE_VALUE) CloseHandle(file_);
}

}  // namespace softtoken
