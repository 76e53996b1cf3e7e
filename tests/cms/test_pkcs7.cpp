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
using tp::der::Children;
using tp::der::Tlv;

const Bytes kContent = {'s', 'h', 'a', '2', '5', '6', 's', 'u', 'm', 's', '\n'};
constexpr char kIdData[] = "1.2.840.113549.1.7.1";

const tp::DemoPki &Pki() {
    static const tp::DemoPki pki = tp::MakeDemoPki();
    return pki;
}

const tp::Cert &EcCert() {
    static const tp::Cert cert = [] {
        tp::CertSpec plan;
        plan.subjectKey = tp::LoadTestKey("ec-p256");
        plan.issuer = Pki().ca;
        return tp::IssueCert(plan);
    }();
    return cert;
}

tp::TimestampSpec Stamp(tp::Digest imprint = tp::Digest::Sha256,
                        tp::TokenMaker maker = tp::TokenMaker::Auto) {
    tp::TimestampSpec plan;
    plan.tsa = Pki().tsa;
    plan.imprintDigest = imprint;
    plan.maker = maker;
    return plan;
}

// The package signature: leaf signer, leaf and CA certificates, a token.
Bytes Sign(const std::function<void(tp::SignSpec &)> &edit = {}) {
    tp::SignSpec plan;
    plan.signer = Pki().leaf;
    plan.certs = {Pki().leaf.cert, Pki().ca.cert};
    plan.timestamp = Stamp();
    if (edit) {
        edit(plan);
    }
    return tp::MakeSignedData(plan, kContent);
}

// Rebuilds a ContentInfo after `edit` changed the SignedData's components
// (version, digestAlgorithms, encapContentInfo, [certificates], [crls],
// signerInfos).
Bytes EditSignedData(const Bytes &der, const std::function<void(std::vector<Bytes> &)> &edit) {
    const std::vector<Bytes> outer = Children(der);
    std::vector<Bytes> parts = Children(Children(outer[1]).at(0));
    edit(parts);
    return tp::der::Seq({outer[0], Tlv(0xA0, tp::der::Seq(parts))});
}

// The same for the components of the one SignerInfo.
Bytes EditSigner(const Bytes &der, const std::function<void(std::vector<Bytes> &)> &edit) {
    return EditSignedData(der, [&edit](std::vector<Bytes> &parts) {
        std::vector<Bytes> signer = Children(Children(parts.back()).at(0));
        edit(signer);
        parts.back() = Tlv(0x31, tp::der::Seq(signer));
    });
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
        // OpenSSL's own parse of each candidate, for its comparison.
        tp::Cert signer;
        for (const tp::Credential *c : {&Pki().leaf, &Pki().tsa}) {
            tp::Cert parsed = tp::Cert::FromDer(c->cert.Der());
            if (CMS_SignerInfo_cert_cmp(si, parsed.get()) == 0) {
                signer = parsed;
            }
        }
        ASSERT_TRUE(signer);
        EVP_MD_CTX *md = EVP_MD_CTX_new();
        const Bytes sig = Content(ours.signature);
        EXPECT_EQ(EVP_DigestVerifyInit(md, nullptr, EVP_get_digestbyobj(digestOid), nullptr,
                                       X509_get0_pubkey(signer.get())),
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

TEST(Pkcs7Signed, DecodesWhatOpensslReports) {
    using Plan = tp::SignSpec;
    const SignedRow rows[] = {
        {"two certificates, signed attributes, token, SHA-256", [] { return Sign(); }, DORVEX_OK},
        {"SHA-384", [] { return Sign([](Plan &s) { s.digest = tp::Digest::Sha384; }); }, DORVEX_OK},
        {"SHA-512", [] { return Sign([](Plan &s) { s.digest = tp::Digest::Sha512; }); }, DORVEX_OK},
        {"no signed attributes", [] { return Sign([](Plan &s) { s.signedAttrs = false; }); },
         DORVEX_OK},
        {"no certificates", [] { return Sign([](Plan &s) { s.certs.clear(); }); }, DORVEX_OK},
        {"no signers",
         [] {
             return Sign([](Plan &s) {
                 s.noSigner = true;
                 s.timestamp.reset();
             });
         },
         DORVEX_OK},
        {"no timestamp token", [] { return Sign([](Plan &s) { s.timestamp.reset(); }); },
         DORVEX_OK},
        {"a timestamp token on its own", [] { return tp::TimestampTokenOf(Sign()); }, DORVEX_OK},
        {"CRLs are stepped over",
         [] {
             tp::CrlSpec crl;
             crl.issuer = Pki().ca;
             return EditSignedData(Sign(), [&crl](std::vector<Bytes> &parts) {
                 parts.insert(parts.end() - 1, Tlv(0xA1, tp::MakeCrl(crl)));
             });
         },
         DORVEX_OK},
        {"embedded content",
         [] {
             return EditSignedData(Sign(), [](std::vector<Bytes> &parts) {
                 parts[2] = tp::der::Seq(
                     {tp::der::Oid(kIdData), Tlv(0xA0, tp::der::OctetString(kContent))});
             });
         },
         DORVEX_OK},
        {"three certificates",
         [] { return Sign([](Plan &s) { s.certs.push_back(Pki().tsa.cert); }); },
         DORVEX_ERR_PKCS7_DECODE},
        {"two signers",
         [] {
             return EditSignedData(Sign(), [](std::vector<Bytes> &parts) {
                 const Bytes signer = Children(parts.back()).at(0);
                 parts.back() = Tlv(0x31, tp::ConcatDer({signer, signer}));
             });
         },
         DORVEX_ERR_PKCS7_DECODE},
        {"signer named by subject key identifier",
         [] {
             return EditSigner(Sign(), [](std::vector<Bytes> &signer) {
                 signer[0] = tp::der::Integer(Bytes{3});
                 signer[1] = Tlv(0x80, Pki().leaf.key.KeyId());
             });
         },
         DORVEX_ERR_PKCS7_DECODE},
        {"carried certificate with an EC key",
         [] { return Sign([](Plan &s) {
                  s.certs = {Pki().leaf.cert, EcCert()};
              }); },
         DORVEX_ERR_PKCS7_DECODE},
        {"truncated by one byte",
         [] {
             Bytes der = Sign();
             der.pop_back();
             return der;
         },
         DORVEX_ERR_PKCS7_DECODE},
        {"garbage", [] { return Bytes{'n', 'o', 't', ' ', 'D', 'E', 'R'}; },
         DORVEX_ERR_PKCS7_DECODE},
        {"id-data content instead of SignedData",
         [] {
             return tp::der::Seq(
                 {tp::der::Oid(kIdData), Tlv(0xA0, tp::der::OctetString(kContent))});
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
    Bytes der = Sign();
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
    Decoded decoded(Sign([](tp::SignSpec &s) { s.certs = {EcCert()}; }));
    ASSERT_EQ(decoded.ret, DORVEX_ERR_PKCS7_DECODE);
    bool logged = false;
    for (const std::string &text : vt_test::CapturedSyslogTexts()) {
        logged = logged || text.find("InternalDecodeCert") != std::string::npos;
    }
    EXPECT_TRUE(logged);
}

TEST(Pkcs7Signed, FreeKeepsCertificatesOthersHold) {
    const Bytes der = Sign();  // outlives every record that points into it
    Decoded decoded(der);
    ASSERT_EQ(decoded.ret, DORVEX_OK);
    ASSERT_EQ(decoded.record->signedData.certList.count, 2);
    auto *kept = static_cast<DorvexX509Cert *>(decoded.record->signedData.certList.items[1]);
    const Bytes tbs = Content(kept->tbsRaw);
    ++kept->refCount;
    DorvexPkcs7FreeSigned(decoded.record);
    decoded.record = nullptr;
    // The second holder's record is still whole (the sanitizer build would
    // report a read of released memory).
    EXPECT_EQ(kept->refCount, 1);
    EXPECT_EQ(Content(kept->tbsRaw), tbs);
    DorvexX509FreeCert(kept);
}

// Our TSTInfo record against OpenSSL's reading of the same bytes.
void ExpectTstInfo(const Bytes &der) {
    void *record = nullptr;
    uint32_t used = 0;
    ASSERT_EQ(DorvexAsnDecode(der.data(), static_cast<uint32_t>(der.size()),
                              &g_itemDorvexTimestampInfo, 0, &record, &used),
              DORVEX_OK);
    EXPECT_EQ(used, der.size());
    const auto *ours = static_cast<const DorvexTimestampInfo *>(record);
    const uint8_t *p = der.data();
    TS_TST_INFO *tst = d2i_TS_TST_INFO(nullptr, &p, static_cast<long>(der.size()));
    ASSERT_NE(tst, nullptr);
    EXPECT_EQ(Content(ours->genTime), Asn1Bytes(TS_TST_INFO_get_time(tst)));
    EXPECT_EQ(ours->genTime.tagCode, static_cast<uint32_t>(V_ASN1_GENERALIZEDTIME));
    TS_MSG_IMPRINT *imprint = TS_TST_INFO_get_msg_imprint(tst);
    const ASN1_OBJECT *alg = nullptr;
    X509_ALGOR_get0(&alg, nullptr, nullptr, TS_MSG_IMPRINT_get_algo(imprint));
    EXPECT_EQ(Content(ours->messageImprint.hashAlgorithm.algorithm), OidContent(alg));
    EXPECT_EQ(Content(ours->messageImprint.hashedMessage),
              Asn1Bytes(TS_MSG_IMPRINT_get_msg(imprint)));
    TS_TST_INFO_free(tst);
    DorvexAsnFree(record, &g_itemDorvexTimestampInfo);
}

// TSTInfo as the timestamp check reaches it: token -> eContent OCTET STRING
// -> TSTInfo.
TEST(Pkcs7TstInfo, DecodesWhatOpensslReports) {
    const struct {
        const char *name;
        tp::Digest imprint;
        tp::TokenMaker maker;
    } rows[] = {
        {"SHA-256 imprint, OpenSSL's TSA", tp::Digest::Sha256, tp::TokenMaker::TsApi},
        {"SHA-384 imprint, OpenSSL's TSA", tp::Digest::Sha384, tp::TokenMaker::TsApi},
        {"SHA-512 imprint, TSTInfo signed through CMS", tp::Digest::Sha512, tp::TokenMaker::Cms},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Bytes token = tp::MakeTimestampToken(Stamp(row.imprint, row.maker), kContent);
        Decoded decoded(token);
        ASSERT_EQ(decoded.ret, DORVEX_OK);
        const DorvexAsnOcts &eContent = decoded.record->signedData.contentInfo.content;
        void *octets = nullptr;
        uint32_t used = 0;
        ASSERT_EQ(
            DorvexAsnDecode(eContent.data, eContent.len, &g_itemDorvexAsnOcts, 0, &octets, &used),
            DORVEX_OK);
        const Bytes tstDer = Content(*static_cast<const DorvexAsnOcts *>(octets));
        DorvexAsnFree(octets, &g_itemDorvexAsnOcts);

        const uint8_t *p = token.data();
        PKCS7 *pkcs7 = d2i_PKCS7(nullptr, &p, static_cast<long>(token.size()));
        ASSERT_NE(pkcs7, nullptr);
        TS_TST_INFO *tst = PKCS7_to_TS_TST_INFO(pkcs7);
        EXPECT_EQ(tstDer, I2d(i2d_TS_TST_INFO, tst));
        TS_TST_INFO_free(tst);
        PKCS7_free(pkcs7);
        ExpectTstInfo(tstDer);
    }
}

TEST(Pkcs7TstInfo, OptionalFieldsAreSteppedOver) {
    tp::TimestampSpec stamp = Stamp();
    stamp.serial = Bytes(20, 0x7F);
    std::vector<Bytes> fields = Children(tp::MakeTstInfo(stamp, kContent));
    fields.push_back(tp::der::Seq({tp::der::Integer(Bytes{1})}));  // accuracy
    fields.push_back(tp::der::Boolean(true));                      // ordering
    fields.push_back(tp::der::Integer(Bytes{0x00, 0x9A, 0xBC}));   // nonce
    fields.push_back(Tlv(0xA0, Tlv(0xA4, tp::der::Seq({}))));      // tsa: directoryName
    fields.push_back(Tlv(0xA1, tp::der::Seq({tp::der::Oid("1.2.3.4"),
                                             tp::der::OctetString(Bytes{5})})));  // extensions
    ExpectTstInfo(tp::der::Seq(fields));
}

}  // namespace
