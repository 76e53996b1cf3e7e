// CMS SignedData (RFC 5652) and the RFC 3161 TSTInfo as fixed records.
//
// The model keeps what a verifier of one detached signature with a
// timestamp needs: at most two embedded certificates, at most one signer
// with issuer and serial number, digest algorithm, signed attributes both as
// raw bytes (for hashing) and decoded (message digest, content type, ESS
// certificate identifier), the signature algorithm and value and the
// timestamp token. Digest algorithm sets and CRLs are stepped over.
//
// Every DorvexAsnOcts-like member points into the DER input, and so do the
// certificates in certList: the input must outlive the record.
#ifndef CMS_ASN1_PKCS7_H
#define CMS_ASN1_PKCS7_H

#include <stdint.h>

#include "cms/asn1/asn1.h"
#include "cms/asn1/x509.h"
#include "cms/base/list.h"

#ifdef __cplusplus
extern "C" {
#endif

// Most certificates a SignedData may carry, and most signers.
#define DRX_PKCS7_MAX_CERTS 2u
#define DRX_PKCS7_MAX_SIGNERS 1u

// EncapsulatedContentInfo. content is the [0] element itself (class 2,
// constructed, number 0) whose bytes are the inner TLV; empty when detached.
typedef struct DorvexPkcs7ContentInfo {
    DorvexAsnOcts contentType;
    DorvexAsnOcts content;
} DorvexPkcs7ContentInfo;

// certificates: each element's whole DER, header included.
typedef struct DorvexX509CertRawBundle {
    uint32_t count;
    DorvexAsnOcts certs[DRX_PKCS7_MAX_CERTS];
} DorvexX509CertRawBundle;

typedef struct DorvexPkcs7IssuerAndSerial {
    DorvexX509Name issuer;
    DorvexAsnBigint serialNumber;
} DorvexPkcs7IssuerAndSerial;

// Signed attributes: the content of the messageDigest value (the digest
// bytes); empty when the attribute is absent. Behind it what RFC 5652 11.1,
// 11.2 and RFC 3161 2.4.1 ask of the set: the contentType value (identifier
// content octets), how often each of the two occurs, and the first value of
// an ESS signing-certificate attribute, whole.
typedef struct DorvexX509SignedAttrs {
    DorvexAsnOcts messageDigest;
    DorvexAsnOcts contentType;
    uint32_t messageDigestCount;
    uint32_t contentTypeCount;
    DorvexAsnOcts signingCertificate;    // SigningCertificate (ESSCertID, SHA-1)
    DorvexAsnOcts signingCertificateV2;  // SigningCertificateV2 (ESSCertIDv2)
} DorvexX509SignedAttrs;

// Unsigned attributes: the first id-aa-timeStampToken value, whole (a
// ContentInfo that DorvexPkcs7DecodeSigned reads); empty when absent.
typedef struct DorvexX509UnsignedAttrs {
    DorvexAsnOcts timestampToken;
} DorvexX509UnsignedAttrs;

// SignerInfo. signedAttrsRaw is the signed attributes' whole DER as found,
// starting with the [0] octet 0xA0, while its tag members read the universal
// SET tag (0, 1, 17): the signature covers the bytes with 0x31 in front.
typedef struct DorvexPkcs7SignedInfo {
    DorvexAsnInt version;
    DorvexPkcs7IssuerAndSerial issuerAndSerial;
    DorvexX509AlgoIdentifier digestAlgorithm;
    DorvexAsnOcts signedAttrsRaw;
    DorvexX509SignedAttrs signedAttrs;
    DorvexAsnOcts signature;
    DorvexX509UnsignedAttrs unsignedAttrs;
    DorvexX509AlgoIdentifier signatureAlgorithm;  // the label the signer gave its signature
} DorvexPkcs7SignedInfo;

typedef struct DorvexPkcs7SignedInfoBundle {
    uint32_t count;
    DorvexPkcs7SignedInfo signerInfo[DRX_PKCS7_MAX_SIGNERS];
} DorvexPkcs7SignedInfoBundle;

typedef struct DorvexPkcs7SignedData {
    DorvexAsnInt version;
    DorvexPkcs7ContentInfo contentInfo;
    DorvexX509CertRawBundle certificates;
    DorvexPkcs7SignedInfoBundle signerInfos;
    // Outside the template: DorvexX509Cert records decoded from
    // certificates, in order, one reference each.
    DorvexList certList;
} DorvexPkcs7SignedData;

// ContentInfo carrying SignedData. contentType is not examined.
typedef struct DorvexPkcs7Content {
    DorvexAsnOcts contentType;
    DorvexPkcs7SignedData signedData;
} DorvexPkcs7Content;

typedef struct DorvexTsMsgImprint {
    DorvexX509AlgoIdentifier hashAlgorithm;
    DorvexAsnOcts hashedMessage;
} DorvexTsMsgImprint;

// TSTInfo: only the imprint and the generation time are kept.
typedef struct DorvexTimestampInfo {
    DorvexTsMsgImprint messageImprint;
    DorvexAsnOcts genTime;  // GeneralizedTime characters
} DorvexTimestampInfo;

extern const DorvexAsnItem g_itemDorvexPkcs7Content;
extern const DorvexAsnItem g_itemDorvexPkcs7SignedData;
extern const DorvexAsnItem g_itemDorvexPkcs7ContentInfo;
extern const DorvexAsnItem g_itemDorvexX509CertRawBundle;
extern const DorvexAsnItem g_itemDorvexPkcs7SignedInfoBundle;
extern const DorvexAsnItem g_itemDorvexPkcs7SignedInfo;
extern const DorvexAsnItem g_itemDorvexPkcs7IssuerAndSerial;
extern const DorvexAsnItem g_itemDorvexAttrBundleRaw;
extern const DorvexAsnItem g_itemDorvexX509SignedAttrs;
extern const DorvexAsnItem g_itemDorvexX509UnsignedAttrs;
extern const DorvexAsnItem g_itemDorvexTimestampInfo;
extern const DorvexAsnItem g_itemDorvexTsMsgImprint;

// DorvexPkcs7DecodeSigned: decodes the ContentInfo with SignedData at the
// start of data[0..size) and every certificate it carries. On success
// *content is a new record (release with DorvexPkcs7FreeSigned) pointing
// into data, and *consumed is the ContentInfo's length. DORVEX_ERR_PARAM for
// a missing argument or an empty input; every decoding failure, of the
// structure or of a carried certificate, is DORVEX_ERR_PKCS7_DECODE with
// *content left none.
uint32_t DorvexPkcs7DecodeSigned(const uint8_t *data, uint32_t size, DorvexPkcs7Content **content,
                                 uint32_t *consumed);

// DorvexPkcs7EssCertHash: the first certificate identifier of an ESS
// signing-certificate attribute value (RFC 2634 5.4: SigningCertificate,
// whose ESSCertID hashes with SHA-1; RFC 5035 3: SigningCertificateV2, whose
// ESSCertIDv2 names its hash, SHA-256 when left out). *hashAoid is the
// hash's AOID (AOID_UNKNOWN for one outside the table) and *certHash points
// into `value`. DORVEX_ERR_PARAM for a missing argument, DORVEX_ERR_PKCS7_DECODE
// when the value does not decode.
uint32_t DorvexPkcs7EssCertHash(const DorvexAsnOcts *value, uint32_t v2, int32_t *hashAoid,
                                DorvexAsnOcts *certHash);

// DorvexPkcs7FreeSigned: drops the record's reference on every certificate
// in certList, then releases the record. A missing record is ignored.
void DorvexPkcs7FreeSigned(DorvexPkcs7Content *content);

#ifdef __cplusplus
}

namespace drx {
using SignedPtr = Owned<DorvexPkcs7Content, DorvexPkcs7FreeSigned>;
}  // namespace drx
#endif

#endif  // CMS_ASN1_PKCS7_H
