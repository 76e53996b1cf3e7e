// pkg_sign sign: the detached signature over a checksum file, and the time-stamp
// query for its signature value.
#include "tools/pkg_sign/core.h"

namespace pkg_sign {

namespace {

constexpr OptionDef kSignOptions[] = {
    {"key", true, false}, {"cert", true, false}, {"chain", true, true},
    {"in", true, false},  {"out", true, false},  {"pem", false, false},
    {"md", true, false},  {"tsq", true, false},  {"pss", false, false},
};

// AddSigner: the signer with its signed attributes; an RSA key signs by
// PKCS #1 v1.5, or with `pss` by RSASSA-PSS (salt as long as the digest,
// MGF1 with the digest), an EC key by ECDSA.
void AddSigner(CMS_ContentInfo *cms, const Identity &signer, const EVP_MD *md, bool pss) {
    if (pss && EVP_PKEY_is_a(signer.key.get(), "RSA") != 1) {
        Refuse("--pss needs an RSA key; an EC key signs by ECDSA");
    }
    constexpr unsigned int kFlags = CMS_DETACHED | CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP;
    CMS_SignerInfo *info = CMS_add1_signer(cms, signer.cert.get(), signer.key.get(), md,
                                           kFlags | (pss ? CMS_KEY_PARAM : 0));
    Check(info != nullptr, "CMS_add1_signer");
    if (pss) {
        EVP_PKEY_CTX *pctx = CMS_SignerInfo_get0_pkey_ctx(info);
        Check(pctx != nullptr && EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) == 1 &&
                  EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, RSA_PSS_SALTLEN_DIGEST) == 1,
              "RSASSA-PSS parameters");
    }
}

int Sign(const Options &opts) {
    const std::string in = opts.Required("in");
    const std::string out = opts.Required("out");
    const EVP_MD *md = DigestByName(opts.Get("md", "sha256"));
    Identity signer =
        LoadIdentity(opts.Required("key"), opts.Required("cert"), kEkuCodeSigning, "the signer");
    const std::vector<X509Ptr> chain =
        LoadChain(opts.All("chain"), signer.cert.get(), "the signature");

    BioPtr content(BIO_new_file(in.c_str(), "rb"));
    if (content == nullptr) {
        FailOpenssl("cannot open " + in);
    }
    // Detached over the file's exact bytes; the signer (named by issuer and
    // serial number) gets content type, signing time and message digest as
    // signed attributes. S/MIME capabilities describe a mail client and are
    // left out.
    constexpr unsigned int kFlags = CMS_DETACHED | CMS_BINARY | CMS_PARTIAL | CMS_NOSMIMECAP;
    CmsPtr cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, kFlags));
    Check(cms != nullptr, "CMS_sign");
    AddSigner(cms.get(), signer, md, opts.Has("pss"));
    for (const auto &cert : chain) {
        Check(CMS_add1_cert(cms.get(), cert.get()) == 1, "CMS_add1_cert");
    }
    if (CMS_final(cms.get(), content.get(), nullptr, kFlags) != 1) {
        FailOpenssl("cannot sign " + in);
    }

    std::vector<Output> outputs{{out, EncodeCms(cms.get(), opts.Has("pem"))}};
    // What ships is checked as read back from its own bytes.
    CmsPtr written = ParseCms(outputs.front().data, out);
    const Signer check = CheckSignature(written.get());
    if (opts.Has("tsq")) {
        outputs.push_back({opts.Required("tsq"), MakeQuery(md, SignatureValue(check.info))});
    }
    WriteOutputs(outputs);
    Note(out + " has no timestamp yet: verify_tool refuses it until add-timestamp embeds one");
    return PKG_SIGN_EXIT_OK;
}

}  // namespace

const Command kSignCommand = {"sign", kSignOptions, Sign};

}  // namespace pkg_sign
