#include "stress/Report.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <tuple>

namespace stress {
namespace {

struct Allowance {
    const char* step;
    std::vector<DWORD> codes;
    Anomaly anomaly;
};

// What each call answers when the token is away, as the provider is written: no token listed
// when opening, the token library's failures of hashing, signing, decryption and PIN checks,
// an empty key list, and (silent calls) a sign-on that cannot be shown.
const Allowance kAllowances[] = {
    {"CryptAcquireContext", {static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL)}, Anomaly::None},
    {"CryptSetProvParam(PP_SIGNATURE_PIN)", {static_cast<DWORD>(NTE_KEYSET_ENTRY_BAD)}, Anomaly::None},
    {"CryptCreateHash", {static_cast<DWORD>(NTE_FAIL)}, Anomaly::None},
    {"CryptHashData", {static_cast<DWORD>(NTE_FAIL)}, Anomaly::None},
    {"CryptSignHash(size)", {static_cast<DWORD>(NTE_FAIL), static_cast<DWORD>(NTE_NO_KEY)}, Anomaly::None},
    {"CryptSignHash", {static_cast<DWORD>(NTE_FAIL), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL)}, Anomaly::None},
    {"CryptGetUserKey(AT_KEYEXCHANGE)", {static_cast<DWORD>(NTE_NO_KEY)}, Anomaly::None},
    {"CryptDecrypt", {static_cast<DWORD>(NTE_FAIL), static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL)}, Anomaly::None},
    {"CryptGetProvParam(PP_ENUMCONTAINERS)", {}, Anomaly::ShortEnumeration},
    {"KSPOpenProvider", {static_cast<DWORD>(NTE_DEVICE_NOT_FOUND)}, Anomaly::None},
    {"KSPSetProviderProperty(SmartCardPin)", {static_cast<DWORD>(NTE_VALIDATION_FAILED)}, Anomaly::None},
    {"KSPOpenKey", {static_cast<DWORD>(NTE_NO_KEY)}, Anomaly::None},
    {"KSPSignHash", {static_cast<DWORD>(NTE_SILENT_CONTEXT), static_cast<DWORD>(NTE_INTERNAL_ERROR)}, Anomaly::None},
    {"KSPDecrypt", {static_cast<DWORD>(NTE_SILENT_CONTEXT), static_cast<DWORD>(NTE_INTERNAL_ERROR)}, Anomaly::None},
    {"KSPEnumKeys", {}, Anomaly::ShortEnumeration},
};

const long long kAttemptsThatMustSucceedOnce = 20;

bool isKspStep(const char* step) { return std::strncmp(step, "KSP", 3) == 0; }

std::string failureText(const Failure& failure) {
    char text[256];
    std::snprintf(text, sizeof text, "%9.0f ms  worker %d  %s: %s -> %s", failure.startMs, failure.worker,
                  opName(failure.op), failure.step,
                  failure.anomaly != Anomaly::None ? anomalyName(failure.anomaly) : codeName(failure.code).c_str());
    return text;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

const char* opName(Op op) {
    static const char* const names[] = {"CSP sign RSA, held context",
                                        "CSP sign EC, held context",
                                        "CSP sign RSA, acquire per op",
                                        "CSP sign EC, acquire per op",
                                        "CSP decrypt RSA, held context",
                                        "CSP PP_ENUMCONTAINERS",
                                        "KSP sign RSA",
                                        "KSP sign EC",
                                        "KSP decrypt RSA",
                                        "KSP EnumKeys"};
    return op < Op::Count ? names[static_cast<int>(op)] : "?";
}

const char* anomalyName(Anomaly anomaly) {
    switch (anomaly) {
    case Anomaly::ShortEnumeration: return "short enumeration";
    case Anomaly::WrongSignature: return "WRONG SIGNATURE";
    case Anomaly::WrongPlaintext: return "WRONG PLAINTEXT";
    case Anomaly::CheckerBroken: return "independent check failed to run";
    default: return "";
    }
}

bool documentedForAbsentToken(const char* step, DWORD code, Anomaly anomaly) {
    for (const Allowance& allowance : kAllowances) {
        if (std::strcmp(allowance.step, step) != 0) continue;
        if (anomaly != Anomaly::None) return anomaly == allowance.anomaly;
        return std::find(allowance.codes.begin(), allowance.codes.end(), code) != allowance.codes.end();
    }
    return false;
}

std::string codeName(DWORD code) {
    static const std::map<DWORD, const char*> names = {
        {static_cast<DWORD>(NTE_BAD_UID), "NTE_BAD_UID"},
        {static_cast<DWORD>(NTE_BAD_HASH), "NTE_BAD_HASH"},
        {static_cast<DWORD>(NTE_BAD_KEY), "NTE_BAD_KEY"},
        {static_cast<DWORD>(NTE_BAD_DATA), "NTE_BAD_DATA"},
        {static_cast<DWORD>(NTE_BAD_SIGNATURE), "NTE_BAD_SIGNATURE"},
        {static_cast<DWORD>(NTE_NO_KEY), "NTE_NO_KEY"},
        {static_cast<DWORD>(NTE_NO_MEMORY), "NTE_NO_MEMORY"},
        {static_cast<DWORD>(NTE_KEYSET_ENTRY_BAD), "NTE_KEYSET_ENTRY_BAD"},
        {static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL), "NTE_PROVIDER_DLL_FAIL"},
        {static_cast<DWORD>(NTE_FAIL), "NTE_FAIL"},
        {static_cast<DWORD>(NTE_SILENT_CONTEXT), "NTE_SILENT_CONTEXT"},
        {static_cast<DWORD>(NTE_TOKEN_KEYSET_STORAGE_FULL), "NTE_TOKEN_KEYSET_STORAGE_FULL"},
        {static_cast<DWORD>(NTE_INVALID_HANDLE), "NTE_INVALID_HANDLE"},
        {static_cast<DWORD>(NTE_INVALID_PARAMETER), "NTE_INVALID_PARAMETER"},
        {static_cast<DWORD>(NTE_BUFFER_TOO_SMALL), "NTE_BUFFER_TOO_SMALL"},
        {static_cast<DWORD>(NTE_NOT_SUPPORTED), "NTE_NOT_SUPPORTED"},
        {static_cast<DWORD>(NTE_NO_MORE_ITEMS), "NTE_NO_MORE_ITEMS"},
        {static_cast<DWORD>(NTE_INTERNAL_ERROR), "NTE_INTERNAL_ERROR"},
        {static_cast<DWORD>(NTE_VALIDATION_FAILED), "NTE_VALIDATION_FAILED"},
        {static_cast<DWORD>(NTE_DEVICE_NOT_FOUND), "NTE_DEVICE_NOT_FOUND"},
        {ERROR_INVALID_PARAMETER, "ERROR_INVALID_PARAMETER"},
        {ERROR_MORE_DATA, "ERROR_MORE_DATA"},
        {ERROR_NO_MORE_ITEMS, "ERROR_NO_MORE_ITEMS"},
    };
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08lX", static_cast<unsigned long>(code));
    auto found = names.find(code);
    return found == names.end() ? std::string(hex) : std::string(found->second) + " " + hex;
}

int printSummary(const RunFacts& facts) {
    int errors = 0;
    long long attempts[kOpCount] = {}, succeeded[kOpCount] = {}, reacquired = 0, survived = 0;
    std::vector<Failure> failures;
    for (const WorkerTotals& worker : facts.workers) {
        for (int op = 0; op < kOpCount; ++op) {
            attempts[op] += worker.attempts[op];
            succeeded[op] += worker.succeeded[op];
        }
        reacquired += worker.reacquired;
        survived += worker.heldSurvivedReplug;
        failures.insert(failures.end(), worker.failures.begin(), worker.failures.end());
    }
    long long total = 0;
    for (long long count : attempts) total += count;

    std::vector<double> unplugTimes, plugTimes, absentTimes;
    for (const PlugCycle& cycle : facts.cycles) {
        unplugTimes.push_back(cycle.unplugEnd - cycle.unplugBegin);
        plugTimes.push_back(cycle.plugEnd - cycle.plugBegin);
    }
    for (const Absence& absence : facts.absences) absentTimes.push_back(absence.to - absence.from);
    std::printf("\n== orvane-stress: %d threads x %lld operations = %lld, %.1f s (%.1f operations/s)\n", facts.threads,
                facts.opsPerThread, total, facts.durationMs / 1000, total / std::max(facts.durationMs / 1000, 0.001));
    if (facts.periodMs == 0)
        std::printf("token left plugged in\n");
    else
        std::printf("token unplugged and plugged every %u ms: %zu cycles (orvane-token unplug %.0f ms, plug %.0f ms, "
                    "medians); absences seen by the probe: %zu, %.0f ms each (median); failures accepted up to "
                    "%.0f ms after the token was back\n",
                    facts.periodMs, facts.cycles.size(), median(unplugTimes), median(plugTimes), facts.absences.size(),
                    median(absentTimes), facts.graceMs);

    std::printf("\n%-34s %9s %9s %9s\n", "operation", "attempts", "succeeded", "failed");
    for (int op = 0; op < kOpCount; ++op) {
        std::printf("%-34s %9lld %9lld %9lld\n", opName(static_cast<Op>(op)), attempts[op], succeeded[op],
                    attempts[op] - succeeded[op]);
        // A few attempts may all fall while the token is out; many may not.
        if (attempts[op] >= kAttemptsThatMustSucceedOnce && succeeded[op] == 0) {
            std::printf("  ERROR: never succeeded, so never checked\n");
            ++errors;
        }
    }

    // Failures by call and code: in an unplug window, late after a replug (within grace), or outside.
    struct Tally {
        long long inWindow = 0, late = 0, outside = 0;
    };
    std::map<std::tuple<std::string, std::string, bool>, Tally> tallies;
    std::vector<std::string> bad;
    double latest = 0;
    long long wrongSignatures = 0, wrongPlaintexts = 0;
    for (const Failure& failure : failures) {
        bool documented = documentedForAbsentToken(failure.step, failure.code, failure.anomaly);
        std::string what = failure.anomaly != Anomaly::None ? anomalyName(failure.anomaly) : codeName(failure.code);
        Tally& tally = tallies[std::make_tuple(std::string(failure.step), what, documented)];
        if (failure.anomaly == Anomaly::WrongSignature) ++wrongSignatures;
        if (failure.anomaly == Anomaly::WrongPlaintext) ++wrongPlaintexts;
        bool inWindow = meetsAbsence(facts.absences, failure.startMs, failure.endMs, 0);
        double since = inWindow ? -1 : sinceReplug(facts.absences, failure.startMs);
        bool late = !inWindow && since >= 0 && since <= facts.graceMs;
        if (inWindow) ++tally.inWindow;
        else if (late) ++tally.late;
        else ++tally.outside;
        if (documented && !inWindow && since >= 0) latest = std::max(latest, since);
        if (!documented || !(inWindow || late)) {
            ++errors;
            bad.push_back(failureText(failure) +
                          (documented ? "  (the token was in)" : "  (not a code for an absent token)"));
        }
    }
    std::printf("\n%-38s %-40s %9s %6s %8s\n", "failed call", "code", "token out", "late", "token in");
    for (const auto& [key, tally] : tallies)
        std::printf("%-38s %-40s %9lld %6lld %8lld%s\n", std::get<0>(key).c_str(), std::get<1>(key).c_str(), tally.inWindow,
                    tally.late, tally.outside, std::get<2>(key) ? "" : "   <- not documented for an absent token");
    if (tallies.empty()) std::printf("(none)\n");
    std::printf("latest failure for an absent token after the token was back: %.0f ms (grace %.0f ms)\n",
                latest, facts.graceMs);

    long long dialogs = 0, dialogsOutside = 0, silentDialogs = 0, boxes = 0;
    std::map<std::string, long long> boxTexts;
    for (const WindowEvent& event : facts.windows) {
        bool inWindow = meetsAbsence(facts.absences, event.timeMs, event.timeMs, facts.graceMs);
        char text[256];
        std::snprintf(text, sizeof text, "%9.0f ms  worker %d  in %s: %s%s", event.timeMs, event.worker, event.step,
                      event.pinDialog ? "PIN dialog" : "message box: ", event.text.c_str());
        if (event.pinDialog) ++dialogs;
        else ++boxes, ++boxTexts[event.text];
        if (event.pinDialog && isKspStep(event.step)) {
            ++silentDialogs;
            ++errors;
            bad.push_back(std::string(text) + "  (the call was silent)");
        } else if (!inWindow) {
            ++dialogsOutside;
            ++errors;
            bad.push_back(std::string(text) + "  (the token was in and signed on)");
        }
    }
    std::printf("\nPIN dialogs: %lld (%s by the desktop; while the token was in %lld; on silent KSP calls %lld); "
                "message boxes: %lld\n",
                dialogs, facts.pinTyped ? "PIN typed" : "cancelled", dialogsOutside, silentDialogs, boxes);
    for (const auto& [text, count] : boxTexts) std::printf("  %lld x \"%s\"\n", count, text.c_str());
    if (!facts.dialogsShown)
        std::printf("  NOTE: this process could not show a dialog: every PIN prompt failed at once without one\n");
    std::printf("held handles dropped after a failure and opened again: %lld; used successfully after a replug "
                "without reopening: %lld\n",
                reacquired, survived);

    for (const std::string& failure : facts.toolFailures) {
        ++errors;
        bad.push_back(failure);
    }
    if (!facts.heapsValid) ++errors;
    if (!bad.empty()) {
        std::printf("\nerrors (first 40 of %zu):\n", bad.size());
        for (size_t i = 0; i < bad.size() && i < 40; ++i) std::printf("  %s\n", bad[i].c_str());
    }
    std::printf("\ncrashes: 0   hangs: 0   wrong signatures: %lld   wrong plaintexts: %lld   heaps: %s\n",
                wrongSignatures, wrongPlaintexts, facts.heapsValid ? "valid" : "CORRUPT");
    std::printf("result: %s (%d errors)\n", errors == 0 ? "CLEAN" : "NOT CLEAN", errors);
    std::fflush(stdout);
    return errors;
}

}  // namespace stress
