// Detached signature verification with its mandatory timestamp: demo
// packages spoiled one way per row, each verified through Begin, Update and
// Final on bytes and through Quick on files.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cms/dorvex.h"
#include "cms/pki/pki.h"
#include "tests/support/cms_fixture.h"
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;
using tp::Bytes;

using vt_test::CtxPtr;
using vt_test::Pki;
using vt_test::Text;

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

// The demo root trusted; a CRL file with the root's CRL, the CA's CRL
// (unless none) and the CA certificate.
struct Trust {
    std::optional<Bytes> caCrl = Pki().caCrl;
    Bytes rootCrl = Pki().rootCrl;
};

CtxPtr NewCtx(const Trust &trust = {}) {
    const Bytes &root = Pki().root.cert.Der();
    CtxPtr ctx = vt_test::NewCtx(&root);
    std::vector<tp::PemBlock> blocks = {{"X509 CRL", trust.rootCrl},
                                        {"CERTIFICATE", Pki().ca.cert.Der()}};
    if (trust.caCrl) {
        blocks.push_back({"X509 CRL", *trust.caCrl});
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

tp::Package Fault(tp::Fault fault) {
    return tp::MakePackage(Pki(), fault, Checksums());
}

tp::Package Armoured(tp::Armour armour) {
    tp::Package p = Fault(tp::Fault::None);
    p.signature = tp::Armoured(p.signature, armour);
    return p;
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

// An end entity of the demo CA (or of `issuer`) with the key and purpose
// given, open to one change.
tp::Credential EndEntity(const char *key, const char *purpose,
                         const std::function<void(tp::CertSpec &)> &change = {},
                         const tp::Credential &issuer = Pki().ca) {
    tp::CertSpec plan;
    plan.subjectKey = tp::LoadTestKey(key);
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

// The package signed by another leaf (embedded in the leaf's place).
tp::Package SignedBy(const tp::Credential &leaf, bool signedAttrs = true,
                     const char *genTime = "20260115120000Z") {
    return Signed([&](tp::SignSpec &p) {
        p.signer = leaf;
        p.certs[0] = leaf.cert;
        p.signedAttrs = signedAttrs;
        p.timestamp->genTime = genTime;
    });
}

// A code-signing leaf valid in the first half of 2025, stamped at genTime.
tp::Package LeafAt(const char *genTime) {
    return SignedBy(EndEntity("leaf-2048", "codeSigning",
                              [](tp::CertSpec &s) {
                                  s.notBefore = tp::Utc("250101000000Z");
                                  s.notAfter = tp::Utc("250630000000Z");
                              }),
                    true, genTime);
}

// The package stamped by another TSA certificate of the TSA key.
tp::Package StampedBy(const std::function<void(tp::CertSpec &)> &change) {
    const tp::Credential tsa = EndEntity("tsa-2048", "timeStamping", change);
    return Signed([&](tp::SignSpec &p) { p.timestamp->tsa = tsa; });
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

// The signed attribute of `oid` (the fourth SignerInfo field) edited.
tp::Package AttrEdited(const char *oid, const std::function<void(Fields &, Bytes &)> &edit) {
    return Edited([&](Fields &, Fields &signer) {
        Fields attrs = tp::der::Children(signer[3]);
        for (Bytes &attr : attrs) {
            if (tp::der::Children(attr)[0] == tp::der::Oid(oid)) {
                edit(attrs, attr);
                break;
            }
        }
        signer[3] = tp::der::Tlv(0xA0, tp::ConcatDer(attrs));
    });
}
constexpr const char *kContentType = "1.2.840.113549.1.9.3";
constexpr const char *kMessageDigest = "1.2.840.113549.1.9.4";

// A CRL of the CA with these entries, open to one change.
Bytes CaCrl(std::vector<tp::RevokedEntry> revoked,
            const std::function<void(tp::CrlSpec &)> &change = {}) {
    tp::CrlSpec plan;
    plan.issuer = Pki().ca;
    plan.revoked = std::move(revoked);
    if (change) {
        change(plan);
    }
    return tp::MakeCrl(plan);
}
// A root CRL limited to user certificates.
Bytes RootUsersCrl() {
    tp::CrlSpec plan;
    plan.issuer = Pki().root;
    plan.issuingDistPoint.emplace();
    plan.issuingDistPoint->onlyUserCerts = true;
    return tp::MakeCrl(plan);
}
const Bytes kLeafSerial = {0x10, 0x01}, kTsaSerial = {0x10, 0x02};
constexpr int kKeyCompromise = 1, kSuperseded = 4;

// The CA's CRL revoking `serial` on `date` for `reason`.
Bytes Revoking(const Bytes &serial, const char *date, int reason) {
    return CaCrl({{serial, tp::Utc(date), reason}});
}

struct Row {
    const char *name;
    std::function<tp::Package()> make;  // none: the valid demo package
    uint32_t begin;                     // Begin's code (Quick returns it too)
    uint32_t result = 1;
    Trust trust = {};
};

TEST(DetachedSignature, VerifiesByStreamAndByFiles) {
    const uint32_t kUsage = DORVEX_ERR_CERT_USAGE, kRevoked = DORVEX_ERR_CERT_REVOKED;
    const uint32_t kNoCrl = DORVEX_ERR_NO_CRL, kPkcs7 = DORVEX_ERR_PKCS7_DECODE;
    const uint32_t kCms = DORVEX_ERR_CMS_DECODE, kAlg = DORVEX_ERR_SIGN_ALG;
    const Row rows[] = {
        // clang-format off
        {"valid DER", {}, DORVEX_OK},
        {"content of several read pieces",
         [] { return tp::MakePackage(Pki(), tp::Fault::None, Pieces()); }, DORVEX_OK},
        {"PEM CMS armour", [] { return Armoured(tp::Armour::PemCms); }, DORVEX_OK},
        {"SHA-512, imprint SHA-384", [] { return Signed([](auto &p) {
             p.digest = tp::Digest::Sha512, p.timestamp->digest = tp::Digest::Sha512;
             p.timestamp->imprintDigest = tp::Digest::Sha384; }); }, DORVEX_OK},
        {"changed content byte", [] { return Fault(tp::Fault::ChangedContent); }, DORVEX_OK, 0},
        // A signature of 1024 bytes, the largest that fits.
        {"no signed attributes, signer key of 8192 bits",
         [] { return SignedBy(EndEntity("rsa-8192", "codeSigning"), false); }, DORVEX_OK},
        {"no signed attributes, changed content",
         [] {
             tp::Package p = Signed([](auto &s) { s.signedAttrs = false; });
             p.content.back() ^= 0x01;
             return p; }, DORVEX_OK, 0},
        {"signer key of 1024 bits", [] { return SignedBy(EndEntity("rsa-1024", "codeSigning")); },
         DORVEX_ERR_PUBKEY_TOO_SHORT, 0},
        {"ECDSA P-256 signer under the RSA CA",
         [] { return SignedBy(EndEntity("ec-p256", "codeSigning")); }, DORVEX_OK},
        {"RSASSA-PSS signer and token",
         [] { return Signed([](auto &p) { p.pss = true, p.timestamp->pss = true; }); }, DORVEX_OK},
        {"signature label ECDSA on an RSA key", [] {
             return Edited([](Fields &, Fields &si) { si[4] = tp::der::Seq({tp::der::Oid("1.2.840.10045.4.3.2")}); }); }, kAlg, 0},
        {"tampered signed attribute", [] { return Fault(tp::Fault::TamperedSignedAttr); },
         DORVEX_ERR_SIGNATURE, 0},
        {"two message digests", [] {
             return AttrEdited(kMessageDigest, [](Fields &a, Bytes &md) { a.push_back(md); }); },
         kPkcs7, 0},
        {"content type attribute names other content", [] {
             return AttrEdited(kContentType, [](Fields &, Bytes &type) {
                 type = tp::der::Seq({tp::der::Oid(kContentType),
                     tp::der::Tlv(0x31, tp::der::Oid("1.2.840.113549.1.9.16.1.4"))}); }); },
         kPkcs7, 0},
        {"detached signature carrying content", [] {
             return Edited([](Fields &sd, Fields &) {
                 sd[2] = tp::der::Seq({tp::der::Oid("1.2.840.113549.1.7.1"),
                                       tp::der::Tlv(0xA0, tp::der::OctetString(Checksums()))}); }); },
         kPkcs7, 0},
        {"no timestamp", [] { return Fault(tp::Fault::NoTimestamp); }, DORVEX_ERR_PARAM, 0},
        {"imprint over content", [] { return Fault(tp::Fault::ImprintOverContent); },
         DORVEX_ERR_TS_MISMATCH, 0},
        {"token without signer: its time would be anyone's",
         [] { return Signed([](auto &p) { p.timestamp->noSigner = true; }); },
         DORVEX_ERR_TS_SIGNATURE, 0},
        {"token's signature value changed", [] {
             tp::Package p = Fault(tp::Fault::None);
             const Bytes value = tp::SignatureValueOf(tp::TimestampTokenOf(p.signature));
             auto at = std::search(p.signature.begin(), p.signature.end(), value.begin(), value.end());
             at[static_cast<std::ptrdiff_t>(value.size()) - 1] ^= 0x01;
             return p; }, DORVEX_ERR_SIGNATURE, 0},
        {"token's ESS v1 names another certificate", [] { return Signed([](auto &p) {
             p.timestamp->attrs = tp::TokenAttrs::EssCertId, p.timestamp->essCert = Pki().ca.cert;
         }); }, DORVEX_ERR_TS_CERT_NOT_FOUND, 0},
        {"token without its authority's certificate",
         [] { return Signed([](auto &p) { p.timestamp->embedTsaCert = false; }); },
         DORVEX_ERR_TS_CERT_NOT_FOUND, 0},
        {"signer certificate not carried",
         [] { return Signed([](auto &p) { p.certs = {Pki().ca.cert}; }); },
         DORVEX_ERR_SIGNER_CERT_NOT_FOUND, 0},
        {"signer without code signing", [] { return Fault(tp::Fault::SignerWithoutCodeSigning); },
         kUsage, 0},
        {"TSA without time stamping", [] { return Fault(tp::Fault::TsaWithoutTimeStamping); },
         kUsage, 0},
        {"TSA usage not critical",
         [] { return StampedBy([](auto &s) { s.extKeyUsage->critical = false; }); }, kUsage, 0},
        {"TSA usage not alone", [] { return StampedBy([](auto &s) {
             s.extKeyUsage->purposes = {"timeStamping", "codeSigning"}; }); }, kUsage, 0},
        {"CA of path length 0 above a sub-CA", [] {
             tp::CertSpec sub;
             sub.subjectKey = Pki().tsa.key;
             sub.issuer = Pki().ca;
             sub.subject = tp::SimpleName({{"CN", "Sub CA"}});
             sub.basicConstraints = tp::BasicConstraints{};
             sub.keyUsage = tp::KeyUsage::Of(tp::ku::kKeyCertSign | tp::ku::kCrlSign);
             const tp::Credential subCa = tp::IssueCredential(sub);
             const tp::Credential leaf = EndEntity("leaf-2048", "codeSigning", {}, subCa);
             return Signed([&](tp::SignSpec &p) { p.signer = leaf, p.certs = {leaf.cert, subCa.cert}; });
         }, DORVEX_ERR_PATH_TOO_DEEP, 0},
        {"signer expired now, valid at genTime", [] { return LeafAt("20250601120000Z"); }, DORVEX_OK},
        {"genTime before the signer's notBefore", [] { return LeafAt("20241201120000Z"); },
         DORVEX_ERR_CERT_NOT_YET_VALID, 0},
        {"leaf revoked before genTime", {}, kRevoked, 0,
         Trust{Revoking(kLeafSerial, "250101000000Z", kKeyCompromise)}},
        {"leaf revoked after genTime: judged by date", {}, DORVEX_OK, 1,
         Trust{Revoking(kLeafSerial, "260201000000Z", kKeyCompromise)}},
        {"TSA revoked after genTime, key compromise: strict", {}, kRevoked, 0,
         Trust{Revoking(kTsaSerial, "260201000000Z", kKeyCompromise)}},
        {"TSA superseded after genTime", {}, DORVEX_OK, 1,
         Trust{Revoking(kTsaSerial, "260201000000Z", kSuperseded)}},
        {"CA's CRL missing", {}, kNoCrl, 0, Trust{std::nullopt}},
        {"CA's CRL expired at genTime", {}, kNoCrl, 0, Trust{CaCrl({}, [](auto &c) {
             c.thisUpdate = tp::Utc("250101000000Z"), c.nextUpdate = tp::Utc("250601000000Z"); })}},
        {"CA's only CRL is a delta CRL", {}, kNoCrl, 0, Trust{CaCrl({}, [](auto &c) {
             c.extraExtensions = {{"deltaCRL", true, tp::der::Integer(Bytes{0x01})}}; })}},
        {"CA's CRL only for CAs: says nothing of the leaf", {}, kNoCrl, 0, Trust{CaCrl({}, [](auto &c) {
             c.issuingDistPoint.emplace(), c.issuingDistPoint->onlyCaCerts = true; })}},
        {"root's CRL only for users: says nothing of the CA", {}, kNoCrl, 0,
         Trust{.rootCrl = RootUsersCrl()}},
        {"garbage", [] { return Fault(tp::Fault::Garbage); }, kCms, 0},
        {"no signer", [] { return Fault(tp::Fault::NoSigner); }, kPkcs7, 0},
        // clang-format on
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.name);
        const tp::Package pkg = r.make ? r.make() : Fault(tp::Fault::None);
        {
            CtxPtr ctx = NewCtx(r.trust);
            ASSERT_EQ(DorvexVerifyDetachSignatureBegin(ctx.get(), pkg.signature.data(),
                                                       static_cast<uint32_t>(pkg.signature.size())),
                      r.begin);
            // Uneven pieces, so digests see content split anywhere.
            for (size_t at = 0; r.begin == DORVEX_OK && at < pkg.content.size(); at += 77) {
                const auto n = static_cast<uint32_t>(std::min<size_t>(77, pkg.content.size() - at));
                ASSERT_EQ(DorvexVerifyDetachSignatureUpdate(ctx.get(), pkg.content.data() + at, n),
                          DORVEX_OK);
            }
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
        EXPECT_EQ(DorvexVerifyDetachSignatureQuick(ctx.get(), (dir.path / "content").c_str(),
                                                   (dir.path / "signature").c_str(), &result),
                  r.begin);
        EXPECT_EQ(result, r.begin == DORVEX_OK ? r.result : 0u);
    }
}

// One context, many verifications: each Begin's signature bytes are freed at
// once (ASan sees any later read of them), a second Begin of the same
// digest shares its process, and the buffers do not grow round by round.
TEST(DetachedSignature, BeginsShareOneDigestProcess) {
    const tp::Package pkg = Fault(tp::Fault::None);
    const tp::Package other = Signed({}, Text("other content\n"));
    CtxPtr ctx = NewCtx();
    const int32_t buffersBefore = ctx->rawBuffers.count;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 2; ++i) {
            auto signature = std::make_unique<Bytes>(pkg.signature);
            ASSERT_EQ(DorvexVerifyDetachSignatureBegin(ctx.get(), signature->data(),
                                                       static_cast<uint32_t>(signature->size())),
                      DORVEX_OK);
        }
        EXPECT_EQ(ctx->processes.count, 1);
        // The same algorithm with another digest cannot match the same content.
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
    const auto quick = [&](const std::string &contentPath, const std::string &sigPath) {
        return [&, contentPath, sigPath](DorvexVrfCtx *c) {
            return DorvexVerifyDetachSignatureQuick(c, contentPath.c_str(), sigPath.c_str(),
                                                    &result);
        };
    };
    const struct {
        const char *name;
        std::function<uint32_t(DorvexVrfCtx *)> call;
        uint32_t expect;
    } rows[] = {
        {"begin: null ctx",
         [&](auto) { return DorvexVerifyDetachSignatureBegin(nullptr, data, 40); },
         DORVEX_ERR_NULL_CTX},
        {"begin: 37 bytes", [&](auto c) { return DorvexVerifyDetachSignatureBegin(c, data, 37); },
         DORVEX_ERR_INPUT_FORMAT},
        {"begin: 38 bytes, cut short",
         [&](auto c) { return DorvexVerifyDetachSignatureBegin(c, data, 38); },
         DORVEX_ERR_CMS_DECODE},
        {"final: null result", [](auto c) { return DorvexVerifyDetachSignatureFinal(c, nullptr); },
         DORVEX_ERR_PARAM},
        {"quick: empty content path", quick("", sig), DORVEX_ERR_PARAM},
        {"quick: content missing", quick(dir.path / "none", sig), DORVEX_ERR_FILE_OPEN},
        {"quick: content is a FIFO without writer", quick(fifo, sig), DORVEX_ERR_FILE_TYPE},
        {"quick: signature is a FIFO without writer", quick(content, fifo), DORVEX_ERR_FILE_TYPE},
        {"quick: signature of 2,000,001 bytes", quick(content, dir.path / "over"),
         DORVEX_ERR_FILE_TOO_LARGE},
        {"quick: empty signature", quick(content, dir.path / "empty"), DORVEX_ERR_FILE_EMPTY},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        CtxPtr ctx = NewCtx();
        result = 7;
        EXPECT_EQ(r.call(ctx.get()), r.expect);
        EXPECT_NE(result, 1u);
    }
}

}  // namespace
