#include "tests/support/ProviderSupport.h"

#include <psapi.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace orvanetest {

const char kProviderName[] = "Orvane Cryptographic Provider CSP";

std::string providerLogPath() {
    char temp[MAX_PATH], process[MAX_PATH];
    GetTempPathA(sizeof temp, temp);
    K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, process, sizeof process);
    SYSTEMTIME today;
    GetLocalTime(&today);
    char date[16];
    std::snprintf(date, sizeof date, "%04d-%02d-%02d", today.wYear, today.wMonth, today.wDay);
    return std::string(temp) + "/Kestrelon/" + process + "/" + date + ".LOG";
}

std::string readProviderLog() {
    std::ifstream file(providerLogPath(), std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

std::string logSince(const std::string& before) {
    std::string now = readProviderLog();
    return now.size() >= before.size() ? now.substr(before.size()) : now;
}

void setLogLevel(int level) {
    HKEY key = nullptr;
    if (RegCreateKeyExA(HKEY_LOCAL_MACHINE, "Software\\Kestrelon\\Orvane", 0, nullptr, 0, KEY_SET_VALUE, nullptr, &key,
                        nullptr) != ERROR_SUCCESS)
        throw std::runtime_error("cannot open the provider's settings key");
    if (level < 0) {
        RegDeleteValueA(key, "logLevel");
    } else {
        DWORD value = static_cast<DWORD>(level);
        RegSetValueExA(key, "logLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
    }
    RegCloseKey(key);
}

FARPROC providerExport(const char* name) {
    static HMODULE provider = LoadLibraryA("OrvaneCSP.dll");
    FARPROC function = provider ? GetProcAddress(provider, name) : nullptr;
    if (function == nullptr) throw std::runtime_error(std::string("OrvaneCSP.dll does not export ") + name);
    return function;
}

}  // namespace orvanetest

#include "softtoken/SoftTokenAdmin.h"
#include "tests/support/TestSupport.h"

namespace orvanetest {

ProvisionedKey provisionKeyWithCertificate(const std::string& serial, int keyType, int usage) {
    ProvisionedKey key;
    if (softtoken::admin::generateKeyPair(serial, keyType, "", usage, 0, key.keyId) != 0)
        throw std::runtime_error("key generation failed");
    std::vector<unsigned char> spki;
    softtoken::admin::exportPublicKey(serial, key.keyId, spki);
    writeFile(workDir() + "/" + key.keyId + ".pub.der", spki);
    key.certificateFile = workDir() + "/" + key.keyId + ".cert.der";
    HostResult host = runHost(
        "set -e\n"
        "[ -f ca.pem ] || openssl req -x509 -new -newkey rsa:2048 -nodes -keyout ca.key -subj '/CN=Orvane Test CA' "
        "-days 30 -out ca.pem 2>/dev/null\n"
        "openssl x509 -new -subj '/CN=" + key.keyId + "' -force_pubkey " + key.keyId +
        ".pub.der -CA ca.pem -CAkey ca.key -days 30 -outform DER -out " + key.certificateFile);
    if (host.exitCode != 0) throw std::runtime_error("certificate issue failed: " + host.output);
    std::string linked;
    if (softtoken::admin::importCertificate(serial, readFile(key.certificateFile), "", linked) != 0 || linked != key.keyId)
        throw std::runtime_error("certificate import failed");
    return key;
}

}  // namespace orvanetest
