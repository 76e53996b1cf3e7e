#include "tools/crl_info/crl_info.h"

int main(int argc, char *argv[]) {
    return CrlInfoMain(argc, argv);
}
