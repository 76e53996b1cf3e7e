// Path verification over generated hierarchies: dates, issuers, path length,
// nesting depth, and how far the revocation walk climbs.
#include <string>

#include "cms/dorvex.h"
#include "tests/cms/test_pki_support.h"

namespace {

using namespace pki_test;
using testpki::CertSpec;

struct PathRow {
    const char *name;
    ChainPlan plan;
    int64_t verifyTime;
    uint32_t expected;
};

TEST(PkiVerify, LeafPathTable) {
    const PathRow rows[] = {
        {"valid chain", {}, kT, 0},
        {"leaf at notBefore", ChainPlan().Leaf([](CertSpec &s) { s.notBefore = At(kT); }), kT, 0},
        {"leaf at notAfter", ChainPlan().Leaf([](CertSpec &s) { s.notAfter = At(kT); }), kT, 0},
        {"one second before notBefore",
         ChainPlan().Leaf([](CertSpec &s) { s.notBefore = At(kT + 1); }), kT,
         DORVEX_ERR_CERT_NOT_YET_VALID},
        {"one second past notAfter", ChainPlan().Leaf([](CertSpec &s) { s.notAfter = At(kT - 1); }),
         kT, DORVEX_ERR_CERT_EXPIRED},
        {"verifyTime never set", {}, 0, DORVEX_ERR_CERT_NOT_YET_VALID},
        {"notAfter with fractional seconds",
         ChainPlan().Leaf([](CertSpec &s) { s.notAfter = testpki::Gen("20491231235959.5Z"); }), kT,
         DORVEX_ERR_TIME_FORMAT},
        {"issuer without keyCertSign", ChainPlan().Ca([](CertSpec &s) {
             s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kCrlSign);
         }),
         kT, DORVEX_ERR_NO_ROOT},
        {"issuer without key usage", ChainPlan().Ca([](CertSpec &s) { s.keyUsage.reset(); }), kT,
         DORVEX_ERR_NO_ROOT},
        {"issuer without basic constraints",
         ChainPlan().Ca([](CertSpec &s) { s.basicConstraints.reset(); }), kT, DORVEX_ERR_NO_ROOT},
        {"issuer with cA FALSE",
         ChainPlan().Ca([](CertSpec &s) { s.basicConstraints.emplace().ca = false; }), kT,
         DORVEX_ERR_NO_ROOT},
        {"expired CA fails as the CRL signer",
         ChainPlan().Ca([](CertSpec &s) { s.notAfter = At(kT - 1); }), kT, DORVEX_ERR_CERT_EXPIRED},
        {"no CRL of the leaf's CA", ChainPlan().Crls(true, false), kT, DORVEX_ERR_NO_CRL},
        {"no CRL of the root", ChainPlan().Crls(false, true), kT, DORVEX_ERR_NO_CRL},
    };
    for (const PathRow &row : rows) {
        Store store;
        store.ctx.verifyTime = row.verifyTime;
        Chain c = BuildChain(store, row.plan);
        EXPECT_EQ(store.Verify(c.leafCert), row.expected) << row.name;
    }
}

TEST(PkiVerify, RootAloneNeedsNoCrl) {
    Store store;
    DorvexX509Cert *root = store.Add(StandardRoot());
    EXPECT_EQ(store.Verify(root), 0u);
    EXPECT_EQ(root->issuerCert, root);
    uint32_t valid = 7;
    EXPECT_EQ(DorvexPkiVerifyCert(nullptr, root, 1, 0, &valid), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkiVerifyCert(&store.ctx, nullptr, 1, 0, &valid), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkiVerifyCert(&store.ctx, root, 1, 0, nullptr), DORVEX_ERR_PARAM);
}

// Root, then length - 1 certificates each issued by the one before, each CA
// with a CRL. Returns the last certificate.
DorvexX509Cert *BuildLongChain(Store &store, int length) {
    Credential issuer = StandardRoot();
    DorvexX509Cert *last = store.Add(issuer);
    for (int i = 1; i < length; ++i) {
        store.AddCrl(Crl(issuer));
        CertSpec plan = CaSpec("I" + std::to_string(i), issuer);
        if (i == length - 1) {
            plan = LeafSpec("Leaf", issuer);
        }
        issuer = testpki::IssueCredential(plan);
        last = store.Add(issuer);
    }
    return last;
}

TEST(PkiVerify, PathLengthLimit) {
    const struct {
        const char *name;
        int length;
        uint32_t expected;
        int tooDeepLogs;
    } rows[] = {
        {"11 certificates", 11, 0, 0},
        {"12 certificates", 12, DORVEX_ERR_NO_ROOT, 1},
    };
    for (const auto &row : rows) {
        Store store;
        DorvexX509Cert *leaf = BuildLongChain(store, row.length);
        vt_test::ClearSyslog();
        EXPECT_EQ(store.Verify(leaf), row.expected) << row.name;
        EXPECT_EQ(LogCount("InternalFindCertRoot", "find path too deep."), row.tooDeepLogs)
            << row.name;
    }
}

// A issued by B and B by A: the root search gives up instead of looping.
TEST(PkiVerify, IssuerLoopHasNoRoot) {
    Store store;
    const Credential seed = StandardRoot();  // any certificate to carry a key
    CertSpec a = CaSpec("A", seed, "ca-2048");
    a.issuerName = testpki::SimpleName({{"CN", "B"}});
    a.issuer = Credential{seed.cert, testpki::LoadTestKey("other-2048")};
    CertSpec b = CaSpec("B", seed, "other-2048");
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

// A record carries its cached issuer into every store that holds it; a store
// without that issuer gives no fresh search.
TEST(PkiVerify, CachedIssuerTravelsWithTheRecord) {
    Store first;
    Chain c = BuildChain(first);
    ASSERT_EQ(first.Verify(c.leafCert), 0u);
    ASSERT_EQ(c.leafCert->issuerCert, c.caCert);

    Store second;
    second.Add(c.root);
    CertSpec twin = CaSpec("CA", c.root);
    twin.serial = {0x21};  // same name and key as CA, another record
    second.Add(testpki::IssueCredential(twin));
    ASSERT_EQ(DorvexPkiStoreAddCert(&second.ctx, c.leafCert), 0u);
    second.AddCrl(c.rootCrl);
    second.AddCrl(c.caCrl);
    EXPECT_EQ(second.Verify(c.leafCert), DORVEX_ERR_NO_ROOT);
    DorvexPkiUninit(&second.ctx);  // before `first` checks the leaf's count
}

TEST(PkiVerify, FirstAddedIssuerIsCached) {
    for (bool secondFirst : {false, true}) {
        Store store;
        const Credential root = StandardRoot();
        CertSpec plan = CaSpec("CA", root);
        const Credential first = testpki::IssueCredential(plan);
        plan.serial = {0x21};
        const Credential second = testpki::IssueCredential(plan);
        store.Add(root);
        DorvexX509Cert *a = store.Add(secondFirst ? second : first);
        store.Add(secondFirst ? first : second);
        DorvexX509Cert *leaf = store.Add(testpki::IssueCredential(LeafSpec("Leaf", first)));
        store.AddCrl(Crl(root));
        store.AddCrl(Crl(first));
        EXPECT_EQ(store.Verify(leaf), 0u);
        EXPECT_EQ(leaf->issuerCert, a) << (secondFirst ? "second added first" : "in order");
    }
}

// The leaf's CRL comes from Root's CRL authority "CRLA" (indirect) or from
// CA (direct). An expired CRL of Root that lists nothing logs a warning each
// time a CRL is chosen for a certificate that Root issued, which shows how
// often that happens.
struct ClimbRow {
    const char *name;
    bool indirect;
    bool caRevoked;
    bool rootCrl;
    uint32_t expected;
    int expiryWarnings;  // -1: not counted
};

TEST(PkiVerify, DirectAndIndirectCrls) {
    const ClimbRow rows[] = {
        {"direct: CA checked once, as the CRL signer", false, false, true, 0, 1},
        {"indirect: the loop climbs to CA", true, false, true, 0, 2},
        {"direct: revoked CA fails as the CRL signer", false, true, true, DORVEX_ERR_CERT_REVOKED,
         -1},
        {"indirect: the climb finds CA revoked", true, true, true, DORVEX_ERR_CERT_REVOKED, -1},
        {"indirect without Root's CRL: CRLA vouches for itself", true, false, false,
         DORVEX_ERR_PATH_TOO_DEEP, -1},
    };
    for (const ClimbRow &row : rows) {
        Store store;
        ChainPlan plan;
        plan.Crls(row.rootCrl, !row.indirect);
        if (row.caRevoked) {
            plan.rootRevoked = {{{0x20}, At(kT - kDay), kKeyCompromise}};
        }
        Chain c = BuildChain(store, plan);
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
        if (row.expected == DORVEX_ERR_PATH_TOO_DEEP) {
            EXPECT_EQ(LogCount("DorvexPkiVerifyCert", "The path of certificate is too deep."), 1);
        }
    }
}

TEST(PkiVerify, NestingCounter) {
    Store store;
    Chain c = BuildChain(store);
    store.ctx.pathDepth = 11;  // stale: an outermost call starts afresh
    EXPECT_EQ(store.Verify(c.leafCert), 0u);

    uint32_t valid = 7;
    store.ctx.pathDepth = 11;
    EXPECT_EQ(DorvexPkiVerifyCert(&store.ctx, c.rootCert, 0, 0, &valid), DORVEX_ERR_PATH_TOO_DEEP);
    EXPECT_EQ(valid, 0u);
    EXPECT_EQ(store.ctx.pathDepth, 11);
    store.ctx.pathDepth = 10;
    EXPECT_EQ(DorvexPkiVerifyCert(&store.ctx, c.rootCert, 0, 0, &valid), 0u);
    EXPECT_EQ(valid, 1u);
    EXPECT_EQ(store.ctx.pathDepth, 10);
    store.ctx.pathDepth = 0;
}

}  // namespace

// The way the library uses the store: material through the context's intake,
// the signer found by issuer and serial number, then its path.
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
        EXPECT_EQ(DorvexVerifyAddCert(ctx, certs.data(), static_cast<uint32_t>(certs.size())), 0u);
        EXPECT_EQ(DorvexVerifyAddCrl(ctx, reinterpret_cast<const uint8_t *>(crls.data()),
                                     static_cast<uint32_t>(crls.size())),
                  0u);
    }
    EXPECT_EQ(ctx->pki->certs.count, 3);
    EXPECT_EQ(ctx->pki->crls.count, 2);

    ctx->verifyTime = kT;
    DorvexX509Cert *leaf = DorvexPkiFindCertByIssuerSn(ctx, &c.leafCert->certInfo.issuer,
                                                       &c.leafCert->certInfo.serialNumber);
    ASSERT_NE(leaf, nullptr);
    ASSERT_NE(leaf, c.leafCert);
    uint32_t valid = 0;
    EXPECT_EQ(DorvexPkiVerifyCert(ctx, leaf, 1, 0, &valid), 0u);
    EXPECT_EQ(valid, 1u);

    // A second CRL of CA listing the leaf outranks the first one.
    testpki::CrlSpec later;
    later.issuer = c.ca;
    later.crlNumber = Bytes{0x02};
    later.revoked = {{{0x10}, At(kT - kDay), kKeyCompromise}};
    const Bytes revoking = testpki::MakeCrl(later);
    EXPECT_EQ(DorvexVerifyAddCrl(ctx, revoking.data(), static_cast<uint32_t>(revoking.size())), 0u);
    EXPECT_EQ(DorvexPkiVerifyCert(ctx, leaf, 1, 0, &valid), DORVEX_ERR_CERT_REVOKED);
    EXPECT_EQ(valid, 0u);
    EXPECT_EQ(DorvexVrfCtxFree(ctx), 0u);
}
