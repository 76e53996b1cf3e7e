// Memory, string, file and log services of the CMS library.
#include "cms/adapt/adapt.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iterator>
#include <memory>

#include "dbglog/dbglog.h"
#include "platform/lzeb_mem.h"
#include "platform/securec.h"

// ---- Memory ----------------------------------------------------------------

extern "C" uint32_t DorvexMalloc(void **out, uint64_t size) {
    if (out == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    *out = nullptr;
    if (size == 0) {
        return DORVEX_OK;
    }
    // The allocator takes 32 bits; a larger request must fail, not wrap to a
    // small block that the caller would then overrun.
    if (size > UINT32_MAX) {
        return DORVEX_ERR_MALLOC;
    }
    void *block = LZEB_MallocSubStandard(DBG_MODULE_VERIFY_TOOL, static_cast<uint32_t>(size), 0,
                                         "DorvexMalloc", __LINE__);
    if (block == nullptr) {
        return DORVEX_ERR_MALLOC;
    }
    *out = block;
    return DORVEX_OK;
}

extern "C" void DorvexFree(void *p) {
    if (p != nullptr) {
        LZEB_FreeSub(p, "DorvexFree", __LINE__);
    }
}

extern "C" uint32_t DorvexMallocWith0(void **out, uint64_t size) {
    if (out == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    uint32_t ret = DorvexMalloc(out, size);
    if (ret != DORVEX_OK || *out == nullptr) {
        return ret;
    }
    int rc = memset_s(*out, size, 0, size);
    if (rc != 0) {
        DorvexFree(*out);
        *out = nullptr;
        return static_cast<uint32_t>(rc);
    }
    return DORVEX_OK;
}

// ---- Bytes and strings -----------------------------------------------------

extern "C" int32_t DorvexMemCmp(const void *a, const void *b, size_t n) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    return memcmp(a, b, n);
}

extern "C" int32_t DorvexStrNCmp(const char *a, const char *b, size_t n) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    return strncmp(a, b, n);
}

extern "C" const char *DorvexStrStr(const char *haystack, const char *needle) {
    if (haystack == nullptr || needle == nullptr) {
        return nullptr;
    }
    return strstr(haystack, needle);
}

extern "C" const char *DorvexStrChr(const char *s, int c) {
    if (s == nullptr) {
        return nullptr;
    }
    return strchr(s, static_cast<unsigned char>(c));
}

extern "C" int32_t DorvexStrlen(const char *s) {
    if (s == nullptr) {
        return 0;
    }
    size_t len = strlen(s);
    // A length that does not fit is reported as unusable rather than wrapped.
    return len > INT32_MAX ? -1 : static_cast<int32_t>(len);
}

extern "C" int32_t DorvexStrCmp(const char *a, const char *b) {
    if (a == nullptr || b == nullptr) {
        return -1;
    }
    if (a == b) {
        return 0;
    }
    // Full lengths are compared, so two long strings cannot look equal after
    // their lengths were cut to 32 bits.
    size_t len = strlen(a);
    if (len != strlen(b)) {
        return -1;
    }
    return strncmp(a, b, len);
}

// ---- Files -----------------------------------------------------------------

extern "C" FILE *DorvexFileOpen(const char *path, const char *mode) {
    if (path == nullptr || mode == nullptr) {
        return nullptr;
    }
    return fopen(path, mode);
}

extern "C" uint32_t DorvexFileOpenRegular(const char *path, FILE **out) {
    if (path == nullptr || out == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    *out = nullptr;
    // O_NONBLOCK: opening a FIFO would otherwise wait for a writer forever.
    // It has no effect on reads of a regular file, the only kind kept.
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return DORVEX_ERR_FILE_OPEN;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        (void)close(fd);
        return DORVEX_ERR_FILE_OPEN;
    }
    if (!S_ISREG(st.st_mode)) {
        (void)close(fd);
        return DORVEX_ERR_FILE_TYPE;
    }
    FILE *file = fdopen(fd, "rb");
    if (file == nullptr) {
        (void)close(fd);
        return DORVEX_ERR_FILE_OPEN;
    }
    *out = file;
    return DORVEX_OK;
}

extern "C" uint32_t DorvexFileRead(void *buffer, uint32_t n, FILE *stream) {
    if (buffer == nullptr || stream == nullptr) {
        return 0;
    }
    // fread never returns more than n, so the count fits.
    return static_cast<uint32_t>(fread(buffer, 1, n, stream));
}

extern "C" int32_t DorvexFileClose(FILE *stream) {
    if (stream == nullptr) {
        return -1;
    }
    return fclose(stream);
}

extern "C" uint64_t DorvexFileGetSize(FILE *stream) {
    if (stream == nullptr) {
        return 0;
    }
    long saved = ftell(stream);
    // Positions from 2 GiB on are outside the design, like a failed ftell.
    if (saved < 0 || saved > INT32_MAX) {
        return 0;
    }
    // Seek results are not examined: a stream that cannot seek reports the
    // position ftell gives, and the caller's length checks decide.
    (void)fseek(stream, 0, SEEK_END);
    long end = ftell(stream);
    (void)fseek(stream, saved, SEEK_SET);
    return end < 0 ? 0 : static_cast<uint64_t>(end);
}

// ---- Log -------------------------------------------------------------------

namespace {

struct LevelStyle {
    const char *prefix;
    int32_t dbgLevel;
};

// Library level -> console prefix and DBG_Log level.
constexpr LevelStyle g_drxLogLevels[] = {
    {"[ERROR]", DBG_LEVEL_ERR},
    {"[WARNING]", DBG_LEVEL_WARN},
    {"[INFO]", DBG_LEVEL_INFO},
    {"[DEBUG]", DBG_LEVEL_DBG},
};

const char *OrEmpty(const char *s) {
    return s != nullptr ? s : "";
}

}  // namespace

extern "C" void DorvexLogPrint(uint32_t level, const char *file, uint32_t line,
                               const char *function, uint32_t errorCode, const char *message) {
    file = OrEmpty(file);
    function = OrEmpty(function);
    message = OrEmpty(message);
    // Unknown levels get neither a prefix nor a debug-log record.
    const LevelStyle *style = level < std::size(g_drxLogLevels) ? &g_drxLogLevels[level] : nullptr;
    if (style != nullptr) {
        // The caller's place travels inside the text; the error code stays on the console.
        DBG_Log(DBG_MODULE_VERIFY_TOOL, style->dbgLevel, "DorvexLogPrint", __LINE__, 0,
                "%s(%d):(%s):%s", file, static_cast<int>(line), function, message);
    }
    // Hold the stream for the whole line so that concurrent callers do not
    // interleave inside one.
    flockfile(stdout);
    if (style != nullptr) {
        fputs(style->prefix, stdout);
    }
    printf("%s(%d):(%s):%s", file, static_cast<int>(line), function, message);
    if (errorCode != 0) {
        printf("(err:%x)", errorCode);
    }
    puts("\r");
    // Lines reach a pipe or file at once, not when the process exits.
    fflush(stdout);
    funlockfile(stdout);
}

extern "C" void DorvexLogCallback(uint32_t level, const char *file, uint32_t line,
                                  const char *function, uint32_t errorCode, const char *format,
                                  ...) {
    if (file == nullptr || function == nullptr) {
        return;
    }
    // Only errors and warnings are ever written; the rest costs nothing.
    if (level > DORVEX_LOG_LEVEL_WARNING) {
        return;
    }
    void *block = nullptr;
    if (DorvexMallocWith0(&block, DORVEX_LOG_MSG_SIZE) != DORVEX_OK) {
        DorvexLogPrint(DORVEX_LOG_LEVEL_ERROR, DORVEX_LOG_FILE, __LINE__, "DorvexLogCallback",
                       DORVEX_ERR_MALLOC, "Allocate memory for log message failed.");
        DorvexLogPrint(level, file, line, function, errorCode, format);
        return;
    }
    drx::BlockPtr<char> buffer(static_cast<char *>(block));
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        int n =
            vsnprintf_s(buffer.get(), DORVEX_LOG_MSG_SIZE, DORVEX_LOG_MSG_SIZE - 1, format, args);
        va_end(args);
        if (n <= 0) {
            // Still print the caller's text, unformatted, so nothing is lost.
            DorvexLogPrint(DORVEX_LOG_LEVEL_ERROR, DORVEX_LOG_FILE, __LINE__, "DorvexLogCallback",
                           0, "format log message failed.");
            DorvexLogPrint(level, file, line, function, errorCode, format);
            return;
        }
    }
    DorvexLogPrint(level, file, line, function, errorCode, buffer.get());
}

uint32_t InternalAllocBuffer(uint64_t size, drx::BufferPtr *out) {
    void *block = nullptr;
    const uint32_t ret = DorvexMalloc(&block, size);
    if (ret == DORVEX_OK) {
        out->reset(static_cast<uint8_t *>(block));
    }
    return ret;
}

void InternalCloseFile(FILE *file) {
    const int32_t ret = DorvexFileClose(file);
    if (ret != 0) {
        DORVEX_LOG_WARN(static_cast<uint32_t>(ret), "Failed to close file.");
    }
}
