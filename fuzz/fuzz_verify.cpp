// The input as a signature (DER or PEM) through Begin, two Updates and Final
// under the demo package in VT_FUZZ_VERIFY_DIR: only the demo keys can sign,
// so an accepted input must carry exactly the demo's signed bytes.
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

// A signature value as a number: the verifier restores dropped leading zeros.
Bytes Number(const DorvexAsnOcts &value) {
    size_t skip = 0;
    while (skip < value.len && value.data[skip] == 0) {
        ++skip;
    }
    return Copy(value.data + skip, value.len - skip);
}

// The signed attributes less the [0] tag octet, for which 0x31 is signed.
Bytes Attributes(const DorvexAsnOcts &raw) {
    return raw.len == 0 || raw.data == nullptr ? Bytes{} : Copy(raw.data + 1, raw.len - 1);
}

// The signer's certificate as the verifier looks it up, then its issuers.
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

using SignedPtr = std::unique_ptr<DorvexPkcs7Content, fuzz_support::Deleter<DorvexPkcs7FreeSigned>>;

// A SignedData with one signer, else null.
SignedPtr OneSigner(const uint8_t *data, size_t size) {
    DorvexPkcs7Content *content = nullptr;
    uint32_t used = 0;
    const uint32_t rc = DorvexPkcs7DecodeSigned(data, static_cast<uint32_t>(size), &content, &used);
    SignedPtr out(rc == DORVEX_OK ? content : nullptr);
    return out != nullptr && out->signedData.signerInfos.count == 1 ? std::move(out) : nullptr;
}

// The signed bytes of the signature `der` that ctx verified; false unless it
// has one signer and a token with one signer and a TSTInfo.
bool SignedParts(const DorvexVrfCtx *ctx, const Bytes &der, std::vector<Bytes> &out) {
    const SignedPtr sig = OneSigner(der.data(), der.size());
    if (sig == nullptr) {
        return false;
    }
    const DorvexPkcs7SignedInfo &signer = sig->signedData.signerInfos.signerInfo[0];
    const DorvexAsnOcts &t = signer.unsignedAttrs.timestampToken;
    const SignedPtr token = OneSigner(t.data, t.len);
    // eContent [0] holds an OCTET STRING whose content is the TSTInfo.
    void *tst = nullptr;
    uint32_t used = 0;
    if (token == nullptr || DorvexAsnDecode(token->signedData.contentInfo.content.data,
                                            token->signedData.contentInfo.content.len,
                                            &g_itemDorvexAsnOcts, 0, &tst, &used) != DORVEX_OK) {
        return false;
    }
    const auto *info = static_cast<const DorvexAsnOcts *>(tst);
    const DorvexPkcs7SignedInfo &tsa = token->signedData.signerInfos.signerInfo[0];
    out = {Attributes(signer.signedAttrsRaw), Number(signer.signature), Copy(info->data, info->len),
           Attributes(tsa.signedAttrsRaw), Number(tsa.signature)};
    DorvexAsnFree(tst, &g_itemDorvexAsnOcts);
    AddPath(ctx, signer.issuerAndSerial, out);
    AddPath(ctx, tsa.issuerAndSerial, out);
    return true;
}

// The input, or the body of its CMS or PKCS7 armour.
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
    Check((result == 0 || result == 1) && ctx->processes.count == 0);
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
