#include "softtoken/SoftTokenAdmin.h"

#include <nlohmann/json.hpp>

#include "encoding/Der.h"
#include "encoding/Hex.h"
#include "softtoken/Asn1.h"
#include "softtoken/Objects.h"
#include "softtoken/Status.h"
#include "softtoken/Store.h"

namespace softtoken::admin {
namespace {

const Access kAdministrative{true, nullptr};

int changeToken(const std::string& serial, const std::function<void(TokenRecord&)>& change) {
    return updateStore([&](StoreState& state) {
        TokenRecord* token = state.find(serial);
        if (token == nullptr) return static_cast<int>(kObjectNotFound);
        change(*token);
        return static_cast<int>(kOk);
    });
}

}  // namespace

std::string storeFolder() { return softtoken::storeFolder(); }

int createToken(const std::string& serial, const std::string& label, const std::string& pin, int retries) {
    if (serial.empty() || retries < 1) return kBadArguments;
    return updateStore([&](StoreState& state) {
        if (state.find(serial)) return static_cast<int>(kAlreadyExists);
        TokenRecord token;
        token.serial = serial;
        token.label = label;
        token.pin = pin;
        token.maxRetries = token.retriesLeft = retries;
        state.tokens.push_back(token);
        return static_cast<int>(kOk);
    });
}

int removeToken(const std::string& serial) {
    return updateStore([&](StoreState& state) {
        for (auto token = state.tokens.begin(); token != state.tokens.end(); ++token)
            if (token->serial == serial) {
                state.tokens.erase(token);
                return static_cast<int>(kOk);
            }
        return static_cast<int>(kObjectNotFound);
    });
}

int setPlugged(const std::string& serial, bool plugged) {
    return changeToken(serial, [&](TokenRecord& token) { token.plugged = plugged; });
}

int setPin(const std::string& serial, const std::string& pin, int retries) {
    if (retries < 1) return kBadArguments;
    return changeToken(serial, [&](TokenRecord& token) {
        token.pin = pin;
        token.maxRetries = token.retriesLeft = retries;
    });
}

int setRetriesLeft(const std::string& serial, int retriesLeft) {
    if (retriesLeft < 0) return kBadArguments;
    return changeToken(serial, [&](TokenRecord& token) { token.retriesLeft = retriesLeft; });
}

int setSignOn(const std::string& serial, int loginState, int ssoState) {
    return changeToken(serial, [&](TokenRecord& token) {
        token.loginState = loginState;
        token.ssoState = ssoState;
    });
}

int generateKeyPair(const std::string& serial, int keyType, const std::string& label, int usage, int flag,
                    std::string& keyIdHex) {
    if (keyType < 1 || keyType > 7) return kBadArguments;
    KeyPairRecord key;
    key.type = keyType;
    key.label = label;
    key.usage = usage;
    key.flag = flag;
    int result = addKeyPair(serial.c_str(), kAdministrative, key);
    if (result == kOk) keyIdHex = orvane::toHex(key.keyId);
    return result;
}

int importCertificate(const std::string& serial, const std::vector<unsigned char>& der, const std::string& label,
                      std::string& linkedKeyIdHex) {
    CertificateRecord record;
    record.der = der;
    record.label = label;
    Bytes linkedKeyId;
    int result = addCertificate(serial.c_str(), kAdministrative, record, &linkedKeyId);
    if (result == kOk) linkedKeyIdHex = orvane::toHex(linkedKeyId);
    return result;
}

int importSecretKey(const std::string& serial, int keyType, const std::vector<unsigned char>& value,
                    const std::string& label, std::string& keyIdHex) {
    SecretKeyRecord secret;
    secret.type = keyType;
    secret.value = value;
    secret.label = label;
    int result = addSecretKey(serial.c_str(), kAdministrative, secret);
    if (result == kOk) keyIdHex = orvane::toHex(secret.keyId);
    return result;
}

int exportPublicKey(const std::string& serial, const std::string& keyIdHex,
                    std::vector<unsigned char>& subjectPublicKeyInfo) {
    StoreState state;
    if (!readStore(state)) return kStoreError;
    const TokenRecord* token = state.find(serial);
    if (token == nullptr) return kObjectNotFound;
    for (const KeyPairRecord& key : token->keyPairs) {
        if (orvane::toHex(key.keyId) != keyIdHex) continue;
        if (!key.publicKey.empty() && key.publicKey[0] == 0x30) {
            subjectPublicKeyInfo = key.publicKey;
        } else {
            subjectPublicKeyInfo = orvane::encodeRsaPublicKeyDer(orvane::toHex(key.publicKey), "010001");
        }
        return kOk;
    }
    return kObjectNotFound;
}

int injectFault(const std::string& operation, int count, int code) {
    if (operation.empty() || count < 0) return kBadArguments;
    return updateStore([&](StoreState& state) {
        if (count == 0)
            state.faults.erase(operation);
        else
            state.faults[operation] = FaultRecord{count, code};
        return static_cast<int>(kOk);
    });
}

int clearFaults() {
    return updateStore([](StoreState& state) {
        state.faults.clear();
        return static_cast<int>(kOk);
    });
}

int callCount(const std::string& operation) { return softtoken::callCount(operation); }

std::string lastPinReceived() { return softtoken::lastPinReceived(); }

std::string describe() {
    StoreState state;
    if (!readStore(state)) return "{\"error\": \"store unreadable\"}";
    nlohmann::ordered_json tokens = nlohmann::ordered_json::array();
    for (const TokenRecord& token : state.tokens) {
        nlohmann::ordered_json keys = nlohmann::ordered_json::array(), certificates = nlohmann::ordered_json::array(),
                               secrets = nlohmann::ordered_json::array();
        for (const KeyPairRecord& key : token.keyPairs)
            keys.push_back({{"keyId", orvane::toHex(key.keyId)}, {"label", key.label}, {"type", key.type},
                            {"usage", key.usage}, {"flag", key.flag}, {"certLinkId", orvane::toHex(key.certLinkId)}});
        for (const CertificateRecord& certificate : token.certificates) {
            CertificateFields fields;
            parseCertificate(certificate.der, fields);
            certificates.push_back({{"label", certificate.label}, {"subject", fields.subject},
                                    {"issuer", fields.issuer}, {"certLinkId", orvane::toHex(certificate.certLinkId)}});
        }
        for (const SecretKeyRecord& secret : token.secretKeys)
            secrets.push_back({{"keyId", orvane::toHex(secret.keyId)}, {"label", secret.label}, {"type", secret.type}});
        tokens.push_back({{"serial", token.serial}, {"label", token.label}, {"plugged", token.plugged},
                          {"retriesLeft", token.retriesLeft}, {"maxRetries", token.maxRetries},
                          {"loginState", token.loginState}, {"ssoState", token.ssoState}, {"keyPairs", keys},
                          {"certificates", certificates}, {"secretKeys", secrets}});
    }
    nlohmann::ordered_json faults = nlohmann::ordered_json::object();
    for (const auto& [operation, fault] : state.faults)
        faults[operation] = {{"remaining", fault.remaining}, {"code", fault.code}};
    return nlohmann::ordered_json{{"store", softtoken::storeFolder()}, {"tokens", tokens}, {"faults", faults}}.dump(2);
}

}  // namespace softtoken::admin
