// Per-group rate limits: the group table, its configuration files, the
// limiter and the refresh from the kernel module.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <type_traits>

#include "dbglog/internal.h"
#include "dbglog/zeb_sys.h"
#include "platform/lzeb_mem.h"
#include "platform/securec.h"

static_assert(std::is_standard_layout_v<GidRecord>);
static_assert(offsetof(GidRecord, node) == 0);
static_assert(std::is_standard_layout_v<GidLimitRequest>);
static_assert(sizeof(GidLimitRequest) == 20);
static_assert(offsetof(GidLimitRequest, num) == 4);
static_assert(offsetof(GidLimitRequest, interval) == 8);
static_assert(offsetof(GidLimitRequest, burst) == 12);
static_assert(offsetof(GidLimitRequest, resume) == 16);

extern "C" {
struct rb_root gid_tree_root = RB_ROOT;
pthread_spinlock_t gid_tree_lock;
pthread_mutex_t gid_tree_mutex = PTHREAD_MUTEX_INITIALIZER;
}

namespace {

using dbglog::LoadField;
using dbglog::SpinGuard;
using dbglog::StoreField;

constexpr int64_t kSecondsPerDay = 86400;
constexpr uint32_t kAllGroups = 0xFFFFFFFFu;
constexpr uint32_t kDefaultInterval = 1;
constexpr uint32_t kDefaultNum = 0xFFFFFFFFu;
constexpr uint32_t kDefaultResume = 86400;

constexpr char kSystemFile[] = "/KELM/conf/gid_print_limit.conf";
constexpr char kLocalFile[] = "/startup_disk/conf/conf_local/gid_log_ratelimit.conf";
static_assert(sizeof(kLocalFile) - 1 == 52);

// Plain descent; the caller holds gid_tree_lock.
GidRecord *FindLocked(uint32_t gid) {
    struct rb_node *node = gid_tree_root.rb_node;
    while (node != nullptr) {
        GidRecord *record = rb_entry(node, GidRecord, node);
        if (gid < record->gid) {
            node = node->rb_left;
        } else if (gid > record->gid) {
            node = node->rb_right;
        } else {
            return record;
        }
    }
    return nullptr;
}

// The group after `prev` in id order (the first for null), one locked step at
// a time; groups are never removed.
GidRecord *NextGroup(const GidRecord *prev) {
    SpinGuard guard(&gid_tree_lock);
    struct rb_node *node = prev == nullptr ? rb_first(&gid_tree_root) : rb_next(&prev->node);
    return rb_entry(node, GidRecord, node);
}

GidRecord *FindOrAdd(uint32_t gid) {
    GidRecord *record = search_gid_conf(gid);
    if (record == nullptr) {
        add_gid_conf(gid);
        record = search_gid_conf(gid);
    }
    return record;
}

int ReadGidLine(char *line, uint32_t local) {
    return read_gid_conf_line(line, local);
}

int NextGroupLine(void *ctx, char *buffer, size_t size) {
    auto **cursor = static_cast<GidRecord **>(ctx);
    *cursor = NextGroup(*cursor);
    if (*cursor == nullptr) {
        return 0;
    }
    RateLimitState &s = (*cursor)->state;
    int rc = snprintf_s(buffer, size, size - 1, "gid=%u,num=%u,interval=%u,burst=%u,resume=%u\n",
                        (*cursor)->gid, LoadField(s.num), LoadField(s.interval), LoadField(s.burst),
                        LoadField(s.resume));
    return rc > 0 ? rc : -1;
}

// num * multiple, or 0xFFFFFFFF when the product does not fit (false). The
// unlimited quota 0xFFFFFFFF stays unlimited without being an overflow.
bool Multiply(uint32_t num, uint32_t multiple, uint32_t *product) {
    if (num == kDefaultNum) {
        *product = num;
        return true;
    }
    const uint32_t p = num * multiple;
    if (p / multiple != num) {
        *product = 0xFFFFFFFFu;
        return false;
    }
    *product = p;
    return true;
}

bool GroupIdUsable(uint32_t gid, const char *owner) {
    if (gid == 0 || gid == kAllGroups) {
        syslog(LOG_INFO, "<3>%s: gid is inval\n", owner);
        return false;
    }
    return true;
}

// What a decision has to tell the system log. syslog takes a lock of its own,
// so the messages are written only after the group's spin lock is released.
struct Reports {
    int clockErrno = 0;  // non-zero: a clock read failed
    bool periodEnd = false;
    uint32_t periodMissed = 0;
    uint32_t periodDays = 0;
    bool suppressed = false;
    uint32_t missed = 0;
};

bool ReadClock(struct timespec *ts, Reports *reports) {
    if (zeb_sys()->monotonic(ts) == 0) {
        return true;
    }
    reports->clockErrno = errno != 0 ? errno : EINVAL;
    return false;
}

void Emit(const Reports &r, const char *name) {
    if (r.periodEnd) {
        syslog(LOG_WARNING, "%s: %d callbacks suppressed in %u days[%s].\n", name,
               static_cast<int>(r.periodMissed), r.periodDays, "___ratelimit3");
    }
    if (r.clockErrno != 0) {
        syslog(LOG_ERR,
               "Execute clock_gettime failed, errno is %d.Print limit can not take effect.[%s].\n",
               r.clockErrno, "___ratelimit3");
    }
    if (r.suppressed) {
        syslog(LOG_WARNING, "%s: %d callbacks suppressed[%s].\n", name, static_cast<int>(r.missed),
               "___ratelimit3");
    }
}

// The decision proper; the caller holds the state's lock.
int DecideLocked(RateLimitState *s, uint32_t interval, Reports *reports) {
    if (s->begin.tv_sec == 0) {
        if (!ReadClock(&s->begin, reports) || !ReadClock(&s->lastPrint, reports)) {
            return 0;
        }
    }
    struct timespec now;
    if (!ReadClock(&now, reports)) {
        return 0;
    }
    const auto period = static_cast<int64_t>(static_cast<uint64_t>(interval) * kSecondsPerDay);
    const uint32_t burst = LoadField(s->burst);
    if (now.tv_sec > s->begin.tv_sec + period) {
        if (s->missed != 0) {
            reports->periodEnd = true;
            reports->periodMissed = s->missed;
            reports->periodDays =
                static_cast<uint32_t>((now.tv_sec - s->begin.tv_sec) / kSecondsPerDay);
        }
        // The next decision starts the new period.
        s->begin.tv_sec = 0;
        s->lastPrint.tv_sec = 0;
        s->printed = 0;
        s->missed = 0;
        s->burstLeft = burst;
        s->burstBegin.tv_sec = 0;
    }
    if (s->burstBegin.tv_sec != 0 && now.tv_sec > s->burstBegin.tv_sec + LoadField(s->resume)) {
        s->burstBegin.tv_sec = 0;
        s->burstLeft = burst;
    }
    const uint32_t num = LoadField(s->num);
    if (num != 0 && num > s->printed) {
        s->printed++;
        ReadClock(&s->lastPrint, reports);
        return 0;
    }
    if (s->burstLeft != 0) {
        if (s->burstLeft == burst && s->burstBegin.tv_sec == 0) {
            ReadClock(&s->burstBegin, reports);
        }
        s->burstLeft--;
        s->printed++;
        ReadClock(&s->lastPrint, reports);
        return 0;
    }
    s->missed++;
    if (s->missed == 1 || now.tv_sec >= s->lastPrint.tv_sec + kSecondsPerDay) {
        ReadClock(&s->lastPrint, reports);
        reports->suppressed = true;
        reports->missed = s->missed;
    }
    return 1;
}

}  // namespace

extern "C" {

GidRecord *search_gid_conf(uint32_t gid) {
    SpinGuard guard(&gid_tree_lock);
    return FindLocked(gid);
}

int add_gid_conf(uint32_t gid) {
    auto *record = static_cast<GidRecord *>(__zeb_zmalloc(sizeof(GidRecord)));
    if (record == nullptr) {
        syslog(LOG_INFO, "%s: __zeb_zmalloc fail\n", "add_gid_conf");
        return -ENOMEM;
    }
    record->gid = gid;
    pthread_spin_init(&record->state.lock, PTHREAD_PROCESS_PRIVATE);
    record->state.interval = kDefaultInterval;
    record->state.num = kDefaultNum;
    record->state.resume = kDefaultResume;
    bool exists = false;
    {
        SpinGuard guard(&gid_tree_lock);
        struct rb_node **link = &gid_tree_root.rb_node;
        struct rb_node *parent = nullptr;
        while (*link != nullptr && !exists) {
            parent = *link;
            const GidRecord *here = rb_entry(parent, GidRecord, node);
            if (gid < here->gid) {
                link = &parent->rb_left;
            } else if (gid > here->gid) {
                link = &parent->rb_right;
            } else {
                exists = true;
            }
        }
        if (!exists) {
            rb_link_node(&record->node, parent, link);
            rb_insert_color(&record->node, &gid_tree_root);
        }
    }
    if (exists) {
        pthread_spin_destroy(&record->state.lock);
        free(record);  // outside the spin lock: free may take the allocator's lock
        return -EINVAL;
    }
    return 0;
}

int replace_or_add_gid(uint32_t gid, uint32_t num, uint32_t interval, uint32_t burst,
                       uint32_t resume, int32_t local) {
    GidRecord *record = FindOrAdd(gid);
    if (record == nullptr) {
        syslog(LOG_INFO, "%s: gid tree error\n", "replace_or_add_gid");
        return -1;
    }
    RateLimitState &s = record->state;
    StoreField(s.interval, interval);
    StoreField(s.num, num);
    StoreField(s.burst, burst);
    StoreField(s.resume, resume);
    {
        SpinGuard guard(&s.lock);
        s.burstLeft = burst;
    }
    // The local override changes the quota in force, not the base that the
    // multiplier scales.
    if (local == 0) {
        StoreField(s.baseNum, num);
    }
    return 0;
}

// "gid=%u,num=%u,interval=%u" with ",burst=%u,resume=%u" or nothing behind
// it. A malformed or out-of-range line stores nothing (-EINVAL): the group keeps
// what it had, and the file reader reports the line.
int read_gid_conf_line(char *line, uint32_t local) {
    if (dbglog::IsSkippedLine(line)) {
        return 0;
    }
    uint32_t gid = 0;
    uint32_t num = 0;
    uint32_t interval = 0;
    uint32_t burst = 0;
    uint32_t resume = kDefaultResume;
    dbglog::LineCursor c(line);
    bool ok = c.Number("gid", &gid) && c.Char(',') && c.Number("num", &num) && c.Char(',') &&
              c.Number("interval", &interval);
    if (ok && !c.AtEnd()) {
        ok = c.Char(',') && c.Number("burst", &burst) && c.Char(',') &&
             c.Number("resume", &resume) && c.AtEnd();
    }
    if (!ok || gid == 0 || gid == kAllGroups) {
        return -EINVAL;
    }
    replace_or_add_gid(gid, num, interval, burst, resume, static_cast<int32_t>(local));
    return 0;
}

void read_gid_conf(const char *path) {
    if (path == nullptr) {
        return;
    }
    const size_t length = strlen(path);
    const uint32_t local =
        length == sizeof(kLocalFile) - 1 && memcmp(path, kLocalFile, length) == 0 ? 1 : 0;
    dbglog::ReadConfFile(path, ReadGidLine, local, "read_gid_conf", "read_gid_conf_line");
}

void read_gid_conf_filename(const char *name) {
    if (name == nullptr || strlen(name) <= 3 || strncmp(name, "log_", 4) != 0) {
        return;
    }
    char path[dbglog::kConfLineSize];
    int rc = snprintf_s(path, sizeof path, sizeof path - 1, "/etc/zeb/pid/%s", name);
    if (rc < 0) {
        syslog(LOG_INFO, "snprintf_s failed, err is %d in %s func, %d line.\n", rc,
               "read_gid_conf_filename", 655);
        return;
    }
    read_gid_conf(path);
}

void __load_gid_conf(void) {
    dbglog::ScanPidDirectory(&gid_tree_mutex, read_gid_conf_filename, "__load_gid_conf");
}

void load_gid_conf(void) {
    pthread_spin_init(&gid_tree_lock, PTHREAD_PROCESS_PRIVATE);
    read_gid_conf(kSystemFile);
    __load_gid_conf();
    read_gid_conf(kLocalFile);
}

void DBG_UpdateGidLimit(PidRecord *record) {
    if (record == nullptr) {
        return;
    }
    GidRecord *group = LoadField(record->group);
    if (group == nullptr) {
        return;
    }
    GidLimitRequest request = {};
    request.gid = group->gid;
    // Issued even without the descriptor: the failure then changes nothing.
    if (zeb_sys()->kmodIoctl(iFd_log_limit, ZEB_IOCTL_GET_GID_LIMIT, &request) != 0) {
        return;
    }
    StoreField(group->state.interval, request.interval);
    StoreField(group->state.num, request.num);
    StoreField(group->state.burst, request.burst);
    StoreField(group->state.resume, request.resume);
}

int ___ratelimit3(RateLimitState *state, const char *name) {
    if (state == nullptr) {
        return 0;
    }
    const uint32_t interval = LoadField(state->interval);
    if (interval == 0) {
        return 0;
    }
    Reports reports;
    int result;
    {
        SpinGuard guard(&state->lock);
        result = DecideLocked(state, interval, &reports);
    }
    Emit(reports, name != nullptr ? name : "");
    return result;
}

int is_print_full(PidRecord *record) {
    if (record == nullptr) {
        return 0;
    }
    GidRecord *group = LoadField(record->group);
    if (group == nullptr) {
        return 0;
    }
    char name[DBG_PID_NAME_SIZE];
    dbg_copy_pid_name(record, name);
    return ___ratelimit3(&group->state, name) != 0 ? 1 : 0;
}

}  // extern "C"

namespace dbglog {

void ForgetGidTable() {
    while (struct rb_node *node = rb_first(&gid_tree_root)) {
        rb_erase(node, &gid_tree_root);
        GidRecord *record = rb_entry(node, GidRecord, node);
        pthread_spin_destroy(&record->state.lock);
        free(record);
    }
}

}  // namespace dbglog

extern "C" {

int LZEB_reset_log_ratelimit(void) {
    zeb_debug_module_init();
    syslog(LOG_INFO, "<4>Reset log rate setting to the default values[%s].\n",
           "LZEB_reset_log_ratelimit");
    {
        dbglog::MutexGuard guard(&gid_tree_mutex);
        for (GidRecord *g = NextGroup(nullptr); g != nullptr; g = NextGroup(g)) {
            RateLimitState &s = g->state;
            StoreField(s.interval, kDefaultInterval);
            StoreField(s.num, kDefaultNum);
            StoreField(s.burst, 0u);
            StoreField(s.resume, kDefaultResume);
            SpinGuard stateGuard(&s.lock);
            s.burstLeft = 0;
            s.burstBegin.tv_sec = 0;
            s.printed = 0;
            s.missed = 0;
            s.begin.tv_sec = 0;
            s.lastPrint.tv_sec = 0;
        }
    }
    // The local override is deliberately not re-read: a reset returns to the
    // system's and the packages' values.
    read_gid_conf(kSystemFile);
    __load_gid_conf();
    read_pid_conf("/KELM/conf/gid_of_pid.conf");
    __load_pid_conf();
    return 0;
}

int LZEB_loglimit_init(void) {
    return LZEB_reset_log_ratelimit();
}

int LZEB_set_log_ratelimit(uint32_t gid, uint32_t multiple) {
    static constexpr char kOwner[] = "LZEB_set_log_ratelimit";
    zeb_debug_module_init();
    if (multiple == 0) {
        syslog(LOG_INFO, "<3>The input param multiple is zero[%s].\n", kOwner);
        return -EINVAL;
    }
    if (gid == kAllGroups) {
        syslog(LOG_INFO, "<4>Set the number of logs to %d times for every gid[%s].\n",
               static_cast<int>(multiple), kOwner);
        LZEB_reset_log_ratelimit();
        for (GidRecord *g = NextGroup(nullptr); g != nullptr; g = NextGroup(g)) {
            uint32_t product;
            if (!Multiply(LoadField(g->state.num), multiple, &product)) {
                syslog(LOG_INFO,
                       "<4>The number of logs of gid=%d after you have increased is more than %u, "
                       "it will only be set to %u [%s].\n",
                       static_cast<int>(g->gid), 4294967295u, 4294967295u, kOwner);
            }
            StoreField(g->state.num, product);
        }
        return 0;
    }
    GidRecord *record = search_gid_conf(gid);
    if (record == nullptr) {
        syslog(LOG_INFO, "<3>%s: gid=%u is inval\n", kOwner, gid);
        return -EINVAL;
    }
    const uint32_t base = LoadField(record->state.baseNum);
    if (base == 0) {
        // No system or package file gave the group a quota: there is nothing
        // to scale, and the quota in force (unlimited unless the local file
        // set one) stays instead of becoming 0 and silencing the group.
        return 0;
    }
    uint32_t product;
    if (!Multiply(base, multiple, &product)) {
        syslog(LOG_INFO,
               "<4>The number of logs of gid=%u after you have increased is more than %u, it will "
               "only be set to %u [%s].\n",
               gid, 4294967295u, 4294967295u, kOwner);
    }
    StoreField(record->state.num, product);
    return 0;
}

int LZEB_save_log_ratelimit(void) {
    zeb_debug_module_init();
    dbglog::MutexGuard guard(&gid_tree_mutex);
    GidRecord *cursor = nullptr;
    return dbglog::SaveConfFile(kLocalFile, NextGroupLine, &cursor, "LZEB_save_log_ratelimit", 852,
                                871);
}

int LZEB_set_log_num_interval(uint32_t gid, uint32_t num, uint32_t interval) {
    static constexpr char kOwner[] = "LZEB_set_log_num_interval";
    zeb_debug_module_init();
    if (!GroupIdUsable(gid, kOwner)) {
        return -EINVAL;
    }
    GidRecord *record = FindOrAdd(gid);
    if (record == nullptr) {
        syslog(LOG_INFO, "%s: gid tree error\n", kOwner);
        return -1;
    }
    StoreField(record->state.interval, interval);
    StoreField(record->state.num, num);
    return 0;
}

int LZEB_get_log_num_interval(uint32_t gid, uint32_t *num, uint32_t *interval) {
    static constexpr char kOwner[] = "LZEB_get_log_num_interval";
    zeb_debug_module_init();
    if (!GroupIdUsable(gid, kOwner)) {
        return -EINVAL;
    }
    GidRecord *record = search_gid_conf(gid);
    if (record == nullptr) {
        syslog(LOG_INFO, "<3>%s: gid %u is not exist\n", kOwner, gid);
        return -EINVAL;
    }
    if (num != nullptr) {
        *num = LoadField(record->state.num);
    }
    if (interval != nullptr) {
        *interval = LoadField(record->state.interval);
    }
    return 0;
}

}  // extern "C"
