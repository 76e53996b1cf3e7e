// The DER decoders on arbitrary bytes, each on the whole input: the engine
// against basic items, the product's templates one by one and a structure
// inside a BIT STRING; certificates and CRLs walked as the intake walks
// concatenated DER, using every name and time the verifier reads; SignedData
// with its signer's timestamp token, and the input as a bare token. Besides
// the sanitizers, checks the decoders' promises: a failure hands out no
// record; a success has one reference, consumed no more than it was given,
// and points into the input; counts stay within the model's limits.
//
// Every certificate and CRL of the walk that OpenSSL's d2i_X509 or
// d2i_X509_CRL also reads must have the same fields there (serial, names,
// validity, key; issuer, update times, revoked serials and dates; length);
// any difference aborts. Verdicts are not compared: this system accepts what
// OpenSSL refuses (non-minimal lengths, unknown critical extensions) and
// refuses what OpenSSL accepts (indefinite lengths, more than 10 RDNs, keys
// other than RSA and EC on P-256 and P-384).
#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "cms/asn1/oid.h"
#include "cms/asn1/pkcs7.h"
#include "fuzz/support.h"

namespace {

using fuzz_support::Bytes;
using fuzz_support::Check;
using fuzz_support::CrlPtr;
using fuzz_support::Inside;
using fuzz_support::X509Ptr;

// ---- the engine -------------------------------------------------------------

// A structure carried inside a BIT STRING (primitive header, then the
// unused-bits octet): an engine path that no product template starts with.
constexpr DorvexAsnTempl kKeyInBitsRow = {
    &g_itemDorvexRsaPublicKey, 0, DRX_ASN_TAG_UNIVERSAL, 0, 0, 0};
constexpr DorvexAsnItem kKeyInBits = {
    &kKeyInBitsRow, &g_drxAsnFuncSeq, 0, 0, DRX_ASN_BIT_STRING, 1, sizeof(DorvexRsaPublicKey)};

const DorvexAsnItem *const kItems[] = {
    // basic items
    &g_itemDorvexAsnOcts, &g_itemDorvexAsnBigint, &g_itemDorvexAsnSeq, &g_itemDorvexAsnSet,
    &g_itemDorvexAsnBits, &g_itemDorvexAsnInt, &g_itemDorvexAsnEnum, &g_itemDorvexAsnBool,
    &g_itemDorvexAsnOidBundle, &g_itemDorvexAsnExku, &g_itemDorvexAsnBitsToInt,
    // the product's templates for parts of certificates, CRLs and signatures
    &g_itemDorvexX509AlgoIdentifier, &g_itemDorvexX509ExtensionEntry, &g_itemDorvexX509Name,
    &g_itemDorvexX509PubkeyInfo, &g_itemDorvexX509CertExts, &g_itemDorvexX509CertInfo,
    &g_itemDorvexX509CrlInfo, &g_itemDorvexX509RevokeEntry, &g_itemDorvexX509IssuingDistPoint,
    &g_itemDorvexPkcs7SignedInfo, &g_itemDorvexTimestampInfo, &kKeyInBits};

void DecodeItems(const uint8_t *data, uint32_t size) {
    for (const DorvexAsnItem *item : kItems) {
        void *record = &record;
        uint32_t consumed = 0;
        if (DorvexAsnDecode(data, size, item, 0, &record, &consumed) != DORVEX_OK) {
            Check(record == nullptr);
            continue;
        }
        Check(record != nullptr && consumed <= size);
        DorvexAsnFree(record, item);
    }
}

// ---- OpenSSL's reading ------------------------------------------------------

// A difference aborts.
void Same(bool ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "fuzz_der: OpenSSL and this decoder disagree on %s\n", what);
        abort();
    }
}

bool SameBytes(const uint8_t *a, size_t aLen, const uint8_t *b, size_t bLen) {
    return aLen == bLen && (aLen == 0 || memcmp(a, b, aLen) == 0);
}

// The same string type and content octets.
bool SameString(const DorvexAsnOcts &ours, const ASN1_STRING *theirs) {
    return ours.tagCode == static_cast<uint32_t>(ASN1_STRING_type(theirs)) &&
           SameBytes(ours.data, ours.len, ASN1_STRING_get0_data(theirs),
                     static_cast<size_t>(ASN1_STRING_length(theirs)));
}

void SameTime(const DorvexAsnOcts &ours, const ASN1_TIME *theirs, const char *what) {
    Same(theirs == nullptr ? ours.len == 0 && ours.data == nullptr : SameString(ours, theirs),
         what);
}

// The content octets of an INTEGER as this decoder keeps them: two's
// complement, one leading 0x00 removed. OpenSSL holds a sign and a
// magnitude, so its value is encoded again to compare.
void SameInteger(const DorvexAsnBigint &ours, const ASN1_INTEGER *theirs, const char *what) {
    unsigned char *der = nullptr;
    const int len = i2d_ASN1_INTEGER(theirs, &der);
    Bytes content;
    if (len > 0) {
        // tag, then a short or long length form
        const size_t at = 1 + ((der[1] & 0x80) != 0 ? 1 + (der[1] & 0x7F) : 1);
        content.assign(der + at, der + len);
    }
    OPENSSL_free(der);
    if (!content.empty() && content[0] == 0x00) {
        content.erase(content.begin());
    }
    Same(SameBytes(ours.data, ours.len, content.data(), content.size()), what);
}

// String types whose content OpenSSL keeps as encoded; for others it may
// keep the whole element, so only the presence of the entry is compared.
bool PlainString(int type) {
    static constexpr int kPlain[] = {
        V_ASN1_UTF8STRING, V_ASN1_NUMERICSTRING, V_ASN1_PRINTABLESTRING, V_ASN1_T61STRING,
        V_ASN1_IA5STRING,  V_ASN1_VISIBLESTRING, V_ASN1_UNIVERSALSTRING, V_ASN1_BMPSTRING};
    return std::find(std::begin(kPlain), std::end(kPlain), type) != std::end(kPlain);
}

// Attribute by attribute, in encoded order, each in the same RDN.
void SameName(const DorvexX509Name &ours, const X509_NAME *theirs, const char *what) {
    const int count = X509_NAME_entry_count(theirs);
    int index = 0;
    for (uint32_t r = 0; r < ours.count && r < DRX_X509_NAME_MAX_RDNS; ++r) {
        const DorvexX509AttrBundle &rdn = ours.rdns[r];
        for (uint32_t a = 0; a < rdn.count && a < DRX_X509_RDN_MAX_ATTRS; ++a, ++index) {
            Same(index < count, what);
            const X509_NAME_ENTRY *entry = X509_NAME_get_entry(theirs, index);
            Same(X509_NAME_ENTRY_set(entry) == static_cast<int>(r), what);
            const ASN1_OBJECT *type = X509_NAME_ENTRY_get_object(entry);
            Same(rdn.attrs[a].type.tagCode == V_ASN1_OBJECT &&
                     SameBytes(rdn.attrs[a].type.data, rdn.attrs[a].type.len, OBJ_get0_data(type),
                               OBJ_length(type)),
                 what);
            const ASN1_STRING *value = X509_NAME_ENTRY_get_data(entry);
            Same(!PlainString(ASN1_STRING_type(value)) || SameString(rdn.attrs[a].value, value),
                 what);
        }
    }
    Same(index == count, what);
}

// The same number: OpenSSL's key decoder takes non-minimal INTEGERs (as this
// decoder does, which drops only one leading zero octet), so the magnitudes
// are compared without their leading zeros
// (tests/hardening/repro/cert-key-padded-exponent.der).
void SameNumber(const DorvexAsnBigint &ours, const BIGNUM *theirs, const char *what) {
    Bytes magnitude(static_cast<size_t>(BN_num_bytes(theirs)));
    BN_bn2bin(theirs, magnitude.data());
    uint32_t skip = 0;
    while (skip < ours.len && ours.data[skip] == 0x00) {
        ++skip;
    }
    Same(SameBytes(ours.data + skip, ours.len - skip, magnitude.data(), magnitude.size()), what);
}

// RSA: modulus and exponent, when OpenSSL reads the key as RSA with positive
// numbers. A non-zero unused-bits count is left out: OpenSSL clears those
// bits in the key's last octet, while this decoder does not examine the
// count (tests/hardening/repro/cert-key-unused-bits.der). EC: OpenSSL reads
// an EC key on the same named curve with the same point octets.
void SameKey(const DorvexX509PubkeyInfo &ours, X509 *theirs) {
    const ASN1_BIT_STRING *bits = X509_get0_pubkey_bitstr(theirs);
    EVP_PKEY *pkey = X509_get0_pubkey(theirs);
    if (ours.keyType == DRX_KEY_EC) {
        char group[32] = {};
        const bool ec = pkey != nullptr && EVP_PKEY_is_a(pkey, "EC") &&
                        EVP_PKEY_get_group_name(pkey, group, sizeof group, nullptr) == 1;
        const std::string_view curve = ours.curve == AOID_PRIME256V1 ? "prime256v1" : "secp384r1";
        Same(ec && group == curve, "the EC curve");
        Same(bits != nullptr && SameBytes(bits->data, static_cast<size_t>(bits->length),
                                          ours.keyBits.data, ours.keyBits.len),
             "the EC point");
    } else if (bits != nullptr &&
               ((bits->flags & ASN1_STRING_FLAG_BITS_LEFT) == 0 || (bits->flags & 0x07) == 0) &&
               pkey != nullptr && EVP_PKEY_is_a(pkey, "RSA")) {
        BIGNUM *n = nullptr;
        BIGNUM *e = nullptr;
        if (EVP_PKEY_get_bn_param(pkey, OSSL_PKEY_PARAM_RSA_N, &n) == 1 &&
            EVP_PKEY_get_bn_param(pkey, OSSL_PKEY_PARAM_RSA_E, &e) == 1 && !BN_is_negative(n) &&
            !BN_is_negative(e)) {
            SameNumber(ours.subjectPublicKey.modulus, n, "the RSA modulus");
            SameNumber(ours.subjectPublicKey.publicExponent, e, "the RSA exponent");
        }
        BN_free(n);
        BN_free(e);
    }
    ERR_clear_error();
}

// ---- certificates and CRLs --------------------------------------------------

void UseName(const DorvexX509Name &name) {
    char *text = nullptr;
    uint32_t len = 0;
    if (DorvexConvertFromX509Name(&name, &text, &len) == DORVEX_OK) {
        Check(text != nullptr && len <= DRX_X509_NAME_STR_MAX && text[len] == '\0');
        DorvexFree(text);
    }
    Check(DorvexCompareX509Name(&name, &name) == 0);
}

void UseTime(const DorvexAsnOcts &time) {
    int64_t seconds = 0;
    (void)DorvexConvertDatetimeToTime(&time, &seconds);
}

bool TryCert(const uint8_t *data, uint32_t size, uint32_t *consumed) {
    DorvexX509Cert *cert = nullptr;
    if (DorvexX509DecodeCert(data, size, &cert, consumed) != DORVEX_OK) {
        Check(cert == nullptr);
        return false;
    }
    const DorvexX509CertInfo &info = cert->certInfo;
    Check(cert->refCount == 1 && *consumed > 0 && *consumed <= size &&
          Inside(cert->tbsRaw, data, *consumed) && Inside(cert->signature, data, *consumed) &&
          Inside(info.serialNumber, data, *consumed));
    UseName(info.issuer);
    UseName(info.subject);
    (void)DorvexCompareX509Name(&info.issuer, &info.subject);
    UseTime(info.validity.notBefore);
    UseTime(info.validity.notAfter);
    const unsigned char *p = data;
    const X509Ptr theirs(d2i_X509(nullptr, &p, size));
    if (theirs != nullptr) {
        Same(p - data == *consumed, "the certificate's length");
        SameInteger(info.serialNumber, X509_get0_serialNumber(theirs.get()), "the serial number");
        SameName(info.issuer, X509_get_issuer_name(theirs.get()), "the issuer");
        SameName(info.subject, X509_get_subject_name(theirs.get()), "the subject");
        SameTime(info.validity.notBefore, X509_get0_notBefore(theirs.get()), "notBefore");
        SameTime(info.validity.notAfter, X509_get0_notAfter(theirs.get()), "notAfter");
        SameKey(info.subjectPublicKeyInfo, theirs.get());
    }
    ++cert->refCount;  // a second holder lets go first
    DorvexX509FreeCert(cert);
    DorvexX509FreeCert(cert);
    return true;
}

// OpenSSL's reading of a CRL this decoder read as `ours`.
void CompareCrl(const DorvexX509CrlInfo &ours, const uint8_t *data, uint32_t size,
                uint32_t consumed) {
    const unsigned char *p = data;
    const CrlPtr theirs(d2i_X509_CRL(nullptr, &p, size));
    if (theirs == nullptr) {
        return;
    }
    Same(p - data == consumed, "the CRL's length");
    SameName(ours.issuer, X509_CRL_get_issuer(theirs.get()), "the CRL issuer");
    SameTime(ours.thisUpdate, X509_CRL_get0_lastUpdate(theirs.get()), "thisUpdate");
    const ASN1_TIME *next = X509_CRL_get0_nextUpdate(theirs.get());
    const uint32_t tag = ours.nextUpdate.tagCode;
    if (next == nullptr && (ours.nextUpdate.tagClass != V_ASN1_UNIVERSAL ||
                            (tag != V_ASN1_UTCTIME && tag != V_ASN1_GENERALIZEDTIME))) {
        // nextUpdate is required here and taken with any tag, so the element
        // after thisUpdate fills it where OpenSSL sees none and the fields
        // after it are read one place on; such a CRL is never used
        // (tests/hardening/repro/crl-*-next-update.der).
        return;
    }
    SameTime(ours.nextUpdate, next, "nextUpdate");
    const STACK_OF(X509_REVOKED) *revoked = X509_CRL_get_REVOKED(theirs.get());
    const int count = revoked == nullptr ? 0 : sk_X509_REVOKED_num(revoked);
    Same(ours.revokedCertificates.count == static_cast<uint32_t>(count), "the revoked entries");
    for (int i = 0; i < count; ++i) {
        const X509_REVOKED *entry = sk_X509_REVOKED_value(revoked, i);
        const DorvexX509RevokeEntry &mine = ours.revokedCertificates.entries[i];
        SameInteger(mine.userCertificate, X509_REVOKED_get0_serialNumber(entry),
                    "a revoked serial");
        SameTime(mine.revocationDate, X509_REVOKED_get0_revocationDate(entry), "a revocation date");
    }
}

bool TryCrl(const uint8_t *data, uint32_t size, uint32_t *consumed) {
    DorvexX509Crl *crl = nullptr;
    if (DorvexX509DecodeCrl(data, size, &crl, consumed) != DORVEX_OK) {
        Check(crl == nullptr);
        return false;
    }
    const DorvexX509CrlInfo &info = crl->crlInfo;
    const DorvexX509Revoked &revoked = info.revokedCertificates;
    // Any number of entries, each at least one element of the captured list,
    // and the serial index holds each of them once.
    Check(crl->refCount == 1 && *consumed > 0 && *consumed <= size &&
          Inside(crl->tbsRaw, data, *consumed) && revoked.count <= revoked.raw.len / 2 &&
          (revoked.count == 0 || (revoked.entries != nullptr && revoked.bySerial != nullptr)));
    UseName(info.issuer);
    UseTime(info.thisUpdate);
    UseTime(info.nextUpdate);
    std::vector<bool> indexed(revoked.count);
    for (uint32_t i = 0; i < revoked.count; ++i) {
        const DorvexAsnBigint &serial = revoked.entries[i].userCertificate;
        UseTime(revoked.entries[i].revocationDate);
        const uint32_t at = revoked.bySerial[i];
        Check(Inside(serial, data, *consumed) && at < revoked.count && !indexed[at]);
        indexed[at] = true;
        // The look-up finds every entry by its serial.
        uint32_t first = 0;
        uint32_t count = 0;
        DorvexX509CrlFindSerial(crl, &serial, &first, &count);
        Check(count >= 1 && first + count <= revoked.count);
    }
    CompareCrl(info, data, size, *consumed);
    DorvexX509FreeCrl(crl);
    return true;
}

// A certificate is tried first, then a CRL; the walk goes on while one of
// them decodes.
void Walk(const uint8_t *data, uint32_t size) {
    uint32_t pos = 0;
    while (pos < size) {
        uint32_t consumed = 0;
        if (!TryCert(data + pos, size - pos, &consumed) &&
            !TryCrl(data + pos, size - pos, &consumed)) {
            return;
        }
        pos += consumed;
    }
}

// ---- SignedData and timestamp tokens ----------------------------------------

// A signature (depth 0) or a timestamp token (depth 1) in data[0..size).
void UseSigned(const uint8_t *data, uint32_t size, int depth) {
    DorvexPkcs7Content *content = nullptr;
    uint32_t consumed = 0;
    if (DorvexPkcs7DecodeSigned(data, size, &content, &consumed) != DORVEX_OK) {
        Check(content == nullptr);
        return;
    }
    const DorvexPkcs7SignedData &sd = content->signedData;
    Check(consumed > 0 && consumed <= size && sd.certificates.count <= DRX_PKCS7_MAX_CERTS &&
          sd.certList.count == static_cast<int32_t>(sd.certificates.count) &&
          sd.signerInfos.count <= DRX_PKCS7_MAX_SIGNERS);
    for (int32_t i = 0; i < sd.certList.count; ++i) {
        const auto *cert = static_cast<const DorvexX509Cert *>(sd.certList.items[i]);
        Check(cert->refCount == 1 && Inside(cert->tbsRaw, data, size));
    }
    for (uint32_t i = 0; i < sd.signerInfos.count; ++i) {
        const DorvexPkcs7SignedInfo &si = sd.signerInfos.signerInfo[i];
        const DorvexAsnOcts &token = si.unsignedAttrs.timestampToken;
        Check(Inside(si.signature, data, size) && Inside(si.signedAttrsRaw, data, size) &&
              Inside(token, data, size));
        // The raw capture starts at the [0] tag; the verifier puts 0x31 there.
        Check(si.signedAttrsRaw.data == nullptr ||
              (si.signedAttrsRaw.data[0] == 0xA0 && si.signedAttrsRaw.tagCode == DRX_ASN_SET));
        if (token.data != nullptr && depth == 0) {
            UseSigned(token.data, token.len, 1);
        }
    }
    DorvexPkcs7FreeSigned(content);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > UINT32_MAX / 2) {
        return 0;
    }
    const auto length = static_cast<uint32_t>(size);
    DecodeItems(data, length);
    Walk(data, length);
    UseSigned(data, length, 0);
    UseSigned(data, length, 1);
    return 0;
}
