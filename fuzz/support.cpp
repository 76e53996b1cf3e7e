// Linked into every harness: the libraries' log records are dropped, so that
// millions of rejected inputs neither slow the run down nor fill the host's
// system log. Their formatting still runs, which is what matters here.
#include <stdarg.h>
#include <stdio.h>

extern "C" {

void vsyslog(int, const char *format, va_list args) {
    char text[512];
    vsnprintf(text, sizeof text, format, args);
}

void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

void __vsyslog_chk(int priority, int, const char *format, va_list args) {
    vsyslog(priority, format, args);
}

void __syslog_chk(int priority, int, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

}  // extern "C"
