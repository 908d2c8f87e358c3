#include "framelog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace kvdsim {

FrameLog::~FrameLog() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

bool FrameLog::open(const std::string& path) {
    if (path.empty()) {
        return true;
    }
    m_fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    return m_fd >= 0;
}

void FrameLog::record(uint32_t conn, const char* kind, const uint8_t* data, size_t n) {
    if (m_fd < 0) {
        return;
    }
    static const char kHex[] = "0123456789abcdef";
    std::string line = std::to_string(conn) + " " + kind + " ";
    line.reserve(line.size() + 2 * n + 1);
    for (size_t i = 0; i < n; ++i) {
        line += kHex[data[i] >> 4];
        line += kHex[data[i] & 15];
    }
    line += '\n';
    if (write(m_fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        perror("kvdsim: log");
    }
}

}  // namespace kvdsim
