#include "provider/ksp/KeyNameLedger.h"

#include <wincrypt.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "provider/ksp/KspResult.h"
#include "token/KeyPairFacts.h"

namespace orvane::ksp {
namespace {

// The key-name records and strings handed out and not yet given back. NCryptFreeBuffer callers
// give back only the record; others give back all three blocks, in either order. A string
// given back on its own is released at once and forgotten by its record. A record's strings
// still out when the record comes back are released with it once its enumeration is over;
// while the enumeration state is out they are parked, so that a caller giving them back after
// the record releases them once. They go when the state comes back, or, should it never come,
// when too many wait.
class KeyNameLedger {
public:
    void handOutState(const void* state) {
        std::lock_guard<std::mutex> guard(mutex_);
        states_.insert(state);
    }

    void handOut(NCryptKeyName* record, const void* state) {
        std::lock_guard<std::mutex> guard(mutex_);
        try {
            records_[record] = Strings{{record->pszName, record->pszAlgid}, state};
            owners_[record->pszName] = record;
            owners_[record->pszAlgid] = record;
        } catch (...) {
            records_.erase(record);
            owners_.erase(record->pszName);
            owners_.erase(record->pszAlgid);
            throw;
        }
    }

    // True when buffer was a record or string of a key name and is now released; an
    // enumeration state is left for the caller to release.
    bool giveBack(void* buffer) {
        std::vector<void*> release;
        bool taken = true;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            auto record = records_.find(buffer);
            auto owner = owners_.find(buffer);
            if (record != records_.end()) {
                bool enumerating = states_.count(record->second.state) != 0;
                for (void* string : record->second.blocks) {
                    if (string == nullptr) continue;
                    if (enumerating) {
                        park(string, record->second.state, release);
                    } else {
                        owners_.erase(string);
                        release.push_back(string);
                    }
                }
                records_.erase(record);
                release.push_back(buffer);
            } else if (owner != owners_.end()) {
                auto strings = records_.find(owner->second);
                if (strings != records_.end())
                    for (void*& string : strings->second.blocks)
                        if (string == buffer) string = nullptr;
                owners_.erase(owner);
                release.push_back(buffer);
            } else {
                taken = false;
                if (states_.erase(buffer) != 0) releaseParked(buffer, release);
            }
        }
        for (void* block : release) releaseForCaller(block);
        return taken;
    }

private:
    struct Strings {
        std::array<void*, 2> blocks;
        const void* state;
    };
    struct Parked {
        void* string;
        const void* state;
    };
    static const size_t kMostParked = 128;

    void park(void* string, const void* state, std::vector<void*>& release) {
        owners_[string] = nullptr;
        parked_.push_back(Parked{string, state});
        while (parked_.size() > kMostParked) {
            releaseIfStillParked(parked_.front().string, release);
            parked_.pop_front();
        }
    }

    void releaseParked(const void* state, std::vector<void*>& release) {
        for (auto entry = parked_.begin(); entry != parked_.end();) {
            if (entry->state != state) {
                ++entry;
                continue;
            }
            releaseIfStillParked(entry->string, release);
            entry = parked_.erase(entry);
        }
    }

    // A parked string the caller has not given back meanwhile.
    void releaseIfStillParked(void* string, std::vector<void*>& release) {
        auto owner = owners_.find(string);
        if (owner != owners_.end() && owner->second == nullptr) {
            owners_.erase(owner);
            release.push_back(string);
        }
    }

    std::mutex mutex_;
    std::unordered_set<const void*> states_;
    std::unordered_map<const void*, Strings> records_;
    std::unordered_map<const void*, const void*> owners_;  // string -> its record, null once parked
    std::deque<Parked> parked_;
};

KeyNameLedger& keyNameLedger() {
    static KeyNameLedger ledger;
    return ledger;
}

// What KSPEnumKeys hands out as the enumeration state: one block from the caller's heap, so
// that KSPFreeBuffer releases the snapshot with it. The key pair records follow the header.
struct EnumerationState {
    uint64_t nextIndex;
    uint64_t count;
};

OrvaneKeyPair* snapshotOf(EnumerationState* state) { return reinterpret_cast<OrvaneKeyPair*>(state + 1); }

EnumerationState* allocateEnumerationState(const std::vector<OrvaneKeyPair>& keyPairs) {
    void* block = allocateForCaller(sizeof(EnumerationState) + keyPairs.size() * sizeof(OrvaneKeyPair));
    if (block == nullptr) return nullptr;
    EnumerationState* state = static_cast<EnumerationState*>(block);
    state->nextIndex = 0;
    state->count = keyPairs.size();
    if (!keyPairs.empty()) std::memcpy(snapshotOf(state), keyPairs.data(), keyPairs.size() * sizeof(OrvaneKeyPair));
    return state;
}

wchar_t* wideForCaller(const std::wstring& text) {
    size_t size = (text.size() + 1) * sizeof(wchar_t);
    wchar_t* copy = static_cast<wchar_t*>(allocateForCaller(size));
    if (copy != nullptr) std::memcpy(copy, text.c_str(), size);
    return copy;
}

// A key pair that can decrypt reports AT_KEYEXCHANGE, even when it can also sign.
DWORD legacyKeySpecOf(uint32_t usage) {
    if (usageAllowsExchange(usage)) return AT_KEYEXCHANGE;
    return usage == kUsageSignature ? AT_SIGNATURE : 0;
}

void releaseKeyNameBlocks(NCryptKeyName* record, wchar_t* name, wchar_t* algorithm) {
    releaseForCaller(record);
    releaseForCaller(name);
    releaseForCaller(algorithm);
}

}  // namespace

NCryptKeyName* keyNameForCaller(const OrvaneKeyPair& keyPair, const void* state) {
    std::string name = containerNameOf(keyPair);
    NCryptKeyName* record = static_cast<NCryptKeyName*>(allocateForCaller(sizeof(NCryptKeyName)));
    wchar_t* wideName = wideForCaller(std::wstring(name.begin(), name.end()));
    wchar_t* algorithm = wideForCaller(cngAlgorithmName(keyPair.keyType));
    if (record == nullptr || wideName == nullptr || algorithm == nullptr) {
        releaseKeyNameBlocks(record, wideName, algorithm);
        return nullptr;
    }
    record->pszName = wideName;
    record->pszAlgid = algorithm;
    record->dwLegacyKeySpec = legacyKeySpecOf(static_cast<uint32_t>(keyPair.keyUsage));
    record->dwFlags = 0;
    try {
        keyNameLedger().handOut(record, state);
    } catch (...) {
        releaseKeyNameBlocks(record, wideName, algorithm);
        throw;
    }
    return record;
}

void* startKeyEnumeration(const std::vector<OrvaneKeyPair>& keyPairs) {
    EnumerationState* state = allocateEnumerationState(keyPairs);
    if (state == nullptr) return nullptr;
    try {
        keyNameLedger().handOutState(state);
    } catch (...) {
        releaseForCaller(state);
        throw;
    }
    return state;
}

const OrvaneKeyPair* keyPairAtCursor(void* state) {
    EnumerationState* enumeration = static_cast<EnumerationState*>(state);
    return enumeration->nextIndex < enumeration->count ? &snapshotOf(enumeration)[enumeration->nextIndex] : nullptr;
}

void moveCursor(void* state) { ++static_cast<EnumerationState*>(state)->nextIndex; }

bool releaseKeyNameForCaller(void* buffer) { return keyNameLedger().giveBack(buffer); }

}  // namespace orvane::ksp
