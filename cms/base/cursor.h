// Read cursor over one contiguous byte string, shared by the DER engine and
// the decoders above it.
#ifndef CMS_BASE_CURSOR_H
#define CMS_BASE_CURSOR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Read cursor over one contiguous DER byte string (not owned).
typedef struct DorvexBuf {
    const uint8_t *data;
    uint32_t size;
    uint32_t pos;  // index of the next byte, 0..size
} DorvexBuf;

// DorvexBufInit: cursor over data[0..size) at position 0. All arguments
// required and size non-zero, else DORVEX_ERR_PARAM.
uint32_t DorvexBufInit(DorvexBuf *buf, const uint8_t *data, uint32_t size);

// DorvexBufGet: the next byte, advancing; DORVEX_ERR_BUF_END at the end.
uint32_t DorvexBufGet(DorvexBuf *buf, uint8_t *byte);

// DorvexBufSeek: moves relative to the current position (whence 1 only).
// A target below 0 or beyond size, or another whence, gives DORVEX_FAIL and
// leaves the position unchanged.
uint32_t DorvexBufSeek(DorvexBuf *buf, int64_t offset, int32_t whence);

#ifdef __cplusplus
}
#endif

#endif  // CMS_BASE_CURSOR_H
