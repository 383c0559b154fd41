// orvane-certprop's two halves: what the plugged-in tokens hold (read through the core, never
// written, never with a PIN) and the current user's certificate stores made to match it.
#pragma once

#include <windows.h>
#include <wincrypt.h>

#include <string>
#include <vector>

#include "token/OrvaneDSCLibrary.h"

namespace certprop {

// What the agent adds carries this property (the token's serial), and only what carries it is
// ever changed or removed. Where crypt32 keeps no property of the user range (Wine), the mark
// is the description "Orvane token <serial>: added by orvane-certprop" instead.
const DWORD kPropagatedPropId = CERT_FIRST_USER_PROP_ID + 0x4F52;
bool isPropagated(PCCERT_CONTEXT certificate);

// One certificate on a plugged-in token.
struct TokenCertificate {
    std::vector<unsigned char> der;
    std::string serial;
    bool withKey = false;  // its key pair is on the token: "MY"; otherwise an issuer: "CA"
    std::string keyName;   // the key's 32-character name: CNG key name and CryptoAPI container
    bool rsa = false;
    DWORD keySpec = 0;     // AT_SIGNATURE or AT_KEYEXCHANGE as the CryptoAPI provider gives the key; 0 for neither
};

struct TokenLists {
    std::string serial;
    std::vector<OrvaneKeyPair> keyPairs;
    std::vector<OrvaneCertificate> certificates;
};

struct TokenView {
    std::vector<TokenLists> tokens;
    std::string fingerprint;  // changes when the tokens, their keys or their certificates do
};

// Looks at every connected token, initialising those new to this process.
TokenView readTokens();
// Which key pair each certificate belongs to, by the providers' own match.
std::vector<TokenCertificate> classify(const TokenView& view);

// HKLM\Software\Kestrelon\Orvane\propagateRsaToCsp = 1: RSA keys are bound to the CryptoAPI
// provider instead of the key storage provider.
bool rsaToCryptoApi();

// The key provider information a certificate gets, as the store keeps it.
struct Binding {
    std::wstring provider;
    std::wstring container;
    DWORD provType = 0;
    DWORD keySpec = 0;
};
Binding bindingFor(const TokenCertificate& certificate, bool rsaToCsp);

struct SyncCounts {
    int added = 0, removed = 0, rebound = 0;  // a rebound certificate is removed and added again
    bool ok = true;
};

// Makes "MY" and "CA" of the current user hold exactly the wanted certificates among those
// carrying kPropagatedPropId; a certificate the user had already is left as it is.
SyncCounts synchronizeStores(const std::vector<TokenCertificate>& wanted, bool rsaToCsp);

// Removes everything carrying kPropagatedPropId from "MY" and "CA".
SyncCounts removePropagated();

// Writes a line to the log and, when the program has one, to standard output.
void report(const std::string& line);
void reportError(const std::string& line);

}  // namespace certprop
