// testpki: test PKI material made through real OpenSSL, every field exactly as
// given (valid or not); failures throw Error with the OpenSSL reason.
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
#include <type_traits>
#include <vector>

namespace testpki {

using Bytes = std::vector<uint8_t>;

class Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Owned<X509_free> owns an X509.
template <auto FreeFn>
struct Deleter {
    void operator()(auto *p) const { FreeFn(p); }
};
template <typename R, typename T>
T *FreedBy(R (*)(T *));
template <auto FreeFn>
using Owned = std::unique_ptr<std::remove_pointer_t<decltype(FreedBy(FreeFn))>, Deleter<FreeFn>>;
using X509Ptr = Owned<X509_free>;
using X509CrlPtr = Owned<X509_CRL_free>;
using PkeyPtr = Owned<EVP_PKEY_free>;

// A shared handle to a private key (copies share one EVP_PKEY).
class Key {
  public:
    Key() = default;
    explicit Key(PkeyPtr pkey) : pkey_(std::move(pkey)) {}
    static Key GenerateRsa(int bits);
    // A copy written with a compressed point and/or explicit curve parameters.
    Key EcForm(bool compressed, bool explicitParams) const;

    explicit operator bool() const { return pkey_ != nullptr; }
    EVP_PKEY *get() const { return pkey_.get(); }
    Bytes PublicKeyDer() const;  // SubjectPublicKeyInfo
    Bytes KeyId() const;         // SHA-1 of the subjectPublicKey bits

  private:
    std::shared_ptr<EVP_PKEY> pkey_;
};

std::filesystem::path DefaultKeyDir();  // tests/keys, compiled in
// Loads DIR/NAME.pem, e.g. LoadTestKey("root-4096").
Key LoadTestKey(std::string_view name, const std::filesystem::path &dir = DefaultKeyDir());

// A shared certificate and its DER; get() works even for DER OpenSSL refuses.
class Cert {
  public:
    Cert() = default;
    Cert(X509Ptr x509, Bytes der) : x509_(std::move(x509)), der_(std::move(der)) {}

    explicit operator bool() const { return x509_ != nullptr; }
    X509 *get() const { return x509_.get(); }
    const Bytes &Der() const { return der_; }

  private:
    std::shared_ptr<X509> x509_;
    Bytes der_;
};

struct Credential {
    Cert cert;
    Key key;
};

enum class StrType { Printable, Utf8, Ia5 };

// Type as short name ("CN") or dotted OID; value bytes as they are.
struct Attr {
    std::string type;
    std::string value;
    StrType strType = StrType::Utf8;
};
using Rdn = std::vector<Attr>;  // more than one attribute: a multi-valued RDN
using Name = std::vector<Rdn>;  // in encoded order

// One attribute per RDN; C as PrintableString, the rest UTF8String.
Name SimpleName(std::initializer_list<std::pair<std::string, std::string>> attrs);

enum class TimeType { Utc, Generalized };
// A time written byte for byte, e.g. "20250101000000.5Z" or "2501010000+0100".
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
Time TimeAt(int64_t epochSeconds);  // UTCTime for 1950..2049 (RFC 5280)
// Seconds since 1970 as OpenSSL reads the time; throws if it cannot.
int64_t EpochOf(const Time &time);

enum class Digest { Sha1, Sha256, Sha384, Sha512 };
// Minimal two's-complement content octets of a non-negative integer.
Bytes SerialFromU64(uint64_t value);

struct BasicConstraints {
    bool ca = true;  // FALSE is the DEFAULT and so is not encoded
    std::optional<unsigned> pathLen;
    bool critical = true;
};

// Key usage bits of the first octet.
namespace ku {
inline constexpr uint8_t kDigitalSignature = 0x80;
inline constexpr uint8_t kKeyCertSign = 0x04;
inline constexpr uint8_t kCrlSign = 0x02;
}  // namespace ku

// A critical extension; the BIT STRING's octets after the unused-bits octet.
struct KeyUsage {
    Bytes octets;
    uint8_t unusedBits = 0;
    static KeyUsage Of(uint8_t first);  // with minimal DER's unused bits
    static KeyUsage Of(uint8_t first, uint8_t second);
};

// Purposes in order, as short names ("codeSigning") or dotted OIDs.
struct ExtKeyUsage {
    std::vector<std::string> purposes;
    bool critical = false;
};

// Any extension (an OID may repeat); value is extnValue's content.
struct RawExtension {
    std::string oid;
    bool critical = false;
    Bytes value;
};

// Extensions are written in member order, then the extras.
struct CertSpec {
    Key subjectKey;                    // required
    std::optional<Credential> issuer;  // none: self-signed with subjectKey
    Name subject = SimpleName({{"CN", "testpki"}});
    std::optional<Name> issuerName;  // default: the issuer's subject
    Bytes serial = {0x01};           // INTEGER content octets, as given
    int version = 3;                 // 1 leaves out the version field
    Time notBefore = Utc("240101000000Z");
    Time notAfter = Utc("491231235959Z");
    std::optional<BasicConstraints> basicConstraints;
    std::optional<KeyUsage> keyUsage;
    std::optional<ExtKeyUsage> extKeyUsage;
    bool subjectKeyId = false;    // from subjectKey
    bool authorityKeyId = false;  // from the signing key
    std::vector<RawExtension> extraExtensions;
    Digest digest = Digest::Sha256;
    bool pss = false;  // RSASSA-PSS with a salt as long as the digest
};

Cert IssueCert(const CertSpec &plan);
Credential IssueCredential(const CertSpec &plan);

struct RevokedEntry {
    Bytes serial;
    Time date = Utc("250101000000Z");
    std::optional<int> reason;  // CRLReason entry extension
    // Name DER of an indirect CRL's certificateIssuer (holds for later entries)
    std::optional<Bytes> certificateIssuer = std::nullopt;
};

Bytes SubjectDer(const Cert &cert);
// A cRLDistributionPoints value with one point whose cRLIssuer is this Name.
Bytes CrlIssuerPoint(const Bytes &crlIssuer);

// A critical extension.
struct IssuingDistPoint {
    std::optional<std::string> uri;  // distributionPoint fullName
    bool onlyUserCerts = false;
    bool onlyCaCerts = false;
    bool indirectCrl = false;
    bool onlyAttributeCerts = false;
};

// Named as the issuer certificate's subject and signed with SHA-256.
struct CrlSpec {
    Credential issuer;  // required
    int version = 2;    // 1 leaves out the version field
    Time thisUpdate = Utc("240601000000Z");
    std::optional<Time> nextUpdate = Utc("491231235959Z");
    std::vector<RevokedEntry> revoked;  // in this order
    std::optional<Bytes> crlNumber = Bytes{0x01};
    std::optional<IssuingDistPoint> issuingDistPoint;
    std::vector<RawExtension> extraExtensions;
    bool pss = false;
};

Bytes MakeCrl(const CrlSpec &plan);

inline constexpr std::string_view kPemCertificate = "CERTIFICATE";
inline constexpr std::string_view kPemCrl = "X509 CRL";
std::string ToPem(std::string_view label, std::span<const uint8_t> der);

struct PemBlock {
    std::string label;
    Bytes der;
};
std::string PemBundle(const std::vector<PemBlock> &blocks);
Bytes ConcatDer(const std::vector<Bytes> &items);

void WriteFile(const std::filesystem::path &file, std::span<const uint8_t> data);
void WriteFile(const std::filesystem::path &file, std::string_view text);

namespace der {
Bytes Tlv(uint8_t tag, std::span<const uint8_t> content);
Bytes Seq(const std::vector<Bytes> &items);
Bytes Oid(const std::string &text);  // short name or dotted form
Bytes OctetString(std::span<const uint8_t> content);
Bytes Boolean(bool value);
Bytes Integer(std::span<const uint8_t> content);  // content octets as given

// The front element's children (whole) and content; throw if it is malformed.
std::vector<Bytes> Children(std::span<const uint8_t> in);
Bytes Content(std::span<const uint8_t> in);
}  // namespace der

// Signed by the CMS API, reproducible; pkg_sign's tests cover TS API tokens.
enum class TokenMaker { Cms };

// The ESS signing-certificate attribute: v1 (SHA-1) or v2 (SHA-256).
enum class TokenAttrs { EssCertId, EssCertIdV2 };

// TSTInfo of one policy and serial 1.
struct TimestampSpec {
    Credential tsa;                           // required
    std::string genTime = "20260115120000Z";  // GeneralizedTime content, as given
    Digest imprintDigest = Digest::Sha256;
    std::optional<Bytes> imprintOver;  // default: the signer's signature value
    Digest digest = Digest::Sha256;    // of the TSA's own signature
    TokenAttrs attrs = TokenAttrs::EssCertIdV2;
    bool embedTsaCert = true;
    TokenMaker maker = TokenMaker::Cms;
    bool noSigner = false;        // a SignedData without SignerInfo
    std::optional<Cert> essCert;  // named by the ESS attribute; default: tsa's
    bool pss = false;
};

struct SignSpec {
    Credential signer;  // required unless noSigner
    Digest digest = Digest::Sha256;
    bool signedAttrs = true;  // content type, signing time (a fixed one), message digest
    std::vector<Cert> certs;  // embedded in this order, not sorted
    bool noSigner = false;    // a SignedData without SignerInfo
    std::optional<TimestampSpec> timestamp;  // imprint over the signature value
    bool tamperSignedAttr = false;           // signing time changed after signing
    bool pss = false;
};

// A detached SignedData over `content`.
Bytes MakeSignedData(const SignSpec &plan, std::span<const uint8_t> content);
// Of the only signer (throw without one); the token is empty when there is none.
Bytes SignatureValueOf(std::span<const uint8_t> signedData);
Bytes TimestampTokenOf(std::span<const uint8_t> signedData);

enum class Armour { Der, PemCms };
Bytes Armoured(std::span<const uint8_t> der, Armour armour);

// The root built into the tool, from root-4096: the same 1363 bytes every run.
Credential MakeDemoRoot(const std::filesystem::path &keyDir = DefaultKeyDir());

// Demo root -> CA -> code-signing leaf and TSA, with a CRL of root and CA.
struct DemoPki {
    Credential root, ca, leaf, tsa;
    Bytes rootCrl, caCrl;
};
DemoPki MakeDemoPki(const std::filesystem::path &keyDir = DefaultKeyDir());
// Each item as NAME.der and NAME.pem, both CRLs as crls.der and crls.pem.
std::vector<std::string> WriteDemoPki(const DemoPki &pki, const std::filesystem::path &outDir);

// A checksum file as a package producer ships it ("HEX  NAME" lines).
std::string DemoChecksums();

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

// pki.leaf signs `content` (leaf and CA embedded), pki.tsa stamps it, `fault` spoils it.
Package MakePackage(const DemoPki &pki, Fault fault, std::span<const uint8_t> content);

}  // namespace testpki
