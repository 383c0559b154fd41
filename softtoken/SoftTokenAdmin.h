// Administration of the software token: what a token maker's personalisation tool would do.
// Exported by OrvaneDSCLibrary.dll beside the 23 library operations; the provider never uses it.
// Every call returns a softtoken::Status code (0 = success); nothing thrown leaves a call.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "token/OrvaneDSCLibrary.h"

namespace softtoken::admin {

ORVANE_DSC_API std::string storeFolder();

ORVANE_DSC_API int createToken(const std::string& serial, const std::string& label, const std::string& pin,
                               int retries);
ORVANE_DSC_API int removeToken(const std::string& serial);
ORVANE_DSC_API int setPlugged(const std::string& serial, bool plugged);
// Sets the PIN and the retry allowance; the counter starts full.
ORVANE_DSC_API int setPin(const std::string& serial, const std::string& pin, int retries);
ORVANE_DSC_API int setRetriesLeft(const std::string& serial, int retriesLeft);
ORVANE_DSC_API int setSignOn(const std::string& serial, int loginState, int ssoState);

// keyType is a token key type code (1-7); the new key id comes back as hex.
ORVANE_DSC_API int generateKeyPair(const std::string& serial, int keyType, const std::string& label, int usage,
                                   int flag, std::string& keyIdHex);
// Links the certificate to the key pair with the same public key; its key id (hex) comes back,
// empty when no key pair matches.
ORVANE_DSC_API int importCertificate(const std::string& serial, const std::vector<unsigned char>& der,
                                     const std::string& label, std::string& linkedKeyIdHex);
// keyType 8 (AES-128), 10 (AES-256) or 11 (triple DES); value of the matching length.
ORVANE_DSC_API int importSecretKey(const std::string& serial, int keyType, const std::vector<unsigned char>& value,
                                   const std::string& label, std::string& keyIdHex);
// DER SubjectPublicKeyInfo of a key pair, for use outside the token.
ORVANE_DSC_API int exportPublicKey(const std::string& serial, const std::string& keyIdHex,
                                   std::vector<unsigned char>& subjectPublicKeyInfo);

// The next `count` calls of `operation` (a library function name such as "orvane_signHash")
// fail with `code`; count 0 disarms it.
ORVANE_DSC_API int injectFault(const std::string& operation, int count, int code);
ORVANE_DSC_API int clearFaults();
// How often this process has called a library operation so far.
ORVANE_DSC_API int callCount(const std::string& operation);
// The arguments of the latest call of a library operation in this process (empty when it was
// not called), recorded on entry, before any check or injected fault. Keys by operation:
//   orvane_init: mode, option
//   orvane_getConnectedDeviceList, orvane_initDevice, orvane_deleteKeyPair: flag
//   orvane_validatePassword: userType
//   orvane_generateKeyPair: keyUsage, keyType (none when the record pointer is null)
//   orvane_signHash: flag, hashLength, signatureCapacity
//   orvane_decrypt: flag, cipherLength
//   orvane_decryptSymetric: ivLength, keyLength, cipherLength
//   orvane_decrypt_aes: kekFlag, ivLength, wrappedLength
//   orvane_encrypt: type, padding, plainLength, publicKeyLength
//   orvane_verifySignatureHash: mechanism, hashLength, signatureLength, publicKeyLength
//   orvane_initHash: mechanism
//   orvane_finalHash: digestCapacity
//   orvane_generateRamdomNumber: flag, length
// Flags are 0 or 1; a capacity passed through a null pointer is -1.
ORVANE_DSC_API std::map<std::string, long long> lastArguments(const std::string& operation);
// The PIN that the last private-key operation of this process was given.
ORVANE_DSC_API std::string lastPinReceived();

// A readable JSON description of every token, without PINs or private keys.
ORVANE_DSC_API std::string describe();

}  // namespace softtoken::admin
