#include "cms/asn1/asn1.h"

#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cms/asn1/internal.h"
#include "cms/asn1/oid.h"
#include "cms/asn1/pkcs7.h"
#include "cms/asn1/x509.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Hex(const std::string &text) {
    Bytes out;
    for (size_t i = 0; i < text.size(); i += text[i] == ' ' ? 1 : 2) {
        if (text[i] != ' ') {
            out.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
        }
    }
    return out;
}

std::string ToHex(const uint8_t *p, size_t n) {
    std::string out;
    char two[3];
    for (size_t i = 0; i < n; ++i) {
        snprintf(two, sizeof two, "%02X", p[i]);
        out += two;
    }
    return out;
}

// One DER element of up to 255 content bytes.
Bytes Tlv(uint8_t tag, std::initializer_list<Bytes> parts) {
    Bytes content;
    for (const Bytes &part : parts) {
        content.insert(content.end(), part.begin(), part.end());
    }
    Bytes out{tag};
    if (content.size() >= 0x80) {
        out.push_back(0x81);
    }
    out.push_back(static_cast<uint8_t>(content.size()));
    out.insert(out.end(), content.begin(), content.end());
    return out;
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

// Every primitive item: the value comes out as hex content (octets, bits,
// bigint), decimal (INTEGER, ENUMERATED, BOOLEAN) or the hex key usage word.
TEST(DerPrimitive, Table) {
    const DorvexAsnItem &O = g_itemDorvexAsnOcts, &N = g_itemDorvexAsnBigint,
                        &I = g_itemDorvexAsnInt, &B = g_itemDorvexAsnBits,
                        &K = g_itemDorvexAsnBitsToInt;
    struct Case {
        const char *name;
        const DorvexAsnItem &item;
        const char *in;
        uint32_t ret;
        const char *out = "";
        uint16_t flags = 0;
        uint32_t trailing = 0;
    };
    const Case cases[] = {
        {"non-minimal length", O, "04 8103 010203", DORVEX_OK, "010203"},
        {"four length octets", O, "04 8400000005 0102030405", DORVEX_OK, "0102030405"},
        {"five length octets", O, "04 850000000001 01", DORVEX_ERR_ASN_LENGTH},
        {"indefinite length", O, "24 80 0000", DORVEX_ERR_ASN_LENGTH},
        {"length one beyond buffer", O, "04 05 01020304", DORVEX_ERR_ASN_LENGTH},
        {"truncated length octets", O, "04 82 01", DORVEX_ERR_BUF_END},
        {"high tag number", O, "1F 01 00", DORVEX_ERR_ASN_TAG},
        {"capture with header", O, "04 02 AABB", DORVEX_OK, "0402AABB", DRX_ASN_WITH_HEADER},
        {"trailing bytes not examined", O, "05 00 FFFF", DORVEX_OK, "", 0, 2},
        {"bigint drops one zero", N, "02 02 00FF", DORVEX_OK, "FF"},
        {"bigint drops only one zero", N, "02 03 0000FF", DORVEX_OK, "00FF"},
        {"signed: needless zero octet", O, "02 02 0010", DORVEX_ERR_ASN_INT, "",
         DRX_ASN_SIGNED_INT},
        {"signed: needless FF octet", O, "02 02 FF80", DORVEX_ERR_ASN_INT, "", DRX_ASN_SIGNED_INT},
        {"signed: sign octet kept", O, "02 02 0080", DORVEX_OK, "0080", DRX_ASN_SIGNED_INT},
        {"sequence must be constructed", g_itemDorvexAsnSeq, "10 00", DORVEX_ERR_ASN_OCTS_TAG},
        {"positive with sign octet", I, "02 02 0080", DORVEX_OK, "128"},
        {"smallest", I, "02 04 80000000", DORVEX_OK, "-2147483648"},
        {"five-octet integer", I, "02 05 0100000000", DORVEX_ERR_ASN_INT},
        {"empty integer", I, "02 00", DORVEX_ERR_ASN_INT},
        {"integer is not enumerated", g_itemDorvexAsnEnum, "02 01 05", DORVEX_ERR_ASN_TAG},
        {"boolean true", g_itemDorvexAsnBool, "01 01 FF", DORVEX_OK, "1"},
        {"boolean 01 is false", g_itemDorvexAsnBool, "01 01 01", DORVEX_OK, "0"},
        {"boolean two octets", g_itemDorvexAsnBool, "01 02 FFFF", DORVEX_ERR_ASN_BOOL},
        {"bits skip unused octet", B, "03 03 07 AA80", DORVEX_OK, "AA80"},
        {"bits without content", B, "03 00", DORVEX_ERR_ASN_BITS},
        {"key usage two octets: first octet low", K, "03 03 07 0880", DORVEX_OK, "8008"},
        {"key usage three octets", K, "03 04 00 010203", DORVEX_ERR_ASN_BITS},
    };
    for (const Case &c : cases) {
        const Bytes in = Hex(c.in);  // the record points into it
        union {
            DorvexAsnOcts octs;
            DorvexAsnInt value;
            uint32_t word;
        } out{};
        const Result r = Decode(c.item, in, &out, c.flags);
        ASSERT_EQ(r.ret, c.ret) << c.name;
        if (c.ret != DORVEX_OK) {
            continue;
        }
        EXPECT_EQ(r.consumed, in.size() - c.trailing) << c.name;
        std::string got;
        if (c.item.func == &g_drxAsnFuncInt) {
            got = std::to_string(out.value);
        } else if (&c.item == &K) {
            char word[16];
            snprintf(word, sizeof word, "%X", out.word);
            got = word;
        } else {
            EXPECT_EQ(out.octs.data == nullptr, out.octs.len == 0) << c.name;
            got = ToHex(out.octs.data, out.octs.len);
        }
        EXPECT_EQ(got, c.out) << c.name;
    }
}

// Probe ::= SEQUENCE {
//     raw    ANY (the next element, header included, decoded again below)
//     a      INTEGER,
//     b  [0] EXPLICIT INTEGER OPTIONAL,
//     c  [1] IMPLICIT BOOLEAN OPTIONAL,
//            ANY (checked and stepped over),
//     d      ANY }
struct Probe {
    DorvexAsnOcts raw;
    DorvexAsnInt a, b, c;
    DorvexAsnOcts d;
};
constexpr DorvexAsnTempl kProbeRows[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(Probe, raw), DRX_ASN_PEEK | DRX_ASN_WITH_HEADER),
    Row(&g_itemDorvexAsnInt, offsetof(Probe, a)),
    Row(&g_itemDorvexAsnInt, offsetof(Probe, b), DRX_ASN_OPTIONAL, DRX_ASN_TAG_EXPLICIT, 0),
    Row(&g_itemDorvexAsnBool, offsetof(Probe, c), DRX_ASN_OPTIONAL, DRX_ASN_TAG_IMPLICIT, 1),
    Row(&g_itemDorvexAsnOcts, 0, DRX_ASN_SKIP),
    Row(&g_itemDorvexAsnOcts, offsetof(Probe, d)),
};
constexpr DorvexAsnItem kProbe = {kProbeRows, &g_drxAsnFuncSeq, 0, 1, 16, 6, sizeof(Probe)};

// Ints ::= SET SIZE (1..3) OF INTEGER
struct Ints {
    uint32_t count;
    DorvexAsnInt v[3];
};
constexpr DorvexAsnTempl kIntsRow[] = {{&g_itemDorvexAsnInt, 0, 0, 0, offsetof(Ints, v), 3}};
constexpr DorvexAsnItem kInts = {kIntsRow, &g_drxAsnFuncSetOf, 0, 1, 17, 1, sizeof(Ints)};

// Extensions ::= SEQUENCE OF Extension, dispatched on extnID
struct Exts {
    uint32_t keyUsage;
    uint32_t extKeyUsage;
    uint32_t ekuCritical;
    uint32_t unknownCritical;
    uint32_t keyUsageCount;
};
constexpr uint16_t kMapOpt = DRX_ASN_OPTIONAL;
constexpr DorvexAsnTempl kExtsRows[] = {
    Row(&g_itemDorvexAsnBitsToInt, offsetof(Exts, keyUsage), kMapOpt, 0, AOID_CE_KEYUSAGE),
    Row(&g_itemDorvexAsnExku, offsetof(Exts, extKeyUsage), kMapOpt, 0, AOID_CE_EXTKEYUSAGE),
    Row(&g_itemDorvexAsnBool, offsetof(Exts, ekuCritical), kMapOpt | DRX_ASN_MAP_CRITICAL, 0,
        AOID_CE_EXTKEYUSAGE),
    Row(&g_itemDorvexAsnBool, offsetof(Exts, unknownCritical), kMapOpt | DRX_ASN_MAP_CRITICAL, 0,
        AOID_UNKNOWN),
    Row(&g_itemDorvexAsnOcts, offsetof(Exts, keyUsageCount), kMapOpt | DRX_ASN_MAP_COUNT, 0,
        AOID_CE_KEYUSAGE),
};
constexpr DorvexAsnItem kExts = {kExtsRows, &g_drxAsnFuncMap, 0, 1, 16, 5, sizeof(Exts)};

Bytes Ext(const char *oid, bool critical, const Bytes &value) {
    const Bytes flag = critical ? Hex("01 01 FF") : Bytes{};
    return Tlv(0x30, {Tlv(0x06, {Hex(oid)}), flag, Tlv(0x04, {value})});
}

// The record of a structured item as text, to compare with a row.
std::string Show(const DorvexAsnItem &item, const void *record) {
    char text[64];
    if (&item == &kProbe) {
        const auto &p = *static_cast<const Probe *>(record);
        snprintf(text, sizeof text, "%s %d %d %d %s", ToHex(p.raw.data, p.raw.len).c_str(), p.a,
                 p.b, p.c, ToHex(p.d.data, p.d.len).c_str());
    } else if (&item == &kInts) {
        const auto &n = *static_cast<const Ints *>(record);
        snprintf(text, sizeof text, "%u: %d %d %d", n.count, n.v[0], n.v[1], n.v[2]);
    } else {
        const auto &e = *static_cast<const Exts *>(record);
        snprintf(text, sizeof text, "%X %X %u %u %u", e.keyUsage, e.extKeyUsage, e.ekuCritical,
                 e.unknownCritical, e.keyUsageCount);
    }
    return text;
}

TEST(DerStructured, SequenceSetOfAndMap) {
    const Bytes a = Hex("02 01 07"), b = Hex("A0 03 02 01 02"), c = Hex("81 01 FF");
    const Bytes s = Hex("05 00"), d = Hex("04 01 AA"), one = Hex("02 01 01"), two = Hex("02 01 02");
    const Bytes code = Hex("06 08 2B06010505070303"), stamp = Hex("06 08 2B06010505070308");
    const Bytes srv = Hex("06 08 2B06010505070301"), ku80 = Hex("03 02 07 80");
    const char *ku = "551D0F", *eku = "551D25";
    const uint32_t kSeq = DORVEX_ERR_ASN_SEQUENCE, kSet = DORVEX_ERR_ASN_SETOF;
    const DorvexAsnItem &P = kProbe, &N = kInts, &E = kExts;
    const struct {
        const char *name;
        const DorvexAsnItem &item;
        Bytes in;
        uint32_t ret;
        const char *out = "";
    } cases[] = {
        // clang-format off
        {"all present", P, Tlv(0x30, {a, b, c, s, d}), DORVEX_OK, "020107 7 2 1 AA"},
        {"both optionals absent", P, Tlv(0x30, {a, s, d}), DORVEX_OK, "020107 7 0 0 AA"},
        {"unknown trailing component", P, Tlv(0x30, {a, s, d, s}), kSeq},
        {"required last component missing", P, Tlv(0x30, {a, b, s}), kSeq},
        {"required component's own code", P, Tlv(0x30, {Hex("02 05 0102030405"), s, d}), DORVEX_ERR_ASN_INT},
        {"broken optional leaves bytes over", P, Tlv(0x30, {a, Hex("A0 03 04 01 02"), c, s, d}), kSeq},
        // Refused at the length that overruns its SEQUENCE, before the element is read.
        {"component overruns content", P, Hex("30 07 020107 0500 04 02 AABB"), DORVEX_ERR_ASN_LENGTH},
        // An EXPLICIT wrapper holds its element exactly: this one is no b,
        // and the skipped ANY takes it whole.
        {"wrapper longer than its element", P, Tlv(0x30, {a, Hex("A0 04 020102 05"), d}), DORVEX_OK, nullptr},
        {"set is not a sequence", P, Tlv(0x31, {a, s, d}), DORVEX_ERR_ASN_TAG},
        {"empty set", N, Hex("31 00"), DORVEX_OK, "0: 0 0 0"},
        {"exactly maxCount, order kept", N, Tlv(0x31, {two, one, two}), DORVEX_OK, "3: 2 1 2"},
        {"one above maxCount", N, Tlv(0x31, {one, one, one, one}), kSet},
        {"bad element", N, Tlv(0x31, {one, Hex("04 01 00")}), kSet},
        {"element overruns set", N, Hex("31 02 020101"), kSet},
        {"sequence instead of set", N, Tlv(0x30, {one}), kSet},
        {"key usage, critical: read, so not unknown", E, Tlv(0x30, {Ext(ku, true, ku80)}), DORVEX_OK, "80 0 0 0 1"},
        {"key usage twice: counted", E, Tlv(0x30, {Ext(ku, false, ku80), Ext(ku, false, ku80)}), DORVEX_OK, "80 0 0 0 2"},
        {"every purpose counts", E, Tlv(0x30, {Ext(eku, false, Tlv(0x30, {srv, code}))}), DORVEX_OK, "0 80000008 0 0 0"},
        {"critical eku recorded", E, Tlv(0x30, {Ext(eku, true, Tlv(0x30, {stamp}))}), DORVEX_OK, "0 40 1 0 0"},
        {"unknown critical recorded", E, Tlv(0x30, {Ext("551D20", true, s)}), DORVEX_OK, "0 0 0 1 0"},
        {"unknown non-critical ignored", E, Tlv(0x30, {Ext("551D20", false, s)}), DORVEX_OK, "0 0 0 0 0"},
        {"empty extension value", E, Tlv(0x30, {Ext(ku, false, {})}), kSet},
        {"entry without value", E, Tlv(0x30, {Tlv(0x30, {Tlv(0x06, {Hex(ku)})})}), kSeq},
        {"set instead of sequence", E, Tlv(0x31, {Ext(ku, false, ku80)}), kSet},
        // clang-format on
    };
    for (const auto &k : cases) {
        union {
            Probe probe;
            Ints ints;
            Exts exts;
        } out{};
        const Result r = Decode(k.item, k.in, &out);
        EXPECT_EQ(r.ret, k.ret) << k.name;
        if (k.ret == DORVEX_OK) {
            EXPECT_EQ(r.consumed, k.in.size()) << k.name;
            if (k.out != nullptr) {
                EXPECT_EQ(Show(k.item, &out), k.out) << k.name;
            }
        }
    }
}

TEST(DerTables, EveryTemplateStaysInsideItsRecord) {
    for (const DorvexAsnItem *item :
         {&kProbe, &kInts, &kExts, &g_itemDorvexAsnOidBundle, &g_itemDorvexX509Cert,
          &g_itemDorvexX509Crl, &g_itemDorvexPkcs7Content, &g_itemDorvexTimestampInfo}) {
        EXPECT_TRUE(drx_asn::ItemFits(*item)) << item->recordSize;
    }
    DorvexAsnItem shortRecord = kInts;
    shortRecord.recordSize -= 1;
    EXPECT_FALSE(drx_asn::ItemFits(shortRecord));
}

TEST(DerDecode, TopLevelRecord) {
    const Bytes in = Hex("30 0D 06 09 2A864886F70D01010B 05 00 FFFF");  // two bytes after it
    void *record = &record;
    uint32_t consumed = 0;
    const DorvexAsnItem noFunc = {nullptr, nullptr, 0, 0, 2, 0, 4};
    EXPECT_EQ(DorvexAsnDecode(in.data(), 17, &noFunc, 0, &record, &consumed),
              DORVEX_ERR_ASN_NO_DECODER);
    EXPECT_EQ(DorvexAsnDecode(in.data(), 17, &g_itemDorvexAsnInt, 0, &record, nullptr),
              DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexAsnDecode(in.data(), 17, &g_itemDorvexAsnInt, 0, &record, &consumed),
              DORVEX_ERR_ASN_TAG);
    EXPECT_EQ(record, nullptr);
    ASSERT_EQ(
        DorvexAsnDecode(in.data(), 17, &g_itemDorvexX509AlgoIdentifier, 0, &record, &consumed),
        DORVEX_OK);
    const auto *alg = static_cast<const DorvexX509AlgoIdentifier *>(record);
    EXPECT_EQ(consumed, 15u);
    const DorvexAsnOcts &oid = alg->algorithm, &null = alg->parameters;
    EXPECT_EQ(oid.data, in.data() + 4);  // points into the input
    EXPECT_EQ(oid.len * 1000 + oid.tagClass * 100 + oid.constructed * 10 + oid.tagCode, 9006u);
    EXPECT_TRUE(null.data == nullptr && null.len + null.tagClass + null.tagCode == 0);
    DorvexAsnFree(record, &g_itemDorvexX509AlgoIdentifier);
}

}  // namespace
