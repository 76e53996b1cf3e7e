// pkg_sign sign: the detached signature over a checksum file, and the time-stamp
// query for its signature value.
#include "tools/pkg_sign/core.h"

namespace pkg_sign {

namespace {

constexpr OptionDef kSignOptions[] = {
    {"key", true, false}, {"cert", true, false}, {"chain", true, true}, {"in", true, false},
    {"out", true, false}, {"pem", false, false}, {"md", true, false},   {"tsq", true, false},
};

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
    Check(CMS_add1_signer(cms.get(), signer.cert.get(), signer.key.get(), md, kFlags) != nullptr,
          "CMS_add1_signer");
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
