#include "encoding/Der.h"

namespace orvane {
namespace {

const unsigned char kRsaAlgorithmIdentifier[] = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                                 0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00};

void append(Bytes& out, const Bytes& more) { out.insert(out.end(), more.begin(), more.end()); }

}  // namespace

Bytes derLength(size_t length) {
    if (length < 128) return Bytes{static_cast<unsigned char>(length)};
    Bytes bigEndian;
    for (size_t rest = length; rest != 0; rest >>= 8) bigEndian.insert(bigEndian.begin(), static_cast<unsigned char>(rest));
    bigEndian.insert(bigEndian.begin(), static_cast<unsigned char>(0x80 + bigEndian.size()));
    return bigEndian;
}

Bytes derInteger(const Bytes& magnitude) {
    Bytes content;
    if (!magnitude.empty() && (magnitude[0] & 0x80) != 0) content.push_back(0x00);
    append(content, magnitude);
    return derWrap(0x02, content);
}

Bytes derWrap(unsigned char tag, const Bytes& content) {
    Bytes out{tag};
    append(out, derLength(content.size()));
    append(out, content);
    return out;
}

Bytes encodeRsaPublicKeyDer(const Bytes& modulus, const Bytes& exponent) {
    Bytes integers = derInteger(modulus);
    append(integers, derInteger(exponent));
    Bytes bitStringContent{0x00};
    append(bitStringContent, derWrap(0x30, integers));

    Bytes body(kRsaAlgorithmIdentifier, kRsaAlgorithmIdentifier + sizeof kRsaAlgorithmIdentifier);
    append(body, derWrap(0x03, bitStringContent));
    return derWrap(0x30, body);
}

Bytes encodeEcdsaSignatureDer(const Bytes& rs) {
    // INTEGERs are minimal: leading zero bytes go, unless the next byte needs one for its sign.
    auto integer = [](Bytes magnitude) {
        while (magnitude.size() > 1 && magnitude[0] == 0 && magnitude[1] < 0x80) magnitude.erase(magnitude.begin());
        return derInteger(magnitude);
    };
    size_t half = rs.size() / 2;
    Bytes body = integer(Bytes(rs.begin(), rs.begin() + half));
    append(body, integer(Bytes(rs.begin() + half, rs.end())));
    return derWrap(0x30, body);
}

}  // namespace orvane
