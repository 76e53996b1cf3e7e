// Object identifiers known to the CMS library.
//
// Every identifier the library cares about is listed once, as its DER
// content octets, with a small fixed number (AOID). Lookups match the exact
// octets: another encoding of the same arcs is not recognised.
#ifndef CMS_ASN1_OID_H
#define CMS_ASN1_OID_H

#include <stdint.h>

#include "cms/asn1/asn1.h"

#ifdef __cplusplus
extern "C" {
#endif

// AOIDs are fixed values, not table positions; other code uses them directly.
typedef enum DorvexAoid {
    AOID_UNKNOWN = 0,
    AOID_SHA1 = 41,  // only for ESS certificate identifiers, never for signatures
    AOID_SHA256 = 43,
    AOID_SHA384 = 44,
    AOID_SHA512 = 45,
    AOID_RSAENCRYPTION = 60,
    AOID_SHA256WITHRSAENCRYPTION = 63,
    AOID_SHA384WITHRSAENCRYPTION = 64,
    AOID_SHA512WITHRSAENCRYPTION = 65,
    AOID_RSASSA_PSS = 66,
    AOID_MGF1 = 67,
    AOID_EC_PUBLICKEY = 70,
    AOID_PRIME256V1 = 71,
    AOID_SECP384R1 = 72,
    AOID_ECDSA_WITH_SHA256 = 73,
    AOID_ECDSA_WITH_SHA384 = 74,
    AOID_ECDSA_WITH_SHA512 = 75,
    AOID_AT_COMMONNAME = 161,
    AOID_AT_LOCALITYNAME = 162,
    AOID_AT_STATEORPROVINCENAME = 163,
    AOID_AT_ORGANIZATIONNAME = 164,
    AOID_AT_ORGANIZATIONALUNITNAME = 165,
    AOID_AT_COUNTRYNAME = 168,
    AOID_PKCS9_AT_EMAILADDRESS = 172,
    AOID_CE_KEYUSAGE = 176,
    AOID_CE_BASICCONSTRAINTS = 184,
    AOID_CE_EXTKEYUSAGE = 188,
    AOID_KP_CODESIGNING = 192,
    AOID_KP_TIMESTAMPING = 193,
    AOID_CE_CERTIFICATEISSUER = 201,
    AOID_CE_ISSUINGDISTRIBUTIONPOINT = 202,
    AOID_CE_CRLDISTRIBUTIONPOINTS = 203,
    AOID_CE_CRLREASONS = 204,
    AOID_PKCS7_DATA = 263,
    AOID_PKCS7_SIGNEDDATA = 264,
    AOID_PKCS9_AT_CONTENTTYPE = 270,
    AOID_PKCS9_AT_MESSAGEDIGEST = 271,
    AOID_CT_TSTINFO = 300,
    AOID_AA_SIGNING_CERTIFICATE = 305,
    AOID_AA_SIGNING_CERTIFICATE_V2 = 306,
    AOID_PKCS9_AT_TIMESTAMP_TOKEN = 307,
} DorvexAoid;

// One entry of the identifier table.
typedef struct DorvexOidInfo {
    int32_t aoid;
    DorvexAsnOcts oid;  // universal, primitive, tag 6; data is static
    const char *name;   // e.g. "AOID_SHA256"
} DorvexOidInfo;

// The table in search order, and its number of entries.
extern const DorvexOidInfo g_drxOIDTable[];
extern const uint32_t g_drxOidCount;

// DorvexCompareAsnOcts: 0 when a and b hold the same bytes (tags are not
// compared), non-zero otherwise, -1 when either is missing.
int32_t DorvexCompareAsnOcts(const DorvexAsnOcts *a, const DorvexAsnOcts *b);

// DorvexFindAoid: AOID of the first table entry whose octets equal oid's;
// AOID_UNKNOWN for a missing record or an unknown identifier.
int32_t DorvexFindAoid(const DorvexAsnOcts *oid);

// DorvexFindOid: the static identifier record of the first entry with aoid,
// or none.
const DorvexAsnOcts *DorvexFindOid(int32_t aoid);

// DorvexGetHashAoidFromSign: the SHA-2 digest AOID named by a digest or an
// RSA-with-SHA-2 signature algorithm identifier; AOID_UNKNOWN otherwise.
int32_t DorvexGetHashAoidFromSign(const DorvexX509AlgoIdentifier *alg);

// DorvexGetRsaSignHashAoid: the SHA-2 digest AOID of an RSA-with-SHA-2
// signature label; AOID_UNKNOWN for anything else, a bare digest identifier
// included, so a signature field must name an algorithm that fits an RSA key.
int32_t DorvexGetRsaSignHashAoid(const DorvexX509AlgoIdentifier *alg);

#ifdef __cplusplus
}
#endif

#endif  // CMS_ASN1_OID_H
