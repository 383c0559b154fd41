// Module entry. The module keeps itself loaded from the moment it is loaded: the statically
// linked C++ and thread runtimes take a TLS slot, a thread handle, an event and some heap the
// first time a host thread calls in, and give none of them back when the module unloads. A
// host that loads and frees the provider over and over would lose them on every cycle and
// abort once the TLS slots ran out (after about a thousand cycles). A running device monitor
// needs the module loaded anyway. At process exit the monitor is abandoned (its thread is
// already gone); the ordinary unload below only happens if pinning failed.
#include <windows.h>

#include "diagnostics/Log.h"
#include "token/DeviceMonitor.h"

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_ATTACH) {
        HMODULE self = nullptr;
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                           reinterpret_cast<LPCWSTR>(&DllMain), &self);
    } else if (reason == DLL_PROCESS_DETACH) {
        Utils::beforeModuleUnload();
        if (reserved != nullptr)
            orvane::abandonDeviceMonitor();
        else
            orvane::stopDeviceMonitor();
    }
    return TRUE;
}
