#include "token/CurrentIv.h"

#include <mutex>

namespace orvane {
namespace {

std::mutex ivMutex;
std::vector<unsigned char> sharedIv;

}  // namespace

std::vector<unsigned char> currentIv() {
    std::lock_guard<std::mutex> lock(ivMutex);
    return sharedIv;
}

void setCurrentIv(const unsigned char* iv, size_t length) {
    std::vector<unsigned char> value(iv, iv + length);
    std::lock_guard<std::mutex> lock(ivMutex);
    sharedIv.swap(value);
}

}  // namespace orvane
