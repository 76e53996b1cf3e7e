// What the logging library's files share with each other: the per-module and
// per-group records, the kernel module's request records, the library's
// process-wide state and its internal operations.
#ifndef DBGLOG_INTERNAL_H
#define DBGLOG_INTERNAL_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "dbglog/dbglog.h"
#include "platform/rbtree.h"

#ifdef __cplusplus
extern "C" {
#endif

// Rate-limit state of one message group. Counters and times belong to `lock`;
// the limits (interval, baseNum, num, burst, resume) may be changed by other
// threads at any time and are read and written atomically.
typedef struct RateLimitState {
    pthread_spinlock_t lock;
    uint32_t interval;  // days per period; 0 switches limiting off
    uint32_t baseNum;   // quota from the system and per-package files
    uint32_t num;       // quota in force per period
    uint32_t printed;
    uint32_t missed;
    uint32_t burst;
    uint32_t resume;  // seconds until a spent burst refills
    uint32_t burstLeft;
    struct timespec burstBegin;  // seconds 0: no burst running
    struct timespec begin;       // seconds 0: period not started
    struct timespec lastPrint;
} RateLimitState;

typedef struct GidRecord {
    struct rb_node node;
    uint32_t gid;
    RateLimitState state;
} GidRecord;

#define DBG_PID_NAME_SIZE 32

typedef struct PidRecord {
    struct rb_node node;
    uint32_t pid;
    uint8_t level;     // mirror of the kernel module's level; 0 unknown
    GidRecord *group;  // null when unbound
    char name[DBG_PID_NAME_SIZE];
} PidRecord;

// Request 806 on "/proc/zeb/mod_ring_buffer".
typedef struct GidLimitRequest {
    uint32_t gid;
    uint32_t num;
    uint32_t interval;
    uint32_t burst;
    uint32_t resume;
} GidLimitRequest;

// Requests 801..805 on "/proc/zeb/log_level".
typedef struct LogLevelRequest {
    uint32_t pid;
    uint8_t level;
    uint8_t pad1[3];
    uint32_t count;
    uint8_t pad2[4];
    uint64_t array;  // address of the caller's array
} LogLevelRequest;

#define ZEB_IOCTL_GET_LEVEL 801u
#define ZEB_IOCTL_SET_LEVEL 802u
#define ZEB_IOCTL_GET_PID_NUM 803u
#define ZEB_IOCTL_GET_ALL_LEVELS 804u
#define ZEB_IOCTL_SAVE_LEVELS 805u
#define ZEB_IOCTL_GET_GID_LIMIT 806u

// Level used when neither the kernel module nor the shared record gives one.
#define DBG_FALLBACK_LEVEL DBG_LEVEL_INFO

// Process-wide state (log.cpp).
extern int iFd_log_level;
extern int iFd_log_limit;
extern DbgUsrConfig *g_pstUsrDbgConfig;
extern const char *const g_aszLogLevelName[6];

// Tables (pid_level.cpp, gid_limit.cpp).
extern struct rb_root pid_tree_root;
extern pthread_spinlock_t pid_tree_lock;
extern pthread_mutex_t pid_tree_mutex;
extern struct rb_root gid_tree_root;
extern pthread_spinlock_t gid_tree_lock;
extern pthread_mutex_t gid_tree_mutex;

// Record output (log.cpp).
void initialize_zeb_debug(void);
int DBG_CheckArgs(PidRecord *record, uint32_t moduleId, int32_t level);
void __output_log(uint32_t moduleId, int32_t level, const char *function, int32_t line,
                  uint64_t recordId, const char *message, int processMode, PidRecord *record);
// Returns `name` itself, or `buffer` (at least `limit` bytes) holding the shortened name.
const char *DBG_GetTruncFuncName(const char *name, char *buffer, uint32_t limit);
// Fills a 256-byte buffer with the process's name.
void __get_process_name(char *buffer);
const char *__get_process_info(int mode);
void DBG_SetDefaultCfg(DbgUsrConfig *record);
// The shared default level, or DBG_FALLBACK_LEVEL without a shared record.
uint8_t dbg_default_level(void);

// Per-module table (pid_level.cpp).
int add_pid_conf(const PidRecord *tmpl);
PidRecord *search_pid_conf(uint32_t pid);
void replace_or_add_pid(const PidRecord *tmpl, uint32_t gid);
void load_pid_conf(void);
void read_pid_conf(const char *path);
void read_pid_conf_filename(const char *name);
void __load_pid_conf(void);
int read_pid_conf_line(char *line);
void read_log_level_conf(const char *path);
int read_log_level_conf_line(char *line);
int save_pid_log_level(void);
// Copies the record's name (always terminated) into a 32-byte buffer.
void dbg_copy_pid_name(const PidRecord *record, char *out);

// Per-group table and limiter (gid_limit.cpp).
int add_gid_conf(uint32_t gid);
GidRecord *search_gid_conf(uint32_t gid);
int replace_or_add_gid(uint32_t gid, uint32_t num, uint32_t interval, uint32_t burst,
                       uint32_t resume, int32_t local);
int read_gid_conf_line(char *line, uint32_t local);
void read_gid_conf(const char *path);
void read_gid_conf_filename(const char *name);
void __load_gid_conf(void);
void load_gid_conf(void);
void DBG_UpdateGidLimit(PidRecord *record);
int is_print_full(PidRecord *record);
int ___ratelimit3(RateLimitState *state, const char *name);

#ifdef __cplusplus
}  // extern "C"

#include <errno.h>

#include <atomic>

// Operations that fail with a negative errno value return -EINVAL or
// -ENOMEM, whose numbers (-22, -12) the device's callers know.
static_assert(EINVAL == 22 && ENOMEM == 12);

namespace dbglog {

// Fields that other threads may change without the table's or record's lock.
template <typename T>
inline T LoadField(T &field) {
    return std::atomic_ref<T>(field).load(std::memory_order_acquire);
}
template <typename T>
inline void StoreField(T &field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

// Holds a spin lock for one scope.
class SpinGuard {
  public:
    explicit SpinGuard(pthread_spinlock_t *lock) : lock_(lock) { pthread_spin_lock(lock_); }
    ~SpinGuard() { pthread_spin_unlock(lock_); }
    SpinGuard(const SpinGuard &) = delete;
    SpinGuard &operator=(const SpinGuard &) = delete;

  private:
    pthread_spinlock_t *lock_;
};

// Holds a mutex for one scope.
class MutexGuard {
  public:
    explicit MutexGuard(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~MutexGuard() { pthread_mutex_unlock(mutex_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

  private:
    pthread_mutex_t *mutex_;
};

// Returns the library to where it was before its first call: both tables
// emptied, the shared record unmapped, every descriptor closed; the next
// public call initialises it again. Only while no other thread is inside the
// library (zeb_sys_install calls it).
void ForgetState();
// Free every record of one table (pid_level.cpp, gid_limit.cpp).
void ForgetPidTable();
void ForgetGidTable();

// Opens a product path (with the seam's root) through LZEB_open; -1 when the
// prefixed path does not fit.
int OpenProductPath(const char *productPath, int flags, uint32_t mode);

// Configuration files (conf_file.cpp).
constexpr size_t kConfLineSize = 256;
constexpr char kPidDir[] = "/etc/zeb/pid/";

// A line that is empty or holds "#" is skipped.
bool IsSkippedLine(const char *line);
void CommasToBlanks(char *line);

// Reads the "key=value" fields of one configuration line strictly: a read
// either succeeds and moves past what it read, or fails and leaves the
// cursor where it was. What sscanf would let through (a sign, blanks before
// a number, a number that wraps, junk behind it, a cut name) fails here.
class LineCursor {
  public:
    explicit LineCursor(const char *line) : p_(line) {}
    // "key=" and 1..10 decimal digits whose value fits 32 bits.
    bool Number(const char *key, uint32_t *value);
    // "key=" and 1..size-1 characters up to the next blank or the end.
    bool Word(const char *key, char *out, size_t size);
    // Exactly the character `c`.
    bool Char(char c);
    // One or more blanks or tabs.
    bool Blanks();
    // Nothing but white space remains.
    bool AtEnd() const;

  private:
    // The position behind "key=", or null when the line does not go on so.
    const char *AfterKey(const char *key) const;
    const char *p_;
};

// Feeds every line of a product-path file (at most 255 characters each) to
// `parse`; a file that cannot be opened is skipped. A line that `parse`
// rejects (non-zero) is reported as "<owner>: <path> <parserName> fail, (<line>)".
using LineParser = int (*)(char *line, uint32_t arg);
void ReadConfFile(const char *productPath, LineParser parse, uint32_t arg, const char *owner,
                  const char *parserName);

// Calls `perName` for every entry of "/etc/zeb/pid/" while holding `mutex`;
// false when the directory cannot be opened.
bool ScanPidDirectory(pthread_mutex_t *mutex, void (*perName)(const char *name), const char *owner);

// Writes the lines that `nextLine` formats (>0: length, 0: end, <0: format
// failure) to "<productPath>.new" and moves it over productPath with the
// shell. Returns the shell's wait status, the negative open result, the short
// write count, or -1. `formatLine`/`commandLine` number the two formatting
// failures in their reports.
using LineSource = int (*)(void *ctx, char *buffer, size_t size);
int SaveConfFile(const char *productPath, LineSource nextLine, void *ctx, const char *owner,
                 int formatLine, int commandLine);

}  // namespace dbglog

#endif  // __cplusplus

#endif  // DBGLOG_INTERNAL_H
