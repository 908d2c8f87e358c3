// Operating-system helpers.
#include "zfw/osport.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "zfw/exception.h"

namespace zfw {
namespace {

pthread_mutex_t gProgramNameMutex = PTHREAD_MUTEX_INITIALIZER;
// Holds the status file's text; the program name may end up pointing into it.
char gStatusText[4096];

bool programNameMissing() {
    return program_invocation_short_name == nullptr || program_invocation_short_name[0] == '\0';
}

}  // namespace

// program_invocation_short_name is the C run time's __progname (also syslog's default
// identity) under its documented name.
void ensureProgramName() {
    const int err = pthread_mutex_lock(&gProgramNameMutex);
    if (err != 0) {
        ZFW_THROW_ERRNO(SystemException, err, true, err, "OS call failed");
    }
    if (programNameMissing()) {
        const int fd = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            const ssize_t n = read(fd, gStatusText, sizeof gStatusText - 1);
            gStatusText[n > 0 ? n : 0] = '\0';
            char* name = std::strchr(gStatusText, '(');
            if (name != nullptr) {
                ++name;
                char* end = std::strchr(name, ')');
                if (end != nullptr) {
                    *end = '\0';
                }
                program_invocation_short_name = name;
            }
            close(fd);
        }
    }
    if (programNameMissing()) {
        program_invocation_short_name = const_cast<char*>("unknown");
    }
    pthread_mutex_unlock(&gProgramNameMutex);
}

}  // namespace zfw
