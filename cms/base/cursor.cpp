// DorvexBuf: the read cursor every decoder of the library walks.
#include "cms/base/cursor.h"

#include "cms/base/dorvex_errno.h"

uint32_t DorvexBufInit(DorvexBuf *buf, const uint8_t *data, uint32_t size) {
    if (buf == nullptr || data == nullptr || size == 0) {
        return DORVEX_ERR_PARAM;
    }
    buf->data = data;
    buf->size = size;
    buf->pos = 0;
    return DORVEX_OK;
}

uint32_t DorvexBufGet(DorvexBuf *buf, uint8_t *byte) {
    if (buf == nullptr || byte == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    if (buf->pos >= buf->size) {
        return DORVEX_ERR_BUF_END;
    }
    *byte = buf->data[buf->pos];
    ++buf->pos;
    return DORVEX_OK;
}

uint32_t DorvexBufSeek(DorvexBuf *buf, int64_t offset, int32_t whence) {
    constexpr int32_t kSeekCur = 1;
    if (buf == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    if (whence != kSeekCur) {
        return DORVEX_FAIL;
    }
    // |offset| beyond 2^32 can never land inside the buffer; bounding it
    // first keeps the sum below from overflowing.
    if (offset > int64_t{UINT32_MAX} || offset < -int64_t{UINT32_MAX}) {
        return DORVEX_FAIL;
    }
    const int64_t target = int64_t{buf->pos} + offset;
    if (target < 0 || target > int64_t{buf->size}) {
        return DORVEX_FAIL;
    }
    buf->pos = static_cast<uint32_t>(target);
    return DORVEX_OK;
}
