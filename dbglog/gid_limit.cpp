// Per-group rate limits: the group table, its configuration files, the
// limiter and the refresh from the kernel module.
#include <errno.h>
#include <syslog.h>

#include <type_traits>

#include "dbglog/internal.h"
#include "dbglog/zeb_sys.h"

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

// The configuration files are read by a later change; the table starts empty.
void load_gid_conf(void) {
    pthread_spin_init(&gid_tree_lock, PTHREAD_PROCESS_PRIVATE);
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
