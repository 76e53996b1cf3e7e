// Certificates and CRLs walked as the intake walks concatenated DER. Checks the
// decoders' promises and, where d2i_X509 or d2i_X509_CRL also reads an item,
// the same fields (keys aside: a misread key fails signatures).
#include <openssl/asn1.h>
#include <openssl/objects.h>
#include <string.h>

#include <algorithm>
#include <iterator>

#include "fuzz/support.h"

namespace {

using fuzz_support::Bytes;
using fuzz_support::Check;
using fuzz_support::CrlPtr;
using fuzz_support::Inside;
using fuzz_support::X509Ptr;

void Same(bool ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "fuzz_der: OpenSSL and this decoder disagree on %s\n", what);
        abort();
    }
}

bool SameBytes(const uint8_t *a, size_t aLen, const uint8_t *b, size_t bLen) {
    return aLen == bLen && (aLen == 0 || memcmp(a, b, aLen) == 0);
}

bool SameString(const DorvexAsnOcts &ours, const ASN1_STRING *theirs) {
    return ours.tagCode == static_cast<uint32_t>(ASN1_STRING_type(theirs)) &&
           SameBytes(ours.data, ours.len, ASN1_STRING_get0_data(theirs),
                     static_cast<size_t>(ASN1_STRING_length(theirs)));
}

void SameTime(const DorvexAsnOcts &ours, const ASN1_TIME *theirs, const char *what) {
    Same(theirs == nullptr ? ours.len == 0 && ours.data == nullptr : SameString(ours, theirs),
         what);
}

// This decoder keeps an INTEGER's two's complement content less one leading
// 0x00; OpenSSL keeps sign and magnitude, so its value is encoded again.
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
    const unsigned char *p = data;
    const X509Ptr theirs(d2i_X509(nullptr, &p, size));
    if (theirs != nullptr) {
        Same(p - data == *consumed, "the certificate's length");
        SameInteger(info.serialNumber, X509_get0_serialNumber(theirs.get()), "the serial number");
        SameName(info.issuer, X509_get_issuer_name(theirs.get()), "the issuer");
        SameName(info.subject, X509_get_subject_name(theirs.get()), "the subject");
        SameTime(info.validity.notBefore, X509_get0_notBefore(theirs.get()), "notBefore");
        SameTime(info.validity.notAfter, X509_get0_notAfter(theirs.get()), "notAfter");
    }
    ++cert->refCount;  // a second holder lets go first
    DorvexX509FreeCert(cert);
    DorvexX509FreeCert(cert);
    return true;
}

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
        // Required here: the next element fills it (repro/crl-*-next-update.der).
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
    // Each entry takes two octets of the list at least; the index holds each once.
    Check(crl->refCount == 1 && *consumed > 0 && *consumed <= size &&
          Inside(crl->tbsRaw, data, *consumed) && revoked.count <= revoked.raw.len / 2 &&
          (revoked.count == 0 || (revoked.entries != nullptr && revoked.bySerial != nullptr)));
    std::vector<bool> indexed(revoked.count);
    for (uint32_t i = 0; i < revoked.count; ++i) {
        const DorvexAsnBigint &serial = revoked.entries[i].userCertificate;
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

// A certificate, else a CRL, for as long as one of them decodes.
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > UINT32_MAX / 2) {
        return 0;
    }
    Walk(data, static_cast<uint32_t>(size));
    return 0;
}
