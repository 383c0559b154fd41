#include "stress/Watchdog.h"

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "stress/Records.h"

namespace stress {
namespace {

std::vector<Progress*> crashWatched;
std::function<void()> crashBeforeExit;

[[noreturn]] void endProcess(int exitCode) {
    std::fflush(stdout);
    if (crashBeforeExit) crashBeforeExit();
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(exitCode));
    for (;;) Sleep(INFINITE);
}

// "module 0xADDRESS", the address as the module's own file has it (its preferred image base),
// ready for x86_64-w64-mingw32-addr2line -e MODULE ADDRESS.
std::string whereIs(DWORD64 address) {
    HMODULE module = nullptr;
    char path[MAX_PATH] = "?";
    DWORD64 preferredBase = 0;
    if (GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<LPCSTR>(address), &module)) {
        GetModuleFileNameA(module, path, sizeof path);
        auto dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(module);
        auto nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(reinterpret_cast<const char*>(module) + dos->e_lfanew);
        preferredBase = nt->OptionalHeader.ImageBase;
    }
    const char* name = std::strrchr(path, '\\');
    char text[MAX_PATH + 32];
    std::snprintf(text, sizeof text, "%s 0x%llx", name ? name + 1 : path,
                  static_cast<unsigned long long>(address - reinterpret_cast<DWORD64>(module) + preferredBase));
    return text;
}

// Walks the x64 unwind data from a thread's context.
void printStack(CONTEXT context) {
    for (int frame = 0; frame < 40 && context.Rip != 0; ++frame) {
        std::printf("    #%-2d %s\n", frame, whereIs(context.Rip).c_str());
        DWORD64 imageBase = 0;
        PRUNTIME_FUNCTION function = RtlLookupFunctionEntry(context.Rip, &imageBase, nullptr);
        if (function == nullptr) {
            // A leaf function: the return address is on top of the stack.
            context.Rip = *reinterpret_cast<DWORD64*>(context.Rsp);
            context.Rsp += 8;
            continue;
        }
        void* handlerData = nullptr;
        DWORD64 establisher = 0;
        RtlVirtualUnwind(UNW_FLAG_NHANDLER, imageBase, context.Rip, function, &context, &handlerData, &establisher,
                         nullptr);
    }
}

void printThreadStack(DWORD threadId) {
    HANDLE thread = OpenThread(THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_QUERY_INFORMATION, FALSE, threadId);
    if (thread == nullptr) return;
    if (SuspendThread(thread) != static_cast<DWORD>(-1)) {
        CONTEXT context{};
        context.ContextFlags = CONTEXT_FULL;
        if (GetThreadContext(thread, &context)) printStack(context);
        ResumeThread(thread);
    }
    CloseHandle(thread);
}

void printSteps(const std::vector<Progress*>& watched) {
    for (const Progress* progress : watched)
        std::printf("  %-12s %s%s\n", progress->name.c_str(), progress->step.load(),
                    progress->finished.load() ? " (finished)" : "");
}

LONG WINAPI reportCrash(EXCEPTION_POINTERS* exception) {
    DWORD self = GetCurrentThreadId();
    const char* owner = "a thread of Wine or the provider";
    const char* step = "";
    for (const Progress* progress : crashWatched)
        if (progress->threadId.load() == self) {
            owner = progress->name.c_str();
            step = progress->step.load();
        }
    std::printf("\nCRASH at %.0f ms: exception 0x%08lX at %s in %s, step \"%s\"\n", nowMs(),
                static_cast<unsigned long>(exception->ExceptionRecord->ExceptionCode),
                whereIs(reinterpret_cast<DWORD64>(exception->ExceptionRecord->ExceptionAddress)).c_str(), owner, step);
    printStack(*exception->ContextRecord);
    std::printf("all threads:\n");
    printSteps(crashWatched);
    std::printf("result: NOT CLEAN (crash)\n");
    endProcess(kExitCrash);
}

}  // namespace

Watchdog::Watchdog(std::vector<Progress*> watched, unsigned hangSeconds)
    : watched_(std::move(watched)), hangSeconds_(hangSeconds) {}

Watchdog::~Watchdog() { stop(); }

void Watchdog::start() { thread_ = std::thread([this] { run(); }); }

void Watchdog::stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
}

void Watchdog::run() {
    std::vector<unsigned long long> lastMoves(watched_.size(), ~0ull);
    std::vector<double> lastChange(watched_.size(), nowMs());
    while (!stopping_) {
        Sleep(250);
        for (size_t i = 0; i < watched_.size(); ++i) {
            const Progress& progress = *watched_[i];
            unsigned long long moves = progress.moves.load();
            if (moves != lastMoves[i] || progress.finished.load()) {
                lastMoves[i] = moves;
                lastChange[i] = nowMs();
            } else if (nowMs() - lastChange[i] > hangSeconds_ * 1000.0) {
                reportHang(progress, nowMs() - lastChange[i]);
            }
        }
    }
}

void Watchdog::reportHang(const Progress& stuck, double stuckMs) {
    std::printf("\nHANG at %.0f ms: %s has been in \"%s\" for %.0f s; its stack:\n", nowMs(), stuck.name.c_str(),
                stuck.step.load(), stuckMs / 1000);
    printThreadStack(stuck.threadId.load());
    std::printf("all threads:\n");
    printSteps(watched_);
    std::printf("result: NOT CLEAN (hang)\n");
    endProcess(kExitHang);
}

void installCrashReport(std::vector<Progress*> watched, std::function<void()> beforeExit) {
    crashWatched = std::move(watched);
    crashBeforeExit = std::move(beforeExit);
    SetUnhandledExceptionFilter(reportCrash);
}

}  // namespace stress
