// Test support: the logging library's stand-in for the device (paths, kernel
// module requests 801..806, clock, group id); each install starts afresh.
#ifndef TESTS_SUPPORT_KMOD_STANDIN_H
#define TESTS_SUPPORT_KMOD_STANDIN_H

#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

namespace vt_test {

// One element of the array that request 804 fills.
struct StandinLevelEntry {
    uint32_t pid;
    uint32_t level;
};

struct StandinGidLimit {
    uint32_t num, interval, burst, resume;
};

constexpr int64_t kStandinSecond = 1000000000;

// The kernel module's tables; the request handler holds `mutex`.
struct Standin {
    std::mutex mutex;
    std::map<uint32_t, uint8_t> levels;          // by module; 0 when unknown
    std::map<uint32_t, StandinGidLimit> limits;  // by group; 806 fails for others
    int saves = 0;                               // save requests (805) answered
    bool failRequests = false;                   // every request fails with EIO
    std::atomic<int64_t> clockNs;                // CLOCK_MONOTONIC in nanoseconds
    std::atomic<bool> clockFails;                // every clock read fails with EIO
    std::atomic<gid_t> gid;                      // read at each library call
};
Standin &TheStandin();

// Product directories below `root` (with the module, root/proc/zeb too);
// empties the tables, clock at 1000 s, group id 0.
void InstallLoggingStandin(const std::string &root, bool withKernelModule);

// A fresh directory under /tmp, removed with everything in it on destruction.
class TempRoot {
  public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot &) = delete;
    TempRoot &operator=(const TempRoot &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// Whole files at product paths below the installed root.
void WriteProductFile(const std::string &productPath, const std::string &content);
std::string ReadProductFile(const std::string &productPath);

}  // namespace vt_test

#endif  // TESTS_SUPPORT_KMOD_STANDIN_H
