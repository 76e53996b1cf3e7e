// What the DER engine shares with the rest of cms/asn1 (and its tests).
#ifndef CMS_ASN1_INTERNAL_H
#define CMS_ASN1_INTERNAL_H

#include <cstdint>

#include "cms/asn1/asn1.h"

// InternalDecTag: reads one identifier octet into tag. The octet is consumed
// even when it announces a high tag number (31), which is refused with
// DORVEX_ERR_ASN_TAG: multi-octet tags never occur in what we decode.
uint32_t InternalDecTag(DorvexBuf *buf, DorvexAsnTag *tag);

// InternalDecLen: reads definite length octets (at most four, non-minimal
// forms accepted) and checks the length against what remains of the whole
// buffer. Leaves the cursor unchanged on failure.
uint32_t InternalDecLen(DorvexBuf *buf, uint32_t *len);

// InternalAsn1ParseContent: reads a header and checks its tag against
// {2, constructed, rowTagCode} for an IMPLICIT row, otherwise against
// {0, constructed, universal}; DORVEX_ERR_ASN_TAG on any difference.
uint32_t InternalAsn1ParseContent(DorvexBuf *buf, uint32_t rowTagCode, uint32_t rowTagMode,
                                  uint32_t constructed, uint32_t universal, uint32_t *len,
                                  DorvexAsnTag *tag);

namespace drx_asn {

// Deepest nesting of items any template may have; keeps the decoder's
// recursion bounded by the static tables alone.
inline constexpr int kMaxItemDepth = 12;

// True when every row of item (and, recursively, of its rows' items) writes
// inside its parent's record, SET OF items have exactly one row whose element
// array fits behind the count, and nesting stays within depth levels. A
// static_assert can use it where the items it reaches are defined in the
// same file; elsewhere a test calls it.
constexpr bool ItemFits(const DorvexAsnItem &item, int depth = kMaxItemDepth) {
    if (depth <= 0) {
        return false;
    }
    if (item.templ == nullptr) {
        return item.templCount == 0;
    }
    const bool setOf = item.func == &g_drxAsnFuncSetOf;
    if (setOf && item.templCount != 1) {
        return false;
    }
    for (uint32_t i = 0; i < item.templCount; ++i) {
        const DorvexAsnTempl &row = item.templ[i];
        if (row.item == nullptr || (setOf && row.offset < sizeof(uint32_t))) {
            return false;
        }
        if (!ItemFits(*row.item, depth - 1)) {
            return false;
        }
        const uint64_t count = setOf ? row.maxCount : 1;
        // Count and critical-flag rows of a map write one word, not a record.
        const bool word = (row.flags & (DRX_ASN_MAP_COUNT | DRX_ASN_MAP_CRITICAL)) != 0;
        const uint64_t end = row.offset + count * (word ? sizeof(uint32_t) : row.item->recordSize);
        if ((row.flags & DRX_ASN_SKIP) == 0 && end > item.recordSize) {
            return false;
        }
    }
    return true;
}

}  // namespace drx_asn

#endif  // CMS_ASN1_INTERNAL_H
