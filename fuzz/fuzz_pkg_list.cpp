// The checksum-file parser of CHECK_PKG_FILES on arbitrary bytes. Besides
// the sanitizers, checks what the hasher relies on: a list that passes has
// entries, each with a digest of a known length, and every entry that is not
// refused names a path that stays inside the package directory.
#include <stdint.h>
#include <stdlib.h>

#include <span>
#include <vector>

#include "cms/base/dorvex_errno.h"
#include "tool/pkg_files.h"
#include "fuzz/support.h"

namespace {

using fuzz_support::Check;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > kPkgListMaxSize) {
        return 0;
    }
    // A copy of exactly the input's size, so a read past the end is caught.
    const std::vector<uint8_t> text(data, data + size);
    std::vector<PkgEntry> entries;
    PkgListError error;
    const uint32_t rc = PkgParseList(text, &entries, &error);
    if (rc != 0) {
        Check(entries.empty() && rc == error.code);
        Check(rc == DORVEX_ERR_PKG_LINE || rc == DORVEX_ERR_PKG_EMPTY_LIST ||
              rc == DORVEX_ERR_PKG_DUPLICATE);
        return 0;
    }
    Check(!entries.empty());
    for (const PkgEntry &entry : entries) {
        Check(entry.digestLen == 32 || entry.digestLen == 48 || entry.digestLen == 64);
        if (entry.refused.code != 0) {
            Check(entry.refused.code == DORVEX_ERR_PKG_PATH);
            continue;
        }
        Check(!entry.names.empty() && entry.path.size() <= kPkgPathMax);
        for (const std::string &name : entry.names) {
            Check(!name.empty() && name.size() <= kPkgNameMax && name != "." && name != "..");
            Check(name.find('/') == std::string::npos && name.find('\0') == std::string::npos);
        }
    }
    return 0;
}
