#include "token/PrivateKeyOperations.h"

#include <windows.h>

#include <algorithm>

#include "diagnostics/Log.h"
#include "encoding/KeyTypes.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/Pin.h"
#include "token/Sessions.h"

namespace orvane {
namespace {

// Twice the largest signature the token makes, so a library that ignores the length it was
// told still writes into memory of ours. A caller's longer buffer sizes nothing here: the
// library is told at most this much.
const size_t kSignatureRoom = 2 * size_t{kLargestSignatureBytes};

// Once with the cached PIN, and once more after an expired sign-on when the call allows it.
SignOnRetryOutcome runPrivateKeyOperation(const PrivateKeyCall& call,
                                          const std::function<int(const SecretBytes& pin)>& operation) {
    if (call.expiredLogLine == nullptr) {
        SignOnRetryOutcome once;
        once.result = operation(getCachedPin(call.serial));
        return once;
    }
    return runWithSignOnRetry(call.serial, call.expiredLogLine, call.ensurePinValidated, operation);
}

}  // namespace

PrivateKeyResult signWithTokenKey(const PrivateKeyCall& call, const std::vector<unsigned char>& digest, size_t capacity) {
    PrivateKeyResult outcome;
    std::vector<unsigned char> buffer(kSignatureRoom);
    const size_t told = std::min(capacity, kSignatureRoom);
    int signatureLength = 0;
    SignOnRetryOutcome run = runPrivateKeyOperation(call, [&](const SecretBytes& pin) {
            signatureLength = static_cast<int>(told);
            return orvane_signHash(call.serial.c_str(), call.keyId, pin.c_str(), digest.data(),
                                   static_cast<int>(digest.size()), buffer.data(), &signatureLength, call.tokenFlag,
                                   call.libraryContext);
        });
    outcome.pinCheckFailed = run.pinCheckFailed;
    outcome.result = run.result;
    if (outcome.pinCheckFailed || outcome.result != 0) return outcome;
    if (signatureLength < 0 || static_cast<size_t>(signatureLength) > told) {
        outcome.result = kImpossibleLibraryAnswer;
        return outcome;
    }
    outcome.output.assign(buffer.begin(), buffer.begin() + signatureLength);
    return outcome;
}

PrivateKeyResult decryptOnToken(const PrivateKeyCall& call, const std::vector<unsigned char>& cipher,
                                const char* afterCallLogLine) {
    PrivateKeyResult outcome;
    LibrarySecret plain;
    SignOnRetryOutcome run = runPrivateKeyOperation(call, [&](const SecretBytes& pin) {
            plain.release();
            int result = orvane_decrypt(call.serial.c_str(), call.keyId, pin.c_str(), cipher.data(),
                                        static_cast<int>(cipher.size()), &plain.data, &plain.length, call.tokenFlag,
                                        call.libraryContext);
            if (afterCallLogLine != nullptr) Utils::logMessage(afterCallLogLine);
            return result;
        });
    outcome.pinCheckFailed = run.pinCheckFailed;
    outcome.result = run.result;
    if (!outcome.pinCheckFailed && outcome.result == 0) {
        if (plain.length < 0 || (plain.length > 0 && plain.data == nullptr))
            outcome.result = kImpossibleLibraryAnswer;
        else if (plain.length > 0)
            outcome.output.assign(plain.data, plain.data + plain.length);
    }
    return outcome;
}

}  // namespace orvane
