// Group and module tables: lines, files, setters, saves, kernel level requests.
#include <array>
#include <filesystem>
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
    void Start(bool withModule = false) {
        vt_test::InstallLoggingStandin(root_.path(), withModule);
        zeb_debug_module_init();
        vt_test::ClearSyslog();
    }
    vt_test::TempRoot root_;
};

// A refused line leaves the group as it was; gid 0 below: nothing stored.
TEST_F(DbglogTables, GroupLines) {
    Start();
    const struct {
        const char *line;
        int result;
        uint32_t gid;
        std::array<uint32_t, 4> limits{};  // num, interval, burst, resume
    } rows[] = {
        {"gid=7,num=5,interval=1\n", 0, 7, {5, 1, 0, 86400}},
        {"gid=8,num=6,interval=2,burst=3,resume=9\n", 0, 8, {6, 2, 3, 9}},
        {"gid=7,num=6,interval=1,burst=x\n", -22, 7, {5, 1, 0, 86400}},
        {"gid=7,num=99999999999,interval=1\n", -22, 7, {5, 1, 0, 86400}},
        {"gid=8,num=6,interval=2,burst=3,resume=4junk\n", -22, 8, {6, 2, 3, 9}},
        {"gid=9,num=5,interval=1,burst=3\n", -22, 0},
        {"gid=0,num=5,interval=1\n", -22, 0},
        {"gid=4294967295,num=5,interval=1\n", -22, 0},
        {"gid=11,num=5,interval=1 # old\n", 0, 0},
        {"\n", 0, 0},
    };
    for (const auto &row : rows) {
        std::string line = row.line;
        EXPECT_EQ(read_gid_conf_line(line.data(), 0), row.result) << row.line;
        if (row.gid != 0) {
            ASSERT_NE(search_gid_conf(row.gid), nullptr) << row.line;
            const RateLimitState &s = search_gid_conf(row.gid)->state;
            EXPECT_EQ((std::array{s.num, s.baseNum, s.interval, s.burst, s.burstLeft, s.resume}),
                      (std::array{row.limits[0], row.limits[0], row.limits[1], row.limits[2],
                                  row.limits[2], row.limits[3]}))
                << row.line;
        }
    }
    for (uint32_t gid : {9u, 11u}) {
        EXPECT_EQ(search_gid_conf(gid), nullptr) << gid;
    }
}

// pid 0 below: nothing stored; gid 0: no group.
TEST_F(DbglogTables, ModuleLines) {
    Start();
    const struct {
        const char *line;
        int result;
        uint32_t pid;
        const char *name = "";
        uint32_t gid = 0;
    } rows[] = {
        {"pid=7,pid_name=cms,gid=12\n", 0, 7, "cms", 12},
        {"pid=8 gid=12\n", 0, 8, "", 12},
        {"pid=9,pid_name=x\n", 0, 9, "x", 0},
        {"pid=7 pid_name=other gid=13\n", 0, 7, "cms", 13},  // keeps its first name
        {"pid=13,pid_name=abcdefghijklmnopqrstuvwxyz012345,gid=12\n", -22, 0},  // 32 characters
        {"pid=10\n", -22, 0},
        {"pid=11,pid_name=y,gid=0\n", -22, 0},
        {"pid=0,gid=3\n", -22, 0},
        {"pid=12,gid=3 #\n", 0, 0},
    };
    for (const auto &row : rows) {
        std::string line = row.line;
        EXPECT_EQ(read_pid_conf_line(line.data()), row.result) << row.line;
        if (row.pid != 0) {
            PidRecord *p = search_pid_conf(row.pid);
            ASSERT_NE(p, nullptr) << row.line;
            EXPECT_STREQ(p->name, row.name) << row.line;
            EXPECT_EQ(p->group != nullptr ? p->group->gid : 0, row.gid) << row.line;
        }
    }
    for (uint32_t pid : {0u, 10u, 11u, 12u, 13u}) {
        EXPECT_EQ(search_pid_conf(pid), nullptr) << pid;
    }
    // A group first named by a module line has no quota.
    EXPECT_EQ(search_gid_conf(13)->state.num, 0xFFFFFFFFu);
}

// Files load system, package, local; a reset re-reads all but local.
TEST_F(DbglogTables, FilesLimitsAndSaves) {
    const std::string local = "/startup_disk/conf/conf_local/";
    vt_test::InstallLoggingStandin(root_.path(), false);
    vt_test::ClearSyslog();
    vt_test::WriteProductFile(
        "/KELM/conf/gid_print_limit.conf",
        "gid=20,num=1610612736,interval=1\ngid=21,num=4,interval=1,burst=3\n");
    vt_test::WriteProductFile("/etc/zeb/pid/log_pkg", "gid=22,num=8,interval=2\n");
    vt_test::WriteProductFile("/etc/zeb/pid/pid_pkg",
                              "pid=50,pid_name=pkg,gid=22\npid=52,gid=24\n");
    vt_test::WriteProductFile("/etc/zeb/pid/unrelated", "gid=23,num=1,interval=1\n");
    vt_test::WriteProductFile(local + "gid_log_ratelimit.conf", "gid=20,num=5,interval=1\n");
    vt_test::WriteProductFile(local + "pid_log_level.conf",
                              "pid=50,level=2\npid=51 level=3\npid=51 level=300\n");
    zeb_debug_module_init();
    EXPECT_EQ(CapturedSyslogTexts()[0],
              "read_gid_conf: /KELM/conf/gid_print_limit.conf read_gid_conf_line fail, "
              "(gid=21,num=4,interval=1,burst=3\n)\n");
    EXPECT_EQ(search_gid_conf(23), nullptr);
    EXPECT_EQ(search_pid_conf(50)->group, search_gid_conf(22));
    EXPECT_EQ(search_pid_conf(50)->level, 2);
    EXPECT_EQ(search_pid_conf(51)->level, 3);
    const RateLimitState &s = search_gid_conf(20)->state;
    EXPECT_EQ(s.num, 5u);

    const std::string capped =
        "<4>The number of logs of gid=20 after you have increased is more "
        "than 4294967295, it will only be set to 4294967295 ";
    const struct {
        uint32_t gid, multiple;
        int result;
        uint32_t checked, num;  // the quota of group `checked` afterwards
        std::string log;        // empty: none
    } rows[] = {
        {20, 2, 0, 20, 3221225472u, ""},
        {20, 3, 0, 20, 0xFFFFFFFFu, capped + "[LZEB_set_log_ratelimit].\n"},
        {20, 0, -22, 20, 0xFFFFFFFFu,
         "<3>The input param multiple is zero[LZEB_set_log_ratelimit].\n"},
        {99, 2, -22, 20, 0xFFFFFFFFu, "<3>LZEB_set_log_ratelimit: gid=99 is inval\n"},
        {24, 2, 0, 24, 0xFFFFFFFFu, ""},  // no base quota: stays unlimited
    };
    for (const auto &row : rows) {
        vt_test::ClearSyslog();
        EXPECT_EQ(LZEB_set_log_ratelimit(row.gid, row.multiple), row.result) << row.gid;
        EXPECT_EQ(search_gid_conf(row.checked)->state.num, row.num) << row.gid;
        EXPECT_EQ(CapturedSyslogTexts(), row.log.empty() ? Texts{} : Texts{row.log}) << row.gid;
    }
    EXPECT_EQ(LZEB_reset_log_ratelimit(), 0);
    EXPECT_EQ(s.num, 1610612736u);
    EXPECT_EQ(search_gid_conf(22)->state.num, 8u);

    uint32_t num = 0;
    uint32_t interval = 0;
    vt_test::ClearSyslog();
    EXPECT_EQ(LZEB_set_log_num_interval(0, 1, 1), -22);
    EXPECT_EQ(LZEB_get_log_num_interval(31, &num, &interval), -22);
    EXPECT_EQ(LZEB_set_log_num_interval(31, 40, 3), 0);
    EXPECT_EQ(LZEB_get_log_num_interval(31, &num, &interval), 0);
    EXPECT_EQ(num * 100 + interval, 4003u);
    EXPECT_EQ(LZEB_save_log_ratelimit(), 0);
    const std::string limits = root_.path() + local + "gid_log_ratelimit.conf";
    EXPECT_EQ(CapturedSyslogTexts(), (Texts{"<3>LZEB_set_log_num_interval: gid is inval\n",
                                            "<3>LZEB_get_log_num_interval: gid 31 is not exist\n",
                                            "<6>mv -f " + limits + ".new " + limits + " 2>" +
                                                root_.path() + "/dev/kmsg\n"}));
    EXPECT_EQ(vt_test::ReadProductFile(local + "gid_log_ratelimit.conf"),
              "gid=20,num=1610612736,interval=1,burst=0,resume=86400\n"
              "gid=22,num=8,interval=2,burst=0,resume=86400\n"
              "gid=24,num=4294967295,interval=1,burst=0,resume=86400\n"
              "gid=31,num=40,interval=3,burst=0,resume=86400\n");
    EXPECT_FALSE(std::filesystem::exists(limits + ".new"));

    // Names of up to 31 characters; level lines are written back as read.
    vt_test::ClearSyslog();
    DBG_SetPidName(61, std::string(32, 'n').c_str());
    DBG_SetPidName(61, std::string(31, 'n').c_str());
    EXPECT_EQ(std::string(DBG_GetPidName(61)), std::string(31, 'n'));
    EXPECT_STREQ(DBG_GetPidName(99), "<99>");
    EXPECT_EQ(CapturedSyslogTexts(), Texts{"DBG_SetPidName: pid_name is inval\n"});
    EXPECT_EQ(save_pid_log_level(), 0);
    EXPECT_EQ(vt_test::ReadProductFile(local + "pid_log_level.conf"),
              "pid=50,level=2\npid=51,level=3\npid=52,level=0\npid=61,level=0\n");
    EXPECT_FALSE(std::filesystem::exists(root_.path() + local + "pid_log_level.conf.new"));
}

// Module levels go to the kernel module and back.
TEST_F(DbglogTables, KernelLevelRequests) {
    const std::string null = "<3>param array is NULL\n";
    const std::string nofile = "open /proc/zeb/log_level fail\n";
    const Texts failing = {
        "execute ioctl set log level fail\n", "execute ioctl get log level fail\n",
        "execute ioctl get pid num fail\n",   "execute ioctl get all pid log level fail\n",
        "execute ioctl get log level fail\n", null};
    const struct {
        const char *name;
        bool module, fails;
        int result;  // of the setter, the listing and the save
        uint32_t level, count;
        Texts logs;
    } rows[] = {
        {"module", true, false, 0, 3, 2, {null}},
        {"failing module", true, true, -1, 4, 0, failing},
        {"no module", false, false, -1, 4, 0, {nofile, nofile, null}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Start(row.module);
        vt_test::TheStandin().levels[5] = 1;
        vt_test::TheStandin().failRequests = row.fails;
        vt_test::StandinLevelEntry all[3] = {};
        EXPECT_EQ(DBG_SetPidLevel(40, 3), row.result);
        EXPECT_EQ(search_pid_conf(40) != nullptr, row.result == 0);
        EXPECT_EQ(DBG_GetPidLevel(40), row.level);
        EXPECT_EQ(LZEB_get_num_of_pid(), row.count);
        EXPECT_EQ(DBG_GetAllPidLevel(all, 3), row.result);
        EXPECT_EQ(LZEB_save_log_level(), row.result);
        EXPECT_EQ(DBG_GetAllPidLevel(nullptr, 3), -1);
        EXPECT_EQ(CapturedSyslogTexts(), row.logs);
        if (row.result == 0) {
            EXPECT_EQ(vt_test::TheStandin().levels[40], 3);
            EXPECT_EQ(all[0].pid * 10 + all[0].level, 51u);
            EXPECT_EQ(all[1].pid * 10 + all[1].level, 403u);
            EXPECT_EQ(vt_test::TheStandin().saves, 1);
        }
    }
}

}  // namespace
