// Test support: syslog/vsyslog and glibc's fortified variants are interposed,
// so every record lands here instead of in the host's log; with VT_SYSLOG_FILE
// set it is also appended there as "<priority>text" (for subprocess tests).
#ifndef TESTS_SUPPORT_SYSLOG_CAPTURE_H
#define TESTS_SUPPORT_SYSLOG_CAPTURE_H

#include <string>
#include <vector>

namespace vt_test {

struct SyslogRecord {
    int priority;
    std::string text;
};

std::vector<SyslogRecord> CapturedSyslog();
void ClearSyslog();
// Texts only, in order, for whole-record comparisons.
std::vector<std::string> CapturedSyslogTexts();

}  // namespace vt_test

#endif  // TESTS_SUPPORT_SYSLOG_CAPTURE_H
