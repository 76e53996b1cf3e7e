// Shared by the PKI store and path tests: a verify context with a store, the
// one hierarchy builder, and log look-ups.
#ifndef TESTS_CMS_TEST_PKI_SUPPORT_H
#define TESTS_CMS_TEST_PKI_SUPPORT_H

#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cms/pki/pki.h"
#include "tests/support/syslog_capture.h"
#include "tools/testpki/testpki.h"

namespace pki_test {

using testpki::Bytes;
using testpki::CertSpec;
using testpki::Credential;
using Entries = std::vector<testpki::RevokedEntry>;

constexpr int64_t kT = 1748736000;  // 2025-06-01 00:00:00 UTC, the usual verifyTime
constexpr int64_t kDay = 86400;
constexpr int kKeyCompromise = 1, kAffiliationChanged = 3, kSuperseded = 4, kCessation = 5;

inline testpki::Time At(int64_t seconds) {
    return testpki::TimeAt(seconds);
}

// One entry revoking `serial` (Leaf 0x10, CA 0x20) `days` after kT.
inline Entries Revokes(uint8_t serial, int64_t days, std::optional<int> reason = kKeyCompromise) {
    return {{{serial}, At(kT + days * kDay), reason}};
}

inline CertSpec RootSpec(const std::string &cn, const char *key = "root-4096") {
    CertSpec s;
    s.subjectKey = testpki::LoadTestKey(key);
    s.subject = testpki::SimpleName({{"CN", cn}});
    s.basicConstraints = testpki::BasicConstraints{};
    s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kKeyCertSign | testpki::ku::kCrlSign);
    return s;
}

inline CertSpec CaSpec(const std::string &cn, const Credential &issuer,
                       const char *key = "ca-2048") {
    CertSpec s = RootSpec(cn, key);
    s.issuer = issuer;
    s.serial = {0x20};
    return s;
}

inline CertSpec LeafSpec(const std::string &cn, const Credential &issuer) {
    CertSpec s;
    s.subjectKey = testpki::LoadTestKey("leaf-2048");
    s.subject = testpki::SimpleName({{"CN", cn}});
    s.issuer = issuer;
    s.serial = {0x10};
    s.keyUsage = testpki::KeyUsage::Of(testpki::ku::kDigitalSignature);
    return s;
}

inline Bytes Crl(const Credential &issuer, Entries revoked = {},
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

    // An outermost verification; checks that *valid agrees with the code
    // and that the nesting counter is back at rest.
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

// The standard hierarchy: Root -> CA (serial 0x20) -> Leaf (serial 0x10),
// a CRL from Root and one from CA; a plan changes the certificates before
// they are signed.
struct ChainPlan {
    void (*ca)(CertSpec &) = nullptr;
    void (*leaf)(CertSpec &) = nullptr;
    bool rootCrl = true, caCrl = true;
    Entries rootRevoked = {}, caRevoked = {};
    void (*caCrlPlan)(testpki::CrlSpec &) = nullptr;  // changes CA's CRL before it is signed
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
    c.rootCert = store.Add(c.root);
    c.caCert = store.Add(c.ca);
    c.leafCert = store.Add(c.leaf);
    if (plan.rootCrl) {
        store.AddCrl(c.rootCrl = Crl(c.root, plan.rootRevoked));
    }
    if (plan.caCrl) {
        testpki::CrlSpec s;
        s.issuer = c.ca;
        s.revoked = plan.caRevoked;
        if (plan.caCrlPlan != nullptr) {
            plan.caCrlPlan(s);
        }
        store.AddCrl(c.caCrl = testpki::MakeCrl(s));
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
