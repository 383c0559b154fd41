// orvane-certprop: keeps the certificates of the plugged-in tokens in the current user's
// certificate stores, where applications look for them, with key provider information that
// leads to this provider. Started at each logon; one instance per logon session.
//
//   orvane-certprop            runs until sign-out, following plug, unplug and the setting
//   orvane-certprop --once     synchronises once and exits
//   orvane-certprop --remove   stops a running agent of this session, removes what it added, exits
//
// A program without a window, so nothing shows at logon. Exit codes: 0 done, 1 a store could
// not be brought in step, 2 bad command line, 3 another instance holds this session.
#include <windows.h>
#include <shellapi.h>

#include <string>

#include "diagnostics/Log.h"
#include "token/DeviceMonitor.h"
#include "tools/orvane-certprop/Propagation.h"

using namespace certprop;

namespace {

const wchar_t kInstanceMutex[] = L"Local\\OrvaneCertPropagation";
const wchar_t kStopEvent[] = L"Local\\OrvaneCertPropagationStop";
const DWORD kStopWaitMilliseconds = 10000;
// A fingerprint no look at the tokens gives: the next look synchronises.
const char kNeverSeen[] = "\x01";

enum class Mode { kAgent, kOnce, kRemove };

bool synchronizeOnce(std::string& lastFingerprint, bool& lastSetting) {
    try {
        bool rsaToCsp = rsaToCryptoApi();
        TokenView view = readTokens();
        if (view.fingerprint == lastFingerprint && rsaToCsp == lastSetting) return true;
        std::vector<TokenCertificate> certificates = classify(view);
        SyncCounts counts = synchronizeStores(certificates, rsaToCsp);
        // A store that could not be brought in step is tried again on the next look.
        lastFingerprint = counts.ok ? view.fingerprint : kNeverSeen;
        lastSetting = rsaToCsp;
        report("certprop: in step: " + std::to_string(certificates.size()) + " token certificate(s), " +
                          std::to_string(counts.added) + " added, " + std::to_string(counts.removed) + " removed (" +
                          std::to_string(counts.rebound) + " of them rebound)");
        return counts.ok;
    } catch (...) {
        reportError("certprop: synchronisation failed; tried again on the next look");
        lastFingerprint = kNeverSeen;
        return false;
    }
}

int runAgent(HANDLE stop) {
    Utils::logMessage("certprop: agent started");
    std::string fingerprint = kNeverSeen;
    bool setting = false;
    do {
        synchronizeOnce(fingerprint, setting);
    } while (WaitForSingleObject(stop, orvane::kDevicePollMilliseconds) == WAIT_TIMEOUT);
    Utils::logMessage("certprop: agent stopped");
    return 0;
}

}  // namespace

int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int) {
    int count = 0;
    LPWSTR* arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    Mode mode = Mode::kAgent;
    for (int i = 1; arguments != nullptr && i < count; ++i) {
        std::wstring argument = arguments[i];
        if (argument == L"--once")
            mode = Mode::kOnce;
        else if (argument == L"--remove")
            mode = Mode::kRemove;
        else {
            report("usage: orvane-certprop [--once | --remove]");
            return 2;
        }
    }
    LocalFree(arguments);

    HANDLE stop = CreateEventW(nullptr, FALSE, FALSE, kStopEvent);
    HANDLE instance = CreateMutexW(nullptr, TRUE, kInstanceMutex);
    if (stop == nullptr || instance == nullptr) {
        reportError("certprop: cannot create the session's instance objects : " + std::to_string(GetLastError()));
        return 1;
    }
    if (GetLastError() == ERROR_ALREADY_EXISTS) {
        if (mode != Mode::kRemove) {
            report("certprop: an agent runs in this logon session already");
            return mode == Mode::kAgent ? 0 : 3;
        }
        // What the agent added would come back at its next look: it stops first.
        SetEvent(stop);
        DWORD waited = WaitForSingleObject(instance, kStopWaitMilliseconds);
        if (waited != WAIT_OBJECT_0 && waited != WAIT_ABANDONED) {
            reportError("certprop: the running agent did not stop; nothing removed");
            return 3;
        }
    }
    int result = 0;
    if (mode == Mode::kRemove) {
        SyncCounts counts = removePropagated();
        report("certprop: removed " + std::to_string(counts.removed) + " certificate(s) added from tokens");
        result = counts.ok ? 0 : 1;
    } else if (mode == Mode::kOnce) {
        std::string fingerprint = kNeverSeen;
        bool setting = false;
        result = synchronizeOnce(fingerprint, setting) ? 0 : 1;
    } else {
        ResetEvent(stop);
        result = runAgent(stop);
    }
    ReleaseMutex(instance);
    CloseHandle(instance);
    CloseHandle(stop);
    return result;
}
