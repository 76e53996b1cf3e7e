// testpki: builds the keys, certificates and CRLs that the tests, the fuzz
// seed corpora and the example scripts feed to the verifier, through real
// OpenSSL. Test support only: never linked into the product.
//
// CertSpec and CrlSpec are plain values with usable defaults; builders return
// DER. Every field that a decoder might trip over (serial octets, time
// strings, key usage octets, extension order) is written exactly as given,
// even when it is not valid DER or X.509, so negative cases can be made on
// purpose.
// Failures throw testpki::Error with the OpenSSL reason attached.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace testpki {

using Bytes = std::vector<uint8_t>;

class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// unique_ptr deleter for an OpenSSL free function.
template <auto FreeFn>
struct Deleter {
    template <typename T>
    void operator()(T *p) const {
        FreeFn(p);
    }
};
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;
using X509CrlPtr = std::unique_ptr<X509_CRL, Deleter<X509_CRL_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;

// ---- keys and certificates --------------------------------------------------

// Key: a shared handle to a private key (copies share one EVP_PKEY).
class Key {
  public:
    Key() = default;
    static Key FromPem(std::string_view pem);
    static Key LoadPem(const std::filesystem::path &file);
    static Key GenerateRsa(int bits);
    static Key GenerateEc(const std::string &curve = "P-256");
    // A copy of this EC key whose public key is written with a compressed
    // point and/or with explicit curve parameters instead of the curve's name.
    Key EcForm(bool compressed, bool explicitParams) const;

    explicit operator bool() const { return pkey_ != nullptr; }
    EVP_PKEY *get() const { return pkey_.get(); }
    int Bits() const;
    // SubjectPublicKeyInfo DER, as a "PUBLIC KEY" PEM block carries it.
    Bytes PublicKeyDer() const;
    // SHA-1 of the subjectPublicKey bits (RFC 5280 4.2.1.2, method 1).
    Bytes KeyId() const;

  private:
    explicit Key(PkeyPtr pkey) : pkey_(std::move(pkey)) {}
    std::shared_ptr<EVP_PKEY> pkey_;
};

// Folder of the committed test keys (tests/keys), compiled in.
std::filesystem::path DefaultKeyDir();
// Loads DIR/NAME.pem, e.g. LoadTestKey("root-4096").
Key LoadTestKey(std::string_view name, const std::filesystem::path &dir = DefaultKeyDir());

// Cert: a shared handle to a certificate and its DER. For certificates built
// here, get() is the object that was signed, so it stays usable even when the
// DER carries something OpenSSL would refuse to parse (a padded serial).
class Cert {
  public:
    Cert() = default;
    Cert(X509Ptr x509, Bytes der) : x509_(std::move(x509)), der_(std::move(der)) {}
    // Parses DER; throws when OpenSSL cannot.
    static Cert FromDer(Bytes der);

    explicit operator bool() const { return x509_ != nullptr; }
    X509 *get() const { return x509_.get(); }
    const Bytes &Der() const { return der_; }

  private:
    std::shared_ptr<X509> x509_;
    Bytes der_;
};

// Credential: a certificate with its private key, the signing identity of
// certificates, CRLs, CMS signatures and timestamp tokens alike.
struct Credential {
    Cert cert;
    Key key;
};

// ---- names and times --------------------------------------------------------

enum class StrType { Printable, Utf8, Ia5, Teletex, Bmp, Numeric };

// One attribute: type as short name ("CN", "O", "serialNumber", "DC") or
// dotted OID; value bytes written as they are under the chosen string tag.
struct Attr {
    std::string type;
    std::string value;
    StrType strType = StrType::Utf8;
};
using Rdn = std::vector<Attr>;  // more than one attribute: a multi-valued RDN
using Name = std::vector<Rdn>;  // in encoded order

// One attribute per RDN, in the order given; C as PrintableString, the rest
// UTF8String.
Name SimpleName(std::initializer_list<std::pair<std::string, std::string>> attrs);

enum class TimeType { Utc, Generalized };
// A time value written byte for byte: "250101000000Z", "20250101000000.5Z",
// "2501010000+0100" are all accepted.
struct Time {
    TimeType type = TimeType::Utc;
    std::string text;
};
inline Time Utc(std::string text) {
    return {TimeType::Utc, std::move(text)};
}
inline Time Gen(std::string text) {
    return {TimeType::Generalized, std::move(text)};
}
// RFC 5280 4.1.2.5: UTCTime for 1950..2049, GeneralizedTime otherwise.
Time TimeAt(int64_t epochSeconds);
// Seconds since 1970 as OpenSSL reads the value; throws if it cannot.
int64_t EpochOf(const Time &time);

enum class Digest { Sha1, Sha256, Sha384, Sha512 };
const EVP_MD *DigestMd(Digest digest);

// Minimal two's-complement content octets of a non-negative integer.
Bytes SerialFromU64(uint64_t value);

// ---- certificates -----------------------------------------------------------

struct BasicConstraints {
    bool ca = true;  // FALSE is the DEFAULT and so is not encoded
    std::optional<unsigned> pathLen;
    bool critical = true;
};

// First key-usage octet.
namespace ku {
inline constexpr uint8_t kDigitalSignature = 0x80;
inline constexpr uint8_t kNonRepudiation = 0x40;
inline constexpr uint8_t kKeyEncipherment = 0x20;
inline constexpr uint8_t kDataEncipherment = 0x10;
inline constexpr uint8_t kKeyAgreement = 0x08;
inline constexpr uint8_t kKeyCertSign = 0x04;
inline constexpr uint8_t kCrlSign = 0x02;
inline constexpr uint8_t kEncipherOnly = 0x01;
inline constexpr uint8_t kDecipherOnlySecondOctet = 0x80;
}  // namespace ku

// Key usage BIT STRING: the octets after the unused-bits octet, as given.
struct KeyUsage {
    Bytes octets;
    uint8_t unusedBits = 0;
    bool critical = true;
    // One octet with the unused-bits count of minimal DER (X.690 11.2.2).
    static KeyUsage Of(uint8_t first);
    // Always two octets, as a decipherOnly usage needs.
    static KeyUsage Of(uint8_t first, uint8_t second);
};

// Purposes in the order given: short names ("codeSigning", "timeStamping",
// "serverAuth") or dotted OIDs.
struct ExtKeyUsage {
    std::vector<std::string> purposes;
    bool critical = false;
};

// Any extension: value is the DER inside extnValue's OCTET STRING (may be
// empty). The same OID may appear more than once.
struct RawExtension {
    std::string oid;
    bool critical = false;
    Bytes value;
};

// Extensions are written in member order: basic constraints, key usage,
// extended key usage, subject and authority key identifiers, then the extras.
struct CertSpec {
    Key subjectKey;                    // required; any key type
    std::optional<Credential> issuer;  // none: self-signed with subjectKey
    Name subject = SimpleName({{"CN", "testpki"}});
    std::optional<Name> issuerName;  // default: the issuer's subject
    Bytes serial = {0x01};           // INTEGER content octets, as given
    int version = 3;                 // 1: no version field; 2, 3
    Time notBefore = Utc("240101000000Z");
    Time notAfter = Utc("491231235959Z");
    std::optional<BasicConstraints> basicConstraints;
    std::optional<KeyUsage> keyUsage;
    std::optional<ExtKeyUsage> extKeyUsage;
    bool subjectKeyId = false;    // from subjectKey
    bool authorityKeyId = false;  // from the signing key
    std::vector<RawExtension> extraExtensions;
    Digest digest = Digest::Sha256;
    bool pss = false;  // RSASSA-PSS (salt as long as the digest), not PKCS #1 v1.5
};

Cert IssueCert(const CertSpec &plan);
// The certificate together with plan.subjectKey, ready to sign further items.
Credential IssueCredential(const CertSpec &plan);

// ---- CRLs -------------------------------------------------------------------

struct RevokedEntry {
    Bytes serial;
    Time date = Utc("250101000000Z");
    std::optional<int> reason;  // CRLReason, written as an entry extension
    // certificateIssuer (critical): the Name DER of the certificate's issuer,
    // for an indirect CRL; it holds for the entries after it too.
    std::optional<Bytes> certificateIssuer = std::nullopt;
};

// The DER of a certificate's subject Name.
Bytes SubjectDer(const Cert &cert);
// A cRLDistributionPoints extension value with one point whose cRLIssuer is
// the Name `crlIssuer` (DER), for a certificate served by an indirect CRL.
Bytes CrlIssuerPoint(const Bytes &crlIssuer);

struct IssuingDistPoint {
    std::optional<std::string> uri;  // distributionPoint fullName
    bool onlyUserCerts = false;
    bool onlyCaCerts = false;
    bool indirectCrl = false;
    bool onlyAttributeCerts = false;
    bool critical = true;
};

struct CrlSpec {
    Credential issuer;               // required: signs, and names the issuer
    std::optional<Name> issuerName;  // default: the issuer certificate's subject
    int version = 2;                 // 1: no version field
    Time thisUpdate = Utc("240601000000Z");
    std::optional<Time> nextUpdate = Utc("491231235959Z");
    std::vector<RevokedEntry> revoked;  // in this order
    std::optional<Bytes> crlNumber = Bytes{0x01};
    std::optional<IssuingDistPoint> issuingDistPoint;
    std::vector<RawExtension> extraExtensions;
    Digest digest = Digest::Sha256;
    bool pss = false;  // as in CertSpec
};

Bytes MakeCrl(const CrlSpec &plan);

// ---- output -----------------------------------------------------------------

inline constexpr std::string_view kPemCertificate = "CERTIFICATE";
inline constexpr std::string_view kPemCrl = "X509 CRL";
inline constexpr std::string_view kPemPublicKey = "PUBLIC KEY";

// One PEM block, base64 in 64-character lines.
std::string ToPem(std::string_view label, std::span<const uint8_t> der);

struct PemBlock {
    std::string label;
    Bytes der;
};
// Several blocks in one text, in order (foreign labels welcome).
std::string PemBundle(const std::vector<PemBlock> &blocks);
// DER items back to back.
Bytes ConcatDer(const std::vector<Bytes> &items);

void WriteFile(const std::filesystem::path &file, std::span<const uint8_t> data);
void WriteFile(const std::filesystem::path &file, std::string_view text);

// ---- DER building blocks ----------------------------------------------------

namespace der {
Bytes Tlv(uint8_t tag, std::span<const uint8_t> content);
Bytes Seq(const std::vector<Bytes> &items);
Bytes Oid(const std::string &text);  // short name or dotted form
Bytes OctetString(std::span<const uint8_t> content);
Bytes Boolean(bool value);
Bytes Integer(std::span<const uint8_t> content);  // content octets as given
}  // namespace der

// ---- DER reading ------------------------------------------------------------

namespace der {
// The children of the constructed element at the front of `in`, each whole
// (tag, length and content). Throws on a malformed or truncated element.
std::vector<Bytes> Children(std::span<const uint8_t> in);
// The content octets of the element at the front of `in`.
Bytes Content(std::span<const uint8_t> in);
}  // namespace der

// ---- CMS signatures and timestamp tokens ------------------------------------

inline constexpr std::string_view kPemCms = "CMS";
inline constexpr std::string_view kPemPkcs7 = "PKCS7";

// TsApi: OpenSSL's TS_RESP_CTX answers a time-stamp request as a real
// authority would (its PKCS#7 signer adds the current clock as signing time,
// so two tokens differ). Cms: the TSTInfo is written here and signed through
// the CMS API; this takes any genTime text, a TSA certificate OpenSSL would
// refuse to stamp with, a signer without signed attributes, and is
// reproducible. Auto: TsApi when the plan fits it, otherwise Cms.
enum class TokenMaker { Auto, TsApi, Cms };

// The token signer's signed attributes: none (the signature covers the
// TSTInfo directly), or content type, signing time, message digest and an
// ESS signing-certificate attribute (v1: SHA-1 ESSCertID, v2: SHA-256
// ESSCertIDv2), as OpenSSL's TS API writes them.
enum class TokenAttrs { None, EssCertId, EssCertIdV2 };

struct TimestampSpec {
    Credential tsa;                           // required
    std::string genTime = "20260115120000Z";  // GeneralizedTime content, as given
    std::string policy = "1.3.6.1.4.1.99999.3.1";
    Bytes serial = {0x01};  // INTEGER content octets
    Digest imprintDigest = Digest::Sha256;
    std::optional<Bytes> imprintOver;  // default: the signer's signature value
    Digest digest = Digest::Sha256;    // of the TSA's own signature
    TokenAttrs attrs = TokenAttrs::EssCertIdV2;
    Digest essDigest = Digest::Sha256;  // of ESSCertIDv2, named in it unless SHA-256
    bool embedTsaCert = true;
    TokenMaker maker = TokenMaker::Auto;
    bool noSigner = false;        // a SignedData without SignerInfo (Cms maker)
    std::optional<Cert> essCert;  // the certificate the ESS attribute names; default: tsa's
    bool pss = false;             // as in CertSpec (Cms maker)
};

// Whether OpenSSL's TS API can make the token `plan` asks for.
bool FitsTsApi(const TimestampSpec &plan);
// TSTInfo DER (RFC 3161 2.4.2) as the Cms maker writes it: version 1, policy,
// imprint over plan.imprintOver or else `stamped`, serial, genTime.
Bytes MakeTstInfo(const TimestampSpec &plan, std::span<const uint8_t> stamped);
// A timestamp token: ContentInfo with a SignedData whose eContentType is
// id-ct-TSTInfo. The imprint hashes plan.imprintOver or else `stamped`.
Bytes MakeTimestampToken(const TimestampSpec &plan, std::span<const uint8_t> stamped);

// A detached CMS SignedData (RFC 5652) over the content passed beside it.
struct SignSpec {
    Credential signer;  // required unless noSigner
    Digest digest = Digest::Sha256;
    bool signedAttrs = true;  // content type, signing time, message digest
    Time signingTime = Utc("260115115900Z");
    // Embedded in this order (OpenSSL would sort them as a DER SET OF; the
    // order is restored afterwards so a decoder can be tried on both).
    std::vector<Cert> certs;
    bool noSigner = false;  // a SignedData without SignerInfo
    // The unsigned attribute id-aa-timeStampToken; its imprint covers the
    // signer's signature value unless the plan says otherwise.
    std::optional<TimestampSpec> timestamp;
    // After signing, change the last digit of the signing-time attribute: the
    // encoding still decodes but the signature over the attributes breaks.
    bool tamperSignedAttr = false;
    bool pss = false;  // as in CertSpec
};

Bytes MakeSignedData(const SignSpec &plan, std::span<const uint8_t> content);
// The only signer's signature value; throws when there is no signer.
Bytes SignatureValueOf(std::span<const uint8_t> signedData);
// The signer's timestamp token (DER); empty when there is none.
Bytes TimestampTokenOf(std::span<const uint8_t> signedData);

enum class Armour { Der, PemCms, PemPkcs7 };
Bytes Armoured(std::span<const uint8_t> der, Armour armour);

// ---- the demo hierarchy -----------------------------------------------------

// The demo root that the tool carries built in: self-signed RSA 4096 from the
// committed root-4096 key, 1363 bytes of DER, valid 2015-10-15 to 2050-10-15,
// extensions authority key id, basic constraints (cA), key usage (keyCertSign,
// cRLSign), subject key id, in this order. The same bytes on every run.
inline constexpr size_t kDemoRootSize = 1363;
Credential MakeDemoRoot(const std::filesystem::path &keyDir = DefaultKeyDir());

// A small valid hierarchy from the committed keys: the demo root ->
// intermediate CA -> code-signing leaf and time-stamping authority, with one
// CRL from the root and one from the intermediate CA.
struct DemoPki {
    Credential root, ca, leaf, tsa;
    Bytes rootCrl, caCrl;
};
DemoPki MakeDemoPki(const std::filesystem::path &keyDir = DefaultKeyDir());
// Writes every item as NAME.der and NAME.pem, plus crls.der / crls.pem with
// both CRLs, into outDir (created if missing). Returns the file names.
std::vector<std::string> WriteDemoPki(const DemoPki &pki, const std::filesystem::path &outDir);

// ---- demo packages ----------------------------------------------------------

// A checksum file as a package producer ships it ("HEX  NAME" lines).
std::string DemoChecksums();

// What a package check is given: the checksum file and its detached signature.
struct Package {
    Bytes content;
    Bytes signature;
};

// The one way a package is spoiled; None is the valid package.
enum class Fault {
    None,
    NoTimestamp,               // signer without a timestamp token
    ImprintOverContent,        // token imprint hashes the content, not the signature
    TamperedSignedAttr,        // a signed attribute changed after signing
    SignerWithoutCodeSigning,  // signer certificate's EKU lacks codeSigning
    TsaWithoutTimeStamping,    // TSA certificate's EKU has codeSigning instead
    ThreeCerts,                // leaf, CA and TSA certificates embedded
    NoSigner,                  // SignedData without SignerInfo
    ChangedContent,            // one byte of the content changed after signing
    Garbage,                   // the signature file is not DER at all
};
inline constexpr Fault kAllFaults[] = {Fault::None,
                                       Fault::NoTimestamp,
                                       Fault::ImprintOverContent,
                                       Fault::TamperedSignedAttr,
                                       Fault::SignerWithoutCodeSigning,
                                       Fault::TsaWithoutTimeStamping,
                                       Fault::ThreeCerts,
                                       Fault::NoSigner,
                                       Fault::ChangedContent,
                                       Fault::Garbage};
std::string_view FaultName(Fault fault);  // "none", "no-timestamp", ...

// The package the demo hierarchy signs: pki.leaf signs `content` (SHA-256,
// signed attributes, leaf and CA certificates embedded), pki.tsa stamps the
// signature (reproducible Cms maker, ESSCertIDv2, TSA certificate embedded),
// then `fault` spoils it.
Package MakePackage(const DemoPki &pki, Fault fault, std::span<const uint8_t> content);

// Writes a complete demo package into outDir (created if missing): what
// WriteDemoPki writes, the payload files "kernel.img", "rootfs.img" and
// "upgrade.sh", "sha256sums" listing them with its signature "sha256sums.p7s" (DER)
// and "sha256sums.p7s.pem" (CMS armour), "sha256sums.tampered" (one byte
// changed), "crls+ca.pem" (root CRL, CA CRL and the CA certificate), and
// "faults/NAME/sha256sums" with "faults/NAME/sha256sums.p7s" for every Fault
// but None. Returns the file names, relative to outDir.
std::vector<std::string> WriteDemoPackage(const DemoPki &pki, const std::filesystem::path &outDir);

// Signs an existing file the way MakePackage(Fault::None) signs its content
// (the file is mapped, not copied; at most INT_MAX bytes) and writes into
// outDir (created if missing) "content.p7s" (DER), "crls+ca.pem" as
// WriteDemoPackage writes it, and what OpenSSL's command line needs for the
// same checks: "root.pem", "ca.pem", "tsa.pem", the bare timestamp token
// "token.der" and the signer's signature value "sigvalue.bin", whose digest
// the token's imprint holds. Returns the file names, relative to outDir.
std::vector<std::string> WriteDemoSignature(const DemoPki &pki,
                                            const std::filesystem::path &content,
                                            const std::filesystem::path &outDir);

// ---- chains of any depth ----------------------------------------------------

// Most certificates below the root that WriteChainPackage puts on a path: a
// CRL file takes at most 11 CA certificates.
inline constexpr int kMaxChainDepth = 12;

// Writes a valid package whose signer and time-stamping authority each sit
// `depth` certificates below the demo root (1..kMaxChainDepth): root ->
// depth-1 intermediate CAs -> code-signing leaf and TSA, signed and stamped
// as the demo package is, into outDir (created if missing): "sha256sums",
// "sha256sums.p7s" (leaf and last CA embedded) and "crls+ca.pem" (an empty
// CRL of the root and of every CA, then every CA certificate). Depth 2 has
// the shape of the demo package. Returns the file names, relative to outDir.
// With `ecdsa`, every key below the root is EC (CAs and TSA P-384, the
// signer P-256), so everything below the root's own signatures is ECDSA.
std::vector<std::string> WriteChainPackage(int depth, const std::filesystem::path &outDir,
                                           const std::filesystem::path &keyDir = DefaultKeyDir(),
                                           bool ecdsa = false);

// ---- the differential path target's pool ------------------------------------

// Certificates and CRLs of one hierarchy under "Root" with a case for each
// rule of path validation and revocation (re-keyed CA, an indirect CRL
// authority, scoped, expired, later and v1 CRLs, revocations before and
// after 2025-06-01 with several reasons, critical extensions, a path
// length, a 1024-bit CA), for fuzz/fuzz_diff_path.cpp. Names are
// "cert-NN-what" and "crl-SV-what", S a letter naming the CRL's signer and
// V the variant; the same certificates on every run except the 1024-bit CA
// and its leaf, whose key is new.
struct PoolItem {
    std::string name;
    Bytes der;
};
std::vector<PoolItem> MakePathPool(const std::filesystem::path &keyDir = DefaultKeyDir());

}  // namespace testpki
