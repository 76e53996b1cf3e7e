// Group and module tables: configuration lines and files, setters, saves and
// the kernel module's level requests.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dbglog/dbglog.h"
#include "dbglog/internal.h"
#include "tests/support/kmod_standin.h"
#include "tests/support/syslog_capture.h"

namespace {

using vt_test::CapturedSyslogTexts;
using Texts = std::vector<std::string>;

class DbglogTables : public ::testing::Test {
  protected:
    void Install(bool withModule = false) {
        vt_test::InstallLoggingStandin(root_.path(), withModule);
        vt_test::ClearSyslog();
    }
    void Start(bool withModule = false) {
        Install(withModule);
        zeb_debug_module_init();
        vt_test::ClearSyslog();
    }
    std::string Root() const { return root_.path(); }
    vt_test::TempRoot root_;
};

TEST_F(DbglogTables, GroupLines) {
    Start();
    struct Row {
        const char *line;
        int result;
        uint32_t gid;  // 0: nothing stored
        uint32_t num = 0, interval = 0, burst = 0, resume = 0;
    };
    const Row rows[] = {
        {"gid=7,num=5,interval=1\n", 0, 7, 5, 1, 0, 86400},
        {"gid=8,num=6,interval=2,burst=3,resume=9\n", 0, 8, 6, 2, 3, 9},
        // Refused lines leave the group as it was.
        {"gid=7,num=6,interval=1,burst=x\n", -22, 7, 5, 1, 0, 86400},
        {"gid=7,num=6,interval=1,bogus\n", -22, 7, 5, 1, 0, 86400},
        {"gid=7,num=99999999999,interval=1\n", -22, 7, 5, 1, 0, 86400},
        {"gid=7,num=-1,interval=1\n", -22, 7, 5, 1, 0, 86400},
        {"gid=8,num=6,interval=2,burst=3,resume=4junk\n", -22, 8, 6, 2, 3, 9},
        {"gid=9,num=5,interval=1,burst=3\n", -22, 0},
        {"gid=0,num=5,interval=1\n", -22, 0},
        {"gid=4294967295,num=5,interval=1\n", -22, 0},
        {"#gid=10,num=5,interval=1\n", 0, 0},
        {"gid=11,num=5,interval=1 # old\n", 0, 0},
        {"\n", 0, 0},
    };
    for (const Row &row : rows) {
        std::string line = row.line;
        EXPECT_EQ(read_gid_conf_line(line.data(), 0), row.result) << row.line;
        if (row.gid == 0) {
            continue;
        }
        GidRecord *g = search_gid_conf(row.gid);
        ASSERT_NE(g, nullptr) << row.line;
        const RateLimitState &s = g->state;
        EXPECT_EQ(s.num, row.num) << row.line;
        EXPECT_EQ(s.baseNum, row.num) << row.line;
        EXPECT_EQ(s.interval, row.interval) << row.line;
        EXPECT_EQ(s.burst, row.burst) << row.line;
        EXPECT_EQ(s.burstLeft, row.burst) << row.line;
        EXPECT_EQ(s.resume, row.resume) << row.line;
    }
    for (uint32_t gid : {9u, 10u, 11u}) {
        EXPECT_EQ(search_gid_conf(gid), nullptr) << gid;
    }
}

TEST_F(DbglogTables, ModuleLines) {
    Start();
    struct Row {
        const char *line;
        int result;
        uint32_t pid;  // 0: nothing stored
        const char *name = "";
        uint32_t gid = 0;  // 0: unbound
    };
    const Row rows[] = {
        {"pid=7,pid_name=cms,gid=12\n", 0, 7, "cms", 12},
        {"pid=8 gid=12\n", 0, 8, "", 12},
        {"pid=9,pid_name=x\n", 0, 9, "x", 0},
        {"pid=7 pid_name=other gid=13\n", 0, 7, "cms", 13},  // keeps its first name
        {"pid=7 gid=99999999999\n", -22, 7, "cms", 13},
        {"pid=13,pid_name=abcdefghijklmnopqrstuvwxyz012345,gid=12\n", -22, 0},  // 32 characters
        {"pid=10\n", -22, 0},
        {"pid=11,pid_name=y,gid=0\n", -22, 0},
        {"pid=0,gid=3\n", -22, 0},
        {"pid=12,gid=3 #\n", 0, 0},
    };
    for (const Row &row : rows) {
        std::string line = row.line;
        EXPECT_EQ(read_pid_conf_line(line.data()), row.result) << row.line;
        if (row.pid == 0) {
            continue;
        }
        PidRecord *p = search_pid_conf(row.pid);
        ASSERT_NE(p, nullptr) << row.line;
        EXPECT_STREQ(p->name, row.name) << row.line;
        EXPECT_EQ(p->group != nullptr ? p->group->gid : 0, row.gid) << row.line;
    }
    for (uint32_t pid : {10u, 11u, 12u, 13u}) {
        EXPECT_EQ(search_pid_conf(pid), nullptr) << pid;
    }
    // A group first named by a module line has the defaults.
    EXPECT_EQ(search_gid_conf(13)->state.num, 0xFFFFFFFFu);
    EXPECT_EQ(search_gid_conf(13)->state.interval, 1u);
}

TEST_F(DbglogTables, FilesLoadInOrderAndLocalLinesKeepBase) {
    Install();
    vt_test::WriteProductFile(
        "/KELM/conf/gid_print_limit.conf",
        "gid=20,num=1610612736,interval=1\ngid=21,num=4,interval=1,burst=3\n");
    vt_test::WriteProductFile("/etc/zeb/pid/log_pkg", "gid=22,num=8,interval=2\n");
    vt_test::WriteProductFile("/etc/zeb/pid/pid_pkg",
                              "pid=50,pid_name=pkg,gid=22\npid=52,gid=24\n");
    vt_test::WriteProductFile("/etc/zeb/pid/unrelated", "gid=23,num=1,interval=1\n");
    vt_test::WriteProductFile("/startup_disk/conf/conf_local/gid_log_ratelimit.conf",
                              "gid=20,num=5,interval=1\n");
    vt_test::WriteProductFile("/startup_disk/conf/conf_local/pid_log_level.conf",
                              "pid=50,level=2\npid=51 level=3\npid=51 level=300\n");
    zeb_debug_module_init();
    EXPECT_EQ(CapturedSyslogTexts()[0],
              "read_gid_conf: /KELM/conf/gid_print_limit.conf read_gid_conf_line fail, "
              "(gid=21,num=4,interval=1,burst=3\n)\n");
    EXPECT_EQ(search_gid_conf(23), nullptr);
    EXPECT_EQ(search_gid_conf(22)->state.interval, 2u);
    EXPECT_EQ(search_pid_conf(50)->group, search_gid_conf(22));
    EXPECT_EQ(search_pid_conf(50)->level, 2);
    EXPECT_EQ(search_pid_conf(51)->level, 3);
    const RateLimitState &s = search_gid_conf(20)->state;
    EXPECT_EQ(s.num, 5u);
    EXPECT_EQ(s.baseNum, 1610612736u);

    // The multiplier scales the base: 0x60000000 * 3 overflows; group 24 has
    // no base quota and stays unlimited.
    struct Row {
        uint32_t gid, multiple;
        int result;
        uint32_t checked, num;  // the quota of group `checked` afterwards
        const char *message;
    };
    const Row rows[] = {
        {20, 2, 0, 20, 3221225472u, nullptr},
        {20, 3, 0, 20, 0xFFFFFFFFu,
         "<4>The number of logs of gid=20 after you have increased is more than 4294967295, it "
         "will only be set to 4294967295 [LZEB_set_log_ratelimit].\n"},
        {20, 0, -22, 20, 0xFFFFFFFFu,
         "<3>The input param multiple is zero[LZEB_set_log_ratelimit].\n"},
        {99, 2, -22, 20, 0xFFFFFFFFu, "<3>LZEB_set_log_ratelimit: gid=99 is inval\n"},
        {24, 2, 0, 24, 0xFFFFFFFFu, nullptr},
    };
    for (const Row &row : rows) {
        vt_test::ClearSyslog();
        EXPECT_EQ(LZEB_set_log_ratelimit(row.gid, row.multiple), row.result) << row.gid;
        EXPECT_EQ(search_gid_conf(row.checked)->state.num, row.num) << row.gid;
        EXPECT_EQ(CapturedSyslogTexts(), row.message ? Texts{row.message} : Texts{}) << row.gid;
    }

    // Reset re-reads the system and package files, not the local override.
    EXPECT_EQ(LZEB_reset_log_ratelimit(), 0);
    EXPECT_EQ(s.num, 1610612736u);
    EXPECT_EQ(search_gid_conf(22)->state.num, 8u);
}

TEST_F(DbglogTables, GroupSettersAndSave) {
    Start();
    uint32_t num = 0;
    uint32_t interval = 0;
    EXPECT_EQ(LZEB_set_log_num_interval(0, 1, 1), -22);
    EXPECT_EQ(LZEB_get_log_num_interval(31, &num, &interval), -22);
    EXPECT_EQ(CapturedSyslogTexts(),
              (Texts{"<3>LZEB_set_log_num_interval: gid is inval\n",
                     "<3>LZEB_get_log_num_interval: gid 31 is not exist\n"}));
    EXPECT_EQ(LZEB_set_log_num_interval(31, 40, 3), 0);
    EXPECT_EQ(LZEB_set_log_num_interval(30, 7, 2), 0);
    EXPECT_EQ(LZEB_get_log_num_interval(31, &num, &interval), 0);
    EXPECT_EQ(num, 40u);
    EXPECT_EQ(interval, 3u);
    EXPECT_EQ(LZEB_get_log_num_interval(31, nullptr, nullptr), 0);

    vt_test::ClearSyslog();
    const std::string local = "/startup_disk/conf/conf_local/gid_log_ratelimit.conf";
    EXPECT_EQ(LZEB_save_log_ratelimit(), 0);
    EXPECT_EQ(vt_test::ReadProductFile(local),
              "gid=30,num=7,interval=2,burst=0,resume=86400\n"
              "gid=31,num=40,interval=3,burst=0,resume=86400\n");
    EXPECT_FALSE(vt_test::ProductFileExists(local + ".new"));
    EXPECT_EQ(CapturedSyslogTexts(), Texts{"<6>mv -f " + Root() + local + ".new " + Root() + local +
                                           " 2>" + Root() + "/dev/kmsg\n"});
}

TEST_F(DbglogTables, ModuleNamesAndLevelSave) {
    Install();
    vt_test::WriteProductFile("/startup_disk/conf/conf_local/pid_log_level.conf",
                              "pid=60,level=2\n");
    zeb_debug_module_init();
    vt_test::ClearSyslog();
    const std::string n31(31, 'n');
    DBG_SetPidName(0, "x");
    DBG_SetPidName(61, std::string(32, 'n').c_str());
    DBG_SetPidName(61, "");
    DBG_SetPidName(61, n31.c_str());
    DBG_SetPidName(1014, "verify");
    EXPECT_EQ(CapturedSyslogTexts(),
              (Texts{"DBG_SetPidName: pid is inval\n", "DBG_SetPidName: pid_name is inval\n",
                     "DBG_SetPidName: pid_name is inval\n"}));
    EXPECT_EQ(std::string(DBG_GetPidName(61)), n31);
    EXPECT_STREQ(DBG_GetPidName(99), "<99>");
    vt_test::ClearSyslog();
    DBG_Log(1014, 2, "F", 1, 0, "named");
    EXPECT_EQ(CapturedSyslogTexts().at(0).substr(14),
              "[1500003f60000][ERR][named][verify][F,1][dbglog_tests]\n");

    // Level lines are written back as read; 1014's level mirrors the default (4)
    // after its log call, the others were never logged.
    const std::string file = "/startup_disk/conf/conf_local/pid_log_level.conf";
    EXPECT_EQ(save_pid_log_level(), 0);
    EXPECT_EQ(vt_test::ReadProductFile(file), "pid=60,level=2\npid=61,level=0\npid=1014,level=4\n");
    EXPECT_FALSE(vt_test::ProductFileExists(file + ".new"));
}

TEST_F(DbglogTables, KernelLevelRequests) {
    Start(true);
    vt_test::StandinSetKernelLevel(5, 1);
    EXPECT_EQ(DBG_SetPidLevel(40, 3), 0);
    EXPECT_EQ(vt_test::StandinKernelLevel(40), 3);
    ASSERT_NE(search_pid_conf(40), nullptr);
    EXPECT_EQ(search_pid_conf(40)->level, 3);
    EXPECT_EQ(DBG_GetPidLevel(40), 3u);
    EXPECT_EQ(LZEB_get_num_of_pid(), 2u);
    vt_test::StandinLevelEntry all[3] = {};
    EXPECT_EQ(DBG_GetAllPidLevel(all, 3), 0);
    EXPECT_EQ(all[0].pid, 5u);
    EXPECT_EQ(all[1].pid, 40u);
    EXPECT_EQ(all[1].level, 3u);
    EXPECT_EQ(LZEB_save_log_level(), 0);
    EXPECT_EQ(vt_test::StandinSaveCount(), 1);
    EXPECT_TRUE(CapturedSyslogTexts().empty());

    vt_test::StandinFailRequests(true);
    EXPECT_EQ(DBG_SetPidLevel(41, 3), -1);
    EXPECT_EQ(search_pid_conf(41), nullptr);
    EXPECT_EQ(DBG_GetAllPidLevel(all, 3), -1);
    EXPECT_EQ(LZEB_get_num_of_pid(), 0u);
    EXPECT_EQ(LZEB_save_log_level(), -1);
    EXPECT_EQ(DBG_GetAllPidLevel(nullptr, 3), -1);
    EXPECT_EQ(
        CapturedSyslogTexts(),
        (Texts{"execute ioctl set log level fail\n", "execute ioctl get all pid log level fail\n",
               "execute ioctl get pid num fail\n", "execute ioctl get log level fail\n",
               "<3>param array is NULL\n"}));
}

TEST_F(DbglogTables, LevelRequestsWithoutKernelModule) {
    Start(false);
    EXPECT_EQ(DBG_SetPidLevel(40, 3), -1);
    EXPECT_EQ(search_pid_conf(40), nullptr);
    EXPECT_EQ(DBG_GetPidLevel(40), 4u);
    EXPECT_EQ(LZEB_get_num_of_pid(), 0u);
    EXPECT_EQ(LZEB_save_log_level(), -1);
    EXPECT_EQ(CapturedSyslogTexts(), Texts{"open /proc/zeb/log_level fail\n"});
}

}  // namespace
