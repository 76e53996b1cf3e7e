// File and mapped-file helpers: POSIX calls under the platform's names, a
// configuration-line reader, a file copy, and mappings that can be undone by
// their start address alone.
#ifndef PLATFORM_LZEB_FILE_H
#define PLATFORM_LZEB_FILE_H

#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct MapData {
    uint64_t start;
    uint64_t length;
} MapData;

#define LZEB_MAX_MAPPINGS 32

// open(2) with O_CLOEXEC added to `flags`.
int LZEB_open(const char *path, int flags, uint32_t mode);
void LZEB_close(int fd);
int LZEB_sync(int fd);
off_t LZEB_lseek(int fd, int64_t offset, int whence);
ssize_t LZEB_read(int fd, void *buffer, uint32_t length);
ssize_t LZEB_write(int fd, const void *buffer, uint32_t length);
int LZEB_access(const char *path, int mode);

// One line (line feed kept, carriage returns dropped), or null when nothing was read.
char *LZEB_readline(int fd, char *buffer, int32_t size);
int LZEB_copy(const char *source, const char *destination);

// Start address, null, or MAP_FAILED; first extends a shorter regular file
// open read-write to offset+length bytes, changing no byte already there.
void *LZEB_mmap(int fd, int prot, int64_t offset, uint64_t length);
// 0, or -1 when the address was not mapped through LZEB_mmap.
int LZEB_munmap(void *address);
int AddMapData(const MapData *row);
int FetchMapData(MapData *row);

#ifdef __cplusplus
}
#endif

#endif  // PLATFORM_LZEB_FILE_H
