// orvane-demo: an ordinary CryptoAPI application. It signs a file with a key on the token
// through "Orvane Cryptographic Provider CSP", writes the signature (big-endian, as OpenSSL
// expects) and the key's certificate, and checks the signature through CryptoAPI too.
//
//   orvane-demo CONTAINER FILE SIGNATURE_OUT CERTIFICATE_OUT [--answer-pin PIN]
//
// CONTAINER is a key id in hex, or "-" for the token's first key. With --answer-pin a
// background thread types the PIN into the provider's dialog, as a user would.
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tools/desktop/UiDriver.h"

namespace {

const char kProviderName[] = "Orvane Cryptographic Provider CSP";

int fail(const std::string& what) {
    std::fprintf(stderr, "orvane-demo: %s failed (error 0x%08lX)\n", what.c_str(), GetLastError());
    return 1;
}

std::string windowsPath(std::string path) {
    if (path.empty() || path[0] != '/') return path;
    path = "Z:" + path;
    for (char& c : path)
        if (c == '/') c = '\\';
    return path;
}

bool writeFile(const std::string& path, const std::vector<BYTE>& bytes) {
    std::ofstream file(windowsPath(path), std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(file);
}

// The provider logs the containers it found on the token when a context is opened.
void printContainersFromLog(size_t logSizeBefore, const std::string& logPath) {
    std::ifstream file(logPath, std::ios::binary);
    std::string log((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::string added = log.size() > logSizeBefore ? log.substr(logSizeBefore) : std::string();
    const std::string marker = "DEBUG ::=>";
    for (size_t start = 0; start < added.size();) {
        size_t end = added.find('\n', start);
        std::string line = added.substr(start, end == std::string::npos ? std::string::npos : end - start);
        size_t text = line.find(marker);
        if (text != std::string::npos) {
            std::string message = line.substr(text + marker.size());
            if (message.size() == 32 && message.find_first_not_of("0123456789ABCDEF") == std::string::npos)
                std::printf("  container %s\n", message.c_str());
        }
        if (end == std::string::npos) break;
        start = end + 1;
    }
}

std::string providerLogPath() {
    char temp[MAX_PATH];
    GetTempPathA(sizeof temp, temp);
    SYSTEMTIME today;
    GetLocalTime(&today);
    char name[64];
    std::snprintf(name, sizeof name, "/Kestrelon/orvane-demo.exe/%04d-%02d-%02d.LOG", today.wYear, today.wMonth, today.wDay);
    return std::string(temp) + name;
}

size_t fileSize(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    return file ? static_cast<size_t>(file.tellg()) : 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5 && argc != 7) {
        std::fprintf(stderr, "usage: orvane-demo CONTAINER FILE SIGNATURE_OUT CERTIFICATE_OUT [--answer-pin PIN]\n");
        return 2;
    }
    std::string container = argv[1];
    std::ifstream input(windowsPath(argv[2]), std::ios::binary);
    std::vector<BYTE> data((std::istreambuf_iterator<char>(input)), std::istreambuf_iterator<char>());
    if (!input.good() && !input.eof()) return fail(std::string("reading ") + argv[2]);

    std::unique_ptr<desktop::UiDriver> user;
    if (argc == 7) user.reset(new desktop::UiDriver({desktop::UiStep::enterPin(argv[6])}, 60000));

    std::string logPath = providerLogPath();
    size_t logBefore = fileSize(logPath);
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextA(&provider, container == "-" ? nullptr : container.c_str(), kProviderName, PROV_RSA_FULL, 0))
        return fail("CryptAcquireContext");
    std::printf("Acquired a CryptoAPI context from \"%s\"; the token holds:\n", kProviderName);
    printContainersFromLog(logBefore, logPath);

    HCRYPTHASH hash = 0;
    if (!CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash)) return fail("CryptCreateHash");
    if (!CryptHashData(hash, data.data(), static_cast<DWORD>(data.size()), 0)) return fail("CryptHashData");
    DWORD size = 0;
    if (!CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, nullptr, &size)) return fail("CryptSignHash (size)");
    std::vector<BYTE> signature(size);
    std::printf("Signing %s (%zu bytes, SHA-256) on the token...\n", argv[2], data.size());
    if (!CryptSignHashA(hash, AT_SIGNATURE, nullptr, 0, signature.data(), &size)) return fail("CryptSignHash");
    signature.resize(size);
    if (user) {
        for (const std::string& seen : user->finish()) std::printf("  answered: %s\n", seen.c_str());
    }

    HCRYPTKEY key = 0;
    if (!CryptGetUserKey(provider, AT_SIGNATURE, &key)) return fail("CryptGetUserKey");
    DWORD certificateSize = 0;
    if (!CryptGetKeyParam(key, KP_CERTIFICATE, nullptr, &certificateSize, 0)) return fail("CryptGetKeyParam (size)");
    std::vector<BYTE> certificate(certificateSize);
    if (!CryptGetKeyParam(key, KP_CERTIFICATE, certificate.data(), &certificateSize, 0)) return fail("CryptGetKeyParam");

    HCRYPTHASH check = 0;
    CryptCreateHash(provider, CALG_SHA_256, 0, 0, &check);
    CryptHashData(check, data.data(), static_cast<DWORD>(data.size()), 0);
    if (!CryptVerifySignatureA(check, signature.data(), size, key, nullptr, 0)) return fail("CryptVerifySignature");
    std::printf("CryptVerifySignature accepts the %lu-byte signature.\n", size);

    // CryptoAPI signatures are little-endian; OpenSSL reads them big-endian.
    std::vector<BYTE> bigEndian(signature.rbegin(), signature.rend());
    if (!writeFile(argv[3], bigEndian) || !writeFile(argv[4], certificate)) return fail("writing the output files");
    std::printf("Wrote %s (signature) and %s (the key's certificate from the token).\n", argv[3], argv[4]);

    CryptDestroyHash(check);
    CryptDestroyHash(hash);
    CryptDestroyKey(key);
    CryptReleaseContext(provider, 0);
    return 0;
}
