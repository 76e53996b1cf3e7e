// pkg_sign manifest: see manifest.h. Refuses rather than leaves out what the
// verifier would refuse, so that a package never ships with a file its list
// does not cover by surprise.
#include "tools/pkg_sign/manifest.h"

#include "tools/pkg_sign/core.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>

#include "tool/pkg_files.h"

namespace {

namespace fs = std::filesystem;

// verify_tool's limits: the checksum file, a path, a name.
constexpr size_t kMaxListSize = kPkgListMaxSize;
constexpr size_t kMaxPath = kPkgPathMax;
constexpr size_t kMaxName = kPkgNameMax;

[[noreturn]] void Refuse(const std::string &message) {
    throw std::runtime_error(message);
}

struct FdCloser {
    int fd;
    ~FdCloser() { (void)close(fd); }
};

struct MdCtxFree {
    void operator()(EVP_MD_CTX *ctx) const { EVP_MD_CTX_free(ctx); }
};

std::string Hex(const unsigned char *data, unsigned int len) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < len; ++i) {
        out += kDigits[data[i] >> 4];
        out += kDigits[data[i] & 15];
    }
    return out;
}

// The file's digest in hex; opened without following a link, as the
// verifier opens it.
std::string HashFile(const fs::path &file, const EVP_MD *md) {
    const int fd = open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        Refuse("cannot open " + file.string() + ": " + std::strerror(errno));
    }
    const FdCloser closer{fd};
    std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
    if (ctx == nullptr || EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1) {
        Refuse("cannot start a digest");
    }
    std::vector<unsigned char> piece(64 * 1024);
    for (;;) {
        const ssize_t got = read(fd, piece.data(), piece.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            Refuse("cannot read " + file.string() + ": " + std::strerror(errno));
        }
        if (got == 0) {
            break;
        }
        if (EVP_DigestUpdate(ctx.get(), piece.data(), static_cast<size_t>(got)) != 1) {
            Refuse("digest failed");
        }
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest, &len) != 1) {
        Refuse("digest failed");
    }
    return Hex(digest, len);
}

// The listed form of a path below the directory, or a refusal.
std::string ListedPath(const fs::path &relative, const fs::path &full) {
    std::string listed;
    for (const fs::path &part : relative) {
        const std::string name = part.string();
        if (name.size() > kMaxName) {
            Refuse(full.string() + ": a name over " + std::to_string(kMaxName) +
                   " bytes, which verify_tool refuses");
        }
        listed += (listed.empty() ? "" : "/") + name;
    }
    if (std::any_of(listed.begin(), listed.end(), [](char c) {
            const auto u = static_cast<unsigned char>(c);
            return u < 0x20 || u == 0x7f;
        })) {
        Refuse(full.string() + ": a control character in the name, which verify_tool refuses");
    }
    if (listed.size() > kMaxPath) {
        Refuse(full.string() + ": a path over " + std::to_string(kMaxPath) +
               " bytes, which verify_tool refuses");
    }
    return listed;
}

}  // namespace

std::vector<uint8_t> PkgSignManifest(const std::string &dir, const std::string &skip,
                                     const EVP_MD *md) {
    const fs::path root(dir);
    struct stat skipped {};
    const bool haveSkip = stat(skip.c_str(), &skipped) == 0;
    std::error_code ec;
    fs::recursive_directory_iterator it(root, ec);
    if (ec) {
        Refuse("cannot read " + dir + ": " + ec.message());
    }
    std::vector<std::pair<std::string, std::string>> files;  // listed path, digest
    for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
        const fs::path &full = it->path();
        struct stat st;
        if (lstat(full.c_str(), &st) != 0) {
            Refuse("cannot stat " + full.string() + ": " + std::strerror(errno));
        }
        if (S_ISDIR(st.st_mode)) {
            continue;
        }
        if (S_ISLNK(st.st_mode)) {
            Refuse(full.string() + " is a symbolic link; verify_tool follows no link");
        }
        if (!S_ISREG(st.st_mode)) {
            Refuse(full.string() + " is not a regular file; verify_tool checks regular files only");
        }
        if (haveSkip && st.st_dev == skipped.st_dev && st.st_ino == skipped.st_ino) {
            continue;
        }
        files.emplace_back(ListedPath(full.lexically_relative(root), full), HashFile(full, md));
    }
    if (ec) {
        Refuse("cannot read below " + dir + ": " + ec.message());
    }
    if (files.empty()) {
        Refuse(dir + " holds no file to list; verify_tool refuses an empty list");
    }
    std::sort(files.begin(), files.end());
    std::string text;
    for (const auto &[path, digest] : files) {
        text += digest + "  " + path + "\n";
    }
    if (text.size() > kMaxListSize) {
        Refuse("the list would have " + std::to_string(text.size()) +
               " bytes; verify_tool reads at most " + std::to_string(kMaxListSize));
    }
    return std::vector<uint8_t>(text.begin(), text.end());
}

namespace pkg_sign {

namespace {

constexpr OptionDef kManifestOptions[] = {
    {"dir", true, false},
    {"out", true, false},
    {"md", true, false},
};

int Manifest(const Options &opts) {
    const std::string out = opts.Required("out");
    const EVP_MD *md = DigestByName(opts.Get("md", "sha256"));
    WriteOutputs({{out, PkgSignManifest(opts.Required("dir"), out, md)}});
    return PKG_SIGN_EXIT_OK;
}

}  // namespace

const Command kManifestCommand = {"manifest", kManifestOptions, Manifest};

}  // namespace pkg_sign
