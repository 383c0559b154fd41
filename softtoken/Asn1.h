// DER reading for the software token: public keys and the few certificate fields it reports.
#pragma once

#include <string>
#include <vector>

namespace softtoken {

using Bytes = std::vector<unsigned char>;

struct PublicKeyInfo {
    bool isRsa = false;
    Bytes modulus;   // RSA, big-endian without leading zero
    Bytes exponent;  // RSA
    int keyType = 0; // EC: token key type 5, 6 or 7
    Bytes point;     // EC: uncompressed point 04 || X || Y
};

struct CertificateFields {
    std::string subject;
    std::string issuer;
    std::string serialNumber;  // hex
    std::string notBefore;
    std::string notAfter;
    Bytes subjectPublicKeyInfo;
};

bool parseSubjectPublicKeyInfo(const Bytes& der, PublicKeyInfo& info);
bool parseCertificate(const Bytes& der, CertificateFields& fields);

// SubjectPublicKeyInfo of a named-curve EC key (key types 5-7).
Bytes encodeEcPublicKeyInfo(int keyType, const Bytes& point);

// The form the token keeps a public key in: the bare modulus for RSA, the SubjectPublicKeyInfo for EC.
bool tokenPublicKeyForm(const Bytes& subjectPublicKeyInfo, Bytes& form);

}  // namespace softtoken
