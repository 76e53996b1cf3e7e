// Tagged memory allocation and its syslog reports.
#include "platform/lzeb_mem.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "tests/support/syslog_capture.h"

namespace {

using vt_test::CapturedSyslog;
using vt_test::CapturedSyslogTexts;
using vt_test::ClearSyslog;

bool AllZero(const void *block, size_t size) {
    const auto *bytes = static_cast<const unsigned char *>(block);
    for (size_t i = 0; i < size; ++i) {
        if (bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

// Requests refused before any allocation: null, nothing logged.
struct RefusedRow {
    const char *name;
    uint32_t moduleId;
    uint32_t size;
};

const std::vector<RefusedRow> kRefusedRows = {
    {"size 0", 1014, 0},
    {"module id 0", 0, 16},
    {"both 0", 0, 0},
};

TEST(LzebMalloc, NullOrZeroRequestsReturnNullSilently) {
    for (const RefusedRow &row : kRefusedRows) {
        SCOPED_TRACE(row.name);
        ClearSyslog();
        EXPECT_EQ(LZEB_MallocSubStandard(row.moduleId, row.size, 0, "f", 1), nullptr);
        EXPECT_TRUE(CapturedSyslog().empty());
    }
}

TEST(LzebMalloc, BlocksAreZeroFilled) {
    ClearSyslog();
    for (uint32_t size : {1U, 7U, 64U, 4096U, 1U << 20}) {
        SCOPED_TRACE(size);
        // Dirty the heap first, so that a reused chunk would show old bytes.
        void *dirty = malloc(size);
        ASSERT_NE(dirty, nullptr);
        memset(dirty, 0xA5, size);
        free(dirty);
        void *block = LZEB_MallocSubStandard(1014, size, 0, __func__, __LINE__);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(AllZero(block, size));
        LZEB_FreeSub(block, __func__, __LINE__);
    }
    EXPECT_TRUE(CapturedSyslog().empty());
}

TEST(LzebMalloc, SubProcWritesTypeOnSuccessOnly) {
    uint32_t type = 1;
    void *block = LZEB_MallocSubProc(32, &type, 0, 1014, "f", 1);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(type, 5U);
    EXPECT_TRUE(AllZero(block, 32));
    LZEB_FreeSub(block, "f", 1);
}

// More than 0x7FFFFFFF bytes: memset_s refuses the size, the block is
// released and both layers report (the standard call with type 1). When the
// host's malloc refuses 2 GiB instead, only the outer report appears.
TEST(LzebMalloc, SizeAboveLimitReportedAfterMemsetFailure) {
    ClearSyslog();
    const uint32_t size = 0x80000000U;
    EXPECT_EQ(LZEB_MallocSubStandard(1014, size, 0, "f", 1), nullptr);
    std::vector<std::string> texts = CapturedSyslogTexts();
    const std::string outer = "Malloc memory fails. PID: (1014), size: (-2147483648), type: (1).\n";
    const std::string inner =
        "Malloc memory fails due to memset_s failed. PID: (1014), size: (-2147483648), type: "
        "(1).\n";
    ASSERT_FALSE(texts.empty());
    if (texts.size() == 2) {
        EXPECT_EQ(texts[0], inner);
        EXPECT_EQ(texts[1], outer);
    } else {
        ASSERT_EQ(texts.size(), 1U);
        EXPECT_EQ(texts[0], outer);
    }
    for (const auto &record : CapturedSyslog()) {
        EXPECT_EQ(record.priority, LOG_INFO);
    }

    ClearSyslog();
    uint32_t type = 1;
    EXPECT_EQ(LZEB_MallocSubProc(size, &type, 0, 77, "f", 1), nullptr);
    EXPECT_EQ(type, 1U);
    texts = CapturedSyslogTexts();
    if (!texts.empty()) {
        ASSERT_EQ(texts.size(), 1U);
        EXPECT_EQ(texts[0],
                  "Malloc memory fails due to memset_s failed. PID: (77), size: (-2147483648), "
                  "type: (1).\n");
    }
}

TEST(LzebFree, FreeSubOfNullIsSilent) {
    ClearSyslog();
    LZEB_FreeSub(nullptr, "caller", 12);
    EXPECT_TRUE(CapturedSyslog().empty());
}

TEST(LzebFree, FreeSubProcOfNullIsReported) {
    ClearSyslog();
    LZEB_FreeSubProc(nullptr, 0, "caller", 12);
    auto records = CapturedSyslog();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].priority, LOG_INFO);
    EXPECT_EQ(records[0].text, "ptr  is null, function(caller) line(12).[LZEB_FreeSubProc, 219]\n");
}

TEST(LzebFree, FreeSubProcReleasesBlock) {
    ClearSyslog();
    void *block = LZEB_MallocSubStandard(1014, 100, 0, "f", 1);
    ASSERT_NE(block, nullptr);
    LZEB_FreeSubProc(block, 1014, "f", 2);  // a leak or double free shows under ASan
    EXPECT_TRUE(CapturedSyslog().empty());
}

TEST(ZebZmalloc, ZeroFilledAndFreedWithFree) {
    ClearSyslog();
    void *block = __zeb_zmalloc(256);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(AllZero(block, 256));
    free(block);
    EXPECT_TRUE(CapturedSyslog().empty());
}

TEST(ZebZmalloc, SizeAboveLimitReported) {
    ClearSyslog();
    EXPECT_EQ(__zeb_zmalloc(0x80000000ULL), nullptr);
    std::vector<std::string> texts = CapturedSyslogTexts();
    if (!texts.empty()) {  // empty when the host's malloc refused 2 GiB
        ASSERT_EQ(texts.size(), 1U);
        EXPECT_EQ(texts[0], "memset_s is failed, err is 34 in __zeb_zmalloc func, 45 line.\n");
    }
}

}  // namespace
