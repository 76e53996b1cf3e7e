// What the testpki sources and its command line share.
#pragma once

#include "tools/testpki/testpki.h"

#include <openssl/asn1.h>

#include <type_traits>

namespace testpki::detail {

// Throws Error with `what` and the oldest queued OpenSSL reason.
[[noreturn]] void Fail(std::string_view what);

// A pointer must not be null, a status must be positive; returns `v`.
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
// The failing call itself is the message.
#define TP_NEED(call) ::testpki::detail::Need((call), #call)

// i2d of any OpenSSL object into a vector.
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
// "YYYYMMDDHHMMSSZ" of a time.
std::string GenText(int64_t epochSeconds);

// ASN1_TIME holding exactly time.text under the chosen tag.
Owned<ASN1_STRING_free> MakeTime(const Time &time);
// ASN1_INTEGER that encodes to exactly these content octets.
Owned<ASN1_STRING_free> MakeInteger(std::span<const uint8_t> content);
Owned<X509_NAME_free> MakeName(const Name &name);
Owned<X509_EXTENSION_free> MakeExtension(const RawExtension &ext);
// An authorityKeyIdentifier value holding the key identifier of `key`.
Bytes AuthorityKeyId(const Key &key);
// RSASSA-PSS with a salt as long as the digest on a signing context.
void UsePss(EVP_PKEY_CTX *pctx);
void CreateDirs(const std::filesystem::path &dir);
// MakeSignedData over content read from a BIO.
Bytes SignedData(const SignSpec &plan, BIO *content);

}  // namespace testpki::detail

// The command line's writers; each creates outDir and returns the names of
// the files it wrote there.
namespace testpki {

// WriteDemoPki's files, the payload, "sha256sums" with "sha256sums.p7s" and
// ".p7s.pem", "sha256sums.tampered", "crls+ca.pem" (CRLs and CA) and
// "faults/NAME/sha256sums{,.p7s}" for each fault.
std::vector<std::string> WriteDemoPackage(const DemoPki &pki, const std::filesystem::path &outDir);

// Signs a file as MakePackage signs its content, streamed: "content.p7s",
// "crls+ca.pem", and for the openssl command line "root.pem", "ca.pem",
// "tsa.pem", "token.der" and "sigvalue.bin" (what the token's imprint covers).
std::vector<std::string> WriteDemoSignature(const DemoPki &pki,
                                            const std::filesystem::path &content,
                                            const std::filesystem::path &outDir);

// A package whose signer and TSA sit `depth` (1..12) certificates below the
// demo root, as "sha256sums", "sha256sums.p7s" and "crls+ca.pem" (a CRL of
// root and every CA, then the CAs); `ecdsa`: EC keys below the root.
std::vector<std::string> WriteChainPackage(int depth, const std::filesystem::path &outDir,
                                           const std::filesystem::path &keyDir, bool ecdsa);

// The differential path target's hierarchy with a case for each rule of path
// validation and revocation: "cert-NN-what" and "crl-SV-what" (S: signer).
struct PoolItem {
    std::string name;
    Bytes der;
};
std::vector<PoolItem> MakePathPool(const std::filesystem::path &keyDir);

}  // namespace testpki
