// pkg_sign add-timestamp: checks a time-stamping authority's reply and embeds
// its token in the signature.
#include "tools/pkg_sign/core.h"

namespace pkg_sign {

namespace {

constexpr OptionDef kAddTimestampOptions[] = {
    {"sig", true, false},
    {"tsr", true, false},
    {"out", true, false},
    {"pem", false, false},
};

int AddTimestamp(const Options &opts) {
    const std::string sigPath = opts.Required("sig");
    const std::string tsrPath = opts.Required("tsr");
    const std::string out = opts.Required("out");

    CmsPtr cms = ParseCms(ReadFile(sigPath), sigPath);
    const Signer signer = CheckSignature(cms.get());
    const Bytes signatureValue = SignatureValue(signer.info);

    const Bytes reply = ReadFile(tsrPath);
    const unsigned char *p = reply.data();
    TsRespPtr resp(d2i_TS_RESP(nullptr, &p, static_cast<long>(reply.size())));
    if (resp == nullptr) {
        FailOpenssl("cannot read a time-stamp reply from " + tsrPath);
    }
    CheckGranted(resp.get());
    PKCS7 *token = TS_RESP_get_token(resp.get());
    TS_TST_INFO *tst = TS_RESP_get_tst_info(resp.get());
    if (token == nullptr || tst == nullptr) {
        Refuse("the time-stamp reply carries no token");
    }
    CheckImprint(tst, signatureValue);
    CheckGenTime(tst);
    CheckToken(token);
    EmbedToken(signer.info, ToDer(token, i2d_PKCS7, "i2d_PKCS7"));

    const Bytes encoded = EncodeCms(cms.get(), opts.Has("pem"));
    if (encoded.size() > kMaxFileSize) {
        Refuse("the stamped signature has " + std::to_string(encoded.size()) +
               " bytes; verify_tool reads at most " + std::to_string(kMaxFileSize));
    }
    // Re-encoding must leave the signed attributes' signature intact.
    CmsPtr written = ParseCms(encoded, out);
    (void)CheckSignature(written.get());
    WriteOutputs({{out, encoded}});
    return PKG_SIGN_EXIT_OK;
}

}  // namespace

const Command kAddTimestampCommand = {"add-timestamp", kAddTimestampOptions, AddTimestamp};

}  // namespace pkg_sign
