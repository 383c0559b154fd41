// Helpers for tests that drive the provider: its log file, its log level, its exports.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/TestSupport.h"
#include "token/OrvaneDSCLibrary.h"

namespace orvanetest {

extern const char kProviderName[];

// Today's log file of this process, as the provider names it.
std::string providerLogPath();
// What the log file (this process's, or another's at `path`) holds now; tests compare what
// grew between two reads.
std::string readProviderLog(const std::string& path = providerLogPath());
// The text added to the log since `before` was read.
std::string logSince(const std::string& before, const std::string& path = providerLogPath());

// Sets HKLM\Software\Kestrelon\Orvane\logLevel; a negative level removes the value.
void setLogLevel(int level);

// An export of OrvaneCSP.dll, for paths that advapi32 filters before the provider sees them.
FARPROC providerExport(const char* name);
template <typename Function>
Function providerFunction(const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(providerExport(name)));
}

}  // namespace orvanetest

namespace orvanetest {

// OpenSSL's check of a signature (RSA PKCS#1, or ECDSA as DER) of message with a certificate's key.
::testing::AssertionResult verifiedByOpenSsl(const std::string& certificateFile, const std::string& digest,
                                             const std::string& message, const Bytes& signature);

// A CryptoAPI context through advapi32, released at the end of the scope: on a container of
// this provider ("" for none), or, made without one, a verification context of Wine's own.
class ContextHandle {
public:
    explicit ContextHandle(const std::string& container);
    ContextHandle();
    ~ContextHandle();
    ContextHandle(const ContextHandle&) = delete;
    ContextHandle& operator=(const ContextHandle&) = delete;
    operator HCRYPTPROV() const { return handle_; }

    HCRYPTKEY userKey(DWORD keySpec) const;
    HCRYPTKEY import(const Bytes& blob, HCRYPTKEY unwrapping = 0) const;
    HCRYPTHASH hash(ALG_ID algorithm, const std::string& data) const;
    // Size query, then the signature (little-endian, as CryptoAPI hands it out).
    Bytes sign(HCRYPTHASH hash, DWORD keySpec = AT_SIGNATURE, DWORD* queriedSize = nullptr) const;
    Bytes sign(ALG_ID algorithm, const std::string& data, DWORD keySpec = AT_SIGNATURE) const;
    // CryptVerifySignature of a fresh hash of data; the last error is the verification's.
    BOOL verify(ALG_ID algorithm, const std::string& data, const Bytes& signature, HCRYPTKEY key) const;

private:
    HCRYPTPROV handle_ = 0;
};

// CryptExportKey of a PUBLICKEYBLOB, size query first.
Bytes exportPublicKeyBlob(HCRYPTKEY key);

struct ProvisionedKey {
    std::string keyId;            // hex, the container name
    std::string certificateFile;  // DER certificate on the host (Unix path)
};

// A certificate for the public key of a token key pair (left in <keyId>.pub.der), issued by a
// test CA (OpenSSL on the host: ca.pem, ca.key) with the given subject; its file (<subject>.cert.der).
std::string issueCertificate(const std::string& serial, const std::string& keyId, const std::string& subject);
// Generates a key pair on the token, issues its certificate and stores that on the token.
ProvisionedKey provisionKeyWithCertificate(const std::string& serial, int keyType, int usage);
// The AES key the token added since `before` was listed proves its value by unwrapping what
// OpenSSL wrapped under that value.
void expectStoredAesKey(const std::string& serial, const std::vector<OrvaneSymmetricKey>& before, int32_t type,
                        const Bytes& value);

}  // namespace orvanetest
