// Connection, handshake and exact-count transfers against peers in child processes,
// over real Unix sockets, socket pairs and pipes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "lrpc2/conn.h"
#include "lrpc2/status.h"
#include "support/child.h"
#include "support/kvdsim.h"

namespace {

using kvtest::ChildProcess;
using kvtest::TempDir;

const lrpc2_msg_table* table() {
    return lrpc2_default_table();
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}
bool isNonBlocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

int listenAt(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a = {};
    a.sun_family = AF_UNIX;
    strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, 8) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// The daemon side of one handshake: checks the client's hello, then does `then`.
// Exit status 0 when everything the peer expected happened.
int daemonSide(int listener, const std::function<int(int)>& then) {
    const int fd = accept(listener, nullptr, nullptr);
    uint32_t hello = 0;
    if (fd < 0 || !kvtest::readFully(fd, &hello, 4)) {
        return 10;
    }
    return hello == LRPC2_HANDSHAKE_HELLO ? then(fd) : 11;
}

int answer(int fd, uint32_t value) {
    return kvtest::writeFully(fd, &value, 4) ? 0 : 12;
}

int answerInPieces(int fd, uint32_t value, size_t pieces) {
    const auto* p = reinterpret_cast<const uint8_t*>(&value);
    for (size_t i = 0; i < 4; i += 4 / pieces) {
        kvtest::sleepMs(20);
        if (!kvtest::writeFully(fd, p + i, 4 / pieces)) {
            return 12;
        }
    }
    return 0;
}

int stayOpen(int) {
    pause();
    return 0;
}

struct HandshakeCase {
    const char* name;
    std::function<int(int)> daemon;
    int32_t status;
};

TEST(Lrpc2Connect, HandshakeOutcomes) {
    const std::vector<HandshakeCase> cases = {
        {"accepted", [](int fd) { return answer(fd, 1); }, 0},
        {"accepted in single bytes", [](int fd) { return answerInPieces(fd, 1, 4); }, 0},
        {"refused with 0", [](int fd) { return answer(fd, 0); }, LRPC2_ERR_OPEN},
        {"refused with 2", [](int fd) { return answer(fd, 2); }, LRPC2_ERR_OPEN},
        {"refused with bytes 01 00 00 01", [](int fd) { return answer(fd, 0x01000001); },
         LRPC2_ERR_OPEN},
        {"closed", [](int fd) { return close(fd); }, LRPC2_ERR_CLOSED},
        {"closed after two answer bytes",
         [](int fd) { return kvtest::writeFully(fd, "\1\0", 2) ? close(fd) : 12; },
         LRPC2_ERR_CLOSED},
        {"silent", stayOpen, LRPC2_ERR_TIMEOUT},
        {"silent after two answer bytes",
         [](int fd) { return kvtest::writeFully(fd, "\1\0", 2) ? stayOpen(fd) : 12; },
         LRPC2_ERR_TIMEOUT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const std::string path = dir.file("sock");
        const int listener = listenAt(path);
        ASSERT_GE(listener, 0);
        ChildProcess daemon([&] { return daemonSide(listener, c.daemon); });
        close(listener);
        int32_t status = -1;
        lrpc2_conn* conn = lrpc2_connect_timeout(path.c_str(), table(), 1, &status);
        EXPECT_EQ(status, c.status);
        if (c.status != 0) {
            EXPECT_EQ(conn, nullptr);
            continue;
        }
        ASSERT_NE(conn, nullptr);
        EXPECT_EQ(conn->read_fd, conn->write_fd);
        EXPECT_EQ(conn->is_socket, 1);
        EXPECT_EQ(conn->table, table());
        EXPECT_TRUE(isNonBlocking(conn->read_fd));
        int passcred = 0;
        socklen_t len = sizeof passcred;
        ASSERT_EQ(getsockopt(conn->read_fd, SOL_SOCKET, SO_PASSCRED, &passcred, &len), 0);
        EXPECT_EQ(passcred, 1);
        const int fd = conn->read_fd;
        lrpc2_close(conn);
        EXPECT_FALSE(isOpen(fd));
        EXPECT_EQ(daemon.wait(), 0);
    }
}

TEST(Lrpc2Connect, UnusablePaths) {
    TempDir dir;
    const std::string stale = dir.file("stale");
    close(listenAt(stale));  // a socket file that nobody listens on
    const std::string longest(LRPC2_MAX_SOCKET_PATH, 'x');
    struct Case {
        const char* path;
        int32_t status;
    };
    const std::string fits = "/" + longest.substr(1);
    const std::string too_long = "/" + longest;
    const std::string directory = dir.file("");
    const Case cases[] = {
        {nullptr, LRPC2_ERR_NOPATH},         {"", LRPC2_ERR_NOPATH},
        {"relative/sock", LRPC2_ERR_NOPATH}, {too_long.c_str(), LRPC2_ERR_NOPATH},
        {fits.c_str(), LRPC2_ERR_OPEN},      {"/nonexistent/kvconn/sock", LRPC2_ERR_OPEN},
        {stale.c_str(), LRPC2_ERR_OPEN},     {directory.c_str(), LRPC2_ERR_OPEN},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path != nullptr ? c.path : "(null)");
        int32_t status = -1;
        EXPECT_EQ(lrpc2_connect_timeout(c.path, table(), 1, &status), nullptr);
        EXPECT_EQ(status, c.status);
    }
    EXPECT_EQ(lrpc2_connect(nullptr, table(), nullptr), nullptr);
}

}  // namespace
