// libFuzzer target: the software token's DER readers (softtoken/Asn1) behind
// orvane_getCertificateDetails, certificate import and the public-key operations: a
// certificate with the key form the token compares, and a SubjectPublicKeyInfo on its own.
// Checks that a key read from DER is written again as DER that reads back as the same key.
#include <cstddef>
#include <cstdint>

#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "fuzz/FuzzCheck.h"
#include "softtoken/Asn1.h"

namespace {

using softtoken::Bytes;

void checkPublicKeyInfo(const Bytes& der) {
    softtoken::PublicKeyInfo info;
    Bytes form;
    bool parsed = softtoken::parseSubjectPublicKeyInfo(der, info);
    FUZZ_CHECK(softtoken::tokenPublicKeyForm(der, form) == parsed);
    if (!parsed) return;
    softtoken::PublicKeyInfo again;
    if (info.isRsa) {
        FUZZ_CHECK(!info.modulus.empty() && info.modulus.size() <= der.size());
        FUZZ_CHECK(info.modulus.size() == 1 || info.modulus[0] != 0);
        Bytes encoded = orvane::encodeRsaPublicKeyDer(info.modulus, info.exponent);
        FUZZ_CHECK(softtoken::parseSubjectPublicKeyInfo(encoded, again) && again.isRsa);
        FUZZ_CHECK(again.modulus == info.modulus && again.exponent == info.exponent);
    } else {
        FUZZ_CHECK(info.keyType >= 5 && info.keyType <= 7 && !info.point.empty() && info.point[0] == 0x04);
        FUZZ_CHECK(info.point.size() < der.size());
        Bytes encoded = softtoken::encodeEcPublicKeyInfo(info.keyType, info.point);
        FUZZ_CHECK(softtoken::parseSubjectPublicKeyInfo(encoded, again) && !again.isRsa);
        FUZZ_CHECK(again.keyType == info.keyType && again.point == info.point);
    }
    FUZZ_CHECK(form == (info.isRsa ? info.modulus : der));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes input(data, data + size);
    softtoken::CertificateFields fields;
    if (softtoken::parseCertificate(input, fields)) {
        const Bytes& spki = fields.subjectPublicKeyInfo;
        FUZZ_CHECK(spki.size() >= 2 && spki.size() <= size && spki[0] == 0x30);
        FUZZ_CHECK(fields.serialNumber.size() % 2 == 0 && fields.serialNumber.size() <= 2 * size);
        FUZZ_CHECK(fields.notBefore.size() <= size && fields.notAfter.size() <= size);
        checkPublicKeyInfo(spki);
    }
    checkPublicKeyInfo(input);
    return 0;
}
