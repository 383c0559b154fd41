// A writer and a watcher of the software token's store, for the durability test, which kills
// writers at random moments.
//
//   orvane-store-writer write SERIAL FIRST
//       From step FIRST on, without end: step n stores an AES-128 key labelled "SERIAL-n" when
//       n is a multiple of 4, else sets the token's remaining PIN tries to n. Prints "ready"
//       once the store has been read, then the step number after each write has returned
//       success, each line written straight to the file behind stdout.
//   orvane-store-writer watch STOPFILE SERIAL...
//       Reads the store until STOPFILE exists. Prints a line for every read that found the
//       store unreadable or older than a read before it (a token's tries going down, a stored
//       key gone), then "reads R unreadable U reverts V".
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "softtoken/SoftTokenAdmin.h"

namespace admin = softtoken::admin;

namespace {

void say(const std::string& line) {
    std::string text = line + "\n";
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

int write(const std::string& serial, long long step) {
    admin::describe();
    say("ready");
    for (;; ++step) {
        int status;
        if (step % 4 == 0) {
            std::vector<unsigned char> value(16);
            for (size_t i = 0; i < value.size(); ++i) value[i] = static_cast<unsigned char>((step >> (i % 8)) + i);
            std::string keyId;
            status = admin::importSecretKey(serial, 8, value, serial + "-" + std::to_string(step), keyId);
        } else {
            status = admin::setRetriesLeft(serial, static_cast<int>(step));
        }
        if (status != 0) {
            say("error at step " + std::to_string(step) + ": status " + std::to_string(status));
            return 1;
        }
        say(std::to_string(step));
    }
}

struct Seen {
    long long retries = -1;
    size_t secrets = 0;
};

int watch(const std::string& stopFile, const std::vector<std::string>& serials) {
    long long reads = 0, unreadable = 0, reverts = 0;
    std::map<std::string, Seen> seen;
    while (GetFileAttributesA(stopFile.c_str()) == INVALID_FILE_ATTRIBUTES) {
        ++reads;
        nlohmann::json state = nlohmann::json::parse(admin::describe(), nullptr, false);
        if (state.is_discarded() || !state.contains("tokens")) {
            ++unreadable;
            say("unreadable store at read " + std::to_string(reads));
            continue;
        }
        for (const nlohmann::json& token : state["tokens"]) {
            std::string serial = token.value("serial", "");
            if (std::find(serials.begin(), serials.end(), serial) == serials.end()) continue;
            Seen now{token.value("retriesLeft", -1LL), token["secretKeys"].size()};
            Seen& before = seen[serial];
            if (now.retries < before.retries || now.secrets < before.secrets) {
                ++reverts;
                say("revert of " + serial + " at read " + std::to_string(reads) + ": tries " +
                    std::to_string(before.retries) + " -> " + std::to_string(now.retries) + ", keys " +
                    std::to_string(before.secrets) + " -> " + std::to_string(now.secrets));
            }
            before = now;
        }
        Sleep(1);
    }
    say("reads " + std::to_string(reads) + " unreadable " + std::to_string(unreadable) + " reverts " +
        std::to_string(reverts));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "write" && argc == 4) return write(argv[2], std::atoll(argv[3]));
    if (mode == "watch" && argc >= 4) return watch(argv[2], std::vector<std::string>(argv + 3, argv + argc));
    std::fprintf(stderr, "usage: orvane-store-writer write SERIAL FIRST | watch STOPFILE SERIAL...\n");
    return 2;
}
