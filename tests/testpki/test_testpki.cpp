// The generator's output, read back by OpenSSL: every field a CertSpec or CrlSpec
// asks for must come out exactly so, and chains and CRLs must verify.
#include "tools/testpki/testpki.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <fstream>

namespace {

using testpki::Bytes;
namespace tp = testpki;

struct Material {
    tp::Key rootKey = tp::LoadTestKey("root-4096");
    tp::Key leafKey = tp::LoadTestKey("leaf-2048");
    tp::Key otherKey = tp::LoadTestKey("other-2048");
    tp::DemoPki pki = tp::MakeDemoPki();
};
const Material &M() {
    static const Material m;
    return m;
}

// Child `index` of tbsCertificate / tbsCertList.
Bytes TbsChild(const Bytes &der, size_t index) {
    return tp::der::Children(tp::der::Children(der).at(0)).at(index);
}

Bytes Of(const ASN1_STRING *s) {
    return Bytes(ASN1_STRING_get0_data(s), ASN1_STRING_get0_data(s) + ASN1_STRING_length(s));
}

Bytes Text(std::string_view s) {
    return Bytes(s.begin(), s.end());
}

// The DER value of an extension, and whether it is critical.
std::pair<Bytes, int> Ext(X509 *x, int nid) {
    X509_EXTENSION *ext = X509_get_ext(x, X509_get_ext_by_NID(x, nid, -1));
    return ext == nullptr
               ? std::pair(Bytes{}, -1)
               : std::pair(Of(X509_EXTENSION_get_data(ext)), X509_EXTENSION_get_critical(ext));
}

struct CertRow {
    const char *name;
    void (*edit)(tp::CertSpec &);
    bool opensslParses;  // padded INTEGERs are refused by d2i_X509
    void (*check)(const Bytes &der, X509 *x);
};

// clang-format off
const CertRow kCertRows[] = {
    {"v1 has no version field", [](auto &s) { s.version = 1; }, true, [](const Bytes &der, X509 *x) {
         EXPECT_EQ(X509_get_version(x), 0);
         EXPECT_EQ(TbsChild(der, 0), (Bytes{0x02, 0x01, 0x01}));  // serial comes first
     }},
    {"padded positive serial", [](auto &s) { s.serial = {0x00, 0x00, 0x01}; }, false,
     [](const Bytes &der, X509 *) { EXPECT_EQ(TbsChild(der, 1), (Bytes{2, 3, 0, 0, 1})); }},
    {"minimal negative serial", [](auto &s) { s.serial = {0x80}; }, true, [](const Bytes &der, X509 *x) {
         EXPECT_EQ(TbsChild(der, 1), (Bytes{0x02, 0x01, 0x80}));
         EXPECT_EQ(ASN1_STRING_type(X509_get0_serialNumber(x)), V_ASN1_NEG_INTEGER);
     }},
    {"raw fractional and offset times", [](auto &s) {
         s.notBefore = tp::Gen("20250101000000.5Z");
         s.notAfter = tp::Utc("300101000000+0100");
     }, true, [](const Bytes &, X509 *x) {
         EXPECT_EQ(ASN1_STRING_type(X509_get0_notBefore(x)), V_ASN1_GENERALIZEDTIME);
         EXPECT_EQ(Of(X509_get0_notBefore(x)), Text("20250101000000.5Z"));
         EXPECT_EQ(ASN1_STRING_type(X509_get0_notAfter(x)), V_ASN1_UTCTIME);
         EXPECT_EQ(Of(X509_get0_notAfter(x)), Text("300101000000+0100"));
     }},
    {"one-octet key usage", [](auto &s) { s.keyUsage = tp::KeyUsage::Of(0x86); }, true, [](const Bytes &, X509 *x) {
         EXPECT_EQ(Ext(x, NID_key_usage), std::pair(Bytes{0x03, 0x02, 0x01, 0x86}, 1));
         EXPECT_EQ(X509_get_key_usage(x), uint32_t{KU_DIGITAL_SIGNATURE | KU_KEY_CERT_SIGN | KU_CRL_SIGN});
     }},
    {"two-octet key usage", [](auto &s) { s.keyUsage = tp::KeyUsage::Of(0x80, 0x80); }, true, [](const Bytes &, X509 *x) {
         EXPECT_EQ(Ext(x, NID_key_usage), std::pair(Bytes{0x03, 0x03, 0x07, 0x80, 0x80}, 1));
         EXPECT_EQ(X509_get_key_usage(x), uint32_t{KU_DIGITAL_SIGNATURE | KU_DECIPHER_ONLY});
     }},
    {"extended key usage order kept, SHA-384", [](auto &s) {
         s.extKeyUsage = tp::ExtKeyUsage{{"timeStamping", "codeSigning", "1.3.6.1.5.5.7.3.1"}};
         s.digest = tp::Digest::Sha384;
     }, true, [](const Bytes &, X509 *x) {
         const Bytes value = Ext(x, NID_ext_key_usage).first;
         EXPECT_EQ(tp::der::Children(value), (std::vector<Bytes>{tp::der::Oid("timeStamping"),
             tp::der::Oid("codeSigning"), tp::der::Oid("1.3.6.1.5.5.7.3.1")}));
         EXPECT_EQ(Ext(x, NID_ext_key_usage).second, 0);
         EXPECT_EQ(X509_get_signature_nid(x), NID_sha384WithRSAEncryption);
     }},
    {"basic constraints with path length", [](auto &s) { s.basicConstraints = tp::BasicConstraints{true, 3, true}; },
     true, [](const Bytes &, X509 *x) {
         EXPECT_EQ(Ext(x, NID_basic_constraints), std::pair(Bytes{0x30, 6, 1, 1, 0xFF, 2, 1, 3}, 1));
         EXPECT_EQ(X509_get_pathlen(x), 3);
     }},
    {"unknown critical extension and a repeat", [](auto &s) {
         s.extraExtensions = {{"1.3.6.1.4.1.99999.1", true, {0x05, 0x00}}, {"1.3.6.1.4.1.99999.1", false, {}}};
     }, true, [](const Bytes &, X509 *x) {
         ASSERT_EQ(X509_get_ext_count(x), 2);
         EXPECT_EQ(X509_EXTENSION_get_critical(X509_get_ext(x, 0)), 1);
         EXPECT_EQ(Of(X509_EXTENSION_get_data(X509_get_ext(x, 0))), (Bytes{0x05, 0x00}));
         EXPECT_EQ(ASN1_STRING_length(X509_EXTENSION_get_data(X509_get_ext(x, 1))), 0);
     }},
    {"key identifiers", [](auto &s) { s.subjectKeyId = s.authorityKeyId = true; }, true, [](const Bytes &, X509 *x) {
         EXPECT_EQ(Of(X509_get0_subject_key_id(x)), M().leafKey.KeyId());
         EXPECT_EQ(Of(X509_get0_authority_key_id(x)), M().rootKey.KeyId());
     }},
    {"multi-valued RDN and string types", [](auto &s) {
         s.subject = {{{"C", "DE", tp::StrType::Printable}},
                      {{"O", "Org", tp::StrType::Utf8}, {"OU", "Unit", tp::StrType::Teletex}},
                      {{"CN", "name", tp::StrType::Ia5}}};
     }, true, [](const Bytes &, X509 *x) {
         X509_NAME *n = X509_get_subject_name(x);
         ASSERT_EQ(X509_NAME_entry_count(n), 4);
         for (int i = 0; i < 4; ++i) {
             EXPECT_EQ(X509_NAME_ENTRY_set(X509_NAME_get_entry(n, i)), (i + 1) / 2) << i;
         }
         EXPECT_EQ(ASN1_STRING_type(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(n, 3))), V_ASN1_IA5STRING);
     }},
    {"eleven RDNs", [](auto &s) { s.subject = tp::Name(11, {{"OU", "u"}}); }, true, [](const Bytes &, X509 *x) {
         EXPECT_EQ(X509_NAME_entry_count(X509_get_subject_name(x)), 11);
     }},
};
// clang-format on

TEST(TestPki, CertificatesCarryWhatCertSpecAsks) {
    for (const CertRow &row : kCertRows) {
        SCOPED_TRACE(row.name);
        tp::CertSpec plan;
        plan.subjectKey = M().leafKey;
        plan.issuer = tp::Credential{M().pki.root.cert, M().rootKey};
        row.edit(plan);
        tp::Cert cert = tp::IssueCert(plan);
        const unsigned char *p = cert.Der().data();
        tp::X509Ptr parsed(d2i_X509(nullptr, &p, static_cast<long>(cert.Der().size())));
        ERR_clear_error();
        ASSERT_EQ(parsed != nullptr, row.opensslParses);
        X509 *x = parsed ? parsed.get() : cert.get();
        EXPECT_EQ(X509_verify(x, M().rootKey.get()), 1);
        EXPECT_EQ(X509_verify(x, M().otherKey.get()), 0);
        row.check(cert.Der(), x);
    }
    // What it cannot write, it refuses.
    for (void (*edit)(tp::CertSpec &) : {
             +[](tp::CertSpec &s) { s.subjectKey = {}; },
             +[](tp::CertSpec &s) { s.serial.clear(); },
             +[](tp::CertSpec &s) { s.version = 1, s.subjectKeyId = true; },
             +[](tp::CertSpec &s) {
                 s.subject = {{{"noSuchAttribute", "x"}}};
             },
             +[](tp::CertSpec &s) { s.subject = {{}}; },
         }) {
        tp::CertSpec plan;
        plan.subjectKey = M().leafKey;
        edit(plan);
        EXPECT_THROW(tp::IssueCert(plan), tp::Error);
    }
}

int ReasonOf(const X509_REVOKED *rev) {
    auto *reason = static_cast<ASN1_ENUMERATED *>(
        X509_REVOKED_get_ext_d2i(rev, NID_crl_reason, nullptr, nullptr));
    const int value = reason ? static_cast<int>(ASN1_ENUMERATED_get(reason)) : -1;
    ASN1_ENUMERATED_free(reason);
    return value;
}

struct CrlRow {
    const char *name;
    void (*edit)(tp::CrlSpec &);
    void (*check)(const Bytes &der, X509_CRL *crl);
};

// clang-format off
const CrlRow kCrlRows[] = {
    {"defaults", [](auto &) {}, [](const Bytes &, X509_CRL *crl) {
         EXPECT_EQ(X509_CRL_get_version(crl), 1);
         EXPECT_EQ(X509_NAME_cmp(X509_CRL_get_issuer(crl), X509_get_subject_name(M().pki.ca.cert.get())), 0);
         auto *number = static_cast<ASN1_INTEGER *>(X509_CRL_get_ext_d2i(crl, NID_crl_number, nullptr, nullptr));
         EXPECT_EQ(ASN1_INTEGER_get(number), 1);
         ASN1_INTEGER_free(number);
         EXPECT_EQ(X509_CRL_get_REVOKED(crl), nullptr);
     }},
    {"raw this update, no next update", [](auto &s) {
         s.thisUpdate = tp::Gen("20250101000000.25Z");
         s.nextUpdate.reset();
     }, [](const Bytes &, X509_CRL *crl) {
         EXPECT_EQ(ASN1_STRING_type(X509_CRL_get0_lastUpdate(crl)), V_ASN1_GENERALIZEDTIME);
         EXPECT_EQ(Of(X509_CRL_get0_lastUpdate(crl)), Text("20250101000000.25Z"));
         EXPECT_EQ(X509_CRL_get0_nextUpdate(crl), nullptr);
     }},
    {"revoked entries keep order and reasons, SHA-512", [](auto &s) {
         s.revoked = {{{0x03}, tp::Utc("250201000000Z"), 1}, {{0x01}, tp::Gen("20250301000000Z"), std::nullopt},
                      {{0x00, 0x80}, tp::Utc("250401000000Z"), 6}};
         s.digest = tp::Digest::Sha512;
     }, [](const Bytes &, X509_CRL *crl) {
         STACK_OF(X509_REVOKED) *list = X509_CRL_get_REVOKED(crl);
         ASSERT_EQ(sk_X509_REVOKED_num(list), 3);
         const long serials[] = {3, 1, 128};
         const int reasons[] = {1, -1, 6};
         for (int i = 0; i < 3; ++i) {
             const X509_REVOKED *rev = sk_X509_REVOKED_value(list, i);
             EXPECT_EQ(ASN1_INTEGER_get(X509_REVOKED_get0_serialNumber(rev)), serials[i]) << i;
             EXPECT_EQ(ReasonOf(rev), reasons[i]) << i;
         }
         EXPECT_EQ(ASN1_STRING_type(X509_REVOKED_get0_revocationDate(sk_X509_REVOKED_value(list, 1))),
                   V_ASN1_GENERALIZEDTIME);
         EXPECT_EQ(X509_CRL_get_signature_nid(crl), NID_sha512WithRSAEncryption);
     }},
    {"indirect issuing distribution point", [](auto &s) {
         s.issuingDistPoint.emplace().uri = "http://crl.test/ca.crl";
         s.issuingDistPoint->indirectCrl = true;
     }, [](const Bytes &, X509_CRL *crl) {
         int critical = 0;
         auto *idp = static_cast<ISSUING_DIST_POINT *>(
             X509_CRL_get_ext_d2i(crl, NID_issuing_distribution_point, &critical, nullptr));
         ASSERT_NE(idp, nullptr);
         EXPECT_EQ(critical, 1);
         EXPECT_EQ(idp->indirectCRL * 100 + idp->onlyuser * 10 + idp->onlyCA, 0xFF * 100);
         ASSERT_NE(idp->distpoint, nullptr);
         EXPECT_EQ(sk_GENERAL_NAME_num(idp->distpoint->name.fullname), 1);
         ISSUING_DIST_POINT_free(idp);
     }},
    {"version 1 has no version field", [](auto &s) { s.version = 1; s.crlNumber.reset(); },
     [](const Bytes &der, X509_CRL *crl) {
         EXPECT_EQ(X509_CRL_get_version(crl), 0);
         EXPECT_EQ(TbsChild(der, 0).at(0), 0x30);  // the signature algorithm comes first
     }},
    {"twenty-one entries", [](auto &s) {
         for (uint64_t i = 1; i <= 21; ++i) {
             s.revoked.push_back({tp::SerialFromU64(i), tp::Utc("250101000000Z"), 0});
         }
     }, [](const Bytes &, X509_CRL *crl) { EXPECT_EQ(sk_X509_REVOKED_num(X509_CRL_get_REVOKED(crl)), 21); }},
};
// clang-format on

TEST(TestPki, CrlsCarryWhatCrlSpecAsks) {
    for (const CrlRow &row : kCrlRows) {
        SCOPED_TRACE(row.name);
        tp::CrlSpec plan;
        plan.issuer = M().pki.ca;
        row.edit(plan);
        const Bytes der = tp::MakeCrl(plan);
        const unsigned char *p = der.data();
        tp::X509CrlPtr crl(d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size())));
        ASSERT_NE(crl, nullptr);
        EXPECT_EQ(p, der.data() + der.size());
        EXPECT_EQ(X509_CRL_verify(crl.get(), M().pki.ca.key.get()), 1);
        EXPECT_EQ(X509_CRL_verify(crl.get(), M().otherKey.get()), 0);
        ERR_clear_error();
        row.check(der, crl.get());
    }
}

// X509_verify_cert over the demo hierarchy, at chosen times and CRLs.
TEST(TestPki, DemoChainVerifiesAtChosenTime) {
    const tp::DemoPki &pki = M().pki;
    tp::CrlSpec revoking;
    revoking.issuer = pki.ca;
    revoking.revoked = {{{0x10, 0x01} /* the leaf */, tp::Utc("250101000000Z"), 1}};
    const Bytes revokingCrl = tp::MakeCrl(revoking);
    const struct {
        const char *time;
        std::vector<Bytes> crls;  // CRL checking over the whole chain when not empty
        int expected;
    } rows[] = {
        {"20260101000000Z", {}, X509_V_OK},
        {"20260101000000Z", {pki.rootCrl, pki.caCrl}, X509_V_OK},
        {"20400101000000Z", {}, X509_V_ERR_CERT_HAS_EXPIRED},
        {"20230101000000Z", {}, X509_V_ERR_CERT_NOT_YET_VALID},
        {"20260101000000Z", {pki.rootCrl, revokingCrl}, X509_V_ERR_CERT_REVOKED},
    };
    for (const auto &row : rows) {
        std::unique_ptr<X509_STORE, tp::Deleter<X509_STORE_free>> store(X509_STORE_new());
        ASSERT_EQ(X509_STORE_add_cert(store.get(), pki.root.cert.get()), 1);
        for (const Bytes &der : row.crls) {
            const unsigned char *p = der.data();
            tp::X509CrlPtr crl(d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size())));
            ASSERT_EQ(X509_STORE_add_crl(store.get(), crl.get()), 1);
        }
        auto freeStack = [](STACK_OF(X509) * s) { sk_X509_free(s); };
        std::unique_ptr<STACK_OF(X509), decltype(freeStack)> untrusted(sk_X509_new_null(),
                                                                       freeStack);
        sk_X509_push(untrusted.get(), pki.ca.cert.get());
        std::unique_ptr<X509_STORE_CTX, tp::Deleter<X509_STORE_CTX_free>> ctx(X509_STORE_CTX_new());
        ASSERT_EQ(X509_STORE_CTX_init(ctx.get(), store.get(), pki.leaf.cert.get(), untrusted.get()),
                  1);
        X509_STORE_CTX_set_time(ctx.get(), 0, tp::EpochOf(tp::Gen(row.time)));
        if (!row.crls.empty()) {
            X509_STORE_CTX_set_flags(ctx.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
        }
        EXPECT_EQ(X509_verify_cert(ctx.get()) == 1, row.expected == X509_V_OK) << row.time;
        EXPECT_EQ(X509_STORE_CTX_get_error(ctx.get()), row.expected) << row.time;
    }
}

TEST(TestPki, TimesKeysPemAndFiles) {
    const struct {
        int64_t epoch;
        tp::TimeType type;
        const char *text;
    } times[] = {
        {2524607999, tp::TimeType::Utc, "491231235959Z"},
        {2524608000, tp::TimeType::Generalized, "20500101000000Z"},
        {-631152000, tp::TimeType::Utc, "500101000000Z"},
        {-631152001, tp::TimeType::Generalized, "19491231235959Z"},
    };
    for (const auto &row : times) {
        const tp::Time t = tp::TimeAt(row.epoch);
        EXPECT_TRUE(t.type == row.type && t.text == row.text) << row.text;
        EXPECT_EQ(tp::EpochOf(t), row.epoch) << row.text;
    }
    EXPECT_EQ(M().rootKey.Bits() + M().leafKey.Bits(), 4096 + 2048);
    EXPECT_EQ(tp::LoadTestKey("rsa-4104").Bits(), 4104);  // a 513-byte modulus
    EXPECT_EQ(EVP_PKEY_get_base_id(tp::LoadTestKey("ec-p256").get()), EVP_PKEY_EC);
    EXPECT_THROW(tp::LoadTestKey("no-such-key"), tp::Error);

    const tp::DemoPki &pki = M().pki;
    const std::string pem = tp::PemBundle({{"CERTIFICATE", pki.root.cert.Der()},
                                           {"PUBLIC KEY", M().otherKey.PublicKeyDer()},
                                           {"X509 CRL", pki.rootCrl}});
    std::unique_ptr<BIO, tp::Deleter<BIO_free>> bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    for (const auto &[label, der] : {std::pair{"CERTIFICATE", pki.root.cert.Der()},
                                     std::pair{"PUBLIC KEY", M().otherKey.PublicKeyDer()},
                                     std::pair{"X509 CRL", pki.rootCrl}}) {
        char *name = nullptr, *header = nullptr;
        unsigned char *data = nullptr;
        long len = 0;
        ASSERT_EQ(PEM_read_bio(bio.get(), &name, &header, &data, &len), 1) << label;
        EXPECT_STREQ(name, label);
        EXPECT_EQ(Bytes(data, data + len), der) << label;
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }
    const Bytes both = tp::ConcatDer({pki.ca.cert.Der(), pki.leaf.cert.Der()});
    EXPECT_EQ(tp::der::Children(tp::der::Tlv(0x30, both)),
              (std::vector<Bytes>{pki.ca.cert.Der(), pki.leaf.cert.Der()}));

    char tmpl[] = "/tmp/testpki-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::filesystem::path dir = tmpl;
    const std::vector<std::string> files = tp::WriteDemoPki(pki, dir / "out");
    EXPECT_EQ(files.size(), 14u);
    for (const std::string &file : files) {
        EXPECT_GT(std::filesystem::file_size(dir / "out" / file), 0u) << file;
    }
    std::ifstream in(dir / "out" / "leaf.der", std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), pki.leaf.cert.Der());
    std::filesystem::remove_all(dir);
}

}  // namespace
