// What the testpki sources and its command line share.
#pragma once

#include "tools/testpki/testpki.h"

#include <openssl/asn1.h>

namespace testpki::detail {

// Throws Error with `what` and the oldest queued OpenSSL reason.
[[noreturn]] void Fail(std::string_view what);

// A pointer must not be null, a status must be positive.
template <typename T>
T Need(T v, const char *what) {
    if constexpr (std::is_pointer_v<T>) {
        if (v == nullptr) {
            Fail(what);
        }
    } else if (v <= 0) {
        Fail(what);
    }
    return v;
}
#define TP_NEED(call) ::testpki::detail::Need((call), #call)

template <typename T, typename Fn>
Bytes ToDer(T *object, Fn i2d) {
    unsigned char *out = nullptr;
    int len = Need(i2d(object, &out), "i2d");
    Bytes der(out, out + len);
    OPENSSL_free(out);
    return der;
}

inline std::span<const uint8_t> AsBytes(std::string_view text) {
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

const EVP_MD *DigestMd(Digest digest);
Bytes Hash(Digest digest, std::span<const uint8_t> data);

// Objects that encode to exactly the text or content octets given.
Owned<ASN1_STRING_free> MakeTime(const Time &time);
Owned<ASN1_STRING_free> MakeInteger(std::span<const uint8_t> content);
Owned<X509_NAME_free> MakeName(const Name &name);
Owned<X509_EXTENSION_free> MakeExtension(const RawExtension &ext);
Bytes AuthorityKeyId(const Key &key);
void UsePss(EVP_PKEY_CTX *pctx);
// Writes files below one folder and lists their names.
struct Out {
    explicit Out(std::filesystem::path d) : dir(std::move(d)) {}
    void Put(const std::string &name, std::span<const uint8_t> data) {
        std::filesystem::create_directories((dir / name).parent_path());
        WriteFile(dir / name, data);
        names.push_back(name);
    }
    void Put(const std::string &name, std::string_view text) { Put(name, AsBytes(text)); }

    std::filesystem::path dir;
    std::vector<std::string> names;
};
Bytes SignedData(const SignSpec &plan, BIO *content);

}  // namespace testpki::detail

// The command line's writers; each returns the names of the files it wrote.
namespace testpki {

// WriteDemoPki's files, payload, sha256sums*, crls+ca.pem, faults/NAME/sha256sums*.
std::vector<std::string> WriteDemoPackage(const DemoPki &pki, const std::filesystem::path &outDir);

// content.p7s as MakePackage signs, streamed, and the openssl CLI's inputs.
std::vector<std::string> WriteDemoSignature(const DemoPki &pki,
                                            const std::filesystem::path &content,
                                            const std::filesystem::path &outDir);

// Signer and TSA `depth` (2..12; 2 for `ecdsa`) certificates below the demo root.
std::vector<std::string> WriteChainPackage(int depth, const std::filesystem::path &outDir,
                                           const std::filesystem::path &keyDir, bool ecdsa);

// The differential path target's cert-NN-what.der and crl-SV-what.der (S: signer).
std::vector<std::string> WritePathPool(const std::filesystem::path &keyDir,
                                       const std::filesystem::path &outDir);

}  // namespace testpki
