// Bounds-checked memory and string routines.
//
// The checks run in a fixed order; the first
// failing check decides the result and whether the destination is reset.
// Formatting and scanning are glibc's own engines (vsnprintf, sscanf); only
// the bounds rules are implemented here.
#include "platform/securec.h"

#include <ctype.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

namespace {

constexpr size_t kMaxLen = SECUREC_STRING_MAX_LEN;
// vsnprintf_s: the largest count that still leaves room for a terminator.
constexpr size_t kMaxFormatCount = SECUREC_STRING_MAX_LEN - 1;

bool SizeOutOfRange(size_t size) {
    return size == 0 || size > kMaxLen;
}

// True when [a, a+aLen) and [b, b+bLen) share at least one byte.
bool RangesOverlap(const void *a, size_t aLen, const void *b, size_t bLen) {
    const uintptr_t pa = reinterpret_cast<uintptr_t>(a);
    const uintptr_t pb = reinterpret_cast<uintptr_t>(b);
    if (aLen == 0 || bLen == 0) {
        return false;
    }
    return pa < pb ? pb - pa < aLen : pa - pb < bLen;
}

// ---------------------------------------------------------------------------
// memcpy_s / memset_s and their variants

// The failure cascade of memcpy_s: the destination's size, the pointers,
// the count, then overlap; the first fault decides the result, and once the
// destination is known it is emptied so no half copy is left. Also reached by the
// variants when their fast path does not apply; returns 0 for a count of 0.
int MemcpyError(void *dest, size_t destMax, const void *src, size_t count) {
    if (SizeOutOfRange(destMax)) {
        return SEC_ERANGE;
    }
    if (dest == nullptr) {
        return SEC_EINVAL;
    }
    if (src == nullptr) {
        memset(dest, 0, destMax);
        return SEC_EINVAL_RESET;
    }
    if (count > destMax) {
        memset(dest, 0, destMax);
        return SEC_ERANGE_RESET;
    }
    if (RangesOverlap(dest, count, src, count)) {
        memset(dest, 0, destMax);
        return SEC_EOVERLAP_RESET;
    }
    return SEC_OK;
}

// The failure cascade of memset_s (the success cases are handled by callers).
int MemsetError(void *dest, size_t destMax, int c, size_t count) {
    if (SizeOutOfRange(destMax)) {
        return SEC_ERANGE;
    }
    if (dest == nullptr) {
        return SEC_EINVAL;
    }
    if (count > destMax) {
        memset(dest, c, destMax);
        return SEC_ERANGE_RESET;
    }
    return SEC_OK;
}

bool MemcpyFits(void *dest, size_t destMax, const void *src, size_t count) {
    return dest != nullptr && src != nullptr && count > 0 && count <= destMax &&
           !RangesOverlap(dest, count, src, count);
}

// Copies of fewer than 65 bytes: 8-byte pieces with a constant size (which the
// compiler turns into single moves), then the remaining bytes.
void CopySmall(void *dest, const void *src, size_t count) {
    auto *d = static_cast<unsigned char *>(dest);
    const auto *s = static_cast<const unsigned char *>(src);
    for (; count >= 8; count -= 8, d += 8, s += 8) {
        memcpy(d, s, 8);
    }
    for (; count > 0; --count) {
        *d++ = *s++;
    }
}

// Fills of fewer than 33 bytes, in the same manner as CopySmall.
void FillSmall(void *dest, int c, size_t count) {
    auto *d = static_cast<unsigned char *>(dest);
    const auto byte = static_cast<unsigned char>(c);
    const uint64_t pattern = 0x0101010101010101ULL * byte;
    for (; count >= 8; count -= 8, d += 8) {
        memcpy(d, &pattern, 8);
    }
    for (; count > 0; --count) {
        *d++ = byte;
    }
}

// ---------------------------------------------------------------------------
// Formatting

// A scratch format (a format with its %n directives escaped, or one scan
// step: literal prefix, one conversion, "%n"). Short formats stay on the stack.
class SubFormat {
  public:
    SubFormat() = default;
    SubFormat(const SubFormat &) = delete;
    SubFormat &operator=(const SubFormat &) = delete;
    ~SubFormat() {
        if (text_ != local_) {
            free(text_);
        }
    }

    // Room for `capacity` characters plus a terminator; false when out of memory.
    bool Reserve(size_t capacity) {
        if (capacity < sizeof local_) {
            return true;
        }
        text_ = static_cast<char *>(malloc(capacity + 1));
        if (text_ == nullptr) {
            text_ = local_;
            return false;
        }
        return true;
    }
    void Append(const char *s, size_t n) {
        memcpy(text_ + used_, s, n);
        used_ += n;
        text_[used_] = '\0';
    }
    void Append(const char *s) { Append(s, strlen(s)); }
    const char *c_str() const { return text_; }

  private:
    char local_[256] = {};
    char *text_ = local_;
    size_t used_ = 0;
};

// Length of the %-directive at `p` (a '%'), and whether it is a %n. The
// flags, width, precision and length modifiers are skipped the way glibc
// reads them.
size_t DirectiveLength(const char *p, bool *isN) {
    const char *q = p + 1;
    *isN = false;
    if (*q == '%') {
        return 2;
    }
    q += strspn(q, "0123456789$*.-+ #'I");
    q += strspn(q, "hlLqjzZt");
    if (*q == '\0') {
        return static_cast<size_t>(q - p);
    }
    *isN = *q == 'n';
    return static_cast<size_t>(q + 1 - p);
}

// In this program's engine 'n' names no conversion, so a %n directive is
// printed as written, like any other unknown conversion, and never handed
// to glibc (whose %n would write through an argument). `out` receives the
// format with the '%' of every %n doubled; false when out of memory.
bool EscapePercentN(const char *format, SubFormat *out) {
    size_t directives = 0;
    for (const char *p = strchr(format, '%'); p != nullptr; p = strchr(p + 1, '%')) {
        ++directives;
    }
    if (!out->Reserve(strlen(format) + directives)) {
        return false;
    }
    const char *p = format;
    while (const char *percent = strchr(p, '%')) {
        out->Append(p, static_cast<size_t>(percent - p));
        bool isN = false;
        const size_t len = DirectiveLength(percent, &isN);
        if (isN) {
            out->Append("%");
        }
        out->Append(percent, len);
        p = percent + len;
    }
    out->Append(p);
    return true;
}

bool HasPercentN(const char *format) {
    bool isN = false;
    for (const char *p = strchr(format, '%'); p != nullptr && !isN; p = strchr(p, '%')) {
        p += DirectiveLength(p, &isN);
    }
    return isN;
}

// glibc's vsnprintf over `format` with its %n directives made literal;
// -1 when the escaped format cannot be built.
int FormatLiteralN(char *dest, size_t size, const char *format, va_list args) {
    if (!HasPercentN(format)) {
        return vsnprintf(dest, size, format, args);
    }
    SubFormat escaped;
    if (!EscapePercentN(format, &escaped)) {
        return -1;
    }
    return vsnprintf(dest, size, escaped.c_str(), args);
}

// ---------------------------------------------------------------------------
// Scanning

// One conversion of a scanf format, from its '%' to the end of
// its conversion character (or of its scan set).
struct ScanItem {
    const char *start = nullptr;
    const char *end = nullptr;
    bool suppress = false;
    size_t width = 0;  // 0: none given (glibc reads an explicit 0 the same way)
    const char *length = nullptr;
    size_t lengthLen = 0;
    char conv = '\0';
    const char *set = nullptr;  // '[' ... ']' for %[
    size_t setLen = 0;
};

bool IsStringConv(char conv) {
    return conv == 's' || conv == 'S' || conv == '[';
}
bool IsCharConv(char conv) {
    return conv == 'c' || conv == 'C';
}

// Wide destination: %ls, %lc, %l[, %S, %C.
bool IsWide(const ScanItem &item) {
    if (item.conv == 'S' || item.conv == 'C') {
        return true;
    }
    return item.lengthLen == 1 && item.length[0] == 'l';
}

// Parses the conversion starting at `p` (a '%'). Returns false for what
// this routine does not scan: an unterminated or unknown conversion, the
// positional form "%m$", and glibc's allocating 'm' modifier (it takes no
// size argument).
bool ParseScanItem(const char *p, ScanItem *item) {
    item->start = p;
    const char *q = p + 1;
    if (*q == '%') {
        item->conv = '%';
        item->end = q + 1;
        return true;
    }
    const char *digits = q;
    while (isdigit(static_cast<unsigned char>(*digits))) {
        ++digits;
    }
    if (digits != q && *digits == '$') {
        return false;
    }
    for (; *q == '*' || *q == '\'' || *q == 'I'; ++q) {
        item->suppress = item->suppress || *q == '*';
    }
    for (; isdigit(static_cast<unsigned char>(*q)); ++q) {
        if (item->width <= kMaxLen) {
            item->width = item->width * 10 + static_cast<size_t>(*q - '0');
        }
    }
    if (*q == 'm') {
        return false;
    }
    item->length = q;
    if ((q[0] == 'h' && q[1] == 'h') || (q[0] == 'l' && q[1] == 'l')) {
        q += 2;
    } else if (strchr("hlLqjzZt", *q) != nullptr && *q != '\0') {
        ++q;
    }
    item->lengthLen = static_cast<size_t>(q - item->length);
    item->conv = *q;
    if (item->conv == '\0' || strchr("diouxXnaAeEfFgGsScC[p%", item->conv) == nullptr) {
        return false;
    }
    ++q;
    if (item->conv == '[') {
        item->set = q - 1;
        if (*q == '^') {
            ++q;
        }
        if (*q == ']') {
            ++q;
        }
        while (*q != '\0' && *q != ']') {
            ++q;
        }
        if (*q == '\0') {
            return false;
        }
        ++q;
        item->setLen = static_cast<size_t>(q - item->set);
    }
    item->end = q;
    return true;
}

// A va_list that helpers can consume piece by piece (a va_list parameter
// cannot be passed on by address portably).
struct ArgCursor {
    va_list ap;
};

// How one step of the scan ended.
enum class Step { kDone, kMatchFailure, kInputFailure, kNoMemory };

// Runs glibc's sscanf over `input` with `sub` (which ends in "%n"), passing
// `dest` first when it is not null. `consumed` receives the characters used.
// Success is read from the %n store: glibc stores it only when everything
// before it, suppressed conversions included, succeeded.
Step RunStep(const char *input, const char *sub, void *dest, size_t *consumed) {
    int n = -1;
    int ret = dest != nullptr ? sscanf(input, sub, dest, &n) : sscanf(input, sub, &n);
    if (n >= 0) {
        *consumed = static_cast<size_t>(n);
        return Step::kDone;
    }
    return ret == EOF ? Step::kInputFailure : Step::kMatchFailure;
}

// Sets the first character of a %s, %c or %[ destination to zero.
void ClearFirst(void *dest, size_t size, bool wide) {
    if (dest == nullptr || size == 0) {
        return;
    }
    if (wide) {
        *static_cast<wchar_t *>(dest) = L'\0';
    } else {
        *static_cast<char *>(dest) = '\0';
    }
}

// True when the field a width-limited %s or %[ stopped at `input` would have
// gone on without the limit.
bool FieldContinues(const ScanItem &item, const char *input) {
    if (item.conv != '[') {
        return *input != '\0' && isspace(static_cast<unsigned char>(*input)) == 0;
    }
    SubFormat probe;
    if (!probe.Reserve(item.lengthLen + item.setLen + 8)) {
        return true;  // cannot tell; treat the destination as too small
    }
    probe.Append("%*1");
    probe.Append(item.length, item.lengthLen);
    probe.Append(item.set, item.setLen);
    probe.Append("%n");
    size_t consumed = 0;
    return RunStep(input, probe.c_str(), nullptr, &consumed) == Step::kDone;
}

// Stores a %n result with the width its length modifier names.
void StoreCount(const ScanItem &item, void *dest, size_t value) {
    const char l0 = item.lengthLen > 0 ? item.length[0] : '\0';
    const char l1 = item.lengthLen > 1 ? item.length[1] : '\0';
    if (l0 == 'h' && l1 == 'h') {
        *static_cast<signed char *>(dest) = static_cast<signed char>(value);
    } else if (l0 == 'h') {
        *static_cast<short *>(dest) = static_cast<short>(value);
    } else if (l0 == 'l' && l1 == 'l') {
        *static_cast<long long *>(dest) = static_cast<long long>(value);
    } else if (l0 == 'l') {
        *static_cast<long *>(dest) = static_cast<long>(value);
    } else if (l0 == 'L' || l0 == 'q') {
        *static_cast<long long *>(dest) = static_cast<long long>(value);
    } else if (l0 == 'j') {
        *static_cast<intmax_t *>(dest) = static_cast<intmax_t>(value);
    } else if (l0 == 'z' || l0 == 'Z') {
        *static_cast<size_t *>(dest) = value;
    } else if (l0 == 't') {
        *static_cast<ptrdiff_t *>(dest) = static_cast<ptrdiff_t>(value);
    } else {
        *static_cast<int *>(dest) = static_cast<int>(value);
    }
}

// The scanner proper. Walks the format one conversion at a time; each step
// hands glibc the literal text since the previous conversion, the conversion
// and a "%n", so that literals, white space, EOF rules and every conversion
// are glibc's own, and the %n tells how far the input moved.
class Scanner {
  public:
    Scanner(const char *text, ArgCursor *args) : text_(text), args_(args) {}

    int Run(const char *format) {
        const char *prefix = format;
        const char *f = format;
        for (;;) {
            const char *pct = strchr(f, '%');
            if (pct == nullptr) {
                // Trailing literal text: it can still turn "no fields" into EOF.
                return Finish(Literal(prefix, strlen(prefix)));
            }
            ScanItem item;
            if (!ParseScanItem(pct, &item)) {
                return count_;  // glibc ends a scan at a bad conversion likewise
            }
            f = item.end;
            if (item.conv == '%') {
                continue;  // a literal '%': stays in the prefix for glibc
            }
            Step step = Convert(prefix, static_cast<size_t>(pct - prefix), item);
            if (step != Step::kDone) {
                return Finish(step);
            }
            if (stopped_) {
                return count_;
            }
            prefix = f;
        }
    }

  private:
    int Finish(Step step) const {
        switch (step) {
            case Step::kDone:
            case Step::kMatchFailure:
                return count_;
            case Step::kInputFailure:
                return count_ == 0 ? EOF : count_;
            case Step::kNoMemory:
                return EOF;
        }
        return EOF;
    }

    Step Literal(const char *prefix, size_t prefixLen) {
        SubFormat sub;
        if (!sub.Reserve(prefixLen + 2)) {
            return Step::kNoMemory;
        }
        sub.Append(prefix, prefixLen);
        sub.Append("%n");
        size_t consumed = 0;
        Step step = RunStep(text_ + pos_, sub.c_str(), nullptr, &consumed);
        if (step == Step::kDone) {
            pos_ += consumed;
        }
        return step;
    }

    Step Convert(const char *prefix, size_t prefixLen, const ScanItem &item) {
        if (item.conv == 'n') {
            return CountStore(prefix, prefixLen, item);
        }
        if (item.suppress) {
            return Plain(prefix, prefixLen, item, nullptr);
        }
        void *dest = va_arg(args_->ap, void *);
        if (IsStringConv(item.conv) || IsCharConv(item.conv)) {
            size_t size = va_arg(args_->ap, size_t);
            return Sized(prefix, prefixLen, item, dest, size);
        }
        if (dest == nullptr) {
            stopped_ = true;
            return Step::kDone;
        }
        return Plain(prefix, prefixLen, item, dest);
    }

    // %n: the prefix is matched by glibc, the count is the whole text's.
    Step CountStore(const char *prefix, size_t prefixLen, const ScanItem &item) {
        void *dest = item.suppress ? nullptr : va_arg(args_->ap, void *);
        Step step = Literal(prefix, prefixLen);
        if (step == Step::kDone && dest != nullptr) {
            StoreCount(item, dest, pos_);
        }
        return step;
    }

    // Any conversion glibc can do as written.
    Step Plain(const char *prefix, size_t prefixLen, const ScanItem &item, void *dest) {
        size_t specLen = static_cast<size_t>(item.end - item.start);
        SubFormat sub;
        if (!sub.Reserve(prefixLen + specLen + 2)) {
            return Step::kNoMemory;
        }
        sub.Append(prefix, prefixLen);
        sub.Append(item.start, specLen);
        sub.Append("%n");
        return Advance(RunStep(text_ + pos_, sub.c_str(), dest, &stepConsumed_), dest);
    }

    Step Advance(Step step, void *dest) {
        if (step == Step::kDone) {
            pos_ += stepConsumed_;
            if (dest != nullptr) {
                ++count_;
            }
        }
        return step;
    }

    // %s, %c, %[ with a destination of `size` elements. A destination that
    // cannot hold the field ends the scan: its first element is cleared (no
    // truncated text is left behind), the field is not counted, and the
    // result is the number of fields converted before it.
    Step Sized(const char *prefix, size_t prefixLen, const ScanItem &item, void *dest,
               size_t size) {
        const bool wide = IsWide(item);
        if (dest == nullptr || size == 0 || size > kMaxLen) {
            stopped_ = true;
            return Step::kDone;
        }
        if (IsCharConv(item.conv)) {
            size_t want = item.width == 0 ? 1 : item.width;
            if (want > size) {
                ClearFirst(dest, size, wide);
                stopped_ = true;
                return Step::kDone;
            }
            return Plain(prefix, prefixLen, item, dest);
        }
        // A string needs one element for its terminator. With no room for a
        // single character glibc cannot be asked (width 0 means unlimited).
        size_t room = size - 1;
        if (room == 0) {
            ClearFirst(dest, size, wide);
            stopped_ = true;
            return Step::kDone;
        }
        if (item.width != 0 && item.width <= room) {
            return Plain(prefix, prefixLen, item, dest);
        }
        char width[24];
        snprintf(width, sizeof width, "%%%zu", room);
        SubFormat sub;
        if (!sub.Reserve(prefixLen + strlen(width) + item.lengthLen + item.setLen + 3)) {
            return Step::kNoMemory;
        }
        sub.Append(prefix, prefixLen);
        sub.Append(width);
        sub.Append(item.length, item.lengthLen);
        if (item.conv == '[') {
            sub.Append(item.set, item.setLen);
        } else {
            sub.Append(&item.conv, 1);
        }
        sub.Append("%n");
        Step step = Advance(RunStep(text_ + pos_, sub.c_str(), dest, &stepConsumed_), dest);
        if (step == Step::kDone && FieldContinues(item, text_ + pos_)) {
            --count_;
            ClearFirst(dest, size, wide);
            stopped_ = true;
        }
        return step;
    }

    const char *text_;
    ArgCursor *args_;
    size_t pos_ = 0;
    size_t stepConsumed_ = 0;
    int count_ = 0;
    bool stopped_ = false;
};

// Empty or oversized text: clear the destination of the format's first
// conversion when that is a %s, %c or %[ that takes one.
void ClearFirstDestination(const char *format, ArgCursor *args) {
    for (const char *p = strchr(format, '%'); p != nullptr; p = strchr(p, '%')) {
        ScanItem item;
        if (!ParseScanItem(p, &item)) {
            return;
        }
        if (item.conv == '%') {
            p = item.end;
            continue;
        }
        if (item.suppress || !(IsStringConv(item.conv) || IsCharConv(item.conv))) {
            return;
        }
        void *dest = va_arg(args->ap, void *);
        size_t size = va_arg(args->ap, size_t);
        if (size <= kMaxLen) {
            ClearFirst(dest, size, IsWide(item));
        }
        return;
    }
}

}  // namespace

extern "C" {

// memcpy_s: 0 after copying `count` bytes; see MemcpyError for the failures.
int memcpy_s(void *dest, size_t destMax, const void *src, size_t count) {
    if (destMax <= kMaxLen && MemcpyFits(dest, destMax, src, count)) {
        memcpy(dest, src, count);
        return SEC_OK;
    }
    return MemcpyError(dest, destMax, src, count);
}

// memcpy_sOptAsm: memcpy_s with an inline path for counts below 65.
int memcpy_sOptAsm(void *dest, size_t destMax, const void *src, size_t count) {
    if (destMax <= kMaxLen && MemcpyFits(dest, destMax, src, count)) {
        if (count < 65) {
            CopySmall(dest, src, count);
        } else {
            memcpy(dest, src, count);
        }
        return SEC_OK;
    }
    return MemcpyError(dest, destMax, src, count);
}

// memcpy_sOptTc: as memcpy_sOptAsm, but a copy that fits is made even when
// destMax is above the upper limit; every failure is reported as by memcpy_s.
int memcpy_sOptTc(void *dest, size_t destMax, const void *src, size_t count) {
    if (MemcpyFits(dest, destMax, src, count)) {
        if (count < 65) {
            CopySmall(dest, src, count);
        } else {
            memcpy(dest, src, count);
        }
        return SEC_OK;
    }
    return MemcpyError(dest, destMax, src, count);
}

// memset_s: 0 after filling `count` bytes (a non-null dest with destMax 0 and
// count 0 is such a case); 162 after filling destMax bytes when count is larger.
int memset_s(void *dest, size_t destMax, int c, size_t count) {
    if (dest != nullptr && destMax <= kMaxLen && count <= destMax) {
        memset(dest, c, count);
        return SEC_OK;
    }
    return MemsetError(dest, destMax, c, count);
}

// memset_sOptAsm: memset_s with an inline path for counts below 33.
int memset_sOptAsm(void *dest, size_t destMax, int c, size_t count) {
    if (dest != nullptr && destMax <= kMaxLen && count <= destMax) {
        if (count < 33) {
            FillSmall(dest, c, count);
        } else {
            memset(dest, c, count);
        }
        return SEC_OK;
    }
    return MemsetError(dest, destMax, c, count);
}

// memset_sOptTc: as memset_sOptAsm. Unlike memcpy_sOptTc it keeps the destMax
// upper limit: a fill of a size every sibling refuses is refused here too.
int memset_sOptTc(void *dest, size_t destMax, int c, size_t count) {
    if (dest != nullptr && destMax <= kMaxLen && count <= destMax) {
        if (count < 33) {
            FillSmall(dest, c, count);
        } else {
            memset(dest, c, count);
        }
        return SEC_OK;
    }
    return MemsetError(dest, destMax, c, count);
}

// The checks every string routine starts with, in this order; SEC_OK when
// the arguments are usable.
static int CheckStringArgs(char *dest, size_t destMax, const char *src) {
    if (SizeOutOfRange(destMax)) {
        return SEC_ERANGE;
    }
    if (dest == nullptr) {
        return SEC_EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return SEC_EINVAL_RESET;
    }
    return SEC_OK;
}

// strcpy_s: 0 after copying src and its terminator.
int strcpy_s(char *dest, size_t destMax, const char *src) {
    if (int ret = CheckStringArgs(dest, destMax, src); ret != SEC_OK) {
        return ret;
    }
    size_t srcLen = strnlen(src, destMax);
    if (srcLen == destMax) {
        dest[0] = '\0';
        return SEC_ERANGE_RESET;
    }
    if (RangesOverlap(dest, srcLen + 1, src, srcLen + 1)) {
        dest[0] = '\0';
        return SEC_EOVERLAP_RESET;
    }
    memcpy(dest, src, srcLen + 1);
    return SEC_OK;
}

// strncpy_s: 0 after copying min(count, strlen(src)) characters and a terminator.
int strncpy_s(char *dest, size_t destMax, const char *src, size_t count) {
    if (int ret = CheckStringArgs(dest, destMax, src); ret != SEC_OK) {
        return ret;
    }
    if (count == 0) {
        dest[0] = '\0';
        return SEC_OK;
    }
    if (count > kMaxLen) {
        dest[0] = '\0';
        return SEC_ERANGE_RESET;
    }
    size_t copyLen;
    if (destMax <= count) {
        copyLen = strnlen(src, destMax);
        if (copyLen == destMax) {
            dest[0] = '\0';
            return SEC_ERANGE_RESET;
        }
    } else {
        copyLen = strnlen(src, count);
    }
    // The bytes read are copyLen characters; the bytes written add a terminator.
    if (RangesOverlap(dest, copyLen + 1, src, copyLen)) {
        dest[0] = '\0';
        return SEC_EOVERLAP_RESET;
    }
    memcpy(dest, src, copyLen);
    dest[copyLen] = '\0';
    return SEC_OK;
}

// strcat_s: 0 after appending src with its terminator behind dest's text.
// The region compared for overlap is dest's text plus what would be appended
// and its terminator, against src with its terminator.
int strcat_s(char *dest, size_t destMax, const char *src) {
    if (int ret = CheckStringArgs(dest, destMax, src); ret != SEC_OK) {
        return ret;
    }
    size_t destLen = strnlen(dest, destMax);
    if (destLen == destMax) {
        // No terminator within destMax: both the overlap and the length
        // failure report 150 in this case.
        dest[0] = '\0';
        return SEC_EINVAL_RESET;
    }
    size_t srcLen = strnlen(src, destMax - destLen);
    if (RangesOverlap(dest, destLen + srcLen + 1, src, srcLen + 1)) {
        dest[0] = '\0';
        return SEC_EOVERLAP_RESET;
    }
    if (destLen + srcLen >= destMax) {
        dest[0] = '\0';
        return SEC_ERANGE_RESET;
    }
    memcpy(dest + destLen, src, srcLen + 1);
    return SEC_OK;
}

// vsnprintf_s: the number of characters written, or -1. A %n directive is
// printed as written (see EscapePercentN).
int vsnprintf_s(char *dest, size_t destMax, size_t count, const char *format, va_list args) {
    if (dest == nullptr || SizeOutOfRange(destMax)) {
        return -1;
    }
    if (format == nullptr || count > kMaxFormatCount) {
        dest[0] = '\0';
        return -1;
    }
    if (destMax > count) {
        int written = FormatLiteralN(dest, count + 1, format, args);
        if (written < 0) {
            dest[0] = '\0';
            return -1;
        }
        // Longer text: glibc kept the first `count` characters, terminated.
        return static_cast<size_t>(written) > count ? -1 : written;
    }
    int written = FormatLiteralN(dest, destMax, format, args);
    if (written < 0 || static_cast<size_t>(written) >= destMax) {
        dest[0] = '\0';
        return -1;
    }
    return written;
}

int snprintf_s(char *dest, size_t destMax, size_t count, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int ret = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return ret;
}

// vsnprintf_truncated_s: the number of characters written, destMax-1 when the
// text was cut, or -1 (with %n printed as written, as in vsnprintf_s).
int vsnprintf_truncated_s(char *dest, size_t destMax, const char *format, va_list args) {
    if (dest == nullptr || SizeOutOfRange(destMax)) {
        return -1;
    }
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    int written = FormatLiteralN(dest, destMax, format, args);
    if (written < 0) {
        dest[0] = '\0';
        return -1;
    }
    if (static_cast<size_t>(written) >= destMax) {
        return static_cast<int>(destMax - 1);
    }
    return written;
}

int snprintf_truncated_s(char *dest, size_t destMax, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int ret = vsnprintf_truncated_s(dest, destMax, format, args);
    va_end(args);
    return ret;
}

// vsscanf_s: the number of fields converted, or -1 (EOF) for null arguments,
// an empty or oversized text, or an input failure before the first field.
// Every %s, %c and %[ takes a size_t element count after its pointer. A
// destination too small for its field, a null destination, a size of 0 or
// above the upper limit, an unknown conversion, "%m$" and the 'm' modifier
// end the scan with the fields converted so far.
int vsscanf_s(const char *buffer, const char *format, va_list args) {
    if (buffer == nullptr || format == nullptr) {
        return -1;
    }
    ArgCursor cursor;
    va_copy(cursor.ap, args);
    int ret;
    if (buffer[0] == '\0' || strnlen(buffer, kMaxLen + 1) > kMaxLen) {
        ClearFirstDestination(format, &cursor);
        ret = -1;
    } else {
        ret = Scanner(buffer, &cursor).Run(format);
    }
    va_end(cursor.ap);
    return ret;
}

int sscanf_s(const char *buffer, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int ret = vsscanf_s(buffer, format, args);
    va_end(args);
    return ret;
}

}  // extern "C"
