// CRL information and CRL-set comparison over CRL files made by testpki: the
// demo root and its intermediate CA, each set decoded into a context of its
// own that trusts the demo root.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/x509.h>

#include "cms/dorvex.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/cms_fixture.h"
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;
using tp::Bytes;

using vt_test::CtxPtr;
using vt_test::Logged;
using vt_test::Pki;

// A CA that the contexts never see, for CRLs whose signer is unknown.
const tp::Credential &Stranger() {
    static const tp::Credential c = [] {
        tp::CertSpec s;
        s.subjectKey = tp::LoadTestKey("other-2048");
        s.subject = tp::SimpleName({{"CN", "Stranger CA"}});
        s.basicConstraints = tp::BasicConstraints{};
        s.keyUsage = tp::KeyUsage::Of(tp::ku::kKeyCertSign | tp::ku::kCrlSign);
        return tp::IssueCredential(s);
    }();
    return c;
}

const Bytes kCaSerial = {0x02};
const std::string kT0 = "240601000000Z", kT1 = "240701000000Z";

Bytes Crl(const tp::Credential &issuer, const std::string &thisUpdate,
          std::vector<Bytes> revoked = {}) {
    tp::CrlSpec s;
    s.issuer = issuer;
    s.thisUpdate = tp::Utc(thisUpdate);
    for (auto &serial : revoked) {
        s.revoked.push_back({serial, tp::Utc("240101000000Z"), std::nullopt});
    }
    return tp::MakeCrl(s);
}
Bytes RootCrl(const std::string &at, std::vector<Bytes> revoked = {}) {
    return Crl(Pki().root, at, std::move(revoked));
}
Bytes CaCrl(const std::string &at) {
    return Crl(Pki().ca, at, {{0x10, 0x7F}});
}

// A CRL file as DER: the CRLs, then the intermediate CA's certificate.
Bytes CrlFile(std::vector<Bytes> crls) {
    crls.push_back(Pki().ca.cert.Der());
    return tp::ConcatDer(crls);
}

CtxPtr TrustingCtx() {
    return vt_test::NewCtx(&Pki().root.cert.Der());
}

// One decoded set with the context it was decoded in.
struct Decoded {
    CtxPtr ctx = TrustingCtx();
    DorvexCrlInfoList *list = nullptr;
    uint32_t ret = DORVEX_FAIL;
    explicit Decoded(const Bytes &file) {
        ret = DorvexDecodeCrl(ctx.get(), file.data(), file.size(), &list);
    }
    ~Decoded() {
        if (list != nullptr) {
            EXPECT_EQ(DorvexCrlFree(ctx.get(), list), DORVEX_OK);
        }
    }
};

Bytes SerialOf(const DorvexCrlInfo *info) {
    return Bytes(info->issuerSerial, info->issuerSerial + info->issuerSerialLen);
}

TEST(CrlInfo, ReportsEveryCrlItCanReadAndDropsTheRest) {
    tp::CrlSpec longTime;
    longTime.issuer = Pki().ca;
    longTime.thisUpdate = tp::Gen("20240601000000.5Z");  // 17 characters
    const Bytes serial33(33, 0x11);
    vt_test::ClearSyslog();
    Decoded d(CrlFile({RootCrl(kT0, {kCaSerial, serial33, {0x10, 0x7F}}), tp::MakeCrl(longTime),
                       CaCrl(kT1), Crl(Stranger(), kT1)}));
    ASSERT_EQ(d.ret, DORVEX_OK);
    ASSERT_EQ(d.list->count, 3u);
    EXPECT_TRUE(Logged("InternalGetCrlInfo", "update time"));

    const DorvexCrlInfo *root = d.list->crlInfo[0];
    EXPECT_STREQ(root->issuerName, "C=DE,O=Dorvex,CN=Demo Root CA");
    EXPECT_EQ(root->verified, 1u);
    EXPECT_EQ(root->thisUpdate, tp::EpochOf(tp::Utc(kT0)));
    const ASN1_INTEGER *rootSerial = X509_get0_serialNumber(Pki().root.cert.get());
    EXPECT_EQ(SerialOf(root),
              Bytes(ASN1_STRING_get0_data(rootSerial),
                    ASN1_STRING_get0_data(rootSerial) + ASN1_STRING_length(rootSerial)));
    // The 33-byte serial is left out and not counted.
    ASSERT_EQ(root->revokedCount, 2u);
    EXPECT_EQ(Bytes(root->revoked[0].serial, root->revoked[0].serial + root->revoked[0].len),
              kCaSerial);
    EXPECT_EQ(root->revoked[1].len, 2u);

    // The intermediate is revoked by the root's CRL, so its CRL is not trusted.
    const DorvexCrlInfo *ca = d.list->crlInfo[1];
    EXPECT_STREQ(ca->issuerName, "C=DE,O=Dorvex Test PKI,CN=Test Intermediate CA");
    EXPECT_EQ(ca->verified, 0u);
    EXPECT_EQ(SerialOf(ca), kCaSerial);
    EXPECT_EQ(ca->revokedCount, 0u);

    const DorvexCrlInfo *stranger = d.list->crlInfo[2];
    EXPECT_STREQ(stranger->issuerName, "CN=Stranger CA");
    EXPECT_EQ(stranger->verified, 0u);
    EXPECT_EQ(stranger->issuerSerialLen, 0u);
    // Left at the thisUpdate of the last CRL whose signer was found.
    EXPECT_EQ(d.ctx->verifyTime, tp::EpochOf(tp::Utc(kT1)));
}

TEST(CrlInfo, RefusesWhatItCannotReport) {
    std::vector<Bytes> many;
    for (int day = 10; day < 27; ++day) {
        many.push_back(RootCrl("2407" + std::to_string(day) + "000000Z"));
    }
    const Bytes noCert = RootCrl(kT0), garbage(100, 0x5A), seventeen = CrlFile(many);
    struct Row {
        const char *name;
        const Bytes *input;
        const char *path;  // DorvexDecodeCrlFile when set
        uint32_t expect;
    } rows[] = {
        {"garbage", &garbage, nullptr, DORVEX_ERR_CRL_DECODE},
        {"certificate only", &Pki().ca.cert.Der(), nullptr, DORVEX_ERR_CRL_DECODE},
        // The signer is in the store already, yet the file must carry its CAs.
        {"no certificate", &noCert, nullptr, DORVEX_ERR_CRL_DECODE},
        {"17 CRLs", &seventeen, nullptr, DORVEX_ERR_CRL_TOO_MANY},
        {"missing file", nullptr, "/nonexistent/crl.pem", DORVEX_ERR_FILE_OPEN},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        CtxPtr ctx = TrustingCtx();
        DorvexCrlInfoList stale{};
        DorvexCrlInfoList *list = &stale;
        EXPECT_EQ(r.path != nullptr
                      ? DorvexDecodeCrlFile(ctx.get(), r.path, &list)
                      : DorvexDecodeCrl(ctx.get(), r.input->data(), r.input->size(), &list),
                  r.expect);
        EXPECT_EQ(list, nullptr);  // no stale pointer left behind
    }
}

TEST(CrlCompare, DecidesWhichSetIsNewer) {
    const Bytes base = CrlFile({RootCrl(kT0), CaCrl(kT0)});
    const Bytes rootNewer = CrlFile({RootCrl(kT1), CaCrl(kT0)});
    const Bytes caNewer = CrlFile({RootCrl(kT0), CaCrl(kT1)});
    const Bytes rootOnly = CrlFile({RootCrl(kT0)});
    const Bytes caRevoked = CrlFile({RootCrl(kT1, {kCaSerial})});
    const Bytes otherRevoked = CrlFile({RootCrl(kT1, {{0x10, 0x7F}})});
    const Bytes twoCaCrls = CrlFile({RootCrl(kT0), CaCrl(kT0), CaCrl(kT1)});
    const Bytes untrusted = CrlFile({RootCrl(kT0), CaCrl(kT0), Crl(Stranger(), kT0)});
    struct Row {
        const char *name;
        const Bytes &first, &second;
        uint32_t expect, result;
    } rows[] = {
        {"itself", base, base, DORVEX_OK, 0},
        {"root CRL later", rootNewer, base, DORVEX_OK, 1},
        {"root CRL earlier", base, rootNewer, DORVEX_OK, 2},
        {"newer by one, older by another", rootNewer, caNewer, DORVEX_OK, 3},
        {"more CRLs, same times", base, rootOnly, DORVEX_OK, 1},
        {"fewer CRLs, same times", rootOnly, base, DORVEX_OK, 2},
        {"CA CRL gone, CA revoked", caRevoked, base, DORVEX_OK, 1},
        {"CA CRL gone, CA not revoked", otherRevoked, base, DORVEX_ERR_CRL_NOT_COMPARABLE, 3},
        {"two CRLs of one CA", twoCaCrls, base, DORVEX_ERR_CRL_DUP_ISSUER, 3},
        {"untrusted CRL", base, untrusted, DORVEX_ERR_CRL_SET_INVALID, 3},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        Decoded a(r.first), b(r.second);
        ASSERT_EQ(a.ret, DORVEX_OK);
        ASSERT_EQ(b.ret, DORVEX_OK);
        uint32_t result = 99;
        EXPECT_EQ(DorvexCrlCompare(a.ctx.get(), a.list, b.list, &result), r.expect);
        EXPECT_EQ(result, r.result);
    }
}

// A set that claims more CRLs than it has slots is refused, not read past.
TEST(CrlCompare, RefusesEmptyAndOverfullSets) {
    Decoded d(CrlFile({RootCrl(kT0)}));
    ASSERT_EQ(d.ret, DORVEX_OK);
    DorvexCrlInfoList empty{};
    DorvexCrlInfoList overfull = *d.list;
    overfull.count = DORVEX_CRL_INFO_MAX + 1;
    uint32_t result = 99;
    EXPECT_EQ(DorvexCrlCompare(d.ctx.get(), d.list, &empty, &result), DORVEX_ERR_CRL_SET_EMPTY);
    EXPECT_EQ(result, 99u);
    EXPECT_EQ(DorvexCrlCompare(d.ctx.get(), &overfull, d.list, &result),
              DORVEX_ERR_CRL_SET_INVALID);
    EXPECT_EQ(result, 3u);
}

}  // namespace
