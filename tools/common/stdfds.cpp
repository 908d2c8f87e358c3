#include "stdfds.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kvtools {

void reserveStandardDescriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        // open gives the lowest free descriptor: this one, since those below are open.
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF && open("/dev/null", O_RDONLY) != fd) {
            _exit(2);
        }
    }
}

}  // namespace kvtools
