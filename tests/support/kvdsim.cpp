#include "support/kvdsim.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>

#include "support/child.h"

namespace kvtest {

Kvdsim::Kvdsim(const TempDir& dir, const std::vector<std::string>& args,
               const std::vector<std::string>& prefix)
    : Kvdsim(dir, args, prefix, dir.file("sock")) {}

Kvdsim::Kvdsim(const TempDir& dir, const std::vector<std::string>& args,
               const std::vector<std::string>& prefix, const std::string& socket)
    : m_socket(socket), m_log(dir.file("frames.log")) {
    std::vector<std::string> argv = prefix;
    argv.push_back(KVDSIM_PATH);
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
    // Ready once it printed its listening line (end of file: it gave up); 50 polls of 100 ms.
    const std::string listening = "kvdsim: listening on " + m_socket;
    std::string text;
    pollfd p = {out[0], POLLIN, 0};
    for (int polls = 0;
         m_pid > 0 && text.find('\n') == std::string::npos && polls < 50 && poll(&p, 1, 100) >= 0;
         ++polls) {
        if (p.revents == 0) {
            continue;  // this poll timed out
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
