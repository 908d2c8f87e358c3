#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lrpc2/exchange.h"

namespace {

bool proof_sized(const struct stat& st) {
    return S_ISREG(st.st_mode) && st.st_size > 0 &&
           st.st_size <= static_cast<off_t>(LRPC2_MAX_PROOF_LEN);
}

// Opens the file examined as `examined`. Non-blocking so that a FIFO or device put in its
// place cannot hang the open; the descriptor must still be that same regular file.
int open_examined(const char* path, const struct stat& examined) {
    const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct stat opened;
    if (fstat(fd, &opened) != 0 || !proof_sized(opened) || opened.st_dev != examined.st_dev ||
        opened.st_ino != examined.st_ino) {
        close(fd);
        return -1;
    }
    return fd;
}

// Reads exactly `size` bytes; a file that ends early fails instead of waiting.
bool read_exact(int fd, uint8_t* data, uint32_t size) {
    uint32_t done = 0;
    while (done < size) {
        const ssize_t n = read(fd, data + done, size - done);
        if (n > 0) {
            done += static_cast<uint32_t>(n);
        } else if (n == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int lrpc2_read_proof_files(const char* path1, const char* path2, uint8_t** data1,
                                      uint8_t** data2, uint32_t* size1, uint32_t* size2) {
    if (path1 == nullptr || path2 == nullptr || data1 == nullptr || data2 == nullptr ||
        size1 == nullptr || size2 == nullptr) {
        return 1;
    }
    struct stat st1;
    struct stat st2;
    if (stat(path1, &st1) != 0 || stat(path2, &st2) != 0 || !proof_sized(st1) ||
        !proof_sized(st2)) {
        return 1;
    }
    *size1 = static_cast<uint32_t>(st1.st_size);
    *size2 = static_cast<uint32_t>(st2.st_size);
    const int fd1 = open_examined(path1, st1);
    const int fd2 = fd1 < 0 ? -1 : open_examined(path2, st2);
    bool ok = fd1 >= 0 && fd2 >= 0;
    if (ok) {
        *data1 = static_cast<uint8_t*>(malloc(*size1));
        *data2 = static_cast<uint8_t*>(malloc(*size2));
        ok = *data1 != nullptr && *data2 != nullptr && read_exact(fd1, *data1, *size1) &&
             read_exact(fd2, *data2, *size2);
    }
    if (fd1 >= 0) {
        close(fd1);
    }
    if (fd2 >= 0) {
        close(fd2);
    }
    return ok ? 0 : 1;
}
