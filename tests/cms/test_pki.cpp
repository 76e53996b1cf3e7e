// The PKI store and path verification over generated hierarchies: dates,
// issuers, key usage, path length, CRL choice and the revocation rules.
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cms/dorvex.h"
#include "cms/pki/internal.h"
#include "cms/pki/pki.h"
#include "tools/testpki/testpki.h"

namespace {

using testpki::Bytes;
using testpki::CertSpec;
using testpki::Credential;
using Entries = std::vector<testpki::RevokedEntry>;

constexpr int64_t kT = 1748736000;  // 2025-06-01 00:00:00 UTC, the usual verifyTime
constexpr int64_t kDay = 86400;
constexpr int kKeyCompromise = 1, kSuperseded = 4;

testpki::Time At(int64_t seconds) {
    return testpki::TimeAt(seconds);
}

// One entry revoking `serial` (Leaf 0x10, CA 0x20) `days` after kT.
Entries Revokes(uint8_t serial, int64_t days, std::optional<int> reason = kKeyCompromise) {
    return {{{serial}, At(kT + days * kDay), reason}};
}

CertSpec RootSpec(const std::string &cn, const char *key = "root-4096") {
    CertSpec s;
    s.subjectKey = testpki::LoadTestKey(key);
    s.subject = testpki::SimpleName({{"CN", cn}});
    s.basicConstraints = testpki::BasicConstraints{};
    s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kKeyCertSign | testpki::ku::kCrlSign);
    return s;
}

CertSpec CaSpec(const std::string &cn, const Credential &issuer, const char *key = "ca-2048") {
    CertSpec s = RootSpec(cn, key);
    s.issuer = issuer;
    s.serial = {0x20};
    return s;
}

CertSpec LeafSpec(const std::string &cn, const Credential &issuer) {
    CertSpec s;
    s.subjectKey = testpki::LoadTestKey("leaf-2048");
    s.subject = testpki::SimpleName({{"CN", cn}});
    s.issuer = issuer;
    s.serial = {0x10};
    s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kDigitalSignature);
    return s;
}

Bytes Crl(const Credential &issuer, Entries revoked = {},
          testpki::Time nextUpdate = testpki::Utc("491231235959Z"), bool indirect = false) {
    testpki::CrlSpec s;
    s.issuer = issuer;
    s.nextUpdate = nextUpdate;
    s.revoked = std::move(revoked);
    if (indirect) {
        s.issuingDistPoint.emplace().indirectCrl = true;
    }
    return testpki::MakeCrl(s);
}

// A verify context with a store; the test keeps a reference of its own to
// each decoded record, and the DER they point into.
class Store {
  public:
    Store() {
        ctx.size = DORVEX_VRF_CTX_SIZE;
        ctx.verifyTime = kT;
        EXPECT_EQ(DorvexPkiInit(&ctx), 0u);
    }
    ~Store() {
        DorvexPkiUninit(&ctx);
        for (auto *c : certs_) {
            EXPECT_EQ(c->refCount, 1);
            DorvexX509FreeCert(c);
        }
        for (auto *c : crls_) {
            EXPECT_EQ(c->refCount, 1);
            DorvexX509FreeCrl(c);
        }
    }
    Store(const Store &) = delete;

    DorvexX509Cert *Decode(const Bytes &der) { return Keep(der, DorvexX509DecodeCert, certs_); }
    DorvexX509Crl *DecodeCrl(const Bytes &der) { return Keep(der, DorvexX509DecodeCrl, crls_); }
    DorvexX509Cert *Add(const Credential &cred) { return Add(cred.cert.Der()); }
    DorvexX509Cert *Add(const Bytes &der) {
        DorvexX509Cert *cert = Decode(der);
        EXPECT_EQ(DorvexPkiStoreAddCert(&ctx, cert), 0u);
        return cert;
    }
    DorvexX509Crl *AddCrl(const Bytes &der) {
        DorvexX509Crl *crl = DecodeCrl(der);
        EXPECT_EQ(DorvexPkiStoreAddCrl(&ctx, crl), 0u);
        return crl;
    }

    // An outermost verification: *valid agrees, the nesting counter is at rest.
    uint32_t Verify(DorvexX509Cert *cert, uint32_t strict = 0) {
        uint32_t valid = 7;
        const uint32_t ret = DorvexPkiVerifyCert(&ctx, cert, 1, strict, &valid);
        EXPECT_EQ(valid, ret == 0 ? 1u : 0u);
        EXPECT_EQ(ctx.pathDepth, 0);
        return ret;
    }

    DorvexVrfCtx ctx{};

  private:
    template <typename T>
    T *Keep(const Bytes &der, uint32_t (*decode)(const uint8_t *, uint32_t, T **, uint32_t *),
            std::vector<T *> &kept) {
        const Bytes &bytes = der_.emplace_back(der);
        T *record = nullptr;
        uint32_t used = 0;
        EXPECT_EQ(decode(bytes.data(), bytes.size(), &record, &used), 0u);
        if (record != nullptr) {
            kept.push_back(record);
        }
        return record;
    }
    std::deque<Bytes> der_;
    std::vector<DorvexX509Cert *> certs_;
    std::vector<DorvexX509Crl *> crls_;
};

// Signed once per process: the RSA-4096 signature is the slow part.
const Credential &StandardRoot() {
    static const Credential root = testpki::IssueCredential(RootSpec("Root"));
    return root;
}

// The standard hierarchy: Root -> CA (serial 0x20) -> Leaf (serial 0x10),
// a CRL from Root and one from CA; a plan changes them before they are signed.
struct ChainPlan {
    void (*ca)(CertSpec &) = nullptr;
    void (*leaf)(CertSpec &) = nullptr;
    bool caCrl = true;
    Entries rootRevoked = {}, caRevoked = {};
    void (*caCrlPlan)(testpki::CrlSpec &) = nullptr;
};

struct Chain {
    Credential root, ca, leaf;
    DorvexX509Cert *leafCert = nullptr;
};

Chain BuildChain(Store &store, const ChainPlan &plan = {}) {
    Chain c;
    c.root = StandardRoot();
    CertSpec ca = CaSpec("CA", c.root);
    if (plan.ca != nullptr) {
        plan.ca(ca);
    }
    c.ca = testpki::IssueCredential(ca);
    CertSpec leaf = LeafSpec("Leaf", c.ca);
    if (plan.leaf != nullptr) {
        plan.leaf(leaf);
    }
    c.leaf = testpki::IssueCredential(leaf);
    store.Add(c.root);
    store.Add(c.ca);
    c.leafCert = store.Add(c.leaf);
    store.AddCrl(Crl(c.root, plan.rootRevoked));
    if (plan.caCrl) {
        testpki::CrlSpec s;
        s.issuer = c.ca;
        s.revoked = plan.caRevoked;
        if (plan.caCrlPlan != nullptr) {
            plan.caCrlPlan(s);
        }
        store.AddCrl(testpki::MakeCrl(s));
    }
    return c;
}

// Certificates and CRLs beside the standard chain.
struct Extra {
    std::vector<Credential> certs;
    std::vector<Bytes> crls;
};

// A CRL signer named "CA" with a key of its own, not a CA: a CRL it signs
// is not signed with the key that issued the leaf.
Extra OtherKeyCrl(const Chain &c) {
    CertSpec s = CaSpec("CA", c.root, "other-2048");
    s.serial = {0x40};
    s.basicConstraints.reset();
    s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kCrlSign);
    const Credential signer = testpki::IssueCredential(s);
    return {{signer}, {Crl(signer)}};
}

// A CA named "CA" under another root, both beside the chain, and its CRL.
Extra ForeignCaCrl(const Chain &) {
    const Credential root2 = testpki::IssueCredential(RootSpec("Root2", "root2-4096"));
    const Credential ca = testpki::IssueCredential(CaSpec("CA", root2, "other-2048"));
    return {{root2, ca}, {Crl(ca)}};
}

// The CRL authority "CRLA" under Root, and the leaf that names it.
const Credential &Crla() {
    static const Credential crla = [] {
        CertSpec s = CaSpec("CRLA", StandardRoot(), "tsa-2048");
        s.serial = {0x30};
        s.basicConstraints.reset();
        s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kCrlSign);
        return testpki::IssueCredential(s);
    }();
    return crla;
}
void NamesCrla(CertSpec &s) {
    s.extraExtensions = {{"crlDistributionPoints", false,
                          testpki::CrlIssuerPoint(testpki::SubjectDer(Crla().cert))}};
}
Extra CrlaCrl(Entries entries) {
    return {{Crla()}, {Crl(Crla(), std::move(entries), testpki::Utc("491231235959Z"), true)}};
}

// CRLA's indirect CRL listing another certificate of CA, then the leaf,
// whose entry takes CA as issuer from the one before; beside CA's own CRL.
Extra IndirectListing(const Chain &c) {
    Entries entries = Revokes(0x77, -1);
    entries[0].certificateIssuer = testpki::SubjectDer(c.ca.cert);
    entries.push_back(Revokes(0x10, -1)[0]);
    return CrlaCrl(entries);
}

// The leaf of the standard chain, changed one way per row. Rows marked
// "differs" depart from OpenSSL on purpose: intended differences of the
// differential target (fuzz/fuzz_diff_path.cpp).
TEST(PkiVerify, LeafPathTable) {
    const uint32_t kRevoked = DORVEX_ERR_CERT_REVOKED;
    const struct {
        const char *name;
        ChainPlan plan;
        uint32_t expected;
        Extra (*extra)(const Chain &) = nullptr;
        uint32_t strict = 0;
    } rows[] = {
        // clang-format off
        {"valid chain", {}, 0},
        {"leaf at notBefore", {.leaf = [](auto &s) { s.notBefore = At(kT); }}, 0},
        {"one second before notBefore", {.leaf = [](auto &s) { s.notBefore = At(kT + 1); }},
         DORVEX_ERR_CERT_NOT_YET_VALID},
        {"one second past notAfter", {.leaf = [](auto &s) { s.notAfter = At(kT - 1); }},
         DORVEX_ERR_CERT_EXPIRED},
        {"differs: leaf's notAfter at the time", {.leaf = [](auto &s) { s.notAfter = At(kT); }}, 0},
        {"issuer without keyCertSign",
         {.ca = [](auto &s) { s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kCrlSign); }},
         DORVEX_ERR_NO_ROOT},
        {"issuer without basic constraints", {.ca = [](auto &s) { s.basicConstraints.reset(); }},
         DORVEX_ERR_NO_ROOT},
        {"differs: CA key of 1024 bits",
         {.ca = [](auto &s) { s.subjectKey = testpki::Key::GenerateRsa(1024); }},
         DORVEX_ERR_NO_ROOT},
        {"differs: critical certificate policies", {.leaf = [](auto &s) {
             const Bytes anyPolicy = testpki::der::Seq({testpki::der::Seq({testpki::der::Oid("2.5.29.32.0")})});
             s.extraExtensions = {{"certificatePolicies", true, anyPolicy}}; }},
         DORVEX_ERR_CERT_CRITICAL_EXT},
        // Revocation: end entities by date unless strict, CAs by date only
        // when superseded; the leaf's CA is judged the same way on the path.
        {"leaf revoked at the very second", {.caRevoked = Revokes(0x10, 0)}, kRevoked},
        {"differs: leaf revoked after the time", {.caRevoked = Revokes(0x10, 1)}, 0},
        {"leaf revoked after the time, strict", {.caRevoked = Revokes(0x10, 1)}, kRevoked,
         nullptr, 1},
        {"strict, superseded a day later", {.caRevoked = Revokes(0x10, 1, kSuperseded)}, 0,
         nullptr, 1},
        {"leaf listed twice, later date first",
         {.caRevoked = {Revokes(0x10, 1)[0], Revokes(0x10, -1)[0]}}, kRevoked},
        {"differs: leaf entry with reason removeFromCRL", {.caRevoked = Revokes(0x10, -1, 8)},
         kRevoked},
        {"CA revoked before the time", {.rootRevoked = Revokes(0x20, -1)}, kRevoked},
        {"differs: CA superseded after the time", {.rootRevoked = Revokes(0x20, 1, kSuperseded)},
         0},
        {"CA superseded a day earlier", {.rootRevoked = Revokes(0x20, -1, kSuperseded)},
         kRevoked},
        {"CA, no reason, a day later", {.rootRevoked = Revokes(0x20, 1, {})}, kRevoked},
        {"differs: root listed in its own CRL", {.rootRevoked = Revokes(0x01, -1)}, 0},
        // CRL choice: every CRL in scope is read, one revocation is enough,
        // and a current CRL of the right signer must be among them.
        {"missing CRL", {.caCrl = false}, DORVEX_ERR_NO_CRL},
        {"differs: CA's CRL issued after the time",
         {.caCrlPlan = [](auto &c) { c.thisUpdate = At(kT + kDay); }}, 0},
        {"differs: CRL's nextUpdate at the time",
         {.caCrlPlan = [](auto &c) { c.nextUpdate = At(kT); }}, 0},
        {"only CRL expired", {.caCrlPlan = [](auto &c) { c.nextUpdate = At(kT - 1); }},
         DORVEX_ERR_NO_CRL},
        {"expired CRL listing the leaf beats a current one", {}, kRevoked,
         [](const Chain &c) -> Extra { return {{}, {Crl(c.ca, Revokes(0x10, -1), At(kT - 1))}}; }},
        {"nextUpdate unreadable: not current, but its revocation counts", {.caCrl = false},
         kRevoked, [](const Chain &c) -> Extra {
             return {{}, {Crl(c.ca, Revokes(0x10, -1), testpki::Gen("20491231235959.5Z"))}}; }},
        {"signer under another root only", {.caCrl = false}, DORVEX_ERR_NO_CRL,
         ForeignCaCrl},
        {"another key of the CA's name only", {.caCrl = false}, DORVEX_ERR_NO_CRL,
         OtherKeyCrl},
        {"indirect CRL of CRLA speaks for the leaf that names it",
         {.leaf = NamesCrla, .caCrl = false}, 0, [](const Chain &) { return CrlaCrl({}); }},
        {"indirect CRL of CRLA, not named by the leaf", {.caCrl = false}, DORVEX_ERR_NO_CRL,
         [](const Chain &) { return CrlaCrl({}); }},
        {"indirect CRL listing serial 0x10 of CRLA's own", {.leaf = NamesCrla, .caCrl = false}, 0,
         [](const Chain &) { return CrlaCrl(Revokes(0x10, -1)); }},
        {"differs: indirect CRL lists the leaf, CA's own does not", {.leaf = NamesCrla},
         kRevoked, IndirectListing},
        // clang-format on
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Store store;
        Chain c = BuildChain(store, row.plan);
        const Extra extra = row.extra != nullptr ? row.extra(c) : Extra{};
        for (const Credential &cert : extra.certs) {
            store.Add(cert);
        }
        for (const Bytes &crl : extra.crls) {
            store.AddCrl(crl);
        }
        EXPECT_EQ(store.Verify(c.leafCert, row.strict), row.expected);
    }
    Store store;
    DorvexX509Cert *root = store.Add(StandardRoot());
    EXPECT_EQ(store.Verify(root), 0u);  // a root alone needs no CRL
    EXPECT_EQ(root->issuerCert, root);
}

// Chains of 11 and 12 certificates, and a loop (A issued by B, B by A); each
// certificate is judged once, so the work grows with the length only.
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

// Of the certificates named like the CRL's issuer, only one with the
// signing key and cRLSign in its key usage signs it.
TEST(PkiStore, FindCrlIssuerSkipsUnfitCandidates) {
    Store store;
    const Credential &root = StandardRoot();
    CertSpec noCrlSign = CaSpec("CA", root), otherKey = CaSpec("CA", root, "other-2048");
    CertSpec noKeyUsage = CaSpec("CA", root);
    noCrlSign.keyUsage = testpki::KeyUsage::Of(testpki::ku::kKeyCertSign);
    noKeyUsage.keyUsage.reset();
    const Credential signer = testpki::IssueCredential(CaSpec("CA", root));
    DorvexX509Crl *crl = store.AddCrl(Crl(signer));
    for (const CertSpec *plan : {&noCrlSign, &otherKey, &noKeyUsage}) {
        store.Add(testpki::IssueCert(*plan).Der());
    }
    store.Add(root);
    EXPECT_EQ(DorvexPkiFindCrlIssuer(&store.ctx, crl), nullptr);
    DorvexX509Cert *expected = store.Add(signer);
    EXPECT_EQ(DorvexPkiFindCrlIssuer(&store.ctx, crl), expected);
}

}  // namespace
