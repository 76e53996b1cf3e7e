// RSA verification provider: signatures made here by OpenSSL from the
// committed test keys, and the keys the provider refuses to work with. (Its
// digests are checked through every package the detached tests verify.)
#include "cms/adapt/provider.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <algorithm>
#include <initializer_list>
#include <vector>

#include <gtest/gtest.h>

#include "tools/testpki/testpki.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kSha256 = 43, kSha384 = 44, kSha512 = 45;

const EVP_MD *OpensslMd(uint32_t aoid) {
    return aoid == kSha256 ? EVP_sha256() : aoid == kSha384 ? EVP_sha384() : EVP_sha512();
}

// Public half of a key as the provider takes it.
struct PublicKey {
    DorvexBigInt exponent{}, modulus{};
};

PublicKey PublicOf(const testpki::Key &key) {
    PublicKey pub;
    for (auto [name, out] : {std::pair{OSSL_PKEY_PARAM_RSA_E, &pub.exponent},
                             std::pair{OSSL_PKEY_PARAM_RSA_N, &pub.modulus}}) {
        BIGNUM *bn = nullptr;
        EXPECT_EQ(EVP_PKEY_get_bn_param(key.get(), name, &bn), 1);
        out->len = static_cast<uint32_t>(BN_num_bytes(bn));
        BN_bn2bin(bn, out->data);
        BN_free(bn);
    }
    return pub;
}

Bytes Sign(const testpki::Key &key, uint32_t aoid, const Bytes &message) {
    EVP_MD_CTX *ctx = EVP_MD_CTX_new();
    Bytes sig(EVP_PKEY_get_size(key.get()));
    size_t len = sig.size();
    EXPECT_EQ(EVP_DigestSignInit(ctx, nullptr, OpensslMd(aoid), nullptr, key.get()), 1);
    EXPECT_EQ(EVP_DigestSign(ctx, sig.data(), &len, message.data(), message.size()), 1);
    EVP_MD_CTX_free(ctx);
    sig.resize(len);
    return sig;
}

// The whole sequence, the message fed in two pieces; the verdict, or the
// code of the step that failed.
uint32_t Verify(const PublicKey &key, uint32_t aoid, const Bytes &message, const Bytes &sig) {
    DorvexCryptoVerifyCtx *ctx = nullptr;
    const auto half = static_cast<uint32_t>(message.size() / 2);
    uint32_t valid = 7;
    EXPECT_EQ(DorvexCryptoVerifyCreateCtx(&ctx), DORVEX_OK);
    uint32_t ret = DorvexCryptoVerifyInit(ctx, &key.exponent, &key.modulus, aoid);
    if (ret == DORVEX_OK) {
        EXPECT_EQ(DorvexCryptoVerifyUpdate(ctx, message.data(), half), DORVEX_OK);
        EXPECT_EQ(DorvexCryptoVerifyUpdate(ctx, message.data() + half,
                                           static_cast<uint32_t>(message.size() - half)),
                  DORVEX_OK);
        ret = DorvexCryptoVerifyFinal(ctx, sig.data(), static_cast<uint32_t>(sig.size()), &valid);
    } else {
        // No key is left behind, so Final refuses and leaves the verdict alone.
        EXPECT_EQ(
            DorvexCryptoVerifyFinal(ctx, sig.data(), static_cast<uint32_t>(sig.size()), &valid),
            DORVEX_FAIL);
    }
    DorvexCryptoVerifyDestroyCtx(ctx);
    return ret != DORVEX_OK ? ret : valid;
}

TEST(ProviderVerify, SignaturesAndKeys) {
    const testpki::Key leaf = testpki::LoadTestKey("leaf-2048");
    const PublicKey pub = PublicOf(leaf);
    const Bytes message = {'s', 'u', 'm', 's', '\n'}, otherMessage = {'s', 'u', 'm', 's'};
    // Exponents real keys never have: each would only make checks costlier.
    const auto withExponent = [&](std::initializer_list<uint8_t> e) {
        PublicKey key = pub;
        key.exponent.len = static_cast<uint32_t>(e.size());
        std::copy(e.begin(), e.end(), key.exponent.data);
        return key;
    };
    PublicKey small = pub;
    small.modulus.len = 128;  // the top 1024 bits of a 2048-bit modulus
    const PublicKey one = withExponent({0x01}), even = withExponent({0x01, 0x00, 0x00}),
                    over = withExponent({0x01, 0x00, 0x00, 0x00, 0x03}),
                    limit = withExponent({0x00, 0x01, 0x00, 0x00, 0x00, 0x01});
    for (uint32_t aoid : {kSha256, kSha384, kSha512}) {
        const Bytes good = Sign(leaf, aoid, message);
        Bytes last = good, longer = good;
        last.back() ^= 0x80;
        longer.push_back(0);
        const struct {
            const char *name;
            const PublicKey &key;
            const Bytes &message, &sig;
            uint32_t expect;
        } rows[] = {
            {"good", pub, message, good, 1},
            {"last bit changed", pub, message, last, 0},
            {"one octet longer", pub, message, longer, 0},
            {"other message", pub, otherMessage, good, 0},
            {"modulus of 1024 bits", small, message, good, DORVEX_ERR_PUBKEY_TOO_SHORT},
            {"exponent 1", one, message, good, DORVEX_ERR_PUBKEY_EXPONENT},
            {"even exponent", even, message, good, DORVEX_ERR_PUBKEY_EXPONENT},
            {"exponent over 32 bits", over, message, good, DORVEX_ERR_PUBKEY_EXPONENT},
            {"exponent 2^32 + 1 in six octets", limit, message, good, 0},
        };
        for (const auto &r : rows) {
            EXPECT_EQ(Verify(r.key, aoid, r.message, r.sig), r.expect) << r.name << " " << aoid;
        }
    }
    // Only the three digests: the signature ids (63) and SHA-1 (41) are not.
    for (uint32_t aoid : {0u, 41u, 46u, 63u}) {
        EXPECT_EQ(Verify(pub, aoid, message, message), DORVEX_FAIL) << aoid;
    }
}

}  // namespace
