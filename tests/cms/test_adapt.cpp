#include "cms/adapt/adapt.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/syslog_capture.h"

namespace {

TEST(AdaptMemory, SizesAndNullOut) {
    struct Row {
        const char *name;
        uint64_t size;
        uint32_t rc;
        bool block;
    };
    const Row rows[] = {
        {"zero size", 0, DORVEX_OK, false},
        {"small block", 100, DORVEX_OK, true},
        {"over the allocator's limit", 0x80000000ull, DORVEX_ERR_MALLOC, false},
        {"4 GiB + 16 is refused, not cut to 16", (1ull << 32) + 16, DORVEX_ERR_MALLOC, false},
    };
    for (const auto &r : rows) {
        for (auto alloc : {DorvexMalloc, DorvexMallocWith0}) {
            void *p = &p;  // must be reset even on failure
            EXPECT_EQ(alloc(&p, r.size), r.rc) << r.name;
            ASSERT_EQ(p != nullptr, r.block) << r.name;
            if (p != nullptr) {
                const auto *bytes = static_cast<const uint8_t *>(p);
                EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + r.size), std::vector<uint8_t>(r.size))
                    << r.name;
            }
            DorvexFree(p);
            EXPECT_EQ(alloc(nullptr, r.size), DORVEX_ERR_PARAM) << r.name;
        }
    }
    DorvexFree(nullptr);
}

TEST(AdaptStrings, NullSafeWrappers) {
    const char *s = "abc";
    EXPECT_EQ(DorvexStrCmp(s, s), 0);
    EXPECT_EQ(DorvexStrCmp("abc", "abc"), 0);
    EXPECT_EQ(DorvexStrCmp("abc", "abcd"), -1);
    EXPECT_EQ(DorvexStrCmp("abcd", "abc"), -1);
    EXPECT_GT(DorvexStrCmp("abd", "abc"), 0);
    EXPECT_EQ(DorvexStrCmp(nullptr, "a"), -1);
    EXPECT_EQ(DorvexMemCmp("ab", nullptr, 2), -1);
    EXPECT_EQ(DorvexStrNCmp("abX", "abY", 2), 0);
    EXPECT_EQ(DorvexStrNCmp(nullptr, nullptr, 1), -1);
    const char *hay = "xxCERTyy";
    EXPECT_EQ(DorvexStrStr(hay, "CERT"), hay + 2);
    EXPECT_EQ(DorvexStrStr(hay, nullptr), nullptr);
    const char high[] = "a\xe9z";
    EXPECT_EQ(DorvexStrChr(high, 0xe9), high + 1);
    EXPECT_EQ(DorvexStrChr(high, -23), high + 1);  // same byte given as a signed char
    EXPECT_EQ(DorvexStrChr(nullptr, 'a'), nullptr);
    EXPECT_EQ(DorvexStrlen(nullptr), 0);
    EXPECT_EQ(DorvexStrlen("abc"), 3);
}

TEST(AdaptFiles, SizeKeepsPosition) {
    char dir[] = "/tmp/adapt_test_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string path = std::string(dir) + "/f.bin";
    FILE *f = DorvexFileOpen(path.c_str(), "w+b");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(fwrite("0123456789", 1, 10, f), 10u);
    ASSERT_EQ(fseek(f, 3, SEEK_SET), 0);
    EXPECT_EQ(DorvexFileGetSize(f), 10u);
    EXPECT_EQ(ftell(f), 3);
    char buf[16] = {};
    EXPECT_EQ(DorvexFileRead(buf, sizeof buf, f), 7u);
    EXPECT_STREQ(buf, "3456789");
    EXPECT_EQ(DorvexFileClose(f), 0);
    EXPECT_EQ(DorvexFileClose(nullptr), -1);
    EXPECT_EQ(DorvexFileGetSize(nullptr), 0u);
    EXPECT_EQ(DorvexFileOpen(nullptr, "rb"), nullptr);
    unlink(path.c_str());
    rmdir(dir);
}

TEST(AdaptBase64, Decode) {
    struct Row {
        const char *name;
        std::string in;
        uint32_t rc;
        std::string out;  // decoded bytes on success
    };
    const Row rows[] = {
        {"full group", "QUJD", DORVEX_OK, "ABC"},
        {"two pads", "QQ==", DORVEX_OK, "A"},
        {"one pad", "QUI=", DORVEX_OK, "AB"},
        {"CR LF between groups", "QUJD\r\nRA==", DORVEX_OK, "ABCD"},
        {"bare LF anywhere", "\nQU\nJD\n", DORVEX_OK, "ABC"},
        {"blanks before line break", "QUJD  \r\n", DORVEX_OK, "ABC"},
        {"blanks at the end", "QUJD  ", DORVEX_OK, "ABC"},
        {"blank inside a line", "QU JD", DORVEX_ERR_BASE64, ""},
        {"blank before a character", " QUJD", DORVEX_ERR_BASE64, ""},
        {"blank after a line break", "QUJD\n RA==", DORVEX_ERR_BASE64, ""},
        {"three pads", "Q===", DORVEX_ERR_BASE64, ""},
        {"data after padding", "QQ==QQ==", DORVEX_ERR_BASE64, ""},
        {"tab", "QU\tJD", DORVEX_ERR_BASE64, ""},
        {"lone CR", "QUJD\rRA==", DORVEX_ERR_BASE64, ""},
        {"CR as last byte", "QUJD\r", DORVEX_ERR_BASE64, ""},
        {"high byte", "QUJ\xc4", DORVEX_ERR_BASE64, ""},
        {"only a blank", " ", DORVEX_ERR_BASE64, ""},
        {"only CR LF", "\r\n", DORVEX_ERR_BASE64, ""},
    };
    for (const auto &r : rows) {
        const auto *src = reinterpret_cast<const uint8_t *>(r.in.data());
        std::vector<uint8_t> dst(16, 0xAA);
        uint32_t len = static_cast<uint32_t>(dst.size());
        EXPECT_EQ(DorvexBase64Decode(src, static_cast<int32_t>(r.in.size()), dst.data(), &len),
                  r.rc)
            << r.name;
        if (r.rc == DORVEX_OK) {
            EXPECT_EQ(std::string(dst.begin(), dst.begin() + len), r.out) << r.name;
        } else {
            EXPECT_EQ(len, 16u) << r.name;
            EXPECT_EQ(dst, std::vector<uint8_t>(16, 0xAA)) << r.name;
        }
    }
}

TEST(AdaptBase64, NeededLengthAndArguments) {
    const auto *six = reinterpret_cast<const uint8_t *>("QUJDRA");
    uint32_t len = 0;
    ASSERT_EQ(DorvexBase64Decode(six, 6, nullptr, &len), DORVEX_OK);
    EXPECT_EQ(len, 5u);  // counts the trailing partial group...
    uint8_t dst[8] = {};
    len = 4;  // too small: nothing written, needed length back
    ASSERT_EQ(DorvexBase64Decode(six, 6, dst, &len), DORVEX_OK);
    EXPECT_EQ(len, 5u);
    EXPECT_EQ(dst[0], 0);
    len = sizeof dst;
    ASSERT_EQ(DorvexBase64Decode(six, 6, dst, &len), DORVEX_OK);
    EXPECT_EQ(len, 3u);  // ...which decodes to nothing
    EXPECT_EQ(DorvexBase64Decode(six, 0, dst, &len), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexBase64Decode(nullptr, 6, dst, &len), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexBase64Decode(six, 6, dst, nullptr), DORVEX_ERR_PARAM);
}

TEST(AdaptMktime, MatchesTimegm) {
    EXPECT_EQ(DorvexMktime(nullptr), 0);
    DorvexDatetime t{2024, 2, 29, 12, 34, 56};
    EXPECT_EQ(DorvexMktime(&t), 1709210096);
    t.year = 124;  // years since 1900
    EXPECT_EQ(DorvexMktime(&t), 1709210096);
    // Every year, the first and last day of each month and the leap day.
    for (int year = 1901; year <= 2099; ++year) {
        for (int month = 1; month <= 12; ++month) {
            for (int day : {1, 28, 29, 30, 31}) {
                struct tm tm = {};
                tm.tm_year = year - 1900;
                tm.tm_mon = month - 1;
                tm.tm_mday = day;
                tm.tm_hour = 23;
                tm.tm_min = 59;
                tm.tm_sec = 58;
                time_t expect = timegm(&tm);
                if (tm.tm_mday != day) {
                    continue;  // not a real date
                }
                DorvexDatetime d{static_cast<uint16_t>(year),
                                 static_cast<uint8_t>(month),
                                 static_cast<uint8_t>(day),
                                 23,
                                 59,
                                 58};
                ASSERT_EQ(DorvexMktime(&d), expect) << year << "-" << month << "-" << day;
            }
        }
    }
}

// Runs fn with stdout captured and returns what it printed.
template <typename Fn>
std::string Console(Fn fn) {
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

TEST(AdaptLog, ConsoleLinesAndRecords) {
    struct Row {
        const char *name;
        uint32_t level;
        const char *file;
        const char *function;
        uint32_t code;
        const char *console;
        int priority;  // -1: no record
        const char *record;
    };
    const Row rows[] = {
        {"error", 0, DORVEX_LOG_FILE, "F", 0, "[ERROR]dorvex_log.log(10):(F):x=5\r\n", LOG_ERR,
         "ERR"},
        {"error with code", 0, DORVEX_LOG_FILE, "F", DORVEX_ERR_MALLOC,
         "[ERROR]dorvex_log.log(10):(F):x=5(err:88000001)\r\n", LOG_ERR, "ERR"},
        {"warning", 1, DORVEX_LOG_FILE, "G", 0x12,
         "[WARNING]dorvex_log.log(10):(G):x=5(err:12)\r\n", LOG_WARNING, "WARN"},
        {"information dropped", 2, DORVEX_LOG_FILE, "F", 0, "", -1, nullptr},
        {"debug dropped", 3, DORVEX_LOG_FILE, "F", 0, "", -1, nullptr},
        {"null file", 0, nullptr, "F", 0, "", -1, nullptr},
        {"null function", 0, DORVEX_LOG_FILE, nullptr, 0, "", -1, nullptr},
    };
    // The logging library reports its own start-up on the first record; keep that out.
    Console([] { DorvexLogCallback(0, DORVEX_LOG_FILE, 1, "warm-up", 0, "-"); });
    for (const auto &r : rows) {
        vt_test::ClearSyslog();
        EXPECT_EQ(
            Console([&] { DorvexLogCallback(r.level, r.file, 10, r.function, r.code, "x=%d", 5); }),
            r.console)
            << r.name;
        auto records = vt_test::CapturedSyslog();
        if (r.priority < 0) {
            EXPECT_TRUE(records.empty()) << r.name;
            continue;
        }
        ASSERT_EQ(records.size(), 1u) << r.name;
        EXPECT_EQ(records[0].priority, r.priority) << r.name;
        // The code stays on the console; the caller's place travels in the text.
        std::regex shape(R"(\[ *\d+\.\d{6}\]\[1500003f60000\]\[)" + std::string(r.record) +
                         R"(\]\[dorvex_log\.log\(10\):\()" + r.function +
                         R"(\):x=5\]\[[^\]]*\]\[DorvexLogPrint,\d+\]\[[^\]]*\]\n)");
        EXPECT_TRUE(std::regex_match(records[0].text, shape)) << r.name << ": " << records[0].text;
    }
}

TEST(AdaptLog, UnusualMessages) {
    EXPECT_EQ(Console([] { DorvexLogCallback(0, DORVEX_LOG_FILE, 7, "F", 0, nullptr); }),
              "[ERROR]dorvex_log.log(7):(F):\r\n");
    vt_test::ClearSyslog();
    EXPECT_EQ(Console([] { DorvexLogPrint(9, "f", 7, "F", 1, "m"); }), "f(7):(F):m(err:1)\r\n");
    EXPECT_TRUE(vt_test::CapturedSyslog().empty());  // unknown level: console only
    // A message that cannot be formatted (too long here) is reported, and the
    // caller's text still printed unformatted.
    std::string longArg(3000, 'x');
    std::string out =
        Console([&] { DorvexLogCallback(1, DORVEX_LOG_FILE, 8, "F", 3, "v=%s", longArg.c_str()); });
    std::regex shape(R"(\[ERROR\]dorvex_log\.log\(\d+\):\(DorvexLogCallback\):)"
                     R"(format log message failed\.\r\n)"
                     R"(\[WARNING\]dorvex_log\.log\(8\):\(F\):v=%s\(err:3\)\r\n)");
    EXPECT_TRUE(std::regex_match(out, shape)) << out;
}

}  // namespace
