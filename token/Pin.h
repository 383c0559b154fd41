// The user PIN: asked at most once per token and process, cached in the session table,
// not asked at all while the token is signed on in Token Manager, and asked again when
// the token reports that the sign-on has expired.
#pragma once

#include <functional>
#include <string>

namespace orvane {

// Token library result of a private-key operation whose sign-on has run out.
const int kSignOnExpired = 49;

// Signed on: label present, loginState 1 and ssoState 1.
bool isTokenSignedOn(const std::string& serial, void* libraryContext);

// CryptoAPI face. False when the user cancelled or the PIN is locked; the face reports it.
bool ensurePinValidatedCsp(const std::string& serial, void* libraryContext);
// CNG face. False when the user cancelled or the PIN is locked; the face reports it. A call
// that may not show a window (NCRYPT_SILENT_FLAG) passes mayPrompt false: then false also
// when only the dialog could sign on.
bool ensurePinValidatedKsp(const std::string& serial, void* libraryContext, bool mayPrompt = true);
// A PIN the caller hands the CNG face as "SmartCardPin": checked by the token as the user
// PIN and, when accepted, cached for the token so later key operations need no prompt.
// Returns the library's result; the sign-on state changes only on 0.
int acceptCallerPinKsp(const std::string& serial, const std::string& pin, void* libraryContext);

struct SignOnRetryOutcome {
    bool pinCheckFailed = false;  // the renewed PIN check failed; its error stands
    int result = 0;               // otherwise the library's final result
};

// Runs a private-key operation with the cached PIN. When the library answers that the
// sign-on expired, writes expiredLogLine, forgets the PIN, checks it again and runs the
// operation exactly once more. The operation resets its own in/out lengths on each run.
SignOnRetryOutcome runWithSignOnRetry(const std::string& serial, const char* expiredLogLine,
                                      const std::function<bool()>& ensurePinValidated,
                                      const std::function<int(const std::string& pin)>& operation);

}  // namespace orvane
