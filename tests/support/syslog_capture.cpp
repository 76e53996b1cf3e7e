#include "tests/support/syslog_capture.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <mutex>

namespace vt_test {
namespace {

std::mutex g_mutex;

std::vector<SyslogRecord> &Records() {
    static std::vector<SyslogRecord> records;
    return records;
}

void Capture(int priority, const char *format, va_list args) {
    char text[4096];
    if (vsnprintf(text, sizeof text, format, args) < 0) {
        text[0] = '\0';
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    Records().push_back({priority & LOG_PRIMASK, text});
    if (const char *path = getenv("VT_SYSLOG_FILE"); path != nullptr && *path != '\0') {
        if (FILE *f = fopen(path, "a"); f != nullptr) {
            size_t len = strlen(text);
            fprintf(f, "<%d>%s%s", priority & LOG_PRIMASK, text,
                    (len > 0 && text[len - 1] == '\n') ? "" : "\n");
            fclose(f);
        }
    }
}

}  // namespace

std::vector<SyslogRecord> CapturedSyslog() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return Records();
}

void ClearSyslog() {
    std::lock_guard<std::mutex> lock(g_mutex);
    Records().clear();
}

std::vector<std::string> CapturedSyslogTexts() {
    std::vector<std::string> texts;
    for (const auto &r : CapturedSyslog()) {
        texts.push_back(r.text);
    }
    return texts;
}

}  // namespace vt_test

// Interposed C library entry points.
extern "C" {

void vsyslog(int priority, const char *format, va_list args) {
    vt_test::Capture(priority, format, args);
}

void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vt_test::Capture(priority, format, args);
    va_end(args);
}

void __vsyslog_chk(int priority, int, const char *format, va_list args) {
    vt_test::Capture(priority, format, args);
}

void __syslog_chk(int priority, int, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vt_test::Capture(priority, format, args);
    va_end(args);
}

}  // extern "C"
