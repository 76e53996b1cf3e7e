// testpki: command-line front of the test-PKI generator for scripts.
#include "tools/testpki/internal.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace {

constexpr const char kUsage[] =
    "usage: testpki COMMAND ARGUMENTS (keys from the source tree's tests/keys)\n"
    "  demo-pki OUTDIR            the demo root -> CA -> leaf and TSA, and two CRLs\n"
    "  demo-package OUTDIR        the same with a signed package and its faults\n"
    "  demo-root OUT.der          the tool's built-in root certificate\n"
    "  sign-demo CONTENT OUTDIR   signs CONTENT as demo-package signs sha256sums\n"
    "  chain-package DEPTH OUTDIR a package DEPTH (2..12) certificates below the root\n"
    "  ecdsa-package OUTDIR       chain-package 2 with EC keys below the root\n"
    "  path-pool OUTDIR           certificates and CRLs of the path fuzz target\n";

// Each command and how many arguments it takes; the last is the output.
constexpr std::pair<std::string_view, size_t> kCommands[] = {
    {"demo-pki", 1},      {"demo-package", 1},  {"demo-root", 1}, {"sign-demo", 2},
    {"chain-package", 2}, {"ecdsa-package", 1}, {"path-pool", 1}};

std::vector<std::string> Run(const std::string &command,
                             const std::vector<std::filesystem::path> &args) {
    const std::filesystem::path &out = args.back();
    const std::filesystem::path keyDir = testpki::DefaultKeyDir();
    if (command == "demo-root") {
        testpki::WriteFile(out, testpki::MakeDemoRoot(keyDir).cert.Der());
        return {""};  // OUT itself
    }
    if (command == "chain-package") {
        const std::string text = args.front().string();
        int depth = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), depth);
        if (error != std::errc() || end != text.data() + text.size()) {
            throw testpki::Error("DEPTH must be a number, not " + text);
        }
        return testpki::WriteChainPackage(depth, out, keyDir, false);
    }
    if (command == "ecdsa-package") {
        return testpki::WriteChainPackage(2, out, keyDir, true);
    }
    if (command == "path-pool") {
        return testpki::WritePathPool(keyDir, out);
    }
    const testpki::DemoPki pki = testpki::MakeDemoPki(keyDir);
    if (command == "sign-demo") {
        return testpki::WriteDemoSignature(pki, args.front(), out);
    }
    return command == "demo-pki" ? testpki::WriteDemoPki(pki, out)
                                 : testpki::WriteDemoPackage(pki, out);
}

}  // namespace

int main(int argc, char **argv) {
    const std::string command = argc >= 2 ? argv[1] : "";
    if (command == "--help" || command == "-h") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    const auto *known = std::find_if(std::begin(kCommands), std::end(kCommands),
                                     [&](const auto &c) { return c.first == command; });
    const std::vector<std::filesystem::path> args(argv + std::min(argc, 2), argv + argc);
    const bool option = std::any_of(args.begin(), args.end(),
                                    [](const auto &a) { return a.string().starts_with('-'); });
    if (known == std::end(kCommands) || args.size() != known->second || option) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    try {
        // Every file written, by its path.
        for (const std::string &file : Run(command, args)) {
            std::printf("%s\n", (file.empty() ? args.back() : args.back() / file).c_str());
        }
        return 0;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "testpki: %s\n", e.what());
        return 1;
    }
}
