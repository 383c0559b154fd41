#include "softtoken/ThreadLists.h"

#include <windows.h>

#include <new>

namespace softtoken {
namespace {

DWORD listsSlot = TLS_OUT_OF_INDEXES;

void releaseThreadLists() {
    if (listsSlot == TLS_OUT_OF_INDEXES) return;
    delete static_cast<ThreadLists*>(TlsGetValue(listsSlot));
    TlsSetValue(listsSlot, nullptr);
}

}  // namespace

ThreadLists* threadLists() noexcept {
    if (listsSlot == TLS_OUT_OF_INDEXES) return nullptr;
    ThreadLists* lists = static_cast<ThreadLists*>(TlsGetValue(listsSlot));
    if (lists != nullptr) return lists;
    lists = new (std::nothrow) ThreadLists();
    if (lists != nullptr && !TlsSetValue(listsSlot, lists)) {
        delete lists;
        return nullptr;
    }
    return lists;
}

}  // namespace softtoken

// Lists of threads still running when the library is unloaded stay allocated: only the
// unloading thread can reach its own.
BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
    using namespace softtoken;
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        listsSlot = TlsAlloc();
        break;
    case DLL_THREAD_DETACH:
        releaseThreadLists();
        break;
    case DLL_PROCESS_DETACH:
        releaseThreadLists();
        if (reserved == nullptr && listsSlot != TLS_OUT_OF_INDEXES) TlsFree(listsSlot);
        listsSlot = TLS_OUT_OF_INDEXES;
        break;
    default:
        break;
    }
    return TRUE;
}
