// File and mapped-file helpers, on files in a directory removed after each test.
#include "platform/lzeb_file.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/support/kmod_standin.h"
#include "tests/support/syslog_capture.h"

namespace {

using vt_test::CapturedSyslogTexts;
using vt_test::ClearSyslog;

constexpr uint64_t kPage = 4096;

// Bytes that differ from their neighbours, so a misplaced byte shows.
std::string Pattern(size_t size) {
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text.push_back(static_cast<char>('A' + i % 26));
    }
    return text;
}

class FileTest : public ::testing::Test {
  protected:
    void TearDown() override {
        for (int fd : fds_) {
            close(fd);
        }
    }

    std::string Path(const std::string &name) const { return root_.path() + "/" + name; }
    // Writes `content` to the file and opens it; the descriptor is closed in TearDown.
    int Make(const std::string &name, const std::string &content, int flags = O_RDWR) {
        std::ofstream(Path(name), std::ios::binary | std::ios::trunc) << content;
        fds_.push_back(open(Path(name).c_str(), flags));
        return fds_.back();
    }
    std::string Read(const std::string &name) const {
        std::ifstream in(Path(name), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    vt_test::TempRoot root_;
    std::vector<int> fds_;
};

TEST_F(FileTest, Readline) {
    const struct {
        const char *name, *content;
        int32_t size;
        std::vector<std::string> lines;  // what successive calls return before null
    } rows[] = {
        {"carriage return dropped", "a\r\nb", 256, {"a\n", "b"}},
        {"10 characters, size 4", "abcdefghij\nk", 4, {"abc", "def", "ghi", "j\n", "k"}},
        {"line of size-1 characters", "abc\nd", 4, {"abc", "\n", "d"}},
        {"empty file", "", 256, {}},
        {"size 1 stores nothing", "abc", 1, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        int fd = Make("lines", row.content, O_RDONLY);
        std::vector<char> buf(static_cast<size_t>(row.size), 'z');
        for (const std::string &line : row.lines) {
            ASSERT_EQ(LZEB_readline(fd, buf.data(), row.size), buf.data());
            EXPECT_EQ(std::string(buf.data()), line);
            EXPECT_EQ(buf.back(), '\0');  // terminated at size-1 in every case
        }
        EXPECT_EQ(LZEB_readline(fd, buf.data(), row.size), nullptr);
    }
    int fd = Make("refused", "abc\n", O_RDONLY);
    char buf[8] = "zzzzzzz";
    EXPECT_EQ(LZEB_readline(fd, buf, 0), nullptr);
    EXPECT_EQ(LZEB_readline(fd, nullptr, 8), nullptr);
    EXPECT_EQ(LZEB_readline(-1, buf, 8), nullptr);  // a failed read ends the text
    EXPECT_EQ(buf[0], '\0');
    EXPECT_STREQ(LZEB_readline(fd, buf, 8), "abc\n");  // the refused calls consumed nothing
}

// Unused by the product: one copy over several 128-byte pieces, one refusal per check.
TEST_F(FileTest, Copy) {
    const std::string src = Path("src"), fresh = Path("new");
    Make("src", Pattern(300));
    ClearSyslog();
    EXPECT_EQ(LZEB_copy(src.c_str(), fresh.c_str()), 0);
    EXPECT_EQ(Read("new"), Pattern(300));
    struct stat st {};
    EXPECT_EQ(stat(fresh.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600U);
    const std::string missing = Path("missing"), badDest = Path("no/dir");
    EXPECT_EQ(LZEB_copy(src.c_str(), nullptr), -1);
    EXPECT_EQ(LZEB_copy(missing.c_str(), src.c_str()), -1);
    EXPECT_EQ(LZEB_copy(src.c_str(), badDest.c_str()), -1);
    EXPECT_EQ(LZEB_copy(src.c_str(), "/dev/full"), -1);
    EXPECT_EQ(CapturedSyslogTexts(),
              std::vector<std::string>({
                  "Input para null.\n",
                  "Open source file (" + missing + ") error,return.\n",
                  "Open dest file (" + badDest + ") error,return.\n",
                  "Copy write data from file (" + src + ") to (/dev/full) Fail, (28).\n",
              }));
}

int CountMappingsOf(const std::string &path) {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.ends_with(path);
    }
    return count;
}

// A short read-write file grows to back the mapping; 32 rows, none for MAP_FAILED.
TEST_F(FileTest, MappingTable) {
    int fd = Make("many", Pattern(100));
    EXPECT_EQ(LZEB_mmap(-1, PROT_READ, 0, kPage), nullptr);  // the descriptor cannot be read
    for (int i = 0; i <= LZEB_MAX_MAPPINGS; ++i) {
        ASSERT_EQ(LZEB_mmap(fd, PROT_READ, 7, kPage), MAP_FAILED) << i;  // unaligned offset
    }
    EXPECT_EQ(LZEB_munmap(MAP_FAILED), -1);
    std::vector<void *> starts;
    for (int i = 0; i < LZEB_MAX_MAPPINGS; ++i) {
        starts.push_back(LZEB_mmap(fd, PROT_READ, 0, kPage));
        ASSERT_NE(starts.back(), nullptr) << i;
    }
    const std::string path = Path("many");
    // The refused unaligned mappings already grew it to 7 + kPage bytes.
    EXPECT_TRUE(Read("many") == Pattern(100) + std::string(kPage + 7 - 100, '\0'));
    EXPECT_EQ(CountMappingsOf(path), LZEB_MAX_MAPPINGS);
    EXPECT_EQ(LZEB_mmap(fd, PROT_READ, 0, kPage), nullptr);
    EXPECT_EQ(CountMappingsOf(path), LZEB_MAX_MAPPINGS);  // the refused region is gone
    // Freeing one row makes room for one more.
    EXPECT_EQ(LZEB_munmap(starts[5]), 0);
    starts[5] = LZEB_mmap(fd, PROT_READ, 0, kPage);
    ASSERT_NE(starts[5], nullptr);
    for (void *start : starts) {
        EXPECT_EQ(LZEB_munmap(start), 0);
    }
    EXPECT_EQ(CountMappingsOf(path), 0);
    EXPECT_EQ(LZEB_munmap(starts[0]), -1);  // a second unmap finds no row
    EXPECT_EQ(LZEB_munmap(nullptr), -1);
    EXPECT_EQ(AddMapData(nullptr), 0);
    EXPECT_EQ(FetchMapData(nullptr), 0);
}

}  // namespace
