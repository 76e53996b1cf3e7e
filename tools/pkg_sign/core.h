// pkg_sign's shared core: what its commands (sign.cpp, add_timestamp.cpp,
// local_tsa.cpp, manifest.cpp) have in common. A refusal is thrown as
// Refusal (exit 1) and a bad command line as UsageError (exit 2); PkgSignMain
// catches everything, so no exception leaves the program's entry point.
// Outputs are built in memory and written only when every check has passed.
#ifndef TOOLS_PKG_SIGN_CORE_H
#define TOOLS_PKG_SIGN_CORE_H

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

// Headers only: pkg_sign links nothing of the verifier.
#include "cms/adapt/provider.h"
#include "cms/asn1/pkcs7.h"
#include "cms/dorvex.h"
#include "tools/pkg_sign/pkg_sign.h"

namespace pkg_sign {

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

// verify_tool's limits, from the verification library's own headers: what it
// reads of a signature file at most; the certificates it decodes in a
// SignedData (the signature and the timestamp token alike); the RSA moduli
// it accepts; the purposes it decodes in an extended key usage.
inline constexpr size_t kMaxFileSize = DORVEX_MAX_FILE_SIZE;
inline constexpr size_t kMaxCerts = DRX_PKCS7_MAX_CERTS;
inline constexpr int kMinRsaBits = DORVEX_RSA_MIN_BITS;
inline constexpr int kMaxRsaBits = DORVEX_BIGINT_MAX_LEN * 8;
inline constexpr int kMaxEkuPurposes = DRX_ASN_OID_BUNDLE_MAX;
// The purpose flags verify_tool derives from a certificate (see UsageOf):
// digitalSignature is the first key-usage bit (RFC 5280 4.2.1.3).
inline constexpr uint32_t kKuDigitalSignature = 0x80;
inline constexpr uint32_t kEkuCodeSigning = DRX_EXKU_CODE_SIGNING;
inline constexpr uint32_t kEkuTimeStamping = DRX_EXKU_TIME_STAMPING;
inline constexpr uint32_t kEkuOther = DRX_EXKU_OTHER;
struct DigestEntry {
    std::string_view name;
    int nid;
    const EVP_MD *(*md)();
};
// The only digests verify_tool accepts, for signatures and imprints alike.
inline constexpr DigestEntry kDigests[] = {
    {"sha256", NID_sha256, EVP_sha256},
    {"sha384", NID_sha384, EVP_sha384},
    {"sha512", NID_sha512, EVP_sha512},
};

// The policy local-tsa stamps under unless told otherwise: the example arc
// of OpenSSL's own TSA configuration, so no real policy is claimed.
inline constexpr char kDefaultPolicy[] = "1.2.3.4.1";

struct Output {
    std::string path;
    Bytes data;
};

struct VerifierUsage {
    uint32_t keyUsage = 0;
    uint32_t extKeyUsage = 0;
    bool extKeyUsageCritical = false;
    bool unknownCritical = false;
};

// The signing identity of sign and local-tsa: key and certificate belong
// together and are fit for `purpose`.
struct Identity {
    PkeyPtr key;
    X509Ptr cert;
};

struct Signer {
    CMS_SignerInfo *info = nullptr;  // points into the CMS
    X509Ptr cert;
};

// The reasons OpenSSL queued, "; "-joined; empties the queue.
std::string OpensslReasons();

[[noreturn]] void Refuse(const std::string &message);

[[noreturn]] void FailOpenssl(const std::string &what);

void Check(bool ok, const char *what);

void Note(const std::string &message);

Bytes ReadFile(const std::string &path);

// Writes every output or, failing that, removes what was written.
void WriteOutputs(const std::vector<Output> &outputs);

BioPtr MemReader(std::span<const uint8_t> data);

Bytes MemContents(BIO *bio);

bool StartsWith(std::span<const uint8_t> data, std::string_view prefix);

std::string ObjectName(const ASN1_OBJECT *obj);

const EVP_MD *DigestByName(std::string_view name);

// nullptr for anything verify_tool would refuse.
const EVP_MD *DigestByNid(int nid);

const EVP_MD *AlgorDigest(const X509_ALGOR *alg);

std::string AlgorName(const X509_ALGOR *alg);

Bytes Hash(const EVP_MD *md, std::span<const uint8_t> data);

Bytes StringBytes(const ASN1_STRING *s);

PkeyPtr LoadKey(const std::string &path);

// Every certificate of a file: PEM blocks (other blocks are skipped) or DER
// certificates back to back.
std::vector<X509Ptr> LoadCerts(const std::string &path);

X509Ptr LoadOneCert(const std::string &path);

// CheckKey: the keys verify_tool checks: RSA within its sizes and EC on the
// named curves P-256 and P-384.
void CheckKey(const EVP_PKEY *key, const std::string &what);

// Whatever a SignedData embeds must decode in verify_tool, or the whole
// signature does not decode.
void CheckEmbeddable(X509 *cert, const std::string &what);

void CheckCertCount(size_t count, const std::string &what);

// The usage flags as verify_tool's certificate decoder makes them: the key
// usage BIT STRING's first octet in the low byte and its second above it,
// every extended-key-usage purpose (others as kEkuOther), whether that
// extension is critical, and whether a critical extension is there that
// verify_tool does not read.
VerifierUsage UsageOf(X509 *cert, const std::string &what);

void CheckUsage(X509 *cert, uint32_t purpose, const std::string &what);

Identity LoadIdentity(const std::string &keyPath, const std::string &certPath, uint32_t purpose,
                      const std::string &what);

// The --chain certificates, without repeats of the signer or of each other.
std::vector<X509Ptr> LoadChain(const std::vector<std::string> &paths, X509 *signer,
                               const std::string &where);

CmsPtr ParseCms(std::span<const uint8_t> data, const std::string &what);

Bytes EncodeCms(CMS_ContentInfo *cms, bool pem);

// CheckSignature: the form checks verify_tool makes of a package signature
// that a producer can make without the trust material: a SignedData with
// exactly one signer, named by issuer and serial number, digest SHA-256/384/
// 512, at most two embedded certificates that verify_tool can decode, the
// signer's among them, fit for code signing, and the signature over the
// signed attributes holds. The timestamp is checked where it is added.
Signer CheckSignature(CMS_ContentInfo *cms);

Bytes SignatureValue(CMS_SignerInfo *info);

const EVP_MD *SignerDigest(CMS_SignerInfo *info);

// The RFC 3161 (2.4.1) query for a signature value: version 1, the imprint
// over exactly the bytes verify_tool hashes, certReq true so the TSA embeds
// its certificate, and a random nonce.
Bytes MakeQuery(const EVP_MD *md, std::span<const uint8_t> signatureValue);

// granted (0) and grantedWithMods (1) both carry a token (RFC 3161 2.4.2);
// whether that token fits is decided by the checks after this one.
void CheckGranted(TS_RESP *resp);

// verify_tool hashes the signer's signature value with the imprint's
// algorithm and compares it with the hashed message (RFC 3161 2.4.2).
void CheckImprint(TS_TST_INFO *tst, std::span<const uint8_t> signatureValue);

// verify_tool reads genTime as exactly YYYYMMDDHHMMSSZ, as RFC 5280 has
// certificates write it; a TSA that adds fractions of a second is refused.
void CheckGenTime(TS_TST_INFO *tst);

// The token is decoded by verify_tool like the signature itself.
void CheckToken(PKCS7 *token);

// Embeds the token as the signer's id-aa-timeStampToken (RFC 3161 Appendix
// A). A token already there is replaced: verify_tool reads only the first,
// and only the new one has just been checked.
void EmbedToken(CMS_SignerInfo *info, std::span<const uint8_t> tokenDer);

template <typename T, typename Encode>
Bytes ToDer(T *object, Encode encode, const char *what) {
    const int len = encode(object, nullptr);
    Check(len > 0, what);
    Bytes der(static_cast<size_t>(len));
    unsigned char *p = der.data();
    Check(encode(object, &p) == len, what);
    return der;
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

// One command: its name, its options and what runs it.
struct Command {
    std::string_view name;
    std::span<const OptionDef> options;
    int (*run)(const Options &);
};

extern const Command kSignCommand;          // sign.cpp
extern const Command kAddTimestampCommand;  // add_timestamp.cpp
extern const Command kLocalTsaCommand;      // local_tsa.cpp
extern const Command kManifestCommand;      // manifest.cpp

}  // namespace pkg_sign

#endif  // TOOLS_PKG_SIGN_CORE_H
