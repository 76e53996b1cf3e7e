// RSA signature checks over keys from decoded certificates, on certificates
// made by OpenSSL through the test-PKI generator.
#include <gtest/gtest.h>
#include <openssl/core_names.h>

#include <algorithm>
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
        uint32_t used = 0;
        EXPECT_EQ(DorvexX509DecodeCert(der.data(), static_cast<uint32_t>(der.size()), &cert, &used),
                  0u);
    }
    ~Decoded() { DorvexX509FreeCert(cert); }
};

// Self-signed with `key`, unless the issuer's name or key is another's.
Bytes SelfSigned(const char *key, testpki::Digest digest, const char *issuerName = nullptr,
                 const char *issuerKey = nullptr) {
    testpki::CertSpec plan;
    plan.subjectKey = testpki::LoadTestKey(key);
    plan.subject = testpki::SimpleName({{"CN", "self"}});
    if (issuerName != nullptr) {
        plan.issuerName = testpki::SimpleName({{"CN", issuerName}});
    }
    if (issuerKey != nullptr) {
        testpki::CertSpec other = plan;
        other.subjectKey = testpki::LoadTestKey(issuerKey);
        plan.issuer = testpki::IssueCredential(other);
    }
    plan.digest = digest;
    return testpki::IssueCert(plan).Der();
}

TEST(PubKey, SelfSignedTable) {
    using testpki::Digest;
    const struct {
        const char *name;
        Bytes der;
        uint32_t ret, result;
        const char *log = nullptr;
    } rows[] = {
        {"4096-bit root, SHA-256", SelfSigned("root-4096", Digest::Sha256), 0, 1},
        {"2048-bit root, SHA-384", SelfSigned("ca-2048", Digest::Sha384), 0, 1},
        {"2048-bit root, SHA-512", SelfSigned("ca-2048", Digest::Sha512), 0, 1},
        {"issuer name differs", SelfSigned("ca-2048", Digest::Sha256, "other"), 0, 0},
        {"same names, other signer", SelfSigned("leaf-2048", Digest::Sha256, nullptr, "other-2048"),
         0, 0},
        {"SHA-1 refused before the key", SelfSigned("ca-2048", Digest::Sha1), DORVEX_ERR_SIGN_ALG,
         0},
        {"4104-bit key: any length up to 8192 bits", SelfSigned("rsa-4104", Digest::Sha256), 0, 1},
    };
    for (const auto &row : rows) {
        Decoded d(row.der);
        ASSERT_NE(d.cert, nullptr) << row.name;
        vt_test::ClearSyslog();
        uint32_t result = 7;
        EXPECT_EQ(DorvexX509IsSelfSigned(d.cert, &result), row.ret) << row.name;
        EXPECT_EQ(result, row.result) << row.name;
        EXPECT_EQ(d.cert->issuerCert, row.result == 1 ? d.cert : nullptr) << row.name;
        if (row.log != nullptr) {
            const auto texts = vt_test::CapturedSyslogTexts();
            EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), [&](const std::string &t) {
                return t.find(row.log) != std::string::npos;
            })) << row.name;
        }
        if (row.result == 1) {
            // With the signature spoilt, only the cached issuer still answers 1.
            d.der.back() ^= 0x01;
            EXPECT_EQ(DorvexX509IsSelfSigned(d.cert, &result), 0u);
            EXPECT_EQ(result, 1u) << row.name;
            d.cert->issuerCert = nullptr;
            EXPECT_EQ(DorvexX509IsSelfSigned(d.cert, &result), 0u);
            EXPECT_EQ(result, 0u) << row.name;
        }
    }
}

Bytes BnBytes(EVP_PKEY *pkey, const char *param) {
    BIGNUM *bn = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(pkey, param, &bn), 1);
    Bytes out(static_cast<size_t>(BN_num_bytes(bn)));
    BN_bn2bin(bn, out.data());
    BN_free(bn);
    return out;
}

TEST(PubKey, ExtractAndVerify) {
    auto key = testpki::LoadTestKey("ca-2048");
    Decoded d(SelfSigned("ca-2048", testpki::Digest::Sha256));
    DorvexBigInt e, n;
    ASSERT_EQ(DorvexX509ExtractPublicKey(d.cert, &e, &n), 0u);
    EXPECT_EQ(Bytes(e.data, e.data + e.len), BnBytes(key.get(), OSSL_PKEY_PARAM_RSA_E));
    EXPECT_EQ(Bytes(n.data, n.data + n.len), BnBytes(key.get(), OSSL_PKEY_PARAM_RSA_N));
    EXPECT_EQ(DorvexX509ExtractPublicKey(nullptr, &e, &n), DORVEX_ERR_PARAM);

    // The label must be RSA with a SHA-2 digest, not the bare digest; a wrong
    // signature is a verdict, not an error.
    const DorvexX509Cert &c = *d.cert;
    Bytes badSig(c.signature.data, c.signature.data + c.signature.len);
    badSig[10] ^= 0x40;
    const struct {
        int32_t aoid;
        bool spoil;
        uint32_t ret, result;
    } rows[] = {
        {AOID_SHA256WITHRSAENCRYPTION, false, 0, 1},   {AOID_SHA256WITHRSAENCRYPTION, true, 0, 0},
        {AOID_SHA384WITHRSAENCRYPTION, false, 0, 0},   {AOID_SHA256, false, DORVEX_ERR_SIGN_ALG, 7},
        {AOID_UNKNOWN, false, DORVEX_ERR_SIGN_ALG, 7},
    };
    for (const auto &row : rows) {
        DorvexX509AlgoIdentifier alg = {};
        if (const DorvexAsnOcts *oid = DorvexFindOid(row.aoid); oid != nullptr) {
            alg.algorithm = *oid;
        }
        uint32_t result = 7;
        EXPECT_EQ(
            DorvexX509PubKeyVerify(
                c.tbsRaw.data, c.tbsRaw.len, row.spoil ? badSig.data() : c.signature.data,
                c.signature.len, &c.certInfo.subjectPublicKeyInfo.subjectPublicKey, &alg, &result),
            row.ret)
            << row.aoid << row.spoil;
        EXPECT_EQ(result, row.result) << row.aoid << row.spoil;
    }
}

}  // namespace
