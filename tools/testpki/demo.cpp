// The demo hierarchy, its packages and the root the tool carries built in.
#include "tools/testpki/internal.h"

#include <openssl/bio.h>

namespace testpki {

using detail::Out;

namespace {

Name DemoName(const std::string &cn) {
    return SimpleName({{"C", "DE"}, {"O", "Dorvex Test PKI"}, {"CN", cn}});
}

CertSpec CaSpec(const Credential &issuer, Key key, const std::string &cn, Bytes serial) {
    CertSpec plan;
    plan.subjectKey = std::move(key);
    plan.issuer = issuer;
    plan.subject = DemoName(cn);
    plan.serial = std::move(serial);
    plan.basicConstraints = BasicConstraints{};
    plan.keyUsage = KeyUsage::Of(ku::kKeyCertSign | ku::kCrlSign);
    plan.subjectKeyId = true;
    plan.authorityKeyId = true;
    return plan;
}

// The code signer or TSA, serial 10 0N, its purpose as the only critical one
// (RFC 3161 2.3) unless another is given.
Credential EndEntity(const Credential &issuer, Key key, bool tsa, uint8_t n = 0,
                     std::string purpose = "") {
    CertSpec plan = CaSpec(issuer, std::move(key), tsa ? "Test Time Stamping" : "Test Code Signing",
                           {0x10, n != 0 ? n : static_cast<uint8_t>(tsa ? 2 : 1)});
    plan.notAfter = Utc("391231235959Z");
    plan.basicConstraints->ca = false;
    plan.keyUsage = KeyUsage::Of(ku::kDigitalSignature);
    if (purpose.empty()) {
        purpose = tsa ? "timeStamping" : "codeSigning";
    }
    plan.extKeyUsage = ExtKeyUsage{{std::move(purpose)}, true};
    return IssueCredential(plan);
}

CertSpec DemoRootSpec(const Key &key) {
    CertSpec plan;
    plan.subjectKey = key;
    plan.subject = SimpleName({{"C", "DE"}, {"O", "Dorvex"}, {"CN", "Demo Root CA"}});
    plan.serial = {'D', 'o', 'r', 'v', 'e', 'x'};
    plan.notBefore = Utc("151015000000Z");
    plan.notAfter = Gen("20501015000000Z");
    // Not CertSpec's own extension order: these four go in as written.
    const uint8_t usage[] = {0x01 /* unused bits */, ku::kKeyCertSign | ku::kCrlSign};
    plan.extraExtensions = {
        {"authorityKeyIdentifier", false, detail::AuthorityKeyId(key)},
        {"basicConstraints", true, der::Seq({der::Boolean(true)})},
        {"keyUsage", true, der::Tlv(0x03, usage)},
        {"subjectKeyIdentifier", false, der::OctetString(key.KeyId())},
    };
    return plan;
}

// How the demo hierarchy signs a valid package.
SignSpec DemoSignSpec(const DemoPki &pki) {
    SignSpec plan;
    plan.signer = pki.leaf;
    plan.certs = {pki.leaf.cert, pki.ca.cert};
    plan.timestamp.emplace().tsa = pki.tsa;
    return plan;
}

// The trust material a package check takes beside the built-in root.
std::string DemoCrlFile(const DemoPki &pki) {
    return PemBundle({{std::string(kPemCrl), pki.rootCrl},
                      {std::string(kPemCrl), pki.caCrl},
                      {std::string(kPemCertificate), pki.ca.cert.Der()}});
}

void PutDemoPki(Out &out, const DemoPki &pki) {
    const std::tuple<const char *, std::string_view, const Bytes &> items[] = {
        {"root", kPemCertificate, pki.root.cert.Der()},
        {"ca", kPemCertificate, pki.ca.cert.Der()},
        {"leaf", kPemCertificate, pki.leaf.cert.Der()},
        {"tsa", kPemCertificate, pki.tsa.cert.Der()},
        {"root-crl", kPemCrl, pki.rootCrl},
        {"ca-crl", kPemCrl, pki.caCrl}};
    for (const auto &[name, label, der] : items) {
        out.Put(name + std::string(".der"), der);
        out.Put(name + std::string(".pem"), ToPem(label, der));
    }
    out.Put("crls.der", ConcatDer({pki.rootCrl, pki.caCrl}));
    out.Put("crls.pem",
            PemBundle({{std::string(kPemCrl), pki.rootCrl}, {std::string(kPemCrl), pki.caCrl}}));
}

// Stand-ins for a package's payload, listed by the demo checksum file.
constexpr std::pair<const char *, std::string_view> kDemoPayload[] = {
    {"kernel.img", "demo kernel image\n"},
    {"rootfs.img", "demo root file system\n"},
    {"upgrade.sh", "#!/bin/sh\necho demo upgrade\n"},
};

// How each fault spoils the valid plan (the last two are done in MakePackage).
struct FaultRow {
    Fault fault;
    const char *name;
    void (*spoil)(SignSpec &plan, const DemoPki &pki, const Bytes &content);
};
const FaultRow kFaults[] = {
    {Fault::NoTimestamp, "no-timestamp",
     [](auto &plan, auto &, auto &) { plan.timestamp.reset(); }},
    {Fault::ImprintOverContent, "imprint-over-content",
     [](auto &plan, auto &, auto &content) { plan.timestamp->imprintOver = content; }},
    {Fault::TamperedSignedAttr, "tampered-signed-attr",
     [](auto &plan, auto &, auto &) { plan.tamperSignedAttr = true; }},
    {Fault::SignerWithoutCodeSigning, "signer-without-code-signing",
     [](auto &plan, auto &pki, auto &) {
         plan.signer = EndEntity(pki.ca, pki.leaf.key, false, 3, "emailProtection");
         plan.certs[0] = plan.signer.cert;
     }},
    {Fault::TsaWithoutTimeStamping, "tsa-without-time-stamping",
     [](auto &plan, auto &pki, auto &) {
         plan.timestamp->tsa = EndEntity(pki.ca, pki.tsa.key, true, 4, "codeSigning");
     }},
    {Fault::ThreeCerts, "three-certs",
     [](auto &plan, auto &pki, auto &) { plan.certs.push_back(pki.tsa.cert); }},
    {Fault::NoSigner, "no-signer",
     [](auto &plan, auto &, auto &) {
         plan.noSigner = true;
         plan.timestamp.reset();
     }},
    {Fault::ChangedContent, "changed-content", [](auto &, auto &, auto &) {}},
    {Fault::Garbage, "garbage", [](auto &, auto &, auto &) {}},
};

}  // namespace

Credential MakeDemoRoot(const std::filesystem::path &keyDir) {
    Credential root = IssueCredential(DemoRootSpec(LoadTestKey("root-4096", keyDir)));
    if (root.cert.Der().size() != 1363) {  // examples/demo-root.der's size
        throw Error("the demo root came out at " + std::to_string(root.cert.Der().size()) +
                    " bytes");
    }
    return root;
}

DemoPki MakeDemoPki(const std::filesystem::path &keyDir) {
    DemoPki pki;
    pki.root = MakeDemoRoot(keyDir);
    CertSpec ca = CaSpec(pki.root, LoadTestKey("ca-2048", keyDir), "Test Intermediate CA", {0x02});
    ca.notAfter = Utc("441231235959Z");
    ca.basicConstraints->pathLen = 0;
    pki.ca = IssueCredential(ca);
    pki.leaf = EndEntity(pki.ca, LoadTestKey("leaf-2048", keyDir), false);
    pki.tsa = EndEntity(pki.ca, LoadTestKey("tsa-2048", keyDir), true);

    CrlSpec crl;
    crl.issuer = pki.root;
    pki.rootCrl = MakeCrl(crl);
    // A certificate outside the demo, so the list is not empty.
    crl.issuer = pki.ca;
    crl.revoked = {{{0x10, 0x7F}, Utc("250301000000Z"), 1 /* keyCompromise */}};
    pki.caCrl = MakeCrl(crl);
    return pki;
}

std::vector<std::string> WriteDemoPki(const DemoPki &pki, const std::filesystem::path &outDir) {
    Out out(outDir);
    PutDemoPki(out, pki);
    return out.names;
}

std::string DemoChecksums() {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (const auto &[name, body] : kDemoPayload) {
        for (uint8_t b : detail::Hash(Digest::Sha256, detail::AsBytes(body))) {
            out += {kHex[b >> 4], kHex[b & 0x0F]};
        }
        out += "  " + std::string(name) + "\n";
    }
    return out;
}

Package MakePackage(const DemoPki &pki, Fault fault, std::span<const uint8_t> content) {
    Package out{Bytes(content.begin(), content.end()), {}};
    if (fault == Fault::Garbage) {
        // Neither DER nor PEM, and long enough to get past a size check.
        for (size_t i = 0; i < 512; ++i) {
            out.signature.push_back(static_cast<uint8_t>(i * 151 + 7));
        }
        return out;
    }
    SignSpec plan = DemoSignSpec(pki);
    for (const FaultRow &row : kFaults) {
        if (row.fault == fault) {
            row.spoil(plan, pki, out.content);
        }
    }
    out.signature = MakeSignedData(plan, out.content);
    if (fault == Fault::ChangedContent) {
        if (out.content.empty()) {
            throw Error("no content to change");
        }
        out.content[0] ^= 0x01;
    }
    return out;
}

std::vector<std::string> WriteDemoPackage(const DemoPki &pki, const std::filesystem::path &outDir) {
    Out out(outDir);
    PutDemoPki(out, pki);
    const std::string checksums = DemoChecksums();
    const Bytes content(checksums.begin(), checksums.end());
    const Package valid = MakePackage(pki, Fault::None, content);
    for (const auto &[name, body] : kDemoPayload) {
        out.Put(name, body);
    }
    out.Put("sha256sums", content);
    out.Put("sha256sums.p7s", valid.signature);
    out.Put("sha256sums.p7s.pem", Armoured(valid.signature, Armour::PemCms));
    out.Put("sha256sums.tampered", MakePackage(pki, Fault::ChangedContent, content).content);
    out.Put("crls+ca.pem", DemoCrlFile(pki));
    for (const auto &[fault, name, spoil] : kFaults) {
        const Package bad = MakePackage(pki, fault, content);
        out.Put("faults/" + std::string(name) + "/sha256sums", bad.content);
        out.Put("faults/" + std::string(name) + "/sha256sums.p7s", bad.signature);
    }
    return out.names;
}

std::vector<std::string> WriteDemoSignature(const DemoPki &pki,
                                            const std::filesystem::path &content,
                                            const std::filesystem::path &outDir) {
    // Streamed from the file, so that content of a gigabyte needs no copy.
    if (!std::filesystem::is_regular_file(content)) {
        throw Error(content.string() + " is not a readable regular file");
    }
    Owned<BIO_free> in(BIO_new_file(content.c_str(), "rb"));
    const Bytes signature = detail::SignedData(DemoSignSpec(pki), TP_NEED(in.get()));
    Out out(outDir);
    out.Put("content.p7s", signature);
    out.Put("token.der", TimestampTokenOf(signature));
    out.Put("sigvalue.bin", SignatureValueOf(signature));
    out.Put("crls+ca.pem", DemoCrlFile(pki));
    out.Put("root.pem", ToPem(kPemCertificate, pki.root.cert.Der()));
    out.Put("ca.pem", ToPem(kPemCertificate, pki.ca.cert.Der()));
    out.Put("tsa.pem", ToPem(kPemCertificate, pki.tsa.cert.Der()));
    return out.names;
}

std::vector<std::string> WriteChainPackage(int depth, const std::filesystem::path &outDir,
                                           const std::filesystem::path &keyDir, bool ecdsa) {
    // A CRL file takes at most 11 CA certificates; there is one EC CA key.
    if (depth < 2 || depth > 12 || (ecdsa && depth != 2)) {
        throw Error("chain depth " + std::to_string(depth) + " is not within 2..12 (2 for EC)");
    }
    DemoPki pki;
    pki.root = MakeDemoRoot(keyDir);
    pki.ca = pki.root;
    std::vector<PemBlock> crlFile, caCerts;
    for (int level = 1;; ++level) {
        CrlSpec crl;
        crl.issuer = pki.ca;
        crlFile.push_back({std::string(kPemCrl), MakeCrl(crl)});
        if (level == depth) {
            break;
        }
        // The first CA has the demo CA's key, deeper ones new keys.
        const Key key =
            level > 1 ? Key::GenerateRsa(2048) : LoadTestKey(ecdsa ? "ec-p384" : "ca-2048", keyDir);
        const Bytes serial = {0x02, static_cast<uint8_t>(level)};
        pki.ca = IssueCredential(CaSpec(pki.ca, key, "Test CA " + std::to_string(level), serial));
        caCerts.push_back({std::string(kPemCertificate), pki.ca.cert.Der()});
    }
    pki.leaf = EndEntity(pki.ca, LoadTestKey(ecdsa ? "ec-p256" : "leaf-2048", keyDir), false);
    pki.tsa = EndEntity(pki.ca, LoadTestKey(ecdsa ? "ec-p384" : "tsa-2048", keyDir), true);
    const std::string checksums = DemoChecksums();
    crlFile.insert(crlFile.end(), caCerts.begin(), caCerts.end());
    Out out(outDir);
    out.Put("sha256sums", checksums);
    out.Put("sha256sums.p7s", MakeSignedData(DemoSignSpec(pki), detail::AsBytes(checksums)));
    out.Put("crls+ca.pem", PemBundle(crlFile));
    return out.names;
}

}  // namespace testpki
