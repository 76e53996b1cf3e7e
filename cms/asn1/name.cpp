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
    drx::BlockPtr<char> owned(static_cast<char *>(block));
    char *out = owned.get();
    uint32_t used = 0;
    for (const DorvexX509AttrBundle &rdn : RdnsOf(*name)) {
        for (const DorvexX509AttrEntry &attr : AttrsOf(rdn)) {
            char piece[kPieceSize] = {};
            const int32_t aoid = DorvexFindAoid(&attr.type);
            if (aoid == AOID_UNKNOWN) {
                DORVEX_LOG_ERR(DORVEX_ERR_NAME_ATTR, "unknown attribute type in name.");
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
    *str = owned.release();
    *len = used;
    return DORVEX_OK;
}

namespace {

// Digits only: a letter or sign is not a time.
bool AllDigits(const uint8_t *text, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
    }
    return true;
}

bool IsLeapYear(uint32_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// A real calendar date and time of day; no leap second (RFC 5280 4.1.2.5
// times are UTC with seconds 00-59).
bool ValidDatetime(const DorvexDatetime &t) {
    static constexpr uint8_t kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (t.year < 1 || t.month < 1 || t.month > 12 || t.hour > 23 || t.minute > 59 ||
        t.second > 59) {
        return false;
    }
    const uint32_t days = kDays[t.month - 1] + (t.month == 2 && IsLeapYear(t.year) ? 1 : 0);
    return t.day >= 1 && t.day <= days;
}

// A fraction of a second ".d...d" before the Z (X.690 11.7: at least one
// digit, no trailing zero); it is dropped, times count whole seconds.
bool ValidFraction(const uint8_t *text, uint32_t n) {
    return n >= 2 && text[0] == '.' && AllDigits(text + 1, n - 1) && text[n - 1] != '0';
}

// InternalConvertTime: UTCTime YYMMDDHHMMSSZ or GeneralizedTime
// YYYYMMDDHHMMSS[.f]Z, the fraction only when allowed; every character and
// the date itself checked.
uint32_t InternalConvertTime(const DorvexAsnOcts *time, DorvexDatetime *out, bool fraction) {
    constexpr uint32_t kUtcLen = 13;          // YYMMDDHHMMSSZ
    constexpr uint32_t kGeneralizedLen = 15;  // YYYYMMDDHHMMSSZ
    if (time == nullptr || out == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const uint8_t *text = time->data;
    const uint32_t len = time->len;
    DorvexDatetime parsed{};
    const uint8_t *rest = nullptr;
    bool ok = false;
    if (time->tagCode == DRX_ASN_UTC_TIME && len == kUtcLen && text != nullptr) {
        // RFC 5280 4.1.2.5.1: YY below 50 is 20YY, otherwise 19YY.
        ok = AllDigits(text, 12) && text[12] == 'Z';
        const uint8_t yy = TwoDigits(text);
        parsed.year = static_cast<uint16_t>(yy < 50 ? 2000 + yy : 1900 + yy);
        rest = text + 2;
    } else if (time->tagCode == DRX_ASN_GENERALIZED_TIME && len >= kGeneralizedLen &&
               text != nullptr) {
        ok = AllDigits(text, 14) && text[len - 1] == 'Z' &&
             (len == kGeneralizedLen || (fraction && ValidFraction(text + 14, len - 15)));
        parsed.year = static_cast<uint16_t>(TwoDigits(text) * 100 + TwoDigits(text + 2));
        rest = text + 4;
    }
    if (ok) {
        parsed.month = TwoDigits(rest);
        parsed.day = TwoDigits(rest + 2);
        parsed.hour = TwoDigits(rest + 4);
        parsed.minute = TwoDigits(rest + 6);
        parsed.second = TwoDigits(rest + 8);
        ok = ValidDatetime(parsed);
    }
    if (!ok) {
        // Offsets from UTC, UTCTime without seconds, letters, month 13 or
        // February 30 are no DER time (RFC 5280 4.1.2.5).
        DORVEX_LOG_ERR(DORVEX_ERR_TIME_FORMAT, "unsupported time format, tag %u length %u.",
                       time->tagCode, len);
        return DORVEX_ERR_TIME_FORMAT;
    }
    *out = parsed;
    return DORVEX_OK;
}

}  // namespace

uint32_t DorvexConvertFromTime(const DorvexAsnOcts *time, DorvexDatetime *out) {
    return InternalConvertTime(time, out, false);
}

uint32_t DorvexConvertFromGenTime(const DorvexAsnOcts *time, DorvexDatetime *out) {
    if (time != nullptr && time->tagCode != DRX_ASN_GENERALIZED_TIME) {
        DORVEX_LOG_ERR(DORVEX_ERR_TIME_FORMAT, "genTime is no GeneralizedTime.");
        return DORVEX_ERR_TIME_FORMAT;
    }
    return InternalConvertTime(time, out, true);
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
