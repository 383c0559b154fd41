// A list of DER certificates as a certificates-only PKCS#7 SignedData (no signers, no CRLs),
// made by crypt32's message encoder. Bytes in, the message or a refusal out; nothing is
// logged and no last error is set here.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <vector>

namespace orvane {

enum class Pkcs7Encoding {
    kWritten,   // the message is in the buffer and *length is its size
    kSizeOnly,  // no buffer, or one shorter than the message: *length is the size, the buffer untouched
    kRefused    // the encoder failed
};

// The certificates reach the encoder in the order given; it writes them as a DER SET OF and
// may sort them (Wine's does).
Pkcs7Encoding encodeCertificatesAsPkcs7(const std::vector<CERT_BLOB>& certificates, BYTE* buffer, DWORD* length);

}  // namespace orvane
