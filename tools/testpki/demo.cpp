// The demo hierarchy that scripts and examples start from.
#include "tools/testpki/testpki.h"

namespace testpki {

namespace {

Name DemoName(const std::string &cn) {
    return SimpleName({{"C", "DE"}, {"O", "Dorvex Test PKI"}, {"CN", cn}});
}

CertSpec CaSpec(Key key, std::string cn, Bytes serial) {
    CertSpec plan;
    plan.subjectKey = std::move(key);
    plan.subject = DemoName(cn);
    plan.serial = std::move(serial);
    plan.basicConstraints = BasicConstraints{};
    plan.keyUsage = KeyUsage::Of(ku::kKeyCertSign | ku::kCrlSign);
    plan.subjectKeyId = true;
    return plan;
}

CertSpec EndEntitySpec(const Credential &issuer, Key key, std::string cn, Bytes serial,
                       std::string purpose) {
    CertSpec plan;
    plan.subjectKey = std::move(key);
    plan.issuer = issuer;
    plan.subject = DemoName(cn);
    plan.serial = std::move(serial);
    plan.notAfter = Utc("391231235959Z");
    plan.basicConstraints = BasicConstraints{.ca = false, .pathLen = {}, .critical = true};
    plan.keyUsage = KeyUsage::Of(ku::kDigitalSignature);
    // RFC 3161 2.3 wants time stamping as the only, critical purpose; code
    // signing is marked the same way for symmetry.
    plan.extKeyUsage = ExtKeyUsage{{std::move(purpose)}, true};
    plan.subjectKeyId = true;
    plan.authorityKeyId = true;
    return plan;
}

}  // namespace

DemoPki MakeDemoPki(const std::filesystem::path &keyDir) {
    DemoPki pki;
    pki.root = IssueCredential(CaSpec(LoadTestKey("root-4096", keyDir), "Test Root CA", {0x01}));

    CertSpec ca = CaSpec(LoadTestKey("ca-2048", keyDir), "Test Intermediate CA", {0x02});
    ca.issuer = pki.root;
    ca.notAfter = Utc("441231235959Z");
    ca.basicConstraints->pathLen = 0;
    ca.authorityKeyId = true;
    pki.ca = IssueCredential(ca);

    pki.leaf = IssueCredential(EndEntitySpec(pki.ca, LoadTestKey("leaf-2048", keyDir),
                                             "Test Code Signing", {0x10, 0x01}, "codeSigning"));
    pki.tsa = IssueCredential(EndEntitySpec(pki.ca, LoadTestKey("tsa-2048", keyDir),
                                            "Test Time Stamping", {0x10, 0x02}, "timeStamping"));

    CrlSpec rootCrl;
    rootCrl.issuer = pki.root;
    pki.rootCrl = MakeCrl(rootCrl);

    // One revoked entry for a certificate that is not part of the demo, so the
    // list is not empty and the demo certificates stay valid.
    CrlSpec caCrl;
    caCrl.issuer = pki.ca;
    caCrl.revoked = {{{0x10, 0x7F}, Utc("250301000000Z"), 1 /* keyCompromise */}};
    pki.caCrl = MakeCrl(caCrl);
    return pki;
}

std::vector<std::string> WriteDemoPki(const DemoPki &pki, const std::filesystem::path &outDir) {
    std::error_code ec;
    std::filesystem::create_directories(outDir, ec);
    if (ec) {
        throw Error("cannot create " + outDir.string() + ": " + ec.message());
    }
    const std::pair<std::string, const Bytes *> certs[] = {{"root", &pki.root.cert.Der()},
                                                           {"ca", &pki.ca.cert.Der()},
                                                           {"leaf", &pki.leaf.cert.Der()},
                                                           {"tsa", &pki.tsa.cert.Der()}};
    const std::pair<std::string, const Bytes *> crls[] = {{"root-crl", &pki.rootCrl},
                                                          {"ca-crl", &pki.caCrl}};
    std::vector<std::string> written;
    auto write = [&](const std::string &name, std::string_view label, const Bytes &der) {
        WriteFile(outDir / (name + ".der"), der);
        WriteFile(outDir / (name + ".pem"), ToPem(label, der));
        written.push_back(name + ".der");
        written.push_back(name + ".pem");
    };
    for (const auto &[name, der] : certs) {
        write(name, kPemCertificate, *der);
    }
    for (const auto &[name, der] : crls) {
        write(name, kPemCrl, *der);
    }
    WriteFile(outDir / "crls.der", ConcatDer({pki.rootCrl, pki.caCrl}));
    WriteFile(outDir / "crls.pem",
              PemBundle({{std::string(kPemCrl), pki.rootCrl}, {std::string(kPemCrl), pki.caCrl}}));
    written.push_back("crls.der");
    written.push_back("crls.pem");
    return written;
}

}  // namespace testpki
