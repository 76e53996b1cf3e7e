// rsa_count: how many RSA signature checks one package check costs. Runs
// verify_tool's own code in this process (the same command line, built-in
// root, CRL file and one-call verification) and prints the number of checks
// the crypto provider carried out, then the tool's exit status.
//   rsa_count SIGNATURE CHECKSUM_FILE CRL_FILE
// Exits with the tool's status, so a refused package cannot pass for a count.
// Logs as verify_tool does (system log, /dev/shm/dbglog.cfg): run it where
// the tool itself may run.
#include <cinttypes>
#include <cstdio>

#include "cms/adapt/provider.h"
#include "tool/verify_tool.h"

int main(int argc, char **argv) {
    if (argc != 4) {
        std::fputs("usage: rsa_count SIGNATURE CHECKSUM_FILE CRL_FILE\n", stderr);
        return 2;
    }
    char opcode[] = "CHECK_PKG_INTEGRITY";
    char f[] = "-f", h[] = "-h", e[] = "-e", c[] = "-c";
    char *args[] = {argv[0], f, opcode, h, argv[1], e, argv[2], c, argv[3], nullptr};
    const uint64_t before = DrxBenchRsaVerifyCount();
    const int status = UPGRADE_ExitStatus(UPGRADE_MainExe(9, args));
    std::printf("%" PRIu64 " RSA verifications, exit status %d\n",
                DrxBenchRsaVerifyCount() - before, status);
    return status;
}
