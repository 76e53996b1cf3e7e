// pkg_sign end to end under the demo root this build trusts: what it makes is
// checked by the sandboxed verify_tool; replies come from `openssl ts` or
// pkg_sign's own local TSA.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "tests/tool/tool_runner.h"
#include "tools/testpki/testpki.h"

namespace {

namespace fs = std::filesystem;
namespace tp = testpki;
using Outcome = vt_test::ToolRun;

const tp::DemoPki &Pki() {
    static const tp::DemoPki pki = tp::MakeDemoPki();
    return pki;
}

std::string Key(const char *name) {
    return (tp::DefaultKeyDir() / (std::string(name) + ".pem")).string();
}

// A scratch folder with the demo PKI, a checksum file and a TSA configuration.
class PkgSignTest : public testing::Test {
  public:
    void SetUp() override {
        char pattern[] = "/tmp/vt_pkg_sign_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        tp::WriteDemoPki(Pki(), dir_);
        tp::WriteFile(dir_ / "sums", tp::DemoChecksums());
        tp::WriteFile(dir_ / "crls+ca.pem", Read("crls.pem") + Read("ca.pem"));
        tp::WriteFile(dir_ / "tsa-serial", std::string_view("01\n"));
        tp::WriteFile(dir_ / "openssl.cnf",
                      "[ tsa ]\ndefault_tsa = c\n[ c ]\nserial = " + P("tsa-serial") +
                          "\nsigner_cert = " + P("tsa.pem") + "\nsigner_key = " + Key("tsa-2048") +
                          "\nsigner_digest = sha256\ndefault_policy = 1.2.3.4.1\n"
                          "digests = sha256, sha384, sha512\ness_cert_id_alg = sha256\n");
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string P(const std::string &name) const { return (dir_ / name).string(); }
    std::string Read(const std::string &name) const { return vt_test::ReadFile(P(name)); }

    Outcome PkgSign(std::vector<std::string> args) const {
        args.insert(args.begin(), VT_PKG_SIGN);
        return vt_test::RunProgram(std::move(args));
    }
    Outcome OpensslReply(const std::string &tsq, const std::string &tsr) {
        return vt_test::RunProgram({VT_OPENSSL, "ts", "-reply", "-config", P("openssl.cnf"),
                                    "-queryfile", P(tsq), "-out", P(tsr)},
                                   {}, false);
    }
    // Writes a certificate of the demo CA for `key` and returns its file.
    std::string EndEntity(const char *key, std::vector<std::string> purposes) {
        tp::CertSpec plan;
        plan.subjectKey = tp::LoadTestKey(key);
        plan.issuer = Pki().ca;
        plan.subject = tp::SimpleName({{"CN", key}});
        plan.serial = {0x20, static_cast<uint8_t>(++issued_)};
        plan.basicConstraints = tp::BasicConstraints{false, {}, true};
        plan.keyUsage = tp::KeyUsage::Of(tp::ku::kDigitalSignature);
        plan.extKeyUsage = tp::ExtKeyUsage{std::move(purposes), true};
        const std::string file = P(std::to_string(issued_) + ".pem");
        tp::WriteFile(file, tp::ToPem(tp::kPemCertificate, IssueCert(plan).Der()));
        return file;
    }
    // sign of `in` into `out` with the CA certificate as chain.
    Outcome Sign(const std::string &key, const std::string &cert, const std::string &out,
                 std::vector<std::string> extra = {}, const std::string &in = "sums") {
        std::vector<std::string> args = {"sign",      "--key", key,   "--cert", cert,  "--chain",
                                         P("ca.pem"), "--in",  P(in), "--out",  P(out)};
        args.insert(args.end(), extra.begin(), extra.end());
        return PkgSign(args);
    }
    // A package folder whose names sort differently by bytes and by locale.
    void MakePkg() {
        fs::create_directories(dir_ / "pkg/data/z");
        tp::WriteFile(dir_ / "pkg/a b", std::string_view("1"));
        tp::WriteFile(dir_ / "pkg/B.txt", std::string_view("2"));
        tp::WriteFile(dir_ / "pkg/data/blob", std::string_view("blob"));
        tp::WriteFile(dir_ / "pkg/data/z/deep", std::string_view("deep"));
    }
    Outcome Manifest(const std::string &out = "out.p7s", const std::string &md = "sha256") {
        return PkgSign({"manifest", "--dir", P("pkg"), "--out", P(out), "--md", md});
    }

    fs::path dir_;
    int issued_ = 0;
};

const struct FlowCase {
    const char *name;
    const char *md;
    const char *signerKey;  // with a code-signing certificate of the demo CA made here
    const char *tsaKey;     // the same for the local TSA
    const char *stamped;    // what the local TSA stamps (sig.tsq, sig.der); null: openssl's reply
    bool pss;
    bool pem;
} kFlows[] = {
    {"sha256_openssl_reply", "sha256", "leaf-2048", "tsa-2048", nullptr, false, false},
    {"sha384_ecdsa_p256_signer_p384_tsa_query_pem", "sha384", "ec-p256", "ec-p384", "sig.tsq",
     false, true},
    // The largest RSA key verify_tool takes.
    {"sha512_pss_signer_of_8192_bits", "sha512", "rsa-8192", "tsa-2048", "sig.der", true, false},
};

void PrintTo(const FlowCase &c, std::ostream *os) {
    *os << c.name;
}

class FlowTest : public PkgSignTest, public testing::WithParamInterface<FlowCase> {};

// manifest, sign, a time-stamp reply, add-timestamp: CHECK_PKG_FILES takes
// the package.
TEST_P(FlowTest, VerifyToolAcceptsThePackage) {
    const FlowCase &c = GetParam();
    MakePkg();
    ASSERT_EQ(Manifest("pkg/sums", c.md).exitStatus, 0);
    const std::string list = Read("pkg/sums");
    // Sorted by bytes; the digests are what CHECK_PKG_FILES checks below.
    EXPECT_TRUE(
        std::regex_match(list, std::regex("[0-9a-f]+  B\\.txt\n[0-9a-f]+  a b\n"
                                          "[0-9a-f]+  data/blob\n[0-9a-f]+  data/z/deep\n")))
        << list;
    // Made again with the list now in the folder: it leaves itself out.
    ASSERT_EQ(Manifest("pkg/sums", c.md).exitStatus, 0);
    EXPECT_EQ(Read("pkg/sums"), list);

    std::vector<std::string> extra = {"--md", c.md, "--tsq", P("sig.tsq")};
    if (c.pss) {
        extra.push_back("--pss");
    }
    const Outcome made = Sign(Key(c.signerKey), EndEntity(c.signerKey, {"codeSigning"}), "sig.der",
                              extra, "pkg/sums");
    ASSERT_EQ(made.exitStatus, 0) << made.stderrText;
    // id-RSASSA-PSS names the signer's algorithm exactly when asked for.
    EXPECT_EQ(Read("sig.der").find("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0a") != std::string::npos,
              c.pss);
    const Outcome stamp =
        c.stamped == nullptr
            ? OpensslReply("sig.tsq", "sig.tsr")
            : PkgSign({"local-tsa", "--key", Key(c.tsaKey), "--cert",
                       EndEntity(c.tsaKey, {"timeStamping"}),
                       std::string(c.stamped) == "sig.tsq" ? "--tsq" : "--sig", P(c.stamped),
                       "--out", P("sig.tsr"), "--time", "20261101120000Z"});
    ASSERT_EQ(stamp.exitStatus, 0) << stamp.stderrText;
    std::vector<std::string> add = {"add-timestamp", "--sig", P("sig.der"),  "--tsr",
                                    P("sig.tsr"),    "--out", P("final.p7s")};
    if (c.pem) {
        add.push_back("--pem");
    }
    const Outcome added = PkgSign(add);
    ASSERT_EQ(added.exitStatus, 0) << added.stderrText;
    EXPECT_EQ(Read("final.p7s").rfind("-----BEGIN CMS-----", 0) == 0, c.pem);

    const Outcome ok = vt_test::RunTool({"-f", "CHECK_PKG_FILES", "-h", P("final.p7s"), "-e",
                                         P("pkg/sums"), "-c", P("crls+ca.pem")});
    EXPECT_EQ(ok.exitStatus, 0) << ok.stdoutText;
}

INSTANTIATE_TEST_SUITE_P(PkgSign, FlowTest, testing::ValuesIn(kFlows),
                         [](const auto &info) { return std::string(info.param.name); });

struct RefusalCase {
    const char *name;
    std::function<Outcome(PkgSignTest &)> run;
    int exitStatus;
    const char *message;  // on standard error
};

void PrintTo(const RefusalCase &c, std::ostream *os) {
    *os << c.name;
}

class RefusalTest : public PkgSignTest, public testing::WithParamInterface<RefusalCase> {};

// `sign` with `key` and a certificate of the demo CA for it.
std::function<Outcome(PkgSignTest &)> SignAs(const char *key, const char *purpose) {
    return [=](PkgSignTest &t) { return t.Sign(Key(key), t.EndEntity(key, {purpose}), "out.p7s"); };
}

// A fixed command line.
std::function<Outcome(PkgSignTest &)> Args(std::vector<std::string> args) {
    return [=](PkgSignTest &t) { return t.PkgSign(args); };
}

const RefusalCase kRefusals[] = {
    {"signer_key_of_1024_bits", SignAs("rsa-1024", "codeSigning"), 1,
     "has 1024 bits; verify_tool takes RSA keys of 2048 to 8192 bits"},
    {"signer_without_code_signing", SignAs("leaf-2048", "serverAuth"), 1,
     "the signer certificate's extended key usage lacks codeSigning"},
    {"version_1_chain_certificate",
     [](PkgSignTest &t) {
         tp::CertSpec plan;
         plan.version = 1;
         plan.subjectKey = tp::LoadTestKey("other-2048");
         plan.issuer = Pki().root;
         plan.subject = tp::SimpleName({{"CN", "Version 1"}});
         tp::WriteFile(t.P("v1.pem"), tp::ToPem(tp::kPemCertificate, tp::IssueCert(plan).Der()));
         return t.PkgSign({"sign", "--key", Key("leaf-2048"), "--cert", t.P("leaf.pem"), "--chain",
                           t.P("v1.pem"), "--in", t.P("sums"), "--out", t.P("out.p7s")});
     },
     1, "certificate is version 1; verify_tool decodes version 2 and 3 only"},
    {"manifest_with_a_link",
     [](PkgSignTest &t) {
         t.MakePkg();
         fs::create_symlink("../sums", t.P("pkg/data/sums"));
         return t.Manifest();
     },
     1, "pkg/data/sums is a symbolic link; verify_tool follows no link"},
    {"no_command", Args({}), 2, "no command given"},
    {"unreadable_key",
     Args({"sign", "--key", "/nonexistent", "--cert", "c", "--in", "i", "--out", "o"}), 1,
     "cannot open /nonexistent"},
};

TEST_P(RefusalTest, ExitStatusMessageAndNothingWritten) {
    const RefusalCase &c = GetParam();
    const Outcome run = c.run(*this);
    EXPECT_EQ(run.exitStatus, c.exitStatus);
    EXPECT_NE(run.stderrText.find(c.message), std::string::npos) << run.stderrText;
    EXPECT_FALSE(fs::exists(dir_ / "out.p7s"));
}

INSTANTIATE_TEST_SUITE_P(PkgSign, RefusalTest, testing::ValuesIn(kRefusals),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
