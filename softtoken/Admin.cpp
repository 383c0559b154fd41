#include "softtoken/SoftTokenAdmin.h"

#include <nlohmann/json.hpp>

#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "encoding/PublicKeyForm.h"
#include "softtoken/Asn1.h"
#include "softtoken/Calls.h"
#include "softtoken/Objects.h"
#include "softtoken/Secrets.h"
#include "softtoken/Status.h"
#include "softtoken/Store.h"
#include "softtoken/StoreFormat.h"

namespace softtoken::admin {
namespace {

const Access kAdministrative{true, PinCheck(nullptr)};

// Text as the store keeps it: bytes that are not UTF-8 are shown as hex.
nlohmann::ordered_json text(const std::string& value) {
    if (isUtf8(value)) return value;
    return {{"hex", orvane::toHex(reinterpret_cast<const unsigned char*>(value.data()), value.size())}};
}

int changeToken(const std::string& serial, const std::function<void(TokenRecord&)>& change) {
    return updateStore([&](StoreState& state) {
        TokenRecord* token = state.find(serial);
        if (token == nullptr) return static_cast<int>(kObjectNotFound);
        change(*token);
        return static_cast<int>(kOk);
    });
}

}  // namespace

std::string storeFolder() {
    return shielded("storeFolder", std::string(), [] { return softtoken::storeFolder(); });
}

int createToken(const std::string& serial, const std::string& label, const std::string& pin, int retries) {
    return shielded("createToken", static_cast<int>(kFailure), [&] {
        if (serial.empty() || retries < 1) return static_cast<int>(kBadArguments);
        PinHash hashed = hashPin(pin.data(), pin.size());  // slow by design: not under the store's lock
        return updateStore([&](StoreState& state) {
            if (state.find(serial)) return static_cast<int>(kAlreadyExists);
            TokenRecord token;
            token.serial = serial;
            token.label = label;
            token.pin = hashed;
            token.maxRetries = token.retriesLeft = retries;
            state.tokens.push_back(token);
            return static_cast<int>(kOk);
        });
    });
}

int removeToken(const std::string& serial) {
    return shielded("removeToken", static_cast<int>(kFailure), [&] {
        return updateStore([&](StoreState& state) {
            for (auto token = state.tokens.begin(); token != state.tokens.end(); ++token)
                if (token->serial == serial) {
                    state.tokens.erase(token);
                    return static_cast<int>(kOk);
                }
            return static_cast<int>(kObjectNotFound);
        });
    });
}

int setPlugged(const std::string& serial, bool plugged) {
    return shielded("setPlugged", static_cast<int>(kFailure), [&] {
        return changeToken(serial, [&](TokenRecord& token) { token.plugged = plugged; });
    });
}

int setPin(const std::string& serial, const std::string& pin, int retries) {
    return shielded("setPin", static_cast<int>(kFailure), [&] {
        if (retries < 1) return static_cast<int>(kBadArguments);
        PinHash hashed = hashPin(pin.data(), pin.size());
        return changeToken(serial, [&](TokenRecord& token) {
            token.pin = hashed;
            token.maxRetries = token.retriesLeft = retries;
        });
    });
}

int setRetriesLeft(const std::string& serial, int retriesLeft) {
    return shielded("setRetriesLeft", static_cast<int>(kFailure), [&] {
        if (retriesLeft < 0) return static_cast<int>(kBadArguments);
        return changeToken(serial, [&](TokenRecord& token) { token.retriesLeft = retriesLeft; });
    });
}

int setSignOn(const std::string& serial, int loginState, int ssoState) {
    return shielded("setSignOn", static_cast<int>(kFailure), [&] {
        return changeToken(serial, [&](TokenRecord& token) {
            token.loginState = loginState;
            token.ssoState = ssoState;
        });
    });
}

int generateKeyPair(const std::string& serial, int keyType, const std::string& label, int usage, int flag,
                    std::string& keyIdHex) {
    return shielded("generateKeyPair", static_cast<int>(kFailure), [&] {
        if (keyType < 1 || keyType > 7) return static_cast<int>(kBadArguments);
        KeyPairRecord key;
        key.type = keyType;
        key.label = label;
        key.usage = usage;
        key.flag = flag;
        int result = addKeyPair(serial.c_str(), kAdministrative, key);
        if (result == kOk) keyIdHex = orvane::toHex(key.keyId);
        return result;
    });
}

int importCertificate(const std::string& serial, const std::vector<unsigned char>& der, const std::string& label,
                      std::string& linkedKeyIdHex) {
    return shielded("importCertificate", static_cast<int>(kFailure), [&] {
        CertificateRecord record;
        record.der = der;
        record.label = label;
        Bytes linkedKeyId;
        int result = addCertificate(serial.c_str(), kAdministrative, record, &linkedKeyId);
        if (result == kOk) linkedKeyIdHex = orvane::toHex(linkedKeyId);
        return result;
    });
}

int importSecretKey(const std::string& serial, int keyType, const std::vector<unsigned char>& value,
                    const std::string& label, std::string& keyIdHex) {
    return shielded("importSecretKey", static_cast<int>(kFailure), [&] {
        SecretKeyRecord secret;
        secret.type = keyType;
        secret.label = label;
        int result = addSecretKey(serial.c_str(), kAdministrative, secret, orvane::SecretBuffer(value.begin(), value.end()));
        if (result == kOk) keyIdHex = orvane::toHex(secret.keyId);
        return result;
    });
}

int exportPublicKey(const std::string& serial, const std::string& keyIdHex,
                    std::vector<unsigned char>& subjectPublicKeyInfo) {
    return shielded("exportPublicKey", static_cast<int>(kFailure), [&] {
        Snapshot state;
        if (!readStore(state)) return static_cast<int>(kStoreError);
        const TokenRecord* token = state->find(serial);
        if (token == nullptr) return static_cast<int>(kObjectNotFound);
        for (const KeyPairRecord& key : token->keyPairs) {
            if (orvane::toHex(key.keyId) != keyIdHex) continue;
            subjectPublicKeyInfo = orvane::publicKeyAsDer(key.publicKey.data(), key.publicKey.size());
            return static_cast<int>(kOk);
        }
        return static_cast<int>(kObjectNotFound);
    });
}

int injectFault(const std::string& operation, int count, int code) {
    return shielded("injectFault", static_cast<int>(kFailure), [&] {
        // Operation names are library function names, and the store keys faults by them.
        if (operation.empty() || !isUtf8(operation) || count < 0) return static_cast<int>(kBadArguments);
        return updateStore([&](StoreState& state) {
            if (count == 0)
                state.faults.erase(operation);
            else
                state.faults[operation] = FaultRecord{count, code};
            return static_cast<int>(kOk);
        });
    });
}

int clearFaults() {
    return shielded("clearFaults", static_cast<int>(kFailure), [] {
        return updateStore([](StoreState& state) {
            state.faults.clear();
            return static_cast<int>(kOk);
        });
    });
}

int callCount(const std::string& operation) {
    return shielded("callCount", 0, [&] { return softtoken::callCount(operation); });
}

std::map<std::string, long long> lastArguments(const std::string& operation) {
    return shielded("lastArguments", Arguments(), [&] { return softtoken::lastArguments(operation); });
}

std::string lastPinReceived() {
    return shielded("lastPinReceived", std::string(), [] { return softtoken::lastPinReceived(); });
}

std::string describe() {
    return shielded("describe", std::string(), [] {
        Snapshot state;
        if (!readStore(state)) return std::string("{\"error\": \"store unreadable\"}");
        using Json = nlohmann::ordered_json;
        Json tokens = Json::array();
        for (const TokenRecord& token : state->tokens) {
            Json keys = Json::array(), certificates = Json::array(), secrets = Json::array();
            for (const KeyPairRecord& key : token.keyPairs)
                keys.push_back({{"keyId", orvane::toHex(key.keyId)}, {"label", text(key.label)}, {"type", key.type},
                                {"usage", key.usage}, {"flag", key.flag},
                                {"certLinkId", orvane::toHex(key.certLinkId)}});
            for (const CertificateRecord& certificate : token.certificates) {
                CertificateFields fields;
                parseCertificate(certificate.der, fields);
                certificates.push_back({{"label", text(certificate.label)}, {"subject", text(fields.subject)},
                                        {"issuer", text(fields.issuer)},
                                        {"certLinkId", orvane::toHex(certificate.certLinkId)}});
            }
            for (const SecretKeyRecord& secret : token.secretKeys)
                secrets.push_back(
                    {{"keyId", orvane::toHex(secret.keyId)}, {"label", text(secret.label)}, {"type", secret.type}});
            tokens.push_back({{"serial", text(token.serial)}, {"label", text(token.label)}, {"plugged", token.plugged},
                              {"retriesLeft", token.retriesLeft}, {"maxRetries", token.maxRetries},
                              {"loginState", token.loginState}, {"ssoState", token.ssoState}, {"keyPairs", keys},
                              {"certificates", certificates}, {"secretKeys", secrets}});
        }
        Json faults = Json::object();
        for (const auto& [operation, fault] : state->faults)
            faults[operation] = {{"remaining", fault.remaining}, {"code", fault.code}};
        return Json{{"store", text(softtoken::storeFolder())}, {"tokens", tokens}, {"faults", faults}}.dump(2);
    });
}

}  // namespace softtoken::admin
