#include "support/kvdsim.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "support/child.h"

namespace kvtest {

std::string kvdsimPath() {
    return KVDSIM_PATH;
}

Kvdsim::Kvdsim(const TempDir& dir, const std::vector<std::string>& args,
               const std::vector<std::string>& prefix)
    : Kvdsim(dir, args, prefix, dir.file("sock")) {}

Kvdsim::Kvdsim(const TempDir& dir, const std::vector<std::string>& args,
               const std::vector<std::string>& prefix, const std::string& socket)
    : m_socket(socket), m_log(dir.file("frames.log")) {
    std::vector<std::string> argv = prefix;
    argv.push_back(kvdsimPath());
    for (const std::string& a : {std::string("--socket"), m_socket, std::string("--log"), m_log}) {
        argv.push_back(a);
    }
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (auto& a : argv) {
        raw.push_back(&a[0]);
    }
    raw.push_back(nullptr);
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        return;
    }
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid == 0) {
        dieWithParent(parent);
        dup2(out[1], 1);
        execvp(raw[0], raw.data());
        _exit(127);
    }
    close(out[1]);
    // Ready once it printed its listening line, within a few seconds; end of file means it
    // gave up.
    const std::string listening = "kvdsim: listening on " + m_socket;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
    std::string text;
    pollfd p = {out[0], POLLIN, 0};
    while (m_pid > 0 && text.find('\n') == std::string::npos) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) {
            break;
        }
        char buf[256];
        const ssize_t n = read(out[0], buf, sizeof buf);
        if (n <= 0) {
            break;
        }
        text.append(buf, static_cast<size_t>(n));
    }
    close(out[0]);
    m_ready = text == listening + "\n";
    if (!m_ready) {
        ADD_FAILURE() << "kvdsim did not print \"" << listening
                      << "\" within 5 seconds; it printed \"" << text << "\"";
    }
}

Kvdsim::~Kvdsim() {
    terminate();
}

std::vector<std::string> Kvdsim::log() const {
    std::vector<std::string> lines;
    std::ifstream in(m_log);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

int Kvdsim::wait() {
    if (m_pid > 0 && m_status < 0) {
        m_status = waitExit(m_pid);
    }
    return m_status;
}

int Kvdsim::terminate() {
    if (m_pid > 0 && m_status < 0) {
        kill(m_pid, SIGTERM);
    }
    return wait();
}

}  // namespace kvtest
