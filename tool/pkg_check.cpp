// Handler of "CHECK_PKG_INTEGRITY".
#include "tool/verify_tool.h"

// The package check needs the CMS verification library, which is not part of
// this build yet: refuse every package rather than pretend to check it.
int32_t UPGRADE_CheckPkgIntegrity(VerifyParam *param) {
    if (param == nullptr) {
        TOOL_LOG(DBG_LEVEL_ERR, "Parameter is NULL.");
        return -1;
    }
    TOOL_LOG(DBG_LEVEL_ERR, "Package integrity check is not available in this build.");
    return -1;
}
