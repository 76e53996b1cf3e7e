// Keys, handles, times, integers, names, extensions and output helpers.
#include "tools/testpki/internal.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/core_names.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <ctime>
#include <fstream>

namespace testpki {

using detail::Check;
using detail::Fail;

namespace {

using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free>>;
using ObjPtr = std::unique_ptr<ASN1_OBJECT, Deleter<ASN1_OBJECT_free>>;
using PubkeyPtr = std::unique_ptr<X509_PUBKEY, Deleter<X509_PUBKEY_free>>;

ObjPtr ObjFromText(const std::string &text) {
    // no_name = 0: short and long names are accepted as well as dotted OIDs.
    ObjPtr obj(OBJ_txt2obj(text.c_str(), 0));
    if (!obj) {
        Fail("unknown object identifier \"" + text + "\"");
    }
    return obj;
}

int Asn1Type(StrType type) {
    switch (type) {
        case StrType::Printable:
            return V_ASN1_PRINTABLESTRING;
        case StrType::Utf8:
            return V_ASN1_UTF8STRING;
        case StrType::Ia5:
            return V_ASN1_IA5STRING;
        case StrType::Teletex:
            return V_ASN1_T61STRING;
        case StrType::Bmp:
            return V_ASN1_BMPSTRING;
        case StrType::Numeric:
            return V_ASN1_NUMERICSTRING;
    }
    throw Error("unknown string type");
}

}  // namespace

namespace detail {

void Fail(std::string_view what) {
    std::string message(what);
    unsigned long code = ERR_get_error();
    if (code != 0) {
        char reason[256];
        ERR_error_string_n(code, reason, sizeof(reason));
        message += ": ";
        message += reason;
    }
    ERR_clear_error();
    throw Error(message);
}

Asn1StringPtr MakeTime(const Time &time) {
    int type = time.type == TimeType::Utc ? V_ASN1_UTCTIME : V_ASN1_GENERALIZEDTIME;
    // ASN1_TIME_set_string would validate and normalise; a bare string of the
    // time type keeps the text exactly as given.
    Asn1StringPtr t(ASN1_STRING_type_new(type));
    Check(t != nullptr, "ASN1_STRING_type_new");
    Check(ASN1_STRING_set(t.get(), time.text.data(), static_cast<int>(time.text.size())) == 1,
          "ASN1_STRING_set");
    return t;
}

// OpenSSL holds an INTEGER as sign and magnitude and writes the magnitude's
// octets as they are (positive) or negated at the same width (negative), so
// content octets with redundant leading 0x00 or 0xFF survive when the
// magnitude is taken at the content's width. The result is re-encoded and
// compared, so a form this cannot carry fails loudly instead of silently.
Asn1StringPtr MakeInteger(std::span<const uint8_t> content) {
    if (content.empty()) {
        throw Error("INTEGER content must have at least one octet");
    }
    bool negative = (content[0] & 0x80) != 0;
    Bytes magnitude(content.begin(), content.end());
    if (negative) {
        unsigned carry = 1;
        for (size_t i = magnitude.size(); i-- > 0;) {
            unsigned v = static_cast<uint8_t>(~magnitude[i]) + carry;
            magnitude[i] = static_cast<uint8_t>(v);
            carry = v >> 8;
        }
    }
    Asn1StringPtr n(ASN1_STRING_type_new(negative ? V_ASN1_NEG_INTEGER : V_ASN1_INTEGER));
    Check(n != nullptr, "ASN1_STRING_type_new");
    Check(ASN1_STRING_set(n.get(), magnitude.data(), static_cast<int>(magnitude.size())) == 1,
          "ASN1_STRING_set");

    unsigned char *encoded = nullptr;
    int len = i2d_ASN1_INTEGER(n.get(), &encoded);
    Check(len > 0, "i2d_ASN1_INTEGER");
    Bytes got(encoded, encoded + len);
    OPENSSL_free(encoded);
    if (got != der::Integer(content)) {
        throw Error("OpenSSL cannot carry these INTEGER content octets");
    }
    return n;
}

X509NamePtr MakeName(const Name &name) {
    X509NamePtr out(X509_NAME_new());
    Check(out != nullptr, "X509_NAME_new");
    for (const Rdn &rdn : name) {
        if (rdn.empty()) {
            throw Error("a relative distinguished name needs at least one attribute");
        }
        int set = 0;  // first attribute opens a new RDN, the rest join it
        for (const Attr &attr : rdn) {
            ObjPtr obj = ObjFromText(attr.type);
            const auto *bytes = reinterpret_cast<const unsigned char *>(attr.value.data());
            // A plain V_ASN1_* type (not MBSTRING_*) stores the bytes as they are.
            Check(X509_NAME_add_entry_by_OBJ(out.get(), obj.get(), Asn1Type(attr.strType), bytes,
                                             static_cast<int>(attr.value.size()), -1, set) == 1,
                  "X509_NAME_add_entry_by_OBJ " + attr.type);
            set = -1;
        }
    }
    return out;
}

ExtensionPtr MakeExtension(const std::string &oid, bool critical, std::span<const uint8_t> value) {
    ObjPtr obj = ObjFromText(oid);
    Asn1StringPtr octets(ASN1_OCTET_STRING_new());
    Check(octets != nullptr, "ASN1_OCTET_STRING_new");
    Check(ASN1_OCTET_STRING_set(octets.get(), value.data(), static_cast<int>(value.size())) == 1,
          "ASN1_OCTET_STRING_set");
    ExtensionPtr ext(
        X509_EXTENSION_create_by_OBJ(nullptr, obj.get(), critical ? 1 : 0, octets.get()));
    Check(ext != nullptr, "X509_EXTENSION_create_by_OBJ " + oid);
    return ext;
}

}  // namespace detail

// ---- keys -------------------------------------------------------------------

Key Key::FromPem(std::string_view pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    Check(bio != nullptr, "BIO_new_mem_buf");
    // An encrypted key fails instead of prompting on the terminal.
    pem_password_cb *noPassword = [](char *, int, int, void *) { return 0; };
    PkeyPtr pkey(PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassword, nullptr));
    Check(pkey != nullptr, "no private key in PEM text");
    return Key(std::move(pkey));
}

Key Key::LoadPem(const std::filesystem::path &file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw Error("cannot read key file " + file.string());
    }
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    try {
        return FromPem(text);
    } catch (const Error &e) {
        throw Error(file.string() + ": " + e.what());
    }
}

Key Key::GenerateRsa(int bits) {
    PkeyPtr pkey(EVP_RSA_gen(static_cast<unsigned>(bits)));
    Check(pkey != nullptr, "RSA key generation");
    return Key(std::move(pkey));
}

Key Key::GenerateEc(const std::string &curve) {
    PkeyPtr pkey(EVP_EC_gen(curve.c_str()));
    Check(pkey != nullptr, "EC key generation on " + curve);
    return Key(std::move(pkey));
}

Key Key::EcForm(bool compressed, bool explicitParams) const {
    Check(pkey_ != nullptr, "empty key");
    PkeyPtr copy(EVP_PKEY_dup(pkey_.get()));
    Check(copy != nullptr, "EVP_PKEY_dup");
    if (compressed) {
        Check(EVP_PKEY_set_utf8_string_param(copy.get(), OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT,
                                             "compressed") == 1,
              "compressed point form");
    }
    if (explicitParams) {
        Check(EVP_PKEY_set_utf8_string_param(copy.get(), OSSL_PKEY_PARAM_EC_ENCODING, "explicit") ==
                  1,
              "explicit curve parameters");
    }
    return Key(std::move(copy));
}

void detail::UsePss(EVP_PKEY_CTX *pctx) {
    Check(pctx != nullptr && EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) == 1 &&
              EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, RSA_PSS_SALTLEN_DIGEST) == 1,
          "RSASSA-PSS parameters");
}

namespace {
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;

MdCtxPtr PssSigner(const Key &key, Digest digest) {
    MdCtxPtr ctx(EVP_MD_CTX_new());
    EVP_PKEY_CTX *pctx = nullptr;
    Check(ctx != nullptr &&
              EVP_DigestSignInit(ctx.get(), &pctx, DigestMd(digest), nullptr, key.get()) == 1,
          "EVP_DigestSignInit");
    detail::UsePss(pctx);
    return ctx;
}
}  // namespace

void detail::SignX509(X509 *x509, const Key &key, Digest digest, bool pss) {
    if (!pss) {
        Check(X509_sign(x509, key.get(), DigestMd(digest)) > 0, "X509_sign");
        return;
    }
    Check(X509_sign_ctx(x509, PssSigner(key, digest).get()) > 0, "X509_sign_ctx");
}

void detail::SignCrl(X509_CRL *crl, const Key &key, Digest digest, bool pss) {
    if (!pss) {
        Check(X509_CRL_sign(crl, key.get(), DigestMd(digest)) > 0, "X509_CRL_sign");
        return;
    }
    Check(X509_CRL_sign_ctx(crl, PssSigner(key, digest).get()) > 0, "X509_CRL_sign_ctx");
}

int Key::Bits() const {
    Check(pkey_ != nullptr, "empty key");
    return EVP_PKEY_get_bits(pkey_.get());
}

Bytes Key::PublicKeyDer() const {
    Check(pkey_ != nullptr, "empty key");
    unsigned char *out = nullptr;
    int len = i2d_PUBKEY(pkey_.get(), &out);
    Check(len > 0, "i2d_PUBKEY");
    Bytes der(out, out + len);
    OPENSSL_free(out);
    return der;
}

Bytes Key::KeyId() const {
    Check(pkey_ != nullptr, "empty key");
    X509_PUBKEY *raw = nullptr;
    Check(X509_PUBKEY_set(&raw, pkey_.get()) == 1, "X509_PUBKEY_set");
    PubkeyPtr pub(raw);
    const unsigned char *bits = nullptr;
    int len = 0;
    Check(X509_PUBKEY_get0_param(nullptr, &bits, &len, nullptr, pub.get()) == 1,
          "X509_PUBKEY_get0_param");
    Bytes id(EVP_MAX_MD_SIZE);
    unsigned int idLen = 0;
    Check(EVP_Digest(bits, static_cast<size_t>(len), id.data(), &idLen, EVP_sha1(), nullptr) == 1,
          "EVP_Digest");
    id.resize(idLen);
    return id;
}

std::filesystem::path DefaultKeyDir() {
    return TESTPKI_KEY_DIR;
}

Key LoadTestKey(std::string_view name, const std::filesystem::path &dir) {
    return Key::LoadPem(dir / (std::string(name) + ".pem"));
}

Cert Cert::FromDer(Bytes der) {
    const unsigned char *p = der.data();
    X509Ptr x509(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    Check(x509 != nullptr, "d2i_X509");
    return Cert(std::move(x509), std::move(der));
}

// ---- names, times, digests --------------------------------------------------

Name SimpleName(std::initializer_list<std::pair<std::string, std::string>> attrs) {
    Name name;
    for (const auto &[type, value] : attrs) {
        name.push_back({{type, value, type == "C" ? StrType::Printable : StrType::Utf8}});
    }
    return name;
}

Time TimeAt(int64_t epochSeconds) {
    time_t t = static_cast<time_t>(epochSeconds);
    struct tm tm {};
    Check(gmtime_r(&t, &tm) != nullptr, "time out of range");
    int year = tm.tm_year + 1900;
    bool utc = year >= 1950 && year <= 2049;
    // %Y does not pad years below 1000 to four digits, so format by hand.
    char text[32];
    snprintf(text, sizeof(text), "%04d%02d%02d%02d%02d%02dZ", year, tm.tm_mon + 1, tm.tm_mday,
             tm.tm_hour, tm.tm_min, tm.tm_sec);
    if (utc) {
        return {TimeType::Utc, text + 2};
    }
    return {TimeType::Generalized, text};
}

int64_t EpochOf(const Time &time) {
    detail::Asn1StringPtr t = detail::MakeTime(time);
    struct tm tm {};
    Check(ASN1_TIME_to_tm(t.get(), &tm) == 1, "OpenSSL cannot read time \"" + time.text + "\"");
    return static_cast<int64_t>(timegm(&tm));
}

const EVP_MD *DigestMd(Digest digest) {
    switch (digest) {
        case Digest::Sha1:
            return EVP_sha1();
        case Digest::Sha256:
            return EVP_sha256();
        case Digest::Sha384:
            return EVP_sha384();
        case Digest::Sha512:
            return EVP_sha512();
    }
    throw Error("unknown digest");
}

Bytes SerialFromU64(uint64_t value) {
    Bytes out;
    do {
        out.insert(out.begin(), static_cast<uint8_t>(value));
        value >>= 8;
    } while (value != 0);
    if (out[0] & 0x80) {
        out.insert(out.begin(), 0x00);  // keep it positive
    }
    return out;
}

// ---- output -----------------------------------------------------------------

std::string ToPem(std::string_view label, std::span<const uint8_t> der) {
    std::string out = "-----BEGIN " + std::string(label) + "-----\n";
    // 48 input octets make one 64-character line.
    for (size_t pos = 0; pos < der.size(); pos += 48) {
        size_t n = std::min<size_t>(48, der.size() - pos);
        unsigned char line[65];
        int len = EVP_EncodeBlock(line, der.data() + pos, static_cast<int>(n));
        out.append(reinterpret_cast<const char *>(line), static_cast<size_t>(len));
        out += '\n';
    }
    out += "-----END " + std::string(label) + "-----\n";
    return out;
}

std::string PemBundle(const std::vector<PemBlock> &blocks) {
    std::string out;
    for (const PemBlock &block : blocks) {
        out += ToPem(block.label, block.der);
    }
    return out;
}

Bytes ConcatDer(const std::vector<Bytes> &items) {
    Bytes out;
    for (const Bytes &item : items) {
        out.insert(out.end(), item.begin(), item.end());
    }
    return out;
}

void WriteFile(const std::filesystem::path &file, std::span<const uint8_t> data) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(data.data()),
              static_cast<std::streamsize>(data.size()));
    out.close();
    if (!out) {
        throw Error("cannot write " + file.string());
    }
}

void WriteFile(const std::filesystem::path &file, std::string_view text) {
    WriteFile(file, std::span(reinterpret_cast<const uint8_t *>(text.data()), text.size()));
}

// ---- DER --------------------------------------------------------------------

namespace der {

Bytes Tlv(uint8_t tag, std::span<const uint8_t> content) {
    Bytes out{tag};
    size_t len = content.size();
    if (len < 0x80) {
        out.push_back(static_cast<uint8_t>(len));
    } else {
        Bytes octets;
        for (size_t v = len; v != 0; v >>= 8) {
            octets.insert(octets.begin(), static_cast<uint8_t>(v));
        }
        out.push_back(static_cast<uint8_t>(0x80 | octets.size()));
        out.insert(out.end(), octets.begin(), octets.end());
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

Bytes Seq(const std::vector<Bytes> &items) {
    return Tlv(0x30, ConcatDer(items));
}

Bytes Oid(const std::string &text) {
    ObjPtr obj = ObjFromText(text);
    unsigned char *out = nullptr;
    int len = i2d_ASN1_OBJECT(obj.get(), &out);
    Check(len > 0, "i2d_ASN1_OBJECT");
    Bytes der(out, out + len);
    OPENSSL_free(out);
    return der;
}

Bytes OctetString(std::span<const uint8_t> content) {
    return Tlv(0x04, content);
}

Bytes Boolean(bool value) {
    return Bytes{0x01, 0x01, static_cast<uint8_t>(value ? 0xFF : 0x00)};
}

Bytes Integer(std::span<const uint8_t> content) {
    return Tlv(0x02, content);
}

namespace {

// Header length and content length of the element at the front of `in`.
// Single-octet tags only, as everything this generator reads back uses.
std::pair<size_t, size_t> Header(std::span<const uint8_t> in) {
    if (in.size() < 2 || (in[0] & 0x1F) == 0x1F) {
        throw Error("DER: truncated element or multi-octet tag");
    }
    size_t headerLen = 2;
    size_t len = in[1];
    if (len & 0x80) {
        size_t octets = len & 0x7F;
        if (octets == 0 || octets > sizeof(size_t) || octets > in.size() - 2) {
            throw Error("DER: bad length octets");
        }
        len = 0;
        for (size_t i = 0; i < octets; ++i) {
            len = (len << 8) | in[2 + i];
        }
        headerLen += octets;
    }
    if (len > in.size() - headerLen) {
        throw Error("DER: element runs past its input");
    }
    return {headerLen, len};
}

}  // namespace

std::vector<Bytes> Children(std::span<const uint8_t> in) {
    auto [headerLen, len] = Header(in);
    std::span<const uint8_t> rest = in.subspan(headerLen, len);
    std::vector<Bytes> out;
    while (!rest.empty()) {
        auto [childHeader, childLen] = Header(rest);
        out.emplace_back(rest.begin(),
                         rest.begin() + static_cast<ptrdiff_t>(childHeader + childLen));
        rest = rest.subspan(childHeader + childLen);
    }
    return out;
}

Bytes Content(std::span<const uint8_t> in) {
    auto [headerLen, len] = Header(in);
    auto start = in.begin() + static_cast<ptrdiff_t>(headerLen);
    return Bytes(start, start + static_cast<ptrdiff_t>(len));
}

}  // namespace der

}  // namespace testpki
