// Adaptation layer of the CMS library: heap memory, byte and string
// comparison, stdio files, logging, base64 and calendar conversion.
//
// The rest of the library takes these services from here rather than from
// glibc or the tagged allocator directly, so that every allocation carries
// the library's module id and every log line has one shape.
#ifndef CMS_ADAPT_ADAPT_H
#define CMS_ADAPT_ADAPT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "cms/base/dorvex_errno.h"

#ifdef __cplusplus
extern "C" {
#endif

// Label passed as the file argument of every log call; it is printed, never opened.
#define DORVEX_LOG_FILE "dorvex_log.log"

// Levels of the library's log functions (not the DBG_Log levels).
#define DORVEX_LOG_LEVEL_ERROR 0u
#define DORVEX_LOG_LEVEL_WARNING 1u
#define DORVEX_LOG_LEVEL_INFO 2u
#define DORVEX_LOG_LEVEL_DEBUG 3u

// Size of the message buffer of DorvexLogCallback, terminator included.
#define DORVEX_LOG_MSG_SIZE 2048u

// Broken-down UTC time; `year` is the full year, 1 to 9999.
typedef struct {
    uint16_t year;
    uint8_t month;  // 1..12
    uint8_t day;
    uint8_t hour;
    uint8_t minute;
    uint8_t second;
} DorvexDatetime;

// ---- Memory --------------------------------------------------------------

// DorvexMalloc: zero-filled block of `size` bytes in *out. *out is set to null
// first; a size of 0 succeeds with *out left null. DORVEX_ERR_PARAM for a null
// `out`, DORVEX_ERR_MALLOC when the allocator fails or the size does not fit
// in 32 bits (never cut down). The caller releases the block with DorvexFree.
uint32_t DorvexMalloc(void **out, uint64_t size);

// DorvexMallocWith0: DorvexMalloc, then the block is explicitly zeroed with
// memset_s; if that fails the block is released, *out is null and the
// memset_s result is returned.
uint32_t DorvexMallocWith0(void **out, uint64_t size);

// DorvexFree: releases a block of DorvexMalloc; null is ignored.
void DorvexFree(void *p);

// ---- Bytes and strings (null-safe; never fault on null) ------------------

// -1 when either pointer is null, else memcmp.
int32_t DorvexMemCmp(const void *a, const void *b, size_t n);
// -1 when either pointer is null, else strncmp.
int32_t DorvexStrNCmp(const char *a, const char *b, size_t n);
// Null when either is null, else strstr.
const char *DorvexStrStr(const char *haystack, const char *needle);
// Null when `s` is null, else strchr with `c` taken as an unsigned byte.
const char *DorvexStrChr(const char *s, int c);
// 0 for null, else strlen; -1 for a string too long for 32 bits.
int32_t DorvexStrlen(const char *s);
// Equality test: 0 for the same pointer, -1 for a null argument or a
// different length, otherwise strncmp over the common length.
int32_t DorvexStrCmp(const char *a, const char *b);

// ---- Files ---------------------------------------------------------------

// fopen; null for a null path or mode.
FILE *DorvexFileOpen(const char *path, const char *mode);
// DorvexFileOpenRegular: opens `path` for reading in binary mode, only when
// it is a regular file. The open never blocks (a FIFO without a writer, a
// device), and anything but a regular file is closed again at once:
// DORVEX_ERR_FILE_TYPE. DORVEX_ERR_PARAM for a null argument,
// DORVEX_ERR_FILE_OPEN when open or fdopen fails. Close with DorvexFileClose.
uint32_t DorvexFileOpenRegular(const char *path, FILE **out);
// fread of up to `n` bytes; returns the count read (0 for null arguments).
uint32_t DorvexFileRead(void *buffer, uint32_t n, FILE *stream);
// -1 for a null stream, else fclose.
int32_t DorvexFileClose(FILE *stream);
// Size of the stream in bytes, the position left where it was; 0 for a null
// stream or when the position cannot be read. The size is not narrowed, so a
// caller that keeps it in 32 bits must check it first.
uint64_t DorvexFileGetSize(FILE *stream);

// ---- Log -----------------------------------------------------------------

// DorvexLogCallback: formats an error or warning of the library and hands it
// to DorvexLogPrint; information and debug levels are dropped before any
// work. `format` may be null (empty message); an errorCode of 0 prints no code.
void DorvexLogCallback(uint32_t level, const char *file, uint32_t line, const char *function,
                       uint32_t errorCode, const char *format, ...)
    __attribute__((format(printf, 6, 7)));

// DorvexLogPrint: writes one finished message to DBG_Log and standard output
// as "[LEVEL]file(line):(function):message(err:code)\r\n".
void DorvexLogPrint(uint32_t level, const char *file, uint32_t line, const char *function,
                    uint32_t errorCode, const char *message);

// Error and warning reports from inside the library, under the caller's name and line.
#define DORVEX_LOG_ERR(code, ...)                                                          \
    DorvexLogCallback(DORVEX_LOG_LEVEL_ERROR, DORVEX_LOG_FILE, __LINE__, __func__, (code), \
                      __VA_ARGS__)
#define DORVEX_LOG_WARN(code, ...)                                                           \
    DorvexLogCallback(DORVEX_LOG_LEVEL_WARNING, DORVEX_LOG_FILE, __LINE__, __func__, (code), \
                      __VA_ARGS__)

// ---- Base64 and time -----------------------------------------------------

// DorvexBase64Decode: decodes base64 text with line breaks (LF or CR LF) and
// blanks in front of line breaks or at the end. *dstLength is dst's capacity
// on entry. With a null dst or too small a capacity, returns 0 with the
// needed length in *dstLength and writes nothing; otherwise returns 0 with
// the number of bytes written. DORVEX_ERR_PARAM for null src/dstLength or an
// empty input, DORVEX_ERR_BASE64 for invalid text (dst untouched).
uint32_t DorvexBase64Decode(const uint8_t *src, int32_t srcLength, uint8_t *dst,
                            uint32_t *dstLength);

// DorvexMktime: seconds since 1970-01-01 00:00:00 UTC of a proleptic
// Gregorian date-time (negative before 1970); 0 for null. Fields are not
// validated here (the time decoders do): out-of-range days or months simply
// carry over.
int64_t DorvexMktime(const DorvexDatetime *time);

#ifdef __cplusplus
}

#include "cms/base/owned.h"

namespace drx {

// A block of DorvexMalloc.
template <typename T>
using BlockPtr = Owned<T, DorvexFree>;
using BufferPtr = BlockPtr<uint8_t>;

}  // namespace drx

// InternalAllocBuffer: DorvexMalloc of `size` bytes into *out.
uint32_t InternalAllocBuffer(uint64_t size, drx::BufferPtr *out);

// InternalCloseFile: DorvexFileClose; a failing close is only logged as a
// warning, since every caller has read what it needed by then.
void InternalCloseFile(FILE *file);

namespace drx {
using FilePtr = Owned<FILE, InternalCloseFile>;
}  // namespace drx
#endif

#endif  // CMS_ADAPT_ADAPT_H
