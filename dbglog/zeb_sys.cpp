#include "dbglog/zeb_sys.h"

#include "dbglog/internal.h"
#include "platform/securec.h"

#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>

namespace {

int DeviceOpen(const char *path, int flags) {
    return open(path, flags);
}

int DeviceIoctl(int fd, unsigned long request, void *arg) {
    return ioctl(fd, request, arg);
}

int DeviceMonotonic(struct timespec *now) {
    return clock_gettime(CLOCK_MONOTONIC, now);
}

gid_t DeviceGid() {
    return getgid();
}

constexpr ZebSys kDevice = {"", DeviceOpen, DeviceIoctl, DeviceMonotonic, DeviceGid};

// The installed seam with every null member filled from the device's own, so
// callers never test members for null.
ZebSys g_installed = kDevice;
std::atomic<const ZebSys *> g_current{&kDevice};

}  // namespace

extern "C" const ZebSys *zeb_sys(void) {
    return g_current.load(std::memory_order_acquire);
}

extern "C" void zeb_sys_install(const ZebSys *sys) {
    // What the library learnt through the previous seam (tables, shared
    // record, descriptors) belongs to that seam's device.
    dbglog::ForgetState();
    if (sys == nullptr) {
        g_current.store(&kDevice, std::memory_order_release);
        return;
    }
    g_installed.root = sys->root != nullptr ? sys->root : kDevice.root;
    g_installed.kmodOpen = sys->kmodOpen != nullptr ? sys->kmodOpen : kDevice.kmodOpen;
    g_installed.kmodIoctl = sys->kmodIoctl != nullptr ? sys->kmodIoctl : kDevice.kmodIoctl;
    g_installed.monotonic = sys->monotonic != nullptr ? sys->monotonic : kDevice.monotonic;
    g_installed.processGid = sys->processGid != nullptr ? sys->processGid : kDevice.processGid;
    g_current.store(&g_installed, std::memory_order_release);
}

extern "C" int zeb_sys_path(const char *productPath, char *out, size_t outSize) {
    if (productPath == nullptr || out == nullptr || outSize == 0) {
        return -1;
    }
    const char *root = zeb_sys()->root;
    size_t rootLen = strlen(root);
    size_t pathLen = strlen(productPath);
    if (rootLen >= outSize || pathLen >= outSize - rootLen) {
        out[0] = '\0';
        return -1;
    }
    if (memcpy_s(out, outSize, root, rootLen) != 0 ||
        memcpy_s(out + rootLen, outSize - rootLen, productPath, pathLen + 1) != 0) {
        out[0] = '\0';
        return -1;
    }
    return 0;
}
