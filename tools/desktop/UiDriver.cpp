#include "tools/desktop/UiDriver.h"

#include <windows.h>

namespace desktop {
namespace {

const char kPinDialogTitle[] = "Verify User Pin";
const char kMessageCaption[] = "Orvane";
const int kPinEdit = 1001;

HWND waitForWindow(const char* title, unsigned milliseconds) {
    for (unsigned waited = 0; waited < milliseconds; waited += 20) {
        HWND window = FindWindowA("#32770", title);
        if (window != nullptr && IsWindowVisible(window)) return window;
        Sleep(20);
    }
    return nullptr;
}

void waitUntilGone(HWND window) {
    for (int waited = 0; waited < 5000 && IsWindow(window); waited += 20) Sleep(20);
}

void typePin(HWND dialog, const std::string& pin) {
    SendMessageA(GetDlgItem(dialog, kPinEdit), WM_SETTEXT, 0, reinterpret_cast<LPARAM>(pin.c_str()));
}

std::string measureLoginButton(HWND dialog) {
    std::string states;
    for (size_t length : {3, 4, 63, 64}) {
        typePin(dialog, std::string(length, '7'));
        states += IsWindowEnabled(GetDlgItem(dialog, IDOK)) ? '1' : '0';
    }
    typePin(dialog, "");
    return states;
}

}  // namespace

UiDriver::UiDriver(std::vector<UiStep> steps, unsigned waitMilliseconds)
    : steps_(std::move(steps)), waitMilliseconds_(waitMilliseconds), thread_([this] { run(); }) {}

UiDriver::~UiDriver() {
    if (thread_.joinable()) thread_.join();
}

std::vector<std::string> UiDriver::finish() {
    if (thread_.joinable()) thread_.join();
    return seen_;
}

void UiDriver::run() {
    for (const UiStep& step : steps_) {
        if (step.kind == UiStep::kAcknowledgeMessage) {
            HWND box = waitForWindow(kMessageCaption, waitMilliseconds_);
            if (box == nullptr) {
                seen_.push_back("missing: message");
                return;
            }
            char text[512] = {};
            GetDlgItemTextA(box, 0xFFFF, text, sizeof text);
            seen_.push_back(std::string("message: ") + text);
            SendMessageA(GetDlgItem(box, IDOK), BM_CLICK, 0, 0);
            waitUntilGone(box);
            continue;
        }
        HWND dialog = waitForWindow(kPinDialogTitle, waitMilliseconds_);
        if (dialog == nullptr) {
            seen_.push_back("missing: pin dialog");
            return;
        }
        seen_.push_back("pin dialog");
        if (loginStates_.empty()) loginStates_ = measureLoginButton(dialog);
        switch (step.kind) {
        case UiStep::kEnterPin:
            typePin(dialog, step.pin);
            SendMessageA(GetDlgItem(dialog, IDOK), BM_CLICK, 0, 0);
            break;
        case UiStep::kCancel:
            SendMessageA(GetDlgItem(dialog, IDCANCEL), BM_CLICK, 0, 0);
            break;
        default:
            SendMessageA(dialog, WM_CLOSE, 0, 0);
            break;
        }
        waitUntilGone(dialog);
    }
}

}  // namespace desktop
