// pkg_sign manifest: the checksum file that verify_tool's CHECK_PKG_FILES
// checks, made for a package directory.
#ifndef TOOLS_PKG_SIGN_MANIFEST_H
#define TOOLS_PKG_SIGN_MANIFEST_H

#include <openssl/evp.h>

#include <cstdint>
#include <string>
#include <vector>

// PkgSignManifest: one "HEX  PATH" line per regular file below `dir`, the
// path relative to `dir` with '/' between names, lines in byte order of the
// paths, digests with `md`. The file `skip` (the checksum file being
// written, which need not exist yet) is left out. Throws std::runtime_error
// with the reason for whatever CHECK_PKG_FILES would refuse: a symbolic
// link or a file that is not regular below `dir`, a name with a control
// character, a name over 255 or a path over 4095 bytes, no file at all, a
// list over 2,000,000 bytes; and when `dir` cannot be read.
std::vector<uint8_t> PkgSignManifest(const std::string &dir, const std::string &skip,
                                     const EVP_MD *md);

#endif  // TOOLS_PKG_SIGN_MANIFEST_H
