// X.509 certificates and CRLs (RFC 5280) as fixed records, and the name and
// time helpers that read them.
//
// A decoded record is one block from DorvexAsnDecode; every DorvexAsnOcts-like
// member in it points into the DER input, which must stay alive and
// unchanged for as long as the record lives. Certificates and CRLs are
// reference-counted: each holder adds 1 to refCount and releases it with
// DorvexX509FreeCert / DorvexX509FreeCrl.
#ifndef CMS_ASN1_X509_H
#define CMS_ASN1_X509_H

#include <stdint.h>

#include "cms/adapt/adapt.h"
#include "cms/adapt/provider.h"
#include "cms/asn1/asn1.h"

#ifdef __cplusplus
extern "C" {
#endif

// Most relative distinguished names in a name, and attributes in one RDN.
#define DRX_X509_NAME_MAX_RDNS 10u
#define DRX_X509_RDN_MAX_ATTRS 10u

// Readable names: at most this many characters, in a buffer one larger.
#define DRX_X509_NAME_STR_MAX 255u

// Time value tags (universal numbers).
#define DRX_ASN_UTC_TIME 23u
#define DRX_ASN_GENERALIZED_TIME 24u

// ---- names ----------------------------------------------------------------

// AttributeTypeAndValue: the type's identifier octets and the value with
// its string tag, bytes as encoded.
typedef struct DorvexX509AttrEntry {
    DorvexAsnOcts type;
    DorvexAsnOcts value;
} DorvexX509AttrEntry;

// RelativeDistinguishedName: SET OF record of attributes.
typedef struct DorvexX509AttrBundle {
    uint32_t count;
    DorvexX509AttrEntry attrs[DRX_X509_RDN_MAX_ATTRS];
} DorvexX509AttrBundle;

// Name: SET OF record of RDNs in encoded order.
typedef struct DorvexX509Name {
    uint32_t count;
    DorvexX509AttrBundle rdns[DRX_X509_NAME_MAX_RDNS];
} DorvexX509Name;

// ---- certificates -----------------------------------------------------------

typedef struct DorvexX509Validity {
    DorvexAsnOcts notBefore;  // UTCTime or GeneralizedTime characters
    DorvexAsnOcts notAfter;
} DorvexX509Validity;

// RSAPublicKey (RFC 8017 A.1.1), magnitudes without a sign octet.
typedef struct DorvexRsaPublicKey {
    DorvexAsnBigint modulus;
    DorvexAsnBigint publicExponent;
} DorvexRsaPublicKey;

// The key's algorithm decides how the BIT STRING is read: rsaEncryption as
// an RSAPublicKey into subjectPublicKey (same place and form as ever, so RSA
// readers see no change), id-ecPublicKey on a named curve as a point in
// keyBits. Every other algorithm, explicit curve parameters and other curves
// fail DorvexX509DecodeCert.
typedef struct DorvexX509PubkeyInfo {
    DorvexX509AlgoIdentifier algorithm;
    DorvexRsaPublicKey subjectPublicKey;  // RSA keys: read from inside the BIT STRING
    DorvexAsnBits keyBits;                // BIT STRING content (unused-bits octet not examined)
    uint32_t keyType;                     // DRX_KEY_RSA or DRX_KEY_EC
    int32_t curve;                        // EC keys: AOID_PRIME256V1 or AOID_SECP384R1
} DorvexX509PubkeyInfo;

// What basic constraints leave behind of cA; the path length has an item
// of its own (g_itemDorvexX509PathLen), read from the same extension.
typedef struct DorvexX509BasicConstraints {
    uint32_t isCA;
} DorvexX509BasicConstraints;

// The certificate extensions the verifier understands; 0 when absent.
typedef struct DorvexX509CertExts {
    uint32_t isCA;         // basicConstraints cA
    uint32_t keyUsage;     // first bit-string octet, the second (if any) in bits 8-15
    uint32_t extKeyUsage;  // DRX_EXKU_... of every purpose
    uint32_t extKeyUsageCritical;
    // 1 when a critical extension is present that none of the above reads:
    // such a certificate must not be used (RFC 5280 4.2).
    uint32_t unknownCritical;
    // basicConstraints pathLenConstraint as INTEGER content; tagCode is
    // DRX_ASN_INTEGER when present, 0 when absent.
    DorvexAsnBigint pathLenConstraint;
    // cRLDistributionPoints: the SEQUENCE OF DistributionPoint's content,
    // read when a CRL is partitioned or indirect; empty when absent.
    DorvexAsnOcts crlDistributionPoints;
} DorvexX509CertExts;

typedef struct DorvexX509CertInfo {
    DorvexAsnBigint serialNumber;
    DorvexX509Name issuer;
    DorvexX509Validity validity;
    DorvexX509Name subject;
    DorvexX509PubkeyInfo subjectPublicKeyInfo;
    DorvexX509CertExts extensions;
} DorvexX509CertInfo;

typedef struct DorvexX509Cert {
    DorvexAsnOcts tbsRaw;  // whole tbsCertificate DER: the signed bytes
    DorvexX509CertInfo certInfo;
    DorvexX509AlgoIdentifier signatureAlgorithm;
    DorvexAsnBits signature;
    // Outside the template, zero after decoding.
    struct DorvexX509Cert *issuerCert;  // verified issuer (itself when self-signed)
    int32_t refCount;
    DorvexAsnOcts raw;  // the whole certificate DER, as ESS identifiers hash it
    // The subject key built for checks, once per record: EC keys when
    // decoded (the point is checked there), RSA keys at their first check.
    struct DorvexPkey *key;
} DorvexX509Cert;

// ---- CRLs -------------------------------------------------------------------

typedef struct DorvexX509RevokeAttrs {
    DorvexAsnInt reasonCode;   // CRLReason; 0 also when absent
    uint32_t unknownCritical;  // a critical entry extension not read here
    // certificateIssuer (RFC 5280 5.3.3): the GeneralNames' content of the
    // issuer of this entry's certificate. DorvexX509DecodeCrl carries it on
    // to the entries that follow, as the RFC says; empty: the CRL's issuer.
    DorvexAsnOcts certificateIssuer;
} DorvexX509RevokeAttrs;

typedef struct DorvexX509RevokeEntry {
    DorvexAsnBigint userCertificate;
    DorvexAsnOcts revocationDate;
    DorvexX509RevokeAttrs crlEntryExtensions;
} DorvexX509RevokeEntry;

// revokedCertificates: the SEQUENCE OF's content as captured by the
// template, and the entries DorvexX509DecodeCrl decodes from it: `entries`
// in CRL order, `bySerial` their indexes ordered by serial (length, then
// bytes; equal serials in CRL order) for lookups. Both blocks belong to the
// CRL record; a CRL decoded any other way has none (count 0).
typedef struct DorvexX509Revoked {
    DorvexAsnOcts raw;
    uint32_t count;
    DorvexX509RevokeEntry *entries;
    uint32_t *bySerial;
    uint32_t unknownCritical;  // 1 when an entry has a critical extension not read
} DorvexX509Revoked;

typedef struct DorvexX509IssuingDistPoint {
    DorvexAsnOcts distributionPoint;  // the [0] element's content, any form
    DorvexAsnInt onlyContainsUserCerts;
    DorvexAsnInt onlyContainsCACerts;
    DorvexAsnBits onlySomeReasons;
    DorvexAsnInt indirectCRL;
    DorvexAsnInt onlyContainsAttributeCerts;
} DorvexX509IssuingDistPoint;

typedef struct DorvexX509CrlAttrs {
    DorvexX509IssuingDistPoint issuingDistPoint;
    // A critical CRL extension not read here (a delta-CRL indicator, for
    // one): the CRL must not be used (RFC 5280 5.2).
    uint32_t unknownCritical;
} DorvexX509CrlAttrs;

typedef struct DorvexX509CrlInfo {
    DorvexAsnInt version;  // 0 for a v1 CRL, which has no version field
    DorvexX509AlgoIdentifier signature;
    DorvexX509Name issuer;
    DorvexAsnOcts thisUpdate;
    DorvexAsnOcts nextUpdate;  // tagCode 0 when absent: no promise of a next CRL
    DorvexX509Revoked revokedCertificates;
    DorvexX509CrlAttrs crlExtensions;
} DorvexX509CrlInfo;

typedef struct DorvexX509Crl {
    DorvexAsnOcts tbsRaw;  // whole tbsCertList DER: the signed bytes
    DorvexX509CrlInfo crlInfo;
    DorvexX509AlgoIdentifier signatureAlgorithm;
    DorvexAsnBits signature;
    int32_t refCount;  // outside the template
} DorvexX509Crl;

// ---- items ------------------------------------------------------------------

extern const DorvexAsnItem g_itemDorvexX509Cert;
extern const DorvexAsnItem g_itemDorvexX509CertInfo;
extern const DorvexAsnItem g_itemDorvexX509Validity;
extern const DorvexAsnItem g_itemDorvexX509PubkeyInfo;
extern const DorvexAsnItem g_itemDorvexRsaPublicKey;
extern const DorvexAsnItem g_itemDorvexX509Name;
extern const DorvexAsnItem g_itemDorvexX509AttrBundle;
extern const DorvexAsnItem g_itemDorvexX509AttrEntry;
extern const DorvexAsnItem g_itemDorvexX509CertExts;
extern const DorvexAsnItem g_itemDorvexX509BasicConstraints;
extern const DorvexAsnItem g_itemDorvexX509PathLen;
extern const DorvexAsnItem g_itemDorvexX509Crl;
extern const DorvexAsnItem g_itemDorvexX509CrlInfo;
extern const DorvexAsnItem g_itemDorvexX509RevokeEntry;
extern const DorvexAsnItem g_itemDorvexX509RevokeAttrs;
extern const DorvexAsnItem g_itemDorvexX509CrlAttrs;
extern const DorvexAsnItem g_itemDorvexX509IssuingDistPoint;

// ---- decode and release -----------------------------------------------------

// DorvexX509DecodeCert: decodes the certificate at the start of
// data[0..size). On success *cert is a new record with refCount 1 that points
// into data, and *consumed is the certificate's DER length (bytes after it
// are left to the caller). DORVEX_ERR_PARAM for a missing argument or an
// empty input; DORVEX_ERR_PUBKEY_TYPE for a key neither RSA nor EC,
// DORVEX_ERR_PUBKEY_CURVE for an EC key with explicit parameters or on a
// curve other than P-256 and P-384, DORVEX_ERR_PUBKEY_POINT for a point
// that is none of its curve; otherwise the decoder's code, with *cert left none.
uint32_t DorvexX509DecodeCert(const uint8_t *data, uint32_t size, DorvexX509Cert **cert,
                              uint32_t *consumed);

// DorvexX509FreeCert: drops one reference; the record is released when none
// is left. A missing record is ignored.
void DorvexX509FreeCert(DorvexX509Cert *cert);

// DorvexX509DecodeCrl / DorvexX509FreeCrl: the same for a CertificateList,
// whose revoked entries (any number) are decoded into their own blocks and
// indexed by serial; an entry that does not decode fails the CRL with the
// decoder's code, and DORVEX_ERR_MALLOC when the index cannot be made.
uint32_t DorvexX509DecodeCrl(const uint8_t *data, uint32_t size, DorvexX509Crl **crl,
                             uint32_t *consumed);
void DorvexX509FreeCrl(DorvexX509Crl *crl);

// DorvexX509FreeCertItem / DorvexX509FreeCrlItem: DorvexX509FreeCert and
// DorvexX509FreeCrl typed for DorvexListFree.
void DorvexX509FreeCertItem(void *cert);
void DorvexX509FreeCrlItem(void *crl);

// DorvexX509CrlFindSerial: the entries of the CRL listing `serial` (INTEGER
// content octets as encoded): positions [*first, *first + *count) of
// revokedCertificates.bySerial, *count 0 when none. Binary search: the cost
// grows with the logarithm of the CRL's length.
void DorvexX509CrlFindSerial(const DorvexX509Crl *crl, const DorvexAsnBigint *serial,
                             uint32_t *first, uint32_t *count);

// DorvexX509GeneralNamesHold: whether the GeneralNames content `names`
// holds a directoryName equal to `name` (DorvexCompareX509Name). Other
// kinds of name, and elements that do not decode, never match.
bool DorvexX509GeneralNamesHold(const DorvexAsnOcts *names, const DorvexX509Name *name);

// What a certificate's cRLDistributionPoints say about a CRL (RFC 5280
// 6.3.3 (b)): DRX_X509_DP_NAMED when a point's distributionPoint is the
// same DistributionPointName as the CRL's issuing distribution point (bytes
// compared), DRX_X509_DP_CRL_ISSUER when a point's cRLIssuer names the CRL's
// issuer. 0 when the certificate has no such extension.
#define DRX_X509_DP_NAMED 0x1u
#define DRX_X509_DP_CRL_ISSUER 0x2u
uint32_t DorvexX509CertPointsAt(const DorvexX509Cert *cert, const DorvexX509Crl *crl);

// ---- names and times --------------------------------------------------------

// DorvexCompareX509Name: 0 when both names have the same number of RDNs and
// the first attribute of each RDN has the same type and value bytes (string
// tags, case and spaces are not normalised); -1 otherwise;
// (int32_t)DORVEX_ERR_PARAM when either name is missing.
int32_t DorvexCompareX509Name(const DorvexX509Name *a, const DorvexX509Name *b);

// DorvexConvertFromX509Name: renders a name as "C=..,O=..,CN=.." in encoded
// order. On success *str is a zero-filled 256-byte block from DorvexMalloc
// holding at most 255 characters (the caller frees it with DorvexFree) and
// *len its length. Pieces that would pass 255 characters are left out, an
// over-long attribute is cut short with a warning. DORVEX_ERR_NAME_ATTR for
// an attribute type outside the identifier table.
uint32_t DorvexConvertFromX509Name(const DorvexX509Name *name, char **str, uint32_t *len);

// DorvexConvertFromTime: fills *out from a 13-character UTCTime
// (YYMMDDHHMMSSZ; years 1950..2049) or a 15-character GeneralizedTime
// (YYYYMMDDHHMMSSZ, the year as written). Digits only, a real calendar date,
// hours 00-23, minutes and seconds 00-59, a final Z; anything else
// (fractions, offsets, month 13, February 30) gives DORVEX_ERR_TIME_FORMAT
// and leaves *out alone.
uint32_t DorvexConvertFromTime(const DorvexAsnOcts *time, DorvexDatetime *out);

// DorvexConvertFromGenTime: the same for a TSTInfo genTime, a
// GeneralizedTime that may carry a fraction of a second before the Z
// (RFC 3161 2.4.2: ".d...d" without trailing zeros); the fraction is dropped.
uint32_t DorvexConvertFromGenTime(const DorvexAsnOcts *time, DorvexDatetime *out);

// DorvexConvertDatetimeToTime: seconds since 1970-01-01 00:00:00 UTC of a
// time value accepted by DorvexConvertFromTime.
uint32_t DorvexConvertDatetimeToTime(const DorvexAsnOcts *time, int64_t *seconds);

#ifdef __cplusplus
}

namespace drx {
using CertPtr = Owned<DorvexX509Cert, DorvexX509FreeCert>;
using CrlPtr = Owned<DorvexX509Crl, DorvexX509FreeCrl>;
// Lists holding one reference on each certificate or CRL.
using CertList = OwnedList<DorvexX509FreeCertItem>;
using CrlList = OwnedList<DorvexX509FreeCrlItem>;
}  // namespace drx
#endif

#endif  // CMS_ASN1_X509_H
