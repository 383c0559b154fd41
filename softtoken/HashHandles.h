// The hash handles that orvane_initHash hands out. A handle lives for the rest of the process
// (the interface has no release call); a pointer that did not come from here is refused.
#pragma once

#include <cstddef>
#include <vector>

namespace softtoken {

// Null when the mechanism is not a known hash.
void* newHashHandle(int mechanism);
// Digest length of a handle's hash; 0 when the handle is not one of ours.
size_t hashHandleLength(void* handle);
// False when the handle is not one of ours.
bool appendToHash(void* handle, const unsigned char* data, size_t length);
bool digestOfHash(void* handle, std::vector<unsigned char>& digest);

}  // namespace softtoken
