// The exclusive cross-process lock that serialises the writers of a store folder: a byte
// range lock on "store.lock", polled with a time limit. Readers take it only to settle an
// empty listing while the commit count says a commit is under way (see Store.cpp).
#pragma once

#include <windows.h>

#include <string>

namespace softtoken {

class WriterLock {
public:
    enum class Folder { kCreate, kExisting };

    WriterLock(const std::string& folder, Folder mode);
    ~WriterLock();
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

}  // namespace softtoken
