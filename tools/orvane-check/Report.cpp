#include "tools/orvane-check/Report.h"

#include <windows.h>

#include <cstddef>

namespace check {
namespace {

struct KnownError {
    unsigned long code;
    const char* name;
    const char* text;  // used when the system has no message for the code
};

#define KNOWN_ERROR(code, text) \
    { static_cast<unsigned long>(code), #code, text }

// The codes a cryptographic provider and a token answer most. Wine's message tables lack
// several of the NTE_ and SCARD_ texts, and none of the system's tables hold NTSTATUS codes,
// which bcrypt answers.
const KnownError kKnownErrors[] = {
    KNOWN_ERROR(ERROR_FILE_NOT_FOUND, "The system cannot find the file specified."),
    KNOWN_ERROR(ERROR_ACCESS_DENIED, "Access is denied."),
    KNOWN_ERROR(ERROR_NOT_ENOUGH_MEMORY, "Not enough memory resources are available to process this command."),
    KNOWN_ERROR(ERROR_INVALID_PARAMETER, "The parameter is incorrect."),
    KNOWN_ERROR(ERROR_MOD_NOT_FOUND, "The specified module could not be found."),
    KNOWN_ERROR(ERROR_PROC_NOT_FOUND, "The specified procedure could not be found."),
    KNOWN_ERROR(ERROR_BAD_EXE_FORMAT, "The file is not a valid application for this operating system."),
    KNOWN_ERROR(ERROR_MORE_DATA, "More data is available."),
    KNOWN_ERROR(ERROR_NO_MORE_ITEMS, "No more data is available."),
    KNOWN_ERROR(ERROR_CANCELLED, "The operation was canceled by the user."),
    KNOWN_ERROR(NTE_BAD_UID, "Bad UID."),
    KNOWN_ERROR(NTE_BAD_HASH, "Bad hash."),
    KNOWN_ERROR(NTE_BAD_KEY, "Bad key."),
    KNOWN_ERROR(NTE_BAD_LEN, "Bad length."),
    KNOWN_ERROR(NTE_BAD_DATA, "Bad data."),
    KNOWN_ERROR(NTE_BAD_SIGNATURE, "Invalid signature."),
    KNOWN_ERROR(NTE_BAD_VER, "Bad version of provider."),
    KNOWN_ERROR(NTE_BAD_ALGID, "Invalid algorithm specified."),
    KNOWN_ERROR(NTE_BAD_FLAGS, "Invalid flags specified."),
    KNOWN_ERROR(NTE_BAD_TYPE, "Invalid type specified."),
    KNOWN_ERROR(NTE_BAD_KEY_STATE, "Key not valid for use in specified state."),
    KNOWN_ERROR(NTE_BAD_HASH_STATE, "Hash not valid for use in specified state."),
    KNOWN_ERROR(NTE_NO_KEY, "Key does not exist."),
    KNOWN_ERROR(NTE_NO_MEMORY, "Insufficient memory available for the operation."),
    KNOWN_ERROR(NTE_EXISTS, "Object already exists."),
    KNOWN_ERROR(NTE_PERM, "Access denied."),
    KNOWN_ERROR(NTE_NOT_FOUND, "Object was not found."),
    KNOWN_ERROR(NTE_BAD_PROVIDER, "Invalid provider specified."),
    KNOWN_ERROR(NTE_BAD_PROV_TYPE, "Invalid provider type specified."),
    KNOWN_ERROR(NTE_BAD_PUBLIC_KEY, "Provider's public key is invalid."),
    KNOWN_ERROR(NTE_BAD_KEYSET, "Keyset does not exist."),
    KNOWN_ERROR(NTE_PROV_TYPE_NOT_DEF, "Provider type not defined."),
    KNOWN_ERROR(NTE_PROV_TYPE_ENTRY_BAD, "Provider type as registered is invalid."),
    KNOWN_ERROR(NTE_KEYSET_NOT_DEF, "The keyset is not defined."),
    KNOWN_ERROR(NTE_KEYSET_ENTRY_BAD, "Keyset as registered is invalid."),
    KNOWN_ERROR(NTE_PROV_TYPE_NO_MATCH, "Provider type does not match registered value."),
    KNOWN_ERROR(NTE_SIGNATURE_FILE_BAD, "The digital signature file is corrupt."),
    KNOWN_ERROR(NTE_PROVIDER_DLL_FAIL, "Provider DLL failed to initialize correctly."),
    KNOWN_ERROR(NTE_PROV_DLL_NOT_FOUND, "Provider DLL could not be found."),
    KNOWN_ERROR(NTE_BAD_KEYSET_PARAM, "The Keyset parameter is invalid."),
    KNOWN_ERROR(NTE_FAIL, "An internal error occurred."),
    KNOWN_ERROR(NTE_SYS_ERR, "A base error occurred."),
    KNOWN_ERROR(NTE_SILENT_CONTEXT, "Provider could not perform the action since the context was acquired as silent."),
    KNOWN_ERROR(NTE_TOKEN_KEYSET_STORAGE_FULL,
                "The security token does not have storage space available for an additional container."),
    KNOWN_ERROR(NTE_INVALID_HANDLE, "The supplied handle is invalid."),
    KNOWN_ERROR(NTE_INVALID_PARAMETER, "The parameter is incorrect."),
    KNOWN_ERROR(NTE_BUFFER_TOO_SMALL, "The buffer supplied to a function was too small."),
    KNOWN_ERROR(NTE_NOT_SUPPORTED, "The requested operation is not supported."),
    KNOWN_ERROR(NTE_NO_MORE_ITEMS, "No more data is available."),
    KNOWN_ERROR(NTE_DECRYPTION_FAILURE, "Unable to decrypt the specified data."),
    KNOWN_ERROR(NTE_INTERNAL_ERROR, "An internal consistency check failed."),
    KNOWN_ERROR(NTE_UI_REQUIRED, "This operation requires input from the user."),
    KNOWN_ERROR(NTE_DEVICE_NOT_READY,
                "The device that is required by this cryptographic provider is not ready for use."),
    KNOWN_ERROR(NTE_VALIDATION_FAILED, "Validation of the provided data failed the integrity verification."),
    KNOWN_ERROR(NTE_INCORRECT_PASSWORD, "Incorrect password."),
    KNOWN_ERROR(NTE_ENCRYPTION_FAILURE, "Encryption failed."),
    KNOWN_ERROR(NTE_DEVICE_NOT_FOUND,
                "The device that is required by this cryptographic provider is not found on this platform."),
    KNOWN_ERROR(SCARD_E_CANCELLED, "The action was cancelled by an SCardCancel request."),
    KNOWN_ERROR(SCARD_E_TIMEOUT, "The user-specified timeout value has expired."),
    KNOWN_ERROR(SCARD_E_SHARING_VIOLATION,
                "The smart card cannot be accessed because of other connections outstanding."),
    KNOWN_ERROR(SCARD_E_NO_SMARTCARD,
                "The operation requires a smart card, but no smart card is currently in the device."),
    KNOWN_ERROR(SCARD_E_NOT_READY, "The reader or smart card is not ready to accept commands."),
    KNOWN_ERROR(SCARD_E_NO_SERVICE, "The Smart Card Resource Manager is not running."),
    KNOWN_ERROR(SCARD_E_SERVICE_STOPPED, "The Smart Card Resource Manager has shut down."),
    KNOWN_ERROR(SCARD_E_UNSUPPORTED_FEATURE, "This smart card does not support the requested feature."),
    KNOWN_ERROR(SCARD_E_NO_SUCH_CERTIFICATE, "The requested certificate does not exist."),
    KNOWN_ERROR(SCARD_E_CERTIFICATE_UNAVAILABLE, "The requested certificate could not be obtained."),
    KNOWN_ERROR(SCARD_E_NO_READERS_AVAILABLE, "Cannot find a smart card reader."),
    KNOWN_ERROR(SCARD_E_NO_KEY_CONTAINER, "The requested key container does not exist on the smart card."),
    KNOWN_ERROR(SCARD_W_REMOVED_CARD,
                "The smart card has been removed, so that further communication is not possible."),
    KNOWN_ERROR(SCARD_W_WRONG_CHV, "The card cannot be accessed because the wrong PIN was presented."),
    KNOWN_ERROR(SCARD_W_CHV_BLOCKED,
                "The card cannot be accessed because the maximum number of PIN entry attempts has been reached."),
    KNOWN_ERROR(SCARD_W_CANCELLED_BY_USER, "The action was cancelled by the user."),
    KNOWN_ERROR(SCARD_W_CARD_NOT_AUTHENTICATED, "No PIN was presented to the smart card."),
    {0xC0000002UL, "STATUS_NOT_IMPLEMENTED", "The requested operation is not implemented."},
    {0xC000000DUL, "STATUS_INVALID_PARAMETER", "An invalid parameter was passed to a service or function."},
    {0xC00000BBUL, "STATUS_NOT_SUPPORTED", "The request is not supported."},
    {0xC0000225UL, "STATUS_NOT_FOUND", "The object was not found."},
    {0xC000A000UL, "STATUS_INVALID_SIGNATURE", "The cryptographic signature is invalid."},
};

#undef KNOWN_ERROR

const KnownError* findKnown(unsigned long code) {
    for (const KnownError& known : kKnownErrors)
        if (known.code == code) return &known;
    return nullptr;
}

std::string systemMessage(unsigned long code) {
    char* buffer = nullptr;
    DWORD length = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                      FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
                                  nullptr, static_cast<DWORD>(code), 0, reinterpret_cast<char*>(&buffer), 0, nullptr);
    std::string text(buffer != nullptr ? buffer : "", length);
    if (buffer != nullptr) LocalFree(buffer);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\r' || text.back() == '\n')) text.pop_back();
    return text;
}

const size_t kStepWidth = 37;     // the longest step name
const size_t kSubjectWidth = 32;  // a container name: 32 hex digits

std::string padded(const std::string& text, size_t width) {
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

}  // namespace

std::string describeError(unsigned long code) {
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08lX", code);
    const KnownError* known = findKnown(code);
    std::string text = systemMessage(code);
    if (text.empty()) text = known != nullptr ? known->text : "no description available";
    return std::string(hex) + " " + (known != nullptr ? std::string(known->name) + ": " : std::string()) + text;
}

void Report::heading(const std::string& text) {
    std::fprintf(out_, "\n-- %s --\n", text.c_str());
    std::fflush(out_);
}

void Report::line(const char* outcome, const std::string& step, const std::string& subject, const std::string& detail) {
    std::string text = std::string(outcome) + "  " + padded(step, kStepWidth) + " " +
                       padded(subject.empty() ? "-" : subject, kSubjectWidth);
    if (!detail.empty()) text += "  " + detail;
    std::fprintf(out_, "%s\n", text.c_str());
    std::fflush(out_);  // a report that stops half-way (a dialog left open) still shows how far it got
}

void Report::pass(const std::string& step, const std::string& subject, const std::string& detail) {
    ++passed_;
    line("PASS", step, subject, detail);
}

void Report::fail(const std::string& step, const std::string& subject, unsigned long code, const std::string& meaning) {
    ++failed_;
    std::string detail = "error " + describeError(code);
    if (!meaning.empty()) detail += " (" + meaning + ")";
    line("FAIL", step, subject, detail);
}

void Report::failCheck(const std::string& step, const std::string& subject, const std::string& what) {
    ++failed_;
    line("FAIL", step, subject, what);
}

void Report::skip(const std::string& step, const std::string& subject, const std::string& reason) {
    ++skipped_;
    line("SKIP", step, subject, reason);
}

void Report::summary() {
    std::fprintf(out_, "\nSUMMARY: %d passed, %d failed, %d skipped\n", passed_, failed_, skipped_);
    std::fflush(out_);
}

}  // namespace check
