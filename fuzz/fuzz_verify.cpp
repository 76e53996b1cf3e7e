// Detached signature verification, end to end, on two roads per input: the
// input as the whole signature (DER or PEM), and as the timestamp token of
// the demo signature's otherwise valid signer (whose signature covers only
// its signed attributes, so a token derived from the real one gets past the
// imprint into the authority's path, attribute and signature checks). Each
// runs Begin, two Updates and Final on a context that holds the demo root,
// the CA certificate and both CRLs (root.der, crls+ca.pem, sha256sums and
// sha256sums.p7s from the folder named by VT_FUZZ_VERIFY_DIR). Besides the
// sanitizers, checks that Final leaves nothing pending, the store, and the
// verdict.
//
// Verdict oracle: only the holders of the demo keys can sign new bytes, so
// an accepted input must carry exactly the bytes the demo signers signed
// (SECURITY.md lists them), read back with the library's own decoders.
// Anything else accepted aborts. CRLs come from the trusted demo files,
// never from the input.
#include <openssl/cms.h>
#include <openssl/err.h>

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
Bytes g_signature;
std::vector<Bytes> g_seedParts;

// ---- the signed bytes ---------------------------------------------------------

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

// The signed bytes of the signature `der` that ctx verified. False when it
// does not decode as a signature with one signer and a token with one signer
// and a TSTInfo.
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

// ---- the two roads --------------------------------------------------------------

// The DER of a signature input: itself, or the body of its CMS or PKCS7
// armour decoded as the library decodes it. Empty when neither.
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

// The demo signature with `token` as its signer's timestamp token, written
// as it is (a SEQUENCE-typed value is encoded verbatim). Empty when OpenSSL
// cannot delimit the token as one element, which the signer's attribute
// decoding refuses anyway (the first road covers that). *old: the token it
// replaced.
Bytes WithToken(const uint8_t *token, size_t size, Bytes *old = nullptr) {
    const unsigned char *p = g_signature.data();
    std::unique_ptr<CMS_ContentInfo, fuzz_support::Deleter<CMS_ContentInfo_free>> cms(
        d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(g_signature.size())));
    CMS_SignerInfo *si =
        cms == nullptr ? nullptr : sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
    const int at =
        si == nullptr ? -1 : CMS_unsigned_get_attr_by_NID(si, NID_id_smime_aa_timeStampToken, -1);
    if (at < 0) {
        Die("the demo signature has no timestamp token");
    }
    X509_ATTRIBUTE *attr = CMS_unsigned_delete_attr(si, at);
    const ASN1_TYPE *value = X509_ATTRIBUTE_get0_type(attr, 0);
    if (old != nullptr && value != nullptr && value->type == V_ASN1_SEQUENCE) {
        *old = Copy(value->value.sequence->data, value->value.sequence->length);
    }
    X509_ATTRIBUTE_free(attr);
    unsigned char *der = nullptr;
    int len = 0;
    if (CMS_unsigned_add1_attr_by_NID(si, NID_id_smime_aa_timeStampToken, V_ASN1_SEQUENCE, token,
                                      static_cast<int>(size)) != 1 ||
        (len = i2d_CMS_ContentInfo(cms.get(), &der)) <= 0) {
        ERR_clear_error();
        return {};
    }
    Bytes out(der, der + len);
    OPENSSL_free(der);
    return out;
}

// Begin, two Updates and Final on a fresh context; the verdict. For an
// accepted input, *parts are its signed bytes (read while the context still
// holds the store the verification used).
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

void Judge(const uint8_t *data, size_t size) {
    std::vector<Bytes> parts;
    if (Verify(data, size, &parts) == 1 && parts != g_seedParts) {
        fprintf(stderr, "fuzz_verify: accepted although its signed bytes are not the seed's\n");
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const std::string dir = fuzz_support::FolderOf("VT_FUZZ_VERIFY_DIR", "demo-package");
    g_root = fuzz_support::ReadOrDie(dir + "/root.der");
    g_crls = fuzz_support::ReadOrDie(dir + "/crls+ca.pem");
    g_content = fuzz_support::ReadOrDie(dir + "/sha256sums");
    g_signature = fuzz_support::ReadOrDie(dir + "/sha256sums.p7s");
    // The real token, taken out for a NULL element in its place.
    const uint8_t null[] = {0x05, 0x00};
    Bytes token;
    (void)WithToken(null, sizeof null, &token);
    if (Verify(g_signature.data(), g_signature.size(), &g_seedParts) != 1 ||
        WithToken(token.data(), token.size()) != g_signature) {
        Die("the demo package does not verify, or its token cannot be put back in place");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > DORVEX_MAX_FILE_SIZE) {
        return 0;
    }
    Judge(data, size);
    // A token too large for a signature file adds nothing.
    if (size <= DORVEX_MAX_FILE_SIZE / 2) {
        const Bytes signature = WithToken(data, size);
        if (!signature.empty()) {
            Judge(signature.data(), signature.size());
        }
    }
    return 0;
}
