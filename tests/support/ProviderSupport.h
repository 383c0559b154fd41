// Helpers for tests that drive the provider: its log file, its log level, its exports.
#pragma once

#include <windows.h>

#include <string>

namespace orvanetest {

extern const char kProviderName[];

// Today's log file of this process, as the provider names it.
std::string providerLogPath();
// What the log file holds now; tests compare what grew between two reads.
std::string readProviderLog();
// The text added to the log since `before` was read.
std::string logSince(const std::string& before);

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

struct ProvisionedKey {
    std::string keyId;            // hex, the container name
    std::string certificateFile;  // DER certificate on the host (Unix path)
};

// Generates a key pair on the token, has a test CA (OpenSSL on the host) issue a
// certificate for its public key, and stores the certificate on the token.
ProvisionedKey provisionKeyWithCertificate(const std::string& serial, int keyType, int usage);

}  // namespace orvanetest
