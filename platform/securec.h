// Bounds-checked memory and string routines.
//
// Every routine takes the destination's size right after the destination and
// returns a small error number (or, for the formatting routines, a character
// count or -1) instead of calling a constraint handler. Most failures "reset"
// the destination: the first byte of a string is cleared, a memory block is
// zeroed up to destMax.
#ifndef PLATFORM_SECUREC_H
#define PLATFORM_SECUREC_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SEC_OK 0
#define SEC_EINVAL 22
#define SEC_ERANGE 34
#define SEC_EINVAL_RESET (22 | 0x80)
#define SEC_ERANGE_RESET (34 | 0x80)
#define SEC_EOVERLAP_RESET (54 | 0x80)

// Largest destMax or count any routine accepts.
#define SECUREC_STRING_MAX_LEN 0x7FFFFFFFUL

int memcpy_s(void *dest, size_t destMax, const void *src, size_t count);
int memset_s(void *dest, size_t destMax, int c, size_t count);
int strcpy_s(char *dest, size_t destMax, const char *src);
int strncpy_s(char *dest, size_t destMax, const char *src, size_t count);
int strcat_s(char *dest, size_t destMax, const char *src);

int snprintf_s(char *dest, size_t destMax, size_t count, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
int vsnprintf_s(char *dest, size_t destMax, size_t count, const char *format, va_list args)
    __attribute__((format(printf, 4, 0)));
int snprintf_truncated_s(char *dest, size_t destMax, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
int vsnprintf_truncated_s(char *dest, size_t destMax, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

// Like sscanf, but every %s, %c and %[ conversion takes its destination's
// size (size_t) as an extra argument right after the pointer.
int sscanf_s(const char *buffer, const char *format, ...);
int vsscanf_s(const char *buffer, const char *format, va_list args);

// Size-specialised variants with the same results as memcpy_s / memset_s.
int memcpy_sOptAsm(void *dest, size_t destMax, const void *src, size_t count);
int memcpy_sOptTc(void *dest, size_t destMax, const void *src, size_t count);
int memset_sOptAsm(void *dest, size_t destMax, int c, size_t count);
int memset_sOptTc(void *dest, size_t destMax, int c, size_t count);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_SECUREC_H
