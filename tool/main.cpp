#include "tool/verify_tool.h"

int main(int argc, char *argv[]) {
    return UPGRADE_ExitStatus(UPGRADE_MainExe(argc, argv));
}
