// The text of a store state file and the state it holds. Pure: no files, no Win32; Store.cpp
// reads and writes the files around it. Reading refuses bad text with a reason and throws
// nothing out, whatever the text.
#pragma once

#include <string>

#include "softtoken/Store.h"

namespace softtoken {

// Caller-supplied text (labels, serials, PINs) may be in any code page; JSON needs UTF-8, so
// text that is not UTF-8 is stored as its bytes in hex and still comes back byte for byte.
bool isUtf8(const std::string& text);

// The state as the state file holds it: secrets only in their protected form, never the
// legacy fields.
std::string formatStoreText(const StoreState& state);

// A state file's text to the state it holds. False, with the reason, for text that is not a
// whole state: the caller reports it and builds nothing on it. A file of the old format
// (no "format") comes back with state.legacy set and its clear secrets in the legacy fields.
bool parseStoreText(const std::string& text, StoreState& state, std::string& reason);

}  // namespace softtoken
