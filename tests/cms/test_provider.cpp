// Digest and RSA verification provider: FIPS 180 answers, agreement with
// OpenSSL, signatures made here by OpenSSL with the committed test keys.
#include "cms/adapt/provider.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <stdint.h>

#include <algorithm>
#include <string>
#include <string_view>
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

Bytes Text(const std::string &s) {
    return Bytes(s.begin(), s.end());
}

std::string Hex(const Bytes &b) {
    std::string out;
    for (uint8_t v : b) {
        out += "0123456789abcdef"[v >> 4];
        out += "0123456789abcdef"[v & 15];
    }
    return out;
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
Bytes MdDigest(uint32_t aoid, const std::string_view data, size_t piece) {
    DorvexMdCtx *ctx = nullptr;
    EXPECT_EQ(DorvexMdCreateCtx(&ctx), DORVEX_OK);
    EXPECT_EQ(DorvexMdInit(ctx, aoid), DORVEX_OK);
    const auto *bytes = reinterpret_cast<const uint8_t *>(data.data());
    for (size_t at = 0; at < data.size(); at += piece) {
        uint32_t n = static_cast<uint32_t>(std::min(piece, data.size() - at));
        EXPECT_EQ(DorvexMdUpdate(ctx, bytes + at, n), DORVEX_OK);
        EXPECT_EQ(DorvexMdUpdate(ctx, nullptr, 5), DORVEX_OK);
        EXPECT_EQ(DorvexMdUpdate(ctx, bytes, 0), DORVEX_OK);
    }
    Bytes digest(64);
    uint32_t length = 0, capacity = 64;
    EXPECT_EQ(DorvexMdFinal(ctx, digest.data(), &length, &capacity), DORVEX_OK);
    DorvexMdDestoryCtx(ctx);
    digest.resize(length);
    return digest;
}

TEST(ProviderDigest, KnownAnswersAndOpenssl) {
    const std::string abc448 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    const std::string abc896 =
        "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqr"
        "lmnopqrsmnopqrstnopqrstu";
    struct Row {
        const char *name;
        uint32_t aoid;
        const std::string &input;
        const char *hex;
    };
    const std::string abc = "abc";
    const Row rows[] = {
        // FIPS 180 examples
        {"SHA-256 abc", kSha256, abc,
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"SHA-256 two blocks", kSha256, abc448,
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {"SHA-384 abc", kSha384, abc,
         "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca1"
         "34c825a7"},
        {"SHA-384 two blocks", kSha384, abc896,
         "09330c33f71147e83d192fc782cd1b4753111b173b3b05d22fa08086e3b0f712fcc7c71a557e2db966c3e9fa"
         "91746039"},
        {"SHA-512 abc", kSha512, abc,
         "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23"
         "a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
        {"SHA-512 two blocks", kSha512, abc896,
         "8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018501d289e4900f7e4331b99de"
         "c4b5433ac7d329eeb6dd26545e96e55b874be909"},
    };
    for (const auto &r : rows) {
        EXPECT_EQ(Hex(MdDigest(r.aoid, r.input, 4096)), r.hex) << r.name;
    }
    // Against OpenSSL's one-shot digest, over bytes of every value in odd pieces.
    std::string mixed(1000, '\0');
    for (size_t i = 0; i < mixed.size(); ++i) {
        mixed[i] = static_cast<char>(i * 31 + 7);
    }
    for (uint32_t aoid : {kSha256, kSha384, kSha512}) {
        ASSERT_EQ(DrxGetOpensslEvpmd(aoid), OpensslMd(aoid));
        Bytes expected(EVP_MD_get_size(OpensslMd(aoid)));
        ASSERT_EQ(EVP_Digest(mixed.data(), mixed.size(), expected.data(), nullptr, OpensslMd(aoid),
                             nullptr),
                  1);
        EXPECT_EQ(MdDigest(aoid, mixed, 13), expected) << aoid;
    }
}

TEST(ProviderDigest, Refusals) {
    // Only the three digests: SHA-1 has no id here, and the RSA-with-SHA-2
    // ids (63..65) are converted to digest ids by the caller.
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
    // Final ends the digest: the context is not reusable.
    EXPECT_EQ(DorvexMdFinal(ctx, digest, &length, &capacity), DORVEX_FAIL);
    DorvexMdDestoryCtx(ctx);
}

// Public half of a key as the provider takes it.
struct PublicKey {
    DorvexBigInt exponent{};
    DorvexBigInt modulus{};
};

void ToBigInt(EVP_PKEY *pkey, const char *name, DorvexBigInt &out) {
    BIGNUM *bn = nullptr;
    ASSERT_EQ(EVP_PKEY_get_bn_param(pkey, name, &bn), 1);
    out.len = static_cast<uint32_t>(BN_num_bytes(bn));
    if (out.len <= sizeof(out.data)) {  // else left for the provider to refuse
        BN_bn2bin(bn, out.data);
    }
    BN_free(bn);
}

PublicKey PublicOf(const testpki::Key &key) {
    PublicKey pub;
    ToBigInt(key.get(), OSSL_PKEY_PARAM_RSA_E, pub.exponent);
    ToBigInt(key.get(), OSSL_PKEY_PARAM_RSA_N, pub.modulus);
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

// Runs the whole verification sequence; the return code of the first step
// that fails, else of Final, with the verdict in *valid.
uint32_t Verify(const PublicKey &key, uint32_t aoid, const Bytes &message, const Bytes &sig,
                uint32_t *valid) {
    DorvexCryptoVerifyCtx *ctx = nullptr;
    uint32_t rc = DorvexCryptoVerifyCreateCtx(&ctx);
    if (rc == DORVEX_OK) {
        rc = DorvexCryptoVerifyInit(ctx, &key.exponent, &key.modulus, aoid);
    }
    // In two pieces, to see that Update accumulates.
    size_t half = message.size() / 2;
    if (rc == DORVEX_OK) {
        rc = DorvexCryptoVerifyUpdate(ctx, message.data(), static_cast<uint32_t>(half));
    }
    if (rc == DORVEX_OK) {
        rc = DorvexCryptoVerifyUpdate(ctx, message.data() + half,
                                      static_cast<uint32_t>(message.size() - half));
    }
    if (rc == DORVEX_OK) {
        rc = DorvexCryptoVerifyFinal(ctx, sig.data(), static_cast<uint32_t>(sig.size()), valid);
    }
    DorvexCryptoVerifyDestroyCtx(ctx);
    return rc;
}

TEST(ProviderVerify, SignaturesByKeyAndDigest) {
    const testpki::Key leaf = testpki::LoadTestKey("leaf-2048");
    const testpki::Key root = testpki::LoadTestKey("root-4096");
    const PublicKey leafPub = PublicOf(leaf), rootPub = PublicOf(root);
    const PublicKey otherPub = PublicOf(testpki::LoadTestKey("other-2048"));
    ASSERT_EQ(leafPub.modulus.len, 256u);
    ASSERT_EQ(rootPub.modulus.len, 512u);
    // Each row changes the signature, the message or the key before checking.
    using Change = void (*)(Bytes & sig, Bytes & msg, bool &otherKey);
    struct Row {
        const char *name;
        Change change;
        uint32_t valid;
    };
    const Row rows[] = {
        {"as signed", [](Bytes &, Bytes &, bool &) {}, 1},
        {"first byte flipped", [](Bytes &sig, Bytes &, bool &) { sig.front() ^= 0x01; }, 0},
        {"last byte flipped", [](Bytes &sig, Bytes &, bool &) { sig.back() ^= 0x80; }, 0},
        {"a byte too many", [](Bytes &sig, Bytes &, bool &) { sig.push_back(0); }, 0},
        {"another message", [](Bytes &, Bytes &msg, bool &) { msg.back() ^= 0x20; }, 0},
        {"another key", [](Bytes &, Bytes &, bool &otherKey) { otherKey = true; }, 0},
    };
    const Bytes message = Text("checksum file contents\n");
    for (const auto *signer : {&leaf, &root}) {
        const PublicKey &pub = signer == &leaf ? leafPub : rootPub;
        for (uint32_t aoid : {kSha256, kSha384, kSha512}) {
            const Bytes good = Sign(*signer, aoid, message);
            for (const auto &r : rows) {
                Bytes sig = good, msg = message;
                bool otherKey = false;
                r.change(sig, msg, otherKey);
                const PublicKey *key = otherKey ? &otherPub : &pub;
                uint32_t valid = 7;
                EXPECT_EQ(Verify(*key, aoid, msg, sig, &valid), DORVEX_OK) << r.name;
                EXPECT_EQ(valid, r.valid)
                    << r.name << ", " << pub.modulus.len << " bytes, " << aoid;
            }
        }
    }
}

TEST(ProviderVerify, ShortSignaturesArePaddedBack) {
    // Messages "short signature N" whose deterministic PKCS #1 v1.5
    // signature under leaf-2048 starts with `zeros` zero bytes (found by
    // searching N once).
    struct Row {
        const char *name;
        uint32_t aoid;
        int counter;
        size_t zeros;
    };
    const Row rows[] = {
        {"SHA-256, 255 bytes", kSha256, 572, 1}, {"SHA-256, 254 bytes", kSha256, 5440, 2},
        {"SHA-384, 255 bytes", kSha384, 204, 1}, {"SHA-384, 254 bytes", kSha384, 1018, 2},
        {"SHA-512, 255 bytes", kSha512, 321, 1}, {"SHA-512, 254 bytes", kSha512, 47505, 2},
    };
    const testpki::Key leaf = testpki::LoadTestKey("leaf-2048");
    const PublicKey pub = PublicOf(leaf);
    for (const auto &r : rows) {
        const Bytes message = Text("short signature " + std::to_string(r.counter));
        const Bytes full = Sign(leaf, r.aoid, message);
        ASSERT_EQ(full.size(), 256u) << r.name;
        size_t leading = 0;
        while (leading < full.size() && full[leading] == 0) {
            ++leading;
        }
        ASSERT_EQ(leading, r.zeros) << r.name;
        const Bytes cut(full.begin() + static_cast<long>(r.zeros), full.end());
        uint32_t valid = 7;
        EXPECT_EQ(Verify(pub, r.aoid, message, full, &valid), DORVEX_OK) << r.name;
        EXPECT_EQ(valid, 1u) << r.name << ": unchanged";
        valid = 7;
        EXPECT_EQ(Verify(pub, r.aoid, message, cut, &valid), DORVEX_OK) << r.name;
        EXPECT_EQ(valid, 1u) << r.name << ": cut";

        // OpenSSL alone refuses the cut signature: the padding is what makes it pass.
        EVP_MD_CTX *ctx = EVP_MD_CTX_new();
        ASSERT_EQ(EVP_DigestVerifyInit(ctx, nullptr, OpensslMd(r.aoid), nullptr, leaf.get()), 1);
        EXPECT_NE(EVP_DigestVerify(ctx, cut.data(), cut.size(), message.data(), message.size()), 1)
            << r.name;
        EVP_MD_CTX_free(ctx);
    }
}

TEST(ProviderVerify, Refusals) {
    const PublicKey pub = PublicOf(testpki::LoadTestKey("leaf-2048"));
    // A 4104-bit modulus has 513 bytes, one more than the record holds.
    PublicKey big = PublicOf(testpki::LoadTestKey("rsa-4104"));
    ASSERT_EQ(big.modulus.len, 513u);
    struct Row {
        const char *name;
        const PublicKey *key;
        uint32_t aoid;
        const char *log;
    };
    const Row rows[] = {
        {"SHA-1 is no digest here", &pub, 0, "Failed to get algo handler."},
        {"signature id instead of digest id", &pub, 63, "Failed to get algo handler."},
        {"id past SHA-512", &pub, 46, "Failed to get algo handler."},
        {"modulus of 513 bytes", &big, kSha256, "Failed to build rsa public key."},
    };
    for (const auto &r : rows) {
        vt_test::ClearSyslog();
        DorvexCryptoVerifyCtx *ctx = nullptr;
        ASSERT_EQ(DorvexCryptoVerifyCreateCtx(&ctx), DORVEX_OK);
        EXPECT_EQ(DorvexCryptoVerifyInit(ctx, &r.key->exponent, &r.key->modulus, r.aoid),
                  DORVEX_FAIL)
            << r.name;
        EXPECT_TRUE(Logged("DorvexCryptoVerifyInit", r.log)) << r.name;
        // No key is left behind, so Final refuses and leaves the verdict alone.
        uint8_t sig[256] = {};
        uint32_t valid = 7;
        EXPECT_EQ(DorvexCryptoVerifyFinal(ctx, sig, sizeof(sig), &valid), DORVEX_FAIL) << r.name;
        EXPECT_EQ(valid, 7u) << r.name;
        DorvexCryptoVerifyDestroyCtx(ctx);
    }

    DorvexCryptoVerifyCtx *ctx = nullptr;
    EXPECT_EQ(DorvexCryptoVerifyCreateCtx(nullptr), DORVEX_FAIL);
    ASSERT_EQ(DorvexCryptoVerifyCreateCtx(&ctx), DORVEX_OK);
    uint8_t sig[256] = {};
    uint32_t valid = 7;
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
    // A length that wraps when rounded up cannot be padded.
    EXPECT_EQ(DorvexCryptoVerifyFinal(ctx, sig, 0xFFFFFFFEu, &valid), DORVEX_FAIL);
    EXPECT_EQ(valid, 7u);
    // A wrong signature is a verdict, not a failure.
    EXPECT_EQ(DorvexCryptoVerifyFinal(ctx, sig, sizeof(sig), &valid), DORVEX_OK);
    EXPECT_EQ(valid, 0u);
    DorvexCryptoVerifyDestroyCtx(ctx);
    DorvexCryptoVerifyDestroyCtx(nullptr);
}

}  // namespace
