// The root certificate verify_tool trusts, built in as two constant arrays
// (generated at configure time from VERIFY_TOOL_ROOT_CERT) that are joined at
// run time: the head, and the last 131 bytes, which lie inside the signature.
// verify_tool and crl_info both link this library, so both trust the same root.
#ifndef ROOT_CERT_ROOT_CERT_H
#define ROOT_CERT_ROOT_CERT_H

#include <stdint.h>

#if !defined(ROOT_CERT_LEN) || !defined(ROOT_CERT_HEAD_LEN)
#error "ROOT_CERT_LEN and ROOT_CERT_HEAD_LEN come from the build (cmake/EmbedRootCert.cmake)"
#endif

#define ROOT_CERT_TAIL_LEN 131

#ifdef __cplusplus
extern "C" {
#endif

extern const unsigned char g_rootCert0[ROOT_CERT_HEAD_LEN];
extern const unsigned char g_rootCert1[ROOT_CERT_TAIL_LEN];

// GenerateRootCert: joins the built-in root certificate into one new block
// (the caller frees it with LZEB_FreeSub); 0, or DORVEX_ERR_MALLOC when
// memory is short.
uint32_t GenerateRootCert(uint8_t **buffer, uint32_t *length);

#ifdef __cplusplus
}
#endif

#endif  // ROOT_CERT_ROOT_CERT_H
