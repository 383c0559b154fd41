#include "token/PinDialog.h"

#include <windows.h>

#include <cstring>
#include <string>

#include "diagnostics/Log.h"
#include "resources/ResourceIds.h"

namespace orvane {
namespace {

// The Login button is usable for PINs of 4 to 63 characters.
bool acceptableLength(int length) { return static_cast<unsigned>(length - 4) < 60u; }

// The holder that showPinDialog hands over at WM_INITDIALOG.
SecretBytes* typedPinOf(HWND dialog) { return reinterpret_cast<SecretBytes*>(GetWindowLongPtrA(dialog, DWLP_USER)); }

INT_PTR CALLBACK pinDialogProcedure(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
    case WM_INITDIALOG:
        SetWindowLongPtrA(dialog, DWLP_USER, lParam);
        EnableWindow(GetDlgItem(dialog, IDOK), FALSE);
        return TRUE;
    case WM_COMMAND: {
        if (LOWORD(wParam) == IDC_PIN_EDIT) {
            if (HIWORD(wParam) != EN_CHANGE) return FALSE;
            int length = GetWindowTextLengthA(GetDlgItem(dialog, IDC_PIN_EDIT));
            EnableWindow(GetDlgItem(dialog, IDOK), acceptableLength(length) ? TRUE : FALSE);
            return TRUE;
        }
        SecretBytes* pin = typedPinOf(dialog);
        if (LOWORD(wParam) == IDOK && pin != nullptr) {
            char typed[256] = {};
            GetDlgItemTextA(dialog, IDC_PIN_EDIT, typed, sizeof typed);
            pin->assign(typed, std::strlen(typed));
            SecureZeroMemory(typed, sizeof typed);
        } else if (LOWORD(wParam) == IDCANCEL && pin != nullptr) {
            pin->clear();
        }
        EndDialog(dialog, 0);
        return TRUE;
    }
    case WM_CLOSE:
        EndDialog(dialog, 0);
        return TRUE;
    default:
        return FALSE;
    }
}

HINSTANCE thisModule() {
    HMODULE module = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCSTR>(&pinDialogProcedure), &module);
    return module;
}

}  // namespace

SecretBytes showPinDialog() {
    SecretBytes pin;
    Utils::logMessage("Password dialog show window");
    Utils::logMessage("Password dialog show window before");
    INT_PTR result = DialogBoxParamA(thisModule(), MAKEINTRESOURCEA(IDD_VERIFY_PIN), nullptr, pinDialogProcedure,
                                     reinterpret_cast<LPARAM>(&pin));
    Utils::logMessage("Password dialog show window after");
    if (result != 0) Utils::logError("Password dialog creation failed : " + std::to_string(result));
    return pin;
}

}  // namespace orvane
