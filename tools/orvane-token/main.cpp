// orvane-token: provisions software tokens (create, PIN, sign-on, plug, keys, certificates,
// secret keys, faults). It works on the store named by ORVANE_TOKEN_STORE, like every other
// process that loads the software token. File arguments may be Unix paths (/x/y is Z:\x\y).
// PINs come from standard input or a prompt, never from the command line.
#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "encoding/Hex.h"
#include "token/SecretBytes.h"
#include "softtoken/SoftTokenAdmin.h"
#include "softtoken/Status.h"

#include "tools/common/HostPath.h"
#include "tools/common/PinInput.h"

namespace {

const char kUsage[] =
    "usage: orvane-token COMMAND ...\n"
    "  create SERIAL PIN [--label L] [--retries N]\n"
    "  remove SERIAL\n"
    "  plug SERIAL | unplug SERIAL\n"
    "  set-pin SERIAL PIN [--retries N]\n"
    "  set-retries SERIAL N            remaining tries; 0 locks the PIN\n"
    "  sign-on SERIAL LOGIN SSO        Token Manager state, 1 1 = signed on\n"
    "  genkey SERIAL TYPE [--label L] [--usage N] [--flag N]\n"
    "                                  TYPE: rsa1024 rsa2048 rsa3072 rsa4096 p256 p384 p521; prints the key id\n"
    "  import-cert SERIAL FILE.der [--label L]      prints the key id it links to\n"
    "  import-secret SERIAL TYPE HEXVALUE [--label L]  TYPE: aes128 aes256 des3; prints the key id\n"
    "  export-pub SERIAL KEYID FILE.der             DER SubjectPublicKeyInfo\n"
    "  fault OPERATION COUNT CODE                   next COUNT calls of OPERATION return CODE\n"
    "  clear-faults\n"
    "  try-pin SERIAL PIN COUNT                     checks PIN COUNT times as an application would\n"
    "                                               (a wrong PIN counts down); prints the tries left\n"
    "  list\n"
    "PIN is --pin-stdin (the first line of standard input) or --ask-pin (typed at a prompt, not\n"
    "shown); never the PIN itself, which process listings and shell history would keep.\n";

const std::map<std::string, int> kKeyPairTypes = {{"rsa1024", 1}, {"rsa2048", 2}, {"rsa3072", 3}, {"rsa4096", 4},
                                                  {"p256", 5},    {"p384", 6},    {"p521", 7}};
const std::map<std::string, int> kSecretKeyTypes = {{"aes128", 8}, {"aes256", 10}, {"des3", 11}};

struct Arguments {
    std::vector<std::string> positional;
    std::map<std::string, std::string> options;
    std::string pinSource;  // "--pin-stdin", "--ask-pin" or empty
    std::string problem;
};

Arguments parse(int argc, char** argv) {
    Arguments arguments;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "--pin-stdin" || word == "--ask-pin") {
            if (!arguments.pinSource.empty()) arguments.problem = "give --pin-stdin or --ask-pin once";
            arguments.pinSource = word;
        } else if (word == "--pin") {
            arguments.problem = tools::pinOnCommandLineRefusal();
        } else if (word.rfind("--", 0) == 0 && i + 1 < argc) {
            arguments.options[word.substr(2)] = argv[++i];
        } else {
            arguments.positional.push_back(word);
        }
    }
    return arguments;
}

int number(const std::string& text) { return std::atoi(text.c_str()); }

std::string option(const Arguments& arguments, const std::string& name, const std::string& fallback) {
    auto found = arguments.options.find(name);
    return found == arguments.options.end() ? fallback : found->second;
}

int fail(const std::string& message) {
    std::fprintf(stderr, "orvane-token: %s\n", message.c_str());
    return 1;
}

int report(int status, const std::string& what, const std::string& printed = "") {
    if (status != 0) return fail(what + " failed with status " + std::to_string(status));
    if (!printed.empty()) std::printf("%s\n", printed.c_str());
    return 0;
}

// The PIN of a command that takes one, read once from where the command line says.
class Pin {
public:
    explicit Pin(const std::string& source) : source_(source) {}
    ~Pin() { orvane::wipeSecret(&text_[0], text_.size()); }
    bool read() { return !source_.empty() && tools::readPinLine(source_ == "--ask-pin", text_); }
    const std::string& text() const { return text_; }

private:
    std::string source_;
    std::string text_;
};

int run(const Arguments& a) {
    namespace admin = softtoken::admin;
    const std::vector<std::string>& p = a.positional;
    if (!a.problem.empty()) return fail(a.problem);
    if (p.empty()) return fail(std::string("no command\n") + kUsage);
    const std::string& command = p[0];
    auto need = [&](size_t count) { return p.size() >= count + 1; };
    Pin pin(a.pinSource);
    bool takesPin = command == "create" || command == "set-pin" || command == "try-pin";
    if (takesPin && !pin.read())
        return fail(a.pinSource.empty() ? command + " needs the PIN: --pin-stdin or --ask-pin" : "no PIN given");

    if (command == "create" && need(1))
        return report(admin::createToken(p[1], option(a, "label", "Orvane " + p[1]), pin.text(),
                                         number(option(a, "retries", "10"))),
                      "create");
    if (command == "remove" && need(1)) return report(admin::removeToken(p[1]), "remove");
    if ((command == "plug" || command == "unplug") && need(1))
        return report(admin::setPlugged(p[1], command == "plug"), command);
    if (command == "set-pin" && need(1))
        return report(admin::setPin(p[1], pin.text(), number(option(a, "retries", "10"))), "set-pin");
    if (command == "set-retries" && need(2)) return report(admin::setRetriesLeft(p[1], number(p[2])), "set-retries");
    if (command == "sign-on" && need(3)) return report(admin::setSignOn(p[1], number(p[2]), number(p[3])), "sign-on");
    if (command == "genkey" && need(2)) {
        auto type = kKeyPairTypes.find(p[2]);
        if (type == kKeyPairTypes.end()) return fail("unknown key type " + p[2]);
        std::string keyId;
        int status = admin::generateKeyPair(p[1], type->second, option(a, "label", ""),
                                            number(option(a, "usage", "3")), number(option(a, "flag", "0")), keyId);
        return report(status, "genkey", keyId);
    }
    if (command == "import-cert" && need(2)) {
        std::ifstream file(tools::windowsPathOf(p[2]), std::ios::binary);
        if (!file) return fail("cannot read " + p[2]);
        std::vector<unsigned char> der((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        std::string keyId;
        int status = admin::importCertificate(p[1], der, option(a, "label", ""), keyId);
        return report(status, "import-cert", keyId.empty() ? "(no matching key pair)" : keyId);
    }
    if (command == "import-secret" && need(3)) {
        auto type = kSecretKeyTypes.find(p[2]);
        std::vector<unsigned char> value;
        if (type == kSecretKeyTypes.end()) return fail("unknown secret key type " + p[2]);
        if (!orvane::parseHex(p[3], value)) return fail("the key value must be hex");
        std::string keyId;
        return report(admin::importSecretKey(p[1], type->second, value, option(a, "label", ""), keyId),
                      "import-secret", keyId);
    }
    if (command == "export-pub" && need(3)) {
        std::vector<unsigned char> der;
        if (int status = admin::exportPublicKey(p[1], p[2], der)) return report(status, "export-pub");
        std::ofstream file(tools::windowsPathOf(p[3]), std::ios::binary);
        file.write(reinterpret_cast<const char*>(der.data()), static_cast<std::streamsize>(der.size()));
        return file ? 0 : fail("cannot write " + p[3]);
    }
    if (command == "fault" && need(3))
        return report(admin::injectFault(p[1], number(p[2]), number(p[3])), "fault");
    if (command == "clear-faults") return report(admin::clearFaults(), "clear-faults");
    if (command == "try-pin" && need(2)) {
        int remaining = -1, status = 0;
        for (int i = 0; i < number(p[2]); ++i) {
            status = orvane_validatePassword(p[1].c_str(), pin.text().c_str(), 1, &remaining, nullptr);
            // Only a right, wrong or locked PIN is an answer about the PIN.
            if (status != softtoken::kOk && status != softtoken::kPinIncorrect && status != softtoken::kPinLocked)
                return report(status, "try-pin");
        }
        return report(0, "try-pin", std::to_string(remaining));
    }
    if (command == "list") return report(0, "list", admin::describe());
    return fail("bad command line\n" + std::string(kUsage));
}

}  // namespace

int main(int argc, char** argv) {
    // Plain \n line ends, so that scripts capturing a key id get exactly the id.
    _setmode(_fileno(stdout), _O_BINARY);
    return run(parse(argc, argv));
}
