// crl_info: the CRL information interface of the CMS library on the command
// line. Every file is decoded into a verify context of its own that trusts
// only the built-in root, so one file's CRLs never judge the other's.
#include "tools/crl_info/crl_info.h"

#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "cms/adapt/provider.h"
#include "cms/dorvex.h"
#include "platform/lzeb_mem.h"
#include "root_cert/root_cert.h"

namespace {

constexpr char kUsage[] =
    "Usage: crl_info <crl file>\n"
    "       crl_info --compare <new crl file> <installed crl file>\n"
    "       crl_info --help\n"
    "\n"
    "Shows every CRL of a CRL file (issuer, thisUpdate and nextUpdate in UTC,\n"
    "whether its signer is trusted, the revoked serial numbers of the root's\n"
    "CRL), or compares a new CRL file with the installed one. Trust comes from\n"
    "the root certificate built into verify_tool.\n"
    "\n"
    "Exit status: 0 every CRL is trusted / the new file may replace the\n"
    "installed one; 1 a CRL is not trusted / it may not; 2 bad command line,\n"
    "unreadable or undecodable file.\n";

// Adds the built-in root, joined as verify_tool joins it.
uint32_t AddRootCert(DorvexVrfCtx *ctx) {
    uint8_t *root = nullptr;
    uint32_t length = 0;
    uint32_t ret = GenerateRootCert(&root, &length);
    if (ret == DORVEX_OK) {
        ret = DorvexVerifyAddCert(ctx, root, length);
        LZEB_FreeSub(root, "AddRootCert", __LINE__);
    }
    return ret;
}

// One decoded CRL file with the context it was decoded in.
struct CrlSet {
    DorvexVrfCtx *ctx = nullptr;
    DorvexCrlInfoList *list = nullptr;
    CrlSet() = default;
    CrlSet(const CrlSet &) = delete;
    CrlSet &operator=(const CrlSet &) = delete;
    ~CrlSet() {
        if (list != nullptr) {
            (void)DorvexCrlFree(ctx, list);
        }
        if (ctx != nullptr) {
            (void)DorvexVrfCtxFree(ctx);
        }
    }
};

const char *LoadError(uint32_t code) {
    switch (code) {
        case DORVEX_ERR_PARAM:
            return "empty file name";
        case DORVEX_ERR_FILE_OPEN:
            return "cannot open the file";
        case DORVEX_ERR_FILE_EMPTY:
            return "the file is empty";
        case DORVEX_ERR_FILE_TOO_LARGE: {
            // The CRL file's limit, not the signature file's.
            static char text[64];
            snprintf(text, sizeof text, "the file is larger than %u bytes",
                     DORVEX_MAX_CRL_FILE_SIZE);
            return text;
        }
        case DORVEX_ERR_FILE_READ:
            return "cannot read the file";
        case DORVEX_ERR_CRL_DECODE:
            return "no CRL with its CA certificates could be decoded";
        case DORVEX_ERR_CRL_TOO_MANY:
            return "the file holds more than 16 CRLs";
        default:
            return "the file could not be processed";
    }
}

// Decodes `path` into a fresh context that trusts the built-in root. False
// after the reason was written to standard error.
bool LoadCrlSet(const char *path, CrlSet *set) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    uint32_t ret = DorvexVerifyCreateCtx(&set->ctx, &params);
    if (ret == DORVEX_OK) {
        ret = AddRootCert(set->ctx);
    }
    if (ret != DORVEX_OK) {
        fprintf(stderr, "crl_info: cannot set up the verification (0x%08x)\n", ret);
        return false;
    }
    ret = DorvexDecodeCrlFile(set->ctx, path, &set->list);
    if (ret != DORVEX_OK) {
        fprintf(stderr, "crl_info: %s: %s (0x%08x)\n", path, LoadError(ret), ret);
        return false;
    }
    // Every CRL of the file may have been dropped (a time it cannot read).
    if (set->list->count == 0) {
        fprintf(stderr, "crl_info: %s: no CRL of the file could be read\n", path);
        return false;
    }
    return true;
}

std::string Iso8601(int64_t seconds) {
    const auto t = static_cast<time_t>(seconds);
    struct tm parts {};
    char text[32];
    if (gmtime_r(&t, &parts) == nullptr ||
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
        return std::to_string(seconds) + " s since 1970";
    }
    return text;
}

std::string Hex(const uint8_t *bytes, uint32_t len) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (uint32_t i = 0; i < len; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0x0F];
    }
    return out;
}

// Names come from the file: control characters are shown as '?' so that
// a crafted name cannot drive the operator's terminal.
std::string Printable(const char *text) {
    std::string out(text);
    for (char &c : out) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) {
            c = '?';
        }
    }
    return out;
}

void PrintCrl(FILE *out, const DorvexCrlInfo &info, uint32_t index, uint32_t count) {
    const std::string serial =
        info.issuerSerialLen == 0 || info.issuerSerialLen > DORVEX_CRL_SERIAL_LEN
            ? "unknown"
            : Hex(info.issuerSerial, info.issuerSerialLen);
    fprintf(out, "CRL %u of %u\n", index, count);
    fprintf(out, "  issuer:      %s\n",
            info.issuerName[0] != '\0' ? Printable(info.issuerName).c_str() : "(unreadable)");
    fprintf(out, "  thisUpdate:  %s\n", Iso8601(info.thisUpdate).c_str());
    fprintf(
        out, "  nextUpdate:  %s\n",
        info.nextUpdate == DORVEX_CRL_NO_NEXT_UPDATE ? "none" : Iso8601(info.nextUpdate).c_str());
    fprintf(out, "  signer:      %s, serial %s\n", info.verified == 1 ? "trusted" : "untrusted",
            serial.c_str());
    // The library lists revoked serials only for CRLs signed by a root.
    if (info.revoked == nullptr || info.revokedCount == 0) {
        fprintf(out, "  revoked:     none listed\n");
        return;
    }
    fprintf(out, "  revoked:     %u\n", info.revokedCount);
    for (uint32_t i = 0; i < info.revokedCount; ++i) {
        const DorvexCrlRevokedSerial &entry = info.revoked[i];
        fprintf(out, "    %s\n",
                entry.len == 0 ? "(unreadable)" : Hex(entry.serial, entry.len).c_str());
    }
}

int ShowCrlFile(FILE *out, const char *path) {
    CrlSet set;
    if (!LoadCrlSet(path, &set)) {
        return CRL_INFO_EXIT_ERROR;
    }
    bool allTrusted = true;
    const uint32_t count = set.list->count;
    for (uint32_t i = 0; i < count && i < DORVEX_CRL_INFO_MAX; ++i) {
        PrintCrl(out, *set.list->crlInfo[i], i + 1, count);
        allTrusted = allTrusted && set.list->crlInfo[i]->verified == 1;
    }
    return allTrusted ? CRL_INFO_EXIT_OK : CRL_INFO_EXIT_REFUSED;
}

const char *ResultText(uint32_t result) {
    switch (result) {
        case DORVEX_CRL_CMP_EQUAL:
            return "equivalent";
        case DORVEX_CRL_CMP_FIRST_NEWER:
            return "first is newer";
        case DORVEX_CRL_CMP_SECOND_NEWER:
            return "second is newer";
        default:
            return "undecidable";
    }
}

const char *CompareError(uint32_t code) {
    switch (code) {
        case DORVEX_ERR_CRL_SET_INVALID:
            return "a CRL is not trusted";
        case DORVEX_ERR_CRL_DUP_ISSUER:
            return "a file holds two CRLs of one issuer";
        case DORVEX_ERR_CRL_NOT_COMPARABLE:
            return "a CRL is missing from the newer file and its CA is not revoked there";
        case DORVEX_ERR_CRL_SET_EMPTY:
            return "a file holds no CRL";
        default:
            return "the comparison failed";
    }
}

int CompareCrlFiles(FILE *out, const char *newPath, const char *installedPath) {
    CrlSet fresh;
    CrlSet installed;
    if (!LoadCrlSet(newPath, &fresh) || !LoadCrlSet(installedPath, &installed)) {
        return CRL_INFO_EXIT_ERROR;
    }
    uint32_t result = DORVEX_CRL_CMP_UNDECIDABLE;
    const uint32_t ret = DorvexCrlCompare(fresh.ctx, fresh.list, installed.list, &result);
    fprintf(out, "result:  %u (%s)\n", result, ResultText(result));
    if (ret != DORVEX_OK) {
        fprintf(out, "reason:  %s (0x%08x)\n", CompareError(ret), ret);
    }
    // An equivalent file may replace the installed one: nothing is lost.
    const bool replace = ret == DORVEX_OK &&
                         (result == DORVEX_CRL_CMP_FIRST_NEWER || result == DORVEX_CRL_CMP_EQUAL);
    fprintf(out, "replace: %s\n", replace ? "yes" : "no");
    return replace ? CRL_INFO_EXIT_OK : CRL_INFO_EXIT_REFUSED;
}

int UsageError(const char *what) {
    fprintf(stderr, "crl_info: %s\n%s", what, kUsage);
    return CRL_INFO_EXIT_ERROR;
}

int Run(FILE *out, int argc, char *argv[]) {
    if (argc < 2 || argv[1] == nullptr) {
        return UsageError("missing arguments");
    }
    const std::string_view first = argv[1];
    if (first == "--help" || first == "-h") {
        fputs(kUsage, out);
        return CRL_INFO_EXIT_OK;
    }
    if (first == "--compare") {
        if (argc != 4) {
            return UsageError("--compare takes two CRL files");
        }
        return CompareCrlFiles(out, argv[2], argv[3]);
    }
    if (first.size() > 1 && first[0] == '-') {
        return UsageError(("unknown option " + std::string(first)).c_str());
    }
    if (argc != 2) {
        return UsageError("one CRL file, or --compare with two");
    }
    return ShowCrlFile(out, argv[1]);
}

}  // namespace

int CrlInfoMain(int argc, char *argv[]) {
    // As verify_tool: what the report says must not depend on openssl.cnf.
    if (DrxOpensslInit() != DORVEX_OK) {
        fprintf(stderr, "crl_info: cannot set up OpenSSL\n");
        return CRL_INFO_EXIT_ERROR;
    }
    // The library prints its errors and warnings on standard output; they go
    // to standard error here, so that standard output carries the report only.
    fflush(stdout);
    const int reportFd = dup(STDOUT_FILENO);
    FILE *report = reportFd < 0 ? nullptr : fdopen(reportFd, "w");
    if (report == nullptr || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
        fprintf(stderr, "crl_info: cannot set up standard output\n");
        if (report != nullptr) {
            fclose(report);
        } else if (reportFd >= 0) {
            close(reportFd);
        }
        return CRL_INFO_EXIT_ERROR;
    }
    // Line by line, so the library's lines and ours keep their order.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    int status = Run(report, argc, argv);
    fflush(stdout);
    // A report that did not reach its reader is no report.
    if (fclose(report) != 0) {
        fprintf(stderr, "crl_info: cannot write the report\n");
        status = CRL_INFO_EXIT_ERROR;
    }
    return status;
}
