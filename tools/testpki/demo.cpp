// The demo hierarchy and packages that scripts and examples start from, and
// the root certificate the tool carries built in.
#include "tools/testpki/testpki.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

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

// Serial octets of the demo root: a prefix of this text, as long as the
// certificate needs to come out at its fixed size (RFC 5280 allows 20).
constexpr std::string_view kDemoRootSerial = "Dorvex demo root CA.";

CertSpec DemoRootSpec(const Key &key, size_t serialLen) {
    CertSpec plan;
    plan.subjectKey = key;
    plan.subject = SimpleName({{"C", "DE"}, {"O", "Dorvex"}, {"CN", "Demo Root CA"}});
    plan.serial.assign(kDemoRootSerial.begin(),
                       kDemoRootSerial.begin() + static_cast<ptrdiff_t>(serialLen));
    plan.notBefore = Utc("151015000000Z");
    plan.notAfter = Gen("20501015000000Z");
    // CertSpec's own extension order differs; these four go in as written.
    const Bytes keyId = key.KeyId();
    const uint8_t usage[] = {0x01 /* unused bits */, ku::kKeyCertSign | ku::kCrlSign};
    plan.extraExtensions = {
        {"authorityKeyIdentifier", false, der::Seq({der::Tlv(0x80, keyId)})},
        {"basicConstraints", true, der::Seq({der::Boolean(true)})},
        {"keyUsage", true, der::Tlv(0x03, usage)},
        {"subjectKeyIdentifier", false, der::OctetString(keyId)},
    };
    return plan;
}

// The spoiled certificates of MakePackage: the demo ones with another purpose.
Credential WithPurpose(const Credential &issuer, const Credential &like, std::string cn,
                       Bytes serial, std::string purpose) {
    return IssueCredential(
        EndEntitySpec(issuer, like.key, std::move(cn), std::move(serial), std::move(purpose)));
}

std::string Hex(const Bytes &bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : bytes) {
        out += kDigits[b >> 4];
        out += kDigits[b & 0x0F];
    }
    return out;
}

// How the demo hierarchy signs a valid package.
SignSpec DemoSignSpec(const DemoPki &pki) {
    SignSpec plan;
    plan.signer = pki.leaf;
    plan.certs = {pki.leaf.cert, pki.ca.cert};
    TimestampSpec stamp;
    stamp.tsa = pki.tsa;
    stamp.maker = TokenMaker::Cms;  // reproducible, unlike the TS API's tokens
    plan.timestamp = stamp;
    return plan;
}

// The trust material a package check takes beside the built-in root.
std::string DemoCrlFile(const DemoPki &pki) {
    return PemBundle({{std::string(kPemCrl), pki.rootCrl},
                      {std::string(kPemCrl), pki.caCrl},
                      {std::string(kPemCertificate), pki.ca.cert.Der()}});
}

// A read-only mapping of a whole file, so that content of a gigabyte is
// signed straight from the page cache instead of a copy on the heap.
class MappedFile {
  public:
    explicit MappedFile(const std::filesystem::path &file) {
        fd_ = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        if (fd_ < 0 || ::fstat(fd_, &st) != 0) {
            Close();
            throw Error("cannot read " + file.string() + ": " + std::strerror(errno));
        }
        if (!S_ISREG(st.st_mode)) {
            Close();
            throw Error(file.string() + " is not a regular file");
        }
        // The signing path hands the content to OpenSSL as one memory BIO,
        // whose length is an int.
        if (st.st_size > INT_MAX) {
            Close();
            throw Error(file.string() + " is larger than " + std::to_string(INT_MAX) + " bytes");
        }
        size_ = static_cast<size_t>(st.st_size);
        if (size_ == 0) {
            return;
        }
        void *map = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd_, 0);
        if (map == MAP_FAILED) {
            Close();
            throw Error("cannot map " + file.string() + ": " + std::strerror(errno));
        }
        data_ = static_cast<const uint8_t *>(map);
        ::madvise(map, size_, MADV_SEQUENTIAL);
    }
    ~MappedFile() { Close(); }
    MappedFile(const MappedFile &) = delete;
    MappedFile &operator=(const MappedFile &) = delete;

    std::span<const uint8_t> Content() const {
        // A memory BIO refuses a null pointer even for no bytes.
        static constexpr uint8_t kNothing[1] = {};
        return data_ != nullptr ? std::span(data_, size_) : std::span(kNothing, 0);
    }

  private:
    void Close() {
        if (data_ != nullptr) {
            ::munmap(const_cast<uint8_t *>(data_), size_);
            data_ = nullptr;
        }
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    int fd_ = -1;
    const uint8_t *data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace

Credential MakeDemoRoot(const std::filesystem::path &keyDir) {
    Key key = LoadTestKey("root-4096", keyDir);
    // Everything but the serial is fixed, and while every length keeps its
    // form one serial octet more is one certificate octet more: measure once
    // with a one-octet serial, then take as many octets as are missing.
    size_t probe = IssueCert(DemoRootSpec(key, 1)).Der().size();
    if (probe > kDemoRootSize || kDemoRootSize - probe + 1 > kDemoRootSerial.size()) {
        throw Error("the demo root's name does not fit its size");
    }
    Credential root = IssueCredential(DemoRootSpec(key, kDemoRootSize - probe + 1));
    if (root.cert.Der().size() != kDemoRootSize) {
        throw Error("the demo root came out at " + std::to_string(root.cert.Der().size()) +
                    " bytes");
    }
    return root;
}

DemoPki MakeDemoPki(const std::filesystem::path &keyDir) {
    DemoPki pki;
    pki.root = MakeDemoRoot(keyDir);

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
    caCrl.revoked = {{{0x10, 0x7F}, Utc("250301000000Z"), 1 /* keyCompromise */, std::nullopt}};
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

// Stand-ins for a package's payload, listed by the demo checksum file.
constexpr std::pair<std::string_view, std::string_view> kDemoPayload[] = {
    {"kernel.img", "demo kernel image\n"},
    {"rootfs.img", "demo root file system\n"},
    {"upgrade.sh", "#!/bin/sh\necho demo upgrade\n"},
};

std::string DemoChecksums() {
    std::string out;
    for (const auto &[name, body] : kDemoPayload) {
        Bytes digest(EVP_MAX_MD_SIZE);
        unsigned int len = 0;
        if (EVP_Digest(body.data(), body.size(), digest.data(), &len, EVP_sha256(), nullptr) != 1) {
            throw Error("EVP_Digest");
        }
        digest.resize(len);
        out += Hex(digest) + "  " + std::string(name) + "\n";
    }
    return out;
}

std::string_view FaultName(Fault fault) {
    switch (fault) {
        case Fault::None:
            return "none";
        case Fault::NoTimestamp:
            return "no-timestamp";
        case Fault::ImprintOverContent:
            return "imprint-over-content";
        case Fault::TamperedSignedAttr:
            return "tampered-signed-attr";
        case Fault::SignerWithoutCodeSigning:
            return "signer-without-code-signing";
        case Fault::TsaWithoutTimeStamping:
            return "tsa-without-time-stamping";
        case Fault::ThreeCerts:
            return "three-certs";
        case Fault::NoSigner:
            return "no-signer";
        case Fault::ChangedContent:
            return "changed-content";
        case Fault::Garbage:
            return "garbage";
    }
    throw Error("unknown fault");
}

Package MakePackage(const DemoPki &pki, Fault fault, std::span<const uint8_t> content) {
    SignSpec plan = DemoSignSpec(pki);
    Package out{Bytes(content.begin(), content.end()), {}};

    switch (fault) {
        case Fault::None:
        case Fault::ChangedContent:
            break;
        case Fault::NoTimestamp:
            plan.timestamp.reset();
            break;
        case Fault::ImprintOverContent:
            plan.timestamp->imprintOver = out.content;
            break;
        case Fault::TamperedSignedAttr:
            plan.tamperSignedAttr = true;
            break;
        case Fault::SignerWithoutCodeSigning:
            plan.signer =
                WithPurpose(pki.ca, pki.leaf, "Test Code Signing", {0x10, 0x03}, "emailProtection");
            plan.certs[0] = plan.signer.cert;
            break;
        case Fault::TsaWithoutTimeStamping:
            plan.timestamp->tsa =
                WithPurpose(pki.ca, pki.tsa, "Test Time Stamping", {0x10, 0x04}, "codeSigning");
            break;
        case Fault::ThreeCerts:
            plan.certs.push_back(pki.tsa.cert);
            break;
        case Fault::NoSigner:
            plan.noSigner = true;
            plan.timestamp.reset();
            break;
        case Fault::Garbage:
            // Not DER and not PEM, and long enough to get past a size check.
            out.signature.resize(512);
            for (size_t i = 0; i < out.signature.size(); ++i) {
                out.signature[i] = static_cast<uint8_t>(i * 151 + 7);
            }
            return out;
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
    std::vector<std::string> written = WriteDemoPki(pki, outDir);
    auto write = [&](const std::string &name, std::span<const uint8_t> data) {
        std::filesystem::path file = outDir / name;
        std::error_code ec;
        std::filesystem::create_directories(file.parent_path(), ec);
        WriteFile(file, data);
        written.push_back(name);
    };
    const std::string checksums = DemoChecksums();
    const Bytes content(checksums.begin(), checksums.end());
    const Package valid = MakePackage(pki, Fault::None, content);
    for (const auto &[name, body] : kDemoPayload) {
        write(std::string(name),
              std::span(reinterpret_cast<const uint8_t *>(body.data()), body.size()));
    }
    write("sha256sums", content);
    write("sha256sums.p7s", valid.signature);
    write("sha256sums.p7s.pem", Armoured(valid.signature, Armour::PemCms));
    write("sha256sums.tampered", MakePackage(pki, Fault::ChangedContent, content).content);
    const std::string crls = DemoCrlFile(pki);
    write("crls+ca.pem", std::span(reinterpret_cast<const uint8_t *>(crls.data()), crls.size()));
    for (Fault fault : kAllFaults) {
        if (fault == Fault::None) {
            continue;
        }
        const Package bad = MakePackage(pki, fault, content);
        const std::string dir = "faults/" + std::string(FaultName(fault)) + "/";
        write(dir + "sha256sums", bad.content);
        write(dir + "sha256sums.p7s", bad.signature);
    }
    return written;
}

std::vector<std::string> WriteDemoSignature(const DemoPki &pki,
                                            const std::filesystem::path &content,
                                            const std::filesystem::path &outDir) {
    Bytes signature;
    {
        const MappedFile file(content);
        signature = MakeSignedData(DemoSignSpec(pki), file.Content());
    }
    std::error_code ec;
    std::filesystem::create_directories(outDir, ec);
    if (ec) {
        throw Error("cannot create " + outDir.string() + ": " + ec.message());
    }
    const std::pair<std::string, Bytes> files[] = {
        {"content.p7s", signature},
        {"token.der", TimestampTokenOf(signature)},
        {"sigvalue.bin", SignatureValueOf(signature)},
    };
    const std::pair<std::string, std::string> texts[] = {
        {"crls+ca.pem", DemoCrlFile(pki)},
        {"root.pem", ToPem(kPemCertificate, pki.root.cert.Der())},
        {"ca.pem", ToPem(kPemCertificate, pki.ca.cert.Der())},
        {"tsa.pem", ToPem(kPemCertificate, pki.tsa.cert.Der())},
    };
    std::vector<std::string> written;
    for (const auto &[name, der] : files) {
        WriteFile(outDir / name, der);
        written.push_back(name);
    }
    for (const auto &[name, text] : texts) {
        WriteFile(outDir / name, text);
        written.push_back(name);
    }
    return written;
}

std::vector<std::string> WriteChainPackage(int depth, const std::filesystem::path &outDir,
                                           const std::filesystem::path &keyDir, bool ecdsa) {
    if (depth < 1 || depth > kMaxChainDepth) {
        throw Error("chain depth " + std::to_string(depth) + " is not within 1.." +
                    std::to_string(kMaxChainDepth));
    }
    const Credential root = MakeDemoRoot(keyDir);
    Credential issuer = root;
    std::vector<PemBlock> crlFile;
    std::vector<PemBlock> caCerts;
    for (int level = 1;; ++level) {
        CrlSpec crl;
        crl.issuer = issuer;
        crlFile.push_back({std::string(kPemCrl), MakeCrl(crl)});
        if (level == depth) {
            break;
        }
        // The first CA has the demo CA's key; keys of deeper ones are made
        // on the spot, so no two certificates of the path share one.
        const Key caKey =
            ecdsa ? (level == 1 ? LoadTestKey("ec-p384", keyDir) : Key::GenerateEc("P-384"))
                  : (level == 1 ? LoadTestKey("ca-2048", keyDir) : Key::GenerateRsa(2048));
        CertSpec ca =
            CaSpec(caKey, "Test CA " + std::to_string(level), {0x02, static_cast<uint8_t>(level)});
        ca.issuer = issuer;
        ca.authorityKeyId = true;
        issuer = IssueCredential(ca);
        caCerts.push_back({std::string(kPemCertificate), issuer.cert.Der()});
    }
    DemoPki pki;
    pki.root = root;
    pki.ca = issuer;
    pki.leaf =
        IssueCredential(EndEntitySpec(issuer, LoadTestKey(ecdsa ? "ec-p256" : "leaf-2048", keyDir),
                                      "Test Code Signing", {0x10, 0x01}, "codeSigning"));
    pki.tsa =
        IssueCredential(EndEntitySpec(issuer, LoadTestKey(ecdsa ? "ec-p384" : "tsa-2048", keyDir),
                                      "Test Time Stamping", {0x10, 0x02}, "timeStamping"));
    SignSpec plan = DemoSignSpec(pki);
    if (depth == 1) {
        plan.certs = {pki.leaf.cert};  // the root is never taken from a signature
    }
    const std::string checksums = DemoChecksums();
    const Bytes content(checksums.begin(), checksums.end());
    crlFile.insert(crlFile.end(), caCerts.begin(), caCerts.end());

    std::error_code ec;
    std::filesystem::create_directories(outDir, ec);
    if (ec) {
        throw Error("cannot create " + outDir.string() + ": " + ec.message());
    }
    WriteFile(outDir / "sha256sums", content);
    WriteFile(outDir / "sha256sums.p7s", MakeSignedData(plan, content));
    WriteFile(outDir / "crls+ca.pem", PemBundle(crlFile));
    return {"sha256sums", "sha256sums.p7s", "crls+ca.pem"};
}

}  // namespace testpki
