// Runs the sandboxed verify_tool as a subprocess and collects what it did.
#ifndef TESTS_TOOL_TOOL_RUNNER_H
#define TESTS_TOOL_TOOL_RUNNER_H

#include <string>
#include <vector>

namespace vt_test {

// One syslog record of the tool, split into its fields.
struct LogRecord {
    int priority = -1;
    std::string recordId;
    std::string level;
    std::string message;
    std::string module;
    std::string function;
    int line = 0;
    std::string process;
};

struct ToolRun {
    int exitStatus = -1;  // -1 when the process did not exit normally
    std::string stdoutText;
    std::string stderrText;
    std::vector<LogRecord> records;
    std::vector<std::string> unparsed;  // syslog lines that are not records
};

// Runs `argv` (argv[0] an absolute path, run under the tests' emulator when
// `emulated`) in a fresh temporary root; `env` ("NAME=value") is added to the
// little environment it gets.
ToolRun RunProgram(std::vector<std::string> argv, const std::vector<std::string> &env = {},
                   bool emulated = true);

// RunProgram on the sandboxed verify_tool with `args` (argv[1..]).
ToolRun RunTool(const std::vector<std::string> &args, const std::vector<std::string> &env = {});

std::string ReadFile(const std::string &path);

}  // namespace vt_test

#endif  // TESTS_TOOL_TOOL_RUNNER_H
