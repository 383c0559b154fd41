#include "token/KeyCertificate.h"

#include <algorithm>
#include <cstring>

namespace orvane {
namespace {

std::vector<unsigned char> derOf(const OrvaneCertificate& certificate) {
    return std::vector<unsigned char>(certificate.certData, certificate.certData + certificateDerLength(certificate));
}

bool certificateHoldsPublicKey(const OrvaneCertificate& certificate, const KeyPairSnapshot& key) {
    if (key.publicKeyLength == 0) return false;
    std::vector<unsigned char> der = derOf(certificate);
    CertificateDetails details;
    if (orvane_getCertificateDetails(der.data(), static_cast<int>(der.size()), details, nullptr) != 0) return false;
    return detailsHoldPublicKey(details, key.publicKey, key.publicKeyLength);
}

}  // namespace

size_t certificateDerLength(const OrvaneCertificate& certificate) {
    return static_cast<size_t>(
        std::clamp<int32_t>(certificate.certLength, 0, static_cast<int32_t>(sizeof certificate.certData)));
}

bool detailsHoldPublicKey(const CertificateDetails& details, const unsigned char* publicKey, size_t length) {
    return details.publicKey.size() == length && std::equal(details.publicKey.begin(), details.publicKey.end(), publicKey);
}

bool certificateLinkedToKey(const OrvaneCertificate& certificate, const KeyPairSnapshot& key) {
    bool sameLabel = certificate.label[0] != '\0' && std::strncmp(certificate.label, key.label, 128) == 0;
    bool sameLink = certificate.certLinkIdLength >= 0 &&
                    static_cast<uint32_t>(certificate.certLinkIdLength) == key.certLinkIdLength &&
                    std::memcmp(certificate.certLinkId, key.certLinkId, key.certLinkIdLength) == 0;
    return sameLabel || sameLink;
}

const OrvaneKeyPair* findCertificateKeyPair(const OrvaneCertificate& certificate,
                                            const std::vector<OrvaneKeyPair>& keyPairs) {
    std::vector<KeyPairSnapshot> snapshots(keyPairs.size());
    for (size_t i = 0; i < keyPairs.size(); ++i) takeSnapshot(snapshots[i], keyPairs[i]);
    for (size_t i = 0; i < keyPairs.size(); ++i)
        if (certificateLinkedToKey(certificate, snapshots[i])) return &keyPairs[i];
    std::vector<unsigned char> der = derOf(certificate);
    CertificateDetails details;
    if (orvane_getCertificateDetails(der.data(), static_cast<int>(der.size()), details, nullptr) != 0) return nullptr;
    for (size_t i = 0; i < keyPairs.size(); ++i)
        if (snapshots[i].publicKeyLength != 0 &&
            detailsHoldPublicKey(details, snapshots[i].publicKey, snapshots[i].publicKeyLength))
            return &keyPairs[i];
    return nullptr;
}

bool findKeyCertificate(const std::string& serial, void* libraryContext, const KeyPairSnapshot& key,
                        CertificateSearch search, std::vector<unsigned char>& der) {
    orvane_initDevice(serial.c_str(), true, libraryContext);
    std::vector<OrvaneCertificate> certificates = orvane_getCertificateList(serial.c_str(), libraryContext);
    for (const OrvaneCertificate& certificate : certificates)
        if (certificateLinkedToKey(certificate, key)) {
            der = derOf(certificate);
            return true;
        }
    if (search == CertificateSearch::kLabelOrLinkThenPublicKey)
        for (const OrvaneCertificate& certificate : certificates)
            if (certificateHoldsPublicKey(certificate, key)) {
                der = derOf(certificate);
                return true;
            }
    return false;
}

}  // namespace orvane
