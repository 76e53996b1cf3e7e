// Public interface of the CMS verification library.
//
// A caller creates a verify context, feeds it certificates and CRLs (DER
// back to back, or PEM), runs verifications against it and frees it. Every
// function returns a result code of dorvex_errno.h, 0 on success.
#ifndef DORVEX_H
#define DORVEX_H

#include <stdint.h>

#include "dorvex_errno.h"
#include "vrf_ctx.h"

#ifdef __cplusplus
extern "C" {
#endif

// Value of DorvexCtxCreateParams.size.
#define DORVEX_CTX_CREATE_PARAMS_SIZE 72u

// Largest trust-material or signature file the library reads, in bytes.
#define DORVEX_MAX_FILE_SIZE 2000000u

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

// DorvexVerifyAddCrlFile: DorvexVerifyAddCrl over a whole file of at most
// DORVEX_MAX_FILE_SIZE bytes.
uint32_t DorvexVerifyAddCrlFile(DorvexVrfCtx *ctx, const char *path);

// DorvexVrfCtxFree: releases the store, the pending verifications, the
// owned buffers and the context. DORVEX_ERR_PARAM for null, else 0.
uint32_t DorvexVrfCtxFree(DorvexVrfCtx *ctx);

// DorvexGetVersion: the library's release text, DORVEX_VERSION_LEN
// characters, constant and never freed.
const char *DorvexGetVersion(void);

#ifdef __cplusplus
}  // extern "C"

#include <cstddef>

static_assert(sizeof(DorvexCtxCreateParams) == DORVEX_CTX_CREATE_PARAMS_SIZE);
static_assert(offsetof(DorvexCtxCreateParams, size) == 0);
#endif

#endif /* DORVEX_H */
