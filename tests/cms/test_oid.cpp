#include "cms/asn1/oid.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

DorvexAsnOcts Oid(const std::vector<uint8_t> &octets) {
    return DorvexAsnOcts{static_cast<uint32_t>(octets.size()), 0, 0, 6,
                         octets.empty() ? nullptr : octets.data()};
}

TEST(OidTable, LookupHashChoiceAndCompare) {
    const struct {
        const char *name;
        std::vector<uint8_t> octets;
        int32_t aoid, hash, rsaHash = 0;
    } cases[] = {
        {"sha256WithRSA", {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 1, 1, 0x0b}, 63, 43, 43},
        {"sha384WithRSA", {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 1, 1, 0x0c}, 64, 44, 44},
        {"sha512WithRSA", {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 1, 1, 0x0d}, 65, 45, 45},
        {"sha256", {0x60, 0x86, 0x48, 1, 0x65, 3, 4, 2, 1}, AOID_SHA256, 43},
        {"sha384", {0x60, 0x86, 0x48, 1, 0x65, 3, 4, 2, 2}, AOID_SHA384, 44},
        {"sha512", {0x60, 0x86, 0x48, 1, 0x65, 3, 4, 2, 3}, AOID_SHA512, 45},
        {"rsaEncryption", {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 1, 1, 1}, AOID_RSAENCRYPTION, 0},
        {"sha1WithRSA", {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 1, 1, 5}, 0, 0},
        {"sha1: known, never a signature hash", {0x2b, 0x0e, 3, 2, 0x1a}, AOID_SHA1, 0},
        {"id-ct-TSTInfo",
         {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 1, 9, 0x10, 1, 4},
         AOID_CT_TSTINFO,
         0},
        {"empty identifier", {}, 0, 0},
        {"placeholder octet", {0xff}, 0, 0},
        {"prefix of sha256", {0x60, 0x86, 0x48, 1, 0x65, 3, 4, 2}, 0, 0},
        {"non-minimal arc", {0x2a, 0x86, 0x48, 0x80, 0x86, 0xf7, 0x0d, 1, 1, 0x0b}, 0, 0},
        {"code signing", {0x2b, 6, 1, 5, 5, 7, 3, 3}, AOID_KP_CODESIGNING, 0},
    };
    for (const auto &c : cases) {
        const DorvexX509AlgoIdentifier alg{Oid(c.octets), {}};
        EXPECT_EQ(DorvexFindAoid(&alg.algorithm), c.aoid) << c.name;
        EXPECT_EQ(DorvexGetHashAoidFromSign(&alg), c.hash) << c.name;
        EXPECT_EQ(DorvexGetRsaSignHashAoid(&alg), c.rsaHash) << c.name;
    }
    EXPECT_EQ(DorvexFindAoid(nullptr), AOID_UNKNOWN);
    EXPECT_EQ(DorvexGetHashAoidFromSign(nullptr), AOID_UNKNOWN);

    const std::vector<uint8_t> abc = {1, 2, 3}, abc2 = {1, 2, 3}, abd = {1, 2, 4}, ab = {1, 2};
    const DorvexAsnOcts a = Oid(abc), other = Oid(abd), shorter = Oid(ab);
    DorvexAsnOcts sameBytesOtherTag = Oid(abc2);
    sameBytesOtherTag.tagCode = 4;
    EXPECT_EQ(DorvexCompareAsnOcts(&a, &sameBytesOtherTag), 0);
    EXPECT_NE(DorvexCompareAsnOcts(&a, &other), 0);
    EXPECT_EQ(DorvexCompareAsnOcts(&a, &shorter), -1);
    EXPECT_EQ(DorvexCompareAsnOcts(&a, nullptr), -1);
    EXPECT_EQ(DorvexCompareAsnOcts(nullptr, &a), -1);
}

}  // namespace
