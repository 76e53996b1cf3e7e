// pkg_sign local-tsa: a time-stamping authority with a local key, for test
// setups.
#include "tools/pkg_sign/core.h"

namespace pkg_sign {

namespace {

constexpr OptionDef kLocalTsaOptions[] = {
    {"key", true, false},  {"cert", true, false}, {"chain", true, true},
    {"tsq", true, false},  {"sig", true, false},  {"out", true, false},
    {"time", true, false}, {"md", true, false},   {"policy", true, false},
};

// --time as seconds since 1970; only YYYYMMDDHHMMSSZ with valid fields.
long ParseTime(const std::string &text) {
    const bool shaped =
        text.size() == 15 && text[14] == 'Z' &&
        std::all_of(text.begin(), text.end() - 1, [](char c) { return c >= '0' && c <= '9'; });
    Asn1TimePtr t(ASN1_TIME_new());
    struct tm tm {};
    if (!shaped || t == nullptr || ASN1_TIME_set_string(t.get(), text.c_str()) != 1 ||
        ASN1_TIME_to_tm(t.get(), &tm) != 1) {
        ERR_clear_error();
        throw UsageError("--time takes YYYYMMDDHHMMSSZ (UTC), not '" + text + "'");
    }
    return static_cast<long>(timegm(&tm));
}

ASN1_INTEGER *RandomSerial(TS_RESP_CTX *, void *) {
    unsigned char bytes[8];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        return nullptr;
    }
    BnPtr bn(BN_bin2bn(bytes, sizeof bytes, nullptr));
    return bn == nullptr ? nullptr : BN_to_ASN1_INTEGER(bn.get(), nullptr);
}

int FixedTime(TS_RESP_CTX *, void *data, long *sec, long *usec) {
    *sec = *static_cast<const long *>(data);
    *usec = 0;
    return 1;
}

int LocalTsa(const Options &opts) {
    const std::string out = opts.Required("out");
    if (opts.Has("tsq") == opts.Has("sig")) {
        throw UsageError("local-tsa takes either --tsq or --sig");
    }
    std::optional<long> fixedTime;
    if (opts.Has("time")) {
        fixedTime = ParseTime(opts.Required("time"));
    }
    const EVP_MD *md = DigestByName(opts.Get("md", "sha256"));
    Asn1ObjPtr policy(OBJ_txt2obj(opts.Get("policy", kDefaultPolicy).c_str(), 1));
    if (policy == nullptr) {
        ERR_clear_error();
        throw UsageError("--policy takes a dotted object identifier");
    }
    Identity tsa =
        LoadIdentity(opts.Required("key"), opts.Required("cert"), kEkuTimeStamping, "the TSA");
    const std::vector<X509Ptr> chain =
        LoadChain(opts.All("chain"), tsa.cert.get(), "the timestamp token");

    Bytes query;
    if (opts.Has("tsq")) {
        query = ReadFile(opts.Required("tsq"));
    } else {
        const std::string sigPath = opts.Required("sig");
        CmsPtr cms = ParseCms(ReadFile(sigPath), sigPath);
        const Signer signer = CheckSignature(cms.get());
        query = MakeQuery(SignerDigest(signer.info), SignatureValue(signer.info));
    }

    TsRespCtxPtr ctx(TS_RESP_CTX_new());
    Check(ctx != nullptr, "TS_RESP_CTX_new");
    if (TS_RESP_CTX_set_signer_cert(ctx.get(), tsa.cert.get()) != 1) {
        FailOpenssl(
            "OpenSSL refuses the TSA certificate: RFC 3161 2.3 wants timeStamping as "
            "its only extended key usage, marked critical");
    }
    Check(TS_RESP_CTX_set_signer_key(ctx.get(), tsa.key.get()) == 1, "TS_RESP_CTX_set_signer_key");
    Check(TS_RESP_CTX_set_signer_digest(ctx.get(), md) == 1, "TS_RESP_CTX_set_signer_digest");
    Check(TS_RESP_CTX_set_def_policy(ctx.get(), policy.get()) == 1, "TS_RESP_CTX_set_def_policy");
    for (const auto &d : kDigests) {
        Check(TS_RESP_CTX_add_md(ctx.get(), d.md()) == 1, "TS_RESP_CTX_add_md");
    }
    // ESSCertIDv2 names the TSA certificate by SHA-256 rather than SHA-1.
    Check(TS_RESP_CTX_set_ess_cert_id_digest(ctx.get(), EVP_sha256()) == 1,
          "TS_RESP_CTX_set_ess_cert_id_digest");
    if (!chain.empty()) {
        CertListPtr stack(sk_X509_new_null());
        Check(stack != nullptr, "sk_X509_new_null");
        for (const auto &cert : chain) {
            Check(sk_X509_push(stack.get(), cert.get()) > 0, "sk_X509_push");
        }
        Check(TS_RESP_CTX_set_certs(ctx.get(), stack.get()) == 1, "TS_RESP_CTX_set_certs");
    }
    TS_RESP_CTX_set_serial_cb(ctx.get(), RandomSerial, nullptr);
    if (fixedTime) {
        TS_RESP_CTX_set_time_cb(ctx.get(), FixedTime, &*fixedTime);
    }

    BioPtr queryBio = MemReader(query);
    TsRespPtr resp(TS_RESP_create_response(ctx.get(), queryBio.get()));
    if (resp == nullptr) {
        FailOpenssl("cannot make the time-stamp reply");
    }
    // A rejection is reported, not written: a test setup wants the reason.
    CheckGranted(resp.get());
    WriteOutputs({{out, ToDer(resp.get(), i2d_TS_RESP, "i2d_TS_RESP")}});
    return PKG_SIGN_EXIT_OK;
}

}  // namespace

const Command kLocalTsaCommand = {"local-tsa", kLocalTsaOptions, LocalTsa};

}  // namespace pkg_sign
