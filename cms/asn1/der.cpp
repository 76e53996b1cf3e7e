// Table-driven DER decoder: header readers, the eight decode functions and
// the basic items.
//
// Departures from strict DER (X.690 section 10) are deliberate: non-minimal
// length octets, unsorted SET OF elements, any BIT STRING unused-bits value
// and the length of an EXPLICIT wrapper are accepted. Structure is strict:
// tags, lengths against the buffer, element counts and left-over bytes.
#include <cstddef>
#include <cstdint>
#include <span>

#include "cms/adapt/adapt.h"
#include "cms/asn1/asn1.h"
#include "cms/asn1/internal.h"
#include "cms/asn1/oid.h"

namespace {

using drx_asn::Elements;
using drx_asn::Leaf;
using drx_asn::Row;
using drx_asn::Structured;

// Puts the cursor back to where an element started unless the decode
// succeeded, so that every failing decode function leaves it unmoved.
class CursorRewind {
  public:
    explicit CursorRewind(DorvexBuf *buf) : buf_(buf), start_(buf->pos) {}
    ~CursorRewind() {
        if (!kept_) {
            buf_->pos = start_;
        }
    }
    CursorRewind(const CursorRewind &) = delete;
    CursorRewind &operator=(const CursorRewind &) = delete;

    uint32_t Start() const { return start_; }
    uint32_t Advanced() const { return buf_->pos - start_; }
    void Keep() { kept_ = true; }

  private:
    DorvexBuf *buf_;
    uint32_t start_;
    bool kept_ = false;
};

constexpr bool SameTag(const DorvexAsnTag &a, const DorvexAsnTag &b) {
    return a.tagClass == b.tagClass && a.constructed == b.constructed && a.tagCode == b.tagCode;
}

constexpr bool IsAbsentOk(const DorvexAsnTempl &row) {
    return (row.flags & (DRX_ASN_OPTIONAL | DRX_ASN_DEFAULT)) != 0;
}

constexpr bool IsImplicit(uint32_t tagMode) {
    return (tagMode & DRX_ASN_TAG_IMPLICIT) != 0;
}

// The decode function an item names, or none.
DorvexAsnFunc FuncOf(const DorvexAsnItem *item) {
    if (item == nullptr || item->func == nullptr) {
        return nullptr;
    }
    return *item->func;
}

// Where a row's component lies in its parent record; none for SKIP rows.
void *ComponentOf(void *parent, const DorvexAsnTempl &row) {
    if ((row.flags & DRX_ASN_SKIP) != 0) {
        return nullptr;
    }
    return static_cast<uint8_t *>(parent) + row.offset;
}

// A cursor over the `len` content bytes at the parent's position, which
// InternalDecLen already checked against the parent's end. Whatever decodes
// inside it cannot read past the element it belongs to: an inner length that
// overruns its parent fails where it is read.
DorvexBuf ChildOf(const DorvexBuf &parent, uint32_t len) {
    return DorvexBuf{parent.data, parent.pos + len, parent.pos};
}

// Steps over n content bytes that InternalDecLen already checked against
// the buffer.
void SkipContent(DorvexBuf *buf, uint32_t n) {
    buf->pos += n;
}

// Checks an octet capture's tag against its row and item and yields the tag
// number to record: the expected one, or the read one when the item accepts
// any number.
uint32_t CheckOctetTag(const DorvexAsnTempl &row, const DorvexAsnTag &tag, uint32_t *number) {
    const DorvexAsnItem &item = *row.item;
    bool match = item.constructed == DRX_ASN_ANY || tag.constructed == item.constructed;
    uint32_t expected;
    if (IsImplicit(row.tagMode)) {
        expected = row.tagCode;
        match = match && tag.tagClass == DRX_ASN_CLASS_CONTEXT;
        match = match && (row.tagCode == DRX_ASN_ANY_TAG || tag.tagCode == row.tagCode);
    } else {
        expected = item.tagCode;
        match = match && (item.tagClass == DRX_ASN_ANY || tag.tagClass == item.tagClass);
        match = match && (item.tagCode == DRX_ASN_ANY_TAG || tag.tagCode == item.tagCode);
    }
    if (!match) {
        return DORVEX_ERR_ASN_OCTS_TAG;
    }
    *number = item.tagCode == DRX_ASN_ANY_TAG ? tag.tagCode : expected;
    return DORVEX_OK;
}

// Decodes one SEQUENCE component at the cursor: removes an EXPLICIT wrapper
// first, then calls the row item's function.
uint32_t DecodeComponent(DorvexBuf *buf, void *component, const DorvexAsnTempl &row) {
    if ((row.tagMode & DRX_ASN_TAG_EXPLICIT) != 0) {
        DorvexAsnTag tag{};
        uint32_t ret = InternalDecTag(buf, &tag);
        if (ret != DORVEX_OK) {
            return ret;
        }
        if (!SameTag(tag, DorvexAsnTag{DRX_ASN_CLASS_CONTEXT, 1, row.tagCode})) {
            return DORVEX_ERR_ASN_SEQUENCE;
        }
        uint32_t wrapperLen = 0;
        ret = InternalDecLen(buf, &wrapperLen);
        if (ret != DORVEX_OK) {
            return ret;
        }
        // The wrapped element fills the wrapper exactly.
        DorvexBuf inner = ChildOf(*buf, wrapperLen);
        const DorvexAsnFunc func = FuncOf(row.item);
        uint32_t used = 0;
        if (func == nullptr) {
            return DORVEX_ERR_ASN_SEQUENCE;
        }
        ret = func(&inner, component, &used, &row);
        if (ret != DORVEX_OK) {
            return ret;
        }
        if (inner.pos != inner.size) {
            return DORVEX_ERR_ASN_SEQUENCE;
        }
        buf->pos = inner.pos;
        return DORVEX_OK;
    }
    const DorvexAsnFunc func = FuncOf(row.item);
    if (func == nullptr) {
        return DORVEX_ERR_ASN_SEQUENCE;
    }
    uint32_t used = 0;
    return func(buf, component, &used, &row);
}

// True when every row from index `from` on may be absent.
bool RestMayBeAbsent(std::span<const DorvexAsnTempl> rows, size_t from) {
    for (size_t i = from; i < rows.size(); ++i) {
        if (!IsAbsentOk(rows[i])) {
            return false;
        }
    }
    return true;
}

// Walks the rows of a SEQUENCE over `len` content bytes at the cursor.
// Optional components are found by trying them: any failure inside one makes
// it absent and the cursor returns to the end of the last good component.
uint32_t WalkSequence(DorvexBuf *buf, void *target, std::span<const DorvexAsnTempl> rows,
                      uint32_t len) {
    const uint32_t contentStart = buf->pos;
    uint32_t lastGood = contentStart;
    for (size_t i = 0; i < rows.size(); ++i) {
        const DorvexAsnTempl &row = rows[i];
        const uint32_t ret = DecodeComponent(buf, ComponentOf(target, row), row);
        if (ret == DORVEX_OK) {
            lastGood = buf->pos;
        } else if (IsAbsentOk(row)) {
            buf->pos = lastGood;
        } else {
            return ret;
        }
        const uint32_t used = lastGood - contentStart;
        if (i + 1 == rows.size()) {
            // Unknown trailing components are an error.
            return used == len ? DORVEX_OK : DORVEX_ERR_ASN_SEQUENCE;
        }
        if (used == len) {
            return RestMayBeAbsent(rows, i + 1) ? DORVEX_OK : DORVEX_ERR_ASN_SEQUENCE;
        }
    }
    return DORVEX_ERR_ASN_SEQUENCE;  // a template without rows never gets here
}

// Decodes an entry's value with one map row; a DRX_ASN_MAP_ONE_VALUE row
// must use the value up (an attribute with a single value).
uint32_t DecodeMapValue(const DorvexAsnTempl &row, const DorvexX509ExtensionEntry &entry,
                        void *target) {
    const DorvexAsnFunc func = FuncOf(row.item);
    if (func == nullptr) {
        return DORVEX_ERR_ASN_SETOF;
    }
    DorvexBuf value{};
    uint32_t ret = DorvexBufInit(&value, entry.extnValue.data, entry.extnValue.len);
    if (ret != DORVEX_OK) {
        return ret;
    }
    uint32_t used = 0;
    ret = func(&value, ComponentOf(target, row), &used, &row);
    if (ret == DORVEX_OK && (row.flags & DRX_ASN_MAP_ONE_VALUE) != 0 && used != value.size) {
        return DORVEX_ERR_ASN_SETOF;
    }
    // Otherwise bytes left over in the value are not examined.
    return ret;
}

// Runs every row of the map item whose key is the entry's identifier:
// decoding rows read the value, count rows count the entry, critical rows
// record its critical flag. A critical entry that no decoding row reads is
// recorded by the row keyed AOID_UNKNOWN with DRX_ASN_MAP_CRITICAL, if the
// item has one (RFC 5280 4.2: such an extension must not be ignored).
uint32_t DispatchMapEntry(const DorvexAsnItem &map, const DorvexX509ExtensionEntry &entry,
                          void *target) {
    const int32_t aoid = DorvexFindAoid(&entry.extnId);
    const std::span<const DorvexAsnTempl> rows(map.templ,
                                               map.templ != nullptr ? map.templCount : 0);
    bool read = false;
    uint32_t *unhandled = nullptr;
    for (const DorvexAsnTempl &row : rows) {
        auto *word = static_cast<uint32_t *>(ComponentOf(target, row));
        if (row.tagCode == AOID_UNKNOWN) {
            unhandled = (row.flags & DRX_ASN_MAP_CRITICAL) != 0 ? word : unhandled;
            continue;
        }
        if (aoid == AOID_UNKNOWN || row.tagCode != static_cast<uint32_t>(aoid)) {
            continue;
        }
        if ((row.flags & DRX_ASN_MAP_COUNT) != 0) {
            ++*word;
        } else if ((row.flags & DRX_ASN_MAP_CRITICAL) != 0) {
            *word |= entry.critical == 1 ? 1u : 0u;
        } else {
            const uint32_t ret = DecodeMapValue(row, entry, target);
            if (ret != DORVEX_OK) {
                return ret;
            }
            read = true;
        }
    }
    if (!read && entry.critical == 1 && unhandled != nullptr) {
        *unhandled = 1;
    }
    return DORVEX_OK;
}

}  // namespace

// ---- Header readers --------------------------------------------------------

uint32_t InternalDecTag(DorvexBuf *buf, DorvexAsnTag *tag) {
    constexpr uint32_t kHighTagNumber = 0x1F;
    uint8_t octet = 0;
    const uint32_t ret = DorvexBufGet(buf, &octet);
    if (ret != DORVEX_OK) {
        return ret;
    }
    tag->tagClass = octet >> 6;
    tag->constructed = (octet >> 5) & 1u;
    tag->tagCode = octet & kHighTagNumber;
    if (tag->tagCode == kHighTagNumber) {
        return DORVEX_ERR_ASN_TAG;
    }
    return DORVEX_OK;
}

uint32_t InternalDecLen(DorvexBuf *buf, uint32_t *len) {
    constexpr uint32_t kMaxLengthOctets = 4;
    CursorRewind rewind(buf);
    uint8_t first = 0;
    uint32_t ret = DorvexBufGet(buf, &first);
    if (ret != DORVEX_OK) {
        return ret;
    }
    uint32_t value = first;
    if ((first & 0x80u) != 0) {
        const uint32_t count = first & 0x7Fu;
        if (count == 0 || count > kMaxLengthOctets) {
            DORVEX_LOG_WARN(DORVEX_ERR_ASN_LENGTH, "indefinit length not supported.");
            return DORVEX_ERR_ASN_LENGTH;
        }
        value = 0;
        for (uint32_t i = 0; i < count; ++i) {
            uint8_t octet = 0;
            ret = DorvexBufGet(buf, &octet);
            if (ret != DORVEX_OK) {
                return ret;
            }
            value = (value << 8) | octet;
        }
    }
    // The cursor ends where the enclosing element ends (ChildOf).
    if (value > buf->size - buf->pos) {
        DORVEX_LOG_ERR(DORVEX_ERR_ASN_LENGTH, "overflow length.");
        return DORVEX_ERR_ASN_LENGTH;
    }
    *len = value;
    rewind.Keep();
    return DORVEX_OK;
}

uint32_t InternalAsn1ParseContent(DorvexBuf *buf, uint32_t rowTagCode, uint32_t rowTagMode,
                                  uint32_t constructed, uint32_t universal, uint32_t *len,
                                  DorvexAsnTag *tag) {
    const DorvexAsnTag expected =
        IsImplicit(rowTagMode) ? DorvexAsnTag{DRX_ASN_CLASS_CONTEXT, constructed, rowTagCode}
                               : DorvexAsnTag{DRX_ASN_CLASS_UNIVERSAL, constructed, universal};
    const uint32_t ret = InternalDecTag(buf, tag);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (!SameTag(*tag, expected)) {
        return DORVEX_ERR_ASN_TAG;
    }
    return InternalDecLen(buf, len);
}

// ---- Decode functions ------------------------------------------------------

uint32_t DorvexDecodeOctet(DorvexBuf *buf, void *target, uint32_t *consumed,
                           const DorvexAsnTempl *row) {
    const uint32_t flags = row != nullptr ? row->flags : 0;
    auto *out = static_cast<DorvexAsnOcts *>((flags & DRX_ASN_SKIP) != 0 ? nullptr : target);
    if (buf == nullptr || consumed == nullptr || ((flags & DRX_ASN_SKIP) == 0 && out == nullptr)) {
        return DORVEX_ERR_PARAM;
    }
    CursorRewind rewind(buf);
    DorvexAsnTag tag{};
    uint32_t ret = InternalDecTag(buf, &tag);
    if (ret != DORVEX_OK) {
        return ret;
    }
    uint32_t number = tag.tagCode;
    if (row != nullptr && row->item != nullptr) {
        ret = CheckOctetTag(*row, tag, &number);
        if (ret != DORVEX_OK) {
            return ret;
        }
    }
    uint32_t len = 0;
    ret = InternalDecLen(buf, &len);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (len == 0 && number == DRX_ASN_INTEGER && (flags & DRX_ASN_SIGNED_INT) != 0) {
        return DORVEX_ERR_ASN_INT;  // X.690 8.3.1: one content octet at least
    }
    if (len == 0 && out != nullptr) {
        out->data = nullptr;
    } else {
        if ((flags & DRX_ASN_WITH_HEADER) != 0) {
            len += rewind.Advanced();
            buf->pos = rewind.Start();
        } else if (number == DRX_ASN_INTEGER && (flags & DRX_ASN_SIGNED_INT) != 0) {
            // X.690 8.3.2: the first nine bits are never all zeros or all
            // ones; otherwise two encodings of one number would compare unequal.
            const uint8_t *c = buf->data + buf->pos;
            if (len >= 2 && ((c[0] == 0x00 && c[1] < 0x80) || (c[0] == 0xFF && c[1] >= 0x80))) {
                return DORVEX_ERR_ASN_INT;
            }
        } else if (len != 0 && number == DRX_ASN_INTEGER && buf->data[buf->pos] == 0x00) {
            // A sign octet in front of a positive INTEGER is not part of
            // its magnitude (one octet at most).
            --len;
            ++buf->pos;
        }
        if (out != nullptr) {
            out->len = len;
            out->tagClass = tag.tagClass;
            out->constructed = tag.constructed;
            out->tagCode = number;
            out->data = buf->data + buf->pos;
        }
        SkipContent(buf, len);
    }
    if ((flags & DRX_ASN_PEEK) == 0) {
        *consumed = rewind.Advanced();
        rewind.Keep();
        return DORVEX_OK;
    }
    if (out == nullptr) {
        return DORVEX_ERR_ASN_PEEK;
    }
    if (IsImplicit(row->tagMode)) {
        // Record the type behind the context tag, e.g. that a captured
        // [0] IMPLICIT SET OF is a SET.
        if (row->item == nullptr) {
            return DORVEX_ERR_ASN_PEEK;
        }
        out->tagClass = row->item->tagClass;
        out->constructed = row->item->constructed;
        out->tagCode = row->item->tagCode;
    }
    *consumed = 0;
    return DORVEX_OK;  // the rewind puts the cursor back to the element's start
}

uint32_t DorvexDecodeBits(DorvexBuf *buf, void *target, uint32_t *consumed,
                          const DorvexAsnTempl *row) {
    if (buf == nullptr || consumed == nullptr || row == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    CursorRewind rewind(buf);
    DorvexAsnTag tag{};
    uint32_t len = 0;
    uint32_t ret = InternalAsn1ParseContent(buf, row->tagCode, row->tagMode, 0, DRX_ASN_BIT_STRING,
                                            &len, &tag);
    if (ret != DORVEX_OK) {
        return ret;
    }
    // Even an empty bit string carries its unused-bits octet (X.690 8.6.2).
    if (len == 0) {
        return DORVEX_ERR_ASN_BITS;
    }
    if ((row->flags & DRX_ASN_SKIP) == 0) {
        auto *out = static_cast<DorvexAsnBits *>(target);
        if (out == nullptr) {
            return DORVEX_ERR_ASN_BITS;
        }
        out->tagClass = tag.tagClass;
        out->constructed = tag.constructed;
        out->tagCode = tag.tagCode;
        // The unused-bits octet is not examined.
        out->len = len - 1;
        out->data = len > 1 ? buf->data + buf->pos + 1 : nullptr;
    }
    SkipContent(buf, len);
    *consumed = rewind.Advanced();
    rewind.Keep();
    return DORVEX_OK;
}

uint32_t DorvexDecodeInt(DorvexBuf *buf, void *target, uint32_t *consumed,
                         const DorvexAsnTempl *row) {
    constexpr uint32_t kMaxIntOctets = 4;
    if (buf == nullptr || consumed == nullptr || row == nullptr || row->item == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const uint32_t number = row->item->tagCode;
    CursorRewind rewind(buf);
    DorvexAsnTag tag{};
    uint32_t len = 0;
    uint32_t ret = InternalAsn1ParseContent(buf, row->tagCode, row->tagMode, 0, number, &len, &tag);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if ((row->flags & DRX_ASN_SKIP) == 0) {
        auto *out = static_cast<DorvexAsnInt *>(target);
        if (out == nullptr) {
            DORVEX_LOG_ERR(DORVEX_ERR_ASN_INT, nullptr);
            return DORVEX_ERR_ASN_INT;
        }
        if (len > kMaxIntOctets) {
            return DORVEX_ERR_ASN_INT;
        }
        const std::span<const uint8_t> content(buf->data + buf->pos, len);
        if (number == DRX_ASN_BOOLEAN) {
            if (len != 1) {
                return DORVEX_ERR_ASN_BOOL;
            }
            // Only the DER encoding of TRUE counts as true.
            *out = content[0] == 0xFF ? 1 : 0;
        } else {
            // Empty content is not an INTEGER (X.690 8.3.1); refuse it
            // rather than take a value from beyond the element.
            if (len == 0) {
                return DORVEX_ERR_ASN_INT;
            }
            auto value =
                static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(content[0])));
            for (uint8_t octet : content.subspan(1)) {
                value = (value << 8) | octet;
            }
            *out = static_cast<int32_t>(value);
        }
    }
    SkipContent(buf, len);
    *consumed = rewind.Advanced();
    rewind.Keep();
    return DORVEX_OK;
}

uint32_t DorvexDecodeSeq(DorvexBuf *buf, void *target, uint32_t *consumed,
                         const DorvexAsnTempl *row) {
    if (buf == nullptr || target == nullptr || consumed == nullptr || row == nullptr ||
        row->item == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const DorvexAsnItem &item = *row->item;
    // A structure carried inside a BIT STRING (the RSA key of
    // subjectPublicKey) has a primitive header and an unused-bits octet.
    const bool inBits = item.tagCode == DRX_ASN_BIT_STRING;
    CursorRewind rewind(buf);
    DorvexAsnTag tag{};
    uint32_t len = 0;
    uint32_t ret = InternalAsn1ParseContent(buf, row->tagCode, row->tagMode, inBits ? 0 : 1,
                                            item.tagCode, &len, &tag);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (inBits) {
        if (len == 0) {
            return DORVEX_ERR_ASN_SEQUENCE;
        }
        SkipContent(buf, 1);
        --len;
    }
    const std::span<const DorvexAsnTempl> rows(item.templ,
                                               item.templ != nullptr ? item.templCount : 0);
    if (rows.empty()) {
        ret = len == 0 ? DORVEX_OK : DORVEX_ERR_ASN_SEQUENCE;
    } else if (len == 0) {
        ret = RestMayBeAbsent(rows, 0) ? DORVEX_OK : DORVEX_ERR_ASN_SEQUENCE;
    } else {
        DorvexBuf content = ChildOf(*buf, len);
        ret = WalkSequence(&content, target, rows, len);
        buf->pos = content.pos;
    }
    if (ret != DORVEX_OK) {
        return ret;
    }
    *consumed = rewind.Advanced();
    rewind.Keep();
    return DORVEX_OK;
}

uint32_t DorvexDecodeSetof(DorvexBuf *buf, void *target, uint32_t *consumed,
                           const DorvexAsnTempl *row) {
    if (buf == nullptr || target == nullptr || consumed == nullptr || row == nullptr ||
        row->item == nullptr || row->item->templ == nullptr || row->item->templCount != 1) {
        return DORVEX_ERR_PARAM;
    }
    const DorvexAsnItem &item = *row->item;
    const DorvexAsnTempl &inner = item.templ[0];
    CursorRewind rewind(buf);
    DorvexAsnTag tag{};
    uint32_t len = 0;
    if (InternalAsn1ParseContent(buf, row->tagCode, row->tagMode, 1, item.tagCode, &len, &tag) !=
        DORVEX_OK) {
        return DORVEX_ERR_ASN_SETOF;
    }
    const DorvexAsnFunc func = FuncOf(inner.item);
    if (func == nullptr) {
        return DORVEX_ERR_ASN_SETOF;
    }
    auto *record = static_cast<uint8_t *>(target);
    uint32_t count = 0;
    DorvexBuf content = ChildOf(*buf, len);
    // Element order is not checked against DER's sort rule; duplicates are
    // kept like any other element.
    while (content.pos < content.size) {
        if (count >= inner.maxCount) {
            return DORVEX_ERR_ASN_SETOF;
        }
        uint8_t *slot = record + inner.offset + uint64_t{count} * inner.item->recordSize;
        uint32_t used = 0;
        if (func(&content, slot, &used, &inner) != DORVEX_OK) {
            return DORVEX_ERR_ASN_SETOF;
        }
        ++count;
    }
    buf->pos = content.pos;
    *reinterpret_cast<uint32_t *>(record) = count;
    *consumed = rewind.Advanced();
    rewind.Keep();
    return DORVEX_OK;
}

uint32_t DorvexDecodeMap(DorvexBuf *buf, void *target, uint32_t *consumed,
                         const DorvexAsnTempl *row) {
    static constexpr DorvexAsnTempl kEntryRow = Row(&g_itemDorvexX509ExtensionEntry, 0);
    if (buf == nullptr || target == nullptr || consumed == nullptr || row == nullptr ||
        row->item == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const DorvexAsnItem &item = *row->item;
    CursorRewind rewind(buf);
    DorvexAsnTag tag{};
    uint32_t len = 0;
    if (InternalAsn1ParseContent(buf, row->tagCode, row->tagMode, 1, item.tagCode, &len, &tag) !=
        DORVEX_OK) {
        return DORVEX_ERR_ASN_SETOF;
    }
    // An entry running past the list fails inside it, before its value is read.
    DorvexBuf content = ChildOf(*buf, len);
    while (content.pos < content.size) {
        DorvexX509ExtensionEntry entry{};
        uint32_t used = 0;
        uint32_t ret = DorvexDecodeSeq(&content, &entry, &used, &kEntryRow);
        if (ret != DORVEX_OK) {
            return ret;
        }
        if (entry.extnValue.data == nullptr || entry.extnValue.len == 0) {
            return DORVEX_ERR_ASN_SETOF;
        }
        ret = DispatchMapEntry(item, entry, target);
        if (ret != DORVEX_OK) {
            return ret;
        }
    }
    buf->pos = content.pos;
    *consumed = rewind.Advanced();
    rewind.Keep();
    return DORVEX_OK;
}

uint32_t DorvexOidToExku(DorvexBuf *buf, void *target, uint32_t *consumed,
                         const DorvexAsnTempl * /*row: the value is always a bundle*/) {
    static constexpr DorvexAsnTempl kBundleRow = Row(&g_itemDorvexAsnOidBundle, 0);
    if (target == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    DorvexAsnOidBundle bundle{};
    const uint32_t ret = DorvexDecodeSetof(buf, &bundle, consumed, &kBundleRow);
    if (ret != DORVEX_OK) {
        return ret;
    }
    // Every purpose counts (RFC 5280 4.2.1.12); one the verifier does not
    // know is kept as DRX_EXKU_OTHER, so "this purpose alone" can be asked.
    auto *flags = static_cast<uint32_t *>(target);
    for (uint32_t i = 0; i < bundle.count && i < DRX_ASN_OID_BUNDLE_MAX; ++i) {
        switch (DorvexFindAoid(&bundle.oids[i])) {
            case AOID_KP_CODESIGNING:
                *flags |= DRX_EXKU_CODE_SIGNING;
                break;
            case AOID_KP_TIMESTAMPING:
                *flags |= DRX_EXKU_TIME_STAMPING;
                break;
            default:
                *flags |= DRX_EXKU_OTHER;
                break;
        }
    }
    return DORVEX_OK;
}

uint32_t DorvexBitsToInt(DorvexBuf *buf, void *target, uint32_t *consumed,
                         const DorvexAsnTempl *row) {
    if (target == nullptr || buf == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    CursorRewind rewind(buf);
    DorvexAsnBits bits{};
    uint32_t used = 0;
    const uint32_t ret = DorvexDecodeBits(buf, &bits, &used, row);
    if (ret != DORVEX_OK) {
        return ret;
    }
    // A bit string of the unused-bits octet alone is refused rather than
    // taken as a value read from beyond the element.
    if (bits.data == nullptr || bits.len == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_ASN_BITS, "Decode bits to intger failed.");
        return DORVEX_ERR_ASN_BITS;
    }
    // RFC 5280 numbers the bits from the first octet on whatever the length,
    // so the first octet stays in the low byte and the second (decipherOnly)
    // goes above it: a bit keeps its mask however many octets carry it.
    uint32_t value = 0;
    if (bits.len == 1) {
        value = bits.data[0];
    } else if (bits.len == 2) {
        value = bits.data[0] | uint32_t{bits.data[1]} << 8;
    } else {
        DORVEX_LOG_ERR(DORVEX_ERR_ASN_BITS, "unsupported length count");
        return DORVEX_ERR_ASN_BITS;
    }
    *static_cast<uint32_t *>(target) = value;
    *consumed = used;
    rewind.Keep();
    return DORVEX_OK;
}

// ---- Top level -------------------------------------------------------------

uint32_t DorvexAsnDecode(const uint8_t *data, uint32_t size, const DorvexAsnItem *item,
                         uint8_t flags, void **record, uint32_t *consumed) {
    if (data == nullptr || size == 0 || item == nullptr || record == nullptr ||
        consumed == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    *record = nullptr;
    const DorvexAsnFunc func = FuncOf(item);
    if (func == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_ASN_NO_DECODER, nullptr);
        return DORVEX_ERR_ASN_NO_DECODER;
    }
    DorvexBuf buf{};
    uint32_t ret = DorvexBufInit(&buf, data, size);
    if (ret != DORVEX_OK) {
        return ret;
    }
    void *block = nullptr;
    ret = DorvexMallocWith0(&block, item->recordSize);
    if (ret != DORVEX_OK) {
        return ret;
    }
    drx::BlockPtr<void> out(block);
    const DorvexAsnTempl top = {item, 0, DRX_ASN_TAG_UNIVERSAL, flags, 0, 0};
    uint32_t used = 0;
    ret = func(&buf, out.get(), &used, &top);
    if (ret != DORVEX_OK) {
        return ret;
    }
    *record = out.release();
    *consumed = used;
    return DORVEX_OK;
}

void DorvexAsnFree(void *record, const DorvexAsnItem * /*item: one block per decode*/) {
    DorvexFree(record);
}

// ---- Slots and basic items -------------------------------------------------

constexpr DorvexAsnFunc g_drxAsnFuncOct = DorvexDecodeOctet;
constexpr DorvexAsnFunc g_drxAsnFuncBits = DorvexDecodeBits;
constexpr DorvexAsnFunc g_drxAsnFuncInt = DorvexDecodeInt;
constexpr DorvexAsnFunc g_drxAsnFuncSeq = DorvexDecodeSeq;
constexpr DorvexAsnFunc g_drxAsnFuncSetOf = DorvexDecodeSetof;
constexpr DorvexAsnFunc g_drxAsnFuncMap = DorvexDecodeMap;
constexpr DorvexAsnFunc g_drxAsnFuncExku = DorvexOidToExku;
constexpr DorvexAsnFunc g_drxAsnFuncBitsToInt = DorvexBitsToInt;

namespace {

constexpr uint32_t kAny = DRX_ASN_ANY;
constexpr uint32_t kUniv = DRX_ASN_CLASS_UNIVERSAL;

// OidBundle ::= SEQUENCE SIZE (1..10) OF OBJECT IDENTIFIER
constexpr DorvexAsnTempl g_templDorvexAsnOidBundle[] = {
    Elements(&g_itemDorvexAsnOcts, offsetof(DorvexAsnOidBundle, oids), DRX_ASN_OID_BUNDLE_MAX),
};

// AlgorithmIdentifier ::= SEQUENCE {
//     algorithm   OBJECT IDENTIFIER,
//     parameters  ANY DEFINED BY algorithm OPTIONAL }
constexpr DorvexAsnTempl g_templDorvexX509AlgoIdentifier[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexX509AlgoIdentifier, algorithm)),
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexX509AlgoIdentifier, parameters), DRX_ASN_OPTIONAL),
};

// Extension ::= SEQUENCE {               Attribute ::= SEQUENCE {
//     extnID     OBJECT IDENTIFIER,          attrType    OBJECT IDENTIFIER,
//     critical   BOOLEAN DEFAULT FALSE,      (no BOOLEAN: counts as absent)
//     extnValue  OCTET STRING }              attrValues  SET OF ANY }
constexpr DorvexAsnTempl g_templDorvexX509ExtensionEntry[] = {
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexX509ExtensionEntry, extnId)),
    Row(&g_itemDorvexAsnBool, offsetof(DorvexX509ExtensionEntry, critical), DRX_ASN_DEFAULT),
    Row(&g_itemDorvexAsnOcts, offsetof(DorvexX509ExtensionEntry, extnValue)),
};

}  // namespace

constexpr DorvexAsnItem g_itemDorvexAsnOcts =
    Leaf(&g_drxAsnFuncOct, kAny, kAny, DRX_ASN_ANY_TAG, sizeof(DorvexAsnOcts));
constexpr DorvexAsnItem g_itemDorvexAsnBigint =
    Leaf(&g_drxAsnFuncOct, kUniv, 0, DRX_ASN_INTEGER, sizeof(DorvexAsnBigint));
constexpr DorvexAsnItem g_itemDorvexAsnSeq =
    Leaf(&g_drxAsnFuncOct, kUniv, 1, DRX_ASN_SEQUENCE, sizeof(DorvexAsnOcts));
constexpr DorvexAsnItem g_itemDorvexAsnSet =
    Leaf(&g_drxAsnFuncOct, kUniv, 1, DRX_ASN_SET, sizeof(DorvexAsnOcts));
constexpr DorvexAsnItem g_itemDorvexAsnBits =
    Leaf(&g_drxAsnFuncBits, kUniv, 0, DRX_ASN_BIT_STRING, sizeof(DorvexAsnBits));
constexpr DorvexAsnItem g_itemDorvexAsnInt =
    Leaf(&g_drxAsnFuncInt, kUniv, 0, DRX_ASN_INTEGER, sizeof(DorvexAsnInt));
constexpr DorvexAsnItem g_itemDorvexAsnEnum =
    Leaf(&g_drxAsnFuncInt, kUniv, 0, DRX_ASN_ENUMERATED, sizeof(DorvexAsnInt));
constexpr DorvexAsnItem g_itemDorvexAsnBool =
    Leaf(&g_drxAsnFuncInt, kUniv, 0, DRX_ASN_BOOLEAN, sizeof(DorvexAsnInt));
constexpr DorvexAsnItem g_itemDorvexAsnExku =
    Leaf(&g_drxAsnFuncExku, kUniv, 0, DRX_ASN_OID, sizeof(uint32_t));
constexpr DorvexAsnItem g_itemDorvexAsnBitsToInt =
    Leaf(&g_drxAsnFuncBitsToInt, kUniv, 0, DRX_ASN_BIT_STRING, sizeof(uint32_t));
constexpr DorvexAsnItem g_itemDorvexAsnOidBundle = Structured(
    g_templDorvexAsnOidBundle, &g_drxAsnFuncSetOf, DRX_ASN_SEQUENCE, sizeof(DorvexAsnOidBundle));
constexpr DorvexAsnItem g_itemDorvexX509AlgoIdentifier =
    Structured(g_templDorvexX509AlgoIdentifier, &g_drxAsnFuncSeq, DRX_ASN_SEQUENCE,
               sizeof(DorvexX509AlgoIdentifier));
constexpr DorvexAsnItem g_itemDorvexX509ExtensionEntry =
    Structured(g_templDorvexX509ExtensionEntry, &g_drxAsnFuncSeq, DRX_ASN_SEQUENCE,
               sizeof(DorvexX509ExtensionEntry));

static_assert(drx_asn::ItemFits(g_itemDorvexAsnOidBundle));
static_assert(drx_asn::ItemFits(g_itemDorvexX509AlgoIdentifier));
static_assert(drx_asn::ItemFits(g_itemDorvexX509ExtensionEntry));

// Records are read by C code and by templates through these offsets.
static_assert(sizeof(void *) != 8 || sizeof(DorvexAsnOcts) == 24);
static_assert(offsetof(DorvexAsnOcts, len) == 0 && offsetof(DorvexAsnOcts, tagClass) == 4 &&
              offsetof(DorvexAsnOcts, constructed) == 8 && offsetof(DorvexAsnOcts, tagCode) == 12 &&
              offsetof(DorvexAsnOcts, data) == 16);
static_assert(offsetof(DorvexAsnOidBundle, count) == 0);
static_assert(offsetof(DorvexX509AlgoIdentifier, algorithm) == 0);
static_assert(sizeof(DorvexAsnInt) == 4);
