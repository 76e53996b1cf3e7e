// Certificate and CRL templates (RFC 5280 sections 4.1 and 5.1) and their
// reference-counted records.
//
// Only what the verifier reads is kept. Of the extensions, basic
// constraints, key usage and extended key usage (certificates), the issuing
// distribution point (CRLs) and the reason code (CRL entries) are decoded;
// every other extension is skipped, but a critical one is recorded so that
// path validation and CRL choice can refuse the record (RFC 5280 4.2, 5.2). Failures inside an
// optional list (extensions, revoked entries) make the list count as absent, so the enclosing
// SEQUENCE reports its left-over bytes.
#include "cms/asn1/x509.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cms/adapt/provider.h"
#include "cms/asn1/internal.h"
#include "cms/asn1/oid.h"

namespace {

constexpr uint16_t kOpt = DRX_ASN_OPTIONAL;
constexpr uint16_t kDef = DRX_ASN_DEFAULT;
constexpr uint16_t kSkip = DRX_ASN_SKIP;
constexpr uint16_t kPeekWhole = DRX_ASN_PEEK | DRX_ASN_WITH_HEADER;
// Serial numbers are compared as numbers: kept as encoded, minimal only.
constexpr uint16_t kSerial = DRX_ASN_SIGNED_INT;

using drx_asn::Critical;
using drx_asn::Elements;
using drx_asn::Keyed;
using drx_asn::Row;
using drx_asn::Structured;
using drx_asn::Tagged;

// ---- names ----------------------------------------------------------------

// AttributeTypeAndValue ::= SEQUENCE {
//     type   AttributeType,     -- OBJECT IDENTIFIER
//     value  AttributeValue }   -- any string type, kept as encoded
constexpr DorvexAsnTempl g_templDorvexX509AttrEntry[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexX509AttrEntry, type)),
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexX509AttrEntry, value)),
};

// RelativeDistinguishedName ::= SET SIZE (1..10) OF AttributeTypeAndValue
constexpr DorvexAsnTempl g_templDorvexX509AttrBundle[] = {
    Elements(&g_itemDorvexX509AttrEntry, offsetof(DorvexX509AttrBundle, attrs),
             DRX_X509_RDN_MAX_ATTRS),
};

// Name ::= SEQUENCE SIZE (0..10) OF RelativeDistinguishedName
constexpr DorvexAsnTempl g_templDorvexX509Name[] = {
    Elements(&g_itemDorvexX509AttrBundle, offsetof(DorvexX509Name, rdns), DRX_X509_NAME_MAX_RDNS),
};

// ---- certificate ----------------------------------------------------------

// Validity ::= SEQUENCE {
//     notBefore  Time,   -- UTCTime or GeneralizedTime, told apart when converted
//     notAfter   Time }
constexpr DorvexAsnTempl g_templDorvexX509Validity[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexX509Validity, notBefore)),
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexX509Validity, notAfter)),
};

// RSAPublicKey ::= SEQUENCE {
//     modulus         INTEGER,
//     publicExponent  INTEGER }
constexpr DorvexAsnTempl g_templDorvexRsaPublicKey[] = {
    Row(&g_itemDorvexAsnBigint, offsetof(DorvexRsaPublicKey, modulus)),
    Row(&g_itemDorvexAsnBigint, offsetof(DorvexRsaPublicKey, publicExponent)),
};

// SubjectPublicKeyInfo ::= SEQUENCE {
//     algorithm         AlgorithmIdentifier,
//     subjectPublicKey  BIT STRING }   -- read by the algorithm once decoded
constexpr DorvexAsnTempl g_templDorvexX509PubkeyInfo[] = {
    Row(&g_itemDorvexX509AlgoIdentifier, offsetof(DorvexX509PubkeyInfo, algorithm)),
    Row(&g_itemDorvexAsnBits, offsetof(DorvexX509PubkeyInfo, keyBits)),
};

// BasicConstraints ::= SEQUENCE {
//     cA                 BOOLEAN DEFAULT FALSE,
//     pathLenConstraint  INTEGER (0..MAX) OPTIONAL }   -- stepped over (see PathLen)
constexpr DorvexAsnTempl g_templDorvexX509BasicConstraints[] = {
    Row(&g_itemDorvexAsnBool, offsetof(DorvexX509BasicConstraints, isCA), kDef),
    Row(&g_itemDorvexAsnOcts, 0, kOpt | kSkip),
};

// The same BasicConstraints read for its path length alone:
//     cA                 -- stepped over
//     pathLenConstraint  -> the DorvexAsnBigint record itself
constexpr DorvexAsnTempl g_templDorvexX509PathLen[] = {
    Row(&g_itemDorvexAsnBool, 0, kDef | kSkip),
    Row(&g_itemDorvexAsnBigint, 0, kOpt),
};

// Extensions ::= SEQUENCE SIZE (1..MAX) OF Extension, dispatched by extnID:
//     id-ce-basicConstraints  -> isCA, pathLenConstraint
//     id-ce-keyUsage          -> keyUsage (KeyUsage BIT STRING octets)
//     id-ce-extKeyUsage       -> extKeyUsage (every KeyPurposeId), extKeyUsageCritical
//     id-ce-cRLDistributionPoints -> crlDistributionPoints (content, read when needed)
//     any other, critical     -> unknownCritical
constexpr DorvexAsnTempl g_templDorvexX509CertExts[] = {
    Keyed(&g_itemDorvexX509BasicConstraints, AOID_CE_BASICCONSTRAINTS,
          offsetof(DorvexX509CertExts, isCA)),
    Keyed(&g_itemDorvexX509PathLen, AOID_CE_BASICCONSTRAINTS,
          offsetof(DorvexX509CertExts, pathLenConstraint)),
    Keyed(&g_itemDorvexAsnBitsToInt, AOID_CE_KEYUSAGE, offsetof(DorvexX509CertExts, keyUsage)),
    Keyed(&g_itemDorvexAsnExku, AOID_CE_EXTKEYUSAGE, offsetof(DorvexX509CertExts, extKeyUsage)),
    Critical(AOID_CE_EXTKEYUSAGE, offsetof(DorvexX509CertExts, extKeyUsageCritical)),
    Keyed(&g_itemDorvexAsnSeq, AOID_CE_CRLDISTRIBUTIONPOINTS,
          offsetof(DorvexX509CertExts, crlDistributionPoints)),
    Critical(AOID_UNKNOWN, offsetof(DorvexX509CertExts, unknownCritical)),
};

// TBSCertificate ::= SEQUENCE {
//     version               [0] EXPLICIT Version,   -- required here, value not examined
//     serialNumber          CertificateSerialNumber,   -- as encoded, minimal
//     signature             AlgorithmIdentifier,     -- not compared with the outer one
//     issuer                Name,
//     validity              Validity,
//     subject               Name,
//     subjectPublicKeyInfo  SubjectPublicKeyInfo,
//     issuerUniqueID        [1] IMPLICIT UniqueIdentifier OPTIONAL,
//     subjectUniqueID       [2] IMPLICIT UniqueIdentifier OPTIONAL,
//     extensions            [3] EXPLICIT Extensions OPTIONAL }
constexpr DorvexAsnTempl g_templDorvexX509CertInfo[] = {
    Tagged(&g_itemDorvexAsnInt, DRX_ASN_TAG_EXPLICIT, 0, 0, kSkip),
    Row(&g_itemDorvexAsnBigint, offsetof(DorvexX509CertInfo, serialNumber), kSerial),
    Row(&g_itemDorvexAsnSeq, 0, kSkip),
    Row(&g_itemDorvexX509Name, offsetof(DorvexX509CertInfo, issuer)),
    Row(&g_itemDorvexX509Validity, offsetof(DorvexX509CertInfo, validity)),
    Row(&g_itemDorvexX509Name, offsetof(DorvexX509CertInfo, subject)),
    Row(&g_itemDorvexX509PubkeyInfo, offsetof(DorvexX509CertInfo, subjectPublicKeyInfo)),
    Tagged(&g_itemDorvexAsnBits, DRX_ASN_TAG_IMPLICIT, 1, 0, kOpt | kSkip),
    Tagged(&g_itemDorvexAsnBits, DRX_ASN_TAG_IMPLICIT, 2, 0, kOpt | kSkip),
    Tagged(&g_itemDorvexX509CertExts, DRX_ASN_TAG_EXPLICIT, 3,
           offsetof(DorvexX509CertInfo, extensions), kOpt),
};

// Certificate ::= SEQUENCE {
//     tbsCertificate      TBSCertificate,   -- captured whole (the signed bytes), then decoded
//     signatureAlgorithm  AlgorithmIdentifier,
//     signatureValue      BIT STRING }
constexpr DorvexAsnTempl g_templDorvexX509Cert[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexX509Cert, tbsRaw), kPeekWhole),
    Row(&g_itemDorvexX509CertInfo, offsetof(DorvexX509Cert, certInfo)),
    Row(&g_itemDorvexX509AlgoIdentifier, offsetof(DorvexX509Cert, signatureAlgorithm)),
    Row(&g_itemDorvexAsnBits, offsetof(DorvexX509Cert, signature)),
};

// ---- CRL --------------------------------------------------------------------

// crlEntryExtensions, dispatched by extnID:
//     id-ce-cRLReasons        -> reasonCode (CRLReason ENUMERATED)
//     id-ce-certificateIssuer -> certificateIssuer (GeneralNames content)
//     any other, critical     -> unknownCritical
constexpr DorvexAsnTempl g_templDorvexX509RevokeAttrs[] = {
    Keyed(&g_itemDorvexAsnEnum, AOID_CE_CRLREASONS, offsetof(DorvexX509RevokeAttrs, reasonCode)),
    Keyed(&g_itemDorvexAsnSeq, AOID_CE_CERTIFICATEISSUER,
          offsetof(DorvexX509RevokeAttrs, certificateIssuer)),
    Critical(AOID_UNKNOWN, offsetof(DorvexX509RevokeAttrs, unknownCritical)),
};

// SEQUENCE {
//     userCertificate     CertificateSerialNumber,
//     revocationDate      Time,
//     crlEntryExtensions  Extensions OPTIONAL }
constexpr DorvexAsnTempl g_templDorvexX509RevokeEntry[] = {
    Row(&g_itemDorvexAsnBigint, offsetof(DorvexX509RevokeEntry, userCertificate), kSerial),
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexX509RevokeEntry, revocationDate)),
    Row(&g_itemDorvexX509RevokeAttrs, offsetof(DorvexX509RevokeEntry, crlEntryExtensions), kOpt),
};

// IssuingDistributionPoint ::= SEQUENCE {
//     distributionPoint           [0] DistributionPointName OPTIONAL,
//     onlyContainsUserCerts       [1] BOOLEAN DEFAULT FALSE,
//     onlyContainsCACerts         [2] BOOLEAN DEFAULT FALSE,
//     onlySomeReasons             [3] ReasonFlags OPTIONAL,
//     indirectCRL                 [4] BOOLEAN DEFAULT FALSE,
//     onlyContainsAttributeCerts  [5] BOOLEAN DEFAULT FALSE }
constexpr uint16_t kImplicit = DRX_ASN_TAG_IMPLICIT;
constexpr DorvexAsnTempl g_templDorvexX509IssuingDistPoint[] = {
    Tagged(&g_itemDorvexAsnOcts, kImplicit, 0,
           offsetof(DorvexX509IssuingDistPoint, distributionPoint), kOpt),
    Tagged(&g_itemDorvexAsnBool, kImplicit, 1,
           offsetof(DorvexX509IssuingDistPoint, onlyContainsUserCerts), kOpt),
    Tagged(&g_itemDorvexAsnBool, kImplicit, 2,
           offsetof(DorvexX509IssuingDistPoint, onlyContainsCACerts), kOpt),
    Tagged(&g_itemDorvexAsnBits, kImplicit, 3,
           offsetof(DorvexX509IssuingDistPoint, onlySomeReasons), kOpt),
    Tagged(&g_itemDorvexAsnBool, kImplicit, 4, offsetof(DorvexX509IssuingDistPoint, indirectCRL),
           kOpt),
    Tagged(&g_itemDorvexAsnBool, kImplicit, 5,
           offsetof(DorvexX509IssuingDistPoint, onlyContainsAttributeCerts), kOpt),
};

// crlExtensions, dispatched by extnID:
//     id-ce-issuingDistributionPoint  -> issuingDistPoint
//     any other, critical             -> unknownCritical
constexpr DorvexAsnTempl g_templDorvexX509CrlAttrs[] = {
    Keyed(&g_itemDorvexX509IssuingDistPoint, AOID_CE_ISSUINGDISTRIBUTIONPOINT,
          offsetof(DorvexX509CrlAttrs, issuingDistPoint)),
    Critical(AOID_UNKNOWN, offsetof(DorvexX509CrlAttrs, unknownCritical)),
};

// A Time: UTCTime or GeneralizedTime, told apart when converted. Any
// universal primitive tag matches, so a SEQUENCE or [0] that follows an
// absent nextUpdate is never taken for it.
constexpr DorvexAsnItem g_itemDorvexX509Time = {
    nullptr, &g_drxAsnFuncOct,     DRX_ASN_CLASS_UNIVERSAL, 0, DRX_ASN_ANY_TAG,
    0,       sizeof(DorvexAsnOcts)};

// TBSCertList ::= SEQUENCE {
//     version              Version OPTIONAL,    -- absent in a v1 CRL
//     signature            AlgorithmIdentifier,
//     issuer               Name,
//     thisUpdate           Time,
//     nextUpdate           Time OPTIONAL,
//     revokedCertificates  SEQUENCE OF ... OPTIONAL,   -- content captured, entries decoded after
//     crlExtensions        [0] EXPLICIT Extensions OPTIONAL }
constexpr DorvexAsnTempl g_templDorvexX509CrlInfo[] = {
    Row(&g_itemDorvexAsnInt, offsetof(DorvexX509CrlInfo, version), kOpt),
    Row(&g_itemDorvexX509AlgoIdentifier, offsetof(DorvexX509CrlInfo, signature)),
    Row(&g_itemDorvexX509Name, offsetof(DorvexX509CrlInfo, issuer)),
    Row(&g_itemDorvexX509Time, offsetof(DorvexX509CrlInfo, thisUpdate)),
    Row(&g_itemDorvexX509Time, offsetof(DorvexX509CrlInfo, nextUpdate), kOpt),
    Row(&g_itemDorvexAsnSeq,
        offsetof(DorvexX509CrlInfo, revokedCertificates) + offsetof(DorvexX509Revoked, raw), kOpt),
    Tagged(&g_itemDorvexX509CrlAttrs, DRX_ASN_TAG_EXPLICIT, 0,
           offsetof(DorvexX509CrlInfo, crlExtensions), kOpt),
};

// CertificateList ::= SEQUENCE {
//     tbsCertList         TBSCertList,   -- captured whole (the signed bytes), then decoded
//     signatureAlgorithm  AlgorithmIdentifier,
//     signatureValue      BIT STRING }
constexpr DorvexAsnTempl g_templDorvexX509Crl[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexX509Crl, tbsRaw), kPeekWhole),
    Row(&g_itemDorvexX509CrlInfo, offsetof(DorvexX509Crl, crlInfo)),
    Row(&g_itemDorvexX509AlgoIdentifier, offsetof(DorvexX509Crl, signatureAlgorithm)),
    Row(&g_itemDorvexAsnBits, offsetof(DorvexX509Crl, signature)),
};

constexpr const DorvexAsnFunc *kSeq = &g_drxAsnFuncSeq;
constexpr const DorvexAsnFunc *kSetOf = &g_drxAsnFuncSetOf;
constexpr const DorvexAsnFunc *kMap = &g_drxAsnFuncMap;

}  // namespace

// ---- items ------------------------------------------------------------------

constexpr DorvexAsnItem g_itemDorvexX509AttrEntry =
    Structured(g_templDorvexX509AttrEntry, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexX509AttrEntry));
constexpr DorvexAsnItem g_itemDorvexX509AttrBundle =
    Structured(g_templDorvexX509AttrBundle, kSetOf, DRX_ASN_SET, sizeof(DorvexX509AttrBundle));
constexpr DorvexAsnItem g_itemDorvexX509Name =
    Structured(g_templDorvexX509Name, kSetOf, DRX_ASN_SEQUENCE, sizeof(DorvexX509Name));
constexpr DorvexAsnItem g_itemDorvexX509Validity =
    Structured(g_templDorvexX509Validity, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexX509Validity));
constexpr DorvexAsnItem g_itemDorvexRsaPublicKey =
    Structured(g_templDorvexRsaPublicKey, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexRsaPublicKey));
constexpr DorvexAsnItem g_itemDorvexX509PubkeyInfo =
    Structured(g_templDorvexX509PubkeyInfo, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexX509PubkeyInfo));
constexpr DorvexAsnItem g_itemDorvexX509BasicConstraints = Structured(
    g_templDorvexX509BasicConstraints, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexX509BasicConstraints));
constexpr DorvexAsnItem g_itemDorvexX509PathLen =
    Structured(g_templDorvexX509PathLen, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexAsnBigint));
constexpr DorvexAsnItem g_itemDorvexX509CertExts =
    Structured(g_templDorvexX509CertExts, kMap, DRX_ASN_SEQUENCE, sizeof(DorvexX509CertExts));
constexpr DorvexAsnItem g_itemDorvexX509CertInfo =
    Structured(g_templDorvexX509CertInfo, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexX509CertInfo));
constexpr DorvexAsnItem g_itemDorvexX509Cert =
    Structured(g_templDorvexX509Cert, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexX509Cert));

constexpr DorvexAsnItem g_itemDorvexX509RevokeAttrs =
    Structured(g_templDorvexX509RevokeAttrs, kMap, DRX_ASN_SEQUENCE, sizeof(DorvexX509RevokeAttrs));
constexpr DorvexAsnItem g_itemDorvexX509RevokeEntry =
    Structured(g_templDorvexX509RevokeEntry, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexX509RevokeEntry));
constexpr DorvexAsnItem g_itemDorvexX509IssuingDistPoint = Structured(
    g_templDorvexX509IssuingDistPoint, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexX509IssuingDistPoint));
constexpr DorvexAsnItem g_itemDorvexX509CrlAttrs =
    Structured(g_templDorvexX509CrlAttrs, kMap, DRX_ASN_SEQUENCE, sizeof(DorvexX509CrlAttrs));
constexpr DorvexAsnItem g_itemDorvexX509CrlInfo =
    Structured(g_templDorvexX509CrlInfo, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexX509CrlInfo));
constexpr DorvexAsnItem g_itemDorvexX509Crl =
    Structured(g_templDorvexX509Crl, kSeq, DRX_ASN_SEQUENCE, sizeof(DorvexX509Crl));

// The SET OF decoder stores the count in the record's first word.
static_assert(offsetof(DorvexX509Name, count) == 0 && offsetof(DorvexX509AttrBundle, count) == 0);
// The map rows write 32-bit values into these members.
static_assert(sizeof(DorvexX509BasicConstraints) == sizeof(DorvexAsnInt) &&
              sizeof(DorvexX509CertExts::extKeyUsageCritical) == sizeof(uint32_t));

// ---- decode and release -----------------------------------------------------

namespace {

// Decodes one top-level record of type Record and gives it its first
// reference.
template <typename Record>
uint32_t InternalDecodeCounted(const uint8_t *data, uint32_t size, const DorvexAsnItem &item,
                               Record **out, uint32_t *consumed) {
    if (data == nullptr || size == 0 || out == nullptr || consumed == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    *out = nullptr;
    void *record = nullptr;
    uint32_t used = 0;
    const uint32_t ret = DorvexAsnDecode(data, size, &item, 0, &record, &used);
    if (ret != DORVEX_OK) {
        return ret;
    }
    auto *decoded = static_cast<Record *>(record);
    decoded->refCount = 1;
    *out = decoded;
    *consumed = used;
    return DORVEX_OK;
}

template <typename Record>
void InternalRelease(Record *record, const DorvexAsnItem &item) {
    if (record == nullptr) {
        return;
    }
    --record->refCount;
    if (record->refCount <= 0) {
        DorvexAsnFree(record, &item);
    }
}

}  // namespace

namespace {

// InternalReadRsaKey: the BIT STRING's content is one RSAPublicKey and
// nothing else.
uint32_t InternalReadRsaKey(DorvexX509PubkeyInfo &info) {
    const DorvexAsnBits &bits = info.keyBits;
    void *block = nullptr;
    uint32_t used = 0;
    uint32_t ret = bits.len == 0 ? DORVEX_ERR_ASN_SEQUENCE
                                 : DorvexAsnDecode(bits.data, bits.len, &g_itemDorvexRsaPublicKey,
                                                   0, &block, &used);
    if (ret == DORVEX_OK && used != bits.len) {
        ret = DORVEX_ERR_ASN_SEQUENCE;
    }
    if (ret == DORVEX_OK) {
        info.subjectPublicKey = *static_cast<DorvexRsaPublicKey *>(block);
        info.keyType = DRX_KEY_RSA;
    }
    DorvexAsnFree(block, &g_itemDorvexRsaPublicKey);
    return ret;
}

// InternalReadSubjectKey: reads the key by its algorithm. An EC key names
// its curve (RFC 5480 2.1.1: namedCurve only) and is built at once, so a
// point off its curve fails here; RSA keys wait for their first check,
// where their size and exponent are judged.
uint32_t InternalReadSubjectKey(DorvexX509Cert &cert) {
    DorvexX509PubkeyInfo &info = cert.certInfo.subjectPublicKeyInfo;
    switch (DorvexFindAoid(&info.algorithm.algorithm)) {
        case AOID_RSAENCRYPTION:
            return InternalReadRsaKey(info);
        case AOID_EC_PUBLICKEY:
            break;
        default:
            DORVEX_LOG_ERR(DORVEX_ERR_PUBKEY_TYPE, "Public key is neither RSA nor EC.");
            return DORVEX_ERR_PUBKEY_TYPE;
    }
    const DorvexAsnOcts &params = info.algorithm.parameters;
    const int32_t curve = params.tagClass == DRX_ASN_CLASS_UNIVERSAL && params.constructed == 0 &&
                                  params.tagCode == DRX_ASN_OID
                              ? DorvexFindAoid(&params)
                              : AOID_UNKNOWN;
    if (curve != AOID_PRIME256V1 && curve != AOID_SECP384R1) {
        DORVEX_LOG_ERR(DORVEX_ERR_PUBKEY_CURVE, "EC key is not on P-256 or P-384 by name.");
        return DORVEX_ERR_PUBKEY_CURVE;
    }
    info.keyType = DRX_KEY_EC;
    info.curve = curve;
    const uint32_t ret = DorvexPkeyFromEcPoint(static_cast<uint32_t>(curve), info.keyBits.data,
                                               info.keyBits.len, &cert.key);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "EC public key is no point of its curve.");
    }
    return ret;
}

}  // namespace

uint32_t DorvexX509DecodeCert(const uint8_t *data, uint32_t size, DorvexX509Cert **cert,
                              uint32_t *consumed) {
    uint32_t ret = InternalDecodeCounted(data, size, g_itemDorvexX509Cert, cert, consumed);
    if (ret != DORVEX_OK) {
        return ret;
    }
    (*cert)->raw = DorvexAsnOcts{*consumed, DRX_ASN_CLASS_UNIVERSAL, 1, DRX_ASN_SEQUENCE, data};
    ret = InternalReadSubjectKey(**cert);
    if (ret != DORVEX_OK) {
        DorvexX509FreeCert(*cert);
        *cert = nullptr;
    }
    return ret;
}

void DorvexX509FreeCert(DorvexX509Cert *cert) {
    if (cert != nullptr && cert->refCount <= 1) {
        DorvexPkeyFree(cert->key);
        cert->key = nullptr;
    }
    InternalRelease(cert, g_itemDorvexX509Cert);
}

namespace {

// Serial order of the index: shorter first, then bytewise. Minimal
// encodings make equal numbers equal bytes, so this finds every entry of one
// number next to each other.
int CompareSerial(const DorvexAsnBigint &a, const DorvexAsnBigint &b) {
    if (a.len != b.len) {
        return a.len < b.len ? -1 : 1;
    }
    return a.len == 0 ? 0 : memcmp(a.data, b.data, a.len);
}

// WalkElements: calls `visit` with every element of a SEQUENCE OF content
// (its content and tag, headers read alone) until it returns true. 0 when
// the walk ended, by the visitor or at the end; the header reader's code when
// an element does not decode.
template <typename Visit>
uint32_t WalkElements(const DorvexAsnOcts &content, Visit visit) {
    DorvexBuf buf{};
    uint32_t ret = DorvexBufInit(&buf, content.data, content.len);
    while (ret == DORVEX_OK && buf.pos < buf.size) {
        DorvexAsnTag tag{};
        uint32_t len = 0;
        ret = InternalDecTag(&buf, &tag);
        if (ret == DORVEX_OK) {
            ret = InternalDecLen(&buf, &len);
        }
        if (ret != DORVEX_OK) {
            break;
        }
        const DorvexAsnOcts element{len, tag.tagClass, tag.constructed, tag.tagCode,
                                    len == 0 ? nullptr : buf.data + buf.pos};
        buf.pos += len;  // checked against what remains by InternalDecLen
        if (visit(element)) {
            break;
        }
    }
    return ret;
}

// Whether `visit` returned true for an element; false also when the content
// does not decode.
template <typename Visit>
bool AnyElement(const DorvexAsnOcts &content, Visit visit) {
    bool found = false;
    (void)WalkElements(content, [&](const DorvexAsnOcts &element) {
        found = visit(element);
        return found;
    });
    return found;
}

// InternalDecodeRevoked: every entry of revokedCertificates into a block of
// its own, in CRL order, and the index ordered by serial. The entries point
// into the CRL's DER like the rest of the record.
uint32_t InternalDecodeRevoked(DorvexX509Revoked &revoked) {
    static constexpr DorvexAsnTempl kEntryRow = {
        &g_itemDorvexX509RevokeEntry, 0, DRX_ASN_TAG_UNIVERSAL, 0, 0, 0};
    if (revoked.raw.data == nullptr || revoked.raw.len == 0) {
        return DORVEX_OK;
    }
    uint32_t count = 0;
    uint32_t ret = WalkElements(revoked.raw, [&count](const DorvexAsnOcts &) {
        ++count;
        return false;
    });
    if (ret != DORVEX_OK) {
        return ret;
    }
    void *entries = nullptr;
    void *index = nullptr;
    ret = DorvexMallocWith0(&entries, uint64_t{count} * sizeof(DorvexX509RevokeEntry));
    if (ret == DORVEX_OK) {
        ret = DorvexMallocWith0(&index, uint64_t{count} * sizeof(uint32_t));
    }
    revoked.entries = static_cast<DorvexX509RevokeEntry *>(entries);
    revoked.bySerial = static_cast<uint32_t *>(index);
    if (ret != DORVEX_OK) {
        return DORVEX_ERR_MALLOC;
    }
    DorvexBuf buf{};
    ret = DorvexBufInit(&buf, revoked.raw.data, revoked.raw.len);
    for (uint32_t i = 0; ret == DORVEX_OK && i < count; ++i) {
        uint32_t used = 0;
        ret = DorvexDecodeSeq(&buf, &revoked.entries[i], &used, &kEntryRow);
        revoked.bySerial[i] = i;
        DorvexX509RevokeAttrs &attrs = revoked.entries[i].crlEntryExtensions;
        revoked.unknownCritical |= attrs.unknownCritical;
        // RFC 5280 5.3.3: an entry without certificateIssuer belongs to the
        // issuer of the entry before it.
        if (attrs.certificateIssuer.data == nullptr && i > 0) {
            attrs.certificateIssuer = revoked.entries[i - 1].crlEntryExtensions.certificateIssuer;
        }
    }
    if (ret != DORVEX_OK) {
        return ret;
    }
    revoked.count = count;
    const DorvexX509RevokeEntry *all = revoked.entries;
    std::stable_sort(revoked.bySerial, revoked.bySerial + count, [all](uint32_t a, uint32_t b) {
        return CompareSerial(all[a].userCertificate, all[b].userCertificate) < 0;
    });
    return DORVEX_OK;
}

void InternalFreeRevoked(DorvexX509Revoked &revoked) {
    DorvexFree(revoked.entries);
    DorvexFree(revoked.bySerial);
    revoked.entries = nullptr;
    revoked.bySerial = nullptr;
    revoked.count = 0;
}

}  // namespace

uint32_t DorvexX509DecodeCrl(const uint8_t *data, uint32_t size, DorvexX509Crl **crl,
                             uint32_t *consumed) {
    uint32_t ret = InternalDecodeCounted(data, size, g_itemDorvexX509Crl, crl, consumed);
    if (ret != DORVEX_OK) {
        return ret;
    }
    drx::CrlPtr decoded(*crl);
    *crl = nullptr;
    ret = InternalDecodeRevoked(decoded->crlInfo.revokedCertificates);
    if (ret == DORVEX_OK) {
        *crl = decoded.release();
    }
    return ret;
}

void DorvexX509FreeCrl(DorvexX509Crl *crl) {
    if (crl != nullptr && crl->refCount <= 1) {
        InternalFreeRevoked(crl->crlInfo.revokedCertificates);
    }
    InternalRelease(crl, g_itemDorvexX509Crl);
}

void DorvexX509FreeCertItem(void *cert) {
    DorvexX509FreeCert(static_cast<DorvexX509Cert *>(cert));
}

void DorvexX509FreeCrlItem(void *crl) {
    DorvexX509FreeCrl(static_cast<DorvexX509Crl *>(crl));
}

void DorvexX509CrlFindSerial(const DorvexX509Crl *crl, const DorvexAsnBigint *serial,
                             uint32_t *first, uint32_t *count) {
    if (first == nullptr || count == nullptr) {
        return;
    }
    *first = 0;
    *count = 0;
    if (crl == nullptr || serial == nullptr ||
        crl->crlInfo.revokedCertificates.bySerial == nullptr) {
        return;
    }
    const DorvexX509Revoked &revoked = crl->crlInfo.revokedCertificates;
    const uint32_t *begin = revoked.bySerial;
    const uint32_t *end = begin + revoked.count;
    const DorvexX509RevokeEntry *all = revoked.entries;
    const uint32_t *low =
        std::lower_bound(begin, end, *serial, [all](uint32_t i, const DorvexAsnBigint &value) {
            return CompareSerial(all[i].userCertificate, value) < 0;
        });
    const uint32_t *high =
        std::upper_bound(low, end, *serial, [all](const DorvexAsnBigint &value, uint32_t i) {
            return CompareSerial(value, all[i].userCertificate) < 0;
        });
    *first = static_cast<uint32_t>(low - begin);
    *count = static_cast<uint32_t>(high - low);
}

bool DorvexX509GeneralNamesHold(const DorvexAsnOcts *names, const DorvexX509Name *name) {
    if (names == nullptr || name == nullptr) {
        return false;
    }
    // GeneralName ::= CHOICE { ..., directoryName [4] Name, ... }: [4] wraps
    // the Name explicitly, since Name is itself a CHOICE.
    return AnyElement(*names, [name](const DorvexAsnOcts &general) {
        if (general.tagClass != DRX_ASN_CLASS_CONTEXT || general.tagCode != 4 ||
            general.data == nullptr) {
            return false;
        }
        void *record = nullptr;
        uint32_t used = 0;
        const uint32_t ret =
            DorvexAsnDecode(general.data, general.len, &g_itemDorvexX509Name, 0, &record, &used);
        const drx::AsnPtr<DorvexX509Name, &g_itemDorvexX509Name> decoded(
            static_cast<DorvexX509Name *>(record));
        return ret == DORVEX_OK && used == general.len &&
               DorvexCompareX509Name(decoded.get(), name) == 0;
    });
}

uint32_t DorvexX509CertPointsAt(const DorvexX509Cert *cert, const DorvexX509Crl *crl) {
    if (cert == nullptr || crl == nullptr) {
        return 0;
    }
    const DorvexAsnOcts &idpName = crl->crlInfo.crlExtensions.issuingDistPoint.distributionPoint;
    uint32_t found = 0;
    // DistributionPoint ::= SEQUENCE {
    //     distributionPoint  [0] DistributionPointName OPTIONAL,
    //     reasons            [1] ReasonFlags OPTIONAL,
    //     cRLIssuer          [2] GeneralNames OPTIONAL }
    (void)WalkElements(
        cert->certInfo.extensions.crlDistributionPoints, [&](const DorvexAsnOcts &point) {
            (void)WalkElements(point, [&](const DorvexAsnOcts &field) {
                if (field.tagClass != DRX_ASN_CLASS_CONTEXT) {
                    return false;
                }
                if (field.tagCode == 0 && idpName.len != 0 &&
                    DorvexCompareAsnOcts(&field, &idpName) == 0) {
                    found |= DRX_X509_DP_NAMED;
                } else if (field.tagCode == 2 &&
                           DorvexX509GeneralNamesHold(&field, &crl->crlInfo.issuer)) {
                    found |= DRX_X509_DP_CRL_ISSUER;
                }
                return false;
            });
            return false;
        });
    return found;
}
