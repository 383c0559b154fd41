// libFuzzer target: the software token's state file text (softtoken/StoreFormat). Any text
// must come back as a state or a refusal with a reason; a state that was read is written
// again as text that reads back as the same state.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "softtoken/StoreFormat.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    softtoken::StoreState state;
    std::string reason;
    if (!softtoken::parseStoreText(text, state, reason)) {
        FUZZ_CHECK(!reason.empty());
        return 0;
    }
    std::string written = softtoken::formatStoreText(state);
    softtoken::StoreState again;
    FUZZ_CHECK(softtoken::parseStoreText(written, again, reason));
    FUZZ_CHECK(softtoken::formatStoreText(again) == written);
    return 0;
}
