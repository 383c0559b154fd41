// orvane-ksp-sign: signs a file's SHA-256 digest with a token key through the CNG key storage
// provider, driving OrvaneCSP.dll's function table as the CNG router does, and writes the
// signature in the form OpenSSL reads (RSA as it comes, ECDSA r || s as a DER sequence).
//
//   orvane-ksp-sign KEYNAME FILE SIGNATURE_OUT
#include <windows.h>
#include <bcrypt.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "encoding/Der.h"
#include "provider/ksp/KspInterface.h"

#include "tools/common/HostPath.h"
#include "tools/common/Sha256.h"

namespace {

using Bytes = std::vector<unsigned char>;

int fail(const std::string& what, long status) {
    std::fprintf(stderr, "orvane-ksp-sign: %s failed (0x%08lX)\n", what.c_str(), static_cast<unsigned long>(status));
    return 1;
}


}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: orvane-ksp-sign KEYNAME FILE SIGNATURE_OUT\n");
        return 2;
    }
    std::ifstream input(tools::windowsPathOf(argv[2]), std::ios::binary);
    Bytes data((std::istreambuf_iterator<char>(input)), std::istreambuf_iterator<char>());
    Bytes digest;
    if (!tools::sha256(data, digest)) return fail("SHA-256 through bcrypt", 0);

    HMODULE module = LoadLibraryA("OrvaneCSP.dll");
    using GetInterface = NTSTATUS(WINAPI*)(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE**, DWORD);
    auto getInterface =
        module ? reinterpret_cast<GetInterface>(reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")))
               : nullptr;
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* ksp = nullptr;
    if (getInterface == nullptr || getInterface(L"Orvane Cryptographic Provider CSP", &ksp, 0) != 0)
        return fail("GetKeyStorageInterface", GetLastError());

    NCRYPT_PROV_HANDLE provider = 0;
    SECURITY_STATUS status = ksp->OpenProvider(&provider, L"Orvane Cryptographic Provider CSP", 0);
    if (status != 0) return fail("KSPOpenProvider", status);
    std::string name = argv[1];
    std::wstring wideName(name.begin(), name.end());
    NCRYPT_KEY_HANDLE key = 0;
    status = ksp->OpenKey(provider, &key, wideName.c_str(), 0, 0);
    if (status != 0) return fail("KSPOpenKey", status);

    wchar_t algorithmGroup[32] = {};
    DWORD size = 0;
    status = ksp->GetKeyProperty(provider, key, NCRYPT_ALGORITHM_GROUP_PROPERTY, reinterpret_cast<PBYTE>(algorithmGroup),
                                 sizeof algorithmGroup - sizeof(wchar_t), &size, 0);
    if (status != 0) return fail("KSPGetKeyProperty (algorithm group)", status);
    bool ecdsa = std::wstring(algorithmGroup) == L"ECDSA";

    BCRYPT_PKCS1_PADDING_INFO padding = {BCRYPT_SHA256_ALGORITHM};
    DWORD flags = ecdsa ? 0 : BCRYPT_PAD_PKCS1;
    status = ksp->SignHash(provider, key, ecdsa ? nullptr : &padding, digest.data(), 32, nullptr, 0, &size, flags);
    if (status != 0) return fail("KSPSignHash (size)", status);
    // The size answered is the key size in bytes, which an ECDSA signature (r and s) exceeds.
    Bytes signature(ecdsa ? 2 * size + 2 : size);
    status = ksp->SignHash(provider, key, ecdsa ? nullptr : &padding, digest.data(), 32, signature.data(),
                           static_cast<DWORD>(signature.size()), &size, flags);
    if (status != 0) return fail("KSPSignHash", status);
    signature.resize(size);
    std::printf("Signed %s (SHA-256) with %ls key %s through the key storage provider: %lu bytes.\n", argv[2],
                algorithmGroup, argv[1], size);

    Bytes out = ecdsa ? orvane::encodeEcdsaSignatureDer(signature) : signature;
    std::ofstream file(tools::windowsPathOf(argv[3]), std::ios::binary);
    file.write(reinterpret_cast<const char*>(out.data()), static_cast<std::streamsize>(out.size()));
    ksp->FreeKey(provider, key);
    ksp->FreeProvider(provider);
    return file ? 0 : fail("writing the signature", 0);
}
