// Hostile input: a real package's bytes changed one at a time, and the
// fuzzer's finds under tests/hardening/repro. Nothing may crash.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <vector>

#include <gtest/gtest.h>

#include "cms/dorvex.h"
#include "tests/support/cms_fixture.h"
#include "tools/testpki/testpki.h"

namespace {

namespace fs = std::filesystem;
namespace tp = testpki;
using tp::Bytes;
using vt_test::Pki;

// Begin, Update and Final under the demo root: true when all report a match.
bool Verifies(const Bytes &signature, const Bytes &content, const Bytes &crlFile) {
    auto ctx = vt_test::NewCtx(&Pki().root.cert.Der());
    const auto size = [](const Bytes &b) { return static_cast<uint32_t>(b.size()); };
    // A refused CRL file leaves the signature without CRLs, which fails on its own.
    (void)DorvexVerifyAddCrl(ctx.get(), crlFile.data(), size(crlFile));
    uint32_t ret = DorvexVerifyDetachSignatureBegin(ctx.get(), signature.data(), size(signature));
    if (ret == DORVEX_OK) {
        ret = DorvexVerifyDetachSignatureUpdate(ctx.get(), content.data(), size(content));
    }
    uint32_t result = 0;
    const uint32_t finalRet = DorvexVerifyDetachSignatureFinal(ctx.get(), &result);
    EXPECT_TRUE(result == 0 || result == 1);
    return ret == DORVEX_OK && finalRet == DORVEX_OK && result == 1;
}

// The element at `path` of child indices below the outermost one.
Bytes At(Bytes der, std::initializer_list<int> path) {
    for (int i : path) {
        der = tp::der::Children(der).at(static_cast<size_t>(i));
    }
    return der;
}

// Offsets of `element` in `in`, its tag left out (some tags are not examined).
std::pair<size_t, size_t> Inside(const Bytes &in, const Bytes &element) {
    const auto at = std::search(in.begin(), in.end(), element.begin(), element.end());
    EXPECT_NE(at, in.end());
    const auto begin = static_cast<size_t>(at - in.begin());
    return {begin + 1, begin + element.size()};
}

// A change inside what a signature covers, or inside a serial that selects a
// certificate, must fail; others may pass (the CA certificate comes twice,
// some tags and parameters are not examined) but must end in a result code.
TEST(ByteFlip, SignedBytesNeverChangeUnnoticed) {
    const std::string text = tp::DemoChecksums();
    const Bytes content(text.begin(), text.end());
    const Bytes sig = tp::MakePackage(Pki(), tp::Fault::None, content).signature;
    const Bytes crls = tp::ConcatDer({Pki().rootCrl, Pki().ca.cert.Der(), Pki().caCrl});
    ASSERT_TRUE(Verifies(sig, content, crls));

    const Bytes signer = At(sig, {1, 0, 4, 0});
    const Bytes token = At(signer, {6, 0, 1, 0});
    const Bytes tsSigner = At(token, {1, 0, 4, 0});
    std::vector<std::pair<size_t, size_t>> sigCovered, crlCovered;
    for (const Bytes &e :
         {At(sig, {1, 0, 3, 0, 0}), At(signer, {3}), At(signer, {5}), At(token, {1, 0, 2, 1, 0}),
          At(token, {1, 0, 3, 0, 0}), At(tsSigner, {3}), At(tsSigner, {5})}) {
        sigCovered.push_back(Inside(sig, e));
    }
    // The serials at the end of the signers' identifiers.
    for (const Bytes &sid : {At(signer, {1}), At(tsSigner, {1})}) {
        const size_t end = Inside(sig, sid).second;
        sigCovered.push_back({end - At(sid, {1}).size() + 1, end});
    }
    for (const Bytes *crl : {&Pki().rootCrl, &Pki().caCrl}) {
        crlCovered.push_back(Inside(crls, At(*crl, {0})));
    }
    const struct {
        const char *name;
        const Bytes &original;
        const std::vector<std::pair<size_t, size_t>> &covered;
        size_t step;
        std::function<uint8_t(uint8_t)> change;
    } sweeps[] = {
        {"signature inverted", sig, sigCovered, 1, [](uint8_t b) { return uint8_t(b ^ 0xFF); }},
        {"CRL file inverted", crls, crlCovered, 7, [](uint8_t b) { return uint8_t(b ^ 0xFF); }},
    };
    // The library prints a line for every refused variant.
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    close(null);
    for (const auto &s : sweeps) {
        Bytes variant = s.original;
        for (size_t i = 0; i < variant.size(); i += s.step) {
            variant[i] = s.change(s.original[i]);
            vt_test::ClearSyslog();
            const bool isSig = &s.original == &sig;
            if (Verifies(isSig ? variant : sig, content, isSig ? crls : variant)) {
                for (const auto &[begin, end] : s.covered) {
                    EXPECT_FALSE(i >= begin && i < end) << s.name << " at offset " << i;
                }
            }
            variant[i] = s.original[i];
        }
    }
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
}

Bytes Read(const fs::path &file) {
    std::ifstream in(file, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Every fuzzer find through the certificate intake, the CRL report and the
// whole verification (its CRL file and signature reach every decoder).
TEST(Repro, EveryFileEndsWithAResultCode) {
    size_t files = 0;
    for (const auto &entry : fs::directory_iterator(VT_REPRO_DIR)) {
        SCOPED_TRACE(entry.path().filename().string());
        ++files;
        const Bytes in = Read(entry.path());
        const auto size = static_cast<uint32_t>(in.size());
        auto ctx = vt_test::NewCtx(&Pki().root.cert.Der());
        (void)DorvexVerifyAddCert(ctx.get(), in.data(), size);
        DorvexCrlInfoList *list = nullptr;
        if (DorvexDecodeCrl(ctx.get(), in.data(), size, &list) == DORVEX_OK) {
            EXPECT_EQ(DorvexCrlFree(ctx.get(), list), DORVEX_OK);
        }
        // None of these is a valid signature of anything.
        EXPECT_FALSE(Verifies(in, in, in));
    }
    EXPECT_EQ(files, 4u);
}

}  // namespace
