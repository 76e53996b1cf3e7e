// Verify context and trust-material intake (DER streams, PEM text, files)
// read back from the context's store; CRL information and CRL-set comparison
// over CRL files of the demo root and its CA, each in a context of its own.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/x509.h>

#include "cms/dorvex.h"
#include "cms/pki/pki.h"
#include "tests/support/cms_fixture.h"
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;
using tp::Bytes;

using vt_test::CtxPtr;
using vt_test::Logged;
using vt_test::NewCtx;
using vt_test::Pki;
using vt_test::Text;

std::string CertPem(const tp::Credential &c) {
    return tp::ToPem(tp::kPemCertificate, c.cert.Der());
}

// Certificates * 10 + CRLs in the context's store.
int32_t Counts(const DorvexVrfCtx *ctx) {
    return ctx->pki->certs.count * 10 + ctx->pki->crls.count;
}

TEST(VrfCtx, CreateAndEntryChecks) {
    const struct {
        bool nullOut, nullParams;
        uint64_t size;
        uint32_t expect;
    } rows[] = {{false, false, 72, DORVEX_OK},
                {true, false, 72, DORVEX_ERR_PARAM},
                {false, true, 72, DORVEX_ERR_PARAM},
                {false, false, 64, DORVEX_ERR_CTX_SIZE},
                {false, false, 384, DORVEX_ERR_CTX_SIZE}};
    for (const auto &r : rows) {
        DorvexCtxCreateParams params{};
        params.size = r.size;
        DorvexVrfCtx stale{};
        DorvexVrfCtx *ctx = &stale;  // a failure must not leave this behind
        ASSERT_EQ(
            DorvexVerifyCreateCtx(r.nullOut ? nullptr : &ctx, r.nullParams ? nullptr : &params),
            r.expect);
        EXPECT_TRUE(r.nullOut || (ctx == nullptr) == (r.expect != DORVEX_OK));
        if (r.expect == DORVEX_OK) {
            CtxPtr owned(ctx);
            EXPECT_EQ(ctx->size, 384u);
            EXPECT_EQ(Counts(ctx) + ctx->rawBuffers.count + ctx->processes.count, 0);
        }
    }
    EXPECT_EQ(DorvexVrfCtxFree(nullptr), DORVEX_ERR_PARAM);
    // Entry points refuse a context whose size field is not this build's.
    CtxPtr ctx = NewCtx();
    ctx->size = 383;
    EXPECT_EQ(DorvexVerifyAddCert(ctx.get(), Pki().root.cert.Der().data(), 40),
              DORVEX_ERR_CTX_SIZE);
    EXPECT_EQ(DorvexVerifyAddCrlFile(ctx.get(), "x"), DORVEX_ERR_CTX_SIZE);
    ctx->size = DORVEX_VRF_CTX_SIZE;
}

uint32_t CrlDecoderCode(const Bytes &garbage) {
    DorvexX509Crl *crl = nullptr;
    uint32_t used = 0;
    return DorvexX509DecodeCrl(garbage.data(), garbage.size(), &crl, &used);
}

TEST(Intake, CertificatesAndCrls) {
    const auto &p = Pki();
    // Fewer than 33 trailing bytes that decode as nothing are ignored.
    const Bytes root = p.root.cert.Der(), garbage33(33, 0xA5);
    Bytes rootAnd32 = root, rootAnd33 = root;
    rootAnd32.insert(rootAnd32.end(), 32, 0xA5);
    rootAnd33.insert(rootAnd33.end(), garbage33.begin(), garbage33.end());
    std::string damaged = CertPem(p.ca), unterminated = CertPem(p.ca);
    damaged[40] = '*';  // inside the base64 body
    unterminated.resize(unterminated.find("-----END"));
    const Bytes mixedPem = Text(tp::PemBundle({{"CERTIFICATE", p.ca.cert.Der()},
                                               {"PUBLIC KEY", p.ca.key.PublicKeyDer()},
                                               {"X509 CRL", p.caCrl}}));
    std::string tenDamaged;
    for (int i = 0; i < 10; ++i) {
        tenDamaged += damaged;
    }
    const struct {
        const char *name;
        bool crlIntake;  // DorvexVerifyAddCrl, else DorvexVerifyAddCert
        Bytes input;
        uint32_t expect;
        int32_t counts;             // certificates * 10 + CRLs
        const char *log = nullptr;  // a record of InternalDecodePemCertCrl holding this
    } rows[] = {
        {"root DER", false, root, DORVEX_OK, 10},
        {"37 bytes", false, Bytes(root.begin(), root.begin() + 37), DORVEX_ERR_INPUT_FORMAT, 0},
        {"DER + 32 bytes garbage", false, rootAnd32, DORVEX_OK, 10},
        {"DER + 33 bytes garbage", false, rootAnd33, CrlDecoderCode(garbage33), 0},
        {"DER: CRL, cert, cert", false, tp::ConcatDer({p.rootCrl, root, p.ca.cert.Der()}),
         DORVEX_OK, 20},
        {"DER: CRL only", false, p.rootCrl, DORVEX_FAIL, 0},
        {"PEM: cert, public key, CRL", false, mixedPem, DORVEX_OK, 10},
        {"PEM: damaged only cert", false, Text(damaged), DORVEX_FAIL, 0, "Invalid PEM block"},
        {"PEM: ten damaged, four reported", false, Text(tenDamaged + CertPem(p.root)), DORVEX_OK,
         10, "6 more invalid PEM blocks skipped."},
        {"PEM: no end marker", false, Text(CertPem(p.root) + unterminated), DORVEX_ERR_INPUT_FORMAT,
         0},
        {"text before the header is DER", false, Text("\n" + CertPem(p.root)),
         CrlDecoderCode(Text("\n" + CertPem(p.root))), 0},
        {"CRL alone", true, p.caCrl, DORVEX_OK, 1},
        {"CRL with CA", true, tp::ConcatDer({p.ca.cert.Der(), p.caCrl}), DORVEX_OK, 11},
        {"CRL with self-signed root: not stored", true, tp::ConcatDer({p.rootCrl, root}), DORVEX_OK,
         1},
        {"two CRLs, same twice", true, tp::ConcatDer({p.rootCrl, p.caCrl, p.rootCrl}), DORVEX_OK,
         2},
        {"CRL: certificate only", true, p.ca.cert.Der(), DORVEX_ERR_CRL_DECODE, 0},
    };
    for (const auto &r : rows) {
        CtxPtr ctx = NewCtx();
        vt_test::ClearSyslog();
        EXPECT_EQ(r.crlIntake ? DorvexVerifyAddCrl(ctx.get(), r.input.data(), r.input.size())
                              : DorvexVerifyAddCert(ctx.get(), r.input.data(), r.input.size()),
                  r.expect)
            << r.name;
        EXPECT_EQ(Counts(ctx.get()), r.counts) << r.name;
        EXPECT_TRUE(r.log == nullptr || Logged("InternalDecodePemCertCrl", r.log)) << r.name;
    }
}

TEST(Intake, Files) {
    char templ[] = "/tmp/intake-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    const std::filesystem::path dir = templ;
    const std::string pem = CertPem(Pki().root);
    // PEM text ignores what follows its last block, so padding sets the size.
    tp::WriteFile(dir / "max", pem + std::string(2000000 - pem.size(), '\n'));
    tp::WriteFile(dir / "over", pem + std::string(2000001 - pem.size(), '\n'));
    tp::WriteFile(dir / "empty", std::string());
    // CRL files may be larger; one byte over their limit, sparse on disk.
    tp::WriteFile(dir / "crl-over", std::string());
    std::filesystem::resize_file(dir / "crl-over", DORVEX_MAX_CRL_FILE_SIZE + 1ull);
    tp::WriteFile(dir / "crls.der",
                  tp::ConcatDer({Pki().rootCrl, Pki().ca.cert.Der(), Pki().caCrl}));
    const struct {
        const char *file;
        bool crl;
        uint32_t expect;
        int32_t counts;
    } rows[] = {
        {"max", false, DORVEX_OK, 10},
        {"over", false, DORVEX_ERR_FILE_TOO_LARGE, 0},
        {"empty", false, DORVEX_ERR_FILE_EMPTY, 0},
        {"missing", false, DORVEX_ERR_FILE_OPEN, 0},
        {"crls.der", true, DORVEX_OK, 12},
        {"over", true, DORVEX_ERR_CRL_DECODE, 0},  // within the CRL file limit
        {"crl-over", true, DORVEX_ERR_FILE_TOO_LARGE, 0},
    };
    for (const auto &r : rows) {
        CtxPtr ctx = NewCtx();
        const std::string path = (dir / r.file).string();
        EXPECT_EQ(r.crl ? DorvexVerifyAddCrlFile(ctx.get(), path.c_str())
                        : DorvexVerifyAddCertFile(ctx.get(), path.c_str()),
                  r.expect)
            << r.file << r.crl;
        EXPECT_EQ(Counts(ctx.get()), r.counts) << r.file << r.crl;
    }
    std::filesystem::remove_all(dir);
}

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

// Garbage and unreadable files are the crl_info tool tests' rows.
TEST(CrlInfo, RefusesWhatItCannotReport) {
    std::vector<Bytes> many;
    for (int day = 10; day < 27; ++day) {
        many.push_back(RootCrl("2407" + std::to_string(day) + "000000Z"));
    }
    const struct {
        Bytes input;
        uint32_t expect;
    } rows[] = {
        // The signer is in the store already, yet the file must carry its CAs.
        {RootCrl(kT0), DORVEX_ERR_CRL_DECODE},
        {CrlFile(many), DORVEX_ERR_CRL_TOO_MANY},
    };
    for (const auto &r : rows) {
        CtxPtr ctx = TrustingCtx();
        DorvexCrlInfoList stale{};
        DorvexCrlInfoList *list = &stale;
        EXPECT_EQ(DorvexDecodeCrl(ctx.get(), r.input.data(), r.input.size(), &list), r.expect);
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
        {"newer by one, older by another", rootNewer, caNewer, DORVEX_OK, 3},
        {"more CRLs, same times", base, rootOnly, DORVEX_OK, 1},
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
