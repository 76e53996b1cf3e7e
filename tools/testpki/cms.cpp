// Detached CMS signatures and RFC 3161 timestamp tokens by OpenSSL's CMS API.
#include "tools/testpki/internal.h"

#include <openssl/cms.h>
#include <openssl/ess.h>
#include <openssl/objects.h>

#include <algorithm>

namespace testpki {

using detail::DigestMd;
using detail::Need;
using detail::ToDer;

namespace {

using CmsPtr = Owned<CMS_ContentInfo_free>;

Owned<BIO_free> MemBio(std::span<const uint8_t> data) {
    return Owned<BIO_free>(TP_NEED(BIO_new_mem_buf(data.data(), static_cast<int>(data.size()))));
}

// Parses a SignedData into `cms` and returns its only signer.
CMS_SignerInfo *OnlySigner(std::span<const uint8_t> der, CmsPtr &cms) {
    const unsigned char *p = der.data();
    cms.reset(TP_NEED(d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(der.size()))));
    STACK_OF(CMS_SignerInfo) *signers = CMS_get0_SignerInfos(cms.get());
    if (sk_CMS_SignerInfo_num(signers) != 1) {
        throw Error("the SignedData does not have exactly one signer");
    }
    return sk_CMS_SignerInfo_value(signers, 0);
}

Bytes BytesOf(const ASN1_STRING *s) {
    return Bytes(ASN1_STRING_get0_data(s), ASN1_STRING_get0_data(s) + ASN1_STRING_length(s));
}

// A token's signing time follows its genTime where OpenSSL can read that.
Time SigningTimeOf(const std::string &genTime) {
    try {
        return TimeAt(EpochOf(Gen(genTime)));
    } catch (const Error &) {
        return Utc("260115120000Z");
    }
}

CMS_SignerInfo *AddSigner(CMS_ContentInfo *cms, const Credential &signer, Digest digest,
                          unsigned flags, bool pss) {
    // No S/MIME capabilities: the signed attributes are exactly the ones asked for.
    flags |= CMS_BINARY | CMS_NOSMIMECAP | CMS_PARTIAL | (pss ? CMS_KEY_PARAM : 0);
    CMS_SignerInfo *si =
        TP_NEED(CMS_add1_signer(cms, signer.cert.get(), signer.key.get(), DigestMd(digest), flags));
    if (pss) {
        detail::UsePss(CMS_SignerInfo_get0_pkey_ctx(si));
    }
    return si;
}

// A fixed signing time keeps the output reproducible (CMS would take the clock).
void AddSigningTime(CMS_SignerInfo *si, const Time &time) {
    const auto value = detail::MakeTime(time);
    TP_NEED(CMS_signed_add1_attr_by_NID(si, NID_pkcs9_signingTime, ASN1_STRING_type(value.get()),
                                        value.get(), -1));
}

// RFC 2634 5.4 / RFC 5035 3: ties the token to the TSA certificate.
void AddEssSigningCert(CMS_SignerInfo *si, const TimestampSpec &plan) {
    X509 *named = plan.essCert ? plan.essCert->get() : plan.tsa.cert.get();
    Bytes der;
    int nid = NID_id_smime_aa_signingCertificateV2;
    if (plan.attrs == TokenAttrs::EssCertId) {
        Owned<ESS_SIGNING_CERT_free> sc(TP_NEED(OSSL_ESS_signing_cert_new_init(named, nullptr, 0)));
        der = ToDer(sc.get(), i2d_ESS_SIGNING_CERT);
        nid = NID_id_smime_aa_signingCertificate;
    } else {
        Owned<ESS_SIGNING_CERT_V2_free> sc(
            TP_NEED(OSSL_ESS_signing_cert_v2_new_init(EVP_sha256(), named, nullptr, 0)));
        der = ToDer(sc.get(), i2d_ESS_SIGNING_CERT_V2);
    }
    // V_ASN1_SEQUENCE takes the whole encoding as the attribute value.
    TP_NEED(CMS_signed_add1_attr_by_NID(si, nid, V_ASN1_SEQUENCE, der.data(),
                                        static_cast<int>(der.size())));
}

// MessageImprint ::= SEQUENCE { hashAlgorithm AlgorithmIdentifier, hashedMessage OCTET STRING }
Bytes Imprint(const TimestampSpec &plan, std::span<const uint8_t> stamped) {
    auto over = plan.imprintOver ? std::span<const uint8_t>(*plan.imprintOver) : stamped;
    const char *name = OBJ_nid2sn(EVP_MD_get_type(DigestMd(plan.imprintDigest)));
    return der::Seq({der::Seq({der::Oid(name), Bytes{0x05, 0x00}}),
                     der::OctetString(detail::Hash(plan.imprintDigest, over))});
}

// TSTInfo { version, policy, messageImprint (of imprintOver or stamped), serial, genTime }
Bytes MakeTimestampToken(const TimestampSpec &plan, std::span<const uint8_t> stamped) {
    if (!plan.tsa.cert || !plan.tsa.key) {
        throw Error("TimestampSpec.tsa needs both a certificate and a key");
    }
    const Bytes tst = der::Seq({der::Integer(Bytes{0x01}), der::Oid("1.3.6.1.4.1.99999.3.1"),
                                Imprint(plan, stamped), der::Integer(Bytes{0x01}),
                                der::Tlv(0x18, detail::AsBytes(plan.genTime))});
    if (plan.noSigner) {
        // RFC 5652 allows a SignedData without SignerInfo; CMS_final refuses one.
        const Bytes content = der::Seq(
            {der::Oid("1.2.840.113549.1.9.16.1.4"), der::Tlv(0xA0, der::OctetString(tst))});
        std::vector<Bytes> fields = {der::Integer(Bytes{0x03}), der::Tlv(0x31, {}), content};
        if (plan.embedTsaCert) {
            fields.push_back(der::Tlv(0xA0, plan.tsa.cert.Der()));
        }
        fields.push_back(der::Tlv(0x31, {}));
        return der::Seq({der::Oid("1.2.840.113549.1.7.2"), der::Tlv(0xA0, der::Seq(fields))});
    }
    CmsPtr cms(TP_NEED(CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_PARTIAL | CMS_BINARY)));
    TP_NEED(CMS_set1_eContentType(cms.get(), OBJ_nid2obj(NID_id_smime_ct_TSTInfo)));
    CMS_SignerInfo *si =
        AddSigner(cms.get(), plan.tsa, plan.digest, plan.embedTsaCert ? 0 : CMS_NOCERTS, plan.pss);
    AddSigningTime(si, SigningTimeOf(plan.genTime));
    AddEssSigningCert(si, plan);
    TP_NEED(CMS_final(cms.get(), MemBio(tst).get(), nullptr, CMS_BINARY));
    return ToDer(cms.get(), i2d_CMS_ContentInfo);
}

// OpenSSL sorts the certificates as a DER SET OF; restore the order asked for.
Bytes RestoreCertOrder(const Bytes &contentInfo, const std::vector<Cert> &certs) {
    std::vector<Bytes> top = der::Children(contentInfo);  // contentType, [0]
    if (top.size() != 2) {
        throw Error("unexpected ContentInfo shape");
    }
    std::vector<Bytes> signedData = der::Children(der::Content(top[1]));
    std::vector<Bytes> ders;
    for (const Cert &cert : certs) {
        ders.push_back(cert.Der());
    }
    const Bytes wanted = der::Tlv(0xA0, ConcatDer(ders));
    auto field = std::find_if(signedData.begin(), signedData.end(),
                              [](const Bytes &f) { return f.at(0) == 0xA0; });
    if (field == signedData.end() || field->size() != wanted.size()) {
        throw Error("embedded certificates differ from the ones asked for");
    }
    *field = wanted;
    return der::Seq({top[0], der::Tlv(0xA0, der::Seq(signedData))});
}

// A second later after signing: the signed DER changes, the signature stays.
void TamperSigningTime(CMS_SignerInfo *si) {
    const int index = CMS_signed_get_attr_by_NID(si, NID_pkcs9_signingTime, -1);
    ASN1_TYPE *value = TP_NEED(X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(si, index), 0));
    TP_NEED(ASN1_STRING_set(value->value.asn1_string, "260115115901Z", -1));
}

}  // namespace

Bytes detail::SignedData(const SignSpec &plan, BIO *content) {
    if (!plan.noSigner && (!plan.signer.cert || !plan.signer.key)) {
        throw Error("SignSpec.signer needs both a certificate and a key");
    }
    if (plan.noSigner && (plan.timestamp || plan.tamperSignedAttr)) {
        throw Error("a timestamp or a tampered attribute needs a signer");
    }
    if (plan.tamperSignedAttr && !plan.signedAttrs) {
        throw Error("no signed attributes to tamper with");
    }
    const unsigned detached = CMS_DETACHED | CMS_BINARY;
    CmsPtr cms(TP_NEED(CMS_sign(nullptr, nullptr, nullptr, nullptr, detached | CMS_PARTIAL)));
    CMS_SignerInfo *si = nullptr;
    if (!plan.noSigner) {
        // The certificates are added below, in the plan's order.
        unsigned flags = CMS_NOCERTS | (plan.signedAttrs ? 0 : CMS_NOATTR);
        si = AddSigner(cms.get(), plan.signer, plan.digest, flags, plan.pss);
        if (plan.signedAttrs) {
            AddSigningTime(si, Utc("260115115900Z"));  // see TamperSigningTime
        }
    }
    for (const Cert &cert : plan.certs) {
        TP_NEED(CMS_add1_cert(cms.get(), cert.get()));
    }
    // Without a signer CMS_final refuses to run, and there is nothing to sign.
    if (si != nullptr) {
        TP_NEED(CMS_final(cms.get(), content, nullptr, detached));
    }
    if (plan.timestamp) {
        Bytes token =
            MakeTimestampToken(*plan.timestamp, BytesOf(CMS_SignerInfo_get0_signature(si)));
        TP_NEED(CMS_unsigned_add1_attr_by_NID(si, NID_id_smime_aa_timeStampToken, V_ASN1_SEQUENCE,
                                              token.data(), static_cast<int>(token.size())));
    }
    if (plan.tamperSignedAttr) {
        TamperSigningTime(si);
    }
    Bytes der = ToDer(cms.get(), i2d_CMS_ContentInfo);
    return plan.certs.size() < 2 ? der : RestoreCertOrder(der, plan.certs);
}

Bytes MakeSignedData(const SignSpec &plan, std::span<const uint8_t> content) {
    return detail::SignedData(plan, MemBio(content).get());
}

Bytes SignatureValueOf(std::span<const uint8_t> signedData) {
    CmsPtr cms;
    return BytesOf(CMS_SignerInfo_get0_signature(OnlySigner(signedData, cms)));
}

Bytes TimestampTokenOf(std::span<const uint8_t> signedData) {
    CmsPtr cms;
    CMS_SignerInfo *si = OnlySigner(signedData, cms);
    int index = CMS_unsigned_get_attr_by_NID(si, NID_id_smime_aa_timeStampToken, -1);
    if (index < 0) {
        return {};
    }
    ASN1_TYPE *value = X509_ATTRIBUTE_get0_type(CMS_unsigned_get_attr(si, index), 0);
    if (value == nullptr || value->type != V_ASN1_SEQUENCE) {
        throw Error("the timeStampToken attribute is not a SEQUENCE");
    }
    return BytesOf(value->value.sequence);
}

Bytes Armoured(std::span<const uint8_t> der, Armour armour) {
    if (armour == Armour::Der) {
        return Bytes(der.begin(), der.end());
    }
    std::string pem = ToPem("CMS", der);
    return Bytes(pem.begin(), pem.end());
}

}  // namespace testpki
