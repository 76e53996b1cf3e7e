// Signatures, timestamp tokens, packages and the demo root, read back and
// verified by OpenSSL's own CMS and TS code.
#include "tools/testpki/testpki.h"

#include <gtest/gtest.h>
// pem.h first: cms.h declares the PEM readers only after it.
#include <openssl/pem.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/ts.h>
#include <openssl/x509v3.h>

#include <fstream>
#include <functional>

namespace {

using testpki::Bytes;
template <auto F>
using Ptr = testpki::Deleter<F>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Ptr<CMS_ContentInfo_free>>;
using BioPtr = std::unique_ptr<BIO, Ptr<BIO_free>>;
using StorePtr = std::unique_ptr<X509_STORE, Ptr<X509_STORE_free>>;

const testpki::DemoPki &Pki() {
    static const testpki::DemoPki pki = testpki::MakeDemoPki();
    return pki;
}
const Bytes kContent = {'h', 'e', 'l', 'l', 'o', '\n'};
const int64_t kGenTime = 1768478400;  // 2026-01-15 12:00:00, the default genTime

CmsPtr ParseCms(const Bytes &der) {
    const unsigned char *p = der.data();
    CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(der.size())));
    ERR_clear_error();
    return cms;
}

BioPtr Mem(const Bytes &data) {
    return BioPtr(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
}

Bytes Sha(const EVP_MD *md, const Bytes &data) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int len = 0;
    EVP_Digest(data.data(), data.size(), out.data(), &len, md, nullptr);
    out.resize(len);
    return out;
}

Bytes Of(const ASN1_STRING *s) {
    return s ? Bytes(ASN1_STRING_get0_data(s), ASN1_STRING_get0_data(s) + ASN1_STRING_length(s))
             : Bytes{};
}

STACK_OF(X509) * Stack(std::initializer_list<const testpki::Cert *> certs) {
    STACK_OF(X509) *s = sk_X509_new_null();
    for (const testpki::Cert *c : certs) {
        X509_up_ref(c->get());
        sk_X509_push(s, c->get());
    }
    return s;
}

void FreeCerts(STACK_OF(X509) * s) {
    sk_X509_pop_free(s, X509_free);
}
using CertsPtr = std::unique_ptr<STACK_OF(X509), Ptr<FreeCerts>>;

// The demo root as the only trust anchor, judged at the default genTime.
X509_STORE *RootStore() {
    X509_STORE *store = X509_STORE_new();
    X509_STORE_add_cert(store, Pki().root.cert.get());
    X509_VERIFY_PARAM_set_time(X509_STORE_get0_param(store), kGenTime);
    return store;
}

// TS_RESP_verify_token: signature, chain to the demo root for time stamping,
// version, and the imprint recomputed over `stamped`.
bool TokenVerifies(const Bytes &token, const Bytes &stamped) {
    const unsigned char *p = token.data();
    std::unique_ptr<PKCS7, Ptr<PKCS7_free>> p7(
        d2i_PKCS7(nullptr, &p, static_cast<long>(token.size())));
    std::unique_ptr<TS_VERIFY_CTX, Ptr<TS_VERIFY_CTX_free>> ctx(TS_VERIFY_CTX_new());
    TS_VERIFY_CTX_set_flags(ctx.get(), TS_VFY_SIGNATURE | TS_VFY_VERSION | TS_VFY_DATA);
    TS_VERIFY_CTX_set_store(ctx.get(), RootStore());
    TS_VERIFY_CTX_set_certs(ctx.get(), Stack({&Pki().ca.cert}));
    TS_VERIFY_CTX_set_data(ctx.get(),
                           BIO_new_mem_buf(stamped.data(), static_cast<int>(stamped.size())));
    bool ok = p7 && TS_RESP_verify_token(ctx.get(), p7.get()) == 1;
    ERR_clear_error();
    return ok;
}

// ---- SignedData -------------------------------------------------------------

struct SignRow {
    const char *name;
    std::function<void(testpki::SignSpec &)> edit;
    std::vector<const testpki::Cert *> embedded;  // expected, in order
    int digestNid;
    int signedAttrs;  // -1: none at all
};

TEST(TestPkiCms, SignedDataVerifiesWithOpenSsl) {
    const testpki::DemoPki &pki = Pki();
    const SignRow rows[] = {
        {"two certificates against DER order",
         [&](auto &s) {
             s.certs = {pki.ca.cert, pki.leaf.cert};
         },
         {&pki.ca.cert, &pki.leaf.cert},
         NID_sha256,
         3},
        {"no certificates, SHA-384",
         [](auto &s) { s.digest = testpki::Digest::Sha384; },
         {},
         NID_sha384,
         3},
        {"three certificates, SHA-512",
         [&](auto &s) {
             s.digest = testpki::Digest::Sha512;
             s.certs = {pki.tsa.cert, pki.leaf.cert, pki.ca.cert};
         },
         {&pki.tsa.cert, &pki.leaf.cert, &pki.ca.cert},
         NID_sha512,
         3},
        {"no signed attributes", [](auto &s) { s.signedAttrs = false; }, {}, NID_sha256, -1},
    };
    for (const SignRow &row : rows) {
        SCOPED_TRACE(row.name);
        testpki::SignSpec plan;
        plan.signer = pki.leaf;
        row.edit(plan);
        Bytes der = testpki::MakeSignedData(plan, kContent);
        EXPECT_EQ(testpki::MakeSignedData(plan, kContent), der);  // reproducible
        CmsPtr cms = ParseCms(der);
        ASSERT_NE(cms, nullptr);
        EXPECT_EQ(CMS_is_detached(cms.get()), 1);
        CertsPtr certs(CMS_get1_certs(cms.get()));  // null when there are none
        ASSERT_EQ(certs ? static_cast<size_t>(sk_X509_num(certs.get())) : 0, row.embedded.size());
        for (size_t i = 0; i < row.embedded.size(); ++i) {
            EXPECT_EQ(
                X509_cmp(sk_X509_value(certs.get(), static_cast<int>(i)), row.embedded[i]->get()),
                0);
        }
        CMS_SignerInfo *si = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
        X509_ALGOR *digest = nullptr;
        CMS_SignerInfo_get0_algs(si, nullptr, nullptr, &digest, nullptr);
        EXPECT_EQ(OBJ_obj2nid(digest->algorithm), row.digestNid);
        ASN1_OCTET_STRING *keyId = nullptr;
        X509_NAME *issuer = nullptr;
        ASN1_INTEGER *serial = nullptr;
        ASSERT_EQ(CMS_SignerInfo_get0_signer_id(si, &keyId, &issuer, &serial), 1);
        EXPECT_EQ(keyId, nullptr);  // issuer and serial, not a key identifier
        EXPECT_EQ(CMS_SignerInfo_cert_cmp(si, pki.leaf.cert.get()), 0);
        EXPECT_EQ(CMS_signed_get_attr_count(si), row.signedAttrs);
        if (row.signedAttrs > 0) {
            for (int nid :
                 {NID_pkcs9_contentType, NID_pkcs9_signingTime, NID_pkcs9_messageDigest}) {
                EXPECT_GE(CMS_signed_get_attr_by_NID(si, nid, -1), 0) << OBJ_nid2sn(nid);
            }
        }

        // Chain to the demo root; code signing is not an S/MIME purpose. The
        // CA is in the store as CMS_verify builds chains from embedded
        // certificates only, and `certs` only supplies the signer.
        StorePtr store(RootStore());
        X509_STORE_add_cert(store.get(), pki.ca.cert.get());
        X509_VERIFY_PARAM_set_purpose(X509_STORE_get0_param(store.get()), X509_PURPOSE_ANY);
        CertsPtr untrusted(Stack({&pki.leaf.cert}));
        EXPECT_EQ(CMS_verify(cms.get(), untrusted.get(), store.get(), Mem(kContent).get(), nullptr,
                             CMS_BINARY),
                  1);
    }
}

TEST(TestPkiCms, ArmoursReadBackAsTheSameDer) {
    testpki::SignSpec plan;
    plan.signer = Pki().leaf;
    Bytes der = testpki::MakeSignedData(plan, kContent);
    const std::pair<testpki::Armour, std::string> rows[] = {
        {testpki::Armour::PemCms, "-----BEGIN CMS-----\n"},
        {testpki::Armour::PemPkcs7, "-----BEGIN PKCS7-----\n"}};
    for (const auto &[armour, head] : rows) {
        Bytes pem = testpki::Armoured(der, armour);
        EXPECT_EQ(std::string(pem.begin(), pem.begin() + static_cast<ptrdiff_t>(head.size())),
                  head);
        CmsPtr cms(PEM_read_bio_CMS(Mem(pem).get(), nullptr, nullptr, nullptr));
        ASSERT_NE(cms, nullptr) << head;
        unsigned char *out = nullptr;
        int len = i2d_CMS_ContentInfo(cms.get(), &out);
        EXPECT_EQ(Bytes(out, out + len), der) << head;
        OPENSSL_free(out);
    }
    EXPECT_EQ(testpki::Armoured(der, testpki::Armour::Der), der);
}

// ---- timestamp tokens -------------------------------------------------------

struct TokenRow {
    const char *name;
    std::function<void(testpki::TimestampSpec &)> edit;
    bool fitsTsApi;
    bool tsVerifies;  // TS_RESP_verify_token needs an ESS attribute and a TSA purpose
    int signedAttrs;
};

TEST(TestPkiCms, TimestampTokensCarryWhatTheSpecAsks) {
    const TokenRow rows[] = {
        {"TS API, ESSCertIDv2", [](auto &) {}, true, true, 4},
        {"TS API, ESSCertID, SHA-512 imprint",
         [](auto &s) {
             s.attrs = testpki::TokenAttrs::EssCertId;
             s.imprintDigest = testpki::Digest::Sha512;
         },
         true, true, 4},
        {"CMS, ESSCertIDv2, SHA-384 imprint",
         [](auto &s) {
             s.maker = testpki::TokenMaker::Cms;
             s.imprintDigest = testpki::Digest::Sha384;
         },
         true, true, 4},
        {"no signed attributes", [](auto &s) { s.attrs = testpki::TokenAttrs::None; }, false, false,
         -1},
        {"raw fractional genTime", [](auto &s) { s.genTime = "20260115120000.5Z"; }, false, true,
         4},
        {"TSA certificate for code signing",
         [](auto &s) {
             testpki::CertSpec plan;
             plan.subjectKey = Pki().tsa.key;
             plan.issuer = Pki().ca;
             plan.serial = {0x77};
             plan.extKeyUsage = testpki::ExtKeyUsage{{"codeSigning"}, true};
             s.tsa = testpki::IssueCredential(plan);
         },
         false, false, 4},
    };
    const Bytes stamped = {0xDE, 0xAD, 0xBE, 0xEF};
    for (const TokenRow &row : rows) {
        SCOPED_TRACE(row.name);
        testpki::TimestampSpec plan;
        plan.tsa = Pki().tsa;
        plan.serial = {0x01, 0x23};
        row.edit(plan);
        EXPECT_EQ(testpki::FitsTsApi(plan), row.fitsTsApi);
        if (!row.fitsTsApi) {
            plan.maker = testpki::TokenMaker::TsApi;
            EXPECT_THROW(testpki::MakeTimestampToken(plan, stamped), testpki::Error);
            plan.maker = testpki::TokenMaker::Auto;
        }
        Bytes token = testpki::MakeTimestampToken(plan, stamped);
        EXPECT_EQ(TokenVerifies(token, stamped), row.tsVerifies);
        EXPECT_FALSE(TokenVerifies(token, kContent));

        CmsPtr cms = ParseCms(token);
        ASSERT_NE(cms, nullptr);
        EXPECT_EQ(OBJ_obj2nid(CMS_get0_eContentType(cms.get())), NID_id_smime_ct_TSTInfo);
        CertsPtr certs(CMS_get1_certs(cms.get()));
        ASSERT_EQ(sk_X509_num(certs.get()), 1);
        EXPECT_EQ(X509_cmp(sk_X509_value(certs.get(), 0), plan.tsa.cert.get()), 0);
        CMS_SignerInfo *si = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
        EXPECT_EQ(CMS_signed_get_attr_count(si), row.signedAttrs);
        // The token's own signature holds, whatever OpenSSL's TS checks think.
        EXPECT_EQ(CMS_verify(cms.get(), nullptr, nullptr, nullptr, nullptr,
                             CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY),
                  1);

        ASN1_OCTET_STRING **content = CMS_get0_content(cms.get());
        Bytes tst = Of(*content);
        // The TS API writes the same TSTInfo as the hand-built one.
        EXPECT_EQ(tst, testpki::MakeTstInfo(plan, stamped));
        const unsigned char *p = tst.data();
        std::unique_ptr<TS_TST_INFO, Ptr<TS_TST_INFO_free>> info(
            d2i_TS_TST_INFO(nullptr, &p, static_cast<long>(tst.size())));
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(Of(TS_TST_INFO_get_time(info.get())),
                  Bytes(plan.genTime.begin(), plan.genTime.end()));
        EXPECT_EQ(Of(TS_TST_INFO_get_serial(info.get())), plan.serial);
        char policy[64];
        OBJ_obj2txt(policy, sizeof(policy), TS_TST_INFO_get_policy_id(info.get()), 1);
        EXPECT_EQ(policy, plan.policy);
        TS_MSG_IMPRINT *imprint = TS_TST_INFO_get_msg_imprint(info.get());
        EXPECT_EQ(Of(TS_MSG_IMPRINT_get_msg(imprint)),
                  Sha(testpki::DigestMd(plan.imprintDigest), stamped));
    }
}

// ---- packages ---------------------------------------------------------------

// What OpenSSL makes of a package; each fault must change exactly the facts
// its row names.
struct Facts {
    bool parses = false;
    int signers = 0;
    int certs = 0;
    bool attrsSignatureHolds = false;  // signature over the signed attributes
    bool digestMatches = false;        // messageDigest attribute vs the content
    bool signerCodeSigning = false;
    bool stamped = false;
    bool imprintOverSignature = false;
    bool tsaTimeStamping = false;
    bool operator==(const Facts &) const = default;
};

Facts Observe(const testpki::Package &pkg) {
    Facts f;
    CmsPtr cms = ParseCms(pkg.signature);
    if (!cms) {
        return f;
    }
    f.parses = true;
    CertsPtr certs(CMS_get1_certs(cms.get()));
    f.certs = sk_X509_num(certs.get());
    f.signers = sk_CMS_SignerInfo_num(CMS_get0_SignerInfos(cms.get()));
    if (f.signers != 1) {
        return f;
    }
    CMS_set1_signers_certs(cms.get(), nullptr, 0);
    CMS_SignerInfo *si = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
    X509 *signer = nullptr;
    X509_ALGOR *digest = nullptr;
    CMS_SignerInfo_get0_algs(si, nullptr, &signer, &digest, nullptr);
    f.attrsSignatureHolds = CMS_SignerInfo_verify(si) == 1;
    auto *md = static_cast<ASN1_OCTET_STRING *>(CMS_signed_get0_data_by_OBJ(
        si, OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING));
    f.digestMatches = Of(md) == Sha(EVP_get_digestbyobj(digest->algorithm), pkg.content);
    f.signerCodeSigning = (X509_get_extended_key_usage(signer) & XKU_CODE_SIGN) != 0;

    Bytes token = testpki::TimestampTokenOf(pkg.signature);
    f.stamped = !token.empty();
    if (f.stamped) {
        CmsPtr tcms = ParseCms(token);
        Bytes tst = Of(*CMS_get0_content(tcms.get()));
        const unsigned char *p = tst.data();
        std::unique_ptr<TS_TST_INFO, Ptr<TS_TST_INFO_free>> info(
            d2i_TS_TST_INFO(nullptr, &p, static_cast<long>(tst.size())));
        TS_MSG_IMPRINT *imprint = TS_TST_INFO_get_msg_imprint(info.get());
        const EVP_MD *imd = EVP_get_digestbyobj(TS_MSG_IMPRINT_get_algo(imprint)->algorithm);
        f.imprintOverSignature = Of(TS_MSG_IMPRINT_get_msg(imprint)) ==
                                 Sha(imd, testpki::SignatureValueOf(pkg.signature));
        CertsPtr tsa(CMS_get1_certs(tcms.get()));
        f.tsaTimeStamping =
            (X509_get_extended_key_usage(sk_X509_value(tsa.get(), 0)) & XKU_TIMESTAMP) != 0;
    }
    ERR_clear_error();
    return f;
}

TEST(TestPkiCms, PackageFaultsAreFaultyExactlyAsNamed) {
    const Facts good{true, 1, 2, true, true, true, true, true, true};
    auto with = [&](std::function<void(Facts &)> edit) {
        Facts f = good;
        edit(f);
        return f;
    };
    using F = testpki::Fault;
    const std::pair<F, Facts> rows[] = {
        {F::None, good},
        {F::NoTimestamp,
         with([](Facts &f) { f.stamped = f.imprintOverSignature = f.tsaTimeStamping = false; })},
        {F::ImprintOverContent, with([](Facts &f) { f.imprintOverSignature = false; })},
        {F::TamperedSignedAttr, with([](Facts &f) { f.attrsSignatureHolds = false; })},
        {F::SignerWithoutCodeSigning, with([](Facts &f) { f.signerCodeSigning = false; })},
        {F::TsaWithoutTimeStamping, with([](Facts &f) { f.tsaTimeStamping = false; })},
        {F::ThreeCerts, with([](Facts &f) { f.certs = 3; })},
        {F::NoSigner, Facts{true, 0, 2}},
        {F::ChangedContent, with([](Facts &f) { f.digestMatches = false; })},
        {F::Garbage, Facts{}},
    };
    static_assert(std::size(rows) == std::size(testpki::kAllFaults));
    const std::string checksums = testpki::DemoChecksums();
    const Bytes content(checksums.begin(), checksums.end());
    const testpki::Package valid = testpki::MakePackage(Pki(), F::None, content);
    for (const auto &[fault, expected] : rows) {
        SCOPED_TRACE(testpki::FaultName(fault));
        testpki::Package pkg = testpki::MakePackage(Pki(), fault, content);
        EXPECT_EQ(Observe(pkg), expected);
        // Spoiled after signing: the rest stays byte for byte the valid package.
        auto differing = [](const Bytes &a, const Bytes &b) {
            size_t n = 0;
            for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
                n += a[i] != b[i];
            }
            return n;
        };
        if (fault == F::ChangedContent || fault == F::TamperedSignedAttr) {
            bool content = fault == F::ChangedContent;
            EXPECT_EQ(differing(content ? pkg.content : pkg.signature,
                                content ? valid.content : valid.signature),
                      1u);
            EXPECT_EQ(content ? pkg.signature : pkg.content,
                      content ? valid.signature : valid.content);
        }
    }
    EXPECT_TRUE(TokenVerifies(testpki::TimestampTokenOf(valid.signature),
                              testpki::SignatureValueOf(valid.signature)));
}

// ---- the demo root and package ----------------------------------------------

TEST(TestPkiCms, DemoRootHasItsFixedShape) {
    const testpki::Cert &root = Pki().root.cert;
    const Bytes &der = root.Der();
    ASSERT_EQ(der.size(), testpki::kDemoRootSize);
    EXPECT_EQ(Bytes(der.begin(), der.begin() + 4), (Bytes{0x30, 0x82, 0x05, 0x4F}));  // 1359
    EXPECT_EQ(testpki::MakeDemoRoot().cert.Der(), der);

    X509 *x = root.get();
    EXPECT_EQ(X509_NAME_cmp(X509_get_subject_name(x), X509_get_issuer_name(x)), 0);
    EXPECT_EQ(X509_verify(x, X509_get0_pubkey(x)), 1);
    EXPECT_EQ(EVP_PKEY_get_bits(X509_get0_pubkey(x)), 4096);
    EXPECT_EQ(X509_get_signature_nid(x), NID_sha256WithRSAEncryption);
    EXPECT_EQ(ASN1_STRING_type(X509_get0_notBefore(x)), V_ASN1_UTCTIME);
    EXPECT_EQ(ASN1_STRING_type(X509_get0_notAfter(x)), V_ASN1_GENERALIZEDTIME);
    auto text = [](const ASN1_TIME *t) {
        return std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(t)),
                           static_cast<size_t>(ASN1_STRING_length(t)));
    };
    EXPECT_EQ(text(X509_get0_notBefore(x)), "151015000000Z");
    EXPECT_EQ(text(X509_get0_notAfter(x)), "20501015000000Z");
    const int order[] = {NID_authority_key_identifier, NID_basic_constraints, NID_key_usage,
                         NID_subject_key_identifier};
    ASSERT_EQ(X509_get_ext_count(x), 4);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(OBJ_obj2nid(X509_EXTENSION_get_object(X509_get_ext(x, i))), order[i]) << i;
    }
    EXPECT_NE(X509_get_extension_flags(x) & EXFLAG_CA, 0u);
    EXPECT_EQ(X509_get_key_usage(x), uint32_t{KU_KEY_CERT_SIGN | KU_CRL_SIGN});
    EXPECT_EQ(Of(X509_get0_authority_key_id(x)), Of(X509_get0_subject_key_id(x)));
    // The tool keeps the last 131 bytes apart: they must lie inside the
    // signature, which ends the certificate.
    const ASN1_BIT_STRING *sig = nullptr;
    X509_get0_signature(&sig, nullptr, x);
    ASSERT_EQ(ASN1_STRING_length(sig), 512);
    EXPECT_EQ(Bytes(der.end() - 512, der.end()), Of(sig));
}

TEST(TestPkiCms, WritesTheDemoPackage) {
    char tmpl[] = "/tmp/testpki-package-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::filesystem::path dir = tmpl;
    std::vector<std::string> files = testpki::WriteDemoPackage(Pki(), dir);
    auto read = [&](const std::string &name) {
        std::ifstream in(dir / name, std::ios::binary);
        return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    };
    for (const std::string &file : files) {
        EXPECT_FALSE(read(file).empty()) << file;
    }
    const Bytes content = read("sha256sums");
    EXPECT_EQ(std::string(content.begin(), content.end()), testpki::DemoChecksums());
    EXPECT_EQ(read("root.der"), Pki().root.cert.Der());
    EXPECT_EQ(read("sha256sums.p7s"),
              testpki::MakePackage(Pki(), testpki::Fault::None, content).signature);
    EXPECT_NE(read("sha256sums.tampered"), content);
    EXPECT_EQ(read("faults/garbage/sha256sums.p7s").size(), 512u);
    std::filesystem::remove_all(dir);
}

}  // namespace
