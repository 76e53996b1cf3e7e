// Bounds-checked memory and string routines, on a 16-byte buffer.
#include "platform/securec.h"

#include <gtest/gtest.h>

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>

#include <iterator>
#include <string>
#include <utility>

using namespace std::string_literals;

namespace {

constexpr size_t kAbove = 0x80000000UL;  // one above every size limit
const std::string kInit = "abcdefghijklmnop";

using CopyFn = int (*)(char *dest, size_t destMax, const char *src, size_t count);
// memset_s and its variants fill with the source's first byte.
const CopyFn kFns[] = {
    [](char *d, size_t m, const char *s, size_t n) { return memcpy_s(d, m, s, n); },
    [](char *d, size_t m, const char *s, size_t n) { return memcpy_sOptAsm(d, m, s, n); },
    [](char *d, size_t m, const char *s, size_t n) { return memcpy_sOptTc(d, m, s, n); },
    [](char *d, size_t m, const char *s, size_t n) { return memset_s(d, m, *s, n); },
    [](char *d, size_t m, const char *s, size_t n) { return memset_sOptAsm(d, m, *s, n); },
    [](char *d, size_t m, const char *s, size_t n) { return memset_sOptTc(d, m, *s, n); },
    [](char *d, size_t m, const char *s, size_t) { return strcpy_s(d, m, s); },
    [](char *d, size_t m, const char *s, size_t n) { return strncpy_s(d, m, s, n); },
    [](char *d, size_t m, const char *s, size_t) { return strcat_s(d, m, s); },
};
// Indexes into kFns; a memcpy_s or memset_s row also runs for the two variants.
constexpr int kMemcpy = 0, kMemset = 3, kStrcpy = 6, kStrncpy = 7, kStrcat = 8, kTc = 2;
constexpr int kLit = -1;     // the source is the row's literal (null included)
constexpr int kNoDest = -2;  // the destination is null, the source the literal

struct CopyRow {
    int fn;
    const char *name;
    std::string init;  // buffer contents, padded with 'x' to 16 bytes
    size_t destMax;
    const char *src;
    int at;  // kLit, kNoDest, or the source's offset into the buffer
    size_t count;
    int expected;
    std::string bytes;  // the buffer's first bytes afterwards
};

void Check(const CopyRow &row, int fn) {
    SCOPED_TRACE(std::string(row.name) + " (routine " + std::to_string(fn) + ")");
    char buf[16];
    memset(buf, 'x', sizeof buf);
    memcpy(buf, row.init.data(), row.init.size());
    const char *src = row.at >= 0 ? buf + row.at : row.src;
    EXPECT_EQ(kFns[fn](row.at == kNoDest ? nullptr : buf, row.destMax, src, row.count),
              row.expected);
    EXPECT_EQ(std::string(buf, row.bytes.size()), row.bytes);
}

// Checks every copying routine makes first, in this order.
TEST(SecureCopy, ArgumentChecksComeFirst) {
    for (int fn : {kMemcpy, kMemcpy + 1, kMemcpy + kTc, kStrcpy, kStrncpy, kStrcat}) {
        // memcpy_s resets destMax bytes, the string routines the first byte.
        const std::string reset = fn < kMemset ? "\0\0\0\0\0\0\0\0ij"s : "\0bcdefghij"s;
        const bool tc = fn == kMemcpy + kTc;  // copies what fits even above the limit
        const CopyRow rows[] = {
            {fn, "destMax 0", kInit, 0, "AB", kLit, 2, SEC_ERANGE, kInit},
            {fn, "above the limit", kInit, kAbove, "AB", kLit, 2, tc ? 0 : SEC_ERANGE,
             tc ? "ABcdefgh" : kInit},
            {fn, "destMax checked before dest", kInit, 0, "AB", kNoDest, 2, SEC_ERANGE, kInit},
            {fn, "null dest", kInit, 8, "AB", kNoDest, 2, SEC_EINVAL, kInit},
            {fn, "null src", kInit, 8, nullptr, kLit, 0, SEC_EINVAL_RESET, reset},
        };
        for (const CopyRow &row : rows) {
            Check(row, fn);
        }
    }
}

const CopyRow kCopyRows[] = {
    {kMemcpy, "copies count bytes", kInit, 8, "012345678", kLit, 4, SEC_OK, "0123efgh"},
    {kMemcpy, "count 0 copies nothing", kInit, 8, "012345678", kLit, 0, SEC_OK, kInit},
    {kMemcpy, "(d, 4, s, 5)", kInit, 4, "012345678", kLit, 5, SEC_ERANGE_RESET, "\0\0\0\0ef"s},
    {kMemcpy, "overlap", kInit, 8, nullptr, 2, 4, SEC_EOVERLAP_RESET, "\0\0\0\0\0\0\0\0ij"s},
    {kMemcpy, "same address", kInit, 8, nullptr, 0, 1, SEC_EOVERLAP_RESET, "\0\0\0\0\0\0\0\0i"s},
    {kMemcpy, "adjacent ranges", kInit, 8, nullptr, 4, 4, SEC_OK, "efghefghij"},

    {kMemset, "fills count bytes", kInit, 8, "#", kLit, 4, SEC_OK, "####efgh"},
    {kMemset, "(d, 8, c, 16) fills 8 bytes", kInit, 8, "#", kLit, 16, SEC_ERANGE_RESET,
     "########ij"},
    {kMemset, "destMax 0, count 0", kInit, 0, "#", kLit, 0, SEC_OK, kInit},
    {kMemset, "destMax 0, count 1", kInit, 0, "#", kLit, 1, SEC_ERANGE, kInit},
    {kMemset, "above the limit", kInit, kAbove, "#", kLit, 4, SEC_ERANGE, kInit},
    {kMemset, "null dest", kInit, 8, "#", kNoDest, 4, SEC_EINVAL, kInit},

    {kStrcpy, "destMax-1 characters fit", kInit, 4, "ABC", kLit, 0, SEC_OK, "ABC\0efgh"s},
    {kStrcpy, "destMax characters", kInit, 3, "ABC", kLit, 0, SEC_ERANGE_RESET, "\0bcd"s},
    {kStrcpy, "overlap", "hello\0"s, 16, nullptr, 1, 0, SEC_EOVERLAP_RESET, "\0ello\0"s},
    {kStrcpy, "source behind the copy", "\0xxxxxxxxxab\0"s, 10, nullptr, 10, 0, SEC_OK, "ab\0x"s},

    {kStrncpy, "all of a shorter source", kInit, 16, "AB", kLit, 5, SEC_OK, "AB\0defgh"s},
    {kStrncpy, "count 0 empties dest", kInit, 16, "ABC", kLit, 0, SEC_OK, "\0bcd"s},
    {kStrncpy, "count above the limit", kInit, 16, "ABC", kLit, kAbove, SEC_ERANGE_RESET, "\0bc"s},
    {kStrncpy, "destMax <= count, source fits", kInit, 4, "ABC", kLit, 10, SEC_OK, "ABC\0efgh"s},
    {kStrncpy, "(d, 10, s, 10)", kInit, 10, "0123456789", kLit, 10, SEC_ERANGE_RESET,
     "\0bcdefghijk"s},
    {kStrncpy, "destMax > count: cut at count", kInit, 4, "ABCDEF", kLit, 3, SEC_OK, "ABC\0efgh"s},
    {kStrncpy, "overlap", "abcdef\0"s, 16, nullptr, 2, 3, SEC_EOVERLAP_RESET, "\0bcdef\0"s},

    {kStrcat, "fills destMax exactly", "ab\0"s, 5, "cd", kLit, 0, SEC_OK, "abcd\0xx"s},
    {kStrcat, "one character too long", "ab\0"s, 4, "cd", kLit, 0, SEC_ERANGE_RESET, "\0b\0xx"s},
    {kStrcat, "no terminator", kInit, 8, "cd", kLit, 0, SEC_EINVAL_RESET, "\0bcdefghij"s},
    {kStrcat, "overlap", "abc\0def\0"s, 16, nullptr, 4, 0, SEC_EOVERLAP_RESET, "\0bc\0def\0"s},
};

TEST(SecureCopy, Table) {
    for (const CopyRow &row : kCopyRows) {
        const bool variants = row.fn == kMemcpy || row.fn == kMemset;
        for (int fn = row.fn; fn <= row.fn + (variants ? kTc : 0); ++fn) {
            if (row.destMax != kAbove || fn != kMemcpy + kTc) {
                Check(row, fn);
            }
        }
    }
}

// Formatting. No format attribute here: rows pass a null format on purpose.
int Format(bool truncated, char *dest, size_t destMax, size_t count, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int ret = truncated ? vsnprintf_truncated_s(dest, destMax, format, args)
                        : vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return ret;
}

char gScratch[16];  // a %n that got through would write here, not into a literal

TEST(Vsnprintf, Table) {
    const char *const k20 = "abcdefghijklmnopqrst";
    const struct {
        bool truncated;  // vsnprintf_truncated_s, which takes no count
        const char *name;
        size_t destMax, count;
        const char *format, *arg;
        int expected;
        std::string bytes;
    } rows[] = {
        {false, "exactly count characters", 16, 5, "%s", "hello", 5, "hello\0"s},
        {false, "(d, 16, 15) with 20 characters", 16, 15, "%s", k20, -1, "abcdefghijklmno\0"s},
        {false, "destMax <= count, text fits", 6, 10, "%s", "hello", 5, "hello\0"s},
        {false, "destMax <= count, text of destMax", 5, 10, "%s", "hello", -1, "\0ell\0x"s},
        {false, "count above 0x7FFFFFFE", 16, 0x7FFFFFFF, "%s", "a", -1, "\0xxx"s},
        {false, "destMax 0", 0, 15, "%s", "a", -1, "xxxx"},
        {false, "null format", 16, 15, nullptr, "a", -1, "\0xxx"s},
        {false, "%n printed as written", 16, 15, "ab%hhn", gScratch, 6, "ab%hhn\0"s},
        {false, "%%n is text", 16, 15, "%%n", nullptr, 2, "%n\0"s},
        {true, "destMax-1 characters", 6, 0, "%s", "hello", 5, "hello\0"s},
        {true, "cut silently", 4, 0, "%s", "hello", 3, "hel\0"s},
        {true, "above the limit", kAbove, 0, "%s", "a", -1, "xxxx"},
        {true, "null format", 16, 0, nullptr, "a", -1, "\0xxx"s},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.truncated ? "truncated: " : "") + row.name);
        char buf[16];
        memset(buf, 'x', sizeof buf);
        EXPECT_EQ(Format(row.truncated, buf, row.destMax, row.count, row.format, row.arg),
                  row.expected);
        EXPECT_EQ(std::string(buf, row.bytes.size()), row.bytes);
        EXPECT_EQ(Format(row.truncated, nullptr, row.destMax, row.count, row.format, row.arg), -1);
    }
    EXPECT_EQ(gScratch[0], 0);
    char buf[8];
    EXPECT_EQ(snprintf_s(buf, 8, 7, "%d|%s", -42, "ab"), 6);
}

// Scanning: results match glibc's; forms it cannot check end the scan.
TEST(SscanfS, IntegersAgreeWithGlibc) {
    const struct {
        const char *text, *format;
        int expected, a, b;
        bool glibc = true;
    } rows[] = {
        {"pid=3 level=5", "pid=%u level=%u\n", 2, 3, 5},
        {"pid", "pid=%u level=%u", -1, -1, -1},
        {"7", "%*d %d", -1, -1, -1},
        {"1 2", "%d %d end", 2, 1, 2},
        {"50% 3", "%d%% %d", 2, 50, 3},
        {"1 2", "%d %1$d", 1, 1, -1, false},
        {"1 2", "%d %[a", 1, 1, -1, false},
        {"1 2", "%d %y %d", 1, 1, -1, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.format) + " on " + row.text);
        int a = -1, b = -1, ga = -1, gb = -1;
        EXPECT_EQ(sscanf_s(row.text, row.format, &a, &b), row.expected);
        EXPECT_EQ(std::make_pair(a, b), std::make_pair(row.a, row.b));
        if (row.glibc) {
            EXPECT_EQ(sscanf(row.text, row.format, &ga, &gb), row.expected) << "glibc";
            EXPECT_EQ(std::make_pair(ga, gb), std::make_pair(row.a, row.b));
        }
    }
    int n = 0;
    char *allocated = nullptr;
    EXPECT_EQ(sscanf_s(nullptr, "%d", &n), -1);
    EXPECT_EQ(sscanf_s("1 2", "%d %d", &n, static_cast<int *>(nullptr)), 1);
    EXPECT_EQ(sscanf_s("abc", "%ms", &allocated), 0);
    EXPECT_EQ(allocated, nullptr);
    // %n counts from the start of the whole text, in its modifier's width.
    long n2 = -1;
    signed char n3 = -1;
    EXPECT_EQ(sscanf_s("  12 ab", "%d ab%ln%hhn", &n, &n2, &n3), 1);
    EXPECT_EQ(n2 * 100 + n3, 707);
}

// A %s, %c or %[ field that does not fit its size ends the scan, cleared.
TEST(SscanfS, SizedConversions) {
    const struct {
        const char *text, *format;
        size_t sizeA;
        int expected;
        const char *a, *b;  // both destinations start as "#"; b's size is 8
    } rows[] = {
        {"abcdef", "%3s%s", 8, 2, "abc", "def"},
        {"abcd x", "%s %s", 4, 0, "", "#"},
        {"a", "%s", 1, 0, "", "#"},
        {"a", "%s", 0, 0, "#", "#"},
        {"]]a]b", "%[]a]%s", 8, 2, "]]a]", "b"},
        {"abcde", "%[a-d]", 4, 0, "", "#"},
        {"abcd", "%3c", 2, 0, "", "#"},
        {"", "x%%%c", 4, -1, "", "#"},
        {"", "%*s%s", 4, -1, "#", "#"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.format) + " on " + row.text);
        char a[16] = "#", b[16] = "#";
        EXPECT_EQ(sscanf_s(row.text, row.format, a, row.sizeA, b, size_t{8}), row.expected);
        EXPECT_STREQ(a, row.a);
        EXPECT_STREQ(b, row.b);
    }
    wchar_t w[4] = L"#";  // wide destinations count wide characters
    EXPECT_EQ(sscanf_s("abcd", "%ls", w, std::size(w)), 0);
    EXPECT_EQ(w[0], L'\0');
}

}  // namespace
