// The generator's output, read back by OpenSSL: every field a CertSpec or CrlSpec
// asks for must come out exactly so, and chains and CRLs must verify.
#include "tools/testpki/testpki.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>

namespace {

using testpki::Bytes;

struct Material {
    testpki::Key rootKey = testpki::LoadTestKey("root-4096");
    testpki::Key leafKey = testpki::LoadTestKey("leaf-2048");
    testpki::Key otherKey = testpki::LoadTestKey("other-2048");
    testpki::DemoPki pki = testpki::MakeDemoPki();
};
const Material &M() {
    static const Material m;
    return m;
}

// Header length and content length of the DER element at the front of `in`;
// nothing when the element does not fit.
std::optional<std::pair<size_t, size_t>> Header(std::span<const uint8_t> in) {
    if (in.size() < 2) {
        return std::nullopt;
    }
    size_t headerLen = 2, len = in[1];
    if (len & 0x80) {
        headerLen += len & 0x7F;
        if (headerLen > in.size() || headerLen > 6) {
            return std::nullopt;
        }
        len = 0;
        for (size_t i = 2; i < headerLen; ++i) {
            len = (len << 8) | in[i];
        }
    }
    if (len > in.size() - headerLen) {
        return std::nullopt;
    }
    return std::pair(headerLen, len);
}

// The children of the constructed DER element at the front of `der`.
std::vector<Bytes> Children(std::span<const uint8_t> der) {
    auto outer = Header(der);
    if (!outer) {
        ADD_FAILURE() << "malformed DER";
        return {};
    }
    std::span<const uint8_t> content = der.subspan(outer->first, outer->second);
    std::vector<Bytes> out;
    while (!content.empty()) {
        auto child = Header(content);
        if (!child) {
            ADD_FAILURE() << "malformed DER";
            return {};
        }
        size_t total = child->first + child->second;
        out.emplace_back(content.begin(), content.begin() + static_cast<ptrdiff_t>(total));
        content = content.subspan(total);
    }
    return out;
}

// Child `index` of tbsCertificate / tbsCertList.
Bytes TbsChild(const Bytes &der, size_t index) {
    std::vector<Bytes> top = Children(der);
    std::vector<Bytes> tbs = top.empty() ? top : Children(top[0]);
    return index < tbs.size() ? tbs[index] : Bytes{};
}

Bytes StringBytes(const ASN1_STRING *s) {
    return Bytes(ASN1_STRING_get0_data(s), ASN1_STRING_get0_data(s) + ASN1_STRING_length(s));
}

Bytes Text(std::string_view s) {
    return Bytes(s.begin(), s.end());
}

Bytes ExtValue(X509 *x, int nid, int *critical) {
    X509_EXTENSION *ext = X509_get_ext(x, X509_get_ext_by_NID(x, nid, -1));
    if (ext == nullptr) {
        ADD_FAILURE() << "no extension " << OBJ_nid2sn(nid);
        return {};
    }
    *critical = X509_EXTENSION_get_critical(ext);
    return StringBytes(X509_EXTENSION_get_data(ext));
}

testpki::CertSpec BaseCert() {
    testpki::CertSpec plan;
    plan.subjectKey = M().leafKey;
    plan.issuer = testpki::Credential{M().pki.root.cert, M().rootKey};
    return plan;
}

struct CertRow {
    const char *name;
    std::function<void(testpki::CertSpec &)> edit;
    bool opensslParses;  // padded INTEGERs are refused by d2i_X509
    std::function<void(const Bytes &der, X509 *x)> check;
};

const CertRow kCertRows[] = {
    {"v1 has no version field", [](auto &s) { s.version = 1; }, true,
     [](const Bytes &der, X509 *x) {
         EXPECT_EQ(X509_get_version(x), 0);
         EXPECT_EQ(TbsChild(der, 0), (Bytes{0x02, 0x01, 0x01}));  // serial comes first
     }},
    {"padded positive serial",
     [](auto &s) {
         s.serial = {0x00, 0x00, 0x01};
     },
     false,
     [](const Bytes &der, X509 *) {
         EXPECT_EQ(TbsChild(der, 1), (Bytes{0x02, 0x03, 0x00, 0x00, 0x01}));
     }},
    {"padded negative serial",
     [](auto &s) {
         s.serial = {0xFF, 0x80};
     },
     false,
     [](const Bytes &der, X509 *) {
         EXPECT_EQ(TbsChild(der, 1), (Bytes{0x02, 0x02, 0xFF, 0x80}));
     }},
    {"minimal negative serial", [](auto &s) { s.serial = {0x80}; }, true,
     [](const Bytes &der, X509 *x) {
         EXPECT_EQ(TbsChild(der, 1), (Bytes{0x02, 0x01, 0x80}));
         EXPECT_EQ(ASN1_STRING_type(X509_get0_serialNumber(x)), V_ASN1_NEG_INTEGER);
     }},
    {"raw fractional and offset times",
     [](auto &s) {
         s.notBefore = testpki::Gen("20250101000000.5Z");
         s.notAfter = testpki::Utc("300101000000+0100");
     },
     true,
     [](const Bytes &, X509 *x) {
         EXPECT_EQ(ASN1_STRING_type(X509_get0_notBefore(x)), V_ASN1_GENERALIZEDTIME);
         EXPECT_EQ(StringBytes(X509_get0_notBefore(x)), Text("20250101000000.5Z"));
         EXPECT_EQ(ASN1_STRING_type(X509_get0_notAfter(x)), V_ASN1_UTCTIME);
         EXPECT_EQ(ASN1_STRING_length(X509_get0_notAfter(x)), 17);
     }},
    {"one-octet key usage", [](auto &s) { s.keyUsage = testpki::KeyUsage::Of(0x86); }, true,
     [](const Bytes &, X509 *x) {
         int critical = 0;
         EXPECT_EQ(ExtValue(x, NID_key_usage, &critical), (Bytes{0x03, 0x02, 0x01, 0x86}));
         EXPECT_EQ(critical, 1);
         EXPECT_EQ(X509_get_key_usage(x),
                   uint32_t{KU_DIGITAL_SIGNATURE | KU_KEY_CERT_SIGN | KU_CRL_SIGN});
     }},
    {"two-octet key usage", [](auto &s) { s.keyUsage = testpki::KeyUsage::Of(0x80, 0x80); }, true,
     [](const Bytes &, X509 *x) {
         int critical = 0;
         EXPECT_EQ(ExtValue(x, NID_key_usage, &critical), (Bytes{0x03, 0x03, 0x07, 0x80, 0x80}));
         EXPECT_EQ(X509_get_key_usage(x), uint32_t{KU_DIGITAL_SIGNATURE | KU_DECIPHER_ONLY});
     }},
    {"extended key usage order kept",
     [](auto &s) {
         s.extKeyUsage = testpki::ExtKeyUsage{{"timeStamping", "codeSigning", "1.3.6.1.5.5.7.3.1"}};
     },
     true,
     [](const Bytes &, X509 *x) {
         int critical = -1;
         auto *eku = static_cast<EXTENDED_KEY_USAGE *>(
             X509_get_ext_d2i(x, NID_ext_key_usage, &critical, nullptr));
         ASSERT_NE(eku, nullptr);
         ASSERT_EQ(sk_ASN1_OBJECT_num(eku), 3);
         EXPECT_EQ(OBJ_obj2nid(sk_ASN1_OBJECT_value(eku, 0)), NID_time_stamp);
         EXPECT_EQ(OBJ_obj2nid(sk_ASN1_OBJECT_value(eku, 1)), NID_code_sign);
         EXPECT_EQ(OBJ_obj2nid(sk_ASN1_OBJECT_value(eku, 2)), NID_server_auth);
         EXPECT_EQ(critical, 0);
         EXTENDED_KEY_USAGE_free(eku);
     }},
    {"basic constraints with path length",
     [](auto &s) {
         s.basicConstraints = testpki::BasicConstraints{true, 3, true};
     },
     true,
     [](const Bytes &, X509 *x) {
         int critical = 0;
         EXPECT_EQ(ExtValue(x, NID_basic_constraints, &critical),
                   (Bytes{0x30, 0x06, 0x01, 0x01, 0xFF, 0x02, 0x01, 0x03}));
         EXPECT_EQ(critical, 1);
         EXPECT_EQ(X509_get_pathlen(x), 3);
     }},
    {"unknown critical extension and a repeat",
     [](auto &s) {
         s.extraExtensions = {{"1.3.6.1.4.1.99999.1", true, {0x05, 0x00}},
                              {"1.3.6.1.4.1.99999.1", false, {}}};
     },
     true,
     [](const Bytes &, X509 *x) {
         ASSERT_EQ(X509_get_ext_count(x), 2);
         EXPECT_EQ(X509_EXTENSION_get_critical(X509_get_ext(x, 0)), 1);
         EXPECT_EQ(StringBytes(X509_EXTENSION_get_data(X509_get_ext(x, 0))), (Bytes{0x05, 0x00}));
         EXPECT_EQ(ASN1_STRING_length(X509_EXTENSION_get_data(X509_get_ext(x, 1))), 0);
     }},
    {"key identifiers",
     [](auto &s) {
         s.subjectKeyId = true;
         s.authorityKeyId = true;
     },
     true,
     [](const Bytes &, X509 *x) {
         EXPECT_EQ(StringBytes(X509_get0_subject_key_id(x)), M().leafKey.KeyId());
         EXPECT_EQ(StringBytes(X509_get0_authority_key_id(x)), M().rootKey.KeyId());
         EXPECT_EQ(StringBytes(X509_get0_authority_key_id(x)),
                   StringBytes(X509_get0_subject_key_id(M().pki.root.cert.get())));
     }},
    {"multi-valued RDN and string types",
     [](auto &s) {
         s.subject = {
             {{"C", "DE", testpki::StrType::Printable}},
             {{"O", "Org", testpki::StrType::Utf8}, {"OU", "Unit", testpki::StrType::Teletex}},
             {{"CN", "name", testpki::StrType::Ia5}}};
     },
     true,
     [](const Bytes &, X509 *x) {
         X509_NAME *n = X509_get_subject_name(x);
         ASSERT_EQ(X509_NAME_entry_count(n), 4);
         const int sets[] = {0, 1, 1, 2};
         for (int i = 0; i < 4; ++i) {
             EXPECT_EQ(X509_NAME_ENTRY_set(X509_NAME_get_entry(n, i)), sets[i]) << i;
         }
         EXPECT_EQ(ASN1_STRING_type(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(n, 3))),
                   V_ASN1_IA5STRING);
     }},
    {"eleven RDNs",
     [](auto &s) {
         s.subject.clear();
         for (int i = 0; i < 11; ++i) {
             s.subject.push_back({{"OU", "u" + std::to_string(i)}});
         }
     },
     true,
     [](const Bytes &, X509 *x) {
         EXPECT_EQ(X509_NAME_entry_count(X509_get_subject_name(x)), 11);
     }},
    {"SHA-384 signature", [](auto &s) { s.digest = testpki::Digest::Sha384; }, true,
     [](const Bytes &, X509 *x) {
         EXPECT_EQ(X509_get_signature_nid(x), NID_sha384WithRSAEncryption);
     }},
    {"SHA-1 signature", [](auto &s) { s.digest = testpki::Digest::Sha1; }, true,
     [](const Bytes &, X509 *x) {
         EXPECT_EQ(X509_get_signature_nid(x), NID_sha1WithRSAEncryption);
     }},
    {"EC subject key", [](auto &s) { s.subjectKey = testpki::LoadTestKey("ec-p256"); }, true,
     [](const Bytes &, X509 *x) {
         EXPECT_EQ(EVP_PKEY_get_base_id(X509_get0_pubkey(x)), EVP_PKEY_EC);
     }},
};

TEST(TestPki, CertificatesCarryWhatCertSpecAsks) {
    for (const CertRow &row : kCertRows) {
        SCOPED_TRACE(row.name);
        testpki::CertSpec plan = BaseCert();
        row.edit(plan);
        testpki::Cert cert = testpki::IssueCert(plan);
        const unsigned char *p = cert.Der().data();
        testpki::X509Ptr parsed(d2i_X509(nullptr, &p, static_cast<long>(cert.Der().size())));
        ERR_clear_error();
        ASSERT_EQ(parsed != nullptr, row.opensslParses);
        X509 *x = parsed ? parsed.get() : cert.get();
        EXPECT_EQ(X509_verify(x, M().rootKey.get()), 1);
        EXPECT_EQ(X509_verify(x, M().otherKey.get()), 0);
        row.check(cert.Der(), x);
    }
}

TEST(TestPki, RefusesWhatItCannotWrite) {
    const std::pair<const char *, std::function<void(testpki::CertSpec &)>> rows[] = {
        {"no subject key", [](auto &s) { s.subjectKey = {}; }},
        {"empty serial", [](auto &s) { s.serial.clear(); }},
        {"v1 with extensions", [](auto &s) { s.version = 1, s.subjectKeyId = true; }},
        {"unknown attribute type",
         [](auto &s) {
             s.subject = {{{"noSuchAttribute", "x"}}};
         }},
        {"empty RDN", [](auto &s) { s.subject = {{}}; }},
    };
    for (const auto &[name, edit] : rows) {
        testpki::CertSpec plan = BaseCert();
        edit(plan);
        EXPECT_THROW(testpki::IssueCert(plan), testpki::Error) << name;
    }
}

void FreeStack(STACK_OF(X509) * s) {
    sk_X509_free(s);
}

// X509_verify_cert over the demo hierarchy, at chosen times and CRLs.
TEST(TestPki, DemoChainVerifiesAtChosenTime) {
    const testpki::DemoPki &pki = M().pki;
    testpki::CrlSpec revoking;
    revoking.issuer = pki.ca;
    revoking.revoked = {{{0x10, 0x01} /* the leaf */, testpki::Utc("250101000000Z"), 1}};
    const Bytes revokingCrl = testpki::MakeCrl(revoking);
    struct Row {
        const char *name;
        const char *time;
        std::vector<Bytes> crls;  // CRL checking over the whole chain when not empty
        int expected;
    } rows[] = {
        {"valid", "20260101000000Z", {}, X509_V_OK},
        {"valid with both CRLs", "20260101000000Z", {pki.rootCrl, pki.caCrl}, X509_V_OK},
        {"leaf expired", "20400101000000Z", {}, X509_V_ERR_CERT_HAS_EXPIRED},
        {"not yet valid", "20230101000000Z", {}, X509_V_ERR_CERT_NOT_YET_VALID},
        {"leaf revoked", "20260101000000Z", {pki.rootCrl, revokingCrl}, X509_V_ERR_CERT_REVOKED},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        std::unique_ptr<X509_STORE, testpki::Deleter<X509_STORE_free>> store(X509_STORE_new());
        ASSERT_EQ(X509_STORE_add_cert(store.get(), pki.root.cert.get()), 1);
        for (const Bytes &der : row.crls) {
            const unsigned char *p = der.data();
            testpki::X509CrlPtr crl(d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size())));
            ASSERT_NE(crl, nullptr);
            ASSERT_EQ(X509_STORE_add_crl(store.get(), crl.get()), 1);
        }
        std::unique_ptr<STACK_OF(X509), testpki::Deleter<FreeStack>> untrusted(sk_X509_new_null());
        sk_X509_push(untrusted.get(), pki.ca.cert.get());
        std::unique_ptr<X509_STORE_CTX, testpki::Deleter<X509_STORE_CTX_free>> ctx(
            X509_STORE_CTX_new());
        ASSERT_EQ(X509_STORE_CTX_init(ctx.get(), store.get(), pki.leaf.cert.get(), untrusted.get()),
                  1);
        X509_STORE_CTX_set_time(ctx.get(), 0,
                                static_cast<time_t>(testpki::EpochOf(testpki::Gen(row.time))));
        if (!row.crls.empty()) {
            X509_STORE_CTX_set_flags(ctx.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
        }
        int ok = X509_verify_cert(ctx.get());
        EXPECT_EQ(X509_STORE_CTX_get_error(ctx.get()), row.expected)
            << X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx.get()));
        EXPECT_EQ(ok == 1, row.expected == X509_V_OK);
    }
}

struct CrlRow {
    const char *name;
    std::function<void(testpki::CrlSpec &)> edit;
    std::function<void(const Bytes &der, X509_CRL *crl)> check;
};

int ReasonOf(const X509_REVOKED *rev) {
    auto *reason = static_cast<ASN1_ENUMERATED *>(
        X509_REVOKED_get_ext_d2i(rev, NID_crl_reason, nullptr, nullptr));
    int value = reason ? static_cast<int>(ASN1_ENUMERATED_get(reason)) : -1;
    ASN1_ENUMERATED_free(reason);
    return value;
}

const CrlRow kCrlRows[] = {
    {"defaults", [](auto &) {},
     [](const Bytes &, X509_CRL *crl) {
         EXPECT_EQ(X509_CRL_get_version(crl), 1);
         EXPECT_EQ(
             X509_NAME_cmp(X509_CRL_get_issuer(crl), X509_get_subject_name(M().pki.ca.cert.get())),
             0);
         auto *number = static_cast<ASN1_INTEGER *>(
             X509_CRL_get_ext_d2i(crl, NID_crl_number, nullptr, nullptr));
         ASSERT_NE(number, nullptr);
         EXPECT_EQ(ASN1_INTEGER_get(number), 1);
         ASN1_INTEGER_free(number);
         EXPECT_EQ(X509_CRL_get_REVOKED(crl), nullptr);
     }},
    {"raw this update, no next update",
     [](auto &s) {
         s.thisUpdate = testpki::Gen("20250101000000.25Z");
         s.nextUpdate.reset();
     },
     [](const Bytes &, X509_CRL *crl) {
         EXPECT_EQ(ASN1_STRING_type(X509_CRL_get0_lastUpdate(crl)), V_ASN1_GENERALIZEDTIME);
         EXPECT_EQ(StringBytes(X509_CRL_get0_lastUpdate(crl)), Text("20250101000000.25Z"));
         EXPECT_EQ(X509_CRL_get0_nextUpdate(crl), nullptr);
     }},
    {"revoked entries keep order and reasons",
     [](auto &s) {
         s.revoked = {{{0x03}, testpki::Utc("250201000000Z"), 1},
                      {{0x01}, testpki::Gen("20250301000000Z"), std::nullopt},
                      {{0x00, 0x80}, testpki::Utc("250401000000Z"), 6}};
     },
     [](const Bytes &, X509_CRL *crl) {
         STACK_OF(X509_REVOKED) *list = X509_CRL_get_REVOKED(crl);
         ASSERT_EQ(sk_X509_REVOKED_num(list), 3);
         const long serials[] = {3, 1, 128};
         const int reasons[] = {1, -1, 6};
         for (int i = 0; i < 3; ++i) {
             const X509_REVOKED *rev = sk_X509_REVOKED_value(list, i);
             EXPECT_EQ(ASN1_INTEGER_get(X509_REVOKED_get0_serialNumber(rev)), serials[i]) << i;
             EXPECT_EQ(ReasonOf(rev), reasons[i]) << i;
         }
         EXPECT_EQ(
             ASN1_STRING_type(X509_REVOKED_get0_revocationDate(sk_X509_REVOKED_value(list, 1))),
             V_ASN1_GENERALIZEDTIME);
     }},
    {"indirect issuing distribution point",
     [](auto &s) {
         testpki::IssuingDistPoint idp;
         idp.uri = "http://crl.test/ca.crl";
         idp.indirectCrl = true;
         s.issuingDistPoint = idp;
     },
     [](const Bytes &, X509_CRL *crl) {
         int critical = 0;
         auto *idp = static_cast<ISSUING_DIST_POINT *>(
             X509_CRL_get_ext_d2i(crl, NID_issuing_distribution_point, &critical, nullptr));
         ASSERT_NE(idp, nullptr);
         EXPECT_EQ(critical, 1);
         EXPECT_EQ(idp->indirectCRL, 0xFF);  // a decoded TRUE
         EXPECT_EQ(idp->onlyuser, 0);
         EXPECT_EQ(idp->onlyCA, 0);
         ASSERT_NE(idp->distpoint, nullptr);
         EXPECT_EQ(sk_GENERAL_NAME_num(idp->distpoint->name.fullname), 1);
         ISSUING_DIST_POINT_free(idp);
     }},
    {"version 1 has no version field",
     [](auto &s) {
         s.version = 1;
         s.crlNumber.reset();
     },
     [](const Bytes &der, X509_CRL *crl) {
         EXPECT_EQ(X509_CRL_get_version(crl), 0);
         EXPECT_EQ(TbsChild(der, 0).at(0), 0x30);  // the signature algorithm comes first
     }},
    {"twenty-one entries",
     [](auto &s) {
         for (uint64_t i = 1; i <= 21; ++i) {
             s.revoked.push_back({testpki::SerialFromU64(i), testpki::Utc("250101000000Z"), 0});
         }
     },
     [](const Bytes &, X509_CRL *crl) {
         EXPECT_EQ(sk_X509_REVOKED_num(X509_CRL_get_REVOKED(crl)), 21);
     }},
    {"SHA-512 signature", [](auto &s) { s.digest = testpki::Digest::Sha512; },
     [](const Bytes &, X509_CRL *crl) {
         EXPECT_EQ(X509_CRL_get_signature_nid(crl), NID_sha512WithRSAEncryption);
     }},
};

TEST(TestPki, CrlsCarryWhatCrlSpecAsks) {
    for (const CrlRow &row : kCrlRows) {
        SCOPED_TRACE(row.name);
        testpki::CrlSpec plan;
        plan.issuer = M().pki.ca;
        row.edit(plan);
        Bytes der = testpki::MakeCrl(plan);
        const unsigned char *p = der.data();
        testpki::X509CrlPtr crl(d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size())));
        ASSERT_NE(crl, nullptr);
        EXPECT_EQ(p, der.data() + der.size());
        EXPECT_EQ(X509_CRL_verify(crl.get(), M().pki.ca.key.get()), 1);
        EXPECT_EQ(X509_CRL_verify(crl.get(), M().otherKey.get()), 0);
        ERR_clear_error();
        row.check(der, crl.get());
    }
}

TEST(TestPki, TimesFollowTheUtcWindow) {
    const struct {
        int64_t epoch;
        testpki::TimeType type;
        const char *text;
    } rows[] = {
        {2524607999, testpki::TimeType::Utc, "491231235959Z"},
        {2524608000, testpki::TimeType::Generalized, "20500101000000Z"},
        {-631152000, testpki::TimeType::Utc, "500101000000Z"},
        {-631152001, testpki::TimeType::Generalized, "19491231235959Z"},
    };
    for (const auto &row : rows) {
        testpki::Time t = testpki::TimeAt(row.epoch);
        EXPECT_EQ(t.type, row.type) << row.text;
        EXPECT_EQ(t.text, row.text);
        EXPECT_EQ(testpki::EpochOf(t), row.epoch) << row.text;
    }
}

TEST(TestPki, KeysHaveTheAdvertisedShape) {
    EXPECT_EQ(M().rootKey.Bits(), 4096);
    EXPECT_EQ(M().leafKey.Bits(), 2048);
    EXPECT_EQ(testpki::LoadTestKey("rsa-4104").Bits(), 4104);  // a 513-byte modulus
    EXPECT_EQ(EVP_PKEY_get_base_id(testpki::LoadTestKey("ec-p256").get()), EVP_PKEY_EC);
    EXPECT_THROW(testpki::LoadTestKey("no-such-key"), testpki::Error);
}

TEST(TestPki, PemAndConcatenationReadBack) {
    const testpki::DemoPki &pki = M().pki;
    std::string pem = testpki::PemBundle({{"CERTIFICATE", pki.root.cert.Der()},
                                          {"PUBLIC KEY", M().otherKey.PublicKeyDer()},
                                          {"X509 CRL", pki.rootCrl}});
    std::unique_ptr<BIO, testpki::Deleter<BIO_free>> bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    const std::pair<const char *, const Bytes *> expected[] = {
        {"CERTIFICATE", &pki.root.cert.Der()}, {"PUBLIC KEY", nullptr}, {"X509 CRL", &pki.rootCrl}};
    for (const auto &[label, der] : expected) {
        char *name = nullptr, *header = nullptr;
        unsigned char *data = nullptr;
        long len = 0;
        ASSERT_EQ(PEM_read_bio(bio.get(), &name, &header, &data, &len), 1) << label;
        EXPECT_STREQ(name, label);
        Bytes got(data, data + len);
        EXPECT_EQ(got, der ? *der : M().otherKey.PublicKeyDer());
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }

    Bytes both = testpki::ConcatDer({pki.ca.cert.Der(), pki.leaf.cert.Der()});
    const unsigned char *p = both.data();
    testpki::X509Ptr first(d2i_X509(nullptr, &p, static_cast<long>(both.size())));
    testpki::X509Ptr second(
        d2i_X509(nullptr, &p, static_cast<long>(both.data() + both.size() - p)));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(X509_cmp(first.get(), pki.ca.cert.get()), 0);
    EXPECT_EQ(X509_cmp(second.get(), pki.leaf.cert.get()), 0);
}

TEST(TestPki, WritesTheDemoHierarchy) {
    char tmpl[] = "/tmp/testpki-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::filesystem::path dir = tmpl;
    std::vector<std::string> files = testpki::WriteDemoPki(M().pki, dir / "out");
    EXPECT_EQ(files.size(), 14u);
    for (const std::string &file : files) {
        EXPECT_GT(std::filesystem::file_size(dir / "out" / file), 0u) << file;
    }
    std::ifstream in(dir / "out" / "leaf.der", std::ios::binary);
    Bytes leaf((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(leaf, M().pki.leaf.cert.Der());
    std::filesystem::remove_all(dir);
}

}  // namespace
