#include "token/Pin.h"

#include <windows.h>

#include "diagnostics/Utils.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/PinDialog.h"
#include "token/Sessions.h"

namespace orvane {
namespace {

struct PromptTexts {
    const char* clockMismatch;
    const char* cancelled;
};

const PromptTexts kCspPromptTexts = {"System time mismatch, Kidly login to Token Manager",
                                     "User cancelled password dialog"};
const PromptTexts kKspPromptTexts = {"System time mismatch, Kindly login to Token Manager",
                                     "KSP: User cancelled password dialog"};

void showMessage(const std::string& text) { MessageBoxA(nullptr, text.c_str(), "Orvane", MB_OK); }

// Empty when the user cancelled.
std::string askForPin(const PromptTexts& texts) {
    showPinDialog();
    std::string pin;
    getDialogPin(pin);
    if (pin.empty()) Utils::logMessage(texts.cancelled);
    return pin;
}

// Prompts until the token accepts a PIN, the user cancels or the PIN locks. Only the
// token's attempt counter ends the loop.
bool promptUntilAccepted(const std::string& serial, void* libraryContext, const PromptTexts& texts,
                         std::string& pinOut) {
    clearPin(serial);
    std::string pin = askForPin(texts);
    if (pin.empty()) return false;
    for (;;) {
        int remainingAttempts = 0;
        int result = orvane_validatePassword(serial.c_str(), pin.c_str(), 1, &remainingAttempts, libraryContext);
        if (result == 0) {
            pinOut = pin;
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

bool ensurePinValidatedCsp(const std::string& serial, void* libraryContext) {
    if (isPinValidated(serial) && !getCachedPin(serial).empty()) {
        Utils::logMessage("PIN already validated -- no need to ask again");
        return true;
    }
    Utils::logMessage("Password not validated or empty -- ask for PIN");
    std::string pin;
    bool accepted = isTokenSignedOn(serial, libraryContext) ||
                    promptUntilAccepted(serial, libraryContext, kCspPromptTexts, pin);
    if (!accepted) {
        Utils::logMessage("Password validation failed");
        return false;
    }
    // While single sign-on stands in for the PIN the cached PIN stays empty, so the next
    // check looks at the sign-on state again.
    storeValidatedPin(serial, pin);
    return true;
}

bool ensurePinValidatedKsp(const std::string& serial, void* libraryContext, bool mayPrompt) {
    if (isPinValidated(serial) && !getCachedPin(serial).empty()) {
        Utils::logMessage("KSP: PIN already validated");
        return true;
    }
    Utils::logMessage("KSP: Password not validated, checking SSO");
    if (isTokenSignedOn(serial, libraryContext)) {
        storeValidatedPin(serial, std::string());
        return true;
    }
    std::string pin;
    if (!mayPrompt || !promptUntilAccepted(serial, libraryContext, kKspPromptTexts, pin)) return false;
    storeValidatedPin(serial, pin);
    return true;
}

int acceptCallerPinKsp(const std::string& serial, const std::string& pin, void* libraryContext) {
    Utils::logMessage("KSP: Setting PIN via property");
    int remainingAttempts = 0;
    int result = orvane_validatePassword(serial.c_str(), pin.c_str(), 1, &remainingAttempts, libraryContext);
    if (result != 0) {
        Utils::logError("KSP: PIN validation failed: " + std::to_string(result));
        return result;
    }
    storeValidatedPin(serial, pin);
    return 0;
}

SignOnRetryOutcome runWithSignOnRetry(const std::string& serial, const char* expiredLogLine,
                                      const std::function<bool()>& ensurePinValidated,
                                      const std::function<int(const std::string& pin)>& operation) {
    SignOnRetryOutcome outcome;
    outcome.result = operation(getCachedPin(serial));
    if (outcome.result != kSignOnExpired) return outcome;

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
