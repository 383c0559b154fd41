// The initialisation vector last set through KP_IV or the key storage provider's IV
// property. One value for the whole process: every key and both faces share it, and the
// last one set wins. Read and written as a value under a lock, so a reader never sees a
// vector that another thread is replacing.
#pragma once

#include <cstddef>
#include <vector>

namespace orvane {

std::vector<unsigned char> currentIv();
void setCurrentIv(const unsigned char* iv, size_t length);

}  // namespace orvane
