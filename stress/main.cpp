// orvane-stress: worker threads sign, decrypt and enumerate through CryptoAPI (Wine's advapi32)
// and through the key storage provider's table while another process unplugs and plugs the
// token. Every signature and plaintext is checked with Wine's bcrypt and rsaenh; every failure
// is set against the unplug windows; a watchdog ends the run on a hang.
//
//   orvane-stress [--threads N] [--ops N] [--unplug-ms P] [--backoff-ms B] [--grace-ms G]
//                 [--hang-s S] [--dialog cancel|pin] [--sign-on-only] [--seed N] [--store NAME]
//
// It provisions its own token (signed on, an RSA-2048 and a P-256 key pair) in a fresh store
// folder NAME under $ORVANE_TEST_WORK and runs $ORVANE_BIN/orvane-token.exe to unplug it.
// Exit code: 0 clean, 1 errors, 2 hang, 3 crash, 4 the run could not be set up.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "encoding/Hex.h"
#include "softtoken/SoftTokenAdmin.h"
#include "stress/Desktop.h"
#include "stress/PlugCycler.h"
#include "stress/Report.h"
#include "stress/Watchdog.h"
#include "stress/Worker.h"
#include "tests/support/KspHarness.h"
#include "tests/support/TestSupport.h"

namespace stress {

double nowMs() {
    static LARGE_INTEGER frequency, start;
    static const bool started = QueryPerformanceFrequency(&frequency) && QueryPerformanceCounter(&start);
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return started ? (now.QuadPart - start.QuadPart) * 1000.0 / frequency.QuadPart : 0;
}

}  // namespace stress

namespace {

using namespace stress;

const char kUsage[] =
    "usage: orvane-stress [--threads N] [--ops N] [--unplug-ms P] [--backoff-ms B] [--grace-ms G]\n"
    "                     [--hang-s S] [--dialog cancel|pin] [--sign-on-only] [--seed N] [--store NAME]\n"
    "  --threads N     worker threads (default 8)\n"
    "  --ops N         operations per thread (default 10000)\n"
    "  --unplug-ms P   the token is unplugged, then plugged, every P ms (default 300; 0: never)\n"
    "  --backoff-ms B  a worker pauses B ms after a failed operation (default 25)\n"
    "  --grace-ms G    failures up to G ms after a replug still count as the unplug's (default 1000)\n"
    "  --hang-s S      a thread that makes no progress for S seconds is a hang (default 30)\n"
    "  --dialog D      what the user does with a PIN dialog: cancel it, or type the PIN (default cancel)\n"
    "  --sign-on-only  no PIN is given (PP_SIGNATURE_PIN, SmartCardPin): the token's sign-on alone\n"
    "  --seed N        seed of the operation mix (default 1)\n"
    "  --store NAME    fresh token store folder under $ORVANE_TEST_WORK (default stress)\n";

const char kSerial[] = "STRESS-0001";
const char kPin[] = "1234";

struct Options {
    int threads = 8;
    long long ops = 10000;
    unsigned unplugMs = 300;
    unsigned backoffMs = 25;
    double graceMs = 1000;
    unsigned hangSeconds = 30;
    bool typePin = false;
    bool signOnOnly = false;
    unsigned seed = 1;
    std::string store = "stress";
};

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        std::string flag = argv[i];
        if (flag == "--sign-on-only") {
            options.signOnOnly = true;
            continue;
        }
        if (i + 1 >= argc) return false;
        std::string value = argv[++i];
        long long number = std::atoll(value.c_str());
        if (flag == "--threads" && number > 0) options.threads = static_cast<int>(number);
        else if (flag == "--ops" && number > 0) options.ops = number;
        else if (flag == "--unplug-ms" && number >= 0) options.unplugMs = static_cast<unsigned>(number);
        else if (flag == "--backoff-ms" && number >= 0) options.backoffMs = static_cast<unsigned>(number);
        else if (flag == "--grace-ms" && number >= 0) options.graceMs = static_cast<double>(number);
        else if (flag == "--hang-s" && number > 0) options.hangSeconds = static_cast<unsigned>(number);
        else if (flag == "--dialog" && (value == "cancel" || value == "pin")) options.typePin = value == "pin";
        else if (flag == "--seed") options.seed = static_cast<unsigned>(number);
        else if (flag == "--store" && !value.empty()) options.store = value;
        else return false;
    }
    return true;
}

int setupFailed(const std::string& what, long code) {
    std::fprintf(stderr, "orvane-stress: %s failed (%ld)\n", what.c_str(), code);
    return 4;
}

// A token signed on in Token Manager, so that no PIN dialog is needed while it is plugged in.
int provision(const Options& options, RunSetup& setup) {
    namespace admin = softtoken::admin;
    std::string folder = orvanetest::useFreshStore(options.store);
    if (int status = admin::createToken(kSerial, "Orvane Stress Token", kPin, 10)) return setupFailed("createToken", status);
    if (int status = admin::setSignOn(kSerial, 1, 1)) return setupFailed("setSignOn", status);
    if (int status = admin::generateKeyPair(kSerial, ORVANE_KEY_RSA_2048, "Stress RSA-2048", 3, 0, setup.rsaContainer))
        return setupFailed("RSA-2048 key generation", status);
    if (int status = admin::generateKeyPair(kSerial, ORVANE_KEY_EC_P256, "Stress P-256", 3, 0, setup.ecContainer))
        return setupFailed("P-256 key generation", status);
    if (int status = admin::exportPublicKey(kSerial, setup.rsaContainer, setup.rsaPublicKey))
        return setupFailed("RSA public key export", status);
    if (int status = admin::exportPublicKey(kSerial, setup.ecContainer, setup.ecPublicKey))
        return setupFailed("P-256 public key export", status);
    setup.pin = options.signOnOnly ? "" : kPin;
    setup.opsPerThread = options.ops;
    setup.backoffMs = options.backoffMs;
    setup.seed = options.seed;
    std::printf("token %s in %s: RSA-2048 %s, P-256 %s\n", kSerial, folder.c_str(), setup.rsaContainer.c_str(),
                setup.ecContainer.c_str());
    return 0;
}

// The independent side must refuse what is wrong, or the run proves nothing: it accepts the
// token's own signatures and refuses them with one bit flipped, and what it encrypts the token
// decrypts. The token library is called directly here, without the provider.
bool checkerRefusesWrongResults(const RunSetup& setup) {
    Checker checker(setup.rsaPublicKey, setup.ecPublicKey);
    Bytes data = orvanetest::bytesOf("checking the checker"), digest;
    if (!checker.ready() || !checker.digest(BCRYPT_SHA256_ALGORITHM, data, digest)) return false;
    for (bool ec : {false, true}) {
        Bytes keyId = orvane::hexToBytes(ec ? setup.ecContainer : setup.rsaContainer), signature(512);
        int length = static_cast<int>(signature.size());
        if (orvane_signHash(kSerial, keyId.data(), "", digest.data(), static_cast<int>(digest.size()), signature.data(),
                            &length, false, nullptr) != 0)
            return false;
        signature.resize(static_cast<size_t>(length));
        auto verify = [&] {
            return ec ? checker.verifyEc(digest, signature) : checker.verifyRsa(BCRYPT_SHA256_ALGORITHM, digest, signature);
        };
        if (!verify()) return false;
        signature[signature.size() / 2] ^= 0x01;
        if (verify()) return false;
    }
    Bytes plain = orvanetest::bytesOf("a secret"), cipher, keyId = orvane::hexToBytes(setup.rsaContainer);
    if (!checker.encryptRsa(plain, cipher)) return false;
    Bytes bigEndian(cipher.rbegin(), cipher.rend());
    unsigned char* decrypted = nullptr;
    int length = 0;
    if (orvane_decrypt(kSerial, keyId.data(), "", bigEndian.data(), static_cast<int>(bigEndian.size()), &decrypted,
                       &length, false, nullptr) != 0)
        return false;
    bool same = Bytes(decrypted, decrypted + length) == plain;
    delete[] decrypted;
    return same;
}

bool heapsValid() {
    HANDLE heaps[256];
    DWORD count = GetProcessHeaps(256, heaps);
    for (DWORD i = 0; i < count && i < 256; ++i)
        if (!HeapValidate(heaps[i], 0, nullptr)) return false;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr, "%s", kUsage);
        return 4;
    }
    setvbuf(stdout, nullptr, _IOLBF, 4096);
    nowMs();

    std::vector<std::unique_ptr<Progress>> progresses;
    std::vector<Progress*> workers, all;
    for (int i = 0; i < options.threads; ++i) {
        progresses.push_back(std::make_unique<Progress>());
        progresses.back()->name = "worker " + std::to_string(i);
        workers.push_back(progresses.back().get());
    }
    Progress cyclerProgress, probeProgress, desktopProgress;
    cyclerProgress.name = "plug cycler";
    probeProgress.name = "probe";
    desktopProgress.name = "desktop";
    all = workers;
    for (Progress* other : {&cyclerProgress, &probeProgress, &desktopProgress}) all.push_back(other);
    PlugCycler cycler(kSerial, options.unplugMs, cyclerProgress, probeProgress);
    installCrashReport(all, [&cycler] { cycler.abandon(); });

    RunSetup setup;
    if (int failed = provision(options, setup)) return failed;
    try {
        orvanetest::ksp();
    } catch (const std::exception& error) {
        return setupFailed(error.what(), 0);
    }
    if (!checkerRefusesWrongResults(setup)) return setupFailed("the check of the independent side (bcrypt, rsaenh)", 0);
    bool dialogsShown = Desktop::canShowDialogs();
    std::printf("%d threads x %lld operations, unplug every %u ms, %s, PIN dialogs %s%s\n", options.threads,
                options.ops, options.unplugMs, options.signOnOnly ? "no PIN given" : "PIN given on every open",
                options.typePin ? "answered with the PIN" : "cancelled",
                dialogsShown ? "" : " (but no dialog can be shown here)");

    Desktop desktop(workers, options.typePin ? kPin : "", desktopProgress);
    Watchdog watchdog(all, options.hangSeconds);
    std::vector<std::unique_ptr<Worker>> running;
    for (int i = 0; i < options.threads; ++i) running.push_back(std::make_unique<Worker>(i, setup, cycler, *workers[i]));

    double started = nowMs();
    watchdog.start();
    desktop.start();
    cycler.start();
    std::vector<std::thread> threads;
    for (auto& worker : running) threads.emplace_back([&worker] { worker->run(); });
    // A line a minute, so that a long run shows its rate while it goes.
    for (double lastLine = nowMs();;) {
        bool allDone = true;
        long long done = 0;
        for (const Progress* worker : workers) {
            allDone = allDone && worker->finished.load();
            done += worker->operations.load();
        }
        if (allDone) break;
        Sleep(200);
        if (nowMs() - lastLine >= 60000) {
            lastLine = nowMs();
            std::printf("%.0f s: %lld of %lld operations\n", (lastLine - started) / 1000, done,
                        options.threads * options.ops);
        }
    }
    for (std::thread& thread : threads) thread.join();
    double finished = nowMs();
    cycler.stop();
    desktop.stop();
    watchdog.stop();

    RunFacts facts;
    facts.threads = options.threads;
    facts.opsPerThread = options.ops;
    facts.periodMs = options.unplugMs;
    facts.graceMs = options.graceMs;
    facts.durationMs = finished - started;
    facts.pinTyped = options.typePin;
    facts.dialogsShown = dialogsShown;
    for (auto& worker : running) facts.workers.push_back(worker->totals());
    facts.cycles = cycler.cycles();
    facts.absences = cycler.absences();
    facts.windows = desktop.events();
    facts.toolFailures = cycler.toolFailures();
    facts.heapsValid = heapsValid();
    return printSummary(facts) == 0 ? 0 : 1;
}
