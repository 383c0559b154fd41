// The files of a store folder: the state files and their names, the listing that finds the
// newest one, whole-file reads and the commit (a temporary file renamed to the next
// generation's name).
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace softtoken {

// The name of the state file of a generation; fixed width, so names sort like generations.
std::string stateName(uint64_t generation);
bool isStateName(const std::string& name);
// The generation a state file's name carries.
uint64_t generationOf(const std::string& stateFileName);

bool createFolders(const std::string& path);

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
bool findNewest(const std::string& folder, Newest& newest, std::vector<std::string>* older = nullptr);

enum class ReadResult { kOk, kGone, kFailed };

// Whole-file read. Files are opened sharing delete, so that a writer can remove old ones.
ReadResult readWhole(const std::string& path, std::string& content);

// Writes the temporary file and renames it to the generation's name. That rename is the
// commit; its target name is new, so no reader can hold it open and block it.
bool commit(const std::string& folder, uint64_t generation, const std::string& content);

}  // namespace softtoken
