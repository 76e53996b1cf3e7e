// Detached signature verification with its mandatory timestamp: packages
// signed and stamped by the demo hierarchy through OpenSSL (testpki), spoiled
// one way per row, each verified twice: through Begin, Update and Final on
// bytes, and through Quick on files.
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
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;
using tp::Bytes;

const tp::DemoPki &Pki() {
    static const tp::DemoPki pki = tp::MakeDemoPki();
    return pki;
}

Bytes Text(const std::string &s) {
    return Bytes(s.begin(), s.end());
}

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

struct CtxFree {
    void operator()(DorvexVrfCtx *c) const { EXPECT_EQ(DorvexVrfCtxFree(c), DORVEX_OK); }
};
using CtxPtr = std::unique_ptr<DorvexVrfCtx, CtxFree>;

// Trust material beside the signature: the demo root as trusted
// certificate, then a CRL file with the root's CRL, the CA's CRL (unless
// none) and the CA certificate, optionally also the root certificate.
struct Trust {
    std::optional<Bytes> caCrl = Pki().caCrl;
    bool rootInCrlFile = false;
};

CtxPtr NewCtx(const Trust &trust = {}) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *ctx = nullptr;
    EXPECT_EQ(DorvexVerifyCreateCtx(&ctx, &params), DORVEX_OK);
    const Bytes &root = Pki().root.cert.Der();
    EXPECT_EQ(DorvexVerifyAddCert(ctx, root.data(), static_cast<uint32_t>(root.size())), DORVEX_OK);
    std::vector<tp::PemBlock> blocks = {{"X509 CRL", Pki().rootCrl},
                                        {"CERTIFICATE", Pki().ca.cert.Der()}};
    if (trust.caCrl) {
        blocks.push_back({"X509 CRL", *trust.caCrl});
    }
    if (trust.rootInCrlFile) {
        blocks.push_back({"CERTIFICATE", root});
    }
    const Bytes crls = Text(tp::PemBundle(blocks));
    EXPECT_EQ(DorvexVerifyAddCrl(ctx, crls.data(), static_cast<uint32_t>(crls.size())), DORVEX_OK);
    return CtxPtr(ctx);
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

// A code-signing leaf of the demo CA with other dates, stamped at genTime.
tp::Package LeafAt(const char *notBefore, const char *notAfter, const char *genTime) {
    tp::CertSpec plan;
    plan.subjectKey = Pki().leaf.key;
    plan.issuer = Pki().ca;
    plan.subject = tp::SimpleName({{"CN", "Short-lived Code Signing"}});
    plan.serial = {0x10, 0x05};
    plan.notBefore = tp::Utc(notBefore);
    plan.notAfter = tp::Utc(notAfter);
    plan.keyUsage = tp::KeyUsage::Of(tp::ku::kDigitalSignature);
    plan.extKeyUsage = tp::ExtKeyUsage{{"codeSigning"}, true};
    const tp::Credential leaf = tp::IssueCredential(plan);
    return Signed([&](tp::SignSpec &p) {
        p.signer = leaf;
        p.certs[0] = leaf.cert;
        p.timestamp->genTime = genTime;
    });
}

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
const Bytes kLeafSerial = {0x10, 0x01};
const Bytes kTsaSerial = {0x10, 0x02};
constexpr int kKeyCompromise = 1;
constexpr int kSuperseded = 4;

bool Logged(const std::string &function, const std::string &text) {
    for (const auto &line : vt_test::CapturedSyslogTexts()) {
        if (line.find("(" + function + "):") != std::string::npos &&
            line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

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
        {"token signed without attributes",
         [] { return Signed([](auto &p) { p.timestamp->attrs = tp::TokenAttrs::None; }); },
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
        {"no signer, content offered",
         [] { return Fault(tp::Fault::NoSigner); },
         DORVEX_OK,
         1,
         {},
         DORVEX_ERR_NO_PROCESS},
        {"no signer, empty content",
         [] { return Signed([](auto &p) { p.noSigner = true, p.timestamp.reset(); }, Empty()); },
         DORVEX_OK},
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
            EXPECT_EQ(DorvexVerifyDetachSignatureFinal(ctx.get(), &result), DORVEX_OK);
            EXPECT_EQ(result, r.begin == DORVEX_OK ? r.result : 1u);
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
         DORVEX_ERR_FILE_READ},
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
