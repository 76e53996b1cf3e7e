// Command execution through vfork: the child does nothing but exec or _exit,
// so it never touches the parent's heap, locks or stdio buffers it shares.
#include "platform/lzeb_exec.h"

#include <errno.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string_view>

namespace {

constexpr int kExecFailed = 127;  // the shell's own code for "could not run"

// Raw status of `child`, or -1; a signal arriving during the wait is not a failure.
int WaitForChild(pid_t child) {
    int status = 0;
    for (;;) {
        if (waitpid(child, &status, 0) == child) {
            return status;
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

// Every character with which the shell starts another command: the command
// separators and pipes (";", "&", "|", line feed), a subshell, and command or
// parameter substitution ("`", "$"). Redirections stay allowed: the
// libraries' own commands send their errors elsewhere with "2>".
constexpr std::string_view kChaining = ";&|\n()`$";

bool IsChained(std::string_view command) {
    return command.find_first_of(kChaining) != std::string_view::npos;
}

constexpr std::string_view kShellMeta = "|;&$><{}()`\\'\"[]~?*!\n";

constexpr bool IsAddressChar(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
           c == '/' || c == ':';
}

}  // namespace

extern "C" {

int LZEB_Execute(const char *command) {
    if (command == nullptr) {
        return -1;
    }
    return LZEB_system(command);
}

int LZEB_system(const char *command) {
    if (command == nullptr || IsChained(command)) {
        return -1;
    }
    pid_t child = vfork();
    if (child == 0) {
        execl("/bin/sh", "sh", "-c", command, static_cast<char *>(nullptr));
        _exit(kExecFailed);
    }
    if (child < 0) {
        return -1;
    }
    return WaitForChild(child);
}

// The two trailing arguments are never read: va_start is not needed for that.
int __zeb_execv(char *const argv[], ...) {
    if (argv == nullptr || argv[0] == nullptr) {
        return -1;
    }
    pid_t child = vfork();
    if (child == 0) {
        execv(argv[0], argv);
        _exit(kExecFailed);
    }
    if (child < 0) {
        return -1;
    }
    return WaitForChild(child);
}

int __zebusr_has_illegal_args(const char *text) {
    if (text == nullptr) {
        return 0;
    }
    return std::string_view(text).find_first_of(kShellMeta) == std::string_view::npos ? 0 : 1;
}

int __zebusr_has_illegal_ips(const void * /*reserved*/, const char *text) {
    if (text == nullptr) {
        return 0;
    }
    for (char c : std::string_view(text)) {
        if (!IsAddressChar(c)) {
            return 1;
        }
    }
    return 0;
}

}  // extern "C"
