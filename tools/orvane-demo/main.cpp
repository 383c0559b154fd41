// orvane-demo: an ordinary CryptoAPI application. It lists the token's containers, signs a
// file with a key on the token through "Orvane Cryptographic Provider CSP", writes the
// signature (big-endian, as OpenSSL expects), the key's certificate and the container's
// certificate chain (PKCS#7), and checks the signature through CryptoAPI too.
//
//   orvane-demo CONTAINER FILE SIGNATURE_OUT CERTIFICATE_OUT CHAIN_OUT [--answer-pin PIN]
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

#include "tools/common/HostPath.h"
#include "tools/desktop/UiDriver.h"

namespace {

const char kProviderName[] = "Orvane Cryptographic Provider CSP";

int fail(const std::string& what) {
    std::fprintf(stderr, "orvane-demo: %s failed (error 0x%08lX)\n", what.c_str(), GetLastError());
    return 1;
}

bool writeFile(const std::string& path, const std::vector<BYTE>& bytes) {
    std::ofstream file(tools::windowsPathOf(path), std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(file);
}

// The containers as a management tool lists them: PP_ENUMCONTAINERS from CRYPT_FIRST on.
void printContainers(HCRYPTPROV provider) {
    char name[256];
    for (DWORD flags = CRYPT_FIRST;; flags = CRYPT_NEXT) {
        DWORD size = sizeof name;
        if (!CryptGetProvParam(provider, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &size, flags)) break;
        std::printf("  container %s\n", name);
    }
}

// PP_CERTCHAIN as a degenerate PKCS#7 message. Wine's crypt32 leaves the empty SETs of a
// message without signers out, which OpenSSL refuses, so the chain is read back here with
// crypt32 and each certificate's subject is printed, root first as the message holds them.
bool exportChain(HCRYPTPROV provider, const std::string& path) {
    DWORD size = 0;
    if (!CryptGetProvParam(provider, PP_CERTCHAIN, nullptr, &size, 0)) return false;
    std::vector<BYTE> chain(size);
    if (!CryptGetProvParam(provider, PP_CERTCHAIN, chain.data(), &size, 0)) return false;
    chain.resize(size);
    if (!writeFile(path, chain)) return false;
    CRYPT_DATA_BLOB blob{size, chain.data()};
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_PKCS7, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, 0, &blob);
    if (store == nullptr) return false;
    std::printf("Wrote %s (PKCS#7, %lu bytes); crypt32 reads these certificates from it:\n", path.c_str(), size);
    PCCERT_CONTEXT certificate = nullptr;
    while ((certificate = CertEnumCertificatesInStore(store, certificate)) != nullptr) {
        char subject[256];
        CertNameToStrA(X509_ASN_ENCODING, &certificate->pCertInfo->Subject, CERT_X500_NAME_STR, subject, sizeof subject);
        std::printf("  %s\n", subject);
    }
    CertCloseStore(store, 0);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6 && argc != 8) {
        std::fprintf(stderr, "usage: orvane-demo CONTAINER FILE SIGNATURE_OUT CERTIFICATE_OUT CHAIN_OUT [--answer-pin PIN]\n");
        return 2;
    }
    std::string container = argv[1];
    std::ifstream input(tools::windowsPathOf(argv[2]), std::ios::binary);
    std::vector<BYTE> data((std::istreambuf_iterator<char>(input)), std::istreambuf_iterator<char>());
    if (!input.good() && !input.eof()) return fail(std::string("reading ") + argv[2]);

    std::unique_ptr<desktop::UiDriver> user;
    if (argc == 8) user.reset(new desktop::UiDriver({desktop::UiStep::enterPin(argv[7])}, 60000));

    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextA(&provider, container == "-" ? nullptr : container.c_str(), kProviderName, PROV_RSA_FULL, 0))
        return fail("CryptAcquireContext");
    std::printf("Acquired a CryptoAPI context from \"%s\"; the token holds:\n", kProviderName);
    printContainers(provider);

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
    if (!exportChain(provider, argv[5])) return fail("CryptGetProvParam (PP_CERTCHAIN)");

    CryptDestroyHash(check);
    CryptDestroyHash(hash);
    CryptDestroyKey(key);
    CryptReleaseContext(provider, 0);
    return 0;
}
