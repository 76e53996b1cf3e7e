// Detached signature verification over content files of growing size: the
// throughput of DorvexVerifyDetachSignatureQuick, and the peak resident
// memory of a process that runs one verification (counter peak_rss_kb),
// which should stay flat because content is streamed in 256 KiB pieces.
// Prints figures; asserts nothing about time or memory.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>

#include "cms/dorvex.h"
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;

struct Files {
    std::filesystem::path dir, content, signature, root, crls;
};

// One signed content file per size, made once; removed at exit.
const Files &FilesFor(size_t size) {
    static std::map<size_t, Files> made;
    static const tp::DemoPki pki = tp::MakeDemoPki();
    auto it = made.find(size);
    if (it != made.end()) {
        return it->second;
    }
    char templ[] = "/tmp/bench-verify-XXXXXX";
    Files f;
    f.dir = mkdtemp(templ);
    f.content = f.dir / "content";
    f.signature = f.dir / "content.p7s";
    f.root = f.dir / "root.der";
    f.crls = f.dir / "crls.pem";
    {
        tp::Bytes content(size);
        for (size_t i = 0; i < size; ++i) {
            content[i] = static_cast<uint8_t>(i * 31 + (i >> 12));
        }
        tp::WriteFile(f.content, content);
        tp::WriteFile(f.signature, tp::MakePackage(pki, tp::Fault::None, content).signature);
    }  // the content's memory is returned before anything is measured
    tp::WriteFile(f.root, pki.root.cert.Der());
    tp::WriteFile(f.crls, tp::PemBundle({{"X509 CRL", pki.rootCrl},
                                         {"X509 CRL", pki.caCrl},
                                         {"CERTIFICATE", pki.ca.cert.Der()}}));
    static const struct Cleanup {
        ~Cleanup() {
            for (const auto &[_, files] : made) {
                std::filesystem::remove_all(files.dir);
            }
        }
    } cleanup;
    return made.emplace(size, f).first->second;
}

// Context, trust material and one Quick verification; result 1 or an error.
uint32_t VerifyOnce(const Files &f) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *ctx = nullptr;
    uint32_t ret = DorvexVerifyCreateCtx(&ctx, &params);
    uint32_t result = 0;
    if (ret == DORVEX_OK && (ret = DorvexVerifyAddCertFile(ctx, f.root.c_str())) == DORVEX_OK &&
        (ret = DorvexVerifyAddCrlFile(ctx, f.crls.c_str())) == DORVEX_OK) {
        ret =
            DorvexVerifyDetachSignatureQuick(ctx, f.content.c_str(), f.signature.c_str(), &result);
    }
    DorvexVrfCtxFree(ctx);
    return ret != DORVEX_OK ? ret : (result == 1 ? 1 : 0);
}

// Peak resident set of a child that does one verification, in KiB.
long PeakRssOfOneVerification(const Files &f) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        // The library prints nothing on success; keep the child quiet anyway.
        (void)!freopen("/dev/null", "w", stdout);
        _exit(VerifyOnce(f) == 1 ? 0 : 1);
    }
    int status = 0;
    struct rusage usage {};
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        return -1;
    }
    return usage.ru_maxrss;
}

void BM_VerifyQuick(benchmark::State &state) {
    const Files &f = FilesFor(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        if (VerifyOnce(f) != 1) {
            state.SkipWithError("verification failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
    state.counters["peak_rss_kb"] = static_cast<double>(PeakRssOfOneVerification(f));
}
BENCHMARK(BM_VerifyQuick)->Arg(4 << 10)->Arg(1 << 20)->Arg(64 << 20)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
