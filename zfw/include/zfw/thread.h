// Threads of the framework.
#ifndef ZFW_THREAD_H
#define ZFW_THREAD_H

#include <atomic>
#include <cstdint>

namespace zfw {

class Thread {
  public:
    // Set once the probe for the thread library has run (zfw::threadsSupported, mutex.h).
    static std::atomic<bool> m_threadSupportKnown;
    // The thread library is linked into the process.
    static std::atomic<bool> m_threadsSupported;
    // Number of zfw::Thread objects in existence.
    static std::atomic<int32_t> m_threadsActive;
};

}  // namespace zfw

#endif
