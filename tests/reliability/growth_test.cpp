// Thousands of the open/close cycles a long-running host makes: loading and freeing the
// provider, CryptAcquireContext/CryptReleaseContext, and the key storage provider's provider
// and key objects. Once warm, the process must hold no more handles or threads than before
// and its heaps no more live bytes (below 1 KiB per 1000 cycles). Wine's own rsaenh, cycled
// the same way, shows what Wine itself keeps.
//
// ORVANE_GROWTH_CYCLES sets the number of cycles (default 1000; 20000 with
// ORVANE_RELIABILITY_LONG=1).
#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

#include "tests/reliability/ProcessFigures.h"
#include "tests/support/KspHarness.h"
#include "tests/support/ProviderSupport.h"
#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanetest;

namespace {

const char kSerial[] = "GROWTH-1";
const long long kSamples = 5;
const double kHeapBytesPer1000 = 1024;

const long long kCycles = environmentNumber("ORVANE_GROWTH_CYCLES", longForm() ? 20000 : 1000);

struct Growth {
    long long cycles = 0;
    ProcessFigures first, last;
    std::vector<long long> heapSamples;

    // The live-heap figure least disturbed by a block that happens to be cached at one sample:
    // the smallest of the later half of the samples, against the first.
    double heapPer1000() const {
        long long settled = *std::min_element(heapSamples.begin() + heapSamples.size() / 2, heapSamples.end());
        return static_cast<double>(settled - heapSamples.front()) * 1000.0 / static_cast<double>(cycles);
    }
};

// A process has 1088 TLS slots; a cycle that takes one for good aborts the process once they
// are gone. Such a cycle is measured only as far as leaves this many for the rest of the run.
const long long kTlsSlots = 1088;
const long long kTlsSlotsToKeep = 400;

// Runs a warm-up, then kCycles cycles in kSamples slices, measuring after each slice.
Growth measureOnce(const char* name, const std::function<void()>& cycle) {
    long long cycles = kCycles;
    // The second half of the warm-up tells whether every cycle takes a TLS slot.
    long long warmUp = std::max<long long>(50, cycles / 20);
    for (long long i = 0; i < warmUp; ++i) cycle();
    long long slotsBefore = measureProcess().tlsSlots;
    for (long long i = 0; i < warmUp; ++i) cycle();
    Growth growth;
    growth.first = measureProcess();
    long long slotsTaken = growth.first.tlsSlots - slotsBefore;
    if (slotsTaken > 0) {
        long long perCycle = (slotsTaken + warmUp - 1) / warmUp;
        long long affordable = (kTlsSlots - kTlsSlotsToKeep - growth.first.tlsSlots) / perCycle;
        if (affordable < cycles) {
            std::printf("[growth] %s takes TLS slots for good (%lld in %lld cycles): measuring %lld cycles only\n",
                        name, slotsTaken, warmUp, std::max(0LL, affordable));
            cycles = std::max(kSamples, affordable / kSamples * kSamples);
        }
    }
    growth.cycles = cycles;
    growth.heapSamples.push_back(growth.first.heapBytes);
    for (long long slice = 1; slice <= kSamples; ++slice) {
        for (long long i = 0; i < cycles / kSamples; ++i) cycle();
        growth.last = measureProcess();
        growth.heapSamples.push_back(growth.last.heapBytes);
    }
    std::printf("[growth] %-34s %lld cycles: handles %+lld, threads %+lld, TLS slots %+lld, heap %+.0f B per 1000 "
                "(heap samples",
                name, cycles, growth.last.handles - growth.first.handles, growth.last.threads - growth.first.threads,
                growth.last.tlsSlots - growth.first.tlsSlots, growth.heapPer1000());
    for (long long sample : growth.heapSamples) std::printf(" %lld", sample);
    std::printf(")\n");
    std::fflush(stdout);
    return growth;
}

bool grew(const Growth& growth) {
    return growth.last.handles > growth.first.handles || growth.last.threads > growth.first.threads ||
           growth.last.tlsSlots > growth.first.tlsSlots || growth.heapPer1000() >= kHeapBytesPer1000;
}

// A lock that meets contention for the first time (here with the device monitor thread) gets
// a wait event for good: growth is measured a second time, and only what comes back counts.
Growth measureCycles(const char* name, const std::function<void()>& cycle) {
    Growth growth = measureOnce(name, cycle);
    if (!grew(growth)) return growth;
    std::printf("[growth] %s grew: measuring again\n", name);
    return measureOnce(name, cycle);
}

// Nothing kept, or no more than Wine keeps in the control cycle where there is one.
void expectNoGrowth(const Growth& ours, const Growth* control = nullptr) {
    long long handles = control ? std::max(0LL, control->last.handles - control->first.handles) : 0;
    long long threads = control ? std::max(0LL, control->last.threads - control->first.threads) : 0;
    double heap = control ? std::max(0.0, control->heapPer1000()) : 0.0;
    EXPECT_LE(ours.last.handles - ours.first.handles, handles);
    EXPECT_LE(ours.last.threads - ours.first.threads, threads);
    EXPECT_EQ(ours.first.tlsSlots, ours.last.tlsSlots) << "TLS slots taken for good";
    EXPECT_LT(ours.heapPer1000(), heap + kHeapBytesPer1000);
}

class GrowthTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        freshToken(kSerial);
        keyId_ = newKeyPair(kSerial, ORVANE_KEY_EC_P256, 3, "growth");
    }
    static std::string keyId_;
};

std::string GrowthTest::keyId_;

// First in this file, so that the provider is loaded here for the first time. A module that
// really unloads at FreeLibrary must give back all it took; one that stays loaded must take
// nothing more on each LoadLibrary.
TEST_F(GrowthTest, LoadingAndFreeingTheProviderKeepsNothing) {
    bool unloads = false;
    Growth ours = measureCycles("LoadLibrary/FreeLibrary OrvaneCSP", [&] {
        HMODULE module = LoadLibraryA("OrvaneCSP.dll");
        ASSERT_NE(nullptr, module);
        using GetInterface = LONG(WINAPI*)(LPCWSTR, void**, DWORD);
        auto getInterface =
            reinterpret_cast<GetInterface>(reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")));
        void* table = nullptr;
        ASSERT_NE(nullptr, getInterface);
        EXPECT_EQ(0, getInterface(L"Orvane Cryptographic Provider CSP", &table, 0));
        FreeLibrary(module);
        unloads = GetModuleHandleA("OrvaneCSP.dll") == nullptr;
    });
    std::printf("[growth] FreeLibrary %s\n", unloads ? "unloads the provider" : "leaves the provider loaded");
    Growth control = measureCycles("LoadLibrary/FreeLibrary rsaenh", [] {
        HMODULE module = LoadLibraryA("rsaenh.dll");
        ASSERT_NE(nullptr, module);
        FreeLibrary(module);
    });
    expectNoGrowth(ours, &control);
}

TEST_F(GrowthTest, AcquiringAndReleasingContextsKeepsNothing) {
    auto cycleOf = [](const char* container, const char* provider, DWORD type, DWORD flags) {
        return [=] {
            HCRYPTPROV handle = 0;
            ASSERT_TRUE(CryptAcquireContextA(&handle, container, provider, type, flags)) << std::hex << GetLastError();
            ASSERT_TRUE(CryptReleaseContext(handle, 0));
        };
    };
    Growth control = measureCycles("CryptAcquireContext rsaenh",
                                   cycleOf(nullptr, MS_ENHANCED_PROV_A, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT));
    Growth ours = measureCycles("CryptAcquireContext OrvaneCSP",
                                cycleOf(keyId_.c_str(), kProviderName, PROV_RSA_FULL, 0));
    expectNoGrowth(ours, &control);
}

TEST_F(GrowthTest, OpeningAndFreeingKeyStorageProvidersAndKeysKeepsNothing) {
    expectNoGrowth(measureCycles("KSP OpenProvider/FreeProvider", [] {
        NCRYPT_PROV_HANDLE provider = 0;
        ASSERT_EQ(0, ksp().OpenProvider(&provider, L"Orvane Cryptographic Provider CSP", 0));
        ASSERT_EQ(0, ksp().FreeProvider(provider));
    }));

    KspProviderHandle provider;
    ASSERT_EQ(0, provider.status());
    std::wstring name = widen(keyId_);
    expectNoGrowth(measureCycles("KSP OpenKey/FreeKey", [&] {
        NCRYPT_KEY_HANDLE key = 0;
        ASSERT_EQ(0, ksp().OpenKey(provider.get(), &key, name.c_str(), 0, 0));
        ASSERT_EQ(0, ksp().FreeKey(provider.get(), key));
    }));
}

}  // namespace
