// Finding a key's certificate among the certificates on its token.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "token/KeyPairFacts.h"

namespace orvane {

enum class CertificateSearch {
    kLabelOrLink,             // same non-empty label, or the same link bytes
    kLabelOrLinkThenPublicKey // failing that, a certificate whose public key is the key's
};

// The record's DER bytes: its length bounded by the record's field, 0 when negative.
size_t certificateDerLength(const OrvaneCertificate& certificate);

// The public key that orvane_getCertificateDetails read from a certificate is exactly these
// bytes (equal lengths, equal bytes).
bool detailsHoldPublicKey(const CertificateDetails& details, const unsigned char* publicKey, size_t length);

// A certificate record belongs to a key when its label is non-empty and equals the key's
// label, or its link has the key's link length and bytes (two empty links match).
bool certificateLinkedToKey(const OrvaneCertificate& certificate, const KeyPairSnapshot& key);

// The key pair a certificate record belongs to, by the same two steps as findKeyCertificate
// from the other side: a key pair it is linked to by label or link, failing that one whose
// public key it holds. Null for a certificate without a key pair on the token (an issuer's).
const OrvaneKeyPair* findCertificateKeyPair(const OrvaneCertificate& certificate,
                                            const std::vector<OrvaneKeyPair>& keyPairs);

// Reopens the device (result not examined), reads the certificate list and returns the DER
// bytes of the first certificate that belongs to the key; false when none does.
bool findKeyCertificate(const std::string& serial, void* libraryContext, const KeyPairSnapshot& key,
                        CertificateSearch search, std::vector<unsigned char>& der);

}  // namespace orvane
