// Secrets in memory that is zeroed whenever the provider lets go of it, all through one wipe:
// SecretBytes holds PIN text, SecretBuffer / SecretVector hold key bytes, plaintext and key
// records, and LibrarySecret holds a buffer the token library handed out. Every PIN, key and
// plaintext copy the provider keeps is one of these.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace orvane {

// Volatile stores, so the compiler cannot drop them as dead before the free.
inline void wipeSecret(void* bytes, size_t length) {
    volatile unsigned char* cursor = static_cast<unsigned char*>(bytes);
    while (length-- > 0) *cursor++ = 0;
}

// An allocator that wipes every block it frees: a vector's old block when it grows, its
// block when it is destroyed. Base is the allocator underneath (tests watch the frees).
template <class T, class Base = std::allocator<T>>
struct WipingAllocator : Base {
    using value_type = T;
    template <class U>
    struct rebind {
        using other = WipingAllocator<U, typename std::allocator_traits<Base>::template rebind_alloc<U>>;
    };
    WipingAllocator() = default;
    template <class U, class OtherBase>
    WipingAllocator(const WipingAllocator<U, OtherBase>& other) noexcept : Base(static_cast<const OtherBase&>(other)) {}
    T* allocate(size_t count) { return std::allocator_traits<Base>::allocate(*this, count); }
    void deallocate(T* block, size_t count) {
        wipeSecret(block, count * sizeof(T));
        std::allocator_traits<Base>::deallocate(*this, block, count);
    }
};
template <class T, class B, class U, class C>
bool operator==(const WipingAllocator<T, B>& a, const WipingAllocator<U, C>& b) {
    return static_cast<const B&>(a) == static_cast<const C&>(b);
}
template <class T, class B, class U, class C>
bool operator!=(const WipingAllocator<T, B>& a, const WipingAllocator<U, C>& b) {
    return !(a == b);
}

template <class T>
using SecretVector = std::vector<T, WipingAllocator<T>>;
using SecretBuffer = SecretVector<unsigned char>;

// Takes over a plain vector's bytes and wipes the vector's own block.
inline SecretBuffer takeSecret(std::vector<unsigned char>&& plain) {
    SecretBuffer secret(plain.begin(), plain.end());
    wipeSecret(plain.data(), plain.size());
    plain.clear();
    return secret;
}

// A buffer the token library allocated with new[] and handed to us: wiped and deleted on
// release() and on destruction.
struct LibrarySecret {
    unsigned char* data = nullptr;
    int length = 0;
    LibrarySecret() = default;
    LibrarySecret(const LibrarySecret&) = delete;
    LibrarySecret& operator=(const LibrarySecret&) = delete;
    ~LibrarySecret() { release(); }
    void release() {
        if (data != nullptr && length > 0) wipeSecret(data, static_cast<size_t>(length));
        delete[] data;
        data = nullptr;
        length = 0;
    }
};

// A fixed-size record with key bytes in it (a key record the token library filled in): each
// copy is wiped when it goes.
template <class T>
struct SecretRecord {
    T value{};
    SecretRecord() = default;
    SecretRecord(const SecretRecord&) = default;
    SecretRecord& operator=(const SecretRecord&) = default;
    ~SecretRecord() { wipeSecret(&value, sizeof value); }
};

// PIN text, always NUL-terminated. A copy is a holder of its own and wipes too; a move hands
// the memory over.
class SecretBytes {
public:
    SecretBytes() = default;
    SecretBytes(const char* text, size_t length) { assign(text, length); }
    // Takes over a string's text and wipes the string's own characters.
    explicit SecretBytes(std::string&& text) {
        assign(text.data(), text.size());
        wipeSecret(&text[0], text.size());
        text.clear();
    }
    SecretBytes(const SecretBytes& other) { assign(other.data_, other.size_); }
    SecretBytes(SecretBytes&& other) noexcept : data_(other.data_), size_(other.size_) {
        other.data_ = nullptr;
        other.size_ = 0;
    }
    SecretBytes& operator=(const SecretBytes& other) {
        if (this != &other) assign(other.data_, other.size_);
        return *this;
    }
    SecretBytes& operator=(SecretBytes&& other) noexcept {
        if (this != &other) {
            release();
            data_ = other.data_;
            size_ = other.size_;
            other.data_ = nullptr;
            other.size_ = 0;
        }
        return *this;
    }
    ~SecretBytes() { release(); }

    // The new text is copied before the old one is wiped, so it may come from this holder.
    void assign(const char* text, size_t length) {
        char* fresh = new char[length + 1];
        if (length > 0) std::memcpy(fresh, text, length);
        fresh[length] = '\0';
        release();
        data_ = fresh;
        size_ = length;
    }
    void clear() { release(); }

    // Always NUL-terminated; "" when empty.
    const char* c_str() const { return data_ != nullptr ? data_ : ""; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

private:
    void release() {
        if (data_ != nullptr) {
            wipeSecret(data_, size_);
            delete[] data_;
        }
        data_ = nullptr;
        size_ = 0;
    }

    char* data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace orvane
