// Certificate and CRL decoding: OpenSSL-made certificates and CRLs read back
// field by field against what OpenSSL itself reports, and the structural
// limits that real inputs can hit.
#include "cms/asn1/x509.h"

#include <openssl/core_names.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cms/asn1/internal.h"
#include "cms/asn1/oid.h"
#include "tools/testpki/testpki.h"

namespace {

using testpki::Bytes;

Bytes Content(const DorvexAsnOcts &o) {
    return o.data == nullptr ? Bytes{} : Bytes(o.data, o.data + o.len);
}

Bytes Asn1Bytes(const ASN1_STRING *s) {
    const uint8_t *p = ASN1_STRING_get0_data(s);
    return Bytes(p, p + ASN1_STRING_length(s));
}

int64_t OpensslSeconds(const ASN1_TIME *t) {
    struct tm tm {};
    EXPECT_EQ(ASN1_TIME_to_tm(t, &tm), 1);
    return timegm(&tm);
}

int64_t Seconds(const DorvexAsnOcts &t) {
    int64_t s = -1;
    EXPECT_EQ(DorvexConvertDatetimeToTime(&t, &s), DORVEX_OK);
    return s;
}

std::string Render(const DorvexX509Name &name) {
    char *str = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(DorvexConvertFromX509Name(&name, &str, &len), DORVEX_OK);
    std::string out(str != nullptr ? str : "", len);
    DorvexFree(str);
    return out;
}

Bytes BnParam(EVP_PKEY *pkey, const char *param) {
    BIGNUM *bn = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(pkey, param, &bn), 1);
    Bytes out(static_cast<size_t>(BN_num_bytes(bn)));
    BN_bn2bin(bn, out.data());
    BN_free(bn);
    return out;
}

const testpki::Credential &TestCa() {
    static const testpki::Credential ca = [] {
        testpki::CertSpec spec;
        spec.subjectKey = testpki::LoadTestKey("ca-2048");
        spec.subject = testpki::SimpleName({{"C", "DE"}, {"O", "Test"}, {"CN", "Test CA"}});
        spec.basicConstraints = testpki::BasicConstraints();
        return testpki::IssueCredential(spec);
    }();
    return ca;
}

testpki::Name Cns(int n) {
    testpki::Name name;
    for (int i = 0; i < n; ++i) {
        name.push_back({{"CN", "n" + std::to_string(i)}});
    }
    return name;
}

TEST(X509Items, TemplatesStayInsideTheirRecords) {
    EXPECT_TRUE(drx_asn::ItemFits(g_itemDorvexX509Cert));
    EXPECT_TRUE(drx_asn::ItemFits(g_itemDorvexX509Crl));
}

using Edit = void (*)(testpki::CertSpec &);
struct CertCase {
    const char *name;
    Edit edit;
    uint32_t ret;
    uint32_t isCA = 0, keyUsage = 0, extKeyUsage = 0;
    const char *subject = "C=DE,O=Test,CN=Leaf";
};

const CertCase kCertCases[] = {
    {"code-signing leaf",
     [](auto &s) {
         s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kDigitalSignature);
         s.extKeyUsage = testpki::ExtKeyUsage{{"codeSigning"}};
     },
     DORVEX_OK, 0, 0x80, DRX_EXKU_CODE_SIGNING},
    {"CA with path length",
     [](auto &s) {
         s.basicConstraints = testpki::BasicConstraints{true, 2};
         s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kKeyCertSign | testpki::ku::kCrlSign);
     },
     DORVEX_OK, 1, 0x06},
    {"basic constraints cA absent",
     [](auto &s) {
         s.basicConstraints = testpki::BasicConstraints{false, {}, true};
     },
     DORVEX_OK},
    {"no extensions", [](auto &) {}, DORVEX_OK},
    {"version 2", [](auto &s) { s.version = 2; }, DORVEX_OK},
    {"two-octet key usage", [](auto &s) { s.keyUsage = testpki::KeyUsage::Of(0x80, 0x80); },
     DORVEX_OK, 0, 0x8080},
    {"time stamping first",
     [](auto &s) {
         s.extKeyUsage = testpki::ExtKeyUsage{{"timeStamping", "codeSigning"}};
     },
     DORVEX_OK, 0, 0, DRX_EXKU_TIME_STAMPING},
    {"server auth first",
     [](auto &s) {
         s.extKeyUsage = testpki::ExtKeyUsage{{"serverAuth", "codeSigning"}};
     },
     DORVEX_OK},
    {"unknown critical extension",
     [](auto &s) {
         s.extraExtensions = {{"1.2.3.4", true, testpki::der::Boolean(true)}};
         s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kDigitalSignature);
     },
     DORVEX_OK, 0, 0x80},
    {"sign octet on serial, generalized times",
     [](auto &s) {
         s.serial = {0x00, 0x8f, 0x01};
         s.notBefore = testpki::Gen("19491231235959Z");
         s.notAfter = testpki::Gen("20500101000000Z");
     },
     DORVEX_OK},
    {"4096-bit key, ten RDNs",
     [](auto &s) {
         s.subjectKey = testpki::LoadTestKey("root-4096");
         s.subject = Cns(10);
     },
     DORVEX_OK, 0, 0, 0, "CN=n0,CN=n1,CN=n2,CN=n3,CN=n4,CN=n5,CN=n6,CN=n7,CN=n8,CN=n9"},
    {"version 1: no version field", [](auto &s) { s.version = 1; }, DORVEX_ERR_ASN_SEQUENCE},
    {"eleven RDNs", [](auto &s) { s.subject = Cns(11); }, DORVEX_ERR_ASN_SETOF},
    {"eleven attributes in one RDN",
     [](auto &s) {
         s.subject = {testpki::Rdn(11, testpki::Attr{"OU", "u"})};
     },
     DORVEX_ERR_ASN_SETOF},
    {"EC key", [](auto &s) { s.subjectKey = testpki::LoadTestKey("ec-p256"); }, DORVEX_ERR_ASN_TAG},
    {"eleven purposes",
     [](auto &s) {
         s.extKeyUsage = testpki::ExtKeyUsage{std::vector<std::string>(11, "codeSigning")};
     },
     DORVEX_ERR_ASN_SEQUENCE},
    {"three-octet key usage",
     [](auto &s) {
         s.keyUsage = testpki::KeyUsage{{0x80, 0, 0x80}};
     },
     DORVEX_ERR_ASN_SEQUENCE},
    {"empty extension value",
     [](auto &s) {
         s.extraExtensions = {{"1.2.3.4", false, {}}};
     },
     DORVEX_ERR_ASN_SEQUENCE},
};

TEST(X509Cert, DecodesWhatOpensslReports) {
    for (const CertCase &c : kCertCases) {
        SCOPED_TRACE(c.name);
        testpki::CertSpec spec;
        spec.subjectKey = testpki::LoadTestKey("leaf-2048");
        spec.issuer = TestCa();
        spec.subject = testpki::SimpleName({{"C", "DE"}, {"O", "Test"}, {"CN", "Leaf"}});
        c.edit(spec);
        Bytes der = testpki::IssueCert(spec).Der();
        const size_t size = der.size();
        der.insert(der.end(), {0x30, 0x00});  // the next item of a concatenation
        DorvexX509Cert *cert = nullptr;
        uint32_t consumed = 0;
        ASSERT_EQ(
            DorvexX509DecodeCert(der.data(), static_cast<uint32_t>(der.size()), &cert, &consumed),
            c.ret);
        if (c.ret != DORVEX_OK) {
            EXPECT_EQ(cert, nullptr);
            continue;
        }
        EXPECT_EQ(consumed, size);
        EXPECT_EQ(cert->refCount, 1);
        EXPECT_EQ(cert->issuerCert, nullptr);
        der.resize(size);
        const testpki::Cert ossl = testpki::Cert::FromDer(der);
        X509 *x = ossl.get();
        uint8_t *tbs = nullptr;
        const int tbsLen = i2d_re_X509_tbs(x, &tbs);
        EXPECT_EQ(Content(cert->tbsRaw), Bytes(tbs, tbs + tbsLen));
        OPENSSL_free(tbs);
        const DorvexX509CertInfo &info = cert->certInfo;
        EXPECT_EQ(Content(info.serialNumber), Asn1Bytes(X509_get0_serialNumber(x)));
        EXPECT_EQ(Render(info.issuer), "C=DE,O=Test,CN=Test CA");
        EXPECT_EQ(Render(info.subject), c.subject);
        EXPECT_EQ(Seconds(info.validity.notBefore), OpensslSeconds(X509_get0_notBefore(x)));
        EXPECT_EQ(Seconds(info.validity.notAfter), OpensslSeconds(X509_get0_notAfter(x)));
        const DorvexRsaPublicKey &key = info.subjectPublicKeyInfo.subjectPublicKey;
        EXPECT_EQ(Content(key.modulus), BnParam(X509_get0_pubkey(x), OSSL_PKEY_PARAM_RSA_N));
        EXPECT_EQ(Content(key.publicExponent), BnParam(X509_get0_pubkey(x), OSSL_PKEY_PARAM_RSA_E));
        const ASN1_BIT_STRING *sig = nullptr;
        X509_get0_signature(&sig, nullptr, x);
        EXPECT_EQ(Content(cert->signature), Asn1Bytes(sig));
        EXPECT_EQ(DorvexGetHashAoidFromSign(&cert->signatureAlgorithm), AOID_SHA256);
        EXPECT_EQ(info.extensions.isCA, c.isCA);
        EXPECT_EQ(info.extensions.keyUsage, c.keyUsage);
        EXPECT_EQ(info.extensions.extKeyUsage, c.extKeyUsage);
        DorvexX509FreeCert(cert);
    }
}

TEST(X509Cert, ReferenceCountsAndArguments) {
    const Bytes der = TestCa().cert.Der();
    const auto size = static_cast<uint32_t>(der.size());
    DorvexX509Cert *a = nullptr;
    DorvexX509Cert *b = nullptr;
    uint32_t consumed = 0;
    ASSERT_EQ(DorvexX509DecodeCert(der.data(), size, &a, &consumed), DORVEX_OK);
    ASSERT_EQ(DorvexX509DecodeCert(der.data(), size, &b, &consumed), DORVEX_OK);
    EXPECT_NE(a, b);
    EXPECT_EQ(b->refCount, 1);
    EXPECT_EQ(b->certInfo.extensions.isCA, 1u);
    a->refCount = 2;  // a second holder
    DorvexX509FreeCert(a);
    EXPECT_EQ(a->refCount, 1);  // still allocated: the sanitizer build would catch a use
    DorvexX509FreeCert(a);
    DorvexX509FreeCert(b);
    DorvexX509FreeCert(nullptr);
    DorvexX509FreeCrl(nullptr);

    DorvexX509Crl *crl = nullptr;
    EXPECT_EQ(DorvexX509DecodeCert(nullptr, size, &a, &consumed), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexX509DecodeCert(der.data(), 0, &a, &consumed), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexX509DecodeCert(der.data(), size, nullptr, &consumed), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexX509DecodeCrl(der.data(), size, &crl, nullptr), DORVEX_ERR_PARAM);
    // A certificate is not a CRL: its tbsCertificate starts with [0], not the version.
    EXPECT_EQ(DorvexX509DecodeCrl(der.data(), size, &crl, &consumed), DORVEX_ERR_ASN_TAG);
    EXPECT_EQ(crl, nullptr);
}

using CrlEdit = void (*)(testpki::CrlSpec &);
struct CrlCase {
    const char *name;
    CrlEdit edit;
    uint32_t ret;
};

std::vector<testpki::RevokedEntry> Revoked(int n) {
    std::vector<testpki::RevokedEntry> out;
    for (int i = 0; i < n; ++i) {
        out.push_back({testpki::SerialFromU64(1000 + static_cast<uint64_t>(i)),
                       testpki::Utc("250101000000Z"),
                       {}});
    }
    return out;
}

testpki::IssuingDistPoint Idp(std::optional<std::string> uri, bool user, bool ca, bool indirect,
                              bool attribute) {
    return {std::move(uri), user, ca, indirect, attribute, true};
}

const CrlCase kCrlCases[] = {
    {"entries with and without reasons",
     [](auto &s) {
         s.revoked = {{{0x10}, testpki::Utc("250101000000Z"), 1},
                      {{0x00, 0x90}, testpki::Gen("20500101000000Z"), std::nullopt},
                      {{0x11}, testpki::Utc("250102000000Z"), 6}};
     },
     DORVEX_OK},
    {"no entries, no extensions", [](auto &s) { s.crlNumber.reset(); }, DORVEX_OK},
    {"indirect CRL with a point",
     [](auto &s) {
         s.issuingDistPoint = Idp("http://crl.test/a.crl", false, false, true, false);
         s.revoked = Revoked(1);
     },
     DORVEX_OK},
    {"only user certificates",
     [](auto &s) { s.issuingDistPoint = Idp({}, true, false, false, false); }, DORVEX_OK},
    {"only CA and attribute certificates",
     [](auto &s) { s.issuingDistPoint = Idp({}, false, true, false, true); }, DORVEX_OK},
    {"twenty entries", [](auto &s) { s.revoked = Revoked(20); }, DORVEX_OK},
    {"twenty-one entries", [](auto &s) { s.revoked = Revoked(21); }, DORVEX_ERR_ASN_SEQUENCE},
    {"version 1: no version field", [](auto &s) { s.version = 1; }, DORVEX_ERR_ASN_TAG},
    {"empty extension value",
     [](auto &s) {
         s.extraExtensions = {{"1.2.3.4", false, {}}};
     },
     DORVEX_ERR_ASN_SEQUENCE},
};

TEST(X509Crl, DecodesWhatOpensslReports) {
    for (const CrlCase &c : kCrlCases) {
        SCOPED_TRACE(c.name);
        testpki::CrlSpec spec;
        spec.issuer = TestCa();
        c.edit(spec);
        const Bytes der = testpki::MakeCrl(spec);
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
        EXPECT_EQ(crl->refCount, 1);
        const uint8_t *p = der.data();
        testpki::X509CrlPtr x(d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size())));
        ASSERT_NE(x, nullptr);
        uint8_t *tbs = nullptr;
        const int tbsLen = i2d_re_X509_CRL_tbs(x.get(), &tbs);
        EXPECT_EQ(Content(crl->tbsRaw), Bytes(tbs, tbs + tbsLen));
        OPENSSL_free(tbs);
        const DorvexX509CrlInfo &info = crl->crlInfo;
        EXPECT_EQ(info.version, 1);
        EXPECT_EQ(Render(info.issuer), "C=DE,O=Test,CN=Test CA");
        EXPECT_EQ(Seconds(info.thisUpdate), OpensslSeconds(X509_CRL_get0_lastUpdate(x.get())));
        EXPECT_EQ(Seconds(info.nextUpdate), OpensslSeconds(X509_CRL_get0_nextUpdate(x.get())));
        const STACK_OF(X509_REVOKED) *revoked = X509_CRL_get_REVOKED(x.get());
        ASSERT_EQ(info.revokedCertificates.count, spec.revoked.size());
        for (uint32_t i = 0; i < info.revokedCertificates.count; ++i) {
            const DorvexX509RevokeEntry &e = info.revokedCertificates.entries[i];
            const X509_REVOKED *r = sk_X509_REVOKED_value(revoked, static_cast<int>(i));
            EXPECT_EQ(Content(e.userCertificate), Asn1Bytes(X509_REVOKED_get0_serialNumber(r)));
            EXPECT_EQ(Seconds(e.revocationDate),
                      OpensslSeconds(X509_REVOKED_get0_revocationDate(r)));
            EXPECT_EQ(e.crlEntryExtensions.reasonCode, spec.revoked[i].reason.value_or(0));
        }
        const DorvexX509IssuingDistPoint &idp = info.crlExtensions.issuingDistPoint;
        const testpki::IssuingDistPoint want =
            spec.issuingDistPoint.value_or(testpki::IssuingDistPoint{});
        EXPECT_EQ(idp.distributionPoint.len != 0, want.uri.has_value());
        EXPECT_EQ(idp.onlyContainsUserCerts, want.onlyUserCerts);
        EXPECT_EQ(idp.onlyContainsCACerts, want.onlyCaCerts);
        EXPECT_EQ(idp.indirectCRL, want.indirectCrl);
        EXPECT_EQ(idp.onlyContainsAttributeCerts, want.onlyAttributeCerts);
        const ASN1_BIT_STRING *sig = nullptr;
        X509_CRL_get0_signature(x.get(), &sig, nullptr);
        EXPECT_EQ(Content(crl->signature), Asn1Bytes(sig));
        DorvexX509FreeCrl(crl);
    }
}

}  // namespace
