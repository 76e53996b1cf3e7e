// Per-group rate limiting on the logging path, driven by the stand-in's clock.
#include <syslog.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dbglog/dbglog.h"
#include "dbglog/internal.h"
#include "tests/support/kmod_standin.h"
#include "tests/support/syslog_capture.h"

namespace {

// Module 7 ("cms") in group 12, module 8 in group 13, module 9 in group 14.
class DbglogRateLimit : public ::testing::Test {
  protected:
    void Start(bool withModule, const std::string &limits) {
        vt_test::InstallLoggingStandin(root_.path(), withModule);
        vt_test::WriteProductFile("/KELM/conf/gid_of_pid.conf",
                                  "pid=7,pid_name=cms,gid=12\npid=8 gid=13\npid=9 gid=14\n");
        vt_test::WriteProductFile("/KELM/conf/gid_print_limit.conf", limits);
        zeb_debug_module_init();
        vt_test::ClearSyslog();
    }
    // One record per letter: 'w' expects it written, 's' suppressed.
    std::vector<std::string> Log(uint32_t module, const std::string &expect) {
        std::vector<std::string> reports;
        for (char c : expect) {
            vt_test::ClearSyslog();
            DBG_Log(module, 2, "F", 1, 0, "m");
            bool written = false;
            for (const auto &r : vt_test::CapturedSyslog()) {
                if (r.text.rfind("[", 0) == 0) {
                    written = true;
                } else {
                    reports.push_back(r.text);
                }
            }
            EXPECT_EQ(written, c == 'w') << "module " << module << " pattern " << expect;
        }
        return reports;
    }
    vt_test::TempRoot root_;
};

TEST_F(DbglogRateLimit, QuotaSuppressesAndReportsOncePerPeriod) {
    Start(false, "gid=12,num=2,interval=1,burst=0,resume=86400\n");
    EXPECT_EQ(Log(7, "wwsss"),
              std::vector<std::string>{"cms: 1 callbacks suppressed[___ratelimit3].\n"});
    vt_test::StandinAdvanceClock(86400);
    Log(7, "s");  // the period's last second
    vt_test::StandinAdvanceClock(1);
    // The period ends: the count is reported, and the record passes again.
    EXPECT_EQ(Log(7, "w"),
              std::vector<std::string>{"cms: 4 callbacks suppressed in 1 days[___ratelimit3].\n"});
    // The record that ended the period counts towards the new one.
    EXPECT_EQ(Log(7, "ws").size(), 1u);
    // The module's name stands in its records.
    vt_test::StandinAdvanceClock(2 * 86400);
    vt_test::ClearSyslog();
    DBG_Log(7, 2, "F", 1, 0, "m");
    auto texts = vt_test::CapturedSyslogTexts();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[1].substr(15), "[1500000070000][ERR][m][cms][F,1][dbglog_tests]\n");
}

TEST_F(DbglogRateLimit, BurstRefillsAfterResumeTime) {
    Start(false, "gid=13,num=0,interval=1,burst=3,resume=10\n");
    EXPECT_EQ(Log(8, "wwws"),
              std::vector<std::string>{": 1 callbacks suppressed[___ratelimit3].\n"});
    vt_test::StandinAdvanceClock(10);
    Log(8, "s");
    vt_test::StandinAdvanceClock(1);
    Log(8, "wwws");
}

TEST_F(DbglogRateLimit, IntervalZeroNeverTouchesState) {
    Start(false, "gid=14,num=1,interval=0\n");
    Log(9, "wwww");
    const RateLimitState &s = search_gid_conf(14)->state;
    EXPECT_EQ(s.printed, 0u);
    EXPECT_EQ(s.begin.tv_sec, 0);
}

TEST_F(DbglogRateLimit, DefaultGroupNeverSuppresses) {
    Start(false, "");
    Log(7, "wwwwwwwwww");
    EXPECT_EQ(search_gid_conf(12)->state.num, 0xFFFFFFFFu);
}

TEST_F(DbglogRateLimit, ClockFailureLetsRecordsThrough) {
    Start(false, "gid=12,num=1,interval=1\n");
    vt_test::StandinFailClock(true);
    EXPECT_EQ(Log(7, "ww"), std::vector<std::string>(
                                2,
                                "Execute clock_gettime failed, errno is 5.Print limit can not take "
                                "effect.[___ratelimit3].\n"));
}

TEST_F(DbglogRateLimit, KernelModuleLimitsReplaceFileLimits) {
    Start(true, "gid=12,num=5,interval=1\n");
    vt_test::StandinSetGidLimit(12, {1, 1, 0, 86400});
    Log(7, "ws");
    const RateLimitState &s = search_gid_conf(12)->state;
    EXPECT_EQ(s.num, 1u);
    EXPECT_EQ(s.baseNum, 5u);  // the refresh leaves the file's base alone
}

}  // namespace
