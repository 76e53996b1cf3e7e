// Command line parsing and opcode dispatch.
#include <string.h>
#include <unistd.h>

#include "cms/adapt/provider.h"
#include "platform/securec.h"
#include "tool/verify_tool.h"

// Program name plus at most nine words.
static constexpr int kMaxArgc = 10;
// Exit status of a plain failure (-1).
static constexpr int32_t kExitFailure = 255;

VerifyParam g_verifyParam;

const VerifyFuncRow g_verifyFuncTable[] = {
    {"CHECK_PKG_INTEGRITY", UPGRADE_CheckPkgIntegrity},
    {"CHECK_PKG_FILES", UPGRADE_CheckPkgFiles},
};
const uint32_t g_verifyFuncCount = sizeof g_verifyFuncTable / sizeof g_verifyFuncTable[0];

namespace {

struct OptionField {
    char *field;
    size_t width;
    const char *message;
};

// The field an option fills and the line that reports it; null for any other character.
bool LookupOption(uint8_t option, OptionField *out) {
    switch (option) {
        case 'f':
            *out = {g_verifyParam.opcode, sizeof g_verifyParam.opcode, "The Opcode is : %s."};
            return true;
        case 'h':
            *out = {g_verifyParam.cmsPath, sizeof g_verifyParam.cmsPath,
                    "The path of cms file is (%s)."};
            return true;
        case 'e':
            *out = {g_verifyParam.checksumPath, sizeof g_verifyParam.checksumPath,
                    "The path of checksum file is : %s."};
            return true;
        case 'c':
            *out = {g_verifyParam.crlPath, sizeof g_verifyParam.crlPath,
                    "The path of crl file is : %s."};
            return true;
        default:
            return false;
    }
}

}  // namespace

int32_t UPGRADE_CmdParseSingle(uint8_t option) {
    OptionField target;
    if (!LookupOption(option, &target)) {
        return -1;
    }
    // An argument that does not fit is refused: a path cut short would name
    // another file than the one the caller meant, and that file would be
    // checked and reported in its place.
    if (optarg == nullptr || strlen(optarg) >= target.width) {
        TOOL_LOG(DBG_LEVEL_ERR, "Argument of -%c is longer than %zu characters.", option,
                 target.width - 1);
        return -1;
    }
    if (strcpy_s(target.field, target.width, optarg) != SEC_OK) {
        return -1;
    }
    TOOL_LOG(DBG_LEVEL_INFO, target.message, target.field);
    return 0;
}

int32_t UPGRADE_CmdParse(int argc, char *argv[]) {
    if (argv == nullptr || argc > kMaxArgc) {
        TOOL_LOG(DBG_LEVEL_ERR, "API parameter error.");
        return -1;
    }
    int option;
    while ((option = getopt(argc, argv, "f:e:c:h:")) != -1) {
        if (UPGRADE_CmdParseSingle(static_cast<uint8_t>(option)) != 0) {
            TOOL_LOG(DBG_LEVEL_ERR, "API parameter parse fail.");
            return -1;
        }
    }
    return 0;
}

int32_t UPGRADE_CmdExe(void) {
    for (uint32_t i = 0; i < g_verifyFuncCount; ++i) {
        const VerifyFuncRow &row = g_verifyFuncTable[i];
        if (strcmp(row.opcode, g_verifyParam.opcode) != 0) {
            continue;
        }
        TOOL_LOG(DBG_LEVEL_INFO, "VERIFY_TOOL: Execute function (%s).", g_verifyParam.opcode);
        int32_t ret = row.handler(&g_verifyParam);
        TOOL_LOG(DBG_LEVEL_INFO, "VERIFY_TOOL: Execute ret(%d).", ret);
        return ret;
    }
    TOOL_LOG(DBG_LEVEL_ERR, "VERIFY_TOOL: Cannot find opcode(%s).", g_verifyParam.opcode);
    return -1;
}

int32_t UPGRADE_ExitStatus(int32_t result) {
    // Only the low byte reaches the caller. A failure whose code ends in 0x00
    // must still read as a failure, so it takes the plain-failure status.
    if (result != 0 && (result & 0xFF) == 0) {
        return kExitFailure;
    }
    return result & 0xFF;
}

int32_t UPGRADE_MainExe(int argc, char *argv[]) {
    // Before any other OpenSSL call: no system configuration is read.
    if (DrxOpensslInit() != DORVEX_OK) {
        TOOL_LOG(DBG_LEVEL_ERR, "OpenSSL initialisation failed.");
        return -1;
    }
    int32_t ret = UPGRADE_CmdParse(argc, argv);
    if (ret != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Upgrade Command parse fail!");
        return ret;
    }
    ret = UPGRADE_CmdExe();
    if (ret != 0) {
        TOOL_LOG(DBG_LEVEL_ERR, "Verify KTR Command exec fail!");
        return ret;
    }
    return 0;
}
