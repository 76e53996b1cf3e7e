// Keys, times, integers, names, extensions, DER and output helpers.
#include "tools/testpki/internal.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <ctime>
#include <fstream>

namespace testpki {

using detail::Need;

namespace {

Owned<ASN1_OBJECT_free> ObjFromText(const std::string &text) {
    Owned<ASN1_OBJECT_free> obj(OBJ_txt2obj(text.c_str(), 0));
    if (!obj) {
        detail::Fail("unknown object identifier \"" + text + "\"");
    }
    return obj;
}

Owned<ASN1_STRING_free> MakeString(int type, std::span<const uint8_t> content) {
    Owned<ASN1_STRING_free> s(TP_NEED(ASN1_STRING_type_new(type)));
    TP_NEED(ASN1_STRING_set(s.get(), content.data(), static_cast<int>(content.size())));
    return s;
}

}  // namespace

namespace detail {

void Fail(std::string_view what) {
    std::string message(what);
    if (unsigned long code = ERR_get_error(); code != 0) {
        char reason[256];
        ERR_error_string_n(code, reason, sizeof(reason));
        message = message + ": " + reason;
    }
    ERR_clear_error();
    throw Error(message);
}

const EVP_MD *DigestMd(Digest digest) {
    static const EVP_MD *(*const kMds[])() = {EVP_sha1, EVP_sha256, EVP_sha384, EVP_sha512};
    return kMds[static_cast<int>(digest)]();
}

Bytes Hash(Digest digest, std::span<const uint8_t> data) {
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned int len = 0;
    TP_NEED(EVP_Digest(data.data(), data.size(), out.data(), &len, DigestMd(digest), nullptr));
    out.resize(len);
    return out;
}

// A bare string keeps the text as given; ASN1_TIME_set_string would normalise it.
Owned<ASN1_STRING_free> MakeTime(const Time &time) {
    int type = time.type == TimeType::Utc ? V_ASN1_UTCTIME : V_ASN1_GENERALIZEDTIME;
    return MakeString(type, AsBytes(time.text));
}

// OpenSSL keeps a magnitude's width, so redundant leading octets survive.
Owned<ASN1_STRING_free> MakeInteger(std::span<const uint8_t> content) {
    if (content.empty()) {
        throw Error("INTEGER content must have at least one octet");
    }
    bool negative = (content[0] & 0x80) != 0;
    Bytes magnitude(content.begin(), content.end());
    unsigned carry = 1;
    for (size_t i = magnitude.size(); negative && i-- > 0;) {
        unsigned v = static_cast<uint8_t>(~magnitude[i]) + carry;
        magnitude[i] = static_cast<uint8_t>(v);
        carry = v >> 8;
    }
    auto n = MakeString(negative ? V_ASN1_NEG_INTEGER : V_ASN1_INTEGER, magnitude);
    if (ToDer(n.get(), i2d_ASN1_INTEGER) != der::Integer(content)) {
        throw Error("OpenSSL cannot carry these INTEGER content octets");
    }
    return n;
}

Owned<X509_NAME_free> MakeName(const Name &name) {
    static constexpr int kTags[] = {V_ASN1_PRINTABLESTRING, V_ASN1_UTF8STRING, V_ASN1_IA5STRING};
    Owned<X509_NAME_free> out(TP_NEED(X509_NAME_new()));
    for (const Rdn &rdn : name) {
        if (rdn.empty()) {
            throw Error("a relative distinguished name needs at least one attribute");
        }
        int set = 0;  // the first attribute opens a new RDN, the rest join it
        for (const Attr &attr : rdn) {
            // A plain V_ASN1_* type (not MBSTRING_*) stores the bytes as they are.
            Need(X509_NAME_add_entry_by_OBJ(
                     out.get(), ObjFromText(attr.type).get(), kTags[static_cast<int>(attr.strType)],
                     AsBytes(attr.value).data(), static_cast<int>(attr.value.size()), -1, set),
                 "X509_NAME_add_entry_by_OBJ");
            set = -1;
        }
    }
    return out;
}

Owned<X509_EXTENSION_free> MakeExtension(const RawExtension &ext) {
    auto octets = MakeString(V_ASN1_OCTET_STRING, ext.value);
    return Owned<X509_EXTENSION_free>(
        Need(X509_EXTENSION_create_by_OBJ(nullptr, ObjFromText(ext.oid).get(), ext.critical,
                                          octets.get()),
             "X509_EXTENSION_create_by_OBJ"));
}

void UsePss(EVP_PKEY_CTX *pctx) {
    TP_NEED(EVP_PKEY_CTX_set_rsa_padding(Need(pctx, "no key context"), RSA_PKCS1_PSS_PADDING));
    TP_NEED(EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, RSA_PSS_SALTLEN_DIGEST));
}

}  // namespace detail

Key Key::GenerateRsa(int bits) {
    return Key(PkeyPtr(TP_NEED(EVP_RSA_gen(static_cast<unsigned>(bits)))));
}

Key Key::EcForm(bool compressed, bool explicitParams) const {
    PkeyPtr copy(TP_NEED(EVP_PKEY_dup(Need(get(), "empty key"))));
    if (compressed) {
        TP_NEED(EVP_PKEY_set_utf8_string_param(
            copy.get(), OSSL_PKEY_PARAM_EC_POINT_CONVERSION_FORMAT, "compressed"));
    }
    if (explicitParams) {
        TP_NEED(
            EVP_PKEY_set_utf8_string_param(copy.get(), OSSL_PKEY_PARAM_EC_ENCODING, "explicit"));
    }
    return Key(std::move(copy));
}

Bytes Key::PublicKeyDer() const {
    return detail::ToDer(Need(get(), "empty key"), i2d_PUBKEY);
}

// RFC 5280 4.2.1.2 method 1: SHA-1 of the subjectPublicKey bits.
Bytes Key::KeyId() const {
    const Bytes bits = der::Content(der::Children(PublicKeyDer()).at(1));
    return detail::Hash(Digest::Sha1, std::span(bits).subspan(1));
}

std::filesystem::path DefaultKeyDir() {
    return TESTPKI_KEY_DIR;
}

Key LoadTestKey(std::string_view name, const std::filesystem::path &dir) {
    const std::filesystem::path file = dir / (std::string(name) + ".pem");
    Owned<BIO_free> bio(BIO_new_file(file.c_str(), "r"));
    // An encrypted key fails instead of prompting on the terminal.
    pem_password_cb *noPassword = [](char *, int, int, void *) { return 0; };
    PkeyPtr pkey(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassword, nullptr) : nullptr);
    Need(pkey.get(), ("no private key in " + file.string()).c_str());
    return Key(std::move(pkey));
}

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
    Need(gmtime_r(&t, &tm), "time out of range");
    // %Y does not pad years below 1000 to four digits.
    char text[32];
    const int year = tm.tm_year + 1900;
    snprintf(text, sizeof(text), "%04d%02d%02d%02d%02d%02dZ", year, tm.tm_mon + 1, tm.tm_mday,
             tm.tm_hour, tm.tm_min, tm.tm_sec);
    return year >= 1950 && year <= 2049 ? Utc(text + 2) : Gen(text);
}

int64_t EpochOf(const Time &time) {
    struct tm tm {};
    Need(ASN1_TIME_to_tm(detail::MakeTime(time).get(), &tm),
         ("OpenSSL cannot read time \"" + time.text + "\"").c_str());
    return static_cast<int64_t>(timegm(&tm));
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

std::string ToPem(std::string_view label, std::span<const uint8_t> der) {
    Owned<BIO_free> bio(TP_NEED(BIO_new(BIO_s_mem())));
    TP_NEED(PEM_write_bio(bio.get(), std::string(label).c_str(), "", der.data(),
                          static_cast<long>(der.size())));
    char *text = nullptr;
    long len = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<size_t>(len));
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
    WriteFile(file, detail::AsBytes(text));
}

namespace der {

Bytes Tlv(uint8_t tag, std::span<const uint8_t> content) {
    Bytes out{tag};
    if (content.size() < 0x80) {
        out.push_back(static_cast<uint8_t>(content.size()));
    } else {
        Bytes len;
        for (size_t v = content.size(); v != 0; v >>= 8) {
            len.insert(len.begin(), static_cast<uint8_t>(v));
        }
        out.push_back(static_cast<uint8_t>(0x80 | len.size()));
        out.insert(out.end(), len.begin(), len.end());
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

Bytes Seq(const std::vector<Bytes> &items) {
    return Tlv(0x30, ConcatDer(items));
}

Bytes Oid(const std::string &text) {
    return detail::ToDer(ObjFromText(text).get(), i2d_ASN1_OBJECT);
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

// The content of the element at the front of `in`, as OpenSSL reads its header.
static std::span<const uint8_t> Body(std::span<const uint8_t> in) {
    const unsigned char *p = in.data();
    long len = 0;
    int tag = 0, cls = 0;
    if ((ASN1_get_object(&p, &len, &tag, &cls, static_cast<long>(in.size())) & 0x81) != 0) {
        throw Error("DER: malformed or truncated element");
    }
    return {p, static_cast<size_t>(len)};
}

std::vector<Bytes> Children(std::span<const uint8_t> in) {
    std::vector<Bytes> out;
    for (auto rest = Body(in); !rest.empty(); rest = rest.subspan(out.back().size())) {
        std::span<const uint8_t> body = Body(rest);
        out.emplace_back(rest.data(), body.data() + body.size());
    }
    return out;
}

Bytes Content(std::span<const uint8_t> in) {
    std::span<const uint8_t> body = Body(in);
    return Bytes(body.begin(), body.end());
}

}  // namespace der

}  // namespace testpki
