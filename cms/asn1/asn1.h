// Table-driven DER decoder of the CMS library.
//
// A type is described by a static item (tag, decode function, record size)
// and, for structured types, a template of rows, one per component. One call
// to DorvexAsnDecode produces one zero-filled heap record of the item's size;
// every variable-length value in it is a (length, pointer) pair into the
// caller's input, which must outlive the record.
#ifndef CMS_ASN1_ASN1_H
#define CMS_ASN1_ASN1_H

#include <stdint.h>

#include "cms/base/cursor.h"
#include "cms/base/dorvex_errno.h"

#ifdef __cplusplus
extern "C" {
#endif

// A decoded or expected tag; the three fields are compared as one unit.
typedef struct DorvexAsnTag {
    uint32_t tagClass;     // 0 universal, 1 application, 2 context-specific, 3 private
    uint32_t constructed;  // 0 or 1
    uint32_t tagCode;      // tag number 0..30
} DorvexAsnTag;

// Wildcards of an item's expected tag.
#define DRX_ASN_ANY 0xFFFFFFFEu
#define DRX_ASN_ANY_TAG 100u

// Tag classes and universal tag numbers the templates use.
#define DRX_ASN_CLASS_UNIVERSAL 0u
#define DRX_ASN_CLASS_CONTEXT 2u
#define DRX_ASN_BOOLEAN 1u
#define DRX_ASN_INTEGER 2u
#define DRX_ASN_BIT_STRING 3u
#define DRX_ASN_OID 6u
#define DRX_ASN_ENUMERATED 10u
#define DRX_ASN_SEQUENCE 16u
#define DRX_ASN_SET 17u

// Row tag modes.
#define DRX_ASN_TAG_UNIVERSAL 0u  // the item's own tag
#define DRX_ASN_TAG_EXPLICIT 1u   // an outer [tagCode] constructed context tag wraps it
#define DRX_ASN_TAG_IMPLICIT 2u   // its tag is replaced by context tag [tagCode]

// Row flags.
#define DRX_ASN_OPTIONAL 0x01u
#define DRX_ASN_PEEK 0x02u         // capture, but leave the cursor where it was
#define DRX_ASN_WITH_HEADER 0x04u  // an octet capture includes tag and length
#define DRX_ASN_DEFAULT 0x10u      // absent means the zero-filled default
#define DRX_ASN_SKIP 0x20u         // check and step over, store nothing
// Map rows only (the row's key is an AOID, its member a uint32_t unless decoded):
#define DRX_ASN_MAP_CRITICAL \
    0x40u                             // member |= the entry's critical flag; keyed AOID_UNKNOWN:
                                      // set when a critical entry is read by no decoding row
#define DRX_ASN_MAP_COUNT 0x80u       // member += 1 per entry of the key
#define DRX_ASN_MAP_ONE_VALUE 0x100u  // the decoded value must fill the entry's value
// INTEGER captures: keep the two's-complement content as encoded (no sign
// octet dropped) and refuse a non-minimal one, so equal bytes mean equal numbers.
#define DRX_ASN_SIGNED_INT 0x200u

struct DorvexAsnTempl;

// Shared signature of all decode functions: cursor, target record (or none),
// bytes the element occupied (header included), the row being decoded.
typedef uint32_t (*DorvexAsnFunc)(DorvexBuf *buf, void *target, uint32_t *consumed,
                                  const struct DorvexAsnTempl *row);

// Static descriptor of one type.
typedef struct DorvexAsnItem {
    const struct DorvexAsnTempl *templ;  // first row, or none
    const DorvexAsnFunc *func;           // one of the g_drxAsnFunc... slots
    uint32_t tagClass;                   // DRX_ASN_ANY accepts any
    uint32_t constructed;                // DRX_ASN_ANY accepts either
    uint32_t tagCode;                    // DRX_ASN_ANY_TAG accepts any
    uint32_t templCount;
    uint32_t recordSize;
} DorvexAsnItem;

// One component of a template.
typedef struct DorvexAsnTempl {
    const DorvexAsnItem *item;
    uint32_t tagCode;   // context number (EXPLICIT/IMPLICIT), or the AOID key in a map
    uint16_t tagMode;   // DRX_ASN_TAG_...
    uint16_t flags;     // DRX_ASN_OPTIONAL ...
    uint32_t offset;    // position of the component in the parent record
    uint32_t maxCount;  // element array size of a SET OF record; 0 elsewhere
} DorvexAsnTempl;

// Decode-function slots; every item names one of them.
extern const DorvexAsnFunc g_drxAsnFuncOct;
extern const DorvexAsnFunc g_drxAsnFuncBits;
extern const DorvexAsnFunc g_drxAsnFuncInt;
extern const DorvexAsnFunc g_drxAsnFuncSeq;
extern const DorvexAsnFunc g_drxAsnFuncSetOf;
extern const DorvexAsnFunc g_drxAsnFuncMap;
extern const DorvexAsnFunc g_drxAsnFuncExku;
extern const DorvexAsnFunc g_drxAsnFuncBitsToInt;

// Any element captured as bytes. data is none when the content was empty.
typedef struct DorvexAsnOcts {
    uint32_t len;
    uint32_t tagClass;
    uint32_t constructed;
    uint32_t tagCode;
    const uint8_t *data;  // into the input
} DorvexAsnOcts;

// BIT STRING: data/len cover the bytes after the unused-bits octet.
typedef DorvexAsnOcts DorvexAsnBits;

// INTEGER as big-endian content bytes, one leading 0x00 octet removed
// (a magnitude), or, under DRX_ASN_SIGNED_INT, exactly as encoded.
typedef DorvexAsnOcts DorvexAsnBigint;

// INTEGER, ENUMERATED, or BOOLEAN as 0/1.
typedef int32_t DorvexAsnInt;

#define DRX_ASN_OID_BUNDLE_MAX 10u

// SET OF record of object identifier contents.
typedef struct DorvexAsnOidBundle {
    uint32_t count;
    DorvexAsnOcts oids[DRX_ASN_OID_BUNDLE_MAX];
} DorvexAsnOidBundle;

// AlgorithmIdentifier: the identifier's content octets and the raw parameters.
typedef struct DorvexX509AlgoIdentifier {
    DorvexAsnOcts algorithm;
    DorvexAsnOcts parameters;
} DorvexX509AlgoIdentifier;

// One entry of an extension list or attribute set, as the map decoder reads it.
typedef struct DorvexX509ExtensionEntry {
    DorvexAsnOcts extnId;
    DorvexAsnInt critical;
    DorvexAsnOcts extnValue;
} DorvexX509ExtensionEntry;

// Extended key usage flags set by DorvexOidToExku, one per purpose listed.
#define DRX_EXKU_CODE_SIGNING 0x08u
#define DRX_EXKU_TIME_STAMPING 0x40u
#define DRX_EXKU_OTHER 0x80000000u  // any other purpose, anyExtendedKeyUsage included

// Basic items.
extern const DorvexAsnItem g_itemDorvexAsnOcts;
extern const DorvexAsnItem g_itemDorvexAsnBigint;
extern const DorvexAsnItem g_itemDorvexAsnSeq;
extern const DorvexAsnItem g_itemDorvexAsnSet;
extern const DorvexAsnItem g_itemDorvexAsnBits;
extern const DorvexAsnItem g_itemDorvexAsnInt;
extern const DorvexAsnItem g_itemDorvexAsnEnum;
extern const DorvexAsnItem g_itemDorvexAsnBool;
extern const DorvexAsnItem g_itemDorvexAsnOidBundle;
extern const DorvexAsnItem g_itemDorvexAsnExku;
extern const DorvexAsnItem g_itemDorvexAsnBitsToInt;
extern const DorvexAsnItem g_itemDorvexX509AlgoIdentifier;
extern const DorvexAsnItem g_itemDorvexX509ExtensionEntry;

// Decode functions; each leaves the cursor at the element's start on failure.
uint32_t DorvexDecodeOctet(DorvexBuf *buf, void *target, uint32_t *consumed,
                           const DorvexAsnTempl *row);
uint32_t DorvexDecodeBits(DorvexBuf *buf, void *target, uint32_t *consumed,
                          const DorvexAsnTempl *row);
uint32_t DorvexDecodeInt(DorvexBuf *buf, void *target, uint32_t *consumed,
                         const DorvexAsnTempl *row);
uint32_t DorvexDecodeSeq(DorvexBuf *buf, void *target, uint32_t *consumed,
                         const DorvexAsnTempl *row);
uint32_t DorvexDecodeSetof(DorvexBuf *buf, void *target, uint32_t *consumed,
                           const DorvexAsnTempl *row);
uint32_t DorvexDecodeMap(DorvexBuf *buf, void *target, uint32_t *consumed,
                         const DorvexAsnTempl *row);
uint32_t DorvexOidToExku(DorvexBuf *buf, void *target, uint32_t *consumed,
                         const DorvexAsnTempl *row);
uint32_t DorvexBitsToInt(DorvexBuf *buf, void *target, uint32_t *consumed,
                         const DorvexAsnTempl *row);

// DorvexAsnDecode: decodes one top-level element of data[0..size) against
// item into a new zero-filled record of item->recordSize bytes. On success
// *record is owned by the caller (release with DorvexAsnFree), points into
// data, and *consumed is the element's length; bytes after it are not
// examined. On failure *record is none and the innermost code is returned.
uint32_t DorvexAsnDecode(const uint8_t *data, uint32_t size, const DorvexAsnItem *item,
                         uint8_t flags, void **record, uint32_t *consumed);

// DorvexAsnFree: releases a record from DorvexAsnDecode (one block per decode).
void DorvexAsnFree(void *record, const DorvexAsnItem *item);

#ifdef __cplusplus
}

#include "cms/base/owned.h"

namespace drx {

template <const DorvexAsnItem *Item>
void AsnFreeWith(void *record) {
    DorvexAsnFree(record, Item);
}

// A record of DorvexAsnDecode against Item.
template <typename T, const DorvexAsnItem *Item>
using AsnPtr = Owned<T, AsnFreeWith<Item>>;

// AsnDecodeOwned: DorvexAsnDecode of one element against Item into *out;
// the decoder's code on failure.
template <const DorvexAsnItem *Item, typename T>
uint32_t AsnDecodeOwned(const uint8_t *data, uint32_t size, AsnPtr<T, Item> *out) {
    void *record = nullptr;
    uint32_t used = 0;
    const uint32_t ret = DorvexAsnDecode(data, size, Item, 0, &record, &used);
    out->reset(static_cast<T *>(record));
    return ret;
}

}  // namespace drx
#endif

#endif  // CMS_ASN1_ASN1_H
