// Handler of "CHECK_PKG_FILES": is the checksum file authentic, and does
// every file it lists hold the listed digest?
//
// The checksum file is read once into memory; its signature is verified over
// those bytes and the same bytes are parsed, so a file swapped on disk after
// the check is never what gets parsed. Its directory is opened first and the
// file read relative to it: the listed paths are resolved in the directory
// the list came from, whatever is renamed in the meantime. The signature
// check is CHECK_PKG_INTEGRITY's: the built-in root, the CRL file, then the
// detached verification in Begin/Update/Final steps.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "cms/dorvex.h"
#include "tool/pkg_files.h"
#include "tool/verify_tool.h"

void (*g_pkgFilesListVerified)(void) = nullptr;

namespace {

// Plain failure of the check, returned as a result code (exit status 255).
constexpr uint32_t kCheckFailed = 0xFFFFFFFFu;
// Problem lines logged at most; one more line counts the rest.
constexpr uint32_t kMaxProblemLines = 20;

using Bytes = std::vector<uint8_t>;

// ReadRegular: the whole file `name` (relative to `atFd`) into *out, read
// once. Opened without blocking, so that a FIFO or a device named instead
// cannot hang the check, and refused unless it is a regular file of at most
// `limit` bytes (checked again while reading: the file may grow).
uint32_t ReadRegular(int atFd, const char *name, uint32_t limit, Bytes *out) {
    if (name[0] == '\0') {
        TOOL_LOG(DBG_LEVEL_ERR, "Empty file path.");
        return DORVEX_ERR_PARAM;
    }
    PkgFd file(openat(atFd, name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file.Get() < 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Cannot open file %s: %s.", name, strerror(errno));
        return DORVEX_ERR_FILE_OPEN;
    }
    struct stat st;
    if (fstat(file.Get(), &st) != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Cannot stat file %s: %s.", name, strerror(errno));
        return DORVEX_ERR_FILE_READ;
    }
    if (!S_ISREG(st.st_mode)) {
        TOOL_LOG(DBG_LEVEL_ERR, "File %s is not a regular file.", name);
        return DORVEX_ERR_FILE_TYPE;
    }
    const auto tooLarge = [&] {
        TOOL_LOG(DBG_LEVEL_ERR, "File %s is larger than %u bytes.", name, limit);
        return DORVEX_ERR_FILE_TOO_LARGE;
    };
    if (static_cast<uint64_t>(st.st_size) > limit) {
        return tooLarge();
    }
    out->assign(static_cast<size_t>(st.st_size) + 1, 0);
    size_t got = 0;
    for (;;) {
        if (got == out->size()) {
            if (got > limit) {
                return tooLarge();
            }
            out->resize(std::min<size_t>(got * 2, size_t{limit} + 1));
        }
        const ssize_t n = read(file.Get(), out->data() + got, out->size() - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            TOOL_LOG(DBG_LEVEL_ERR, "Cannot read file %s: %s.", name, strerror(errno));
            return DORVEX_ERR_FILE_READ;
        }
        if (n == 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    out->resize(got);
    return 0;
}

// The verify context and the root block, released on every way out.
struct Verifier {
    DorvexVrfCtx *context = nullptr;
    uint8_t *root = nullptr;
    ~Verifier() { (void)VerifyProcessPostHandle(0, context, root); }
};

// VerifyList: CHECK_PKG_INTEGRITY's verdict on the bytes of a checksum file:
// 0 when the signature covers them, kCheckFailed when it does not, else the
// failing step's code.
uint32_t VerifyList(const char *cmsPath, const Bytes &list, const char *crlPath) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    Verifier v;
    uint32_t ret = DorvexVerifyCreateCtx(&v.context, &params);
    if (ret != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Create verify context failed.");
        return ret;
    }
    uint32_t rootLength = 0;
    if ((ret = GenerateRootCert(&v.root, &rootLength)) != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Combine root certificate failed.");
        return ret;
    }
    if ((ret = DorvexVerifyAddCert(v.context, v.root, rootLength)) != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Add root certificate failed.");
        return ret;
    }
    if ((ret = DorvexVerifyAddCrlFile(v.context, crlPath)) != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Add CRL file %s failed.", crlPath);
        return ret;
    }
    Bytes signature;
    if ((ret = ReadRegular(AT_FDCWD, cmsPath, DORVEX_MAX_FILE_SIZE, &signature)) == 0 &&
        signature.empty()) {
        TOOL_LOG(DBG_LEVEL_ERR, "File %s is empty.", cmsPath);
        ret = DORVEX_ERR_FILE_EMPTY;
    }
    if (ret == 0) {
        ret = DorvexVerifyDetachSignatureBegin(v.context, signature.data(),
                                               static_cast<uint32_t>(signature.size()));
    }
    // An empty list is hashed as nothing; Update refuses a zero length.
    if (ret == 0 && !list.empty()) {
        ret = DorvexVerifyDetachSignatureUpdate(v.context, list.data(),
                                                static_cast<uint32_t>(list.size()));
    }
    uint32_t matched = 0;
    if (ret == 0) {
        ret = DorvexVerifyDetachSignatureFinal(v.context, &matched);
    }
    if (ret != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Verify signature error, code %x.", ret);
        return ret;
    }
    if (matched != 1) {
        TOOL_LOG(DBG_LEVEL_ERR, "Verify signature not match.");
        return kCheckFailed;
    }
    TOOL_LOG(DBG_LEVEL_INFO, "CheckSum file is valid.");
    return 0;
}

// Logs the problems in list order, at most kMaxProblemLines of them, and
// returns the first one's code (0 when there is none).
uint32_t ReportProblems(const std::vector<PkgEntry> &entries,
                        const std::vector<PkgProblem> &verdicts) {
    uint32_t first = 0;
    uint32_t count = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
        const PkgProblem &p = verdicts[i];
        if (p.code == 0) {
            continue;
        }
        first = first == 0 ? p.code : first;
        if (++count > kMaxProblemLines) {
            continue;
        }
        // The path last: a long one is what the record's length limit cuts.
        if (p.sysErr != 0) {
            TOOL_LOG(DBG_LEVEL_ERR, "Line %u: %s (%s): %s", entries[i].line, p.what,
                     strerror(p.sysErr), entries[i].path.c_str());
        } else {
            TOOL_LOG(DBG_LEVEL_ERR, "Line %u: %s: %s", entries[i].line, p.what,
                     entries[i].path.c_str());
        }
    }
    if (count > kMaxProblemLines) {
        TOOL_LOG(DBG_LEVEL_ERR, "%u more problems not logged.", count - kMaxProblemLines);
    }
    return first;
}

uint32_t CheckPkgFiles(const char *cmsPath, const char *checksumPath, const char *crlPath) {
    // Listed paths are relative to the directory the -e path names.
    const std::string path(checksumPath);
    const size_t slash = path.rfind('/');
    const std::string dirName = slash == std::string::npos ? "."
                                : slash == 0               ? "/"
                                                           : path.substr(0, slash);
    const std::string baseName = slash == std::string::npos ? path : path.substr(slash + 1);
    if (path.empty()) {
        TOOL_LOG(DBG_LEVEL_ERR, "Empty file path.");
        return DORVEX_ERR_PARAM;
    }
    PkgFd dir(open(dirName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.Get() < 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Cannot open directory %s: %s.", dirName.c_str(), strerror(errno));
        return DORVEX_ERR_FILE_OPEN;
    }
    Bytes list;
    // "dir/" names a directory: "." makes the read refuse it as one.
    uint32_t ret =
        ReadRegular(dir.Get(), baseName.empty() ? "." : baseName.c_str(), kPkgListMaxSize, &list);
    if (ret != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Read checksum file %s failed.", checksumPath);
        return ret;
    }
    if ((ret = VerifyList(cmsPath, list, crlPath)) != 0) {
        return ret;
    }
    if (g_pkgFilesListVerified != nullptr) {
        g_pkgFilesListVerified();
    }
    std::vector<PkgEntry> entries;
    PkgListError error;
    if ((ret = PkgParseList(list, &entries, &error)) != 0) {
        if (error.line == 0) {
            TOOL_LOG(DBG_LEVEL_ERR, "Checksum file refused: %s.", error.what);
        } else if (error.earlierLine != 0) {
            TOOL_LOG(DBG_LEVEL_ERR, "Checksum file line %u: %s (first on line %u).", error.line,
                     error.what, error.earlierLine);
        } else {
            TOOL_LOG(DBG_LEVEL_ERR, "Checksum file line %u: %s.", error.line, error.what);
        }
        return ret;
    }
    const unsigned threads = PkgHashThreads(entries.size());
    TOOL_LOG(DBG_LEVEL_INFO, "Checking %zu package files, %u at a time.", entries.size(), threads);
    std::vector<PkgProblem> verdicts;
    PkgHashFiles(dir.Get(), entries, threads, &verdicts);
    if ((ret = ReportProblems(entries, verdicts)) != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Package files are not valid, code %x.", ret);
        return ret;
    }
    TOOL_LOG(DBG_LEVEL_INFO, "Package files are valid.");
    return 0;
}

}  // namespace

int32_t UPGRADE_CheckPkgFiles(VerifyParam *param) {
    if (param == nullptr) {
        TOOL_LOG(DBG_LEVEL_ERR, "Parameter is NULL.");
        return -1;
    }
    // Nothing thrown may leave a C interface; only allocation can throw here.
    try {
        return static_cast<int32_t>(
            CheckPkgFiles(param->cmsPath, param->checksumPath, param->crlPath));
    } catch (const std::bad_alloc &) {
        TOOL_LOG(DBG_LEVEL_ERR, "Out of memory.");
        return static_cast<int32_t>(DORVEX_ERR_MALLOC);
    } catch (...) {
        TOOL_LOG(DBG_LEVEL_ERR, "Unexpected failure.");
        return -1;
    }
}
