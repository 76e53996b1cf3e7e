// Public interface of the CMS verification library.
//
// A caller creates a verify context, feeds it certificates and CRLs (DER
// back to back, or PEM), runs verifications against it and frees it. Every
// function returns a result code of dorvex_errno.h, 0 on success.
#ifndef DORVEX_H
#define DORVEX_H

#include <stdint.h>

#include "cms/base/dorvex_errno.h"
#include "cms/base/vrf_ctx.h"

#ifdef __cplusplus
extern "C" {
#endif

// Value of DorvexCtxCreateParams.size.
#define DORVEX_CTX_CREATE_PARAMS_SIZE 72u

// Largest certificate or signature file the library reads, in bytes, and
// largest CRL file (32 MiB: a CRL of 100,000 entries is about 4 MB in DER).
#define DORVEX_MAX_FILE_SIZE 2000000u
#define DORVEX_MAX_CRL_FILE_SIZE (32u * 1024u * 1024u)

// Characters of the text DorvexGetVersion returns (terminator not counted).
#define DORVEX_VERSION_LEN 17u

// DorvexCtxCreateParams: `size` must be DORVEX_CTX_CREATE_PARAMS_SIZE; the
// rest is set to zero by the caller and not read.
typedef struct DorvexCtxCreateParams {
    uint64_t size;
    uint8_t reserved[64];
} DorvexCtxCreateParams;

// DorvexVerifyCreateCtx: a new context with an empty store in *ctx, freed
// with DorvexVrfCtxFree. DORVEX_ERR_PARAM for a null argument,
// DORVEX_ERR_CTX_SIZE when params->size is wrong, the allocator's code
// when memory runs out.
uint32_t DorvexVerifyCreateCtx(DorvexVrfCtx **ctx, const DorvexCtxCreateParams *params);

// DorvexVerifyAddCert: decodes certificates from a DER stream or PEM text
// and adds them to the store; self-signed roots are accepted, CRLs in the
// input are ignored. DORVEX_FAIL when the input holds no certificate. The
// context keeps its own copy of the bytes: the caller may free them at once.
uint32_t DorvexVerifyAddCert(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t length);

// DorvexVerifyAddCertFile: DorvexVerifyAddCert over a whole file of at most
// DORVEX_MAX_FILE_SIZE bytes.
uint32_t DorvexVerifyAddCertFile(DorvexVrfCtx *ctx, const char *path);

// DorvexVerifyAddCrl: adds the CRLs of a DER stream or PEM text to the
// store (DORVEX_ERR_CRL_DECODE when there is none or the input does not
// decode), then the CA certificates beside them, except self-signed ones,
// which are skipped with a warning. A problem with the certificates is only
// a warning: the result is 0 once the CRLs are in.
uint32_t DorvexVerifyAddCrl(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t length);

// DorvexVerifyAddCrlFile: DorvexVerifyAddCrl over a whole regular file of at
// most DORVEX_MAX_CRL_FILE_SIZE bytes.
uint32_t DorvexVerifyAddCrlFile(DorvexVrfCtx *ctx, const char *path);

// DorvexVrfCtxFree: releases the store, the pending verifications, the
// owned buffers and the context. DORVEX_ERR_PARAM for null, else 0.
uint32_t DorvexVrfCtxFree(DorvexVrfCtx *ctx);

// DorvexGetVersion: the library's release text, DORVEX_VERSION_LEN
// characters, constant and never freed.
const char *DorvexGetVersion(void);

// ---- detached signature verification ----------------------------------------
//
// A detached CMS SignedData (DER, or PEM with a "CMS" or "PKCS7" armour) is
// checked in three steps on a context that holds the trust material: Begin
// checks every signer (its RFC 3161 timestamp token, which is mandatory and
// sets the time at which certificates and CRLs are judged; its certificate
// path for code signing; its signature over the signed attributes) and
// leaves pending verifications in the context; Update feeds them the
// content in pieces of any size; Final reports whether the content matches.

// Pieces in which DorvexVerifyDetachSignatureQuick reads the content file:
// one read call and one Update per piece of 256 KiB, and the piece is the
// only buffer the content needs.
#define DORVEX_CONTENT_PIECE_SIZE 262144u

// DorvexVerifyDetachSignatureBegin: decodes and checks the signature and adds
// one pending verification per signer (signers that agree on algorithm and
// digest share one). The certificates the signature carries join the store
// for the rest of the context's life; the context keeps its own copy of the
// bytes they need, so the caller may release `data` at once. A SignedData
// without signers, or one that carries its content, is refused
// (DORVEX_ERR_PKCS7_DECODE). Pending verifications of an earlier Begin
// without Final stay and are finished together.
uint32_t DorvexVerifyDetachSignatureBegin(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t length);

// DorvexVerifyDetachSignatureUpdate: feeds the next piece of the content to
// every pending verification. DORVEX_ERR_NO_PROCESS when none is pending.
uint32_t DorvexVerifyDetachSignatureUpdate(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t length);

// DorvexVerifyDetachSignatureFinal: finishes the pending verifications and
// removes them. Returns 0 with *result 1 when all match and 0 when one does
// not; a failing check returns its code with *result 0, and so does a Final
// with nothing pending (DORVEX_ERR_NO_PROCESS): nothing verified is no match.
uint32_t DorvexVerifyDetachSignatureFinal(DorvexVrfCtx *ctx, uint32_t *result);

// DorvexVerifyDetachSignatureQuick: Begin over the signature file (at most
// DORVEX_MAX_FILE_SIZE bytes), Update over the content file in pieces of
// DORVEX_CONTENT_PIECE_SIZE bytes (any size, read in constant memory), then
// Final. *result is 1 only when every step succeeded and the content matches.
uint32_t DorvexVerifyDetachSignatureQuick(DorvexVrfCtx *ctx, const char *contentPath,
                                          const char *signaturePath, uint32_t *result);

#ifdef __cplusplus
}  // extern "C"

#include <cstddef>

static_assert(sizeof(DorvexCtxCreateParams) == DORVEX_CTX_CREATE_PARAMS_SIZE);
static_assert(offsetof(DorvexCtxCreateParams, size) == 0);
#endif

// ---- CRL information ---------------------------------------------------------
//
// Decoding a CRL file into one information record per CRL, and comparing two
// such results to decide whether one CRL set may replace another.

#ifdef __cplusplus
extern "C" {
#endif

// Most CRLs one decode reports, and the sizes of the copied fields.
#define DORVEX_CRL_INFO_MAX 16u
#define DORVEX_CRL_ISSUER_NAME_LEN 256u
#define DORVEX_CRL_SERIAL_LEN 32u

// DorvexCrlInfo.nextUpdate of a CRL that names no next update (RFC 5280
// 5.1.2.5 wants one; a CRL without it promises no successor and is taken as
// current for good, as OpenSSL takes it).
#define DORVEX_CRL_NO_NEXT_UPDATE INT64_MAX

// Results of DorvexCrlCompare.
#define DORVEX_CRL_CMP_EQUAL 0u
#define DORVEX_CRL_CMP_FIRST_NEWER 1u
#define DORVEX_CRL_CMP_SECOND_NEWER 2u
#define DORVEX_CRL_CMP_UNDECIDABLE 3u

// One revoked serial number (INTEGER content octets as encoded, so a
// positive number with its top bit set keeps its 0x00 sign octet); len 0
// when the copy failed.
typedef struct DorvexCrlRevokedSerial {
    uint8_t serial[DORVEX_CRL_SERIAL_LEN];
    uint32_t len;
} DorvexCrlRevokedSerial;

// What a decode reports about one CRL. Holds copies only, nothing points
// into the input or the context.
typedef struct DorvexCrlInfo {
    uint32_t verified;                            // 1: signer found and trusted at thisUpdate
    int64_t thisUpdate;                           // seconds since 1970-01-01 UTC
    int64_t nextUpdate;                           // the same, or DORVEX_CRL_NO_NEXT_UPDATE
    char issuerName[DORVEX_CRL_ISSUER_NAME_LEN];  // "C=..,O=..,CN=..", empty if unrenderable
    uint8_t issuerSerial[DORVEX_CRL_SERIAL_LEN];  // serial of the signing certificate
    uint32_t issuerSerialLen;                     // 0: no signer, or serial over 32 bytes
    DorvexCrlRevokedSerial *revoked;  // only for CRLs signed by a self-signed certificate
    uint32_t revokedCount;
} DorvexCrlInfo;

// The result of one decode: crlInfo[0..count) filled without gaps.
typedef struct DorvexCrlInfoList {
    uint64_t size;  // sizeof(DorvexCrlInfoList)
    DorvexCrlInfo *crlInfo[DORVEX_CRL_INFO_MAX];
    uint32_t count;
} DorvexCrlInfoList;

// DorvexDecodeCrl: decodes the CRLs and CA certificates of a DER stream or
// PEM text, adds them to the context's store (self-signed certificates
// excepted), and hands out one record per CRL in *list, freed with
// DorvexCrlFree. Each CRL's signer is verified at the CRL's thisUpdate with
// strict revocation, which leaves the context's verifyTime changed. A CRL
// that cannot be reported (bad time, no memory) is logged and left out.
// DORVEX_ERR_CRL_DECODE when the input does not decode or lacks a CRL or a
// certificate, DORVEX_ERR_CRL_TOO_MANY above 16 CRLs; *list is null on failure.
uint32_t DorvexDecodeCrl(DorvexVrfCtx *ctx, const uint8_t *data, uint32_t size,
                         DorvexCrlInfoList **list);

// DorvexDecodeCrlFile: DorvexDecodeCrl over a whole file of at most
// DORVEX_MAX_CRL_FILE_SIZE bytes; the reading codes of DorvexVerifyAddCrlFile.
uint32_t DorvexDecodeCrlFile(DorvexVrfCtx *ctx, const char *path, DorvexCrlInfoList **list);

// DorvexCrlCompare: which of two decoded CRL sets is the newer, in *result
// (DORVEX_CRL_CMP_...). Every CRL of both sets must be trusted
// (DORVEX_ERR_CRL_SET_INVALID), no set may hold two CRLs of one issuer
// (DORVEX_ERR_CRL_DUP_ISSUER), and a CRL may be missing from the newer set
// only when the root's CRL there revokes its signer
// (DORVEX_ERR_CRL_NOT_COMPARABLE); these three set *result to 3. An empty
// set gives DORVEX_ERR_CRL_SET_EMPTY and leaves *result alone.
uint32_t DorvexCrlCompare(DorvexVrfCtx *ctx, const DorvexCrlInfoList *first,
                          const DorvexCrlInfoList *second, uint32_t *result);

// DorvexCrlFree: releases a list of DorvexDecodeCrl with its records.
// DORVEX_ERR_PARAM when the context or the list is missing, else 0.
uint32_t DorvexCrlFree(DorvexVrfCtx *ctx, DorvexCrlInfoList *list);

#ifdef __cplusplus
}  // extern "C"

static_assert(sizeof(DorvexCrlRevokedSerial) == 36);
static_assert(offsetof(DorvexCrlInfo, thisUpdate) == 8);
static_assert(offsetof(DorvexCrlInfo, issuerName) == 24);
static_assert(offsetof(DorvexCrlInfo, issuerSerial) == 280);
static_assert(offsetof(DorvexCrlInfo, revoked) == 320);
static_assert(sizeof(DorvexCrlInfo) == 336);
static_assert(offsetof(DorvexCrlInfoList, crlInfo) == 8);
static_assert(offsetof(DorvexCrlInfoList, count) == 136);
static_assert(sizeof(DorvexCrlInfoList) == 144);
#endif

#endif /* DORVEX_H */
