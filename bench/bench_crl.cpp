// The package check with a CRL file of the demo PKI (two short CRLs) beside
// the same check when the CA's CRL lists 100,000 other certificates: the
// time of one whole check (context, root, CRL file, signature, content),
// and the peak resident memory of a fresh process that runs one (counter
// peak_rss_kb; the difference between the two rows is the CRL's cost). Prints figures; asserts
// nothing about time or memory.
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "cms/dorvex.h"
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;

struct Files {
    std::filesystem::path dir, content, signature, crls;
    tp::Bytes root;
};

// The demo package, with the CA's CRL listing `entries` other serials.
Files MakeFiles(uint32_t entries) {
    static const tp::DemoPki pki = tp::MakeDemoPki();
    char templ[] = "/tmp/bench-crl-XXXXXX";
    Files f;
    f.dir = mkdtemp(templ);
    f.content = f.dir / "sha256sums";
    f.signature = f.dir / "sha256sums.p7s";
    f.crls = f.dir / "crls.der";
    const std::string text = tp::DemoChecksums();
    const tp::Bytes content(text.begin(), text.end());
    tp::WriteFile(f.content, content);
    tp::WriteFile(f.signature, tp::MakePackage(pki, tp::Fault::None, content).signature);
    tp::CrlSpec plan;
    plan.issuer = pki.ca;
    for (uint32_t i = 0; i < entries; ++i) {
        plan.revoked.push_back({tp::SerialFromU64(0x100000 + i), tp::Utc("250101000000Z"), {}});
    }
    const tp::Bytes caCrl = entries == 0 ? pki.caCrl : tp::MakeCrl(plan);
    tp::WriteFile(f.crls, tp::ConcatDer({pki.rootCrl, pki.ca.cert.Der(), caCrl}));
    f.root = pki.root.cert.Der();
    tp::WriteFile(f.dir / "root.der", f.root);
    return f;
}

// The files of MakeFiles, read back in the measuring child.
Files FilesIn(const std::filesystem::path &dir) {
    Files f{dir, dir / "sha256sums", dir / "sha256sums.p7s", dir / "crls.der", {}};
    const auto size = std::filesystem::file_size(dir / "root.der");
    f.root.resize(size);
    FILE *in = fopen((dir / "root.der").c_str(), "rb");
    if (in != nullptr) {
        f.root.resize(fread(f.root.data(), 1, size, in));
        fclose(in);
    }
    return f;
}

bool CheckOnce(const Files &f) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *ctx = nullptr;
    if (DorvexVerifyCreateCtx(&ctx, &params) != DORVEX_OK) {
        return false;
    }
    uint32_t result = 0;
    const bool ok = DorvexVerifyAddCert(ctx, f.root.data(), static_cast<uint32_t>(f.root.size())) ==
                        DORVEX_OK &&
                    DorvexVerifyAddCrlFile(ctx, f.crls.c_str()) == DORVEX_OK &&
                    DorvexVerifyDetachSignatureQuick(ctx, f.content.c_str(), f.signature.c_str(),
                                                     &result) == DORVEX_OK &&
                    result == 1;
    (void)DorvexVrfCtxFree(ctx);
    return ok;
}

// VmHWM of this process in KiB: the peak resident set of its own memory
// map, which starts afresh at exec (getrusage would carry the parent's peak
// over from fork).
long OwnPeakKb() {
    FILE *status = fopen("/proc/self/status", "r");
    long kb = -1;
    char line[256];
    while (status != nullptr && fgets(line, sizeof line, status) != nullptr) {
        if (sscanf(line, "VmHWM: %ld kB", &kb) == 1) {
            break;
        }
    }
    if (status != nullptr) {
        fclose(status);
    }
    return kb;
}

// Peak resident memory of a fresh process (this program again, told by
// its environment to run one check, note its VmHWM and exit), in KiB.
long PeakRssKb(const Files &f) {
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("BENCH_CRL_CHILD", f.dir.c_str(), 1);
        execl("/proc/self/exe", "bench_crl", static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        return -1;
    }
    long kb = -1;
    FILE *in = fopen((f.dir / "peak.kb").c_str(), "r");
    if (in != nullptr) {
        if (fscanf(in, "%ld", &kb) != 1) {
            kb = -1;
        }
        fclose(in);
    }
    return kb;
}

void BM_PackageCheck(benchmark::State &state) {
    const Files f = MakeFiles(static_cast<uint32_t>(state.range(0)));
    for (auto _ : state) {
        if (!CheckOnce(f)) {
            state.SkipWithError("the package did not verify");
            break;
        }
    }
    state.counters["crl_file_kb"] =
        static_cast<double>(std::filesystem::file_size(f.crls)) / 1024.0;
    state.counters["peak_rss_kb"] = static_cast<double>(PeakRssKb(f));
    std::filesystem::remove_all(f.dir);
}
BENCHMARK(BM_PackageCheck)->Arg(0)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
    if (const char *dir = getenv("BENCH_CRL_CHILD"); dir != nullptr) {
        if (!CheckOnce(FilesIn(dir))) {
            return 1;
        }
        FILE *out = fopen((std::filesystem::path(dir) / "peak.kb").c_str(), "w");
        if (out == nullptr) {
            return 1;
        }
        fprintf(out, "%ld\n", OwnPeakKb());
        return fclose(out) == 0 ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
