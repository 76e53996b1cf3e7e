// testpki: command-line front of the test-PKI generator for scripts.
#include "tools/testpki/testpki.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr const char kUsage[] =
    "usage: testpki demo-pki [--keys DIR] OUTDIR\n"
    "       testpki demo-package [--keys DIR] OUTDIR\n"
    "       testpki demo-root [--keys DIR] OUT.der\n"
    "       testpki sign-demo [--keys DIR] CONTENT OUTDIR\n"
    "       testpki chain-package [--keys DIR] DEPTH OUTDIR\n"
    "       testpki ecdsa-package [--keys DIR] OUTDIR\n"
    "       testpki path-pool [--keys DIR] OUTDIR\n"
    "       testpki --help\n"
    "\n"
    "demo-pki      writes a small valid hierarchy made from the committed test keys:\n"
    "              root (the demo root) -> ca (intermediate) -> leaf (code signing)\n"
    "              and tsa (time stamping), a CRL from root and one from ca.\n"
    "              Each as NAME.der and NAME.pem (root, ca, leaf, tsa, root-crl,\n"
    "              ca-crl), plus crls.der and crls.pem holding both CRLs.\n"
    "demo-package  the same, plus a signed package: the payload kernel.img,\n"
    "              rootfs.img and upgrade.sh, sha256sums listing them, its detached\n"
    "              signature with a timestamp token sha256sums.p7s (DER) and\n"
    "              sha256sums.p7s.pem, sha256sums.tampered, crls+ca.pem (both\n"
    "              CRLs and the CA certificate), and faults/NAME/ with a spoiled\n"
    "              sha256sums and sha256sums.p7s for each kind of fault.\n"
    "demo-root     writes the tool's built-in root certificate (1363 bytes of\n"
    "              DER, the same bytes on every run).\n"
    "sign-demo     signs the file CONTENT (at most 2 GiB - 1 bytes) as demo-package\n"
    "              signs sha256sums: content.p7s (DER), crls+ca.pem, and for the\n"
    "              same checks with the openssl command line root.pem, ca.pem,\n"
    "              tsa.pem, the bare timestamp token token.der and the signer's\n"
    "              signature value sigvalue.bin, which the token's imprint covers.\n"
    "chain-package a valid package whose signer and TSA sit DEPTH (1..12)\n"
    "              certificates below the demo root: root -> DEPTH-1 CAs ->\n"
    "              leaf and tsa; sha256sums, sha256sums.p7s and crls+ca.pem\n"
    "              (a CRL of the root and of every CA, and every CA certificate).\n"
    "              DEPTH 2 has the shape of demo-package.\n"
    "ecdsa-package chain-package 2 with EC keys below the demo root (CA and\n"
    "              tsa on P-384, leaf on P-256): all ECDSA but the root's own.\n"
    "path-pool     writes the certificates and CRLs of the differential path\n"
    "              target as NAME.der (cert-NN-*, crl-SV-*; S the CRL's signer).\n"
    "--keys        folder of the test keys (default: the source tree's tests/keys).\n"
    "\n"
    "Test material only: the keys are public.\n";

int Usage() {
    std::fputs(kUsage, stderr);
    return 2;
}

int Run(const std::string &command, const std::filesystem::path &keyDir,
        const std::vector<std::filesystem::path> &args) {
    const std::filesystem::path &out = args.back();
    if (command == "demo-root") {
        testpki::WriteFile(out, testpki::MakeDemoRoot(keyDir).cert.Der());
        std::printf("%s\n", out.c_str());
        return 0;
    }
    if (command == "chain-package") {
        const std::string text = args.front().string();
        int depth = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), depth);
        if (error != std::errc() || end != text.data() + text.size()) {
            throw testpki::Error("DEPTH must be a number, not " + text);
        }
        for (const std::string &file : testpki::WriteChainPackage(depth, out, keyDir)) {
            std::printf("%s\n", (out / file).c_str());
        }
        return 0;
    }
    if (command == "ecdsa-package") {
        for (const std::string &file : testpki::WriteChainPackage(2, out, keyDir, true)) {
            std::printf("%s\n", (out / file).c_str());
        }
        return 0;
    }
    if (command == "path-pool") {
        std::filesystem::create_directories(out);
        for (const testpki::PoolItem &item : testpki::MakePathPool(keyDir)) {
            testpki::WriteFile(out / (item.name + ".der"), item.der);
            std::printf("%s\n", (out / (item.name + ".der")).c_str());
        }
        return 0;
    }
    testpki::DemoPki pki = testpki::MakeDemoPki(keyDir);
    std::vector<std::string> files;
    if (command == "sign-demo") {
        files = testpki::WriteDemoSignature(pki, args.front(), out);
    } else if (command == "demo-pki") {
        files = testpki::WriteDemoPki(pki, out);
    } else {
        files = testpki::WriteDemoPackage(pki, out);
    }
    for (const std::string &file : files) {
        std::printf("%s\n", (out / file).c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc < 2) {
        return Usage();
    }
    const std::string command = argv[1];
    size_t wanted = 1;
    if (command == "sign-demo" || command == "chain-package") {
        wanted = 2;
    } else if (command != "demo-pki" && command != "demo-package" && command != "demo-root" &&
               command != "path-pool" && command != "ecdsa-package") {
        return Usage();
    }
    std::filesystem::path keyDir = testpki::DefaultKeyDir();
    std::vector<std::filesystem::path> args;
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--keys") == 0 && i + 1 < argc) {
            keyDir = argv[++i];
        } else if (argv[i][0] != '-' && args.size() < wanted) {
            args.emplace_back(argv[i]);
        } else {
            return Usage();
        }
    }
    if (args.size() != wanted) {
        return Usage();
    }
    try {
        return Run(command, keyDir, args);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "testpki: %s\n", e.what());
        return 1;
    }
}
