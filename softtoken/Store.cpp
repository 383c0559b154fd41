#include "softtoken/Store.h"

#include <windows.h>

#include <cstdio>
#include <mutex>
#include <nlohmann/json.hpp>

#include "encoding/Hex.h"
#include "softtoken/Status.h"

namespace softtoken {
namespace {

using nlohmann::json;

std::string bytesToText(const Bytes& bytes) { return orvane::toHex(bytes); }

Bytes textToBytes(const json& value) {
    Bytes bytes;
    if (!value.is_string() || !orvane::parseHex(value.get<std::string>(), bytes))
        throw std::runtime_error("bad hex field");
    return bytes;
}

json toJson(const StoreState& state) {
    json tokens = json::array();
    for (const TokenRecord& token : state.tokens) {
        json keyPairs = json::array();
        for (const KeyPairRecord& k : token.keyPairs)
            keyPairs.push_back({{"index", k.index}, {"keyId", bytesToText(k.keyId)}, {"label", k.label},
                                {"usage", k.usage}, {"type", k.type}, {"flag", k.flag},
                                {"certLinkId", bytesToText(k.certLinkId)}, {"publicKey", bytesToText(k.publicKey)},
                                {"privateKey", k.privateKey}});
        json certificates = json::array();
        for (const CertificateRecord& c : token.certificates)
            certificates.push_back({{"index", c.index}, {"der", bytesToText(c.der)},
                                    {"certLinkId", bytesToText(c.certLinkId)}, {"label", c.label}});
        json secretKeys = json::array();
        for (const SecretKeyRecord& s : token.secretKeys)
            secretKeys.push_back({{"index", s.index}, {"keyId", bytesToText(s.keyId)},
                                  {"reference", bytesToText(s.reference)}, {"label", s.label}, {"type", s.type},
                                  {"flag", s.flag}, {"value", bytesToText(s.value)}});
        tokens.push_back({{"serial", token.serial}, {"label", token.label}, {"pin", token.pin},
                          {"maxRetries", token.maxRetries}, {"retriesLeft", token.retriesLeft},
                          {"loginState", token.loginState}, {"ssoState", token.ssoState},
                          {"plugged", token.plugged}, {"nextIndex", token.nextIndex}, {"keyPairs", keyPairs},
                          {"certificates", certificates}, {"secretKeys", secretKeys}});
    }
    json faults = json::object();
    for (const auto& [operation, fault] : state.faults)
        faults[operation] = {{"remaining", fault.remaining}, {"code", fault.code}};
    return {{"generation", state.generation}, {"tokens", tokens}, {"faults", faults}};
}

StoreState fromJson(const json& document) {
    StoreState state;
    state.generation = document.at("generation").get<uint64_t>();
    for (const json& t : document.at("tokens")) {
        TokenRecord token;
        token.serial = t.at("serial").get<std::string>();
        token.label = t.at("label").get<std::string>();
        token.pin = t.at("pin").get<std::string>();
        token.maxRetries = t.at("maxRetries").get<int>();
        token.retriesLeft = t.at("retriesLeft").get<int>();
        token.loginState = t.at("loginState").get<int>();
        token.ssoState = t.at("ssoState").get<int>();
        token.plugged = t.at("plugged").get<bool>();
        token.nextIndex = t.at("nextIndex").get<int>();
        for (const json& k : t.at("keyPairs")) {
            KeyPairRecord key;
            key.index = k.at("index").get<int>();
            key.keyId = textToBytes(k.at("keyId"));
            key.label = k.at("label").get<std::string>();
            key.usage = k.at("usage").get<int>();
            key.type = k.at("type").get<int>();
            key.flag = k.at("flag").get<int>();
            key.certLinkId = textToBytes(k.at("certLinkId"));
            key.publicKey = textToBytes(k.at("publicKey"));
            key.privateKey = k.at("privateKey").get<std::string>();
            token.keyPairs.push_back(std::move(key));
        }
        for (const json& c : t.at("certificates")) {
            CertificateRecord certificate;
            certificate.index = c.at("index").get<int>();
            certificate.der = textToBytes(c.at("der"));
            certificate.certLinkId = textToBytes(c.at("certLinkId"));
            certificate.label = c.at("label").get<std::string>();
            token.certificates.push_back(std::move(certificate));
        }
        for (const json& s : t.at("secretKeys")) {
            SecretKeyRecord secret;
            secret.index = s.at("index").get<int>();
            secret.keyId = textToBytes(s.at("keyId"));
            secret.reference = textToBytes(s.at("reference"));
            secret.label = s.at("label").get<std::string>();
            secret.type = s.at("type").get<int>();
            secret.flag = s.at("flag").get<bool>();
            secret.value = textToBytes(s.at("value"));
            token.secretKeys.push_back(std::move(secret));
        }
        state.tokens.push_back(std::move(token));
    }
    for (const auto& [operation, f] : document.at("faults").items())
        state.faults[operation] = FaultRecord{f.at("remaining").get<int>(), f.at("code").get<int>()};
    return state;
}

bool createFolders(const std::string& path) {
    for (size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '\\' || path[i] == '/') {
            std::string prefix = path.substr(0, i);
            if (prefix.empty() || prefix.back() == ':') continue;
            if (GetFileAttributesA(prefix.c_str()) == INVALID_FILE_ATTRIBUTES && !CreateDirectoryA(prefix.c_str(), nullptr) &&
                GetLastError() != ERROR_ALREADY_EXISTS)
                return false;
        }
    }
    return true;
}

// Whole-file read; false when the file does not exist.
bool readFile(const std::string& path, std::string& content) {
    HANDLE file = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    content.clear();
    char buffer[65536];
    DWORD got = 0;
    while (ReadFile(file, buffer, sizeof buffer, &got, nullptr) && got > 0) content.append(buffer, got);
    CloseHandle(file);
    return true;
}

// Writes a temporary file, flushes it and moves it over the target in one step.
bool replaceFile(const std::string& path, const std::string& content) {
    std::string temporary = path + ".tmp";
    HANDLE file = CreateFileA(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    DWORD written = 0;
    bool ok = WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr) &&
              written == content.size() && FlushFileBuffers(file);
    CloseHandle(file);
    return ok && MoveFileExA(temporary.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
}

// The cross-process lock over the store folder, shared for readers and exclusive for writers.
class StoreLock {
public:
    StoreLock(const std::string& folder, bool exclusive) {
        if (!createFolders(folder)) return;
        file_ = CreateFileA((folder + "\\store.lock").c_str(), GENERIC_READ | GENERIC_WRITE,
                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file_ == INVALID_HANDLE_VALUE) return;
        OVERLAPPED region{};
        locked_ = LockFileEx(file_, exclusive ? LOCKFILE_EXCLUSIVE_LOCK : 0, 0, 1, 0, &region) != FALSE;
    }
    ~StoreLock() {
        if (locked_) {
            OVERLAPPED region{};
            UnlockFileEx(file_, 0, 1, 0, &region);
        }
        if (file_ != INVALID_HANDLE_VALUE) CloseHandle(file_);
    }
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;
    bool locked() const { return locked_; }

private:
    HANDLE file_ = INVALID_HANDLE_VALUE;
    bool locked_ = false;
};

// Last state read in this process, kept while the folder's generation stays the same.
struct Cache {
    std::mutex mutex;
    std::string folder;
    std::string generation;
    bool valid = false;
    StoreState state;
};

Cache& cache() {
    static Cache instance;
    return instance;
}

enum class LoadResult { kLoaded, kCorrupt };

// Called with the store lock held and the cache mutex held.
LoadResult loadLocked(Cache& c, const std::string& folder) {
    std::string generation;
    if (!readFile(folder + "\\generation", generation)) generation.clear();
    if (c.valid && c.folder == folder && c.generation == generation && !generation.empty()) return LoadResult::kLoaded;

    std::string content;
    StoreState state;
    if (readFile(folder + "\\tokens.json", content)) {
        try {
            state = fromJson(json::parse(content));
        } catch (const std::exception& error) {
            std::fprintf(stderr, "soft token: store %s is unreadable: %s\n", folder.c_str(), error.what());
            c.valid = false;
            return LoadResult::kCorrupt;
        }
    }
    c.folder = folder;
    c.generation = generation;
    c.state = std::move(state);
    c.valid = true;
    return LoadResult::kLoaded;
}

}  // namespace

TokenRecord* StoreState::find(const std::string& serial) {
    for (TokenRecord& token : tokens)
        if (token.serial == serial) return &token;
    return nullptr;
}

const TokenRecord* StoreState::find(const std::string& serial) const {
    return const_cast<StoreState*>(this)->find(serial);
}

const TokenRecord* StoreState::connected(const char* serial) const {
    if (serial == nullptr) return nullptr;
    const TokenRecord* token = find(serial);
    return token != nullptr && token->plugged ? token : nullptr;
}

std::string storeFolder() {
    char buffer[MAX_PATH];
    DWORD length = GetEnvironmentVariableA("ORVANE_TOKEN_STORE", buffer, sizeof buffer);
    if (length > 0 && length < sizeof buffer) return std::string(buffer, length);
    length = GetEnvironmentVariableA("ProgramData", buffer, sizeof buffer);
    std::string base = (length > 0 && length < sizeof buffer) ? std::string(buffer, length) : "C:\\ProgramData";
    return base + "\\Orvane\\SoftToken";
}

bool readStore(StoreState& state) {
    std::string folder = storeFolder();
    StoreLock lock(folder, false);
    Cache& c = cache();
    std::lock_guard<std::mutex> guard(c.mutex);
    if (!lock.locked() || loadLocked(c, folder) != LoadResult::kLoaded) {
        state = StoreState{};
        return false;
    }
    state = c.state;
    return true;
}

int updateStore(const std::function<int(StoreState&)>& mutate) {
    std::string folder = storeFolder();
    StoreLock lock(folder, true);
    if (!lock.locked()) return kStoreError;
    Cache& c = cache();
    std::lock_guard<std::mutex> guard(c.mutex);
    if (loadLocked(c, folder) != LoadResult::kLoaded) return kStoreError;

    StoreState next = c.state;
    int result = mutate(next);
    if (result != kOk) return result;

    uint64_t counter = 0;
    std::sscanf(c.generation.c_str(), "%llu", reinterpret_cast<unsigned long long*>(&counter));
    next.generation = (counter > next.generation ? counter : next.generation) + 1;
    std::string generation = std::to_string(next.generation);
    if (!replaceFile(folder + "\\tokens.json", toJson(next).dump(1)) || !replaceFile(folder + "\\generation", generation)) {
        c.valid = false;
        return kStoreError;
    }
    c.state = std::move(next);
    c.generation = generation;
    return kOk;
}

namespace {

std::mutex callCountMutex;
std::map<std::string, int> callCounts;

}  // namespace

int callCount(const std::string& operation) {
    std::lock_guard<std::mutex> guard(callCountMutex);
    auto found = callCounts.find(operation);
    return found == callCounts.end() ? 0 : found->second;
}

int consumeFault(const std::string& operation) {
    {
        std::lock_guard<std::mutex> guard(callCountMutex);
        ++callCounts[operation];
    }
    StoreState state;
    readStore(state);
    auto armed = state.faults.find(operation);
    if (armed == state.faults.end() || armed->second.remaining <= 0) return kOk;

    int code = kOk;
    updateStore([&](StoreState& fresh) {
        auto fault = fresh.faults.find(operation);
        if (fault == fresh.faults.end() || fault->second.remaining <= 0) return kOk;
        code = fault->second.code;
        if (--fault->second.remaining == 0) fresh.faults.erase(fault);
        return kOk;
    });
    return code;
}

}  // namespace softtoken
