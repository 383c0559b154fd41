// A PIN held in memory of its own that is zeroed whenever the holder lets go of it: on
// destruction, on reassignment and on clear(). A copy is a holder of its own and wipes too;
// a move hands the memory over. Every PIN copy the provider keeps is one of these.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>

namespace orvane {

class SecretBytes {
public:
    SecretBytes() = default;
    SecretBytes(const char* text, size_t length) { assign(text, length); }
    // Takes over a string's text and wipes the string's own characters.
    explicit SecretBytes(std::string&& text) {
        assign(text.data(), text.size());
        wipe(&text[0], text.size());
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
    // Volatile stores, so the compiler cannot drop them as dead before the free.
    static void wipe(char* bytes, size_t length) {
        volatile char* cursor = bytes;
        while (length-- > 0) *cursor++ = 0;
    }
    void release() {
        if (data_ != nullptr) {
            wipe(data_, size_);
            delete[] data_;
        }
        data_ = nullptr;
        size_ = 0;
    }

    char* data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace orvane
