// Trust-material intake: certificates and CRLs from DER streams or PEM text,
// in memory or in files, into a verify context's store.
//
// Decoded records point into the bytes they were decoded from, so the intake
// always decodes from a copy that the context owns (rawBuffers) and never
// from the caller's memory.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "cms/adapt/adapt.h"
#include "cms/asn1/pubkey.h"
#include "cms/internal.h"
#include "cms/pki/pki.h"

namespace {

using drx::BufferPtr;
using drx::CertPtr;
using drx::CrlPtr;
using drx::FilePtr;

constexpr std::string_view kPemCertLabel = "CERTIFICATE";
constexpr std::string_view kPemCrlLabel = "X509 CRL";

// Trailing bytes of a DER stream that decode as nothing are ignored when
// there are fewer than this (padding, a stray line break); more are an error.
constexpr uint32_t kDrxIgnoredTailMax = 33;

// Hands the buffer to the context, which frees it with the context.
uint32_t InternalKeepBuffer(DorvexVrfCtx *ctx, BufferPtr *buffer) {
    uint32_t ret = DorvexListAdd(&ctx->rawBuffers, buffer->get());
    if (ret == DORVEX_OK) {
        (void)buffer->release();
    }
    return ret;
}

// Damaged PEM blocks reported one by one; the rest are counted in one line,
// so a hostile file cannot flood the log.
constexpr uint32_t kDrxPemReportMax = 4;

// The DER of all PEM blocks of one text, decoded back to back into one
// buffer that the context keeps: a file of many blocks costs one of the
// context's buffer slots, not one per block. Base64 never decodes to more
// bytes than the text it comes from, so the buffer cannot run out.
struct PemDerArea {
    uint8_t *bytes = nullptr;
    uint32_t capacity = 0;
    uint32_t used = 0;
};

// InternalPemBlockDer: decodes the body of one PEM block labelled `label`
// into the next free bytes of `area`.
uint32_t InternalPemBlockDer(std::string_view whole, std::string_view label, PemDerArea *area,
                             const uint8_t **der, uint32_t *derLen) {
    std::string_view body;
    uint32_t ret = InternalPemBody(whole, label, &body);
    if (ret != DORVEX_OK) {
        return ret;
    }
    uint8_t *dst = area->bytes + area->used;
    uint32_t room = area->capacity - area->used;
    ret = InternalPemDecodeBody(body, dst, &room);
    if (ret != DORVEX_OK) {
        return ret;
    }
    *der = dst;
    *derLen = room;
    return DORVEX_OK;
}

// InternalPemDecodeCert: one "CERTIFICATE" block into `certs`, its DER in
// `area`. A failure leaves nothing in the list; the caller reports it and
// goes on with the next block.
uint32_t InternalPemDecodeCert(std::string_view block, PemDerArea *area, DorvexList *certs) {
    const uint8_t *der = nullptr;
    uint32_t derLen = 0;
    uint32_t ret = InternalPemBlockDer(block, kPemCertLabel, area, &der, &derLen);
    if (ret != DORVEX_OK) {
        return ret;
    }
    DorvexX509Cert *decoded = nullptr;
    uint32_t consumed = 0;
    ret = DorvexX509DecodeCert(der, derLen, &decoded, &consumed);
    CertPtr cert(decoded);
    if (ret != DORVEX_OK) {
        return ret;
    }
    ret = DorvexListAdd(certs, cert.get());
    if (ret != DORVEX_OK) {
        return ret;
    }
    (void)cert.release();
    area->used += derLen;
    return DORVEX_OK;
}

// InternalPemDecodeCrl: one "X509 CRL" block, as InternalPemDecodeCert. When
// the caller collects no CRLs the block is still decoded, so that a damaged
// one is reported, and then dropped.
uint32_t InternalPemDecodeCrl(std::string_view block, PemDerArea *area, DorvexList *crls) {
    const uint8_t *der = nullptr;
    uint32_t derLen = 0;
    uint32_t ret = InternalPemBlockDer(block, kPemCrlLabel, area, &der, &derLen);
    if (ret != DORVEX_OK) {
        return ret;
    }
    DorvexX509Crl *decoded = nullptr;
    uint32_t consumed = 0;
    ret = DorvexX509DecodeCrl(der, derLen, &decoded, &consumed);
    CrlPtr crl(decoded);
    if (ret != DORVEX_OK || crls == nullptr) {
        return ret;
    }
    ret = DorvexListAdd(crls, crl.get());
    if (ret != DORVEX_OK) {
        return ret;
    }
    (void)crl.release();
    area->used += derLen;
    return DORVEX_OK;
}

// InternalDecodePemCertCrl: walks the PEM blocks of the text. Certificate and
// CRL blocks are decoded, damaged ones reported and skipped, other labels
// (public keys, private keys, requests) skipped silently. Only a block
// without any end marker stops the walk. Every search starts where the last
// one ended, so the walk is linear in the text.
uint32_t InternalDecodePemCertCrl(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t length,
                                  DorvexList *certs, DorvexList *crls) {
    const std::string_view text(reinterpret_cast<const char *>(data), length);
    const uint32_t capacity = InternalPemDerCapacity(length);
    BufferPtr derBuffer;
    uint32_t ret = InternalAllocBuffer(capacity, &derBuffer);
    if (ret != DORVEX_OK) {
        return ret;
    }
    PemDerArea area{derBuffer.get(), capacity, 0};
    uint32_t damaged = 0;
    DrxPemBlock block{};
    for (size_t from = 0; InternalPemNextBlock(text, from, &block); from = block.end) {
        if (block.end == std::string_view::npos) {
            DORVEX_LOG_ERR(DORVEX_ERR_INPUT_FORMAT, "PEM block without end marker.");
            ret = DORVEX_ERR_INPUT_FORMAT;
            break;
        }
        // "CERTIFICATE REQUEST" and the like are skipped.
        uint32_t blockRet = DORVEX_OK;
        if (InternalPemHasLabel(block.whole, kPemCertLabel)) {
            blockRet = InternalPemDecodeCert(block.whole, &area, certs);
        } else if (InternalPemHasLabel(block.whole, kPemCrlLabel)) {
            blockRet = InternalPemDecodeCrl(block.whole, &area, crls);
        }
        if (blockRet != DORVEX_OK && ++damaged <= kDrxPemReportMax) {
            DORVEX_LOG_ERR(blockRet, "Invalid PEM block at offset %zu.", block.start);
        }
    }
    if (damaged > kDrxPemReportMax) {
        DORVEX_LOG_ERR(DORVEX_ERR_INPUT_FORMAT, "%u more invalid PEM blocks skipped.",
                       damaged - kDrxPemReportMax);
    }
    // Records decoded so far point into the buffer: it goes to the context
    // even when the walk stopped early, since the caller may keep them.
    if (area.used > 0) {
        const uint32_t keep = InternalKeepBuffer(ctx, &derBuffer);
        if (keep != DORVEX_OK) {
            DORVEX_LOG_ERR(keep, "Failed to keep PEM buffer.");
            // Nothing may point into a buffer that is about to be freed.
            InternalFreeCertList(certs);
            if (crls != nullptr) {
                InternalFreeCrlList(crls);
            }
            return keep;
        }
    }
    return ret;
}

// InternalDecodeStreamCertCrl: certificates and CRLs back to back, in any
// order, decoded from one copy that the context keeps.
uint32_t InternalDecodeStreamCertCrl(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t length,
                                     DorvexList *certs, DorvexList *crls) {
    BufferPtr copy;
    uint32_t ret = InternalAllocBuffer(length, &copy);
    if (ret != DORVEX_OK) {
        return ret;
    }
    memcpy(copy.get(), data, length);
    const uint8_t *bytes = copy.get();
    ret = InternalKeepBuffer(ctx, &copy);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to keep input buffer.");
        return ret;
    }
    uint32_t pos = 0;
    while (pos < length) {
        const uint8_t *at = bytes + pos;
        const uint32_t left = length - pos;
        uint32_t used = 0;
        DorvexX509Cert *decodedCert = nullptr;
        // A record that claims to use nothing, or more than there is, would
        // stall or overrun the walk; it counts as not decoded.
        const uint32_t certRet = DorvexX509DecodeCert(at, left, &decodedCert, &used);
        CertPtr cert(decodedCert);
        if (certRet == DORVEX_OK && used > 0 && used <= left) {
            ret = DorvexListAdd(certs, cert.get());
            if (ret != DORVEX_OK) {
                DORVEX_LOG_ERR(ret, "Too many certificates.");
                return ret;
            }
            (void)cert.release();
            pos += used;
            continue;
        }
        DorvexX509Crl *decodedCrl = nullptr;
        used = 0;
        const uint32_t crlRet = DorvexX509DecodeCrl(at, left, &decodedCrl, &used);
        CrlPtr crl(decodedCrl);
        if (crlRet == DORVEX_OK && used > 0 && used <= left) {
            if (crls != nullptr) {
                ret = DorvexListAdd(crls, crl.get());
                if (ret != DORVEX_OK) {
                    DORVEX_LOG_ERR(ret, "Too many CRLs.");
                    return ret;
                }
                (void)crl.release();
            }
            pos += used;
            continue;
        }
        if (left < kDrxIgnoredTailMax) {
            return DORVEX_OK;
        }
        if (crlRet != DORVEX_OK) {
            DORVEX_LOG_ERR(crlRet, "Undecodable data at offset %u.", pos);
        }
        return crlRet;
    }
    return DORVEX_OK;
}

// Entry checks of the in-memory intake; reported under their own names.
uint32_t InternalCheckParamVerifyAddCert(const DorvexVrfCtx *ctx, const uint8_t *data,
                                         uint32_t length) {
    uint32_t ret = InternalCheckCtx(ctx);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (data == nullptr || length == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "Certificate data is empty.");
        return DORVEX_ERR_PARAM;
    }
    return DORVEX_OK;
}

uint32_t InternalCheckParamVerifyAddCertFile(const DorvexVrfCtx *ctx, const char *path) {
    uint32_t ret = InternalCheckCtx(ctx);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (path == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "Certificate file path is null.");
        return DORVEX_ERR_PARAM;
    }
    return DORVEX_OK;
}

uint32_t InternalCheckParamVerifyAddCrl(const DorvexVrfCtx *ctx, const uint8_t *data,
                                        uint32_t length) {
    uint32_t ret = InternalCheckCtx(ctx);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (data == nullptr || length == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "CRL data is empty.");
        return DORVEX_ERR_PARAM;
    }
    return DORVEX_OK;
}

}  // namespace

void InternalFreeCertList(DorvexList *certs) {
    DorvexListFree(certs, DorvexX509FreeCertItem);
}

void InternalFreeCrlList(DorvexList *crls) {
    DorvexListFree(crls, DorvexX509FreeCrlItem);
}

uint32_t InternalOpenInputFile(const char *path, FILE **out) {
    if (path == nullptr || out == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    if (path[0] == '\0') {
        DORVEX_LOG_ERR(DORVEX_ERR_FILE_OPEN, "Empty file path.");
        return DORVEX_ERR_PARAM;
    }
    const uint32_t ret = DorvexFileOpenRegular(path, out);
    if (ret == DORVEX_ERR_FILE_TYPE) {
        DORVEX_LOG_ERR(ret, "File '%s' is not a regular file.", path);
    } else if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Can not open file '%s'.", path);
    }
    return ret;
}

uint32_t InternalReadFile(const char *path, uint32_t maxSize, uint8_t **data, uint32_t *length) {
    if (data == nullptr || length == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    FILE *opened = nullptr;
    uint32_t ret = InternalOpenInputFile(path, &opened);
    FilePtr file(opened);
    if (ret != DORVEX_OK) {
        return ret;
    }
    // Checked at full width, so a size beyond 32 bits cannot wrap to a small one.
    const uint64_t size = DorvexFileGetSize(file.get());
    if (size == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_FILE_EMPTY, "File '%s' is empty.", path);
        return DORVEX_ERR_FILE_EMPTY;
    }
    if (size > maxSize) {
        DORVEX_LOG_ERR(DORVEX_ERR_FILE_TOO_LARGE, "File '%s' is too large.", path);
        return DORVEX_ERR_FILE_TOO_LARGE;
    }
    BufferPtr buffer;
    ret = InternalAllocBuffer(size, &buffer);
    if (ret != DORVEX_OK) {
        return ret;
    }
    const auto want = static_cast<uint32_t>(size);
    if (DorvexFileRead(buffer.get(), want, file.get()) != want) {
        DORVEX_LOG_ERR(DORVEX_ERR_FILE_READ, "Failed to read file '%s'.", path);
        return DORVEX_ERR_FILE_READ;
    }
    *data = buffer.release();
    *length = want;
    return DORVEX_OK;
}

uint32_t InternalBase64Decode(const char *start, const char *end, uint8_t **data,
                              uint32_t *length) {
    if (start == nullptr || end == nullptr || data == nullptr || length == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    if (end <= start) {
        return DORVEX_ERR_INPUT_FORMAT;
    }
    if (end - start > INT32_MAX) {
        return DORVEX_ERR_BASE64;
    }
    const auto *src = reinterpret_cast<const uint8_t *>(start);
    const auto srcLen = static_cast<int32_t>(end - start);
    uint32_t needed = 0;
    uint32_t ret = DorvexBase64Decode(src, srcLen, nullptr, &needed);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (needed == 0) {
        return DORVEX_ERR_INPUT_FORMAT;
    }
    BufferPtr out;
    ret = InternalAllocBuffer(needed, &out);
    if (ret != DORVEX_OK) {
        return ret;
    }
    uint32_t written = needed;
    ret = DorvexBase64Decode(src, srcLen, out.get(), &written);
    if (ret != DORVEX_OK) {
        return ret;
    }
    *data = out.release();
    *length = written;
    return DORVEX_OK;
}

uint32_t InternalDecodeCertCrl(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t length,
                               DorvexList *certs, DorvexList *crls) {
    if (ctx == nullptr || data == nullptr || certs == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    if (length < kDrxMinInputLen) {
        DORVEX_LOG_ERR(DORVEX_ERR_INPUT_FORMAT, "Input of %u bytes is too short.", length);
        return DORVEX_ERR_INPUT_FORMAT;
    }
    if (InternalIsPem(data, length)) {
        return InternalDecodePemCertCrl(ctx, data, length, certs, crls);
    }
    return InternalDecodeStreamCertCrl(ctx, data, length, certs, crls);
}

uint32_t InternalAddCertToStore(DorvexVrfCtx *ctx, const DorvexList *certs, bool rootsAllowed) {
    if (ctx == nullptr || certs == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    for (int32_t i = 0; i < certs->count && i < DORVEX_LIST_CAPACITY; ++i) {
        auto *cert = static_cast<DorvexX509Cert *>(certs->items[i]);
        if (cert == nullptr) {
            continue;
        }
        if (!rootsAllowed) {
            uint32_t selfSigned = 0;
            uint32_t ret = DorvexX509IsSelfSigned(cert, &selfSigned);
            if (ret != DORVEX_OK) {
                DORVEX_LOG_ERR(ret, "Failed to check self sign for certificate.");
                return ret;
            }
            if (selfSigned == 1) {
                DORVEX_LOG_WARN(DORVEX_OK,
                                "There is a root certificate, which is not allowed when add crl "
                                "or cms.");
                continue;
            }
        }
        uint32_t ret = DorvexPkiStoreAddCert(ctx, cert);
        if (ret == DORVEX_ERR_CERT_EXISTS) {
            continue;
        }
        if (ret != DORVEX_OK) {
            DORVEX_LOG_ERR(ret, "Failed to add certificate into PKI context.");
            return ret;
        }
    }
    return DORVEX_OK;
}

uint32_t InternalAddCrlToStore(DorvexVrfCtx *ctx, const DorvexList *crls) {
    if (ctx == nullptr || crls == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    for (int32_t i = 0; i < crls->count && i < DORVEX_LIST_CAPACITY; ++i) {
        auto *crl = static_cast<DorvexX509Crl *>(crls->items[i]);
        if (crl == nullptr) {
            continue;
        }
        uint32_t ret = DorvexPkiStoreAddCrl(ctx, crl);
        if (ret != DORVEX_OK && ret != DORVEX_ERR_CRL_EXISTS) {
            return ret;
        }
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexVerifyAddCert(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t length) {
    uint32_t ret = InternalCheckParamVerifyAddCert(ctx, data, length);
    if (ret != DORVEX_OK) {
        return ret;
    }
    drx::CertList certs;
    ret = InternalDecodeCertCrl(ctx, data, length, &certs.list, nullptr);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to decode certificate.");
        return ret;
    }
    if (certs.list.count == 0) {
        DORVEX_LOG_ERR(DORVEX_FAIL, "No certificate found.");
        return DORVEX_FAIL;
    }
    // Trust anchors come in through here, so self-signed certificates are welcome.
    ret = InternalAddCertToStore(ctx, &certs.list, true);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to add certificate into store.");
        return ret;
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexVerifyAddCertFile(DorvexVrfCtx *ctx, const char *path) {
    uint32_t ret = InternalCheckParamVerifyAddCertFile(ctx, path);
    if (ret != DORVEX_OK) {
        return ret;
    }
    uint8_t *data = nullptr;
    uint32_t length = 0;
    ret = InternalReadFile(path, DORVEX_MAX_FILE_SIZE, &data, &length);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to read certificate file.");
        return ret;
    }
    BufferPtr guard(data);
    ret = DorvexVerifyAddCert(ctx, data, length);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to add certificate file.");
    }
    return ret;
}

extern "C" uint32_t DorvexVerifyAddCrl(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t length) {
    uint32_t ret = InternalCheckParamVerifyAddCrl(ctx, data, length);
    if (ret != DORVEX_OK) {
        return ret;
    }
    drx::CertList certs;
    drx::CrlList crls;
    ret = InternalDecodeCertCrl(ctx, data, length, &certs.list, &crls.list);
    if (ret != DORVEX_OK || crls.list.count == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_CRL_DECODE, "Failed to decode CRL.");
        return DORVEX_ERR_CRL_DECODE;
    }
    ret = InternalAddCrlToStore(ctx, &crls.list);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to add CRL into store.");
        return ret;
    }
    // CA certificates shipped with the CRLs may complete paths, but a CRL file
    // is no source of trust: self-signed ones stay out.
    ret = certs.list.count == 0 ? DORVEX_FAIL : InternalAddCertToStore(ctx, &certs.list, false);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_WARN(ret, "Failed to add certificate into store.");
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexVerifyAddCrlFile(DorvexVrfCtx *ctx, const char *path) {
    if (ctx == nullptr || path == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    if (ctx->size != DORVEX_VRF_CTX_SIZE) {
        return DORVEX_ERR_CTX_SIZE;
    }
    uint8_t *data = nullptr;
    uint32_t length = 0;
    uint32_t ret = InternalReadFile(path, DORVEX_MAX_CRL_FILE_SIZE, &data, &length);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to read CRL file.");
        return ret;
    }
    BufferPtr guard(data);
    ret = DorvexVerifyAddCrl(ctx, data, length);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to add CRL file.");
    }
    return ret;
}
