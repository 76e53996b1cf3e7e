// RSA signature checks over keys from decoded certificates, on certificates
// made by OpenSSL through the test-PKI generator.
#include <gtest/gtest.h>
#include <openssl/core_names.h>

#include <string>

#include "cms/asn1/oid.h"
#include "cms/asn1/pubkey.h"
#include "tests/support/syslog_capture.h"
#include "tools/testpki/testpki.h"

namespace {

using testpki::Bytes;

// A decoded certificate together with the DER it points into.
struct Decoded {
    Bytes der;
    DorvexX509Cert *cert = nullptr;
    explicit Decoded(Bytes bytes) : der(std::move(bytes)) {
        uint32_t consumed = 0;
        EXPECT_EQ(
            DorvexX509DecodeCert(der.data(), static_cast<uint32_t>(der.size()), &cert, &consumed),
            0u);
    }
    ~Decoded() { DorvexX509FreeCert(cert); }
};

Bytes SelfSigned(const char *key, testpki::Digest digest, bool sameNames = true) {
    testpki::CertSpec plan;
    plan.subjectKey = testpki::LoadTestKey(key);
    plan.subject = testpki::SimpleName({{"CN", "self"}});
    if (!sameNames) {
        plan.issuerName = testpki::SimpleName({{"CN", "someone else"}});
    }
    plan.digest = digest;
    return testpki::IssueCert(plan).Der();
}

// Subject equal to issuer, but signed by another key: names alone do not make a root.
Bytes ForgedRoot() {
    testpki::CertSpec plan;
    plan.subjectKey = testpki::LoadTestKey("leaf-2048");
    plan.subject = testpki::SimpleName({{"CN", "self"}});
    testpki::CertSpec other = plan;
    other.subjectKey = testpki::LoadTestKey("other-2048");
    plan.issuer = testpki::IssueCredential(other);
    return testpki::IssueCert(plan).Der();
}

struct SelfSignedRow {
    const char *name;
    Bytes der;
    uint32_t ret;
    uint32_t result;
};

TEST(PubKey, SelfSignedTable) {
    using testpki::Digest;
    const SelfSignedRow rows[] = {
        {"4096-bit root, SHA-256", SelfSigned("root-4096", Digest::Sha256), 0, 1},
        {"2048-bit root, SHA-384", SelfSigned("ca-2048", Digest::Sha384), 0, 1},
        {"2048-bit root, SHA-512", SelfSigned("ca-2048", Digest::Sha512), 0, 1},
        {"issuer name differs", SelfSigned("ca-2048", Digest::Sha256, false), 0, 0},
        {"same names, other signer", ForgedRoot(), 0, 0},
        {"SHA-1 refused before the key", SelfSigned("ca-2048", Digest::Sha1), DORVEX_ERR_SIGN_ALG,
         0},
        {"513-byte modulus", SelfSigned("rsa-4104", Digest::Sha256), DORVEX_ERR_PARAM, 0},
    };
    for (const auto &row : rows) {
        Decoded d(row.der);
        ASSERT_NE(d.cert, nullptr) << row.name;
        uint32_t result = 7;
        EXPECT_EQ(DorvexX509IsSelfSigned(d.cert, &result), row.ret) << row.name;
        EXPECT_EQ(result, row.result) << row.name;
        EXPECT_EQ(d.cert->issuerCert, row.result == 1 ? d.cert : nullptr) << row.name;
    }
}

TEST(PubKey, SelfSignedAnswerIsCached) {
    Decoded d(SelfSigned("root-4096", testpki::Digest::Sha256));
    uint32_t result = 0;
    ASSERT_EQ(DorvexX509IsSelfSigned(d.cert, &result), 0u);
    ASSERT_EQ(result, 1u);
    // With the signature spoilt, only the cache can still answer 1.
    d.der[d.der.size() - 1] ^= 0x01;
    result = 0;
    EXPECT_EQ(DorvexX509IsSelfSigned(d.cert, &result), 0u);
    EXPECT_EQ(result, 1u);
    d.cert->issuerCert = nullptr;
    EXPECT_EQ(DorvexX509IsSelfSigned(d.cert, &result), 0u);
    EXPECT_EQ(result, 0u);
}

TEST(PubKey, OversizedModulusIsReportedInBits) {
    Decoded d(SelfSigned("rsa-4104", testpki::Digest::Sha256));
    vt_test::ClearSyslog();
    uint32_t result = 0;
    EXPECT_EQ(DorvexX509IsSelfSigned(d.cert, &result), DORVEX_ERR_PARAM);
    bool found = false;
    for (const auto &text : vt_test::CapturedSyslogTexts()) {
        found = found || text.find("Unsupported key length 4104") != std::string::npos;
    }
    EXPECT_TRUE(found);
    DorvexBigInt e;
    DorvexBigInt n;
    EXPECT_EQ(DorvexX509ExtractPublicKey(d.cert, &e, &n), DORVEX_ERR_PUBKEY_TOO_LONG);
}

Bytes BnBytes(EVP_PKEY *pkey, const char *param) {
    BIGNUM *bn = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(pkey, param, &bn), 1);
    Bytes out(static_cast<size_t>(BN_num_bytes(bn)));
    BN_bn2bin(bn, out.data());
    BN_free(bn);
    return out;
}

TEST(PubKey, ExtractGivesExponentThenModulus) {
    auto key = testpki::LoadTestKey("root-4096");
    Decoded d(SelfSigned("root-4096", testpki::Digest::Sha256));
    DorvexBigInt e;
    DorvexBigInt n;
    ASSERT_EQ(DorvexX509ExtractPublicKey(d.cert, &e, &n), 0u);
    EXPECT_EQ(Bytes(e.data, e.data + e.len), BnBytes(key.get(), OSSL_PKEY_PARAM_RSA_E));
    EXPECT_EQ(Bytes(n.data, n.data + n.len), BnBytes(key.get(), OSSL_PKEY_PARAM_RSA_N));
    EXPECT_EQ(DorvexX509ExtractPublicKey(nullptr, &e, &n), DORVEX_ERR_PARAM);
}

// The digest may be named bare or as RSA-with-digest; a wrong signature is a
// verdict, not an error.
TEST(PubKey, VerifyAcceptsBothDigestNamings) {
    Decoded d(SelfSigned("ca-2048", testpki::Digest::Sha256));
    const DorvexX509Cert &c = *d.cert;
    const DorvexRsaPublicKey *key = &c.certInfo.subjectPublicKeyInfo.subjectPublicKey;
    Bytes badSig(c.signature.data, c.signature.data + c.signature.len);
    badSig[10] ^= 0x40;
    struct {
        const char *name;
        int32_t aoid;
        bool spoil;
        uint32_t ret;
        uint32_t result;
    } const rows[] = {
        {"sha256WithRSAEncryption", AOID_SHA256WITHRSAENCRYPTION, false, 0, 1},
        {"bare sha256", AOID_SHA256, false, 0, 1},
        {"wrong signature", AOID_SHA256, true, 0, 0},
        {"wrong digest", AOID_SHA384, false, 0, 0},
        {"not a digest", AOID_UNKNOWN, false, DORVEX_ERR_SIGN_ALG, 7},
    };
    for (const auto &row : rows) {
        DorvexX509AlgoIdentifier alg = {};
        if (const DorvexAsnOcts *oid = DorvexFindOid(row.aoid); oid != nullptr) {
            alg.algorithm = *oid;
        }
        const uint8_t *sig = row.spoil ? badSig.data() : c.signature.data;
        uint32_t result = 7;
        EXPECT_EQ(DorvexX509PubKeyVerify(c.tbsRaw.data, c.tbsRaw.len, sig, c.signature.len, key,
                                         &alg, &result),
                  row.ret)
            << row.name;
        EXPECT_EQ(result, row.result) << row.name;
    }
}

}  // namespace
