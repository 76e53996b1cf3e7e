// testpki: command-line front of the test-PKI generator for scripts.
#include "tools/testpki/testpki.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr const char kUsage[] =
    "usage: testpki demo-pki [--keys DIR] OUTDIR\n"
    "       testpki --help\n"
    "\n"
    "demo-pki  writes a small valid hierarchy made from the committed test keys:\n"
    "          root (RSA 4096, self-signed) -> ca (intermediate) -> leaf (code\n"
    "          signing) and tsa (time stamping), a CRL from root and one from ca.\n"
    "          Each as NAME.der and NAME.pem (root, ca, leaf, tsa, root-crl,\n"
    "          ca-crl), plus crls.der and crls.pem holding both CRLs.\n"
    "--keys    folder of the test keys (default: the source tree's tests/keys).\n"
    "\n"
    "Test material only: the keys are public.\n";

int DemoPki(int argc, char **argv) {
    std::filesystem::path keyDir = testpki::DefaultKeyDir();
    std::filesystem::path outDir;
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--keys") == 0 && i + 1 < argc) {
            keyDir = argv[++i];
        } else if (argv[i][0] != '-' && outDir.empty()) {
            outDir = argv[i];
        } else {
            std::fputs(kUsage, stderr);
            return 2;
        }
    }
    if (outDir.empty()) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::vector<std::string> files = testpki::WriteDemoPki(testpki::MakeDemoPki(keyDir), outDir);
    for (const std::string &file : files) {
        std::printf("%s\n", (outDir / file).c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc < 2 || std::strcmp(argv[1], "demo-pki") != 0) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    try {
        return DemoPki(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "testpki: %s\n", e.what());
        return 1;
    }
}
