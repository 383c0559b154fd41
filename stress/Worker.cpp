#include "stress/Worker.h"

#include <algorithm>
#include <set>

#include "tests/support/KspHarness.h"

namespace stress {
namespace {

const char kProviderName[] = "Orvane Cryptographic Provider CSP";
const wchar_t kProviderNameW[] = L"Orvane Cryptographic Provider CSP";

struct HashAlgorithm {
    ALG_ID capi;
    LPCWSTR bcrypt;
};
const HashAlgorithm kRsaHashes[] = {{CALG_SHA1, BCRYPT_SHA1_ALGORITHM},
                                    {CALG_SHA_256, BCRYPT_SHA256_ALGORITHM},
                                    {CALG_SHA_384, BCRYPT_SHA384_ALGORITHM},
                                    {CALG_SHA_512, BCRYPT_SHA512_ALGORITHM}};
const HashAlgorithm kEcHash = {CALG_SHA_256, BCRYPT_SHA256_ALGORITHM};

Bytes reversed(const Bytes& bytes) { return Bytes(bytes.rbegin(), bytes.rend()); }

std::wstring wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

class ScopedContext {
public:
    ~ScopedContext() {
        if (provider_) CryptReleaseContext(provider_, 0);
    }
    HCRYPTPROV* out() { return &provider_; }
    HCRYPTPROV get() const { return provider_; }
    HCRYPTPROV release() {
        HCRYPTPROV provider = provider_;
        provider_ = 0;
        return provider;
    }

private:
    HCRYPTPROV provider_ = 0;
};

class ScopedHash {
public:
    ~ScopedHash() {
        if (hash_) CryptDestroyHash(hash_);
    }
    HCRYPTHASH* out() { return &hash_; }
    HCRYPTHASH get() const { return hash_; }
    HCRYPTHASH release() {
        HCRYPTHASH hash = hash_;
        hash_ = 0;
        return hash;
    }

private:
    HCRYPTHASH hash_ = 0;
};

}  // namespace

Worker::Worker(int index, const RunSetup& setup, const PlugCycler& cycler, Progress& progress)
    : index_(index), setup_(setup), cycler_(cycler), progress_(progress),
      random_(setup.seed * 7919u + static_cast<unsigned>(index)) {}

Worker::Outcome Worker::lastError() const { return Outcome{false, progress_.step.load(), GetLastError()}; }

Worker::Outcome Worker::status(SECURITY_STATUS result) const {
    return Outcome{false, progress_.step.load(), static_cast<DWORD>(result)};
}

Worker::Outcome Worker::anomaly(Anomaly what) const { return Outcome{false, progress_.step.load(), 0, what}; }

Bytes Worker::randomBytes(size_t minimum, size_t maximum) {
    Bytes bytes(std::uniform_int_distribution<size_t>(minimum, maximum)(random_));
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random_());
    return bytes;
}

void Worker::run() {
    progress_.threadId = GetCurrentThreadId();
    Checker checker(setup_.rsaPublicKey, setup_.ecPublicKey);
    checker_ = &checker;
    for (long long done = 0; done < setup_.opsPerThread; ++done) {
        Op op = static_cast<Op>(std::uniform_int_distribution<int>(0, kOpCount - 1)(random_));
        double start = nowMs();
        ++totals_.attempts[static_cast<int>(op)];
        Outcome outcome = checker.ready() ? runOp(op) : anomaly(Anomaly::CheckerBroken);
        record(op, start, outcome);
        progress_.operations.fetch_add(1);
        if (!outcome.ok && setup_.backoffMs > 0) {
            progress_.enter("pausing after a failure");
            Sleep(setup_.backoffMs);
        }
    }
    progress_.enter("closing held handles");
    dropCsp(false);
    dropKsp(false);
    checker_ = nullptr;
    progress_.enter("done");
    progress_.finished = true;
}

void Worker::record(Op op, double start, const Outcome& outcome) {
    if (outcome.ok) {
        ++totals_.succeeded[static_cast<int>(op)];
        return;
    }
    Failure failure;
    failure.startMs = start;
    failure.endMs = nowMs();
    failure.worker = index_;
    failure.op = op;
    failure.step = outcome.step;
    failure.code = outcome.code;
    failure.anomaly = outcome.anomaly;
    totals_.failures.push_back(failure);
}

Worker::Outcome Worker::runOp(Op op) {
    switch (op) {
    case Op::CspSignRsaHeld: return cspSign(false, true);
    case Op::CspSignEcHeld: return cspSign(true, true);
    case Op::CspSignRsaFresh: return cspSign(false, false);
    case Op::CspSignEcFresh: return cspSign(true, false);
    case Op::CspDecrypt: return cspDecrypt();
    case Op::CspEnumContainers: return cspEnumContainers();
    case Op::KspSignRsa: return kspSign(false);
    case Op::KspSignEc: return kspSign(true);
    case Op::KspDecrypt: return kspDecrypt();
    case Op::KspEnumKeys: return kspEnumKeys();
    default: return anomaly(Anomaly::CheckerBroken);
    }
}

// ---- CryptoAPI ---------------------------------------------------------------------------------

Worker::Outcome Worker::acquireCsp(HCRYPTPROV& slot, const std::string& container) {
    progress_.enter("CryptAcquireContext");
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextA(&provider, container.c_str(), kProviderName, PROV_RSA_FULL, 0)) return lastError();
    // The PIN as an application hands it over, so that no dialog is needed while the token is in.
    if (!setup_.pin.empty()) {
        progress_.enter("CryptSetProvParam(PP_SIGNATURE_PIN)");
        if (!CryptSetProvParam(provider, PP_SIGNATURE_PIN, reinterpret_cast<const BYTE*>(setup_.pin.c_str()), 0)) {
            Outcome failed = lastError();
            CryptReleaseContext(provider, 0);
            return failed;
        }
    }
    slot = provider;
    return Outcome{};
}

Worker::Outcome Worker::heldCsp(bool ec, HCRYPTPROV& provider) {
    HCRYPTPROV& slot = ec ? cspEc_ : cspRsa_;
    if (slot == 0) {
        if (cspOpenedAt_ < 0) cspOpenedAt_ = cycler_.unplugsBegun();
        Outcome opened = acquireCsp(slot, ec ? setup_.ecContainer : setup_.rsaContainer);
        if (!opened.ok) return opened;
    }
    provider = slot;
    return Outcome{};
}

Worker::Outcome Worker::heldExchangeKey(HCRYPTKEY& key) {
    HCRYPTPROV provider = 0;
    Outcome held = heldCsp(false, provider);
    if (!held.ok) return held;
    if (cspExchange_ == 0) {
        progress_.enter("CryptGetUserKey(AT_KEYEXCHANGE)");
        if (!CryptGetUserKey(provider, AT_KEYEXCHANGE, &cspExchange_)) return lastError();
    }
    key = cspExchange_;
    return Outcome{};
}

void Worker::dropCsp(bool afterFailure) {
    if (afterFailure) ++totals_.reacquired;
    if (cspExchange_) CryptDestroyKey(cspExchange_);
    for (HCRYPTPROV* slot : {&cspRsa_, &cspEc_})
        if (*slot) CryptReleaseContext(*slot, 0);
    cspExchange_ = 0;
    cspRsa_ = cspEc_ = 0;
    cspOpenedAt_ = -1;
}

void Worker::noteHeldUse(long long& openedAt) {
    long long now = cycler_.unplugsBegun();
    if (openedAt >= 0 && now > openedAt) {
        ++totals_.heldSurvivedReplug;
        openedAt = now;
    }
}

Worker::Outcome Worker::cspSign(bool ec, bool held) {
    HCRYPTPROV provider = 0;
    ScopedContext fresh;
    Outcome opened;
    if (held) {
        opened = heldCsp(ec, provider);
    } else {
        progress_.enter("CryptAcquireContext");
        if (!CryptAcquireContextA(fresh.out(), (ec ? setup_.ecContainer : setup_.rsaContainer).c_str(), kProviderName,
                                  PROV_RSA_FULL, 0))
            opened = lastError();
        provider = fresh.get();
    }
    if (!opened.ok) {
        if (held) dropCsp(true);
        return opened;
    }

    const HashAlgorithm& algorithm = ec ? kEcHash : kRsaHashes[random_() % 4];
    Bytes data = randomBytes(1, 4096);
    Bytes signature;
    Outcome signedIt = [&]() -> Outcome {
        ScopedHash hash;
        progress_.enter("CryptCreateHash");
        if (!CryptCreateHash(provider, algorithm.capi, 0, 0, hash.out())) return lastError();
        progress_.enter("CryptHashData");
        if (!CryptHashData(hash.get(), data.data(), static_cast<DWORD>(data.size()), 0)) return lastError();
        progress_.enter("CryptSignHash(size)");
        DWORD size = 0;
        if (!CryptSignHashA(hash.get(), AT_SIGNATURE, nullptr, 0, nullptr, &size)) return lastError();
        signature.assign(size, 0);
        progress_.enter("CryptSignHash");
        if (!CryptSignHashA(hash.get(), AT_SIGNATURE, nullptr, 0, signature.data(), &size)) return lastError();
        signature.resize(size);
        progress_.enter("CryptDestroyHash");
        if (!CryptDestroyHash(hash.release())) return lastError();
        return Outcome{};
    }();
    if (!signedIt.ok) {
        if (held) dropCsp(true);
        return signedIt;
    }
    if (!held) {
        progress_.enter("CryptReleaseContext");
        if (!CryptReleaseContext(fresh.release(), 0)) return lastError();
    }

    progress_.enter("checking the signature (bcrypt)");
    Bytes digest;
    if (!checker_->digest(algorithm.bcrypt, data, digest)) return anomaly(Anomaly::CheckerBroken);
    // CryptoAPI hands signatures out little-endian.
    Bytes bigEndian = reversed(signature);
    bool good = ec ? checker_->verifyEc(digest, bigEndian) : checker_->verifyRsa(algorithm.bcrypt, digest, bigEndian);
    if (!good) return anomaly(Anomaly::WrongSignature);
    if (held) noteHeldUse(cspOpenedAt_);
    return Outcome{};
}

Worker::Outcome Worker::cspDecrypt() {
    HCRYPTKEY key = 0;
    Outcome held = heldExchangeKey(key);
    if (!held.ok) {
        dropCsp(true);
        return held;
    }
    progress_.enter("encrypting (rsaenh)");
    Bytes plain = randomBytes(1, 200), cipher;
    if (!checker_->encryptRsa(plain, cipher)) return anomaly(Anomaly::CheckerBroken);
    progress_.enter("CryptDecrypt");
    DWORD length = static_cast<DWORD>(cipher.size());
    if (!CryptDecrypt(key, 0, TRUE, 0, cipher.data(), &length)) {
        Outcome failed = lastError();
        dropCsp(true);
        return failed;
    }
    cipher.resize(length);
    if (cipher != plain) return anomaly(Anomaly::WrongPlaintext);
    noteHeldUse(cspOpenedAt_);
    return Outcome{};
}

Worker::Outcome Worker::cspEnumContainers() {
    progress_.enter("CryptAcquireContext");
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextA(&provider, nullptr, kProviderName, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) return lastError();
    std::set<std::string> names;
    Outcome listed;
    progress_.enter("CryptGetProvParam(PP_ENUMCONTAINERS)");
    for (DWORD flags = CRYPT_FIRST;; flags = CRYPT_NEXT) {
        char name[256] = {};
        DWORD size = sizeof name;
        if (!CryptGetProvParam(provider, PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name), &size, flags)) {
            if (GetLastError() != ERROR_NO_MORE_ITEMS) listed = lastError();
            break;
        }
        names.insert(name);
    }
    progress_.enter("CryptReleaseContext");
    if (!CryptReleaseContext(provider, 0) && listed.ok) listed = lastError();
    if (!listed.ok) return listed;
    progress_.enter("CryptGetProvParam(PP_ENUMCONTAINERS)");
    if (!names.count(setup_.rsaContainer) || !names.count(setup_.ecContainer)) return anomaly(Anomaly::ShortEnumeration);
    return Outcome{};
}

// ---- Key storage provider --------------------------------------------------------------------

Worker::Outcome Worker::heldKsp() {
    if (kspProvider_ && kspRsa_ && kspEc_) return Outcome{};
    if (kspOpenedAt_ < 0) kspOpenedAt_ = cycler_.unplugsBegun();
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& ksp = orvanetest::ksp();
    if (kspProvider_ == 0) {
        progress_.enter("KSPOpenProvider");
        if (SECURITY_STATUS result = ksp.OpenProvider(&kspProvider_, kProviderNameW, 0)) {
            kspProvider_ = 0;
            return status(result);
        }
        if (!setup_.pin.empty()) {
            progress_.enter("KSPSetProviderProperty(SmartCardPin)");
            auto pin = reinterpret_cast<PBYTE>(const_cast<char*>(setup_.pin.c_str()));
            SECURITY_STATUS result = ksp.SetProviderProperty(kspProvider_, NCRYPT_PIN_PROPERTY, pin,
                                                             static_cast<DWORD>(setup_.pin.size() + 1), 0);
            if (result != 0) return status(result);
        }
    }
    for (NCRYPT_KEY_HANDLE* slot : {&kspRsa_, &kspEc_}) {
        if (*slot) continue;
        std::wstring name = wide(slot == &kspRsa_ ? setup_.rsaContainer : setup_.ecContainer);
        progress_.enter("KSPOpenKey");
        if (SECURITY_STATUS result = ksp.OpenKey(kspProvider_, slot, name.c_str(), 0, 0)) {
            *slot = 0;
            return status(result);
        }
    }
    return Outcome{};
}

void Worker::dropKsp(bool afterFailure) {
    if (afterFailure) ++totals_.reacquired;
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& ksp = orvanetest::ksp();
    for (NCRYPT_KEY_HANDLE* slot : {&kspRsa_, &kspEc_})
        if (*slot) ksp.FreeKey(kspProvider_, *slot);
    if (kspProvider_) ksp.FreeProvider(kspProvider_);
    kspRsa_ = kspEc_ = 0;
    kspProvider_ = 0;
    kspOpenedAt_ = -1;
}

Worker::Outcome Worker::kspSign(bool ec) {
    Outcome held = heldKsp();
    if (!held.ok) {
        dropKsp(true);
        return held;
    }
    const HashAlgorithm& algorithm = ec ? kEcHash : kRsaHashes[random_() % 4];
    progress_.enter("hashing (bcrypt)");
    Bytes digest;
    if (!checker_->digest(algorithm.bcrypt, randomBytes(1, 4096), digest)) return anomaly(Anomaly::CheckerBroken);

    BCRYPT_PKCS1_PADDING_INFO padding{algorithm.bcrypt};
    // Silent: a service cannot answer a dialog; a token that is away is refused instead.
    DWORD flags = NCRYPT_SILENT_FLAG | (ec ? 0 : BCRYPT_PAD_PKCS1);
    Bytes signature(ec ? 64 : 256);
    DWORD size = 0;
    progress_.enter("KSPSignHash");
    if (SECURITY_STATUS result = orvanetest::ksp().SignHash(
            kspProvider_, ec ? kspEc_ : kspRsa_, ec ? nullptr : &padding, digest.data(), static_cast<DWORD>(digest.size()),
            signature.data(), static_cast<DWORD>(signature.size()), &size, flags)) {
        Outcome failed = status(result);
        dropKsp(true);
        return failed;
    }
    signature.resize(std::min<size_t>(size, signature.size()));
    progress_.enter("checking the signature (bcrypt)");
    bool good = ec ? checker_->verifyEc(digest, signature) : checker_->verifyRsa(algorithm.bcrypt, digest, signature);
    if (!good) return anomaly(Anomaly::WrongSignature);
    noteHeldUse(kspOpenedAt_);
    return Outcome{};
}

Worker::Outcome Worker::kspDecrypt() {
    Outcome held = heldKsp();
    if (!held.ok) {
        dropKsp(true);
        return held;
    }
    progress_.enter("encrypting (rsaenh)");
    Bytes plain = randomBytes(1, 200), cipher;
    if (!checker_->encryptRsa(plain, cipher)) return anomaly(Anomaly::CheckerBroken);
    Bytes bigEndian = reversed(cipher), out(bigEndian.size());
    DWORD size = 0;
    progress_.enter("KSPDecrypt");
    if (SECURITY_STATUS result =
            orvanetest::ksp().Decrypt(kspProvider_, kspRsa_, bigEndian.data(), static_cast<DWORD>(bigEndian.size()),
                                      nullptr, out.data(), static_cast<DWORD>(out.size()), &size,
                                      NCRYPT_PAD_PKCS1_FLAG | NCRYPT_SILENT_FLAG)) {
        Outcome failed = status(result);
        dropKsp(true);
        return failed;
    }
    out.resize(std::min<size_t>(size, out.size()));
    if (out != plain) return anomaly(Anomaly::WrongPlaintext);
    noteHeldUse(kspOpenedAt_);
    return Outcome{};
}

Worker::Outcome Worker::kspEnumKeys() {
    Outcome held = heldKsp();
    if (!held.ok) {
        dropKsp(true);
        return held;
    }
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& ksp = orvanetest::ksp();
    std::set<std::string> names;
    void* state = nullptr;
    Outcome listed;
    progress_.enter("KSPEnumKeys");
    for (;;) {
        NCryptKeyName* name = nullptr;
        SECURITY_STATUS result = ksp.EnumKeys(kspProvider_, nullptr, &name, &state, NCRYPT_SILENT_FLAG);
        if (result == NTE_NO_MORE_ITEMS) break;
        if (result != 0) {
            listed = status(result);
            break;
        }
        std::wstring text = name->pszName ? name->pszName : L"";
        names.insert(std::string(text.begin(), text.end()));
        ksp.FreeBuffer(name);
    }
    if (state) ksp.FreeBuffer(state);
    if (!listed.ok) {
        dropKsp(true);
        return listed;
    }
    if (!names.count(setup_.rsaContainer) || !names.count(setup_.ecContainer)) return anomaly(Anomaly::ShortEnumeration);
    noteHeldUse(kspOpenedAt_);
    return Outcome{};
}

}  // namespace stress
