#include "support/child.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

namespace kvtest {

ChildProcess::ChildProcess(const std::function<int()>& body) {
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid == 0) {
        dieWithParent(parent);
        _exit(body());
    }
    if (m_pid < 0) {
        perror("fork");
    }
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0 && m_status < 0) {
        kill(m_pid, SIGKILL);
        wait();
    }
}

int ChildProcess::wait() {
    if (m_pid > 0 && m_status < 0) {
        m_status = waitExit(m_pid);
    }
    return m_pid > 0 ? m_status : -1;
}

void dieWithParent(pid_t parent) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
        _exit(126);
    }
}

void expectBounded(const std::function<int()>& body, long maxGrowthKb) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    maxGrowthKb = 0;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    maxGrowthKb = 0;
#endif
#endif
    const int cpuSeconds = 20;
    int status = -1;
    long growthKb = -1;
    int growth[2];
    ASSERT_EQ(pipe2(growth, O_CLOEXEC), 0);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        dieWithParent(parent);
        const rlimit cpu = {static_cast<rlim_t>(cpuSeconds), static_cast<rlim_t>(cpuSeconds) + 1};
        rusage before = {};
        rusage after = {};
        if (setrlimit(RLIMIT_CPU, &cpu) != 0 || getrusage(RUSAGE_SELF, &before) != 0) {
            _exit(125);
        }
        const int status = body();
        getrusage(RUSAGE_SELF, &after);
        const long kb = after.ru_maxrss - before.ru_maxrss;
        _exit(writeFully(growth[1], &kb, sizeof kb) ? status : 125);
    }
    close(growth[1]);
    if (pid > 0) {
        status = waitExitWithin(pid, 10 * cpuSeconds + 10);
        if (!readFully(growth[0], &growthKb, sizeof growthKb)) {
            growthKb = -1;
        }
    }
    close(growth[0]);
    EXPECT_EQ(status, 0);
    if (maxGrowthKb != 0) {
        EXPECT_GT(growthKb, 0);
        EXPECT_LE(growthKb, maxGrowthKb);
    }
}

int waitExitWithin(pid_t pid, int seconds) {
    for (int waited = 0; waited < seconds * 100; ++waited) {
        int raw = 0;
        const pid_t r = waitpid(pid, &raw, WNOHANG);
        if (r == pid) {
            return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        }
        if (r < 0 && errno != EINTR) {
            return -1;
        }
        sleepMs(10);
    }
    kill(pid, SIGKILL);
    return waitExit(pid);
}

int waitExit(pid_t pid) {
    int raw = 0;
    while (waitpid(pid, &raw, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}

namespace {

// Moves `n` bytes with `op` (read or write), retrying after interruptions and short counts.
template <typename Byte, typename Op>
bool transferFully(int fd, Byte* p, size_t n, Op op) {
    while (n > 0) {
        const ssize_t r = op(fd, p, n);
        if (r < 0 && errno == EINTR) {
            continue;
        }
        if (r <= 0) {
            return false;
        }
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

}  // namespace

bool writeFully(int fd, const void* data, size_t n) {
    return transferFully(fd, static_cast<const uint8_t*>(data), n, ::write);
}

bool readFully(int fd, void* data, size_t n) {
    return transferFully(fd, static_cast<uint8_t*>(data), n, ::read);
}

void sleepMs(int ms) {
    timespec t = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&t, &t) != 0 && errno == EINTR) {
    }
}

}  // namespace kvtest
