#pragma once

#define IDD_VERIFY_PIN 101
#define IDC_PIN_EDIT 1001
#ifndef IDC_STATIC
#define IDC_STATIC (-1)
#endif
