/* A C consumer of the installed library: checks one package the way
 * verify_tool does, with the root certificate taken from a file.
 *
 *   verify_package SANDBOX ROOT_DER CRL_FILE CHECKSUM_FILE SIGNATURE_FILE
 *
 * Exit status: 0 when the checksum file is authentic, 1 when the library
 * refuses it, 2 for a usage or set-up failure. The logging library's product
 * paths (/dev/shm/dbglog.cfg ...) are put under SANDBOX, and its syslog
 * records are written to standard error instead of the host's log. */
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "cms/dorvex.h"
#include "dbglog/zeb_sys.h"

enum { kMaxRootSize = 65536 };

static void WriteRecord(int priority, const char *format, va_list args) {
    fprintf(stderr, "syslog <%d> ", priority);
    vfprintf(stderr, format, args);
}

void vsyslog(int priority, const char *format, va_list args) {
    WriteRecord(priority, format, args);
}

void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    WriteRecord(priority, format, args);
    va_end(args);
}

/* glibc's fortified variants, in case the library was built with them. */
void __vsyslog_chk(int priority, int flag, const char *format, va_list args) {
    (void)flag;
    WriteRecord(priority, format, args);
}

void __syslog_chk(int priority, int flag, const char *format, ...) {
    va_list args;
    (void)flag;
    va_start(args, format);
    WriteRecord(priority, format, args);
    va_end(args);
}

/* Reads a whole file of at most kMaxRootSize bytes; 0 on success. */
static int ReadSmallFile(const char *path, uint8_t *buffer, uint32_t *length) {
    FILE *file = fopen(path, "rb");
    if (file == NULL) {
        return -1;
    }
    size_t n = fread(buffer, 1, kMaxRootSize, file);
    int tooLong = fgetc(file) != EOF;
    fclose(file);
    if (n == 0 || tooLong) {
        return -1;
    }
    *length = (uint32_t)n;
    return 0;
}

static int InstallSandbox(const char *root) {
    static char dev[4096];
    static char shm[4096];
    if (snprintf(dev, sizeof dev, "%s/dev", root) >= (int)sizeof dev ||
        snprintf(shm, sizeof shm, "%s/dev/shm", root) >= (int)sizeof shm) {
        return -1;
    }
    (void)mkdir(root, 0700);
    (void)mkdir(dev, 0700);
    if (mkdir(shm, 0700) != 0) {
        return -1;
    }
    /* Only the root is replaced: the kernel module's files are absent there,
     * so the default level of the sandbox's configuration record applies. */
    static ZebSys sys;
    sys.root = root;
    zeb_sys_install(&sys);
    return 0;
}

int main(int argc, char *argv[]) {
    if (argc != 6) {
        fprintf(stderr, "usage: %s SANDBOX ROOT_DER CRL_FILE CHECKSUM_FILE SIGNATURE_FILE\n",
                argv[0]);
        return 2;
    }
    if (InstallSandbox(argv[1]) != 0) {
        fprintf(stderr, "cannot make the sandbox %s\n", argv[1]);
        return 2;
    }
    static uint8_t root[kMaxRootSize];
    uint32_t rootLength = 0;
    if (ReadSmallFile(argv[2], root, &rootLength) != 0) {
        fprintf(stderr, "cannot read the root certificate %s\n", argv[2]);
        return 2;
    }

    DorvexCtxCreateParams params = {DORVEX_CTX_CREATE_PARAMS_SIZE, {0}};
    DorvexVrfCtx *ctx = NULL;
    uint32_t rc = DorvexVerifyCreateCtx(&ctx, &params);
    if (rc != DORVEX_OK) {
        fprintf(stderr, "DorvexVerifyCreateCtx: %#x\n", rc);
        return 2;
    }
    uint32_t result = 0;
    rc = DorvexVerifyAddCert(ctx, root, rootLength);
    if (rc == DORVEX_OK) {
        rc = DorvexVerifyAddCrlFile(ctx, argv[3]);
    }
    if (rc == DORVEX_OK) {
        rc = DorvexVerifyDetachSignatureQuick(ctx, argv[4], argv[5], &result);
    }
    DorvexVrfCtxFree(ctx);
    printf("%s: code %#x, result %u\n", DorvexGetVersion(), rc, result);
    return rc == DORVEX_OK && result == 1 ? 0 : 1;
}
