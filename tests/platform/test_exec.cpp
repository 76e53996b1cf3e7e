// Command execution: raw wait statuses, the chaining guard, the character classes.
#include "platform/lzeb_exec.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <string>

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

// Unused by the product: one run, one exec failure, one refusal each.
TEST(LzebExec, ArgumentVectors) {
    const char *exitFour[] = {"/bin/sh", "-c", "exit 4", nullptr};
    const char *noPath[] = {"sh", "-c", "exit 0", nullptr};
    const char *none[] = {nullptr};
    EXPECT_EQ(__zeb_execv(const_cast<char *const *>(exitFour), 0, 0), 4 << 8);
    EXPECT_EQ(__zeb_execv(const_cast<char *const *>(noPath), 0, 0), 127 << 8);
    EXPECT_EQ(__zeb_execv(const_cast<char *const *>(none), 0, 0), -1);
    EXPECT_EQ(__zeb_execv(nullptr, 0, 0), -1);
}

TEST(LzebExec, CharacterClasses) {
    EXPECT_EQ(__zebusr_has_illegal_args("fe80::1/Log.conf9 a-b"), 0);
    EXPECT_EQ(__zebusr_has_illegal_args("ab;cd"), 1);
    EXPECT_EQ(__zebusr_has_illegal_args(nullptr), 0);
    EXPECT_EQ(__zebusr_has_illegal_ips(nullptr, "fe80::1/Log.conf9"), 0);
    EXPECT_EQ(__zebusr_has_illegal_ips(nullptr, "a-b"), 1);
    EXPECT_EQ(__zebusr_has_illegal_ips(nullptr, nullptr), 0);
}

}  // namespace
