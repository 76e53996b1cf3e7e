// Log records: the level filter, formatting, the hand-over to syslog, the
// shared configuration record and the library's one-time initialisation.
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stddef.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <type_traits>

#include "dbglog/internal.h"
#include "dbglog/zeb_sys.h"
#include "platform/lzeb_file.h"
#include "platform/securec.h"

static_assert(std::is_standard_layout_v<DbgUsrConfig>);
static_assert(sizeof(DbgUsrConfig) == 16);
static_assert(offsetof(DbgUsrConfig, magic) == 0);
static_assert(offsetof(DbgUsrConfig, defaultLevel) == 4);

extern "C" {
int iFd_log_level = -1;
int iFd_log_limit = -1;
DbgUsrConfig *g_pstUsrDbgConfig = nullptr;
const char *const g_aszLogLevelName[6] = {"", "CRI", "ERR", "WARN", "INFO", "DBG"};
}

namespace {

using dbglog::LoadField;
using dbglog::StoreField;

// Set once initialize_zeb_debug has run; a flag under a mutex rather than a
// pthread_once_t so that ForgetState can let the library start afresh.
std::atomic<bool> zeb_debug_is_initialized{false};
pthread_mutex_t g_initMutex = PTHREAD_MUTEX_INITIALIZER;
// Whether the shared record was mapped writable (only then may it be changed).
bool g_cfgWritable = false;
// Descriptor of the mapped shared record, kept open for the life of the process.
int g_cfgFd = -1;

constexpr size_t kProcessNameSize = 256;
char progress_name[kProcessNameSize];
// A name of up to 255 characters, ",", up to 10 digits and the terminator:
// sized so that the whole field always fits and the name is never cut.
char progress_name_with_pid[kProcessNameSize + 12];
// Both names are filled once; two threads logging at once must not write
// the buffers while another reads them.
pthread_once_t g_nameOnce = PTHREAD_ONCE_INIT;
pthread_once_t g_nameWithPidOnce = PTHREAD_ONCE_INIT;

constexpr size_t kMessageSize = 160;
constexpr size_t kFuncNameSize = 40;
constexpr uint32_t kFuncNameLimit = 33;
constexpr size_t kModuleNameSize = 16;
constexpr uint64_t kRecordIdBase = 0x15ULL << 44;

// System-log priority by level; -1: no output.
constexpr int kPriorityOfLevel[6] = {-1, LOG_EMERG, LOG_ERR, LOG_WARNING, LOG_NOTICE, LOG_DEBUG};

#define DBG_BANNER_PAD "                                "
#define DBG_BANNER_STARS "**************************************************************"
static_assert(sizeof(DBG_BANNER_PAD) - 1 == 32);
static_assert(sizeof(DBG_BANNER_STARS) - 1 == 62);
constexpr const char kBanner[] = DBG_BANNER_PAD DBG_BANNER_STARS
    "\n" DBG_BANNER_PAD
    "Can not open print level config file, log will not write/read to log file,gid=%d"
    "\n" DBG_BANNER_PAD DBG_BANNER_STARS "\n";

int OpenKernelFile(const char *productPath) {
    char path[PATH_MAX];
    if (zeb_sys_path(productPath, path, sizeof path) != 0) {
        return -1;
    }
    return zeb_sys()->kmodOpen(path, O_RDWR | O_CLOEXEC);
}

// A read-only mapping of a file shorter than the record would fault on the
// first read; a writable one is grown by LZEB_mmap.
bool HoldsWholeRecord(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(sizeof(DbgUsrConfig));
}

bool RecordIntact(const DbgUsrConfig *record) {
    const uint8_t level = LoadField(record->defaultLevel);
    return LoadField(record->magic) == DBG_CONFIG_MAGIC && level >= DBG_LEVEL_CRI &&
           level <= DBG_LEVEL_DBG;
}

// Said once, at initialisation, when a process that may not rebuild the
// shared record finds it unusable.
void ReportUnusableRecord(const char *what) {
    syslog(LOG_INFO, "/dev/shm/dbglog.cfg %s: the default level %d applies\n", what,
           DBG_FALLBACK_LEVEL);
}

// Maps the shared record. Group 0 rebuilds a short or damaged record; any
// other group goes on with the fallback level (dbg_default_level) and says so.
void MapSharedConfig(gid_t gid) {
    const bool owner = gid == 0;
    int fd = dbglog::OpenProductPath("/dev/shm/dbglog.cfg", owner ? (O_RDWR | O_CREAT) : O_RDONLY,
                                     owner ? 0664 : 0);
    if (fd < 0) {
        syslog(LOG_INFO, kBanner, static_cast<int>(gid));
        return;
    }
    if (!owner && !HoldsWholeRecord(fd)) {
        LZEB_close(fd);
        ReportUnusableRecord("is shorter than its 16-byte record");
        return;
    }
    void *map =
        LZEB_mmap(fd, owner ? (PROT_READ | PROT_WRITE) : PROT_READ, 0, sizeof(DbgUsrConfig));
    if (map == nullptr || map == MAP_FAILED) {
        LZEB_close(fd);
        ReportUnusableRecord("cannot be mapped");
        return;
    }
    auto *record = static_cast<DbgUsrConfig *>(map);
    if (!RecordIntact(record)) {
        if (owner) {
            DBG_SetDefaultCfg(record);
        } else {
            // Kept mapped: once group 0 rebuilds it, its level applies here too.
            ReportUnusableRecord("holds no valid record");
        }
    }
    g_cfgWritable = owner;
    g_cfgFd = fd;
    g_pstUsrDbgConfig = record;
}

// The kernel module's control files do not depend on the shared record: they
// are opened whatever became of it. The descriptors stay open for the life of
// the process.
void OpenKernelFiles() {
    iFd_log_level = OpenKernelFile("/proc/zeb/log_level");
    if (iFd_log_level < 0) {
        syslog(LOG_INFO, "open /proc/zeb/log_level fail\n");
    }
    iFd_log_limit = OpenKernelFile("/proc/zeb/mod_ring_buffer");
    if (iFd_log_limit < 0) {
        syslog(LOG_INFO, "open /proc/zeb/mod_ring_buffer fail\n");
    }
}

void FillProcessName() {
    __get_process_name(progress_name);
}

void FillProcessNameWithPid() {
    __get_process_name(progress_name_with_pid);
    size_t len = strnlen(progress_name_with_pid, kProcessNameSize - 1);
    size_t room = sizeof progress_name_with_pid - len;
    int rc =
        snprintf_s(progress_name_with_pid + len, room, room - 1, ",%d", static_cast<int>(getpid()));
    if (rc < 0) {
        syslog(LOG_ERR, "Execute snprintf_s failed, err is %d in %s func, %d line.\n", rc,
               "__get_process_info", 247);
        progress_name_with_pid[0] = '\0';
    }
}

void LogV(uint32_t moduleId, int32_t level, const char *function, int32_t line, uint32_t flags,
          const char *format, va_list args, int mode) {
    zeb_debug_module_init();
    PidRecord *record = search_pid_conf(moduleId);
    if (DBG_CheckArgs(record, moduleId, level) != 1) {
        return;
    }
    DBG_UpdateGidLimit(record);
    if (is_print_full(record) != 0) {
        return;
    }
    char funcBuffer[kFuncNameSize] = {};
    const char *func = DBG_GetTruncFuncName(function, funcBuffer, kFuncNameLimit);
    char message[kMessageSize] = {};
    int rc = vsnprintf_s(message, kMessageSize, kMessageSize - 1, format, args);
    if (rc < 0) {
        if (mode == 0) {
            syslog(LOG_INFO, "DBG_Log: vsnprintf_s fail, err is %d in %s func, %d line [%s,%d].\n",
                   rc, func, line, "DBG_Log", 1047);
        } else {
            syslog(LOG_INFO, "vsnprintf_s fail, err is %d in %s func, %d line [%s,%d].\n", rc, func,
                   line, "LZEB_log", 1119);
        }
        // A text that was only too long keeps its first 159 characters.
        if (message[0] == '\0') {
            return;
        }
    }
    message[kMessageSize - 1] = '\0';
    uint64_t recordId = kRecordIdBase | static_cast<uint32_t>(moduleId << 16) | (flags & 0xFFFFu);
    __output_log(moduleId, level, func, line, recordId, message, mode, record);
}

}  // namespace

namespace dbglog {

int OpenProductPath(const char *productPath, int flags, uint32_t mode) {
    char path[PATH_MAX];
    if (zeb_sys_path(productPath, path, sizeof path) != 0) {
        return -1;
    }
    return LZEB_open(path, flags, mode);
}

void ForgetState() {
    MutexGuard guard(&g_initMutex);
    if (g_pstUsrDbgConfig != nullptr) {
        LZEB_munmap(g_pstUsrDbgConfig);
        g_pstUsrDbgConfig = nullptr;
    }
    for (int *fd : {&g_cfgFd, &iFd_log_level, &iFd_log_limit}) {
        if (*fd >= 0) {
            LZEB_close(*fd);
            *fd = -1;
        }
    }
    g_cfgWritable = false;
    ForgetPidTable();  // first: its records point into the group table
    ForgetGidTable();
    zeb_debug_is_initialized.store(false, std::memory_order_release);
}

}  // namespace dbglog

extern "C" {

void initialize_zeb_debug(void) {
    gid_t gid = zeb_sys()->processGid();
    load_gid_conf();
    load_pid_conf();
    MapSharedConfig(gid);
    OpenKernelFiles();
}

void zeb_debug_module_init(void) {
    if (zeb_debug_is_initialized.load(std::memory_order_acquire)) {
        return;
    }
    dbglog::MutexGuard guard(&g_initMutex);
    if (!zeb_debug_is_initialized.load(std::memory_order_relaxed)) {
        initialize_zeb_debug();
        zeb_debug_is_initialized.store(true, std::memory_order_release);
    }
}

uint8_t dbg_default_level(void) {
    // Without a usable shared record the banner or the initialisation has
    // said so; INFO (the level a fresh record gets) still lets every error of
    // the verifier through instead of silently dropping it. The record is
    // checked on every read: another process may damage or repair it.
    DbgUsrConfig *cfg = g_pstUsrDbgConfig;
    return cfg != nullptr && RecordIntact(cfg) ? LoadField(cfg->defaultLevel) : DBG_FALLBACK_LEVEL;
}

void DBG_SetDefaultCfg(DbgUsrConfig *record) {
    if (record == nullptr) {
        return;
    }
    // Only the magic and the level are ours; bytes 8..15 belong to others.
    int rc = memset_s(record, sizeof(DbgUsrConfig), 0, 8);
    if (rc != 0) {
        syslog(LOG_ERR, "Execute memset_s failed, err is %d in %s func, %d line.\n", rc,
               "DBG_SetDefaultCfg", 403);
        return;
    }
    StoreField(record->defaultLevel, static_cast<uint8_t>(DBG_LEVEL_INFO));
    StoreField(record->magic, DBG_CONFIG_MAGIC);
}

int DBG_SetDefLogLevel(uint8_t level) {
    zeb_debug_module_init();
    gid_t gid = zeb_sys()->processGid();
    if (level == 0 || level > DBG_LEVEL_DBG || gid != 0) {
        syslog(LOG_INFO, "DBG_SetLogLevel error,v_iLogLevel (%d) gid (%d).\n", level,
               static_cast<int>(gid));
        return 0;
    }
    if (g_pstUsrDbgConfig == nullptr || !g_cfgWritable) {
        syslog(LOG_INFO, "Log Cfg file not opened.\n");
        return 0;
    }
    StoreField(g_pstUsrDbgConfig->defaultLevel, level);
    return 1;
}

DbgUsrConfig *DBG_GetLogConfig(void) {
    zeb_debug_module_init();
    return g_pstUsrDbgConfig;
}

const char *DBG_GetLevelName(uint8_t level) {
    zeb_debug_module_init();
    if (level >= DBG_LEVEL_CRI && level <= DBG_LEVEL_DBG) {
        return g_aszLogLevelName[level];
    }
    return "Default";
}

int DBG_CheckArgs(PidRecord *record, uint32_t moduleId, int32_t level) {
    if (level < 0 || level > DBG_LEVEL_DBG) {
        return 0;
    }
    auto effective = static_cast<uint8_t>(DBG_GetPidLevel(moduleId));
    if (record != nullptr) {
        StoreField(record->level, effective);
    }
    if (effective == 0) {
        effective = dbg_default_level();
    }
    return level <= effective ? 1 : 0;
}

const char *DBG_GetTruncFuncName(const char *name, char *buffer, uint32_t limit) {
    if (name == nullptr) {
        return "";
    }
    if (buffer == nullptr || limit < 5 || strnlen(name, limit) < limit) {
        return name;
    }
    int rc = strncpy_s(buffer, limit - 3, name, limit - 4);
    if (rc != 0) {
        syslog(LOG_ERR, "Execute strncpy_s failed, err is %d in %s func, %d line.\n", rc,
               "DBG_GetTruncFuncName", 452);
        return name;
    }
    buffer[limit - 4] = '.';
    buffer[limit - 3] = '.';
    buffer[limit - 2] = name[strlen(name) - 1];
    buffer[limit - 1] = '\0';
    return buffer;
}

void __get_process_name(char *buffer) {
    if (buffer == nullptr) {
        return;
    }
    const int pid = static_cast<int>(getpid());
    char exePath[18];
    int rc = snprintf_s(exePath, sizeof exePath, sizeof exePath - 1, "/proc/%d/exe", pid);
    if (rc < 0) {
        syslog(LOG_ERR, "Execute snprintf_s failed, err is %d in %s func, %d line.\n", rc,
               "__get_process_name", 188);
        return;
    }
    char target[kProcessNameSize] = {};
    ssize_t n = readlink(exePath, target, sizeof target);
    if (n < 0 || n >= static_cast<ssize_t>(sizeof target)) {
        rc = snprintf_s(buffer, 10, 9, "<%d>", pid);
        if (rc < 0) {
            syslog(LOG_ERR, "Execute snprintf_s failed, err is %d in %s func, %d line.\n", rc,
                   "__get_process_name", 200);
        }
        return;
    }
    const char *slash = strrchr(target, '/');
    const char *base = slash != nullptr ? slash + 1 : target;
    rc = strncpy_s(buffer, kProcessNameSize, base, kProcessNameSize - 1);
    if (rc != 0) {
        syslog(LOG_ERR, "Execute strncpy_s failed, err is %d in %s func, %d line.\n", rc,
               "__get_process_name", 211);
        return;
    }
    buffer[kProcessNameSize - 1] = '\0';
    buffer[strnlen(base, kProcessNameSize - 1)] = '\0';
}

const char *__get_process_info(int mode) {
    if (mode == 0) {
        pthread_once(&g_nameOnce, FillProcessName);
        return progress_name;
    }
    if (mode == 1) {
        pthread_once(&g_nameWithPidOnce, FillProcessNameWithPid);
        if (progress_name_with_pid[0] != '\0') {
            return progress_name_with_pid;
        }
        pthread_once(&g_nameOnce, FillProcessName);
    }
    return progress_name;
}

void __output_log(uint32_t moduleId, int32_t level, const char *function, int32_t line,
                  uint64_t recordId, const char *message, int processMode, PidRecord *record) {
    if (level < DBG_LEVEL_CRI || level > DBG_LEVEL_DBG) {
        return;
    }
    char recordName[DBG_PID_NAME_SIZE] = {};
    if (record != nullptr) {
        dbg_copy_pid_name(record, recordName);
    }
    char idName[kModuleNameSize] = {};
    const char *moduleName = recordName;
    if (recordName[0] == '\0') {
        int rc = snprintf_s(idName, sizeof idName, sizeof idName - 1, "<%u>", moduleId);
        if (rc < 0) {
            syslog(LOG_ERR, "Execute snprintf_s failed, err is %d in %s func, %d line [%s,%d].\n",
                   rc, function != nullptr ? function : "", line, "__output_log", 348);
        }
        moduleName = idName;
    }
    struct timespec now = {};
    if (zeb_sys()->monotonic(&now) != 0) {
        now = {};
    }
    syslog(kPriorityOfLevel[level], "[%5lu.%06lu][%lx][%s][%s][%s][%s,%d][%s]\n",
           static_cast<unsigned long>(now.tv_sec), static_cast<unsigned long>(now.tv_nsec / 1000),
           static_cast<unsigned long>(recordId), g_aszLogLevelName[level],
           message != nullptr ? message : "", moduleName, function != nullptr ? function : "", line,
           __get_process_info(processMode));
}

void DBG_Log(uint32_t moduleId, int32_t level, const char *function, int32_t line, uint32_t flags,
             const char *format, ...) {
    va_list args;
    va_start(args, format);
    LogV(moduleId, level, function, line, flags, format, args, 0);
    va_end(args);
}

void LZEB_log(uint32_t moduleId, int32_t level, const char *function, int32_t line, uint32_t flags,
              const char *format, ...) {
    va_list args;
    va_start(args, format);
    LogV(moduleId, level, function, line, flags, format, args, 1);
    va_end(args);
}

}  // extern "C"
