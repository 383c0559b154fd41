// The diagnostic log: one file per process and day under %TEMP%\Kestrelon\<process>\,
// written at the level set by the registry value HKLM\Software\Kestrelon\Orvane\logLevel,
// which is watched for changes so logging can be switched while a host runs. The day's file
// stays open between lines.
//
// Some texts written here or shown to the user are misspelt on purpose: "Kidly" (the CSP's
// clock-mismatch message), "Crete hash algorithm", "defaukt", "Emport", "Contest", "exhange"
// (CSP log lines). They are spelt as the system must write them, since log readers and tests
// match them byte for byte: do not correct them.
#pragma once

#include <string>

class Utils {
public:
    enum Level { kException = 1, kError = 2, kDebug = 3 };

    // Progress lines ("DEBUG ::=>"): written only when logLevel is exactly 3.
    static void logMessage(std::string message);
    // Failure lines ("ERROR ::=>"): written unless logLevel is 0 or 1; also when it is unset.
    static void logError(std::string message);
    // Appends one line; never fails the caller and never throws.
    static void writeLine(int level, const std::string& message);

private:
    // Called with the log mutex held.
    static void appendLine(int level, const std::string& message);
};
