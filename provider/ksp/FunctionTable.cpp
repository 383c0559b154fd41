// GetKeyStorageInterface and the version-1.0 table it hands the CNG router.
#include "diagnostics/Log.h"
#include "provider/ksp/KspEntries.h"
#include "provider/ksp/KspInterface.h"

using namespace orvane::ksp;

namespace {

NCRYPT_KEY_STORAGE_FUNCTION_TABLE functionTable = {
    NCRYPT_KEY_STORAGE_INTERFACE_VERSION,
    KSPOpenProvider,
    KSPOpenKey,
    KSPCreatePersistedKey,
    KSPGetProviderProperty,
    KSPGetKeyProperty,
    KSPSetProviderProperty,
    KSPSetKeyProperty,
    KSPFinalizeKey,
    KSPDeleteKey,
    KSPFreeProvider,
    KSPFreeKey,
    KSPFreeBuffer,
    KSPEncrypt,
    KSPDecrypt,
    KSPIsAlgSupported,
    KSPEnumAlgorithms,
    KSPEnumKeys,
    KSPImportKey,
    KSPExportKey,
    KSPSignHash,
    KSPVerifySignature,
    KSPPromptUser,
    KSPNotifyChangeKey,
    KSPSecretAgreement,
    KSPDeriveKey,
    KSPFreeSecret,
};

}  // namespace

extern "C" NTSTATUS WINAPI GetKeyStorageInterface(LPCWSTR, NCRYPT_KEY_STORAGE_FUNCTION_TABLE** ppFunctionTable, DWORD) {
    Utils::logMessage("GetKeyStorageInterface");
    if (ppFunctionTable == nullptr) return NTE_INVALID_PARAMETER;
    *ppFunctionTable = &functionTable;
    return 0;
}
