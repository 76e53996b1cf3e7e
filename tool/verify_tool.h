// The verification tool's front end: command line, operation table and handlers.
#ifndef TOOL_VERIFY_TOOL_H
#define TOOL_VERIFY_TOOL_H

#include <stdint.h>

#include "dbglog/dbglog.h"
#include "root_cert/root_cert.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VERIFY_OPCODE_LEN 32
#define VERIFY_PATH_LEN 128

// What the command line asked for; every field not given stays empty.
typedef struct VerifyParam {
    char opcode[VERIFY_OPCODE_LEN];      // -f
    char cmsPath[VERIFY_PATH_LEN];       // -h: detached CMS signature
    char checksumPath[VERIFY_PATH_LEN];  // -e: checksum file, the signed content
    char crlPath[VERIFY_PATH_LEN];       // -c: CRL file
} VerifyParam;

typedef int32_t (*VerifyHandler)(VerifyParam *param);

typedef struct VerifyFuncRow {
    char opcode[VERIFY_OPCODE_LEN];
    VerifyHandler handler;
} VerifyFuncRow;

extern VerifyParam g_verifyParam;
extern const VerifyFuncRow g_verifyFuncTable[];
extern const uint32_t g_verifyFuncCount;

// Parses argv and runs the requested operation; the low byte of the result
// is the process exit status (0 valid, 255 for -1, else a result code's low byte).
int32_t UPGRADE_MainExe(int argc, char *argv[]);
// The process exit status of a result: its low byte, except that a non-zero
// result whose low byte is 0 exits 255, so no failure can exit 0.
int32_t UPGRADE_ExitStatus(int32_t result);
int32_t UPGRADE_CmdParse(int argc, char *argv[]);
int32_t UPGRADE_CmdParseSingle(uint8_t option);
int32_t UPGRADE_CmdExe(void);

// Handler of "CHECK_PKG_INTEGRITY".
int32_t UPGRADE_CheckPkgIntegrity(VerifyParam *param);
// Handler of "CHECK_PKG_FILES": CHECK_PKG_INTEGRITY, then every file the
// checksum file lists (tool/pkg_files.cpp).
int32_t UPGRADE_CheckPkgFiles(VerifyParam *param);

struct DorvexVrfCtx;

// The package check: 0 when the checksum file is authentic, 0xFFFFFFFF when
// the signature does not match it, else the failing call's result code.
uint32_t VerifyCmsFile(const char *cmsPath, const char *checksumPath, const char *crlPath);
// Frees whichever of the two exists and hands `result` back unchanged.
uint32_t VerifyProcessPostHandle(uint32_t result, struct DorvexVrfCtx *context,
                                 uint8_t *rootBuffer);

#ifdef __cplusplus
}
#endif

#define TOOL_LOG(level, ...) \
    DBG_Log(DBG_MODULE_VERIFY_TOOL, (level), __func__, __LINE__, 0, __VA_ARGS__)

#endif  // TOOL_VERIFY_TOOL_H
