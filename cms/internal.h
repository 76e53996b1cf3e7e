// What the public-interface sources of the CMS library share with each
// other: the trust-material intake (also used by signature verification and
// the CRL interface), whole-file reading, and the pending-verification
// record that a context owns.
#ifndef CMS_INTERNAL_H
#define CMS_INTERNAL_H

#include <cstdint>
#include <cstdio>
#include <string_view>

#include "cms/adapt/provider.h"
#include "cms/asn1/pkcs7.h"
#include "cms/asn1/x509.h"
#include "cms/dorvex.h"

// Shortest input that can hold a certificate or CRL; anything shorter is
// refused before decoding.
inline constexpr uint32_t kDrxMinInputLen = 38;

// Longest digest and signature a pending verification keeps.
#define DORVEX_MD_MAX_LEN 64u
#define DORVEX_SIG_MAX_LEN DORVEX_BIGINT_MAX_LEN

// DorvexMdInfo: one pending verification of detached content. A digest
// process has mdCtx (the content is hashed and compared with
// expectedDigest); a direct-signature process has verifyCtx (the content is
// the signed data and `signature` is checked at the end).
typedef struct DorvexMdInfo {
    DorvexMdCtx *mdCtx;
    uint32_t hashAlg;
    uint8_t expectedDigest[DORVEX_MD_MAX_LEN];
    uint32_t expectedDigestLen;
    DorvexCryptoVerifyCtx *verifyCtx;
    uint8_t signature[DORVEX_SIG_MAX_LEN];
    uint32_t signatureLen;
} DorvexMdInfo;

// InternalFreeMdInfo: destroys whichever contexts the DorvexMdInfo holds and
// frees it; null is ignored. Typed for DorvexListFree.
void InternalFreeMdInfo(void *info);

namespace drx {
using MdInfoPtr = Owned<DorvexMdInfo, InternalFreeMdInfo>;
}  // namespace drx

// InternalCheckCtx: DORVEX_ERR_NULL_CTX for a null context,
// DORVEX_ERR_CTX_SIZE for one whose size field is wrong; not logged.
uint32_t InternalCheckCtx(const DorvexVrfCtx *ctx);

// InternalOpenInputFile: opens an input file the caller names, only when
// it is a regular file (DorvexFileOpenRegular), and logs a refusal with the
// path: DORVEX_ERR_PARAM for an empty path, DORVEX_ERR_FILE_TYPE,
// DORVEX_ERR_FILE_OPEN. The caller closes *out with DorvexFileClose.
uint32_t InternalOpenInputFile(const char *path, FILE **out);

// InternalReadFile: reads a whole regular file of 1 to maxSize bytes into a
// new buffer (*data, *length), which the caller frees with DorvexFree. On
// failure nothing is handed out: DORVEX_ERR_PARAM for an empty path,
// DORVEX_ERR_FILE_OPEN, DORVEX_ERR_FILE_TYPE, DORVEX_ERR_FILE_EMPTY,
// DORVEX_ERR_FILE_TOO_LARGE, DORVEX_ERR_FILE_READ, or the allocator's code.
uint32_t InternalReadFile(const char *path, uint32_t maxSize, uint8_t **data, uint32_t *length);

// ---- PEM text (pem.cpp) -------------------------------------------------------

// One block of PEM text: "-----BEGIN <label>-----", the base64 body and the
// first "-----END ...-----" behind it.
struct DrxPemBlock {
    size_t start;            // offset of "-----BEGIN" in the text
    size_t end;              // offset behind the end marker; npos when there is none
    std::string_view whole;  // the block, or the rest of the text without an end marker
};

// InternalIsPem: whether the input starts with "-----BEGIN".
bool InternalIsPem(const uint8_t *data, uint32_t length);

// InternalPemNextBlock: the first block at or behind offset `from`; false
// when no "-----BEGIN" follows.
bool InternalPemNextBlock(std::string_view text, size_t from, DrxPemBlock *block);

// InternalPemHasLabel: whether the block's header is "-----BEGIN <label>-----".
bool InternalPemHasLabel(std::string_view whole, std::string_view label);

// InternalPemBody: the base64 text between the block's header and its
// footer "-----END <label>-----"; DORVEX_ERR_INPUT_FORMAT when the block has
// another header, another footer or no body.
uint32_t InternalPemBody(std::string_view whole, std::string_view label, std::string_view *body);

// InternalPemDerCapacity: bytes enough for the DER of any body of a text of
// textLength characters.
uint32_t InternalPemDerCapacity(size_t textLength);

// InternalPemDecodeBody: decodes a body into dst, whose capacity *length
// gives on entry; *length is the DER's length on success.
// DORVEX_ERR_INPUT_FORMAT for a body that decodes to nothing or does not
// fit, else the base64 decoder's code.
uint32_t InternalPemDecodeBody(std::string_view body, uint8_t *dst, uint32_t *length);

// InternalBase64Decode: decodes the base64 text [start, end) into a new
// buffer freed with DorvexFree. DORVEX_ERR_INPUT_FORMAT for text that decodes
// to nothing, else the base64 decoder's or allocator's code.
uint32_t InternalBase64Decode(const char *start, const char *end, uint8_t **data, uint32_t *length);

// InternalDecodeCertCrl: decodes the certificates and CRLs of a DER stream
// (records back to back) or of PEM text and appends them to certs and, when
// given, crls; CRLs are dropped when crls is null. The records point into
// buffers that the context owns (rawBuffers), never into `data`. Each
// decoded record holds one reference, which the caller drops (see
// InternalFreeCertList / InternalFreeCrlList), also after a failure, when
// the lists may hold what was decoded before it.
uint32_t InternalDecodeCertCrl(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t length,
                               DorvexList *certs, DorvexList *crls);

// InternalAddCertToStore: puts every certificate of the list into the
// context's store, in order. Certificates the store holds already are
// skipped silently; self-signed ones are skipped with a warning unless
// rootsAllowed. Stops at the first other failure and returns its code; what
// was stored before stays.
uint32_t InternalAddCertToStore(DorvexVrfCtx *ctx, const DorvexList *certs, bool rootsAllowed);

// InternalAddCrlToStore: the same for CRLs; duplicates are skipped silently.
// No signature or issuer check happens here.
uint32_t InternalAddCrlToStore(DorvexVrfCtx *ctx, const DorvexList *crls);

// Drop one reference of every record of the list and empty it.
void InternalFreeCertList(DorvexList *certs);
void InternalFreeCrlList(DorvexList *crls);

// ---- detached-signature verification (detached.cpp, timestamp.cpp) ----------

// InternalVerifyIssuerCert: the certificate must have the digitalSignature
// key usage and `requiredUsage` (DRX_EXKU_CODE_SIGNING or
// DRX_EXKU_TIME_STAMPING) in its extended key usage, and its path must
// verify at the context's verifyTime; time stamping is judged with strict
// revocation. DORVEX_ERR_CERT_USAGE, path verification's own code, or
// DORVEX_ERR_CERT_UNTRUSTED.
uint32_t InternalVerifyIssuerCert(DorvexVrfCtx *ctx, DorvexX509Cert *cert, uint32_t requiredUsage);

// DorvexPkcs7DetachedSignatureVerify: checks the signer's signature over its
// signed attributes (0x31, then the captured encoding after its first
// octet) with the certificate's key. 0 with *verified 1 or 0 when the check
// ran; DORVEX_ERR_SIGN_ALG for an unsupported digest, else the key
// extraction's or the provider's code.
uint32_t DorvexPkcs7DetachedSignatureVerify(const DorvexPkcs7SignedInfo *signerInfo,
                                            const DorvexX509Cert *cert, uint32_t *verified);

// InternalGetDigestFromSignerInfo: fills info->hashAlg and the expected
// digest from the signer's digest algorithm and message-digest attribute.
// DORVEX_ERR_DIGEST_ALG, or DORVEX_ERR_BUF_TOO_SMALL for a digest over 64 bytes.
uint32_t InternalGetDigestFromSignerInfo(const DorvexPkcs7SignedInfo *signerInfo,
                                         DorvexMdInfo *info);

// InternalHashContent: digest of data[0..length) with AOID_SHA256/384/512
// into digest (DORVEX_MD_MAX_LEN bytes) and *digestLen.
uint32_t InternalHashContent(const uint8_t *data, uint32_t length, uint32_t hashAlg,
                             uint8_t *digest, uint32_t *digestLen);

// InternalCheckSignerForm: the checks of one SignerInfo that need no key,
// made before any signature is checked. The digest algorithm must be SHA-2
// and the signature algorithm rsaEncryption or RSA with that digest
// (DORVEX_ERR_SIGN_ALG). With signed attributes there must be exactly one
// contentType, equal to `eContentType`, and exactly one messageDigest (RFC
// 5652 11.1, 11.2); without them `eContentType` must be id-data (RFC 5652
// 5.3); both DORVEX_ERR_PKCS7_DECODE.
uint32_t InternalCheckSignerForm(const DorvexPkcs7SignedInfo *signerInfo,
                                 const DorvexAsnOcts *eContentType);

// InternalVerifyTimeStamp: verifies the signer's timestamp token and sets
// the context's verifyTime to its generation time. The token's certificates
// join the store. A signer without a token fails with DORVEX_ERR_PARAM, a
// token without a signer with DORVEX_ERR_TS_SIGNATURE.
uint32_t InternalVerifyTimeStamp(DorvexVrfCtx *ctx, const DorvexPkcs7SignedInfo *signerInfo);

#endif  // CMS_INTERNAL_H
