// One worker thread of the run: a seeded mix of CryptoAPI and key storage provider operations
// on its own handles (handles are never shared between threads), every result checked by the
// independent side, every failure kept with its call, code and time.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <random>
#include <string>

#include "provider/ksp/KspInterface.h"
#include "stress/Checker.h"
#include "stress/PlugCycler.h"
#include "stress/Progress.h"
#include "stress/Records.h"

namespace stress {

struct RunSetup {
    std::string rsaContainer;  // hex key ids: container and key names on both faces
    std::string ecContainer;
    Bytes rsaPublicKey;  // DER SubjectPublicKeyInfo, from the token's own export
    Bytes ecPublicKey;
    std::string pin;  // given through PP_SIGNATURE_PIN and SmartCardPin; empty: the sign-on alone
    long long opsPerThread = 0;
    unsigned backoffMs = 0;  // pause after a failed operation, as an application retrying later
    unsigned seed = 1;
};

class Worker {
public:
    Worker(int index, const RunSetup& setup, const PlugCycler& cycler, Progress& progress);
    void run();  // the thread's body
    const WorkerTotals& totals() const { return totals_; }

private:
    // Success, or the call that failed and why.
    struct Outcome {
        bool ok = true;
        const char* step = "";
        DWORD code = 0;
        Anomaly anomaly = Anomaly::None;
    };
    Outcome lastError() const;                    // FALSE from the current step: its last error
    Outcome status(SECURITY_STATUS result) const;  // a non-zero status from the current step
    Outcome anomaly(Anomaly what) const;

    Outcome runOp(Op op);
    Outcome cspSign(bool ec, bool held);
    Outcome cspDecrypt();
    Outcome cspEnumContainers();
    Outcome kspSign(bool ec);
    Outcome kspDecrypt();
    Outcome kspEnumKeys();

    // Handles kept across operations; dropped after any failure and opened again, as an
    // application must after the token went away (only opening initialises the token again).
    Outcome acquireCsp(HCRYPTPROV& slot, const std::string& container);
    Outcome heldCsp(bool ec, HCRYPTPROV& provider);
    Outcome heldExchangeKey(HCRYPTKEY& key);
    Outcome heldKsp();
    void dropCsp(bool afterFailure);
    void dropKsp(bool afterFailure);
    void noteHeldUse(long long& openedAt);
    void record(Op op, double start, const Outcome& outcome);

    Bytes randomBytes(size_t minimum, size_t maximum);

    int index_;
    const RunSetup& setup_;
    const PlugCycler& cycler_;
    Progress& progress_;
    std::mt19937 random_;
    Checker* checker_ = nullptr;
    WorkerTotals totals_;

    HCRYPTPROV cspRsa_ = 0, cspEc_ = 0;
    HCRYPTKEY cspExchange_ = 0;
    long long cspOpenedAt_ = -1;
    NCRYPT_PROV_HANDLE kspProvider_ = 0;
    NCRYPT_KEY_HANDLE kspRsa_ = 0, kspEc_ = 0;
    long long kspOpenedAt_ = -1;
};

}  // namespace stress
