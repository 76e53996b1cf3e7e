// Decoding and signature-check speed against OpenSSL on the same real
// certificate. Prints figures; asserts nothing about time.
#include <benchmark/benchmark.h>
#include <openssl/x509.h>

#include "cms/asn1/pubkey.h"
#include "tools/testpki/testpki.h"

namespace {

// A CA-issued code-signing certificate like the ones packages carry.
const testpki::Bytes &LeafDer() {
    static const testpki::Bytes der = [] {
        testpki::CertSpec ca;
        ca.subjectKey = testpki::LoadTestKey("root-4096");
        ca.subject = testpki::SimpleName({{"C", "DE"}, {"O", "Bench"}, {"CN", "Bench Root"}});
        ca.basicConstraints = testpki::BasicConstraints{};
        ca.keyUsage = testpki::KeyUsage::Of(testpki::ku::kKeyCertSign | testpki::ku::kCrlSign);
        testpki::CertSpec leaf;
        leaf.subjectKey = testpki::LoadTestKey("leaf-2048");
        leaf.issuer = testpki::IssueCredential(ca);
        leaf.subject = testpki::SimpleName({{"C", "DE"}, {"O", "Bench"}, {"CN", "Bench Signer"}});
        leaf.keyUsage = testpki::KeyUsage::Of(testpki::ku::kDigitalSignature);
        leaf.extKeyUsage = testpki::ExtKeyUsage{{"codeSigning"}};
        leaf.subjectKeyId = true;
        leaf.authorityKeyId = true;
        return testpki::IssueCert(leaf).Der();
    }();
    return der;
}

void BM_DorvexDecodeCert(benchmark::State &state) {
    const auto &der = LeafDer();
    for (auto _ : state) {
        DorvexX509Cert *cert = nullptr;
        uint32_t consumed = 0;
        if (DorvexX509DecodeCert(der.data(), static_cast<uint32_t>(der.size()), &cert, &consumed) !=
            0) {
            state.SkipWithError("decode failed");
            break;
        }
        benchmark::DoNotOptimize(cert);
        DorvexX509FreeCert(cert);
    }
}
BENCHMARK(BM_DorvexDecodeCert);

void BM_OpensslD2iX509(benchmark::State &state) {
    const auto &der = LeafDer();
    for (auto _ : state) {
        const unsigned char *p = der.data();
        X509 *x = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
        if (x == nullptr) {
            state.SkipWithError("d2i_X509 failed");
            break;
        }
        benchmark::DoNotOptimize(x);
        X509_free(x);
    }
}
BENCHMARK(BM_OpensslD2iX509);

// A self-signed 4096-bit root: the check every verification makes at least once.
struct RootFixture {
    testpki::Bytes der;
    DorvexX509Cert *cert = nullptr;
    X509 *x509 = nullptr;
    RootFixture() {
        testpki::CertSpec plan;
        plan.subjectKey = testpki::LoadTestKey("root-4096");
        der = testpki::IssueCert(plan).Der();
        uint32_t consumed = 0;
        DorvexX509DecodeCert(der.data(), static_cast<uint32_t>(der.size()), &cert, &consumed);
        const unsigned char *p = der.data();
        x509 = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
    }
};

RootFixture &Root() {
    static RootFixture root;
    return root;
}

void BM_DorvexPubKeyVerify(benchmark::State &state) {
    const DorvexX509Cert *c = Root().cert;
    for (auto _ : state) {
        uint32_t valid = 0;
        DorvexX509PubKeyVerify(c->tbsRaw.data, c->tbsRaw.len, c->signature.data, c->signature.len,
                               &c->certInfo.subjectPublicKeyInfo.subjectPublicKey,
                               &c->signatureAlgorithm, &valid);
        if (valid != 1) {
            state.SkipWithError("signature did not verify");
            break;
        }
    }
}
BENCHMARK(BM_DorvexPubKeyVerify);

// OpenSSL's own check of the same signature with the key already parsed.
void BM_OpensslX509Verify(benchmark::State &state) {
    X509 *x = Root().x509;
    EVP_PKEY *key = X509_get0_pubkey(x);
    for (auto _ : state) {
        if (X509_verify(x, key) != 1) {
            state.SkipWithError("X509_verify failed");
            break;
        }
    }
}
BENCHMARK(BM_OpensslX509Verify);

}  // namespace

BENCHMARK_MAIN();
