// Logging while another thread grows the tables: the TSan stage's race check.
#include <stdio.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "dbglog/dbglog.h"
#include "dbglog/internal.h"
#include "tests/support/kmod_standin.h"
#include "tests/support/syslog_capture.h"

namespace {

constexpr uint32_t kAdded = 100;

TEST(DbglogThreads, LoggingWhileTablesGrow) {
    vt_test::TempRoot root;
    vt_test::InstallLoggingStandin(root.path(), false);
    // Group 1 is re-limited while logging; group 2 has a quota of 30.
    vt_test::WriteProductFile("/KELM/conf/gid_of_pid.conf",
                              "pid=100,pid_name=a,gid=1\npid=101,pid_name=b,gid=1\n"
                              "pid=102,pid_name=g2a,gid=2\npid=103,pid_name=g2b,gid=2\n");
    vt_test::WriteProductFile("/KELM/conf/gid_print_limit.conf", "gid=2,num=30,interval=1\n");
    zeb_debug_module_init();
    vt_test::ClearSyslog();

    std::atomic<bool> go{false};
    std::atomic<int> torn{0};  // names read that are none of module 100's whole names
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &go, &torn] {
            while (!go.load()) {
            }
            for (int i = 0; i < 200; ++i) {
                DBG_Log(100 + static_cast<uint32_t>((t + i) % 4), 2, "F", i, 0, "r%d", i);
                // Modules that the adder is creating right now.
                LZEB_log(1000 + static_cast<uint32_t>(i) % kAdded, 2, "F", i, 0, "n");
                const std::string name = DBG_GetPidName(100);
                torn += name != "a" && name != "a-even" && name != "a-odd";
            }
        });
    }
    threads.emplace_back([&go] {
        go.store(true);
        for (uint32_t i = 0; i < kAdded; ++i) {
            char line[64];
            snprintf(line, sizeof line, "pid=%u,pid_name=n%u,gid=%u\n", 1000 + i, i, 500 + i);
            EXPECT_EQ(read_pid_conf_line(line), 0);
            EXPECT_EQ(LZEB_set_log_num_interval(600 + i, 10, 1), 0);
            EXPECT_EQ(LZEB_set_log_num_interval(1, 1000 + i, 1), 0);
            DBG_SetPidName(100, i % 2 == 0 ? "a-even" : "a-odd");
        }
    });
    for (auto &t : threads) {
        t.join();
    }

    PidRecord *last = search_pid_conf(1000 + kAdded - 1);
    ASSERT_NE(last, nullptr);
    ASSERT_NE(last->group, nullptr);
    EXPECT_EQ(last->group->gid, 500 + kAdded - 1);
    // Group 2's quota holds exactly under contention, and is reported once.
    int group2Records = 0;
    int group2Reports = 0;
    for (const auto &text : vt_test::CapturedSyslogTexts()) {
        group2Records +=
            text.find("][g2a][") != std::string::npos || text.find("][g2b][") != std::string::npos;
        group2Reports +=
            text.rfind("g2", 0) == 0 && text.find("callbacks suppressed[") != std::string::npos;
    }
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(group2Records, 30);
    EXPECT_EQ(group2Reports, 1);
}

}  // namespace
