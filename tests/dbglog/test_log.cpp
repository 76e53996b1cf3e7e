// Log records end to end: filter, format, syslog priority, shared record.
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dbglog/dbglog.h"
#include "dbglog/internal.h"
#include "platform/lzeb_exec.h"
#include "tests/support/kmod_standin.h"
#include "tests/support/syslog_capture.h"

namespace {

using Texts = std::vector<std::string>;
using vt_test::CapturedSyslogTexts;
using vt_test::TheStandin;

// Each install starts the library afresh below the test's own root.
class DbglogRecord : public ::testing::Test {
  protected:
    void Start(bool withModule, gid_t gid = 0, std::optional<std::string> record = {}) {
        vt_test::InstallLoggingStandin(root_.path(), withModule);
        TheStandin().gid = gid;
        if (record) {
            vt_test::WriteProductFile("/dev/shm/dbglog.cfg", *record);
        }
        zeb_debug_module_init();
        vt_test::ClearSyslog();
    }
    vt_test::TempRoot root_;
};

// A shared record of `level`; `tail` fills bytes 5..15.
std::string Rec(uint8_t level, const std::string &tail = std::string(11, '\x5A')) {
    std::string record(4, '\0');
    const uint32_t magic = DBG_CONFIG_MAGIC;
    memcpy(record.data(), &magic, 4);
    return record + static_cast<char>(level) + tail;
}

// Under the default level 4 (INFO); records end in "[dbglog_tests]\n".
TEST_F(DbglogRecord, Format) {
    Start(false);
    const std::string f33 = std::string(32, 'b') + "Z";
    const struct {
        const char *name;
        uint32_t module, flags;
        int level;
        std::string function;
        int priority;      // -1: no record
        std::string want;  // the record up to the process name
        int64_t ns = 1000 * vt_test::kStandinSecond;
    } rows[] = {
        {"level 0", 1014, 0, 0, "F", -1, ""},
        {"CRI", 1014, 0, 1, "F", LOG_EMERG, "[ 1000.000000][1500003f60000][CRI][m][<1014>][F,7]"},
        {"ERR", 1014, 0, 2, "F", LOG_ERR, "[ 1000.000000][1500003f60000][ERR][m][<1014>][F,7]"},
        {"WARN", 1014, 0, 3, "", LOG_WARNING, "[ 1000.000000][1500003f60000][WARN][m][<1014>][,7]"},
        {"INFO", 1014, 0, 4, "F", LOG_NOTICE,
         "[ 1000.000000][1500003f60000][INFO][m][<1014>][F,7]"},
        {"DBG above the default", 1014, 0, 5, "F", -1, ""},
        {"flags above 0xFFFF", 1014, 0x7ABCD, 2, "F", LOG_ERR,
         "[ 1000.000000][1500003f6abcd][ERR][m][<1014>][F,7]"},
        {"largest module", 0xFFFFFFFF, 0xFFFF, 2, "F", LOG_ERR,
         "[ 1000.000000][15000ffffffff][ERR][m][<4294967295>][F,7]"},
        {"function of 33 characters", 1014, 0, 2, f33, LOG_ERR,
         "[ 1000.000000][1500003f60000][ERR][m][<1014>][" + std::string(29, 'b') + "..Z,7]"},
        {"microseconds", 1014, 0, 2, "F", LOG_ERR,
         "[   12.345678][1500003f60000][ERR][m][<1014>][F,7]", 12345678901},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        TheStandin().clockNs = row.ns;
        vt_test::ClearSyslog();
        DBG_Log(row.module, row.level, row.function.c_str(), 7, row.flags, "m");
        const auto got = vt_test::CapturedSyslog();
        ASSERT_EQ(got.size(), row.priority < 0 ? 0u : 1u);
        if (row.priority >= 0) {
            EXPECT_EQ(got[0].priority, row.priority);
            EXPECT_EQ(got[0].text, row.want + "[dbglog_tests]\n");
        }
    }
}

// Messages are cut at 159 characters; LZEB_log adds the process id.
TEST_F(DbglogRecord, LongMessagesAndLzebLog) {
    Start(false);
    const std::string head = "[ 1000.000000][1500003f60000][INFO][";
    const std::string process = "[dbglog_tests," + std::to_string(getpid()) + "]\n";
    DBG_Log(1014, 4, "Func", 9, 0, "%s", std::string(200, 'x').c_str());
    LZEB_log(1014, 4, "F", 2, 0, "hello %s", "there");
    LZEB_log(1014, 4, "F", 3, 0, "%s", std::string(170, 'y').c_str());
    EXPECT_EQ(CapturedSyslogTexts(),
              (Texts{
                  "DBG_Log: vsnprintf_s fail, err is -1 in Func func, 9 line [DBG_Log,1047].\n",
                  head + std::string(159, 'x') + "][<1014>][Func,9][dbglog_tests]\n",
                  head + "hello there][<1014>][F,2]" + process,
                  "vsnprintf_s fail, err is -1 in F func, 3 line [LZEB_log,1119].\n",
                  head + std::string(159, 'y') + "][<1014>][F,3]" + process,
              }));
    EXPECT_EQ(vt_test::CapturedSyslog()[0].priority, LOG_INFO);
}

// The kernel module's level of a module wins; 0 means the default level.
TEST_F(DbglogRecord, KernelLevel) {
    Start(true);
    const struct {
        uint8_t kernelLevel;
        int level;
        bool written;
        bool fails = false;  // the request fails: the default applies, and is said
    } rows[] = {
        {0, 4, true}, {0, 5, false}, {2, 2, true}, {2, 3, false}, {5, 5, true}, {5, 5, false, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.kernelLevel) + " " + std::to_string(row.level));
        TheStandin().levels[1014] = row.kernelLevel;
        TheStandin().failRequests = row.fails;
        vt_test::ClearSyslog();
        DBG_Log(1014, row.level, "F", 1, 0, "m");
        const auto texts = CapturedSyslogTexts();
        EXPECT_EQ(texts.size(), row.written || row.fails ? 1u : 0u);
        if (row.fails) {
            EXPECT_EQ(texts, Texts{"execute ioctl get log level fail\n"});
        }
    }
}

// Group 0 rebuilds a bad record, keeping bytes 8..15; another group goes on
// with INFO. No command child inherits a descriptor.
TEST_F(DbglogRecord, SharedRecordStates) {
    const std::string stars = std::string(32, ' ') + std::string(62, '*') + "\n";
    const std::string banner = stars + std::string(32, ' ') +
                               "Can not open print level config file, log will not write/read to "
                               "log file,gid=1000\n" +
                               stars;
    const std::string damaged =
        "/dev/shm/dbglog.cfg holds no valid record: the default level 4 applies\n";
    const std::string rebuilt = Rec(4, std::string(11, '\0'));
    const struct {
        const char *name;
        gid_t gid;
        std::optional<std::string> file;  // none: no record file
        std::string message;              // empty: none
        uint8_t level;
        std::string after = "";  // group 0: the file afterwards
    } rows[] = {
        {"other group, no file", 1000, std::nullopt, banner, 4},
        {"other group, short file", 1000, Rec(2).substr(0, 8),
         "/dev/shm/dbglog.cfg is shorter than its 16-byte record: the default level 4 applies\n",
         4},
        {"other group, bad magic", 1000, "\x02" + Rec(2).substr(1), damaged, 4},
        {"other group, sound record", 1000, Rec(2), "", 2},
        {"other group, level 5 (DBG)", 1000, Rec(5), "", 5},
        {"other group, level 6", 1000, Rec(6), damaged, 4},
        {"group 0, no file", 0, std::nullopt, "", 4, rebuilt},
        {"group 0, damaged", 0, std::string(16, '\xAA'), "", 4,
         Rec(4, std::string(3, '\0') + std::string(8, '\xAA'))},
        {"group 0, sound record", 0, Rec(2), "", 2, Rec(2)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        vt_test::InstallLoggingStandin(root_.path(), true);
        TheStandin().gid = row.gid;
        vt_test::ClearSyslog();
        unlink((root_.path() + "/dev/shm/dbglog.cfg").c_str());
        if (row.file) {
            vt_test::WriteProductFile("/dev/shm/dbglog.cfg", *row.file);
        }
        zeb_debug_module_init();
        EXPECT_EQ(CapturedSyslogTexts(), row.message.empty() ? Texts{} : Texts{row.message});
        EXPECT_EQ(dbg_default_level(), row.level);
        EXPECT_EQ(vt_test::ReadProductFile("/dev/shm/dbglog.cfg"),
                  row.gid == 0 ? row.after : row.file.value_or(""));
        EXPECT_GE(iFd_log_level, 0);
        EXPECT_GE(iFd_log_limit, 0);
        ASSERT_EQ(LZEB_Execute(("ls -l /proc/self/fd/ >" + root_.path() + "/fds").c_str()), 0);
        const std::string fds = vt_test::ReadProductFile("/fds");
        EXPECT_NE(fds.find("/fds"), std::string::npos);  // the listing names the child's own
        EXPECT_EQ(fds.find("/dev/shm/"), std::string::npos) << fds;
        EXPECT_EQ(fds.find("/proc/zeb/"), std::string::npos) << fds;
    }
}

// Only group 0 may change the default level, to 1..5, and only with a record.
TEST_F(DbglogRecord, SetDefaultLevel) {
    const std::string refused = "DBG_SetLogLevel error,v_iLogLevel (";
    const struct {
        gid_t initGid, setGid;
        bool record;  // a sound record of level 3 before the first call
        uint8_t level;
        int result;
        std::string message;  // empty: none
        uint8_t after;
    } rows[] = {
        {0, 0, true, 6, 0, refused + "6) gid (0).\n", 3},
        {0, 0, true, 5, 1, "", 5},
        {1000, 1000, true, 5, 0, refused + "5) gid (1000).\n", 3},
        {1000, 0, false, 3, 0, "Log Cfg file not opened.\n", 4},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.initGid) + " sets " + std::to_string(row.level));
        unlink((root_.path() + "/dev/shm/dbglog.cfg").c_str());
        Start(false, row.initGid, row.record ? std::optional(Rec(3)) : std::nullopt);
        TheStandin().gid = row.setGid;
        EXPECT_EQ(DBG_SetDefLogLevel(row.level), row.result);
        EXPECT_EQ(CapturedSyslogTexts(), row.message.empty() ? Texts{} : Texts{row.message});
        EXPECT_EQ(dbg_default_level(), row.after);
    }
}

}  // namespace
