// The library's one PEM reader (RFC 7468 text armour), used for the
// signature file and for certificate and CRL input alike.
#include <string_view>

#include "cms/adapt/adapt.h"
#include "cms/internal.h"

namespace {

constexpr std::string_view kBegin = "-----BEGIN";
constexpr std::string_view kBeginLabel = "-----BEGIN ";
constexpr std::string_view kEnd = "-----END";
constexpr std::string_view kEndLabel = "-----END ";
constexpr std::string_view kDashes = "-----";

}  // namespace

bool InternalIsPem(const uint8_t *data, uint32_t length) {
    return data != nullptr && length >= kBegin.size() &&
           std::string_view(reinterpret_cast<const char *>(data), kBegin.size()) == kBegin;
}

bool InternalPemNextBlock(std::string_view text, size_t from, DrxPemBlock *block) {
    const size_t start = text.find(kBegin, from);
    if (start == std::string_view::npos) {
        return false;
    }
    // "-----BEGIN" holds no dash after its fifth character, so the end
    // marker lies behind it and so does the label. Searching from the last
    // find on keeps a walk over many blocks linear in the text.
    const size_t endMarker = text.find(kEnd, start);
    const size_t closing = endMarker == std::string_view::npos
                               ? endMarker
                               : text.find(kDashes, endMarker + kEnd.size());
    block->start = start;
    if (closing == std::string_view::npos) {
        block->end = std::string_view::npos;
        block->whole = text.substr(start);
    } else {
        block->end = closing + kDashes.size();
        block->whole = text.substr(start, block->end - start);
    }
    return true;
}

bool InternalPemHasLabel(std::string_view whole, std::string_view label) {
    // Compared piece by piece: "CERTIFICATE REQUEST" is not "CERTIFICATE".
    return whole.starts_with(kBeginLabel) &&
           whole.substr(kBeginLabel.size(), label.size()) == label &&
           whole.substr(kBeginLabel.size() + label.size(), kDashes.size()) == kDashes;
}

uint32_t InternalPemBody(std::string_view whole, std::string_view label, std::string_view *body) {
    const size_t headerLen = kBeginLabel.size() + label.size() + kDashes.size();
    const size_t footerLen = kEndLabel.size() + label.size() + kDashes.size();
    if (!InternalPemHasLabel(whole, label) || whole.size() <= headerLen + footerLen) {
        return DORVEX_ERR_INPUT_FORMAT;
    }
    // A block ends at its first end marker, so its footer can only be its end.
    const std::string_view footer = whole.substr(whole.size() - footerLen);
    if (!footer.starts_with(kEndLabel) || footer.substr(kEndLabel.size(), label.size()) != label ||
        !footer.ends_with(kDashes)) {
        return DORVEX_ERR_INPUT_FORMAT;
    }
    // The body starts right behind the header; the base64 decoder steps over
    // the line breaks around it.
    *body = whole.substr(headerLen, whole.size() - headerLen - footerLen);
    return DORVEX_OK;
}

uint32_t InternalPemDecodeBody(std::string_view body, uint8_t *dst, uint32_t *length) {
    if (body.empty() || dst == nullptr || length == nullptr) {
        return DORVEX_ERR_INPUT_FORMAT;
    }
    if (body.size() > INT32_MAX) {
        return DORVEX_ERR_BASE64;
    }
    const uint32_t capacity = *length;
    uint32_t room = capacity;
    const uint32_t ret = DorvexBase64Decode(reinterpret_cast<const uint8_t *>(body.data()),
                                            static_cast<int32_t>(body.size()), dst, &room);
    if (ret != DORVEX_OK) {
        return ret;
    }
    // With too little room the decoder writes nothing and says how much it needs.
    if (room == 0 || room > capacity) {
        return DORVEX_ERR_INPUT_FORMAT;
    }
    *length = room;
    return DORVEX_OK;
}

uint32_t InternalPemDerCapacity(size_t textLength) {
    // Base64 gives three bytes for every four characters at most.
    return static_cast<uint32_t>(textLength / 4 * 3 + 3);
}
