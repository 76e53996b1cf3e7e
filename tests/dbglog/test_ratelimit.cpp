// Per-group rate limiting on the logging path, driven by the stand-in's clock.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dbglog/dbglog.h"
#include "dbglog/internal.h"
#include "tests/support/kmod_standin.h"
#include "tests/support/syslog_capture.h"

namespace {

using Texts = std::vector<std::string>;

struct Step {
    int64_t advance;     // seconds the clock moves first
    const char *expect;  // one record per letter: 'w' written, 's' suppressed
    Texts reports;       // what the library says besides the records
};

// Module 7 ("cms") is in group 12, module 8 in group 13.
TEST(DbglogRateLimit, Table) {
    const std::string clock =
        "Execute clock_gettime failed, errno is 5.Print limit can not take "
        "effect.[___ratelimit3].\n";
    const std::string once = ": 1 callbacks suppressed[___ratelimit3].\n";
    const struct {
        const char *name;
        const char *limits;
        uint32_t module;
        std::vector<Step> steps;
        bool clockFails = false;
        bool kernel = false;  // the module's limit for group 12: 1 record a day
    } rows[] = {
        // The record that ends a period is reported and counts towards the next.
        {"quota of 2 a day",
         "gid=12,num=2,interval=1,burst=0,resume=86400\n",
         7,
         {{0, "wwsss", {"cms" + once}},
          {86400, "s", {"cms: 4 callbacks suppressed[___ratelimit3].\n"}},
          {1, "w", {"cms: 4 callbacks suppressed in 1 days[___ratelimit3].\n"}},
          {0, "ws", {"cms" + once}}}},
        {"burst of 3 refilled after 10 s",
         "gid=13,num=0,interval=1,burst=3,resume=10\n",
         8,
         {{0, "wwws", {once}}, {10, "s", {}}, {1, "wwws", {}}}},
        {"interval 0: no limit", "gid=12,num=1,interval=0\n", 7, {{0, "wwww", {}}}},
        {"default group: no limit", "", 7, {{0, "wwwwwwwwww", {}}}},
        {"failing clock", "gid=12,num=1,interval=1\n", 7, {{0, "ww", {clock, clock}}}, true},
        {"kernel limit replaces the file's",
         "gid=12,num=5,interval=1\n",
         7,
         {{0, "ws", {"cms" + once}}},
         false,
         true},
    };
    vt_test::TempRoot root;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        vt_test::InstallLoggingStandin(root.path(), row.kernel);
        vt_test::WriteProductFile("/KELM/conf/gid_of_pid.conf",
                                  "pid=7,pid_name=cms,gid=12\npid=8 gid=13\n");
        vt_test::WriteProductFile("/KELM/conf/gid_print_limit.conf", row.limits);
        vt_test::TheStandin().limits[12] = {1, 1, 0, 86400};
        zeb_debug_module_init();
        vt_test::TheStandin().clockFails = row.clockFails;
        for (const Step &step : row.steps) {
            vt_test::TheStandin().clockNs += step.advance * vt_test::kStandinSecond;
            Texts reports;
            for (const char *c = step.expect; *c != '\0'; ++c) {
                vt_test::ClearSyslog();
                DBG_Log(row.module, 2, "F", 1, 0, "m");
                bool written = false;
                for (const std::string &text : vt_test::CapturedSyslogTexts()) {
                    if (text.starts_with("[")) {
                        written = true;
                    } else {
                        reports.push_back(text);
                    }
                }
                EXPECT_EQ(written, *c == 'w') << step.expect << " at " << c - step.expect;
            }
            EXPECT_EQ(reports, step.reports) << step.expect;
        }
    }
}

}  // namespace
