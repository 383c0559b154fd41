#include "tools/orvane-check/WindowsCrypto.h"

#include <windows.h>
#include <bcrypt.h>
#include <wincrypt.h>

#include <cstdio>
#include <cstring>

namespace check {
namespace {

const DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

Verdict accepted(const std::string& who) {
    Verdict verdict;
    verdict.kind = Verdict::kAccepted;
    verdict.what = who;
    return verdict;
}

Verdict refused(Verdict::Kind kind, const std::string& call, unsigned long code) {
    Verdict verdict;
    verdict.kind = kind;
    verdict.code = code;
    verdict.what = call;
    return verdict;
}

// A certificate context that frees itself.
class Certificate {
public:
    explicit Certificate(const Bytes& der)
        : context_(der.empty() ? nullptr
                               : CertCreateCertificateContext(kEncoding, der.data(), static_cast<DWORD>(der.size()))) {}
    ~Certificate() {
        if (context_ != nullptr) CertFreeCertificateContext(context_);
    }
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;

    PCCERT_CONTEXT get() const { return context_; }
    CERT_PUBLIC_KEY_INFO* publicKeyInfo() const { return &context_->pCertInfo->SubjectPublicKeyInfo; }
    bool hasRsaKey() const {
        return context_ != nullptr && std::strcmp(publicKeyInfo()->Algorithm.pszObjId, szOID_RSA_RSA) == 0;
    }

private:
    PCCERT_CONTEXT context_;
};

// `keySource` says which key: "the exported key" or "the certificate's key".
Verdict verifyWithBcryptKey(BCRYPT_KEY_HANDLE key, bool rsa, const Bytes& digest, const Bytes& signature,
                            const std::string& keySource) {
    BCRYPT_PKCS1_PADDING_INFO padding = {BCRYPT_SHA256_ALGORITHM};
    NTSTATUS status = BCryptVerifySignature(key, rsa ? &padding : nullptr, const_cast<PUCHAR>(digest.data()),
                                            static_cast<ULONG>(digest.size()), const_cast<PUCHAR>(signature.data()),
                                            static_cast<ULONG>(signature.size()), rsa ? BCRYPT_PAD_PKCS1 : 0);
    if (status != 0)
        return refused(Verdict::kRejected, "BCryptVerifySignature with " + keySource,
                       static_cast<unsigned long>(status));
    return accepted("bcrypt with " + keySource);
}

std::string isoDate(const FILETIME& time) {
    SYSTEMTIME date;
    if (!FileTimeToSystemTime(&time, &date)) return "?";
    char text[16];
    std::snprintf(text, sizeof text, "%04u-%02u-%02u", date.wYear, date.wMonth, date.wDay);
    return text;
}

}  // namespace

const char kIndependentStep[] = "verify with Windows' own crypto";

void reportVerdict(Report& report, const std::string& subject, const Verdict& verdict) {
    switch (verdict.kind) {
    case Verdict::kAccepted: report.pass(kIndependentStep, subject, verdict.what + " accepts the signature"); break;
    case Verdict::kRejected: report.fail(kIndependentStep, subject, verdict.code, verdict.what); break;
    case Verdict::kUnavailable:
        report.skip(kIndependentStep, subject,
                    "this system cannot check it: " + verdict.what + " answered " + describeError(verdict.code));
        break;
    }
}


Verdict verifyWithSystemRsaProvider(const Bytes& publicKeyBlob, const Bytes& message,
                                    const Bytes& signatureLittleEndian) {
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextA(&provider, nullptr, MS_ENH_RSA_AES_PROV_A, PROV_RSA_AES, CRYPT_VERIFYCONTEXT))
        return refused(Verdict::kUnavailable, "CryptAcquireContext (" MS_ENH_RSA_AES_PROV_A ")", GetLastError());
    HCRYPTKEY key = 0;
    HCRYPTHASH hash = 0;
    Verdict verdict;
    if (!CryptImportKey(provider, publicKeyBlob.data(), static_cast<DWORD>(publicKeyBlob.size()), 0, 0, &key))
        verdict = refused(Verdict::kRejected, "CryptImportKey of the exported key", GetLastError());
    else if (!CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash) ||
             !CryptHashData(hash, message.data(), static_cast<DWORD>(message.size()), 0))
        verdict = refused(Verdict::kUnavailable, "SHA-256 in " MS_ENH_RSA_AES_PROV_A, GetLastError());
    else if (!CryptVerifySignatureA(hash, signatureLittleEndian.data(),
                                    static_cast<DWORD>(signatureLittleEndian.size()), key, nullptr, 0))
        verdict = refused(Verdict::kRejected, "CryptVerifySignature in " MS_ENH_RSA_AES_PROV_A " with the exported key",
                          GetLastError());
    else
        verdict = accepted(MS_ENH_RSA_AES_PROV_A " with the exported key");
    if (hash != 0) CryptDestroyHash(hash);
    if (key != 0) CryptDestroyKey(key);
    CryptReleaseContext(provider, 0);
    return verdict;
}

Verdict verifyWithRsaPublicBlob(const Bytes& rsaPublicBlob, const Bytes& digest, const Bytes& signature) {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    NTSTATUS status = BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_RSA_ALGORITHM, nullptr, 0);
    if (status != 0)
        return refused(Verdict::kUnavailable, "BCryptOpenAlgorithmProvider (RSA)", static_cast<unsigned long>(status));
    BCRYPT_KEY_HANDLE key = nullptr;
    status = BCryptImportKeyPair(algorithm, nullptr, BCRYPT_RSAPUBLIC_BLOB, &key,
                                 const_cast<PUCHAR>(rsaPublicBlob.data()), static_cast<ULONG>(rsaPublicBlob.size()), 0);
    Verdict verdict = status != 0 ? refused(Verdict::kRejected, "BCryptImportKeyPair of the exported key",
                                            static_cast<unsigned long>(status))
                                  : verifyWithBcryptKey(key, true, digest, signature, "the exported key");
    if (key != nullptr) BCryptDestroyKey(key);
    BCryptCloseAlgorithmProvider(algorithm, 0);
    return verdict;
}

Verdict verifyWithCertificateKey(const Bytes& certificate, const Bytes& digest, const Bytes& signature) {
    Certificate parsed(certificate);
    if (parsed.get() == nullptr) return refused(Verdict::kRejected, "CertCreateCertificateContext", GetLastError());
    BCRYPT_KEY_HANDLE key = nullptr;
    if (!CryptImportPublicKeyInfoEx2(X509_ASN_ENCODING, parsed.publicKeyInfo(), 0, nullptr, &key))
        return refused(Verdict::kUnavailable,
                       std::string("CryptImportPublicKeyInfoEx2 (") + parsed.publicKeyInfo()->Algorithm.pszObjId + ")",
                       GetLastError());
    Verdict verdict = verifyWithBcryptKey(key, parsed.hasRsaKey(), digest, signature, "the certificate's key");
    BCryptDestroyKey(key);
    return verdict;
}

Bytes certificateRsaKeyAsPublicKeyBlob(const Bytes& certificate) {
    Certificate parsed(certificate);
    if (!parsed.hasRsaKey()) return {};
    const CRYPT_BIT_BLOB& bits = parsed.publicKeyInfo()->PublicKey;
    DWORD size = 0;
    if (!CryptDecodeObjectEx(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, bits.pbData, bits.cbData, 0, nullptr, nullptr,
                             &size))
        return {};
    Bytes blob(size);
    if (!CryptDecodeObjectEx(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, bits.pbData, bits.cbData, 0, nullptr,
                             blob.data(), &size))
        return {};
    blob.resize(size);
    return blob;
}

Bytes certificateRsaKeyAsRsaPublicBlob(const Bytes& certificate) {
    Certificate parsed(certificate);
    BCRYPT_KEY_HANDLE key = nullptr;
    if (!parsed.hasRsaKey() ||
        !CryptImportPublicKeyInfoEx2(X509_ASN_ENCODING, parsed.publicKeyInfo(), 0, nullptr, &key))
        return {};
    ULONG size = 0;
    Bytes blob;
    if (BCryptExportKey(key, nullptr, BCRYPT_RSAPUBLIC_BLOB, nullptr, 0, &size, 0) == 0) {
        blob.resize(size);
        if (BCryptExportKey(key, nullptr, BCRYPT_RSAPUBLIC_BLOB, blob.data(), size, &size, 0) == 0)
            blob.resize(size);
        else
            blob.clear();
    }
    BCryptDestroyKey(key);
    return blob;
}

std::string describeCertificate(const Bytes& certificate) {
    Certificate parsed(certificate);
    if (parsed.get() == nullptr) return "";
    char subject[256] = {};
    CertGetNameStringA(parsed.get(), CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, subject, sizeof subject);
    const CERT_INFO* info = parsed.get()->pCertInfo;
    LONG validity = CertVerifyTimeValidity(nullptr, const_cast<CERT_INFO*>(info));
    std::string when = validity > 0   ? "expired on " + isoDate(info->NotAfter)
                       : validity < 0 ? "not valid before " + isoDate(info->NotBefore)
                                      : "valid until " + isoDate(info->NotAfter);
    return "subject \"" + std::string(subject) + "\", " + when;
}

}  // namespace check
