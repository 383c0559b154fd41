// The wiping holders: every block a secret vector lets go of (when it grows, when it is
// destroyed or moved over) is zero by the time it is freed. An allocator under the wiping one
// looks at each block as it is freed, while the block is still ours.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "token/SecretBytes.h"

namespace {

int freedBlocks = 0, freedUnwiped = 0;

template <class T>
struct WatchingAllocator : std::allocator<T> {
    using value_type = T;
    template <class U>
    struct rebind {
        using other = WatchingAllocator<U>;
    };
    WatchingAllocator() = default;
    template <class U>
    WatchingAllocator(const WatchingAllocator<U>&) noexcept {}
    void deallocate(T* block, size_t count) {
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(block);
        ++freedBlocks;
        if (std::any_of(bytes, bytes + count * sizeof(T), [](unsigned char b) { return b != 0; })) ++freedUnwiped;
        std::allocator<T>().deallocate(block, count);
    }
};

using Watched = std::vector<unsigned char, orvane::WipingAllocator<unsigned char, WatchingAllocator<unsigned char>>>;

TEST(SecretMemory, EveryBlockIsWipedBeforeItIsFreed) {
    struct Record {
        unsigned char keyData[32];
        int length;
    };
    freedBlocks = freedUnwiped = 0;
    {
        Watched key;
        for (int i = 0; i < 100; ++i) key.push_back(0xA5);  // grows several times
        Watched other(64, 0x5A);
        other = std::move(key);  // other's own block goes
        Watched copy(other);
        // Records wider than a byte: every byte of each one is wiped, not only the first count.
        std::vector<Record, orvane::WipingAllocator<Record, WatchingAllocator<Record>>> records(3, Record{{1, 2, 3}, 3});
        records.push_back(Record{{4}, 1});
    }
    EXPECT_GT(freedBlocks, 6);
    EXPECT_EQ(0, freedUnwiped);
}

TEST(SecretMemory, TakingOverAPlainVectorEmptiesIt) {
    std::vector<unsigned char> plain(16, 0x11);
    orvane::SecretBuffer secret = orvane::takeSecret(std::move(plain));
    EXPECT_EQ(orvane::SecretBuffer(16, 0x11), secret);
    EXPECT_TRUE(plain.empty());
}

}  // namespace
