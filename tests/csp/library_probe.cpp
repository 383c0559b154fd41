// A host that links nothing of the token: it loads the provider from the path it is given,
// opens it through both faces and prints what it got and where OrvaneDSCLibrary.dll came from.
#include <windows.h>

#include <cstdio>

#include "provider/csp/CspInterface.h"
#include "provider/ksp/KspInterface.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    HMODULE provider = LoadLibraryExA(argv[1], nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (provider == nullptr) {
        std::printf("provider not loaded %lu\n", GetLastError());
        return 1;
    }
    auto acquire = reinterpret_cast<decltype(&CPAcquireContext)>(
        reinterpret_cast<void*>(GetProcAddress(provider, "CPAcquireContext")));
    VTableProvStruc table{};
    HCRYPTPROV context = 0;
    BOOL acquired = acquire(&context, nullptr, 0, &table);
    std::printf("acquire %d %08lx\n", acquired ? 1 : 0, acquired ? 0ul : GetLastError());

    using GetInterface = NTSTATUS(WINAPI*)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE**, DWORD);
    auto getInterface =
        reinterpret_cast<GetInterface>(reinterpret_cast<void*>(GetProcAddress(provider, "GetKeyStorageInterface")));
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* ksp = nullptr;
    NCRYPT_PROV_HANDLE handle = 0;
    if (getInterface(L"Orvane Cryptographic Provider CSP", &ksp, 0) == 0)
        std::printf("open %08lx\n", static_cast<unsigned long>(ksp->OpenProvider(&handle, L"Orvane Cryptographic Provider CSP", 0)));

    wchar_t path[MAX_PATH] = L"none";
    HMODULE library = GetModuleHandleW(L"OrvaneDSCLibrary.dll");
    if (library != nullptr) GetModuleFileNameW(library, path, MAX_PATH);
    std::printf("library %ls\n", path);
    return 0;
}
