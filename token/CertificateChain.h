// The certificate chain of a container, from the certificates on its token, and its export
// as a certificates-only PKCS#7 SignedData (what PP_CERTCHAIN hands out).
// Nothing here sets the last error: the entry point does that from the outcome.
#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <vector>

#include "token/OrvaneDSCLibrary.h"

namespace orvane {

// Leaf first, then each issuer, root last.
using CertificateChain = std::vector<OrvaneCertificate>;

// Container name (see containerNameOf) -> the chain of the certificate whose public key is
// the key pair's. When several certificates hold one key, the last one in token order wins.
std::map<std::string, CertificateChain> buildContainerChains(const std::vector<OrvaneKeyPair>& keyPairs,
                                                            const std::vector<OrvaneCertificate>& certificates);

// Follows issuer names from certificates[leafIndex] through the token's certificates until a
// self-signed root, a missing issuer, or more entries than the token could account for.
CertificateChain buildIssuerChain(size_t leafIndex, const std::vector<OrvaneCertificate>& certificates);

struct Pkcs7Outcome {
    bool ok;
    DWORD lastError;  // 0 = leave the last error alone
};

// The chain engine completes the chain from the leaf, with the chain's certificates as its
// extra store; the message lists root first, leaf last. A null buffer or one shorter than the
// message is a size answer: ok with ERROR_MORE_DATA and the size in *length.
Pkcs7Outcome encodeChainAsPkcs7(const CertificateChain& chain, BYTE* buffer, DWORD* length);

}  // namespace orvane
