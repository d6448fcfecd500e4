#include "store/secret_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "store/files.h"

namespace store::fs {

namespace {

// Reads until end of file or until the buffer is full; 0 or errno.
int readInto(int fd, char* buffer, std::size_t capacity, std::size_t& length) {
    length = 0;
    while (length < capacity) {
        ssize_t n = readUninterrupted(fd, buffer + length, capacity - length);
        if (n < 0) return errno;
        if (n == 0) return 0;
        length += static_cast<std::size_t>(n);
    }
    // Full: one more byte tells an exact fit from a longer file, without keeping it.
    char probe;
    ssize_t n = readUninterrupted(fd, &probe, 1);
    return n < 0 ? errno : n > 0 ? EFBIG : 0;
}

}  // namespace

int readSecretFile(const std::string& logical, char* buffer, std::size_t capacity, SecretFile& file) {
    auto path = physicalPath(logical);
    if (!path) return EINVAL;
    // Non-blocking: a FIFO put where the key should be must not hold up the boot.
    int fd = open(path->c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return errno;
    struct stat st;
    int err = fstat(fd, &st) != 0 ? errno : S_ISREG(st.st_mode) ? 0 : EINVAL;
    if (!err) {
        file.othersMayRead = (st.st_mode & (S_IRGRP | S_IROTH)) != 0;
        err = readInto(fd, buffer, capacity, file.length);
    }
    close(fd);
    return err;
}

}  // namespace store::fs
