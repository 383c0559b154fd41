#include "encoding/Pkcs7.h"

#include <cstring>

namespace orvane {
namespace {

// Closes the message on every path.
class EncodedMessage {
public:
    explicit EncodedMessage(HCRYPTMSG message) : message_(message) {}
    ~EncodedMessage() {
        if (message_) CryptMsgClose(message_);
    }
    EncodedMessage(const EncodedMessage&) = delete;
    EncodedMessage& operator=(const EncodedMessage&) = delete;
    HCRYPTMSG get() const { return message_; }

private:
    HCRYPTMSG message_;
};

}  // namespace

Pkcs7Encoding encodeCertificatesAsPkcs7(const std::vector<CERT_BLOB>& certificates, BYTE* buffer, DWORD* length) {
    CMSG_SIGNED_ENCODE_INFO info;
    std::memset(&info, 0, sizeof info);
    info.cbSize = sizeof info;
    info.cCertEncoded = static_cast<DWORD>(certificates.size());
    info.rgCertEncoded = const_cast<CERT_BLOB*>(certificates.data());
    EncodedMessage message(CryptMsgOpenToEncode(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, CMSG_SIGNED, &info,
                                                nullptr, nullptr));
    if (message.get() == nullptr) return Pkcs7Encoding::kRefused;

    // Without the final update the inner content type comes out empty.
    CryptMsgUpdate(message.get(), nullptr, 0, TRUE);
    DWORD size = 0;
    if (!CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, nullptr, &size)) return Pkcs7Encoding::kRefused;
    if (buffer != nullptr && *length >= size) {
        if (!CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, buffer, length)) return Pkcs7Encoding::kRefused;
        return Pkcs7Encoding::kWritten;
    }
    *length = size;
    return Pkcs7Encoding::kSizeOnly;
}

}  // namespace orvane
