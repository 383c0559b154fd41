#include "stress/Desktop.h"

#include <cstring>
#include <map>

namespace stress {
namespace {

const char kPinDialogTitle[] = "Verify User Pin";
const char kMessageCaption[] = "Orvane";
const int kPinEdit = 1001;

struct Search {
    DWORD process;
    std::vector<HWND> found;
};

BOOL CALLBACK collect(HWND window, LPARAM parameter) {
    Search& search = *reinterpret_cast<Search*>(parameter);
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    char className[16] = {}, title[64] = {};
    if (process != search.process || !IsWindowVisible(window)) return TRUE;
    GetClassNameA(window, className, sizeof className);
    GetWindowTextA(window, title, sizeof title);
    if (std::strcmp(className, "#32770") == 0 &&
        (std::strcmp(title, kPinDialogTitle) == 0 || std::strcmp(title, kMessageCaption) == 0))
        search.found.push_back(window);
    return TRUE;
}

INT_PTR CALLBACK closeAtOnce(HWND dialog, UINT message, WPARAM, LPARAM) {
    if (message != WM_INITDIALOG) return FALSE;
    EndDialog(dialog, 1);
    return TRUE;
}

}  // namespace

bool Desktop::canShowDialogs() {
    // An empty dialog: the DLGTEMPLATE header, then no menu, the default class and no title.
    struct {
        DLGTEMPLATE header;
        WORD menu, windowClass, title;
    } blank{};
    blank.header.style = DS_MODALFRAME | WS_POPUP;
    blank.header.cx = 10;
    blank.header.cy = 10;
    return DialogBoxIndirectParamA(GetModuleHandleA(nullptr), &blank.header, nullptr, closeAtOnce, 0) == 1;
}

Desktop::Desktop(std::vector<Progress*> workers, std::string pin, Progress& progress)
    : workers_(std::move(workers)), pin_(std::move(pin)), progress_(progress) {}

Desktop::~Desktop() { stop(); }

void Desktop::start() { thread_ = std::thread([this] { run(); }); }

void Desktop::stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
}

std::vector<WindowEvent> Desktop::events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

int Desktop::workerOf(DWORD threadId) const {
    for (size_t i = 0; i < workers_.size(); ++i)
        if (workers_[i]->threadId.load() == threadId) return static_cast<int>(i);
    return -1;
}

void Desktop::answer(HWND window) {
    char title[64] = {};
    GetWindowTextA(window, title, sizeof title);
    WindowEvent event;
    event.timeMs = nowMs();
    event.worker = workerOf(GetWindowThreadProcessId(window, nullptr));
    if (event.worker >= 0) event.step = workers_[static_cast<size_t>(event.worker)]->step.load();
    event.pinDialog = std::strcmp(title, kPinDialogTitle) == 0;
    if (event.pinDialog) {
        progress_.enter("answering a PIN dialog");
        if (!pin_.empty()) {
            SendMessageA(GetDlgItem(window, kPinEdit), WM_SETTEXT, 0, reinterpret_cast<LPARAM>(pin_.c_str()));
            SendMessageA(GetDlgItem(window, IDOK), BM_CLICK, 0, 0);
        } else {
            SendMessageA(GetDlgItem(window, IDCANCEL), BM_CLICK, 0, 0);
        }
    } else {
        progress_.enter("answering a message box");
        char text[512] = {};
        GetDlgItemTextA(window, 0xFFFF, text, sizeof text);
        event.text = text;
        SendMessageA(GetDlgItem(window, IDOK), BM_CLICK, 0, 0);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
}

void Desktop::run() {
    progress_.threadId = GetCurrentThreadId();
    while (!stopping_) {
        progress_.enter("looking for windows");
        Search search{GetCurrentProcessId(), {}};
        EnumWindows(collect, reinterpret_cast<LPARAM>(&search));
        std::map<HWND, double> stillOpen;
        for (HWND window : search.found) {
            auto seen = answered_.find(window);
            // A window that outlives its answer by two seconds is answered again.
            if (seen == answered_.end() || nowMs() - seen->second > 2000) {
                answer(window);
                stillOpen[window] = nowMs();
            } else {
                stillOpen[window] = seen->second;
            }
        }
        answered_.swap(stillOpen);  // a handle may be reused once its window has gone
        Sleep(20);
    }
    progress_.finished = true;
}

}  // namespace stress
