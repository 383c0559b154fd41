// The user PIN: asked at most once per token and process, cached in the session table,
// not asked at all while the token is signed on in Token Manager, and asked again when
// the token reports that the sign-on has expired. One PIN check and one acceptance of a
// caller's PIN serve both faces; each face passes its own texts.
#pragma once

#include <functional>
#include <string>

#include "token/SecretBytes.h"

namespace orvane {

// What one face writes to the log and shows around the PIN.
struct FacePinTexts {
    const char* alreadyValidated;      // info line: a PIN is cached
    const char* notValidated;          // info line: no PIN cached, before the sign-on test
    const char* checkFailed;           // info line when no PIN was accepted; null for none
    const char* clockMismatch;         // message box on the library's clock mismatch
    const char* cancelled;             // info line when the user cancels the dialog
    const char* callerPin;             // info line when a caller hands a PIN in
    bool callerPinWithLength;          // callerPin is followed by the PIN's length
    const char* callerPinFailedPrefix; // error line prefix before the library's result
};
extern const FacePinTexts kCspPinTexts;
extern const FacePinTexts kKspPinTexts;

// Signed on: label present, loginState 1 and ssoState 1.
bool isTokenSignedOn(const std::string& serial, void* libraryContext);

// False when the user cancelled or the PIN is locked; the face reports it. A call that may
// not show a window (NCRYPT_SILENT_FLAG) passes mayPrompt false: then false also when only
// the dialog could sign on. While single sign-on stands in for the PIN the cached PIN stays
// empty, so the next check looks at the sign-on state again.
bool ensurePinValidated(const std::string& serial, void* libraryContext, const FacePinTexts& texts,
                        bool mayPrompt = true);

// A PIN the caller hands in (PP_SIGNATURE_PIN, "SmartCardPin"): checked by the token as the
// user PIN and, when accepted, cached for the token so later key operations need no prompt.
// Returns the library's result; the sign-on state changes only on 0.
int acceptCallerPin(const std::string& serial, const SecretBytes& pin, void* libraryContext,
                    const FacePinTexts& texts);

struct SignOnRetryOutcome {
    bool pinCheckFailed = false;  // the renewed PIN check failed; its error stands
    int result = 0;               // otherwise the library's final result
};

// Runs a private-key operation with the cached PIN. When the library answers that the
// sign-on expired, writes expiredLogLine, forgets the PIN, checks it again and runs the
// operation exactly once more. The operation resets its own in/out lengths on each run.
SignOnRetryOutcome runWithSignOnRetry(const std::string& serial, const char* expiredLogLine,
                                      const std::function<bool()>& ensurePinValidated,
                                      const std::function<int(const SecretBytes& pin)>& operation);

}  // namespace orvane
