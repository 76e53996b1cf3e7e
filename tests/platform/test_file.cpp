// File and mapped-file helpers. Every file lives in a temporary
// directory removed at the end of each test.
#include "platform/lzeb_file.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/syslog_capture.h"

namespace {

using vt_test::CapturedSyslog;
using vt_test::CapturedSyslogTexts;
using vt_test::ClearSyslog;

class TempDir {
  public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "lzeb_file_XXXXXX").string();
        char *made = mkdtemp(pattern.data());
        if (made == nullptr) {
            ADD_FAILURE() << "mkdtemp failed";
            return;
        }
        path_ = made;
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    std::string File(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

void WriteFile(const std::string &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

off_t FileSize(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Closes a descriptor at the end of a scope.
struct Fd {
    explicit Fd(int value) : fd(value) {}
    ~Fd() {
        if (fd >= 0) {
            close(fd);
        }
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int fd;
};

// ---------------------------------------------------------------------------
// Plain wrappers

TEST(LzebFile, WrappersPassThrough) {
    TempDir dir;
    std::string path = dir.File("plain");
    mode_t mask = umask(0);
    umask(mask);
    int fd = LZEB_open(path.c_str(), O_RDWR | O_CREAT, 0640);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(LZEB_write(fd, "hello", 5), 5);
    EXPECT_EQ(LZEB_sync(fd), 0);
    EXPECT_EQ(LZEB_lseek(fd, 1, SEEK_SET), 1);
    char buf[8] = {};
    EXPECT_EQ(LZEB_read(fd, buf, 4), 4);
    EXPECT_STREQ(buf, "ello");
    LZEB_close(fd);
    EXPECT_EQ(LZEB_access(path.c_str(), R_OK), 0);
    EXPECT_EQ(LZEB_access(dir.File("missing").c_str(), F_OK), -1);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640U & ~mask);
}

// ---------------------------------------------------------------------------
// LZEB_readline: each row reads its content with one buffer size until null.

struct ReadlineRow {
    const char *name;
    std::string content;
    int32_t size;
    std::vector<std::string> lines;  // what successive calls return before null
};

const std::vector<ReadlineRow> kReadlineRows = {
    {"carriage return dropped", "a\r\nb", 256, {"a\n", "b"}},
    {"10-character line with size 4", "abcdefghij", 4, {"abc", "def", "ghi", "j"}},
    {"line feed ends a piece", "abcdefghij\nk", 4, {"abc", "def", "ghi", "j\n", "k"}},
    {"empty file", "", 256, {}},
    {"blank lines", "\n\nx\n", 16, {"\n", "\n", "x\n"}},
    {"carriage returns only", "\r\r\n\r", 16, {"\n"}},
    {"size 2", "ab\n", 2, {"a", "b", "\n"}},
    {"size 1 stores nothing", "abc", 1, {}},
    {"line of size-1 characters", "abc\nd", 4, {"abc", "\n", "d"}},
};

TEST(LzebReadline, Table) {
    TempDir dir;
    for (const ReadlineRow &row : kReadlineRows) {
        SCOPED_TRACE(row.name);
        std::string path = dir.File("lines");
        WriteFile(path, row.content);
        Fd fd(open(path.c_str(), O_RDONLY));
        ASSERT_GE(fd.fd, 0);
        std::vector<char> buf(static_cast<size_t>(row.size), 'z');
        for (const std::string &line : row.lines) {
            char *got = LZEB_readline(fd.fd, buf.data(), row.size);
            ASSERT_EQ(got, buf.data());
            EXPECT_EQ(std::string(got), line);
            EXPECT_EQ(buf.back(), '\0');  // terminated at size-1 in every case
        }
        EXPECT_EQ(LZEB_readline(fd.fd, buf.data(), row.size), nullptr);
        EXPECT_EQ(LZEB_readline(fd.fd, buf.data(), row.size), nullptr);
    }
}

TEST(LzebReadline, InvalidArguments) {
    TempDir dir;
    std::string path = dir.File("lines");
    WriteFile(path, "abc\n");
    Fd fd(open(path.c_str(), O_RDONLY));
    char buf[8] = "zzzzzzz";
    EXPECT_EQ(LZEB_readline(fd.fd, buf, 0), nullptr);
    EXPECT_EQ(LZEB_readline(fd.fd, buf, -1), nullptr);
    EXPECT_STREQ(buf, "zzzzzzz");
    EXPECT_EQ(LZEB_readline(fd.fd, nullptr, 8), nullptr);
    EXPECT_EQ(LZEB_readline(-1, buf, 8), nullptr);  // a failed read ends the text
    EXPECT_EQ(buf[0], '\0');
    // Nothing was consumed by the refused calls.
    EXPECT_STREQ(LZEB_readline(fd.fd, buf, 8), "abc\n");
}

// ---------------------------------------------------------------------------
// LZEB_copy

struct CopyRow {
    const char *name;
    size_t size;
};

// 256 bytes: two full pieces and a third, empty read and write.
const std::vector<CopyRow> kCopyRows = {
    {"empty file", 0},
    {"one byte", 1},
    {"one short piece", 127},
    {"one full piece", 128},
    {"one piece and a byte", 129},
    {"exactly 256 bytes", 256},
    {"300 bytes", 300},
};

TEST(LzebCopy, Table) {
    TempDir dir;
    for (const CopyRow &row : kCopyRows) {
        SCOPED_TRACE(row.name);
        std::string content;
        for (size_t i = 0; i < row.size; ++i) {
            content.push_back(static_cast<char>(i * 31 + 7));
        }
        std::string src = dir.File("src");
        std::string dst = dir.File("dst");
        WriteFile(src, content);
        WriteFile(dst, std::string(1000, 'o'));  // an existing longer file is truncated
        ClearSyslog();
        EXPECT_EQ(LZEB_copy(src.c_str(), dst.c_str()), 0);
        EXPECT_EQ(ReadFile(dst), content);
        EXPECT_TRUE(CapturedSyslog().empty());
    }
}

TEST(LzebCopy, NewDestinationHasMode0600) {
    TempDir dir;
    std::string src = dir.File("src");
    std::string dst = dir.File("new");
    WriteFile(src, "data");
    ASSERT_EQ(LZEB_copy(src.c_str(), dst.c_str()), 0);
    struct stat st;
    ASSERT_EQ(stat(dst.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600U);
}

TEST(LzebCopy, Failures) {
    TempDir dir;
    std::string src = dir.File("src");
    WriteFile(src, std::string(200, 'a'));
    std::string missing = dir.File("missing");
    std::string badDest = dir.File("no/such/dir");

    ClearSyslog();
    EXPECT_EQ(LZEB_copy(nullptr, src.c_str()), -1);
    EXPECT_EQ(LZEB_copy(src.c_str(), nullptr), -1);
    EXPECT_EQ(LZEB_copy(missing.c_str(), src.c_str()), -1);
    EXPECT_EQ(LZEB_copy(src.c_str(), badDest.c_str()), -1);
    EXPECT_EQ(LZEB_copy(src.c_str(), "/dev/full"), -1);
    std::vector<std::string> expected = {
        "Input para null.\n",
        "Input para null.\n",
        "Open source file (" + missing + ") error,return.\n",
        "Open dest file (" + badDest + ") error,return.\n",
        "Copy write data from file (" + src + ") to (/dev/full) Fail, (28).\n",
    };
    EXPECT_EQ(CapturedSyslogTexts(), expected);
    for (const auto &record : CapturedSyslog()) {
        EXPECT_EQ(record.priority, LOG_INFO);
    }
}

// ---------------------------------------------------------------------------
// LZEB_mmap / LZEB_munmap

constexpr uint64_t kPage = 4096;

struct GrowthRow {
    const char *name;
    size_t initialSize;
    int openFlags;
    int64_t offset;
    uint64_t length;
    off_t expectedSize;
};

// A read-write descriptor gets a byte written behind offset+length: where the
// read found nothing, a zero byte at offset+length; where it found a byte, a
// copy of that byte at offset+length+1.
const std::vector<GrowthRow> kGrowthRows = {
    {"empty file", 0, O_RDWR, 0, kPage, kPage + 1},
    {"shorter file", 100, O_RDWR, 0, kPage, kPage + 1},
    {"file of offset+length bytes", kPage, O_RDWR, 0, kPage, kPage + 1},
    {"file of offset+length+1 bytes grows by one", kPage + 1, O_RDWR, 0, kPage, kPage + 2},
    {"longer file keeps its size", 3 * kPage, O_RDWR, 0, kPage, 3 * kPage},
    {"mapping at an offset", 0, O_RDWR, kPage, kPage, 2 * kPage + 1},
    {"read-only descriptor is not grown", 100, O_RDONLY, 0, kPage, 100},
};

TEST(LzebMmap, FileGrowth) {
    TempDir dir;
    for (const GrowthRow &row : kGrowthRows) {
        SCOPED_TRACE(row.name);
        std::string path = dir.File("grow");
        std::string content;
        for (size_t i = 0; i < row.initialSize; ++i) {
            content.push_back(static_cast<char>('A' + i % 26));
        }
        WriteFile(path, content);
        Fd fd(open(path.c_str(), row.openFlags));
        ASSERT_GE(fd.fd, 0);
        int prot = row.openFlags == O_RDWR ? PROT_READ | PROT_WRITE : PROT_READ;
        void *start = LZEB_mmap(fd.fd, prot, row.offset, row.length);
        ASSERT_NE(start, nullptr);
        ASSERT_NE(start, MAP_FAILED);
        EXPECT_EQ(FileSize(path), row.expectedSize);
        std::string after = ReadFile(path);
        size_t end = static_cast<size_t>(row.offset) + row.length;
        if (row.openFlags == O_RDWR && row.initialSize > end) {
            EXPECT_EQ(after[end + 1], content[end]);  // the byte read is written behind it
        }
        if (row.openFlags == O_RDWR && row.initialSize <= end) {
            EXPECT_EQ(after[end], '\0');
        }
        EXPECT_EQ(LZEB_munmap(start), 0);
    }
}

TEST(LzebMmap, MappingIsSharedWithTheFile) {
    TempDir dir;
    std::string path = dir.File("shared");
    WriteFile(path, "");
    Fd fd(open(path.c_str(), O_RDWR));
    auto *start = static_cast<char *>(LZEB_mmap(fd.fd, PROT_READ | PROT_WRITE, 0, kPage));
    ASSERT_NE(start, nullptr);
    ASSERT_NE(start, MAP_FAILED);
    memcpy(start, "mapped", 6);
    ASSERT_EQ(msync(start, kPage, MS_SYNC), 0);
    EXPECT_EQ(ReadFile(path).substr(0, 6), "mapped");
    EXPECT_EQ(LZEB_munmap(start), 0);
}

TEST(LzebMmap, UnmapTwiceGivesZeroThenMinusOne) {
    TempDir dir;
    std::string path = dir.File("twice");
    WriteFile(path, "");
    Fd fd(open(path.c_str(), O_RDWR));
    void *start = LZEB_mmap(fd.fd, PROT_READ, 0, kPage);
    ASSERT_NE(start, nullptr);
    ASSERT_NE(start, MAP_FAILED);
    EXPECT_EQ(LZEB_munmap(start), 0);
    EXPECT_EQ(LZEB_munmap(start), -1);
    int local = 0;
    EXPECT_EQ(LZEB_munmap(&local), -1);
    EXPECT_EQ(LZEB_munmap(nullptr), -1);
}

int CountMappingsOf(const std::string &path) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    int count = 0;
    while (std::getline(maps, line)) {
        if (line.size() >= path.size() &&
            line.compare(line.size() - path.size(), path.size(), path) == 0) {
            ++count;
        }
    }
    return count;
}

// The 33rd mapping still in use is refused: unmapped again, null returned.
TEST(LzebMmap, ThirtyThirdMappingRefused) {
    TempDir dir;
    std::string path = dir.File("many");
    WriteFile(path, "");
    Fd fd(open(path.c_str(), O_RDWR));
    std::vector<void *> starts;
    for (int i = 0; i < LZEB_MAX_MAPPINGS; ++i) {
        void *start = LZEB_mmap(fd.fd, PROT_READ, 0, kPage);
        ASSERT_NE(start, nullptr) << i;
        ASSERT_NE(start, MAP_FAILED) << i;
        starts.push_back(start);
    }
    EXPECT_EQ(CountMappingsOf(path), LZEB_MAX_MAPPINGS);
    EXPECT_EQ(LZEB_mmap(fd.fd, PROT_READ, 0, kPage), nullptr);
    EXPECT_EQ(CountMappingsOf(path), LZEB_MAX_MAPPINGS);  // the refused region is gone

    // Freeing one row makes room for one more.
    EXPECT_EQ(LZEB_munmap(starts[5]), 0);
    starts.erase(starts.begin() + 5);
    void *again = LZEB_mmap(fd.fd, PROT_READ, 0, kPage);
    ASSERT_NE(again, nullptr);
    starts.push_back(again);
    for (void *start : starts) {
        EXPECT_EQ(LZEB_munmap(start), 0);
    }
    EXPECT_EQ(CountMappingsOf(path), 0);
}

// MAP_FAILED is handed back but not recorded (an unaligned offset).
TEST(LzebMmap, MapFailedIsNotRecorded) {
    TempDir dir;
    std::string path = dir.File("unaligned");
    WriteFile(path, std::string(100, 'u'));
    Fd fd(open(path.c_str(), O_RDWR));
    for (int i = 0; i < LZEB_MAX_MAPPINGS + 1; ++i) {
        ASSERT_EQ(LZEB_mmap(fd.fd, PROT_READ, 7, kPage), MAP_FAILED) << i;
    }
    EXPECT_EQ(LZEB_munmap(MAP_FAILED), -1);
    // All 32 rows are still free.
    void *start = LZEB_mmap(fd.fd, PROT_READ, 0, kPage);
    ASSERT_NE(start, nullptr);
    ASSERT_NE(start, MAP_FAILED);
    EXPECT_EQ(LZEB_munmap(start), 0);
}

TEST(LzebMmap, FailedReadGivesNull) {
    EXPECT_EQ(LZEB_mmap(-1, PROT_READ, 0, kPage), nullptr);
    TempDir dir;
    Fd fd(open(dir.File("").c_str(), O_RDONLY | O_DIRECTORY));  // read() of a directory fails
    ASSERT_GE(fd.fd, 0);
    EXPECT_EQ(LZEB_mmap(fd.fd, PROT_READ, 0, kPage), nullptr);
}

TEST(LzebMapTable, AddAndFetchRows) {
    MapData a = {0x1000, 11};
    MapData b = {0x2000, 22};
    MapData c = {0x3000, 33};
    EXPECT_EQ(AddMapData(&a), 1);
    EXPECT_EQ(AddMapData(&b), 1);
    EXPECT_EQ(AddMapData(&c), 1);
    // Fetching the first moves the last row into its place; all stay findable.
    MapData row = {0x1000, 0};
    EXPECT_EQ(FetchMapData(&row), 1);
    EXPECT_EQ(row.length, 11U);
    EXPECT_EQ(FetchMapData(&row), 0);
    row = {0x3000, 0};
    EXPECT_EQ(FetchMapData(&row), 1);
    EXPECT_EQ(row.length, 33U);
    row = {0x2000, 0};
    EXPECT_EQ(FetchMapData(&row), 1);
    EXPECT_EQ(row.length, 22U);
    EXPECT_EQ(AddMapData(nullptr), 0);
    EXPECT_EQ(FetchMapData(nullptr), 0);
}

TEST(LzebMapTable, FullAfterThirtyTwoRows) {
    int added = 0;
    for (uint64_t i = 1; i <= 40; ++i) {
        MapData row = {i, i};
        added += AddMapData(&row);
    }
    EXPECT_EQ(added, LZEB_MAX_MAPPINGS);
    for (uint64_t i = 1; i <= static_cast<uint64_t>(added); ++i) {
        MapData row = {i, 0};
        EXPECT_EQ(FetchMapData(&row), 1);
        EXPECT_EQ(row.length, i);
    }
}

}  // namespace
