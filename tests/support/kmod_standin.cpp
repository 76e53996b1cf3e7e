#include "tests/support/kmod_standin.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <stdexcept>
#include <utility>

#include "dbglog/zeb_sys.h"

namespace vt_test {
namespace {

namespace fs = std::filesystem;

// The kernel module's own view of the request records, written down
// independently of the library so that a layout slip on either side shows.
struct KernelLevelRequest {
    uint32_t pid;
    uint8_t level;
    uint8_t pad1[3];
    uint32_t count;
    uint8_t pad2[4];
    uint64_t array;
};
static_assert(sizeof(KernelLevelRequest) == 24);

struct KernelGidRequest {
    uint32_t gid;
    StandinGidLimit limit;
};
static_assert(sizeof(KernelGidRequest) == 20);

enum : unsigned long {
    kGetLevel = 801,
    kSetLevel,
    kGetPidNum,
    kGetAllLevels,
    kSaveLevels,
    kGetGidLimit,
};

using FileId = std::pair<dev_t, ino_t>;

// What the handlers alone see: the roots handed to the library (every one
// stays alive, it may still be in use) and the module's two control files.
std::list<std::string> g_roots;
bool g_module = false;
FileId g_levelFile, g_limitFile;

int StandinOpen(const char *path, int flags) {
    if (!g_module) {
        errno = ENOENT;
        return -1;
    }
    return open(path, flags);
}

int LevelRequest(Standin &s, unsigned long request, KernelLevelRequest &req) {
    switch (request) {
        case kGetLevel:
            req.level = s.levels.contains(req.pid) ? s.levels[req.pid] : 0;
            return 0;
        case kSetLevel:
            s.levels[req.pid] = req.level;
            return 0;
        case kGetPidNum:
            req.count = static_cast<uint32_t>(s.levels.size());
            return 0;
        case kGetAllLevels: {
            auto *out = reinterpret_cast<StandinLevelEntry *>(static_cast<uintptr_t>(req.array));
            if (out == nullptr) {
                errno = EFAULT;
                return -1;
            }
            uint32_t i = 0;
            for (auto it = s.levels.begin(); it != s.levels.end() && i < req.count; ++it) {
                out[i++] = {it->first, it->second};
            }
            return 0;
        }
        case kSaveLevels:
            s.saves++;
            return 0;
    }
    errno = ENOTTY;
    return -1;
}

int StandinIoctl(int fd, unsigned long request, void *arg) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
        return -1;
    }
    const FileId id{st.st_dev, st.st_ino};
    Standin &s = TheStandin();
    std::lock_guard<std::mutex> lock(s.mutex);
    errno = arg == nullptr ? EFAULT : s.failRequests ? EIO : ENOTTY;
    if (arg == nullptr || s.failRequests) {
        return -1;
    }
    if (id == g_levelFile) {
        KernelLevelRequest req;
        memcpy(&req, arg, sizeof req);
        const int rc = LevelRequest(s, request, req);
        memcpy(arg, &req, sizeof req);
        return rc;
    }
    KernelGidRequest req;
    memcpy(&req, arg, sizeof req);
    if (id != g_limitFile || request != kGetGidLimit) {
        return -1;
    }
    if (!s.limits.contains(req.gid)) {
        errno = ENOENT;
        return -1;
    }
    req.limit = s.limits[req.gid];
    memcpy(arg, &req, sizeof req);
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

gid_t StandinGid() {
    return TheStandin().gid.load();
}

FileId Touch(const fs::path &path) {
    std::ofstream(path).flush();
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        throw std::runtime_error("cannot create " + path.string());
    }
    return {st.st_dev, st.st_ino};
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
    Standin &s = TheStandin();
    std::lock_guard<std::mutex> lock(s.mutex);
    g_roots.push_back(root);
    g_module = withKernelModule;
    g_levelFile = g_limitFile = {};
    if (withKernelModule) {
        fs::create_directories(root + "/proc/zeb");
        g_levelFile = Touch(root + "/proc/zeb/log_level");
        g_limitFile = Touch(root + "/proc/zeb/mod_ring_buffer");
    }
    s.levels.clear();
    s.limits.clear();
    s.saves = 0;
    s.failRequests = false;
    s.clockNs = 1000 * kStandinSecond;
    s.clockFails = false;
    s.gid = 0;
    static ZebSys sys;
    sys = {g_roots.back().c_str(), StandinOpen, StandinIoctl, StandinMonotonic, StandinGid};
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
