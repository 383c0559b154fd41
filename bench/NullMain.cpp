// orvane-bench-null: the provider's own cost, over a token library that does nothing. It runs
// from a folder of its own that holds a copy of the provider and the null OrvaneDSCLibrary.dll,
// with the provider registered under a name of its own (scripts/bench.sh sets this up).
//
//   orvane-bench-null PROVIDER_NAME ROUNDS FIGURES_FILE
//
// Prints its tables and writes the figures that have targets to FIGURES_FILE for orvane-bench.
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "bench/Calls.h"
#include "bench/Stats.h"

using namespace orvanebench;

namespace {

const size_t kDataSize = 1024;

std::string formatMillis(double millis) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f ms", millis);
    return text;
}
using SetKeyPairs = void (*)(int);

SetKeyPairs keyPairSetter() {
    HMODULE library = GetModuleHandleA("OrvaneDSCLibrary.dll");
    auto setter = library ? reinterpret_cast<SetKeyPairs>(
                                reinterpret_cast<void*>(GetProcAddress(library, "nullLibrarySetKeyPairs")))
                          : nullptr;
    if (setter == nullptr) die("finding the null library beside the program", GetLastError());
    return setter;
}

std::vector<double> differences(const std::vector<double>& a, const std::vector<double>& b) {
    std::vector<double> out;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) out.push_back(a[i] - b[i]);
    return out;
}

// Time from the registry write of logLevel to the end of the first provider call that follows
// it, over `switches` changes each way. Milliseconds.
void levelChangeDelay(LogLevel& logLevel, int switches, std::vector<double>& on, std::vector<double>& off) {
    for (int i = 0; i < switches; ++i)
        for (DWORD level : {3u, 0u}) {
            Sleep(20);  // as after a quiet moment: the watcher is asleep
            (level == 3 ? on : off).push_back(logLevel.set(level));
        }
}

// The provider's own acquire and release, called as advapi32 calls them but without its
// registry look-ups and module loading.
struct ProviderEntries {
    using Acquire = BOOL(WINAPI*)(HCRYPTPROV*, LPCSTR, DWORD, void*);
    using Release = BOOL(WINAPI*)(HCRYPTPROV, DWORD);
    Acquire acquire = nullptr;
    Release release = nullptr;
    unsigned char vtable[64] = {};  // only tested for null

    ProviderEntries() {
        HMODULE provider = GetModuleHandleA("OrvaneCSP.dll");
        if (provider != nullptr) {
            acquire = reinterpret_cast<Acquire>(reinterpret_cast<void*>(GetProcAddress(provider, "CPAcquireContext")));
            release = reinterpret_cast<Release>(reinterpret_cast<void*>(GetProcAddress(provider, "CPReleaseContext")));
        }
        if (acquire == nullptr || release == nullptr) die("finding CPAcquireContext in the loaded provider", 0);
    }
    bool acquireRelease(const char* container) {
        HCRYPTPROV context = 0;
        return acquire(&context, container, 0, vtable) && release(context, 0);
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: orvane-bench-null PROVIDER_NAME ROUNDS FIGURES_FILE\n");
        return 2;
    }
    providerName = argv[1];
    int rounds = std::max(1, std::atoi(argv[2]));
    std::setvbuf(stdout, nullptr, _IOLBF, 4096);
    SetKeyPairs setKeyPairs = keyPairSetter();
    setKeyPairs(2);
    TokenKey key = tokenKey("NULL-0001", std::string(32, '0'), false);
    LogLevel logLevel;
    logLevel.set(0);
    std::vector<Target> targets;

    Bytes data(kDataSize, 0x21), digest(32, 0x5A), sink;
    HCRYPTPROV held = acquireOrvane(key.containerName.c_str());
    check(held != 0, "CryptAcquireContext over the null library");
    Ksp ksp = openKsp();
    NCRYPT_KEY_HANDLE kspKey = openKspKey(ksp, key);
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    logLevel.probeWith(held);
    ProviderEntries entries;

    std::printf("\nProvider over a token library that does nothing (%d rounds)...\n", rounds);
    std::fflush(stdout);
    auto level3 = [&] { logLevel.set(3); };
    auto level0 = [&] { logLevel.set(0); };
    std::vector<Variant> v;
    v.push_back({"library", [&] { return libraryHashAndSign(key, data, sink); }, {}, {}, {}});
    v.push_back({"capi0", [&] { return cryptoApiHashAndSign(held, data, sink); }, {}, {}, {}});
    v.push_back({"capi3", [&] { return cryptoApiHashAndSign(held, data, sink); }, level3, level0, {}});
    v.push_back({"libinfosign", [&] { return libraryInfoAndSign(key, digest, sink); }, {}, {}, {}});
    v.push_back({"ksp", [&] { return kspSign(ksp, kspKey, false, digest, sink); }, {}, {}, {}});
    v.push_back({"acquire", [&] {
                     HCRYPTPROV provider = acquireOrvane(key.containerName.c_str());
                     return provider != 0 && CryptReleaseContext(provider, 0);
                 },
                 {}, {}, {}});
    v.push_back({"entries", [&] { return entries.acquireRelease(key.containerName.c_str()); }, {}, {}, {}});
    v.push_back({"wait", [&] { return WaitForSingleObject(event, 0) == WAIT_TIMEOUT; }, {}, {}, {}});
    runRounds(v, rounds);
    double heldOwn = median(differences(find(v, "capi0")->samples, find(v, "library")->samples));
    double kspOwn = median(differences(find(v, "ksp")->samples, find(v, "libinfosign")->samples));
    printTable("Null token library, 2 key pairs",
               {row(v, "library", "library calls direct (hash+sign, as the CSP)"),
                row(v, "capi0", "CryptoAPI hash+sign, held context, log 0"),
                row(v, "capi3", "CryptoAPI hash+sign, held context, log 3"),
                row(v, "libinfosign", "library calls direct (token info+sign, as the KSP)"),
                row(v, "ksp", "KSP SignHash, held key, log 0"),
                row(v, "acquire", "CryptoAPI acquire+release, log 0 (with advapi32's own work)"),
                row(v, "entries", "CPAcquireContext+CPReleaseContext called directly, log 0"),
                row(v, "wait", "WaitForSingleObject(event, 0): a server round trip")});
    std::printf("  provider's own cost per held signature: CryptoAPI %.1f \xC2\xB5s, KSP %.1f \xC2\xB5s (median of per-round "
                "differences to the library calls)\n",
                heldOwn, kspOwn);
    targets.push_back({"provider's own cost, CryptoAPI held hash+sign (null library)", heldOwn, 20, "us"});
    targets.push_back({"provider's own cost, KSP held sign (null library)", kspOwn, 20, "us"});
    targets.push_back({"provider's own acquire+release, 2 key pairs (null library)",
                       median(find(v, "entries")->samples), 50, "us"});

    // Acquire+release as the token holds more key pairs; each count in rounds of its own.
    const int kCounts[] = {2, 20, 100};
    std::map<int, double> at0, at3;
    std::vector<Row> rows;
    for (int count : kCounts) {
        setKeyPairs(count);
        std::vector<Variant> a;
        a.push_back({"acquire", find(v, "entries")->run, {}, {}, {}});
        a.push_back({"acquire3", find(v, "entries")->run, level3, level0, {}});
        runRounds(a, std::max(20, rounds / 2));
        at0[count] = median(a[0].samples);
        at3[count] = median(a[1].samples);
        rows.push_back(row(a, "acquire", "acquire+release, log 0, " + std::to_string(count) + " key pairs"));
        rows.push_back(row(a, "acquire3", "acquire+release, log 3, " + std::to_string(count) + " key pairs"));
    }
    setKeyPairs(2);
    double slope0 = (at0[100] - at0[2]) / 98, slope3 = (at3[100] - at3[2]) / 98;
    Row s0, s3;
    s0.variant = "acquire+release, log 0, per key pair 2->100";
    s0.medianMicros = slope0;
    s3.variant = "acquire+release, log 3, per key pair 2->100";
    s3.medianMicros = slope3;
    rows.push_back(s0);
    rows.push_back(s3);
    printTable("Null token library: CPAcquireContext+CPReleaseContext by key pairs (slopes: difference of medians per key pair)", rows);
    targets.push_back({"acquire+release growth per key pair, log 0 (null library)", slope0, 10, "us"});
    targets.push_back({"acquire+release growth per key pair, log 3 (null library)", slope3, 25, "us"});

    std::vector<double> on, off;
    levelChangeDelay(logLevel, std::max(10, rounds / 10), on, off);
    logLevel.set(0);
    std::printf("\nlogLevel change to the first provider line that follows it: on (0->3) median %.2f ms, max %.2f ms; "
                "off (3->0) median %.2f ms, max %.2f ms (%zu changes each)\n",
                median(on), percentile(on, 100), median(off), percentile(off, 100), on.size());
    std::vector<double> all(on);
    all.insert(all.end(), off.begin(), off.end());
    targets.push_back({"logLevel change taking effect (median; slowest " + formatMillis(percentile(all, 100)) + ")",
                       median(all), 5, "ms"});

    ksp.table->FreeKey(ksp.provider, kspKey);
    ksp.table->FreeProvider(ksp.provider);
    CryptReleaseContext(held, 0);
    CloseHandle(event);
    printTargets("Provider over the null library: targets", targets);
    writeTargets(argv[3], targets);
    return 0;
}
