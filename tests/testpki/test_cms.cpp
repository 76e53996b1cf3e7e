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
#include <numeric>

namespace {

namespace tp = testpki;
using tp::Bytes;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, tp::Deleter<CMS_ContentInfo_free>>;
using BioPtr = std::unique_ptr<BIO, tp::Deleter<BIO_free>>;

const tp::DemoPki &Pki() {
    static const tp::DemoPki pki = tp::MakeDemoPki();
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

void FreeCerts(STACK_OF(X509) * s) {
    sk_X509_pop_free(s, X509_free);
}
using CertsPtr = std::unique_ptr<STACK_OF(X509), tp::Deleter<FreeCerts>>;

STACK_OF(X509) * Stack(const tp::Cert &cert) {
    STACK_OF(X509) *s = sk_X509_new_null();
    X509_up_ref(cert.get());
    sk_X509_push(s, cert.get());
    return s;
}

// The demo root (and the CA) as trust anchors, judged at the default genTime.
X509_STORE *RootStore() {
    X509_STORE *store = X509_STORE_new();
    X509_STORE_add_cert(store, Pki().root.cert.get());
    X509_STORE_add_cert(store, Pki().ca.cert.get());
    X509_VERIFY_PARAM_set_time(X509_STORE_get0_param(store), kGenTime);
    return store;
}

// TS_RESP_verify_token: signature, chain to the demo root for time stamping,
// version, and the imprint recomputed over `stamped`.
bool TokenVerifies(const Bytes &token, const Bytes &stamped) {
    const unsigned char *p = token.data();
    std::unique_ptr<PKCS7, tp::Deleter<PKCS7_free>> p7(
        d2i_PKCS7(nullptr, &p, static_cast<long>(token.size())));
    std::unique_ptr<TS_VERIFY_CTX, tp::Deleter<TS_VERIFY_CTX_free>> ctx(TS_VERIFY_CTX_new());
    TS_VERIFY_CTX_set_flags(ctx.get(), TS_VFY_SIGNATURE | TS_VFY_VERSION | TS_VFY_DATA);
    TS_VERIFY_CTX_set_store(ctx.get(), RootStore());
    TS_VERIFY_CTX_set_data(ctx.get(),
                           BIO_new_mem_buf(stamped.data(), static_cast<int>(stamped.size())));
    const bool ok = p7 && TS_RESP_verify_token(ctx.get(), p7.get()) == 1;
    ERR_clear_error();
    return ok;
}

TEST(TestPkiCms, SignedDataVerifiesWithOpenSsl) {
    const tp::DemoPki &pki = Pki();
    const struct {
        tp::Digest digest;
        std::vector<tp::Cert> certs;  // embedded, in this order
        bool signedAttrs;
        int digestNid;
        tp::Armour armour;
    } rows[] = {
        {tp::Digest::Sha256, {pki.ca.cert, pki.leaf.cert}, true, NID_sha256, tp::Armour::Der},
        {tp::Digest::Sha384, {}, true, NID_sha384, tp::Armour::PemCms},
        {tp::Digest::Sha512,
         {pki.tsa.cert, pki.leaf.cert, pki.ca.cert},
         true,
         NID_sha512,
         tp::Armour::PemPkcs7},
        {tp::Digest::Sha256, {}, false, NID_sha256, tp::Armour::Der},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.digestNid * 10 + row.signedAttrs);
        tp::SignSpec plan;
        plan.signer = pki.leaf;
        plan.digest = row.digest;
        plan.certs = row.certs;
        plan.signedAttrs = row.signedAttrs;
        const Bytes der = tp::MakeSignedData(plan, kContent);
        EXPECT_EQ(tp::MakeSignedData(plan, kContent), der);  // reproducible
        // Armoured, it reads back as the same DER.
        const Bytes text = tp::Armoured(der, row.armour);
        BioPtr armoured = Mem(text);
        char *name = nullptr, *header = nullptr;
        unsigned char *data = nullptr;
        long len = 0;
        if (row.armour != tp::Armour::Der) {
            ASSERT_EQ(PEM_read_bio(armoured.get(), &name, &header, &data, &len), 1);
            EXPECT_STREQ(name, row.armour == tp::Armour::PemCms ? "CMS" : "PKCS7");
            EXPECT_EQ(Bytes(data, data + len), der);
            OPENSSL_free(name);
            OPENSSL_free(header);
            OPENSSL_free(data);
        } else {
            EXPECT_EQ(text, der);
        }
        CmsPtr cms = ParseCms(der);
        ASSERT_NE(cms, nullptr);
        EXPECT_EQ(CMS_is_detached(cms.get()), 1);
        CertsPtr certs(CMS_get1_certs(cms.get()));  // null when there are none
        ASSERT_EQ(certs ? static_cast<size_t>(sk_X509_num(certs.get())) : 0, row.certs.size());
        for (size_t i = 0; i < row.certs.size(); ++i) {
            EXPECT_EQ(X509_cmp(sk_X509_value(certs.get(), static_cast<int>(i)), row.certs[i].get()),
                      0);
        }
        CMS_SignerInfo *si = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
        X509_ALGOR *digest = nullptr;
        CMS_SignerInfo_get0_algs(si, nullptr, nullptr, &digest, nullptr);
        EXPECT_EQ(OBJ_obj2nid(digest->algorithm), row.digestNid);
        ASN1_OCTET_STRING *keyId = nullptr;
        ASSERT_EQ(CMS_SignerInfo_get0_signer_id(si, &keyId, nullptr, nullptr), 1);
        EXPECT_EQ(keyId, nullptr);  // issuer and serial, not a key identifier
        EXPECT_EQ(CMS_signed_get_attr_count(si), row.signedAttrs ? 3 : -1);
        for (int nid : {NID_pkcs9_contentType, NID_pkcs9_signingTime, NID_pkcs9_messageDigest}) {
            EXPECT_EQ(CMS_signed_get_attr_by_NID(si, nid, -1) >= 0, row.signedAttrs);
        }
        // Chain to the demo root; code signing is not an S/MIME purpose.
        std::unique_ptr<X509_STORE, tp::Deleter<X509_STORE_free>> store(RootStore());
        X509_VERIFY_PARAM_set_purpose(X509_STORE_get0_param(store.get()), X509_PURPOSE_ANY);
        CertsPtr signer(Stack(pki.leaf.cert));
        EXPECT_EQ(CMS_verify(cms.get(), signer.get(), store.get(), Mem(kContent).get(), nullptr,
                             CMS_BINARY),
                  1);
    }
}

TEST(TestPkiCms, TimestampTokensCarryWhatThePlanAsks) {
    // clang-format off
    const struct {
        const char *name;
        void (*edit)(tp::TimestampSpec &);
        bool fitsTsApi;
        bool tsVerifies;  // TS_RESP_verify_token needs an ESS attribute and a TSA purpose
    } rows[] = {
        {"TS API, ESSCertIDv2", [](auto &) {}, true, true},
        {"TS API, ESSCertID, SHA-512 imprint", [](auto &s) {
             s.attrs = tp::TokenAttrs::EssCertId;
             s.imprintDigest = tp::Digest::Sha512; }, true, true},
        {"CMS, ESSCertIDv2, SHA-384 imprint", [](auto &s) {
             s.maker = tp::TokenMaker::Cms;
             s.imprintDigest = tp::Digest::Sha384; }, true, true},
        {"no signed attributes", [](auto &s) { s.attrs = tp::TokenAttrs::None; }, false, false},
        {"raw fractional genTime", [](auto &s) { s.genTime = "20260115120000.5Z"; }, false, true},
        {"TSA certificate for code signing", [](auto &s) {
             tp::CertSpec plan;
             plan.subjectKey = Pki().tsa.key;
             plan.issuer = Pki().ca;
             plan.serial = {0x77};
             plan.extKeyUsage = tp::ExtKeyUsage{{"codeSigning"}, true};
             s.tsa = tp::IssueCredential(plan); }, false, false},
    };
    // clang-format on
    const Bytes stamped = {0xDE, 0xAD, 0xBE, 0xEF};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        tp::TimestampSpec plan;
        plan.tsa = Pki().tsa;
        plan.serial = {0x01, 0x23};
        row.edit(plan);
        EXPECT_EQ(tp::FitsTsApi(plan), row.fitsTsApi);
        if (!row.fitsTsApi) {
            tp::TimestampSpec forced = plan;
            forced.maker = tp::TokenMaker::TsApi;
            EXPECT_THROW(tp::MakeTimestampToken(forced, stamped), tp::Error);
        }
        const Bytes token = tp::MakeTimestampToken(plan, stamped);
        EXPECT_EQ(TokenVerifies(token, stamped), row.tsVerifies);
        EXPECT_FALSE(TokenVerifies(token, kContent));

        CmsPtr cms = ParseCms(token);
        ASSERT_NE(cms, nullptr);
        EXPECT_EQ(OBJ_obj2nid(CMS_get0_eContentType(cms.get())), NID_id_smime_ct_TSTInfo);
        CertsPtr certs(CMS_get1_certs(cms.get()));
        ASSERT_EQ(sk_X509_num(certs.get()), 1);
        EXPECT_EQ(X509_cmp(sk_X509_value(certs.get(), 0), plan.tsa.cert.get()), 0);
        CMS_SignerInfo *si = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
        EXPECT_EQ(CMS_signed_get_attr_count(si), plan.attrs == tp::TokenAttrs::None ? -1 : 4);
        // The token's own signature holds, whatever OpenSSL's TS checks think.
        EXPECT_EQ(CMS_verify(cms.get(), nullptr, nullptr, nullptr, nullptr,
                             CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY),
                  1);
        // The TS API writes the same TSTInfo as the hand-built one.
        const Bytes tst = Of(*CMS_get0_content(cms.get()));
        EXPECT_EQ(tst, tp::MakeTstInfo(plan, stamped));
        const unsigned char *p = tst.data();
        std::unique_ptr<TS_TST_INFO, tp::Deleter<TS_TST_INFO_free>> info(
            d2i_TS_TST_INFO(nullptr, &p, static_cast<long>(tst.size())));
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(Of(TS_TST_INFO_get_time(info.get())),
                  Bytes(plan.genTime.begin(), plan.genTime.end()));
        EXPECT_EQ(Of(TS_TST_INFO_get_serial(info.get())), plan.serial);
        char policy[64];
        OBJ_obj2txt(policy, sizeof(policy), TS_TST_INFO_get_policy_id(info.get()), 1);
        EXPECT_EQ(policy, plan.policy);
        EXPECT_EQ(Of(TS_MSG_IMPRINT_get_msg(TS_TST_INFO_get_msg_imprint(info.get()))),
                  Sha(tp::DigestMd(plan.imprintDigest), stamped));
    }
}

// What OpenSSL makes of a package; each fault must change exactly the facts
// its row names.
struct Facts {
    bool parses = false;
    int signers = 0, certs = 0;
    bool attrsSignatureHolds = false;  // signature over the signed attributes
    bool digestMatches = false;        // messageDigest attribute vs the content
    bool signerCodeSigning = false, stamped = false, imprintOverSignature = false;
    bool tsaTimeStamping = false;
    bool operator==(const Facts &) const = default;
};

Facts Observe(const tp::Package &pkg) {
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
    const Bytes token = tp::TimestampTokenOf(pkg.signature);
    f.stamped = !token.empty();
    if (f.stamped) {
        CmsPtr tcms = ParseCms(token);
        const Bytes tst = Of(*CMS_get0_content(tcms.get()));
        const unsigned char *p = tst.data();
        std::unique_ptr<TS_TST_INFO, tp::Deleter<TS_TST_INFO_free>> info(
            d2i_TS_TST_INFO(nullptr, &p, static_cast<long>(tst.size())));
        TS_MSG_IMPRINT *imprint = TS_TST_INFO_get_msg_imprint(info.get());
        const EVP_MD *imd = EVP_get_digestbyobj(TS_MSG_IMPRINT_get_algo(imprint)->algorithm);
        f.imprintOverSignature =
            Of(TS_MSG_IMPRINT_get_msg(imprint)) == Sha(imd, tp::SignatureValueOf(pkg.signature));
        CertsPtr tsa(CMS_get1_certs(tcms.get()));
        f.tsaTimeStamping =
            (X509_get_extended_key_usage(sk_X509_value(tsa.get(), 0)) & XKU_TIMESTAMP) != 0;
    }
    ERR_clear_error();
    return f;
}

TEST(TestPkiCms, PackageFaultsAreFaultyExactlyAsNamed) {
    const Facts good{true, 1, 2, true, true, true, true, true, true};
    auto with = [&](void (*edit)(Facts &)) {
        Facts f = good;
        edit(f);
        return f;
    };
    using F = tp::Fault;
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
    static_assert(std::size(rows) == std::size(tp::kAllFaults));
    const std::string checksums = tp::DemoChecksums();
    const Bytes content(checksums.begin(), checksums.end());
    const tp::Package valid = tp::MakePackage(Pki(), F::None, content);
    for (const auto &[fault, expected] : rows) {
        SCOPED_TRACE(tp::FaultName(fault));
        const tp::Package pkg = tp::MakePackage(Pki(), fault, content);
        EXPECT_EQ(Observe(pkg), expected);
        // Spoiled after signing: one byte differs, the rest stays the valid package.
        if (fault == F::ChangedContent || fault == F::TamperedSignedAttr) {
            const bool inContent = fault == F::ChangedContent;
            const Bytes &a = inContent ? pkg.content : pkg.signature;
            const Bytes &b = inContent ? valid.content : valid.signature;
            ASSERT_EQ(a.size(), b.size());
            EXPECT_EQ(std::inner_product(a.begin(), a.end(), b.begin(), 0, std::plus<>(),
                                         std::not_equal_to<>()),
                      1);
            EXPECT_EQ(inContent ? pkg.signature : pkg.content,
                      inContent ? valid.signature : valid.content);
        }
    }
    EXPECT_TRUE(TokenVerifies(tp::TimestampTokenOf(valid.signature),
                              tp::SignatureValueOf(valid.signature)));
}

TEST(TestPkiCms, DemoRootAndPackageFiles) {
    const Bytes &der = Pki().root.cert.Der();
    ASSERT_EQ(der.size(), tp::kDemoRootSize);
    EXPECT_EQ(Bytes(der.begin(), der.begin() + 4), (Bytes{0x30, 0x82, 0x05, 0x4F}));  // 1359
    EXPECT_EQ(tp::MakeDemoRoot().cert.Der(), der);
    X509 *x = Pki().root.cert.get();
    EXPECT_EQ(X509_NAME_cmp(X509_get_subject_name(x), X509_get_issuer_name(x)), 0);
    EXPECT_EQ(X509_verify(x, X509_get0_pubkey(x)), 1);
    EXPECT_EQ(EVP_PKEY_get_bits(X509_get0_pubkey(x)), 4096);
    EXPECT_EQ(X509_get_signature_nid(x), NID_sha256WithRSAEncryption);
    auto text = [](const ASN1_TIME *t) {
        const Bytes b = Of(t);
        return std::to_string(ASN1_STRING_type(t)) + ":" + std::string(b.begin(), b.end());
    };
    EXPECT_EQ(text(X509_get0_notBefore(x)), std::to_string(V_ASN1_UTCTIME) + ":151015000000Z");
    EXPECT_EQ(text(X509_get0_notAfter(x)),
              std::to_string(V_ASN1_GENERALIZEDTIME) + ":20501015000000Z");
    const int order[] = {NID_authority_key_identifier, NID_basic_constraints, NID_key_usage,
                         NID_subject_key_identifier};
    ASSERT_EQ(X509_get_ext_count(x), 4);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(OBJ_obj2nid(X509_EXTENSION_get_object(X509_get_ext(x, i))), order[i]) << i;
    }
    EXPECT_NE(X509_get_extension_flags(x) & EXFLAG_CA, 0u);
    EXPECT_EQ(X509_get_key_usage(x), uint32_t{KU_KEY_CERT_SIGN | KU_CRL_SIGN});
    EXPECT_EQ(Of(X509_get0_authority_key_id(x)), Of(X509_get0_subject_key_id(x)));
    // The tool keeps the last 131 bytes apart: they lie inside the
    // signature, which ends the certificate.
    const ASN1_BIT_STRING *sig = nullptr;
    X509_get0_signature(&sig, nullptr, x);
    ASSERT_EQ(ASN1_STRING_length(sig), 512);
    EXPECT_EQ(Bytes(der.end() - 512, der.end()), Of(sig));

    char tmpl[] = "/tmp/testpki-package-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::filesystem::path dir = tmpl;
    auto read = [&](const std::string &name) {
        std::ifstream in(dir / name, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    };
    for (const std::string &file : tp::WriteDemoPackage(Pki(), dir)) {
        EXPECT_FALSE(read(file).empty()) << file;
    }
    const Bytes content = read("sha256sums");
    EXPECT_EQ(std::string(content.begin(), content.end()), tp::DemoChecksums());
    EXPECT_EQ(read("root.der"), der);
    EXPECT_EQ(read("sha256sums.p7s"), tp::MakePackage(Pki(), tp::Fault::None, content).signature);
    EXPECT_NE(read("sha256sums.tampered"), content);
    EXPECT_EQ(read("faults/garbage/sha256sums.p7s").size(), 512u);
    std::filesystem::remove_all(dir);
}

}  // namespace
