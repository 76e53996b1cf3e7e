// verify_tool (or with VT_SANDBOX_CRL_INFO crl_info) with the logging
// stand-in: paths under $VT_TEST_ROOT, syslog records to $VT_SYSLOG_FILE.
#include <stdio.h>
#include <stdlib.h>

#include "tests/support/kmod_standin.h"
#include "tools/crl_info/crl_info.h"
#include "tool/verify_tool.h"

int main(int argc, char *argv[]) {
    const char *root = getenv("VT_TEST_ROOT");
    if (root == nullptr || *root == '\0') {
        fprintf(stderr, "VT_TEST_ROOT is not set\n");
        return 99;
    }
    vt_test::InstallLoggingStandin(root, false);
#ifdef VT_SANDBOX_CRL_INFO
    return CrlInfoMain(argc, argv);
#else
    return UPGRADE_ExitStatus(UPGRADE_MainExe(argc, argv));
#endif
}
