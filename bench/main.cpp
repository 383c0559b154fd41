// orvane-bench: measures, side by side in one process, what a signature costs through the
// token library directly, through CryptoAPI with the provider, through the key storage
// provider's table, through Wine's rsaenh and through libgcrypt alone; then what a context
// costs as the token holds more key pairs, and how long a store update waits beside signers.
//
//   orvane-bench SERIAL RSA2048_KEYID P256_KEYID [ROUNDS]
//
// Each round runs every variant once (starting at a different variant each round), so slow
// drift of the machine hits all variants alike; ratios are medians of per-round ratios.
#include <windows.h>
#include <wincrypt.h>

#include <gcrypt.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <psapi.h>
#include <string>
#include <thread>
#include <vector>

#include "bench/Calls.h"
#include "bench/Stats.h"
#include "softtoken/SoftTokenAdmin.h"
#include "token/OrvaneDSCLibrary.h"

using namespace orvanebench;

namespace {

const size_t kDataSize = 1024;

// Every figure the issue sets a target for, gathered by the phases for the closing table.
std::vector<Target> targets;

// Wine's own provider with a 2048-bit signature key it generated in memory.
HCRYPTPROV openRsaenh() {
    HCRYPTPROV provider = 0;
    HCRYPTKEY key = 0;
    if (CryptAcquireContextA(&provider, nullptr, MS_ENH_RSA_AES_PROV_A, PROV_RSA_AES, CRYPT_VERIFYCONTEXT) &&
        CryptGenKey(provider, AT_SIGNATURE, 2048u << 16, &key)) {
        CryptDestroyKey(key);
        return provider;
    }
    die("rsaenh context with a generated RSA-2048 key", GetLastError());
}

// ---- libgcrypt, the floor --------------------------------------------------------------------

gcry_sexp_t generateGcryptKey(const char* parameters) {
    gcry_sexp_t request = nullptr, pair = nullptr;
    if (gcry_sexp_new(&request, parameters, 0, 1) || gcry_pk_genkey(&pair, request)) die("gcry_pk_genkey", 0);
    gcry_sexp_release(request);
    gcry_sexp_t secret = gcry_sexp_find_token(pair, "private-key", 0);
    gcry_sexp_release(pair);
    return secret;
}

bool gcryptSign(gcry_sexp_t secret, bool ecdsa, const Bytes& digest) {
    gcry_sexp_t data = nullptr, signature = nullptr;
    gcry_error_t error =
        ecdsa ? gcry_sexp_build(&data, nullptr, "(data (flags raw) (value %b))", static_cast<int>(digest.size()),
                                digest.data())
              : gcry_sexp_build(&data, nullptr, "(data (flags pkcs1) (hash sha256 %b))",
                                static_cast<int>(digest.size()), digest.data());
    if (!error) error = gcry_pk_sign(&signature, data, secret);
    gcry_sexp_release(data);
    gcry_sexp_release(signature);
    return !error;
}


// ---- Phase 1: a signature, every way -------------------------------------------------------

void signingPhase(const TokenKey& rsa, const TokenKey& ec, int rounds, LogLevel& logLevel) {
    Bytes data(kDataSize);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 131 + 7);
    Bytes digest(32);
    gcry_md_hash_buffer(GCRY_MD_SHA256, digest.data(), data.data(), data.size());

    logLevel.set(0);
    HCRYPTPROV heldRsa = acquireOrvane(rsa.containerName.c_str());
    check(heldRsa != 0, "CryptAcquireContext on the RSA container");
    logLevel.probeWith(heldRsa);
    HCRYPTPROV heldEc = acquireOrvane(ec.containerName.c_str());
    check(heldEc != 0, "CryptAcquireContext on the P-256 container");
    HCRYPTPROV rsaenh = openRsaenh();
    Ksp ksp = openKsp();
    NCRYPT_KEY_HANDLE kspRsa = openKspKey(ksp, rsa);
    NCRYPT_KEY_HANDLE kspP256 = openKspKey(ksp, ec);
    std::printf("Generating the libgcrypt floor keys (RSA-2048, P-256)...\n");
    std::fflush(stdout);
    gcry_sexp_t gcryRsa = generateGcryptKey("(genkey (rsa (nbits 4:2048)))");
    gcry_sexp_t gcryEc = generateGcryptKey("(genkey (ecc (curve \"NIST P-256\")))");

    // PKCS#1 v1.5 is deterministic: the library's and CryptoAPI's signatures must agree (byte order aside).
    Bytes direct, viaCryptoApi;
    check(libraryHashAndSign(rsa, data, direct), "library hash+sign (RSA)");
    check(cryptoApiHashAndSign(heldRsa, data, viaCryptoApi), "CryptoAPI hash+sign (RSA)");
    Bytes reversed(viaCryptoApi.rbegin(), viaCryptoApi.rend());
    if (direct.size() != 256 || reversed != direct) die("comparing the library's and CryptoAPI's RSA signatures", 0);

    Bytes sink;
    auto level3 = [&] { logLevel.set(3); };
    auto level0 = [&] { logLevel.set(0); };
    std::vector<Variant> v;
    for (const TokenKey* key : {&rsa, &ec}) {
        std::string tag = key->ecdsa ? "ec " : "rsa ";
        HCRYPTPROV held = key->ecdsa ? heldEc : heldRsa;
        NCRYPT_KEY_HANDLE kspKey = key->ecdsa ? kspP256 : kspRsa;
        gcry_sexp_t gcryKey = key->ecdsa ? gcryEc : gcryRsa;
        v.push_back({tag + "library", [&, key] { return libraryHashAndSign(*key, data, sink); }, {}, {}, {}});
        v.push_back({tag + "capi0", [&, held] { return cryptoApiHashAndSign(held, data, sink); }, {}, {}, {}});
        v.push_back({tag + "capi3", [&, held] { return cryptoApiHashAndSign(held, data, sink); }, level3, level0, {}});
        v.push_back({tag + "acquire", [&, key] { return cryptoApiAcquireSignRelease(*key, data, sink); }, {}, {}, {}});
        v.push_back({tag + "ksp", [&, key, kspKey] { return kspSign(ksp, kspKey, key->ecdsa, digest, sink); }, {}, {}, {}});
        v.push_back({tag + "libsign", [&, key] { return librarySign(*key, digest, sink); }, {}, {}, {}});
        v.push_back({tag + "libinfosign", [&, key] { return libraryInfoAndSign(*key, digest, sink); }, {}, {}, {}});
        v.push_back({tag + "gcrypt", [&, key, gcryKey] { return gcryptSign(gcryKey, key->ecdsa, digest); }, {}, {}, {}});
    }
    v.push_back({"rsa rsaenh", [&] { return cryptoApiHashAndSign(rsaenh, data, sink); }, {}, {}, {}});
    // The short library calls get rounds of their own: right after a signature, the first
    // call that waits for wineserver pays tens of microseconds more, whichever call it is.
    std::vector<Variant> calls;
    for (const TokenKey* key : {&rsa, &ec})
        calls.push_back({std::string(key->ecdsa ? "ec " : "rsa ") + "libhash", [&, key] { return libraryHashOnly(*key, data); },
                         {}, {}, {}});
    calls.push_back({"tokeninfo", [&] { return libraryTokenInfo(rsa); }, {}, {}, {}});
    calls.push_back({"keypairs", [&] { return libraryKeyPairList(rsa); }, {}, {}, {}});

    // One pass at each level first, to confirm that the level reaches the log writer.
    long long before = providerLogSize();
    check(cryptoApiHashAndSign(heldRsa, data, sink), "CryptoAPI hash+sign at level 0");
    long long atLevel0 = providerLogSize() - before;
    level3();
    before = providerLogSize();
    check(cryptoApiHashAndSign(heldRsa, data, sink), "CryptoAPI hash+sign at level 3");
    long long atLevel3 = providerLogSize() - before;
    level0();
    std::printf("Provider log per CryptoAPI hash+sign: %lld bytes at level 0, %lld bytes at level 3\n", atLevel0,
                atLevel3);
    if (atLevel0 != 0 || atLevel3 == 0) std::printf("NOTE: the log level did not take effect as expected\n");

    std::printf("Signing rounds: %d (each round runs all %zu variants once)...\n", rounds, v.size());
    std::fflush(stdout);
    double start = nowMicros();
    runRounds(v, rounds);
    runRounds(calls, rounds);
    std::printf("Signing rounds took %.1f s\n", (nowMicros() - start) / 1e6);

    for (const char* tag : {"rsa ", "ec "}) {
        std::string t = tag;
        bool isRsa = t == "rsa ";
        std::string title = isRsa ? "RSA-2048, SHA-256 over 1 KiB (" : "P-256, SHA-256 over 1 KiB (";
        title += std::to_string(rounds) + " rounds)";
        std::vector<Row> rows = {
            row(v, t + "library", "library calls direct (hash+sign, as the CSP)"),
            row(v, t + "capi0", "CryptoAPI held context, log 0", "", t + "library", "provider overhead: / library calls"),
            row(v, t + "capi3", "CryptoAPI held context, log 3", "", t + "capi0", "/ log 0"),
            row(v, t + "acquire", "CryptoAPI acquire+sign+release", "", t + "capi0", "/ held context"),
            row(v, t + "libinfosign", "library calls direct (token info+sign, as the KSP)"),
            row(v, t + "ksp", "KSP SignHash, held key (digest given)", "", t + "libinfosign", "provider overhead: / library calls"),
            row(v, t + "libsign", "orvane_signHash alone (digest given)", "", t + "gcrypt", "token sign / libgcrypt"),
            row(calls, t + "libhash", "orvane_initHash+updateHash+finalHash (1 KiB)"),
        };
        if (isRsa)
            rows.push_back(row(v, "rsa rsaenh", "Wine rsaenh held context (own 2048-bit key)", "rsa capi0",
                               "rsa rsaenh", "ours (log 0) / rsaenh"));
        rows.push_back(row(v, t + "gcrypt", isRsa ? "libgcrypt PKCS#1 sign (floor)" : "libgcrypt ECDSA sign (floor)"));
        if (isRsa) {
            rows.push_back(row(calls, "keypairs", "orvane_getKeyPairList alone (2 key pairs)"));
            rows.push_back(row(calls, "tokeninfo", "orvane_getTokenInfo alone"));
        }
        printTable(title, rows);
    }
    targets.push_back({"CryptoAPI hash+sign, held context / library calls direct (RSA)",
                       pairedRatio(find(v, "rsa capi0")->samples, find(v, "rsa library")->samples), 1.03, "x"});
    targets.push_back({"KSP sign, held key / library calls direct (RSA)",
                       pairedRatio(find(v, "rsa ksp")->samples, find(v, "rsa libinfosign")->samples), 1.03, "x"});
    targets.push_back({"CryptoAPI hash+sign, held context / Wine rsaenh (RSA-2048)",
                       pairedRatio(find(v, "rsa capi0")->samples, find(v, "rsa rsaenh")->samples), 1.5, "x"});
    targets.push_back({"CryptoAPI hash+sign at log 3 / log 0 (RSA)",
                       pairedRatio(find(v, "rsa capi3")->samples, find(v, "rsa capi0")->samples), 1.10, "x"});
    targets.push_back({"token sign / libgcrypt (RSA)",
                       pairedRatio(find(v, "rsa libsign")->samples, find(v, "rsa gcrypt")->samples), 1.10, "x"});

    gcry_sexp_release(gcryRsa);
    gcry_sexp_release(gcryEc);
    ksp.table->FreeKey(ksp.provider, kspRsa);
    ksp.table->FreeKey(ksp.provider, kspP256);
    ksp.table->FreeProvider(ksp.provider);
    CryptReleaseContext(rsaenh, 0);
    // heldRsa and heldEc stay open: they keep the provider loaded for the later phases, as
    // in a process that already uses it.
}

// ---- Phase 2: threads signing at once -------------------------------------------------------

// Throughput and per-signature latency of `threads` threads, each running its own worker
// (with its own held handles) for about `seconds`.
struct ThreadFigures {
    double signatures = 0;
    double seconds = 0;
    std::vector<double> latencies;
};

void runThreads(std::vector<std::function<bool()>>& workers, double seconds, ThreadFigures& figures) {
    figures = ThreadFigures();
    std::atomic<int> ready{0};
    std::atomic<bool> go{false}, failed{false};
    std::vector<std::vector<double>> latencies(workers.size());
    std::vector<std::thread> threads;
    double deadline = 0;
    for (size_t i = 0; i < workers.size(); ++i)
        threads.emplace_back([&, i] {
            ++ready;
            while (!go) Sleep(0);
            while (nowMicros() < deadline) {
                double start = nowMicros();
                if (!workers[i]()) failed = true;
                latencies[i].push_back(nowMicros() - start);
            }
        });
    while (ready != static_cast<int>(workers.size())) Sleep(0);
    double start = nowMicros();
    deadline = start + seconds * 1e6;
    go = true;
    for (std::thread& thread : threads) thread.join();
    if (failed) die("a signing thread", GetLastError());
    figures.seconds += (nowMicros() - start) / 1e6;
    for (const std::vector<double>& own : latencies) {
        figures.signatures += static_cast<double>(own.size());
        figures.latencies.insert(figures.latencies.end(), own.begin(), own.end());
    }
}

void threadsPhase(const TokenKey& rsa, int repetitions) {
    const int kCounts[] = {1, 2, 4, 8};
    const double kSeconds = 0.5;
    Bytes data(kDataSize, 0x33), digest(32, 0x5A);
    std::vector<Row> rows;
    std::printf("\nThread rounds: %d per count, %.1f s each, every way in turn...\n", repetitions, kSeconds);
    std::fflush(stdout);
    for (int count : kCounts) {
        // Handles are not shared between threads: each has its own context, provider and key.
        std::vector<HCRYPTPROV> contexts;
        std::vector<Ksp> ksps;
        std::vector<NCRYPT_KEY_HANDLE> keys;
        std::vector<Bytes> sinks(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            contexts.push_back(acquireOrvane(rsa.containerName.c_str()));
            check(contexts.back() != 0, "CryptAcquireContext for a signing thread");
            ksps.push_back(openKsp());
            keys.push_back(openKspKey(ksps.back(), rsa));
        }
        const char* names[] = {"library (as the CSP)", "CryptoAPI held context", "library (as the KSP)",
                               "KSP held key"};
        std::vector<std::vector<std::function<bool()>>> ways(4);
        for (int i = 0; i < count; ++i) {
            ways[0].push_back([&, i] { return libraryHashAndSign(rsa, data, sinks[static_cast<size_t>(i)]); });
            ways[1].push_back([&, i] { return cryptoApiHashAndSign(contexts[static_cast<size_t>(i)], data, sinks[static_cast<size_t>(i)]); });
            ways[2].push_back([&, i] { return libraryInfoAndSign(rsa, digest, sinks[static_cast<size_t>(i)]); });
            ways[3].push_back([&, i] {
                return kspSign(ksps[static_cast<size_t>(i)], keys[static_cast<size_t>(i)], false, digest,
                               sinks[static_cast<size_t>(i)]);
            });
        }
        // Pooled figures per way, and each repetition's own for the paired ratios.
        std::vector<ThreadFigures> figures(4);
        std::vector<std::vector<ThreadFigures>> each(4, std::vector<ThreadFigures>(static_cast<size_t>(repetitions)));
        for (int repetition = 0; repetition < repetitions; ++repetition)
            for (size_t step = 0; step < ways.size(); ++step) {
                size_t way = (static_cast<size_t>(repetition) + step) % ways.size();
                ThreadFigures& run = each[way][static_cast<size_t>(repetition)];
                runThreads(ways[way], kSeconds, run);
                figures[way].signatures += run.signatures;
                figures[way].seconds += run.seconds;
                figures[way].latencies.insert(figures[way].latencies.end(), run.latencies.begin(), run.latencies.end());
            }
        auto throughput = [](const ThreadFigures& f) { return f.signatures / f.seconds; };
        for (size_t way = 0; way < ways.size(); ++way) {
            Row r;
            r.variant = std::to_string(count) + (count == 1 ? " thread, " : " threads, ") + names[way];
            r.medianMicros = median(figures[way].latencies);
            r.p99Micros = percentile(figures[way].latencies, 99);
            char text[96];
            if (way % 2 == 1) {
                std::vector<double> throughputRatios, p99Ratios;
                for (int repetition = 0; repetition < repetitions; ++repetition) {
                    const ThreadFigures& ours = each[way][static_cast<size_t>(repetition)];
                    const ThreadFigures& direct = each[way - 1][static_cast<size_t>(repetition)];
                    throughputRatios.push_back(throughput(ours) / throughput(direct));
                    p99Ratios.push_back(percentile(ours.latencies, 99) / percentile(direct.latencies, 99));
                }
                double throughputRatio = median(throughputRatios), p99Ratio = median(p99Ratios);
                r.ratio = throughputRatio;
                std::snprintf(text, sizeof text, "%.1f/s; throughput / library, p99 / library %.3f",
                              throughput(figures[way]), p99Ratio);
                if (count == 8) {
                    std::string face = way == 1 ? "CryptoAPI" : "KSP";
                    targets.push_back({"8 threads, " + face + " held: throughput / library direct", throughputRatio,
                                       0.95, "x", true});
                    targets.push_back({"8 threads, " + face + " held: p99 latency / library direct", p99Ratio, 1.10,
                                       "x"});
                }
            } else {
                std::snprintf(text, sizeof text, "%.1f/s", throughput(figures[way]));
            }
            r.ratioOf = text;
            rows.push_back(r);
        }
        for (size_t i = 0; i < contexts.size(); ++i) {
            CryptReleaseContext(contexts[i], 0);
            ksps[i].table->FreeKey(ksps[i].provider, keys[i]);
            ksps[i].table->FreeProvider(ksps[i].provider);
        }
    }
    printTable("Threads signing at once (RSA-2048, each with its own handles; latency per signature; ratios are "
               "medians over repetitions)",
               rows);
}

// ---- Phase 3: a store update beside eight signers --------------------------------------------

void storeUpdatePhase(const TokenKey& rsa, int rounds) {
    const int kThreads = 8;
    Bytes digest(32, 0x5A);
    std::atomic<bool> stop{false}, paused{true};
    std::atomic<int> inFlight{0};
    std::atomic<long> signatures{0}, failures{0};
    std::vector<std::thread> signers;
    for (int i = 0; i < kThreads; ++i)
        signers.emplace_back([&] {
            Bytes signature;
            while (!stop) {
                if (paused) {
                    Sleep(1);
                    continue;
                }
                ++inFlight;
                if (!paused) {
                    if (librarySign(rsa, digest, signature))
                        ++signatures;
                    else
                        ++failures;
                }
                --inFlight;
            }
        });

    std::vector<double> idle, busy;
    std::printf("\nStore update rounds: %d (setPlugged with signers paused, then with 8 signing)...\n", rounds);
    std::fflush(stdout);
    for (int round = 0; round < rounds; ++round) {
        paused = true;
        while (inFlight != 0) Sleep(1);
        double start = nowMicros();
        if (softtoken::admin::setPlugged(rsa.serial, true) != 0) die("setPlugged (idle)", 0);
        idle.push_back(nowMicros() - start);

        paused = false;
        Sleep(15);  // every signer is inside a signature by now
        start = nowMicros();
        if (softtoken::admin::setPlugged(rsa.serial, true) != 0) die("setPlugged (busy)", 0);
        busy.push_back(nowMicros() - start);
    }
    stop = true;
    paused = false;
    for (std::thread& signer : signers) signer.join();

    Row quiet{"store update, signers paused", median(idle), percentile(idle, 99), -1, ""};
    Row loaded{"store update, 8 threads signing", median(busy), percentile(busy, 99), pairedRatio(busy, idle),
               "/ signers paused"};
    printTable("Store update wait (setPlugged), " + std::to_string(rounds) + " rounds; " +
                   std::to_string(signatures.load()) + " signatures beside it, " + std::to_string(failures.load()) +
                   " failed",
               {quiet, loaded});
    if (failures != 0) std::printf("NOTE: signatures failed while the store was updated\n");
}

// ---- Phase 4: contexts as the token holds more key pairs -------------------------------------

bool enumerateContainers(HCRYPTPROV provider, size_t& names) {
    names = 0;
    char name[256];
    for (DWORD flags = CRYPT_FIRST;; flags = CRYPT_NEXT) {
        DWORD size = sizeof name;
        if (!CryptGetProvParam(provider, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &size, flags)) break;
        ++names;
    }
    return GetLastError() == ERROR_NO_MORE_ITEMS;
}

bool acquireEnumerateRelease(size_t& names) {
    HCRYPTPROV provider = acquireOrvane(nullptr, CRYPT_VERIFYCONTEXT);
    if (provider == 0) return false;
    bool ended = enumerateContainers(provider, names);
    DWORD error = GetLastError();
    CryptReleaseContext(provider, 0);
    SetLastError(ended ? 0 : error);
    return ended;
}

// Median over rounds of (high[i] - low[i]) / keyPairsAdded: the cost of one more key pair.
double pairedSlope(const std::vector<double>& high, const std::vector<double>& low, size_t keyPairsAdded) {
    std::vector<double> slopes;
    for (size_t i = 0; i < high.size() && i < low.size(); ++i)
        slopes.push_back((high[i] - low[i]) / static_cast<double>(keyPairsAdded));
    return median(slopes);
}

Row slopeRow(const std::string& label, size_t from, size_t to, double micros, const std::string& how) {
    Row r;
    r.variant = label + " per key pair, " + std::to_string(from) + "->" + std::to_string(to);
    r.medianMicros = micros;
    r.ratioOf = how;
    return r;
}

void keyCountPhase(const TokenKey& rsa, int rounds, LogLevel& logLevel) {
    const size_t kCounts[] = {2, 20, 100};
    std::vector<Row> rows;
    std::map<size_t, double> acquireAt, acquireAtLevel3, enumerateAt;
    std::vector<size_t> actual;
    // Contexts opened at each count; each lists the containers it saw at acquire, so their
    // enumerations can alternate in one set of rounds once all counts exist.
    std::vector<HCRYPTPROV> heldAtCount;
    std::printf("\nKey-count rounds: %d per count (log 0, and acquire+release at log 3)...\n", rounds);
    std::fflush(stdout);
    for (size_t target : kCounts) {
        size_t have = orvane_getKeyPairList(rsa.serial.c_str(), nullptr).size();
        while (have < target) {
            std::string keyId;
            if (softtoken::admin::generateKeyPair(rsa.serial, ORVANE_KEY_EC_P256, "bench filler", 3, 0, keyId) != 0)
                die("generating a filler key pair", 0);
            ++have;
        }
        HCRYPTPROV held = acquireOrvane(nullptr, CRYPT_VERIFYCONTEXT);
        check(held != 0, "CryptAcquireContext for enumeration");
        heldAtCount.push_back(held);
        actual.push_back(have);

        // Acquire costs depend on the token as it is now: these rounds cannot mix counts.
        size_t names = 0;
        std::vector<Variant> v;
        v.push_back({"acquire", [&] {
                         HCRYPTPROV provider = acquireOrvane(rsa.containerName.c_str());
                         return provider != 0 && CryptReleaseContext(provider, 0);
                     },
                     {}, {}, {}});
        v.push_back({"enumerate", [&] { return acquireEnumerateRelease(names); }, {}, {}, {}});
        v.push_back({"acquire3", v[0].run, [&] { logLevel.set(3); }, [&] { logLevel.set(0); }, {}});
        runRounds(v, rounds);
        if (names != have) std::printf("NOTE: PP_ENUMCONTAINERS listed %zu containers for %zu key pairs\n", names, have);
        acquireAt[have] = median(v[0].samples);
        enumerateAt[have] = median(v[1].samples);
        acquireAtLevel3[have] = median(v[2].samples);
        rows.push_back(row(v, "acquire", "acquire+release, " + std::to_string(have) + " key pairs"));
        rows.push_back(row(v, "acquire3", "acquire+release at log 3, " + std::to_string(have) + " key pairs"));
        rows.push_back(row(v, "enumerate",
                           "acquire+PP_ENUMCONTAINERS all+release, " + std::to_string(have) + " key pairs"));
    }

    // Enumeration alone on the held contexts, all counts in the same rounds, beside one
    // provider call that touches neither the token nor the key pairs (the entry's own cost).
    std::vector<Variant> held;
    std::vector<size_t> listed(heldAtCount.size());
    for (size_t i = 0; i < heldAtCount.size(); ++i)
        held.push_back({"held " + std::to_string(i),
                        [&, i] { return enumerateContainers(heldAtCount[i], listed[i]); }, {}, {}, {}});
    held.push_back({"name", [&] {
                        char name[128];
                        DWORD size = sizeof name;
                        return CryptGetProvParam(heldAtCount[0], PP_NAME, reinterpret_cast<BYTE*>(name), &size, 0) !=
                               FALSE;
                    },
                    {}, {}, {}});
    // A bare wineserver round trip, the unit that Wine-side costs come in.
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    check(event != nullptr, "CreateEvent");
    held.push_back({"wait", [&] { return WaitForSingleObject(event, 0) == WAIT_TIMEOUT; }, {}, {}, {}});
    runRounds(held, 4 * rounds);
    CloseHandle(event);
    for (size_t i = 0; i < heldAtCount.size(); ++i) {
        if (listed[i] != actual[i])
            std::printf("NOTE: a held context listed %zu containers for %zu key pairs\n", listed[i], actual[i]);
        rows.push_back(row(held, "held " + std::to_string(i),
                           "PP_ENUMCONTAINERS all, held context, " + std::to_string(actual[i]) + " key pairs"));
        CryptReleaseContext(heldAtCount[i], 0);
    }
    rows.push_back(row(held, "name", "one CryptGetProvParam(PP_NAME), held context", "", "wait", "/ server round trip"));
    rows.push_back(row(held, "wait", "WaitForSingleObject(event, 0): a server round trip"));

    // The cost of one more key pair, between neighbouring counts and over the whole range.
    auto fromMedians = [&](std::map<size_t, double>& at, size_t from, size_t to) {
        return (at[to] - at[from]) / static_cast<double>(to - from);
    };
    for (auto [at, label] : {std::pair{&acquireAt, "acquire+release"}, std::pair{&acquireAtLevel3, "acquire+release, log 3"},
                             std::pair{&enumerateAt, "acquire+enumerate"}}) {
        for (size_t i = 0; i + 1 < actual.size(); ++i)
            rows.push_back(slopeRow(label, actual[i], actual[i + 1], fromMedians(*at, actual[i], actual[i + 1]),
                                    "difference of medians"));
        rows.push_back(slopeRow(label, actual.front(), actual.back(),
                                fromMedians(*at, actual.front(), actual.back()), "difference of medians"));
    }
    for (size_t i = 0; i + 1 < actual.size(); ++i)
        rows.push_back(slopeRow("enumerate, held context", actual[i], actual[i + 1],
                                pairedSlope(held[i + 1].samples, held[i].samples, actual[i + 1] - actual[i]),
                                "per-round pairs"));
    rows.push_back(slopeRow("enumerate, held context", actual.front(), actual.back(),
                            pairedSlope(held[actual.size() - 1].samples, held[0].samples, actual.back() - actual.front()),
                            "per-round pairs"));
    printTable("Contexts by key pairs on the token (slopes in \xC2\xB5s per key pair)", rows);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4 || argc > 5) {
        std::fprintf(stderr, "usage: orvane-bench SERIAL RSA2048_KEYID P256_KEYID [ROUNDS]\n");
        return 2;
    }
    int rounds = argc == 5 ? std::atoi(argv[4]) : 200;
    if (rounds < 1) rounds = 1;
    std::setvbuf(stdout, nullptr, _IOLBF, 4096);

    gcry_check_version(nullptr);
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);

    TokenKey rsa = tokenKey(argv[1], argv[2], false);
    TokenKey ec = tokenKey(argv[1], argv[3], true);
    LogLevel logLevel;

    double roundTrip = serverRoundTripMicros();
    std::printf("wineserver round trip now: %.1f \xC2\xB5s (about 5-15 on a busy machine, up to about 100 when an idle "
                "core must wake)\n", roundTrip);
    signingPhase(rsa, ec, rounds, logLevel);
    threadsPhase(rsa, std::max(3, rounds / 40));
    storeUpdatePhase(rsa, std::max(20, rounds / 2));
    keyCountPhase(rsa, std::max(10, rounds / 4), logLevel);
    logLevel.set(3);  // the prefix's default again

    // The provider's own figures come from orvane-bench-null, run before this program.
    if (const char* file = std::getenv("ORVANE_BENCH_NULL_FIGURES")) {
        std::vector<Target> own = readTargets(file);
        if (own.empty()) std::printf("NOTE: no figures from the null library run in %s\n", file);
        targets.insert(targets.end(), own.begin(), own.end());
    }
    double roundTripAfter = serverRoundTripMicros();
    printTargets("Targets (wineserver round trip " + formatMicros(roundTrip) + " before, " + formatMicros(roundTripAfter) +
                     " after the runs)",
                 targets);
    return 0;
}
