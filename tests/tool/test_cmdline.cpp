// The tool's command line and dispatch, run as a real subprocess.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/tool/tool_runner.h"

namespace {

using vt_test::RunTool;
using vt_test::ToolRun;

struct Expected {
    std::string level;
    std::string function;
    std::string message;
};

struct CmdCase {
    const char *name;
    std::vector<std::string> args;
    int exitStatus;
    std::vector<Expected> records;
    const char *stderrHas;  // a word getopt's own diagnostic must contain, or null
};

const std::string kLongCrl(200, 'c');
const std::string kLongOpcode = "CHECK_PKG_INTEGRITY" + std::string(21, 'X');

const Expected kParseFail = {"ERR", "UPGRADE_MainExe", "Upgrade Command parse fail!"};
const Expected kExecFail = {"ERR", "UPGRADE_MainExe", "Verify KTR Command exec fail!"};

Expected Info(const std::string &message) {
    return {"INFO", "UPGRADE_CmdParseSingle", message};
}
Expected NotFound(const std::string &opcode) {
    return {"ERR", "UPGRADE_CmdExe", "VERIFY_TOOL: Cannot find opcode(" + opcode + ")."};
}

const CmdCase kCases[] = {
    {"unknown_opcode",
     {"-f", "nope"},
     255,
     {Info("The Opcode is : nope."), NotFound("nope"), kExecFail},
     nullptr},
    {"lower_case_opcode",
     {"-f", "check_pkg_integrity"},
     255,
     {Info("The Opcode is : check_pkg_integrity."), NotFound("check_pkg_integrity"), kExecFail},
     nullptr},
    {"no_opcode_at_all", {}, 255, {NotFound(""), kExecFail}, nullptr},
    {"eleven_words_refused_before_parsing",
     {"-f", "CHECK_PKG_INTEGRITY", "-h", "a", "-e", "b", "-c", "d", "x", "y"},
     255,
     {{"ERR", "UPGRADE_CmdParse", "API parameter error."}, kParseFail},
     nullptr},
    {"ten_words_accepted_and_loose_words_ignored",
     {"-f", "nope", "-h", "a", "-e", "b", "-c", "d", "x"},
     255,
     {Info("The Opcode is : nope."), Info("The path of cms file is (a)."),
      Info("The path of checksum file is : b."), Info("The path of crl file is : d."),
      NotFound("nope"), kExecFail},
     nullptr},
    {"option_without_argument",
     {"-f", "nope", "-c"},
     255,
     {Info("The Opcode is : nope."),
      {"ERR", "UPGRADE_CmdParse", "API parameter parse fail."},
      kParseFail},
     "requires an argument"},
    {"unknown_option_stops_parsing",
     {"-x", "-f", "nope"},
     255,
     {{"ERR", "UPGRADE_CmdParse", "API parameter parse fail."}, kParseFail},
     "invalid option"},
    {"crl_path_of_128_refused",
     {"-c", kLongCrl.substr(0, 128), "-f", "nope"},
     255,
     {{"ERR", "UPGRADE_CmdParseSingle", "Argument of -c is longer than 127 characters."},
      {"ERR", "UPGRADE_CmdParse", "API parameter parse fail."},
      kParseFail},
     nullptr},
    {"crl_path_of_127_accepted",
     {"-c", kLongCrl.substr(0, 127), "-f", "nope"},
     255,
     {Info("The path of crl file is : " + kLongCrl.substr(0, 127) + "."),
      Info("The Opcode is : nope."), NotFound("nope"), kExecFail},
     nullptr},
    {"opcode_of_32_refused",
     {"-f", kLongOpcode.substr(0, 32)},
     255,
     {{"ERR", "UPGRADE_CmdParseSingle", "Argument of -f is longer than 31 characters."},
      {"ERR", "UPGRADE_CmdParse", "API parameter parse fail."},
      kParseFail},
     nullptr},
    {"option_twice_keeps_last",
     {"-f", "first", "-f", "nope"},
     255,
     {Info("The Opcode is : first."), Info("The Opcode is : nope."), NotFound("nope"), kExecFail},
     nullptr},
};

const std::vector<std::string> kStartupDiagnostics = {"<6>open /proc/zeb/log_level fail",
                                                      "<6>open /proc/zeb/mod_ring_buffer fail"};

void PrintTo(const CmdCase &c, std::ostream *os) {
    *os << c.name;
}

class CmdLineTest : public testing::TestWithParam<CmdCase> {};

TEST_P(CmdLineTest, ExitStatusAndRecords) {
    const CmdCase &c = GetParam();
    ToolRun run = RunTool(c.args);
    EXPECT_EQ(run.exitStatus, c.exitStatus);
    // Without the kernel module the logging library reports its two missing
    // control files once, at start-up; nothing else may be there.
    EXPECT_EQ(run.unparsed, kStartupDiagnostics);
    ASSERT_EQ(run.records.size(), c.records.size());
    for (size_t i = 0; i < c.records.size(); ++i) {
        const auto &got = run.records[i];
        const auto &want = c.records[i];
        EXPECT_EQ(got.level, want.level) << "record " << i;
        EXPECT_EQ(got.function, want.function) << "record " << i;
        EXPECT_EQ(got.message, want.message) << "record " << i;
        // Fields every record of the tool shares.
        EXPECT_EQ(got.recordId, "1500003f60000");
        EXPECT_EQ(got.module, "<1014>");
        EXPECT_EQ(got.process, "verify_tool_sandboxed");
        EXPECT_EQ(got.priority, want.level == "ERR" ? 3 : 5);
    }
    if (c.stderrHas != nullptr) {
        EXPECT_NE(run.stderrText.find(c.stderrHas), std::string::npos) << run.stderrText;
    }
}

INSTANTIATE_TEST_SUITE_P(Tool, CmdLineTest, testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

// The handler row is reached and its result, printed signed, becomes the exit
// status: a CRL file that cannot be opened fails with 0x88000101.
TEST(CmdLine, KnownOpcodeRunsItsHandler) {
    ToolRun run =
        RunTool({"-f", "CHECK_PKG_INTEGRITY", "-h", "s", "-e", "e", "-c", "/nonexistent"});
    ASSERT_GE(run.records.size(), 6u);
    EXPECT_EQ(run.records[4].message, "VERIFY_TOOL: Execute function (CHECK_PKG_INTEGRITY).");
    EXPECT_EQ(run.records[4].function, "UPGRADE_CmdExe");
    const auto &last = run.records.back();
    const auto &beforeLast = run.records[run.records.size() - 2];
    EXPECT_EQ(beforeLast.message, "VERIFY_TOOL: Execute ret(-2013265663).");
    EXPECT_EQ(last.message, "Verify KTR Command exec fail!");
    EXPECT_EQ(run.exitStatus, 1);
}

}  // namespace
