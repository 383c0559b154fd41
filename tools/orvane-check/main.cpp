// orvane-check: checks "Orvane Cryptographic Provider CSP" on this machine against the token(s)
// plugged in, through CryptoAPI and through the key storage provider's function table, and
// prints one report line per step. Nothing is written to a token unless --write is given.
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "tools/common/PinInput.h"
#include "tools/orvane-check/Checks.h"

namespace check {

const char kProviderName[] = "Orvane Cryptographic Provider CSP";

Bytes testMessage() {
    static const char text[] = "orvane-check: a test message signed with a key on the token";
    return Bytes(text, text + sizeof text - 1);
}

std::string checkRegistration(Report& report) {
    const std::string key = std::string("Software\\Microsoft\\Cryptography\\Defaults\\Provider\\") + kProviderName;
    const char step[] = "CryptoAPI registration";
    char path[2 * MAX_PATH] = {};
    DWORD size = sizeof path;
    LONG status = RegGetValueA(HKEY_LOCAL_MACHINE, key.c_str(), "Image Path", RRF_RT_REG_SZ, nullptr, path, &size);
    if (status != ERROR_SUCCESS) {
        report.fail(
            step, "", static_cast<unsigned long>(status),
            status == ERROR_FILE_NOT_FOUND ? "no REG_SZ \"Image Path\" under HKLM\\" + key : "reading \"Image Path\"");
        return "";
    }
    DWORD type = 0;
    size = sizeof type;
    status = RegGetValueA(HKEY_LOCAL_MACHINE, key.c_str(), "Type", RRF_RT_REG_DWORD, nullptr, &type, &size);
    if (status != ERROR_SUCCESS) {
        report.fail(step, "", static_cast<unsigned long>(status), "reading the DWORD \"Type\"");
        return "";
    }
    if (type != PROV_RSA_FULL) {
        report.failCheck(step, "",
                         "Type " + std::to_string(type) + ": applications ask for this provider as PROV_RSA_FULL (1)");
        return "";
    }
    // A bare file name is found by the ordinary DLL search.
    char located[2 * MAX_PATH] = {};
    bool bareName = std::strpbrk(path, "\\/:") == nullptr;
    bool found = bareName ? SearchPathA(nullptr, path, nullptr, sizeof located, located, nullptr) != 0
                          : GetFileAttributesA(path) != INVALID_FILE_ATTRIBUTES;
    if (!found) {
        report.failCheck(step, "", std::string("Image Path \"") + path + "\" names no file on this machine");
        return path;
    }
    report.pass(step, "",
                std::string("Image Path \"") + path + "\"" + (bareName ? std::string(" (") + located + ")" : "") +
                    ", Type 1 (PROV_RSA_FULL)");
    return path;
}

}  // namespace check

namespace {

const char kUsage[] =
    "usage: orvane-check [--pin-stdin | --ask-pin] [--write]\n"
    "       orvane-check --help\n"
    "\n"
    "Checks \"Orvane Cryptographic Provider CSP\" on this machine with the token(s) plugged in: its\n"
    "CryptoAPI registration; then through CryptoAPI, for every container, the key, its certificate,\n"
    "the public key export and a SHA-256 signature, checked by the provider and by Windows' own\n"
    "cryptography; then the same for every key through the key storage provider's function table.\n"
    "\n"
    "  --pin-stdin  read the token's user PIN from the first line of standard input, so that no\n"
    "               PIN dialog appears. A PIN the token refuses is not tried again (each try uses\n"
    "               up one of its attempts).\n"
    "  --ask-pin    the same, typed at a prompt on the console without being shown.\n"
    "  --write      also make an RSA-2048 test key on the token, sign with it and delete it again.\n"
    "               Without it nothing is written to the token.\n"
    "  --help       this text.\n"
    "The PIN is never taken on the command line, where process listings and shell history keep it.\n"
    "\n"
    "One line per step: PASS, FAIL (with the error code and what it means) or SKIP (with the reason).\n"
    "Exit code: 0 when no step failed, 1 when one did, 2 for a command line it does not understand.\n";

int usageError(const std::string& problem) {
    std::fprintf(stderr, "orvane-check: %s\n\n%s", problem.c_str(), kUsage);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    check::Options options;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        if (argument == "--help" || argument == "-h" || argument == "/?") {
            std::printf("%s", kUsage);
            return 0;
        }
        if (argument == "--write") {
            options.write = true;
        } else if (argument == "--pin-stdin" || argument == "--ask-pin") {
            if (options.pinGiven) return usageError("the PIN is read once: give --pin-stdin or --ask-pin, not both");
            if (!tools::readPinLine(argument == "--ask-pin", options.pin)) return usageError("no PIN on standard input");
            options.pinGiven = true;
        } else if (argument == "--pin") {
            return usageError(tools::pinOnCommandLineRefusal());
        } else {
            return usageError("unknown argument \"" + argument + "\"");
        }
    }

    check::Report report(stdout);
    std::printf("orvane-check: \"%s\" with the token(s) plugged in%s%s\n", check::kProviderName,
                options.pinGiven ? ", PIN given" : "",
                options.write ? ", --write (a test key is made and deleted)" : "");
    check::Session session{options, options.pinGiven ? check::PinState::kNotTriedYet : check::PinState::kNotGiven,
                           report};

    report.heading("Registration");
    std::string imagePath = check::checkRegistration(report);
    if (imagePath.empty()) {
        report.skip("CryptoAPI and key storage checks", "", "the provider is not registered as CryptoAPI needs it");
    } else {
        check::checkCryptoApi(session);
        check::checkKeyStorage(session, imagePath);
    }
    report.summary();
    return report.exitCode();
}
