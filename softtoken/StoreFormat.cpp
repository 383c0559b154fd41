#include "softtoken/StoreFormat.h"

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "encoding/Hex.h"

namespace softtoken {
namespace {

// Ordered, so that the file reads in a sensible order (generation first).
using json = nlohmann::ordered_json;

std::string bytesToText(const Bytes& bytes) { return orvane::toHex(bytes); }

json textField(const std::string& text) {
    if (isUtf8(text)) return text;
    return json{{"hex", orvane::toHex(reinterpret_cast<const unsigned char*>(text.data()), text.size())}};
}

// The format this writer writes. Files without "format" come from before secrets were protected.
const int kFormat = 2;

json toJson(const StoreState& state) {
    json tokens = json::array();
    for (const TokenRecord& token : state.tokens) {
        json keyPairs = json::array();
        for (const KeyPairRecord& k : token.keyPairs)
            keyPairs.push_back({{"index", k.index}, {"keyId", bytesToText(k.keyId)}, {"label", textField(k.label)},
                                {"usage", k.usage}, {"type", k.type}, {"flag", k.flag},
                                {"certLinkId", bytesToText(k.certLinkId)}, {"publicKey", bytesToText(k.publicKey)},
                                {"protectedPrivateKey", bytesToText(k.privateKey)}});
        json certificates = json::array();
        for (const CertificateRecord& c : token.certificates)
            certificates.push_back({{"index", c.index}, {"der", bytesToText(c.der)},
                                    {"certLinkId", bytesToText(c.certLinkId)}, {"label", textField(c.label)}});
        json secretKeys = json::array();
        for (const SecretKeyRecord& s : token.secretKeys)
            secretKeys.push_back({{"index", s.index}, {"keyId", bytesToText(s.keyId)},
                                  {"reference", bytesToText(s.reference)}, {"label", textField(s.label)},
                                  {"type", s.type}, {"flag", s.flag}, {"protectedValue", bytesToText(s.value)}});
        json pin = {{"salt", bytesToText(token.pin.salt)}, {"iterations", token.pin.iterations},
                    {"hash", bytesToText(token.pin.hash)}};
        tokens.push_back({{"serial", textField(token.serial)}, {"label", textField(token.label)},
                          {"pinHash", pin}, {"maxRetries", token.maxRetries},
                          {"retriesLeft", token.retriesLeft}, {"loginState", token.loginState},
                          {"ssoState", token.ssoState}, {"plugged", token.plugged}, {"nextIndex", token.nextIndex},
                          {"keyPairs", keyPairs}, {"certificates", certificates}, {"secretKeys", secretKeys}});
    }
    json faults = json::object();
    for (const auto& [operation, fault] : state.faults)
        faults[operation] = {{"remaining", fault.remaining}, {"code", fault.code}};
    return {{"format", kFormat}, {"generation", state.generation}, {"tokens", tokens}, {"faults", faults}};
}

// The reading of a state document. Every field must be there with its type and range; the
// first one that is not refuses the document, named by its path ("tokens[0].keyPairs[1].keyId").
class DocumentReader {
public:
    explicit DocumentReader(std::string& reason) : reason_(reason) {}

    bool state(const json& document, StoreState& state) {
        if (!document.is_object()) return refuse("", "not an object");
        state.legacy = document.find("format") == document.end();
        legacy_ = state.legacy;
        int format = 0;
        if (!legacy_ && !integer(document, "format", "", format)) return false;
        if (!legacy_ && format != kFormat) return refuse("format", "not a format this token reads");
        const json* tokens = nullptr;
        const json* faults = nullptr;
        if (!generation(document, state.generation) || !array(document, "tokens", "", tokens) ||
            !member(document, "faults", "", faults))
            return false;
        if (!faults->is_object()) return refuse("faults", "not an object");
        for (size_t i = 0; i < tokens->size(); ++i) {
            TokenRecord token;
            if (!this->token((*tokens)[i], "tokens[" + std::to_string(i) + "]", token)) return false;
            state.tokens.push_back(std::move(token));
        }
        for (const auto& [operation, fault] : faults->items()) {
            std::string where = "faults." + operation;
            if (!fault.is_object()) return refuse(where, "not an object");
            FaultRecord record;
            if (!integer(fault, "remaining", where, record.remaining) || !integer(fault, "code", where, record.code))
                return false;
            state.faults[operation] = record;
        }
        return true;
    }

private:
    bool token(const json& t, const std::string& where, TokenRecord& token) {
        if (!t.is_object()) return refuse(where, "not an object");
        const json *keyPairs = nullptr, *certificates = nullptr, *secretKeys = nullptr;
        if (!text(t, "serial", where, token.serial) || !text(t, "label", where, token.label) ||
            !pin(t, where, token) || !integer(t, "maxRetries", where, token.maxRetries) ||
            !integer(t, "retriesLeft", where, token.retriesLeft) || !integer(t, "loginState", where, token.loginState) ||
            !integer(t, "ssoState", where, token.ssoState) || !boolean(t, "plugged", where, token.plugged) ||
            !integer(t, "nextIndex", where, token.nextIndex) || !array(t, "keyPairs", where, keyPairs) ||
            !array(t, "certificates", where, certificates) || !array(t, "secretKeys", where, secretKeys))
            return false;
        for (size_t i = 0; i < keyPairs->size(); ++i) {
            const json& k = (*keyPairs)[i];
            std::string at = where + ".keyPairs[" + std::to_string(i) + "]";
            if (!k.is_object()) return refuse(at, "not an object");
            KeyPairRecord key;
            if (!integer(k, "index", at, key.index) || !hex(k, "keyId", at, key.keyId) || !text(k, "label", at, key.label) ||
                !integer(k, "usage", at, key.usage) || !integer(k, "type", at, key.type) ||
                !integer(k, "flag", at, key.flag) || !hex(k, "certLinkId", at, key.certLinkId) ||
                !hex(k, "publicKey", at, key.publicKey) ||
                !secret(k, "privateKey", "protectedPrivateKey", at, key.legacyPrivateKey, key.privateKey))
                return false;
            token.keyPairs.push_back(std::move(key));
        }
        for (size_t i = 0; i < certificates->size(); ++i) {
            const json& c = (*certificates)[i];
            std::string at = where + ".certificates[" + std::to_string(i) + "]";
            if (!c.is_object()) return refuse(at, "not an object");
            CertificateRecord certificate;
            if (!integer(c, "index", at, certificate.index) || !hex(c, "der", at, certificate.der) ||
                !hex(c, "certLinkId", at, certificate.certLinkId) || !text(c, "label", at, certificate.label))
                return false;
            token.certificates.push_back(std::move(certificate));
        }
        for (size_t i = 0; i < secretKeys->size(); ++i) {
            const json& s = (*secretKeys)[i];
            std::string at = where + ".secretKeys[" + std::to_string(i) + "]";
            if (!s.is_object()) return refuse(at, "not an object");
            SecretKeyRecord secret;
            if (!integer(s, "index", at, secret.index) || !hex(s, "keyId", at, secret.keyId) ||
                !hex(s, "reference", at, secret.reference) || !text(s, "label", at, secret.label) ||
                !integer(s, "type", at, secret.type) || !boolean(s, "flag", at, secret.flag) ||
                !this->secret(s, "value", "protectedValue", at, secret.legacyValue, secret.value))
                return false;
            token.secretKeys.push_back(std::move(secret));
        }
        return true;
    }

    // The PIN: in clear in the old format, else its hash.
    bool pin(const json& t, const std::string& where, TokenRecord& token) {
        if (legacy_) {
            std::string clear;
            if (!text(t, "pin", where, clear)) return false;
            token.legacyPin = orvane::SecretBytes(std::move(clear));
            return true;
        }
        const json* value = nullptr;
        if (!member(t, "pinHash", where, value)) return false;
        std::string at = where + ".pinHash";
        if (!value->is_object()) return refuse(at, "not an object");
        return hex(*value, "salt", at, token.pin.salt) && integer(*value, "iterations", at, token.pin.iterations) &&
               hex(*value, "hash", at, token.pin.hash);
    }

    // Key bytes: hex in clear in the old format, else the hex of their protected form.
    bool secret(const json& object, const char* legacyName, const char* name, const std::string& where,
                orvane::SecretBuffer& legacy, Bytes& protectedBytes) {
        if (!legacy_) return hex(object, name, where, protectedBytes);
        Bytes clear;
        bool read = hex(object, legacyName, where, clear);
        legacy = orvane::takeSecret(std::move(clear));
        return read;
    }

    bool refuse(const std::string& where, const char* what) {
        reason_ = where.empty() ? std::string(what) : where + ": " + what;
        return false;
    }

    // The path of a field is only spelled out for a refusal.
    bool refuse(const std::string& where, const char* name, const char* what) {
        return refuse(where.empty() ? std::string(name) : where + "." + name, what);
    }

    bool member(const json& object, const char* name, const std::string& where, const json*& value) {
        auto found = object.find(name);
        if (found == object.end()) return refuse(where, name, "missing");
        value = &*found;
        return true;
    }

    bool array(const json& object, const char* name, const std::string& where, const json*& value) {
        if (!member(object, name, where, value)) return false;
        if (!value->is_array()) return refuse(where, name, "not an array");
        return true;
    }

    // A whole number that an int holds (the writer never writes fractions or exponents).
    bool integer(const json& object, const char* name, const std::string& where, int& out) {
        const json* value = nullptr;
        if (!member(object, name, where, value)) return false;
        if (value->is_number_unsigned()) {
            if (value->get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int>::max()))
                return refuse(where, name, "out of range");
        } else if (value->is_number_integer()) {
            // The JSON reader keeps every number from 0 up as unsigned: this one is negative.
            if (value->get<int64_t>() < std::numeric_limits<int>::min()) return refuse(where, name, "out of range");
        } else {
            return refuse(where, name, "not a whole number");
        }
        out = static_cast<int>(value->get<int64_t>());
        return true;
    }

    bool generation(const json& document, uint64_t& out) {
        const json* value = nullptr;
        if (!member(document, "generation", "", value)) return false;
        if (!value->is_number_unsigned()) return refuse("generation", "not a whole number of at least 0");
        out = value->get<uint64_t>();
        return true;
    }

    bool boolean(const json& object, const char* name, const std::string& where, bool& out) {
        const json* value = nullptr;
        if (!member(object, name, where, value)) return false;
        if (!value->is_boolean()) return refuse(where, name, "not true or false");
        out = value->get<bool>();
        return true;
    }

    bool hex(const json& object, const char* name, const std::string& where, Bytes& out) {
        const json* value = nullptr;
        if (!member(object, name, where, value)) return false;
        if (!value->is_string()) return refuse(where, name, "not a string");
        if (!orvane::parseHex(value->get_ref<const std::string&>(), out)) return refuse(where, name, "not hex");
        return true;
    }

    // Text: a string, or {"hex": ...} for text that is not UTF-8.
    bool text(const json& object, const char* name, const std::string& where, std::string& out) {
        const json* value = nullptr;
        if (!member(object, name, where, value)) return false;
        if (value->is_string()) {
            out = value->get_ref<const std::string&>();
            return true;
        }
        if (!value->is_object()) return refuse(where, name, "not text");
        Bytes bytes;
        if (!hex(*value, "hex", where + "." + name, bytes)) return false;
        out.assign(bytes.begin(), bytes.end());
        return true;
    }

    std::string& reason_;
    bool legacy_ = false;
};

}  // namespace

bool isUtf8(const std::string& text) {
    const unsigned char* s = reinterpret_cast<const unsigned char*>(text.data());
    size_t n = text.size();
    for (size_t i = 0; i < n;) {
        unsigned char c = s[i];
        size_t extra;
        unsigned char low = 0x80, high = 0xBF;  // range of the second byte
        if (c < 0x80) {
            ++i;
            continue;
        } else if (c >= 0xC2 && c <= 0xDF) {
            extra = 1;
        } else if (c >= 0xE0 && c <= 0xEF) {
            extra = 2;
            if (c == 0xE0) low = 0xA0;   // no overlong forms
            if (c == 0xED) high = 0x9F;  // no surrogates
        } else if (c >= 0xF0 && c <= 0xF4) {
            extra = 3;
            if (c == 0xF0) low = 0x90;
            if (c == 0xF4) high = 0x8F;  // nothing above U+10FFFF
        } else {
            return false;
        }
        if (i + extra >= n) return false;
        if (s[i + 1] < low || s[i + 1] > high) return false;
        for (size_t k = 2; k <= extra; ++k)
            if (s[i + k] < 0x80 || s[i + k] > 0xBF) return false;
        i += extra + 1;
    }
    return true;
}

std::string formatStoreText(const StoreState& state) { return toJson(state).dump(1); }

bool parseStoreText(const std::string& text, StoreState& state, std::string& reason) {
    json document;
    try {
        document = json::parse(text);
    } catch (const json::exception& error) {
        reason = error.what();
        return false;
    }
    StoreState parsed;
    if (!DocumentReader(reason).state(document, parsed)) return false;
    state = std::move(parsed);
    return true;
}

}  // namespace softtoken
