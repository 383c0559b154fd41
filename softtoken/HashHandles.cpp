#include "softtoken/HashHandles.h"

#include <functional>
#include <mutex>
#include <new>
#include <unordered_set>

#include "softtoken/Crypto.h"

namespace softtoken {
namespace {

// Small on purpose, since abandoned handles are never freed: the libgcrypt context is only
// opened when the first data arrives.
struct HashHandle {
    int mechanism = 0;
    void* context = nullptr;
};

std::mutex registryMutex;
std::unordered_set<const void*> registry;

HashHandle* find(void* handle) {
    std::lock_guard<std::mutex> guard(registryMutex);
    return registry.count(handle) ? static_cast<HashHandle*>(handle) : nullptr;
}

// A few locks shared by all handles keep one handle's calls in order without a lock each.
std::mutex& lockFor(const void* handle) {
    static std::mutex stripes[16];
    return stripes[std::hash<const void*>()(handle) % 16];
}

}  // namespace

void* newHashHandle(int mechanism) {
    if (crypto::hashLength(mechanism) == 0) return nullptr;
    HashHandle* handle = new HashHandle{mechanism, nullptr};
    try {
        std::lock_guard<std::mutex> guard(registryMutex);
        registry.insert(handle);
    } catch (...) {
        delete handle;
        throw;
    }
    return handle;
}

size_t hashHandleLength(void* handle) {
    HashHandle* hash = find(handle);
    return hash ? crypto::hashLength(hash->mechanism) : 0;
}

bool appendToHash(void* handle, const unsigned char* data, size_t length) {
    HashHandle* hash = find(handle);
    if (hash == nullptr) return false;
    std::lock_guard<std::mutex> guard(lockFor(handle));
    if (length == 0) return true;
    if (hash->context == nullptr && (hash->context = crypto::hashOpen(hash->mechanism)) == nullptr)
        throw std::bad_alloc();
    crypto::hashWrite(hash->context, data, length);
    return true;
}

bool digestOfHash(void* handle, std::vector<unsigned char>& digest) {
    HashHandle* hash = find(handle);
    if (hash == nullptr) return false;
    std::lock_guard<std::mutex> guard(lockFor(handle));
    digest = crypto::hashDigest(hash->context, hash->mechanism);
    return true;
}

}  // namespace softtoken
