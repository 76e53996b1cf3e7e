// Linked into every harness: log records are formatted, then dropped, and the
// logging library's paths lie under a scratch folder removed at exit.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "dbglog/zeb_sys.h"

namespace {

std::string g_root;
ZebSys g_sys;

void RemoveScratchRoot() {
    std::error_code ignored;
    std::filesystem::remove_all(g_root, ignored);
}

__attribute__((constructor)) void InstallScratchRoot() {
    char pattern[] = "/tmp/vt_fuzz_XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    g_root = pattern;
    std::error_code ignored;
    std::filesystem::create_directories(g_root + "/dev/shm", ignored);
    g_sys = *zeb_sys();
    g_sys.root = g_root.c_str();
    zeb_sys_install(&g_sys);
    atexit(RemoveScratchRoot);
}

}  // namespace

// Without _FORTIFY_SOURCE the libraries call plain syslog.
extern "C" void syslog(int, const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
}
