#include "cms/asn1/oid.h"

#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<uint8_t> Hex(const std::string &text) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return out;
}

DorvexAsnOcts Oid(const std::vector<uint8_t> &octets) {
    return DorvexAsnOcts{static_cast<uint32_t>(octets.size()), 0, 0, 6,
                         octets.empty() ? nullptr : octets.data()};
}

TEST(OidTable, EntriesInOrder) {
    const int32_t aoids[] = {0,   43,  44,  45,  63,  64,  65,  161, 162, 163, 164, 165,
                             168, 172, 176, 184, 188, 192, 193, 202, 204, 264, 271, 307};
    ASSERT_EQ(g_drxOidCount, std::size(aoids));
    for (uint32_t i = 0; i < g_drxOidCount; ++i) {
        const DorvexOidInfo &e = g_drxOIDTable[i];
        EXPECT_EQ(e.aoid, aoids[i]) << i;
        EXPECT_EQ(e.oid.tagCode, 6u) << e.name;
        EXPECT_EQ(e.oid.tagClass + e.oid.constructed, 0u) << e.name;
        // A copy of each identifier's octets finds its own entry (the
        // placeholder of entry 0 finds AOID_UNKNOWN like any unknown one).
        const std::vector<uint8_t> copy(e.oid.data, e.oid.data + e.oid.len);
        const DorvexAsnOcts probe = Oid(copy);
        EXPECT_EQ(DorvexFindAoid(&probe), e.aoid) << e.name;
        EXPECT_EQ(DorvexFindOid(e.aoid), &e.oid) << e.name;
    }
    EXPECT_STREQ(g_drxOIDTable[1].name, "AOID_SHA256");
    EXPECT_EQ(DorvexFindOid(999), nullptr);
}

TEST(OidTable, LookupAndHashChoice) {
    struct Case {
        const char *name;
        const char *octets;
        int32_t aoid;
        int32_t hash;
    };
    const Case cases[] = {
        {"sha256WithRSAEncryption", "2a864886f70d01010b", AOID_SHA256WITHRSAENCRYPTION, 43},
        {"sha384WithRSAEncryption", "2a864886f70d01010c", AOID_SHA384WITHRSAENCRYPTION, 44},
        {"sha512WithRSAEncryption", "2a864886f70d01010d", AOID_SHA512WITHRSAENCRYPTION, 45},
        {"sha256", "608648016503040201", AOID_SHA256, 43},
        {"sha384", "608648016503040202", AOID_SHA384, 44},
        {"sha512", "608648016503040203", AOID_SHA512, 45},
        {"rsaEncryption", "2a864886f70d010101", AOID_UNKNOWN, 0},
        {"sha1", "2b0e03021a", AOID_UNKNOWN, 0},
        {"sha1WithRSAEncryption", "2a864886f70d010105", AOID_UNKNOWN, 0},
        {"empty identifier", "", AOID_UNKNOWN, 0},
        {"placeholder octet", "ff", AOID_UNKNOWN, 0},
        {"prefix of sha256", "6086480165030402", AOID_UNKNOWN, 0},
        {"non-minimal arc encoding", "2a86488086f70d01010b", AOID_UNKNOWN, 0},
        {"code signing", "2b06010505070303", AOID_KP_CODESIGNING, 0},
        {"timestamp token", "2a864886f70d010910020e", AOID_PKCS9_AT_TIMESTAMP_TOKEN, 0},
    };
    for (const Case &c : cases) {
        const std::vector<uint8_t> octets = Hex(c.octets);
        const DorvexX509AlgoIdentifier alg{Oid(octets), {}};
        EXPECT_EQ(DorvexFindAoid(&alg.algorithm), c.aoid) << c.name;
        EXPECT_EQ(DorvexGetHashAoidFromSign(&alg), c.hash) << c.name;
    }
    EXPECT_EQ(DorvexFindAoid(nullptr), AOID_UNKNOWN);
    EXPECT_EQ(DorvexGetHashAoidFromSign(nullptr), AOID_UNKNOWN);
}

TEST(OidCompare, Octets) {
    const std::vector<uint8_t> abc = Hex("616263"), abc2 = Hex("616263"), abd = Hex("616264");
    const std::vector<uint8_t> ab = Hex("6162");
    const DorvexAsnOcts a = Oid(abc);
    DorvexAsnOcts sameBytesOtherTag = Oid(abc2);
    sameBytesOtherTag.tagCode = 4;
    const DorvexAsnOcts other = Oid(abd);
    const DorvexAsnOcts shorter = Oid(ab);
    EXPECT_EQ(DorvexCompareAsnOcts(&a, &a), 0);
    EXPECT_EQ(DorvexCompareAsnOcts(&a, &sameBytesOtherTag), 0);
    EXPECT_NE(DorvexCompareAsnOcts(&a, &other), 0);
    EXPECT_EQ(DorvexCompareAsnOcts(&a, &shorter), -1);
    EXPECT_EQ(DorvexCompareAsnOcts(&a, nullptr), -1);
    EXPECT_EQ(DorvexCompareAsnOcts(nullptr, &a), -1);
}

}  // namespace
