// SignedData decoding of arbitrary bytes, followed the way the verifier
// follows it: the signer's timestamp token is decoded as a SignedData of its
// own, its encapsulated content as an OCTET STRING and that as a TSTInfo.
// Besides the sanitizers, checks the decoder's promises: a failure hands out
// no record, every member a success fills points into the input, and the
// counts stay within the model's limits.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "cms/asn1/pkcs7.h"
#include "fuzz/support.h"

namespace {

using fuzz_support::Check;

struct Input {
    const uint8_t *data;
    size_t size;
};

bool Inside(const DorvexAsnOcts &o, Input in) {
    return o.data == nullptr ||
           (o.data >= in.data && o.len <= in.size && o.data + o.len <= in.data + in.size);
}

void UseTstInfo(const DorvexAsnOcts &eContent, Input in) {
    void *octets = nullptr;
    uint32_t used = 0;
    if (eContent.data == nullptr ||
        DorvexAsnDecode(eContent.data, eContent.len, &g_itemDorvexAsnOcts, 0, &octets, &used) !=
            DORVEX_OK) {
        Check(octets == nullptr);
        return;
    }
    const auto *tst = static_cast<const DorvexAsnOcts *>(octets);
    Check(Inside(*tst, in));
    void *record = nullptr;
    if (tst->data != nullptr && DorvexAsnDecode(tst->data, tst->len, &g_itemDorvexTimestampInfo, 0,
                                                &record, &used) == DORVEX_OK) {
        const auto *info = static_cast<const DorvexTimestampInfo *>(record);
        Check(Inside(info->genTime, in) && Inside(info->messageImprint.hashedMessage, in) &&
              Inside(info->messageImprint.hashAlgorithm.algorithm, in));
        DorvexAsnFree(record, &g_itemDorvexTimestampInfo);
    }
    DorvexAsnFree(octets, &g_itemDorvexAsnOcts);
}

void UseSigned(Input in, int depth) {
    DorvexPkcs7Content *content = nullptr;
    uint32_t consumed = 0;
    if (DorvexPkcs7DecodeSigned(in.data, static_cast<uint32_t>(in.size), &content, &consumed) !=
        DORVEX_OK) {
        Check(content == nullptr);
        return;
    }
    Check(consumed > 0 && consumed <= in.size);
    const DorvexPkcs7SignedData &sd = content->signedData;
    Check(sd.certificates.count <= DRX_PKCS7_MAX_CERTS &&
          sd.certList.count == static_cast<int32_t>(sd.certificates.count));
    for (int32_t i = 0; i < sd.certList.count; ++i) {
        const auto *cert = static_cast<const DorvexX509Cert *>(sd.certList.items[i]);
        Check(cert->refCount == 1 && Inside(cert->tbsRaw, in));
    }
    Check(sd.signerInfos.count <= DRX_PKCS7_MAX_SIGNERS);
    for (uint32_t i = 0; i < sd.signerInfos.count; ++i) {
        const DorvexPkcs7SignedInfo &si = sd.signerInfos.signerInfo[i];
        Check(Inside(si.issuerAndSerial.serialNumber, in) && Inside(si.signature, in) &&
              Inside(si.signedAttrsRaw, in) && Inside(si.signedAttrs.messageDigest, in));
        // The raw capture starts at the [0] tag; the verifier puts 0x31 there.
        Check(si.signedAttrsRaw.data == nullptr ||
              (si.signedAttrsRaw.data[0] == 0xA0 && si.signedAttrsRaw.tagCode == DRX_ASN_SET));
        const DorvexAsnOcts &token = si.unsignedAttrs.timestampToken;
        Check(Inside(token, in));
        if (token.data != nullptr && depth == 0) {
            UseSigned(Input{token.data, token.len}, depth + 1);
        }
    }
    Check(Inside(sd.contentInfo.content, in));
    if (depth > 0) {
        UseTstInfo(sd.contentInfo.content, in);
    }
    DorvexPkcs7FreeSigned(content);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > UINT32_MAX) {
        return 0;
    }
    // Top level as a signature; a bare token (as a seed might be) is read
    // the way the timestamp check reads one.
    UseSigned(Input{data, size}, 0);
    UseSigned(Input{data, size}, 1);
    return 0;
}
