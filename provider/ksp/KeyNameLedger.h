// What KSPEnumKeys hands out and KSPFreeBuffer takes back: the enumeration state, and for each
// key an NCryptKeyName record and its two strings, separate blocks from the caller's heap as
// NCrypt callers expect. Callers give back the record alone or all three blocks; the ledger
// here remembers what is out, so each block is released exactly once.
#pragma once

#include <windows.h>
#include <ncrypt.h>

#include <vector>

#include "token/OrvaneDSCLibrary.h"

namespace orvane::ksp {

// A state over a copy of the key pairs with a cursor at the first, one block so that
// KSPFreeBuffer releases it whole; null when the memory could not be had.
void* startKeyEnumeration(const std::vector<OrvaneKeyPair>& keyPairs);
// The key pair at the cursor; null once every key pair was handed out.
const OrvaneKeyPair* keyPairAtCursor(void* state);
void moveCursor(void* state);

// The record and its two strings for a key pair of the enumeration with this state, entered
// in the ledger; null when any of the three blocks could not be had.
NCryptKeyName* keyNameForCaller(const OrvaneKeyPair& keyPair, const void* state);

// True when buffer was a key-name record or string, now dealt with; an enumeration state is
// forgotten here (its parked strings go) but left for the caller to release.
bool releaseKeyNameForCaller(void* buffer);

}  // namespace orvane::ksp
