#include "tools/pkg_sign/pkg_sign.h"

int main(int argc, char *argv[]) {
    return PkgSignMain(argc, argv);
}
