// Answers the provider's windows from a background thread, the way a user would: finds the
// PIN dialog or an "Orvane" message box, acts, waits for it to close, and notes what it saw.
#pragma once

#include <string>
#include <thread>
#include <vector>

namespace desktop {

struct UiStep {
    enum Kind { kEnterPin, kCancel, kCloseWindow, kAcknowledgeMessage };
    Kind kind;
    std::string pin;  // kEnterPin

    static UiStep enterPin(const std::string& pin) { return {kEnterPin, pin}; }
    static UiStep cancel() { return {kCancel, ""}; }
    static UiStep closeWindow() { return {kCloseWindow, ""}; }
    static UiStep acknowledgeMessage() { return {kAcknowledgeMessage, ""}; }
};

class UiDriver {
public:
    // Each window is waited for up to waitMilliseconds.
    explicit UiDriver(std::vector<UiStep> steps, unsigned waitMilliseconds = 10000);
    ~UiDriver();
    UiDriver(const UiDriver&) = delete;
    UiDriver& operator=(const UiDriver&) = delete;

    // Waits for the steps to finish (or time out) and returns what was seen, one entry per
    // window: "pin dialog" or "message: <text>"; "missing: ..." for a window that never came.
    std::vector<std::string> finish();
    // After finish(): the Login button's state for PINs of 3, 4, 63 and 64 characters,
    // as measured on the first PIN dialog ("0110" is right).
    std::string loginButtonStates() const { return loginStates_; }
    // Whether any provider window appeared within the given time (for "no dialog" checks).

private:
    void run();

    std::vector<UiStep> steps_;
    unsigned waitMilliseconds_;
    std::vector<std::string> seen_;
    std::string loginStates_;
    std::thread thread_;
};

}  // namespace desktop
