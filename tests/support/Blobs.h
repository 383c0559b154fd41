// Key blobs built as callers build them, r || s for OpenSSL, and a guard page behind a blob.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <cstring>
#include <initializer_list>
#include <new>

#include "tests/support/TestSupport.h"

namespace orvanetest {

inline Bytes dword(DWORD value) { return {BYTE(value), BYTE(value >> 8), BYTE(value >> 16), BYTE(value >> 24)}; }
inline Bytes join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}
inline Bytes reversed(const Bytes& bytes) { return Bytes(bytes.rbegin(), bytes.rend()); }
inline Bytes blobHeader(BYTE type, ALG_ID algorithm) { return join({{type, 2, 0, 0}, dword(algorithm)}); }
const DWORD kRsa1 = 0x31415352;
// PUBLICKEYBLOB with exponent 65537; CryptoAPI keeps the modulus little-endian.
inline Bytes capiRsaBlob(ALG_ID algorithm, DWORD magic, DWORD bits, const Bytes& littleEndianModulus) {
    return join({blobHeader(PUBLICKEYBLOB, algorithm), dword(magic), dword(bits), dword(65537), littleEndianModulus});
}
// BCRYPT_RSAKEY_BLOB with exponent 65537 and a big-endian modulus.
inline Bytes cngRsaBlob(DWORD bits, const Bytes& modulus) {
    return join({dword(kRsa1), dword(bits), dword(3), dword(DWORD(modulus.size())), dword(0), dword(0), {1, 0, 1}, modulus});
}
inline Bytes keyDataBlob(DWORD declared, const Bytes& value) {
    return join({dword(0x4D42444B), dword(1), dword(declared), value});
}

// r || s as the DER ECDSA-Sig-Value that OpenSSL reads.
inline Bytes ecdsaDer(const Bytes& rs) {
    auto integer = [](Bytes magnitude) {
        while (magnitude.size() > 1 && magnitude[0] == 0 && magnitude[1] < 0x80) magnitude.erase(magnitude.begin());
        if (magnitude[0] >= 0x80) magnitude.insert(magnitude.begin(), 0);
        return join({{0x02, BYTE(magnitude.size())}, magnitude});
    };
    size_t half = rs.size() / 2;
    Bytes body = join({integer(Bytes(rs.begin(), rs.begin() + half)), integer(Bytes(rs.begin() + half, rs.end()))});
    return join({body.size() >= 0x80 ? Bytes{0x30, 0x81} : Bytes{0x30}, {BYTE(body.size())}, body});
}

// A page followed by a PAGE_NOACCESS one: a blob placed at its end faults when read past.
class GuardPage {
public:
    GuardPage() {
        base_ = static_cast<BYTE*>(VirtualAlloc(nullptr, 2 * kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        DWORD old = 0;
        if (base_ == nullptr || !VirtualProtect(base_ + kPage, kPage, PAGE_NOACCESS, &old)) throw std::bad_alloc();
    }
    ~GuardPage() { VirtualFree(base_, 0, MEM_RELEASE); }
    GuardPage(const GuardPage&) = delete;
    GuardPage& operator=(const GuardPage&) = delete;
    BYTE* place(const Bytes& blob) {
        return static_cast<BYTE*>(std::memcpy(base_ + kPage - blob.size(), blob.data(), blob.size()));
    }

private:
    static const size_t kPage = 4096;
    BYTE* base_ = nullptr;
};

}  // namespace orvanetest
