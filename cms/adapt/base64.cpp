// Base64 decoding (RFC 4648 alphabet) of PEM bodies.
#include <stdint.h>

#include <array>
#include <span>

#include "cms/adapt/adapt.h"

namespace {

constexpr uint8_t kPad = 64;       // value of "="
constexpr uint8_t kInvalid = 127;  // not in the alphabet

// 7-bit character code -> value; built from the alphabet so it can be read
// against RFC 4648 table 1.
constexpr std::array<uint8_t, 128> MakeDecMap() {
    std::array<uint8_t, 128> map{};
    for (auto &v : map) {
        v = kInvalid;
    }
    constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (uint8_t i = 0; i < 64; ++i) {
        map[static_cast<uint8_t>(alphabet[i])] = i;
    }
    map['='] = kPad;
    return map;
}

constexpr std::array<uint8_t, 128> g_drxBase64DecMap = MakeDecMap();

static_assert(g_drxBase64DecMap['A'] == 0 && g_drxBase64DecMap['z'] == 51);
static_assert(g_drxBase64DecMap['0'] == 52 && g_drxBase64DecMap['/'] == 63);
static_assert(g_drxBase64DecMap['\t'] == kInvalid && g_drxBase64DecMap['\r'] == kInvalid);

struct Count {
    uint32_t significant;  // alphabet characters and "="
    uint32_t pads;         // "=" only
};

// First pass: validates the text and counts its characters. Line breaks (LF,
// or CR LF) may stand anywhere, blanks only in front of a line break or at
// the end; "=" may only close the text, at most twice.
uint32_t InternalBase64Count(std::span<const uint8_t> src, Count *count) {
    size_t i = 0;
    uint32_t n = 0;
    uint32_t p = 0;
    while (i < src.size()) {
        size_t blanks = 0;
        while (i < src.size() && src[i] == ' ') {
            ++i;
            ++blanks;
        }
        if (i == src.size()) {
            break;  // trailing blanks
        }
        uint8_t c = src[i];
        if (c == '\r' && i + 1 < src.size() && src[i + 1] == '\n') {
            ++i;  // the LF is stepped over in the next round
            continue;
        }
        if (c == '\n') {
            ++i;
            continue;
        }
        if (blanks > 0) {
            return DORVEX_ERR_BASE64;  // a blank inside a line
        }
        if (c == '=') {
            if (++p > 2) {
                return DORVEX_ERR_BASE64;
            }
        } else if (c >= g_drxBase64DecMap.size() || g_drxBase64DecMap[c] == kInvalid || p > 0) {
            // Outside the alphabet (a lone CR and tabs included), or data after padding.
            return DORVEX_ERR_BASE64;
        }
        ++n;
        ++i;
    }
    if (n == 0) {
        return DORVEX_ERR_BASE64;
    }
    *count = {n, p};
    return DORVEX_OK;
}

// Second pass over validated text. Every full group of four characters
// gives 3 bytes, less one per "=" seen so far; a trailing group of 1 to 3
// characters gives nothing. This never writes more than the needed length
// computed from the counts, which the caller has checked against capacity.
uint32_t InternalBase64Write(std::span<const uint8_t> src, uint8_t *dst) {
    uint32_t acc = 0;
    uint32_t inGroup = 0;
    uint32_t left = 3;  // bytes a padded group still yields
    uint32_t written = 0;
    for (uint8_t c : src) {
        if (c == '\r' || c == '\n' || c == ' ') {
            continue;
        }
        uint8_t v = g_drxBase64DecMap[c];
        acc = (acc << 6) | (v & 63u);
        if (v == kPad) {
            --left;
        }
        if (++inGroup < 4) {
            continue;
        }
        inGroup = 0;
        dst[written++] = static_cast<uint8_t>(acc >> 16);
        if (left != 1) {
            dst[written++] = static_cast<uint8_t>(acc >> 8);
        }
        if (left != 1 && left != 2) {
            dst[written++] = static_cast<uint8_t>(acc);
        }
    }
    return written;
}

}  // namespace

extern "C" uint32_t DorvexBase64Decode(const uint8_t *src, int32_t srcLength, uint8_t *dst,
                                       uint32_t *dstLength) {
    if (srcLength == 0 || dstLength == nullptr || src == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    // A negative length holds no characters and fails as empty text.
    std::span<const uint8_t> text(src, srcLength > 0 ? static_cast<size_t>(srcLength) : 0);
    Count count{};
    uint32_t ret = InternalBase64Count(text, &count);
    if (ret != DORVEX_OK) {
        return ret;
    }
    // 64-bit so that a text near 2 GiB cannot wrap to a small length; the
    // result is below 2^31 and fits.
    uint64_t bits = static_cast<uint64_t>(count.significant) * 6 + 7;
    uint32_t needed = static_cast<uint32_t>(bits / 8) - count.pads;
    if (dst == nullptr || static_cast<int64_t>(static_cast<int32_t>(*dstLength)) < needed) {
        *dstLength = needed;
        return DORVEX_OK;
    }
    *dstLength = InternalBase64Write(text, dst);
    return DORVEX_OK;
}
