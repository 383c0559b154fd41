#include "token/LibraryLoader.h"

#include <windows.h>
#include <delayimp.h>

#include <string>

#include "diagnostics/Log.h"

namespace orvane {
namespace {

const wchar_t kLibraryFile[] = L"OrvaneDSCLibrary.dll";

// The full path of the library in the folder of the module this code is linked into.
std::wstring libraryPathBesideThisModule() {
    HMODULE self = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCWSTR>(&libraryPathBesideThisModule), &self))
        return std::wstring();
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        DWORD length = GetModuleFileNameW(self, &path[0], static_cast<DWORD>(path.size()));
        if (length == 0) return std::wstring();
        if (length < path.size()) {
            path.resize(length);
            break;
        }
        path.resize(path.size() * 2);
    }
    std::wstring::size_type slash = path.find_last_of(L"\\/");
    if (slash == std::wstring::npos) return std::wstring();
    return path.substr(0, slash + 1) + kLibraryFile;
}

#if defined(ORVANE_CHECK_LIBRARY_NAMES)
// The token functions as this build's compiler names them. A library built by another compiler
// (the maker's, for instance) names them differently: a delay-load of a missing function would
// raise in the host, so such a library is not used at all.
const char* const kFunctionNames[] = {
#include "OrvaneDSCLibraryNames.inc"
};

bool exportsEveryTokenFunction(HMODULE library) {
    for (const char* name : kFunctionNames) {
        if (GetProcAddress(library, name) == nullptr) {
            Utils::logError(std::string("Token library does not export ") + name);
            return false;
        }
    }
    return true;
}
#else
// The maker's import library names the functions exactly as the maker's build exports them.
bool exportsEveryTokenFunction(HMODULE) { return true; }
#endif

HMODULE loadLibraryBesideThisModule() {
    // Loaded once and never freed: the delay-load thunks keep pointing into it.
    static const HMODULE library = []() -> HMODULE {
        std::wstring path = libraryPathBesideThisModule();
        if (path.empty()) return nullptr;
        HMODULE loaded = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
        if (loaded != nullptr && !exportsEveryTokenFunction(loaded)) {
            FreeLibrary(loaded);
            return nullptr;
        }
        return loaded;
    }();
    return library;
}

bool isTokenLibraryName(const char* name) {
    return name != nullptr && lstrcmpiA(name, "OrvaneDSCLibrary.dll") == 0;
}

FARPROC WINAPI delayLoadNotify(unsigned notification, PDelayLoadInfo info) {
    if (notification == dliNotePreLoadLibrary && isTokenLibraryName(info->szDll))
        return reinterpret_cast<FARPROC>(loadLibraryBesideThisModule());
    return nullptr;
}

}  // namespace

bool tokenLibraryAvailable() { return loadLibraryBesideThisModule() != nullptr; }

}  // namespace orvane

// The delay-load helper asks this hook before it loads a library itself.
#if defined(_MSC_VER)
const PfnDliHook __pfnDliNotifyHook2 = orvane::delayLoadNotify;
#else
PfnDliHook __pfnDliNotifyHook2 = orvane::delayLoadNotify;  // declared extern "C" by <delayimp.h>
#endif
