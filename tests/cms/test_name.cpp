// Names and times of decoded certificates: readable form, equality, and
// UTCTime / GeneralizedTime conversion checked against OpenSSL.
#include <openssl/asn1.h>

#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "cms/asn1/x509.h"
#include "tools/testpki/testpki.h"

namespace {

using testpki::Attr;
using testpki::Name;
using testpki::SimpleName;

// A decoded certificate whose subject and issuer are the names given; owns
// the DER the record points into.
class NamedCert {
  public:
    NamedCert(const Name &subject, const Name &issuer) {
        static const testpki::Key key = testpki::LoadTestKey("leaf-2048");
        testpki::CertSpec spec;
        spec.subjectKey = key;
        spec.subject = subject;
        spec.issuerName = issuer;
        der_ = testpki::IssueCert(spec).Der();
        uint32_t consumed = 0;
        EXPECT_EQ(DorvexX509DecodeCert(der_.data(), static_cast<uint32_t>(der_.size()), &cert_,
                                       &consumed),
                  DORVEX_OK);
    }
    ~NamedCert() { DorvexX509FreeCert(cert_); }
    NamedCert(const NamedCert &) = delete;
    NamedCert &operator=(const NamedCert &) = delete;

    const DorvexX509Name &Subject() const { return cert_->certInfo.subject; }
    const DorvexX509Name &Issuer() const { return cert_->certInfo.issuer; }

  private:
    testpki::Bytes der_;
    DorvexX509Cert *cert_ = nullptr;
};

size_t Count(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++n;
    }
    return n;
}

std::string S(char c, size_t n) {
    return std::string(n, c);
}

TEST(X509Name, Render) {
    struct Case {
        const char *name;
        Name in;
        uint32_t ret;
        std::string out = {};
        size_t warnings = 0;
    };
    const Case cases[] = {
        {"encoded order", SimpleName({{"C", "DE"}, {"O", "Org"}, {"OU", "Unit"}, {"CN", "Leaf"}}),
         DORVEX_OK, "C=DE,O=Org,OU=Unit,CN=Leaf"},
        {"every prefix",
         SimpleName(
             {{"L", "l"}, {"ST", "s"}, {"emailAddress", "e@x"}, {"1.2.840.113549.1.9.4", "x"}}),
         DORVEX_OK, "L=l,S=s,E=e@x,X=x"},
        // DER sorts the attributes of an RDN: the shorter encoding comes first.
        {"no escaping, multi-valued RDN",
         {{{"CN", "a,b=c"}, {"O", "+"}}},
         DORVEX_OK,
         "O=+,CN=a,b=c"},
        {"empty name", {}, DORVEX_OK, ""},
        {"zero byte ends the value", {{{"CN", std::string("ab\0cd", 5)}}}, DORVEX_OK, "CN=ab"},
        {"124 bytes fit", {{{"CN", S('a', 124)}}}, DORVEX_OK, "CN=" + S('a', 124)},
        {"125 bytes are cut", {{{"CN", S('a', 125)}}}, DORVEX_OK, "CN=" + S('a', 124), 1},
        {"200 bytes are cut", {{{"CN", S('a', 200)}}}, DORVEX_OK, "CN=" + S('a', 124), 1},
        {"two-letter prefix leaves 125", {{{"O", S('o', 130)}}}, DORVEX_OK, "O=" + S('o', 125), 1},
        // 126 + 1 + 102 = 229; OU would pass 255, so L goes with it; C=DE still fits.
        // 126 + 1 + 52 = 179 used. CN (79) would pass 255, so the E that
        // follows it in the same RDN (72, encoded as long, sorted after) goes
        // too; the next RDN still fits.
        {"full name skips the rest of an RDN",
         {{{"CN", S('a', 123)}},
          {{"O", S('b', 50)}},
          {{"CN", S('c', 76)}, {"emailAddress", S('e', 70)}},
          {{"C", "DE", testpki::StrType::Printable}}},
         DORVEX_OK,
         "CN=" + S('a', 123) + ",O=" + S('b', 50) + ",C=DE"},
        {"serialNumber attribute", {{{"CN", "a"}}, {{"serialNumber", "1"}}}, DORVEX_ERR_NAME_ATTR},
        {"domainComponent attribute",
         {{{"DC", "test", testpki::StrType::Ia5}}},
         DORVEX_ERR_NAME_ATTR},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        NamedCert cert(c.in, c.in);
        char *str = nullptr;
        uint32_t len = 0;
        testing::internal::CaptureStdout();
        const uint32_t ret = DorvexConvertFromX509Name(&cert.Subject(), &str, &len);
        const std::string console = testing::internal::GetCapturedStdout();
        ASSERT_EQ(ret, c.ret);
        EXPECT_EQ(Count(console,
                        "(InternalGetMaxAttrLen):attribute name too long, which is "
                        "invalid.(err:880004ff)"),
                  c.warnings);
        if (ret != DORVEX_OK) {
            EXPECT_EQ(str, nullptr);
            continue;
        }
        ASSERT_NE(str, nullptr);
        EXPECT_EQ(std::string(str), c.out);
        EXPECT_EQ(len, c.out.size());
        DorvexFree(str);
    }
    EXPECT_EQ(DorvexConvertFromX509Name(nullptr, nullptr, nullptr), DORVEX_ERR_PARAM);
}

TEST(X509Name, Compare) {
    using testpki::StrType;
    const Name base = SimpleName({{"C", "DE"}, {"CN", "Leaf"}});
    struct Case {
        const char *name;
        Name other;
        int32_t result;
    };
    const Case cases[] = {
        {"same", base, 0},
        {"other string type, same bytes",
         {{{"C", "DE", StrType::Utf8}}, {{"CN", "Leaf", StrType::Printable}}},
         0},
        {"second attribute of an RDN differs",
         {{{"C", "DE", StrType::Printable}, {"O", "Other"}}, {{"CN", "Leaf"}}},
         0},
        {"case differs", SimpleName({{"C", "DE"}, {"CN", "leaf"}}), -1},
        {"type differs", SimpleName({{"C", "DE"}, {"O", "Leaf"}}), -1},
        {"one RDN more", SimpleName({{"C", "DE"}, {"CN", "Leaf"}, {"O", "x"}}), -1},
        {"order differs", SimpleName({{"CN", "Leaf"}, {"C", "DE"}}), -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        NamedCert cert(base, c.other);
        EXPECT_EQ(DorvexCompareX509Name(&cert.Subject(), &cert.Issuer()), c.result);
        EXPECT_EQ(DorvexCompareX509Name(&cert.Issuer(), &cert.Subject()), c.result);
    }
    const DorvexX509Name empty{};
    EXPECT_EQ(DorvexCompareX509Name(&empty, &empty), 0);
    EXPECT_EQ(DorvexCompareX509Name(&empty, nullptr), static_cast<int32_t>(DORVEX_ERR_PARAM));
}

// Seconds since 1970 as OpenSSL reads the same text.
int64_t OpensslSeconds(uint32_t tag, const std::string &text) {
    ASN1_TIME *t = ASN1_TIME_new();
    const int set = tag == DRX_ASN_UTC_TIME ? ASN1_UTCTIME_set_string(t, text.c_str())
                                            : ASN1_GENERALIZEDTIME_set_string(t, text.c_str());
    struct tm tm {};
    const int ok = set == 1 ? ASN1_TIME_to_tm(t, &tm) : 0;
    ASN1_TIME_free(t);
    EXPECT_EQ(ok, 1) << text;
    return timegm(&tm);
}

TEST(X509Time, Convert) {
    constexpr uint32_t kUtc = DRX_ASN_UTC_TIME, kGen = DRX_ASN_GENERALIZED_TIME;
    struct Case {
        const char *name;
        uint32_t tag;
        std::string text;
        uint32_t ret;
        DorvexDatetime want = {};
    };
    const Case cases[] = {
        {"last UTCTime year", kUtc, "491231235959Z", DORVEX_OK, {2049, 12, 31, 23, 59, 59}},
        {"first UTCTime year", kUtc, "500101000000Z", DORVEX_OK, {1950, 1, 1, 0, 0, 0}},
        {"leap day", kUtc, "000229120000Z", DORVEX_OK, {2000, 2, 29, 12, 0, 0}},
        {"generalized 2050", kGen, "20500101000000Z", DORVEX_OK, {2050, 1, 1, 0, 0, 0}},
        {"generalized before 1950", kGen, "19491231235959Z", DORVEX_OK, {1949, 12, 31, 23, 59, 59}},
        {"generalized 9999", kGen, "99991231235959Z", DORVEX_OK, {9999, 12, 31, 23, 59, 59}},
        {"fractional seconds", kGen, "20250101000000.5Z", DORVEX_ERR_TIME_FORMAT},
        {"UTCTime with offset", kUtc, "250101000000+0100", DORVEX_ERR_TIME_FORMAT},
        {"generalized with offset", kGen, "20250101000000+0100", DORVEX_ERR_TIME_FORMAT},
        {"UTCTime without seconds", kUtc, "2501010000Z", DORVEX_ERR_TIME_FORMAT},
        {"generalized length as UTCTime", kUtc, "20250101000000Z", DORVEX_ERR_TIME_FORMAT},
        {"UTCTime length as generalized", kGen, "250101000000Z", DORVEX_ERR_TIME_FORMAT},
        {"not a time tag", 4, "250101000000Z", DORVEX_ERR_TIME_FORMAT},
        {"empty", kUtc, "", DORVEX_ERR_TIME_FORMAT},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const DorvexAsnOcts t{
            static_cast<uint32_t>(c.text.size()), 0, 0, c.tag,
            c.text.empty() ? nullptr : reinterpret_cast<const uint8_t *>(c.text.data())};
        DorvexDatetime got{};
        int64_t seconds = 0;
        testing::internal::CaptureStdout();  // refusals are logged
        EXPECT_EQ(DorvexConvertFromTime(&t, &got), c.ret);
        EXPECT_EQ(DorvexConvertDatetimeToTime(&t, &seconds), c.ret);
        testing::internal::GetCapturedStdout();
        if (c.ret != DORVEX_OK) {
            continue;
        }
        EXPECT_EQ(got.year, c.want.year);
        EXPECT_EQ(got.month, c.want.month);
        EXPECT_EQ(got.day, c.want.day);
        EXPECT_EQ(got.hour, c.want.hour);
        EXPECT_EQ(got.minute, c.want.minute);
        EXPECT_EQ(got.second, c.want.second);
        EXPECT_EQ(seconds, OpensslSeconds(c.tag, c.text));
    }
    DorvexDatetime dt{};
    int64_t seconds = 0;
    EXPECT_EQ(DorvexConvertFromTime(nullptr, &dt), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexConvertDatetimeToTime(nullptr, &seconds), DORVEX_ERR_PARAM);
}

}  // namespace
