// Byte-flip sweep over a valid package: every byte of the signature file in
// turn, and every 7th byte of the CRL file, is changed and the package
// verified again through Begin, Update and Final. No variant may crash (the
// sanitizer build runs this too) and no variant may still verify unless the
// changed byte lies in a field the verifier leaves unexamined; those fields
// are listed below, located in the DER, each with the rule that leaves it
// alone.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "cms/dorvex.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/cms_fixture.h"
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;
using tp::Bytes;

using vt_test::Pki;

const Bytes &Content() {
    static const Bytes content = [] {
        const std::string text = tp::DemoChecksums();
        return Bytes(text.begin(), text.end());
    }();
    return content;
}

const Bytes &Signature() {
    static const Bytes signature = tp::MakePackage(Pki(), tp::Fault::None, Content()).signature;
    return signature;
}

// The CRL file as DER items back to back: root CRL, CA certificate, CA CRL.
const Bytes &CrlFile() {
    static const Bytes file = tp::ConcatDer({Pki().rootCrl, Pki().ca.cert.Der(), Pki().caCrl});
    return file;
}

// Standard output closed for the life of a sweep: the library prints a line
// for every rejected variant.
class QuietStdout {
  public:
    QuietStdout() : saved_(dup(STDOUT_FILENO)) {
        fflush(stdout);
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            close(null);
        }
    }
    ~QuietStdout() {
        fflush(stdout);
        if (saved_ >= 0) {
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
        }
    }
    QuietStdout(const QuietStdout &) = delete;
    QuietStdout &operator=(const QuietStdout &) = delete;

  private:
    int saved_;
};

struct CtxFree {
    void operator()(DorvexVrfCtx *c) const { DorvexVrfCtxFree(c); }
};

// True when the package verifies: every step succeeds and Final says 1.
bool Verifies(const Bytes &signature, const Bytes &crlFile) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *raw = nullptr;
    if (DorvexVerifyCreateCtx(&raw, &params) != DORVEX_OK) {
        ADD_FAILURE() << "no context";
        return false;
    }
    std::unique_ptr<DorvexVrfCtx, CtxFree> ctx(raw);
    const Bytes &root = Pki().root.cert.Der();
    if (DorvexVerifyAddCert(raw, root.data(), static_cast<uint32_t>(root.size())) != DORVEX_OK ||
        DorvexVerifyAddCrl(raw, crlFile.data(), static_cast<uint32_t>(crlFile.size())) !=
            DORVEX_OK) {
        return false;
    }
    uint32_t ret = DorvexVerifyDetachSignatureBegin(raw, signature.data(),
                                                    static_cast<uint32_t>(signature.size()));
    if (ret == DORVEX_OK) {
        ret = DorvexVerifyDetachSignatureUpdate(raw, Content().data(),
                                                static_cast<uint32_t>(Content().size()));
    }
    uint32_t result = 0;
    const uint32_t finalRet = DorvexVerifyDetachSignatureFinal(raw, &result);
    EXPECT_TRUE(result == 0 || result == 1);
    return ret == DORVEX_OK && finalRet == DORVEX_OK && result == 1;
}

// ---- locating fields in DER ----------------------------------------------------

struct Range {
    size_t begin;
    size_t end;
    bool Holds(size_t offset) const { return offset >= begin && offset < end; }
};

uint8_t Octet(std::span<const uint8_t> der, size_t pos) {
    if (pos >= der.size()) {
        throw std::out_of_range("DER element past the end");
    }
    return der[pos];
}

// The whole element (tag, length, content) at `pos`; single-octet tags and
// definite lengths, as the generator writes them.
Range ElementAt(std::span<const uint8_t> der, size_t pos) {
    size_t len = Octet(der, pos + 1);
    size_t header = 2;
    if ((len & 0x80) != 0) {
        const size_t count = len & 0x7F;
        len = 0;
        for (size_t i = 0; i < count; ++i) {
            len = (len << 8) | Octet(der, pos + 2 + i);
        }
        header += count;
    }
    return {pos, pos + header + len};
}

size_t HeaderLen(std::span<const uint8_t> der, size_t pos) {
    return (Octet(der, pos + 1) & 0x80) != 0 ? 2 + (der[pos + 1] & 0x7F) : 2;
}

using Path = std::vector<int>;

// The element reached from the outermost one by child indices.
Range Field(std::span<const uint8_t> der, const Path &path) {
    Range element = ElementAt(der, 0);
    for (int index : path) {
        size_t child = element.begin + HeaderLen(der, element.begin);
        for (int i = 0; i < index; ++i) {
            child = ElementAt(der, child).end;
        }
        element = ElementAt(der, child);
    }
    return element;
}

// The chain of child indices down to the innermost element holding
// `offset`, for messages ("1.0.4.0.6 tag 0xa1").
std::string Describe(std::span<const uint8_t> der, size_t offset) {
    std::string path;
    Range element = ElementAt(der, 0);
    for (int depth = 0; depth < 32; ++depth) {
        const uint8_t tag = der[element.begin];
        const size_t content = element.begin + HeaderLen(der, element.begin);
        if ((tag & 0x20) == 0 || offset < content) {
            char text[32];
            snprintf(text, sizeof text, " tag 0x%02x", tag);
            return path + text;
        }
        int index = 0;
        size_t child = content;
        while (child < element.end && !ElementAt(der, child).Holds(offset)) {
            child = ElementAt(der, child).end;
            ++index;
        }
        path += (path.empty() ? "" : ".") + std::to_string(index);
        element = ElementAt(der, child);
    }
    return path;
}

// ---- the fields the verifier leaves unexamined -------------------------------

struct Unexamined {
    std::string name;
    Range range;
};

Path Join(Path a, std::initializer_list<int> b) {
    a.insert(a.end(), b);
    return a;
}

// Tag octets of the type and value of every attribute of the Name at `path`.
void NameTags(std::span<const uint8_t> der, const Path &path, const std::string &name,
              std::vector<Unexamined> &out) {
    const Range whole = Field(der, path);
    size_t rdn = whole.begin + HeaderLen(der, whole.begin);
    for (; rdn < whole.end; rdn = ElementAt(der, rdn).end) {
        const Range set = ElementAt(der, rdn);
        size_t attr = set.begin + HeaderLen(der, set.begin);
        for (; attr < set.end; attr = ElementAt(der, attr).end) {
            const size_t type = attr + HeaderLen(der, attr);
            const size_t value = ElementAt(der, type).end;
            out.push_back({name + " type tag", {type, type + 1}});
            out.push_back({name + " value tag", {value, value + 1}});
        }
    }
}

// The unsigned tail of the certificate or CRL at `path`: the outer
// signatureAlgorithm { algorithm, NULL } and signatureValue. `base` is the
// offset of `der` in the file.
void CertTail(std::span<const uint8_t> der, const Path &path, const std::string &name,
              std::vector<Unexamined> &out, size_t base = 0) {
    const size_t oid = base + Field(der, Join(path, {1, 0})).begin;
    const size_t params = base + Field(der, Join(path, {1, 1})).begin;
    const Range bits = Field(der, Join(path, {2}));
    const size_t unused = base + bits.begin + HeaderLen(der, bits.begin);
    out.push_back({name + " signatureAlgorithm OID tag", {oid, oid + 1}});
    out.push_back({name + " signatureAlgorithm parameters tag", {params, params + 1}});
    out.push_back({name + " signature unused-bits octet", {unused, unused + 1}});
}

// Paths in the demo signature: ContentInfo { 0 contentType, 1 [0] SignedData
// { 0 version, 1 digestAlgorithms, 2 encapContentInfo, 3 [0] certificates,
// 4 signerInfos { SignerInfo { 0 version, 1 sid, 2 digestAlgorithm, 3 [0]
// signedAttrs, 4 signatureAlgorithm, 5 signature, 6 [1] unsignedAttrs }}}}.
// The token (first value of the first unsigned attribute) is a ContentInfo
// laid out the same way, with its TSA certificate as certificates[0].
//
// Why each may change and the package still verifies:
// - Elements the decoder captures as "any element" keep their tag only as
//   a record: identifiers are looked up by their content octets, names are
//   compared by attribute type and value bytes (not string tags), and the
//   signature values are taken as content. So their tag octets are free.
// - The outer content types (signedData, id-ct-TSTInfo) are not compared
//   with their identifiers; the structure beneath is what is decoded.
// - The [0] eContent wrapper of the token is captured with any tag; the
//   TSTInfo's OCTET STRING inside it likewise.
// - Algorithm parameters are not examined (RSA with NULL is assumed).
// - The unused-bits octet of a BIT STRING is read and discarded.
// - The timestamp attribute is found by its identifier's content; the SET
//   around its values is captured with any tag.
// - Versions are skipped by the templates.
// - The SignedData's digestAlgorithms list is never read: the signer's own
//   digestAlgorithm selects the hash.
// - A signer's signatureAlgorithm is not examined: RSA PKCS #1 v1.5 is
//   assumed, with the hash of the digestAlgorithm.
// - The CA certificate comes with the CRL file too, which is read first; the
//   store keeps the first of two equal certificates and is searched in order
//   of addition, so the embedded copy is never used, whatever its bytes.
// Every byte that a signature covers (the certificates' tbs parts, the
// signed attributes, the TSTInfo) or that selects a key or certificate
// (issuer and serial content) is outside these ranges.
std::vector<Unexamined> UnexaminedFields(std::span<const uint8_t> sig) {
    const Path token = {1, 0, 4, 0, 6, 0, 1, 0};
    const Path signer = {1, 0, 4, 0};
    const Path tsSigner = Join(token, {1, 0, 4, 0});
    auto tagOf = [&](const Path &path) {
        const size_t at = Field(sig, path).begin;
        return Range{at, at + 1};
    };
    std::vector<Unexamined> out = {
        {"contentType", Field(sig, {0})},
        {"SignedData version", Field(sig, {1, 0, 0})},
        {"SignedData digestAlgorithms", Field(sig, {1, 0, 1})},
        {"eContentType", Field(sig, {1, 0, 2, 0})},
        {"embedded CA certificate", Field(sig, {1, 0, 3, 1})},
        {"signer version", Field(sig, Join(signer, {0}))},
        {"signer signatureAlgorithm", Field(sig, Join(signer, {4}))},
        {"token SignedData version", Field(sig, Join(token, {1, 0, 0}))},
        {"token SignedData digestAlgorithms", Field(sig, Join(token, {1, 0, 1}))},
        {"token signer version", Field(sig, Join(tsSigner, {0}))},
        {"token signer signatureAlgorithm", Field(sig, Join(tsSigner, {4}))},
        {"token contentType", Field(sig, Join(token, {0}))},
        {"token eContentType", Field(sig, Join(token, {1, 0, 2, 0}))},
        {"token eContent [0] tag", tagOf(Join(token, {1, 0, 2, 1}))},
        {"token TSTInfo OCTET STRING tag", tagOf(Join(token, {1, 0, 2, 1, 0}))},
        {"signer digestAlgorithm OID tag", tagOf(Join(signer, {2, 0}))},
        {"signer signature tag", tagOf(Join(signer, {5}))},
        {"timestamp attribute type tag", tagOf(Join(signer, {6, 0, 0}))},
        {"timestamp attribute values tag", tagOf(Join(signer, {6, 0, 1}))},
        {"token signer digestAlgorithm OID tag", tagOf(Join(tsSigner, {2, 0}))},
        {"token signer signature tag", tagOf(Join(tsSigner, {5}))},
    };
    NameTags(sig, Join(signer, {1, 0}), "signer issuer", out);
    NameTags(sig, Join(tsSigner, {1, 0}), "token signer issuer", out);
    CertTail(sig, {1, 0, 3, 0}, "leaf certificate", out);
    CertTail(sig, Join(token, {1, 0, 3, 0}), "TSA certificate", out);
    return out;
}

// The CRL file (root CRL, CA certificate, CA CRL): every byte inside the
// signed part of an item is covered by a signature that is checked; the CA
// certificate's other bytes matter because a changed copy is a second
// certificate of the same name ahead of the embedded one. What is left are
// the unsigned tails, free for the reasons given above.
std::vector<Unexamined> UnexaminedCrlFields(std::span<const uint8_t> file) {
    std::vector<Unexamined> out;
    size_t base = 0;
    for (const char *name : {"root CRL", "CA certificate", "CA CRL"}) {
        const std::span<const uint8_t> item = file.subspan(base);
        CertTail(item, {}, name, out, base);
        const size_t end = base + ElementAt(item, 0).end;
        // The signature carries the same CA certificate: path building takes
        // that copy when this one is damaged.
        if (std::string_view(name) == "CA certificate") {
            out.push_back({"CA certificate, also in the signature", Range{base, end}});
        }
        base = end;
    }
    return out;
}

// ---- the sweeps ----------------------------------------------------------------

struct Finding {
    size_t offset;
    std::string where;
};

bool Listed(const std::vector<Unexamined> &fields, size_t offset) {
    for (const Unexamined &f : fields) {
        if (f.range.Holds(offset)) {
            return true;
        }
    }
    return false;
}

template <typename Change>
std::vector<Finding> SweepSignature(Change change) {
    const Bytes &sig = Signature();
    const auto fields = UnexaminedFields(sig);
    std::vector<Finding> unexpected;
    QuietStdout quiet;
    Bytes variant = sig;
    for (size_t i = 0; i < sig.size(); ++i) {
        variant[i] = change(sig[i]);
        vt_test::ClearSyslog();
        if (Verifies(variant, CrlFile()) && !Listed(fields, i)) {
            unexpected.push_back({i, Describe(sig, i)});
        }
        variant[i] = sig[i];
    }
    return unexpected;
}

std::string Report(const std::vector<Finding> &findings) {
    std::string text;
    for (const Finding &f : findings) {
        text += "offset " + std::to_string(f.offset) + " (" + f.where + ")\n";
    }
    return text;
}

size_t CrlStep() {
    const char *step = getenv("VT_BYTEFLIP_CRL_STEP");
    return step != nullptr && atoi(step) > 0 ? static_cast<size_t>(atoi(step)) : 7;
}

TEST(ByteFlip, DemoPackageVerifies) {
    EXPECT_TRUE(Verifies(Signature(), CrlFile()));
}

// The listed fields must not reach into what the signatures cover or what
// selects a certificate, or the sweep would excuse a real fault.
TEST(ByteFlip, UnexaminedFieldsStayOutsideCheckedBytes) {
    const std::span<const uint8_t> sig(Signature());
    const Path token = {1, 0, 4, 0, 6, 0, 1, 0};
    const std::pair<const char *, Path> checked[] = {
        {"leaf tbsCertificate", {1, 0, 3, 0, 0}},
        {"signer serial number", {1, 0, 4, 0, 1, 1}},
        {"signer signedAttrs", {1, 0, 4, 0, 3}},
        {"signer signature value", {1, 0, 4, 0, 5}},
        {"TSTInfo", Join(token, {1, 0, 2, 1, 0})},
        {"TSA tbsCertificate", Join(token, {1, 0, 3, 0, 0})},
        {"token signer serial number", Join(token, {1, 0, 4, 0, 1, 1})},
        {"token signer signedAttrs", Join(token, {1, 0, 4, 0, 3})},
    };
    const auto fields = UnexaminedFields(sig);
    EXPECT_GT(fields.size(), 20u);
    for (const Unexamined &f : fields) {
        EXPECT_LT(f.range.begin, f.range.end) << f.name;
        EXPECT_LE(f.range.end, sig.size()) << f.name;
        for (const auto &[name, path] : checked) {
            const Range c = Field(sig, path);
            // The element's own tag octet may be listed, nothing inside it.
            const Range inside{c.begin + 1, c.end};
            EXPECT_FALSE(f.range.begin < inside.end && inside.begin < f.range.end)
                << f.name << " overlaps " << name;
        }
    }
}

TEST(ByteFlip, EverySignatureByteInverted) {
    const auto unexpected =
        SweepSignature([](uint8_t b) { return static_cast<uint8_t>(b ^ 0xFF); });
    EXPECT_TRUE(unexpected.empty()) << Report(unexpected);
}

TEST(ByteFlip, EverySignatureBytePlusOne) {
    const auto unexpected = SweepSignature([](uint8_t b) { return static_cast<uint8_t>(b + 1); });
    EXPECT_TRUE(unexpected.empty()) << Report(unexpected);
}

// Every 7th byte keeps the run short; VT_BYTEFLIP_CRL_STEP=1 sweeps them all.
TEST(ByteFlip, EverySeventhCrlFileByte) {
    const Bytes &file = CrlFile();
    const auto fields = UnexaminedCrlFields(file);
    std::string unexpected;
    QuietStdout quiet;
    Bytes variant = file;
    for (size_t i = 0; i < file.size(); i += CrlStep()) {
        variant[i] ^= 0xFF;
        vt_test::ClearSyslog();
        if (Verifies(Signature(), variant) && !Listed(fields, i)) {
            unexpected += "offset " + std::to_string(i) + "\n";
        }
        variant[i] = file[i];
    }
    EXPECT_TRUE(unexpected.empty()) << unexpected;
}

}  // namespace
