#include "support/syslog_sink.h"

#include "support/private_root.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <regex>

namespace kvtest {

namespace {

// Splits a datagram; false when it does not have the layout syslog sends.
bool parseSyslogRecord(const std::string& datagram, SyslogRecord& out) {
    // "<priority>", the timestamp "%h %e %T", the identity, an optional "[pid]", ": ", text.
    static const std::regex layout(
        "<([0-9]+)>([A-Z][a-z]{2} [ 1-3][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2}) ([^:\\[]+)"
        "(\\[([0-9]+)\\])?: ([\\s\\S]*)");
    std::smatch m;
    if (!std::regex_match(datagram, m, layout)) {
        return false;
    }
    out.priority = std::stoi(m[1]);
    out.identity = m[3];
    out.pid = m[5].matched ? std::stoi(m[5]) : -1;
    out.text = m[6];
    return true;
}

}  // namespace

SyslogSink::SyslogSink(bool reading) {
    if (!isPrivate("/dev")) {
        ADD_FAILURE() << "refusing to bind /dev/log: /dev is not private";
        return;
    }
    m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    unlink(addr.sun_path);
    if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        chmod(addr.sun_path, 0666) != 0 || pipe2(m_stopPipe, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "cannot bind /dev/log: " << strerror(errno);
        return;
    }
    if (reading) {
        startReading();
    }
}

void SyslogSink::startReading() {
    if (m_stopPipe[0] >= 0 && !m_reading) {
        m_reading = pthread_create(&m_reader, nullptr, readerMain, this) == 0;
    }
}

SyslogSink::~SyslogSink() {
    if (m_reading) {
        const char stop = 0;
        (void)!write(m_stopPipe[1], &stop, 1);
        pthread_join(m_reader, nullptr);
    }
    if (m_stopPipe[1] >= 0) {
        close(m_stopPipe[0]);
        close(m_stopPipe[1]);
    }
    if (m_fd >= 0) {
        close(m_fd);
        unlink("/dev/log");
    }
}

void* SyslogSink::readerMain(void* self) {
    auto* sink = static_cast<SyslogSink*>(self);
    for (;;) {
        pollfd fds[2] = {{sink->m_fd, POLLIN, 0}, {sink->m_stopPipe[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) {
            return nullptr;
        }
        if (fds[1].revents != 0) {
            return nullptr;
        }
        pthread_mutex_lock(&sink->m_mutex);
        sink->drainLocked();
        pthread_mutex_unlock(&sink->m_mutex);
    }
}

void SyslogSink::drainLocked() {
    char buf[65536];
    for (;;) {
        const ssize_t n = recv(m_fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0) {
            return;
        }
        m_received.emplace_back(buf, static_cast<size_t>(n));
    }
}

std::vector<std::string> SyslogSink::take() {
    pthread_mutex_lock(&m_mutex);
    drainLocked();
    std::vector<std::string> out;
    out.swap(m_received);
    pthread_mutex_unlock(&m_mutex);
    return out;
}

std::vector<SyslogRecord> SyslogSink::takeRecords() {
    std::vector<SyslogRecord> out;
    for (const std::string& d : take()) {
        SyslogRecord r;
        EXPECT_TRUE(parseSyslogRecord(d, r)) << "not a syslog datagram: " << d;
        out.push_back(r);
    }
    return out;
}

std::vector<std::string> SyslogSink::takeTexts(const std::string& needle) {
    std::vector<std::string> out;
    for (const SyslogRecord& r : takeRecords()) {
        if (r.text.find(needle) != std::string::npos) {
            out.push_back(r.text);
        }
    }
    return out;
}

}  // namespace kvtest
