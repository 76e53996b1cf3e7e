// Verify context of the CMS library.
//
// Kept apart from dorvex.h so that the PKI store and path verification can
// see the context's layout without pulling in the whole public interface.
#ifndef CMS_VRF_CTX_H
#define CMS_VRF_CTX_H

#include <stdint.h>

#include "cms/base/list.h"

#ifdef __cplusplus
extern "C" {
#endif

// Value of DorvexVrfCtx.size for a live context.
#define DORVEX_VRF_CTX_SIZE 384u

struct DorvexPkiStore;

// DorvexVrfCtx: the caller's handle to the library. Created by
// DorvexVerifyCreateCtx, released by DorvexVrfCtxFree.
typedef struct DorvexVrfCtx {
    uint64_t size;               // DORVEX_VRF_CTX_SIZE while the context is live
    DorvexList rawBuffers;       // owned byte buffers that decoded records point into
    struct DorvexPkiStore *pki;  // certificates and CRLs (DorvexPkiInit / DorvexPkiUninit)
    DorvexList processes;        // pending DorvexMdInfo verifications
    int64_t verifyTime;          // seconds since 1970-01-01 UTC; certificates are judged then
    int32_t pathDepth;           // nesting counter of path verification
    uint8_t reserved[84];        // zero; pads the record to its fixed size of 384 bytes
} DorvexVrfCtx;

#ifdef __cplusplus
}  // extern "C"

#include <cstddef>

static_assert(sizeof(DorvexList) == 136);
static_assert(sizeof(DorvexVrfCtx) == DORVEX_VRF_CTX_SIZE);
static_assert(offsetof(DorvexVrfCtx, size) == 0);
static_assert(offsetof(DorvexVrfCtx, rawBuffers) == 8);
static_assert(offsetof(DorvexVrfCtx, pki) == 144);
static_assert(offsetof(DorvexVrfCtx, processes) == 152);
static_assert(offsetof(DorvexVrfCtx, verifyTime) == 288);
static_assert(offsetof(DorvexVrfCtx, pathDepth) == 296);
#endif

#endif  // CMS_VRF_CTX_H
