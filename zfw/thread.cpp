// Threads of the framework.
#include "zfw/thread.h"

namespace zfw {

std::atomic<bool> Thread::m_threadSupportKnown{false};
std::atomic<bool> Thread::m_threadsSupported{false};
std::atomic<int32_t> Thread::m_threadsActive{0};

}  // namespace zfw
