// File and mapped-file helpers. Diagnostics go to syslog at
// priority 6 (LOG_INFO) directly.
#include "platform/lzeb_file.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

// LZEB_copy moves the file in pieces of this size; a short write ends it.
constexpr uint32_t kCopyPiece = 128;

// The mapping table: rows 0 to iValidCnt-1 are in use, in no order. Guarded
// by stMutex, which is initialised once per process through pthread_once.
MapData astMapData[LZEB_MAX_MAPPINGS];
int32_t iValidCnt = 0;
pthread_spinlock_t stMutex;
pthread_once_t init_mmap_is_initialized = PTHREAD_ONCE_INIT;

void init_mmap_once() {
    pthread_spin_init(&stMutex, PTHREAD_PROCESS_PRIVATE);
}

void InitMmap() {
    pthread_once(&init_mmap_is_initialized, init_mmap_once);
}

// Holds stMutex for one scope; nothing inside takes another lock.
class SpinGuard {
  public:
    SpinGuard() { pthread_spin_lock(&stMutex); }
    ~SpinGuard() { pthread_spin_unlock(&stMutex); }
    SpinGuard(const SpinGuard &) = delete;
    SpinGuard &operator=(const SpinGuard &) = delete;
};

// The copy loop of LZEB_copy: 0, or -1 after the message for a failed read
// or write.
int CopyPieces(int srcFd, int dstFd, const char *source, const char *destination) {
    char piece[kCopyPiece];
    ssize_t written = 0;
    do {
        ssize_t got = read(srcFd, piece, sizeof piece);
        if (got < 0) {
            syslog(LOG_INFO, "Copy read data from file (%s) to (%s) Fail, (%d).\n", source,
                   destination, errno);
            return -1;
        }
        written = write(dstFd, piece, static_cast<size_t>(got));
        if (written < 0) {
            syslog(LOG_INFO, "Copy write data from file (%s) to (%s) Fail, (%d).\n", source,
                   destination, errno);
            return -1;
        }
    } while (written == static_cast<ssize_t>(kCopyPiece));
    return 0;
}

// Makes sure the whole range [offset, offset+length) of the file is backed,
// so that touching the mapping cannot fault: a regular file open read-write
// that is shorter is extended with zero bytes. No byte already in the file
// changes, and the descriptor's position stays where it was. False when the
// descriptor cannot be read (as a mapping would need) or the file cannot grow.
bool BackMappedRange(int fd, int64_t offset, uint64_t length) {
    if (offset < 0 || length > static_cast<uint64_t>(INT64_MAX - offset)) {
        return false;
    }
    const auto end = static_cast<off_t>(offset + static_cast<int64_t>(length));
    unsigned char byte;
    struct stat st;
    if (pread(fd, &byte, 1, end) < 0 || fstat(fd, &st) != 0) {
        return false;
    }
    const int flags = fcntl(fd, F_GETFL);
    if (!S_ISREG(st.st_mode) || st.st_size >= end || flags == -1 || (flags & O_ACCMODE) != O_RDWR) {
        return true;
    }
    return ftruncate(fd, end) == 0;
}

}  // namespace

extern "C" {

// Every descriptor is opened close-on-exec: the libraries run shell commands
// (LZEB_system), and no child of theirs is meant to inherit a configuration
// file or a kernel module's control file.
int LZEB_open(const char *path, int flags, uint32_t mode) {
    return open(path, flags | O_CLOEXEC, static_cast<mode_t>(mode));
}

void LZEB_close(int fd) {
    close(fd);
}

int LZEB_sync(int fd) {
    return fsync(fd);
}

off_t LZEB_lseek(int fd, int64_t offset, int whence) {
    return lseek(fd, static_cast<off_t>(offset), whence);
}

ssize_t LZEB_read(int fd, void *buffer, uint32_t length) {
    return read(fd, buffer, length);
}

ssize_t LZEB_write(int fd, const void *buffer, uint32_t length) {
    return write(fd, buffer, length);
}

int LZEB_access(const char *path, int mode) {
    return access(path, mode);
}

// LZEB_readline: reads one byte at a time until a line feed (kept), the end
// of the input or size-1 stored characters; carriage returns are dropped.
// Returns the terminated buffer, or null when no character was stored (and
// for a null buffer or a size below 1). A longer line comes back in pieces.
char *LZEB_readline(int fd, char *buffer, int32_t size) {
    if (size < 1 || buffer == nullptr) {
        return nullptr;
    }
    int32_t count = 0;
    while (count < size - 1) {
        char c;
        if (read(fd, &c, 1) < 1) {
            buffer[count] = '\0';
            break;
        }
        if (c == '\r') {
            continue;
        }
        buffer[count++] = c;
        if (c == '\n') {
            buffer[count] = '\0';
            break;
        }
    }
    buffer[size - 1] = '\0';
    return count == 0 ? nullptr : buffer;
}

// LZEB_copy: copies `source` into `destination` (created or truncated, mode
// 0600) in 128-byte pieces; 0, or -1 after a syslog message. The source is
// opened read-write, like every other caller of this helper on the device.
int LZEB_copy(const char *source, const char *destination) {
    if (source == nullptr || destination == nullptr) {
        syslog(LOG_INFO, "Input para null.\n");
        return -1;
    }
    int srcFd = open(source, O_RDWR | O_CLOEXEC);
    if (srcFd < 0) {
        syslog(LOG_INFO, "Open source file (%s) error,return.\n", source);
        return -1;
    }
    int dstFd = open(destination, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (dstFd < 0) {
        syslog(LOG_INFO, "Open dest file (%s) error,return.\n", destination);
        close(srcFd);
        return -1;
    }
    int ret = CopyPieces(srcFd, dstFd, source, destination);
    close(srcFd);
    close(dstFd);
    return ret;
}

// LZEB_mmap: maps `length` bytes of `fd` at `offset` (MAP_SHARED) and records
// the mapping for LZEB_munmap. Returns the start address, null (the
// descriptor cannot be read, the file cannot be grown, or the table is
// full), or MAP_FAILED.
//
// A regular file open read-write that is shorter than offset+length is first
// extended with zero bytes to that length (see BackMappedRange); mapping
// never changes a byte that is already in the file.
//
// MAP_FAILED is not recorded: a
// failed mapping covers no addresses, nobody unmaps it, and a row spent on it
// would shrink the 32-row table for the rest of the process; refusing it when
// the table is full would mean calling munmap on MAP_FAILED.
void *LZEB_mmap(int fd, int prot, int64_t offset, uint64_t length) {
    InitMmap();
    if (!BackMappedRange(fd, offset, length)) {
        return nullptr;
    }
    void *start = mmap(nullptr, length, prot, MAP_SHARED, fd, static_cast<off_t>(offset));
    if (start == nullptr || start == MAP_FAILED) {
        return start;
    }
    MapData row = {reinterpret_cast<uint64_t>(start), length};
    if (AddMapData(&row) == 0) {
        munmap(start, length);
        return nullptr;
    }
    return start;
}

// LZEB_munmap: unmaps a region recorded by LZEB_mmap; 0, or -1 when the
// address is not in the table. The munmap result is not reported.
int LZEB_munmap(void *address) {
    InitMmap();
    MapData row = {reinterpret_cast<uint64_t>(address), 0};
    if (FetchMapData(&row) == 0) {
        return -1;
    }
    munmap(address, row.length);
    return 0;
}

// AddMapData: appends a row; 1 when stored, 0 when all 32 rows are in use.
int AddMapData(const MapData *row) {
    if (row == nullptr) {
        return 0;
    }
    InitMmap();
    SpinGuard guard;
    if (iValidCnt >= LZEB_MAX_MAPPINGS) {
        return 0;
    }
    astMapData[iValidCnt++] = *row;
    return 1;
}

// FetchMapData: finds the first row with row->start, copies it into *row and
// removes it (the last row moves into its place); 1 when found, else 0.
int FetchMapData(MapData *row) {
    if (row == nullptr) {
        return 0;
    }
    InitMmap();
    SpinGuard guard;
    for (int32_t i = 0; i < iValidCnt; ++i) {
        if (astMapData[i].start == row->start) {
            --iValidCnt;
            *row = astMapData[i];
            astMapData[i] = astMapData[iValidCnt];
            return 1;
        }
    }
    return 0;
}

}  // extern "C"
