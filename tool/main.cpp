#include "tool/verify_tool.h"

int main(int argc, char *argv[]) {
    // The exit status is the low byte of the result.
    return UPGRADE_MainExe(argc, argv);
}
