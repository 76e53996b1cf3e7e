#include "cms/asn1/asn1.h"

#include <stdio.h>
#include <stdlib.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cms/asn1/internal.h"
#include "cms/asn1/oid.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Hex(const std::string &text) {
    Bytes out;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        out.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return out;
}

// One DER element of up to 255 content bytes.
Bytes Tlv(uint8_t tag, std::initializer_list<Bytes> parts) {
    Bytes content;
    for (const Bytes &part : parts) {
        content.insert(content.end(), part.begin(), part.end());
    }
    EXPECT_LT(content.size(), 256u);
    Bytes out{tag};
    if (content.size() >= 0x80) {
        out.push_back(0x81);
    }
    out.push_back(static_cast<uint8_t>(content.size()));
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

Bytes Content(const DorvexAsnOcts &o) {
    return o.data == nullptr ? Bytes{} : Bytes(o.data, o.data + o.len);
}

struct Result {
    uint32_t ret;
    uint32_t consumed;
};

// Runs an item's decode function as DorvexAsnDecode does and checks the
// cursor rule: unmoved on failure, at the element's end on success.
Result Decode(const DorvexAsnItem &item, const Bytes &in, void *record, uint16_t flags = 0) {
    DorvexBuf buf{};
    EXPECT_EQ(DorvexBufInit(&buf, in.data(), static_cast<uint32_t>(in.size())), DORVEX_OK);
    const DorvexAsnTempl top{&item, 0, DRX_ASN_TAG_UNIVERSAL, flags, 0, 0};
    Result r{0, 0};
    r.ret = (*item.func)(&buf, record, &r.consumed, &top);
    EXPECT_EQ(buf.pos, r.ret == DORVEX_OK ? r.consumed : 0u);
    return r;
}

constexpr DorvexAsnTempl Row(const DorvexAsnItem *item, uint32_t offset, uint16_t flags = 0,
                             uint16_t mode = DRX_ASN_TAG_UNIVERSAL, uint32_t tag = 0) {
    return DorvexAsnTempl{item, tag, mode, flags, offset, 0};
}

TEST(DerCursor, GetAndSeek) {
    const uint8_t data[3] = {1, 2, 3};
    DorvexBuf buf{};
    EXPECT_EQ(DorvexBufInit(&buf, data, 0), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexBufInit(&buf, nullptr, 3), DORVEX_ERR_PARAM);
    ASSERT_EQ(DorvexBufInit(&buf, data, 3), DORVEX_OK);
    struct Case {
        const char *name;
        int64_t offset;
        int32_t whence;
        uint32_t ret;
        uint32_t pos;
    };
    const Case cases[] = {
        {"to the end", 3, 1, DORVEX_OK, 3},           {"past the end", 1, 1, DORVEX_FAIL, 3},
        {"back to start", -3, 1, DORVEX_OK, 0},       {"below zero", -1, 1, DORVEX_FAIL, 0},
        {"unsupported whence", 1, 0, DORVEX_FAIL, 0}, {"huge offset", INT64_MAX, 1, DORVEX_FAIL, 0},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(DorvexBufSeek(&buf, c.offset, c.whence), c.ret) << c.name;
        EXPECT_EQ(buf.pos, c.pos) << c.name;
    }
    uint8_t b = 0;
    ASSERT_EQ(DorvexBufSeek(&buf, 2, 1), DORVEX_OK);
    EXPECT_EQ(DorvexBufGet(&buf, &b), DORVEX_OK);
    EXPECT_EQ(b, 3);
    EXPECT_EQ(DorvexBufGet(&buf, &b), DORVEX_ERR_BUF_END);
}

TEST(DerOctets, HeadersAndCaptures) {
    struct Case {
        const char *name;
        const DorvexAsnItem &item;
        const char *in;
        uint16_t flags;
        uint32_t ret;
        const char *content = "";
        uint32_t consumed = 0;
    };
    const Case cases[] = {
        {"short length", g_itemDorvexAsnOcts, "04 03 010203", 0, DORVEX_OK, "010203", 5},
        {"non-minimal length", g_itemDorvexAsnOcts, "04 8103 010203", 0, DORVEX_OK, "010203", 6},
        {"four length octets", g_itemDorvexAsnOcts, "04 8400000005 0102030405", 0, DORVEX_OK,
         "0102030405", 11},
        {"five length octets", g_itemDorvexAsnOcts, "04 850000000001 01", 0, DORVEX_ERR_ASN_LENGTH},
        {"indefinite length", g_itemDorvexAsnOcts, "24 80 0000", 0, DORVEX_ERR_ASN_LENGTH},
        {"length beyond buffer", g_itemDorvexAsnOcts, "04 05 01020304", 0, DORVEX_ERR_ASN_LENGTH},
        {"truncated length octets", g_itemDorvexAsnOcts, "04 82 01", 0, DORVEX_ERR_BUF_END},
        {"high tag number", g_itemDorvexAsnOcts, "1F 01 00", 0, DORVEX_ERR_ASN_TAG},
        {"empty content", g_itemDorvexAsnOcts, "04 00", 0, DORVEX_OK, "", 2},
        {"empty content with header", g_itemDorvexAsnOcts, "04 00", DRX_ASN_WITH_HEADER, DORVEX_OK,
         "", 2},
        {"capture with header", g_itemDorvexAsnOcts, "04 02 AABB", DRX_ASN_WITH_HEADER, DORVEX_OK,
         "0402AABB", 4},
        {"trailing bytes not examined", g_itemDorvexAsnOcts, "05 00 FFFF", 0, DORVEX_OK, "", 2},
        {"bigint drops one zero", g_itemDorvexAsnBigint, "02 02 00FF", 0, DORVEX_OK, "FF", 4},
        {"bigint drops only one zero", g_itemDorvexAsnBigint, "02 03 0000FF", 0, DORVEX_OK, "00FF",
         5},
        {"bigint wrong tag", g_itemDorvexAsnBigint, "04 01 00", 0, DORVEX_ERR_ASN_OCTS_TAG},
        {"sequence must be constructed", g_itemDorvexAsnSeq, "10 00", 0, DORVEX_ERR_ASN_OCTS_TAG},
    };
    for (const Case &c : cases) {
        const Bytes in = Hex(c.in);  // the record points into it
        DorvexAsnOcts out{};
        const Result r = Decode(c.item, in, &out, c.flags);
        ASSERT_EQ(r.ret, c.ret) << c.name;
        if (c.ret == DORVEX_OK) {
            EXPECT_EQ(Content(out), Hex(c.content)) << c.name;
            EXPECT_EQ(out.len, Hex(c.content).size()) << c.name;
            EXPECT_EQ(r.consumed, c.consumed) << c.name;
        }
    }
}

TEST(DerInt, Values) {
    struct Case {
        const char *name;
        const DorvexAsnItem &item;
        const char *in;
        uint32_t ret;
        int32_t value = 0;
    };
    const Case cases[] = {
        {"negative one octet", g_itemDorvexAsnInt, "02 01 80", DORVEX_OK, -128},
        {"positive with sign octet", g_itemDorvexAsnInt, "02 02 0080", DORVEX_OK, 128},
        {"largest", g_itemDorvexAsnInt, "02 04 7FFFFFFF", DORVEX_OK, INT32_MAX},
        {"smallest", g_itemDorvexAsnInt, "02 04 80000000", DORVEX_OK, INT32_MIN},
        {"five octets", g_itemDorvexAsnInt, "02 05 0100000000", DORVEX_ERR_ASN_INT},
        {"empty integer", g_itemDorvexAsnInt, "02 00", DORVEX_ERR_ASN_INT},
        {"constructed integer", g_itemDorvexAsnInt, "22 03 020105", DORVEX_ERR_ASN_TAG},
        {"enumerated", g_itemDorvexAsnEnum, "0A 01 05", DORVEX_OK, 5},
        {"integer is not enumerated", g_itemDorvexAsnEnum, "02 01 05", DORVEX_ERR_ASN_TAG},
        {"boolean true", g_itemDorvexAsnBool, "01 01 FF", DORVEX_OK, 1},
        {"boolean 01 is false", g_itemDorvexAsnBool, "01 01 01", DORVEX_OK, 0},
        {"boolean two octets", g_itemDorvexAsnBool, "01 02 FFFF", DORVEX_ERR_ASN_BOOL},
        {"boolean empty", g_itemDorvexAsnBool, "01 00", DORVEX_ERR_ASN_BOOL},
    };
    for (const Case &c : cases) {
        DorvexAsnInt out = 0x5A5A;
        const Result r = Decode(c.item, Hex(c.in), &out);
        EXPECT_EQ(r.ret, c.ret) << c.name;
        if (c.ret == DORVEX_OK) {
            EXPECT_EQ(out, c.value) << c.name;
        }
    }
}

TEST(DerBits, BitStringAndKeyUsage) {
    struct Case {
        const char *name;
        const DorvexAsnItem &item;
        const char *in;
        uint32_t ret;
        uint32_t value = 0;  // bit-string length, or the key usage word
    };
    const Case cases[] = {
        {"bits skip unused octet", g_itemDorvexAsnBits, "03 03 07 AA80", DORVEX_OK, 2},
        {"bits unused octet only", g_itemDorvexAsnBits, "03 01 00", DORVEX_OK, 0},
        {"bits without content", g_itemDorvexAsnBits, "03 00", DORVEX_ERR_ASN_BITS},
        {"bits constructed", g_itemDorvexAsnBits, "23 02 0080", DORVEX_ERR_ASN_TAG},
        {"key usage one octet", g_itemDorvexAsnBitsToInt, "03 02 07 80", DORVEX_OK, 0x80},
        {"key usage two octets", g_itemDorvexAsnBitsToInt, "03 03 07 8680", DORVEX_OK, 0x8680},
        {"key usage three octets", g_itemDorvexAsnBitsToInt, "03 04 00 010203",
         DORVEX_ERR_ASN_BITS},
        {"key usage without bits", g_itemDorvexAsnBitsToInt, "03 01 00", DORVEX_ERR_ASN_BITS},
    };
    for (const Case &c : cases) {
        DorvexAsnBits bits{};
        uint32_t word = 0;
        const bool toInt = &c.item == &g_itemDorvexAsnBitsToInt;
        const Result r = Decode(c.item, Hex(c.in), toInt ? static_cast<void *>(&word) : &bits);
        EXPECT_EQ(r.ret, c.ret) << c.name;
        if (c.ret == DORVEX_OK) {
            EXPECT_EQ(toInt ? word : bits.len, c.value) << c.name;
            EXPECT_EQ(bits.data == nullptr, toInt || c.value == 0) << c.name;
        }
    }
}

// Probe ::= SEQUENCE {
//     raw    ANY (the next element, header included, decoded again below)
//     a      INTEGER,
//     b  [0] EXPLICIT INTEGER OPTIONAL,
//     c  [1] IMPLICIT BOOLEAN OPTIONAL,
//     d      ANY }
struct Probe {
    DorvexAsnOcts raw;
    DorvexAsnInt a;
    DorvexAsnInt b;
    DorvexAsnInt c;
    DorvexAsnOcts d;
};
constexpr DorvexAsnTempl kProbeRows[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(Probe, raw), DRX_ASN_PEEK | DRX_ASN_WITH_HEADER),
    Row(&g_itemDorvexAsnInt, offsetof(Probe, a)),
    Row(&g_itemDorvexAsnInt, offsetof(Probe, b), DRX_ASN_OPTIONAL, DRX_ASN_TAG_EXPLICIT, 0),
    Row(&g_itemDorvexAsnBool, offsetof(Probe, c), DRX_ASN_OPTIONAL, DRX_ASN_TAG_IMPLICIT, 1),
    Row(&g_itemDorvexAsnOcts, offsetof(Probe, d)),
};
constexpr DorvexAsnItem kProbe = {kProbeRows, &g_drxAsnFuncSeq, 0, 1, 16, 5, sizeof(Probe)};

TEST(DerSequence, Template) {
    struct Case {
        const char *name;
        Bytes in;
        uint32_t ret;
        int32_t b = 0;
        int32_t c = 0;
    };
    const Bytes a = Hex("02 01 07"), b = Hex("A0 03 02 01 02"), c = Hex("81 01 FF");
    const Bytes d = Hex("04 01 AA");
    const Case cases[] = {
        {"all present", Tlv(0x30, {a, b, c, d}), DORVEX_OK, 2, 1},
        {"optional middle absent", Tlv(0x30, {a, c, d}), DORVEX_OK, 0, 1},
        {"both optionals absent", Tlv(0x30, {a, d}), DORVEX_OK, 0, 0},
        {"unknown trailing component", Tlv(0x30, {a, d, Hex("05 00")}), DORVEX_ERR_ASN_SEQUENCE},
        {"required last component missing", Tlv(0x30, {a, b}), DORVEX_ERR_ASN_SEQUENCE},
        {"empty content", Hex("30 00"), DORVEX_ERR_ASN_SEQUENCE},
        {"required component's own code", Tlv(0x30, {Hex("02 05 0102030405"), d}),
         DORVEX_ERR_ASN_INT},
        {"broken optional leaves bytes over", Tlv(0x30, {a, Hex("A0 03 04 01 02"), c, d}),
         DORVEX_ERR_ASN_SEQUENCE},
        {"component overruns content", Hex("30 05 020107 04 02 AABB"), DORVEX_ERR_ASN_SEQUENCE},
        {"set is not a sequence", Tlv(0x31, {a, d}), DORVEX_ERR_ASN_TAG},
    };
    for (const Case &k : cases) {
        Probe out{};
        const Result r = Decode(kProbe, k.in, &out);
        EXPECT_EQ(r.ret, k.ret) << k.name;
        if (k.ret == DORVEX_OK) {
            EXPECT_EQ(r.consumed, k.in.size()) << k.name;
            EXPECT_EQ(Content(out.raw), a) << k.name;
            EXPECT_EQ(out.a, 7) << k.name;
            EXPECT_EQ(out.b, k.b) << k.name;
            EXPECT_EQ(out.c, k.c) << k.name;
            EXPECT_EQ(Content(out.d), Hex("AA")) << k.name;
        }
    }
}

// Ints ::= SET SIZE (1..3) OF INTEGER
struct Ints {
    uint32_t count;
    DorvexAsnInt v[3];
};
constexpr DorvexAsnTempl kIntsRow[] = {{&g_itemDorvexAsnInt, 0, 0, 0, offsetof(Ints, v), 3}};
constexpr DorvexAsnItem kInts = {kIntsRow, &g_drxAsnFuncSetOf, 0, 1, 17, 1, sizeof(Ints)};

TEST(DerSetOf, Counts) {
    struct Case {
        const char *name;
        Bytes in;
        uint32_t ret;
        uint32_t count = 0;
    };
    const Bytes one = Hex("02 01 01"), two = Hex("02 01 02");
    const Case cases[] = {
        {"empty", Hex("31 00"), DORVEX_OK, 0},
        {"exactly maxCount, unsorted", Tlv(0x31, {two, one, two}), DORVEX_OK, 3},
        {"one above maxCount", Tlv(0x31, {one, one, one, one}), DORVEX_ERR_ASN_SETOF},
        {"bad element", Tlv(0x31, {one, Hex("04 01 00")}), DORVEX_ERR_ASN_SETOF},
        {"element overruns set", Hex("31 02 020101"), DORVEX_ERR_ASN_SETOF},
        {"wrong tag", Tlv(0x30, {one}), DORVEX_ERR_ASN_SETOF},
    };
    for (const Case &k : cases) {
        Ints out{};
        const Result r = Decode(kInts, k.in, &out);
        EXPECT_EQ(r.ret, k.ret) << k.name;
        if (k.ret == DORVEX_OK) {
            EXPECT_EQ(out.count, k.count) << k.name;
        }
    }
    Ints out{};
    ASSERT_EQ(Decode(kInts, Tlv(0x31, {two, one}), &out).ret, DORVEX_OK);
    EXPECT_EQ(out.v[0], 2);
    EXPECT_EQ(out.v[1], 1);
}

// Extensions ::= SEQUENCE OF Extension, dispatched on extnID
struct Exts {
    uint32_t keyUsage;
    uint32_t extKeyUsage;
};
constexpr DorvexAsnTempl kExtsRows[] = {
    Row(&g_itemDorvexAsnBitsToInt, offsetof(Exts, keyUsage), DRX_ASN_OPTIONAL, 0, AOID_CE_KEYUSAGE),
    Row(&g_itemDorvexAsnExku, offsetof(Exts, extKeyUsage), DRX_ASN_OPTIONAL, 0,
        AOID_CE_EXTKEYUSAGE),
};
constexpr DorvexAsnItem kExts = {kExtsRows, &g_drxAsnFuncMap, 0, 1, 16, 2, sizeof(Exts)};

Bytes Ext(const char *oid, bool critical, const Bytes &value) {
    const Bytes flag = critical ? Hex("01 01 FF") : Bytes{};
    return Tlv(0x30, {Tlv(0x06, {Hex(oid)}), flag, Tlv(0x04, {value})});
}

TEST(DerMap, Extensions) {
    const Bytes codeSigning = Hex("06 08 2B06010505070303"),
                timeStamping = Hex("06 08 2B06010505070308");
    const Bytes serverAuth = Hex("06 08 2B06010505070301");
    const char *ku = "551D0F", *eku = "551D25";
    struct Case {
        const char *name;
        Bytes in;
        uint32_t ret;
        uint32_t keyUsage = 0;
        uint32_t extKeyUsage = 0;
    };
    const Case cases[] = {
        {"key usage", Tlv(0x30, {Ext(ku, true, Hex("03 02 07 80"))}), DORVEX_OK, 0x80, 0},
        {"code signing first", Tlv(0x30, {Ext(eku, false, Tlv(0x30, {codeSigning, serverAuth}))}),
         DORVEX_OK, 0, DRX_EXKU_CODE_SIGNING},
        {"server auth first", Tlv(0x30, {Ext(eku, false, Tlv(0x30, {serverAuth, codeSigning}))}),
         DORVEX_OK, 0, 0},
        {"eku twice ORs bits",
         Tlv(0x30, {Ext(eku, false, Tlv(0x30, {codeSigning})),
                    Ext(eku, false, Tlv(0x30, {timeStamping}))}),
         DORVEX_OK, 0, DRX_EXKU_CODE_SIGNING | DRX_EXKU_TIME_STAMPING},
        {"unknown critical ignored", Tlv(0x30, {Ext("551D20", true, Hex("30 00"))}), DORVEX_OK},
        {"empty list", Hex("30 00"), DORVEX_OK},
        {"empty extension value", Tlv(0x30, {Ext(ku, false, {})}), DORVEX_ERR_ASN_SETOF},
        {"key usage too long", Tlv(0x30, {Ext(ku, false, Hex("03 04 00 010203"))}),
         DORVEX_ERR_ASN_BITS},
        {"eleven purposes",
         Tlv(0x30,
             {Ext(eku, false,
                  Tlv(0x30, {serverAuth, serverAuth, serverAuth, serverAuth, serverAuth, serverAuth,
                             serverAuth, serverAuth, serverAuth, serverAuth, codeSigning}))}),
         DORVEX_ERR_ASN_SETOF},
        {"entry without value", Tlv(0x30, {Tlv(0x30, {Tlv(0x06, {Hex(ku)})})}),
         DORVEX_ERR_ASN_SEQUENCE},
        {"set instead of sequence", Tlv(0x31, {Ext(ku, false, Hex("03 02 07 80"))}),
         DORVEX_ERR_ASN_SETOF},
    };
    for (const Case &k : cases) {
        Exts out{};
        const Result r = Decode(kExts, k.in, &out);
        EXPECT_EQ(r.ret, k.ret) << k.name;
        if (k.ret == DORVEX_OK) {
            EXPECT_EQ(out.keyUsage, k.keyUsage) << k.name;
            EXPECT_EQ(out.extKeyUsage, k.extKeyUsage) << k.name;
        }
    }
}

TEST(DerTables, FitCheck) {
    for (const DorvexAsnItem *item : {&kProbe, &kInts, &kExts, &g_itemDorvexAsnOidBundle}) {
        EXPECT_TRUE(drx_asn::ItemFits(*item));
    }
    DorvexAsnItem shortRecord = kInts;
    shortRecord.recordSize -= 1;
    EXPECT_FALSE(drx_asn::ItemFits(shortRecord));
}

TEST(DerDecode, AlgorithmIdentifierExample) {
    const Bytes in = Hex("30 0D 06 09 2A864886F70D01010B 05 00 FFFF");  // two bytes after it
    void *record = nullptr;
    uint32_t consumed = 0;
    ASSERT_EQ(DorvexAsnDecode(in.data(), static_cast<uint32_t>(in.size()),
                              &g_itemDorvexX509AlgoIdentifier, 0, &record, &consumed),
              DORVEX_OK);
    const auto *alg = static_cast<const DorvexX509AlgoIdentifier *>(record);
    EXPECT_EQ(consumed, 15u);
    EXPECT_EQ(alg->algorithm.len, 9u);
    EXPECT_EQ(alg->algorithm.tagClass, 0u);
    EXPECT_EQ(alg->algorithm.constructed, 0u);
    EXPECT_EQ(alg->algorithm.tagCode, 6u);
    EXPECT_EQ(alg->algorithm.data, in.data() + 4);  // points into the input
    EXPECT_EQ(Content(alg->parameters), Bytes{});
    EXPECT_EQ(alg->parameters.len + alg->parameters.tagClass + alg->parameters.tagCode, 0u);
    EXPECT_EQ(DorvexGetHashAoidFromSign(alg), AOID_SHA256);
    DorvexAsnFree(record, &g_itemDorvexX509AlgoIdentifier);
}

TEST(DerDecode, RecordOnlyOnSuccess) {
    const Bytes good = Hex("02 01 05"), bad = Hex("02 05 0102030405");
    const DorvexAsnItem noFunc = {nullptr, nullptr, 0, 0, 2, 0, 4};
    void *record = &record;
    uint32_t consumed = 0;
    EXPECT_EQ(DorvexAsnDecode(good.data(), 3, &noFunc, 0, &record, &consumed),
              DORVEX_ERR_ASN_NO_DECODER);
    EXPECT_EQ(DorvexAsnDecode(good.data(), 3, &g_itemDorvexAsnInt, 0, &record, nullptr),
              DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexAsnDecode(bad.data(), 7, &g_itemDorvexAsnInt, 0, &record, &consumed),
              DORVEX_ERR_ASN_INT);
    EXPECT_EQ(record, nullptr);
    ASSERT_EQ(DorvexAsnDecode(good.data(), 3, &g_itemDorvexAsnInt, 0, &record, &consumed),
              DORVEX_OK);
    EXPECT_EQ(*static_cast<DorvexAsnInt *>(record), 5);
    DorvexAsnFree(record, &g_itemDorvexAsnInt);
}

TEST(DerDecode, IndefiniteLengthIsReported) {
    const Bytes in = Hex("30 80 0000");
    void *record = nullptr;
    uint32_t consumed = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(DorvexAsnDecode(in.data(), 4, &g_itemDorvexAsnSeq, 0, &record, &consumed),
              DORVEX_ERR_ASN_LENGTH);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("indefinit length not supported."), std::string::npos) << out;
    EXPECT_NE(out.find("(err:88300101)"), std::string::npos) << out;
}

// Certificate ::= SEQUENCE {
//     tbsCertificate      TBSCertificate (captured whole, then skipped),
//     signatureAlgorithm  AlgorithmIdentifier,
//     signatureValue      BIT STRING }
struct Cert {
    DorvexAsnOcts tbsRaw;
    DorvexX509AlgoIdentifier alg;
    DorvexAsnBits sig;
};
constexpr DorvexAsnTempl kCertRows[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(Cert, tbsRaw), DRX_ASN_PEEK | DRX_ASN_WITH_HEADER),
    Row(&g_itemDorvexAsnSeq, 0, DRX_ASN_SKIP),
    Row(&g_itemDorvexX509AlgoIdentifier, offsetof(Cert, alg)),
    Row(&g_itemDorvexAsnBits, offsetof(Cert, sig)),
};
constexpr DorvexAsnItem kCert = {kCertRows, &g_drxAsnFuncSeq, 0, 1, 16, 4, sizeof(Cert)};

TEST(DerDecode, CertificateMadeByOpenssl) {
    char dirTemplate[] = "/tmp/der_test_XXXXXX";
    ASSERT_NE(mkdtemp(dirTemplate), nullptr);
    const std::filesystem::path dir = dirTemplate;
    const std::string cmd = "cd " + dir.string() +
                            " && openssl req -x509 -newkey rsa:2048 -nodes -sha384 -days 30"
                            " -subj /CN=der-test/O=Example -keyout key.pem -outform DER"
                            " -out cert.der >/dev/null 2>&1";
    const int status = system(cmd.c_str());
    std::ifstream file(dir / "cert.der", std::ios::binary);
    const Bytes der{std::istreambuf_iterator<char>(file), {}};
    std::filesystem::remove_all(dir);
    ASSERT_EQ(status, 0) << cmd;
    ASSERT_GT(der.size(), 4u);

    Cert out{};
    const Result r = Decode(kCert, der, &out);
    ASSERT_EQ(r.ret, DORVEX_OK);
    EXPECT_EQ(r.consumed, der.size());
    // 30 82 hi lo: the signed part starts right after the outer header.
    EXPECT_EQ(out.tbsRaw.data, der.data() + 4);
    EXPECT_EQ(out.tbsRaw.data[0], 0x30);
    EXPECT_EQ(DorvexGetHashAoidFromSign(&out.alg), AOID_SHA384);
    EXPECT_EQ(DorvexFindAoid(&out.alg.algorithm), AOID_SHA384WITHRSAENCRYPTION);
    EXPECT_EQ(out.sig.len, 256u);
    EXPECT_EQ(out.sig.data + out.sig.len, der.data() + der.size());

    // Every truncation of the certificate fails cleanly.
    for (size_t n = 1; n < der.size(); n += 7) {
        Cert partial{};
        EXPECT_NE(Decode(kCert, Bytes(der.begin(), der.begin() + n), &partial).ret, DORVEX_OK) << n;
    }
}

}  // namespace
