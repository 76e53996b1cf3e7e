// The one seam between the logging library and the device it runs on.
//
// On the device every product path is used as it stands and the kernel
// module's control files are reached through open(2)/ioctl(2). Hosts without
// the module (developer machines, CI) install a stand-in before the first log
// call: a root directory that prefixes every product path, and handlers that
// answer the module's requests.
#ifndef DBGLOG_ZEB_SYS_H
#define DBGLOG_ZEB_SYS_H

#include <stddef.h>
#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZebSys {
    // Prefix of every product path ("/dev/shm/...", "/KELM/...", "/etc/zeb/...",
    // "/startup_disk/...", "/proc/zeb/..."); "" on the device. The string must
    // outlive the process's use of the library.
    const char *root;
    // Opens one of the kernel module's control files (path already prefixed).
    int (*kmodOpen)(const char *path, int flags);
    // One request to the kernel module on a descriptor from kmodOpen.
    int (*kmodIoctl)(int fd, unsigned long request, void *arg);
    // CLOCK_MONOTONIC, for record time stamps and rate-limit periods.
    int (*monotonic)(struct timespec *now);
    // The process's Unix group id (getgid); only group 0 may create or change
    // the shared configuration record.
    gid_t (*processGid)(void);
} ZebSys;

// The seam in force (the device's own unless one was installed).
const ZebSys *zeb_sys(void);
// Replaces the seam and returns the library to where it was before its first
// call (tables emptied, shared record unmapped, descriptors closed): the next
// public call initialises it afresh through the new seam. Only valid while no
// other thread is inside the library. Null restores the device's own. The
// record must outlive its use; members left null fall back to the device's own.
void zeb_sys_install(const ZebSys *sys);
// Writes root + productPath into out; 0, or -1 when it does not fit.
int zeb_sys_path(const char *productPath, char *out, size_t outSize);

#ifdef __cplusplus
}
#endif

#endif  // DBGLOG_ZEB_SYS_H
