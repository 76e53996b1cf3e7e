// Test support: captures what the program hands to syslog.
//
// Linking syslog_capture.cpp into a test binary interposes syslog/vsyslog
// (and glibc's fortified variants), so every record the libraries write lands
// here instead of in the host's log. When VT_SYSLOG_FILE names a file, each
// record is also appended to it as "<priority>text" (used by subprocess tests).
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
