#include "tests/support/kmod_standin.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "dbglog/zeb_sys.h"

namespace vt_test {
namespace {

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
static_assert(offsetof(KernelLevelRequest, pid) == 0);
static_assert(offsetof(KernelLevelRequest, level) == 4);
static_assert(offsetof(KernelLevelRequest, count) == 8);
static_assert(offsetof(KernelLevelRequest, array) == 16);

struct KernelGidRequest {
    uint32_t gid;
    uint32_t num;
    uint32_t interval;
    uint32_t burst;
    uint32_t resume;
};
static_assert(sizeof(KernelGidRequest) == 20);

constexpr unsigned long kGetLevel = 801;
constexpr unsigned long kSetLevel = 802;
constexpr unsigned long kGetPidNum = 803;
constexpr unsigned long kGetAllLevels = 804;
constexpr unsigned long kSaveLevels = 805;
constexpr unsigned long kGetGidLimit = 806;

struct FileId {
    dev_t dev = 0;
    ino_t ino = 0;
    bool Matches(const struct stat &st) const { return st.st_dev == dev && st.st_ino == ino; }
};

struct State {
    std::mutex mutex;
    // Every root handed to the library stays alive: it may still be in use.
    std::vector<std::unique_ptr<std::string>> roots;
    bool module = false;
    FileId levelFile;
    FileId limitFile;
    std::map<uint32_t, uint8_t> levels;
    std::map<uint32_t, StandinGidLimit> limits;
    int saves = 0;
    bool failRequests = false;
};

// Never destroyed: library calls from late threads or atexit may still use it.
State &TheState() {
    static State *state = new State;
    return *state;
}

constexpr int64_t kNsPerSecond = 1000000000;
std::atomic<int64_t> g_clockNs{1000 * kNsPerSecond};
std::atomic<bool> g_clockFails{false};
std::atomic<gid_t> g_gid{0};

int StandinOpen(const char *path, int flags) {
    if (!TheState().module) {
        errno = ENOENT;
        return -1;
    }
    return open(path, flags);
}

int LevelRequest(State &s, unsigned long request, void *arg) {
    KernelLevelRequest req;
    memcpy(&req, arg, sizeof req);
    switch (request) {
        case kGetLevel: {
            auto it = s.levels.find(req.pid);
            req.level = it == s.levels.end() ? 0 : it->second;
            break;
        }
        case kSetLevel:
            s.levels[req.pid] = req.level;
            break;
        case kGetPidNum:
            req.count = static_cast<uint32_t>(s.levels.size());
            break;
        case kGetAllLevels: {
            auto *out = reinterpret_cast<StandinLevelEntry *>(static_cast<uintptr_t>(req.array));
            if (out == nullptr) {
                errno = EFAULT;
                return -1;
            }
            uint32_t i = 0;
            for (auto it = s.levels.begin(); it != s.levels.end() && i < req.count; ++it, ++i) {
                out[i] = {it->first, it->second};
            }
            break;
        }
        case kSaveLevels:
            s.saves++;
            break;
        default:
            errno = ENOTTY;
            return -1;
    }
    memcpy(arg, &req, sizeof req);
    return 0;
}

int GidRequest(State &s, void *arg) {
    KernelGidRequest req;
    memcpy(&req, arg, sizeof req);
    auto it = s.limits.find(req.gid);
    if (it == s.limits.end()) {
        errno = ENOENT;
        return -1;
    }
    req.num = it->second.num;
    req.interval = it->second.interval;
    req.burst = it->second.burst;
    req.resume = it->second.resume;
    memcpy(arg, &req, sizeof req);
    return 0;
}

int StandinIoctl(int fd, unsigned long request, void *arg) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
        return -1;
    }
    if (arg == nullptr) {
        errno = EFAULT;
        return -1;
    }
    State &s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.failRequests) {
        errno = EIO;
        return -1;
    }
    if (s.levelFile.Matches(st)) {
        return LevelRequest(s, request, arg);
    }
    if (s.limitFile.Matches(st) && request == kGetGidLimit) {
        return GidRequest(s, arg);
    }
    errno = ENOTTY;
    return -1;
}

int StandinMonotonic(struct timespec *now) {
    if (g_clockFails.load()) {
        errno = EIO;
        return -1;
    }
    int64_t ns = g_clockNs.load();
    now->tv_sec = static_cast<time_t>(ns / kNsPerSecond);
    now->tv_nsec = static_cast<long>(ns % kNsPerSecond);
    return 0;
}

gid_t StandinGid() {
    return g_gid.load();
}

FileId Touch(const std::filesystem::path &path) {
    std::ofstream(path).flush();
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        throw std::runtime_error("cannot create " + path.string());
    }
    return {st.st_dev, st.st_ino};
}

std::filesystem::path ProductPath(const std::string &productPath) {
    State &s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.roots.empty()) {
        throw std::logic_error("the logging stand-in is not installed");
    }
    return *s.roots.back() + productPath;
}

}  // namespace

void InstallLoggingStandin(const std::string &root, bool withKernelModule) {
    namespace fs = std::filesystem;
    for (const char *dir :
         {"/dev/shm", "/KELM/conf", "/etc/zeb/pid", "/startup_disk/conf/conf_local"}) {
        fs::create_directories(root + dir);
    }
    State &s = TheState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.roots.push_back(std::make_unique<std::string>(root));
    s.module = withKernelModule;
    s.levels.clear();
    s.limits.clear();
    s.saves = 0;
    s.failRequests = false;
    s.levelFile = {};
    s.limitFile = {};
    if (withKernelModule) {
        fs::create_directories(root + "/proc/zeb");
        s.levelFile = Touch(root + "/proc/zeb/log_level");
        s.limitFile = Touch(root + "/proc/zeb/mod_ring_buffer");
    }
    g_clockNs.store(1000 * kNsPerSecond);
    g_clockFails.store(false);
    g_gid.store(0);
    static ZebSys sys;
    sys = {s.roots.back()->c_str(), StandinOpen, StandinIoctl, StandinMonotonic, StandinGid};
    zeb_sys_install(&sys);
}

void StandinSetClock(int64_t seconds, long nanoseconds) {
    g_clockNs.store(seconds * kNsPerSecond + nanoseconds);
}

void StandinAdvanceClock(int64_t seconds) {
    g_clockNs.fetch_add(seconds * kNsPerSecond);
}

void StandinFailClock(bool fail) {
    g_clockFails.store(fail);
}

void StandinSetProcessGid(gid_t gid) {
    g_gid.store(gid);
}

void StandinSetKernelLevel(uint32_t pid, uint8_t level) {
    std::lock_guard<std::mutex> lock(TheState().mutex);
    TheState().levels[pid] = level;
}

uint8_t StandinKernelLevel(uint32_t pid) {
    std::lock_guard<std::mutex> lock(TheState().mutex);
    auto it = TheState().levels.find(pid);
    return it == TheState().levels.end() ? 0 : it->second;
}

void StandinFailRequests(bool fail) {
    std::lock_guard<std::mutex> lock(TheState().mutex);
    TheState().failRequests = fail;
}

int StandinSaveCount() {
    std::lock_guard<std::mutex> lock(TheState().mutex);
    return TheState().saves;
}

void StandinSetGidLimit(uint32_t gid, const StandinGidLimit &limit) {
    std::lock_guard<std::mutex> lock(TheState().mutex);
    TheState().limits[gid] = limit;
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
    std::filesystem::remove_all(path_, ignored);
}

void WriteProductFile(const std::string &productPath, const std::string &content) {
    auto path = ProductPath(productPath);
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string ReadProductFile(const std::string &productPath) {
    std::ifstream in(ProductPath(productPath), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool ProductFileExists(const std::string &productPath) {
    return std::filesystem::exists(ProductPath(productPath));
}

}  // namespace vt_test
