#include "support/child.h"

#include <errno.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

namespace kvtest {

ChildProcess::ChildProcess(const std::function<int()>& body) : m_pid(fork()) {
    if (m_pid == 0) {
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
    if (m_pid <= 0) {
        return -1;
    }
    if (m_status >= 0) {
        return m_status;
    }
    int raw = 0;
    while (waitpid(m_pid, &raw, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    m_status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return m_status;
}

bool writeFully(int fd, const void* data, size_t n) {
    const auto* p = static_cast<const uint8_t*>(data);
    while (n > 0) {
        const ssize_t r = write(fd, p, n);
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

bool readFully(int fd, void* data, size_t n) {
    auto* p = static_cast<uint8_t*>(data);
    while (n > 0) {
        const ssize_t r = read(fd, p, n);
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

void sleepMs(int ms) {
    timespec t = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&t, &t) != 0 && errno == EINTR) {
    }
}

}  // namespace kvtest
