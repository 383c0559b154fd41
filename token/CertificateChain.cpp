#include "token/CertificateChain.h"

#include <wincrypt.h>

#include <algorithm>
#include <cstring>

#include "diagnostics/Log.h"
#include "encoding/Pkcs7.h"
#include "token/KeyCertificate.h"
#include "token/KeyPairFacts.h"

namespace orvane {
namespace {

const DWORD kCertificateEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

// A parsed certificate, released when it goes out of scope.
class ParsedCertificate {
public:
    explicit ParsedCertificate(const OrvaneCertificate& certificate)
        : context_(CertCreateCertificateContext(kCertificateEncoding, certificate.certData,
                                                static_cast<DWORD>(certificateDerLength(certificate)))) {}
    ~ParsedCertificate() {
        if (context_) CertFreeCertificateContext(context_);
    }
    ParsedCertificate(const ParsedCertificate&) = delete;
    ParsedCertificate& operator=(const ParsedCertificate&) = delete;
    ParsedCertificate(ParsedCertificate&& other) noexcept : context_(other.context_) { other.context_ = nullptr; }
    ParsedCertificate& operator=(ParsedCertificate&& other) noexcept {
        std::swap(context_, other.context_);
        return *this;
    }

    explicit operator bool() const { return context_ != nullptr; }
    PCCERT_CONTEXT get() const { return context_; }
    const CERT_INFO& info() const { return *context_->pCertInfo; }

private:
    PCCERT_CONTEXT context_;
};

bool sameName(const CERT_NAME_BLOB& first, const CERT_NAME_BLOB& second) {
    return CertCompareCertificateName(X509_ASN_ENCODING, const_cast<CERT_NAME_BLOB*>(&first),
                                      const_cast<CERT_NAME_BLOB*>(&second)) != FALSE;
}

// Everything the export opens, closed in reverse on every path.
struct ChainResources {
    PCCERT_CONTEXT leaf = nullptr;
    HCERTSTORE store = nullptr;
    PCCERT_CHAIN_CONTEXT chain = nullptr;

    ChainResources() = default;
    ChainResources(const ChainResources&) = delete;
    ChainResources& operator=(const ChainResources&) = delete;
    ~ChainResources() {
        if (chain) CertFreeCertificateChain(chain);
        if (store) CertCloseStore(store, 0);
        if (leaf) CertFreeCertificateContext(leaf);
    }
};

}  // namespace

std::map<std::string, CertificateChain> buildContainerChains(const std::vector<OrvaneKeyPair>& keyPairs,
                                                            const std::vector<OrvaneCertificate>& certificates) {
    std::map<std::string, CertificateChain> chains;
    for (size_t index = 0; index < certificates.size(); ++index) {
        const OrvaneCertificate& certificate = certificates[index];
        CertificateDetails details;
        if (orvane_getCertificateDetails(certificate.certData, static_cast<int>(certificateDerLength(certificate)),
                                         details, nullptr) != 0)
            continue;
        for (const OrvaneKeyPair& keyPair : keyPairs) {
            size_t keyLength = static_cast<size_t>(
                std::clamp<int32_t>(keyPair.publicKeyLength, 0, static_cast<int32_t>(sizeof keyPair.publicKey)));
            if (!detailsHoldPublicKey(details, keyPair.publicKey, keyLength)) continue;
            std::string container = containerNameOf(keyPair);
            Utils::logMessage("Public key match found; container=" + container);
            chains[container] = buildIssuerChain(index, certificates);
        }
    }
    return chains;
}

CertificateChain buildIssuerChain(size_t leafIndex, const std::vector<OrvaneCertificate>& certificates) {
    CertificateChain chain;
    if (leafIndex >= certificates.size()) return chain;
    chain.push_back(certificates[leafIndex]);

    ParsedCertificate current(certificates[leafIndex]);
    if (!current) {
        Utils::logMessage("[ERROR] Cannot parse leaf cert");
        return chain;
    }
    // Two certificates that name each other as issuer would otherwise be walked for ever.
    while (chain.size() <= certificates.size() + 1) {
        bool found = false;
        for (size_t index = 0; index < certificates.size() && !found; ++index) {
            if (index == leafIndex) continue;
            ParsedCertificate candidate(certificates[index]);
            if (!candidate || !sameName(current.info().Issuer, candidate.info().Subject)) continue;
            chain.push_back(certificates[index]);
            current = std::move(candidate);
            found = true;
        }
        if (!found) break;
        if (sameName(current.info().Subject, current.info().Issuer)) {
            Utils::logMessage("[ROOT] Self-signed root detected.");
            break;
        }
    }
    return chain;
}

Pkcs7Outcome encodeChainAsPkcs7(const CertificateChain& chain, BYTE* buffer, DWORD* length) {
    if (chain.empty()) {
        Utils::logError("Certificate Is Empty");
        return {false, static_cast<DWORD>(NTE_NO_KEY)};
    }
    ChainResources resources;
    resources.leaf = CertCreateCertificateContext(kCertificateEncoding, chain.front().certData,
                                                  static_cast<DWORD>(certificateDerLength(chain.front())));
    if (resources.leaf == nullptr) {
        Utils::logError("Failed creating leaf certificate");
        return {false, static_cast<DWORD>(NTE_BAD_KEY)};
    }

    // The chain engine finds the issuers among our own certificates, not the system stores'.
    resources.store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
    for (const OrvaneCertificate& certificate : chain) {
        ParsedCertificate parsed(certificate);
        if (parsed) CertAddCertificateContextToStore(resources.store, parsed.get(), CERT_STORE_ADD_ALWAYS, nullptr);
    }

    CERT_CHAIN_PARA parameters;
    std::memset(&parameters, 0, sizeof parameters);
    parameters.cbSize = sizeof parameters;
    if (!CertGetCertificateChain(nullptr, resources.leaf, nullptr, resources.store, &parameters, 0, nullptr,
                                 &resources.chain) ||
        resources.chain == nullptr) {
        Utils::logError("Chain build failed");
        return {false, 0};
    }

    // Root end first: the blobs point into the chain context, which outlives the message.
    std::vector<CERT_BLOB> encoded;
    for (DWORD simple = 0; simple < resources.chain->cChain; ++simple) {
        const CERT_SIMPLE_CHAIN* simpleChain = resources.chain->rgpChain[simple];
        for (DWORD element = simpleChain->cElement; element > 0; --element) {
            PCCERT_CONTEXT certificate = simpleChain->rgpElement[element - 1]->pCertContext;
            CERT_BLOB blob;
            blob.cbData = certificate->cbCertEncoded;
            blob.pbData = certificate->pbCertEncoded;
            encoded.push_back(blob);
        }
    }
    if (encoded.empty()) {
        Utils::logError("No certificates in PKCS#7 chain");
        return {false, 0};
    }

    switch (encodeCertificatesAsPkcs7(encoded, buffer, length)) {
    case Pkcs7Encoding::kWritten: return {true, 0};
    case Pkcs7Encoding::kSizeOnly: return {true, static_cast<DWORD>(ERROR_MORE_DATA)};
    case Pkcs7Encoding::kRefused: break;
    }
    return {false, 0};
}

}  // namespace orvane
