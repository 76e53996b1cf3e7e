// Debug-logging library: per-module levels, per-group rate limits, syslog records.
#ifndef DBGLOG_DBGLOG_H
#define DBGLOG_DBGLOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Log levels; a lower number is more severe.
#define DBG_LEVEL_CRI 1
#define DBG_LEVEL_ERR 2
#define DBG_LEVEL_WARN 3
#define DBG_LEVEL_INFO 4
#define DBG_LEVEL_DBG 5

void DBG_Log(uint32_t moduleId, int32_t level, const char *function, int32_t line, uint32_t flags,
             const char *format, ...) __attribute__((format(printf, 6, 7)));
void LZEB_log(uint32_t moduleId, int32_t level, const char *function, int32_t line, uint32_t flags,
              const char *format, ...) __attribute__((format(printf, 6, 7)));

#ifdef __cplusplus
}
#endif

#endif  // DBGLOG_DBGLOG_H
