// Tagged memory allocation: plain malloc blocks, zero-filled through
// memset_s, no header and no accounting. Failures go to syslog at priority 6
// (LOG_INFO) directly, never through the logging library.
#include "platform/lzeb_mem.h"

#include <stdlib.h>
#include <syslog.h>

#include "platform/securec.h"

namespace {

// Type value LZEB_MallocSubStandard starts with (reported on failure) and the
// one LZEB_MallocSubProc hands out after a successful allocation.
constexpr uint32_t kTypeInitial = 1;
constexpr uint32_t kTypeAllocated = 5;

}  // namespace

extern "C" {

// LZEB_MallocSubStandard: a zero-filled block of `size` bytes owned by the
// caller (released with LZEB_FreeSub), or null. Size 0 or module id 0 gives
// null silently; other failures are reported once. `type` is not used.
void *LZEB_MallocSubStandard(uint32_t moduleId, uint32_t size, uint64_t type, const char *function,
                             uint32_t line) {
    (void)type;
    uint32_t allocType = kTypeInitial;
    if (size == 0 || moduleId == 0) {
        return nullptr;
    }
    void *block =
        LZEB_MallocSubProc(size, &allocType, 0, static_cast<int32_t>(moduleId), function, line);
    if (block == nullptr) {
        syslog(LOG_INFO, "Malloc memory fails. PID: (%d), size: (%d), type: (%d).\n",
               static_cast<int>(moduleId), static_cast<int>(size), static_cast<int>(allocType));
    }
    return block;
}

// LZEB_MallocSubProc: a zero-filled block or null; *typeOut becomes 5 on
// success only. A size above 0x7FFFFFFF is refused by memset_s, reported,
// and the block released. `reserved`, `function` and `line` are not used.
void *LZEB_MallocSubProc(uint32_t size, uint32_t *typeOut, uint64_t reserved, int32_t moduleId,
                         const char *function, uint32_t line) {
    (void)reserved;
    (void)function;
    (void)line;
    void *block = malloc(size);
    if (block == nullptr) {
        return nullptr;
    }
    if (memset_s(block, size, 0, size) != SEC_OK) {
        syslog(LOG_INFO,
               "Malloc memory fails due to memset_s failed. PID: (%d), size: (%d), type: (%d).\n",
               static_cast<int>(moduleId), static_cast<int>(size), static_cast<int>(kTypeInitial));
        free(block);
        return nullptr;
    }
    *typeOut = kTypeAllocated;
    return block;
}

// LZEB_FreeSub: releases a block of LZEB_MallocSubStandard; null is ignored.
void LZEB_FreeSub(void *ptr, const char *function, uint32_t line) {
    if (ptr == nullptr) {
        return;
    }
    LZEB_FreeSubProc(ptr, 0, function, line);
}

// LZEB_FreeSubProc: releases `ptr`; a null pointer is reported with the
// caller's function and line.
void LZEB_FreeSubProc(void *ptr, uint32_t moduleId, const char *function, uint32_t line) {
    if (ptr == nullptr) {
        syslog(LOG_INFO, "ptr  is null, function(%s) line(%u).[%s, %u]\n", function, line,
               "LZEB_FreeSubProc", 219U);
        return;
    }
    zeb_freesubproc(ptr, moduleId);
}

void zeb_freesubproc(void *ptr, uint32_t moduleId) {
    (void)moduleId;
    free(ptr);
}

// __zeb_zmalloc: a zero-filled block for the logging library's own records,
// released with free(); null on failure.
void *__zeb_zmalloc(uint64_t size) {
    void *block = malloc(size);
    if (block == nullptr) {
        return nullptr;
    }
    int ret = memset_s(block, size, 0, size);
    if (ret != SEC_OK) {
        syslog(LOG_INFO, "memset_s is failed, err is %d in %s func, %d line.\n", ret,
               "__zeb_zmalloc", 45);
        free(block);
        return nullptr;
    }
    return block;
}

}  // extern "C"
