// Object identifier table and lookups.
#include <cstdint>
#include <span>

#include "cms/adapt/adapt.h"
#include "cms/asn1/oid.h"

namespace {

// Content octets of each known identifier (X.690 8.19).
constexpr uint8_t kOidUnknown[] = {0xff};  // placeholder; never a valid identifier
constexpr uint8_t kOidSha1[] = {0x2b, 0x0e, 0x03, 0x02, 0x1a};
constexpr uint8_t kOidRsaEncryption[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x01};
constexpr uint8_t kOidSha256[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01};
constexpr uint8_t kOidSha384[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02};
constexpr uint8_t kOidSha512[] = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03};
constexpr uint8_t kOidSha256Rsa[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x0b};
constexpr uint8_t kOidSha384Rsa[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x0c};
constexpr uint8_t kOidSha512Rsa[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x0d};
constexpr uint8_t kOidRsaPss[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x0a};
constexpr uint8_t kOidMgf1[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x08};
constexpr uint8_t kOidEcPublicKey[] = {0x2a, 0x86, 0x48, 0xce, 0x3d, 0x02, 0x01};
constexpr uint8_t kOidPrime256v1[] = {0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07};
constexpr uint8_t kOidSecp384r1[] = {0x2b, 0x81, 0x04, 0x00, 0x22};
constexpr uint8_t kOidEcdsaSha256[] = {0x2a, 0x86, 0x48, 0xce, 0x3d, 0x04, 0x03, 0x02};
constexpr uint8_t kOidEcdsaSha384[] = {0x2a, 0x86, 0x48, 0xce, 0x3d, 0x04, 0x03, 0x03};
constexpr uint8_t kOidEcdsaSha512[] = {0x2a, 0x86, 0x48, 0xce, 0x3d, 0x04, 0x03, 0x04};
constexpr uint8_t kOidCommonName[] = {0x55, 0x04, 0x03};
constexpr uint8_t kOidLocality[] = {0x55, 0x04, 0x07};
constexpr uint8_t kOidStateOrProvince[] = {0x55, 0x04, 0x08};
constexpr uint8_t kOidOrganization[] = {0x55, 0x04, 0x0a};
constexpr uint8_t kOidOrganizationalUnit[] = {0x55, 0x04, 0x0b};
constexpr uint8_t kOidCountry[] = {0x55, 0x04, 0x06};
constexpr uint8_t kOidEmail[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x09, 0x01};
constexpr uint8_t kOidKeyUsage[] = {0x55, 0x1d, 0x0f};
constexpr uint8_t kOidBasicConstraints[] = {0x55, 0x1d, 0x13};
constexpr uint8_t kOidExtKeyUsage[] = {0x55, 0x1d, 0x25};
constexpr uint8_t kOidCodeSigning[] = {0x2b, 0x06, 0x01, 0x05, 0x05, 0x07, 0x03, 0x03};
constexpr uint8_t kOidTimeStamping[] = {0x2b, 0x06, 0x01, 0x05, 0x05, 0x07, 0x03, 0x08};
constexpr uint8_t kOidCertificateIssuer[] = {0x55, 0x1d, 0x1d};
constexpr uint8_t kOidIssuingDistPoint[] = {0x55, 0x1d, 0x1c};
constexpr uint8_t kOidCrlDistPoints[] = {0x55, 0x1d, 0x1f};
constexpr uint8_t kOidCrlReasons[] = {0x55, 0x1d, 0x15};
constexpr uint8_t kOidData[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x01};
constexpr uint8_t kOidContentType[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x09, 0x03};
constexpr uint8_t kOidTstInfo[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d,
                                   0x01, 0x09, 0x10, 0x01, 0x04};
constexpr uint8_t kOidSigningCert[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d,
                                       0x01, 0x09, 0x10, 0x02, 0x0c};
constexpr uint8_t kOidSigningCertV2[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d,
                                         0x01, 0x09, 0x10, 0x02, 0x2f};
constexpr uint8_t kOidSignedData[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x02};
constexpr uint8_t kOidMessageDigest[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x09, 0x04};
constexpr uint8_t kOidTimestampToken[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d,
                                          0x01, 0x09, 0x10, 0x02, 0x0e};

template <size_t N>
constexpr DorvexOidInfo Entry(DorvexAoid aoid, const uint8_t (&octets)[N], const char *name) {
    return DorvexOidInfo{aoid, {static_cast<uint32_t>(N), 0, 0, DRX_ASN_OID, octets}, name};
}

}  // namespace

// Search order is table order; the first match wins.
constexpr DorvexOidInfo g_drxOIDTable[] = {
    Entry(AOID_UNKNOWN, kOidUnknown, "AOID_UNKNOWN"),
    Entry(AOID_SHA1, kOidSha1, "AOID_SHA1"),
    Entry(AOID_SHA256, kOidSha256, "AOID_SHA256"),
    Entry(AOID_SHA384, kOidSha384, "AOID_SHA384"),
    Entry(AOID_SHA512, kOidSha512, "AOID_SHA512"),
    Entry(AOID_RSAENCRYPTION, kOidRsaEncryption, "AOID_RSAENCRYPTION"),
    Entry(AOID_SHA256WITHRSAENCRYPTION, kOidSha256Rsa, "AOID_SHA256WITHRSAENCRYPTION"),
    Entry(AOID_SHA384WITHRSAENCRYPTION, kOidSha384Rsa, "AOID_SHA384WITHRSAENCRYPTION"),
    Entry(AOID_SHA512WITHRSAENCRYPTION, kOidSha512Rsa, "AOID_SHA512WITHRSAENCRYPTION"),
    Entry(AOID_RSASSA_PSS, kOidRsaPss, "AOID_RSASSA_PSS"),
    Entry(AOID_MGF1, kOidMgf1, "AOID_MGF1"),
    Entry(AOID_EC_PUBLICKEY, kOidEcPublicKey, "AOID_EC_PUBLICKEY"),
    Entry(AOID_PRIME256V1, kOidPrime256v1, "AOID_PRIME256V1"),
    Entry(AOID_SECP384R1, kOidSecp384r1, "AOID_SECP384R1"),
    Entry(AOID_ECDSA_WITH_SHA256, kOidEcdsaSha256, "AOID_ECDSA_WITH_SHA256"),
    Entry(AOID_ECDSA_WITH_SHA384, kOidEcdsaSha384, "AOID_ECDSA_WITH_SHA384"),
    Entry(AOID_ECDSA_WITH_SHA512, kOidEcdsaSha512, "AOID_ECDSA_WITH_SHA512"),
    Entry(AOID_AT_COMMONNAME, kOidCommonName, "AOID_AT_COMMONNAME"),
    Entry(AOID_AT_LOCALITYNAME, kOidLocality, "AOID_AT_LOCALITYNAME"),
    Entry(AOID_AT_STATEORPROVINCENAME, kOidStateOrProvince, "AOID_AT_STATEORPROVINCENAME"),
    Entry(AOID_AT_ORGANIZATIONNAME, kOidOrganization, "AOID_AT_ORGANIZATIONNAME"),
    Entry(AOID_AT_ORGANIZATIONALUNITNAME, kOidOrganizationalUnit, "AOID_AT_ORGANIZATIONALUNITNAME"),
    Entry(AOID_AT_COUNTRYNAME, kOidCountry, "AOID_AT_COUNTRYNAME"),
    Entry(AOID_PKCS9_AT_EMAILADDRESS, kOidEmail, "AOID_PKCS9_AT_EMAILADDRESS"),
    Entry(AOID_CE_KEYUSAGE, kOidKeyUsage, "AOID_CE_KEYUSAGE"),
    Entry(AOID_CE_BASICCONSTRAINTS, kOidBasicConstraints, "AOID_CE_BASICCONSTRAINTS"),
    Entry(AOID_CE_EXTKEYUSAGE, kOidExtKeyUsage, "AOID_CE_EXTKEYUSAGE"),
    Entry(AOID_KP_CODESIGNING, kOidCodeSigning, "AOID_KP_CODESIGNING"),
    Entry(AOID_KP_TIMESTAMPING, kOidTimeStamping, "AOID_KP_TIMESTAMPING"),
    Entry(AOID_CE_CERTIFICATEISSUER, kOidCertificateIssuer, "AOID_CE_CERTIFICATEISSUER"),
    Entry(AOID_CE_ISSUINGDISTRIBUTIONPOINT, kOidIssuingDistPoint,
          "AOID_CE_ISSUINGDISTRIBUTIONPOINT"),
    Entry(AOID_CE_CRLDISTRIBUTIONPOINTS, kOidCrlDistPoints, "AOID_CE_CRLDISTRIBUTIONPOINTS"),
    Entry(AOID_CE_CRLREASONS, kOidCrlReasons, "AOID_CE_CRLREASONS"),
    Entry(AOID_PKCS7_DATA, kOidData, "AOID_PKCS7_DATA"),
    Entry(AOID_PKCS7_SIGNEDDATA, kOidSignedData, "AOID_PKCS7_SIGNEDDATA"),
    Entry(AOID_PKCS9_AT_CONTENTTYPE, kOidContentType, "AOID_PKCS9_AT_CONTENTTYPE"),
    Entry(AOID_PKCS9_AT_MESSAGEDIGEST, kOidMessageDigest, "AOID_PKCS9_AT_MESSAGEDIGEST"),
    Entry(AOID_CT_TSTINFO, kOidTstInfo, "AOID_CT_TSTINFO"),
    Entry(AOID_AA_SIGNING_CERTIFICATE, kOidSigningCert, "AOID_AA_SIGNING_CERTIFICATE"),
    Entry(AOID_AA_SIGNING_CERTIFICATE_V2, kOidSigningCertV2, "AOID_AA_SIGNING_CERTIFICATE_V2"),
    Entry(AOID_PKCS9_AT_TIMESTAMP_TOKEN, kOidTimestampToken, "AOID_PKCS9_AT_TIMESTAMP_TOKEN"),
};

constexpr uint32_t g_drxOidCount = sizeof(g_drxOIDTable) / sizeof(g_drxOIDTable[0]);
static_assert(g_drxOidCount == 41);

namespace {

constexpr std::span<const DorvexOidInfo> OidTable() {
    return {g_drxOIDTable, g_drxOidCount};
}

}  // namespace

int32_t DorvexCompareAsnOcts(const DorvexAsnOcts *a, const DorvexAsnOcts *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    if (a == b) {
        return 0;
    }
    if (a->len != b->len) {
        return -1;
    }
    if (a->data == b->data) {
        return 0;
    }
    return DorvexMemCmp(a->data, b->data, a->len);
}

int32_t DorvexFindAoid(const DorvexAsnOcts *oid) {
    if (oid == nullptr) {
        return AOID_UNKNOWN;
    }
    for (const DorvexOidInfo &entry : OidTable()) {
        if (DorvexCompareAsnOcts(&entry.oid, oid) == 0) {
            return entry.aoid;
        }
    }
    return AOID_UNKNOWN;
}

const DorvexAsnOcts *DorvexFindOid(int32_t aoid) {
    for (const DorvexOidInfo &entry : OidTable()) {
        if (entry.aoid == aoid) {
            return &entry.oid;
        }
    }
    return nullptr;
}

int32_t DorvexGetHashAoidFromSign(const DorvexX509AlgoIdentifier *alg) {
    if (alg == nullptr) {
        return AOID_UNKNOWN;
    }
    // Digest fields name the plain SHA-2 identifiers, signature fields the
    // RSA-with-SHA-2 ones; both lead to the same digest.
    switch (DorvexFindAoid(&alg->algorithm)) {
        case AOID_SHA256:
        case AOID_SHA256WITHRSAENCRYPTION:
            return AOID_SHA256;
        case AOID_SHA384:
        case AOID_SHA384WITHRSAENCRYPTION:
            return AOID_SHA384;
        case AOID_SHA512:
        case AOID_SHA512WITHRSAENCRYPTION:
            return AOID_SHA512;
        default:
            return AOID_UNKNOWN;
    }
}

int32_t DorvexGetRsaSignHashAoid(const DorvexX509AlgoIdentifier *alg) {
    if (alg == nullptr) {
        return AOID_UNKNOWN;
    }
    switch (DorvexFindAoid(&alg->algorithm)) {
        case AOID_SHA256WITHRSAENCRYPTION:
            return AOID_SHA256;
        case AOID_SHA384WITHRSAENCRYPTION:
            return AOID_SHA384;
        case AOID_SHA512WITHRSAENCRYPTION:
            return AOID_SHA512;
        default:
            return AOID_UNKNOWN;
    }
}
