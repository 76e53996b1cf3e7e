#include "cms/adapt/adapt.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// A size past 32 bits is refused, not cut to its low word.
TEST(AdaptMemory, HugeSizesAreRefused) {
    for (auto alloc : {DorvexMalloc, DorvexMallocWith0}) {
        for (uint64_t size : {0x80000000ull, (1ull << 32) + 16}) {
            void *p = &p;  // must be reset even on failure
            EXPECT_EQ(alloc(&p, size), DORVEX_ERR_MALLOC) << size;
            EXPECT_EQ(p, nullptr);
        }
    }
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
        {"blank inside a line", "QU JD", nullptr},
        {"blank after a line break", "QUJD\n RA==", nullptr},
        {"three pads", "Q===", nullptr},
        {"data after padding", "QQ==QQ==", nullptr},
        {"lone CR", "QUJD\rRA==", nullptr},
        {"CR as last byte", "QUJD\r", nullptr},
        {"high byte", "QUJ\xc4", nullptr},
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
    // Without room, the needed length comes back and nothing is written.
    const auto *six = reinterpret_cast<const uint8_t *>("QUJDRA");
    uint8_t dst[8] = {};
    uint32_t len = 4;
    ASSERT_EQ(DorvexBase64Decode(six, 6, dst, &len), DORVEX_OK);
    EXPECT_EQ(len * 10 + dst[0], 50u);
}

}  // namespace
