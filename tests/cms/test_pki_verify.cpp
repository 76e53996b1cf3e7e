// Path verification over generated hierarchies: dates, issuers, path length,
// nesting depth, and how far the revocation walk climbs.
#include <string>

#include "cms/dorvex.h"
#include "tests/cms/test_pki_support.h"

namespace {

using namespace pki_test;

TEST(PkiVerify, LeafPathTable) {
    const struct {
        const char *name;
        ChainPlan plan;
        uint32_t expected;
        int64_t verifyTime = kT;
    } rows[] = {
        {"valid chain", {}, 0},
        {"leaf at notBefore", {.leaf = [](CertSpec &s) { s.notBefore = At(kT); }}, 0},
        {"leaf at notAfter", {.leaf = [](CertSpec &s) { s.notAfter = At(kT); }}, 0},
        {"one second before notBefore",
         {.leaf = [](CertSpec &s) { s.notBefore = At(kT + 1); }},
         DORVEX_ERR_CERT_NOT_YET_VALID},
        {"one second past notAfter",
         {.leaf = [](CertSpec &s) { s.notAfter = At(kT - 1); }},
         DORVEX_ERR_CERT_EXPIRED},
        {"verifyTime never set", {}, DORVEX_ERR_CERT_NOT_YET_VALID, 0},
        {"notAfter with fractional seconds",
         {.leaf = [](CertSpec &s) { s.notAfter = testpki::Gen("20491231235959.5Z"); }},
         DORVEX_ERR_TIME_FORMAT},
        {"issuer without keyCertSign",
         {.ca = [](CertSpec &s) { s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kCrlSign); }},
         DORVEX_ERR_NO_ROOT},
        {"issuer without key usage",
         {.ca = [](CertSpec &s) { s.keyUsage.reset(); }},
         DORVEX_ERR_NO_ROOT},
        {"issuer without basic constraints",
         {.ca = [](CertSpec &s) { s.basicConstraints.reset(); }},
         DORVEX_ERR_NO_ROOT},
        {"issuer with cA FALSE",
         {.ca = [](CertSpec &s) { s.basicConstraints->ca = false; }},
         DORVEX_ERR_NO_ROOT},
        {"expired CA fails as the CRL signer",
         {.ca = [](CertSpec &s) { s.notAfter = At(kT - 1); }},
         DORVEX_ERR_CERT_EXPIRED},
        {"no CRL of the leaf's CA", {.caCrl = false}, DORVEX_ERR_NO_CRL},
        {"no CRL of the root", {.rootCrl = false}, DORVEX_ERR_NO_CRL},
    };
    for (const auto &row : rows) {
        Store store;
        store.ctx.verifyTime = row.verifyTime;
        Chain c = BuildChain(store, row.plan);
        EXPECT_EQ(store.Verify(c.leafCert), row.expected) << row.name;
    }
    Store store;
    DorvexX509Cert *root = store.Add(StandardRoot());
    EXPECT_EQ(store.Verify(root), 0u);  // a root alone needs no CRL
    EXPECT_EQ(root->issuerCert, root);
    uint32_t valid = 7;
    EXPECT_EQ(DorvexPkiVerifyCert(nullptr, root, 1, 0, &valid), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkiVerifyCert(&store.ctx, nullptr, 1, 0, &valid), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkiVerifyCert(&store.ctx, root, 1, 0, nullptr), DORVEX_ERR_PARAM);
}

// Root, then length - 1 certificates each issued by the one before, each CA
// with a CRL; and a loop: A issued by B and B by A.
TEST(PkiVerify, PathLengthAndLoops) {
    for (int length : {11, 12}) {
        Store store;
        Credential issuer = StandardRoot();
        DorvexX509Cert *last = store.Add(issuer);
        for (int i = 1; i < length; ++i) {
            store.AddCrl(Crl(issuer));
            issuer = testpki::IssueCredential(i == length - 1 ? LeafSpec("Leaf", issuer)
                                                              : CaSpec(std::to_string(i), issuer));
            last = store.Add(issuer);
        }
        vt_test::ClearSyslog();
        EXPECT_EQ(store.Verify(last), length == 11 ? 0u : DORVEX_ERR_NO_ROOT) << length;
        EXPECT_EQ(LogCount("InternalFindCertRoot", "find path too deep."), length - 11);
    }
    Store store;
    const Credential &seed = StandardRoot();  // any certificate to carry a key
    CertSpec a = CaSpec("A", seed, "ca-2048"), b = CaSpec("B", seed, "other-2048");
    a.issuerName = testpki::SimpleName({{"CN", "B"}});
    a.issuer = Credential{seed.cert, testpki::LoadTestKey("other-2048")};
    b.issuerName = testpki::SimpleName({{"CN", "A"}});
    b.issuer = Credential{seed.cert, testpki::LoadTestKey("ca-2048")};
    const Credential credA = testpki::IssueCredential(a);
    store.Add(credA);
    store.Add(testpki::IssueCredential(b));
    DorvexX509Cert *leaf = store.Add(testpki::IssueCredential(LeafSpec("Leaf", credA)));
    vt_test::ClearSyslog();
    EXPECT_EQ(store.Verify(leaf), DORVEX_ERR_NO_ROOT);
    EXPECT_EQ(LogCount("InternalFindCertRoot", "find path too deep."), 1);
}

// The first added issuer is cached, and a record carries its cached issuer
// into every store that holds it: a store without that issuer gives no
// fresh search.
TEST(PkiVerify, IssuerCache) {
    for (bool twinFirst : {false, true}) {
        Store store;
        CertSpec plan = CaSpec("CA", StandardRoot());
        const Credential ca = testpki::IssueCredential(plan);
        plan.serial = {0x21};  // same name and key, another record
        const Credential twin = testpki::IssueCredential(plan);
        store.Add(StandardRoot());
        DorvexX509Cert *firstAdded = store.Add(twinFirst ? twin : ca);
        store.Add(twinFirst ? ca : twin);
        DorvexX509Cert *leaf = store.Add(testpki::IssueCredential(LeafSpec("Leaf", ca)));
        store.AddCrl(Crl(StandardRoot()));
        store.AddCrl(Crl(ca));
        EXPECT_EQ(store.Verify(leaf), 0u);
        EXPECT_EQ(leaf->issuerCert, firstAdded) << twinFirst;
    }
    Store first;
    Chain c = BuildChain(first);
    ASSERT_EQ(first.Verify(c.leafCert), 0u);
    ASSERT_EQ(c.leafCert->issuerCert, c.caCert);
    Store second;
    second.Add(c.root);
    CertSpec twin = CaSpec("CA", c.root);
    twin.serial = {0x21};
    second.Add(testpki::IssueCredential(twin));
    ASSERT_EQ(DorvexPkiStoreAddCert(&second.ctx, c.leafCert), 0u);
    second.AddCrl(c.rootCrl);
    second.AddCrl(c.caCrl);
    EXPECT_EQ(second.Verify(c.leafCert), DORVEX_ERR_NO_ROOT);
    DorvexPkiUninit(&second.ctx);  // before `first` checks the leaf's count
}

// The leaf's CRL comes from Root's CRL authority "CRLA" (indirect) or from
// CA (direct). An expired CRL of Root that lists nothing logs a warning each
// time a CRL is chosen for a certificate that Root issued, which shows how
// often that happens.
TEST(PkiVerify, DirectAndIndirectCrls) {
    const struct {
        const char *name;
        bool indirect, caRevoked, rootCrl;
        uint32_t expected;
        int expiryWarnings;  // -1: not counted
    } rows[] = {
        {"direct: CA checked once, as the CRL signer", false, false, true, 0, 1},
        {"indirect: the loop climbs to CA", true, false, true, 0, 2},
        {"direct: revoked CA fails as the CRL signer", false, true, true, DORVEX_ERR_CERT_REVOKED,
         -1},
        {"indirect: the climb finds CA revoked", true, true, true, DORVEX_ERR_CERT_REVOKED, -1},
        {"indirect without Root's CRL: CRLA vouches for itself", true, false, false,
         DORVEX_ERR_PATH_TOO_DEEP, -1},
    };
    for (const auto &row : rows) {
        Store store;
        Chain c = BuildChain(store, {.rootCrl = row.rootCrl,
                                     .caCrl = !row.indirect,
                                     .rootRevoked = row.caRevoked ? Revokes(0x20, -1) : Entries{}});
        if (row.indirect) {
            CertSpec authority = CaSpec("CRLA", c.root, "other-2048");
            authority.serial = {0x30};  // not CA's, which Root's CRL may list
            authority.basicConstraints.reset();
            authority.keyUsage = testpki::KeyUsage::Of(testpki::ku::kCrlSign);
            const Credential crla = testpki::IssueCredential(authority);
            store.Add(crla);
            store.AddCrl(Crl(crla, {}, testpki::Utc("491231235959Z"), true));
        }
        if (row.rootCrl) {
            store.AddCrl(Crl(c.root, {}, At(kT - 1)));
        }
        vt_test::ClearSyslog();
        EXPECT_EQ(store.Verify(c.leafCert), row.expected) << row.name;
        if (row.expiryWarnings >= 0) {
            EXPECT_EQ(LogCount("InternalCrlGetScore",
                               "Found an expired CRL, it most likely cause NO CRL error."),
                      row.expiryWarnings)
                << row.name;
        }
        EXPECT_EQ(LogCount("DorvexPkiVerifyCert", "The path of certificate is too deep."),
                  row.expected == DORVEX_ERR_PATH_TOO_DEEP ? 1 : 0);
    }
}

TEST(PkiVerify, NestingCounter) {
    Store store;
    Chain c = BuildChain(store);
    store.ctx.pathDepth = 11;  // stale: an outermost call starts afresh
    EXPECT_EQ(store.Verify(c.leafCert), 0u);
    for (int32_t depth : {11, 10}) {
        uint32_t valid = 7;
        store.ctx.pathDepth = depth;
        EXPECT_EQ(DorvexPkiVerifyCert(&store.ctx, c.rootCert, 0, 0, &valid),
                  depth == 11 ? DORVEX_ERR_PATH_TOO_DEEP : 0u);
        EXPECT_EQ(valid, depth == 11 ? 0u : 1u);
        EXPECT_EQ(store.ctx.pathDepth, depth);
    }
    store.ctx.pathDepth = 0;
}

// The way the library uses the store: material through the context's intake,
// the signer found by issuer and serial number, then its path; a later CRL
// of CA listing the leaf outranks the first one.
TEST(PkiVerify, ThroughThePublicContext) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *ctx = nullptr;
    ASSERT_EQ(DorvexVerifyCreateCtx(&ctx, &params), 0u);
    Store plan;  // only to build the hierarchy; its own store is not used
    const Chain c = BuildChain(plan);
    const Bytes certs = testpki::ConcatDer({c.root.cert.Der(), c.ca.cert.Der(), c.leaf.cert.Der()});
    const std::string crls = testpki::PemBundle({{"X509 CRL", c.rootCrl}, {"X509 CRL", c.caCrl}});
    for (int round = 0; round < 2; ++round) {  // the second round adds nothing new
        EXPECT_EQ(DorvexVerifyAddCert(ctx, certs.data(), certs.size()), 0u);
        EXPECT_EQ(
            DorvexVerifyAddCrl(ctx, reinterpret_cast<const uint8_t *>(crls.data()), crls.size()),
            0u);
    }
    EXPECT_EQ(ctx->pki->certs.count * 10 + ctx->pki->crls.count, 32);
    ctx->verifyTime = kT;
    DorvexX509Cert *leaf = DorvexPkiFindCertByIssuerSn(ctx, &c.leafCert->certInfo.issuer,
                                                       &c.leafCert->certInfo.serialNumber);
    ASSERT_NE(leaf, nullptr);
    ASSERT_NE(leaf, c.leafCert);
    uint32_t valid = 0;
    EXPECT_EQ(DorvexPkiVerifyCert(ctx, leaf, 1, 0, &valid), 0u);
    EXPECT_EQ(valid, 1u);
    testpki::CrlSpec later;
    later.issuer = c.ca;
    later.crlNumber = Bytes{0x02};
    later.revoked = Revokes(0x10, -1);
    const Bytes revoking = testpki::MakeCrl(later);
    EXPECT_EQ(DorvexVerifyAddCrl(ctx, revoking.data(), revoking.size()), 0u);
    EXPECT_EQ(DorvexPkiVerifyCert(ctx, leaf, 1, 0, &valid), DORVEX_ERR_CERT_REVOKED);
    EXPECT_EQ(valid, 0u);
    EXPECT_EQ(DorvexVrfCtxFree(ctx), 0u);
}

}  // namespace
