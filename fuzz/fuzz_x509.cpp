// Certificate and CRL decoding of arbitrary bytes, walked as the intake
// walks concatenated DER: decode, use every name and time the verifier
// reads, move on by the consumed length. Besides the sanitizers, checks the
// decoders' promises: a failure hands out no record, a success has one
// reference, consumed no more than it was given and points into the input.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <vector>

#include "cms/asn1/x509.h"
#include "fuzz/support.h"

namespace {

using fuzz_support::Check;

bool Inside(const DorvexAsnOcts &o, const uint8_t *data, size_t size) {
    return o.data == nullptr || (o.data >= data && o.len <= size && o.data + o.len <= data + size);
}

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
    Check(cert->refCount == 1 && *consumed > 0 && *consumed <= size);
    Check(Inside(cert->tbsRaw, data, *consumed) && Inside(cert->signature, data, *consumed));
    const DorvexX509CertInfo &info = cert->certInfo;
    Check(Inside(info.serialNumber, data, *consumed));
    UseName(info.issuer);
    UseName(info.subject);
    (void)DorvexCompareX509Name(&info.issuer, &info.subject);
    UseTime(info.validity.notBefore);
    UseTime(info.validity.notAfter);
    ++cert->refCount;  // a second holder lets go first
    DorvexX509FreeCert(cert);
    DorvexX509FreeCert(cert);
    return true;
}

bool TryCrl(const uint8_t *data, uint32_t size, uint32_t *consumed) {
    DorvexX509Crl *crl = nullptr;
    if (DorvexX509DecodeCrl(data, size, &crl, consumed) != DORVEX_OK) {
        Check(crl == nullptr);
        return false;
    }
    Check(crl->refCount == 1 && *consumed > 0 && *consumed <= size);
    Check(Inside(crl->tbsRaw, data, *consumed));
    const DorvexX509CrlInfo &info = crl->crlInfo;
    UseName(info.issuer);
    UseTime(info.thisUpdate);
    UseTime(info.nextUpdate);
    const DorvexX509Revoked &revoked = info.revokedCertificates;
    // Any number of entries, each at least one element of the captured list,
    // and the serial index holds each of them once.
    Check(revoked.count == 0 || (revoked.entries != nullptr && revoked.bySerial != nullptr));
    Check(revoked.count <= revoked.raw.len / 2);
    std::vector<bool> indexed(revoked.count);
    for (uint32_t i = 0; i < revoked.count; ++i) {
        const DorvexAsnBigint &serial = revoked.entries[i].userCertificate;
        Check(Inside(serial, data, *consumed));
        UseTime(revoked.entries[i].revocationDate);
        const uint32_t at = revoked.bySerial[i];
        Check(at < revoked.count && !indexed[at]);
        indexed[at] = true;
        // The look-up finds every entry by its serial.
        uint32_t first = 0;
        uint32_t count = 0;
        DorvexX509CrlFindSerial(crl, &serial, &first, &count);
        Check(count >= 1 && first + count <= revoked.count);
    }
    DorvexX509FreeCrl(crl);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > UINT32_MAX) {
        return 0;
    }
    // A certificate is tried first, then a CRL; the walk goes on while one
    // of them decodes.
    size_t pos = 0;
    while (pos < size) {
        const auto left = static_cast<uint32_t>(size - pos);
        uint32_t consumed = 0;
        if (!TryCert(data + pos, left, &consumed) && !TryCrl(data + pos, left, &consumed)) {
            break;
        }
        pos += consumed;
    }
    return 0;
}
