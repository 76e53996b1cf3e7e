// pkg_sign's shared core; see core.h.
#include "tools/pkg_sign/core.h"

namespace pkg_sign {

// ---- OpenSSL errors, messages, files ----------------------------------------

std::string OpensslReasons() {
    std::string out;
    for (unsigned long code = ERR_get_error(); code != 0; code = ERR_get_error()) {
        const char *reason = ERR_reason_error_string(code);
        char buf[256];
        if (reason == nullptr) {
            ERR_error_string_n(code, buf, sizeof buf);
            reason = buf;
        }
        out += out.empty() ? "" : "; ";
        out += reason;
    }
    return out;
}

[[noreturn]] void Refuse(const std::string &message) {
    ERR_clear_error();
    throw Refusal(message);
}

[[noreturn]] void FailOpenssl(const std::string &what) {
    const std::string reasons = OpensslReasons();
    throw Refusal(reasons.empty() ? what : what + " (" + reasons + ")");
}

void Check(bool ok, const char *what) {
    if (!ok) {
        FailOpenssl(std::string(what) + " failed");
    }
}

void Note(const std::string &message) {
    std::fprintf(stderr, "pkg_sign: note: %s\n", message.c_str());
}

struct FileClose {
    void operator()(FILE *f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

Bytes ReadFile(const std::string &path) {
    FilePtr f(std::fopen(path.c_str(), "rb"));
    if (f == nullptr) {
        Refuse("cannot open " + path + ": " + std::strerror(errno));
    }
    Bytes data;
    uint8_t buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f.get())) > 0) {
        if (n > kMaxFileSize - data.size()) {
            Refuse(path + " is larger than " + std::to_string(kMaxFileSize) + " bytes");
        }
        data.insert(data.end(), buf, buf + n);
    }
    if (std::ferror(f.get()) != 0) {
        Refuse("cannot read " + path);
    }
    return data;
}

void WriteOutputs(const std::vector<Output> &outputs) {
    std::vector<std::string> written;
    auto fail = [&](const std::string &message) {
        for (const auto &path : written) {
            std::remove(path.c_str());
        }
        Refuse(message);
    };
    for (const auto &out : outputs) {
        FILE *f = std::fopen(out.path.c_str(), "wb");
        if (f == nullptr) {
            fail("cannot create " + out.path + ": " + std::strerror(errno));
        }
        written.push_back(out.path);
        const bool ok = std::fwrite(out.data.data(), 1, out.data.size(), f) == out.data.size();
        if ((std::fclose(f) != 0) || !ok) {
            fail("cannot write " + out.path);
        }
    }
}

BioPtr MemReader(std::span<const uint8_t> data) {
    BioPtr bio(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
    Check(bio != nullptr, "BIO_new_mem_buf");
    return bio;
}

Bytes MemContents(BIO *bio) {
    char *p = nullptr;
    const long n = BIO_get_mem_data(bio, &p);
    Check(n >= 0 && (n == 0 || p != nullptr), "BIO_get_mem_data");
    return Bytes(p, p + n);
}

bool StartsWith(std::span<const uint8_t> data, std::string_view prefix) {
    return data.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), data.begin());
}

std::string ObjectName(const ASN1_OBJECT *obj) {
    char buf[128];
    if (obj == nullptr || OBJ_obj2txt(buf, sizeof buf, obj, 0) <= 0) {
        return "an unknown algorithm";
    }
    return buf;
}

// ---- digests ----------------------------------------------------------------

const EVP_MD *DigestByName(std::string_view name) {
    for (const auto &d : kDigests) {
        if (d.name == name) {
            return d.md();
        }
    }
    Refuse("digest " + std::string(name) +
           " is not accepted by verify_tool; use sha256, sha384 or sha512");
}

const EVP_MD *DigestByNid(int nid) {
    for (const auto &d : kDigests) {
        if (d.nid == nid) {
            return d.md();
        }
    }
    return nullptr;
}

const EVP_MD *AlgorDigest(const X509_ALGOR *alg) {
    const ASN1_OBJECT *obj = nullptr;
    X509_ALGOR_get0(&obj, nullptr, nullptr, alg);
    return obj == nullptr ? nullptr : DigestByNid(OBJ_obj2nid(obj));
}

std::string AlgorName(const X509_ALGOR *alg) {
    const ASN1_OBJECT *obj = nullptr;
    X509_ALGOR_get0(&obj, nullptr, nullptr, alg);
    return ObjectName(obj);
}

Bytes Hash(const EVP_MD *md, std::span<const uint8_t> data) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    Check(EVP_Digest(data.data(), data.size(), out, &len, md, nullptr) == 1, "EVP_Digest");
    return Bytes(out, out + len);
}

Bytes StringBytes(const ASN1_STRING *s) {
    const unsigned char *p = ASN1_STRING_get0_data(s);
    return Bytes(p, p + ASN1_STRING_length(s));
}

// ---- keys and certificates --------------------------------------------------

PkeyPtr LoadKey(const std::string &path) {
    const Bytes data = ReadFile(path);
    BioPtr bio = MemReader(data);
    PkeyPtr key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
    if (key == nullptr) {
        ERR_clear_error();
        const unsigned char *p = data.data();
        key.reset(d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(data.size())));
    }
    if (key == nullptr) {
        FailOpenssl("cannot read a private key from " + path);
    }
    return key;
}

std::vector<X509Ptr> LoadCerts(const std::string &path) {
    const Bytes data = ReadFile(path);
    std::vector<X509Ptr> certs;
    const std::string_view text(reinterpret_cast<const char *>(data.data()), data.size());
    if (text.find("-----BEGIN") != std::string_view::npos) {
        BioPtr bio = MemReader(data);
        while (X509 *cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
            certs.emplace_back(cert);
        }
        // The loop ends at the end of the text, or at a block that is broken.
        const unsigned long err = ERR_peek_last_error();
        if (ERR_GET_LIB(err) == ERR_LIB_PEM && ERR_GET_REASON(err) == PEM_R_NO_START_LINE) {
            ERR_clear_error();
        } else if (err != 0) {
            FailOpenssl("cannot read the certificates of " + path);
        }
    } else {
        const unsigned char *p = data.data();
        const unsigned char *end = p + data.size();
        while (p < end) {
            X509 *cert = d2i_X509(nullptr, &p, end - p);
            if (cert == nullptr) {
                FailOpenssl("cannot read the certificates of " + path);
            }
            certs.emplace_back(cert);
        }
    }
    if (certs.empty()) {
        Refuse("no certificate in " + path);
    }
    return certs;
}

X509Ptr LoadOneCert(const std::string &path) {
    std::vector<X509Ptr> certs = LoadCerts(path);
    if (certs.size() != 1) {
        Refuse(path + " holds " + std::to_string(certs.size()) +
               " certificates; give the chain with --chain");
    }
    return std::move(certs.front());
}

void CheckKey(const EVP_PKEY *key, const std::string &what) {
    if (EVP_PKEY_is_a(key, "EC") == 1) {
        char group[64] = {};
        char encoding[32] = {};
        (void)EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_EC_ENCODING, encoding,
                                             sizeof encoding, nullptr);
        const bool named = std::string_view(encoding) != OSSL_PKEY_EC_ENCODING_EXPLICIT &&
                           EVP_PKEY_get_group_name(key, group, sizeof group, nullptr) == 1;
        if (!named ||
            (std::string_view(group) != "prime256v1" && std::string_view(group) != "secp384r1")) {
            Refuse(what + " is an EC key on " + (named ? group : "explicit parameters") +
                   "; verify_tool takes EC keys on P-256 and P-384 by name only");
        }
        return;
    }
    if (EVP_PKEY_is_a(key, "RSA") != 1) {
        const char *type = EVP_PKEY_get0_type_name(key);
        Refuse(what + " is neither an RSA nor an EC key (" + (type != nullptr ? type : "unknown") +
               "); verify_tool checks RSA and ECDSA signatures only");
    }
    const int bits = EVP_PKEY_get_bits(key);
    if (bits < kMinRsaBits || bits > kMaxRsaBits) {
        Refuse(what + " has " + std::to_string(bits) + " bits; verify_tool takes RSA keys of " +
               std::to_string(kMinRsaBits) + " to " + std::to_string(kMaxRsaBits) + " bits");
    }
}

void CheckEmbeddable(X509 *cert, const std::string &what) {
    const EVP_PKEY *key = X509_get0_pubkey(cert);
    if (key == nullptr) {
        FailOpenssl("cannot read the public key of " + what + " certificate");
    }
    CheckKey(key, "the key of " + what + " certificate");
    if (X509_get_version(cert) == X509_VERSION_1) {
        Refuse(what + " certificate is version 1; verify_tool decodes version 2 and 3 only");
    }
}

void CheckCertCount(size_t count, const std::string &what) {
    if (count > kMaxCerts) {
        Refuse(what + " would carry " + std::to_string(count) +
               " certificates; verify_tool takes at most two (the signer and one CA)");
    }
}

VerifierUsage UsageOf(X509 *cert, const std::string &what) {
    VerifierUsage usage;
    for (int i = 0; i < X509_get_ext_count(cert); ++i) {
        X509_EXTENSION *ext = X509_get_ext(cert, i);
        const int nid = OBJ_obj2nid(X509_EXTENSION_get_object(ext));
        const bool critical = X509_EXTENSION_get_critical(ext) == 1;
        const ASN1_OCTET_STRING *value = X509_EXTENSION_get_data(ext);
        const unsigned char *p = ASN1_STRING_get0_data(value);
        const long len = ASN1_STRING_length(value);
        if (nid == NID_key_usage) {
            BitStringPtr bits(d2i_ASN1_BIT_STRING(nullptr, &p, len));
            if (bits == nullptr || ASN1_STRING_length(bits.get()) > 2) {
                Refuse(what + " certificate has a key usage that verify_tool cannot read");
            }
            const unsigned char *d = ASN1_STRING_get0_data(bits.get());
            const int octets = ASN1_STRING_length(bits.get());
            usage.keyUsage = octets == 0 ? 0 : d[0] | (octets == 2 ? uint32_t{d[1]} << 8 : 0);
        } else if (nid == NID_ext_key_usage) {
            EkuPtr eku(d2i_EXTENDED_KEY_USAGE(nullptr, &p, len));
            if (eku == nullptr || sk_ASN1_OBJECT_num(eku.get()) > kMaxEkuPurposes) {
                Refuse(what +
                       " certificate has an extended key usage that verify_tool cannot read");
            }
            for (int k = 0; k < sk_ASN1_OBJECT_num(eku.get()); ++k) {
                const int purpose = OBJ_obj2nid(sk_ASN1_OBJECT_value(eku.get(), k));
                usage.extKeyUsage |= purpose == NID_code_sign    ? kEkuCodeSigning
                                     : purpose == NID_time_stamp ? kEkuTimeStamping
                                                                 : kEkuOther;
            }
            usage.extKeyUsageCritical = usage.extKeyUsageCritical || critical;
        } else if (nid != NID_basic_constraints && critical) {
            usage.unknownCritical = true;
        }
    }
    return usage;
}

void CheckUsage(X509 *cert, uint32_t purpose, const std::string &what) {
    const VerifierUsage usage = UsageOf(cert, what);
    if (usage.unknownCritical) {
        Refuse(what + " certificate has a critical extension that verify_tool does not read");
    }
    if ((usage.keyUsage & kKuDigitalSignature) == 0) {
        Refuse(what + " certificate's key usage lacks digitalSignature");
    }
    if ((usage.extKeyUsage & purpose) == 0) {
        Refuse(what + " certificate's extended key usage lacks " +
               (purpose == kEkuCodeSigning ? "codeSigning" : "timeStamping"));
    }
    if (purpose == kEkuTimeStamping &&
        (usage.extKeyUsage != kEkuTimeStamping || !usage.extKeyUsageCritical)) {
        Refuse(what + " certificate's extended key usage must be timeStamping alone, critical");
    }
}

Identity LoadIdentity(const std::string &keyPath, const std::string &certPath, uint32_t purpose,
                      const std::string &what) {
    Identity id{LoadKey(keyPath), LoadOneCert(certPath)};
    CheckKey(id.key.get(), what + " key");
    if (X509_check_private_key(id.cert.get(), id.key.get()) != 1) {
        Refuse(what + " key " + keyPath + " does not belong to the certificate " + certPath);
    }
    CheckEmbeddable(id.cert.get(), what);
    CheckUsage(id.cert.get(), purpose, what);
    return id;
}

std::vector<X509Ptr> LoadChain(const std::vector<std::string> &paths, X509 *signer,
                               const std::string &where) {
    std::vector<X509Ptr> chain;
    for (const auto &path : paths) {
        for (auto &cert : LoadCerts(path)) {
            const bool repeat = X509_cmp(cert.get(), signer) == 0 ||
                                std::any_of(chain.begin(), chain.end(), [&](const X509Ptr &c) {
                                    return X509_cmp(c.get(), cert.get()) == 0;
                                });
            if (!repeat) {
                chain.push_back(std::move(cert));
            }
        }
    }
    CheckCertCount(chain.size() + 1, where);
    for (const auto &cert : chain) {
        CheckEmbeddable(cert.get(), "a chain");
    }
    return chain;
}

// ---- the package signature --------------------------------------------------

CmsPtr ParseCms(std::span<const uint8_t> data, const std::string &what) {
    CmsPtr cms;
    // verify_tool takes PEM only when the file starts with the armour.
    if (StartsWith(data, "-----BEGIN")) {
        BioPtr bio = MemReader(data);
        cms.reset(PEM_read_bio_CMS(bio.get(), nullptr, nullptr, nullptr));
    } else {
        const unsigned char *p = data.data();
        cms.reset(d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(data.size())));
    }
    if (cms == nullptr) {
        FailOpenssl("cannot read a CMS signature from " + what);
    }
    return cms;
}

Bytes EncodeCms(CMS_ContentInfo *cms, bool pem) {
    BioPtr mem(BIO_new(BIO_s_mem()));
    Check(mem != nullptr, "BIO_new");
    if (pem) {
        Check(PEM_write_bio_CMS(mem.get(), cms) == 1, "PEM_write_bio_CMS");
    } else {
        Check(i2d_CMS_bio(mem.get(), cms) == 1, "i2d_CMS_bio");
    }
    return MemContents(mem.get());
}

Signer CheckSignature(CMS_ContentInfo *cms) {
    if (OBJ_obj2nid(CMS_get0_type(cms)) != NID_pkcs7_signed) {
        Refuse("the CMS is not a SignedData");
    }
    STACK_OF(CMS_SignerInfo) *infos = CMS_get0_SignerInfos(cms);
    const int signers = infos == nullptr ? 0 : sk_CMS_SignerInfo_num(infos);
    if (signers != 1) {
        Refuse("the signature has " + std::to_string(signers) +
               " signers; verify_tool takes exactly one");
    }
    Signer signer;
    signer.info = sk_CMS_SignerInfo_value(infos, 0);

    CertStackPtr certs(CMS_get1_certs(cms));
    const int certCount = certs == nullptr ? 0 : sk_X509_num(certs.get());
    CheckCertCount(static_cast<size_t>(certCount), "the signature");
    for (int i = 0; i < certCount; ++i) {
        X509 *cert = sk_X509_value(certs.get(), i);
        CheckEmbeddable(cert, "an embedded");
        if (CMS_SignerInfo_cert_cmp(signer.info, cert) == 0 && signer.cert == nullptr) {
            X509_up_ref(cert);
            signer.cert.reset(cert);
        }
    }

    ASN1_OCTET_STRING *keyId = nullptr;
    X509_NAME *issuer = nullptr;
    ASN1_INTEGER *serial = nullptr;
    Check(CMS_SignerInfo_get0_signer_id(signer.info, &keyId, &issuer, &serial) == 1,
          "CMS_SignerInfo_get0_signer_id");
    if (keyId != nullptr) {
        Refuse(
            "the signer is named by subject key identifier; verify_tool finds it by issuer "
            "and serial number");
    }
    X509_ALGOR *digest = nullptr;
    CMS_SignerInfo_get0_algs(signer.info, nullptr, nullptr, &digest, nullptr);
    if (digest == nullptr || AlgorDigest(digest) == nullptr) {
        Refuse("the signer's digest " + (digest ? AlgorName(digest) : std::string("(none)")) +
               " is not accepted by verify_tool; use sha256, sha384 or sha512");
    }
    if (signer.cert == nullptr) {
        Refuse("the signer's certificate is not embedded in the signature");
    }
    CheckUsage(signer.cert.get(), kEkuCodeSigning, "the signer");

    if (CMS_signed_get_attr_count(signer.info) > 0) {
        CMS_SignerInfo_set1_signer_cert(signer.info, signer.cert.get());
        if (CMS_SignerInfo_verify(signer.info) != 1) {
            FailOpenssl("the signature over the signed attributes does not verify");
        }
    }
    return signer;
}

Bytes SignatureValue(CMS_SignerInfo *info) {
    return StringBytes(CMS_SignerInfo_get0_signature(info));
}

const EVP_MD *SignerDigest(CMS_SignerInfo *info) {
    X509_ALGOR *digest = nullptr;
    CMS_SignerInfo_get0_algs(info, nullptr, nullptr, &digest, nullptr);
    return AlgorDigest(digest);
}

Bytes MakeQuery(const EVP_MD *md, std::span<const uint8_t> signatureValue) {
    const Bytes imprint = Hash(md, signatureValue);
    AlgorPtr algo(X509_ALGOR_new());
    Check(algo != nullptr, "X509_ALGOR_new");
    // Explicit NULL parameters, as `openssl ts -query` writes them.
    Check(X509_ALGOR_set0(algo.get(), OBJ_nid2obj(EVP_MD_get_type(md)), V_ASN1_NULL, nullptr) == 1,
          "X509_ALGOR_set0");
    TsImprintPtr msg(TS_MSG_IMPRINT_new());
    Check(msg != nullptr, "TS_MSG_IMPRINT_new");
    Check(TS_MSG_IMPRINT_set_algo(msg.get(), algo.get()) == 1, "TS_MSG_IMPRINT_set_algo");
    Check(TS_MSG_IMPRINT_set_msg(msg.get(), const_cast<unsigned char *>(imprint.data()),
                                 static_cast<int>(imprint.size())) == 1,
          "TS_MSG_IMPRINT_set_msg");

    unsigned char nonceBytes[8];
    Check(RAND_bytes(nonceBytes, sizeof nonceBytes) == 1, "RAND_bytes");
    BnPtr nonceBn(BN_bin2bn(nonceBytes, sizeof nonceBytes, nullptr));
    Check(nonceBn != nullptr, "BN_bin2bn");
    Asn1IntPtr nonce(BN_to_ASN1_INTEGER(nonceBn.get(), nullptr));
    Check(nonce != nullptr, "BN_to_ASN1_INTEGER");

    TsReqPtr req(TS_REQ_new());
    Check(req != nullptr, "TS_REQ_new");
    Check(TS_REQ_set_version(req.get(), 1) == 1, "TS_REQ_set_version");
    Check(TS_REQ_set_msg_imprint(req.get(), msg.get()) == 1, "TS_REQ_set_msg_imprint");
    Check(TS_REQ_set_nonce(req.get(), nonce.get()) == 1, "TS_REQ_set_nonce");
    Check(TS_REQ_set_cert_req(req.get(), 1) == 1, "TS_REQ_set_cert_req");
    return ToDer(req.get(), i2d_TS_REQ, "i2d_TS_REQ");
}

// ---- the timestamp reply ----------------------------------------------------

constexpr const char *kStatusNames[] = {"granted", "grantedWithMods",   "rejection",
                                        "waiting", "revocationWarning", "revocationNotification"};
struct FailureBit {
    int bit;
    const char *name;
};
constexpr FailureBit kFailureBits[] = {
    {TS_INFO_BAD_ALG, "badAlg"},
    {TS_INFO_BAD_REQUEST, "badRequest"},
    {TS_INFO_BAD_DATA_FORMAT, "badDataFormat"},
    {TS_INFO_TIME_NOT_AVAILABLE, "timeNotAvailable"},
    {TS_INFO_UNACCEPTED_POLICY, "unacceptedPolicy"},
    {TS_INFO_UNACCEPTED_EXTENSION, "unacceptedExtension"},
    {TS_INFO_ADD_INFO_NOT_AVAILABLE, "addInfoNotAvailable"},
    {TS_INFO_SYSTEM_FAILURE, "systemFailure"},
};

void CheckGranted(TS_RESP *resp) {
    TS_STATUS_INFO *info = TS_RESP_get_status_info(resp);
    const long status = ASN1_INTEGER_get(TS_STATUS_INFO_get0_status(info));
    if (status == 0 || status == 1) {
        return;
    }
    std::string message = "the time-stamp reply is not granted: status ";
    message += status > 1 && status < 6 ? kStatusNames[status] : std::to_string(status);
    if (const ASN1_BIT_STRING *failure = TS_STATUS_INFO_get0_failure_info(info)) {
        for (const auto &f : kFailureBits) {
            if (ASN1_BIT_STRING_get_bit(failure, f.bit) == 1) {
                message += std::string(", ") + f.name;
            }
        }
    }
    const STACK_OF(ASN1_UTF8STRING) *texts = TS_STATUS_INFO_get0_text(info);
    for (int i = 0; texts != nullptr && i < sk_ASN1_UTF8STRING_num(texts); ++i) {
        const Bytes text = StringBytes(sk_ASN1_UTF8STRING_value(texts, i));
        message += ", \"" + std::string(text.begin(), text.end()) + "\"";
    }
    Refuse(message);
}

void CheckImprint(TS_TST_INFO *tst, std::span<const uint8_t> signatureValue) {
    TS_MSG_IMPRINT *imprint = TS_TST_INFO_get_msg_imprint(tst);
    X509_ALGOR *algo = TS_MSG_IMPRINT_get_algo(imprint);
    const EVP_MD *md = AlgorDigest(algo);
    if (md == nullptr) {
        Refuse("the token's imprint uses " + AlgorName(algo) +
               "; verify_tool takes sha256, sha384 or sha512");
    }
    if (Hash(md, signatureValue) != StringBytes(TS_MSG_IMPRINT_get_msg(imprint))) {
        Refuse("the time-stamp reply stamps something else: its imprint is not the " +
               std::string(EVP_MD_get0_name(md)) + " hash of this signature's value");
    }
}

void CheckGenTime(TS_TST_INFO *tst) {
    const ASN1_GENERALIZEDTIME *t = TS_TST_INFO_get_time(tst);
    const Bytes text = t != nullptr ? StringBytes(t) : Bytes{};
    if (text.size() != 15 || text[14] != 'Z') {
        Refuse("the token's time \"" + std::string(text.begin(), text.end()) +
               "\" is not of the form YYYYMMDDHHMMSSZ that verify_tool reads");
    }
}

void CheckToken(PKCS7 *token) {
    if (PKCS7_type_is_signed(token) == 0 || token->d.sign == nullptr) {
        Refuse("the timestamp token is not a SignedData");
    }
    STACK_OF(X509) *certs = token->d.sign->cert;
    const int certCount = certs == nullptr ? 0 : sk_X509_num(certs);
    CheckCertCount(static_cast<size_t>(certCount), "the timestamp token");
    for (int i = 0; i < certCount; ++i) {
        CheckEmbeddable(sk_X509_value(certs, i), "a token's");
    }
    STACK_OF(PKCS7_SIGNER_INFO) *infos = PKCS7_get_signer_info(token);
    const int signers = infos == nullptr ? 0 : sk_PKCS7_SIGNER_INFO_num(infos);
    if (signers != 1) {
        Refuse("the timestamp token has " + std::to_string(signers) + " signers; expected one");
    }
    PKCS7_SIGNER_INFO *info = sk_PKCS7_SIGNER_INFO_value(infos, 0);
    X509_ALGOR *digest = nullptr;
    PKCS7_SIGNER_INFO_get0_algs(info, nullptr, &digest, nullptr);
    if (digest == nullptr || AlgorDigest(digest) == nullptr) {
        Refuse("the timestamp token is signed with digest " +
               (digest ? AlgorName(digest) : std::string("(none)")) +
               ", which verify_tool does not accept");
    }
    X509 *tsa = certs == nullptr
                    ? nullptr
                    : X509_find_by_issuer_and_serial(certs, info->issuer_and_serial->issuer,
                                                     info->issuer_and_serial->serial);
    if (tsa == nullptr) {
        Note("the TSA certificate is not in the token; verify_tool then needs it in the CRL file");
        return;
    }
    CheckUsage(tsa, kEkuTimeStamping, "the TSA");
}

void EmbedToken(CMS_SignerInfo *info, std::span<const uint8_t> tokenDer) {
    const ASN1_OBJECT *oid = OBJ_nid2obj(NID_id_smime_aa_timeStampToken);
    Check(oid != nullptr, "OBJ_nid2obj");
    for (int loc = CMS_unsigned_get_attr_by_OBJ(info, oid, -1); loc >= 0;
         loc = CMS_unsigned_get_attr_by_OBJ(info, oid, -1)) {
        AttrPtr old(CMS_unsigned_delete_attr(info, loc));
        Note("the signature's earlier timestamp token is replaced");
    }
    Check(CMS_unsigned_add1_attr_by_OBJ(info, oid, V_ASN1_SEQUENCE, tokenDer.data(),
                                        static_cast<int>(tokenDer.size())) == 1,
          "CMS_unsigned_add1_attr_by_OBJ");
}

}  // namespace pkg_sign
