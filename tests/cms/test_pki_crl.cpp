// CRL choice and the revocation test, and a cross-check of plain verdicts
// against OpenSSL's own path validation on the same certificates and CRLs.
#include <openssl/x509_vfy.h>

#include <memory>

#include "tests/cms/test_pki_support.h"

namespace {

using namespace pki_test;

TEST(PkiCrl, RevocationRules) {
    const uint32_t kRevoked = DORVEX_ERR_CERT_REVOKED;
    const struct {
        const char *name;
        bool ca;  // the CA is examined (listed by Root's CRL) instead of the leaf
        uint32_t strict;
        Entries entries;
        uint32_t expected;
    } rows[] = {
        {"end entity, keyCompromise a day later", false, 0, Revokes(0x10, 1), 0},
        {"same, strict", false, 1, Revokes(0x10, 1), kRevoked},
        {"end entity, dated at verifyTime", false, 0, Revokes(0x10, 0), kRevoked},
        {"end entity, no reason, a day earlier", false, 0, Revokes(0x10, -1, {}), kRevoked},
        {"strict, superseded a day later", false, 1, Revokes(0x10, 1, kSuperseded), 0},
        {"strict, affiliationChanged a day earlier", false, 1,
         Revokes(0x10, -1, kAffiliationChanged), kRevoked},
        {"CA, superseded a day later", true, 0, Revokes(0x20, 1, kSuperseded), 0},
        {"CA, superseded a day earlier", true, 0, Revokes(0x20, -1, kSuperseded), kRevoked},
        {"CA, cessationOfOperation at verifyTime", true, 0, Revokes(0x20, 0, kCessation), kRevoked},
        {"CA, no reason, a day later", true, 0, Revokes(0x20, 1, {}), kRevoked},
        {"CA, keyCompromise a day later", true, 0, Revokes(0x20, 1), kRevoked},
        {"listed twice, later date first",
         false,
         0,
         {Revokes(0x10, 1)[0], Revokes(0x10, -1)[0]},
         kRevoked},
        {"other serial only", false, 1, Revokes(0x11, -1, {}), 0},
    };
    for (const auto &row : rows) {
        Store store;
        ChainPlan plan;
        (row.ca ? plan.rootRevoked : plan.caRevoked) = row.entries;
        Chain c = BuildChain(store, plan);
        vt_test::ClearSyslog();
        EXPECT_EQ(store.Verify(row.ca ? c.caCert : c.leafCert, row.strict), row.expected)
            << row.name;
        EXPECT_EQ(LogCount("InternalCrlRevokes", "The certificate was revoked."),
                  row.expected == 0 ? 0 : 1)
            << row.name;
    }
}

// A CRL signer named "CA" with a key of its own, not a CA: a CRL it signs
// is not signed with the key that issued the leaf.
Credential OtherKeySigner(Store &store, const Chain &c) {
    CertSpec s = CaSpec("CA", c.root, "other-2048");
    s.serial = {0x40};
    s.basicConstraints.reset();
    s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kCrlSign);
    const Credential signer = testpki::IssueCredential(s);
    store.Add(signer);
    return signer;
}

// A CA named "CA" under another root, both in the store.
Credential ForeignCa(Store &store) {
    const Credential root2 = testpki::IssueCredential(RootSpec("Root2", "root2-4096"));
    store.Add(root2);
    const Credential ca = testpki::IssueCredential(CaSpec("CA", root2, "other-2048"));
    store.Add(ca);
    return ca;
}

// Every CRL in scope is read: one revocation is enough, and a current CRL
// must be among them.
TEST(PkiCrl, ChoiceTable) {
    const struct {
        const char *name;
        bool caCrl;  // CA's current CRL, listing nothing, is in the store first
        void (*extra)(Store &, const Chain &);
        uint32_t expected;
        int expiredWarnings;
    } rows[] = {
        {"expired CRL listing the leaf beats a current one", true,
         [](Store &s, const Chain &c) { s.AddCrl(Crl(c.ca, Revokes(0x10, -1), At(kT - 1))); },
         DORVEX_ERR_CERT_REVOKED, 0},
        {"only CRL expired, leaf not listed", false,
         [](Store &s, const Chain &c) { s.AddCrl(Crl(c.ca, {}, At(kT - 1))); }, DORVEX_ERR_NO_CRL,
         1},
        {"nextUpdate unreadable: not current, but its revocation counts", false,
         [](Store &s, const Chain &c) {
             s.AddCrl(Crl(c.ca, Revokes(0x10, -1), testpki::Gen("20491231235959.5Z")));
         },
         DORVEX_ERR_CERT_REVOKED, 0},
        {"signer under another root ignored", true,
         [](Store &s, const Chain &) { s.AddCrl(Crl(ForeignCa(s), Revokes(0x10, -1))); }, 0, 0},
        {"signer under another root only", false,
         [](Store &s, const Chain &) { s.AddCrl(Crl(ForeignCa(s), Revokes(0x10, -1))); },
         DORVEX_ERR_NO_CRL, 0},
        {"another key of the CA's name ignored", true,
         [](Store &s, const Chain &c) { s.AddCrl(Crl(OtherKeySigner(s, c), Revokes(0x10, -1))); },
         0, 0},
        {"another key of the CA's name only", false,
         [](Store &s, const Chain &c) { s.AddCrl(Crl(OtherKeySigner(s, c))); }, DORVEX_ERR_NO_CRL,
         0},
    };
    for (const auto &row : rows) {
        Store store;
        Chain c = BuildChain(store, {.caCrl = row.caCrl});
        row.extra(store, c);
        vt_test::ClearSyslog();
        EXPECT_EQ(store.Verify(c.leafCert), row.expected) << row.name;
        EXPECT_EQ(LogCount("InternalCrlCurrent",
                           "Found an expired CRL, it most likely cause NO CRL error."),
                  row.expiredWarnings)
            << row.name;
    }
}

// Certificates and CRLs beside the standard chain.
struct Extra {
    std::vector<Credential> certs;
    std::vector<Bytes> crls;
};

// X509_verify_cert with Root as the only trust anchor, the other
// certificates as untrusted and every CRL, at kT, as the differential
// target runs it (fuzz/fuzz_diff_path.cpp): CRLs handed to the context,
// where OpenSSL also finds indirect ones, with extended CRL support.
bool OpensslAccepts(const Chain &c, const Extra &extra) {
    std::unique_ptr<X509_STORE, testpki::Deleter<X509_STORE_free>> store(X509_STORE_new());
    EXPECT_EQ(X509_STORE_add_cert(store.get(), c.root.cert.get()), 1);
    // The stacks borrow their items; freeing them leaves the items alone.
    auto freeCerts = [](STACK_OF(X509) * stack) { sk_X509_free(stack); };
    std::unique_ptr<STACK_OF(X509), decltype(freeCerts)> chain(sk_X509_new_null(), freeCerts);
    sk_X509_push(chain.get(), c.ca.cert.get());
    for (const Credential &cert : extra.certs) {
        sk_X509_push(chain.get(), cert.cert.get());
    }
    auto freeCrls = [](STACK_OF(X509_CRL) * stack) { sk_X509_CRL_pop_free(stack, X509_CRL_free); };
    std::unique_ptr<STACK_OF(X509_CRL), decltype(freeCrls)> crls(sk_X509_CRL_new_null(), freeCrls);
    std::vector<const Bytes *> ders = {&c.rootCrl, &c.caCrl};
    for (const Bytes &der : extra.crls) {
        ders.push_back(&der);
    }
    for (const Bytes *der : ders) {
        const uint8_t *p = der->data();
        X509_CRL *crl =
            der->empty() ? nullptr : d2i_X509_CRL(nullptr, &p, static_cast<long>(der->size()));
        EXPECT_TRUE(der->empty() || (crl != nullptr && sk_X509_CRL_push(crls.get(), crl) > 0));
    }
    std::unique_ptr<X509_STORE_CTX, testpki::Deleter<X509_STORE_CTX_free>> ctx(
        X509_STORE_CTX_new());
    EXPECT_EQ(X509_STORE_CTX_init(ctx.get(), store.get(), c.leaf.cert.get(), chain.get()), 1);
    X509_STORE_CTX_set0_crls(ctx.get(), crls.get());
    X509_VERIFY_PARAM *param = X509_STORE_CTX_get0_param(ctx.get());
    X509_VERIFY_PARAM_set_flags(param, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL |
                                           X509_V_FLAG_EXTENDED_CRL_SUPPORT);
    X509_VERIFY_PARAM_set_time(param, static_cast<time_t>(kT));
    return X509_verify_cert(ctx.get()) == 1;
}

// CA re-keyed under its name (serial 0x21), with a CRL of the new key only;
// key identifiers, by which OpenSSL tells the two keys apart.
Extra NewKeyCrl() {
    CertSpec s = CaSpec("CA", StandardRoot(), "other-2048");
    s.serial = {0x21};
    s.subjectKeyId = true;
    testpki::CrlSpec crl;
    crl.issuer = testpki::IssueCredential(s);
    const Bytes keyId = testpki::der::Seq({testpki::der::Tlv(0x80, crl.issuer.key.KeyId())});
    crl.extraExtensions = {{"authorityKeyIdentifier", false, keyId}};
    return {{crl.issuer}, {testpki::MakeCrl(crl)}};
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

// CRLA's indirect CRL listing another certificate of CA, then the leaf,
// whose entry takes CA as issuer from the one before; beside CA's own CRL.
Extra IndirectListing(const Chain &c) {
    Entries entries = Revokes(0x77, -1);
    entries[0].certificateIssuer = testpki::SubjectDer(c.ca.cert);
    entries.push_back(Revokes(0x10, -1)[0]);
    return {{Crla()}, {Crl(Crla(), entries, testpki::Utc("491231235959Z"), true)}};
}

// Where this system departs from OpenSSL on purpose, the rows assert its own
// rule and that OpenSSL answers otherwise; each is a row of the intended
// differences of the differential target, which found most of them.
TEST(PkiCrl, VerdictsAgainstOpenssl) {
    static const Credential otherRoot = testpki::IssueCredential(RootSpec("Root2", "root2-4096"));
    const struct {
        const char *name;
        ChainPlan plan;
        uint32_t expected;
        bool opensslAgrees;
        Extra (*extra)(const Chain &) = nullptr;
    } rows[] = {
        {"valid chain", {}, 0, true},
        {"expired leaf",
         {.leaf = [](CertSpec &s) { s.notAfter = At(kT - 1); }},
         DORVEX_ERR_CERT_EXPIRED,
         true},
        {"leaf not yet valid",
         {.leaf = [](CertSpec &s) { s.notBefore = At(kT + 1); }},
         DORVEX_ERR_CERT_NOT_YET_VALID,
         true},
        {"leaf revoked before the time",
         {.caRevoked = Revokes(0x10, -1)},
         DORVEX_ERR_CERT_REVOKED,
         true},
        {"CA revoked before the time",
         {.rootRevoked = Revokes(0x20, -1)},
         DORVEX_ERR_CERT_REVOKED,
         true},
        {"missing CRL", {.caCrl = false}, DORVEX_ERR_NO_CRL, true},
        {"wrong root", {.ca = [](CertSpec &s) { s.issuer = otherRoot; }}, DORVEX_ERR_NO_ROOT, true},
        {"indirect CRL of CRLA speaks for the leaf",
         {.leaf = NamesCrla, .caCrl = false},
         0,
         true,
         [](const Chain &) -> Extra {
             return {{Crla()}, {Crl(Crla(), {}, testpki::Utc("491231235959Z"), true)}};
         }},
        {"differs: leaf revoked after the time", {.caRevoked = Revokes(0x10, 1)}, 0, false},
        {"differs: CA superseded after the time",
         {.rootRevoked = Revokes(0x20, 1, kSuperseded)},
         0,
         false},
        {"differs: root listed in its own CRL", {.rootRevoked = Revokes(0x01, -1)}, 0, false},
        {"differs: CA's CRL issued after the time",
         {.caCrlPlan = [](testpki::CrlSpec &s) { s.thisUpdate = At(kT + kDay); }},
         0,
         false},
        {"differs: leaf's notAfter at the time",
         {.leaf = [](CertSpec &s) { s.notAfter = At(kT); }},
         0,
         false},
        {"differs: CRL's nextUpdate at the time",
         {.caCrlPlan = [](testpki::CrlSpec &s) { s.nextUpdate = At(kT); }},
         0,
         false},
        {"differs: leaf entry with reason removeFromCRL",
         {.caRevoked = Revokes(0x10, -1, 8)},
         DORVEX_ERR_CERT_REVOKED,
         false},
        {"differs: critical certificate policies",
         {.leaf =
              [](CertSpec &s) {
                  const Bytes anyPolicy =
                      testpki::der::Seq({testpki::der::Seq({testpki::der::Oid("2.5.29.32.0")})});
                  s.extraExtensions = {{"certificatePolicies", true, anyPolicy}};
              }},
         DORVEX_ERR_CERT_CRITICAL_EXT,
         false},
        {"differs: CA key of 1024 bits",
         {.ca = [](CertSpec &s) { s.subjectKey = testpki::Key::GenerateRsa(1024); }},
         DORVEX_ERR_NO_ROOT,
         false},
        {"differs: only a CRL of the re-keyed CA's new key",
         {.ca = [](CertSpec &s) { s.subjectKeyId = true; }, .caCrl = false},
         DORVEX_ERR_NO_CRL,
         false,
         [](const Chain &) { return NewKeyCrl(); }},
        {"differs: indirect CRL lists the leaf, CA's own does not",
         {.leaf = NamesCrla},
         DORVEX_ERR_CERT_REVOKED,
         false,
         IndirectListing},
    };
    for (const auto &row : rows) {
        Store store;
        Chain c = BuildChain(store, row.plan);
        const Extra extra = row.extra != nullptr ? row.extra(c) : Extra{};
        for (const Credential &cert : extra.certs) {
            store.Add(cert);
        }
        for (const Bytes &crl : extra.crls) {
            store.AddCrl(crl);
        }
        const uint32_t ours = store.Verify(c.leafCert);
        EXPECT_EQ(ours, row.expected) << row.name;
        EXPECT_EQ(OpensslAccepts(c, extra), (ours == 0) == row.opensslAgrees) << row.name;
    }
}

}  // namespace
