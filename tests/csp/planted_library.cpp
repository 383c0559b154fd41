// Planted under the token library's name in a host's folder: when loaded, it leaves a mark
// beside itself.
#include <windows.h>

#include <string>

BOOL WINAPI DllMain(HINSTANCE self, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        wchar_t path[MAX_PATH];
        DWORD length = GetModuleFileNameW(self, path, MAX_PATH);
        if (length == 0 || length == MAX_PATH) return TRUE;
        std::wstring mark = std::wstring(path) + L".loaded";
        HANDLE file = CreateFileW(mark.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
    }
    return TRUE;
}
