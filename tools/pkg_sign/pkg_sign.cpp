// pkg_sign: see pkg_sign.h. Inside this file a refusal is thrown as Refusal
// (exit 1) and a bad command line as UsageError (exit 2); PkgSignMain catches
// everything, so no exception leaves the program's entry point. Outputs are
// built in memory and written only when every check has passed.
#include "tools/pkg_sign/pkg_sign.h"

#include "tools/pkg_sign/manifest.h"

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
// pem.h first: cms.h declares the CMS PEM functions only after it.
#include <openssl/pem.h>
#include <openssl/cms.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pkcs7.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/ts.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <errno.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

class Refusal : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

template <auto FreeFn>
struct Deleter {
    template <typename T>
    void operator()(T *p) const {
        FreeFn(p);
    }
};
using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>>;
using TsReqPtr = std::unique_ptr<TS_REQ, Deleter<TS_REQ_free>>;
using TsRespPtr = std::unique_ptr<TS_RESP, Deleter<TS_RESP_free>>;
using TsRespCtxPtr = std::unique_ptr<TS_RESP_CTX, Deleter<TS_RESP_CTX_free>>;
using TsImprintPtr = std::unique_ptr<TS_MSG_IMPRINT, Deleter<TS_MSG_IMPRINT_free>>;
using AlgorPtr = std::unique_ptr<X509_ALGOR, Deleter<X509_ALGOR_free>>;
using Asn1IntPtr = std::unique_ptr<ASN1_INTEGER, Deleter<ASN1_INTEGER_free>>;
using Asn1ObjPtr = std::unique_ptr<ASN1_OBJECT, Deleter<ASN1_OBJECT_free>>;
using Asn1TimePtr = std::unique_ptr<ASN1_TIME, Deleter<ASN1_TIME_free>>;
using BitStringPtr = std::unique_ptr<ASN1_BIT_STRING, Deleter<ASN1_BIT_STRING_free>>;
using EkuPtr = std::unique_ptr<EXTENDED_KEY_USAGE, Deleter<EXTENDED_KEY_USAGE_free>>;
using AttrPtr = std::unique_ptr<X509_ATTRIBUTE, Deleter<X509_ATTRIBUTE_free>>;
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BN_free>>;

// A certificate stack that owns its certificates (CMS_get1_certs).
struct CertStackFree {
    void operator()(STACK_OF(X509) * certs) const { sk_X509_pop_free(certs, X509_free); }
};
using CertStackPtr = std::unique_ptr<STACK_OF(X509), CertStackFree>;
// A stack that only lists certificates owned elsewhere.
struct CertListFree {
    void operator()(STACK_OF(X509) * certs) const { sk_X509_free(certs); }
};
using CertListPtr = std::unique_ptr<STACK_OF(X509), CertListFree>;

constexpr char kUsage[] =
    "Usage: pkg_sign sign --key KEY --cert CERT [--chain CA]... --in CHECKSUMS --out SIG\n"
    "                     [--pem] [--md sha256|sha384|sha512] [--tsq QUERY] [--pss]\n"
    "       pkg_sign add-timestamp --sig SIG --tsr REPLY --out SIGNED [--pem]\n"
    "       pkg_sign local-tsa --key KEY --cert CERT [--chain CA]... (--tsq QUERY | --sig SIG)\n"
    "                          --out REPLY [--time YYYYMMDDHHMMSSZ] [--md sha256|sha384|sha512]\n"
    "                          [--policy OID]\n"
    "       pkg_sign manifest --dir DIR --out CHECKSUMS [--md sha256|sha384|sha512]\n"
    "       pkg_sign --help\n"
    "\n"
    "sign           makes the detached CMS signature of a checksum file (RSA PKCS #1\n"
    "               v1.5, RSASSA-PSS with --pss, or ECDSA with a P-256 or P-384 key;\n"
    "               signed attributes, the signer and at most one CA certificate\n"
    "               embedded, the signer named by issuer and serial number); with --tsq\n"
    "               it also writes the RFC 3161 query for the signature value, to send\n"
    "               to a TSA.\n"
    "add-timestamp  checks the TSA's reply (granted, stamping exactly this signature\n"
    "               value) and embeds its token in the signer; the result is the\n"
    "               signature to ship.\n"
    "local-tsa      answers a query (or stamps a signature directly) with a local TSA\n"
    "               key, for test setups.\n"
    "manifest       writes the checksum file of every regular file below DIR (sha256sum\n"
    "               lines, paths relative to DIR, sorted), for verify_tool's\n"
    "               CHECK_PKG_FILES; refuses links, special files and names it would\n"
    "               refuse. CHECKSUMS itself is left out when it lies below DIR.\n"
    "\n"
    "Keys and certificates are read as PEM or DER; a --chain file may hold several\n"
    "certificates. --pem writes \"-----BEGIN CMS-----\" armour instead of DER.\n"
    "\n"
    "Exit status: 0 written; 1 refused or failed (nothing written, the reason on\n"
    "standard error); 2 bad command line.\n";

// What verify_tool reads of a signature file at most.
constexpr size_t kMaxFileSize = 2000000;
// verify_tool decodes at most two certificates in a SignedData (the signature
// and the timestamp token alike) and RSA moduli of at most 512 bytes.
constexpr size_t kMaxCerts = 2;
constexpr int kMaxRsaBits = 4096;
// The purpose flags verify_tool derives from a certificate (see UsageOf).
constexpr uint32_t kKuDigitalSignature = 0x80;
constexpr uint32_t kEkuCodeSigning = 0x08;
constexpr uint32_t kEkuTimeStamping = 0x40;
constexpr uint32_t kEkuOther = 0x80000000u;
// verify_tool decodes at most this many purposes in an extended key usage.
constexpr int kMaxEkuPurposes = 10;
// The policy local-tsa stamps under unless told otherwise: the example arc
// of OpenSSL's own TSA configuration, so no real policy is claimed.
constexpr char kDefaultPolicy[] = "1.2.3.4.1";

// ---- OpenSSL errors, messages, files ----------------------------------------

// The reasons OpenSSL queued, "; "-joined; empties the queue.
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

struct Output {
    std::string path;
    Bytes data;
};

// Writes every output or, failing that, removes what was written.
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

template <typename T, typename Encode>
Bytes ToDer(T *object, Encode encode, const char *what) {
    const int len = encode(object, nullptr);
    Check(len > 0, what);
    Bytes der(static_cast<size_t>(len));
    unsigned char *p = der.data();
    Check(encode(object, &p) == len, what);
    return der;
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

struct DigestEntry {
    std::string_view name;
    int nid;
    const EVP_MD *(*md)();
};
// The only digests verify_tool accepts, for signatures and imprints alike.
constexpr DigestEntry kDigests[] = {
    {"sha256", NID_sha256, EVP_sha256},
    {"sha384", NID_sha384, EVP_sha384},
    {"sha512", NID_sha512, EVP_sha512},
};

const EVP_MD *DigestByName(std::string_view name) {
    for (const auto &d : kDigests) {
        if (d.name == name) {
            return d.md();
        }
    }
    Refuse("digest " + std::string(name) +
           " is not accepted by verify_tool; use sha256, sha384 or sha512");
}

// nullptr for anything verify_tool would refuse.
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

// Every certificate of a file: PEM blocks (other blocks are skipped) or DER
// certificates back to back.
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

// CheckKey: the keys verify_tool checks: RSA (at most kMaxRsaBits here) and
// EC on the named curves P-256 and P-384.
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
    if (bits > kMaxRsaBits) {
        Refuse(what + " has " + std::to_string(bits) +
               " bits; verify_tool takes RSA keys of at most 4096 bits");
    }
}

// Whatever a SignedData embeds must decode in verify_tool, or the whole
// signature does not decode.
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

struct VerifierUsage {
    uint32_t keyUsage = 0;
    uint32_t extKeyUsage = 0;
    bool extKeyUsageCritical = false;
    bool unknownCritical = false;
};

// The usage flags as verify_tool's certificate decoder makes them: the key
// usage BIT STRING's first octet in the low byte and its second above it,
// every extended-key-usage purpose (others as kEkuOther), whether that
// extension is critical, and whether a critical extension is there that
// verify_tool does not read.
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

// The signing identity of sign and local-tsa: key and certificate belong
// together and are fit for `purpose`.
struct Identity {
    PkeyPtr key;
    X509Ptr cert;
};

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

// The --chain certificates, without repeats of the signer or of each other.
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

struct Signer {
    CMS_SignerInfo *info = nullptr;  // points into the CMS
    X509Ptr cert;
};

// CheckSignature: the form checks verify_tool makes of a package signature
// that a producer can make without the trust material: a SignedData with
// exactly one signer, named by issuer and serial number, digest SHA-256/384/
// 512, at most two embedded certificates that verify_tool can decode, the
// signer's among them, fit for code signing, and the signature over the
// signed attributes holds. The timestamp is checked where it is added.
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

// The RFC 3161 (2.4.1) query for a signature value: version 1, the imprint
// over exactly the bytes verify_tool hashes, certReq true so the TSA embeds
// its certificate, and a random nonce.
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

// granted (0) and grantedWithMods (1) both carry a token (RFC 3161 2.4.2);
// whether that token fits is decided by the checks after this one.
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

// verify_tool hashes the signer's signature value with the imprint's
// algorithm and compares it with the hashed message (RFC 3161 2.4.2).
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

// verify_tool reads genTime as exactly YYYYMMDDHHMMSSZ, as RFC 5280 has
// certificates write it; a TSA that adds fractions of a second is refused.
void CheckGenTime(TS_TST_INFO *tst) {
    const ASN1_GENERALIZEDTIME *t = TS_TST_INFO_get_time(tst);
    const Bytes text = t != nullptr ? StringBytes(t) : Bytes{};
    if (text.size() != 15 || text[14] != 'Z') {
        Refuse("the token's time \"" + std::string(text.begin(), text.end()) +
               "\" is not of the form YYYYMMDDHHMMSSZ that verify_tool reads");
    }
}

// The token is decoded by verify_tool like the signature itself.
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

// Embeds the token as the signer's id-aa-timeStampToken (RFC 3161 Appendix
// A). A token already there is replaced: verify_tool reads only the first,
// and only the new one has just been checked.
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

// ---- command line -----------------------------------------------------------

struct OptionDef {
    std::string_view name;  // without "--"
    bool takesValue;
    bool repeatable;
};

class Options {
  public:
    Options(std::span<char *const> args, std::span<const OptionDef> defs) {
        for (size_t i = 0; i < args.size(); ++i) {
            std::string_view arg = args[i];
            if (arg.substr(0, 2) != "--") {
                throw UsageError("unexpected argument '" + std::string(arg) + "'");
            }
            arg.remove_prefix(2);
            std::optional<std::string> value;
            if (const size_t eq = arg.find('='); eq != std::string_view::npos) {
                value = std::string(arg.substr(eq + 1));
                arg = arg.substr(0, eq);
            }
            const auto def = std::find_if(defs.begin(), defs.end(),
                                          [&](const OptionDef &s) { return s.name == arg; });
            if (def == defs.end()) {
                throw UsageError("unknown option --" + std::string(arg));
            }
            if (!def->takesValue && value) {
                throw UsageError("--" + std::string(arg) + " takes no value");
            }
            if (def->takesValue && !value) {
                if (i + 1 >= args.size()) {
                    throw UsageError("--" + std::string(arg) + " needs a value");
                }
                value = args[++i];
            }
            auto &slot = values_[std::string(arg)];
            if (!slot.empty() && !def->repeatable) {
                throw UsageError("--" + std::string(arg) + " given twice");
            }
            slot.push_back(value.value_or(""));
        }
    }

    bool Has(std::string_view name) const { return values_.find(name) != values_.end(); }
    std::vector<std::string> All(std::string_view name) const {
        const auto it = values_.find(name);
        return it == values_.end() ? std::vector<std::string>{} : it->second;
    }
    std::string Get(std::string_view name, std::string fallback) const {
        const auto it = values_.find(name);
        return it == values_.end() ? std::move(fallback) : it->second.front();
    }
    std::string Required(std::string_view name) const {
        const auto it = values_.find(name);
        if (it == values_.end()) {
            throw UsageError("missing --" + std::string(name));
        }
        if (it->second.front().empty()) {
            throw UsageError("--" + std::string(name) + " is empty");
        }
        return it->second.front();
    }

  private:
    std::map<std::string, std::vector<std::string>, std::less<>> values_;
};

// ---- commands ---------------------------------------------------------------

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

constexpr OptionDef kManifestOptions[] = {
    {"dir", true, false},
    {"out", true, false},
    {"md", true, false},
};

int Manifest(const Options &opts) {
    const std::string out = opts.Required("out");
    const EVP_MD *md = DigestByName(opts.Get("md", "sha256"));
    WriteOutputs({{out, PkgSignManifest(opts.Required("dir"), out, md)}});
    return PKG_SIGN_EXIT_OK;
}

struct Command {
    std::string_view name;
    std::span<const OptionDef> options;
    int (*run)(const Options &);
};
constexpr Command kCommands[] = {
    {"sign", kSignOptions, Sign},
    {"add-timestamp", kAddTimestampOptions, AddTimestamp},
    {"local-tsa", kLocalTsaOptions, LocalTsa},
    {"manifest", kManifestOptions, Manifest},
};

int Run(std::span<char *const> args) {
    if (std::any_of(args.begin(), args.end(),
                    [](const char *a) { return std::string_view(a) == "--help"; })) {
        std::fputs(kUsage, stdout);
        return PKG_SIGN_EXIT_OK;
    }
    if (args.empty()) {
        throw UsageError("no command given");
    }
    const std::string_view name = args.front();
    for (const auto &command : kCommands) {
        if (command.name == name) {
            return command.run(Options(args.subspan(1), command.options));
        }
    }
    throw UsageError("unknown command '" + std::string(name) + "'");
}

}  // namespace

int PkgSignMain(int argc, char *argv[]) {
    try {
        const std::span<char *const> args(argv, argc > 0 ? static_cast<size_t>(argc) : 0);
        return Run(args.empty() ? args : args.subspan(1));
    } catch (const UsageError &e) {
        std::fprintf(stderr, "pkg_sign: %s\nTry 'pkg_sign --help'.\n", e.what());
        return PKG_SIGN_EXIT_USAGE;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "pkg_sign: %s\n", e.what());
        return PKG_SIGN_EXIT_REFUSED;
    } catch (...) {
        std::fprintf(stderr, "pkg_sign: unexpected failure\n");
        return PKG_SIGN_EXIT_REFUSED;
    }
}
