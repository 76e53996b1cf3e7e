// What the testpki sources share with each other.
#pragma once

#include "tools/testpki/testpki.h"

#include <openssl/asn1.h>

namespace testpki::detail {

using Asn1StringPtr = std::unique_ptr<ASN1_STRING, Deleter<ASN1_STRING_free>>;
using X509NamePtr = std::unique_ptr<X509_NAME, Deleter<X509_NAME_free>>;

// Throws Error with `what` and the oldest queued OpenSSL reason.
[[noreturn]] void Fail(std::string_view what);
inline void Check(bool ok, std::string_view what) {
    if (!ok) {
        Fail(what);
    }
}

// ASN1_TIME holding exactly time.text under the chosen tag.
Asn1StringPtr MakeTime(const Time &time);
// ASN1_INTEGER that encodes to exactly these content octets.
Asn1StringPtr MakeInteger(std::span<const uint8_t> content);
X509NamePtr MakeName(const Name &name);
// Extension from raw extnValue content.
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;
ExtensionPtr MakeExtension(const std::string &oid, bool critical, std::span<const uint8_t> value);

// Sets RSASSA-PSS with a salt as long as the digest (MGF1 follows the
// digest) on a signing context.
void UsePss(EVP_PKEY_CTX *pctx);
// X509_sign / X509_CRL_sign, by PSS when asked.
void SignX509(X509 *x509, const Key &key, Digest digest, bool pss);
void SignCrl(X509_CRL *crl, const Key &key, Digest digest, bool pss);

}  // namespace testpki::detail
