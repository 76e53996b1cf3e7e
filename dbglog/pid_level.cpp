// Per-module table: display names, group bindings and level mirrors, its
// configuration files, and the kernel module's level requests.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <type_traits>

#include "dbglog/internal.h"
#include "dbglog/zeb_sys.h"
#include "platform/lzeb_file.h"
#include "platform/lzeb_mem.h"
#include "platform/securec.h"

static_assert(std::is_standard_layout_v<PidRecord>);
static_assert(offsetof(PidRecord, node) == 0);
static_assert(std::is_standard_layout_v<LogLevelRequest>);
static_assert(sizeof(LogLevelRequest) == 24);
static_assert(offsetof(LogLevelRequest, pid) == 0);
static_assert(offsetof(LogLevelRequest, level) == 4);
static_assert(offsetof(LogLevelRequest, count) == 8);
static_assert(offsetof(LogLevelRequest, array) == 16);

extern "C" {
struct rb_root pid_tree_root = RB_ROOT;
pthread_spinlock_t pid_tree_lock;
pthread_mutex_t pid_tree_mutex = PTHREAD_MUTEX_INITIALIZER;
}

namespace {

using dbglog::LoadField;
using dbglog::SpinGuard;
using dbglog::StoreField;

constexpr char kObsoleteFile[] = "/KELM/conf/pid_obsolete.conf";
constexpr char kGidOfPidFile[] = "/KELM/conf/gid_of_pid.conf";
constexpr char kLevelFile[] = "/startup_disk/conf/conf_local/pid_log_level.conf";

// Plain descent; the caller holds pid_tree_lock.
PidRecord *FindLocked(uint32_t pid) {
    struct rb_node *node = pid_tree_root.rb_node;
    while (node != nullptr) {
        PidRecord *record = rb_entry(node, PidRecord, node);
        if (pid < record->pid) {
            node = node->rb_left;
        } else if (pid > record->pid) {
            node = node->rb_right;
        } else {
            return record;
        }
    }
    return nullptr;
}

// The record after `prev` in id order (the first for null). Each step holds
// the lock on its own, so a walk never blocks insertions for long; records
// are never removed, so `prev` stays a valid starting point.
PidRecord *NextRecord(const PidRecord *prev) {
    SpinGuard guard(&pid_tree_lock);
    struct rb_node *node = prev == nullptr ? rb_first(&pid_tree_root) : rb_next(&prev->node);
    return rb_entry(node, PidRecord, node);
}

int OpenLevelFileAfresh() {
    char path[PATH_MAX];
    int fd = -1;
    if (zeb_sys_path("/proc/zeb/log_level", path, sizeof path) == 0) {
        fd = zeb_sys()->kmodOpen(path, O_RDWR | O_CLOEXEC);
    }
    if (fd < 0) {
        syslog(LOG_INFO, "open /proc/zeb/log_level fail\n");
    }
    return fd;
}

int ReadPidLine(char *line, uint32_t) {
    return read_pid_conf_line(line);
}
int ReadLevelLine(char *line, uint32_t) {
    return read_log_level_conf_line(line);
}

int NextLevelLine(void *ctx, char *buffer, size_t size) {
    auto **cursor = static_cast<PidRecord **>(ctx);
    *cursor = NextRecord(*cursor);
    if (*cursor == nullptr) {
        return 0;
    }
    int rc = snprintf_s(buffer, size, size - 1, "pid=%u,level=%u\n", (*cursor)->pid,
                        static_cast<unsigned>(LoadField((*cursor)->level)));
    return rc > 0 ? rc : -1;
}

}  // namespace

extern "C" {

// Lookups take the insertion lock: a descent racing a rebalancing insertion
// could otherwise follow a half-rotated link.
PidRecord *search_pid_conf(uint32_t pid) {
    SpinGuard guard(&pid_tree_lock);
    return FindLocked(pid);
}

// Names are written and read under the table's lock so that a reader never
// sees half of a name being replaced.
void dbg_copy_pid_name(const PidRecord *record, char *out) {
    SpinGuard guard(&pid_tree_lock);
    memcpy_s(out, DBG_PID_NAME_SIZE, record->name, DBG_PID_NAME_SIZE);
    out[DBG_PID_NAME_SIZE - 1] = '\0';
}

int add_pid_conf(const PidRecord *tmpl) {
    if (tmpl == nullptr) {
        return -EINVAL;
    }
    auto *record = static_cast<PidRecord *>(__zeb_zmalloc(sizeof(PidRecord)));
    if (record == nullptr) {
        syslog(LOG_INFO, "%s: __zeb_zmalloc fail\n", "add_pid_conf");
        return -ENOMEM;
    }
    int rc = memcpy_s(record, sizeof(PidRecord), tmpl, sizeof(PidRecord));
    if (rc != 0) {
        syslog(LOG_INFO, "memcpy_s fail, err is %d in %s func, %d line.\n", rc, "add_pid_conf", 68);
        free(record);
        return -1;
    }
    record->name[DBG_PID_NAME_SIZE - 1] = '\0';
    bool exists = false;
    {
        SpinGuard guard(&pid_tree_lock);
        struct rb_node **link = &pid_tree_root.rb_node;
        struct rb_node *parent = nullptr;
        while (*link != nullptr && !exists) {
            parent = *link;
            const PidRecord *here = rb_entry(parent, PidRecord, node);
            if (record->pid < here->pid) {
                link = &parent->rb_left;
            } else if (record->pid > here->pid) {
                link = &parent->rb_right;
            } else {
                exists = true;
            }
        }
        if (!exists) {
            rb_link_node(&record->node, parent, link);
            rb_insert_color(&record->node, &pid_tree_root);
        }
    }
    if (exists) {
        free(record);  // outside the spin lock: free may take the allocator's lock
        return -EINVAL;
    }
    return 0;
}

void replace_or_add_pid(const PidRecord *tmpl, uint32_t gid) {
    if (tmpl == nullptr) {
        return;
    }
    PidRecord *record = search_pid_conf(tmpl->pid);
    if (record == nullptr) {
        add_pid_conf(tmpl);
        record = search_pid_conf(tmpl->pid);
    }
    if (record == nullptr) {
        syslog(LOG_INFO, "%s: pid tree error\n", "replace_or_add_pid");
        return;
    }
    if (gid == 0) {
        return;
    }
    GidRecord *group = search_gid_conf(gid);
    if (group == nullptr) {
        add_gid_conf(gid);
        group = search_gid_conf(gid);
    }
    if (group != nullptr) {
        StoreField(record->group, group);
    }
}

// "pid=%u pid_name=%s gid=%u", "pid=%u pid_name=%s" or "pid=%u gid=%u", with
// commas read as blanks. A name longer than 31 characters, a number that does
// not fit 32 bits or anything else malformed stores nothing (-EINVAL), so the
// module keeps its name and group; the file reader reports the line.
int read_pid_conf_line(char *line) {
    if (dbglog::IsSkippedLine(line)) {
        return 0;
    }
    dbglog::CommasToBlanks(line);
    PidRecord tmpl = {};
    uint32_t gid = 0;
    dbglog::LineCursor c(line);
    bool ok = c.Number("pid", &tmpl.pid) && c.Blanks();
    if (ok && c.Word("pid_name", tmpl.name, sizeof tmpl.name)) {
        // A name without a group, or a name and a group other than 0.
        ok = c.AtEnd() || (c.Blanks() && c.Number("gid", &gid) && gid != 0 && c.AtEnd());
    } else {
        ok = ok && c.Number("gid", &gid) && c.AtEnd();
    }
    if (!ok || tmpl.pid == 0) {
        return -EINVAL;
    }
    replace_or_add_pid(&tmpl, gid);
    return 0;
}

// "pid=%u level=%u" (commas read as blanks) with a level of 0 (unknown) to 5.
int read_log_level_conf_line(char *line) {
    if (dbglog::IsSkippedLine(line)) {
        return 0;
    }
    dbglog::CommasToBlanks(line);
    uint32_t pid = 0;
    uint32_t level = 0;
    dbglog::LineCursor c(line);
    if (!(c.Number("pid", &pid) && c.Blanks() && c.Number("level", &level) && c.AtEnd()) ||
        pid == 0 || level > DBG_LEVEL_DBG) {
        return -EINVAL;
    }
    const auto byte = static_cast<uint8_t>(level);
    if (PidRecord *record = search_pid_conf(pid); record != nullptr) {
        StoreField(record->level, byte);
        return 0;
    }
    PidRecord tmpl = {};
    tmpl.pid = pid;
    tmpl.level = byte;
    add_pid_conf(&tmpl);
    return 0;
}

void read_pid_conf(const char *path) {
    dbglog::ReadConfFile(path, ReadPidLine, 0, "read_pid_conf", "read_pid_conf_line");
}

void read_log_level_conf(const char *path) {
    dbglog::ReadConfFile(path, ReadLevelLine, 0, "read_log_level_conf", "read_pid_conf_line");
}

void read_pid_conf_filename(const char *name) {
    if (name == nullptr || strlen(name) <= 3 || strncmp(name, "pid_", 4) != 0) {
        return;
    }
    char path[dbglog::kConfLineSize];
    int rc = snprintf_s(path, sizeof path, sizeof path - 1, "/etc/zeb/pid/%s", name);
    if (rc < 0) {
        syslog(LOG_INFO, "snprintf_s fail, err is %d in %s func, %d line.\n", rc,
               "read_pid_conf_filename", 371);
        return;
    }
    read_pid_conf(path);
}

void __load_pid_conf(void) {
    if (!dbglog::ScanPidDirectory(&pid_tree_mutex, read_pid_conf_filename, "__load_pid_conf")) {
        return;
    }
    // After the mutex is released: the level lines insert under the spin lock only.
    read_log_level_conf(kLevelFile);
}

void load_pid_conf(void) {
    pthread_spin_init(&pid_tree_lock, PTHREAD_PROCESS_PRIVATE);
    read_pid_conf(kObsoleteFile);
    read_pid_conf(kGidOfPidFile);
    __load_pid_conf();
}

}  // extern "C"

namespace dbglog {

void ForgetPidTable() {
    while (struct rb_node *node = rb_first(&pid_tree_root)) {
        rb_erase(node, &pid_tree_root);
        free(rb_entry(node, PidRecord, node));
    }
}

}  // namespace dbglog

extern "C" {

int save_pid_log_level(void) {
    dbglog::MutexGuard guard(&pid_tree_mutex);
    PidRecord *cursor = nullptr;
    return dbglog::SaveConfFile(kLevelFile, NextLevelLine, &cursor, "save_pid_log_level", 406, 425);
}

uint32_t DBG_GetPidLevel(uint32_t pid) {
    zeb_debug_module_init();
    if (iFd_log_level < 0) {
        return dbg_default_level();
    }
    LogLevelRequest request = {};
    request.pid = pid;
    if (zeb_sys()->kmodIoctl(iFd_log_level, ZEB_IOCTL_GET_LEVEL, &request) != 0) {
        syslog(LOG_INFO, "execute ioctl get log level fail\n");
        return dbg_default_level();
    }
    return request.level;
}

int DBG_SetPidLevel(uint32_t pid, uint8_t level) {
    zeb_debug_module_init();
    PidRecord *record = search_pid_conf(pid);
    if (iFd_log_level < 0) {
        return -1;
    }
    LogLevelRequest request = {};
    request.pid = pid;
    request.level = level;
    if (zeb_sys()->kmodIoctl(iFd_log_level, ZEB_IOCTL_SET_LEVEL, &request) != 0) {
        syslog(LOG_INFO, "execute ioctl set log level fail\n");
        return -1;
    }
    if (record == nullptr) {
        PidRecord tmpl = {};
        tmpl.pid = pid;
        replace_or_add_pid(&tmpl, 0);
        record = search_pid_conf(pid);
        if (record == nullptr) {
            syslog(LOG_INFO, "<3>pid not exists,something error[%s].\n", "DBG_SetPidLevel");
        }
    }
    if (record != nullptr) {
        StoreField(record->level, level);
    }
    return 0;
}

int DBG_GetAllPidLevel(void *array, uint32_t count) {
    zeb_debug_module_init();
    if (array == nullptr) {
        syslog(LOG_INFO, "<3>param array is NULL\n");
        return -1;
    }
    int fd = OpenLevelFileAfresh();
    if (fd < 0) {
        return -1;
    }
    LogLevelRequest request = {};
    request.count = count;
    request.array = reinterpret_cast<uintptr_t>(array);
    int rc = zeb_sys()->kmodIoctl(fd, ZEB_IOCTL_GET_ALL_LEVELS, &request);
    LZEB_close(fd);
    if (rc != 0) {
        syslog(LOG_INFO, "execute ioctl get all pid log level fail\n");
        return -1;
    }
    return 0;
}

uint32_t LZEB_get_num_of_pid(void) {
    zeb_debug_module_init();
    int fd = OpenLevelFileAfresh();
    if (fd < 0) {
        return 0;
    }
    LogLevelRequest request = {};
    int rc = zeb_sys()->kmodIoctl(fd, ZEB_IOCTL_GET_PID_NUM, &request);
    LZEB_close(fd);
    if (rc != 0) {
        syslog(LOG_INFO, "execute ioctl get pid num fail\n");
        return 0;
    }
    return request.count;
}

int LZEB_save_log_level(void) {
    zeb_debug_module_init();
    if (iFd_log_level < 0) {
        return -1;
    }
    LogLevelRequest request = {};
    if (zeb_sys()->kmodIoctl(iFd_log_level, ZEB_IOCTL_SAVE_LEVELS, &request) != 0) {
        syslog(LOG_INFO, "execute ioctl get log level fail\n");
        return -1;
    }
    return 0;
}

// The name is copied out under the table's lock (DBG_SetPidName may be
// rewriting it) into a buffer of the calling thread's own, so that neither a
// rename nor another thread's call changes the text a caller holds.
const char *DBG_GetPidName(uint32_t pid) {
    zeb_debug_module_init();
    static thread_local char buf[DBG_PID_NAME_SIZE];
    if (PidRecord *record = search_pid_conf(pid); record != nullptr) {
        dbg_copy_pid_name(record, buf);
        if (buf[0] != '\0') {
            return buf;
        }
    }
    int rc = snprintf_s(buf, sizeof buf, sizeof buf - 1, "<%u>", pid);
    if (rc < 0) {
        syslog(LOG_INFO, "snprintf_s fail, err is %d in %s func, %d line.\n", rc, "DBG_GetPidName",
               140);
    }
    return buf;
}

void DBG_SetPidName(uint32_t pid, const char *name) {
    zeb_debug_module_init();
    if (pid == 0) {
        syslog(LOG_INFO, "%s: pid is inval\n", "DBG_SetPidName");
        return;
    }
    if (name == nullptr || name[0] == '\0' ||
        strnlen(name, DBG_PID_NAME_SIZE) >= DBG_PID_NAME_SIZE) {
        syslog(LOG_INFO, "%s: pid_name is inval\n", "DBG_SetPidName");
        return;
    }
    if (PidRecord *record = search_pid_conf(pid); record != nullptr) {
        int rc;
        {
            SpinGuard guard(&pid_tree_lock);
            rc = strncpy_s(record->name, DBG_PID_NAME_SIZE, name, DBG_PID_NAME_SIZE - 1);
            record->name[DBG_PID_NAME_SIZE - 1] = '\0';
        }
        if (rc != 0) {
            syslog(LOG_INFO, "strncpy_s fail, err is %d in %s func, %d line.\n", rc,
                   "DBG_SetPidName", 169);
        }
        return;
    }
    PidRecord tmpl = {};
    tmpl.pid = pid;
    int rc = strncpy_s(tmpl.name, DBG_PID_NAME_SIZE, name, DBG_PID_NAME_SIZE - 1);
    if (rc != 0) {
        syslog(LOG_INFO, "strncpy_s fail, err is %d in %s func, %d line.\n", rc, "DBG_SetPidName",
               179);
        return;
    }
    add_pid_conf(&tmpl);
}

}  // extern "C"
