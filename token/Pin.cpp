#include "token/Pin.h"

#include <windows.h>

#include <utility>

#include "diagnostics/Log.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/PinDialog.h"
#include "token/Sessions.h"

namespace orvane {

const FacePinTexts kCspPinTexts = {"PIN already validated -- no need to ask again",
                                   "Password not validated or empty -- ask for PIN",
                                   "Password validation failed",
                                   "System time mismatch, Kidly login to Token Manager",
                                   "User cancelled password dialog",
                                   "CPSetProvParam - passwordLength : ",
                                   true,
                                   "CPSetProvParam - Token password validation failed : "};
const FacePinTexts kKspPinTexts = {"KSP: PIN already validated",
                                   "KSP: Password not validated, checking SSO",
                                   nullptr,
                                   "System time mismatch, Kindly login to Token Manager",
                                   "KSP: User cancelled password dialog",
                                   "KSP: Setting PIN via property",
                                   false,
                                   "KSP: PIN validation failed: "};

namespace {

void showMessage(const std::string& text) { MessageBoxA(nullptr, text.c_str(), "Orvane", MB_OK); }

// Empty when the user cancelled.
SecretBytes askForPin(const FacePinTexts& texts) {
    SecretBytes pin = showPinDialog();
    if (pin.empty()) Utils::logMessage(texts.cancelled);
    return pin;
}

// Prompts until the token accepts a PIN, the user cancels or the PIN locks. Only the
// token's attempt counter ends the loop.
bool promptUntilAccepted(const std::string& serial, void* libraryContext, const FacePinTexts& texts,
                         SecretBytes& pinOut) {
    clearPin(serial);
    SecretBytes pin = askForPin(texts);
    if (pin.empty()) return false;
    for (;;) {
        int remainingAttempts = 0;
        int result = orvane_validatePassword(serial.c_str(), pin.c_str(), 1, &remainingAttempts, libraryContext);
        if (result == 0) {
            pinOut = std::move(pin);
            return true;
        }
        if (result == ORVANE_CLOCK_MISMATCH)
            showMessage(texts.clockMismatch);
        else if (remainingAttempts != 0)
            showMessage("Invalid user pin. Remaining attempts(" + std::to_string(remainingAttempts) + ")");
        else
            showMessage("User pin locked, re-initialise device");
        if (remainingAttempts == 0) return false;
        pin = askForPin(texts);
        if (pin.empty()) return false;
    }
}

}  // namespace

bool isTokenSignedOn(const std::string& serial, void* libraryContext) {
    TokenInfo info = orvane_getTokenInfo(serial.c_str(), libraryContext);
    return !info.label.empty() && info.loginState == 1 && info.ssoState == 1;
}

bool ensurePinValidated(const std::string& serial, void* libraryContext, const FacePinTexts& texts, bool mayPrompt) {
    if (isPinValidated(serial) && !getCachedPin(serial).empty()) {
        Utils::logMessage(texts.alreadyValidated);
        return true;
    }
    Utils::logMessage(texts.notValidated);
    SecretBytes pin;
    bool accepted = isTokenSignedOn(serial, libraryContext) ||
                    (mayPrompt && promptUntilAccepted(serial, libraryContext, texts, pin));
    if (!accepted) {
        if (texts.checkFailed != nullptr) Utils::logMessage(texts.checkFailed);
        return false;
    }
    storeValidatedPin(serial, pin);
    return true;
}

int acceptCallerPin(const std::string& serial, const SecretBytes& pin, void* libraryContext,
                    const FacePinTexts& texts) {
    Utils::logMessage(texts.callerPinWithLength ? texts.callerPin + std::to_string(pin.size())
                                                : std::string(texts.callerPin));
    int remainingAttempts = 0;
    int result = orvane_validatePassword(serial.c_str(), pin.c_str(), 1, &remainingAttempts, libraryContext);
    if (result != 0) {
        Utils::logError(texts.callerPinFailedPrefix + std::to_string(result));
        return result;
    }
    storeValidatedPin(serial, pin);
    return 0;
}

SignOnRetryOutcome runWithSignOnRetry(const std::string& serial, const char* expiredLogLine,
                                      const std::function<bool()>& ensurePinValidated,
                                      const std::function<int(const SecretBytes& pin)>& operation) {
    SignOnRetryOutcome outcome;
    outcome.result = operation(getCachedPin(serial));
    if (outcome.result != ORVANE_SSO_EXPIRED) return outcome;

    Utils::logMessage(expiredLogLine);
    clearPin(serial);
    if (!ensurePinValidated()) {
        outcome.pinCheckFailed = true;
        return outcome;
    }
    outcome.result = operation(getCachedPin(serial));
    return outcome;
}

}  // namespace orvane
