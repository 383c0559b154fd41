#include "token/PrivateKeyOperations.h"

#include <windows.h>

#include <algorithm>

#include "diagnostics/Log.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/Pin.h"
#include "token/Sessions.h"

namespace orvane {
namespace {

// Larger than any signature the token makes (RSA-4096: 512 bytes), so a library that
// ignores the length it was told still writes into memory of ours.
const size_t kSignatureRoom = 1024;

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
    std::vector<unsigned char> buffer(std::max(capacity, kSignatureRoom));
    int signatureLength = 0;
    SignOnRetryOutcome run = runPrivateKeyOperation(call, [&](const SecretBytes& pin) {
            signatureLength = static_cast<int>(std::min<size_t>(capacity, 0x7FFFFFFF));
            return orvane_signHash(call.serial.c_str(), call.keyId, pin.c_str(), digest.data(),
                                   static_cast<int>(digest.size()), buffer.data(), &signatureLength, call.tokenFlag,
                                   call.libraryContext);
        });
    outcome.pinCheckFailed = run.pinCheckFailed;
    outcome.result = run.result;
    if (outcome.pinCheckFailed || outcome.result != 0) return outcome;
    if (signatureLength < 0 || static_cast<size_t>(signatureLength) > capacity) {
        outcome.result = kImpossibleLibraryAnswer;
        return outcome;
    }
    outcome.output.assign(buffer.begin(), buffer.begin() + signatureLength);
    return outcome;
}

PrivateKeyResult decryptOnToken(const PrivateKeyCall& call, const std::vector<unsigned char>& cipher,
                                const char* afterCallLogLine) {
    PrivateKeyResult outcome;
    unsigned char* plain = nullptr;
    int plainLength = 0;
    auto release = [&] {
        if (plain != nullptr && plainLength > 0) SecureZeroMemory(plain, static_cast<size_t>(plainLength));
        delete[] plain;
        plain = nullptr;
        plainLength = 0;
    };
    SignOnRetryOutcome run = runPrivateKeyOperation(call, [&](const SecretBytes& pin) {
            release();
            int result = orvane_decrypt(call.serial.c_str(), call.keyId, pin.c_str(), cipher.data(),
                                        static_cast<int>(cipher.size()), &plain, &plainLength, call.tokenFlag,
                                        call.libraryContext);
            if (afterCallLogLine != nullptr) Utils::logMessage(afterCallLogLine);
            return result;
        });
    outcome.pinCheckFailed = run.pinCheckFailed;
    outcome.result = run.result;
    if (!outcome.pinCheckFailed && outcome.result == 0) {
        if (plainLength < 0 || (plainLength > 0 && plain == nullptr))
            outcome.result = kImpossibleLibraryAnswer;
        else if (plainLength > 0)
            outcome.output.assign(plain, plain + plainLength);
    }
    release();
    return outcome;
}

}  // namespace orvane
