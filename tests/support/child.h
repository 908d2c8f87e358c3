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

// Runs `body` in a child process limited to 20 s of CPU time (a bound against a runaway, not a
// measurement; killed after 210 s of real time) and expects it to exit 0. With `maxGrowthKb`
// (not 0), expects the child's peak resident size to grow while the body runs, by at most that
// many KiB; only with the C library's allocator, since a sanitizer's runtime replaces it.
void expectBounded(const std::function<int()>& body, long maxGrowthKb);

// Waits up to `seconds` for `pid`, then kills it: its exit status, or 128 + the signal that
// ended it (137 after the limit).
int waitExitWithin(pid_t pid, int seconds);

}  // namespace kvtest

#endif
