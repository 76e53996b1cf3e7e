// The package-files check (CHECK_PKG_FILES): what its three parts share. The
// operation (pkg_files.cpp) reads the checksum file once, has its signature
// verified over those bytes and hands the same bytes to the list parser
// (pkg_list.cpp); the hasher (pkg_hasher.cpp) then checks every listed file.
#ifndef TOOL_PKG_FILES_H
#define TOOL_PKG_FILES_H

#include <stddef.h>
#include <stdint.h>

#include <span>
#include <string>
#include <vector>

#include "cms/dorvex.h"

// Largest checksum file the check reads, in bytes: the limit of the
// signature file, since both are held whole in memory. It bounds the list
// too: an entry takes at least 68 bytes.
inline constexpr uint32_t kPkgListMaxSize = DORVEX_MAX_FILE_SIZE;
// Longest listed path and longest component of one, in bytes (Linux's
// PATH_MAX and NAME_MAX, terminator not counted).
inline constexpr size_t kPkgPathMax = 4095;
inline constexpr size_t kPkgNameMax = 255;
// Longest digest of a list line (SHA-512), in bytes.
inline constexpr uint32_t kPkgDigestMax = 64;
// Most files hashed at the same time, whatever the number of cores.
inline constexpr unsigned kPkgMaxThreads = 8;

// An owned file descriptor; -1 holds none.
class PkgFd {
  public:
    explicit PkgFd(int fd = -1) : fd_(fd) {}
    PkgFd(const PkgFd &) = delete;
    PkgFd &operator=(const PkgFd &) = delete;
    ~PkgFd() { Reset(-1); }
    void Reset(int fd);
    int Get() const { return fd_; }

  private:
    int fd_;
};

// What went wrong with a file, a path or a line: a result code and a static
// text; `sysErr` is the errno behind it, 0 if none. Code 0 means nothing.
struct PkgProblem {
    uint32_t code = 0;
    const char *what = nullptr;
    int sysErr = 0;
};

// One line of the list.
struct PkgEntry {
    std::string path;                // as listed
    std::vector<std::string> names;  // its components, "." left out
    uint32_t line = 0;               // 1-based line number
    uint32_t hashAlg = 0;            // AOID_SHA256, AOID_SHA384 or AOID_SHA512
    uint8_t digest[kPkgDigestMax] = {};
    uint32_t digestLen = 0;
    PkgProblem refused;  // a path refused by its form; it is then never opened
};

// Why a whole checksum file is refused: a result code, a static text, the
// line it concerns and, for a path listed twice, the line listing it first.
struct PkgListError {
    uint32_t code = 0;
    const char *what = nullptr;
    uint32_t line = 0;
    uint32_t earlierLine = 0;
};

// PkgParseList: the entries of a checksum file's bytes, in order, in
// *entries. 0, or the code of the first line in no accepted form
// (DORVEX_ERR_PKG_LINE), of a path listed a second time
// (DORVEX_ERR_PKG_DUPLICATE) or DORVEX_ERR_PKG_EMPTY_LIST, described in
// *error; *entries is then empty. A path of the wrong form (absolute, "..",
// empty component, control character, too long) is no failure here: its
// entry carries the refusal.
uint32_t PkgParseList(std::span<const uint8_t> text, std::vector<PkgEntry> *entries,
                      PkgListError *error);

// PkgHashThreads: how many files to hash at a time: the cores this process
// may run on, at most kPkgMaxThreads and at most `files`, at least 1.
unsigned PkgHashThreads(size_t files);

// PkgHashFiles: opens every entry's file below the directory `dirFd`, one
// component at a time without following symbolic links, and compares its
// digest, on `threads` threads (each file hashed by one). Entries refused by
// the parser keep their refusal. (*verdicts)[i] becomes entries[i]'s
// problem, code 0 for a regular file whose digest matches. Throws only
// std::bad_alloc, before any thread starts.
void PkgHashFiles(int dirFd, const std::vector<PkgEntry> &entries, unsigned threads,
                  std::vector<PkgProblem> *verdicts);

// Test seam: called once the checksum file's signature has been found
// valid, before its bytes are parsed. Null in the product.
extern void (*g_pkgFilesListVerified)(void);

#endif  // TOOL_PKG_FILES_H
