// Detached CMS signature verification (RFC 5652 5.4, 5.6): Begin decodes the
// signature and checks every signer, leaving pending verifications in the
// context; Update feeds them the content; Final finishes them. Quick runs
// the three over a signature file and a content file.
//
// The content is never held whole: digests and verifiers take it in the
// pieces the caller passes, so memory does not grow with its size.
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <semaphore>
#include <string_view>
#include <thread>

#include "cms/adapt/adapt.h"
#include "cms/asn1/oid.h"
#include "cms/asn1/pkcs7.h"
#include "cms/asn1/pubkey.h"
#include "cms/internal.h"
#include "cms/pki/pki.h"

namespace {

using drx::BufferPtr;
using drx::FilePtr;
using drx::MdCtxPtr;
using drx::MdInfoPtr;
using drx::SignedPtr;
using drx::VerifyCtxPtr;

constexpr std::string_view kPemCmsLabel = "CMS";
constexpr std::string_view kPemPkcs7Label = "PKCS7";

// First key-usage octet: digitalSignature.
constexpr uint32_t kDrxKuDigitalSignature = 0x80;

uint32_t InternalNewMdInfo(MdInfoPtr *out) {
    void *block = nullptr;
    uint32_t ret = DorvexMallocWith0(&block, sizeof(DorvexMdInfo));
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to allocate verify process.");
        return ret;
    }
    out->reset(static_cast<DorvexMdInfo *>(block));
    return DORVEX_OK;
}

// The signature's DER, copied into a buffer that the context owns for as
// long as the store may refer to it.
//
// Certificates that Begin takes from a signature into the store point into
// the signature's bytes, and so does everything else decoded from them. The
// caller's bytes may be gone right after Begin (Quick frees its file buffer),
// so Begin always decodes from its own copy and parks it in rawBuffers.
// When Begin ends without the store having taken anything new (the usual
// case when a context verifies the same signer again), nothing refers to the
// copy any more and it is released, so repeated verifications on one
// context do not use up its 16 buffer slots.
class SignatureBuffer {
  public:
    explicit SignatureBuffer(DorvexVrfCtx *ctx) : ctx_(ctx), storedBefore_(ctx->pki->certs.count) {}
    SignatureBuffer(const SignatureBuffer &) = delete;
    SignatureBuffer &operator=(const SignatureBuffer &) = delete;

    // Hands `buffer` to the context; on failure the caller keeps it.
    uint32_t Keep(BufferPtr *buffer) {
        uint32_t ret = DorvexListAdd(&ctx_->rawBuffers, buffer->get());
        if (ret == DORVEX_OK) {
            kept_ = buffer->release();
        }
        return ret;
    }

    // Runs after every record decoded from the buffer has been released.
    ~SignatureBuffer() {
        DorvexList &buffers = ctx_->rawBuffers;
        if (kept_ == nullptr || ctx_->pki->certs.count != storedBefore_ || buffers.count <= 0 ||
            buffers.items[buffers.count - 1] != kept_) {
            return;
        }
        --buffers.count;
        DorvexFree(kept_);
    }

  private:
    DorvexVrfCtx *ctx_;
    int32_t storedBefore_;
    uint8_t *kept_ = nullptr;
};

// Decodes a SignedData from a buffer that `keeper` has taken over.
uint32_t InternalDecodeKeptDer(SignatureBuffer *keeper, BufferPtr der, uint32_t length,
                               SignedPtr *content) {
    const uint8_t *bytes = der.get();
    uint32_t ret = keeper->Keep(&der);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to keep signature buffer.");
        return DORVEX_ERR_CMS_DECODE;
    }
    DorvexPkcs7Content *decoded = nullptr;
    uint32_t used = 0;
    ret = DorvexPkcs7DecodeSigned(bytes, length, &decoded, &used);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to decode SignedData.");
        return DORVEX_ERR_CMS_DECODE;
    }
    content->reset(decoded);
    return DORVEX_OK;
}

// InternalPemDecodeCms: a signature in "CMS" or "PKCS7" armour, its first
// block; whatever follows that block is not read.
uint32_t InternalPemDecodeCms(SignatureBuffer *keeper, const uint8_t *data, uint32_t length,
                              SignedPtr *content) {
    const std::string_view text(reinterpret_cast<const char *>(data), length);
    DrxPemBlock block{};
    (void)InternalPemNextBlock(text, 0, &block);  // the caller saw "-----BEGIN" at 0
    std::string_view label;
    if (InternalPemHasLabel(block.whole, kPemCmsLabel)) {
        label = kPemCmsLabel;
    } else if (InternalPemHasLabel(block.whole, kPemPkcs7Label)) {
        label = kPemPkcs7Label;
    } else {
        DORVEX_LOG_ERR(DORVEX_ERR_CMS_DECODE, "Unknown PEM header of signature.");
        return DORVEX_ERR_CMS_DECODE;
    }
    std::string_view body;
    if (block.end == std::string_view::npos ||
        InternalPemBody(block.whole, label, &body) != DORVEX_OK) {
        DORVEX_LOG_ERR(DORVEX_ERR_CMS_DECODE, "PEM signature without end marker.");
        return DORVEX_ERR_CMS_DECODE;
    }
    BufferPtr der;
    uint32_t derLen = InternalPemDerCapacity(body.size());
    uint32_t ret = InternalAllocBuffer(derLen, &der);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_WARN(ret, "Failed to allocate PEM buffer.");
        return ret;
    }
    ret = InternalPemDecodeBody(body, der.get(), &derLen);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to decode base64 of signature.");
        return DORVEX_ERR_CMS_DECODE;
    }
    return InternalDecodeKeptDer(keeper, std::move(der), derLen, content);
}

// DER input is decoded from a copy as well; see SignatureBuffer.
uint32_t InternalDerDecodeCms(SignatureBuffer *keeper, const uint8_t *data, uint32_t length,
                              SignedPtr *content) {
    BufferPtr copy;
    uint32_t ret = InternalAllocBuffer(length, &copy);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to allocate signature buffer.");
        return ret;
    }
    memcpy(copy.get(), data, length);
    return InternalDecodeKeptDer(keeper, std::move(copy), length, content);
}

// InternalSignerScheme: how the signer's value is checked. A bare
// rsaEncryption label means PKCS #1 v1.5 with the signer's digest (RFC
// 3370 3.2); every other label must name that same digest.
uint32_t InternalSignerScheme(const DorvexPkcs7SignedInfo *signerInfo, int32_t digest,
                              DorvexSignScheme *scheme) {
    const DorvexX509AlgoIdentifier &label = signerInfo->signatureAlgorithm;
    if (DorvexFindAoid(&label.algorithm) == AOID_RSAENCRYPTION) {
        *scheme = DorvexSignScheme{DRX_SIG_RSA_PKCS1, static_cast<uint32_t>(digest), 0};
        return DORVEX_OK;
    }
    if (DorvexX509GetSignScheme(&label, scheme) != DORVEX_OK ||
        scheme->hashAlg != static_cast<uint32_t>(digest)) {
        DORVEX_LOG_ERR(DORVEX_ERR_SIGN_ALG,
                       "Signature algorithm does not fit the signer's digest.");
        return DORVEX_ERR_SIGN_ALG;
    }
    return DORVEX_OK;
}

// InternalCreateVerifyHandle: a signer without signed attributes signed the
// content itself; its signature is checked over the content at Final.
uint32_t InternalCreateVerifyHandle(DorvexVrfCtx *ctx, const DorvexPkcs7SignedInfo *signerInfo,
                                    const DorvexX509Cert *cert) {
    MdInfoPtr info;
    uint32_t ret = InternalNewMdInfo(&info);
    if (ret != DORVEX_OK) {
        return ret;
    }
    const int32_t hashAlg = DorvexGetHashAoidFromSign(&signerInfo->digestAlgorithm);
    if (hashAlg == AOID_UNKNOWN) {
        DORVEX_LOG_ERR(DORVEX_ERR_SIGN_ALG, "Unsupported digest algorithm of signer.");
        return DORVEX_ERR_SIGN_ALG;
    }
    DorvexSignScheme scheme{};
    ret = InternalSignerScheme(signerInfo, hashAlg, &scheme);
    if (ret != DORVEX_OK) {
        return ret;
    }
    // Owned by the record from here on, so every failure below releases it.
    ret = DorvexCryptoVerifyCreateCtx(&info->verifyCtx);
    if (ret == DORVEX_OK) {
        ret = DorvexX509CertVerifyInit(info->verifyCtx, cert, &scheme);
    }
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to init verify context.");
        return ret;
    }
    const DorvexAsnOcts &signature = signerInfo->signature;
    if (signature.len > DORVEX_SIG_MAX_LEN) {
        DORVEX_LOG_ERR(DORVEX_ERR_SIG_TOO_LONG, "Signature of %u bytes is too long.",
                       signature.len);
        return DORVEX_ERR_SIG_TOO_LONG;
    }
    if (signature.len > 0) {
        memcpy(info->signature, signature.data, signature.len);
    }
    info->signatureLen = signature.len;
    ret = DorvexListAdd(&ctx->processes, info.get());
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Too many verify processes.");
        return ret;
    }
    (void)info.release();
    return DORVEX_OK;
}

// InternalAddSignerInfoToVerifyProcess: signers that agree on the algorithm
// share one digest process, so the content is hashed once per algorithm.
// The same algorithm with another digest cannot both match one content.
uint32_t InternalAddSignerInfoToVerifyProcess(DorvexVrfCtx *ctx, MdInfoPtr info) {
    DorvexList &processes = ctx->processes;
    for (int32_t i = 0; i < processes.count && i < DORVEX_LIST_CAPACITY; ++i) {
        const auto *pending = static_cast<const DorvexMdInfo *>(processes.items[i]);
        if (pending == nullptr || pending->mdCtx == nullptr || pending->hashAlg != info->hashAlg) {
            continue;
        }
        if (pending->expectedDigestLen != info->expectedDigestLen ||
            memcmp(pending->expectedDigest, info->expectedDigest, info->expectedDigestLen) != 0) {
            DORVEX_LOG_ERR(DORVEX_ERR_DIGEST_CONFLICT,
                           "Message digest differs from a pending one of the same algorithm.");
            return DORVEX_ERR_DIGEST_CONFLICT;
        }
        return DORVEX_OK;
    }
    uint32_t ret = DorvexMdCreateCtx(&info->mdCtx);
    if (ret == DORVEX_OK) {
        ret = DorvexMdInit(info->mdCtx, info->hashAlg);
    }
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to init digest context.");
        return ret;
    }
    ret = DorvexListAdd(&processes, info.get());
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Too many verify processes.");
        return ret;
    }
    (void)info.release();
    return DORVEX_OK;
}

bool InternalHasSignedAttrs(const DorvexPkcs7SignedInfo *signerInfo) {
    return signerInfo->signedAttrsRaw.data != nullptr && signerInfo->signedAttrsRaw.len != 0;
}

// InternalVerifyCms: one signer info. Its form is checked first, then the
// timestamp: its time is the one at which the signer's certificate path is
// judged.
uint32_t InternalVerifyCms(DorvexVrfCtx *ctx, const DorvexPkcs7SignedInfo *signerInfo,
                           const DorvexAsnOcts *eContentType) {
    uint32_t ret = InternalCheckSignerForm(signerInfo, eContentType);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Signer info is not well formed.");
        return ret;
    }
    ret = InternalVerifyTimeStamp(ctx, signerInfo);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to verify timestamp of signer.");
        return ret;
    }
    DorvexX509Cert *cert = DorvexPkiFindCertByIssuerSn(ctx, &signerInfo->issuerAndSerial.issuer,
                                                       &signerInfo->issuerAndSerial.serialNumber);
    if (cert == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_SIGNER_CERT_NOT_FOUND, "Can't find certificate of signer.");
        return DORVEX_ERR_SIGNER_CERT_NOT_FOUND;
    }
    ret = InternalVerifyIssuerCert(ctx, cert, DRX_EXKU_CODE_SIGNING);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to verify certificate of signer.");
        return ret;
    }
    if (!InternalHasSignedAttrs(signerInfo)) {
        ret = InternalCreateVerifyHandle(ctx, signerInfo, cert);
        if (ret != DORVEX_OK) {
            DORVEX_LOG_ERR(ret, "Failed to create signature verify process.");
        }
        return ret;
    }
    uint32_t verified = 0;
    ret = DorvexPkcs7DetachedSignatureVerify(signerInfo, cert, &verified);
    // A key the provider refuses (too short, odd exponent), a label that
    // does not fit the key and an ECDSA value that is no DER say so themselves.
    if (ret == DORVEX_ERR_PUBKEY_TOO_SHORT || ret == DORVEX_ERR_PUBKEY_EXPONENT ||
        ret == DORVEX_ERR_PUBKEY_TOO_LONG || ret == DORVEX_ERR_SIGN_ALG ||
        ret == DORVEX_ERR_SIG_ENCODING) {
        DORVEX_LOG_ERR(ret, "Key of signer is refused.");
        return ret;
    }
    if (ret != DORVEX_OK || verified != 1) {
        DORVEX_LOG_ERR(DORVEX_ERR_SIGNATURE, "Signature over signed attributes does not verify.");
        return DORVEX_ERR_SIGNATURE;
    }
    MdInfoPtr info;
    ret = InternalNewMdInfo(&info);
    if (ret == DORVEX_OK) {
        ret = InternalGetDigestFromSignerInfo(signerInfo, info.get());
    }
    if (ret == DORVEX_OK) {
        ret = InternalAddSignerInfoToVerifyProcess(ctx, std::move(info));
    }
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to add digest verify process.");
    }
    return ret;
}

// InternalPieceSize: DORVEX_CONTENT_PIECE_SIZE, or less for a file known to
// be smaller. The piece is zero-filled when it is allocated, so a small file
// (the usual checksum file) would otherwise pay for touching 256 KiB. A file
// that grows while it is read is still read whole, in pieces of this size.
uint32_t InternalPieceSize(uint64_t fileSize) {
    // 0 is also what an unknown size reads as: then the full piece.
    return fileSize == 0 || fileSize > DORVEX_CONTENT_PIECE_SIZE ? DORVEX_CONTENT_PIECE_SIZE
                                                                 : static_cast<uint32_t>(fileSize);
}

// InternalHashWhileReading: a content of more than two pieces is read on a
// second thread into one piece while this thread hashes the other. Copying
// from the page cache costs about a fifth of SHA-256's time on a core with
// SHA instructions; overlapped, a 1 GiB check took 0.64 s instead of 0.73 s,
// 0.94 of the rate of hashing alone. Small files keep to one thread: the
// thread would cost more than the copy it hides.
// *started is false when no thread could be made, and nothing was read.
uint32_t InternalHashWhileReading(DorvexVrfCtx *ctx, FILE *file, uint32_t pieceSize,
                                  bool *started) {
    struct Slot {
        BufferPtr piece;
        uint32_t got = 0;
        std::binary_semaphore filled{0};
        // Up to 2: a stop may release a slot the reader has not taken yet.
        std::counting_semaphore<2> free{1};
    };
    std::array<Slot, 2> slots;
    for (Slot &slot : slots) {
        uint32_t ret = InternalAllocBuffer(pieceSize, &slot.piece);
        if (ret != DORVEX_OK) {
            *started = false;
            return ret;
        }
    }
    std::atomic<bool> stop{false};
    // A piece of 0 bytes ends the content, for a read error too (the caller
    // asks ferror afterwards).
    auto reader = [&] {
        for (size_t i = 0;; i ^= 1) {
            Slot &slot = slots[i];
            slot.free.acquire();
            if (stop.load()) {
                return;
            }
            slot.got = DorvexFileRead(slot.piece.get(), pieceSize, file);
            const bool end = slot.got == 0;
            slot.filled.release();
            if (end) {
                return;
            }
        }
    };
    std::thread thread;
    try {
        thread = std::thread(reader);
    } catch (...) {
        *started = false;
        return DORVEX_OK;
    }
    *started = true;
    uint32_t ret = DORVEX_OK;
    for (size_t i = 0;; i ^= 1) {
        Slot &slot = slots[i];
        slot.filled.acquire();
        if (slot.got == 0) {
            break;
        }
        ret = DorvexVerifyDetachSignatureUpdate(ctx, slot.piece.get(), slot.got);
        if (ret != DORVEX_OK) {
            stop.store(true);
            slots[0].free.release();
            slots[1].free.release();
            break;
        }
        slot.free.release();
    }
    thread.join();
    return ret;
}

// InternalUpdateContent: the content file in pieces of at most
// DORVEX_CONTENT_PIECE_SIZE bytes; an empty file passes nothing.
uint32_t InternalUpdateContent(DorvexVrfCtx *ctx, const char *path) {
    FILE *opened = nullptr;
    uint32_t ret = InternalOpenInputFile(path, &opened);
    FilePtr file(opened);
    if (ret != DORVEX_OK) {
        return ret;
    }
    // A request at least as large as stdio's own buffer is read straight
    // into the piece, one system call per piece: the piece size alone sets
    // how often the kernel is entered, and memory stays constant.
    const uint64_t fileSize = DorvexFileGetSize(file.get());
    const uint32_t pieceSize = InternalPieceSize(fileSize);
    bool threaded = false;
    if (fileSize > 2 * uint64_t{DORVEX_CONTENT_PIECE_SIZE}) {
        ret = InternalHashWhileReading(ctx, file.get(), pieceSize, &threaded);
        if (ret != DORVEX_OK) {
            return ret;
        }
    }
    if (!threaded) {
        BufferPtr piece;
        ret = InternalAllocBuffer(pieceSize, &piece);
        if (ret != DORVEX_OK) {
            return ret;
        }
        uint32_t got = 0;
        while ((got = DorvexFileRead(piece.get(), pieceSize, file.get())) > 0) {
            ret = DorvexVerifyDetachSignatureUpdate(ctx, piece.get(), got);
            if (ret != DORVEX_OK) {
                return ret;
            }
        }
    }
    // A read error also ends the reading; it must not pass for the end of a
    // shorter content.
    if (ferror(file.get()) != 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_FILE_READ, "Failed to read file '%s'.", path);
        return DORVEX_ERR_FILE_READ;
    }
    return DORVEX_OK;
}

uint32_t InternalCheckParamVerifyDetachSignatureBegin(const DorvexVrfCtx *ctx, const uint8_t *data,
                                                      uint32_t length) {
    uint32_t ret = InternalCheckCtx(ctx);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (data == nullptr || length == 0 || ctx->pki == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "Signature data is empty.");
        return DORVEX_ERR_PARAM;
    }
    if (length < kDrxMinInputLen) {
        DORVEX_LOG_ERR(DORVEX_ERR_INPUT_FORMAT, "Signature of %u bytes is too short.", length);
        return DORVEX_ERR_INPUT_FORMAT;
    }
    return DORVEX_OK;
}

uint32_t InternalCheckParmVerifyDetachSignatureUpdate(const DorvexVrfCtx *ctx, const uint8_t *data,
                                                      uint32_t length) {
    uint32_t ret = InternalCheckCtx(ctx);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (data == nullptr || length == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "Content data is empty.");
        return DORVEX_ERR_PARAM;
    }
    return DORVEX_OK;
}

uint32_t InternalCheckParamVerifyDetachSignatureFinal(const DorvexVrfCtx *ctx,
                                                      const uint32_t *result) {
    uint32_t ret = InternalCheckCtx(ctx);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (result == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "Result pointer is null.");
        return DORVEX_ERR_PARAM;
    }
    return DORVEX_OK;
}

uint32_t InternalCheckParamVerifyDetachSignatureQuick(const DorvexVrfCtx *ctx,
                                                      const char *contentPath,
                                                      const char *signaturePath,
                                                      const uint32_t *result) {
    uint32_t ret = InternalCheckCtx(ctx);
    if (ret != DORVEX_OK) {
        return ret;
    }
    if (signaturePath == nullptr || result == nullptr || contentPath == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "Path or result pointer is null.");
        return DORVEX_ERR_PARAM;
    }
    return DORVEX_OK;
}

// Final empties the pending list on every way out.
struct ProcessesRelease {
    DorvexList *processes;
    ~ProcessesRelease() { DorvexListFree(processes, InternalFreeMdInfo); }
};

}  // namespace

uint32_t InternalCheckSignerForm(const DorvexPkcs7SignedInfo *signerInfo,
                                 const DorvexAsnOcts *eContentType) {
    if (signerInfo == nullptr || eContentType == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const int32_t digest = DorvexFindAoid(&signerInfo->digestAlgorithm.algorithm);
    if (digest != AOID_SHA256 && digest != AOID_SHA384 && digest != AOID_SHA512) {
        DORVEX_LOG_ERR(DORVEX_ERR_SIGN_ALG, "Digest algorithm of signer is not SHA-2.");
        return DORVEX_ERR_SIGN_ALG;
    }
    // The label names a scheme with the digest the signer declared (or an
    // RSA key alone); whether it fits the key is seen when the key is used.
    DorvexSignScheme scheme{};
    const uint32_t ret = InternalSignerScheme(signerInfo, digest, &scheme);
    if (ret != DORVEX_OK) {
        return ret;
    }
    const bool oid = eContentType->tagClass == DRX_ASN_CLASS_UNIVERSAL &&
                     eContentType->tagCode == DRX_ASN_OID && eContentType->len != 0;
    if (!InternalHasSignedAttrs(signerInfo)) {
        if (!oid || DorvexFindAoid(eContentType) != AOID_PKCS7_DATA) {
            DORVEX_LOG_ERR(DORVEX_ERR_PKCS7_DECODE,
                           "Content other than data signed without signed attributes.");
            return DORVEX_ERR_PKCS7_DECODE;
        }
        return DORVEX_OK;
    }
    const DorvexX509SignedAttrs &attrs = signerInfo->signedAttrs;
    if (attrs.contentTypeCount != 1 || attrs.messageDigestCount != 1) {
        DORVEX_LOG_ERR(DORVEX_ERR_PKCS7_DECODE,
                       "Signed attributes hold %u content types and %u message digests.",
                       attrs.contentTypeCount, attrs.messageDigestCount);
        return DORVEX_ERR_PKCS7_DECODE;
    }
    // Otherwise the signature could be taken for one over another kind of
    // content than the one it names (RFC 5652 11.1).
    if (!oid || attrs.contentType.tagCode != DRX_ASN_OID ||
        DorvexCompareAsnOcts(&attrs.contentType, eContentType) != 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_PKCS7_DECODE,
                       "Content type attribute differs from the encapsulated content type.");
        return DORVEX_ERR_PKCS7_DECODE;
    }
    return DORVEX_OK;
}

uint32_t InternalVerifyIssuerCert(DorvexVrfCtx *ctx, DorvexX509Cert *cert, uint32_t requiredUsage) {
    if (ctx == nullptr || cert == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const DorvexX509CertExts &ext = cert->certInfo.extensions;
    if ((ext.keyUsage & kDrxKuDigitalSignature) == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_CERT_USAGE, "Certificate is not for digital signature.");
        return DORVEX_ERR_CERT_USAGE;
    }
    if ((ext.extKeyUsage & requiredUsage) == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_CERT_USAGE, "Certificate lacks extended key usage 0x%x.",
                       requiredUsage);
        return DORVEX_ERR_CERT_USAGE;
    }
    // RFC 3161 2.3: a time-stamping key serves that purpose alone, and says
    // so in a critical extension.
    if (requiredUsage == DRX_EXKU_TIME_STAMPING &&
        (ext.extKeyUsage != DRX_EXKU_TIME_STAMPING || ext.extKeyUsageCritical != 1)) {
        DORVEX_LOG_ERR(DORVEX_ERR_CERT_USAGE,
                       "Time-stamping usage must be the only one and critical.");
        return DORVEX_ERR_CERT_USAGE;
    }
    // A time-stamping authority vouches for the time every other check uses,
    // so its revocation counts whatever the date says.
    const uint32_t strict = requiredUsage == DRX_EXKU_TIME_STAMPING ? 1 : 0;
    uint32_t valid = 0;
    uint32_t ret = DorvexPkiVerifyCert(ctx, cert, 1, strict, &valid);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to verify certificate path.");
        return ret;
    }
    if (valid != 1) {
        DORVEX_LOG_ERR(DORVEX_ERR_CERT_UNTRUSTED, "Certificate is not trusted.");
        return DORVEX_ERR_CERT_UNTRUSTED;
    }
    return DORVEX_OK;
}

uint32_t DorvexPkcs7DetachedSignatureVerify(const DorvexPkcs7SignedInfo *signerInfo,
                                            const DorvexX509Cert *cert, uint32_t *verified) {
    if (signerInfo == nullptr || cert == nullptr || verified == nullptr) {
        DORVEX_LOG_ERR(DORVEX_ERR_PARAM, "Certificate is null.");
        return DORVEX_ERR_PARAM;
    }
    *verified = 0;
    const int32_t hashAlg = DorvexGetHashAoidFromSign(&signerInfo->digestAlgorithm);
    if (hashAlg == AOID_UNKNOWN) {
        DORVEX_LOG_ERR(DORVEX_ERR_SIGN_ALG, "Unsupported digest algorithm of signer.");
        return DORVEX_ERR_SIGN_ALG;
    }
    const DorvexAsnOcts &attrs = signerInfo->signedAttrsRaw;
    // At least the tag octet that is replaced and one octet after it.
    if (attrs.data == nullptr || attrs.len < 2) {
        DORVEX_LOG_ERR(DORVEX_ERR_PKCS7_DECODE, "No signed attributes.");
        return DORVEX_ERR_PKCS7_DECODE;
    }
    DorvexSignScheme scheme{};
    uint32_t ret = InternalSignerScheme(signerInfo, hashAlg, &scheme);
    if (ret != DORVEX_OK) {
        return ret;
    }
    DorvexCryptoVerifyCtx *created = nullptr;
    ret = DorvexCryptoVerifyCreateCtx(&created);
    VerifyCtxPtr vctx(created);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to create verify context.");
        return ret;
    }
    // RFC 5652 5.4: the signature covers the attributes with the SET tag
    // (0x31) in place of the [0] tag they are carried under.
    const auto tag = static_cast<uint8_t>((attrs.tagClass << 6) | (attrs.constructed << 5) |
                                          (attrs.tagCode & 0x1F));
    uint32_t valid = 0;
    ret = DorvexX509CertVerifyInit(vctx.get(), cert, &scheme);
    if (ret == DORVEX_OK) {
        ret = DorvexCryptoVerifyUpdate(vctx.get(), &tag, 1);
    }
    if (ret == DORVEX_OK) {
        ret = DorvexCryptoVerifyUpdate(vctx.get(), attrs.data + 1, attrs.len - 1);
    }
    if (ret == DORVEX_OK) {
        ret = DorvexCryptoVerifyFinal(vctx.get(), signerInfo->signature.data,
                                      signerInfo->signature.len, &valid);
    }
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to init verify context.");
        return ret;
    }
    *verified = valid == 1 ? 1 : 0;
    return DORVEX_OK;
}

uint32_t InternalGetDigestFromSignerInfo(const DorvexPkcs7SignedInfo *signerInfo,
                                         DorvexMdInfo *info) {
    if (signerInfo == nullptr || info == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    const int32_t hashAlg = DorvexGetHashAoidFromSign(&signerInfo->digestAlgorithm);
    if (hashAlg == AOID_UNKNOWN) {
        DORVEX_LOG_ERR(DORVEX_ERR_DIGEST_ALG, "Unsupported digest algorithm of signer.");
        return DORVEX_ERR_DIGEST_ALG;
    }
    const DorvexAsnOcts &digest = signerInfo->signedAttrs.messageDigest;
    if (digest.len > DORVEX_MD_MAX_LEN) {
        DORVEX_LOG_ERR(DORVEX_ERR_BUF_TOO_SMALL, "Message digest of %u bytes is too long.",
                       digest.len);
        return DORVEX_ERR_BUF_TOO_SMALL;
    }
    if (digest.len > 0) {
        memcpy(info->expectedDigest, digest.data, digest.len);
    }
    info->expectedDigestLen = digest.len;
    info->hashAlg = static_cast<uint32_t>(hashAlg);
    return DORVEX_OK;
}

uint32_t InternalHashContent(const uint8_t *data, uint32_t length, uint32_t hashAlg,
                             uint8_t *digest, uint32_t *digestLen) {
    if (digest == nullptr || digestLen == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    DorvexMdCtx *created = nullptr;
    uint32_t ret = DorvexMdCreateCtx(&created);
    MdCtxPtr md(created);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to create digest context.");
        return ret;
    }
    if ((ret = DorvexMdInit(md.get(), hashAlg)) != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to init digest context.");
        return ret;
    }
    if ((ret = DorvexMdUpdate(md.get(), data, length)) != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to update digest.");
        return ret;
    }
    uint32_t capacity = DORVEX_MD_MAX_LEN;
    if ((ret = DorvexMdFinal(md.get(), digest, digestLen, &capacity)) != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to finish digest.");
        return ret;
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexVerifyDetachSignatureBegin(DorvexVrfCtx *ctx, const uint8_t *data,
                                                     uint32_t length) {
    uint32_t ret = InternalCheckParamVerifyDetachSignatureBegin(ctx, data, length);
    if (ret != DORVEX_OK) {
        return ret;
    }
    // Declared before the record, so it is released after the record is.
    SignatureBuffer keeper(ctx);
    SignedPtr content;
    ret = InternalIsPem(data, length) ? InternalPemDecodeCms(&keeper, data, length, &content)
                                      : InternalDerDecodeCms(&keeper, data, length, &content);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to decode signature.");
        return ret;
    }
    DorvexPkcs7SignedData &signedData = content->signedData;
    // A detached signature names its content but does not carry it; and one
    // without a signer vouches for nothing (RFC 5652 5.1 allows both, but
    // neither can authenticate a package).
    if (signedData.contentInfo.content.len != 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_PKCS7_DECODE, "Detached signature carries content.");
        return DORVEX_ERR_PKCS7_DECODE;
    }
    const DorvexPkcs7SignedInfoBundle &signers = signedData.signerInfos;
    if (signers.count == 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_PKCS7_DECODE, "Signature carries no signer.");
        return DORVEX_ERR_PKCS7_DECODE;
    }
    if (signedData.certList.count > 0) {
        // A signature is no source of trust: self-signed certificates stay out.
        ret = InternalAddCertToStore(ctx, &signedData.certList, false);
        if (ret != DORVEX_OK) {
            DORVEX_LOG_ERR(ret, "Failed to add certificates of signature.");
            return ret;
        }
    }
    for (uint32_t i = 0; i < signers.count && i < DRX_PKCS7_MAX_SIGNERS; ++i) {
        ret = InternalVerifyCms(ctx, &signers.signerInfo[i], &signedData.contentInfo.contentType);
        if (ret != DORVEX_OK) {
            DORVEX_LOG_ERR(ret, "Failed to verify signer info.");
            return ret;
        }
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexVerifyDetachSignatureUpdate(DorvexVrfCtx *ctx, const uint8_t *data,
                                                      uint32_t length) {
    uint32_t ret = InternalCheckParmVerifyDetachSignatureUpdate(ctx, data, length);
    if (ret != DORVEX_OK) {
        return ret;
    }
    const DorvexList &processes = ctx->processes;
    if (processes.count <= 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_NO_PROCESS, "No pending verify process.");
        return DORVEX_ERR_NO_PROCESS;
    }
    for (int32_t i = 0; i < processes.count && i < DORVEX_LIST_CAPACITY; ++i) {
        auto *info = static_cast<DorvexMdInfo *>(processes.items[i]);
        if (info != nullptr && info->mdCtx != nullptr) {
            ret = DorvexMdUpdate(info->mdCtx, data, length);
        } else if (info != nullptr && info->verifyCtx != nullptr) {
            ret = DorvexCryptoVerifyUpdate(info->verifyCtx, data, length);
        } else {
            ret = DORVEX_ERR_NO_PROCESS;
        }
        if (ret != DORVEX_OK) {
            DORVEX_LOG_ERR(ret, "Failed to update verify process %d.", i);
            return ret;
        }
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexVerifyDetachSignatureFinal(DorvexVrfCtx *ctx, uint32_t *result) {
    uint32_t ret = InternalCheckParamVerifyDetachSignatureFinal(ctx, result);
    if (ret != DORVEX_OK) {
        return ret;
    }
    // Nothing pending means nothing was verified: never a match.
    *result = 0;
    if (ctx->processes.count <= 0) {
        DORVEX_LOG_ERR(DORVEX_ERR_NO_PROCESS, "No pending verify process.");
        return DORVEX_ERR_NO_PROCESS;
    }
    *result = 1;
    ProcessesRelease release{&ctx->processes};
    const DorvexList &processes = ctx->processes;
    for (int32_t i = 0; i < processes.count && i < DORVEX_LIST_CAPACITY; ++i) {
        auto *info = static_cast<DorvexMdInfo *>(processes.items[i]);
        uint32_t matches = 0;
        if (info != nullptr && info->mdCtx != nullptr) {
            uint8_t digest[DORVEX_MD_MAX_LEN] = {};
            uint32_t digestLen = 0;
            uint32_t capacity = sizeof(digest);
            ret = DorvexMdFinal(info->mdCtx, digest, &digestLen, &capacity);
            matches = digestLen == info->expectedDigestLen &&
                      memcmp(digest, info->expectedDigest, digestLen) == 0;
        } else if (info != nullptr && info->verifyCtx != nullptr) {
            ret = DorvexCryptoVerifyFinal(info->verifyCtx, info->signature, info->signatureLen,
                                          &matches);
        } else {
            ret = DORVEX_ERR_SIGNATURE;
        }
        if (ret != DORVEX_OK) {
            *result = 0;
            DORVEX_LOG_ERR(ret, "Verify Signature Content failed.");
            return ret;
        }
        if (matches != 1) {
            *result = 0;
            return DORVEX_OK;
        }
    }
    return DORVEX_OK;
}

extern "C" uint32_t DorvexVerifyDetachSignatureQuick(DorvexVrfCtx *ctx, const char *contentPath,
                                                     const char *signaturePath, uint32_t *result) {
    uint32_t ret =
        InternalCheckParamVerifyDetachSignatureQuick(ctx, contentPath, signaturePath, result);
    if (ret != DORVEX_OK) {
        return ret;
    }
    *result = 0;
    uint8_t *bytes = nullptr;
    uint32_t length = 0;
    ret = InternalReadFile(signaturePath, DORVEX_MAX_FILE_SIZE, &bytes, &length);
    if (ret != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to read signature file.");
        return ret;
    }
    // Begin keeps its own copy of what the context needs.
    BufferPtr signature(bytes);
    if ((ret = DorvexVerifyDetachSignatureBegin(ctx, signature.get(), length)) != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to begin signature verification.");
        return ret;
    }
    if ((ret = InternalUpdateContent(ctx, contentPath)) != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to verify content file.");
        return ret;
    }
    uint32_t verdict = 0;
    if ((ret = DorvexVerifyDetachSignatureFinal(ctx, &verdict)) != DORVEX_OK) {
        DORVEX_LOG_ERR(ret, "Failed to finish signature verification.");
        return ret;
    }
    *result = verdict;
    return DORVEX_OK;
}
