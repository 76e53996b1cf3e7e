// Verify context and trust-material intake: certificates and CRLs made by
// OpenSSL through testpki, fed as DER streams, PEM text and files, and read
// back from the context's store.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
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
Bytes Cat(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
std::string CertPem(const tp::Credential &c) {
    return tp::ToPem(tp::kPemCertificate, c.cert.Der());
}

struct CtxFree {
    void operator()(DorvexVrfCtx *c) const { EXPECT_EQ(DorvexVrfCtxFree(c), DORVEX_OK); }
};
using CtxPtr = std::unique_ptr<DorvexVrfCtx, CtxFree>;

CtxPtr NewCtx() {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *ctx = nullptr;
    EXPECT_EQ(DorvexVerifyCreateCtx(&ctx, &params), DORVEX_OK);
    return CtxPtr(ctx);
}

int32_t CertCount(const DorvexVrfCtx *ctx) {
    return ctx->pki->certs.count;
}
int32_t CrlCount(const DorvexVrfCtx *ctx) {
    return ctx->pki->crls.count;
}

// True when some captured record came from `function` and holds `text`.
bool Logged(const std::string &function, const std::string &text) {
    for (const auto &line : vt_test::CapturedSyslogTexts()) {
        if (line.find("(" + function + "):") != std::string::npos &&
            line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// A scratch folder under /tmp, removed with everything in it.
struct TempDir {
    std::filesystem::path path;
    TempDir() {
        char templ[] = "/tmp/intake-XXXXXX";
        path = mkdtemp(templ);
    }
    ~TempDir() { std::filesystem::remove_all(path); }
};

TEST(VrfCtx, CreateChecksItsArgumentsAndStartsEmpty) {
    struct Row {
        const char *name;
        bool nullOut, nullParams;
        uint64_t size;
        uint32_t expect;
    } rows[] = {
        {"valid", false, false, 72, DORVEX_OK},
        {"null out", true, false, 72, DORVEX_ERR_PARAM},
        {"null params", false, true, 72, DORVEX_ERR_PARAM},
        {"params size 64", false, false, 64, DORVEX_ERR_CTX_SIZE},
        {"params size 384", false, false, 384, DORVEX_ERR_CTX_SIZE},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        DorvexCtxCreateParams params{};
        params.size = r.size;
        DorvexVrfCtx stale{};
        DorvexVrfCtx *ctx = &stale;  // a failure must not leave this behind
        ASSERT_EQ(
            DorvexVerifyCreateCtx(r.nullOut ? nullptr : &ctx, r.nullParams ? nullptr : &params),
            r.expect);
        if (r.expect != DORVEX_OK) {
            EXPECT_TRUE(r.nullOut || ctx == nullptr);
            continue;
        }
        CtxPtr owned(ctx);
        EXPECT_EQ(ctx->size, 384u);
        ASSERT_NE(ctx->pki, nullptr);
        EXPECT_EQ(CertCount(ctx) + CrlCount(ctx) + ctx->rawBuffers.count + ctx->processes.count, 0);
        EXPECT_EQ(ctx->verifyTime, 0);
        EXPECT_EQ(ctx->pathDepth, 0);
    }
    EXPECT_EQ(DorvexVrfCtxFree(nullptr), DORVEX_ERR_PARAM);
}

TEST(VrfCtx, EntryChecksOfEveryIntakeFunction) {
    const Bytes der = Pki().root.cert.Der();
    using Call = std::function<uint32_t(DorvexVrfCtx *)>;
    struct Row {
        const char *name;
        bool nullCtx, badSize;
        Call call;
        uint32_t expect;
        const char *reportedBy;  // null: not logged
    } rows[] = {
        {"cert: null ctx", true, false,
         [&](auto c) { return DorvexVerifyAddCert(c, der.data(), 40); }, DORVEX_ERR_NULL_CTX,
         nullptr},
        {"cert: size", false, true, [&](auto c) { return DorvexVerifyAddCert(c, der.data(), 40); },
         DORVEX_ERR_CTX_SIZE, nullptr},
        {"cert: null data", false, false,
         [](auto c) { return DorvexVerifyAddCert(c, nullptr, 40); }, DORVEX_ERR_PARAM,
         "InternalCheckParamVerifyAddCert"},
        {"cert: zero length", false, false,
         [&](auto c) { return DorvexVerifyAddCert(c, der.data(), 0); }, DORVEX_ERR_PARAM,
         "InternalCheckParamVerifyAddCert"},
        {"crl: null ctx", true, false,
         [&](auto c) { return DorvexVerifyAddCrl(c, der.data(), 40); }, DORVEX_ERR_NULL_CTX,
         nullptr},
        {"crl: size", false, true, [&](auto c) { return DorvexVerifyAddCrl(c, der.data(), 40); },
         DORVEX_ERR_CTX_SIZE, nullptr},
        {"crl: zero length", false, false,
         [&](auto c) { return DorvexVerifyAddCrl(c, der.data(), 0); }, DORVEX_ERR_PARAM,
         "InternalCheckParamVerifyAddCrl"},
        {"cert file: null ctx", true, false, [](auto c) { return DorvexVerifyAddCertFile(c, "x"); },
         DORVEX_ERR_NULL_CTX, nullptr},
        {"cert file: size", false, true, [](auto c) { return DorvexVerifyAddCertFile(c, "x"); },
         DORVEX_ERR_CTX_SIZE, nullptr},
        {"cert file: null path", false, false,
         [](auto c) { return DorvexVerifyAddCertFile(c, nullptr); }, DORVEX_ERR_PARAM,
         "InternalCheckParamVerifyAddCertFile"},
        // The CRL file refuses a null context like a null path, before the size check.
        {"crl file: null ctx", true, false, [](auto c) { return DorvexVerifyAddCrlFile(c, "x"); },
         DORVEX_ERR_PARAM, nullptr},
        {"crl file: size", false, true, [](auto c) { return DorvexVerifyAddCrlFile(c, "x"); },
         DORVEX_ERR_CTX_SIZE, nullptr},
        {"crl file: null path", false, false,
         [](auto c) { return DorvexVerifyAddCrlFile(c, nullptr); }, DORVEX_ERR_PARAM, nullptr},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        CtxPtr ctx = NewCtx();
        ctx->size = r.badSize ? 383 : 384;
        vt_test::ClearSyslog();
        EXPECT_EQ(r.call(r.nullCtx ? nullptr : ctx.get()), r.expect);
        EXPECT_EQ(vt_test::CapturedSyslog().empty(), r.reportedBy == nullptr);
        if (r.reportedBy != nullptr) {
            EXPECT_TRUE(Logged(r.reportedBy, ""));
        }
        ctx->size = 384;
        EXPECT_EQ(CertCount(ctx.get()) + ctx->rawBuffers.count, 0);
    }
}

// What one intake call leaves in a fresh context.
struct IntakeRow {
    const char *name;
    bool crlIntake;  // DorvexVerifyAddCrl, else DorvexVerifyAddCert
    Bytes input;
    uint32_t expect;
    int32_t certs, crls;
    const char *logFunction = nullptr;  // a record expected from this function...
    const char *logText = "";           // ...holding this text
};

void RunIntake(const IntakeRow &r) {
    SCOPED_TRACE(r.name);
    CtxPtr ctx = NewCtx();
    vt_test::ClearSyslog();
    uint32_t ret = r.crlIntake ? DorvexVerifyAddCrl(ctx.get(), r.input.data(), r.input.size())
                               : DorvexVerifyAddCert(ctx.get(), r.input.data(), r.input.size());
    EXPECT_EQ(ret, r.expect);
    EXPECT_EQ(CertCount(ctx.get()), r.certs);
    EXPECT_EQ(CrlCount(ctx.get()), r.crls);
    if (r.logFunction != nullptr) {
        EXPECT_TRUE(Logged(r.logFunction, r.logText));
    }
}

uint32_t CrlDecoderCode(const Bytes &garbage) {
    DorvexX509Crl *crl = nullptr;
    uint32_t used = 0;
    uint32_t ret = DorvexX509DecodeCrl(garbage.data(), garbage.size(), &crl, &used);
    EXPECT_EQ(crl, nullptr);
    return ret;
}

TEST(Intake, CertificatesFromDerAndPem) {
    const auto &p = Pki();
    const Bytes root = p.root.cert.Der();
    const Bytes garbage40(40, 0xA5);
    std::string damaged = CertPem(p.ca);
    damaged[40] = '*';  // inside the base64 body
    std::string unterminated = CertPem(p.ca);
    unterminated.resize(unterminated.find("-----END"));
    const IntakeRow rows[] = {
        {"root DER", false, root, DORVEX_OK, 1, 0},
        {"37 bytes", false, Bytes(root.begin(), root.begin() + 37), DORVEX_ERR_INPUT_FORMAT, 0, 0},
        {"DER + 20 bytes garbage", false, Cat(root, Bytes(20, 0xA5)), DORVEX_OK, 1, 0},
        {"DER + 40 bytes garbage", false, Cat(root, garbage40), CrlDecoderCode(garbage40), 0, 0},
        {"DER: CRL, cert, cert", false, tp::ConcatDer({p.rootCrl, root, p.ca.cert.Der()}),
         DORVEX_OK, 2, 0},
        {"DER: CRL only", false, p.rootCrl, DORVEX_FAIL, 0, 0, "DorvexVerifyAddCert",
         "No certificate"},
        {"PEM: cert, public key, CRL", false,
         Text(tp::PemBundle({{"CERTIFICATE", p.ca.cert.Der()},
                             {"PUBLIC KEY", p.ca.key.PublicKeyDer()},
                             {"X509 CRL", p.caCrl}})),
         DORVEX_OK, 1, 0},
        {"PEM: damaged only cert", false, Text(damaged), DORVEX_FAIL, 0, 0,
         "InternalPemDecodeCert"},
        {"PEM: damaged then good", false, Text(damaged + CertPem(p.root)), DORVEX_OK, 1, 0,
         "InternalPemDecodeCert"},
        {"PEM: no end marker", false, Text(CertPem(p.root) + unterminated), DORVEX_ERR_INPUT_FORMAT,
         0, 0, "InternalDecodePemCertCrl"},
        {"PEM: request label skipped", false,
         Text(tp::PemBundle({{"CERTIFICATE REQUEST", root}, {"CERTIFICATE", root}})), DORVEX_OK, 1,
         0},
        {"PEM: empty body", false, Text("-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n"),
         DORVEX_FAIL, 0, 0, "InternalPemDecodeCert"},
        {"text before the header is DER", false, Text("\n" + CertPem(p.root)),
         CrlDecoderCode(Text("\n" + CertPem(p.root))), 0, 0},
    };
    for (const auto &r : rows) {
        RunIntake(r);
    }
}

TEST(Intake, CrlsWithTheirCertificates) {
    const auto &p = Pki();
    const char *warn = "DorvexVerifyAddCrl";
    const IntakeRow rows[] = {
        {"CRL alone: certificate warning", true, p.caCrl, DORVEX_OK, 0, 1, warn,
         "Failed to add certificate into store."},
        {"CRL with CA", true, tp::ConcatDer({p.ca.cert.Der(), p.caCrl}), DORVEX_OK, 1, 1},
        {"CRL with self-signed root", true, tp::ConcatDer({p.rootCrl, p.root.cert.Der()}),
         DORVEX_OK, 0, 1, "InternalAddCertToStore", "There is a root certificate"},
        {"PEM: cert, public key, CRL", true,
         Text(tp::PemBundle({{"CERTIFICATE", p.ca.cert.Der()},
                             {"PUBLIC KEY", p.ca.key.PublicKeyDer()},
                             {"X509 CRL", p.caCrl}})),
         DORVEX_OK, 1, 1},
        {"two CRLs, same twice", true, tp::ConcatDer({p.rootCrl, p.caCrl, p.rootCrl}), DORVEX_OK, 0,
         2},
        {"certificate only", true, p.ca.cert.Der(), DORVEX_ERR_CRL_DECODE, 0, 0, warn,
         "Failed to decode CRL"},
        {"37 bytes", true, Bytes(p.caCrl.begin(), p.caCrl.begin() + 37), DORVEX_ERR_CRL_DECODE, 0,
         0},
    };
    for (const auto &r : rows) {
        RunIntake(r);
    }
}

TEST(Intake, RecordsOutliveTheCallersBytesAndHoldOneStoreReference) {
    const auto &p = Pki();
    CtxPtr ctx = NewCtx();
    const std::vector<Bytes> inputs = {p.root.cert.Der(), Text(CertPem(p.ca))};
    for (const Bytes &in : inputs) {
        auto *copy = static_cast<uint8_t *>(malloc(in.size()));
        memcpy(copy, in.data(), in.size());
        ASSERT_EQ(DorvexVerifyAddCert(ctx.get(), copy, in.size()), DORVEX_OK);
        memset(copy, 0, in.size());
        free(copy);
    }
    auto *crlCopy = static_cast<uint8_t *>(malloc(p.caCrl.size()));
    memcpy(crlCopy, p.caCrl.data(), p.caCrl.size());
    ASSERT_EQ(DorvexVerifyAddCrl(ctx.get(), crlCopy, p.caCrl.size()), DORVEX_OK);
    free(crlCopy);
    // Adding the same material again changes nothing.
    ASSERT_EQ(DorvexVerifyAddCert(ctx.get(), p.root.cert.Der().data(), p.root.cert.Der().size()),
              DORVEX_OK);
    ASSERT_EQ(CertCount(ctx.get()), 2);
    ASSERT_EQ(CrlCount(ctx.get()), 1);
    const tp::Credential *expected[] = {&p.root, &p.ca};
    for (int i = 0; i < 2; ++i) {
        auto *cert = static_cast<DorvexX509Cert *>(ctx->pki->certs.items[i]);
        EXPECT_EQ(cert->refCount, 1);
        // The tbsCertificate bytes sit at the start of the DER, behind its 4-byte header.
        const Bytes &der = expected[i]->cert.Der();
        ASSERT_EQ(cert->tbsRaw.len + 4 < der.size(), true);
        EXPECT_EQ(Bytes(cert->tbsRaw.data, cert->tbsRaw.data + cert->tbsRaw.len),
                  Bytes(der.begin() + 4, der.begin() + 4 + cert->tbsRaw.len));
    }
    auto *crl = static_cast<DorvexX509Crl *>(ctx->pki->crls.items[0]);
    EXPECT_EQ(crl->refCount, 1);
    EXPECT_EQ(DorvexCompareX509Name(
                  &crl->crlInfo.issuer,
                  &static_cast<DorvexX509Cert *>(ctx->pki->certs.items[1])->certInfo.subject),
              0);
}

TEST(Intake, SixteenBuffersPerContext) {
    CtxPtr ctx = NewCtx();
    const Bytes &root = Pki().root.cert.Der();
    for (int i = 0; i < 16; ++i) {
        ASSERT_EQ(DorvexVerifyAddCert(ctx.get(), root.data(), root.size()), DORVEX_OK) << i;
    }
    EXPECT_EQ(DorvexVerifyAddCert(ctx.get(), root.data(), root.size()), DORVEX_ERR_LIST_FULL);
    EXPECT_EQ(CertCount(ctx.get()), 1);
}

TEST(Intake, Files) {
    TempDir dir;
    const std::string pem = CertPem(Pki().root);
    // PEM text ignores what follows its last block, so padding sets the size.
    auto padded = [&](size_t size) { return pem + std::string(size - pem.size(), '\n'); };
    tp::WriteFile(dir.path / "max", padded(2000000));
    tp::WriteFile(dir.path / "over", padded(2000001));
    tp::WriteFile(dir.path / "empty", std::string());
    tp::WriteFile(dir.path / "crl.der", Pki().caCrl);
    struct Row {
        const char *name;
        std::string file;
        bool crl;
        uint32_t expect;
    } rows[] = {
        {"exactly 2,000,000 bytes", "max", false, DORVEX_OK},
        {"2,000,001 bytes", "over", false, DORVEX_ERR_FILE_TOO_LARGE},
        {"empty file", "empty", false, DORVEX_ERR_FILE_EMPTY},
        {"missing file", "missing", false, DORVEX_ERR_FILE_OPEN},
        {"empty path", "", false, DORVEX_ERR_PARAM},
        {"CRL file", "crl.der", true, DORVEX_OK},
        {"CRL: too large", "over", true, DORVEX_ERR_FILE_TOO_LARGE},
        {"CRL: empty path", "", true, DORVEX_ERR_PARAM},
        {"CRL: certificates only", "max", true, DORVEX_ERR_CRL_DECODE},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        CtxPtr ctx = NewCtx();
        std::string path = r.file.empty() ? "" : (dir.path / r.file).string();
        EXPECT_EQ(r.crl ? DorvexVerifyAddCrlFile(ctx.get(), path.c_str())
                        : DorvexVerifyAddCertFile(ctx.get(), path.c_str()),
                  r.expect);
        EXPECT_EQ((r.crl ? CrlCount(ctx.get()) : CertCount(ctx.get())) == 1, r.expect == DORVEX_OK);
    }
}

// The intake feeds path verification: root by memory, CA and CRLs by a CRL
// file, the leaf as PEM; the leaf is then judged at the context's time.
TEST(Intake, MaterialServesPathVerification) {
    const auto &p = Pki();
    TempDir dir;
    tp::WriteFile(dir.path / "crls.der", tp::ConcatDer({p.rootCrl, p.ca.cert.Der(), p.caCrl}));
    struct Row {
        const char *name;
        bool withCrls;
        const char *when;
        uint32_t expect, valid;
    } rows[] = {
        {"inside every validity", true, "250601000000Z", DORVEX_OK, 1},
        {"after the leaf expired", true, "400601000000Z", DORVEX_ERR_CERT_EXPIRED, 0},
        {"no CRL for the CA", false, "250601000000Z", DORVEX_ERR_NO_CRL, 0},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        CtxPtr ctx = NewCtx();
        const Bytes &root = p.root.cert.Der();
        ASSERT_EQ(DorvexVerifyAddCert(ctx.get(), root.data(), root.size()), DORVEX_OK);
        if (r.withCrls) {
            ASSERT_EQ(DorvexVerifyAddCrlFile(ctx.get(), (dir.path / "crls.der").c_str()),
                      DORVEX_OK);
        } else {
            ASSERT_EQ(
                DorvexVerifyAddCert(ctx.get(), p.ca.cert.Der().data(), p.ca.cert.Der().size()),
                DORVEX_OK);
        }
        const Bytes leafPem = Text(CertPem(p.leaf));
        ASSERT_EQ(DorvexVerifyAddCert(ctx.get(), leafPem.data(), leafPem.size()), DORVEX_OK);
        ASSERT_EQ(CertCount(ctx.get()), 3);
        auto *leaf = static_cast<DorvexX509Cert *>(ctx->pki->certs.items[2]);
        ctx->verifyTime = tp::EpochOf(tp::Utc(r.when));
        uint32_t valid = 7;
        EXPECT_EQ(DorvexPkiVerifyCert(ctx.get(), leaf, 1, 0, &valid), r.expect);
        EXPECT_EQ(valid, r.valid);
    }
}

TEST(VrfCtx, VersionText) {
    const char *v = DorvexGetVersion();
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(strlen(v), DORVEX_VERSION_LEN);
    EXPECT_EQ(v, DorvexGetVersion());
}

}  // namespace
