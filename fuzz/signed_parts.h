// The verdict oracle of the harnesses that run a whole verification
// (fuzz_verify, fuzz_timestamp). Mutated input can only be accepted
// rightly if everything a signature covers is what the seed package's
// signers signed: nobody but the holders of the demo keys can sign new
// bytes. So an accepted input whose signed bytes differ from the seed's is
// a wrong verdict, and the harness aborts.
//
// The signed bytes, read back with the library's own decoders, in this
// order: the signer's signed attributes and signature value; the timestamp
// token's TSTInfo, its signer's signed attributes and signature value; and
// the tbsCertificate and signature of every certificate on the signer's and
// on the authority's path, as path verification recorded it (issuerCert) up
// to the root. CRLs are not compared: the harnesses' CRLs come from the
// trusted demo files, never from the fuzzed input. Everything outside these
// bytes (versions, algorithm sets, unsigned attributes, certificate order,
// tag and length octets the verifier does not examine) may change freely.
#ifndef FUZZ_SIGNED_PARTS_H
#define FUZZ_SIGNED_PARTS_H

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "cms/asn1/pkcs7.h"
#include "cms/pki/pki.h"

namespace fuzz_oracle {

using Bytes = std::vector<uint8_t>;

inline Bytes Copy(const uint8_t *data, size_t len) {
    return data == nullptr ? Bytes{} : Bytes(data, data + len);
}

// An RSA signature value as the number it is: the verifier puts back the
// leading zero octets that an encoder may drop, so they carry no meaning.
inline Bytes Number(const uint8_t *data, size_t len) {
    while (len > 0 && data != nullptr && *data == 0) {
        ++data;
        --len;
    }
    return Copy(data, len);
}

// The signed attributes as signed: the SET's length and content (the
// signature covers them behind 0x31, whatever the [0] tag octet says).
inline Bytes Attributes(const DorvexAsnOcts &raw) {
    return raw.len == 0 || raw.data == nullptr ? Bytes{} : Copy(raw.data + 1, raw.len - 1);
}

// The certificate `issuer` and `serial` name in the context's store (as the
// verifier looks it up), then each issuer up to the self-signed one.
inline void AddPath(const DorvexVrfCtx *ctx, const DorvexPkcs7IssuerAndSerial &id,
                    std::vector<Bytes> &out) {
    const DorvexX509Cert *cert = DorvexPkiFindCertByIssuerSn(ctx, &id.issuer, &id.serialNumber);
    for (int i = 0; i < 16 && cert != nullptr; ++i) {
        out.push_back(Copy(cert->tbsRaw.data, cert->tbsRaw.len));
        out.push_back(Number(cert->signature.data, cert->signature.len));
        if (cert->issuerCert == cert) {
            return;
        }
        cert = cert->issuerCert;
    }
    out.emplace_back();  // no certificate, or a path that ends nowhere
}

// SignedParts: the signed bytes of the detached signature `der` (DER) that
// ctx verified, in the order above. False when it does not decode as a
// signature with one signer and a token with one signer and a TSTInfo.
inline bool SignedParts(const DorvexVrfCtx *ctx, const uint8_t *der, size_t len,
                        std::vector<Bytes> &out) {
    out.clear();
    DorvexPkcs7Content *sig = nullptr;
    uint32_t used = 0;
    if (DorvexPkcs7DecodeSigned(der, static_cast<uint32_t>(len), &sig, &used) != DORVEX_OK) {
        return false;
    }
    DorvexPkcs7Content *token = nullptr;
    void *tst = nullptr;
    bool ok = sig->signedData.signerInfos.count == 1;
    if (ok) {
        const DorvexPkcs7SignedInfo &signer = sig->signedData.signerInfos.signerInfo[0];
        out.push_back(Attributes(signer.signedAttrsRaw));
        out.push_back(Number(signer.signature.data, signer.signature.len));
        const DorvexAsnOcts &t = signer.unsignedAttrs.timestampToken;
        ok = DorvexPkcs7DecodeSigned(t.data, t.len, &token, &used) == DORVEX_OK &&
             token->signedData.signerInfos.count == 1;
        if (ok) {
            // eContent [0] holds an OCTET STRING whose content is the TSTInfo.
            const DorvexAsnOcts &econtent = token->signedData.contentInfo.content;
            ok = DorvexAsnDecode(econtent.data, econtent.len, &g_itemDorvexAsnOcts, 0, &tst,
                                 &used) == DORVEX_OK;
        }
        if (ok) {
            const auto *info = static_cast<const DorvexAsnOcts *>(tst);
            const DorvexPkcs7SignedInfo &tsa = token->signedData.signerInfos.signerInfo[0];
            out.push_back(Copy(info->data, info->len));
            out.push_back(Attributes(tsa.signedAttrsRaw));
            out.push_back(Number(tsa.signature.data, tsa.signature.len));
            AddPath(ctx, signer.issuerAndSerial, out);
            AddPath(ctx, tsa.issuerAndSerial, out);
        }
    }
    DorvexAsnFree(tst, &g_itemDorvexAsnOcts);
    DorvexPkcs7FreeSigned(token);
    DorvexPkcs7FreeSigned(sig);
    return ok;
}

}  // namespace fuzz_oracle

#endif  // FUZZ_SIGNED_PARTS_H
