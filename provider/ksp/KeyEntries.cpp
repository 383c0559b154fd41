// Key objects: KSPOpenKey, KSPCreatePersistedKey, KSPFinalizeKey, KSPDeleteKey, KSPFreeKey,
// KSPEnumKeys. Keys live on the token; a key handle is a snapshot of one token key pair, or a
// request that KSPFinalizeKey turns into one.
#include <windows.h>
#include <wincrypt.h>

#include <array>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "diagnostics/Log.h"
#include "encoding/WideNames.h"
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspObjects.h"
#include "provider/ksp/KspResult.h"
#include "token/KeyPairFacts.h"
#include "token/KeySearch.h"
#include "token/OrvaneDSCLibrary.h"
#include "token/Pin.h"
#include "token/Sessions.h"

namespace orvane::ksp {
namespace {

// What KSPEnumKeys hands out as the enumeration state: one block from the caller's heap, so
// that KSPFreeBuffer releases the snapshot with it. The key pair records follow the header.
struct EnumerationState {
    uint64_t nextIndex;
    uint64_t count;
};

OrvaneKeyPair* snapshotOf(EnumerationState* state) { return reinterpret_cast<OrvaneKeyPair*>(state + 1); }

EnumerationState* takeEnumerationState(const std::vector<OrvaneKeyPair>& keyPairs) {
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

DWORD legacyKeySpecOf(uint32_t usage) {
    if (usage == 1) return AT_SIGNATURE;
    if (usage == 2 || usage == 3) return AT_KEYEXCHANGE;
    return 0;
}

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

void releaseKeyNameBlocks(NCryptKeyName* record, wchar_t* name, wchar_t* algorithm) {
    releaseForCaller(record);
    releaseForCaller(name);
    releaseForCaller(algorithm);
}

// The record and its two strings are separate blocks, as NCrypt callers expect; null when
// any of them could not be had.
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

// The key pair a name opens, once the name is known to be some key pair's hex name: the
// first pair named so by hex or label (an earlier label may win over a later hex name), then
// by the legacy AT_ value asked for, then a lone key pair.
const OrvaneKeyPair* chooseKeyPair(const std::vector<OrvaneKeyPair>& keyPairs, const std::string& name,
                                   DWORD legacyKeySpec) {
    for (const OrvaneKeyPair& keyPair : keyPairs)
        if (keyPairHasName(keyPair, name)) return &keyPair;
    for (const OrvaneKeyPair& keyPair : keyPairs) {
        if (legacyKeySpec == AT_SIGNATURE && usageAllowsSigning(keyPair.keyUsage)) return &keyPair;
        if (legacyKeySpec == AT_KEYEXCHANGE && usageAllowsExchange(keyPair.keyUsage)) return &keyPair;
    }
    return keyPairs.size() == 1 ? &keyPairs.front() : nullptr;
}

// Sizes other than the token's RSA sizes generate RSA-2048; the key still reports the size set.
int32_t rsaKeyTypeForLength(uint32_t bitLength) {
    switch (bitLength) {
    case 4096: return ORVANE_KEY_RSA_4096;
    case 3072: return ORVANE_KEY_RSA_3072;
    case 1024: return ORVANE_KEY_RSA_1024;
    default: return ORVANE_KEY_RSA_2048;
    }
}

}  // namespace

SECURITY_STATUS WINAPI KSPOpenKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                  DWORD dwLegacyKeySpec, DWORD) {
    return guardEntry("KSPOpenKey", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        if (provider == nullptr) return NTE_INVALID_HANDLE;
        if (phKey == nullptr) return NTE_INVALID_PARAMETER;
        std::string name = narrowLowBytes(pszKeyName);
        Utils::logMessage("KSP: Opening key: " + name);

        if (!name.empty()) {
            std::string serial = findSerialForKeyName(name);
            if (!serial.empty()) {
                provider->serialNumber = serial;
                Utils::logMessage("KSP: Resolved key to device: " + serial);
            }
        }

        std::vector<OrvaneKeyPair> keyPairs =
            orvane_getKeyPairList(provider->serialNumber.c_str(), provider->libraryContext);
        if (keyPairs.empty()) {
            Utils::logError("KSP: No keys found on token");
            return NTE_NO_KEY;
        }
        bool hexNameFound = false;
        for (const OrvaneKeyPair& keyPair : keyPairs) {
            std::string hexName = containerNameOf(keyPair);
            Utils::logMessage("KSP: Available key: " + hexName);
            if (hexName == name) {
                Utils::logMessage("KSP: Key match found, proceeding...");
                hexNameFound = true;
                break;
            }
        }
        if (!hexNameFound) {
            Utils::logError("KSP: Input key not found on token: " + name);
            return NTE_NO_KEY;
        }
        const OrvaneKeyPair* chosen = chooseKeyPair(keyPairs, name, dwLegacyKeySpec);
        if (chosen == nullptr) {
            Utils::logError("KSP: Key not found: " + name);
            return NTE_NO_KEY;
        }

        std::unique_ptr<KspKey> key(new KspKey());
        takeSnapshot(key->pair, *chosen);
        if (pszKeyName != nullptr) key->keyName = pszKeyName;
        key->onToken = true;
        Utils::logMessage("KSP: Key opened, algorithm=" + std::to_string(key->pair.keyType) +
                          " bits=" + std::to_string(key->pair.bitLength));
        *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
        return ERROR_SUCCESS;
    });
}

SECURITY_STATUS WINAPI KSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszAlgId,
                                             LPCWSTR pszKeyName, DWORD dwLegacyKeySpec, DWORD) {
    return guardEntry("KSPCreatePersistedKey", [&]() -> SECURITY_STATUS {
        if (providerFromHandle(hProvider) == nullptr) return NTE_INVALID_HANDLE;
        if (phKey == nullptr || pszAlgId == nullptr) return NTE_INVALID_PARAMETER;

        std::unique_ptr<KspKey> key(new KspKey());
        std::wstring algorithm = pszAlgId;
        if (algorithm == L"RSA") {
            // Type and size are settled by "Length" and KSPFinalizeKey.
            key->pair.usage = dwLegacyKeySpec == AT_KEYEXCHANGE ? 2 : 1;
        } else if (algorithm == L"ECDSA_P256" || algorithm == L"ECDSA_P384" || algorithm == L"ECDSA_P521") {
            key->pair.keyType = algorithm == L"ECDSA_P256"   ? ORVANE_KEY_EC_P256
                                : algorithm == L"ECDSA_P384" ? ORVANE_KEY_EC_P384
                                                             : ORVANE_KEY_EC_P521;
            key->pair.bitLength = keyTypeBits(key->pair.keyType);
            key->pair.usage = 1;
        } else {
            Utils::logError("KSP: Unsupported algorithm for key generation");
            return NTE_NOT_SUPPORTED;
        }
        if (pszKeyName != nullptr) key->keyName = pszKeyName;
        *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
        Utils::logMessage("KSP: Key object created, waiting for FinalizeKey");
        return ERROR_SUCCESS;
    });
}

SECURITY_STATUS WINAPI KSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD) {
    return guardEntry("KSPFinalizeKey", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        KspKey* key = keyFromHandle(hKey);
        if (provider == nullptr || key == nullptr) return NTE_INVALID_HANDLE;
        if (key->onToken) return ERROR_SUCCESS;
        if (!ensurePinValidated(provider->serialNumber, provider->libraryContext, kKspPinTexts)) return NTE_FAIL;

        // Settled here but kept only once the token has generated the key.
        int32_t keyType = key->pair.keyType;
        uint32_t bitLength = key->pair.bitLength;
        if (keyType == 0) {
            keyType = rsaKeyTypeForLength(bitLength);
            if (bitLength == 0) bitLength = 2048;
        }
        Utils::logMessage("KSP: FinalizeKey - generating key, algorithm=" + std::to_string(keyType) +
                          " bitSize=" + std::to_string(bitLength));

        OrvaneKeyPair request{};
        request.keyUsage = static_cast<int32_t>(key->pair.usage);
        request.keyType = keyType;
        int result = orvane_generateKeyPair(provider->serialNumber.c_str(),
                                            getCachedPin(provider->serialNumber).c_str(), &request,
                                            provider->libraryContext);
        if (result != 0) {
            Utils::logError("KSP: Key generation failed: " + std::to_string(result));
            return NTE_INTERNAL_ERROR;
        }
        // Type, usage and size are the ones asked for, not taken back from the token.
        uint32_t usage = key->pair.usage;
        takeSnapshot(key->pair, request);
        key->pair.usage = usage;
        key->pair.keyType = keyType;
        key->pair.bitLength = bitLength;
        key->onToken = true;
        Utils::logMessage("KSP: Key finalized successfully");
        return ERROR_SUCCESS;
    });
}

SECURITY_STATUS WINAPI KSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD) {
    return guardEntry("KSPDeleteKey", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        KspKey* key = keyFromHandle(hKey);
        if (provider == nullptr || key == nullptr) return NTE_INVALID_HANDLE;
        if (!ensurePinValidated(provider->serialNumber, provider->libraryContext, kKspPinTexts)) return NTE_FAIL;
        int result = orvane_deleteKeyPair(provider->serialNumber.c_str(), key->pair.keyId,
                                          getCachedPin(provider->serialNumber).c_str(), key->pair.tokenFlag,
                                          provider->libraryContext);
        if (result != 0) {
            Utils::logError("KSP: Delete key failed: " + std::to_string(result));
            return NTE_INTERNAL_ERROR;
        }
        // The handle stays alive until KSPFreeKey.
        key->keyName.clear();
        Utils::logMessage("KSP: Key deleted successfully");
        return ERROR_SUCCESS;
    });
}

SECURITY_STATUS WINAPI KSPFreeKey(NCRYPT_PROV_HANDLE, NCRYPT_KEY_HANDLE hKey) {
    return guardEntry("KSPFreeKey", [&]() -> SECURITY_STATUS {
        KspKey* key = keyFromHandle(hKey);
        if (key != nullptr) releaseKey(key);
        return ERROR_SUCCESS;
    });
}

bool releaseKeyNameForCaller(void* buffer) { return keyNameLedger().giveBack(buffer); }

SECURITY_STATUS WINAPI KSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR, NCryptKeyName** ppKeyName,
                                   PVOID* ppEnumState, DWORD) {
    return guardEntry("KSPEnumKeys", [&]() -> SECURITY_STATUS {
        KspProvider* provider = providerFromHandle(hProvider);
        if (provider == nullptr) return NTE_INVALID_HANDLE;
        if (ppKeyName == nullptr || ppEnumState == nullptr) return NTE_INVALID_PARAMETER;

        if (*ppEnumState == nullptr) {
            EnumerationState* fresh = takeEnumerationState(
                orvane_getKeyPairList(provider->serialNumber.c_str(), provider->libraryContext));
            if (fresh == nullptr) return NTE_NO_MEMORY;
            try {
                keyNameLedger().handOutState(fresh);
            } catch (...) {
                releaseForCaller(fresh);
                throw;
            }
            *ppEnumState = fresh;
        }
        EnumerationState* state = static_cast<EnumerationState*>(*ppEnumState);
        if (state->nextIndex >= state->count) {
            Utils::logMessage("KSP: No more keys to enumerate");
            return NTE_NO_MORE_ITEMS;
        }
        const OrvaneKeyPair& keyPair = snapshotOf(state)[state->nextIndex];
        NCryptKeyName* record = keyNameForCaller(keyPair, state);
        if (record == nullptr) return NTE_NO_MEMORY;
        *ppKeyName = record;
        ++state->nextIndex;
        Utils::logMessage("KSP: Enumerated key: " + containerNameOf(keyPair));
        return ERROR_SUCCESS;
    });
}

}  // namespace orvane::ksp
