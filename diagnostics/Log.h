// The diagnostic log: one file per process and day under %TEMP%\Kestrelon\<process>\,
// written at the level set by the registry value HKLM\Software\Kestrelon\Orvane\logLevel,
// so logging can be switched while a host runs. A thread started by the first line waits for
// the registry's change notifications and reads the value again at each, so a change applies
// to the lines after it within a moment and a line costs no registry read or wait. The day's
// file stays open between lines.
//
// Under a shared temporary folder (C:\Windows\Temp for services and for registration run as
// SYSTEM) anyone may have made "Kestrelon" or the process's folder first. A folder or file that
// is a reparse point, a file with a second name (hard link), or either whose owner is neither
// the writing user nor SYSTEM nor Administrators is refused and the line is lost; what the
// writer makes it makes with its own access list.
//
// Some texts written here or shown to the user are misspelt on purpose: "Kidly" (the CSP's
// clock-mismatch message), "Crete hash algorithm", "defaukt", "Emport", "Contest", "exhange"
// (CSP log lines). They are spelt as the system must write them, since log readers and tests
// match them byte for byte: do not correct them.
#pragma once

#include <cstdint>
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

    // The level lines are decided by now: false when logLevel is unset or unreadable.
    static bool currentLevel(unsigned long& level);
    // From DllMain's process detach: later lines read logLevel themselves, as no thread may
    // be started under the loader lock.
    static void beforeModuleUnload();

    // A day's file stops growing at this size: one last line says so, then nothing more that day.
    static constexpr std::uint64_t kDayFileLimit = 64ull * 1024 * 1024;
    // Closes the day's file so that the next line finds and checks its place again, with this
    // size limit (tests lower it).
    static void reopenDayFile(std::uint64_t sizeLimit = kDayFileLimit);

private:
    // Called with the log mutex held.
    static void appendLine(int level, const std::string& message);
};

namespace orvane {

// A name a caller handed in (container, key or property), as it goes into a line: CR and LF
// become \r and \n, the other bytes below 0x20 and 0x7F become \xNN, so that the name cannot
// make a line of its own. Every other byte stays as it is.
std::string escapeControlCharacters(const std::string& text);

}  // namespace orvane
