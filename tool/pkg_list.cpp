// Parser of the list CHECK_PKG_FILES checks: the lines sha256sum, sha384sum
// and sha512sum write.
//
//   line   = digest sep path
//   digest = 64, 96 or 128 hexadecimal digits (SHA-256, SHA-384, SHA-512)
//   sep    = "  " / " *"        (text or binary mode: the same bytes are hashed)
//   path   = name *("/" name)   (relative to the checksum file's directory)
//
// Lines end with LF or CR LF, the last one possibly with neither. Empty
// lines, lines of blanks and lines starting with '#' are skipped. Names that
// sha256sum escapes (a line starting with '\') are refused, as is any other
// line. The bytes are the ones whose signature was checked; nothing here
// reads a file.
#include <algorithm>
#include <string_view>

#include "cms/asn1/oid.h"
#include "cms/base/dorvex_errno.h"
#include "tool/pkg_files.h"

namespace {

struct DigestForm {
    size_t hexLen;
    uint32_t hashAlg;
};
constexpr DigestForm g_pkgDigestForms[] = {
    {64, AOID_SHA256},
    {96, AOID_SHA384},
    {128, AOID_SHA512},
};

int HexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool IsSkipped(std::string_view line) {
    if (!line.empty() && line.front() == '#') {
        return true;
    }
    return std::all_of(line.begin(), line.end(), [](char c) { return c == ' ' || c == '\t'; });
}

// The path's components into entry->names, or the reason it is refused.
PkgProblem SplitPath(std::string_view path, PkgEntry *entry) {
    const auto refuse = [](const char *what) { return PkgProblem{DORVEX_ERR_PKG_PATH, what, 0}; };
    if (path.size() > kPkgPathMax) {
        return refuse("path too long");
    }
    // Control characters would forge log lines; sha256sum escapes them anyway.
    if (std::any_of(path.begin(), path.end(), [](char c) {
            const auto u = static_cast<unsigned char>(c);
            return u < 0x20 || u == 0x7f;
        })) {
        return refuse("control character in path");
    }
    if (path.front() == '/') {
        return refuse("absolute path");
    }
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        const std::string_view name = path.substr(start, end - start);
        if (name.empty()) {
            return refuse("empty path component");
        }
        if (name == "..") {
            return refuse("'..' in path");
        }
        if (name.size() > kPkgNameMax) {
            return refuse("path component too long");
        }
        // "./a" is how `find . | xargs sha256sum` writes names: harmless.
        if (name != ".") {
            entry->names.emplace_back(name);
        }
        start = end + 1;
    }
    if (entry->names.empty()) {
        return refuse("path names the directory itself");
    }
    return {};
}

// One line that is neither empty nor a comment; false when it is in no
// accepted form.
bool ParseLine(std::string_view line, PkgEntry *entry) {
    size_t hexLen = 0;
    while (hexLen < line.size() && HexValue(line[hexLen]) >= 0) {
        ++hexLen;
    }
    const auto form = std::find_if(std::begin(g_pkgDigestForms), std::end(g_pkgDigestForms),
                                   [&](const DigestForm &f) { return f.hexLen == hexLen; });
    // The path is at least one character: "HEX  " names nothing.
    if (form == std::end(g_pkgDigestForms) || line.size() < hexLen + 3 || line[hexLen] != ' ' ||
        (line[hexLen + 1] != ' ' && line[hexLen + 1] != '*')) {
        return false;
    }
    for (size_t i = 0; i < hexLen / 2; ++i) {
        entry->digest[i] =
            static_cast<uint8_t>(HexValue(line[2 * i]) << 4 | HexValue(line[2 * i + 1]));
    }
    entry->digestLen = static_cast<uint32_t>(hexLen / 2);
    entry->hashAlg = form->hashAlg;
    const std::string_view path = line.substr(hexLen + 2);
    entry->path.assign(path);
    entry->refused = SplitPath(path, entry);
    return true;
}

// Two spellings of one path ("a/b", "./a/./b") count as the same path.
std::string Key(const PkgEntry &entry) {
    std::string key;
    for (const std::string &name : entry.names) {
        key += name;
        key += '/';
    }
    return key;
}

// The line of the first entry whose path an earlier entry lists already, and
// that earlier line in *first; 0 when there is none.
uint32_t FindDuplicate(const std::vector<PkgEntry> &entries, uint32_t *first) {
    std::vector<std::pair<std::string, uint32_t>> keys;
    keys.reserve(entries.size());
    for (const PkgEntry &entry : entries) {
        if (entry.refused.code == 0) {
            keys.emplace_back(Key(entry), entry.line);
        }
    }
    std::sort(keys.begin(), keys.end());
    uint32_t repeat = 0;
    for (size_t i = 1; i < keys.size(); ++i) {
        if (keys[i].first == keys[i - 1].first && (repeat == 0 || keys[i].second < repeat)) {
            repeat = keys[i].second;
            *first = keys[i - 1].second;
        }
    }
    return repeat;
}

}  // namespace

uint32_t PkgParseList(std::span<const uint8_t> text, std::vector<PkgEntry> *entries,
                      PkgListError *error) {
    entries->clear();
    *error = {};
    const std::string_view all(reinterpret_cast<const char *>(text.data()), text.size());
    size_t start = 0;
    uint32_t number = 0;
    while (start < all.size()) {
        size_t end = all.find('\n', start);
        if (end == std::string_view::npos) {
            end = all.size();
        }
        std::string_view current = all.substr(start, end - start);
        start = end + 1;
        ++number;
        if (!current.empty() && current.back() == '\r') {
            current.remove_suffix(1);
        }
        if (IsSkipped(current)) {
            continue;
        }
        PkgEntry entry;
        entry.line = number;
        if (!ParseLine(current, &entry)) {
            *error = {DORVEX_ERR_PKG_LINE, "not a checksum line", number, 0};
            entries->clear();
            return error->code;
        }
        entries->push_back(std::move(entry));
    }
    if (entries->empty()) {
        *error = {DORVEX_ERR_PKG_EMPTY_LIST, "it lists no file", 0, 0};
        return error->code;
    }
    uint32_t earlier = 0;
    if (const uint32_t repeat = FindDuplicate(*entries, &earlier); repeat != 0) {
        *error = {DORVEX_ERR_PKG_DUPLICATE, "path listed a second time", repeat, earlier};
        entries->clear();
        return error->code;
    }
    return 0;
}
