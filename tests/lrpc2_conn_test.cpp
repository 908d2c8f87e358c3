// Connection and handshake against peers in child processes, over real Unix sockets and
// adopted pipes, and what the transfers report once the peer is gone.
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
#include <thread>
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

// The daemon side of one handshake: checks the client's hello on `in`, then does `then` with
// `out`. Exit status 0 when everything the peer expected happened.
int daemonSide(int in, int out, const std::function<int(int)>& then) {
    uint32_t hello = 0;
    if (in < 0 || !kvtest::readFully(in, &hello, 4)) {
        return 10;
    }
    return hello == LRPC2_HANDSHAKE_HELLO ? then(out) : 11;
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
    int32_t timeout = 1;
    bool pipes = false;  // adopt a pair of pipes instead of connecting by path
};

TEST(Lrpc2Connect, HandshakeOutcomes) {
    const std::vector<HandshakeCase> cases = {
        {"accepted", [](int fd) { return answer(fd, 1); }, 0},
        {"accepted in single bytes", [](int fd) { return answerInPieces(fd, 1, 4); }, 0},
        {"accepted in single bytes, no time-out", [](int fd) { return answerInPieces(fd, 1, 4); },
         0, 0},
        {"accepted over pipes", [](int fd) { return answer(fd, 1); }, 0, 1, true},
        {"refused over pipes", [](int fd) { return answer(fd, 0); }, LRPC2_ERR_OPEN, 1, true},
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
         LRPC2_ERR_TIMEOUT}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const std::string path = dir.file("sock");
        const int listener = c.pipes ? -1 : listenAt(path);
        int up[2], down[2];  // pipes to the daemon and to the client
        ASSERT_TRUE(c.pipes ? pipe(up) == 0 && pipe(down) == 0 : listener >= 0);
        ChildProcess daemon([&] {
            const int fd = c.pipes ? -1 : accept(listener, nullptr, nullptr);
            return c.pipes ? daemonSide(up[0], down[1], c.daemon) : daemonSide(fd, fd, c.daemon);
        });
        close(c.pipes ? up[0] : listener);
        close(c.pipes ? down[1] : -1);
        int32_t status = -1;
        lrpc2_conn* conn = c.pipes
                               ? lrpc2_attach(down[0], up[1], table(), c.timeout, &status)
                               : lrpc2_connect_timeout(path.c_str(), table(), c.timeout, &status);
        EXPECT_EQ(status, c.status);
        if (c.status != 0) {
            EXPECT_EQ(conn, nullptr);
            // Adopted descriptors stay the caller's.
            EXPECT_TRUE(!c.pipes || (close(down[0]) == 0 && close(up[1]) == 0));
            continue;
        }
        ASSERT_NE(conn, nullptr);
        EXPECT_EQ(daemon.wait(), 0);
        EXPECT_EQ(conn->read_fd == conn->write_fd, !c.pipes);
        EXPECT_EQ(conn->is_socket, c.pipes ? 0 : 1);
        EXPECT_EQ(conn->table, table());
        EXPECT_TRUE(isNonBlocking(conn->read_fd) && isNonBlocking(conn->write_fd));
        int passcred = 0;
        socklen_t len = sizeof passcred;
        getsockopt(conn->read_fd, SOL_SOCKET, SO_PASSCRED, &passcred, &len);
        EXPECT_EQ(passcred, c.pipes ? 0 : 1);
        // The daemon is gone: a count of 0 still succeeds, a write gets 404 and no signal.
        EXPECT_EQ(lrpc2_read_all(conn->read_fd, nullptr, 0, 0, conn->is_socket), 0);
        EXPECT_EQ(lrpc2_write_all(conn->write_fd, "x", 1, 1, conn->is_socket), LRPC2_ERR_CLOSED);
        const int fds[] = {conn->read_fd, conn->write_fd};
        lrpc2_close(conn);
        EXPECT_FALSE(isOpen(fds[0]) || isOpen(fds[1]));
    }
}

// A write larger than the socket can hold waits for room, not for bytes to read: the peer
// reads only after the socket is full and never writes.
TEST(Lrpc2Transfer, LargeWriteWaitsForThePeerToRead) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ASSERT_EQ(fcntl(sv[0], F_SETFL, O_NONBLOCK), 0);
    const std::string sent(4 << 20, 'w');
    std::string got(sent.size(), '\0');
    std::thread peer([&] {
        kvtest::sleepMs(100);
        kvtest::readFully(sv[1], &got[0], got.size());
    });
    EXPECT_EQ(lrpc2_write_all(sv[0], sent.data(), static_cast<uint32_t>(sent.size()), 5, 1), 0);
    shutdown(sv[0], SHUT_WR);  // a failed write must not leave the peer reading forever
    peer.join();
    EXPECT_TRUE(got == sent);
    close(sv[0]);
    close(sv[1]);
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
        {stale.c_str(), LRPC2_ERR_OPEN},     {directory.c_str(), LRPC2_ERR_OPEN}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path != nullptr ? c.path : "(null)");
        int32_t status = -1;
        EXPECT_EQ(lrpc2_connect_timeout(c.path, table(), 1, &status), nullptr);
        EXPECT_EQ(status, c.status);
    }
    EXPECT_EQ(lrpc2_connect(nullptr, table(), nullptr), nullptr);
    int32_t status = -1;
    EXPECT_EQ(lrpc2_attach(0, -1, table(), 1, &status), nullptr);
    EXPECT_EQ(status, LRPC2_ERR_NOPATH);
}

}  // namespace
