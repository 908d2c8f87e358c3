#include "proof.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>

#include "lrpc2/conn.h"

namespace kvdsim {

namespace {

bool fillRandom(std::vector<uint8_t>& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = getrandom(bytes.data() + done, bytes.size() - done, 0);
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

std::vector<uint8_t> readSmallFile(const std::string& path) {
    std::vector<uint8_t> bytes;
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return bytes;
    }
    uint8_t buf[4096];
    ssize_t n = 0;
    while ((n = read(fd, buf, sizeof buf)) > 0 && bytes.size() < (2u << 20)) {
        bytes.insert(bytes.end(), buf, buf + n);
    }
    close(fd);
    return bytes;
}

}  // namespace

bool ProofPair::create(const std::string& dir, uint32_t size, uint32_t uid, uint32_t gid) {
    clear();
    m_created = true;
    for (int i = 0; i < 2; ++i) {
        std::string path = dir + "/kvdsim-proof.XXXXXX";
        const int fd = mkstemp(&path[0]);
        if (fd < 0) {
            return false;
        }
        m_path[i] = path;
        if (geteuid() == 0) {
            (void)fchown(fd, uid, gid);
        }
        m_content[i].resize(size);
        const bool ok =
            fillRandom(m_content[i]) && lrpc2_write_all(fd, m_content[i].data(), size, 0, 0) == 0;
        close(fd);
        if (!ok) {
            return false;
        }
    }
    return true;
}

void ProofPair::name(const std::string& path1, const std::string& path2) {
    clear();
    m_path[0] = path1;
    m_path[1] = path2;
    m_content[0] = readSmallFile(path1);
    m_content[1] = readSmallFile(path2);
}

bool ProofPair::matches(const uint8_t* data1, uint32_t size1, const uint8_t* data2,
                        uint32_t size2) const {
    const auto same = [](const std::vector<uint8_t>& want, const uint8_t* got, uint32_t n) {
        return !want.empty() && got != nullptr && want.size() == n &&
               memcmp(want.data(), got, n) == 0;
    };
    return same(m_content[0], data1, size1) && same(m_content[1], data2, size2);
}

void ProofPair::clear() {
    for (int i = 0; i < 2; ++i) {
        if (m_created && !m_path[i].empty()) {
            unlink(m_path[i].c_str());
        }
        m_path[i].clear();
        if (!m_content[i].empty()) {
            explicit_bzero(m_content[i].data(), m_content[i].size());
            m_content[i].clear();
        }
    }
    m_created = false;
}

}  // namespace kvdsim
