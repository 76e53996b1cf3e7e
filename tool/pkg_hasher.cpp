// The files of a checked list: each one opened below the package directory
// without following a symbolic link, and streamed through its digest in
// constant memory; several files at a time on a small pool of threads.
//
// A worker takes the next unclaimed entry and writes only that entry's
// verdict, so the threads share nothing but the claim counter; the caller
// reads the verdicts after every worker has been joined. Nothing here logs:
// the caller reports the problems in list order.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <system_error>
#include <thread>

#include "cms/adapt/provider.h"
#include "cms/base/dorvex_errno.h"
#include "tool/pkg_files.h"

namespace {

// Bytes read per call: large enough that the system calls cost little
// beside the digest, small enough to stay in the cache.
constexpr size_t kReadPiece = 256 * 1024;

using drx::MdCtxPtr;

// What a failed openat of `name` below `at` means for a listed path.
PkgProblem OpenProblem(int err, int at, const char *name, bool directory) {
    struct stat st;
    switch (err) {
        case ELOOP:
            return {DORVEX_ERR_PKG_SYMLINK, "symbolic link in path", 0};
        case ENOENT:
            return {DORVEX_ERR_PKG_MISSING, "no such file", 0};
        case ENOTDIR:
            // O_DIRECTORY reports a link to a directory as no directory:
            // look at what is there, only to name the refusal.
            if (fstatat(at, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)) {
                return {DORVEX_ERR_PKG_SYMLINK, "symbolic link in path", 0};
            }
            return {DORVEX_ERR_PKG_MISSING, "not a directory on the way", 0};
        default:
            return {DORVEX_ERR_PKG_READ, directory ? "cannot open directory" : "cannot open", err};
    }
}

// The listed file, opened relative to `dirFd` one component at a time.
// O_NOFOLLOW refuses a link as the last component of each step, so no link
// is followed anywhere on the way, whether it points out or in. The file is
// opened without blocking and without becoming a controlling terminal, and
// must then be a regular file.
PkgProblem OpenListed(int dirFd, const PkgEntry &entry, PkgFd *file) {
    PkgFd dir;
    int at = dirFd;
    for (size_t i = 0; i + 1 < entry.names.size(); ++i) {
        const char *name = entry.names[i].c_str();
        const int fd = openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            return OpenProblem(errno, at, name, true);
        }
        dir.Reset(fd);
        at = fd;
    }
    const char *name = entry.names.back().c_str();
    const int fd = openat(at, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return OpenProblem(errno, at, name, false);
    }
    file->Reset(fd);
    struct stat st;
    if (fstat(fd, &st) != 0) {
        return {DORVEX_ERR_PKG_READ, "cannot stat", errno};
    }
    if (!S_ISREG(st.st_mode)) {
        return {DORVEX_ERR_PKG_NOT_REGULAR, "not a regular file", 0};
    }
    return {};
}

// Streams the open file through the entry's digest and compares it.
PkgProblem HashOpen(int fd, const PkgEntry &entry, uint8_t *piece) {
    DorvexMdCtx *created = nullptr;
    if (DorvexMdCreateCtx(&created) != DORVEX_OK) {
        return {DORVEX_ERR_MALLOC, "no memory for a digest", 0};
    }
    MdCtxPtr md(created);
    if (DorvexMdInit(md.get(), entry.hashAlg) != DORVEX_OK) {
        return {DORVEX_FAIL, "digest cannot start", 0};
    }
    (void)posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    for (;;) {
        const ssize_t got = read(fd, piece, kReadPiece);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return {DORVEX_ERR_PKG_READ, "read error", errno};
        }
        if (got == 0) {
            break;
        }
        if (DorvexMdUpdate(md.get(), piece, static_cast<uint32_t>(got)) != DORVEX_OK) {
            return {DORVEX_FAIL, "digest failed", 0};
        }
    }
    uint8_t digest[kPkgDigestMax] = {};
    uint32_t digestLen = 0;
    uint32_t capacity = sizeof digest;
    if (DorvexMdFinal(md.get(), digest, &digestLen, &capacity) != DORVEX_OK) {
        return {DORVEX_FAIL, "digest failed", 0};
    }
    if (digestLen != entry.digestLen || std::memcmp(digest, entry.digest, digestLen) != 0) {
        return {DORVEX_ERR_PKG_DIGEST, "digest does not match", 0};
    }
    return {};
}

PkgProblem CheckOne(int dirFd, const PkgEntry &entry, uint8_t *piece) {
    if (entry.refused.code != 0) {
        return entry.refused;
    }
    PkgFd file;
    const PkgProblem opened = OpenListed(dirFd, entry, &file);
    if (opened.code != 0) {
        return opened;
    }
    return HashOpen(file.Get(), entry, piece);
}

// The shared state of one run: what to check and the next entry to claim.
struct Run {
    int dirFd;
    const std::vector<PkgEntry> *entries;
    std::vector<PkgProblem> *verdicts;
    std::atomic<size_t> next{0};
};

void Work(Run *run, uint8_t *piece) {
    const size_t count = run->entries->size();
    for (size_t i = run->next.fetch_add(1); i < count; i = run->next.fetch_add(1)) {
        (*run->verdicts)[i] = CheckOne(run->dirFd, (*run->entries)[i], piece);
    }
}

}  // namespace

void PkgFd::Reset(int fd) {
    if (fd_ >= 0) {
        (void)close(fd_);
    }
    fd_ = fd;
}

unsigned PkgHashThreads(size_t files) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    long cores = sched_getaffinity(0, sizeof cpus, &cpus) == 0 ? CPU_COUNT(&cpus) : 1;
    if (cores < 1) {
        cores = 1;
    }
    size_t threads = static_cast<size_t>(cores) < kPkgMaxThreads ? cores : kPkgMaxThreads;
    if (files < threads) {
        threads = files;
    }
    return threads < 1 ? 1 : static_cast<unsigned>(threads);
}

void PkgHashFiles(int dirFd, const std::vector<PkgEntry> &entries, unsigned threads,
                  std::vector<PkgProblem> *verdicts) {
    verdicts->assign(entries.size(), PkgProblem{});
    if (threads < 1) {
        threads = 1;
    }
    // Every buffer is taken before a thread starts: allocation is the only
    // thing that may throw, and the workers then run without it.
    std::vector<std::unique_ptr<uint8_t[]>> pieces;
    for (unsigned i = 0; i < threads; ++i) {
        pieces.push_back(std::make_unique<uint8_t[]>(kReadPiece));
    }
    Run run{dirFd, &entries, verdicts};
    {
        // The caller's thread works too; a helper that cannot be started
        // leaves its share to the others. jthread joins at the block's end.
        std::vector<std::jthread> helpers;
        helpers.reserve(threads - 1);
        for (unsigned i = 1; i < threads; ++i) {
            try {
                helpers.emplace_back(Work, &run, pieces[i].get());
            } catch (const std::system_error &) {
                break;
            }
        }
        Work(&run, pieces[0].get());
    }
}
