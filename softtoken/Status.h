// Status codes of the software token. 0 is success; 48 and 49 are the codes the interface
// gives a meaning to (clock mismatch, expired sign-on) and are only produced by fault injection.
#pragma once

namespace softtoken {

enum Status : int {
    kOk = 0,
    kFailure = 1,
    kBadArguments = 2,
    kTokenNotPresent = 3,
    kObjectNotFound = 4,
    kPinIncorrect = 5,
    kPinLocked = 6,
    kBufferTooSmall = 7,
    kCryptoFailure = 8,
    kSignatureInvalid = 9,
    kStoreError = 10,
    kUnsupported = 11,
    kAlreadyExists = 12,
};

}  // namespace softtoken
