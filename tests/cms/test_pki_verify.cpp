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
        {"ECDSA P-256 leaf under the RSA CA",
         {.leaf = [](CertSpec &s) { s.subjectKey = testpki::LoadTestKey("ec-p256"); }},
         0},
        {"P-384 CA: leaf and CRL signed by ECDSA",
         {.ca = [](CertSpec &s) { s.subjectKey = testpki::LoadTestKey("ec-p384"); },
          .caCrlPlan = [](testpki::CrlSpec &c) { c.digest = testpki::Digest::Sha384; }},
         0},
        {"P-384 CA's ECDSA CRL lists the leaf",
         {.ca = [](CertSpec &s) { s.subjectKey = testpki::LoadTestKey("ec-p384"); },
          .caRevoked = Revokes(0x10, -1)},
         DORVEX_ERR_CERT_REVOKED},
        {"RSASSA-PSS: CA (SHA-512), leaf and CA's CRL",
         {.ca = [](CertSpec &s) { s.pss = true, s.digest = testpki::Digest::Sha512; },
          .leaf = [](CertSpec &s) { s.pss = true; },
          .caCrlPlan = [](testpki::CrlSpec &c) { c.pss = true; }},
         0},
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
// with a CRL; and a loop: A issued by B and B by A. Each certificate is
// judged once, so the work grows with the length, not with its powers.
TEST(PkiVerify, PathLengthAndLoops) {
    for (int length : {9, 11, 12}) {
        Store store;
        Credential issuer = StandardRoot();
        DorvexX509Cert *last = store.Add(issuer);
        for (int i = 1; i < length; ++i) {
            store.AddCrl(Crl(issuer));
            issuer = testpki::IssueCredential(i == length - 1 ? LeafSpec("Leaf", issuer)
                                                              : CaSpec(std::to_string(i), issuer));
            last = store.Add(issuer);
        }
        EXPECT_EQ(store.Verify(last), length <= 11 ? 0u : DORVEX_ERR_PATH_TOO_DEEP) << length;
        EXPECT_LE(store.ctx.pki->work, static_cast<uint32_t>(4 * length)) << length;
        // Asked again, the verdict is remembered: one look-up.
        EXPECT_EQ(store.Verify(last), length <= 11 ? 0u : DORVEX_ERR_PATH_TOO_DEEP) << length;
        EXPECT_EQ(store.ctx.pki->work, 1u) << length;
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
    EXPECT_EQ(store.Verify(leaf), DORVEX_ERR_NO_ROOT);
}

// A chain of depth 8 whose certificates all name Root's CRL authority CRLA,
// which signs one indirect CRL for every CA: CRLA's own path is judged once,
// so the work stays linear in the depth (it used to grow exponentially).
TEST(PkiVerify, DeepChainOfIndirectCrls) {
    Store store;
    const Credential &root = StandardRoot();
    store.Add(root);
    CertSpec crlaPlan = CaSpec("CRLA", root, "tsa-2048");
    crlaPlan.serial = {0x30};
    crlaPlan.basicConstraints.reset();
    crlaPlan.keyUsage = testpki::KeyUsage::Of(testpki::ku::kCrlSign);
    const Credential crla = testpki::IssueCredential(crlaPlan);
    store.Add(crla);
    store.AddCrl(Crl(root));
    const testpki::RawExtension point = {"crlDistributionPoints", false,
                                         testpki::CrlIssuerPoint(testpki::SubjectDer(crla.cert))};
    Credential issuer = root;
    DorvexX509Cert *last = nullptr;
    for (int i = 1; i <= 8; ++i) {
        CertSpec plan =
            i == 8 ? LeafSpec("Leaf", issuer) : CaSpec("CA" + std::to_string(i), issuer);
        plan.serial = {static_cast<uint8_t>(0x40 + i)};
        if (i > 1) {
            plan.extraExtensions = {point};
        }
        issuer = testpki::IssueCredential(plan);
        last = store.Add(issuer);
    }
    store.AddCrl(Crl(crla, {}, testpki::Utc("491231235959Z"), true));
    EXPECT_EQ(store.Verify(last), 0u);
    EXPECT_LE(store.ctx.pki->work, 40u);
}

// Two CA certificates of one name and key: the first added that is trusted
// issues; when it is revoked, the other one still does.
TEST(PkiVerify, EveryIssuerIsTried) {
    for (bool firstRevoked : {false, true}) {
        Store store;
        CertSpec plan = CaSpec("CA", StandardRoot());
        const Credential ca = testpki::IssueCredential(plan);
        plan.serial = {0x21};  // same name and key, another record
        const Credential twin = testpki::IssueCredential(plan);
        store.Add(StandardRoot());
        DorvexX509Cert *caCert = store.Add(ca);
        DorvexX509Cert *twinCert = store.Add(twin);
        DorvexX509Cert *leaf = store.Add(testpki::IssueCredential(LeafSpec("Leaf", ca)));
        store.AddCrl(Crl(StandardRoot(), firstRevoked ? Revokes(0x20, -1) : Entries{}));
        store.AddCrl(Crl(ca));
        EXPECT_EQ(store.Verify(leaf), 0u);
        EXPECT_EQ(leaf->issuerCert, firstRevoked ? twinCert : caCert) << firstRevoked;
    }
}

// The CA's CRL comes from CA itself (direct), from Root's CRL authority
// "CRLA" (indirect), or, after CA was re-keyed under the same name, from the
// new key. An indirect CRL counts only for a certificate whose
// cRLDistributionPoints name its issuer; a direct one only when signed with
// the key that signed the certificate.
TEST(PkiVerify, DirectIndirectAndReKeyedCrls) {
    enum class Source { Direct, Indirect, NewKey };
    const struct {
        const char *name;
        Source source;
        bool pointsAtCrla;    // the leaf names CRLA as its CRL issuer
        Entries crlaRevoked;  // entries of CRLA's CRL, for certificates of CA
        Entries rootRevoked;  // Root's CRL
        bool leafOfNewKey;    // the leaf was signed by the new CA key
        uint32_t expected;
    } rows[] = {
        {"direct", Source::Direct, false, {}, {}, false, 0},
        {"direct, CA revoked",
         Source::Direct,
         false,
         {},
         Revokes(0x20, -1),
         false,
         DORVEX_ERR_CERT_REVOKED},
        {"indirect, not named by the leaf",
         Source::Indirect,
         false,
         {},
         {},
         false,
         DORVEX_ERR_NO_CRL},
        {"indirect, named by the leaf", Source::Indirect, true, {}, {}, false, 0},
        {"indirect, listing the leaf for CA",
         Source::Indirect,
         true,
         Revokes(0x10, -1),
         {},
         false,
         DORVEX_ERR_CERT_REVOKED},
        {"indirect, listing serial 0x10 of CRLA's own",
         Source::Indirect,
         true,
         Revokes(0x10, -1),
         {},
         false,
         0},
        {"indirect, CA revoked",
         Source::Indirect,
         true,
         {},
         Revokes(0x20, -1),
         false,
         DORVEX_ERR_CERT_REVOKED},
        {"re-keyed: leaf of the revoked old key",
         Source::NewKey,
         false,
         {},
         Revokes(0x20, -1),
         false,
         DORVEX_ERR_CERT_REVOKED},
        {"re-keyed: leaf of the new key", Source::NewKey, false, {}, Revokes(0x20, -1), true, 0},
        {"re-keyed: new key's CRL for the old key's leaf",
         Source::NewKey,
         false,
         {},
         {},
         false,
         DORVEX_ERR_NO_CRL},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Store store;
        const Credential &root = StandardRoot();
        store.Add(root);
        const Credential ca = testpki::IssueCredential(CaSpec("CA", root));
        store.Add(ca);
        CertSpec newPlan = CaSpec("CA", root, "other-2048");
        newPlan.serial = {0x21};
        const Credential newCa = testpki::IssueCredential(newPlan);
        CertSpec crlaPlan = CaSpec("CRLA", root, "tsa-2048");
        crlaPlan.serial = {0x30};
        crlaPlan.basicConstraints.reset();
        crlaPlan.keyUsage = testpki::KeyUsage::Of(testpki::ku::kCrlSign);
        const Credential crla = testpki::IssueCredential(crlaPlan);
        CertSpec leafPlan = LeafSpec("Leaf", row.leafOfNewKey ? newCa : ca);
        if (row.pointsAtCrla) {
            leafPlan.extraExtensions = {{"crlDistributionPoints", false,
                                         testpki::CrlIssuerPoint(testpki::SubjectDer(crla.cert))}};
        }
        DorvexX509Cert *leaf = store.Add(testpki::IssueCredential(leafPlan));
        store.AddCrl(Crl(root, row.rootRevoked));
        if (row.source == Source::Direct) {
            store.AddCrl(Crl(ca));
        } else if (row.source == Source::NewKey) {
            store.Add(newCa);
            store.AddCrl(Crl(newCa));
        } else {
            store.Add(crla);
            Entries entries = row.crlaRevoked;
            // Entries are CRLA's own unless certificateIssuer names CA.
            if (!entries.empty() && std::string(row.name).find("for CA") != std::string::npos) {
                entries[0].certificateIssuer = testpki::SubjectDer(ca.cert);
            }
            store.AddCrl(Crl(crla, entries, testpki::Utc("491231235959Z"), true));
        }
        EXPECT_EQ(store.Verify(leaf), row.expected);
    }
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
