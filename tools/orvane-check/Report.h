// The report orvane-check prints: one line per step (PASS, FAIL or SKIP, the step, the
// container or key it concerns, and what was seen), section headings and a summary line.
#pragma once

#include <cstdio>
#include <string>

namespace check {

// An error code as a reader wants it: hex, the symbolic name when known, and the system's
// message text, with a built-in text for the codes whose messages Wine lacks.
//   "0x8009001D NTE_PROVIDER_DLL_FAIL: Provider DLL failed to initialize correctly."
std::string describeError(unsigned long code);

class Report {
public:
    explicit Report(std::FILE* out) : out_(out) {}

    void heading(const std::string& text);
    void pass(const std::string& step, const std::string& subject, const std::string& detail = "");
    // A call that failed with an error code; `meaning` says what this provider means by it.
    void fail(const std::string& step, const std::string& subject, unsigned long code, const std::string& meaning = "");
    // A check that failed without an error code (a mismatch, a malformed answer).
    void failCheck(const std::string& step, const std::string& subject, const std::string& what);
    void skip(const std::string& step, const std::string& subject, const std::string& reason);

    // "SUMMARY: 21 passed, 0 failed, 3 skipped"
    void summary();
    int failures() const { return failed_; }
    int exitCode() const { return failed_ == 0 ? 0 : 1; }

private:
    void line(const char* outcome, const std::string& step, const std::string& subject, const std::string& detail);

    std::FILE* out_;
    int passed_ = 0;
    int failed_ = 0;
    int skipped_ = 0;
};

}  // namespace check
