// SignedData and timestamp-token decoding: signatures and tokens made by
// OpenSSL at test time, read back field by field against what OpenSSL itself
// reports for the same bytes, the structural limits (certificates, signers,
// signer identifier form) and hostile inputs.
#include "cms/asn1/pkcs7.h"

#include <openssl/cms.h>
#include <openssl/ts.h>
#include <openssl/x509.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cms/asn1/internal.h"
#include "tests/support/syslog_capture.h"
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;
using tp::Bytes;

Bytes Content(const DorvexAsnOcts &o) {
    return o.data == nullptr ? Bytes{} : Bytes(o.data, o.data + o.len);
}

Bytes Asn1Bytes(const ASN1_STRING *s) {
    const uint8_t *p = ASN1_STRING_get0_data(s);
    return Bytes(p, p + ASN1_STRING_length(s));
}

// DER of an OpenSSL object through its i2d function.
template <typename T>
Bytes I2d(int (*i2d)(const T *, unsigned char **), const T *object) {
    unsigned char *out = nullptr;
    const int len = i2d(object, &out);
    EXPECT_GT(len, 0);
    Bytes der(out, out + (len > 0 ? len : 0));
    OPENSSL_free(out);
    return der;
}

// Identifier content octets, as the decoder keeps them.
Bytes OidContent(const ASN1_OBJECT *oid) {
    const Bytes der = I2d(i2d_ASN1_OBJECT, oid);
    return Bytes(der.begin() + 2, der.end());
}

using CmsPtr = std::unique_ptr<CMS_ContentInfo, tp::Deleter<CMS_ContentInfo_free>>;
// The stack holds borrowed certificates.
struct StackFree {
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
using CertStack = std::unique_ptr<STACK_OF(X509), StackFree>;
using BioPtr = std::unique_ptr<BIO, tp::Deleter<BIO_free>>;

const char kPayload[] = "sha256sums of the package\n";

struct Pki {
    tp::Credential ca, leaf, other, tsa, ecLeaf;
};

const Pki &TestPki() {
    static const Pki pki = [] {
        Pki p;
        tp::CertSpec ca;
        ca.subjectKey = tp::LoadTestKey("ca-2048");
        ca.subject = tp::SimpleName({{"C", "DE"}, {"O", "Test"}, {"CN", "Signing CA"}});
        ca.basicConstraints = tp::BasicConstraints();
        p.ca = tp::IssueCredential(ca);
        auto issued = [&p](const char *key, const char *cn, uint64_t serial, const char *purpose) {
            tp::CertSpec spec;
            spec.subjectKey = tp::LoadTestKey(key);
            spec.issuer = p.ca;
            spec.subject = tp::SimpleName({{"O", "Test"}, {"CN", cn}});
            spec.serial = tp::SerialFromU64(serial);
            spec.extKeyUsage = tp::ExtKeyUsage{{purpose}, true};
            spec.subjectKeyId = true;
            tp::Credential issued = tp::IssueCredential(spec);
            // OpenSSL's own parse, so that its comparisons see what the DER says.
            issued.cert = tp::Cert::FromDer(issued.cert.Der());
            return issued;
        };
        p.leaf = issued("leaf-2048", "Code Signer", 0x8001, "codeSigning");
        p.other = issued("other-2048", "Second Signer", 0x22, "codeSigning");
        p.tsa = issued("tsa-2048", "Time Stamping", 0x0133, "timeStamping");
        p.ecLeaf = issued("ec-p256", "EC Signer", 0x44, "codeSigning");
        return p;
    }();
    return pki;
}

CertStack Stack(const std::vector<const tp::Credential *> &creds) {
    CertStack stack(sk_X509_new_null());
    for (const tp::Credential *c : creds) {
        sk_X509_push(stack.get(), c->cert.get());
    }
    return stack;
}

// Signing choices of one SignedData.
struct SignPlan {
    std::vector<const tp::Credential *> signers = {&TestPki().leaf};
    std::vector<const tp::Credential *> extraCerts = {&TestPki().ca};
    const EVP_MD *md = EVP_sha256();
    unsigned flags = CMS_DETACHED | CMS_BINARY;
    bool withCrl = false;
    Bytes token;  // added as id-aa-timeStampToken to every signer when set
};

CmsPtr SignCms(const SignPlan &plan) {
    CertStack extra = Stack(plan.extraCerts);
    BioPtr data(BIO_new_mem_buf(kPayload, sizeof kPayload - 1));
    CmsPtr cms(CMS_sign(nullptr, nullptr, extra.get(), nullptr, plan.flags | CMS_PARTIAL));
    EXPECT_NE(cms, nullptr);
    for (const tp::Credential *s : plan.signers) {
        EXPECT_NE(CMS_add1_signer(cms.get(), s->cert.get(), s->key.get(), plan.md, plan.flags),
                  nullptr);
    }
    if (plan.withCrl) {
        tp::CrlSpec crl;
        crl.issuer = TestPki().ca;
        const Bytes der = tp::MakeCrl(crl);
        const uint8_t *p = der.data();
        X509_CRL *x = d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size()));
        EXPECT_EQ(CMS_add1_crl(cms.get(), x), 1);
        X509_CRL_free(x);
    }
    if (!plan.signers.empty()) {
        EXPECT_EQ(CMS_final(cms.get(), data.get(), nullptr, plan.flags), 1);
    }
    STACK_OF(CMS_SignerInfo) *infos = CMS_get0_SignerInfos(cms.get());
    for (int i = 0; !plan.token.empty() && i < sk_CMS_SignerInfo_num(infos); ++i) {
        EXPECT_EQ(CMS_unsigned_add1_attr_by_NID(
                      sk_CMS_SignerInfo_value(infos, i), NID_id_smime_aa_timeStampToken,
                      V_ASN1_SEQUENCE, plan.token.data(), static_cast<int>(plan.token.size())),
                  1);
    }
    return cms;
}

Bytes Sign(const SignPlan &plan) {
    return I2d(i2d_CMS_ContentInfo, SignCms(plan).get());
}

// A timestamp token from OpenSSL's TSA over the payload's digest.
ASN1_INTEGER *SerialCb(TS_RESP_CTX *, void *) {
    ASN1_INTEGER *serial = ASN1_INTEGER_new();
    ASN1_INTEGER_set_uint64(serial, 0x1234567890ULL);
    return serial;
}

struct TokenPlan {
    const EVP_MD *md = EVP_sha256();
    bool allOptional = false;  // accuracy, ordering, nonce, TSA name
};

Bytes MakeToken(const TokenPlan &plan) {
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned digestLen = 0;
    EXPECT_EQ(EVP_Digest(kPayload, sizeof kPayload - 1, digest, &digestLen, plan.md, nullptr), 1);
    TS_REQ *req = TS_REQ_new();
    TS_MSG_IMPRINT *imprint = TS_MSG_IMPRINT_new();
    X509_ALGOR *alg = X509_ALGOR_new();
    X509_ALGOR_set0(alg, OBJ_nid2obj(EVP_MD_get_type(plan.md)), V_ASN1_NULL, nullptr);
    TS_MSG_IMPRINT_set_algo(imprint, alg);  // copies, as do the setters below
    X509_ALGOR_free(alg);
    TS_MSG_IMPRINT_set_msg(imprint, digest, static_cast<int>(digestLen));
    TS_REQ_set_version(req, 1);
    TS_REQ_set_msg_imprint(req, imprint);
    TS_REQ_set_cert_req(req, 1);
    if (plan.allOptional) {
        ASN1_INTEGER *nonce = ASN1_INTEGER_new();
        ASN1_INTEGER_set_uint64(nonce, 0xA1B2C3D4E5ULL);
        TS_REQ_set_nonce(req, nonce);
        ASN1_INTEGER_free(nonce);
    }
    BioPtr reqBio(BIO_new(BIO_s_mem()));
    EXPECT_EQ(i2d_TS_REQ_bio(reqBio.get(), req), 1);

    const tp::Credential &tsa = TestPki().tsa;
    TS_RESP_CTX *ctx = TS_RESP_CTX_new();
    EXPECT_EQ(TS_RESP_CTX_set_signer_cert(ctx, tsa.cert.get()), 1);
    EXPECT_EQ(TS_RESP_CTX_set_signer_key(ctx, tsa.key.get()), 1);
    ASN1_OBJECT *policy = OBJ_txt2obj("1.3.6.1.4.1.99999.1", 1);
    TS_RESP_CTX_set_def_policy(ctx, policy);
    ASN1_OBJECT_free(policy);
    TS_RESP_CTX_add_md(ctx, plan.md);
    TS_RESP_CTX_set_serial_cb(ctx, SerialCb, nullptr);
    if (plan.allOptional) {
        TS_RESP_CTX_set_accuracy(ctx, 1, 500, 0);
        TS_RESP_CTX_add_flags(ctx, TS_ORDERING | TS_TSA_NAME);
    }
    TS_RESP *resp = TS_RESP_create_response(ctx, reqBio.get());
    EXPECT_NE(resp, nullptr);
    Bytes token = I2d(i2d_PKCS7, TS_RESP_get_token(resp));
    TS_RESP_free(resp);
    TS_RESP_CTX_free(ctx);
    TS_MSG_IMPRINT_free(imprint);
    TS_REQ_free(req);
    return token;
}

// RAII over a decoded SignedData.
struct Decoded {
    DorvexPkcs7Content *record = nullptr;
    uint32_t consumed = 0;
    uint32_t ret = 0;
    explicit Decoded(const Bytes &der)
        : ret(DorvexPkcs7DecodeSigned(der.data(), static_cast<uint32_t>(der.size()), &record,
                                      &consumed)) {}
    ~Decoded() { DorvexPkcs7FreeSigned(record); }
    Decoded(const Decoded &) = delete;
    Decoded &operator=(const Decoded &) = delete;
};

// Checks one signer against OpenSSL's reading of the same SignerInfo,
// including that the captured signed attributes are the bytes the signature
// covers.
void ExpectSigner(const DorvexPkcs7SignedInfo &ours, CMS_SignerInfo *si) {
    ASN1_OCTET_STRING *keyId = nullptr;
    X509_NAME *issuer = nullptr;
    ASN1_INTEGER *serial = nullptr;
    ASSERT_EQ(CMS_SignerInfo_get0_signer_id(si, &keyId, &issuer, &serial), 1);
    ASSERT_NE(issuer, nullptr);
    BIGNUM *bn = ASN1_INTEGER_to_BN(serial, nullptr);
    Bytes magnitude(static_cast<size_t>(BN_num_bytes(bn)));
    BN_bn2bin(bn, magnitude.data());
    BN_free(bn);
    EXPECT_EQ(Content(ours.issuerAndSerial.serialNumber), magnitude);
    EXPECT_EQ(ours.issuerAndSerial.issuer.count,
              static_cast<uint32_t>(X509_NAME_entry_count(issuer)));

    X509_ALGOR *digestAlg = nullptr;
    X509_ALGOR *sigAlg = nullptr;
    CMS_SignerInfo_get0_algs(si, nullptr, nullptr, &digestAlg, &sigAlg);
    const ASN1_OBJECT *digestOid = nullptr;
    X509_ALGOR_get0(&digestOid, nullptr, nullptr, digestAlg);
    EXPECT_EQ(Content(ours.digestAlgorithm.algorithm), OidContent(digestOid));
    EXPECT_EQ(Content(ours.signature), Asn1Bytes(CMS_SignerInfo_get0_signature(si)));

    const int attrs = CMS_signed_get_attr_count(si);
    if (attrs < 0) {
        EXPECT_EQ(ours.signedAttrsRaw.data, nullptr);
        EXPECT_EQ(ours.signedAttrs.messageDigest.data, nullptr);
    } else {
        Bytes encoded;
        for (int i = 0; i < attrs; ++i) {
            const Bytes one = I2d(i2d_X509_ATTRIBUTE, CMS_signed_get_attr(si, i));
            encoded.insert(encoded.end(), one.begin(), one.end());
        }
        Bytes raw = Content(ours.signedAttrsRaw);
        ASSERT_GT(raw.size(), encoded.size());
        EXPECT_EQ(raw[0], 0xA0);
        EXPECT_EQ(Bytes(raw.end() - static_cast<ptrdiff_t>(encoded.size()), raw.end()), encoded);
        EXPECT_EQ(ours.signedAttrsRaw.tagClass, 0u);
        EXPECT_EQ(ours.signedAttrsRaw.constructed, 1u);
        EXPECT_EQ(ours.signedAttrsRaw.tagCode, 17u);
        auto *digest = static_cast<ASN1_OCTET_STRING *>(CMS_signed_get0_data_by_OBJ(
            si, OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING));
        ASSERT_NE(digest, nullptr);
        EXPECT_EQ(Content(ours.signedAttrs.messageDigest), Asn1Bytes(digest));
        // The signature holds over the capture with the SET tag put back.
        raw[0] = static_cast<uint8_t>(ours.signedAttrsRaw.tagClass << 6 |
                                      ours.signedAttrsRaw.constructed << 5 |
                                      ours.signedAttrsRaw.tagCode);
        X509 *signer = nullptr;
        const Pki &pki = TestPki();
        for (const tp::Credential *c : {&pki.leaf, &pki.other, &pki.tsa}) {
            if (CMS_SignerInfo_cert_cmp(si, c->cert.get()) == 0) {
                signer = c->cert.get();
            }
        }
        ASSERT_NE(signer, nullptr);
        EVP_MD_CTX *md = EVP_MD_CTX_new();
        const Bytes sig = Content(ours.signature);
        EXPECT_EQ(EVP_DigestVerifyInit(md, nullptr, EVP_get_digestbyobj(digestOid), nullptr,
                                       X509_get0_pubkey(signer)),
                  1);
        EXPECT_EQ(EVP_DigestVerify(md, sig.data(), sig.size(), raw.data(), raw.size()), 1);
        EVP_MD_CTX_free(md);
    }

    const auto *token = static_cast<const ASN1_STRING *>(CMS_unsigned_get0_data_by_OBJ(
        si, OBJ_nid2obj(NID_id_smime_aa_timeStampToken), -3, V_ASN1_SEQUENCE));
    const Bytes expectedToken = token == nullptr ? Bytes{} : Asn1Bytes(token);
    EXPECT_EQ(Content(ours.unsignedAttrs.timestampToken), expectedToken);
}

// Checks a decoded SignedData against OpenSSL's reading of the same DER.
void ExpectLikeOpenssl(const Bytes &der, const DorvexPkcs7Content &ours, uint32_t consumed) {
    EXPECT_EQ(consumed, der.size());
    const uint8_t *p = der.data();
    CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(der.size())));
    ASSERT_NE(cms, nullptr);
    const DorvexPkcs7SignedData &sd = ours.signedData;

    const ASN1_OCTET_STRING *const *content = CMS_get0_content(cms.get());
    if (content == nullptr || *content == nullptr) {
        EXPECT_EQ(sd.contentInfo.content.data, nullptr);
    } else {
        // The [0] element is kept; its bytes are the OCTET STRING TLV.
        EXPECT_EQ(sd.contentInfo.content.tagClass, 2u);
        const Bytes inner = Content(sd.contentInfo.content);
        ASSERT_GT(inner.size(), 2u);
        EXPECT_EQ(inner[0], 0x04);
        EXPECT_EQ(Bytes(inner.end() - ASN1_STRING_length(*content), inner.end()),
                  Asn1Bytes(*content));
    }

    STACK_OF(X509) *certs = CMS_get1_certs(cms.get());
    const int certCount = certs == nullptr ? 0 : sk_X509_num(certs);
    ASSERT_EQ(sd.certList.count, certCount);
    ASSERT_EQ(sd.certificates.count, static_cast<uint32_t>(certCount));
    for (int i = 0; i < certCount; ++i) {
        const auto *cert = static_cast<const DorvexX509Cert *>(sd.certList.items[i]);
        EXPECT_EQ(cert->refCount, 1);
        EXPECT_EQ(Content(sd.certificates.certs[i]), I2d(i2d_X509, sk_X509_value(certs, i)));
    }
    sk_X509_pop_free(certs, X509_free);

    STACK_OF(CMS_SignerInfo) *infos = CMS_get0_SignerInfos(cms.get());
    ASSERT_EQ(sd.signerInfos.count, static_cast<uint32_t>(sk_CMS_SignerInfo_num(infos)));
    for (uint32_t i = 0; i < sd.signerInfos.count; ++i) {
        ExpectSigner(sd.signerInfos.signerInfo[i],
                     sk_CMS_SignerInfo_value(infos, static_cast<int>(i)));
    }
}

TEST(Pkcs7Items, TemplatesStayInsideTheirRecords) {
    for (const DorvexAsnItem *item : {&g_itemDorvexPkcs7Content, &g_itemDorvexTimestampInfo}) {
        EXPECT_TRUE(drx_asn::ItemFits(*item));
    }
}

struct SignedRow {
    const char *name;
    std::function<Bytes()> make;
    uint32_t expected;
};

Bytes WithPlan(const std::function<void(SignPlan &)> &edit) {
    SignPlan plan;
    edit(plan);
    return Sign(plan);
}

TEST(Pkcs7Signed, DecodesWhatOpensslReports) {
    const Pki &pki = TestPki();
    const SignedRow rows[] = {
        {"detached, two certificates, SHA-256", [] { return Sign({}); }, DORVEX_OK},
        {"SHA-384", [] { return WithPlan([](SignPlan &p) { p.md = EVP_sha384(); }); }, DORVEX_OK},
        {"SHA-512", [] { return WithPlan([](SignPlan &p) { p.md = EVP_sha512(); }); }, DORVEX_OK},
        {"no signed attributes",
         [] { return WithPlan([](SignPlan &p) { p.flags |= CMS_NOATTR; }); }, DORVEX_OK},
        {"no certificates", [] { return WithPlan([](SignPlan &p) { p.flags |= CMS_NOCERTS; }); },
         DORVEX_OK},
        {"no signers", [] { return WithPlan([](SignPlan &p) { p.signers.clear(); }); }, DORVEX_OK},
        {"CRLs are stepped over", [] { return WithPlan([](SignPlan &p) { p.withCrl = true; }); },
         DORVEX_OK},
        {"embedded content", [] { return WithPlan([](SignPlan &p) { p.flags &= ~CMS_DETACHED; }); },
         DORVEX_OK},
        {"timestamp token in the unsigned attributes",
         [] { return WithPlan([](SignPlan &p) { p.token = MakeToken({}); }); }, DORVEX_OK},
        {"a timestamp token on its own", [] { return MakeToken({}); }, DORVEX_OK},
        {"three certificates",
         [&pki] { return WithPlan([&pki](SignPlan &p) { p.extraCerts.push_back(&pki.tsa); }); },
         DORVEX_ERR_PKCS7_DECODE},
        {"two signers",
         [&pki] { return WithPlan([&pki](SignPlan &p) { p.signers.push_back(&pki.other); }); },
         DORVEX_ERR_PKCS7_DECODE},
        {"signer named by subject key identifier",
         [] { return WithPlan([](SignPlan &p) { p.flags |= CMS_USE_KEYID; }); },
         DORVEX_ERR_PKCS7_DECODE},
        {"carried certificate with an EC key",
         [&pki] { return WithPlan([&pki](SignPlan &p) { p.extraCerts = {&pki.ecLeaf}; }); },
         DORVEX_ERR_PKCS7_DECODE},
        {"truncated by one byte",
         [] {
             Bytes der = Sign({});
             der.pop_back();
             return der;
         },
         DORVEX_ERR_PKCS7_DECODE},
        {"garbage", [] { return Bytes{'n', 'o', 't', ' ', 'D', 'E', 'R'}; },
         DORVEX_ERR_PKCS7_DECODE},
        {"id-data content instead of SignedData",
         [] {
             BioPtr in(BIO_new_mem_buf(kPayload, sizeof kPayload - 1));
             CmsPtr data(CMS_data_create(in.get(), CMS_BINARY));
             return I2d(i2d_CMS_ContentInfo, data.get());
         },
         DORVEX_ERR_PKCS7_DECODE},
    };
    for (const SignedRow &row : rows) {
        SCOPED_TRACE(row.name);
        const Bytes der = row.make();
        Decoded decoded(der);
        ASSERT_EQ(decoded.ret, row.expected);
        if (row.expected == DORVEX_OK) {
            ExpectLikeOpenssl(der, *decoded.record, decoded.consumed);
        } else {
            EXPECT_EQ(decoded.record, nullptr);
        }
    }
}

TEST(Pkcs7Signed, ArgumentsAndTrailingBytes) {
    Bytes der = Sign({});
    const auto size = static_cast<uint32_t>(der.size());
    DorvexPkcs7Content *out = nullptr;
    uint32_t consumed = 0;
    EXPECT_EQ(DorvexPkcs7DecodeSigned(nullptr, size, &out, &consumed), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkcs7DecodeSigned(der.data(), 0, &out, &consumed), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkcs7DecodeSigned(der.data(), size, nullptr, &consumed), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkcs7DecodeSigned(der.data(), size, &out, nullptr), DORVEX_ERR_PARAM);
    DorvexPkcs7FreeSigned(nullptr);

    // Bytes after the ContentInfo are left to the caller.
    der.insert(der.end(), {0x00, 0x00});
    Decoded decoded(der);
    ASSERT_EQ(decoded.ret, DORVEX_OK);
    EXPECT_EQ(decoded.consumed, size);
}

TEST(Pkcs7Signed, FailedCertificateIsLogged) {
    vt_test::ClearSyslog();
    Decoded decoded(WithPlan([](SignPlan &p) { p.extraCerts = {&TestPki().ecLeaf}; }));
    ASSERT_EQ(decoded.ret, DORVEX_ERR_PKCS7_DECODE);
    bool logged = false;
    for (const std::string &text : vt_test::CapturedSyslogTexts()) {
        logged = logged || text.find("InternalDecodeCert") != std::string::npos;
    }
    EXPECT_TRUE(logged);
}

TEST(Pkcs7Signed, FreeKeepsCertificatesOthersHold) {
    const Bytes der = Sign({});
    DorvexPkcs7Content *record = nullptr;
    uint32_t consumed = 0;
    ASSERT_EQ(
        DorvexPkcs7DecodeSigned(der.data(), static_cast<uint32_t>(der.size()), &record, &consumed),
        DORVEX_OK);
    ASSERT_EQ(record->signedData.certList.count, 2);
    auto *kept = static_cast<DorvexX509Cert *>(record->signedData.certList.items[1]);
    const Bytes tbs = Content(kept->tbsRaw);
    ++kept->refCount;
    DorvexPkcs7FreeSigned(record);
    // The second holder's record is still whole (the sanitizer build would
    // report a read of released memory).
    EXPECT_EQ(kept->refCount, 1);
    EXPECT_EQ(Content(kept->tbsRaw), tbs);
    DorvexX509FreeCert(kept);
}

// TSTInfo as the timestamp check reads it: token -> eContent OCTET STRING
// -> TSTInfo, compared with OpenSSL's TS reading of the same token.
TEST(Pkcs7TstInfo, DecodesWhatOpensslReports) {
    const struct {
        const char *name;
        TokenPlan plan;
    } rows[] = {
        {"SHA-256, required fields only", {EVP_sha256(), false}},
        {"SHA-384 with accuracy, ordering, nonce and TSA name", {EVP_sha384(), true}},
        {"SHA-512", {EVP_sha512(), false}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Bytes token = MakeToken(row.plan);
        Decoded decoded(token);
        ASSERT_EQ(decoded.ret, DORVEX_OK);
        const DorvexAsnOcts &eContent = decoded.record->signedData.contentInfo.content;
        void *octets = nullptr;
        uint32_t used = 0;
        ASSERT_EQ(
            DorvexAsnDecode(eContent.data, eContent.len, &g_itemDorvexAsnOcts, 0, &octets, &used),
            DORVEX_OK);
        const auto *tstDer = static_cast<const DorvexAsnOcts *>(octets);
        void *info = nullptr;
        ASSERT_EQ(
            DorvexAsnDecode(tstDer->data, tstDer->len, &g_itemDorvexTimestampInfo, 0, &info, &used),
            DORVEX_OK);
        EXPECT_EQ(used, tstDer->len);
        const auto *ours = static_cast<const DorvexTimestampInfo *>(info);

        const uint8_t *p = token.data();
        PKCS7 *pkcs7 = d2i_PKCS7(nullptr, &p, static_cast<long>(token.size()));
        ASSERT_NE(pkcs7, nullptr);
        TS_TST_INFO *tst = PKCS7_to_TS_TST_INFO(pkcs7);
        ASSERT_NE(tst, nullptr);
        EXPECT_EQ(Content(ours->genTime), Asn1Bytes(TS_TST_INFO_get_time(tst)));
        EXPECT_EQ(ours->genTime.tagCode, static_cast<uint32_t>(V_ASN1_GENERALIZEDTIME));
        TS_MSG_IMPRINT *imprint = TS_TST_INFO_get_msg_imprint(tst);
        const ASN1_OBJECT *alg = nullptr;
        X509_ALGOR_get0(&alg, nullptr, nullptr, TS_MSG_IMPRINT_get_algo(imprint));
        EXPECT_EQ(Content(ours->messageImprint.hashAlgorithm.algorithm), OidContent(alg));
        EXPECT_EQ(Content(ours->messageImprint.hashedMessage),
                  Asn1Bytes(TS_MSG_IMPRINT_get_msg(imprint)));
        EXPECT_EQ(ours->messageImprint.hashedMessage.len,
                  static_cast<uint32_t>(EVP_MD_get_size(row.plan.md)));
        TS_TST_INFO_free(tst);
        PKCS7_free(pkcs7);
        DorvexAsnFree(info, &g_itemDorvexTimestampInfo);
        DorvexAsnFree(octets, &g_itemDorvexAsnOcts);
    }
}

}  // namespace
