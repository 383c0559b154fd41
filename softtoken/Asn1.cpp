#include "softtoken/Asn1.h"

#include <algorithm>

#include "encoding/Der.h"
#include "encoding/Hex.h"

namespace softtoken {
namespace {

const Bytes kRsaEncryption = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};
const Bytes kEcPublicKey = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};

struct Curve {
    int keyType;
    Bytes oid;
};

const Curve kCurves[] = {
    {5, {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}},  // P-256
    {6, {0x2B, 0x81, 0x04, 0x00, 0x22}},                    // P-384
    {7, {0x2B, 0x81, 0x04, 0x00, 0x23}},                    // P-521
};

// One TLV element inside a buffer.
struct Element {
    unsigned char tag = 0;
    const unsigned char* start = nullptr;  // first byte of the tag
    const unsigned char* content = nullptr;
    size_t length = 0;
    const unsigned char* end() const { return content + length; }
    Bytes whole() const { return Bytes(start, end()); }
    Bytes bytes() const { return Bytes(content, end()); }
};

// Reads the next element from [cursor, limit); advances cursor past it.
bool next(const unsigned char*& cursor, const unsigned char* limit, Element& element) {
    if (cursor >= limit || limit - cursor < 2) return false;
    element.start = cursor;
    element.tag = *cursor++;
    size_t length = *cursor++;
    if (length & 0x80) {
        size_t count = length & 0x7F;
        if (count == 0 || count > 4 || static_cast<size_t>(limit - cursor) < count) return false;
        length = 0;
        for (size_t i = 0; i < count; ++i) length = (length << 8) | *cursor++;
    }
    if (static_cast<size_t>(limit - cursor) < length) return false;
    element.content = cursor;
    element.length = length;
    cursor += length;
    return true;
}

bool enter(const Element& outer, const unsigned char*& cursor, const unsigned char*& limit) {
    cursor = outer.content;
    limit = outer.end();
    return true;
}

Bytes stripLeadingZeros(Bytes value) {
    size_t zeros = 0;
    while (zeros + 1 < value.size() && value[zeros] == 0) ++zeros;
    value.erase(value.begin(), value.begin() + zeros);
    return value;
}

std::string oidText(const Element& oid) {
    std::string text;
    unsigned long value = 0;
    bool first = true;
    for (size_t i = 0; i < oid.length; ++i) {
        value = (value << 7) | (oid.content[i] & 0x7F);
        if (oid.content[i] & 0x80) continue;
        if (first) {
            text = std::to_string(value < 80 ? value / 40 : 2) + "." + std::to_string(value < 80 ? value % 40 : value - 80);
            first = false;
        } else {
            text += "." + std::to_string(value);
        }
        value = 0;
    }
    return text;
}

std::string attributeName(const std::string& oid) {
    if (oid == "2.5.4.3") return "CN";
    if (oid == "2.5.4.6") return "C";
    if (oid == "2.5.4.7") return "L";
    if (oid == "2.5.4.8") return "ST";
    if (oid == "2.5.4.10") return "O";
    if (oid == "2.5.4.11") return "OU";
    return oid;
}

// "CN=..., O=..." from a Name; values are taken as they are encoded.
std::string nameText(const Element& name) {
    std::string text;
    const unsigned char* cursor = name.content;
    const unsigned char* limit = name.end();
    Element rdn;
    while (next(cursor, limit, rdn)) {
        const unsigned char* setCursor = rdn.content;
        Element attribute;
        while (next(setCursor, rdn.end(), attribute)) {
            const unsigned char* inner = attribute.content;
            Element type, value;
            if (!next(inner, attribute.end(), type) || !next(inner, attribute.end(), value)) continue;
            if (!text.empty()) text += ", ";
            text += attributeName(oidText(type)) + "=" + std::string(value.content, value.end());
        }
    }
    return text;
}

}  // namespace

bool parseSubjectPublicKeyInfo(const Bytes& der, PublicKeyInfo& info) {
    const unsigned char* cursor = der.data();
    const unsigned char* limit = der.data() + der.size();
    Element spki, algorithm, algorithmOid, bitString;
    if (!next(cursor, limit, spki) || spki.tag != 0x30) return false;
    enter(spki, cursor, limit);
    if (!next(cursor, limit, algorithm) || algorithm.tag != 0x30 || !next(cursor, limit, bitString) ||
        bitString.tag != 0x03 || bitString.length < 2 || bitString.content[0] != 0)
        return false;
    const unsigned char* algCursor = algorithm.content;
    if (!next(algCursor, algorithm.end(), algorithmOid) || algorithmOid.tag != 0x06) return false;

    info = PublicKeyInfo{};
    if (algorithmOid.bytes() == kRsaEncryption) {
        const unsigned char* keyCursor = bitString.content + 1;
        Element rsaKey, modulus, exponent;
        if (!next(keyCursor, bitString.end(), rsaKey) || rsaKey.tag != 0x30) return false;
        keyCursor = rsaKey.content;
        if (!next(keyCursor, rsaKey.end(), modulus) || modulus.tag != 0x02 || !next(keyCursor, rsaKey.end(), exponent) ||
            exponent.tag != 0x02)
            return false;
        info.isRsa = true;
        info.modulus = stripLeadingZeros(modulus.bytes());
        info.exponent = stripLeadingZeros(exponent.bytes());
        return !info.modulus.empty();
    }
    if (algorithmOid.bytes() == kEcPublicKey) {
        Element curveOid;
        if (!next(algCursor, algorithm.end(), curveOid) || curveOid.tag != 0x06) return false;
        for (const Curve& curve : kCurves)
            if (curve.oid == curveOid.bytes()) info.keyType = curve.keyType;
        info.point.assign(bitString.content + 1, bitString.end());  // at least one byte: see the BIT STRING check
        return info.keyType != 0 && info.point[0] == 0x04;
    }
    return false;
}

bool parseCertificate(const Bytes& der, CertificateFields& fields) {
    const unsigned char* cursor = der.data();
    const unsigned char* limit = der.data() + der.size();
    Element certificate, tbs;
    if (!next(cursor, limit, certificate) || certificate.tag != 0x30) return false;
    enter(certificate, cursor, limit);
    if (!next(cursor, limit, tbs) || tbs.tag != 0x30) return false;
    enter(tbs, cursor, limit);

    Element element;
    if (!next(cursor, limit, element)) return false;
    if (element.tag == 0xA0 && !next(cursor, limit, element)) return false;  // explicit version
    if (element.tag != 0x02) return false;
    fields = CertificateFields{};
    fields.serialNumber = orvane::toHex(element.bytes());

    Element signature, issuer, validity, subject, spki;
    if (!next(cursor, limit, signature) || !next(cursor, limit, issuer) || !next(cursor, limit, validity) ||
        !next(cursor, limit, subject) || !next(cursor, limit, spki) || issuer.tag != 0x30 || validity.tag != 0x30 ||
        subject.tag != 0x30 || spki.tag != 0x30)
        return false;
    fields.issuer = nameText(issuer);
    fields.subject = nameText(subject);
    const unsigned char* timeCursor = validity.content;
    Element notBefore, notAfter;
    if (next(timeCursor, validity.end(), notBefore) && next(timeCursor, validity.end(), notAfter)) {
        fields.notBefore.assign(notBefore.content, notBefore.end());
        fields.notAfter.assign(notAfter.content, notAfter.end());
    }
    fields.subjectPublicKeyInfo = spki.whole();
    return true;
}

Bytes encodeEcPublicKeyInfo(int keyType, const Bytes& point) {
    Bytes algorithm = orvane::derWrap(0x06, kEcPublicKey);
    for (const Curve& curve : kCurves)
        if (curve.keyType == keyType) {
            Bytes curveOid = orvane::derWrap(0x06, curve.oid);
            algorithm.insert(algorithm.end(), curveOid.begin(), curveOid.end());
        }
    Bytes bitString(point.size() + 1, 0x00);  // zero unused bits, then the point
    std::copy(point.begin(), point.end(), bitString.begin() + 1);
    Bytes body = orvane::derWrap(0x30, algorithm);
    Bytes key = orvane::derWrap(0x03, bitString);
    body.insert(body.end(), key.begin(), key.end());
    return orvane::derWrap(0x30, body);
}

bool tokenPublicKeyForm(const Bytes& subjectPublicKeyInfo, Bytes& form) {
    PublicKeyInfo info;
    if (!parseSubjectPublicKeyInfo(subjectPublicKeyInfo, info)) return false;
    form = info.isRsa ? info.modulus : subjectPublicKeyInfo;
    return true;
}

}  // namespace softtoken
