// Finding a key pair by the name a CNG caller gives: its hexadecimal key id or its label,
// both compared byte for byte. Unlike the CryptoAPI container lookup, case matters and a
// name that matches nothing finds no token.
#pragma once

#include <string>

#include "token/OrvaneDSCLibrary.h"

namespace orvane {

// The name is the key pair's upper-case hex key id or its label, exactly.
bool keyPairHasName(const OrvaneKeyPair& keyPair, const std::string& name);

// The first connected token (in list order) holding a key pair of that name; empty when
// none does or nothing is connected. Lists are read with a null library context.
std::string findSerialForKeyName(const std::string& name);

}  // namespace orvane
