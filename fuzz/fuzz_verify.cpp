// Detached signature verification, end to end: the input as the whole
// signature (DER or PEM), through Begin, two Updates and Final on a context
// that holds the demo root, the CA certificate and both CRLs (from the folder
// VT_FUZZ_VERIFY_DIR names). Checks that Final leaves nothing pending, the
// store, and the verdict: only the holders of the demo keys can sign new
// bytes, so an accepted input must carry exactly the bytes the demo signers
// signed (SECURITY.md lists them), read back with the library's decoders.
#include <string_view>

#include "cms/asn1/pkcs7.h"
#include "fuzz/support.h"

namespace {

using fuzz_support::Bytes;
using fuzz_support::Check;
using fuzz_support::Die;

Bytes g_root;
Bytes g_crls;
Bytes g_content;
std::vector<Bytes> g_seedParts;

Bytes Copy(const uint8_t *data, size_t len) {
    return data == nullptr ? Bytes{} : Bytes(data, data + len);
}

// A signature value as the number it is: the verifier puts back the leading
// zero octets that an encoder may drop, so they carry no meaning.
Bytes Number(const DorvexAsnOcts &value) {
    size_t skip = 0;
    while (skip < value.len && value.data[skip] == 0) {
        ++skip;
    }
    return Copy(value.data + skip, value.len - skip);
}

// The signed attributes as signed: the SET's length and content (the
// signature covers them behind 0x31, whatever the [0] tag octet says).
Bytes Attributes(const DorvexAsnOcts &raw) {
    return raw.len == 0 || raw.data == nullptr ? Bytes{} : Copy(raw.data + 1, raw.len - 1);
}

// The certificate the signer names in the context's store (as the verifier
// looks it up), then each issuer up to the self-signed one.
void AddPath(const DorvexVrfCtx *ctx, const DorvexPkcs7IssuerAndSerial &id,
             std::vector<Bytes> &out) {
    const DorvexX509Cert *cert = DorvexPkiFindCertByIssuerSn(ctx, &id.issuer, &id.serialNumber);
    for (int i = 0; i < 16 && cert != nullptr; ++i) {
        out.push_back(Copy(cert->tbsRaw.data, cert->tbsRaw.len));
        out.push_back(Number(cert->signature));
        if (cert->issuerCert == cert) {
            return;
        }
        cert = cert->issuerCert;
    }
    out.emplace_back();  // no certificate, or a path that ends nowhere
}

// The signed bytes of the signature `der` that ctx verified; false unless it
// has one signer and a token with one signer and a TSTInfo.
bool SignedParts(const DorvexVrfCtx *ctx, const Bytes &der, std::vector<Bytes> &out) {
    out.clear();
    DorvexPkcs7Content *sig = nullptr;
    uint32_t used = 0;
    if (DorvexPkcs7DecodeSigned(der.data(), static_cast<uint32_t>(der.size()), &sig, &used) !=
        DORVEX_OK) {
        return false;
    }
    DorvexPkcs7Content *token = nullptr;
    void *tst = nullptr;
    bool ok = sig->signedData.signerInfos.count == 1;
    if (ok) {
        const DorvexPkcs7SignedInfo &signer = sig->signedData.signerInfos.signerInfo[0];
        out.push_back(Attributes(signer.signedAttrsRaw));
        out.push_back(Number(signer.signature));
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
            out.push_back(Number(tsa.signature));
            AddPath(ctx, signer.issuerAndSerial, out);
            AddPath(ctx, tsa.issuerAndSerial, out);
        }
    }
    DorvexAsnFree(tst, &g_itemDorvexAsnOcts);
    DorvexPkcs7FreeSigned(token);
    DorvexPkcs7FreeSigned(sig);
    return ok;
}

// The input itself, or the body of its CMS or PKCS7 armour as the library
// decodes it.
Bytes SignatureDer(const uint8_t *data, size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    for (const std::string label : {"CMS", "PKCS7"}) {
        const std::string header = "-----BEGIN " + label + "-----";
        const size_t end = text.find("-----END " + label + "-----");
        uint8_t *der = nullptr;
        uint32_t len = 0;
        if (text.starts_with(header) && end != std::string_view::npos &&
            InternalBase64Decode(text.data() + header.size(), text.data() + end, &der, &len) ==
                DORVEX_OK) {
            Bytes out(der, der + len);
            DorvexFree(der);
            return out;
        }
    }
    return text.starts_with("-----BEGIN") ? Bytes{} : Bytes(data, data + size);
}

// The verdict of Begin, two Updates and Final on a fresh context; *parts the
// signed bytes of an accepted input, read against the store that verified it.
uint32_t Verify(const uint8_t *data, size_t size, std::vector<Bytes> *parts) {
    DorvexVrfCtx *ctx = fuzz_support::NewCtx();
    Check(DorvexVerifyAddCert(ctx, g_root.data(), static_cast<uint32_t>(g_root.size())) ==
          DORVEX_OK);
    Check(DorvexVerifyAddCrl(ctx, g_crls.data(), static_cast<uint32_t>(g_crls.size())) ==
          DORVEX_OK);
    if (DorvexVerifyDetachSignatureBegin(ctx, data, static_cast<uint32_t>(size)) == DORVEX_OK) {
        // Two pieces, so a digest sees the content split.
        const size_t half = g_content.size() / 2;
        (void)DorvexVerifyDetachSignatureUpdate(ctx, g_content.data(), static_cast<uint32_t>(half));
        (void)DorvexVerifyDetachSignatureUpdate(ctx, g_content.data() + half,
                                                static_cast<uint32_t>(g_content.size() - half));
    }
    // Also after a failed Begin: what it left pending is finished and freed.
    uint32_t result = 0;
    (void)DorvexVerifyDetachSignatureFinal(ctx, &result);
    Check(result == 0 || result == 1);
    Check(ctx->processes.count == 0);
    fuzz_support::CheckStore(ctx, data, size);
    if (result == 1 && !SignedParts(ctx, SignatureDer(data, size), *parts)) {
        fprintf(stderr, "fuzz_verify: accepted, but its signers cannot be read back\n");
        abort();
    }
    Check(DorvexVrfCtxFree(ctx) == DORVEX_OK);
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const std::string dir = fuzz_support::FolderOf("VT_FUZZ_VERIFY_DIR", "demo-package");
    g_root = fuzz_support::ReadOrDie(dir + "/root.der");
    g_crls = fuzz_support::ReadOrDie(dir + "/crls+ca.pem");
    g_content = fuzz_support::ReadOrDie(dir + "/sha256sums");
    const Bytes signature = fuzz_support::ReadOrDie(dir + "/sha256sums.p7s");
    if (Verify(signature.data(), signature.size(), &g_seedParts) != 1) {
        Die("the demo package does not verify");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<Bytes> parts;
    if (size > 0 && size <= DORVEX_MAX_FILE_SIZE && Verify(data, size, &parts) == 1 &&
        parts != g_seedParts) {
        fprintf(stderr, "fuzz_verify: accepted although its signed bytes are not the seed's\n");
        abort();
    }
    return 0;
}
