// The package check end to end: the real tool (sandboxed logging) over
// packages made by the test-PKI generator with the demo root, which is the
// root this build trusts. Exit statuses are the low byte of the result code.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <openssl/x509.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "tests/tool/tool_runner.h"
#include "tools/testpki/testpki.h"

namespace {

namespace fs = std::filesystem;
using testpki::Bytes;

const testpki::DemoPki &Pki() {
    static const testpki::DemoPki pki = testpki::MakeDemoPki();
    return pki;
}

const Bytes &Content() {
    static const Bytes content = [] {
        std::string text = testpki::DemoChecksums();
        return Bytes(text.begin(), text.end());
    }();
    return content;
}

std::string CrlFile(const std::vector<Bytes> &crls) {
    std::vector<testpki::PemBlock> blocks;
    for (const auto &crl : crls) {
        blocks.push_back({std::string(testpki::kPemCrl), crl});
    }
    return testpki::PemBundle(blocks);
}

// The signer's serial as INTEGER content octets, for a CRL entry.
Bytes SerialOf(const testpki::Cert &cert) {
    const ASN1_INTEGER *serial = X509_get0_serialNumber(cert.get());
    Bytes bytes(ASN1_STRING_get0_data(serial),
                ASN1_STRING_get0_data(serial) + ASN1_STRING_length(serial));
    if (bytes.empty() || (bytes[0] & 0x80) != 0) {
        bytes.insert(bytes.begin(), 0x00);
    }
    return bytes;
}

// The intermediate's CRL listing `cert`, revoked on 2025-01-01 for keyCompromise.
Bytes CaCrlRevoking(const testpki::Cert &cert) {
    testpki::CrlSpec plan;
    plan.issuer = Pki().ca;
    plan.revoked.push_back({SerialOf(cert), testpki::Utc("250101000000Z"), 1});
    return testpki::MakeCrl(plan);
}

// What one run is given; an empty crl means "-c" is left out.
struct Inputs {
    Bytes content = Content();
    Bytes signature;
    std::string crl = CrlFile({Pki().rootCrl, Pki().caCrl});
    bool withCrlOption = true;
    std::string fifo;         // the file ("sha256sums", ...) that is a FIFO instead
    std::string contentPath;  // -e, when not the written checksum file
    std::string opensslConf;  // an OpenSSL configuration that OPENSSL_CONF names
};

Inputs Package(testpki::Fault fault) {
    Inputs in;
    auto pkg = testpki::MakePackage(Pki(), fault, Content());
    in.content = pkg.content;
    in.signature = pkg.signature;
    return in;
}

Inputs WithFifo(const char *file) {
    Inputs in = Package(testpki::Fault::None);
    in.fifo = file;
    return in;
}

// The largest CRL file the store takes: 16 CRLs (the root's, the CA's and
// 14 older ones of the CA) and 11 CA certificates (the CA and 10 more of its
// key and name), in PEM.
std::string FullCrlFile() {
    std::vector<testpki::PemBlock> blocks = {{std::string(testpki::kPemCrl), Pki().rootCrl},
                                             {std::string(testpki::kPemCrl), Pki().caCrl},
                                             {"CERTIFICATE", Pki().ca.cert.Der()}};
    for (uint8_t i = 0; i < 14; ++i) {
        testpki::CrlSpec old;
        old.issuer = Pki().ca;
        old.thisUpdate = testpki::Utc("2401" + std::to_string(10 + i) + "000000Z");
        blocks.push_back({std::string(testpki::kPemCrl), testpki::MakeCrl(old)});
    }
    for (uint8_t i = 0; i < 10; ++i) {
        testpki::CertSpec ca;
        ca.subjectKey = Pki().ca.key;
        ca.issuer = Pki().root;
        ca.subject = testpki::SimpleName(
            {{"C", "DE"}, {"O", "Dorvex Test PKI"}, {"CN", "Test Intermediate CA"}});
        ca.serial = {0x30, i};
        ca.basicConstraints = testpki::BasicConstraints{};
        ca.keyUsage = testpki::KeyUsage::Of(testpki::ku::kKeyCertSign | testpki::ku::kCrlSign);
        blocks.push_back({"CERTIFICATE", testpki::IssueCert(ca).Der()});
    }
    return testpki::PemBundle(blocks);
}

Inputs Signed(testpki::Digest digest, testpki::Armour armour, const char *genTime = nullptr) {
    testpki::SignSpec plan;
    plan.signer = Pki().leaf;
    plan.digest = digest;
    plan.certs = {Pki().leaf.cert, Pki().ca.cert};
    testpki::TimestampSpec ts;
    ts.tsa = Pki().tsa;
    ts.maker = testpki::TokenMaker::Cms;
    if (genTime != nullptr) {
        ts.genTime = genTime;
    }
    plan.timestamp = ts;
    Inputs in;
    in.signature = testpki::Armoured(testpki::MakeSignedData(plan, Content()), armour);
    return in;
}

struct PackageCase {
    const char *name;
    std::function<Inputs()> make;
    int exitStatus;
    std::string toolMessage;  // the tool's last message before dispatch reports the result
    const char *console;      // a text the library's console output must hold, or null
};

using testpki::Armour;
using testpki::Digest;
using testpki::Fault;

const PackageCase kCases[] = {
    {"valid_der", [] { return Package(Fault::None); }, 0, "CheckSum file is valid.", nullptr},
    {"valid_pem_cms", [] { return Signed(Digest::Sha256, Armour::PemCms); }, 0,
     "CheckSum file is valid.", nullptr},
    {"valid_pem_pkcs7", [] { return Signed(Digest::Sha256, Armour::PemPkcs7); }, 0,
     "CheckSum file is valid.", nullptr},
    {"valid_sha384", [] { return Signed(Digest::Sha384, Armour::Der); }, 0,
     "CheckSum file is valid.", nullptr},
    {"valid_sha512", [] { return Signed(Digest::Sha512, Armour::Der); }, 0,
     "CheckSum file is valid.", nullptr},
    {"changed_content", [] { return Package(Fault::ChangedContent); }, 255,
     "Verify signature not match.", nullptr},
    {"empty_content",
     [] {
         auto in = Package(Fault::None);
         in.content.clear();
         return in;
     },
     255, "Verify signature not match.", nullptr},
    {"no_crl_option",
     [] {
         auto in = Package(Fault::None);
         in.withCrlOption = false;
         return in;
     },
     1, "Add CRL file  failed.", nullptr},
    {"no_timestamp", [] { return Package(Fault::NoTimestamp); }, 1,
     "Verify signature error, code 88100001.", "(err:88100001)"},
    {"signer_without_code_signing", [] { return Package(Fault::SignerWithoutCodeSigning); }, 7,
     "Verify signature error, code 88200007.", "(err:88200007)"},
    {"tsa_without_time_stamping", [] { return Package(Fault::TsaWithoutTimeStamping); }, 7,
     "Verify signature error, code 88200007.", "(err:88200007)"},
    {"imprint_over_content", [] { return Package(Fault::ImprintOverContent); }, 2,
     "Verify signature error, code 88200402.", "the timestamp not match with target cms."},
    {"tampered_signed_attribute", [] { return Package(Fault::TamperedSignedAttr); }, 9,
     "Verify signature error, code 88200309.", "(err:88200309)"},
    {"three_certificates", [] { return Package(Fault::ThreeCerts); }, 8,
     "Verify signature error, code 88200308.", "(err:88200308)"},
    {"no_signer", [] { return Package(Fault::NoSigner); }, 0x12,
     "Verify signature error, code 88200312.", "Signature carries no signer."},
    {"no_signer_no_certificate_39_bytes",
     [] {
         testpki::SignSpec plan;
         plan.noSigner = true;
         Inputs in;
         in.content.clear();
         // An empty certificate set in front of the empty signer set makes
         // it long enough to be decoded at all.
         const Bytes der = testpki::MakeSignedData(plan, in.content);
         const auto top = testpki::der::Children(der);
         auto fields = testpki::der::Children(testpki::der::Content(top[1]));
         fields.insert(fields.end() - 1, Bytes{0xA0, 0x00});
         in.signature =
             testpki::der::Seq({top[0], testpki::der::Tlv(0xA0, testpki::der::Seq(fields))});
         EXPECT_EQ(in.signature.size(), 39u);
         return in;
     },
     0x12, "Verify signature error, code 88200312.", "Signature carries no signer."},
    {"token_without_signer",
     [] {
         Inputs in = Signed(Digest::Sha256, Armour::Der);
         testpki::SignSpec plan;
         plan.signer = Pki().leaf;
         plan.certs = {Pki().leaf.cert, Pki().ca.cert};
         testpki::TimestampSpec ts;
         ts.tsa = Pki().tsa;
         ts.noSigner = true;
         plan.timestamp = ts;
         in.signature = testpki::MakeSignedData(plan, Content());
         return in;
     },
     3, "Verify signature error, code 88200403.", "Timestamp token carries no signer."},
    {"checksum_file_is_fifo", [] { return WithFifo("sha256sums"); }, 3,
     "Verify signature error, code 88000103.", "is not a regular file."},
    {"signature_file_is_fifo", [] { return WithFifo("sha256sums.p7s"); }, 3,
     "Verify signature error, code 88000103.", "is not a regular file."},
    {"crl_file_is_fifo",
     [] {
         Inputs in = WithFifo("crls.pem");
         in.crl = "-";  // written, then replaced
         return in;
     },
     3, "Add CRL file * failed.", "is not a regular file."},
    {"checksum_file_is_dev_zero",
     [] {
         Inputs in = Package(Fault::None);
         in.contentPath = "/dev/zero";
         return in;
     },
     3, "Verify signature error, code 88000103.", "is not a regular file."},
    {"sixteen_crls_and_eleven_ca_certificates",
     [] {
         Inputs in = Package(Fault::None);
         in.crl = FullCrlFile();
         return in;
     },
     0, "CheckSum file is valid.", nullptr},
    {"openssl_configuration_not_read",
     [] {
         // Read, it would leave OpenSSL with no digest at all.
         auto in = Package(Fault::None);
         in.opensslConf =
             "openssl_conf = init\n[init]\nproviders = providers\n"
             "[providers]\nnull = null\n[null]\nactivate = 1\n";
         return in;
     },
     0, "CheckSum file is valid.", nullptr},
    {"garbage_signature", [] { return Package(Fault::Garbage); }, 8,
     "Verify signature error, code 88200308.", "(err:88200308)"},
    {"signature_of_37_bytes",
     [] {
         auto in = Package(Fault::None);
         in.signature.resize(37);
         return in;
     },
     5, "Verify signature error, code 88200305.", "(err:88200305)"},
    {"signature_of_2000001_bytes",
     [] {
         auto in = Package(Fault::None);
         in.signature.resize(2000001, 0);
         return in;
     },
     6, "Verify signature error, code 88000106.", "(err:88000106)"},
    {"leaf_revoked",
     [] {
         auto in = Package(Fault::None);
         in.crl = CrlFile({Pki().rootCrl, CaCrlRevoking(Pki().leaf.cert)});
         return in;
     },
     2, "Verify signature error, code 88200002.", "The certificate was revoked."},
    {"tsa_revoked",
     [] {
         auto in = Package(Fault::None);
         in.crl = CrlFile({Pki().rootCrl, CaCrlRevoking(Pki().tsa.cert)});
         return in;
     },
     2, "Verify signature error, code 88200002.", "The certificate was revoked."},
    {"intermediate_crl_missing",
     [] {
         auto in = Package(Fault::None);
         in.crl = CrlFile({Pki().rootCrl});
         return in;
     },
     0x12, "Verify signature error, code 88200012.", "Can't find CRL for certificate."},
    {"gen_time_before_not_before",
     [] { return Signed(Digest::Sha256, Armour::Der, "20150101000000Z"); }, 0x13,
     "Verify signature error, code 88200013.", "(err:88200013)"},
};

void PrintTo(const PackageCase &c, std::ostream *os) {
    *os << c.name;
}

class PackageTest : public testing::TestWithParam<PackageCase> {};

// `text` is `pattern`, whose one "*" (if any) stands for the run's own folder.
bool Matches(const std::string &pattern, const std::string &text) {
    const size_t star = pattern.find('*');
    if (star == std::string::npos) {
        return text == pattern;
    }
    const std::string head = pattern.substr(0, star), tail = pattern.substr(star + 1);
    return text.size() >= head.size() + tail.size() && text.rfind(head, 0) == 0 &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

TEST_P(PackageTest, ExitStatusAndMessages) {
    const PackageCase &c = GetParam();
    const Inputs in = c.make();
    char pattern[] = "/tmp/vt_pkg_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const fs::path dir(pattern);
    testpki::WriteFile(dir / "sha256sums", in.content);
    testpki::WriteFile(dir / "sha256sums.p7s", in.signature);
    testpki::WriteFile(dir / "crls.pem", in.crl);
    if (!in.fifo.empty()) {
        fs::remove(dir / in.fifo);
        ASSERT_EQ(mkfifo((dir / in.fifo).c_str(), 0600), 0);
    }
    const std::string content =
        in.contentPath.empty() ? (dir / "sha256sums").string() : in.contentPath;
    std::vector<std::string> args = {
        "-f", "CHECK_PKG_INTEGRITY", "-h", (dir / "sha256sums.p7s").string(), "-e", content};
    if (in.withCrlOption) {
        args.insert(args.end(), {"-c", (dir / "crls.pem").string()});
    }
    std::vector<std::string> env;
    if (!in.opensslConf.empty()) {
        testpki::WriteFile(dir / "openssl.cnf", in.opensslConf);
        env.push_back("OPENSSL_CONF=" + (dir / "openssl.cnf").string());
    }
    const vt_test::ToolRun run = vt_test::RunTool(args, env);
    fs::remove_all(dir);

    EXPECT_EQ(run.exitStatus, c.exitStatus) << run.stdoutText;
    // The dispatch closes every run with "Execute ret(%d)."; the check's own
    // last word comes right before it.
    ASSERT_GE(run.records.size(), 2u);
    const size_t n = run.records.size();
    const size_t last = c.exitStatus == 0 ? n - 1 : n - 2;
    EXPECT_TRUE(Matches(c.toolMessage, run.records[last - 1].message))
        << run.records[last - 1].message;
    EXPECT_EQ(run.records[last].message.rfind("VERIFY_TOOL: Execute ret(", 0), 0u);
    if (c.exitStatus == 0) {
        EXPECT_EQ(run.stdoutText.find("[ERROR]"), std::string::npos) << run.stdoutText;
    }
    if (c.console != nullptr) {
        EXPECT_NE(run.stdoutText.find(c.console), std::string::npos) << run.stdoutText;
    }
}

INSTANTIATE_TEST_SUITE_P(Tool, PackageTest, testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
