// Command execution: raw wait statuses, the chaining guard, the character classes.
#include "platform/lzeb_exec.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

// "@" in a command stands for a marker file, which must exist exactly when
// the command ran.
TEST(LzebExec, ShellCommands) {
    char pattern[] = "/tmp/vt_exec_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string marker = std::string(pattern) + "/ran";
    const struct {
        const char *name, *command;
        int status;
    } rows[] = {
        {"exit code 1", "exit 1", 1 << 8},
        {"redirections run", "echo hi > @ 2>/dev/null </dev/null", 0},
        {"semicolon refused", "touch @; true", -1},
    };
    for (auto *run : {LZEB_system, LZEB_Execute}) {
        for (const auto &row : rows) {
            SCOPED_TRACE(row.name);
            std::string command = row.command;
            const size_t at = command.find('@');
            if (at != command.npos) {
                command.replace(at, 1, marker);
            }
            std::filesystem::remove(marker);
            EXPECT_EQ(run(command.c_str()), row.status);
            EXPECT_EQ(std::filesystem::exists(marker), at != command.npos && row.status != -1);
        }
        EXPECT_EQ(run(nullptr), -1);
        for (char chain : std::string(";&|\n()`$")) {
            EXPECT_EQ(run((std::string("true ") + chain + " true").c_str()), -1) << chain;
        }
    }
    std::filesystem::remove_all(pattern);
}

TEST(LzebExec, ArgumentVectors) {
    const struct {
        const char *name;
        std::vector<const char *> argv;  // null-terminated
        int status;
    } rows[] = {
        {"exit code", {"/bin/sh", "-c", "exit 4", nullptr}, 4 << 8},
        // Metacharacters in a vector are plain text: no shell parses them.
        {"arguments as given",
         {"/bin/sh", "-c", "[ \"$1\" = 'a;b||c' ]", "sh", "a;b||c", nullptr},
         0},
        {"no PATH search", {"sh", "-c", "exit 0", nullptr}, 127 << 8},
        {"signal kept raw", {"/bin/sh", "-c", "kill -9 $$", nullptr}, 9},
        {"null program", {nullptr}, -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(__zeb_execv(const_cast<char *const *>(row.argv.data()), 0, 0), row.status);
    }
    EXPECT_EQ(__zeb_execv(nullptr, 0, 0), -1);
}

TEST(LzebExec, CharacterClasses) {
    const struct {
        const char *text;
        int args, ips;  // the results of __zebusr_has_illegal_args and _ips
    } rows[] = {
        {"fe80::1/Log.conf9", 0, 0},
        {nullptr, 0, 0},
        {"/tmp/a-b_c.d,e=f+g@h%i#j:k", 0, 1},
        {"caf\xc3\xa9 \t", 0, 1},
    };
    int reserved = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text == nullptr ? "null" : row.text);
        EXPECT_EQ(__zebusr_has_illegal_args(row.text), row.args);
        EXPECT_EQ(__zebusr_has_illegal_ips(nullptr, row.text), row.ips);
        EXPECT_EQ(__zebusr_has_illegal_ips(&reserved, row.text), row.ips);
    }
    for (char meta : std::string("|;&$><{}()`\\'\"[]~?*!\n")) {
        SCOPED_TRACE(std::string("metacharacter ") + meta);
        EXPECT_EQ(__zebusr_has_illegal_args((std::string("ab") + meta + "cd").c_str()), 1);
    }
}

}  // namespace
