#include "platform/lzeb_exec.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

class ExecTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/vt_exec_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    // Replaces every "@" with the temporary directory.
    std::string InDir(const std::string &text) const {
        std::string out;
        for (char c : text) {
            out += c == '@' ? dir_ : std::string(1, c);
        }
        return out;
    }
    bool Exists(const char *name) const { return std::filesystem::exists(dir_ + "/" + name); }

    std::string dir_;
};

TEST_F(ExecTest, ShellCommands) {
    const struct {
        const char *name;
        const char *command;
        int status;
        const char *marker;  // file the command creates; it must exist exactly when run
    } rows[] = {
        {"exit code 1", "exit 1", 1 << 8, nullptr},
        {"double ampersand runs", "true && touch @/and && exit 3", 3 << 8, "and"},
        {"semicolon at the end runs", "touch @/end;", 0, "end"},
        {"semicolon inside refused", "touch @/semi; true", -1, "semi"},
        {"semicolon first refused", ";touch @/first", -1, "first"},
        {"double pipe refused", "false || touch @/or", -1, "or"},
        {"double pipe at the very end refused", "touch @/tail ||", -1, "tail"},
        {"single pipe runs", "echo hi | cat > @/pipe", 0, "pipe"},
        {"empty command", "", 0, nullptr},
        {"missing program", "/nonexistent/vt_prog 2>@/err", 127 << 8, nullptr},
        {"signal kept raw", "kill -9 $$", 9, nullptr},
    };
    for (auto *run : {LZEB_system, LZEB_Execute}) {
        for (const auto &row : rows) {
            SCOPED_TRACE(row.name);
            std::filesystem::remove_all(dir_);
            std::filesystem::create_directory(dir_);
            EXPECT_EQ(run(InDir(row.command).c_str()), row.status);
            if (row.marker != nullptr) {
                EXPECT_EQ(Exists(row.marker), row.status != -1);
            }
        }
    }
    EXPECT_EQ(LZEB_system(nullptr), -1);
    EXPECT_EQ(LZEB_Execute(nullptr), -1);
}

TEST_F(ExecTest, ArgumentVectors) {
    const std::string marker = InDir("@/made");
    const struct {
        const char *name;
        std::vector<const char *> argv;
        int status;
    } rows[] = {
        {"exit code", {"/bin/sh", "-c", "exit 4"}, 4 << 8},
        // Metacharacters in a vector are plain text: no shell parses them.
        {"arguments passed as given",
         {"/bin/sh", "-c", "[ \"$1\" = 'a;b||c' ]", "sh", "a;b||c"},
         0},
        {"program runs", {"/usr/bin/touch", marker.c_str()}, 0},
        {"missing program", {"/nonexistent/vt_prog"}, 127 << 8},
        {"no PATH search", {"sh", "-c", "exit 0"}, 127 << 8},
        {"null program", {nullptr}, -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<char *> argv;
        for (const char *arg : row.argv) {
            argv.push_back(const_cast<char *>(arg));
        }
        argv.push_back(nullptr);
        EXPECT_EQ(__zeb_execv(argv.data(), 0, 0), row.status);
    }
    EXPECT_TRUE(Exists("made"));
    EXPECT_EQ(__zeb_execv(nullptr, 0, 0), -1);
}

TEST(ExecCharClasses, IllegalArgs) {
    for (char meta : std::string("|;&$><{}()`\\'\"[]~?*!\n")) {
        SCOPED_TRACE(std::string("metacharacter ") + meta);
        EXPECT_EQ(__zebusr_has_illegal_args((std::string("ab") + meta + "cd").c_str()), 1);
    }
    const struct {
        const char *name;
        const char *text;
        int result;
    } rows[] = {
        {"path and punctuation", "/tmp/a-b_c.d,e=f+g@h%i#j:k", 0},
        {"blank and tab", "a b\tc", 0},
        {"empty", "", 0},
        {"null", nullptr, 0},
        {"metacharacter last", "abc*", 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(__zebusr_has_illegal_args(row.text), row.result);
    }
}

TEST(ExecCharClasses, IllegalIps) {
    const struct {
        const char *name;
        const char *text;
        int result;
    } rows[] = {
        {"IPv4 with prefix", "10.0.0.1/24", 0},
        {"IPv6", "fe80::1", 0},
        {"letters and path", "/dev/shm/Log.conf", 0},
        {"empty", "", 0},
        {"null", nullptr, 0},
        {"blank", "10.0.0.1 ", 1},
        {"dash", "a-b", 1},
        {"underscore", "a_b", 1},
        {"percent scope", "fe80::1%eth0", 1},
        {"non-ASCII letter", "caf\xc3\xa9", 1},
    };
    int reserved = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(__zebusr_has_illegal_ips(nullptr, row.text), row.result);
        EXPECT_EQ(__zebusr_has_illegal_ips(&reserved, row.text), row.result);
    }
}

}  // namespace
