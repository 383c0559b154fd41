// Module entry: at process exit the device monitor is abandoned (its thread is already gone);
// an ordinary unload can only happen while the monitor never ran, since it keeps us loaded.
#include <windows.h>

#include "token/DeviceMonitor.h"

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_DETACH) {
        if (reserved != nullptr)
            orvane::abandonDeviceMonitor();
        else
            orvane::stopDeviceMonitor();
    }
    return TRUE;
}
