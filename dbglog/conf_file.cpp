// Reading and rewriting the library's line-oriented configuration files.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <string.h>
#include <syslog.h>

#include "dbglog/internal.h"
#include "dbglog/zeb_sys.h"
#include "platform/lzeb_exec.h"
#include "platform/lzeb_file.h"
#include "platform/securec.h"

namespace dbglog {

namespace {

// Closes a descriptor on every way out.
class FdGuard {
  public:
    explicit FdGuard(int fd) : fd_(fd) {}
    ~FdGuard() { Close(); }
    FdGuard(const FdGuard &) = delete;
    FdGuard &operator=(const FdGuard &) = delete;
    int get() const { return fd_; }
    void Close() {
        if (fd_ >= 0) {
            LZEB_close(fd_);
            fd_ = -1;
        }
    }

  private:
    int fd_;
};

}  // namespace

bool IsSkippedLine(const char *line) {
    return line == nullptr || line[0] == '\n' || strchr(line, '#') != nullptr;
}

void CommasToBlanks(char *line) {
    for (; line != nullptr && *line != '\0'; ++line) {
        if (*line == ',') {
            *line = ' ';
        }
    }
}

const char *LineCursor::AfterKey(const char *key) const {
    const size_t length = strlen(key);
    if (strncmp(p_, key, length) != 0 || p_[length] != '=') {
        return nullptr;
    }
    return p_ + length + 1;
}

bool LineCursor::Number(const char *key, uint32_t *value) {
    const char *q = AfterKey(key);
    if (q == nullptr || *q < '0' || *q > '9') {
        return false;
    }
    uint64_t n = 0;
    for (; *q >= '0' && *q <= '9'; ++q) {
        n = n * 10 + static_cast<uint64_t>(*q - '0');
        if (n > UINT32_MAX) {
            return false;
        }
    }
    *value = static_cast<uint32_t>(n);
    p_ = q;
    return true;
}

bool LineCursor::Word(const char *key, char *out, size_t size) {
    const char *q = AfterKey(key);
    if (q == nullptr) {
        return false;
    }
    const size_t length = strcspn(q, " \t\r\n");
    if (length == 0 || length >= size || memcpy_s(out, size, q, length) != 0) {
        return false;
    }
    out[length] = '\0';
    p_ = q + length;
    return true;
}

bool LineCursor::Char(char c) {
    if (*p_ != c || c == '\0') {
        return false;
    }
    ++p_;
    return true;
}

bool LineCursor::Blanks() {
    const size_t length = strspn(p_, " \t");
    p_ += length;
    return length > 0;
}

bool LineCursor::AtEnd() const {
    return p_[strspn(p_, " \t\r\n")] == '\0';
}

void ReadConfFile(const char *productPath, LineParser parse, uint32_t arg, const char *owner,
                  const char *parserName) {
    FdGuard fd(OpenProductPath(productPath, O_RDONLY, 0777));
    if (fd.get() < 0) {
        return;
    }
    char line[kConfLineSize];
    while (LZEB_readline(fd.get(), line, sizeof line) != nullptr) {
        if (parse(line, arg) != 0) {
            syslog(LOG_INFO, "%s: %s %s fail, (%s)\n", owner, productPath, parserName, line);
        }
    }
}

bool ScanPidDirectory(pthread_mutex_t *mutex, void (*perName)(const char *name),
                      const char *owner) {
    char path[PATH_MAX];
    if (zeb_sys_path(kPidDir, path, sizeof path) != 0) {
        return false;
    }
    DIR *dir = opendir(path);
    if (dir == nullptr) {
        return false;
    }
    {
        MutexGuard guard(mutex);
        int error = 0;
        for (;;) {
            errno = 0;
            struct dirent *entry = readdir(dir);
            if (entry == nullptr) {
                error = errno;
                break;
            }
            perName(entry->d_name);
        }
        if (error != 0) {
            syslog(LOG_INFO, "%s: readdir_r fail, %d\n", owner, error);
        }
    }
    closedir(dir);
    return true;
}

int SaveConfFile(const char *productPath, LineSource nextLine, void *ctx, const char *owner,
                 int formatLine, int commandLine) {
    char newProduct[PATH_MAX];
    int rc =
        snprintf_s(newProduct, sizeof newProduct, sizeof newProduct - 1, "%s.new", productPath);
    if (rc < 0) {
        syslog(LOG_INFO, "snprintf_s fail, err is %d in %s func, %d line.\n", rc, owner,
               formatLine);
        return -1;
    }
    FdGuard fd(OpenProductPath(newProduct, O_WRONLY | O_CREAT | O_TRUNC | O_SYNC, 0777));
    if (fd.get() < 0) {
        syslog(LOG_INFO, "%s: LZEB_open fail, %d.\n", owner, fd.get());
        return fd.get();
    }
    char line[kConfLineSize];
    for (;;) {
        int length = nextLine(ctx, line, sizeof line);
        if (length == 0) {
            break;
        }
        if (length < 0) {
            syslog(LOG_INFO, "snprintf_s fail, err is %d in %s func, %d line.\n", length, owner,
                   formatLine);
            return -1;
        }
        ssize_t written = LZEB_write(fd.get(), line, static_cast<uint32_t>(length));
        if (written != length) {
            syslog(LOG_INFO, "%s: LZEB_write fail, %d.\n", owner, static_cast<int>(written));
            return static_cast<int>(written);
        }
    }
    fd.Close();
    // The shell sees the same root as the library, so "/dev/kmsg" is prefixed
    // too: on the device this is the plain command.
    char from[PATH_MAX];
    char to[PATH_MAX];
    char kmsg[PATH_MAX];
    char command[3 * PATH_MAX];
    rc = -1;
    if (zeb_sys_path(newProduct, from, sizeof from) == 0 &&
        zeb_sys_path(productPath, to, sizeof to) == 0 &&
        zeb_sys_path("/dev/kmsg", kmsg, sizeof kmsg) == 0) {
        rc = snprintf_s(command, sizeof command, sizeof command - 1, "mv -f %s %s 2>%s", from, to,
                        kmsg);
    }
    if (rc < 0) {
        syslog(LOG_INFO, "snprintf_s fail, err is %d in %s func, %d line.\n", rc, owner,
               commandLine);
        return -1;
    }
    syslog(LOG_INFO, "<6>%s\n", command);
    return LZEB_Execute(command);
}

}  // namespace dbglog
