// The key's certificate where applications look for it: the current user's "MY" store, with
// the key provider information that orvane-certprop gives it.
#include <windows.h>
#include <wincrypt.h>

#include <string>

#include "tools/orvane-check/Checks.h"

namespace check {
namespace {

const char kStep[] = "certificate in the user's MY store";

bool rsaToCryptoApi() {
    DWORD value = 0, size = sizeof value;
    return RegGetValueA(HKEY_LOCAL_MACHINE, "Software\\Kestrelon\\Orvane", "propagateRsaToCsp", RRF_RT_REG_DWORD,
                        nullptr, &value, &size) == ERROR_SUCCESS &&
           value == 1;
}

std::string narrow(const wchar_t* text) {
    std::string out;
    for (; text != nullptr && *text != 0; ++text) out.push_back(static_cast<char>(*text));
    return out;
}

std::string bindingText(const std::string& provider, const std::string& container, DWORD provType, DWORD keySpec) {
    if (provType == 0) return "key storage provider \"" + provider + "\", key " + container;
    return "CryptoAPI provider \"" + provider + "\" (type " + std::to_string(provType) + "), container " + container +
           (keySpec == AT_KEYEXCHANGE ? ", AT_KEYEXCHANGE" : keySpec == AT_SIGNATURE ? ", AT_SIGNATURE" : ", dwKeySpec " + std::to_string(keySpec));
}

}  // namespace

void checkStoreBinding(Report& report, const std::string& container, const Bytes& certificate, bool rsa,
                       unsigned long keySpec) {
    const DWORD encoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
    HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0,
                                     CERT_SYSTEM_STORE_CURRENT_USER | CERT_STORE_READONLY_FLAG, L"MY");
    PCCERT_CONTEXT wanted =
        CertCreateCertificateContext(encoding, certificate.data(), static_cast<DWORD>(certificate.size()));
    PCCERT_CONTEXT found = store && wanted ? CertFindCertificateInStore(store, encoding, 0, CERT_FIND_EXISTING, wanted, nullptr)
                                           : nullptr;
    Bytes buffer;
    DWORD size = 0;
    if (found && CertGetCertificateContextProperty(found, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) {
        buffer.resize(size);
        if (!CertGetCertificateContextProperty(found, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(), &size)) buffer.clear();
    }
    bool inStore = found != nullptr;
    if (found) CertFreeCertificateContext(found);
    if (wanted) CertFreeCertificateContext(wanted);
    if (store) CertCloseStore(store, 0);

    bool toCsp = rsa && rsaToCryptoApi();
    std::string expected = bindingText(kProviderName, container, toCsp ? PROV_RSA_FULL : 0, keySpec);
    if (!inStore) {
        report.skip(kStep, container,
                    "not there: orvane-certprop puts it there while the token is plugged in (it starts at logon; "
                    "\"orvane-certprop --once\" does it now)");
        return;
    }
    if (buffer.empty()) {
        report.failCheck(kStep, container, "there without key provider information; expected " + expected);
        return;
    }
    const CRYPT_KEY_PROV_INFO* info = reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(buffer.data());
    std::string provider = narrow(info->pwszProvName), name = narrow(info->pwszContainerName);
    bool right = provider == kProviderName && name == container && info->dwProvType == (toCsp ? PROV_RSA_FULL : 0u) &&
                 (!toCsp || info->dwKeySpec == keySpec);
    std::string seen = bindingText(provider, name, info->dwProvType, info->dwKeySpec);
    if (right)
        report.pass(kStep, container, "bound to the " + seen);
    else
        report.failCheck(kStep, container, "bound to the " + seen + "; expected the " + expected);
}

}  // namespace check
