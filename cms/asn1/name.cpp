// Distinguished names and times of decoded certificates and CRLs: name
// equality, the one-line readable form, and UTCTime / GeneralizedTime
// conversion.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "cms/adapt/adapt.h"
#include "cms/asn1/oid.h"
#include "cms/asn1/x509.h"

namespace {

// Size of the buffer one readable attribute is built in, terminator included.
constexpr uint32_t kPieceSize = 128;
// Size of the readable name handed out, terminator included.
constexpr uint32_t kNameBufSize = DRX_X509_NAME_STR_MAX + 1;

// The RDNs of a name, or an empty span when the record claims more than it
// can hold (not a record the decoder made).
std::span<const DorvexX509AttrBundle> RdnsOf(const DorvexX509Name &name) {
    if (name.count > DRX_X509_NAME_MAX_RDNS) {
        return {};
    }
    return {name.rdns, name.count};
}

std::span<const DorvexX509AttrEntry> AttrsOf(const DorvexX509AttrBundle &rdn) {
    return {rdn.attrs, std::min<uint32_t>(rdn.count, DRX_X509_RDN_MAX_ATTRS)};
}

// Prefix of the readable form of an attribute; "X=" for any other type the
// identifier table knows.
const char *AttrPrefix(int32_t aoid) {
    switch (aoid) {
        case AOID_AT_COMMONNAME:
            return "CN=";
        case AOID_AT_LOCALITYNAME:
            return "L=";
        case AOID_AT_STATEORPROVINCENAME:
            return "S=";
        case AOID_AT_ORGANIZATIONNAME:
            return "O=";
        case AOID_AT_ORGANIZATIONALUNITNAME:
            return "OU=";
        case AOID_AT_COUNTRYNAME:
            return "C=";
        case AOID_PKCS9_AT_EMAILADDRESS:
            return "E=";
        default:
            return "X=";
    }
}

// Two ASCII digits as a number, kept to 8 bits; the characters are not
// validated, so whatever they hold turns into some value rather than a
// failure, and range checks are left to the callers.
uint8_t TwoDigits(const uint8_t *text) {
    return static_cast<uint8_t>(10 * (text[0] - '0') + (text[1] - '0'));
}

// InternalGetMaxAttrLen: how many value bytes fit in a piece after a prefix
// of prefixLen characters. A value that does not fit is cut to the room
// left (one byte stays for the terminator) and a warning says so.
uint32_t InternalGetMaxAttrLen(uint32_t valueLen, uint32_t prefixLen) {
    if (valueLen >= kPieceSize - prefixLen) {
        DORVEX_LOG_WARN(DORVEX_WARN_ATTR_TOO_LONG, "attribute name too long, which is invalid.");
        return kPieceSize - 1 - prefixLen;
    }
    return valueLen;
}

// InternalMakeReadableAttr: builds "prefix" + value in piece (zero-filled
// by the caller). The value bytes are copied as they stand: no
// escaping and no character-set conversion; a zero byte in the value ends
// the piece there.
void InternalMakeReadableAttr(char (&piece)[kPieceSize], uint32_t valueLen,
                              const uint8_t *valueData, const char *prefix) {
    const std::string_view head(prefix);
    std::copy(head.begin(), head.end(), piece);
    const auto prefixLen = static_cast<uint32_t>(head.size());
    const uint32_t copyLen = valueData == nullptr ? 0 : InternalGetMaxAttrLen(valueLen, prefixLen);
    std::copy_n(valueData, copyLen, piece + prefixLen);
    piece[prefixLen + copyLen] = '\0';
}

}  // namespace

int32_t DorvexCompareX509Name(const DorvexX509Name *a, const DorvexX509Name *b) {
    if (a == nullptr || b == nullptr) {
        return static_cast<int32_t>(DORVEX_ERR_PARAM);
    }
    if (a->count != b->count || a->count > DRX_X509_NAME_MAX_RDNS) {
        return -1;
    }
    // Only the first attribute of each RDN takes part (bytes only, no
    // RFC 5280 7.1 normalisation): a name is matched as it was issued.
    for (uint32_t i = 0; i < a->count; ++i) {
        const DorvexX509AttrEntry &x = a->rdns[i].attrs[0];
        const DorvexX509AttrEntry &y = b->rdns[i].attrs[0];
        if (DorvexCompareAsnOcts(&x.type, &y.type) != 0 ||
            DorvexCompareAsnOcts(&x.value, &y.value) != 0) {
            return -1;
        }
    }
    return 0;
}

uint32_t DorvexConvertFromX509Name(const DorvexX509Name *name, char **str, uint32_t *len) {
    if (name == nullptr || str == nullptr || len == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    void *block = nullptr;
    const uint32_t ret = DorvexMallocWith0(&block, kNameBufSize);
    if (ret != DORVEX_OK) {
        return ret;
    }
    char *out = static_cast<char *>(block);
    uint32_t used = 0;
    for (const DorvexX509AttrBundle &rdn : RdnsOf(*name)) {
        for (const DorvexX509AttrEntry &attr : AttrsOf(rdn)) {
            char piece[kPieceSize] = {};
            const int32_t aoid = DorvexFindAoid(&attr.type);
            if (aoid == AOID_UNKNOWN) {
                DORVEX_LOG_ERR(DORVEX_ERR_NAME_ATTR, "unknown attribute type in name.");
                DorvexFree(block);
                return DORVEX_ERR_NAME_ATTR;
            }
            InternalMakeReadableAttr(piece, attr.value.len, attr.value.data, AttrPrefix(aoid));
            const auto pieceLen = static_cast<uint32_t>(std::strlen(piece));
            // The rest of an RDN that does not fit is dropped; a later,
            // shorter RDN may still fit.
            if (used + pieceLen + 1 > DRX_X509_NAME_STR_MAX) {
                break;
            }
            if (used != 0) {
                out[used++] = ',';
            }
            std::copy_n(piece, pieceLen, out + used);
            used += pieceLen;
        }
    }
    *str = out;
    *len = used;
    return DORVEX_OK;
}

uint32_t DorvexConvertFromTime(const DorvexAsnOcts *time, DorvexDatetime *out) {
    constexpr uint32_t kUtcLen = 13;          // YYMMDDHHMMSSZ
    constexpr uint32_t kGeneralizedLen = 15;  // YYYYMMDDHHMMSSZ
    if (time == nullptr || out == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const uint8_t *text = time->data;
    const uint8_t *rest = nullptr;
    if (time->tagCode == DRX_ASN_UTC_TIME && time->len == kUtcLen && text != nullptr) {
        // RFC 5280 4.1.2.5.1: YY below 50 is 20YY, otherwise 19YY.
        const uint8_t yy = TwoDigits(text);
        out->year = static_cast<uint16_t>(yy < 50 ? 2000 + yy : 1900 + yy);
        rest = text + 2;
    } else if (time->tagCode == DRX_ASN_GENERALIZED_TIME && time->len == kGeneralizedLen &&
               text != nullptr) {
        uint32_t year = 0;
        for (int i = 0; i < 4; ++i) {
            year = year * 10 + static_cast<uint32_t>(text[i] - '0');
        }
        out->year = static_cast<uint16_t>(year);
        rest = text + 4;
    } else {
        // Fractional seconds, offsets from UTC and UTCTime without seconds
        // are not DER for certificates (RFC 5280 4.1.2.5) and are refused.
        DORVEX_LOG_ERR(DORVEX_ERR_TIME_FORMAT, "unsupported time format, tag %u length %u.",
                       time->tagCode, time->len);
        return DORVEX_ERR_TIME_FORMAT;
    }
    out->month = TwoDigits(rest);
    out->day = TwoDigits(rest + 2);
    out->hour = TwoDigits(rest + 4);
    out->minute = TwoDigits(rest + 6);
    out->second = TwoDigits(rest + 8);
    return DORVEX_OK;
}

uint32_t DorvexConvertDatetimeToTime(const DorvexAsnOcts *time, int64_t *seconds) {
    if (time == nullptr || seconds == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    DorvexDatetime datetime{};
    const uint32_t ret = DorvexConvertFromTime(time, &datetime);
    if (ret != DORVEX_OK) {
        return ret;
    }
    *seconds = DorvexMktime(&datetime);
    return DORVEX_OK;
}
