// Shared by the PKI store and path tests: a verify context with a store,
// certificates and CRLs made by the test-PKI generator, and log look-ups.
#ifndef TESTS_CMS_TEST_PKI_SUPPORT_H
#define TESTS_CMS_TEST_PKI_SUPPORT_H

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "cms/pki/pki.h"
#include "tests/support/syslog_capture.h"
#include "tools/testpki/testpki.h"

namespace pki_test {

using testpki::Bytes;
using testpki::Credential;

// The moment most cases are judged at, and a day in seconds.
constexpr int64_t kT = 1748736000;  // 2025-06-01 00:00:00 UTC
constexpr int64_t kDay = 86400;
// CRLReason keyCompromise: revokes CAs whatever the date.
constexpr int kKeyCompromise = 1;

inline testpki::Time At(int64_t seconds) {
    return testpki::TimeAt(seconds);
}

inline testpki::CertSpec RootSpec(const std::string &cn, const char *key = "root-4096") {
    testpki::CertSpec s;
    s.subjectKey = testpki::LoadTestKey(key);
    s.subject = testpki::SimpleName({{"CN", cn}});
    s.basicConstraints = testpki::BasicConstraints{};
    s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kKeyCertSign | testpki::ku::kCrlSign);
    return s;
}

inline testpki::CertSpec CaSpec(const std::string &cn, const Credential &issuer,
                                const char *key = "ca-2048") {
    testpki::CertSpec s = RootSpec(cn, key);
    s.issuer = issuer;
    s.serial = {0x20};
    return s;
}

inline testpki::CertSpec LeafSpec(const std::string &cn, const Credential &issuer) {
    testpki::CertSpec s;
    s.subjectKey = testpki::LoadTestKey("leaf-2048");
    s.subject = testpki::SimpleName({{"CN", cn}});
    s.issuer = issuer;
    s.serial = {0x10};
    s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kDigitalSignature);
    return s;
}

inline Bytes Crl(const Credential &issuer, std::vector<testpki::RevokedEntry> revoked = {},
                 testpki::Time nextUpdate = testpki::Utc("491231235959Z"), bool indirect = false) {
    testpki::CrlSpec s;
    s.issuer = issuer;
    s.nextUpdate = nextUpdate;
    s.revoked = std::move(revoked);
    if (indirect) {
        s.issuingDistPoint.emplace();
        s.issuingDistPoint->indirectCrl = true;
    }
    return testpki::MakeCrl(s);
}

// A zeroed verify context with a store. Decoded records keep one reference
// of the test's own, so the tests can watch the store's reference counts;
// the DER they point into lives as long as the object.
class Store {
  public:
    Store() {
        ctx.size = DORVEX_VRF_CTX_SIZE;
        ctx.verifyTime = kT;
        EXPECT_EQ(DorvexPkiInit(&ctx), 0u);
    }
    ~Store() {
        DorvexPkiUninit(&ctx);
        for (DorvexX509Cert *c : certs_) {
            EXPECT_EQ(c->refCount, 1);
            DorvexX509FreeCert(c);
        }
        for (DorvexX509Crl *c : crls_) {
            EXPECT_EQ(c->refCount, 1);
            DorvexX509FreeCrl(c);
        }
    }
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    DorvexX509Cert *Decode(const Bytes &der) {
        const Bytes &kept = der_.emplace_back(der);
        DorvexX509Cert *cert = nullptr;
        uint32_t used = 0;
        EXPECT_EQ(
            DorvexX509DecodeCert(kept.data(), static_cast<uint32_t>(kept.size()), &cert, &used),
            0u);
        if (cert != nullptr) {
            certs_.push_back(cert);
        }
        return cert;
    }
    DorvexX509Crl *DecodeCrl(const Bytes &der) {
        const Bytes &kept = der_.emplace_back(der);
        DorvexX509Crl *crl = nullptr;
        uint32_t used = 0;
        EXPECT_EQ(DorvexX509DecodeCrl(kept.data(), static_cast<uint32_t>(kept.size()), &crl, &used),
                  0u);
        if (crl != nullptr) {
            crls_.push_back(crl);
        }
        return crl;
    }
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

    // An outermost verification; checks that *valid agrees with the code
    // and that the nesting counter is back at rest.
    uint32_t Verify(DorvexX509Cert *cert, uint32_t strict = 0) {
        uint32_t valid = 7;
        uint32_t ret = DorvexPkiVerifyCert(&ctx, cert, 1, strict, &valid);
        EXPECT_EQ(valid, ret == 0 ? 1u : 0u);
        EXPECT_EQ(ctx.pathDepth, 0);
        return ret;
    }

    DorvexVrfCtx ctx{};

  private:
    std::deque<Bytes> der_;
    std::vector<DorvexX509Cert *> certs_;
    std::vector<DorvexX509Crl *> crls_;
};

// The standard hierarchy: Root -> CA -> Leaf, a CRL from Root and one from
// CA; a plan changes the certificates before they are signed.
using SpecEdit = void (*)(testpki::CertSpec &);
struct ChainPlan {
    SpecEdit ca = nullptr;
    SpecEdit leaf = nullptr;
    bool rootCrl = true;
    bool caCrl = true;
    std::vector<testpki::RevokedEntry> rootRevoked;  // CA's serial is 0x20
    std::vector<testpki::RevokedEntry> caRevoked;    // Leaf's serial is 0x10

    ChainPlan &Ca(SpecEdit edit) {
        ca = edit;
        return *this;
    }
    ChainPlan &Leaf(SpecEdit edit) {
        leaf = edit;
        return *this;
    }
    ChainPlan &Crls(bool fromRoot, bool fromCa) {
        rootCrl = fromRoot;
        caCrl = fromCa;
        return *this;
    }
    ChainPlan &RootRevokes(std::vector<testpki::RevokedEntry> entries) {
        rootRevoked = std::move(entries);
        return *this;
    }
    ChainPlan &CaRevokes(std::vector<testpki::RevokedEntry> entries) {
        caRevoked = std::move(entries);
        return *this;
    }
};

struct Chain {
    Credential root, ca, leaf;
    Bytes rootCrl, caCrl;  // empty when the plan leaves them out
    DorvexX509Cert *rootCert = nullptr, *caCert = nullptr, *leafCert = nullptr;
};

// The root is signed once per test process: its RSA-4096 signature is the
// slow part, and no plan changes it.
inline const Credential &StandardRoot() {
    static const Credential root = testpki::IssueCredential(RootSpec("Root"));
    return root;
}

inline Chain BuildChain(Store &store, const ChainPlan &plan = {}) {
    Chain c;
    c.root = StandardRoot();
    testpki::CertSpec ca = CaSpec("CA", c.root);
    if (plan.ca != nullptr) {
        plan.ca(ca);
    }
    c.ca = testpki::IssueCredential(ca);
    testpki::CertSpec leaf = LeafSpec("Leaf", c.ca);
    if (plan.leaf != nullptr) {
        plan.leaf(leaf);
    }
    c.leaf = testpki::IssueCredential(leaf);
    c.rootCert = store.Add(c.root);
    c.caCert = store.Add(c.ca);
    c.leafCert = store.Add(c.leaf);
    if (plan.rootCrl) {
        c.rootCrl = Crl(c.root, plan.rootRevoked);
        store.AddCrl(c.rootCrl);
    }
    if (plan.caCrl) {
        c.caCrl = Crl(c.ca, plan.caRevoked);
        store.AddCrl(c.caCrl);
    }
    return c;
}

// Records logged as "(function):message" since the last ClearSyslog.
inline int LogCount(std::string_view function, std::string_view message) {
    const std::string needle = "(" + std::string(function) + "):" + std::string(message);
    int n = 0;
    for (const auto &text : vt_test::CapturedSyslogTexts()) {
        n += text.find(needle) != std::string::npos ? 1 : 0;
    }
    return n;
}

}  // namespace pki_test

#endif  // TESTS_CMS_TEST_PKI_SUPPORT_H
