// What the DER engine shares with the rest of cms/asn1 (and its tests).
#ifndef CMS_ASN1_INTERNAL_H
#define CMS_ASN1_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "cms/asn1/asn1.h"
#include "cms/asn1/oid.h"

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

// ---- template rows and items, as every template of cms/asn1 writes them ----

// A row carrying the item's own tag.
constexpr DorvexAsnTempl Row(const DorvexAsnItem *item, uint32_t offset, uint16_t flags = 0) {
    return DorvexAsnTempl{item, 0, DRX_ASN_TAG_UNIVERSAL, flags, offset, 0};
}

// A row under an EXPLICIT or IMPLICIT context tag [number].
constexpr DorvexAsnTempl Tagged(const DorvexAsnItem *item, uint16_t mode, uint32_t number,
                                uint32_t offset, uint16_t flags = 0) {
    return DorvexAsnTempl{item, number, mode, flags, offset, 0};
}

// The single row of a SET OF / SEQUENCE OF item.
constexpr DorvexAsnTempl Elements(const DorvexAsnItem *item, uint32_t offset, uint32_t maxCount,
                                  uint16_t flags = 0) {
    return DorvexAsnTempl{item, 0, DRX_ASN_TAG_UNIVERSAL, flags, offset, maxCount};
}

// A row of a map item, selected by the entry's identifier; in an attribute
// set the value decoded is the attribute's first value.
constexpr DorvexAsnTempl Keyed(const DorvexAsnItem *item, DorvexAoid key, uint32_t offset,
                               uint16_t flags = DRX_ASN_OPTIONAL) {
    return DorvexAsnTempl{item, static_cast<uint32_t>(key), DRX_ASN_TAG_UNIVERSAL, flags, offset,
                          0};
}

// A map row recording the critical flag of the entries with `key`; with
// AOID_UNKNOWN, of every critical entry no other row reads.
constexpr DorvexAsnTempl Critical(DorvexAoid key, uint32_t offset) {
    return Keyed(&g_itemDorvexAsnBool, key, offset, DRX_ASN_OPTIONAL | DRX_ASN_MAP_CRITICAL);
}

// A map row counting the entries of `key`.
constexpr DorvexAsnTempl Counted(DorvexAoid key, uint32_t offset) {
    return Keyed(&g_itemDorvexAsnOcts, key, offset, DRX_ASN_OPTIONAL | DRX_ASN_MAP_COUNT);
}

// An item without rows: function slot, expected tag, record size.
constexpr DorvexAsnItem Leaf(const DorvexAsnFunc *func, uint32_t tagClass, uint32_t constructed,
                             uint32_t number, uint32_t recordSize) {
    return DorvexAsnItem{nullptr, func, tagClass, constructed, number, 0, recordSize};
}

// A universal constructed item read through a template.
template <size_t N>
constexpr DorvexAsnItem Structured(const DorvexAsnTempl (&rows)[N], const DorvexAsnFunc *func,
                                   uint32_t number, uint32_t recordSize) {
    return DorvexAsnItem{
        rows, func, DRX_ASN_CLASS_UNIVERSAL, 1, number, static_cast<uint32_t>(N), recordSize};
}

// ---- template checks --------------------------------------------------------

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
