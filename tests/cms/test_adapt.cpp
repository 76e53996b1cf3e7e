#include "cms/adapt/adapt.h"

#include <stdio.h>
#include <syslog.h>
#include <time.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/syslog_capture.h"

namespace {

TEST(AdaptMemory, SizesAndNullOut) {
    const struct {
        uint64_t size;
        uint32_t rc;
    } rows[] = {{0, DORVEX_OK},
                {100, DORVEX_OK},
                {0x80000000ull, DORVEX_ERR_MALLOC},
                {(1ull << 32) + 16, DORVEX_ERR_MALLOC}};  // refused, not cut to 16
    for (const auto &r : rows) {
        for (auto alloc : {DorvexMalloc, DorvexMallocWith0}) {
            void *p = &p;  // must be reset even on failure
            EXPECT_EQ(alloc(&p, r.size), r.rc) << r.size;
            ASSERT_EQ(p != nullptr, r.size == 100) << r.size;
            if (p != nullptr) {
                const auto *bytes = static_cast<const uint8_t *>(p);
                EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + r.size), std::vector<uint8_t>(100));
            }
            DorvexFree(p);
            EXPECT_EQ(alloc(nullptr, r.size), DORVEX_ERR_PARAM) << r.size;
        }
    }
    DorvexFree(nullptr);
}

TEST(AdaptFiles, SizeKeepsPosition) {
    char dir[] = "/tmp/adapt_test_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    FILE *f = DorvexFileOpen((std::string(dir) + "/f.bin").c_str(), "w+b");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(fwrite("0123456789", 1, 10, f), 10u);
    ASSERT_EQ(fseek(f, 3, SEEK_SET), 0);
    EXPECT_EQ(DorvexFileGetSize(f), 10u);
    char buf[16] = {};
    EXPECT_EQ(DorvexFileRead(buf, sizeof buf, f), 7u);
    EXPECT_STREQ(buf, "3456789");
    EXPECT_EQ(DorvexFileClose(f), 0);
    EXPECT_EQ(DorvexFileClose(nullptr), -1);
    EXPECT_EQ(DorvexFileGetSize(nullptr), 0u);
    EXPECT_EQ(DorvexFileOpen(nullptr, "rb"), nullptr);
    std::filesystem::remove_all(dir);
}

TEST(AdaptBase64, Decode) {
    const struct {
        const char *name;
        std::string in;
        const char *out;  // none: refused, output untouched
    } rows[] = {
        {"full group", "QUJD", "ABC"},
        {"two pads", "QQ==", "A"},
        {"one pad", "QUI=", "AB"},
        {"CR LF between groups", "QUJD\r\nRA==", "ABCD"},
        {"bare LF anywhere", "\nQU\nJD\n", "ABC"},
        {"blanks before line break", "QUJD  \r\n", "ABC"},
        {"blanks at the end", "QUJD  ", "ABC"},
        {"blank inside a line", "QU JD", nullptr},
        {"blank before a character", " QUJD", nullptr},
        {"blank after a line break", "QUJD\n RA==", nullptr},
        {"three pads", "Q===", nullptr},
        {"data after padding", "QQ==QQ==", nullptr},
        {"tab", "QU\tJD", nullptr},
        {"lone CR", "QUJD\rRA==", nullptr},
        {"CR as last byte", "QUJD\r", nullptr},
        {"high byte", "QUJ\xc4", nullptr},
        {"only a blank", " ", nullptr},
        {"only CR LF", "\r\n", nullptr},
    };
    for (const auto &r : rows) {
        const auto *src = reinterpret_cast<const uint8_t *>(r.in.data());
        std::vector<uint8_t> dst(16, 0xAA);
        uint32_t len = 16;
        EXPECT_EQ(DorvexBase64Decode(src, static_cast<int32_t>(r.in.size()), dst.data(), &len),
                  r.out != nullptr ? DORVEX_OK : DORVEX_ERR_BASE64)
            << r.name;
        const std::string got(dst.begin(), dst.begin() + (r.out != nullptr ? len : 16));
        EXPECT_EQ(got, r.out != nullptr ? r.out : std::string(16, '\xAA')) << r.name;
    }
    // Without room, the needed length comes back, and it counts the trailing
    // partial group that then decodes to nothing.
    const auto *six = reinterpret_cast<const uint8_t *>("QUJDRA");
    uint8_t dst[8] = {};
    uint32_t len = 4;
    ASSERT_EQ(DorvexBase64Decode(six, 6, dst, &len), DORVEX_OK);
    EXPECT_EQ(len * 10 + dst[0], 50u);
    len = sizeof dst;
    ASSERT_EQ(DorvexBase64Decode(six, 6, dst, &len), DORVEX_OK);
    EXPECT_EQ(len, 3u);
    EXPECT_EQ(DorvexBase64Decode(six, 0, dst, &len), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexBase64Decode(nullptr, 6, dst, &len), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexBase64Decode(six, 6, dst, nullptr), DORVEX_ERR_PARAM);
}

TEST(AdaptMktime, MatchesTimegm) {
    EXPECT_EQ(DorvexMktime(nullptr), 0);
    DorvexDatetime t{2024, 2, 29, 12, 34, 56};
    EXPECT_EQ(DorvexMktime(&t), 1709210096);
    // Every year, the first and last days of each month and the leap day;
    // years before 1901 are taken as written too.
    for (int year = 1601; year <= 2099; ++year) {
        for (int month = 1; month <= 12; ++month) {
            for (int day : {1, 28, 29, 30, 31}) {
                struct tm tm = {58, 59, 23, day, month - 1, year - 1900, 0, 0, 0, 0, nullptr};
                const time_t expect = timegm(&tm);
                if (tm.tm_mday == day) {  // a real date
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
}

template <typename Fn>
std::string Console(Fn fn) {
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

TEST(AdaptLog, ConsoleLinesAndRecords) {
    const char *file = DORVEX_LOG_FILE;
    const struct {
        uint32_t level;
        const char *file, *function;
        uint32_t code;
        const char *console;
        int priority;  // -1: no record
        const char *record;
    } rows[] = {
        {0, file, "F", 0, "[ERROR]dorvex_log.log(10):(F):x=5\r\n", LOG_ERR, "ERR"},
        {0, file, "F", DORVEX_ERR_MALLOC, "[ERROR]dorvex_log.log(10):(F):x=5(err:88000001)\r\n",
         LOG_ERR, "ERR"},
        {1, file, "G", 0x12, "[WARNING]dorvex_log.log(10):(G):x=5(err:12)\r\n", LOG_WARNING,
         "WARN"},
        {2, file, "F", 0, "", -1, nullptr},  // information and debug are dropped
        {3, file, "F", 0, "", -1, nullptr},
        {0, nullptr, "F", 0, "", -1, nullptr},
        {0, file, nullptr, 0, "", -1, nullptr},
    };
    // The logging library reports its own start-up on the first record; keep that out.
    Console([] { DorvexLogCallback(0, DORVEX_LOG_FILE, 1, "warm-up", 0, "-"); });
    for (const auto &r : rows) {
        vt_test::ClearSyslog();
        EXPECT_EQ(
            Console([&] { DorvexLogCallback(r.level, r.file, 10, r.function, r.code, "x=%d", 5); }),
            r.console);
        auto records = vt_test::CapturedSyslog();
        ASSERT_EQ(records.size(), r.priority < 0 ? 0u : 1u) << r.console;
        if (r.priority >= 0) {
            EXPECT_EQ(records[0].priority, r.priority);
            // The code stays on the console; the caller's place travels in the text.
            std::regex shape(R"(\[ *\d+\.\d{6}\]\[1500003f60000\]\[)" + std::string(r.record) +
                             R"(\]\[dorvex_log\.log\(10\):\()" + r.function +
                             R"(\):x=5\]\[[^\]]*\]\[DorvexLogPrint,\d+\]\[[^\]]*\]\n)");
            EXPECT_TRUE(std::regex_match(records[0].text, shape)) << records[0].text;
        }
    }
    EXPECT_EQ(Console([] { DorvexLogCallback(0, DORVEX_LOG_FILE, 7, "F", 0, nullptr); }),
              "[ERROR]dorvex_log.log(7):(F):\r\n");
    vt_test::ClearSyslog();
    EXPECT_EQ(Console([] { DorvexLogPrint(9, "f", 7, "F", 1, "m"); }), "f(7):(F):m(err:1)\r\n");
    EXPECT_TRUE(vt_test::CapturedSyslog().empty());  // unknown level: console only
    // A message that cannot be formatted (too long) is reported, and the
    // caller's text still printed unformatted.
    const std::string longArg(3000, 'x');
    const std::string out =
        Console([&] { DorvexLogCallback(1, DORVEX_LOG_FILE, 8, "F", 3, "v=%s", longArg.c_str()); });
    EXPECT_TRUE(std::regex_match(out, std::regex(R"(\[ERROR\]dorvex_log\.log\(\d+\):)"
                                                 R"(\(DorvexLogCallback\):format log message )"
                                                 R"(failed\.\r\n\[WARNING\]dorvex_log\.log\(8\):)"
                                                 R"(\(F\):v=%s\(err:3\)\r\n)")))
        << out;
}

}  // namespace
