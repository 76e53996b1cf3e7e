// Digest and RSA verification provider: FIPS 180 answers, agreement with
// OpenSSL, signatures made here by OpenSSL with the committed test keys.
#include "cms/adapt/provider.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/syslog_capture.h"
#include "tools/testpki/testpki.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kSha256 = 43, kSha384 = 44, kSha512 = 45;

const EVP_MD *OpensslMd(uint32_t aoid) {
    return aoid == kSha256 ? EVP_sha256() : aoid == kSha384 ? EVP_sha384() : EVP_sha512();
}

// Whether a DBG_Log record of `function` at error level carries `message`.
bool Logged(const char *function, const std::string &message) {
    for (const auto &text : vt_test::CapturedSyslogTexts()) {
        if (text.find("[ERR][" + message + "]") != std::string::npos &&
            text.find(std::string("[") + function + ",") != std::string::npos) {
            return true;
        }
    }
    return false;
}

// The provider's digest of `data` fed in pieces, with empty and null
// updates in between (which must change nothing).
Bytes MdDigest(uint32_t aoid, const Bytes &data, size_t piece) {
    DorvexMdCtx *ctx = nullptr;
    EXPECT_EQ(DorvexMdCreateCtx(&ctx), DORVEX_OK);
    EXPECT_EQ(DorvexMdInit(ctx, aoid), DORVEX_OK);
    for (size_t at = 0; at < data.size(); at += piece) {
        const auto n = static_cast<uint32_t>(std::min(piece, data.size() - at));
        EXPECT_EQ(DorvexMdUpdate(ctx, data.data() + at, n), DORVEX_OK);
        EXPECT_EQ(DorvexMdUpdate(ctx, nullptr, 5), DORVEX_OK);
        EXPECT_EQ(DorvexMdUpdate(ctx, data.data(), 0), DORVEX_OK);
    }
    Bytes digest(64);
    uint32_t length = 0, capacity = 64;
    EXPECT_EQ(DorvexMdFinal(ctx, digest.data(), &length, &capacity), DORVEX_OK);
    DorvexMdDestoryCtx(ctx);
    digest.resize(length);
    return digest;
}

TEST(ProviderDigest, KnownAnswersAndOpenssl) {
    // FIPS 180 "abc": the first and last digest bytes of each.
    const struct {
        uint32_t aoid;
        uint8_t first, last;
        size_t size;
    } rows[] = {{kSha256, 0xba, 0xad, 32}, {kSha384, 0xcb, 0xa7, 48}, {kSha512, 0xdd, 0x9f, 64}};
    Bytes mixed(1000);  // bytes of every value, fed in odd pieces
    for (size_t i = 0; i < mixed.size(); ++i) {
        mixed[i] = static_cast<uint8_t>(i * 31 + 7);
    }
    for (const auto &r : rows) {
        const Bytes abc = MdDigest(r.aoid, {'a', 'b', 'c'}, 4096);
        ASSERT_EQ(abc.size(), r.size);
        EXPECT_EQ(abc.front() << 8 | abc.back(), r.first << 8 | r.last) << r.aoid;
        ASSERT_EQ(DrxGetOpensslEvpmd(r.aoid), OpensslMd(r.aoid));
        Bytes expected(r.size);
        ASSERT_EQ(EVP_Digest(mixed.data(), mixed.size(), expected.data(), nullptr,
                             OpensslMd(r.aoid), nullptr),
                  1);
        EXPECT_EQ(MdDigest(r.aoid, mixed, 13), expected) << r.aoid;
        EXPECT_EQ(MdDigest(r.aoid, {'a', 'b', 'c'}, 1), abc);
    }
}

TEST(ProviderDigest, Refusals) {
    // Only the three digests: the RSA-with-SHA-2 ids (63..65) are converted
    // to digest ids by the caller.
    for (uint32_t aoid : {0u, 42u, 46u, 63u, 0xFFFFFFFFu}) {
        vt_test::ClearSyslog();
        DorvexMdCtx *ctx = nullptr;
        ASSERT_EQ(DorvexMdCreateCtx(&ctx), DORVEX_OK);
        EXPECT_EQ(DrxGetOpensslEvpmd(aoid), nullptr) << aoid;
        EXPECT_EQ(DorvexMdInit(ctx, aoid), DORVEX_FAIL) << aoid;
        EXPECT_TRUE(Logged("DorvexMdInit", "Failed to get openssl evp handler.")) << aoid;
        // A context whose Init failed refuses work instead of crashing.
        uint8_t byte = 1, digest[64];
        uint32_t length = 0, capacity = 64;
        EXPECT_EQ(DorvexMdUpdate(ctx, &byte, 1), DORVEX_FAIL);
        EXPECT_EQ(DorvexMdFinal(ctx, digest, &length, &capacity), DORVEX_FAIL);
        DorvexMdDestoryCtx(ctx);
    }
    EXPECT_EQ(DorvexMdCreateCtx(nullptr), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexMdInit(nullptr, kSha256), DORVEX_FAIL);
    EXPECT_EQ(DorvexMdUpdate(nullptr, nullptr, 0), DORVEX_FAIL);
    DorvexMdDestoryCtx(nullptr);

    DorvexMdCtx *ctx = nullptr;
    ASSERT_EQ(DorvexMdCreateCtx(&ctx), DORVEX_OK);
    ASSERT_EQ(DorvexMdInit(ctx, kSha512), DORVEX_OK);
    uint8_t digest[64];
    uint32_t length = 0, capacity = 64, small = 63;
    EXPECT_EQ(DorvexMdFinal(ctx, nullptr, &length, &capacity), DORVEX_FAIL);
    EXPECT_EQ(DorvexMdFinal(ctx, digest, nullptr, &capacity), DORVEX_FAIL);
    EXPECT_EQ(DorvexMdFinal(ctx, digest, &length, nullptr), DORVEX_FAIL);
    EXPECT_EQ(DorvexMdFinal(ctx, digest, &length, &small), DORVEX_FAIL);
    EXPECT_EQ(DorvexMdFinal(ctx, digest, &length, &capacity), DORVEX_OK);
    EXPECT_EQ(length, 64u);
    EXPECT_EQ(DorvexMdFinal(ctx, digest, &length, &capacity), DORVEX_FAIL);  // not reusable
    DorvexMdDestoryCtx(ctx);
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
        if (out->len <= sizeof(out->data)) {  // else left for the provider to refuse
            BN_bn2bin(bn, out->data);
        }
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

// The whole sequence, the message fed in two pieces; the verdict, or -1 when
// a step failed.
int Verify(const PublicKey &key, uint32_t aoid, const Bytes &message, const Bytes &sig) {
    DorvexCryptoVerifyCtx *ctx = nullptr;
    const auto half = static_cast<uint32_t>(message.size() / 2);
    uint32_t valid = 7;
    const uint64_t checksBefore = DrxBenchRsaVerifyCount();
    const bool ok =
        DorvexCryptoVerifyCreateCtx(&ctx) == DORVEX_OK &&
        DorvexCryptoVerifyInit(ctx, &key.exponent, &key.modulus, aoid) == DORVEX_OK &&
        DorvexCryptoVerifyUpdate(ctx, message.data(), half) == DORVEX_OK &&
        DorvexCryptoVerifyUpdate(ctx, message.data() + half,
                                 static_cast<uint32_t>(message.size() - half)) == DORVEX_OK &&
        DorvexCryptoVerifyFinal(ctx, sig.data(), static_cast<uint32_t>(sig.size()), &valid) ==
            DORVEX_OK;
    DorvexCryptoVerifyDestroyCtx(ctx);
    EXPECT_EQ(DrxBenchRsaVerifyCount() - checksBefore, ok ? 1u : 0u);
    EXPECT_EQ(valid, ok ? valid % 2 : 7u);
    return ok ? static_cast<int>(valid) : -1;
}

TEST(ProviderVerify, SignaturesByKeyAndDigest) {
    const testpki::Key leaf = testpki::LoadTestKey("leaf-2048");
    const testpki::Key root = testpki::LoadTestKey("root-4096");
    const PublicKey other = PublicOf(testpki::LoadTestKey("other-2048"));
    const Bytes message = {'s', 'u', 'm', 's', '\n'};
    for (const testpki::Key *signer : {&leaf, &root}) {
        const PublicKey pub = PublicOf(*signer);
        ASSERT_EQ(pub.modulus.len, signer == &leaf ? 256u : 512u);
        for (uint32_t aoid : {kSha256, kSha384, kSha512}) {
            const Bytes good = Sign(*signer, aoid, message);
            Bytes first = good, last = good, longer = good, otherMsg = message;
            first.front() ^= 0x01;
            last.back() ^= 0x80;
            longer.push_back(0);
            otherMsg.back() ^= 0x20;
            const std::string where = std::to_string(pub.modulus.len) + "/" + std::to_string(aoid);
            EXPECT_EQ(Verify(pub, aoid, message, good), 1) << where;
            EXPECT_EQ(Verify(pub, aoid, message, first), 0) << where;
            EXPECT_EQ(Verify(pub, aoid, message, last), 0) << where;
            EXPECT_EQ(Verify(pub, aoid, message, longer), 0) << where;
            EXPECT_EQ(Verify(pub, aoid, otherMsg, good), 0) << where;
            EXPECT_EQ(Verify(other, aoid, message, good), 0) << where;
        }
    }
}

TEST(ProviderVerify, ShortSignaturesArePaddedBack) {
    // Messages "short signature N" whose PKCS #1 v1.5 signature under
    // leaf-2048 starts with `zeros` zero bytes (N found by a search once).
    const struct {
        uint32_t aoid;
        int counter;
        size_t zeros;
    } rows[] = {{kSha256, 572, 1},  {kSha256, 5440, 2}, {kSha384, 204, 1},
                {kSha384, 1018, 2}, {kSha512, 321, 1},  {kSha512, 47505, 2}};
    const testpki::Key leaf = testpki::LoadTestKey("leaf-2048");
    const PublicKey pub = PublicOf(leaf);
    for (const auto &r : rows) {
        const std::string text = "short signature " + std::to_string(r.counter);
        const Bytes message(text.begin(), text.end());
        const Bytes full = Sign(leaf, r.aoid, message);
        ASSERT_EQ(
            std::find_if(full.begin(), full.end(), [](uint8_t b) { return b != 0; }) - full.begin(),
            static_cast<long>(r.zeros))
            << text;
        const Bytes cut(full.begin() + static_cast<long>(r.zeros), full.end());
        EXPECT_EQ(Verify(pub, r.aoid, message, full), 1) << text;
        EXPECT_EQ(Verify(pub, r.aoid, message, cut), 1) << text;
        // OpenSSL alone refuses the cut signature: the padding makes it pass.
        EVP_MD_CTX *ctx = EVP_MD_CTX_new();
        ASSERT_EQ(EVP_DigestVerifyInit(ctx, nullptr, OpensslMd(r.aoid), nullptr, leaf.get()), 1);
        EXPECT_NE(EVP_DigestVerify(ctx, cut.data(), cut.size(), message.data(), message.size()), 1);
        EVP_MD_CTX_free(ctx);
    }
}

TEST(ProviderVerify, Refusals) {
    const PublicKey pub = PublicOf(testpki::LoadTestKey("leaf-2048"));
    // Exponents real keys never have: each would only make checks costlier.
    const auto withExponent = [&](std::initializer_list<uint8_t> e) {
        PublicKey key = pub;
        key.exponent.len = static_cast<uint32_t>(e.size());
        std::copy(e.begin(), e.end(), key.exponent.data);
        return key;
    };
    PublicKey small = pub, huge = pub;
    small.modulus.len = 128;  // the top 1024 bits of a 2048-bit modulus
    huge.modulus.len = DORVEX_BIGINT_MAX_LEN + 1;
    const PublicKey one = withExponent({0x01}), even = withExponent({0x01, 0x00, 0x00}),
                    over = withExponent({0x01, 0x00, 0x00, 0x00, 0x03}),
                    limit = withExponent({0x00, 0x01, 0x00, 0x00, 0x00, 0x01});
    const char *kExponent = "RSA public exponent out of range.";
    const struct {
        const PublicKey *key;
        uint32_t aoid;
        const char *log;
        uint32_t ret = DORVEX_FAIL;
    } rows[] = {
        {&pub, 0, "Failed to get algo handler."},
        {&pub, 63, "Failed to get algo handler."},  // signature id instead of digest id
        {&pub, 46, "Failed to get algo handler."},
        {&pub, 41, "Failed to get algo handler."},  // SHA-1: identifiers only
        {&huge, kSha256, "Failed to build rsa public key."},
        {&small, kSha256, "RSA modulus below 2048 bits.", DORVEX_ERR_PUBKEY_TOO_SHORT},
        {&one, kSha256, kExponent, DORVEX_ERR_PUBKEY_EXPONENT},
        {&even, kSha256, kExponent, DORVEX_ERR_PUBKEY_EXPONENT},
        {&over, kSha256, kExponent, DORVEX_ERR_PUBKEY_EXPONENT},
    };
    uint8_t sig[256] = {};
    uint32_t valid = 7;
    for (const auto &r : rows) {
        vt_test::ClearSyslog();
        DorvexCryptoVerifyCtx *ctx = nullptr;
        ASSERT_EQ(DorvexCryptoVerifyCreateCtx(&ctx), DORVEX_OK);
        EXPECT_EQ(DorvexCryptoVerifyInit(ctx, &r.key->exponent, &r.key->modulus, r.aoid), r.ret)
            << r.aoid;
        EXPECT_TRUE(Logged("DorvexCryptoVerifyInit", r.log)) << r.aoid;
        // No key is left behind, so Final refuses and leaves the verdict alone.
        EXPECT_EQ(DorvexCryptoVerifyFinal(ctx, sig, sizeof(sig), &valid), DORVEX_FAIL) << r.aoid;
        DorvexCryptoVerifyDestroyCtx(ctx);
    }

    DorvexCryptoVerifyCtx *ctx = nullptr;
    ASSERT_EQ(DorvexCryptoVerifyCreateCtx(&ctx), DORVEX_OK);
    EXPECT_EQ(DorvexCryptoVerifyInit(ctx, &limit.exponent, &limit.modulus, kSha256), DORVEX_OK);
    DorvexCryptoVerifyDestroyCtx(ctx);
    ctx = nullptr;
    EXPECT_EQ(DorvexCryptoVerifyCreateCtx(nullptr), DORVEX_FAIL);
    ASSERT_EQ(DorvexCryptoVerifyCreateCtx(&ctx), DORVEX_OK);
    // Before Init: no digest to feed, no key to check with.
    EXPECT_EQ(DorvexCryptoVerifyUpdate(ctx, sig, 1), DORVEX_FAIL);
    EXPECT_EQ(DorvexCryptoVerifyFinal(ctx, sig, sizeof(sig), &valid), DORVEX_FAIL);
    EXPECT_EQ(DorvexCryptoVerifyInit(ctx, nullptr, &pub.modulus, kSha256), DORVEX_FAIL);
    EXPECT_EQ(DorvexCryptoVerifyInit(ctx, &pub.exponent, nullptr, kSha256), DORVEX_FAIL);
    EXPECT_EQ(DorvexCryptoVerifyInit(nullptr, &pub.exponent, &pub.modulus, kSha256), DORVEX_FAIL);
    ASSERT_EQ(DorvexCryptoVerifyInit(ctx, &pub.exponent, &pub.modulus, kSha256), DORVEX_OK);
    EXPECT_EQ(DorvexCryptoVerifyUpdate(nullptr, sig, 1), DORVEX_FAIL);
    EXPECT_EQ(DorvexCryptoVerifyUpdate(ctx, nullptr, 3), DORVEX_FAIL);
    EXPECT_EQ(DorvexCryptoVerifyFinal(nullptr, sig, sizeof(sig), &valid), DORVEX_FAIL);
    EXPECT_EQ(DorvexCryptoVerifyFinal(ctx, sig, sizeof(sig), nullptr), DORVEX_FAIL);
    EXPECT_EQ(DorvexCryptoVerifyFinal(ctx, nullptr, sizeof(sig), &valid), DORVEX_FAIL);
    EXPECT_EQ(valid, 7u);
    // Longer than the modulus: no valid signature, and nothing behind the
    // caller's buffer is read. A wrong signature is a verdict, not a failure.
    EXPECT_EQ(DorvexCryptoVerifyFinal(ctx, sig, 0xFFFFFFFEu, &valid), DORVEX_OK);
    EXPECT_EQ(valid, 0u);
    valid = 7;
    EXPECT_EQ(DorvexCryptoVerifyFinal(ctx, sig, sizeof(sig), &valid), DORVEX_OK);
    EXPECT_EQ(valid, 0u);
    DorvexCryptoVerifyDestroyCtx(ctx);
    DorvexCryptoVerifyDestroyCtx(nullptr);
}

}  // namespace
