// Certificate and CRL decoding of OpenSSL-made inputs (the field-by-field
// match with OpenSSL is the differential fuzz target's), the structural
// limits, the name and time helpers, and self-signature checks.
#include "cms/asn1/x509.h"

#include <openssl/x509.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cms/asn1/pubkey.h"
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;
using tp::Bytes;
using tp::Name;

Bytes Content(const DorvexAsnOcts &o) {
    return o.data == nullptr ? Bytes{} : Bytes(o.data, o.data + o.len);
}

// Our reading of a time against OpenSSL's.
void ExpectTime(const DorvexAsnOcts &ours, const ASN1_TIME *t) {
    struct tm tm {};
    int64_t s = -1;
    EXPECT_EQ(ASN1_TIME_to_tm(t, &tm), 1);
    EXPECT_EQ(DorvexConvertDatetimeToTime(&ours, &s), DORVEX_OK);
    EXPECT_EQ(s, timegm(&tm));
}

const tp::Credential &TestCa() {
    static const tp::Credential ca = [] {
        tp::CertSpec plan;
        plan.subjectKey = tp::LoadTestKey("ca-2048");
        plan.subject = tp::SimpleName({{"C", "DE"}, {"O", "Test"}, {"CN", "Test CA"}});
        plan.basicConstraints = tp::BasicConstraints();
        return tp::IssueCredential(plan);
    }();
    return ca;
}

Name Cns(int n) {
    Name name;
    for (int i = 0; i < n; ++i) {
        name.push_back({{"CN", "n" + std::to_string(i)}});
    }
    return name;
}

// A decoded certificate together with the DER it points into.
struct Decoded {
    Bytes der;
    DorvexX509Cert *cert = nullptr;
    uint32_t ret = 0, consumed = 0;
    explicit Decoded(Bytes bytes, uint32_t size = 0) : der(std::move(bytes)) {
        size = size != 0 ? size : static_cast<uint32_t>(der.size());
        ret = DorvexX509DecodeCert(der.data(), size, &cert, &consumed);
    }
    ~Decoded() { DorvexX509FreeCert(cert); }
};

struct CertCase {
    const char *name;
    void (*edit)(tp::CertSpec &);
    uint32_t ret;
    uint32_t isCA = 0, keyUsage = 0, extKeyUsage = 0;
    const char *subject = "C=DE,O=Test,CN=Leaf";
    int pathLen = -1;  // -1: no pathLenConstraint
    uint32_t unknownCritical = 0;
};

// clang-format off
const CertCase kCertCases[] = {
    {"code-signing leaf", [](auto &s) { s.keyUsage = tp::KeyUsage::Of(0x80);
                                        s.extKeyUsage = tp::ExtKeyUsage{{"codeSigning"}}; },
     DORVEX_OK, 0, 0x80, DRX_EXKU_CODE_SIGNING},
    {"CA with path length", [](auto &s) { s.basicConstraints = tp::BasicConstraints{true, 2};
                                          s.keyUsage = tp::KeyUsage::Of(0x06); }, DORVEX_OK, 1, 6,
     0, "C=DE,O=Test,CN=Leaf", 2},
    {"two-octet key usage, time stamping first",
     [](auto &s) { s.keyUsage = tp::KeyUsage::Of(0x08, 0x80);
                   s.extKeyUsage = tp::ExtKeyUsage{{"timeStamping", "codeSigning"}}; },
     DORVEX_OK, 0, 0x8008, DRX_EXKU_TIME_STAMPING | DRX_EXKU_CODE_SIGNING},
    {"unknown critical extension",
     [](auto &s) { s.extraExtensions = {{"1.2.3.4", true, tp::der::Boolean(true)}}; }, DORVEX_OK,
     0, 0, 0, "C=DE,O=Test,CN=Leaf", -1, 1},
    {"4096-bit key, ten RDNs, ten purposes",
     [](auto &s) { s.subjectKey = tp::LoadTestKey("root-4096"); s.subject = Cns(10);
                   s.extKeyUsage = tp::ExtKeyUsage{{10, "codeSigning"}}; },
     DORVEX_OK, 0, 0, DRX_EXKU_CODE_SIGNING,
     "CN=n0,CN=n1,CN=n2,CN=n3,CN=n4,CN=n5,CN=n6,CN=n7,CN=n8,CN=n9"},
    {"version 1", [](auto &s) { s.version = 1; }, DORVEX_ERR_ASN_SEQUENCE},
    {"eleven RDNs", [](auto &s) { s.subject = Cns(11); }, DORVEX_ERR_ASN_SETOF},
};
// clang-format on

TEST(X509Cert, DecodesGeneratedCertificates) {
    for (const CertCase &c : kCertCases) {
        SCOPED_TRACE(c.name);
        tp::CertSpec plan;
        plan.subjectKey = tp::LoadTestKey("leaf-2048");
        plan.issuer = TestCa();
        plan.subject = tp::SimpleName({{"C", "DE"}, {"O", "Test"}, {"CN", "Leaf"}});
        c.edit(plan);
        Bytes der = tp::IssueCert(plan).Der();
        const auto size = static_cast<uint32_t>(der.size());
        der.insert(der.end(), {0x30, 0x00});  // the next item of a concatenation
        const Decoded d(der, size + 2);
        ASSERT_EQ(d.ret, c.ret);
        if (c.ret != DORVEX_OK) {
            EXPECT_EQ(d.cert, nullptr);
            continue;
        }
        EXPECT_EQ(d.consumed, size);
        EXPECT_EQ(d.cert->refCount, 1);
        const DorvexX509CertInfo &info = d.cert->certInfo;
        EXPECT_EQ(Content(info.serialNumber), plan.serial);
        char *subject = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(DorvexConvertFromX509Name(&info.subject, &subject, &len), DORVEX_OK);
        EXPECT_EQ(std::string(subject, len), c.subject);
        DorvexFree(subject);
        EXPECT_EQ(info.extensions.isCA, c.isCA);
        EXPECT_EQ(info.extensions.keyUsage, c.keyUsage);
        EXPECT_EQ(info.extensions.extKeyUsage, c.extKeyUsage);
        EXPECT_EQ(info.extensions.unknownCritical, c.unknownCritical);
        const DorvexAsnBigint &pathLen = info.extensions.pathLenConstraint;
        EXPECT_EQ(
            pathLen.tagCode == DRX_ASN_INTEGER ? (pathLen.len == 0 ? 0 : pathLen.data[0]) : -1,
            c.pathLen);
    }
}

// clang-format off
const struct CrlCase {
    const char *name;
    void (*edit)(tp::CrlSpec &);
    uint32_t ret;
} kCrlCases[] = {
    {"entries with and without reasons",
     [](auto &s) { s.revoked = {{{0x10}, tp::Utc("250101000000Z"), 1},
                                {{0x00, 0x90}, tp::Gen("20500101000000Z"), {}},
                                {{0x11}, tp::Utc("250102000000Z"), 6}}; }, DORVEX_OK},
    {"only user certificates, 1000 entries", [](auto &s) {
         s.issuingDistPoint = {std::nullopt, true, false, false, false};
         for (uint64_t i = 0; i < 1000; ++i) {
             s.revoked.push_back({tp::SerialFromU64(1000 + i), tp::Utc("250101000000Z"), {}});
         } }, DORVEX_OK},
    {"version 1, no extensions, no nextUpdate",
     [](auto &s) { s.version = 1; s.crlNumber.reset(); s.nextUpdate.reset(); }, DORVEX_OK},
    {"non-minimal serial", [](auto &s) { s.revoked = {{{0x00, 0x10}, tp::Utc("250101000000Z"), {}}}; },
     DORVEX_ERR_ASN_INT},
};
// clang-format on

TEST(X509Crl, DecodesGeneratedCrls) {
    for (const CrlCase &c : kCrlCases) {
        SCOPED_TRACE(c.name);
        tp::CrlSpec plan;
        plan.issuer = TestCa();
        c.edit(plan);
        const Bytes der = tp::MakeCrl(plan);
        DorvexX509Crl *crl = nullptr;
        uint32_t consumed = 0;
        ASSERT_EQ(
            DorvexX509DecodeCrl(der.data(), static_cast<uint32_t>(der.size()), &crl, &consumed),
            c.ret);
        if (c.ret != DORVEX_OK) {
            EXPECT_EQ(crl, nullptr);
            continue;
        }
        EXPECT_EQ(consumed, der.size());
        const DorvexX509CrlInfo &info = crl->crlInfo;
        EXPECT_EQ(info.version, plan.version - 1);
        EXPECT_EQ(info.nextUpdate.tagCode != 0, plan.nextUpdate.has_value());
        ASSERT_EQ(info.revokedCertificates.count, plan.revoked.size());
        for (uint32_t i = 0; i < info.revokedCertificates.count; ++i) {
            const DorvexX509RevokeEntry &e = info.revokedCertificates.entries[i];
            EXPECT_EQ(Content(e.userCertificate), plan.revoked[i].serial);
            EXPECT_EQ(e.crlEntryExtensions.reasonCode, plan.revoked[i].reason.value_or(0));
        }
        const DorvexX509IssuingDistPoint &idp = info.crlExtensions.issuingDistPoint;
        const tp::IssuingDistPoint want = plan.issuingDistPoint.value_or(tp::IssuingDistPoint{});
        EXPECT_EQ(idp.distributionPoint.len != 0, want.uri.has_value());
        EXPECT_EQ(idp.onlyContainsUserCerts, want.onlyUserCerts);
        EXPECT_EQ(idp.onlyContainsCACerts, want.onlyCaCerts);
        EXPECT_EQ(idp.indirectCRL, want.indirectCrl);
        EXPECT_EQ(idp.onlyContainsAttributeCerts, want.onlyAttributeCerts);
        DorvexX509FreeCrl(crl);
    }
}

// A decoded certificate of the names given.
Bytes Named(const Name &subject, const Name &issuer) {
    tp::CertSpec plan;
    plan.subjectKey = tp::LoadTestKey("leaf-2048");
    plan.subject = subject;
    plan.issuerName = issuer;
    return tp::IssueCert(plan).Der();
}

std::string S(char c, size_t n) {
    return std::string(n, c);
}

// A value over 124 bytes is cut; a name is cut at 255 bytes between RDNs.
TEST(X509Name, Render) {
    const struct {
        const char *name;
        Name in;
        uint32_t ret;
        std::string out = {};
    } cases[] = {
        // clang-format off
        {"encoded order, every prefix", tp::SimpleName({{"C", "DE"}, {"O", "Org"}, {"OU", "Unit"},
            {"CN", "Leaf"}, {"L", "l"}, {"ST", "s"}, {"emailAddress", "e@x"},
            {"1.2.840.113549.1.9.4", "x"}}), DORVEX_OK, "C=DE,O=Org,OU=Unit,CN=Leaf,L=l,S=s,E=e@x,X=x"},
        // DER sorts the attributes of an RDN: the shorter encoding comes first.
        {"no escaping, multi-valued RDN", {{{"CN", "a,b=c"}, {"O", "+"}}}, DORVEX_OK, "O=+,CN=a,b=c"},
        {"zero byte ends the value", {{{"CN", std::string("ab\0cd", 5)}}}, DORVEX_OK, "CN=ab"},
        {"125 bytes are cut", {{{"CN", S('a', 125)}}}, DORVEX_OK, "CN=" + S('a', 124)},
        // 126 + 1 + 52 = 179 used. CN (79) would pass 255, so the E that
        // follows it in the same RDN goes too; the next RDN still fits.
        {"full name skips the rest of an RDN", {{{"CN", S('a', 123)}}, {{"O", S('b', 50)}},
            {{"CN", S('c', 76)}, {"emailAddress", S('e', 70)}}, {{"C", "DE", tp::StrType::Printable}}},
         DORVEX_OK, "CN=" + S('a', 123) + ",O=" + S('b', 50) + ",C=DE"},
        {"domainComponent attribute", {{{"DC", "test", tp::StrType::Ia5}}}, DORVEX_ERR_NAME_ATTR},
        // clang-format on
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const Decoded cert(Named(c.in, c.in));
        char *str = nullptr;
        uint32_t len = 0;
        const uint32_t ret = DorvexConvertFromX509Name(&cert.cert->certInfo.subject, &str, &len);
        ASSERT_EQ(ret, c.ret);
        EXPECT_EQ(str != nullptr ? std::string(str, len) : "-", ret == DORVEX_OK ? c.out : "-");
        DorvexFree(str);
    }
}

TEST(X509Time, Convert) {
    constexpr uint32_t kUtc = DRX_ASN_UTC_TIME, kGen = DRX_ASN_GENERALIZED_TIME;
    const struct {
        uint32_t tag;
        std::string text;
        bool ok;
    } cases[] = {
        // clang-format off
        {kUtc, "491231235959Z", true}, {kUtc, "500101000000Z", true}, {kUtc, "000229120000Z", true},
        {kGen, "99991231235959Z", true}, {kGen, "20250101000000.5Z", false},
        {kUtc, "250101000000+0100", false}, {kUtc, "2501010000Z", false},
        {kUtc, "20250101000000Z", false}, {kGen, "250101000000Z", false},
        {4, "250101000000Z", false}, {kUtc, "", false}, {kGen, "00010301000000Z", true},
        {kGen, "20000229120000Z", true}, {kGen, "21000229120000Z", false},
        {kUtc, "251301000000Z", false}, {kUtc, "250230000000Z", false},
        {kUtc, "250101240000Z", false}, {kUtc, "250101006000Z", false}, {kUtc, "250101000060Z", false},
        {kUtc, "25A101000000Z", false}, {kUtc, "2501010000001", false}, {kGen, "2025010100000 Z", false},
        // clang-format on
    };
    for (const auto &c : cases) {
        const auto *text =
            c.text.empty() ? nullptr : reinterpret_cast<const uint8_t *>(c.text.data());
        const DorvexAsnOcts t{static_cast<uint32_t>(c.text.size()), 0, 0, c.tag, text};
        std::unique_ptr<ASN1_TIME, tp::Deleter<ASN1_TIME_free>> ref(ASN1_TIME_new());
        testing::internal::CaptureStdout();  // refusals are logged
        if (c.ok) {
            ASSERT_EQ(ASN1_TIME_set_string(ref.get(), c.text.c_str()), 1);
            ExpectTime(t, ref.get());
        } else {
            int64_t seconds = 0;
            EXPECT_EQ(DorvexConvertDatetimeToTime(&t, &seconds), DORVEX_ERR_TIME_FORMAT) << c.text;
        }
        testing::internal::GetCapturedStdout();
    }
    // A timestamp's genTime may carry a fraction (RFC 3161 2.4.2), dropped.
    const struct {
        uint32_t tag;
        std::string text;
        uint32_t ret;
    } genTimes[] = {
        {kGen, "20250101000000.125Z", DORVEX_OK},
        {kGen, "20250101000000Z", DORVEX_OK},
        {kGen, "20250101000000.50Z", DORVEX_ERR_TIME_FORMAT},
        {kGen, "20250101000000.Z", DORVEX_ERR_TIME_FORMAT},
        {kUtc, "250101000000Z", DORVEX_ERR_TIME_FORMAT},
    };
    testing::internal::CaptureStdout();
    for (const auto &g : genTimes) {
        const DorvexAsnOcts t{static_cast<uint32_t>(g.text.size()), 0, 0, g.tag,
                              reinterpret_cast<const uint8_t *>(g.text.data())};
        DorvexDatetime got{};
        EXPECT_EQ(DorvexConvertFromGenTime(&t, &got), g.ret) << g.text;
        EXPECT_EQ(g.ret == DORVEX_OK ? DorvexMktime(&got) : 0, g.ret == DORVEX_OK ? 1735689600 : 0)
            << g.text;
    }
    testing::internal::GetCapturedStdout();
}

// Self-signed with `key`, unless the issuer's name or key is another's.
Bytes SelfSigned(const char *key, tp::Digest digest = tp::Digest::Sha256,
                 const char *issuerName = nullptr, const char *issuerKey = nullptr,
                 bool pss = false, tp::Key subjectKey = tp::Key()) {
    tp::CertSpec plan;
    plan.subjectKey = subjectKey ? subjectKey : tp::LoadTestKey(key);
    plan.pss = pss;
    plan.subject = tp::SimpleName({{"CN", "self"}});
    if (issuerName != nullptr) {
        plan.issuerName = tp::SimpleName({{"CN", issuerName}});
    }
    if (issuerKey != nullptr) {
        tp::CertSpec other = plan;
        other.subjectKey = tp::LoadTestKey(issuerKey);
        plan.issuer = tp::IssueCredential(other);
    }
    plan.digest = digest;
    return tp::IssueCert(plan).Der();
}

// A self-signed P-256 certificate with its key in another form.
Bytes EcForm(bool compressed, bool explicitParams) {
    const auto key = tp::LoadTestKey("ec-p256").EcForm(compressed, explicitParams);
    return SelfSigned(nullptr, tp::Digest::Sha256, nullptr, nullptr, false, key);
}

// The P-256 certificate with the last octet of its point changed: off the curve.
Bytes OffCurve() {
    Bytes der = SelfSigned("ec-p256");
    const Bytes spki = tp::LoadTestKey("ec-p256").PublicKeyDer();
    auto at = std::search(der.begin(), der.end(), spki.end() - 65, spki.end());
    at[64] ^= 0x01;
    return der;
}

// The ECDSA certificate with its signature value re-encoded: r with a
// needless zero octet in front, or one octet after the value.
Bytes EcdsaValue(bool padR) {
    namespace der = tp::der;
    const auto fields = der::Children(SelfSigned("ec-p256"));
    const Bytes bits = der::Content(fields[2]);
    const auto rs = der::Children(std::span(bits).subspan(1));
    Bytes r = der::Content(rs[0]);
    r.insert(r.begin(), padR ? 1 : 0, 0x00);
    Bytes value = der::Seq({der::Integer(r), rs[1]});
    value.insert(value.begin(), 0x00);  // unused bits
    value.insert(value.end(), padR ? 0 : 1, 0x00);
    return der::Seq({fields[0], fields[1], der::Tlv(0x03, value)});
}

TEST(PubKey, SelfSignedTable) {
    using tp::Digest;
    const struct {
        const char *name;
        Bytes der;
        uint32_t ret, result;
    } rows[] = {
        {"4096-bit root, SHA-256", SelfSigned("root-4096"), 0, 1},
        {"issuer name differs", SelfSigned("ca-2048", Digest::Sha256, "other"), 0, 0},
        {"same names, other signer", SelfSigned("leaf-2048", Digest::Sha256, nullptr, "other-2048"),
         0, 0},
        {"SHA-1 refused before the key", SelfSigned("ca-2048", Digest::Sha1), DORVEX_ERR_SIGN_ALG,
         0},
        {"P-256, ECDSA SHA-256", SelfSigned("ec-p256"), 0, 1},
        {"P-256, compressed point", EcForm(true, false), 0, 1},
        {"RSASSA-PSS SHA-512", SelfSigned("ca-2048", Digest::Sha512, nullptr, nullptr, true), 0, 1},
        {"ECDSA label, RSA key", SelfSigned("leaf-2048", Digest::Sha256, nullptr, "ec-p256"),
         DORVEX_ERR_SIGN_ALG, 0},
        {"ECDSA r with a needless zero octet", EcdsaValue(true), DORVEX_ERR_SIG_ENCODING, 0},
        {"ECDSA value with an octet after it", EcdsaValue(false), DORVEX_ERR_SIG_ENCODING, 0},
        // Refused when decoded, before any check.
        {"secp256k1 key", SelfSigned("ec-secp256k1"), DORVEX_ERR_PUBKEY_CURVE, 0},
        {"P-256 by explicit parameters", EcForm(false, true), DORVEX_ERR_PUBKEY_CURVE, 0},
        {"point not on the curve", OffCurve(), DORVEX_ERR_PUBKEY_POINT, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Decoded d(row.der);
        if (row.ret == DORVEX_ERR_PUBKEY_CURVE || row.ret == DORVEX_ERR_PUBKEY_POINT) {
            EXPECT_EQ(d.ret, row.ret);
            continue;
        }
        ASSERT_NE(d.cert, nullptr);
        uint32_t result = 7;
        EXPECT_EQ(DorvexX509IsSelfSigned(d.cert, &result), row.ret);
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(d.cert->issuerCert, row.result == 1 ? d.cert : nullptr);
        if (row.result == 1) {
            // With the signature spoilt, only the cached issuer still answers 1.
            d.der.back() ^= 0x01;
            EXPECT_EQ(DorvexX509IsSelfSigned(d.cert, &result), 0u);
            EXPECT_EQ(result, 1u);
            d.cert->issuerCert = nullptr;
            EXPECT_EQ(DorvexX509IsSelfSigned(d.cert, &result), 0u);
            EXPECT_EQ(result, 0u);
        }
    }
}

}  // namespace
