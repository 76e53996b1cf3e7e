// Signature checks over keys from decoded certificates (RSA, RSASSA-PSS,
// ECDSA), on certificates made by OpenSSL through the test-PKI generator.
#include <gtest/gtest.h>
#include <openssl/core_names.h>

#include <algorithm>
#include <span>
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
    uint32_t ret = 0;
    explicit Decoded(Bytes bytes) : der(std::move(bytes)) {
        uint32_t used = 0;
        ret = DorvexX509DecodeCert(der.data(), static_cast<uint32_t>(der.size()), &cert, &used);
    }
    ~Decoded() { DorvexX509FreeCert(cert); }
};

// Self-signed with `key`, unless the issuer's name or key is another's.
Bytes SelfSigned(const char *key, testpki::Digest digest, const char *issuerName = nullptr,
                 const char *issuerKey = nullptr, bool pss = false,
                 testpki::Key subjectKey = testpki::Key()) {
    testpki::CertSpec plan;
    plan.subjectKey = subjectKey ? subjectKey : testpki::LoadTestKey(key);
    plan.pss = pss;
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

// A self-signed P-256 certificate with its key in another form.
Bytes EcForm(bool compressed, bool explicitParams) {
    const auto key = testpki::LoadTestKey("ec-p256").EcForm(compressed, explicitParams);
    return SelfSigned(nullptr, testpki::Digest::Sha256, nullptr, nullptr, false, key);
}

// The P-256 certificate with the last octet of its point changed: off the curve.
Bytes OffCurve() {
    Bytes der = SelfSigned("ec-p256", testpki::Digest::Sha256);
    const Bytes spki = testpki::LoadTestKey("ec-p256").PublicKeyDer();
    auto at = std::search(der.begin(), der.end(), spki.end() - 65, spki.end());
    at[64] ^= 0x01;
    return der;
}

// The ECDSA certificate with its signature value re-encoded: r with a
// needless zero octet in front, or one octet after the value.
Bytes EcdsaValue(bool padR) {
    namespace der = testpki::der;
    const auto fields = der::Children(SelfSigned("ec-p256", testpki::Digest::Sha256));
    const Bytes bits = der::Content(fields[2]);
    const auto rs = der::Children(std::span(bits).subspan(1));
    Bytes r = der::Content(rs[0]);
    r.insert(r.begin(), padR ? 1 : 0, 0x00);
    Bytes value = der::Seq({der::Integer(r), rs[1]});
    value.insert(value.begin(), 0x00);  // unused bits
    value.insert(value.end(), padR ? 0 : 1, 0x00);
    return der::Seq({fields[0], fields[1], der::Tlv(0x03, value)});
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
        {"P-256, ECDSA SHA-256", SelfSigned("ec-p256", Digest::Sha256), 0, 1},
        {"P-384, ECDSA SHA-384", SelfSigned("ec-p384", Digest::Sha384), 0, 1},
        {"P-384, ECDSA SHA-512", SelfSigned("ec-p384", Digest::Sha512), 0, 1},
        {"P-256, compressed point", EcForm(true, false), 0, 1},
        {"RSASSA-PSS SHA-256", SelfSigned("ca-2048", Digest::Sha256, nullptr, nullptr, true), 0, 1},
        {"RSASSA-PSS SHA-512", SelfSigned("ca-2048", Digest::Sha512, nullptr, nullptr, true), 0, 1},
        {"ECDSA label, RSA key", SelfSigned("leaf-2048", Digest::Sha256, nullptr, "ec-p256"),
         DORVEX_ERR_SIGN_ALG, 0},
        {"RSA label, EC key", SelfSigned("ec-p256", Digest::Sha256, nullptr, "leaf-2048"),
         DORVEX_ERR_SIGN_ALG, 0},
        {"PSS label, EC key", SelfSigned("ec-p256", Digest::Sha256, nullptr, "leaf-2048", true),
         DORVEX_ERR_SIGN_ALG, 0},
        {"ECDSA r with a needless zero octet", EcdsaValue(true), DORVEX_ERR_SIG_ENCODING, 0},
        {"ECDSA value with an octet after it", EcdsaValue(false), DORVEX_ERR_SIG_ENCODING, 0},
        // Refused when decoded, before any check.
        {"secp256k1 key", SelfSigned("ec-secp256k1", Digest::Sha256), DORVEX_ERR_PUBKEY_CURVE, 0},
        {"P-256 by explicit parameters", EcForm(false, true), DORVEX_ERR_PUBKEY_CURVE, 0},
        {"point not on the curve", OffCurve(), DORVEX_ERR_PUBKEY_POINT, 0},
    };
    for (const auto &row : rows) {
        Decoded d(row.der);
        if (row.ret == DORVEX_ERR_PUBKEY_CURVE || row.ret == DORVEX_ERR_PUBKEY_POINT) {
            EXPECT_EQ(d.ret, row.ret) << row.name;
            continue;
        }
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
