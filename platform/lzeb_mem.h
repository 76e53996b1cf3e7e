// Tagged heap allocation: plain malloc blocks, always zero-filled, with the
// owner's module id and the caller's name and line carried for the failure
// report. Failures are reported to syslog directly, never through the logger.
#ifndef PLATFORM_LZEB_MEM_H
#define PLATFORM_LZEB_MEM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Zero-filled block of `size` bytes, or null (silently for size 0 or module 0).
void *LZEB_MallocSubStandard(uint32_t moduleId, uint32_t size, uint64_t type, const char *function,
                             uint32_t line);
// Zero-filled block or null; writes 5 to *typeOut on success only.
void *LZEB_MallocSubProc(uint32_t size, uint32_t *typeOut, uint64_t reserved, int32_t moduleId,
                         const char *function, uint32_t line);
// Null is ignored silently.
void LZEB_FreeSub(void *ptr, const char *function, uint32_t line);
// Null is reported to syslog.
void LZEB_FreeSubProc(void *ptr, uint32_t moduleId, const char *function, uint32_t line);
void zeb_freesubproc(void *ptr, uint32_t moduleId);
// The logging library's own records; released with free().
void *__zeb_zmalloc(uint64_t size);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_LZEB_MEM_H
