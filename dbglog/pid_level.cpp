// Per-module table: display names, group bindings and level mirrors, its
// configuration files, and the kernel module's level requests.
#include <string.h>
#include <syslog.h>

#include <type_traits>

#include "dbglog/internal.h"
#include "dbglog/zeb_sys.h"
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

using dbglog::SpinGuard;

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

// The configuration files are read by a later change; the table starts empty.
void load_pid_conf(void) {
    pthread_spin_init(&pid_tree_lock, PTHREAD_PROCESS_PRIVATE);
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

}  // extern "C"
