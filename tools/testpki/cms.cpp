// Detached CMS signatures and RFC 3161 timestamp tokens: OpenSSL's CMS and TS
// APIs do the signing; the TSTInfo is written here only where those APIs
// cannot say what a test needs.
#include "tools/testpki/internal.h"

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/ess.h>
#include <openssl/objects.h>
#include <openssl/ts.h>
#include <openssl/x509v3.h>

#include <ctime>

namespace testpki {

using detail::Check;

namespace {

using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>>;
using TsRespCtxPtr = std::unique_ptr<TS_RESP_CTX, Deleter<TS_RESP_CTX_free>>;
using TsReqPtr = std::unique_ptr<TS_REQ, Deleter<TS_REQ_free>>;
using TsImprintPtr = std::unique_ptr<TS_MSG_IMPRINT, Deleter<TS_MSG_IMPRINT_free>>;
using TsRespPtr = std::unique_ptr<TS_RESP, Deleter<TS_RESP_free>>;
using AlgorPtr = std::unique_ptr<X509_ALGOR, Deleter<X509_ALGOR_free>>;
using ObjPtr = std::unique_ptr<ASN1_OBJECT, Deleter<ASN1_OBJECT_free>>;
using EssV1Ptr = std::unique_ptr<ESS_SIGNING_CERT, Deleter<ESS_SIGNING_CERT_free>>;
using EssV2Ptr = std::unique_ptr<ESS_SIGNING_CERT_V2, Deleter<ESS_SIGNING_CERT_V2_free>>;

Bytes Hash(Digest digest, std::span<const uint8_t> data) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int len = 0;
    Check(EVP_Digest(data.data(), data.size(), out.data(), &len, DigestMd(digest), nullptr) == 1,
          "EVP_Digest");
    out.resize(len);
    return out;
}

int DigestNid(Digest digest) {
    return EVP_MD_get_type(DigestMd(digest));
}

BioPtr MemBio(std::span<const uint8_t> data) {
    BioPtr bio(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
    Check(bio != nullptr, "BIO_new_mem_buf");
    return bio;
}

// i2d into a vector for any OpenSSL type.
template <typename T, typename Fn>
Bytes ToDer(const T *object, Fn i2d, std::string_view what) {
    unsigned char *out = nullptr;
    int len = i2d(object, &out);
    Check(len > 0, what);
    Bytes der(out, out + len);
    OPENSSL_free(out);
    return der;
}

CmsPtr CmsFromDer(std::span<const uint8_t> der) {
    const unsigned char *p = der.data();
    CmsPtr cms(d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(der.size())));
    Check(cms != nullptr, "d2i_CMS_ContentInfo");
    return cms;
}

CMS_SignerInfo *OnlySigner(CMS_ContentInfo *cms) {
    STACK_OF(CMS_SignerInfo) *signers = CMS_get0_SignerInfos(cms);
    if (sk_CMS_SignerInfo_num(signers) != 1) {
        throw Error("the SignedData does not have exactly one signer");
    }
    return sk_CMS_SignerInfo_value(signers, 0);
}

// "YYYYMMDDHHMMSSZ" of a time, or nothing when `text` is not one OpenSSL's
// TS API could write itself.
std::optional<int64_t> PlainGenTime(const std::string &text) {
    int64_t epoch = 0;
    try {
        epoch = EpochOf(Gen(text));
    } catch (const Error &) {
        return std::nullopt;
    }
    time_t t = static_cast<time_t>(epoch);
    struct tm tm {};
    if (gmtime_r(&t, &tm) == nullptr) {
        return std::nullopt;
    }
    char back[32];
    snprintf(back, sizeof(back), "%04d%02d%02d%02d%02d%02dZ", tm.tm_year + 1900, tm.tm_mon + 1,
             tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    if (text != back) {
        return std::nullopt;
    }
    return epoch;
}

void AddSigningTime(CMS_SignerInfo *si, const Time &time) {
    // CMS adds the current clock as signing time only when none is there;
    // a fixed one keeps the output reproducible.
    detail::Asn1StringPtr t = detail::MakeTime(time);
    int type = time.type == TimeType::Utc ? V_ASN1_UTCTIME : V_ASN1_GENERALIZEDTIME;
    Check(CMS_signed_add1_attr_by_NID(si, NID_pkcs9_signingTime, type, t.get(), -1) == 1,
          "CMS_signed_add1_attr_by_NID signingTime");
}

// RFC 2634 5.4 / RFC 5035 3: the attribute OpenSSL's TS API puts beside the
// TSTInfo so a verifier can tie the token to the TSA certificate.
void AddEssSigningCert(CMS_SignerInfo *si, const TimestampSpec &plan) {
    Bytes der;
    int nid = 0;
    X509 *named = plan.essCert ? plan.essCert->get() : plan.tsa.cert.get();
    if (plan.attrs == TokenAttrs::EssCertId) {
        EssV1Ptr sc(OSSL_ESS_signing_cert_new_init(named, nullptr, 0));
        Check(sc != nullptr, "OSSL_ESS_signing_cert_new_init");
        der = ToDer(sc.get(), i2d_ESS_SIGNING_CERT, "i2d_ESS_SIGNING_CERT");
        nid = NID_id_smime_aa_signingCertificate;
    } else {
        EssV2Ptr sc(OSSL_ESS_signing_cert_v2_new_init(DigestMd(plan.essDigest), named, nullptr, 0));
        Check(sc != nullptr, "OSSL_ESS_signing_cert_v2_new_init");
        der = ToDer(sc.get(), i2d_ESS_SIGNING_CERT_V2, "i2d_ESS_SIGNING_CERT_V2");
        nid = NID_id_smime_aa_signingCertificateV2;
    }
    // V_ASN1_SEQUENCE carries the whole encoding as the attribute value.
    Check(CMS_signed_add1_attr_by_NID(si, nid, V_ASN1_SEQUENCE, der.data(),
                                      static_cast<int>(der.size())) == 1,
          "CMS_signed_add1_attr_by_NID signingCertificate");
}

// A token that nobody signed: RFC 5652 allows a SignedData without
// SignerInfo, and CMS_final refuses to make one, so it is written here.
Bytes UnsignedToken(const TimestampSpec &plan, const Bytes &tst) {
    const Bytes content =
        der::Seq({der::Oid("1.2.840.113549.1.9.16.1.4"), der::Tlv(0xA0, der::OctetString(tst))});
    std::vector<Bytes> fields = {der::Integer(Bytes{0x03}), der::Tlv(0x31, {}), content};
    if (plan.embedTsaCert) {
        fields.push_back(der::Tlv(0xA0, plan.tsa.cert.Der()));
    }
    fields.push_back(der::Tlv(0x31, {}));
    return der::Seq({der::Oid("1.2.840.113549.1.7.2"), der::Tlv(0xA0, der::Seq(fields))});
}

Bytes TokenViaCms(const TimestampSpec &plan, std::span<const uint8_t> stamped) {
    Bytes tst = MakeTstInfo(plan, stamped);
    if (plan.noSigner) {
        return UnsignedToken(plan, tst);
    }
    CmsPtr cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_PARTIAL | CMS_BINARY));
    Check(cms != nullptr, "CMS_sign");
    Check(CMS_set1_eContentType(cms.get(), OBJ_nid2obj(NID_id_smime_ct_TSTInfo)) == 1,
          "CMS_set1_eContentType");
    unsigned flags = CMS_BINARY | CMS_NOSMIMECAP | CMS_PARTIAL;
    flags |= plan.embedTsaCert ? 0 : CMS_NOCERTS;
    flags |= plan.attrs == TokenAttrs::None ? CMS_NOATTR : 0;
    flags |= plan.pss ? CMS_KEY_PARAM : 0;
    CMS_SignerInfo *si = CMS_add1_signer(cms.get(), plan.tsa.cert.get(), plan.tsa.key.get(),
                                         DigestMd(plan.digest), flags);
    Check(si != nullptr, "CMS_add1_signer (TSA)");
    if (plan.pss) {
        detail::UsePss(CMS_SignerInfo_get0_pkey_ctx(si));
    }
    if (plan.attrs != TokenAttrs::None) {
        // The token's own signing time follows genTime where that is a real
        // time; a genTime OpenSSL cannot read gets a fixed one.
        std::optional<int64_t> epoch = PlainGenTime(plan.genTime);
        AddSigningTime(si, epoch ? TimeAt(*epoch) : Utc("260115120000Z"));
        AddEssSigningCert(si, plan);
    }
    BioPtr in = MemBio(tst);
    Check(CMS_final(cms.get(), in.get(), nullptr, CMS_BINARY) == 1, "CMS_final (TSA)");
    return ToDer(cms.get(), i2d_CMS_ContentInfo, "i2d_CMS_ContentInfo");
}

// TS_RESP_CTX callbacks: the serial and the clock come from the plan.
ASN1_INTEGER *SerialCb(TS_RESP_CTX *, void *data) {
    try {
        return detail::MakeInteger(*static_cast<const Bytes *>(data)).release();
    } catch (const Error &) {
        return nullptr;  // OpenSSL turns this into a refused response
    }
}

int TimeCb(TS_RESP_CTX *, void *data, long *sec, long *usec) {
    *sec = static_cast<long>(*static_cast<const int64_t *>(data));
    *usec = 0;
    return 1;
}

Bytes TimeStampRequest(const TimestampSpec &plan, std::span<const uint8_t> stamped) {
    Bytes hash = Hash(plan.imprintDigest,
                      plan.imprintOver ? *plan.imprintOver : Bytes(stamped.begin(), stamped.end()));
    AlgorPtr alg(X509_ALGOR_new());
    Check(alg != nullptr, "X509_ALGOR_new");
    Check(X509_ALGOR_set0(alg.get(), OBJ_nid2obj(DigestNid(plan.imprintDigest)), V_ASN1_NULL,
                          nullptr) == 1,
          "X509_ALGOR_set0");
    TsImprintPtr imprint(TS_MSG_IMPRINT_new());
    Check(imprint != nullptr, "TS_MSG_IMPRINT_new");
    Check(TS_MSG_IMPRINT_set_algo(imprint.get(), alg.get()) == 1, "TS_MSG_IMPRINT_set_algo");
    Check(TS_MSG_IMPRINT_set_msg(imprint.get(), hash.data(), static_cast<int>(hash.size())) == 1,
          "TS_MSG_IMPRINT_set_msg");
    TsReqPtr req(TS_REQ_new());
    Check(req != nullptr, "TS_REQ_new");
    Check(TS_REQ_set_version(req.get(), 1) == 1, "TS_REQ_set_version");
    Check(TS_REQ_set_msg_imprint(req.get(), imprint.get()) == 1, "TS_REQ_set_msg_imprint");
    // certReq: the TSA puts its certificate into the token.
    Check(TS_REQ_set_cert_req(req.get(), plan.embedTsaCert ? 1 : 0) == 1, "TS_REQ_set_cert_req");
    return ToDer(req.get(), i2d_TS_REQ, "i2d_TS_REQ");
}

Bytes TokenViaTsApi(const TimestampSpec &plan, std::span<const uint8_t> stamped) {
    int64_t epoch = *PlainGenTime(plan.genTime);
    TsRespCtxPtr ctx(TS_RESP_CTX_new());
    Check(ctx != nullptr, "TS_RESP_CTX_new");
    Check(TS_RESP_CTX_set_signer_cert(ctx.get(), plan.tsa.cert.get()) == 1,
          "TS_RESP_CTX_set_signer_cert");
    Check(TS_RESP_CTX_set_signer_key(ctx.get(), plan.tsa.key.get()) == 1,
          "TS_RESP_CTX_set_signer_key");
    Check(TS_RESP_CTX_set_signer_digest(ctx.get(), DigestMd(plan.digest)) == 1,
          "TS_RESP_CTX_set_signer_digest");
    ObjPtr policy(OBJ_txt2obj(plan.policy.c_str(), 0));
    Check(policy != nullptr, "policy OID \"" + plan.policy + "\"");
    Check(TS_RESP_CTX_set_def_policy(ctx.get(), policy.get()) == 1, "TS_RESP_CTX_set_def_policy");
    Check(TS_RESP_CTX_add_md(ctx.get(), DigestMd(plan.imprintDigest)) == 1, "TS_RESP_CTX_add_md");
    const EVP_MD *essMd = plan.attrs == TokenAttrs::EssCertId ? EVP_sha1() : EVP_sha256();
    Check(TS_RESP_CTX_set_ess_cert_id_digest(ctx.get(), essMd) == 1,
          "TS_RESP_CTX_set_ess_cert_id_digest");
    TS_RESP_CTX_set_serial_cb(ctx.get(), SerialCb, const_cast<Bytes *>(&plan.serial));
    TS_RESP_CTX_set_time_cb(ctx.get(), TimeCb, &epoch);

    Bytes request = TimeStampRequest(plan, stamped);
    BioPtr in = MemBio(request);
    TsRespPtr resp(TS_RESP_create_response(ctx.get(), in.get()));
    Check(resp != nullptr, "TS_RESP_create_response");
    const ASN1_INTEGER *status = TS_STATUS_INFO_get0_status(TS_RESP_get_status_info(resp.get()));
    if (ASN1_INTEGER_get(status) != TS_STATUS_GRANTED) {
        detail::Fail("the TS API refused the time-stamp request");
    }
    return ToDer(TS_RESP_get_token(resp.get()), i2d_PKCS7, "i2d_PKCS7");
}

// OpenSSL writes the certificates as a DER SET OF, sorted by encoding; put
// them back in the order asked for. They are outside everything signed.
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
    Bytes wanted = der::Tlv(0xA0, ConcatDer(ders));
    bool replaced = false;
    for (Bytes &field : signedData) {
        if (field.at(0) == 0xA0) {
            if (field.size() != wanted.size()) {
                throw Error("embedded certificates differ from the ones asked for");
            }
            field = wanted;
            replaced = true;
        }
    }
    if (!replaced) {
        throw Error("no certificates field to reorder");
    }
    return der::Seq({top[0], der::Tlv(0xA0, der::Seq(signedData))});
}

// Changes the last digit of the signing time in place. OpenSSL encodes the
// signed attributes afresh from these objects, so the change reaches the DER
// while the signature over the old encoding stays.
void TamperSigningTime(CMS_SignerInfo *si) {
    int index = CMS_signed_get_attr_by_NID(si, NID_pkcs9_signingTime, -1);
    if (index < 0) {
        throw Error("no signing-time attribute to tamper with");
    }
    ASN1_TYPE *value = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(si, index), 0);
    Check(value != nullptr, "X509_ATTRIBUTE_get0_type");
    ASN1_STRING *s = value->value.asn1_string;
    std::string text(reinterpret_cast<const char *>(ASN1_STRING_get0_data(s)),
                     static_cast<size_t>(ASN1_STRING_length(s)));
    size_t pos = text.find_last_of("0123456789");
    if (pos == std::string::npos) {
        throw Error("signing time without digits");
    }
    text[pos] = text[pos] == '0' ? '1' : '0';
    Check(ASN1_STRING_set(s, text.data(), static_cast<int>(text.size())) == 1, "ASN1_STRING_set");
}

}  // namespace

bool FitsTsApi(const TimestampSpec &plan) {
    if (!plan.tsa.cert || !plan.tsa.key || plan.attrs == TokenAttrs::None || plan.noSigner ||
        plan.pss || plan.essCert || plan.essDigest != Digest::Sha256 ||
        !PlainGenTime(plan.genTime)) {
        return false;
    }
    // TS_RESP_CTX_set_signer_cert refuses a certificate that fails this.
    bool ok = X509_check_purpose(plan.tsa.cert.get(), X509_PURPOSE_TIMESTAMP_SIGN, 0) == 1;
    ERR_clear_error();
    return ok;
}

// TSTInfo ::= SEQUENCE {
//   version INTEGER { v1(1) }, policy TSAPolicyId, messageImprint MessageImprint,
//   serialNumber INTEGER, genTime GeneralizedTime, ... (optional fields left out) }
// MessageImprint ::= SEQUENCE { hashAlgorithm AlgorithmIdentifier, hashedMessage OCTET STRING }
Bytes MakeTstInfo(const TimestampSpec &plan, std::span<const uint8_t> stamped) {
    std::span<const uint8_t> over =
        plan.imprintOver ? std::span<const uint8_t>(*plan.imprintOver) : stamped;
    static constexpr uint8_t kNull[] = {0x05, 0x00};
    Bytes algorithm = der::Seq({der::Oid(OBJ_nid2sn(DigestNid(plan.imprintDigest))),
                                Bytes(std::begin(kNull), std::end(kNull))});
    Bytes imprint = der::Seq({algorithm, der::OctetString(Hash(plan.imprintDigest, over))});
    const auto *genTime = reinterpret_cast<const uint8_t *>(plan.genTime.data());
    return der::Seq({der::Integer(Bytes{0x01}), der::Oid(plan.policy), imprint,
                     der::Integer(plan.serial),
                     der::Tlv(0x18, std::span(genTime, plan.genTime.size()))});
}

Bytes MakeTimestampToken(const TimestampSpec &plan, std::span<const uint8_t> stamped) {
    if (!plan.tsa.cert || !plan.tsa.key) {
        throw Error("TimestampSpec.tsa needs both a certificate and a key");
    }
    bool fits = FitsTsApi(plan);
    if (plan.maker == TokenMaker::TsApi && !fits) {
        throw Error("the TS API cannot make this token (genTime, attributes or TSA purpose)");
    }
    bool tsApi = plan.maker == TokenMaker::TsApi || (plan.maker == TokenMaker::Auto && fits);
    return tsApi ? TokenViaTsApi(plan, stamped) : TokenViaCms(plan, stamped);
}

Bytes MakeSignedData(const SignSpec &plan, std::span<const uint8_t> content) {
    if (!plan.noSigner && (!plan.signer.cert || !plan.signer.key)) {
        throw Error("SignSpec.signer needs both a certificate and a key");
    }
    if (plan.noSigner && (plan.timestamp || plan.tamperSignedAttr)) {
        throw Error("a timestamp or a tampered attribute needs a signer");
    }
    if (plan.tamperSignedAttr && !plan.signedAttrs) {
        throw Error("no signed attributes to tamper with");
    }
    CmsPtr cms(
        CMS_sign(nullptr, nullptr, nullptr, nullptr, CMS_DETACHED | CMS_BINARY | CMS_PARTIAL));
    Check(cms != nullptr, "CMS_sign");
    CMS_SignerInfo *si = nullptr;
    if (!plan.noSigner) {
        // Certificates are added below, in the plan's order; no S/MIME
        // capabilities, so the signed attributes are exactly the three.
        unsigned flags = CMS_BINARY | CMS_NOSMIMECAP | CMS_NOCERTS | CMS_PARTIAL;
        flags |= plan.signedAttrs ? 0 : CMS_NOATTR;
        flags |= plan.pss ? CMS_KEY_PARAM : 0;
        si = CMS_add1_signer(cms.get(), plan.signer.cert.get(), plan.signer.key.get(),
                             DigestMd(plan.digest), flags);
        Check(si != nullptr, "CMS_add1_signer");
        if (plan.pss) {
            detail::UsePss(CMS_SignerInfo_get0_pkey_ctx(si));
        }
        if (plan.signedAttrs) {
            AddSigningTime(si, plan.signingTime);
        }
    }
    for (const Cert &cert : plan.certs) {
        Check(CMS_add1_cert(cms.get(), cert.get()) == 1, "CMS_add1_cert");
    }
    if (si != nullptr) {
        BioPtr in = MemBio(content);
        Check(CMS_final(cms.get(), in.get(), nullptr, CMS_DETACHED | CMS_BINARY) == 1, "CMS_final");
    }
    // Without a signer there is nothing to digest or sign (CMS_final refuses
    // to run): the detached structure with its certificates is already whole.

    if (plan.timestamp) {
        const ASN1_OCTET_STRING *sig = CMS_SignerInfo_get0_signature(si);
        Bytes token = MakeTimestampToken(
            *plan.timestamp,
            std::span(ASN1_STRING_get0_data(sig), static_cast<size_t>(ASN1_STRING_length(sig))));
        Check(CMS_unsigned_add1_attr_by_NID(si, NID_id_smime_aa_timeStampToken, V_ASN1_SEQUENCE,
                                            token.data(), static_cast<int>(token.size())) == 1,
              "CMS_unsigned_add1_attr_by_NID timeStampToken");
    }
    if (plan.tamperSignedAttr) {
        TamperSigningTime(si);
    }
    Bytes der = ToDer(cms.get(), i2d_CMS_ContentInfo, "i2d_CMS_ContentInfo");
    return plan.certs.size() < 2 ? der : RestoreCertOrder(der, plan.certs);
}

Bytes SignatureValueOf(std::span<const uint8_t> signedData) {
    CmsPtr cms = CmsFromDer(signedData);
    const ASN1_OCTET_STRING *sig = CMS_SignerInfo_get0_signature(OnlySigner(cms.get()));
    return Bytes(ASN1_STRING_get0_data(sig), ASN1_STRING_get0_data(sig) + ASN1_STRING_length(sig));
}

Bytes TimestampTokenOf(std::span<const uint8_t> signedData) {
    CmsPtr cms = CmsFromDer(signedData);
    CMS_SignerInfo *si = OnlySigner(cms.get());
    int index = CMS_unsigned_get_attr_by_NID(si, NID_id_smime_aa_timeStampToken, -1);
    if (index < 0) {
        return {};
    }
    ASN1_TYPE *value = X509_ATTRIBUTE_get0_type(CMS_unsigned_get_attr(si, index), 0);
    if (value == nullptr || value->type != V_ASN1_SEQUENCE) {
        throw Error("the timeStampToken attribute is not a SEQUENCE");
    }
    const ASN1_STRING *s = value->value.sequence;
    return Bytes(ASN1_STRING_get0_data(s), ASN1_STRING_get0_data(s) + ASN1_STRING_length(s));
}

Bytes Armoured(std::span<const uint8_t> der, Armour armour) {
    if (armour == Armour::Der) {
        return Bytes(der.begin(), der.end());
    }
    std::string pem = ToPem(armour == Armour::PemCms ? kPemCms : kPemPkcs7, der);
    return Bytes(pem.begin(), pem.end());
}

}  // namespace testpki
