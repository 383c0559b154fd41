// The current user's "MY" and "CA" stores. Only certificates carrying kPropagatedPropId are
// ever changed or deleted; a certificate the user put there (even the same one) is not ours.
#include <algorithm>
#include <memory>

#include "diagnostics/Log.h"
#include "tools/orvane-certprop/Propagation.h"

namespace certprop {
namespace {

const DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
const wchar_t* const kStoreNames[] = {L"MY", L"CA"};
const wchar_t kMarkSuffix[] = L": added by orvane-certprop";

struct StoreCloser {
    void operator()(void* store) const { CertCloseStore(store, 0); }
};
using Store = std::unique_ptr<void, StoreCloser>;

// The user's own registry part of the system store, where imported certificates go too. Wine's
// crypt32 loses a deletion made through the whole system store (it never flushes it).
Store openUserStore(const wchar_t* name) {
    return Store(CertOpenStore(CERT_STORE_PROV_SYSTEM_REGISTRY_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, name));
}

std::string storeText(const wchar_t* name) { return name[0] == L'M' ? "MY" : "CA"; }

std::string subjectOf(PCCERT_CONTEXT certificate) {
    char name[256] = {};
    CertGetNameStringA(certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, name, sizeof name);
    return name;
}

// Wine's crypt32 keeps no property of the user range: there the mark is the description.
std::wstring markText(const std::string& serial) {
    return L"Orvane token " + std::wstring(serial.begin(), serial.end()) + kMarkSuffix;
}

bool mark(PCCERT_CONTEXT certificate, const std::string& serial) {
    CRYPT_DATA_BLOB blob{static_cast<DWORD>(serial.size()), reinterpret_cast<BYTE*>(const_cast<char*>(serial.data()))};
    if (CertSetCertificateContextProperty(certificate, kPropagatedPropId, 0, &blob)) return true;
    std::wstring text = markText(serial);
    CRYPT_DATA_BLOB description{static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)),
                                reinterpret_cast<BYTE*>(&text[0])};
    return CertSetCertificateContextProperty(certificate, CERT_DESCRIPTION_PROP_ID, 0, &description) != FALSE;
}

bool sameDer(PCCERT_CONTEXT certificate, const std::vector<unsigned char>& der) {
    return certificate->cbCertEncoded == der.size() &&
           std::equal(der.begin(), der.end(), certificate->pbCertEncoded);
}

bool hasBinding(PCCERT_CONTEXT certificate, const Binding& binding) {
    DWORD size = 0;
    if (!CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) return false;
    std::vector<unsigned char> buffer(size);
    if (!CertGetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, buffer.data(), &size)) return false;
    const CRYPT_KEY_PROV_INFO* info = reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(buffer.data());
    return info->pwszProvName && info->pwszContainerName && binding.provider == info->pwszProvName &&
           binding.container == info->pwszContainerName && info->dwProvType == binding.provType &&
           info->dwKeySpec == binding.keySpec;
}

bool setBinding(PCCERT_CONTEXT certificate, const Binding& binding) {
    std::wstring provider = binding.provider, container = binding.container;
    CRYPT_KEY_PROV_INFO info{};
    info.pwszContainerName = &container[0];
    info.pwszProvName = &provider[0];
    info.dwProvType = binding.provType;
    info.dwKeySpec = binding.keySpec;
    return CertSetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, 0, &info) != FALSE;
}

std::string bindingText(const Binding& binding) {
    std::string container(binding.container.begin(), binding.container.end());
    const char* role = binding.keySpec == AT_KEYEXCHANGE ? "AT_KEYEXCHANGE" : "AT_SIGNATURE";
    return binding.provType == 0 ? "key storage provider, key " + container
                                 : std::string("CryptoAPI provider, container ") + container + ", " + role;
}

// The marked certificates of a store, each duplicated (the caller frees them).
std::vector<PCCERT_CONTEXT> propagatedIn(HCERTSTORE store) {
    std::vector<PCCERT_CONTEXT> found;
    for (PCCERT_CONTEXT certificate = CertEnumCertificatesInStore(store, nullptr); certificate != nullptr;
         certificate = CertEnumCertificatesInStore(store, certificate))
        if (isPropagated(certificate)) found.push_back(CertDuplicateCertificateContext(certificate));
    return found;
}

void removeCertificate(PCCERT_CONTEXT certificate, const wchar_t* storeName, SyncCounts& counts) {
    std::string subject = subjectOf(certificate);
    // Deleting frees the context it is given.
    if (CertDeleteCertificateFromStore(certificate)) {
        ++counts.removed;
        report("certprop: removed from " + storeText(storeName) + ": " + subject);
    } else {
        counts.ok = false;
        reportError("certprop: could not remove " + subject + " from " + storeText(storeName) + " : " +
                    std::to_string(GetLastError()));
    }
}

void addCertificate(HCERTSTORE store, const wchar_t* storeName, const TokenCertificate& wanted, bool rsaToCsp,
                    SyncCounts& counts) {
    PCCERT_CONTEXT created =
        CertCreateCertificateContext(kEncoding, wanted.der.data(), static_cast<DWORD>(wanted.der.size()));
    if (created == nullptr) {
        reportError("certprop: a certificate on token " + wanted.serial + " cannot be read; left out");
        return;
    }
    std::string subject = subjectOf(created);
    PCCERT_CONTEXT existing = CertFindCertificateInStore(store, kEncoding, 0, CERT_FIND_EXISTING, created, nullptr);
    if (existing != nullptr) {
        CertFreeCertificateContext(existing);
        CertFreeCertificateContext(created);
        report("certprop: " + subject + " is in " + storeText(storeName) + " already, not added by us: left as it is");
        return;
    }
    // Marked and bound before it goes in, so the store never holds it half made.
    Binding binding = bindingFor(wanted, rsaToCsp);
    bool ready = mark(created, wanted.serial) && (!wanted.withKey || setBinding(created, binding)) &&
                 CertAddCertificateContextToStore(store, created, CERT_STORE_ADD_NEW, nullptr);
    DWORD error = GetLastError();
    CertFreeCertificateContext(created);
    if (!ready) {
        counts.ok = false;
        reportError("certprop: could not add " + subject + " to " + storeText(storeName) + " : " + std::to_string(error));
        return;
    }
    ++counts.added;
    report("certprop: added to " + storeText(storeName) + ": " + subject + " (token " + wanted.serial +
           (wanted.withKey ? ", " + bindingText(binding) + ")" : ")"));
}

}  // namespace

bool isPropagated(PCCERT_CONTEXT certificate) {
    DWORD size = 0;
    if (CertGetCertificateContextProperty(certificate, kPropagatedPropId, nullptr, &size)) return true;
    wchar_t text[128] = {};
    size = sizeof text - sizeof(wchar_t);
    if (!CertGetCertificateContextProperty(certificate, CERT_DESCRIPTION_PROP_ID, text, &size)) return false;
    std::wstring description(text), suffix(kMarkSuffix), prefix(L"Orvane token ");
    return description.size() > prefix.size() + suffix.size() && description.compare(0, prefix.size(), prefix) == 0 &&
           description.compare(description.size() - suffix.size(), suffix.size(), suffix) == 0;
}

SyncCounts synchronizeStores(const std::vector<TokenCertificate>& wanted, bool rsaToCsp) {
    SyncCounts counts;
    for (const wchar_t* storeName : kStoreNames) {
        bool personal = storeName == kStoreNames[0];
        Store store = openUserStore(storeName);
        if (!store) {
            counts.ok = false;
            reportError("certprop: cannot open the user's " + storeText(storeName) + " store : " +
                        std::to_string(GetLastError()));
            continue;
        }
        std::vector<const TokenCertificate*> here;
        for (const TokenCertificate& certificate : wanted)
            if (certificate.withKey == personal &&
                std::none_of(here.begin(), here.end(), [&](const TokenCertificate* seen) { return seen->der == certificate.der; }))
                here.push_back(&certificate);

        std::vector<bool> present(here.size(), false);
        for (PCCERT_CONTEXT certificate : propagatedIn(store.get())) {
            size_t index = 0;
            while (index < here.size() && !sameDer(certificate, here[index]->der)) ++index;
            if (index == here.size()) {
                removeCertificate(certificate, storeName, counts);
                continue;
            }
            present[index] = true;
            if (personal && !hasBinding(certificate, bindingFor(*here[index], rsaToCsp))) {
                // Replaced whole: a property changed in place does not always reach the registry.
                ++counts.rebound;
                report("certprop: the binding of " + subjectOf(certificate) + " changes; it is replaced");
                removeCertificate(certificate, storeName, counts);
                present[index] = false;
                continue;
            }
            CertFreeCertificateContext(certificate);
        }
        for (size_t index = 0; index < here.size(); ++index)
            if (!present[index]) addCertificate(store.get(), storeName, *here[index], rsaToCsp, counts);
    }
    return counts;
}

SyncCounts removePropagated() {
    SyncCounts counts;
    for (const wchar_t* storeName : kStoreNames) {
        Store store = openUserStore(storeName);
        if (!store) {
            counts.ok = false;
            continue;
        }
        for (PCCERT_CONTEXT certificate : propagatedIn(store.get())) removeCertificate(certificate, storeName, counts);
    }
    return counts;
}

void report(const std::string& line) {
    Utils::logMessage(line);
    HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    if (output == nullptr || output == INVALID_HANDLE_VALUE) return;
    std::string text = line + "\r\n";
    DWORD written = 0;
    WriteFile(output, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

void reportError(const std::string& line) {
    Utils::logError(line);
    report(line);
}

}  // namespace certprop
