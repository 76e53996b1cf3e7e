// Bounds-checked memory and string routines. One table per routine:
// named rows of (destination, destMax, source, count) -> result and the bytes
// the destination holds afterwards.
#include "platform/securec.h"

#include <gtest/gtest.h>

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>

#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

constexpr size_t kBuf = 16;
constexpr size_t kAboveLimit = 0x80000000UL;

// Where a row's source comes from.
enum class Src { kLiteral, kNull, kInBuffer };

// One row for the memory and string routines. The buffer starts as `init`
// (padded with 'x' to 16 bytes); the destination is the buffer itself unless
// nullDest; a kInBuffer source points `srcOffset` bytes into the buffer.
struct Row {
    const char *name;
    std::string init;
    bool nullDest;
    size_t destMax;
    Src src;
    const char *literal;
    size_t srcOffset;
    size_t count;
    int expected;
    std::string expectedBytes;  // compared with the buffer's first bytes
};

struct Buffer {
    explicit Buffer(const std::string &init) {
        memset(bytes, 'x', sizeof bytes);
        memcpy(bytes, init.data(), init.size());
    }
    char bytes[kBuf];
};

char *DestOf(const Row &row, Buffer &buf) {
    return row.nullDest ? nullptr : buf.bytes;
}

const char *SrcOf(const Row &row, Buffer &buf) {
    switch (row.src) {
        case Src::kLiteral:
            return row.literal;
        case Src::kNull:
            return nullptr;
        case Src::kInBuffer:
            return buf.bytes + row.srcOffset;
    }
    return nullptr;
}

void ExpectBytes(const Row &row, const Buffer &buf) {
    ASSERT_LE(row.expectedBytes.size(), kBuf) << row.name;
    EXPECT_EQ(std::string(buf.bytes, row.expectedBytes.size()), row.expectedBytes) << row.name;
}

const std::string kUntouched = "xxxxxxxxxxxxxxxx";

// ---------------------------------------------------------------------------
// memcpy_s

const std::vector<Row> kMemcpyRows = {
    {"copies count bytes", "", false, 8, Src::kLiteral, "0123456789", 0, 4, SEC_OK,
     "0123xxxxxxxxxxxx"},
    {"count equal to destMax", "", false, 8, Src::kLiteral, "0123456789", 0, 8, SEC_OK,
     "01234567xxxxxxxx"},
    {"count 0 copies nothing", "", false, 8, Src::kLiteral, "0123456789", 0, 0, SEC_OK, kUntouched},
    {"destMax 0", "", false, 0, Src::kLiteral, "0123456789", 0, 4, SEC_ERANGE, kUntouched},
    {"destMax above the limit", "", false, kAboveLimit, Src::kLiteral, "0123456789", 0, 4,
     SEC_ERANGE, kUntouched},
    {"destMax out of range before null dest", "", true, 0, Src::kNull, nullptr, 0, 4, SEC_ERANGE,
     kUntouched},
    {"null dest", "", true, 8, Src::kLiteral, "0123456789", 0, 4, SEC_EINVAL, kUntouched},
    {"null src zeroes destMax bytes", "", false, 8, Src::kNull, nullptr, 0, 4, SEC_EINVAL_RESET,
     "\0\0\0\0\0\0\0\0xxxxxxxx"s},
    {"null src with count 0", "", false, 8, Src::kNull, nullptr, 0, 0, SEC_EINVAL_RESET,
     "\0\0\0\0\0\0\0\0xxxxxxxx"s},
    {"null src before count too large", "", false, 4, Src::kNull, nullptr, 0, 5, SEC_EINVAL_RESET,
     "\0\0\0\0xxxxxxxxxxxx"s},
    {"count above destMax (d, 4, s, 5)", "", false, 4, Src::kLiteral, "0123456789", 0, 5,
     SEC_ERANGE_RESET, "\0\0\0\0xxxxxxxxxxxx"s},
    {"overlap, source ahead", "abcdefghijklmnop", false, 8, Src::kInBuffer, nullptr, 2, 4,
     SEC_EOVERLAP_RESET, "\0\0\0\0\0\0\0\0ijklmnop"s},
    {"overlap, same address", "abcdefghijklmnop", false, 8, Src::kInBuffer, nullptr, 0, 1,
     SEC_EOVERLAP_RESET, "\0\0\0\0\0\0\0\0ijklmnop"s},
    {"adjacent ranges do not overlap", "abcdefghijklmnop", false, 8, Src::kInBuffer, nullptr, 4, 4,
     SEC_OK, "efghefghijklmnop"},
    {"count too large before overlap", "abcdefghijklmnop", false, 4, Src::kInBuffer, nullptr, 2, 5,
     SEC_ERANGE_RESET, "\0\0\0\0efghijklmnop"s},
};

using MemcpyFn = int (*)(void *, size_t, const void *, size_t);

void RunMemcpyTable(MemcpyFn fn, const char *fnName, bool tc) {
    for (const Row &row : kMemcpyRows) {
        SCOPED_TRACE(std::string(fnName) + ": " + row.name);
        // memcpy_sOptTc skips the upper limit when the copy itself is fine.
        if (tc && row.destMax == kAboveLimit && !row.nullDest) {
            continue;
        }
        Buffer buf(row.init);
        EXPECT_EQ(fn(DestOf(row, buf), row.destMax, SrcOf(row, buf), row.count), row.expected);
        ExpectBytes(row, buf);
    }
}

TEST(MemcpyS, Table) {
    RunMemcpyTable(memcpy_s, "memcpy_s", false);
}
TEST(MemcpyS, OptAsmTable) {
    RunMemcpyTable(memcpy_sOptAsm, "memcpy_sOptAsm", false);
}
TEST(MemcpyS, OptTcTable) {
    RunMemcpyTable(memcpy_sOptTc, "memcpy_sOptTc", true);
}

TEST(MemcpyS, OptTcCopiesWithoutUpperLimit) {
    char dest[8] = "xxxxxxx";
    EXPECT_EQ(memcpy_sOptTc(dest, kAboveLimit, "0123", 4), SEC_OK);
    EXPECT_EQ(std::string(dest, 4), "0123");
    EXPECT_EQ(memcpy_sOptTc(dest, kAboveLimit, "0123", 0), SEC_ERANGE);
}

// Every count around the size-specialised paths copies exactly `count` bytes.
TEST(MemcpyS, VariantsAgreeForEveryCountUpTo100) {
    unsigned char src[100];
    for (size_t i = 0; i < sizeof src; ++i) {
        src[i] = static_cast<unsigned char>(i * 7 + 1);
    }
    for (MemcpyFn fn : {memcpy_s, memcpy_sOptAsm, memcpy_sOptTc}) {
        for (size_t count = 0; count <= sizeof src; ++count) {
            unsigned char dest[101];
            memset(dest, 0xEE, sizeof dest);
            ASSERT_EQ(fn(dest, 100, src, count), SEC_OK) << count;
            EXPECT_EQ(memcmp(dest, src, count), 0) << count;
            EXPECT_EQ(dest[count], 0xEE) << count;
        }
    }
}

// ---------------------------------------------------------------------------
// memset_s: the row's `literal` is unused; the fill byte is 'a' except where
// the logging path uses 0 (srcOffset carries the fill byte).

struct MemsetRow {
    const char *name;
    bool nullDest;
    size_t destMax;
    int c;
    size_t count;
    int expected;
    std::string expectedBytes;
};

const std::vector<MemsetRow> kMemsetRows = {
    {"fills count bytes", false, 8, 'a', 4, SEC_OK, "aaaaxxxxxxxxxxxx"},
    {"count equal to destMax", false, 8, 'a', 8, SEC_OK, "aaaaaaaaxxxxxxxx"},
    {"count 0", false, 8, 'a', 0, SEC_OK, kUntouched},
    {"count above destMax (d, 8, 0, 16)", false, 8, 0, 16, SEC_ERANGE_RESET,
     "\0\0\0\0\0\0\0\0xxxxxxxx"s},
    {"destMax 0 and count 0", false, 0, 'a', 0, SEC_OK, kUntouched},
    {"destMax 0 and count 1", false, 0, 'a', 1, SEC_ERANGE, kUntouched},
    {"destMax above the limit", false, kAboveLimit, 'a', 4, SEC_ERANGE, kUntouched},
    {"null dest", true, 8, 'a', 4, SEC_EINVAL, kUntouched},
    {"null dest and destMax 0", true, 0, 'a', 0, SEC_ERANGE, kUntouched},
    {"null dest and destMax above the limit", true, kAboveLimit, 'a', 4, SEC_ERANGE, kUntouched},
    {"byte value taken modulo 256", false, 8, 0x141, 2, SEC_OK, "AAxxxxxxxxxxxxxx"},
};

using MemsetFn = int (*)(void *, size_t, int, size_t);

void RunMemsetTable(MemsetFn fn, const char *fnName, bool tc) {
    for (const MemsetRow &row : kMemsetRows) {
        SCOPED_TRACE(std::string(fnName) + ": " + row.name);
        if (tc && row.destMax == kAboveLimit && !row.nullDest) {
            continue;
        }
        char buf[kBuf];
        memset(buf, 'x', sizeof buf);
        EXPECT_EQ(fn(row.nullDest ? nullptr : buf, row.destMax, row.c, row.count), row.expected);
        EXPECT_EQ(std::string(buf, row.expectedBytes.size()), row.expectedBytes);
    }
}

TEST(MemsetS, Table) {
    RunMemsetTable(memset_s, "memset_s", false);
}
TEST(MemsetS, OptAsmTable) {
    RunMemsetTable(memset_sOptAsm, "memset_sOptAsm", false);
}
TEST(MemsetS, OptTcTable) {
    RunMemsetTable(memset_sOptTc, "memset_sOptTc", true);
}

TEST(MemsetS, VariantsAgreeForEveryCountUpTo64) {
    for (MemsetFn fn : {memset_s, memset_sOptAsm, memset_sOptTc}) {
        for (size_t count = 0; count <= 64; ++count) {
            unsigned char dest[65];
            memset(dest, 0xEE, sizeof dest);
            ASSERT_EQ(fn(dest, 64, 0x5A, count), SEC_OK) << count;
            for (size_t i = 0; i < count; ++i) {
                ASSERT_EQ(dest[i], 0x5A) << count << " at " << i;
            }
            EXPECT_EQ(dest[count], 0xEE) << count;
        }
    }
}

// ---------------------------------------------------------------------------
// strcpy_s

const std::vector<Row> kStrcpyRows = {
    {"copies with terminator", "", false, 16, Src::kLiteral, "abc", 0, 0, SEC_OK, "abc\0xxxx"s},
    {"empty source", "", false, 16, Src::kLiteral, "", 0, 0, SEC_OK, "\0xxx"s},
    {"destMax-1 characters fit", "", false, 4, Src::kLiteral, "abc", 0, 0, SEC_OK, "abc\0xxxx"s},
    {"destMax characters do not fit", "", false, 3, Src::kLiteral, "abc", 0, 0, SEC_ERANGE_RESET,
     "\0xxxxxxx"s},
    {"destMax 0", "", false, 0, Src::kLiteral, "abc", 0, 0, SEC_ERANGE, kUntouched},
    {"destMax above the limit", "", false, kAboveLimit, Src::kLiteral, "abc", 0, 0, SEC_ERANGE,
     kUntouched},
    {"null dest", "", true, 16, Src::kLiteral, "abc", 0, 0, SEC_EINVAL, kUntouched},
    {"null src", "", false, 16, Src::kNull, nullptr, 0, 0, SEC_EINVAL_RESET, "\0xxx"s},
    {"overlap, source inside the destination", "hello\0"s, false, 16, Src::kInBuffer, nullptr, 1, 0,
     SEC_EOVERLAP_RESET, "\0ello\0"s},
    {"overlap, same address", "hello\0"s, false, 16, Src::kInBuffer, nullptr, 0, 0,
     SEC_EOVERLAP_RESET, "\0ello\0"s},
    {"too long before overlap", "hello\0"s, false, 3, Src::kInBuffer, nullptr, 1, 0,
     SEC_ERANGE_RESET, "\0ello\0"s},
    {"source behind the copied range", "\0xxxxxxxxxab\0"s, false, 10, Src::kInBuffer, nullptr, 10,
     0, SEC_OK, "ab\0xxxxxxxab\0"s},
};

TEST(StrcpyS, Table) {
    for (const Row &row : kStrcpyRows) {
        SCOPED_TRACE(row.name);
        Buffer buf(row.init);
        EXPECT_EQ(strcpy_s(DestOf(row, buf), row.destMax, SrcOf(row, buf)), row.expected);
        ExpectBytes(row, buf);
    }
}

// ---------------------------------------------------------------------------
// strncpy_s

const std::vector<Row> kStrncpyRows = {
    {"copies count of a longer source", "", false, 16, Src::kLiteral, "abcdef", 0, 3, SEC_OK,
     "abc\0xxxx"s},
    {"copies all of a shorter source", "", false, 16, Src::kLiteral, "ab", 0, 5, SEC_OK,
     "ab\0xxxxx"s},
    {"count 0 empties dest", "", false, 16, Src::kLiteral, "abc", 0, 0, SEC_OK, "\0xxx"s},
    {"count above the limit", "", false, 16, Src::kLiteral, "abc", 0, kAboveLimit, SEC_ERANGE_RESET,
     "\0xxx"s},
    {"destMax <= count, source fits", "", false, 4, Src::kLiteral, "abc", 0, 10, SEC_OK,
     "abc\0xxxx"s},
    {"destMax == count, source of destMax characters (10, 10)", "", false, 10, Src::kLiteral,
     "0123456789", 0, 10, SEC_ERANGE_RESET, "\0xxxxxxxxxxxxxx"s},
    {"destMax <= count, longer source", "", false, 4, Src::kLiteral, "abcdef", 0, 5,
     SEC_ERANGE_RESET, "\0xxx"s},
    {"destMax > count, longer source is cut at count", "", false, 4, Src::kLiteral, "abcdef", 0, 3,
     SEC_OK, "abc\0"s},
    {"destMax 0", "", false, 0, Src::kLiteral, "abc", 0, 3, SEC_ERANGE, kUntouched},
    {"destMax above the limit", "", false, kAboveLimit, Src::kLiteral, "abc", 0, 3, SEC_ERANGE,
     kUntouched},
    {"null dest", "", true, 16, Src::kLiteral, "abc", 0, 3, SEC_EINVAL, kUntouched},
    {"null src", "", false, 16, Src::kNull, nullptr, 0, 3, SEC_EINVAL_RESET, "\0xxx"s},
    {"null src before count 0", "", false, 16, Src::kNull, nullptr, 0, 0, SEC_EINVAL_RESET,
     "\0xxx"s},
    {"overlap of the copied range", "abcdef\0"s, false, 16, Src::kInBuffer, nullptr, 2, 3,
     SEC_EOVERLAP_RESET, "\0bcdef\0"s},
    {"source behind the copied range", "abcdef\0"s, false, 16, Src::kInBuffer, nullptr, 4, 2,
     SEC_OK, "ef\0def\0"s},
};

TEST(StrncpyS, Table) {
    for (const Row &row : kStrncpyRows) {
        SCOPED_TRACE(row.name);
        Buffer buf(row.init);
        EXPECT_EQ(strncpy_s(DestOf(row, buf), row.destMax, SrcOf(row, buf), row.count),
                  row.expected);
        ExpectBytes(row, buf);
    }
}

// The logging path's case: strncpy_s(d, 256, s, 255) with 300 characters.
TEST(StrncpyS, LongSourceCutAtCount) {
    std::string src(300, 'q');
    char dest[256];
    memset(dest, 'x', sizeof dest);
    EXPECT_EQ(strncpy_s(dest, sizeof dest, src.c_str(), 255), SEC_OK);
    EXPECT_EQ(std::string(dest), std::string(255, 'q'));
}

// ---------------------------------------------------------------------------
// strcat_s

const std::vector<Row> kStrcatRows = {
    {"appends", "ab\0"s, false, 16, Src::kLiteral, "cd", 0, 0, SEC_OK, "abcd\0xx"s},
    {"appends to an empty text", "\0"s, false, 16, Src::kLiteral, "cd", 0, 0, SEC_OK, "cd\0x"s},
    {"fills destMax exactly", "ab\0"s, false, 5, Src::kLiteral, "cd", 0, 0, SEC_OK, "abcd\0xx"s},
    {"one character too long", "ab\0"s, false, 4, Src::kLiteral, "cd", 0, 0, SEC_ERANGE_RESET,
     "\0b\0xx"s},
    {"no terminator within destMax", "abcdefgh", false, 8, Src::kLiteral, "cd", 0, 0,
     SEC_EINVAL_RESET, "\0bcdefgh"s},
    {"no terminator and overlap", "abcdefgh", false, 8, Src::kInBuffer, nullptr, 2, 0,
     SEC_EINVAL_RESET, "\0bcdefgh"s},
    {"overlap, same address", "abc\0def\0"s, false, 16, Src::kInBuffer, nullptr, 0, 0,
     SEC_EOVERLAP_RESET, "\0bc\0def\0"s},
    {"overlap, source behind the text", "abc\0def\0"s, false, 16, Src::kInBuffer, nullptr, 4, 0,
     SEC_EOVERLAP_RESET, "\0bc\0def\0"s},
    {"overlap before too long", "abc\0def\0"s, false, 5, Src::kInBuffer, nullptr, 4, 0,
     SEC_EOVERLAP_RESET, "\0bc\0def\0"s},
    {"source beyond the written range", "abc\0def\0gh\0"s, false, 8, Src::kInBuffer, nullptr, 8, 0,
     SEC_OK, "abcgh\0f\0gh\0"s},
    {"destMax 0", "ab\0"s, false, 0, Src::kLiteral, "cd", 0, 0, SEC_ERANGE, "ab\0xxxx"s},
    {"destMax above the limit", "ab\0"s, false, kAboveLimit, Src::kLiteral, "cd", 0, 0, SEC_ERANGE,
     "ab\0xxxx"s},
    {"null dest", "ab\0"s, true, 16, Src::kLiteral, "cd", 0, 0, SEC_EINVAL, "ab\0xxxx"s},
    {"null src", "ab\0"s, false, 16, Src::kNull, nullptr, 0, 0, SEC_EINVAL_RESET, "\0b\0xx"s},
};

TEST(StrcatS, Table) {
    for (const Row &row : kStrcatRows) {
        SCOPED_TRACE(row.name);
        Buffer buf(row.init);
        EXPECT_EQ(strcat_s(DestOf(row, buf), row.destMax, SrcOf(row, buf)), row.expected);
        ExpectBytes(row, buf);
    }
}

// ---------------------------------------------------------------------------
// snprintf_s / vsnprintf_s: every row formats `format` with one string argument.

struct FormatRow {
    const char *name;
    bool nullDest;
    size_t destMax;
    size_t count;
    const char *format;
    const char *arg;
    int expected;
    std::string expectedBytes;
};

// No format attribute: rows pass a null format on purpose.
int CallVsnprintfS(char *dest, size_t destMax, size_t count, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int ret = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return ret;
}

int CallVsnprintfTruncatedS(char *dest, size_t destMax, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int ret = vsnprintf_truncated_s(dest, destMax, format, args);
    va_end(args);
    return ret;
}

const char *const k20 = "abcdefghijklmnopqrst";
const char *const k12 = "abcdefghijkl";

const std::vector<FormatRow> kVsnprintfRows = {
    {"fits", false, 16, 15, "<%s>", "hello", 7, "<hello>\0"s},
    {"exactly count characters", false, 16, 5, "%s", "hello", 5, "hello\0"s},
    {"destMax 16 count 15, 20 characters: first 15 kept", false, 16, 15, "%s", k20, -1,
     "abcdefghijklmno\0"s},
    {"destMax 10 count 10, 12 characters: emptied", false, 10, 10, "%s", k12, -1, "\0bcdefghi"s},
    {"destMax <= count, text fits", false, 6, 10, "%s", "hello", 5, "hello\0"s},
    {"destMax <= count, text of destMax characters", false, 5, 10, "%s", "hello", -1,
     "\0ell\0xxx"s},
    {"count 0, empty text", false, 16, 0, "%s", "", 0, "\0xxx"s},
    {"count 0, longer text", false, 16, 0, "%s", "a", -1, "\0xxx"s},
    {"count above 0x7FFFFFFE", false, 16, 0x7FFFFFFF, "%s", "a", -1, "\0xxx"s},
    {"count 0x7FFFFFFE", false, 16, 0x7FFFFFFE, "%s", "a", 1, "a\0xx"s},
    {"null dest", true, 16, 15, "%s", "a", -1, kUntouched},
    {"destMax 0", false, 0, 15, "%s", "a", -1, kUntouched},
    {"destMax above the limit", false, kAboveLimit, 15, "%s", "a", -1, kUntouched},
    {"null format", false, 16, 15, nullptr, "a", -1, "\0xxx"s},
    {"null format and null dest", true, 16, 15, nullptr, "a", -1, kUntouched},
};

TEST(VsnprintfS, Table) {
    for (const FormatRow &row : kVsnprintfRows) {
        SCOPED_TRACE(row.name);
        char buf[kBuf];
        memset(buf, 'x', sizeof buf);
        EXPECT_EQ(CallVsnprintfS(row.nullDest ? nullptr : buf, row.destMax, row.count, row.format,
                                 row.arg),
                  row.expected);
        EXPECT_EQ(std::string(buf, row.expectedBytes.size()), row.expectedBytes);
    }
}

TEST(VsnprintfS, SnprintfSPassesArgumentsThrough) {
    char buf[64];
    EXPECT_EQ(snprintf_s(buf, sizeof buf, sizeof buf - 1, "%d|%5.2f|%-4s|%lx|%e", -42, 3.14159,
                         "ab", 0xbeefUL, 1e-5),
              32);
    EXPECT_STREQ(buf, "-42| 3.14|ab  |beef|1.000000e-05");
}

// The logging path's contract: a long record is cut at count and reported as -1.
TEST(VsnprintfS, TruncationKeepsPrefix) {
    char buf[8];
    EXPECT_EQ(snprintf_s(buf, sizeof buf, 5, "%d", 123456789), -1);
    EXPECT_STREQ(buf, "12345");
}

// %n names no conversion in this program; such formats are refused.
TEST(VsnprintfS, PercentNRefused) {
    char buf[16] = "xxxx";
    int n = 7;
    EXPECT_EQ(CallVsnprintfS(buf, sizeof buf, 15, "ab%n", &n), -1);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(n, 7);
    strcpy(buf, "xxxx");
    EXPECT_EQ(CallVsnprintfS(buf, sizeof buf, 15, "%5%%d%hhn", 1, &n), -1);
    EXPECT_EQ(CallVsnprintfTruncatedS(buf, sizeof buf, "%ln", &n), -1);
    EXPECT_EQ(n, 7);
    // A literal "%%n" is text, not a directive.
    EXPECT_EQ(CallVsnprintfS(buf, sizeof buf, 15, "%%n"), 2);
    EXPECT_STREQ(buf, "%n");
}

const std::vector<FormatRow> kTruncatedRows = {
    {"fits", false, 16, 0, "<%s>", "hello", 7, "<hello>\0"s},
    {"destMax-1 characters", false, 6, 0, "%s", "hello", 5, "hello\0"s},
    {"cut silently", false, 4, 0, "%s", "hello", 3, "hel\0"s},
    {"empty text", false, 4, 0, "%s", "", 0, "\0xxx"s},
    {"null dest", true, 16, 0, "%s", "a", -1, kUntouched},
    {"destMax 0", false, 0, 0, "%s", "a", -1, kUntouched},
    {"destMax above the limit", false, kAboveLimit, 0, "%s", "a", -1, kUntouched},
    {"null format", false, 16, 0, nullptr, "a", -1, "\0xxx"s},
};

TEST(VsnprintfTruncatedS, Table) {
    for (const FormatRow &row : kTruncatedRows) {
        SCOPED_TRACE(row.name);
        char buf[kBuf];
        memset(buf, 'x', sizeof buf);
        EXPECT_EQ(
            CallVsnprintfTruncatedS(row.nullDest ? nullptr : buf, row.destMax, row.format, row.arg),
            row.expected);
        EXPECT_EQ(std::string(buf, row.expectedBytes.size()), row.expectedBytes);
    }
}

TEST(VsnprintfTruncatedS, SnprintfTruncatedS) {
    char buf[6];
    EXPECT_EQ(snprintf_truncated_s(buf, sizeof buf, "%d-%d", 1234, 5678), 5);
    EXPECT_STREQ(buf, "1234-");
}

// ---------------------------------------------------------------------------
// sscanf_s

// Two-integer formats: the result and the values must be glibc's own.
struct IntScanRow {
    const char *name;
    const char *text;
    const char *format;
    int expected;
    int a;
    int b;
};

const std::vector<IntScanRow> kIntScanRows = {
    {"pid and level", "pid=3 level=5", "pid=%u level=%u\n", 2, 3, 5},
    {"literal mismatch after the first field", "pid=3 lvl=5", "pid=%u level=%u", 1, 3, -1},
    {"input ends inside the literal before the first field", "pid", "pid=%u level=%u", -1, -1, -1},
    {"no match at all", "x", "pid=%u", 0, -1, -1},
    {"blanks only", "   ", "%d%d", -1, -1, -1},
    {"leading blanks skipped by %d", "  7   8", "%d%d", 2, 7, 8},
    {"input ends before the second field", "7", "%d %d", 1, 7, -1},
    {"suppressed field then end of input", "7", "%*d %d", -1, -1, -1},
    {"suppressed field then a field", "7 8", "%*d %d", 1, 8, -1},
    {"trailing literal missing", "1 2", "%d %d end", 2, 1, 2},
    {"literal percent", "50% 3", "%d%% %d", 2, 50, 3},
    {"width limits digits", "12345", "%2d%d", 2, 12, 345},
    {"hex and octal", "0x1f 10", "%x %o", 2, 31, 8},
    {"%i with prefixes", "0x10 010", "%i %i", 2, 16, 8},
    {"sign and blanks in the format", "-5 ,  +6", "%d , %d", 2, -5, 6},
    {"only literals, matching", "abc", "abc", 0, -1, -1},
    {"only literals, input ends", "ab", "abc", -1, -1, -1},
    {"only literals, mismatch", "abd", "abc", 0, -1, -1},
    {"format white space matches none", "1,2", "%d ,%d", 2, 1, 2},
    {"unknown conversion ends the scan", "1 2", "%d %y %d", 1, 1, -1},
};

TEST(SscanfS, IntegerTableAgreesWithGlibc) {
    for (const IntScanRow &row : kIntScanRows) {
        SCOPED_TRACE(row.name);
        int a = -1;
        int b = -1;
        EXPECT_EQ(sscanf_s(row.text, row.format, &a, &b), row.expected);
        EXPECT_EQ(a, row.a);
        EXPECT_EQ(b, row.b);
        if (strchr(row.format, 'y') == nullptr) {
            int ga = -1;
            int gb = -1;
            EXPECT_EQ(sscanf(row.text, row.format, &ga, &gb), row.expected) << "glibc";
            EXPECT_EQ(ga, row.a);
            EXPECT_EQ(gb, row.b);
        }
    }
}

TEST(SscanfS, NullArgumentsAndEmptyText) {
    int a = 9;
    EXPECT_EQ(sscanf_s(nullptr, "%d", &a), -1);
    EXPECT_EQ(sscanf_s("1", nullptr), -1);
    EXPECT_EQ(sscanf_s("", "%d", &a), -1);
    EXPECT_EQ(a, 9);
}

// An empty text clears the destination of a first %s, %c or %[.
TEST(SscanfS, EmptyTextClearsFirstStringDestination) {
    char s[4] = "abc";
    EXPECT_EQ(sscanf_s("", "%s", s, sizeof s), -1);
    EXPECT_EQ(s[0], '\0');
    char c[4] = "abc";
    EXPECT_EQ(sscanf_s("", "x%%%c", c, sizeof c), -1);
    EXPECT_EQ(c[0], '\0');
    char set[4] = "abc";
    EXPECT_EQ(sscanf_s("", "%[a-z]", set, sizeof set), -1);
    EXPECT_EQ(set[0], '\0');
    // Not the first conversion, or suppressed: left alone.
    int n = 0;
    char later[4] = "abc";
    EXPECT_EQ(sscanf_s("", "%d%s", &n, later, sizeof later), -1);
    EXPECT_STREQ(later, "abc");
    EXPECT_EQ(sscanf_s("", "%*s%s", later, sizeof later), -1);
    EXPECT_STREQ(later, "abc");
}

TEST(SscanfS, Strings) {
    char word[8];
    char rest[8];
    EXPECT_EQ(sscanf_s("  hello world", "%s %s", word, sizeof word, rest, sizeof rest), 2);
    EXPECT_STREQ(word, "hello");
    EXPECT_STREQ(rest, "world");
    // A width below the size is the caller's and is kept.
    EXPECT_EQ(sscanf_s("abcdef", "%3s%s", word, sizeof word, rest, sizeof rest), 2);
    EXPECT_STREQ(word, "abc");
    EXPECT_STREQ(rest, "def");
    // A field of exactly size-1 characters fits.
    EXPECT_EQ(sscanf_s("1234567 x", "%s %s", word, sizeof word, rest, sizeof rest), 2);
    EXPECT_STREQ(word, "1234567");
    // A larger width is reduced to size-1; the field ending there still fits.
    EXPECT_EQ(sscanf_s("1234567", "%20s", word, sizeof word), 1);
    EXPECT_STREQ(word, "1234567");
}

// A field longer than its destination ends the scan: the destination is
// cleared, the field is not counted.
TEST(SscanfS, StringTooLongEndsScan) {
    int n = -1;
    char word[4] = "zzz";
    int after = -1;
    EXPECT_EQ(sscanf_s("7 abcd 9", "%d %s %d", &n, word, sizeof word, &after), 1);
    EXPECT_EQ(n, 7);
    EXPECT_EQ(word[0], '\0');
    EXPECT_EQ(after, -1);
    EXPECT_EQ(sscanf_s("abcd", "%s", word, sizeof word), 0);
    // Width larger than the room, field longer than the room: too small.
    EXPECT_EQ(sscanf_s("abcd", "%10s", word, sizeof word), 0);
    // Width larger than the room, field ends at the room: fits.
    EXPECT_EQ(sscanf_s("abc d", "%10s", word, sizeof word), 1);
    EXPECT_STREQ(word, "abc");
    // Size 1 holds no character; size 0 is refused without a write.
    char one[1] = {'q'};
    EXPECT_EQ(sscanf_s("a", "%s", one, sizeof one), 0);
    EXPECT_EQ(one[0], '\0');
    char zero[1] = {'q'};
    EXPECT_EQ(sscanf_s("a", "%s", zero, static_cast<size_t>(0)), 0);
    EXPECT_EQ(zero[0], 'q');
}

TEST(SscanfS, ScanSets) {
    char key[16];
    char value[16];
    EXPECT_EQ(sscanf_s("name=bob smith\n", "%[^=]=%[^\n]", key, sizeof key, value, sizeof value),
              2);
    EXPECT_STREQ(key, "name");
    EXPECT_STREQ(value, "bob smith");
    // ']' first in the set is a member.
    char br[8];
    char tail[8];
    EXPECT_EQ(sscanf_s("]]a]b", "%[]a]%s", br, sizeof br, tail, sizeof tail), 2);
    EXPECT_STREQ(br, "]]a]");
    EXPECT_STREQ(tail, "b");
    EXPECT_EQ(sscanf_s("x]y", "%[^]]", br, sizeof br), 1);
    EXPECT_STREQ(br, "x");
    // Too small: "abcd" does not fit 4 bytes; it ends with 'e' outside the set.
    char small[4] = "zzz";
    EXPECT_EQ(sscanf_s("abcde", "%[a-d]", small, sizeof small), 0);
    EXPECT_EQ(small[0], '\0');
    EXPECT_EQ(sscanf_s("abce", "%[a-d]", small, sizeof small), 1);
    EXPECT_STREQ(small, "abc");
    // No match is a matching failure.
    EXPECT_EQ(sscanf_s("xyz", "%[a-d]", small, sizeof small), 0);
    // Suppressed sets take no arguments.
    int n = 0;
    EXPECT_EQ(sscanf_s("key: 12", "%*[^:]: %d", &n), 1);
    EXPECT_EQ(n, 12);
}

TEST(SscanfS, Chars) {
    char c[4] = {0, 0, 0, 0};
    EXPECT_EQ(sscanf_s(" xy", "%c", c, sizeof c), 1);
    EXPECT_EQ(c[0], ' ');  // %c does not skip blanks
    EXPECT_EQ(sscanf_s("abcd", "%3c", c, sizeof c), 1);
    EXPECT_EQ(std::string(c, 3), "abc");
    // Count larger than the size: ends the scan.
    char two[2] = {'q', 'q'};
    int n = -1;
    EXPECT_EQ(sscanf_s("5 abc", "%d %3c", &n, two, sizeof two), 1);
    EXPECT_EQ(two[0], '\0');
    char one = 'q';
    EXPECT_EQ(sscanf_s("z", "%c", &one, static_cast<size_t>(1)), 1);
    EXPECT_EQ(one, 'z');
}

TEST(SscanfS, CountStoresWholeTextOffset) {
    int a = 0;
    int n1 = -1;
    long n2 = -1;
    short n3 = -1;
    EXPECT_EQ(sscanf_s("  12 ab", "%d%n ab%ln%hn", &a, &n1, &n2, &n3), 1);
    EXPECT_EQ(a, 12);
    EXPECT_EQ(n1, 4);
    EXPECT_EQ(n2, 7);
    EXPECT_EQ(n3, 7);
    // Suppressed %n takes no argument.
    EXPECT_EQ(sscanf_s("1 2", "%d%*n %d", &a, &n1), 2);
    EXPECT_EQ(n1, 2);
}

TEST(SscanfS, FloatingPoint) {
    float f = 0;
    double d = 0;
    long double ld = 0;
    EXPECT_EQ(sscanf_s("1.5 -2.25e3 0x1p-2", "%f %lf %Lf", &f, &d, &ld), 3);
    EXPECT_FLOAT_EQ(f, 1.5f);
    EXPECT_DOUBLE_EQ(d, -2250.0);
    EXPECT_EQ(ld, 0.25L);
    double g = 0;
    EXPECT_EQ(sscanf_s("inf", "%lg", &g), 1);
    EXPECT_TRUE(g > 1e308);
}

TEST(SscanfS, LengthModifiers) {
    unsigned char hh = 0;
    long long ll = 0;
    size_t z = 0;
    unsigned long lu = 0;
    void *p = nullptr;
    EXPECT_EQ(sscanf_s("255 -9000000000 42 ffffffffff 0x10", "%hhu %lld %zu %lx %p", &hh, &ll, &z,
                       &lu, &p),
              5);
    EXPECT_EQ(hh, 255);
    EXPECT_EQ(ll, -9000000000LL);
    EXPECT_EQ(z, 42u);
    EXPECT_EQ(lu, 0xffffffffffUL);
    EXPECT_EQ(p, reinterpret_cast<void *>(0x10));
}

TEST(SscanfS, WideStrings) {
    wchar_t w[4];
    EXPECT_EQ(sscanf_s("abc", "%ls", w, sizeof w / sizeof w[0]), 1);
    EXPECT_EQ(std::wstring(w), L"abc");
    EXPECT_EQ(sscanf_s("abcd", "%ls", w, sizeof w / sizeof w[0]), 0);
    EXPECT_EQ(w[0], L'\0');
}

TEST(SscanfS, UnsupportedFormsEndScan) {
    int a = -1;
    int b = -1;
    EXPECT_EQ(sscanf_s("1 2", "%d %1$d", &a, &b), 1);
    char *allocated = nullptr;
    EXPECT_EQ(sscanf_s("abc", "%ms", &allocated), 0);
    EXPECT_EQ(allocated, nullptr);
    EXPECT_EQ(sscanf_s("1 2", "%d %[a", &a, &b), 1);
    EXPECT_EQ(sscanf_s("1", "%d%", &a), 1);
    // Null destinations end the scan too.
    EXPECT_EQ(sscanf_s("1 2", "%d %d", &a, static_cast<int *>(nullptr)), 1);
}

TEST(SscanfS, VsscanfSThroughVaList) {
    auto call = [](const char *text, const char *format, ...) {
        va_list args;
        va_start(args, format);
        int ret = vsscanf_s(text, format, args);
        va_end(args);
        return ret;
    };
    int a = 0;
    char s[8];
    EXPECT_EQ(call("3 xyz", "%d %s", &a, s, sizeof s), 2);
    EXPECT_EQ(a, 3);
    EXPECT_STREQ(s, "xyz");
}

}  // namespace
