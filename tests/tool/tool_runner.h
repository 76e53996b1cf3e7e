// Runs a program of this project as a subprocess and collects what it did.
#ifndef TESTS_TOOL_TOOL_RUNNER_H
#define TESTS_TOOL_TOOL_RUNNER_H

#include <string>
#include <vector>

namespace vt_test {

struct ToolRun {
    int exitStatus = -1;  // -1 when the process did not exit normally
    std::string stdoutText;
    std::string stderrText;
    std::vector<std::string> logged;  // the message of every syslog record, in order
};

// Runs `argv` (argv[0] an absolute path; under the tests' emulator when
// `emulated`) with sandboxed logging and `env` ("NAME=value") added.
ToolRun RunProgram(std::vector<std::string> argv, const std::vector<std::string> &env = {},
                   bool emulated = true);

// RunProgram on the sandboxed program VT_SANDBOXED_TOOL with `args` (argv[1..]).
ToolRun RunTool(const std::vector<std::string> &args, const std::vector<std::string> &env = {});

std::string ReadFile(const std::string &path);

}  // namespace vt_test

#endif  // TESTS_TOOL_TOOL_RUNNER_H
