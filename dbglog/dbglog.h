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

// Module id of the verification tool and the CMS library.
#define DBG_MODULE_VERIFY_TOOL 1014

// First word of an initialised shared configuration record.
#define DBG_CONFIG_MAGIC 0x78ABC001u

// The shared configuration record "/dev/shm/dbglog.cfg" (16 bytes, host byte
// order), mapped by every process that links this library.
typedef struct DbgUsrConfig {
    uint32_t magic;        // DBG_CONFIG_MAGIC once initialised
    uint8_t defaultLevel;  // 1..5, applies where a module has no level of its own
    uint8_t reserved[11];  // left as found
} DbgUsrConfig;

// DBG_Log: writes one record at `level` for `moduleId` to the system log when
// the module's level lets it through and its group's budget is not spent.
// Only the low 16 bits of `flags` are kept.
void DBG_Log(uint32_t moduleId, int32_t level, const char *function, int32_t line, uint32_t flags,
             const char *format, ...) __attribute__((format(printf, 6, 7)));
// LZEB_log: as DBG_Log, with "process-name,pid" as the record's process field.
void LZEB_log(uint32_t moduleId, int32_t level, const char *function, int32_t line, uint32_t flags,
              const char *format, ...) __attribute__((format(printf, 6, 7)));

// DBG_SetDefLogLevel: 1 when `level` (1..5) became the shared default level;
// 0 when refused (bad level, process group not 0, no shared record).
int DBG_SetDefLogLevel(uint8_t level);
// DBG_GetLogConfig: the mapped shared record, or null when none could be mapped.
DbgUsrConfig *DBG_GetLogConfig(void);
// DBG_GetLevelName: "CRI".."DBG" for 1..5, "Default" otherwise; a static string.
const char *DBG_GetLevelName(uint8_t level);
// zeb_debug_module_init: initialises the library once per process.
void zeb_debug_module_init(void);

// Per-module levels and names (kernel module requests 801..805).
uint32_t DBG_GetPidLevel(uint32_t pid);
int DBG_SetPidLevel(uint32_t pid, uint8_t level);
// Fills `array` (capacity `count` elements, layout the kernel module's).
int DBG_GetAllPidLevel(void *array, uint32_t count);
uint32_t LZEB_get_num_of_pid(void);
int LZEB_save_log_level(void);
// DBG_GetPidName: the module's name, or "<id>" for a module without one, in a
// buffer of the calling thread's own that its next call overwrites.
const char *DBG_GetPidName(uint32_t pid);
void DBG_SetPidName(uint32_t pid, const char *name);

// Per-group rate limits.
int LZEB_reset_log_ratelimit(void);
int LZEB_loglimit_init(void);
int LZEB_set_log_ratelimit(uint32_t gid, uint32_t multiple);
int LZEB_save_log_ratelimit(void);
int LZEB_set_log_num_interval(uint32_t gid, uint32_t num, uint32_t interval);
int LZEB_get_log_num_interval(uint32_t gid, uint32_t *num, uint32_t *interval);

#ifdef __cplusplus
}
#endif

#endif  // DBGLOG_DBGLOG_H
