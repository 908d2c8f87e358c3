// The process's random numbers: random, srandom, rand and srand replace the C library's
// own, so that every caller in the process (shared libraries and the C library's users of
// these names included) draws from one 48-bit generator, one caller at a time. This file
// belongs to the operating-system helpers; it is built into the override objects that every
// executable links, so the definitions are present even when only outside code calls them.
#include <pthread.h>

#include <cstdlib>

#include "zfw/exception.h"

namespace zfw {
namespace {

pthread_mutex_t gRandomMutex = PTHREAD_MUTEX_INITIALIZER;

// The C library declares these functions noexcept, so a failure to lock (which a static
// plain mutex cannot meet in practice) ends the process instead of unwinding into C code.
class RandomLock {
  public:
    RandomLock() {
        int rc = pthread_mutex_lock(&gRandomMutex);
        if (rc != 0) {
            ZFW_THROW_ERRNO(SystemException, rc, true, rc, "OS call failed");
        }
    }
    ~RandomLock() { pthread_mutex_unlock(&gRandomMutex); }
    RandomLock(const RandomLock&) = delete;
    RandomLock& operator=(const RandomLock&) = delete;
};

}  // namespace
}  // namespace zfw

extern "C" {

__attribute__((visibility("default"))) void srandom(unsigned int seed) {
    zfw::RandomLock lock;
    srand48(seed);
}

__attribute__((visibility("default"))) long random(void) {
    zfw::RandomLock lock;
    return lrand48();
}

__attribute__((visibility("default"))) void srand(unsigned int seed) {
    srandom(seed);
}

__attribute__((visibility("default"))) int rand(void) {
    return static_cast<int>(random());
}

}  // extern "C"
