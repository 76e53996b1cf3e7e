// Test support: the logging library's stand-in for the device.
//
// InstallLoggingStandin puts every product path of the logging library under
// a root directory, answers the kernel module's requests 801..806 from tables
// held here (when the module is "present"), and replaces CLOCK_MONOTONIC and
// the process group id with values the test controls. Each install makes the
// library start afresh (zeb_sys_install), so tests can run in one process.
#ifndef TESTS_SUPPORT_KMOD_STANDIN_H
#define TESTS_SUPPORT_KMOD_STANDIN_H

#include <stdint.h>
#include <sys/types.h>

#include <string>

namespace vt_test {

// Creates root/{dev/shm, KELM/conf, etc/zeb/pid, startup_disk/conf/conf_local}
// and, with the module, root/proc/zeb/{log_level, mod_ring_buffer}; then
// installs the seam. The clock starts at 1000.000000 s and the group id at 0.
void InstallLoggingStandin(const std::string &root, bool withKernelModule);

// The monotonic clock handed to the library.
void StandinSetClock(int64_t seconds, long nanoseconds);
void StandinAdvanceClock(int64_t seconds);
// Makes every further clock read fail with EIO (or work again).
void StandinFailClock(bool fail);
// The group id the library sees (default 0); set it before the first call.
void StandinSetProcessGid(gid_t gid);

// The kernel module's level of a module (0 when it knows none).
void StandinSetKernelLevel(uint32_t pid, uint8_t level);
uint8_t StandinKernelLevel(uint32_t pid);
// Makes every further request fail (or work again).
void StandinFailRequests(bool fail);
// How many save requests (805) were answered.
int StandinSaveCount();

// One element of the array that request 804 fills.
struct StandinLevelEntry {
    uint32_t pid;
    uint32_t level;
};

// The kernel module's limits of a group (request 806 fails for other groups).
struct StandinGidLimit {
    uint32_t num;
    uint32_t interval;
    uint32_t burst;
    uint32_t resume;
};
void StandinSetGidLimit(uint32_t gid, const StandinGidLimit &limit);

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

// Whole-file helpers for tests; paths are product paths below the installed root.
void WriteProductFile(const std::string &productPath, const std::string &content);
std::string ReadProductFile(const std::string &productPath);
bool ProductFileExists(const std::string &productPath);

}  // namespace vt_test

#endif  // TESTS_SUPPORT_KMOD_STANDIN_H
