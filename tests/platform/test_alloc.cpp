// Tagged memory allocation and its syslog reports.
#include "platform/lzeb_mem.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/syslog_capture.h"

namespace {

using vt_test::CapturedSyslog;
using vt_test::CapturedSyslogTexts;
using vt_test::ClearSyslog;

enum Kind { kStandard, kProc, kZmalloc };

void *Alloc(Kind kind, uint32_t moduleId, uint32_t size, uint32_t *type) {
    return kind == kStandard ? LZEB_MallocSubStandard(moduleId, size, 0, "f", 1)
           : kind == kProc
               ? LZEB_MallocSubProc(size, type, 0, static_cast<int32_t>(moduleId), "f", 1)
               : __zeb_zmalloc(size);
}

// Above 0x7FFFFFFF bytes memset_s refuses the size, unless the host's malloc
// refuses 2 GiB first.
TEST(LzebAlloc, Table) {
    void *probe = malloc(0x80000000U);
    const bool granted = probe != nullptr;
    free(probe);
    constexpr uint32_t kHuge = 0x80000000U;
    const std::string big = "PID: (1014), size: (-2147483648), type: (1).\n";
    const std::string inner = "Malloc memory fails due to memset_s failed. " + big;
    const std::string outer = "Malloc memory fails. " + big;
    const std::string zmalloc = "memset_s is failed, err is 34 in __zeb_zmalloc func, 45 line.\n";
    const struct {
        const char *name;
        Kind kind;
        uint32_t moduleId, size, type;  // type: *typeOut afterwards, starting from 1
        bool granted;
        std::vector<std::string> logs;
    } rows[] = {
        {"standard", kStandard, 1014, 64, 1, true, {}},
        {"proc", kProc, 1014, 64, 5, true, {}},
        {"zmalloc", kZmalloc, 1014, 64, 1, true, {}},
        {"size 0", kStandard, 1014, 0, 1, false, {}},
        {"module id 0", kStandard, 0, 16, 1, false, {}},
        {"standard above the limit", kStandard, 1014, kHuge, 1, false, {inner, outer}},
        {"proc above the limit", kProc, 1014, kHuge, 1, false, {inner}},
        {"zmalloc above the limit", kZmalloc, 1014, kHuge, 1, false, {zmalloc}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<std::string> logs = row.logs;
        if (!granted) {
            std::erase_if(logs, [](const std::string &t) { return t.find("memset_s") != t.npos; });
        }
        // Dirty the heap first, so that a reused chunk would show old bytes.
        void *dirty = malloc(64);
        memset(dirty, 0xA5, 64);
        free(dirty);
        ClearSyslog();
        uint32_t type = 1;
        auto *block = static_cast<unsigned char *>(Alloc(row.kind, row.moduleId, row.size, &type));
        EXPECT_EQ(block != nullptr, row.granted);
        EXPECT_EQ(type, row.type);
        EXPECT_EQ(CapturedSyslogTexts(), logs);
        for (const auto &record : CapturedSyslog()) {
            EXPECT_EQ(record.priority, LOG_INFO);
        }
        if (block != nullptr) {
            EXPECT_EQ(std::count(block, block + row.size, 0), row.size);
            row.kind == kStandard ? LZEB_FreeSub(block, "f", 2)
            : row.kind == kProc   ? LZEB_FreeSubProc(block, 1014, "f", 2)
                                  : free(block);
        }
    }
    ClearSyslog();  // only the module-tagged release reports a null block
    LZEB_FreeSub(nullptr, "caller", 12);
    LZEB_FreeSubProc(nullptr, 0, "caller", 12);
    EXPECT_EQ(CapturedSyslogTexts(),
              std::vector<std::string>{
                  "ptr  is null, function(caller) line(12).[LZEB_FreeSubProc, 219]\n"});
}

}  // namespace
