// crl_info run as a subprocess over CRL files made by testpki for the demo
// hierarchy, whose root is the one the program has built in.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/tool/tool_runner.h"
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;
using tp::Bytes;

Bytes Crl(const tp::Credential &issuer, const std::string &thisUpdate,
          std::vector<tp::RevokedEntry> revoked = {}) {
    tp::CrlSpec s;
    s.issuer = issuer;
    s.thisUpdate = tp::Utc(thisUpdate);
    s.revoked = std::move(revoked);
    return tp::MakeCrl(s);
}

// Every CRL file is read by a fresh run with an OpenSSL configuration that,
// if read, would leave no digest at all.
TEST(CrlInfoTool, ReportsAndDecides) {
    std::ifstream in(VT_ROOT_CERT_FILE, std::ios::binary);
    const tp::DemoPki pki = tp::MakeDemoPki();
    if (Bytes{std::istreambuf_iterator<char>(in), {}} != pki.root.cert.Der()) {
        GTEST_SKIP() << "the build trusts another root than the demo root";
    }
    char templ[] = "/tmp/crl_info_tool-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    const std::filesystem::path dir = templ;
    const auto path = [&](const std::string &name) { return (dir / name).string(); };
    tp::CertSpec strangerSpec;
    strangerSpec.subjectKey = tp::LoadTestKey("other-2048");
    strangerSpec.subject = tp::SimpleName({{"CN", "Stranger\x1f CA"}});  // printed as "?"
    const tp::Credential stranger = tp::IssueCredential(strangerSpec);
    const Bytes &ca = pki.ca.cert.Der();
    const tp::RevokedEntry other{{0x10, 0x7F}, tp::Utc("240301000000Z"), std::nullopt};
    tp::WriteFile(path("installed.pem"),
                  tp::PemBundle({{"X509 CRL", Crl(pki.root, "240601000000Z", {other})},
                                 {"X509 CRL", Crl(pki.ca, "240601000000Z", {other})},
                                 {"CERTIFICATE", ca}}));
    tp::WriteFile(path("newer.der"), tp::ConcatDer({Crl(pki.root, "240701000000Z"),
                                                    Crl(pki.ca, "240601000000Z"), ca}));
    tp::WriteFile(path("untrusted.der"), tp::ConcatDer({Crl(stranger, "240601000000Z"), ca}));
    tp::WriteFile(path("garbage.der"), std::string(100, 'x'));
    tp::WriteFile(path("null.cnf"),
                  "openssl_conf = init\n[init]\nproviders = p\n[p]\nnull = n\n[n]\nactivate = 1\n");

    struct Row {
        const char *name;
        std::vector<std::string> args;  // file names are taken from the scratch folder
        int exitStatus;
        std::vector<std::string> stdoutLines;
        const char *stderrHas;
    } rows[] = {
        {"no arguments", {}, 2, {}, "Usage: crl_info"},
        {"unreadable", {"missing.pem"}, 2, {}, "missing.pem: cannot open the file (0x88000101)"},
        {"undecodable", {"garbage.der"}, 2, {}, "no CRL with its CA certificates"},
        {"trusted file",
         {"installed.pem"},
         0,
         {"CRL 1 of 2", "  issuer:      C=DE,O=Dorvex,CN=Demo Root CA",
          "  thisUpdate:  2024-06-01T00:00:00Z", "  nextUpdate:  2049-12-31T23:59:59Z",
          "  revoked:     1", "    107f", "CRL 2 of 2",
          "  issuer:      C=DE,O=Dorvex Test PKI,CN=Test Intermediate CA",
          "  signer:      trusted, serial 02", "  revoked:     none listed"},
         ""},
        {"untrusted file",
         {"untrusted.der"},
         1,
         {"  issuer:      CN=Stranger? CA", "  signer:      untrusted, serial unknown"},
         ""},
        {"newer replaces",
         {"--compare", "newer.der", "installed.pem"},
         0,
         {"result:  1 (first is newer)", "replace: yes"},
         ""},
        {"same file",
         {"--compare", "installed.pem", "installed.pem"},
         0,
         {"result:  0 (equivalent)", "replace: yes"},
         ""},
        {"untrusted set",
         {"--compare", "untrusted.der", "installed.pem"},
         1,
         {"result:  3 (undecidable)", "reason:  a CRL is not trusted (0x88200106)", "replace: no"},
         ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        std::vector<std::string> args;
        for (const auto &a : r.args) {
            args.push_back(a.find('.') == std::string::npos ? a : path(a));
        }
        const vt_test::ToolRun run = vt_test::RunTool(args, {"OPENSSL_CONF=" + path("null.cnf")});
        EXPECT_EQ(run.exitStatus, r.exitStatus);
        for (const auto &line : r.stdoutLines) {
            EXPECT_NE(run.stdoutText.find(line + "\n"), std::string::npos) << line;
        }
        EXPECT_NE(run.stderrText.find(r.stderrHas), std::string::npos) << run.stderrText;
        if (r.exitStatus == 2) {
            EXPECT_EQ(run.stdoutText, "");
        }
        // The library's own lines go to standard error, never into the report.
        EXPECT_EQ(run.stdoutText.find("[ERROR]"), std::string::npos) << run.stdoutText;
    }
    std::filesystem::remove_all(dir);
}

}  // namespace
