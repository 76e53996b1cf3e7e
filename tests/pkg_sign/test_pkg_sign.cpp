// pkg_sign end to end: the real program as a subprocess, with certificates
// from the test-PKI generator under the demo root this build trusts. Packages
// it makes are checked by the real (sandboxed) verify_tool; timestamp replies
// come from `openssl ts -reply` or from pkg_sign's own local TSA.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/tool/tool_runner.h"
#include "tools/testpki/testpki.h"

namespace {

namespace fs = std::filesystem;

const testpki::DemoPki &Pki() {
    static const testpki::DemoPki pki = testpki::MakeDemoPki();
    return pki;
}

std::string Key(const char *name) {
    return (testpki::DefaultKeyDir() / (std::string(name) + ".pem")).string();
}

using Outcome = vt_test::ToolRun;

std::string ReadText(const fs::path &file) {
    return vt_test::ReadFile(file.string());
}

// A scratch folder holding the demo PKI, a checksum file and an openssl TSA
// configuration; removed with the fixture.
class PkgSignTest : public testing::Test {
  public:
    void SetUp() override {
        char pattern[] = "/tmp/vt_pkg_sign_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        testpki::WriteDemoPki(Pki(), dir_);
        testpki::WriteFile(dir_ / "sums", testpki::DemoChecksums());
        testpki::WriteFile(dir_ / "crls+ca.pem",
                           ReadText(dir_ / "crls.pem") + ReadText(dir_ / "ca.pem"));
        testpki::WriteFile(dir_ / "tsa-serial", std::string_view("01\n"));
        testpki::WriteFile(dir_ / "openssl.cnf",
                           "[ tsa ]\ndefault_tsa = tsa_config\n[ tsa_config ]\n"
                           "serial = " +
                               P("tsa-serial") + "\nsigner_cert = " + P("tsa.pem") +
                               "\nsigner_key = " + Key("tsa-2048") +
                               "\nsigner_digest = sha256\ndefault_policy = 1.2.3.4.1\n"
                               "digests = sha256, sha384, sha512\ness_cert_id_alg = sha256\n");
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string P(const std::string &name) const { return (dir_ / name).string(); }

    Outcome PkgSign(std::vector<std::string> args) const {
        args.insert(args.begin(), VT_PKG_SIGN);
        return vt_test::RunProgram(std::move(args));
    }
    Outcome Openssl(std::vector<std::string> args) const {
        args.insert(args.begin(), VT_OPENSSL);
        return vt_test::RunProgram(std::move(args), {}, false);
    }

    // sign: the demo leaf (or signerKey_ with signerCert_), with the
    // intermediate CA embedded.
    Outcome Sign(const std::string &out, const std::string &md,
                 std::vector<std::string> extra = {}) {
        const std::string cert = signerCert_.empty() ? P("leaf.pem") : signerCert_;
        std::vector<std::string> args = {
            "sign", "--key",   Key(signerKey_), "--cert", cert,   "--chain", P("ca.pem"),
            "--in", P("sums"), "--out",         P(out),   "--md", md};
        args.insert(args.end(), extra.begin(), extra.end());
        return PkgSign(args);
    }
    Outcome OpensslReply(const std::string &tsq, const std::string &tsr) {
        return Openssl(
            {"ts", "-reply", "-config", P("openssl.cnf"), "-queryfile", P(tsq), "-out", P(tsr)});
    }
    Outcome LocalTsa(std::vector<std::string> input, const std::string &tsr) {
        const std::string cert = tsaCert_.empty() ? P("tsa.pem") : tsaCert_;
        std::vector<std::string> args = {"local-tsa", "--key", Key(tsaKey_), "--cert",         cert,
                                         "--out",     P(tsr),  "--time",     "20261101120000Z"};
        args.insert(args.end(), input.begin(), input.end());
        return PkgSign(args);
    }
    // Writes a certificate issued by the demo CA for `key`.
    std::string EndEntity(const std::string &name, const char *key,
                          std::vector<std::string> purposes,
                          uint8_t usage = testpki::ku::kDigitalSignature) {
        testpki::CertSpec plan;
        plan.subjectKey = testpki::Key::LoadPem(Key(key));
        plan.issuer = Pki().ca;
        plan.subject = testpki::SimpleName({{"CN", name}});
        plan.serial = {0x20, static_cast<uint8_t>(name.size())};
        plan.basicConstraints = testpki::BasicConstraints{false, {}, true};
        plan.keyUsage = testpki::KeyUsage::Of(usage);
        plan.extKeyUsage = testpki::ExtKeyUsage{std::move(purposes), true};
        testpki::WriteFile(dir_ / (name + ".pem"),
                           testpki::ToPem(testpki::kPemCertificate, IssueCert(plan).Der()));
        return P(name + ".pem");
    }

    // pkg_sign manifest of dir_/pkg into `out`.
    Outcome Manifest(const std::string &out = "out.p7s", const std::string &md = "sha256") {
        return PkgSign({"manifest", "--dir", P("pkg"), "--out", P(out), "--md", md});
    }
    // A package folder whose names sort differently by bytes and by locale.
    void MakePkg() {
        fs::create_directories(dir_ / "pkg/data/z");
        testpki::WriteFile(dir_ / "pkg/a b", std::string_view("1"));
        testpki::WriteFile(dir_ / "pkg/B.txt", std::string_view("2"));
        testpki::WriteFile(dir_ / "pkg/data/blob", std::string_view("blob"));
        testpki::WriteFile(dir_ / "pkg/data/z/deep", std::string_view("deep"));
    }

    fs::path dir_;
    const char *signerKey_ = "leaf-2048";
    const char *tsaKey_ = "tsa-2048";
    std::string signerCert_, tsaCert_;  // empty: the demo leaf and TSA
};

// ---- packages that verify ---------------------------------------------------

enum class Stamp { OpensslReply, LocalTsaQuery, LocalTsaSig };

struct FlowCase {
    const char *name;
    const char *md;
    bool pem;
    Stamp stamp;
    const char *signerKey = nullptr;  // a code-signing leaf of this key instead of the demo one
    const char *tsaKey = nullptr;     // the same for the local TSA
    bool pss = false;
};

const FlowCase kFlows[] = {
    {"sha256_openssl_reply", "sha256", false, Stamp::OpensslReply},
    {"sha384_openssl_reply_pem", "sha384", true, Stamp::OpensslReply},
    {"sha512_openssl_reply", "sha512", false, Stamp::OpensslReply},
    {"sha256_local_tsa_query_pem", "sha256", true, Stamp::LocalTsaQuery},
    {"sha512_local_tsa_signature", "sha512", false, Stamp::LocalTsaSig},
    {"ecdsa_p256_signer_p384_local_tsa", "sha384", false, Stamp::LocalTsaQuery, "ec-p256",
     "ec-p384"},
    {"pss_signer_openssl_reply", "sha256", false, Stamp::OpensslReply, nullptr, nullptr, true},
};

void PrintTo(const FlowCase &c, std::ostream *os) {
    *os << c.name;
}

class FlowTest : public PkgSignTest, public testing::WithParamInterface<FlowCase> {};

TEST_P(FlowTest, VerifyToolAcceptsThePackage) {
    const FlowCase &c = GetParam();
    if (c.signerKey != nullptr) {
        signerKey_ = c.signerKey;
        signerCert_ = EndEntity("signer", c.signerKey, {"codeSigning"});
    }
    if (c.tsaKey != nullptr) {
        tsaKey_ = c.tsaKey;
        tsaCert_ = EndEntity("tsa-p384", c.tsaKey, {"timeStamping"});  // a serial of its own
    }
    std::vector<std::string> extra = {"--tsq", P("sig.tsq")};
    if (c.pss) {
        extra.push_back("--pss");
    }
    const Outcome made = Sign("sig.der", c.md, extra);
    ASSERT_EQ(made.exitStatus, 0) << made.stderrText;
    // id-RSASSA-PSS names the signer's algorithm exactly when asked for.
    const std::string_view kPssOid = "\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0a";
    EXPECT_EQ(ReadText(dir_ / "sig.der").find(kPssOid) != std::string::npos, c.pss);
    Outcome stamp = c.stamp == Stamp::OpensslReply ? OpensslReply("sig.tsq", "sig.tsr")
                    : c.stamp == Stamp::LocalTsaQuery
                        ? LocalTsa({"--tsq", P("sig.tsq")}, "sig.tsr")
                        : LocalTsa({"--sig", P("sig.der")}, "sig.tsr");
    ASSERT_EQ(stamp.exitStatus, 0) << stamp.stderrText;
    std::vector<std::string> add = {"add-timestamp", "--sig", P("sig.der"),  "--tsr",
                                    P("sig.tsr"),    "--out", P("final.p7s")};
    if (c.pem) {
        add.push_back("--pem");
    }
    const Outcome added = PkgSign(add);
    ASSERT_EQ(added.exitStatus, 0) << added.stderrText;
    EXPECT_EQ(ReadText(dir_ / "final.p7s").rfind("-----BEGIN CMS-----", 0) == 0, c.pem);

    const auto verify = [&](const char *content) {
        return vt_test::RunTool({"-f", "CHECK_PKG_INTEGRITY", "-h", P("final.p7s"), "-e",
                                 P(content), "-c", P("crls+ca.pem")});
    };
    const vt_test::ToolRun ok = verify("sums");
    EXPECT_EQ(ok.exitStatus, 0) << ok.stdoutText;
    // The unstamped signature is what verify_tool refuses: no token.
    fs::copy_file(dir_ / "sig.der", dir_ / "final.p7s", fs::copy_options::overwrite_existing);
    EXPECT_EQ(verify("sums").exitStatus, 1);
}

INSTANTIATE_TEST_SUITE_P(PkgSign, FlowTest, testing::ValuesIn(kFlows),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- refusals ---------------------------------------------------------------

struct RefusalCase {
    const char *name;
    std::function<Outcome(PkgSignTest &)> run;
    const char *message;
};

void PrintTo(const RefusalCase &c, std::ostream *os) {
    *os << c.name;
}

class RefusalTest : public PkgSignTest, public testing::WithParamInterface<RefusalCase> {};

Outcome SignWith(PkgSignTest &r, const std::string &key, const std::string &cert) {
    return r.PkgSign(
        {"sign", "--key", key, "--cert", cert, "--in", r.P("sums"), "--out", r.P("out.p7s")});
}

// A signature of sums and a granted reply for another signature.
Outcome AddForeignReply(PkgSignTest &r) {
    r.Sign("a.der", "sha256");
    testpki::WriteFile(r.P("sums"), std::string_view("other content\n"));
    r.Sign("b.der", "sha256", {"--tsq", r.P("b.tsq")});
    r.OpensslReply("b.tsq", "b.tsr");
    return r.PkgSign(
        {"add-timestamp", "--sig", r.P("a.der"), "--tsr", r.P("b.tsr"), "--out", r.P("out.p7s")});
}

// openssl's TSA rejects a SHA-1 query (its digests are SHA-2 only).
Outcome AddRejection(PkgSignTest &r) {
    r.Sign("a.der", "sha256");
    r.Openssl({"ts", "-query", "-data", r.P("sums"), "-sha1", "-cert", "-out", r.P("a.tsq")});
    r.OpensslReply("a.tsq", "a.tsr");
    return r.PkgSign(
        {"add-timestamp", "--sig", r.P("a.der"), "--tsr", r.P("a.tsr"), "--out", r.P("out.p7s")});
}

const RefusalCase kRefusals[] = {
    {"three_certificates",
     [](PkgSignTest &r) {
         return r.Sign("out.p7s", "sha256", {"--chain", r.P("root.pem")});
     },
     "would carry 3 certificates; verify_tool takes at most two"},
    {"sha1", [](PkgSignTest &r) { return r.Sign("out.p7s", "sha1"); },
     "digest sha1 is not accepted by verify_tool"},
    {"secp256k1_key",
     [](PkgSignTest &r) {
         return SignWith(r, Key("ec-secp256k1"),
                         r.EndEntity("ec", "ec-secp256k1", {"codeSigning"}));
     },
     "the signer key is an EC key on secp256k1; verify_tool takes EC keys on P-256 and P-384"},
    {"pss_with_ec_key",
     [](PkgSignTest &r) {
         const std::string cert = r.EndEntity("ec", "ec-p256", {"codeSigning"});
         return r.PkgSign({"sign", "--key", Key("ec-p256"), "--cert", cert, "--in", r.P("sums"),
                           "--out", r.P("out.p7s"), "--pss"});
     },
     "--pss needs an RSA key"},
    {"key_of_another_certificate",
     [](PkgSignTest &r) { return SignWith(r, Key("other-2048"), r.P("leaf.pem")); },
     "does not belong to the certificate"},
    {"signer_key_of_1024_bits",
     [](PkgSignTest &r) {
         return SignWith(r, Key("rsa-1024"), r.EndEntity("small", "rsa-1024", {"codeSigning"}));
     },
     "has 1024 bits; verify_tool takes RSA keys of 2048 to 8192 bits"},
    {"version_1_chain_certificate",
     [](PkgSignTest &r) {
         testpki::CertSpec plan;
         plan.version = 1;
         plan.subjectKey = testpki::LoadTestKey("other-2048");
         plan.issuer = Pki().root;
         plan.subject = testpki::SimpleName({{"CN", "Version 1"}});
         plan.serial = {0x31};
         testpki::WriteFile(r.dir_ / "v1.pem", testpki::ToPem(testpki::kPemCertificate,
                                                              testpki::IssueCert(plan).Der()));
         return r.PkgSign({"sign", "--key", Key("leaf-2048"), "--cert", r.P("leaf.pem"), "--chain",
                           r.P("v1.pem"), "--in", r.P("sums"), "--out", r.P("out.p7s")});
     },
     "certificate is version 1; verify_tool decodes version 2 and 3 only"},
    {"signer_without_code_signing",
     [](PkgSignTest &r) {
         return SignWith(r, Key("leaf-2048"), r.EndEntity("server", "leaf-2048", {"serverAuth"}));
     },
     "the signer certificate's extended key usage lacks codeSigning"},
    {"signer_without_digital_signature",
     [](PkgSignTest &r) {
         return SignWith(
             r, Key("leaf-2048"),
             r.EndEntity("nonrep", "leaf-2048", {"codeSigning"}, testpki::ku::kNonRepudiation));
     },
     "the signer certificate's key usage lacks digitalSignature"},
    {"tsa_without_time_stamping",
     [](PkgSignTest &r) {
         r.Sign("a.der", "sha256");
         return r.PkgSign({"local-tsa", "--key", Key("tsa-2048"), "--cert",
                           r.EndEntity("tsa-cs", "tsa-2048", {"codeSigning"}), "--sig",
                           r.P("a.der"), "--out", r.P("out.p7s")});
     },
     "the TSA certificate's extended key usage lacks timeStamping"},
    {"reply_for_another_signature", AddForeignReply, "the time-stamp reply stamps something else"},
    {"reply_not_granted", AddRejection,
     "the time-stamp reply is not granted: status rejection, badAlg"},
    {"manifest_with_a_link",
     [](PkgSignTest &r) {
         r.MakePkg();
         fs::create_symlink("../sums", r.dir_ / "pkg/data/sums");
         return r.Manifest();
     },
     "pkg/data/sums is a symbolic link; verify_tool follows no link"},
    {"manifest_with_a_fifo",
     [](PkgSignTest &r) {
         r.MakePkg();
         mkfifo(r.P("pkg/pipe").c_str(), 0600);
         return r.Manifest();
     },
     "pkg/pipe is not a regular file"},
    {"manifest_with_a_control_character",
     [](PkgSignTest &r) {
         r.MakePkg();
         testpki::WriteFile(r.dir_ / "pkg/a\tb", std::string_view("x"));
         return r.Manifest();
     },
     "a control character in the name"},
    {"manifest_of_no_file",
     [](PkgSignTest &r) {
         fs::create_directories(r.dir_ / "pkg/empty");
         return r.Manifest();
     },
     "holds no file to list"},
};

TEST_P(RefusalTest, ExitsOneWithItsMessageAndWritesNothing) {
    const RefusalCase &c = GetParam();
    const Outcome run = c.run(*this);
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.stderrText.find(c.message), std::string::npos) << run.stderrText;
    EXPECT_FALSE(fs::exists(dir_ / "out.p7s"));
}

INSTANTIATE_TEST_SUITE_P(PkgSign, RefusalTest, testing::ValuesIn(kRefusals),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- manifest -----------------------------------------------------------------

std::string Sha512Line(const std::string &path, std::string_view content) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    EVP_Digest(content.data(), content.size(), digest, &len, EVP_sha512(), nullptr);
    std::string line;
    for (unsigned int i = 0; i < len; ++i) {
        line += "0123456789abcdef"[digest[i] >> 4];
        line += "0123456789abcdef"[digest[i] & 15];
    }
    return line + "  " + path + "\n";
}

// The list of a package folder, signed and stamped, passes CHECK_PKG_FILES
// until a listed byte changes.
TEST_F(PkgSignTest, ManifestSignedAndStampedPassesFileByFile) {
    MakePkg();
    ASSERT_EQ(Manifest("pkg/sha256sums", "sha512").exitStatus, 0);
    const std::string list = ReadText(dir_ / "pkg/sha256sums");
    EXPECT_EQ(list, Sha512Line("B.txt", "2") + Sha512Line("a b", "1") +
                        Sha512Line("data/blob", "blob") + Sha512Line("data/z/deep", "deep"));
    // Made again with the list now in the folder: it leaves itself out.
    ASSERT_EQ(Manifest("pkg/sha256sums", "sha512").exitStatus, 0);
    EXPECT_EQ(ReadText(dir_ / "pkg/sha256sums"), list);

    ASSERT_EQ(PkgSign({"sign", "--key", Key("leaf-2048"), "--cert", P("leaf.pem"), "--chain",
                       P("ca.pem"), "--in", P("pkg/sha256sums"), "--out", P("sig.der")})
                  .exitStatus,
              0);
    ASSERT_EQ(LocalTsa({"--sig", P("sig.der")}, "sig.tsr").exitStatus, 0);
    ASSERT_EQ(PkgSign({"add-timestamp", "--sig", P("sig.der"), "--tsr", P("sig.tsr"), "--out",
                       P("pkg/sha256sums.p7s")})
                  .exitStatus,
              0);
    const auto verify = [&] {
        return vt_test::RunTool({"-f", "CHECK_PKG_FILES", "-h", P("pkg/sha256sums.p7s"), "-e",
                                 P("pkg/sha256sums"), "-c", P("crls+ca.pem")});
    };
    EXPECT_EQ(verify().exitStatus, 0);
    testpki::WriteFile(dir_ / "pkg/data/blob", std::string_view("blot"));
    EXPECT_EQ(verify().exitStatus, 0x29);
}

// The largest key verify_tool takes.
TEST_F(PkgSignTest, SignerKeyOf8192BitsIsTaken) {
    const Outcome run =
        SignWith(*this, Key("rsa-8192"), EndEntity("big", "rsa-8192", {"codeSigning"}));
    EXPECT_EQ(run.exitStatus, 0) << run.stderrText;
}

// ---- command line -----------------------------------------------------------

struct UsageCase {
    const char *name;
    std::vector<std::string> args;
    int status;
    const char *message;
};

const UsageCase kUsage[] = {
    {"no_command", {}, 2, "no command given"},
    {"unknown_command", {"verify"}, 2, "unknown command 'verify'"},
    {"missing_out", {"sign", "--key", "k", "--cert", "c", "--in", "i"}, 2, "missing --out"},
    {"unknown_option", {"add-timestamp", "--sig", "s", "--tsa", "t"}, 2, "unknown option --tsa"},
    {"value_missing", {"sign", "--key"}, 2, "--key needs a value"},
    {"option_twice", {"sign", "--in", "a", "--in", "b"}, 2, "--in given twice"},
    {"tsq_and_sig",
     {"local-tsa", "--key", "k", "--cert", "c", "--tsq", "q", "--sig", "s", "--out", "o"},
     2,
     "either --tsq or --sig"},
    {"bad_time",
     {"local-tsa", "--key", "k", "--cert", "c", "--tsq", "q", "--out", "o", "--time",
      "20261301000000Z"},
     2,
     "--time takes YYYYMMDDHHMMSSZ"},
    {"unreadable_key",
     {"sign", "--key", "/nonexistent", "--cert", "c", "--in", "i", "--out", "o"},
     1,
     "cannot open /nonexistent"},
};

void PrintTo(const UsageCase &c, std::ostream *os) {
    *os << c.name;
}

class UsageTest : public PkgSignTest, public testing::WithParamInterface<UsageCase> {};

TEST_P(UsageTest, ExitStatusAndMessage) {
    const UsageCase &c = GetParam();
    const Outcome run = PkgSign(c.args);
    EXPECT_EQ(run.exitStatus, c.status);
    EXPECT_NE(run.stderrText.find(c.message), std::string::npos) << run.stderrText;
}

INSTANTIATE_TEST_SUITE_P(PkgSign, UsageTest, testing::ValuesIn(kUsage),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(PkgSignTest, HelpPrintsUsageAndSucceeds) {
    const Outcome run = PkgSign({"--help"});
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_EQ(run.stdoutText.rfind("Usage: pkg_sign sign", 0), 0u) << run.stdoutText;
}

}  // namespace
