#include "tests/support/kmod_standin.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <stdexcept>

#include "dbglog/internal.h"
#include "dbglog/zeb_sys.h"

namespace vt_test {
namespace {

namespace fs = std::filesystem;

// Every root handed to the library stays alive: late calls may still use it.
std::list<std::string> g_roots;
bool g_module = false;

int StandinOpen(const char *path, int flags) {
    if (!g_module) {
        errno = ENOENT;
        return -1;
    }
    return open(path, flags);
}

int LevelRequest(Standin &s, unsigned long request, LogLevelRequest *req) {
    switch (request) {
        case ZEB_IOCTL_GET_LEVEL:
            req->level = s.levels.contains(req->pid) ? s.levels[req->pid] : 0;
            return 0;
        case ZEB_IOCTL_SET_LEVEL:
            s.levels[req->pid] = req->level;
            return 0;
        case ZEB_IOCTL_GET_PID_NUM:
            req->count = static_cast<uint32_t>(s.levels.size());
            return 0;
        case ZEB_IOCTL_GET_ALL_LEVELS: {
            auto *out = reinterpret_cast<StandinLevelEntry *>(static_cast<uintptr_t>(req->array));
            uint32_t i = 0;
            for (auto it = s.levels.begin(); it != s.levels.end() && i < req->count; ++it) {
                out[i++] = {it->first, it->second};
            }
            return 0;
        }
        case ZEB_IOCTL_SAVE_LEVELS:
            s.saves++;
            return 0;
    }
    errno = ENOTTY;
    return -1;
}

// Level requests go to the level file only, 806 to the limit file only.
int StandinIoctl(int fd, unsigned long request, void *arg) {
    std::error_code ec;
    const std::string file = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), ec).string();
    Standin &s = TheStandin();
    std::lock_guard<std::mutex> lock(s.mutex);
    errno = s.failRequests ? EIO : ENOTTY;
    if (s.failRequests) {
        return -1;
    }
    if (file.ends_with("/proc/zeb/log_level")) {
        return LevelRequest(s, request, static_cast<LogLevelRequest *>(arg));
    }
    if (!file.ends_with("/proc/zeb/mod_ring_buffer") || request != ZEB_IOCTL_GET_GID_LIMIT) {
        return -1;
    }
    auto *req = static_cast<GidLimitRequest *>(arg);
    const auto it = s.limits.find(req->gid);
    if (it == s.limits.end()) {
        errno = ENOENT;
        return -1;
    }
    const StandinGidLimit &l = it->second;
    *req = {req->gid, l.num, l.interval, l.burst, l.resume};
    return 0;
}

int StandinMonotonic(struct timespec *now) {
    if (TheStandin().clockFails.load()) {
        errno = EIO;
        return -1;
    }
    const int64_t ns = TheStandin().clockNs.load();
    now->tv_sec = static_cast<time_t>(ns / kStandinSecond);
    now->tv_nsec = static_cast<long>(ns % kStandinSecond);
    return 0;
}

fs::path ProductPath(const std::string &productPath) {
    if (g_roots.empty()) {
        throw std::logic_error("the logging stand-in is not installed");
    }
    return g_roots.back() + productPath;
}

}  // namespace

// Never destroyed: library calls from late threads or atexit may still use it.
Standin &TheStandin() {
    static Standin *standin = new Standin;
    return *standin;
}

void InstallLoggingStandin(const std::string &root, bool withKernelModule) {
    for (const char *dir :
         {"/dev/shm", "/KELM/conf", "/etc/zeb/pid", "/startup_disk/conf/conf_local"}) {
        fs::create_directories(root + dir);
    }
    if (withKernelModule) {
        fs::create_directories(root + "/proc/zeb");
        std::ofstream(root + "/proc/zeb/log_level").flush();
        std::ofstream(root + "/proc/zeb/mod_ring_buffer").flush();
    }
    Standin &s = TheStandin();
    std::lock_guard<std::mutex> lock(s.mutex);
    g_roots.push_back(root);
    g_module = withKernelModule;
    s.levels.clear();
    s.limits.clear();
    s.saves = 0;
    s.failRequests = false;
    s.clockNs = 1000 * kStandinSecond;
    s.clockFails = false;
    s.gid = 0;
    static ZebSys sys;
    sys = {g_roots.back().c_str(), StandinOpen, StandinIoctl, StandinMonotonic,
           [] { return TheStandin().gid.load(); }};
    zeb_sys_install(&sys);
}

TempRoot::TempRoot() {
    char pattern[] = "/tmp/vt-dbglog-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TempRoot::~TempRoot() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

void WriteProductFile(const std::string &productPath, const std::string &content) {
    const fs::path path = ProductPath(productPath);
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string ReadProductFile(const std::string &productPath) {
    std::ifstream in(ProductPath(productPath), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

}  // namespace vt_test
