// Windows' own cryptography as the independent judge of what the provider hands out: the
// system's RSA provider (rsaenh), bcrypt and crypt32's certificate reading. Nothing here goes
// through OrvaneCSP.dll.
#pragma once

#include <string>

#include "tools/orvane-check/Checks.h"

#include "tools/common/Sha256.h"

namespace check {

struct Verdict {
    enum Kind { kAccepted, kRejected, kUnavailable };
    Kind kind = kUnavailable;
    unsigned long code = 0;  // the error of the call that failed
    std::string what;        // that call, or when accepted, who accepted with which key
};

// The report step that holds what Windows made of a signature.
extern const char kIndependentStep[];
void reportVerdict(Report& report, const std::string& subject, const Verdict& verdict);

using tools::sha256;

// The system's "Microsoft Enhanced RSA and AES Cryptographic Provider" (PROV_RSA_AES) with a
// PUBLICKEYBLOB, hashing `message` itself; the signature in CryptoAPI's little-endian order.
Verdict verifyWithSystemRsaProvider(const Bytes& publicKeyBlob, const Bytes& message,
                                    const Bytes& signatureLittleEndian);

// bcrypt with a BCRYPT_RSAPUBLIC_BLOB: PKCS #1 v1.5 over a SHA-256 digest, big-endian signature.
Verdict verifyWithRsaPublicBlob(const Bytes& rsaPublicBlob, const Bytes& digest, const Bytes& signature);

// bcrypt with the certificate's key (crypt32's CryptImportPublicKeyInfoEx2): PKCS #1 v1.5 with
// SHA-256 for an RSA key, r || s for an ECDSA key; big-endian signature.
Verdict verifyWithCertificateKey(const Bytes& certificate, const Bytes& digest, const Bytes& signature);

// The certificate's RSA public key as a PUBLICKEYBLOB (crypt32) or a BCRYPT_RSAPUBLIC_BLOB
// (bcrypt); empty for another kind of key or a certificate that cannot be read.
Bytes certificateRsaKeyAsPublicKeyBlob(const Bytes& certificate);
Bytes certificateRsaKeyAsRsaPublicBlob(const Bytes& certificate);

// "subject <name>, valid until 2027-03-01" (or "expired on ..."); empty when crypt32 cannot
// read the certificate.
std::string describeCertificate(const Bytes& certificate);

}  // namespace check
