// DorvexAsnDecode on arbitrary bytes, against every basic item and a few
// certificate-shaped templates built from them, so that real DER seeds reach
// the nested SEQUENCE, SET OF, map and BIT STRING-wrapped paths. Besides the
// sanitizers, checks the decoder's promises: a failed decode hands out no
// record, a successful one consumed no more than the input.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "cms/asn1/asn1.h"
#include "cms/asn1/oid.h"
#include "fuzz/support.h"

namespace {

using fuzz_support::Check;

constexpr DorvexAsnTempl Row(const DorvexAsnItem *item, uint32_t offset, uint16_t flags = 0,
                             uint16_t mode = DRX_ASN_TAG_UNIVERSAL, uint32_t tag = 0,
                             uint32_t maxCount = 0) {
    return DorvexAsnTempl{item, tag, mode, flags, offset, maxCount};
}

template <size_t N>
constexpr DorvexAsnItem Item(const DorvexAsnTempl (&rows)[N], const DorvexAsnFunc *func,
                             uint32_t tag, uint32_t size) {
    return DorvexAsnItem{
        rows, func, 0, tag == DRX_ASN_BIT_STRING ? 0u : 1u, tag, static_cast<uint32_t>(N), size};
}

// AttributeTypeAndValue ::= SEQUENCE { type OBJECT IDENTIFIER, value ANY }
struct Attr {
    DorvexAsnOcts type;
    DorvexAsnOcts value;
};
constexpr DorvexAsnTempl kAttrRows[] = {Row(&g_itemDorvexAsnOcts, offsetof(Attr, type)),
                                        Row(&g_itemDorvexAsnOcts, offsetof(Attr, value))};
constexpr DorvexAsnItem kAttr = Item(kAttrRows, &g_drxAsnFuncSeq, DRX_ASN_SEQUENCE, sizeof(Attr));

// RelativeDistinguishedName ::= SET SIZE (1..10) OF AttributeTypeAndValue
struct Rdn {
    uint32_t count;
    Attr attrs[10];
};
constexpr DorvexAsnTempl kRdnRows[] = {Row(&kAttr, offsetof(Rdn, attrs), 0, 0, 0, 10)};
constexpr DorvexAsnItem kRdn = Item(kRdnRows, &g_drxAsnFuncSetOf, DRX_ASN_SET, sizeof(Rdn));

// Name ::= SEQUENCE SIZE (1..10) OF RelativeDistinguishedName
struct Name {
    uint32_t count;
    Rdn rdns[10];
};
constexpr DorvexAsnTempl kNameRows[] = {Row(&kRdn, offsetof(Name, rdns), 0, 0, 0, 10)};
constexpr DorvexAsnItem kName = Item(kNameRows, &g_drxAsnFuncSetOf, DRX_ASN_SEQUENCE, sizeof(Name));

// RSAPublicKey ::= SEQUENCE { modulus INTEGER, publicExponent INTEGER }
struct RsaKey {
    DorvexAsnBigint modulus;
    DorvexAsnBigint exponent;
};
constexpr DorvexAsnTempl kRsaRows[] = {Row(&g_itemDorvexAsnBigint, offsetof(RsaKey, modulus)),
                                       Row(&g_itemDorvexAsnBigint, offsetof(RsaKey, exponent))};
constexpr DorvexAsnItem kRsa = Item(kRsaRows, &g_drxAsnFuncSeq, DRX_ASN_SEQUENCE, sizeof(RsaKey));

// subjectPublicKey BIT STRING, its content being the DER of an RSAPublicKey
constexpr DorvexAsnTempl kPubKeyRows[] = {Row(&kRsa, 0)};
constexpr DorvexAsnItem kPubKeyInBits =
    Item(kPubKeyRows, &g_drxAsnFuncSeq, DRX_ASN_BIT_STRING, sizeof(RsaKey));

// SubjectPublicKeyInfo ::= SEQUENCE { algorithm AlgorithmIdentifier, subjectPublicKey BIT STRING }
struct Spki {
    DorvexX509AlgoIdentifier alg;
    RsaKey key;
};
constexpr DorvexAsnTempl kSpkiRows[] = {
    Row(&g_itemDorvexX509AlgoIdentifier, offsetof(Spki, alg)),
    Row(&kPubKeyInBits, offsetof(Spki, key)),
};
constexpr DorvexAsnItem kSpki = Item(kSpkiRows, &g_drxAsnFuncSeq, DRX_ASN_SEQUENCE, sizeof(Spki));

// BasicConstraints ::= SEQUENCE { cA BOOLEAN DEFAULT FALSE, pathLen INTEGER OPTIONAL }
constexpr DorvexAsnTempl kBasicRows[] = {
    Row(&g_itemDorvexAsnBool, 0, DRX_ASN_DEFAULT),
    Row(&g_itemDorvexAsnOcts, 0, DRX_ASN_OPTIONAL | DRX_ASN_SKIP),
};
constexpr DorvexAsnItem kBasic =
    Item(kBasicRows, &g_drxAsnFuncSeq, DRX_ASN_SEQUENCE, sizeof(DorvexAsnInt));

// Extensions ::= SEQUENCE OF Extension, dispatched on extnID
struct Exts {
    DorvexAsnInt isCA;
    uint32_t keyUsage;
    uint32_t extKeyUsage;
};
constexpr DorvexAsnTempl kExtsRows[] = {
    Row(&kBasic, offsetof(Exts, isCA), DRX_ASN_OPTIONAL, 0, AOID_CE_BASICCONSTRAINTS),
    Row(&g_itemDorvexAsnBitsToInt, offsetof(Exts, keyUsage), DRX_ASN_OPTIONAL, 0, AOID_CE_KEYUSAGE),
    Row(&g_itemDorvexAsnExku, offsetof(Exts, extKeyUsage), DRX_ASN_OPTIONAL, 0,
        AOID_CE_EXTKEYUSAGE),
};
constexpr DorvexAsnItem kExts = Item(kExtsRows, &g_drxAsnFuncMap, DRX_ASN_SEQUENCE, sizeof(Exts));

// TBSCertificate ::= SEQUENCE {
//     version          [0] EXPLICIT INTEGER (skipped),
//     serialNumber         INTEGER,
//     signature            AlgorithmIdentifier (skipped),
//     issuer               Name,
//     validity             SEQUENCE (skipped),
//     subject              Name,
//     subjectPublicKeyInfo SubjectPublicKeyInfo,
//     issuerUniqueID   [1] IMPLICIT BIT STRING OPTIONAL (skipped),
//     subjectUniqueID  [2] IMPLICIT BIT STRING OPTIONAL (skipped),
//     extensions       [3] EXPLICIT Extensions OPTIONAL }
struct Tbs {
    DorvexAsnBigint serial;
    Name issuer;
    Name subject;
    Spki spki;
    Exts exts;
};
constexpr DorvexAsnTempl kTbsRows[] = {
    Row(&g_itemDorvexAsnInt, 0, DRX_ASN_SKIP, DRX_ASN_TAG_EXPLICIT, 0),
    Row(&g_itemDorvexAsnBigint, offsetof(Tbs, serial)),
    Row(&g_itemDorvexAsnSeq, 0, DRX_ASN_SKIP),
    Row(&kName, offsetof(Tbs, issuer)),
    Row(&g_itemDorvexAsnSeq, 0, DRX_ASN_SKIP),
    Row(&kName, offsetof(Tbs, subject)),
    Row(&kSpki, offsetof(Tbs, spki)),
    Row(&g_itemDorvexAsnBits, 0, DRX_ASN_OPTIONAL | DRX_ASN_SKIP, DRX_ASN_TAG_IMPLICIT, 1),
    Row(&g_itemDorvexAsnBits, 0, DRX_ASN_OPTIONAL | DRX_ASN_SKIP, DRX_ASN_TAG_IMPLICIT, 2),
    Row(&kExts, offsetof(Tbs, exts), DRX_ASN_OPTIONAL, DRX_ASN_TAG_EXPLICIT, 3),
};
constexpr DorvexAsnItem kTbs = Item(kTbsRows, &g_drxAsnFuncSeq, DRX_ASN_SEQUENCE, sizeof(Tbs));

// Certificate ::= SEQUENCE {
//     tbsCertificate      TBSCertificate (also captured whole),
//     signatureAlgorithm  AlgorithmIdentifier,
//     signatureValue      BIT STRING }
struct Cert {
    DorvexAsnOcts tbsRaw;
    Tbs tbs;
    DorvexX509AlgoIdentifier alg;
    DorvexAsnBits sig;
};
constexpr DorvexAsnTempl kCertRows[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(Cert, tbsRaw), DRX_ASN_PEEK | DRX_ASN_WITH_HEADER),
    Row(&kTbs, offsetof(Cert, tbs)),
    Row(&g_itemDorvexX509AlgoIdentifier, offsetof(Cert, alg)),
    Row(&g_itemDorvexAsnBits, offsetof(Cert, sig)),
};
constexpr DorvexAsnItem kCert = Item(kCertRows, &g_drxAsnFuncSeq, DRX_ASN_SEQUENCE, sizeof(Cert));

const DorvexAsnItem *const kItems[] = {
    &g_itemDorvexAsnOcts,
    &g_itemDorvexAsnBigint,
    &g_itemDorvexAsnSeq,
    &g_itemDorvexAsnSet,
    &g_itemDorvexAsnBits,
    &g_itemDorvexAsnInt,
    &g_itemDorvexAsnEnum,
    &g_itemDorvexAsnBool,
    &g_itemDorvexAsnOidBundle,
    &g_itemDorvexAsnExku,
    &g_itemDorvexAsnBitsToInt,
    &g_itemDorvexX509AlgoIdentifier,
    &g_itemDorvexX509ExtensionEntry,
    &kName,
    &kSpki,
    &kExts,
    &kTbs,
    &kCert,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > UINT32_MAX) {
        return 0;
    }
    const auto length = static_cast<uint32_t>(size);
    for (const DorvexAsnItem *item : kItems) {
        void *record = &record;
        uint32_t consumed = 0;
        const uint32_t rc = DorvexAsnDecode(data, length, item, 0, &record, &consumed);
        if (rc != DORVEX_OK) {
            Check(record == nullptr);
            continue;
        }
        Check(record != nullptr && consumed <= length);
        if (item == &kCert) {
            // The signed part is the bytes of the certificate's first element.
            const auto *cert = static_cast<const Cert *>(record);
            Check(cert->tbsRaw.data > data && cert->tbsRaw.data + cert->tbsRaw.len <= data + size);
        }
        DorvexAsnFree(record, item);
    }
    return 0;
}
