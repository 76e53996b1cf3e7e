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

using vt_test::CapturedSyslog;
using vt_test::SyslogRecord;

constexpr char kProcess[] = "dbglog_tests";

std::string Record(const std::string &id, const std::string &level, const std::string &text,
                   const std::string &module, const std::string &func, int line,
                   const std::string &process = kProcess) {
    return "[ 1000.000000][" + id + "][" + level + "][" + text + "][" + module + "][" + func + "," +
           std::to_string(line) + "][" + process + "]\n";
}

// Each install starts the library afresh below the test's own root.
class DbglogRecord : public ::testing::Test {
  protected:
    void Install(bool withModule, gid_t gid = 0) {
        vt_test::InstallLoggingStandin(root_.path(), withModule);
        vt_test::StandinSetProcessGid(gid);
        vt_test::ClearSyslog();
    }
    void Start(bool withModule = false) {
        Install(withModule);
        zeb_debug_module_init();
        vt_test::ClearSyslog();
    }
    vt_test::TempRoot root_;
};

TEST_F(DbglogRecord, LevelsMapToPrioritiesUnderDefaultLevel) {
    Start();
    struct Row {
        const char *name;
        int level;
        int priority;  // -1: no record
        const char *levelName;
    };
    const Row rows[] = {
        {"negative", -1, -1, ""},         {"zero", 0, -1, ""},
        {"CRI", 1, LOG_EMERG, "CRI"},     {"ERR", 2, LOG_ERR, "ERR"},
        {"WARN", 3, LOG_WARNING, "WARN"}, {"INFO", 4, LOG_NOTICE, "INFO"},
        {"DBG above default", 5, -1, ""}, {"six", 6, -1, ""},
    };
    for (const Row &row : rows) {
        vt_test::ClearSyslog();
        DBG_Log(1014, row.level, "Func", 7, 0, "v=%d", row.level);
        std::vector<SyslogRecord> got = CapturedSyslog();
        if (row.priority < 0) {
            EXPECT_TRUE(got.empty()) << row.name;
            continue;
        }
        ASSERT_EQ(got.size(), 1u) << row.name;
        EXPECT_EQ(got[0].priority, row.priority) << row.name;
        EXPECT_EQ(got[0].text, Record("1500003f60000", row.levelName,
                                      "v=" + std::to_string(row.level), "<1014>", "Func", 7))
            << row.name;
    }
}

TEST_F(DbglogRecord, RecordIdKeepsLowBitsOfModuleAndFlags) {
    Start();
    struct Row {
        const char *name;
        uint32_t module;
        uint32_t flags;
        const char *id;
        const char *moduleField;
    };
    const Row rows[] = {
        {"tool", 1014, 0, "1500003f60000", "<1014>"},
        {"flags above 0xFFFF", 1014, 0x7ABCD, "1500003f6abcd", "<1014>"},
        {"module above 0xFFFF", 0x10005, 0, "1500000050000", "<65541>"},
        {"largest module", 0xFFFFFFFF, 0xFFFF, "15000ffffffff", "<4294967295>"},
    };
    for (const Row &row : rows) {
        vt_test::ClearSyslog();
        DBG_Log(row.module, 2, "F", 1, row.flags, "m");
        EXPECT_EQ(vt_test::CapturedSyslogTexts(),
                  std::vector<std::string>{Record(row.id, "ERR", "m", row.moduleField, "F", 1)})
            << row.name;
    }
}

TEST_F(DbglogRecord, TimeStampIsMonotonicSecondsAndMicroseconds) {
    Start();
    vt_test::StandinSetClock(12, 345678901);
    DBG_Log(1014, 2, "F", 1, 0, "t");
    vt_test::StandinSetClock(123456, 999);
    DBG_Log(1014, 2, "F", 1, 0, "t");
    auto texts = vt_test::CapturedSyslogTexts();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0].substr(0, 14), "[   12.345678]");
    EXPECT_EQ(texts[1].substr(0, 15), "[123456.000000]");
}

TEST_F(DbglogRecord, LongMessageIsCutAfterDiagnostic) {
    Start();
    const std::string text(200, 'x');
    DBG_Log(1014, 2, "Func", 9, 0, "%s", text.c_str());
    std::vector<SyslogRecord> got = CapturedSyslog();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].priority, LOG_INFO);
    EXPECT_EQ(got[0].text,
              "DBG_Log: vsnprintf_s fail, err is -1 in Func func, 9 line [DBG_Log,1047].\n");
    EXPECT_EQ(got[1].text,
              Record("1500003f60000", "ERR", text.substr(0, 159), "<1014>", "Func", 9));
}

TEST_F(DbglogRecord, FunctionNamesAreShortenedFrom33Characters) {
    Start();
    const std::string n32(32, 'a');
    const std::string n33 = std::string(32, 'b') + "Z";
    const std::string n40 = std::string(39, 'c') + "Y";
    struct Row {
        const char *name;
        std::string function;
        std::string shown;
    };
    const Row rows[] = {
        {"32 characters whole", n32, n32},
        {"33 characters", n33, std::string(29, 'b') + "..Z"},
        {"40 characters", n40, std::string(29, 'c') + "..Y"},
        {"empty", "", ""},
    };
    for (const Row &row : rows) {
        vt_test::ClearSyslog();
        DBG_Log(1014, 3, row.function.c_str(), 5, 0, "m");
        EXPECT_EQ(
            vt_test::CapturedSyslogTexts(),
            std::vector<std::string>{Record("1500003f60000", "WARN", "m", "<1014>", row.shown, 5)})
            << row.name;
    }
}

TEST_F(DbglogRecord, LzebLogAddsProcessIdAndUsesItsOwnDiagnostic) {
    Start();
    const std::string process = std::string(kProcess) + "," + std::to_string(getpid());
    LZEB_log(1014, 4, "F", 2, 0, "hello %s", "there");
    LZEB_log(1014, 4, "F", 3, 0, "%s", std::string(170, 'y').c_str());
    DBG_Log(1014, 4, "F", 4, 0, "plain");
    auto texts = vt_test::CapturedSyslogTexts();
    const std::vector<std::string> want = {
        Record("1500003f60000", "INFO", "hello there", "<1014>", "F", 2, process),
        "vsnprintf_s fail, err is -1 in F func, 3 line [LZEB_log,1119].\n",
        Record("1500003f60000", "INFO", std::string(159, 'y'), "<1014>", "F", 3, process),
        Record("1500003f60000", "INFO", "plain", "<1014>", "F", 4),
    };
    EXPECT_EQ(texts, want);
}

TEST_F(DbglogRecord, KernelLevelZeroMeansDefaultLevel) {
    Start(true);
    struct Row {
        const char *name;
        uint8_t kernelLevel;
        int level;
        bool written;
    };
    const Row rows[] = {
        {"kernel 0, INFO passes", 0, 4, true}, {"kernel 0, DBG dropped", 0, 5, false},
        {"kernel 2, ERR passes", 2, 2, true},  {"kernel 2, WARN dropped", 2, 3, false},
        {"kernel 5, DBG passes", 5, 5, true},
    };
    for (const Row &row : rows) {
        vt_test::StandinSetKernelLevel(1014, row.kernelLevel);
        vt_test::ClearSyslog();
        DBG_Log(1014, row.level, "F", 1, 0, "m");
        EXPECT_EQ(CapturedSyslog().size(), row.written ? 1u : 0u) << row.name;
    }
    // A failing request falls back to the default level and says so.
    vt_test::StandinSetKernelLevel(1014, 5);
    vt_test::StandinFailRequests(true);
    vt_test::ClearSyslog();
    DBG_Log(1014, 5, "F", 1, 0, "m");
    EXPECT_EQ(vt_test::CapturedSyslogTexts(),
              std::vector<std::string>{"execute ioctl get log level fail\n"});
}

TEST_F(DbglogRecord, GroupZeroProcessInitialisesSharedRecord) {
    Install(false);
    // Bytes 8..15 belong to others and must survive initialisation.
    vt_test::WriteProductFile("/dev/shm/dbglog.cfg", std::string(16, '\xAA'));
    zeb_debug_module_init();
    std::string file = vt_test::ReadProductFile("/dev/shm/dbglog.cfg");
    ASSERT_GE(file.size(), 16u);
    uint32_t magic;
    memcpy(&magic, file.data(), 4);
    EXPECT_EQ(magic, DBG_CONFIG_MAGIC);
    EXPECT_EQ(file[4], 4);
    EXPECT_EQ(file.substr(5, 3), std::string(3, '\0'));
    EXPECT_EQ(file.substr(8, 8), std::string(8, '\xAA'));
    ASSERT_NE(DBG_GetLogConfig(), nullptr);
    EXPECT_EQ(DBG_GetLogConfig()->defaultLevel, 4);
    // Without the kernel module both control files are reported missing.
    EXPECT_EQ(vt_test::CapturedSyslogTexts(),
              (std::vector<std::string>{"open /proc/zeb/log_level fail\n",
                                        "open /proc/zeb/mod_ring_buffer fail\n"}));
}

std::string InitialisedRecord(uint8_t level) {
    std::string record(16, '\x5A');
    const uint32_t magic = DBG_CONFIG_MAGIC;
    memcpy(record.data(), &magic, 4);
    record[4] = static_cast<char>(level);
    return record;
}

TEST_F(DbglogRecord, ExistingRecordKeepsItsLevel) {
    Install(false);
    vt_test::WriteProductFile("/dev/shm/dbglog.cfg", InitialisedRecord(2));
    DBG_Log(1014, 2, "F", 1, 0, "kept");
    DBG_Log(1014, 3, "F", 1, 0, "dropped");
    auto texts = vt_test::CapturedSyslogTexts();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.back(), Record("1500003f60000", "ERR", "kept", "<1014>", "F", 1));
    EXPECT_EQ(vt_test::ReadProductFile("/dev/shm/dbglog.cfg").substr(0, 16), InitialisedRecord(2));
}

TEST_F(DbglogRecord, SetDefaultLevelFromGroupZero) {
    Start();
    struct Row {
        const char *name;
        uint8_t level;
        int result;
        const char *message;  // null: none
    };
    const Row rows[] = {
        {"level 0", 0, 0, "DBG_SetLogLevel error,v_iLogLevel (0) gid (0).\n"},
        {"level 6", 6, 0, "DBG_SetLogLevel error,v_iLogLevel (6) gid (0).\n"},
        {"level 5", 5, 1, nullptr},
        {"level 1", 1, 1, nullptr},
    };
    uint8_t expected = 4;
    for (const Row &row : rows) {
        vt_test::ClearSyslog();
        EXPECT_EQ(DBG_SetDefLogLevel(row.level), row.result) << row.name;
        std::vector<std::string> want;
        if (row.message != nullptr) {
            want.push_back(row.message);
        } else {
            expected = row.level;
        }
        EXPECT_EQ(vt_test::CapturedSyslogTexts(), want) << row.name;
        EXPECT_EQ(DBG_GetLogConfig()->defaultLevel, expected) << row.name;
    }
    vt_test::ClearSyslog();
    DBG_Log(1014, 2, "F", 1, 0, "below CRI-only level");
    EXPECT_TRUE(CapturedSyslog().empty());
}

TEST_F(DbglogRecord, OtherGroupUsesRecordAsFoundAndMayNotChangeIt) {
    Install(false, 1000);
    vt_test::WriteProductFile("/dev/shm/dbglog.cfg", InitialisedRecord(3));
    zeb_debug_module_init();
    vt_test::ClearSyslog();
    EXPECT_EQ(DBG_SetDefLogLevel(5), 0);
    EXPECT_EQ(vt_test::CapturedSyslogTexts(),
              std::vector<std::string>{"DBG_SetLogLevel error,v_iLogLevel (5) gid (1000).\n"});
    EXPECT_EQ(DBG_GetLogConfig()->defaultLevel, 3);
    vt_test::ClearSyslog();
    DBG_Log(1014, 4, "F", 1, 0, "dropped at level 3");
    EXPECT_TRUE(CapturedSyslog().empty());
}

// Whatever state the shared record is in, a level of 1..5 applies and the
// kernel module's control files are opened, close-on-exec: no child of the
// library's command execution inherits a descriptor of the library. Group 0
// rebuilds a short or damaged record; another group goes on with INFO and
// says so once.
TEST_F(DbglogRecord, SharedRecordStates) {
    const std::string pad(32, ' ');
    const std::string stars(62, '*');
    const std::string banner = pad + stars + "\n" + pad +
                               "Can not open print level config file, log will not write/read to "
                               "log file,gid=1000\n" +
                               pad + stars + "\n";
    const std::string damaged =
        "/dev/shm/dbglog.cfg holds no valid record: the default level 4 applies\n";
    struct Row {
        const char *name;
        gid_t gid;
        std::optional<std::string> file;  // none: no record file
        std::string message;              // empty: none
        bool mapped;
        uint8_t level;
    };
    const Row rows[] = {
        {"other group, no file", 1000, std::nullopt, banner, false, 4},
        {"other group, short file", 1000, InitialisedRecord(2).substr(0, 8),
         "/dev/shm/dbglog.cfg is shorter than its 16-byte record: the default level 4 applies\n",
         false, 4},
        {"other group, bad magic", 1000, "\x02" + InitialisedRecord(2).substr(1), damaged, true, 4},
        {"other group, level 0", 1000, InitialisedRecord(0), damaged, true, 4},
        {"other group, sound record", 1000, InitialisedRecord(2), "", true, 2},
        {"other group, level 5 (DBG)", 1000, InitialisedRecord(5), "", true, 5},
        {"other group, level 6", 1000, InitialisedRecord(6), damaged, true, 4},
        {"group 0, short file", 0, std::string(8, '\x5A'), "", true, 4},
        {"group 0, level 9", 0, InitialisedRecord(9), "", true, 4},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Install(true, row.gid);
        if (row.file) {
            vt_test::WriteProductFile("/dev/shm/dbglog.cfg", *row.file);
        }
        zeb_debug_module_init();
        EXPECT_EQ(vt_test::CapturedSyslogTexts(), row.message.empty()
                                                      ? std::vector<std::string>{}
                                                      : std::vector<std::string>{row.message});
        EXPECT_EQ(DBG_GetLogConfig() != nullptr, row.mapped);
        EXPECT_EQ(dbg_default_level(), row.level);
        if (row.gid == 0) {
            EXPECT_EQ(vt_test::ReadProductFile("/dev/shm/dbglog.cfg").substr(0, 5),
                      InitialisedRecord(4).substr(0, 5));
        }
        EXPECT_GE(iFd_log_level, 0);
        EXPECT_GE(iFd_log_limit, 0);
        ASSERT_EQ(LZEB_Execute(("ls -l /proc/self/fd/ >" + root_.path() + "/fds").c_str()), 0);
        const std::string fds = vt_test::ReadProductFile("/fds");
        EXPECT_NE(fds.find("/fds"), std::string::npos);  // the listing names the child's own
        EXPECT_EQ(fds.find("/dev/shm/"), std::string::npos) << fds;
        EXPECT_EQ(fds.find("/proc/zeb/"), std::string::npos) << fds;
    }
}

TEST_F(DbglogRecord, WithoutSharedRecordInfoIsTheDefault) {
    // Another group cannot create the record: level 4 applies.
    Install(true, 1000);
    zeb_debug_module_init();
    EXPECT_EQ(DBG_GetLogConfig(), nullptr);
    vt_test::StandinSetProcessGid(0);
    vt_test::ClearSyslog();
    EXPECT_EQ(DBG_SetDefLogLevel(3), 0);
    EXPECT_EQ(vt_test::CapturedSyslogTexts(),
              std::vector<std::string>{"Log Cfg file not opened.\n"});
    vt_test::ClearSyslog();
    DBG_Log(1014, 4, "F", 1, 0, "info");
    DBG_Log(1014, 5, "F", 1, 0, "debug");
    EXPECT_EQ(vt_test::CapturedSyslogTexts(),
              std::vector<std::string>{Record("1500003f60000", "INFO", "info", "<1014>", "F", 1)});
}

}  // namespace
