// SignedData (RFC 5652 section 5) and TSTInfo (RFC 3161 section 2.4.2)
// templates, and the decode/release pair of a SignedData.
//
// This system departs from RFC 5652 on purpose where a verifier of one
// detached signature does not need more: at most two certificates and one
// signer are accepted, a signer must be named by issuer and serial number,
// and the content types, digest algorithm set, CRLs and the signer's
// signature algorithm are not examined.
#include "cms/asn1/pkcs7.h"

#include <cstddef>
#include <cstdint>

#include "cms/adapt/adapt.h"
#include "cms/asn1/internal.h"
#include "cms/asn1/oid.h"

namespace {

constexpr uint16_t kOpt = DRX_ASN_OPTIONAL;
constexpr uint16_t kSkip = DRX_ASN_SKIP;
constexpr uint16_t kWhole = DRX_ASN_WITH_HEADER;
constexpr uint16_t kImplicit = DRX_ASN_TAG_IMPLICIT;
constexpr uint16_t kExplicit = DRX_ASN_TAG_EXPLICIT;

using drx_asn::Counted;
using drx_asn::Elements;
using drx_asn::Keyed;
using drx_asn::Row;
using drx_asn::Structured;
using drx_asn::Tagged;

// ---- SignedData -------------------------------------------------------------

// EncapsulatedContentInfo ::= SEQUENCE {
//     eContentType  ContentType,                            -- not examined
//     eContent      [0] EXPLICIT OCTET STRING OPTIONAL }    -- captured as the [0] element
constexpr DorvexAsnTempl g_templDorvexPkcs7ContentInfo[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexPkcs7ContentInfo, contentType)),
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexPkcs7ContentInfo, content), kOpt),
};

// CertificateSet ::= SET SIZE (0..2) OF Certificate   -- each kept whole, decoded later
constexpr DorvexAsnTempl g_templDorvexX509CertRawBundle[] = {
    Elements(&g_itemDorvexAsnOcts, offsetof(DorvexX509CertRawBundle, certs), DRX_PKCS7_MAX_CERTS,
             kWhole),
};

// IssuerAndSerialNumber ::= SEQUENCE {
//     issuer        Name,
//     serialNumber  CertificateSerialNumber }   -- as encoded, minimal
constexpr DorvexAsnTempl g_templDorvexPkcs7IssuerAndSerial[] = {
    Row(&g_itemDorvexX509Name, offsetof(DorvexPkcs7IssuerAndSerial, issuer)),
    Row(&g_itemDorvexAsnBigint, offsetof(DorvexPkcs7IssuerAndSerial, serialNumber),
        DRX_ASN_SIGNED_INT),
};

// SignedAttributes ::= SET SIZE (1..MAX) OF Attribute, dispatched by attrType:
//     id-messageDigest            -> messageDigest (content of its only value), counted
//     id-contentType              -> contentType (content of its only value), counted
//     id-aa-signingCertificate    -> signingCertificate (first value, whole)
//     id-aa-signingCertificateV2  -> signingCertificateV2 (first value, whole)
constexpr DorvexAsnTempl g_templDorvexX509SignedAttrs[] = {
    Keyed(&g_itemDorvexAsnOcts, AOID_PKCS9_AT_MESSAGEDIGEST,
          offsetof(DorvexX509SignedAttrs, messageDigest), kOpt | DRX_ASN_MAP_ONE_VALUE),
    Counted(AOID_PKCS9_AT_MESSAGEDIGEST, offsetof(DorvexX509SignedAttrs, messageDigestCount)),
    Keyed(&g_itemDorvexAsnOcts, AOID_PKCS9_AT_CONTENTTYPE,
          offsetof(DorvexX509SignedAttrs, contentType), kOpt | DRX_ASN_MAP_ONE_VALUE),
    Counted(AOID_PKCS9_AT_CONTENTTYPE, offsetof(DorvexX509SignedAttrs, contentTypeCount)),
    Keyed(&g_itemDorvexAsnOcts, AOID_AA_SIGNING_CERTIFICATE,
          offsetof(DorvexX509SignedAttrs, signingCertificate), kOpt | kWhole),
    Keyed(&g_itemDorvexAsnOcts, AOID_AA_SIGNING_CERTIFICATE_V2,
          offsetof(DorvexX509SignedAttrs, signingCertificateV2), kOpt | kWhole),
};

// UnsignedAttributes ::= SET SIZE (1..MAX) OF Attribute, dispatched by attrType:
//     id-aa-timeStampToken  -> timestampToken (first value, whole: a ContentInfo)
constexpr DorvexAsnTempl g_templDorvexX509UnsignedAttrs[] = {
    Keyed(&g_itemDorvexAsnOcts, AOID_PKCS9_AT_TIMESTAMP_TOKEN,
          offsetof(DorvexX509UnsignedAttrs, timestampToken), kOpt | kWhole),
};

// SignerInfo ::= SEQUENCE {
//     version             CMSVersion,                        -- value not examined
//     sid                 SignerIdentifier,                  -- issuerAndSerialNumber only
//     digestAlgorithm     DigestAlgorithmIdentifier,
//     signedAttrs         [0] IMPLICIT SignedAttributes OPTIONAL,  -- captured whole, then decoded
//     signatureAlgorithm  SignatureAlgorithmIdentifier,
//     signature           SignatureValue,
//     unsignedAttrs       [1] IMPLICIT UnsignedAttributes OPTIONAL }
// RFC 5652 5.4: the signature covers signedAttrs with the SET tag 0x31 in
// place of [0]; the capture records that tag for the verifier to put back.
constexpr DorvexAsnTempl g_templDorvexPkcs7SignedInfo[] = {
    Row(&g_itemDorvexAsnInt, offsetof(DorvexPkcs7SignedInfo, version)),
    Row(&g_itemDorvexPkcs7IssuerAndSerial, offsetof(DorvexPkcs7SignedInfo, issuerAndSerial)),
    Row(&g_itemDorvexX509AlgoIdentifier, offsetof(DorvexPkcs7SignedInfo, digestAlgorithm)),
    Tagged(&g_itemDorvexAttrBundleRaw, kImplicit, 0,
           offsetof(DorvexPkcs7SignedInfo, signedAttrsRaw), kOpt | DRX_ASN_PEEK | kWhole),
    Tagged(&g_itemDorvexX509SignedAttrs, kImplicit, 0, offsetof(DorvexPkcs7SignedInfo, signedAttrs),
           kOpt),
    Row(&g_itemDorvexX509AlgoIdentifier, offsetof(DorvexPkcs7SignedInfo, signatureAlgorithm)),
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexPkcs7SignedInfo, signature)),
    Tagged(&g_itemDorvexX509UnsignedAttrs, kImplicit, 1,
           offsetof(DorvexPkcs7SignedInfo, unsignedAttrs), kOpt),
};

// SignerInfos ::= SET SIZE (0..1) OF SignerInfo
constexpr DorvexAsnTempl g_templDorvexPkcs7SignedInfoBundle[] = {
    Elements(&g_itemDorvexPkcs7SignedInfo, offsetof(DorvexPkcs7SignedInfoBundle, signerInfo),
             DRX_PKCS7_MAX_SIGNERS),
};

// SignedData ::= SEQUENCE {
//     version           CMSVersion,
//     digestAlgorithms  DigestAlgorithmIdentifiers,          -- stepped over
//     encapContentInfo  EncapsulatedContentInfo,
//     certificates      [0] IMPLICIT CertificateSet OPTIONAL,
//     crls              [1] IMPLICIT RevocationInfoChoices OPTIONAL,   -- stepped over
//     signerInfos       SignerInfos }
constexpr DorvexAsnTempl g_templDorvexPkcs7SignedData[] = {
    Row(&g_itemDorvexAsnInt, offsetof(DorvexPkcs7SignedData, version), kOpt),
    Row(&g_itemDorvexAsnSet, 0, kSkip),
    Row(&g_itemDorvexPkcs7ContentInfo, offsetof(DorvexPkcs7SignedData, contentInfo)),
    Tagged(&g_itemDorvexX509CertRawBundle, kImplicit, 0,
           offsetof(DorvexPkcs7SignedData, certificates), kOpt),
    Tagged(&g_itemDorvexAsnSeq, kImplicit, 1, 0, kOpt | kSkip),
    Row(&g_itemDorvexPkcs7SignedInfoBundle, offsetof(DorvexPkcs7SignedData, signerInfos)),
};

// ContentInfo ::= SEQUENCE {
//     contentType  ContentType,                 -- not compared with id-signedData
//     content      [0] EXPLICIT SignedData }
constexpr DorvexAsnTempl g_templDorvexPkcs7Content[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexPkcs7Content, contentType)),
    Tagged(&g_itemDorvexPkcs7SignedData, kExplicit, 0, offsetof(DorvexPkcs7Content, signedData)),
};

// ---- ESS signing certificate ------------------------------------------------

// The first certificate identifier of a signing-certificate attribute.
struct DorvexEssCertId {
    DorvexX509AlgoIdentifier hashAlgorithm;  // v2 only; empty means SHA-256
    DorvexAsnOcts certHash;
};

constexpr DorvexAsnItem g_itemDorvexEssOctetString = {
    nullptr, &g_drxAsnFuncOct, DRX_ASN_CLASS_UNIVERSAL, 0, 4, 0, sizeof(DorvexAsnOcts)};

// ESSCertID ::= SEQUENCE {
//     certHash      OCTET STRING,             -- SHA-1 of the whole certificate
//     issuerSerial  IssuerSerial OPTIONAL }   -- stepped over: the hash names the certificate
constexpr DorvexAsnTempl g_templDorvexEssCertId[] = {
    Row(&g_itemDorvexEssOctetString, offsetof(DorvexEssCertId, certHash)),
    Row(&g_itemDorvexAsnSeq, 0, kOpt | kSkip),
};

// ESSCertIDv2 ::= SEQUENCE {
//     hashAlgorithm  AlgorithmIdentifier DEFAULT {algorithm id-sha256},
//     certHash       OCTET STRING,
//     issuerSerial   IssuerSerial OPTIONAL }   -- stepped over
constexpr DorvexAsnTempl g_templDorvexEssCertIdV2[] = {
    Row(&g_itemDorvexX509AlgoIdentifier, offsetof(DorvexEssCertId, hashAlgorithm), kOpt),
    Row(&g_itemDorvexEssOctetString, offsetof(DorvexEssCertId, certHash)),
    Row(&g_itemDorvexAsnSeq, 0, kOpt | kSkip),
};

// SigningCertificate ::= SEQUENCE {                      -- and SigningCertificateV2
//     certs     SEQUENCE OF ESSCertID,                  -- the first one is read
//     policies  SEQUENCE OF PolicyInformation OPTIONAL }  -- stepped over
// The record is the certs element's content, where the first ESSCertID begins.
constexpr DorvexAsnTempl g_templDorvexEssSigningCert[] = {
    Row(&g_itemDorvexAsnSeq, 0),
    Row(&g_itemDorvexAsnSeq, 0, kOpt | kSkip),
};

// ---- TSTInfo ----------------------------------------------------------------

// MessageImprint ::= SEQUENCE {
//     hashAlgorithm  AlgorithmIdentifier,
//     hashedMessage  OCTET STRING }
constexpr DorvexAsnTempl g_templDorvexTsMsgImprint[] = {
    Row(&g_itemDorvexX509AlgoIdentifier, offsetof(DorvexTsMsgImprint, hashAlgorithm)),
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexTsMsgImprint, hashedMessage)),
};

// TSTInfo ::= SEQUENCE {
//     version         INTEGER,                              -- stepped over
//     policy          TSAPolicyId,                          -- stepped over
//     messageImprint  MessageImprint,
//     serialNumber    INTEGER,                              -- stepped over
//     genTime         GeneralizedTime,
//     accuracy        Accuracy OPTIONAL,                    -- the rest stepped over
//     ordering        BOOLEAN DEFAULT FALSE,
//     nonce           INTEGER OPTIONAL,
//     tsa             [0] GeneralName OPTIONAL,
//     extensions      [1] IMPLICIT Extensions OPTIONAL }
constexpr DorvexAsnTempl g_templDorvexTimestampInfo[] = {
    Row(&g_itemDorvexAsnInt, 0, kSkip),
    Row(&g_itemDorvexAsnOcts, 0, kSkip),
    Row(&g_itemDorvexTsMsgImprint, offsetof(DorvexTimestampInfo, messageImprint)),
    Row(&g_itemDorvexAsnBigint, 0, kSkip),
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexTimestampInfo, genTime)),
    Row(&g_itemDorvexAsnSeq, 0, kOpt | kSkip),
    Row(&g_itemDorvexAsnBool, 0, kOpt | kSkip),
    Row(&g_itemDorvexAsnBigint, 0, kOpt | kSkip),
    Tagged(&g_itemDorvexAsnSeq, kImplicit, 0, 0, kOpt | kSkip),
    Tagged(&g_itemDorvexAsnSeq, kImplicit, 1, 0, kOpt | kSkip),
};

constexpr const DorvexAsnFunc *kSeq = &g_drxAsnFuncSeq;
constexpr const DorvexAsnFunc *kSetOf = &g_drxAsnFuncSetOf;
constexpr const DorvexAsnFunc *kMap = &g_drxAsnFuncMap;

}  // namespace

// ---- items ------------------------------------------------------------------

// The signed attributes captured as bytes: a SET, read under [0] IMPLICIT.
constexpr DorvexAsnItem g_itemDorvexAttrBundleRaw = {
    nullptr, &g_drxAsnFuncOct, DRX_ASN_CLASS_UNIVERSAL, 1, DRX_ASN_SET, 0, sizeof(DorvexAsnOcts)};

constexpr DorvexAsnItem g_itemDorvexPkcs7ContentInfo = Structured(
    g_templDorvexPkcs7ContentInfo, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexPkcs7ContentInfo));
// Universal SEQUENCE as its own tag, but only ever reached under [0] IMPLICIT.
constexpr DorvexAsnItem g_itemDorvexX509CertRawBundle = Structured(
    g_templDorvexX509CertRawBundle, kSetOf, DRX_ASN_SEQUENCE, sizeof(DorvexX509CertRawBundle));
constexpr DorvexAsnItem g_itemDorvexPkcs7IssuerAndSerial = Structured(
    g_templDorvexPkcs7IssuerAndSerial, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexPkcs7IssuerAndSerial));
constexpr DorvexAsnItem g_itemDorvexX509SignedAttrs =
    Structured(g_templDorvexX509SignedAttrs, kMap, DRX_ASN_SET, sizeof(DorvexX509SignedAttrs));
constexpr DorvexAsnItem g_itemDorvexX509UnsignedAttrs =
    Structured(g_templDorvexX509UnsignedAttrs, kMap, DRX_ASN_SET, sizeof(DorvexX509UnsignedAttrs));
constexpr DorvexAsnItem g_itemDorvexPkcs7SignedInfo =
    Structured(g_templDorvexPkcs7SignedInfo, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexPkcs7SignedInfo));
constexpr DorvexAsnItem g_itemDorvexPkcs7SignedInfoBundle = Structured(
    g_templDorvexPkcs7SignedInfoBundle, kSetOf, DRX_ASN_SET, sizeof(DorvexPkcs7SignedInfoBundle));
constexpr DorvexAsnItem g_itemDorvexPkcs7SignedData =
    Structured(g_templDorvexPkcs7SignedData, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexPkcs7SignedData));
constexpr DorvexAsnItem g_itemDorvexPkcs7Content =
    Structured(g_templDorvexPkcs7Content, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexPkcs7Content));

constexpr DorvexAsnItem g_itemDorvexTsMsgImprint =
    Structured(g_templDorvexTsMsgImprint, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexTsMsgImprint));
constexpr DorvexAsnItem g_itemDorvexTimestampInfo =
    Structured(g_templDorvexTimestampInfo, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexTimestampInfo));

namespace {

constexpr DorvexAsnItem g_itemDorvexEssCertId =
    Structured(g_templDorvexEssCertId, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexEssCertId));
constexpr DorvexAsnItem g_itemDorvexEssCertIdV2 =
    Structured(g_templDorvexEssCertIdV2, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexEssCertId));
constexpr DorvexAsnItem g_itemDorvexEssSigningCert =
    Structured(g_templDorvexEssSigningCert, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexAsnOcts));

}  // namespace

// The SET OF decoder stores the count in the record's first word.
static_assert(offsetof(DorvexX509CertRawBundle, count) == 0 &&
              offsetof(DorvexPkcs7SignedInfoBundle, count) == 0);

// ---- decode and release -----------------------------------------------------

namespace {

constexpr bool IsSequenceTag(const DorvexAsnOcts &raw) {
    return raw.tagClass == DRX_ASN_CLASS_UNIVERSAL && raw.constructed == 1 &&
           raw.tagCode == DRX_ASN_SEQUENCE;
}

// InternalDecodeCert: decodes every captured certificate into certList, in
// order. On failure the certificates already decoded stay in certList for
// the caller to release.
uint32_t InternalDecodeCert(DorvexPkcs7SignedData &signedData) {
    const DorvexX509CertRawBundle &raw = signedData.certificates;
    for (uint32_t i = 0; i < raw.count && i < DRX_PKCS7_MAX_CERTS; ++i) {
        const DorvexAsnOcts &der = raw.certs[i];
        DorvexX509Cert *decoded = nullptr;
        uint32_t used = 0;
        if (!IsSequenceTag(der) ||
            DorvexX509DecodeCert(der.data, der.len, &decoded, &used) != DORVEX_OK) {
            DORVEX_LOG_ERR(DORVEX_ERR_PKCS7_DECODE, nullptr);
            return DORVEX_ERR_PKCS7_DECODE;
        }
        drx::CertPtr cert(decoded);
        if (DorvexListAdd(&signedData.certList, cert.get()) != DORVEX_OK) {
            DORVEX_LOG_ERR(DORVEX_ERR_PKCS7_DECODE, nullptr);
            return DORVEX_ERR_PKCS7_DECODE;
        }
        (void)cert.release();
    }
    return DORVEX_OK;
}

}  // namespace

uint32_t DorvexPkcs7DecodeSigned(const uint8_t *data, uint32_t size, DorvexPkcs7Content **content,
                                 uint32_t *consumed) {
    if (data == nullptr || size == 0 || content == nullptr || consumed == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    *content = nullptr;
    void *record = nullptr;
    uint32_t used = 0;
    // The engine's own code says where the structure broke; callers only
    // need to know that the signature did not decode.
    if (DorvexAsnDecode(data, size, &g_itemDorvexPkcs7Content, 0, &record, &used) != DORVEX_OK) {
        return DORVEX_ERR_PKCS7_DECODE;
    }
    drx::SignedPtr decoded(static_cast<DorvexPkcs7Content *>(record));
    if (InternalDecodeCert(decoded->signedData) != DORVEX_OK) {
        return DORVEX_ERR_PKCS7_DECODE;
    }
    *content = decoded.release();
    *consumed = used;
    return DORVEX_OK;
}

void DorvexPkcs7FreeSigned(DorvexPkcs7Content *content) {
    if (content == nullptr) {
        return;
    }
    DorvexListFree(&content->signedData.certList, DorvexX509FreeCertItem);
    DorvexAsnFree(content, &g_itemDorvexPkcs7Content);
}

uint32_t DorvexPkcs7EssCertHash(const DorvexAsnOcts *value, uint32_t v2, int32_t *hashAoid,
                                DorvexAsnOcts *certHash) {
    if (value == nullptr || value->data == nullptr || value->len == 0 || hashAoid == nullptr ||
        certHash == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    drx::AsnPtr<DorvexAsnOcts, &g_itemDorvexEssSigningCert> signing;
    if (drx::AsnDecodeOwned<&g_itemDorvexEssSigningCert>(value->data, value->len, &signing) !=
        DORVEX_OK) {
        return DORVEX_ERR_PKCS7_DECODE;
    }
    const DorvexAsnOcts certs = *signing;
    // An empty list names no certificate, which cannot be the one that signed.
    if (certs.data == nullptr || certs.len == 0) {
        return DORVEX_ERR_PKCS7_DECODE;
    }
    drx::AsnPtr<DorvexEssCertId, &g_itemDorvexEssCertId> idV1;
    drx::AsnPtr<DorvexEssCertId, &g_itemDorvexEssCertIdV2> idV2;
    const uint32_t decoded =
        v2 != 0 ? drx::AsnDecodeOwned<&g_itemDorvexEssCertIdV2>(certs.data, certs.len, &idV2)
                : drx::AsnDecodeOwned<&g_itemDorvexEssCertId>(certs.data, certs.len, &idV1);
    if (decoded != DORVEX_OK) {
        return DORVEX_ERR_PKCS7_DECODE;
    }
    const DorvexEssCertId *id = v2 != 0 ? idV2.get() : idV1.get();
    if (v2 == 0) {
        *hashAoid = AOID_SHA1;
    } else if (id->hashAlgorithm.algorithm.data == nullptr) {
        *hashAoid = AOID_SHA256;
    } else {
        *hashAoid = DorvexFindAoid(&id->hashAlgorithm.algorithm);
    }
    *certHash = id->certHash;
    return DORVEX_OK;
}
