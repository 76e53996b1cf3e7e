// Command execution: a shell command line or an argument vector run in a
// child process and waited for, plus two character-class checks for text
// that is about to be pasted into a command line.
#ifndef PLATFORM_LZEB_EXEC_H
#define PLATFORM_LZEB_EXEC_H

#ifdef __cplusplus
extern "C" {
#endif

// LZEB_Execute: -1 for a null command, else LZEB_system(command).
int LZEB_Execute(const char *command);

// LZEB_system: runs `command` with "/bin/sh -c" and returns the raw wait
// status (exit code c reads as c * 256; 127 * 256 when no shell could start),
// or -1 for a null command, a command that could run a second one (any of
// ; & | ( ) ` $ or a line feed, wherever it stands), or a failed fork or wait.
int LZEB_system(const char *command);

// __zeb_execv: runs argv[0] (a path, no PATH search) with the vector `argv`
// and returns the raw wait status, or -1 for a null vector or argv[0], or a
// failed fork or wait. Callers pass two further arguments; they are accepted
// for compatibility with existing call sites and never read.
int __zeb_execv(char *const argv[], ...);

// __zebusr_has_illegal_args: 1 when `text` holds a shell metacharacter
// (| ; & $ > < { } ( ) ` \ ' " [ ] ~ ? * ! or a line feed), else 0 (also for null).
int __zebusr_has_illegal_args(const char *text);

// __zebusr_has_illegal_ips: 1 when `text` holds anything but ASCII letters,
// digits, '.', '/' and ':', else 0 (also for null). `reserved` is ignored.
int __zebusr_has_illegal_ips(const void *reserved, const char *text);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_LZEB_EXEC_H
