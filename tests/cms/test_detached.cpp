// Detached signature verification with its mandatory timestamp: packages
// signed and stamped by the demo hierarchy through OpenSSL (testpki), spoiled
// one way per row, each verified twice: through Begin, Update and Final on
// bytes, and through Quick on files.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cms/dorvex.h"
#include "cms/pki/pki.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/cms_fixture.h"
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;
using tp::Bytes;

using vt_test::CtxPtr;
using vt_test::Logged;
using vt_test::Pki;
using vt_test::Text;

// Empty, but with storage: OpenSSL's memory BIO refuses a null pointer.
Bytes Empty() {
    Bytes empty;
    empty.reserve(1);
    return empty;
}

const Bytes &Checksums() {
    static const Bytes content = Text(tp::DemoChecksums());
    return content;
}

struct TempDir {
    std::filesystem::path path;
    TempDir() {
        char templ[] = "/tmp/detached-XXXXXX";
        path = mkdtemp(templ);
    }
    ~TempDir() { std::filesystem::remove_all(path); }
};

// Trust material beside the signature: the demo root as trusted
// certificate, then a CRL file with the root's CRL, the CA's CRL (unless
// none) and the CA certificate, optionally also the root certificate.
struct Trust {
    std::optional<Bytes> caCrl = Pki().caCrl;
    bool rootInCrlFile = false;
    Bytes rootCrl = Pki().rootCrl;
    tp::Cert caCert = Pki().ca.cert;  // the CA certificate the CRL file carries
};

CtxPtr NewCtx(const Trust &trust = {}) {
    const Bytes &root = Pki().root.cert.Der();
    CtxPtr ctx = vt_test::NewCtx(&root);
    std::vector<tp::PemBlock> blocks = {{"X509 CRL", trust.rootCrl},
                                        {"CERTIFICATE", trust.caCert.Der()}};
    if (trust.caCrl) {
        blocks.push_back({"X509 CRL", *trust.caCrl});
    }
    if (trust.rootInCrlFile) {
        blocks.push_back({"CERTIFICATE", root});
    }
    const Bytes crls = Text(tp::PemBundle(blocks));
    EXPECT_EQ(DorvexVerifyAddCrl(ctx.get(), crls.data(), static_cast<uint32_t>(crls.size())),
              DORVEX_OK);
    return ctx;
}

// The demo signing plan of MakePackage, open to one change.
tp::Package Signed(const std::function<void(tp::SignSpec &)> &change = {},
                   const Bytes &content = Checksums()) {
    tp::SignSpec plan;
    plan.signer = Pki().leaf;
    plan.certs = {Pki().leaf.cert, Pki().ca.cert};
    tp::TimestampSpec stamp;
    stamp.tsa = Pki().tsa;
    stamp.maker = tp::TokenMaker::Cms;
    plan.timestamp = stamp;
    if (change) {
        change(plan);
    }
    return {content, tp::MakeSignedData(plan, content)};
}

// Content over two read pieces of Quick and a part of a third, no two
// pieces alike, so a piece dropped, repeated or cut short breaks the match.
Bytes Pieces() {
    Bytes content(2 * DORVEX_CONTENT_PIECE_SIZE + 100);
    for (size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<uint8_t>(i * 31 + (i >> 12));
    }
    return content;
}

tp::Package Fault(tp::Fault fault) {
    return tp::MakePackage(Pki(), fault, Checksums());
}

tp::Package Armoured(tp::Armour armour) {
    tp::Package p = Fault(tp::Fault::None);
    p.signature = tp::Armoured(p.signature, armour);
    return p;
}

// An end entity of the demo CA (or of `issuer`) with the key and purpose
// given, open to one change.
tp::Credential EndEntity(const tp::Credential &key, const char *purpose,
                         const std::function<void(tp::CertSpec &)> &change = {},
                         const tp::Credential &issuer = Pki().ca) {
    tp::CertSpec plan;
    plan.subjectKey = key.key;
    plan.issuer = issuer;
    plan.subject = tp::SimpleName({{"CN", std::string("Other ") + purpose}});
    plan.serial = {0x10, 0x05};
    plan.keyUsage = tp::KeyUsage::Of(tp::ku::kDigitalSignature);
    plan.extKeyUsage = tp::ExtKeyUsage{{purpose}, true};
    if (change) {
        change(plan);
    }
    return tp::IssueCredential(plan);
}

// A committed test key, as a credential without a certificate yet.
tp::Credential KeyOf(const char *name) {
    return tp::Credential{{}, tp::LoadTestKey(name)};
}

// The package signed by another leaf (embedded in the leaf's place).
tp::Package SignedBy(const tp::Credential &leaf, const char *genTime = "20260115120000Z") {
    return Signed([&](tp::SignSpec &p) {
        p.signer = leaf;
        p.certs[0] = leaf.cert;
        p.timestamp->genTime = genTime;
    });
}

// A code-signing leaf of the demo CA with other dates, stamped at genTime.
tp::Package LeafAt(const char *notBefore, const char *notAfter, const char *genTime) {
    return SignedBy(EndEntity(Pki().leaf, "codeSigning",
                              [&](tp::CertSpec &s) {
                                  s.notBefore = tp::Utc(notBefore);
                                  s.notAfter = tp::Utc(notAfter);
                              }),
                    genTime);
}

// The package stamped by another TSA certificate of the TSA key.
tp::Package StampedBy(const std::function<void(tp::CertSpec &)> &change) {
    const tp::Credential tsa = EndEntity(Pki().tsa, "timeStamping", change);
    return Signed([&](tp::SignSpec &p) { p.timestamp->tsa = tsa; });
}

// A CA certificate of the demo CA's name and key, open to one change.
tp::Cert CaTwin(const std::function<void(tp::CertSpec &)> &change) {
    tp::CertSpec plan;
    plan.subjectKey = Pki().ca.key;
    plan.issuer = Pki().root;
    plan.subject =
        tp::SimpleName({{"C", "DE"}, {"O", "Dorvex Test PKI"}, {"CN", "Test Intermediate CA"}});
    plan.serial = {0x02, 0x01};
    plan.basicConstraints = tp::BasicConstraints{};
    plan.keyUsage = tp::KeyUsage::Of(tp::ku::kKeyCertSign | tp::ku::kCrlSign);
    change(plan);
    return tp::IssueCert(plan);
}

// The signature with its SignedData fields and its SignerInfo fields edited
// and encoded again; the signature value stays, so only checks made before
// it can tell.
using Fields = std::vector<Bytes>;
tp::Package Edited(const std::function<void(Fields &signedData, Fields &signer)> &edit) {
    tp::Package p = Fault(tp::Fault::None);
    const Fields top = tp::der::Children(p.signature);
    Fields signedData = tp::der::Children(tp::der::Content(top[1]));
    Fields signer = tp::der::Children(tp::der::Children(signedData.back())[0]);
    edit(signedData, signer);
    signedData.back() = tp::der::Tlv(0x31, tp::der::Seq(signer));
    p.signature = tp::der::Seq({top[0], tp::der::Tlv(0xA0, tp::der::Seq(signedData))});
    return p;
}

// The same with the signed attributes ([0], the fourth field) edited.
tp::Package AttrsEdited(const std::function<void(Fields &attrs)> &edit) {
    return Edited([&](Fields &, Fields &signer) {
        Fields attrs = tp::der::Children(signer[3]);
        edit(attrs);
        signer[3] = tp::der::Tlv(0xA0, tp::ConcatDer(attrs));
    });
}

// The attribute of `oid` (content octets' dotted form) among `attrs`.
Bytes &Attr(Fields &attrs, const char *oid) {
    const Bytes wanted = tp::der::Oid(oid);
    for (Bytes &attr : attrs) {
        if (tp::der::Children(attr)[0] == wanted) {
            return attr;
        }
    }
    throw std::runtime_error("no such attribute");
}
constexpr const char *kContentType = "1.2.840.113549.1.9.3";
constexpr const char *kMessageDigest = "1.2.840.113549.1.9.4";

// The CA's CRL with these entries, or with other dates.
Bytes CaCrl(std::vector<tp::RevokedEntry> revoked, const char *thisUpdate = "240601000000Z",
            const char *nextUpdate = "491231235959Z") {
    tp::CrlSpec plan;
    plan.issuer = Pki().ca;
    plan.revoked = std::move(revoked);
    plan.thisUpdate = tp::Utc(thisUpdate);
    plan.nextUpdate = tp::Utc(nextUpdate);
    return tp::MakeCrl(plan);
}
// A CRL of the CA (or the root) listing nothing, open to one change.
Bytes CrlWith(const std::function<void(tp::CrlSpec &)> &change, bool ofRoot = false) {
    tp::CrlSpec plan;
    plan.issuer = ofRoot ? Pki().root : Pki().ca;
    change(plan);
    return tp::MakeCrl(plan);
}
// A CRL limited to CA certificates (or to user certificates).
Bytes ScopedCrl(bool onlyCa, bool ofRoot) {
    return CrlWith(
        [&](tp::CrlSpec &c) {
            c.issuingDistPoint.emplace();
            c.issuingDistPoint->onlyCaCerts = onlyCa;
            c.issuingDistPoint->onlyUserCerts = !onlyCa;
        },
        ofRoot);
}
const Bytes kLeafSerial = {0x10, 0x01};

// The CA's CRL with `n` entries for other serials, and the leaf's among them
// when asked (keyCompromise, before genTime).
Bytes LongCaCrl(uint32_t n, bool withLeaf) {
    tp::CrlSpec plan;
    plan.issuer = Pki().ca;
    plan.revoked.reserve(n + 1);
    for (uint32_t i = 0; i < n; ++i) {
        plan.revoked.push_back({tp::SerialFromU64(0x100000 + i), tp::Utc("250101000000Z"), {}});
    }
    if (withLeaf) {
        plan.revoked.insert(plan.revoked.begin() + n / 2,
                            {kLeafSerial, tp::Utc("250101000000Z"), 1});
    }
    return tp::MakeCrl(plan);
}
const Bytes kTsaSerial = {0x10, 0x02};
constexpr int kKeyCompromise = 1;
constexpr int kSuperseded = 4;

struct Row {
    const char *name;
    std::function<tp::Package()> make;
    uint32_t begin;  // Begin's code (Quick returns it too)
    uint32_t result = 1;
    Trust trust = {};
    uint32_t update = DORVEX_OK;  // Update's code after a successful Begin
};

TEST(DetachedSignature, VerifiesByStreamAndByFiles) {
    const Row rows[] = {
        {"valid DER", [] { return Fault(tp::Fault::None); }, DORVEX_OK},
        {"content of several read pieces",
         [] { return tp::MakePackage(Pki(), tp::Fault::None, Pieces()); }, DORVEX_OK},
        {"PEM CMS armour", [] { return Armoured(tp::Armour::PemCms); }, DORVEX_OK},
        {"PEM PKCS7 armour", [] { return Armoured(tp::Armour::PemPkcs7); }, DORVEX_OK},
        {"SHA-384", [] { return Signed([](auto &p) { p.digest = tp::Digest::Sha384; }); },
         DORVEX_OK},
        {"SHA-512, imprint SHA-384",
         [] {
             return Signed([](auto &p) {
                 p.digest = tp::Digest::Sha512;
                 p.timestamp->imprintDigest = tp::Digest::Sha384;
                 p.timestamp->digest = tp::Digest::Sha512;
             });
         },
         DORVEX_OK},
        {"no signed attributes: content signed directly",
         [] { return Signed([](auto &p) { p.signedAttrs = false; }); }, DORVEX_OK},
        {"no signed attributes, changed content",
         [] {
             tp::Package p = Signed([](auto &s) { s.signedAttrs = false; });
             p.content.back() ^= 0x01;
             return p;
         },
         DORVEX_OK, 0},
        {"token signed without attributes: a TSTInfo is no id-data",
         [] { return Signed([](auto &p) { p.timestamp->attrs = tp::TokenAttrs::None; }); },
         DORVEX_ERR_PKCS7_DECODE, 0},
        {"token without signer: its time would be anyone's",
         [] { return Signed([](auto &p) { p.timestamp->noSigner = true; }); },
         DORVEX_ERR_TS_SIGNATURE, 0},
        {"token with ESS v1 (SHA-1 certificate hash)",
         [] { return Signed([](auto &p) { p.timestamp->attrs = tp::TokenAttrs::EssCertId; }); },
         DORVEX_OK},
        {"token with ESS v2 naming its SHA-512 hash",
         [] { return Signed([](auto &p) { p.timestamp->essDigest = tp::Digest::Sha512; }); },
         DORVEX_OK},
        {"token's ESS v1 names another certificate",
         [] {
             return Signed([](auto &p) {
                 p.timestamp->attrs = tp::TokenAttrs::EssCertId;
                 p.timestamp->essCert = Pki().ca.cert;
             });
         },
         DORVEX_ERR_TS_CERT_NOT_FOUND, 0},
        {"token without its authority's certificate",
         [] { return Signed([](auto &p) { p.timestamp->embedTsaCert = false; }); },
         DORVEX_ERR_TS_CERT_NOT_FOUND, 0},
        {"token's ESS v2 names another certificate",
         [] { return Signed([](auto &p) { p.timestamp->essCert = Pki().leaf.cert; }); },
         DORVEX_ERR_TS_CERT_NOT_FOUND, 0},
        {"TSA usage not critical",
         [] { return StampedBy([](auto &s) { s.extKeyUsage->critical = false; }); },
         DORVEX_ERR_CERT_USAGE, 0},
        {"TSA usage not alone",
         [] {
             return StampedBy([](auto &s) {
                 s.extKeyUsage->purposes = {"timeStamping", "codeSigning"};
             });
         },
         DORVEX_ERR_CERT_USAGE, 0},
        {"signer: keyAgreement and decipherOnly is no digitalSignature",
         [] {
             return SignedBy(EndEntity(Pki().leaf, "codeSigning", [](auto &s) {
                 s.keyUsage =
                     tp::KeyUsage::Of(tp::ku::kKeyAgreement, tp::ku::kDecipherOnlySecondOctet);
             }));
         },
         DORVEX_ERR_CERT_USAGE, 0},
        {"signer key of 2049 bits",
         [] { return SignedBy(EndEntity(KeyOf("rsa-2049"), "codeSigning")); }, DORVEX_OK},
        {"signer key of 3072 bits",
         [] { return SignedBy(EndEntity(KeyOf("rsa-3072"), "codeSigning")); }, DORVEX_OK},
        {"signer key of 8192 bits",
         [] { return SignedBy(EndEntity(KeyOf("rsa-8192"), "codeSigning")); }, DORVEX_OK},
        {"ECDSA P-256 signer under the RSA CA",
         [] { return SignedBy(EndEntity(KeyOf("ec-p256"), "codeSigning")); }, DORVEX_OK},
        {"ECDSA P-256 signer, changed content",
         [] {
             tp::Package p = SignedBy(EndEntity(KeyOf("ec-p256"), "codeSigning"));
             p.content.back() ^= 0x01;
             return p;
         },
         DORVEX_OK, 0},
        {"ECDSA signer without signed attributes, changed content",
         [] {
             const tp::Credential leaf = EndEntity(KeyOf("ec-p256"), "codeSigning");
             tp::Package p = Signed([&](tp::SignSpec &s) {
                 s.signer = leaf;
                 s.certs[0] = leaf.cert;
                 s.signedAttrs = false;
             });
             p.content.back() ^= 0x01;
             return p;
         },
         DORVEX_OK, 0},
        {"RSASSA-PSS signer and token",
         [] { return Signed([](auto &p) { p.pss = true, p.timestamp->pss = true; }); }, DORVEX_OK},
        {"RSASSA-PSS signer, changed content",
         [] {
             tp::Package p = Signed([](auto &s) { s.pss = true; });
             p.content.back() ^= 0x01;
             return p;
         },
         DORVEX_OK, 0},
        {"P-384 authority, SHA-384 token",
         [] {
             const tp::Credential tsa = EndEntity(KeyOf("ec-p384"), "timeStamping");
             return Signed([&](tp::SignSpec &p) {
                 p.timestamp->tsa = tsa;
                 p.timestamp->digest = tp::Digest::Sha384;
             });
         },
         DORVEX_OK},
        {"P-384 authority, token's signature value changed",
         [] {
             const tp::Credential tsa = EndEntity(KeyOf("ec-p384"), "timeStamping");
             tp::Package p = Signed([&](tp::SignSpec &s) { s.timestamp->tsa = tsa; });
             const Bytes value = tp::SignatureValueOf(tp::TimestampTokenOf(p.signature));
             auto at =
                 std::search(p.signature.begin(), p.signature.end(), value.begin(), value.end());
             at[static_cast<std::ptrdiff_t>(value.size()) - 1] ^= 0x01;
             return p;
         },
         DORVEX_ERR_SIGNATURE, 0},
        {"ECDSA label on the RSA signer",
         [] {
             return Edited([](Fields &, Fields &signer) {
                 signer[4] = tp::der::Seq({tp::der::Oid("1.2.840.10045.4.3.2")});
             });
         },
         DORVEX_ERR_SIGN_ALG, 0},
        {"ECDSA label naming another digest than the signer's",
         [] {
             return Edited([](Fields &, Fields &signer) {
                 signer[4] = tp::der::Seq({tp::der::Oid("1.2.840.10045.4.3.3")});
             });
         },
         DORVEX_ERR_SIGN_ALG, 0},
        {"no signed attributes, signer key of 8192 bits",
         [] {
             const tp::Credential leaf = EndEntity(KeyOf("rsa-8192"), "codeSigning");
             return Signed([&](tp::SignSpec &p) {
                 p.signer = leaf;
                 p.certs[0] = leaf.cert;
                 p.signedAttrs = false;
             });
         },
         DORVEX_OK},
        {"signer key of 1024 bits",
         [] { return SignedBy(EndEntity(KeyOf("rsa-1024"), "codeSigning")); },
         DORVEX_ERR_PUBKEY_TOO_SHORT, 0},
        {"signer: code signing listed second",
         [] {
             return SignedBy(EndEntity(Pki().leaf, "codeSigning", [](auto &s) {
                 s.extKeyUsage->purposes = {"serverAuth", "codeSigning"};
             }));
         },
         DORVEX_OK},
        {"signer with an unknown critical extension",
         [] {
             return SignedBy(EndEntity(Pki().leaf, "codeSigning", [](auto &s) {
                 s.extraExtensions = {{"1.3.6.1.4.1.99999.7", true, tp::der::Boolean(true)}};
             }));
         },
         DORVEX_ERR_CERT_CRITICAL_EXT, 0},
        {"CA with an unknown critical extension",
         [] { return Signed([](auto &p) { p.certs = {Pki().leaf.cert}; }); },
         DORVEX_ERR_CERT_CRITICAL_EXT, 0,
         Trust{.caCert = CaTwin([](auto &s) {
                   s.extraExtensions = {{"1.3.6.1.4.1.99999.7", true, tp::der::Boolean(true)}};
               })}},
        {"CA of path length 0 above a sub-CA",
         [] {
             tp::CertSpec sub;
             sub.subjectKey = Pki().tsa.key;
             sub.issuer = Pki().ca;
             sub.subject = tp::SimpleName({{"CN", "Sub CA"}});
             sub.serial = {0x20};
             sub.basicConstraints = tp::BasicConstraints{};
             sub.keyUsage = tp::KeyUsage::Of(tp::ku::kKeyCertSign | tp::ku::kCrlSign);
             const tp::Credential subCa = tp::IssueCredential(sub);
             const tp::Credential leaf = EndEntity(Pki().leaf, "codeSigning", {}, subCa);
             return Signed([&](tp::SignSpec &p) {
                 p.signer = leaf;
                 p.certs = {leaf.cert, subCa.cert};
             });
         },
         DORVEX_ERR_PATH_TOO_DEEP, 0},
        {"two content types",
         [] { return AttrsEdited([](Fields &a) { a.push_back(Attr(a, kContentType)); }); },
         DORVEX_ERR_PKCS7_DECODE, 0},
        {"two message digests",
         [] { return AttrsEdited([](Fields &a) { a.push_back(Attr(a, kMessageDigest)); }); },
         DORVEX_ERR_PKCS7_DECODE, 0},
        {"message digest with two values",
         [] {
             return AttrsEdited([](Fields &a) {
                 Bytes &md = Attr(a, kMessageDigest);
                 const Fields parts = tp::der::Children(md);
                 const Bytes value = tp::der::Children(parts[1])[0];
                 md = tp::der::Seq({parts[0], tp::der::Tlv(0x31, tp::ConcatDer({value, value}))});
             });
         },
         DORVEX_ERR_CMS_DECODE, 0},
        {"content type attribute names other content",
         [] {
             return AttrsEdited([](Fields &a) {
                 Attr(a, kContentType) =
                     tp::der::Seq({tp::der::Oid(kContentType),
                                   tp::der::Tlv(0x31, tp::der::Oid("1.2.840.113549.1.9.16.1.4"))});
             });
         },
         DORVEX_ERR_PKCS7_DECODE, 0},
        {"detached signature carrying content",
         [] {
             return Edited([](Fields &sd, Fields &) {
                 sd[2] = tp::der::Seq({tp::der::Oid("1.2.840.113549.1.7.1"),
                                       tp::der::Tlv(0xA0, tp::der::OctetString(Checksums()))});
             });
         },
         DORVEX_ERR_PKCS7_DECODE, 0},
        {"signature label ECDSA on an RSA key",
         [] {
             return Edited([](Fields &, Fields &si) {
                 si[4] = tp::der::Seq({tp::der::Oid("1.2.840.10045.4.3.2")});
             });
         },
         DORVEX_ERR_SIGN_ALG, 0},
        {"signature label SHA-384 beside a SHA-256 digest",
         [] {
             return Edited([](Fields &, Fields &si) {
                 si[4] = tp::der::Seq({tp::der::Oid("1.2.840.113549.1.1.12")});
             });
         },
         DORVEX_ERR_SIGN_ALG, 0},
        {"signature label RSA with the digest's SHA-256",
         [] {
             tp::Package p = Edited([](Fields &, Fields &si) {
                 si[4] = tp::der::Seq({tp::der::Oid("1.2.840.113549.1.1.11")});
             });
             return p;
         },
         DORVEX_OK},
        {"signature over empty content", [] { return Signed({}, Empty()); }, DORVEX_OK},
        {"changed content byte", [] { return Fault(tp::Fault::ChangedContent); }, DORVEX_OK, 0},
        {"no timestamp", [] { return Fault(tp::Fault::NoTimestamp); }, DORVEX_ERR_PARAM, 0},
        {"signer without code signing", [] { return Fault(tp::Fault::SignerWithoutCodeSigning); },
         DORVEX_ERR_CERT_USAGE, 0},
        {"TSA without time stamping", [] { return Fault(tp::Fault::TsaWithoutTimeStamping); },
         DORVEX_ERR_CERT_USAGE, 0},
        {"imprint over content", [] { return Fault(tp::Fault::ImprintOverContent); },
         DORVEX_ERR_TS_MISMATCH, 0},
        {"tampered signed attribute", [] { return Fault(tp::Fault::TamperedSignedAttr); },
         DORVEX_ERR_SIGNATURE, 0},
        {"signer certificate not carried",
         [] { return Signed([](auto &p) { p.certs = {Pki().ca.cert}; }); },
         DORVEX_ERR_SIGNER_CERT_NOT_FOUND, 0},
        {"signer expired now, valid at genTime",
         [] { return LeafAt("250101000000Z", "250630000000Z", "20250601120000Z"); }, DORVEX_OK},
        {"genTime before the signer's notBefore",
         [] { return LeafAt("250101000000Z", "250630000000Z", "20241201120000Z"); },
         DORVEX_ERR_CERT_NOT_YET_VALID, 0},
        {"leaf revoked before genTime", [] { return Fault(tp::Fault::None); },
         DORVEX_ERR_CERT_REVOKED, 0,
         Trust{CaCrl({{kLeafSerial, tp::Utc("250101000000Z"), kKeyCompromise}})}},
        {"leaf revoked after genTime: judged by date", [] { return Fault(tp::Fault::None); },
         DORVEX_OK, 1, Trust{CaCrl({{kLeafSerial, tp::Utc("260201000000Z"), kKeyCompromise}})}},
        {"TSA revoked after genTime, key compromise: strict", [] { return Fault(tp::Fault::None); },
         DORVEX_ERR_CERT_REVOKED, 0,
         Trust{CaCrl({{kTsaSerial, tp::Utc("260201000000Z"), kKeyCompromise}})}},
        {"TSA superseded after genTime", [] { return Fault(tp::Fault::None); }, DORVEX_OK, 1,
         Trust{CaCrl({{kTsaSerial, tp::Utc("260201000000Z"), kSuperseded}})}},
        {"TSA superseded before genTime", [] { return Fault(tp::Fault::None); },
         DORVEX_ERR_CERT_REVOKED, 0,
         Trust{CaCrl({{kTsaSerial, tp::Utc("250101000000Z"), kSuperseded}})}},
        {"CA's CRL missing", [] { return Fault(tp::Fault::None); }, DORVEX_ERR_NO_CRL, 0,
         Trust{std::nullopt}},
        {"CA's CRL expired at genTime", [] { return Fault(tp::Fault::None); }, DORVEX_ERR_NO_CRL, 0,
         Trust{CaCrl({}, "250101000000Z", "250601000000Z")}},
        {"CRL file carries the root too", [] { return Fault(tp::Fault::None); }, DORVEX_OK, 1,
         Trust{Pki().caCrl, true}},
        {"CA's CRL only for CAs: says nothing of the leaf", [] { return Fault(tp::Fault::None); },
         DORVEX_ERR_NO_CRL, 0, Trust{ScopedCrl(true, false)}},
        {"root's CRL only for users: says nothing of the CA", [] { return Fault(tp::Fault::None); },
         DORVEX_ERR_NO_CRL, 0, Trust{.rootCrl = ScopedCrl(false, true)}},
        {"CA's CRL only for users", [] { return Fault(tp::Fault::None); }, DORVEX_OK, 1,
         Trust{ScopedCrl(false, false)}},
        {"CA's CRL of 21 entries", [] { return Fault(tp::Fault::None); }, DORVEX_OK, 1,
         Trust{LongCaCrl(21, false)}},
        {"CA's CRL of 1,000 entries, the leaf's among them", [] { return Fault(tp::Fault::None); },
         DORVEX_ERR_CERT_REVOKED, 0, Trust{LongCaCrl(1000, true)}},
        {"CA's CRL of 100,000 entries", [] { return Fault(tp::Fault::None); }, DORVEX_OK, 1,
         Trust{LongCaCrl(100000, false)}},
        {"CA's CRL of 100,000 entries, the leaf's among them",
         [] { return Fault(tp::Fault::None); }, DORVEX_ERR_CERT_REVOKED, 0,
         Trust{LongCaCrl(100000, true)}},
        {"CA's only CRL is a delta CRL", [] { return Fault(tp::Fault::None); }, DORVEX_ERR_NO_CRL,
         0, Trust{CrlWith([](auto &c) {
             c.extraExtensions = {{"deltaCRL", true, tp::der::Integer(Bytes{0x01})}};
         })}},
        {"garbage", [] { return Fault(tp::Fault::Garbage); }, DORVEX_ERR_CMS_DECODE, 0},
        {"37 bytes",
         [] {
             tp::Package p = Fault(tp::Fault::None);
             p.signature.resize(37);
             return p;
         },
         DORVEX_ERR_INPUT_FORMAT, 0},
        {"text before the PEM header",
         [] {
             tp::Package p = Armoured(tp::Armour::PemCms);
             p.signature.insert(p.signature.begin(), ' ');
             return p;
         },
         DORVEX_ERR_CMS_DECODE, 0},
        {"unknown PEM label",
         [] {
             tp::Package p = Fault(tp::Fault::None);
             p.signature = Text(tp::ToPem("PKCS #7 SIGNED DATA", p.signature));
             return p;
         },
         DORVEX_ERR_CMS_DECODE, 0},
        {"three certificates", [] { return Fault(tp::Fault::ThreeCerts); }, DORVEX_ERR_CMS_DECODE,
         0},
        {"no signer, content offered", [] { return Fault(tp::Fault::NoSigner); },
         DORVEX_ERR_PKCS7_DECODE, 0},
        {"no signer, empty content",
         [] { return Signed([](auto &p) { p.noSigner = true, p.timestamp.reset(); }, Empty()); },
         DORVEX_ERR_PKCS7_DECODE, 0},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        const tp::Package pkg = r.make();
        {
            CtxPtr ctx = NewCtx(r.trust);
            ASSERT_EQ(DorvexVerifyDetachSignatureBegin(ctx.get(), pkg.signature.data(),
                                                       static_cast<uint32_t>(pkg.signature.size())),
                      r.begin);
            uint32_t update = DORVEX_OK;
            // Uneven pieces, so digests see content split anywhere.
            for (size_t at = 0; r.begin == DORVEX_OK && at < pkg.content.size(); at += 77) {
                const auto n = static_cast<uint32_t>(std::min<size_t>(77, pkg.content.size() - at));
                update = DorvexVerifyDetachSignatureUpdate(ctx.get(), pkg.content.data() + at, n);
                if (update != DORVEX_OK) {
                    break;
                }
            }
            EXPECT_EQ(update, r.update);
            uint32_t result = 7;
            // Nothing pending after a failed Begin: no verdict, never a match.
            EXPECT_EQ(DorvexVerifyDetachSignatureFinal(ctx.get(), &result),
                      r.begin == DORVEX_OK ? DORVEX_OK : DORVEX_ERR_NO_PROCESS);
            EXPECT_EQ(result, r.begin == DORVEX_OK ? r.result : 0u);
            EXPECT_EQ(ctx->processes.count, 0);
        }
        TempDir dir;
        tp::WriteFile(dir.path / "content", pkg.content);
        tp::WriteFile(dir.path / "signature", pkg.signature);
        CtxPtr ctx = NewCtx(r.trust);
        uint32_t result = 7;
        const uint32_t expect = r.begin != DORVEX_OK ? r.begin : r.update;
        EXPECT_EQ(DorvexVerifyDetachSignatureQuick(ctx.get(), (dir.path / "content").c_str(),
                                                   (dir.path / "signature").c_str(), &result),
                  expect);
        EXPECT_EQ(result, expect == DORVEX_OK ? r.result : 0u);
    }
}

TEST(DetachedSignature, GenTimeBecomesTheVerificationTime) {
    const tp::Package pkg = Fault(tp::Fault::None);
    CtxPtr ctx = NewCtx();
    ASSERT_EQ(DorvexVerifyDetachSignatureBegin(ctx.get(), pkg.signature.data(),
                                               static_cast<uint32_t>(pkg.signature.size())),
              DORVEX_OK);
    EXPECT_EQ(ctx->verifyTime, tp::EpochOf(tp::Gen("20260115120000Z")));
}

// The code travels on the console line; the system log gets the text.
TEST(DetachedSignature, FailuresAndWarningsAreReportedAlongTheWay) {
    vt_test::ClearSyslog();
    const tp::Package stamped = Fault(tp::Fault::ImprintOverContent);
    testing::internal::CaptureStdout();
    CtxPtr ctx = NewCtx(Trust{Pki().caCrl, true});
    EXPECT_EQ(DorvexVerifyDetachSignatureBegin(ctx.get(), stamped.signature.data(),
                                               static_cast<uint32_t>(stamped.signature.size())),
              DORVEX_ERR_TS_MISMATCH);
    const std::string console = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(Logged("InternalAddCertToStore", "There is a root certificate"));
    EXPECT_TRUE(Logged("InternalVerifyTstInfo", "the timestamp not match with target cms."));
    for (const std::string function : {"InternalVerifyTstInfo", "InternalVerifyTimeStamp",
                                       "InternalVerifyCms", "DorvexVerifyDetachSignatureBegin"}) {
        EXPECT_TRUE(Logged(function, "")) << function;
        const size_t at = console.find("(" + function + "):");
        ASSERT_NE(at, std::string::npos) << function;
        EXPECT_EQ(console.substr(console.find('\n', at) - 15, 14), "(err:88200402)") << function;
    }
}

TEST(DetachedSignature, BeginTwiceSharesOneDigestProcess) {
    const tp::Package pkg = Fault(tp::Fault::None);
    CtxPtr ctx = NewCtx();
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(DorvexVerifyDetachSignatureBegin(ctx.get(), pkg.signature.data(),
                                                   static_cast<uint32_t>(pkg.signature.size())),
                  DORVEX_OK);
    }
    EXPECT_EQ(ctx->processes.count, 1);
    // The same algorithm with another digest cannot match the same content.
    const tp::Package other = Signed({}, Text("other content\n"));
    EXPECT_EQ(DorvexVerifyDetachSignatureBegin(ctx.get(), other.signature.data(),
                                               static_cast<uint32_t>(other.signature.size())),
              DORVEX_ERR_DIGEST_CONFLICT);
    EXPECT_EQ(ctx->processes.count, 1);
    ASSERT_EQ(DorvexVerifyDetachSignatureUpdate(ctx.get(), pkg.content.data(),
                                                static_cast<uint32_t>(pkg.content.size())),
              DORVEX_OK);
    uint32_t result = 0;
    EXPECT_EQ(DorvexVerifyDetachSignatureFinal(ctx.get(), &result), DORVEX_OK);
    EXPECT_EQ(result, 1u);
    // Final emptied the list: the next Update has nothing to feed.
    EXPECT_EQ(DorvexVerifyDetachSignatureUpdate(ctx.get(), pkg.content.data(), 1),
              DORVEX_ERR_NO_PROCESS);
}

// The caller's signature bytes are gone right after each Begin (ASan sees any
// later read of them); repeated verifications on one context keep working
// and do not use up its buffer slots.
TEST(DetachedSignature, SignatureBytesMayBeReleasedAfterBegin) {
    CtxPtr ctx = NewCtx();
    const int32_t buffersBefore = ctx->rawBuffers.count;
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        auto signature = std::make_unique<Bytes>(Fault(tp::Fault::None).signature);
        ASSERT_EQ(DorvexVerifyDetachSignatureBegin(ctx.get(), signature->data(),
                                                   static_cast<uint32_t>(signature->size())),
                  DORVEX_OK);
        signature.reset();
        ASSERT_EQ(DorvexVerifyDetachSignatureUpdate(ctx.get(), Checksums().data(),
                                                    static_cast<uint32_t>(Checksums().size())),
                  DORVEX_OK);
        uint32_t result = 0;
        ASSERT_EQ(DorvexVerifyDetachSignatureFinal(ctx.get(), &result), DORVEX_OK);
        EXPECT_EQ(result, 1u);
    }
    // One buffer for the leaf and TSA certificates the first round stored.
    EXPECT_EQ(ctx->rawBuffers.count, buffersBefore + 1);
}

TEST(DetachedSignature, EntryChecksAndFiles) {
    const tp::Package pkg = Fault(tp::Fault::None);
    TempDir dir;
    const std::string content = dir.path / "content", sig = dir.path / "sig";
    tp::WriteFile(content, pkg.content);
    tp::WriteFile(sig, pkg.signature);
    tp::WriteFile(dir.path / "over", Bytes(2000001, 0x30));
    tp::WriteFile(dir.path / "empty", Bytes{});
    const std::string fifo = dir.path / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const uint8_t *data = pkg.signature.data();
    uint32_t result = 0;
    using Call = std::function<uint32_t(DorvexVrfCtx *)>;
    struct {
        const char *name;
        Call call;
        uint32_t expect;
    } rows[] = {
        {"begin: null ctx",
         [&](auto) { return DorvexVerifyDetachSignatureBegin(nullptr, data, 40); },
         DORVEX_ERR_NULL_CTX},
        {"begin: null data",
         [&](auto c) { return DorvexVerifyDetachSignatureBegin(c, nullptr, 40); },
         DORVEX_ERR_PARAM},
        {"begin: zero length", [&](auto c) { return DorvexVerifyDetachSignatureBegin(c, data, 0); },
         DORVEX_ERR_PARAM},
        {"begin: 37 bytes", [&](auto c) { return DorvexVerifyDetachSignatureBegin(c, data, 37); },
         DORVEX_ERR_INPUT_FORMAT},
        {"begin: 38 bytes, cut short",
         [&](auto c) { return DorvexVerifyDetachSignatureBegin(c, data, 38); },
         DORVEX_ERR_CMS_DECODE},
        {"update: null ctx",
         [&](auto) { return DorvexVerifyDetachSignatureUpdate(nullptr, data, 1); },
         DORVEX_ERR_NULL_CTX},
        {"update: zero length",
         [&](auto c) { return DorvexVerifyDetachSignatureUpdate(c, data, 0); }, DORVEX_ERR_PARAM},
        {"update: nothing pending",
         [&](auto c) { return DorvexVerifyDetachSignatureUpdate(c, data, 1); },
         DORVEX_ERR_NO_PROCESS},
        {"final: null result", [](auto c) { return DorvexVerifyDetachSignatureFinal(c, nullptr); },
         DORVEX_ERR_PARAM},
        {"quick: null content path",
         [&](auto c) { return DorvexVerifyDetachSignatureQuick(c, nullptr, sig.c_str(), &result); },
         DORVEX_ERR_PARAM},
        {"quick: empty content path",
         [&](auto c) { return DorvexVerifyDetachSignatureQuick(c, "", sig.c_str(), &result); },
         DORVEX_ERR_PARAM},
        {"quick: content missing",
         [&](auto c) {
             return DorvexVerifyDetachSignatureQuick(c, (dir.path / "none").c_str(), sig.c_str(),
                                                     &result);
         },
         DORVEX_ERR_FILE_OPEN},
        {"quick: content is a folder",
         [&](auto c) {
             return DorvexVerifyDetachSignatureQuick(c, dir.path.c_str(), sig.c_str(), &result);
         },
         DORVEX_ERR_FILE_TYPE},
        {"quick: content is a FIFO without writer",
         [&](auto c) {
             return DorvexVerifyDetachSignatureQuick(c, fifo.c_str(), sig.c_str(), &result);
         },
         DORVEX_ERR_FILE_TYPE},
        {"quick: content is an endless device",
         [&](auto c) {
             return DorvexVerifyDetachSignatureQuick(c, "/dev/zero", sig.c_str(), &result);
         },
         DORVEX_ERR_FILE_TYPE},
        {"quick: signature is a FIFO without writer",
         [&](auto c) {
             return DorvexVerifyDetachSignatureQuick(c, content.c_str(), fifo.c_str(), &result);
         },
         DORVEX_ERR_FILE_TYPE},
        {"quick: signature of 2,000,001 bytes",
         [&](auto c) {
             return DorvexVerifyDetachSignatureQuick(c, content.c_str(),
                                                     (dir.path / "over").c_str(), &result);
         },
         DORVEX_ERR_FILE_TOO_LARGE},
        {"quick: empty signature",
         [&](auto c) {
             return DorvexVerifyDetachSignatureQuick(c, content.c_str(),
                                                     (dir.path / "empty").c_str(), &result);
         },
         DORVEX_ERR_FILE_EMPTY},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        CtxPtr ctx = NewCtx();
        result = 7;
        EXPECT_EQ(r.call(ctx.get()), r.expect);
        EXPECT_NE(result, 1u);
    }
    CtxPtr ctx = NewCtx();
    ctx->size = 383;
    EXPECT_EQ(DorvexVerifyDetachSignatureBegin(ctx.get(), data, 40), DORVEX_ERR_CTX_SIZE);
    EXPECT_EQ(DorvexVerifyDetachSignatureFinal(ctx.get(), &result), DORVEX_ERR_CTX_SIZE);
    EXPECT_EQ(DorvexVerifyDetachSignatureQuick(ctx.get(), "a", "b", &result), DORVEX_ERR_CTX_SIZE);
    ctx->size = DORVEX_VRF_CTX_SIZE;
}

}  // namespace
