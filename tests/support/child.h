// Test peers as real processes: a forked child running a function, and blocking
// exact-count transfers for the peer's side of a descriptor.
#ifndef KV_TESTS_SUPPORT_CHILD_H
#define KV_TESTS_SUPPORT_CHILD_H

#include <sys/types.h>

#include <cstddef>
#include <functional>

namespace kvtest {

class ChildProcess {
  public:
    // Forks; the child runs `body` and exits with its result, or dies with the test.
    explicit ChildProcess(const std::function<int()>& body);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    // A child still running is killed.
    ~ChildProcess();

    // Waits for the child: its exit status, or 128 + the signal that ended it.
    int wait();
    pid_t pid() const { return m_pid; }

  private:
    pid_t m_pid;
    int m_status = -1;
};

// Waits for the process `pid`: its exit status, or 128 + the signal that ended it; -1 when
// it cannot be waited for.
int waitExit(pid_t pid);

// Blocking transfers that retry until `n` bytes moved; false on error or end of file.
bool writeFully(int fd, const void* data, size_t n);
bool readFully(int fd, void* data, size_t n);
// Sleeps for `ms` milliseconds.
void sleepMs(int ms);

// First call in a forked child: it is killed when the process that forked it ends, so no
// test leaves anything running, whether it passes, fails or is killed for its time limit.
void dieWithParent(pid_t parent);

// Memory figures are the C library allocator's; a sanitizer's runtime replaces it (redzones,
// quarantine, shadow memory), so they mean nothing there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kLibcAllocator = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kLibcAllocator = false;
#else
constexpr bool kLibcAllocator = true;
#endif
#else
constexpr bool kLibcAllocator = true;
#endif

// What runBounded saw of its child: the exit status (128 + the signal that ended it, SIGXCPU
// when it ran out of CPU time) and how far the child's peak resident size grew while the body
// ran, in KiB (-1 when unknown).
struct BoundedRun {
    int status;
    long growthKb;
};

// Runs `body` in a child process limited to `cpuSeconds` of CPU time: a bound against a
// runaway, not a measurement. A child still running after 10 times that in real time, plus 10
// seconds, is killed.
BoundedRun runBounded(const std::function<int()>& body, int cpuSeconds);

// Waits up to `seconds` for `pid`, then kills it: its exit status, or 128 + the signal that
// ended it (137 after the limit).
int waitExitWithin(pid_t pid, int seconds);

}  // namespace kvtest

#endif
