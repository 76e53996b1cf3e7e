// pkg_sign: see pkg_sign.h. The command line and the table of commands; each
// command lives in a file of its own over the shared core (core.h).
#include "tools/pkg_sign/pkg_sign.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <span>
#include <string>
#include <string_view>

#include "tools/pkg_sign/core.h"

namespace pkg_sign {

namespace {

constexpr char kUsage[] =
    "Usage: pkg_sign sign --key KEY --cert CERT [--chain CA]... --in CHECKSUMS --out SIG\n"
    "                     [--pem] [--md sha256|sha384|sha512] [--tsq QUERY] [--pss]\n"
    "       pkg_sign add-timestamp --sig SIG --tsr REPLY --out SIGNED [--pem]\n"
    "       pkg_sign local-tsa --key KEY --cert CERT [--chain CA]... (--tsq QUERY | --sig SIG)\n"
    "                          --out REPLY [--time YYYYMMDDHHMMSSZ] [--md sha256|sha384|sha512]\n"
    "                          [--policy OID]\n"
    "       pkg_sign manifest --dir DIR --out CHECKSUMS [--md sha256|sha384|sha512]\n"
    "       pkg_sign --help\n"
    "\n"
    "sign           makes the detached CMS signature of a checksum file (RSA PKCS #1\n"
    "               v1.5, RSASSA-PSS with --pss, or ECDSA with a P-256 or P-384 key;\n"
    "               signed attributes, the signer and at most one CA certificate\n"
    "               embedded, the signer named by issuer and serial number); with --tsq\n"
    "               it also writes the RFC 3161 query for the signature value, to send\n"
    "               to a TSA.\n"
    "add-timestamp  checks the TSA's reply (granted, stamping exactly this signature\n"
    "               value) and embeds its token in the signer; the result is the\n"
    "               signature to ship.\n"
    "local-tsa      answers a query (or stamps a signature directly) with a local TSA\n"
    "               key, for test setups.\n"
    "manifest       writes the checksum file of every regular file below DIR (sha256sum\n"
    "               lines, paths relative to DIR, sorted), for verify_tool's\n"
    "               CHECK_PKG_FILES; refuses links, special files and names it would\n"
    "               refuse. CHECKSUMS itself is left out when it lies below DIR.\n"
    "\n"
    "Keys and certificates are read as PEM or DER; a --chain file may hold several\n"
    "certificates. --pem writes \"-----BEGIN CMS-----\" armour instead of DER.\n"
    "\n"
    "Exit status: 0 written; 1 refused or failed (nothing written, the reason on\n"
    "standard error); 2 bad command line.\n";

const Command *const kCommands[] = {
    &kSignCommand,
    &kAddTimestampCommand,
    &kLocalTsaCommand,
    &kManifestCommand,
};

int Run(std::span<char *const> args) {
    if (std::any_of(args.begin(), args.end(),
                    [](const char *a) { return std::string_view(a) == "--help"; })) {
        std::fputs(kUsage, stdout);
        return PKG_SIGN_EXIT_OK;
    }
    if (args.empty()) {
        throw UsageError("no command given");
    }
    const std::string_view name = args.front();
    for (const Command *command : kCommands) {
        if (command->name == name) {
            return command->run(Options(args.subspan(1), command->options));
        }
    }
    throw UsageError("unknown command '" + std::string(name) + "'");
}

}  // namespace

}  // namespace pkg_sign

int PkgSignMain(int argc, char *argv[]) {
    try {
        const std::span<char *const> args(argv, argc > 0 ? static_cast<size_t>(argc) : 0);
        return pkg_sign::Run(args.empty() ? args : args.subspan(1));
    } catch (const pkg_sign::UsageError &e) {
        std::fprintf(stderr, "pkg_sign: %s\nTry 'pkg_sign --help'.\n", e.what());
        return PKG_SIGN_EXIT_USAGE;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "pkg_sign: %s\n", e.what());
        return PKG_SIGN_EXIT_REFUSED;
    } catch (...) {
        std::fprintf(stderr, "pkg_sign: unexpected failure\n");
        return PKG_SIGN_EXIT_REFUSED;
    }
}
