#include "tests/tool/tool_runner.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

namespace vt_test {

std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

namespace {

// "<prio>[secs.usecs][id][level][message][module][function,line][process]";
// other lines (the logging library's own start-up notes) are not records.
void ParseSyslog(const std::string &text, ToolRun *run) {
    static const std::regex kRecord(
        R"(<\d+>\[ *\d+\.\d{6}\]\[[0-9a-f]+\]\[[A-Z]*\]\[(.*)\]\[[^\]]*\]\[[^,\]]*,-?\d+\]\[[^\]]*\])");
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::smatch m;
        if (std::regex_match(line, m, kRecord)) {
            run->logged.push_back(m[1]);
        }
    }
}

// The null-terminated array execve takes.
std::vector<char *> Pointers(std::vector<std::string> &words) {
    std::vector<char *> out;
    for (auto &w : words) {
        out.push_back(w.data());
    }
    out.push_back(nullptr);
    return out;
}

}  // namespace

ToolRun RunTool(const std::vector<std::string> &args, const std::vector<std::string> &env) {
    std::vector<std::string> argv = {VT_SANDBOXED_TOOL};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProgram(std::move(argv), env);
}

ToolRun RunProgram(std::vector<std::string> argvStore, const std::vector<std::string> &extraEnv,
                   bool emulated) {
    ToolRun run;
    char pattern[] = "/tmp/vt_tool_XXXXXX";
    const char *dir = mkdtemp(pattern);
    if (dir == nullptr) {
        return run;
    }
    const std::filesystem::path root(dir);
    const std::string syslogFile = (root / "syslog.txt").string();
    const std::string outFile = (root / "stdout.txt").string();
    const std::string errFile = (root / "stderr.txt").string();

    std::vector<std::string> env = {"VT_TEST_ROOT=" + (root / "sys").string(),
                                    "VT_SYSLOG_FILE=" + syslogFile};
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());

    // A cross-built tool runs under the tests' emulator (words, the first a path).
    std::istringstream emulator(emulated ? VT_TOOL_EMULATOR : "");
    std::vector<std::string> words;
    for (std::string word; emulator >> word;) {
        words.push_back(word);
    }
    argvStore.insert(argvStore.begin(), words.begin(), words.end());

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    pid_t pid;
    const int rc = posix_spawn(&pid, argvStore.front().c_str(), &actions, nullptr,
                               Pointers(argvStore).data(), Pointers(env).data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc == 0) {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    run.stdoutText = ReadFile(outFile);
    run.stderrText = ReadFile(errFile);
    ParseSyslog(ReadFile(syslogFile), &run);
    std::filesystem::remove_all(root);
    return run;
}

}  // namespace vt_test
