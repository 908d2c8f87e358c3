#include "lrpc2/conn.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "conn_internal.h"
#include "lrpc2/status.h"
#include "status_out.h"

static_assert(LRPC2_MAX_SOCKET_PATH + 1 == sizeof(sockaddr_un::sun_path),
              "the longest socket path must leave room for the terminator");

namespace {

bool add_nonblock(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

// Waits for `events` on `fd`: 0 when ready, 408 when the time-out runs out, 405 when the
// wait fails (a negative time-out included). ppoll takes the time-out in whole seconds
// without overflow and works for any descriptor number.
int32_t wait_ready(int fd, short events, int32_t timeout) {
    pollfd p = {fd, events, 0};
    const timespec limit = {timeout, 0};
    for (;;) {
        const int n = ppoll(&p, 1, &limit, nullptr);
        if (n > 0) {
            return (p.revents & POLLNVAL) != 0 ? LRPC2_ERR_SOCKET : 0;
        }
        if (n == 0) {
            return LRPC2_ERR_TIMEOUT;
        }
        if (errno != EINTR) {
            return LRPC2_ERR_SOCKET;
        }
    }
}

// write() on a pipe whose reader is gone raises SIGPIPE; keep it from reaching the
// process: block it in this thread and take back a signal that this write caused.
ssize_t write_nosignal(int fd, const void* data, size_t n) {
    sigset_t pipe_only;
    sigset_t old_mask;
    sigset_t pending;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    sigpending(&pending);
    const bool was_pending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe_only, &old_mask);
    const ssize_t r = write(fd, data, n);
    const int saved = errno;
    if (r < 0 && saved == EPIPE && !was_pending) {
        const timespec now = {0, 0};
        while (sigtimedwait(&pipe_only, nullptr, &now) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    errno = saved;
    return r;
}

// Receives into `data`; `piece` gets the credentials the kernel attached to the bytes, or a
// pid of 0 when there were none. The control buffer has room for the credentials alone, so
// descriptors that a peer passes along are never installed here.
ssize_t receive_with_sender(int fd, uint8_t* data, size_t n, lrpc2_sender* piece) {
    iovec segment = {data, n};
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(ucred))];
    msghdr header = {};
    header.msg_iov = &segment;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t r = recvmsg(fd, &header, MSG_NOSIGNAL | MSG_CMSG_CLOEXEC);
    *piece = {};
    const cmsghdr* c = r > 0 ? CMSG_FIRSTHDR(&header) : nullptr;
    if (c != nullptr && c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS &&
        c->cmsg_len == CMSG_LEN(sizeof(ucred))) {
        ucred cred;
        memcpy(&cred, CMSG_DATA(c), sizeof cred);
        *piece = {cred.pid, cred.uid, cred.gid};
    }
    return r;
}

// `piece`, when given, receives the credentials of what a socket read received.
ssize_t transfer_once(int fd, uint8_t* data, size_t n, bool is_socket, bool writing,
                      lrpc2_sender* piece) {
    if (writing) {
        if (!is_socket) {
            return write_nosignal(fd, data, n);
        }
        iovec segment = {data, n};
        msghdr header = {};
        header.msg_iov = &segment;
        header.msg_iovlen = 1;
        return sendmsg(fd, &header, MSG_NOSIGNAL);
    }
    if (!is_socket) {
        return read(fd, data, n);
    }
    return piece != nullptr ? receive_with_sender(fd, data, n, piece)
                            : recv(fd, data, n, MSG_NOSIGNAL);
}

bool same_sender(const lrpc2_sender& a, const lrpc2_sender& b) {
    return a.pid == b.pid && a.uid == b.uid && a.gid == b.gid;
}

// With `sender`, the pieces' writers are folded into it: the first piece of a frame
// (`frame_start`) sets it, a later piece from another writer or without credentials clears it.
int32_t transfer_all(int fd, uint8_t* data, uint32_t count, int32_t timeout, bool is_socket,
                     bool writing, lrpc2_sender* sender = nullptr, bool frame_start = false) {
    if (count == 0) {
        return 0;
    }
    if (data == nullptr) {
        return LRPC2_ERR_SOCKET;
    }
    // No limit: block in the transfer itself instead of waiting without end. The flags
    // matter only then; with a time-out, skipping their read saves a system call per
    // transfer (a bad descriptor still fails the transfer itself with 405).
    bool made_blocking = false;
    if (timeout == 0) {
        const int flags = fcntl(fd, F_GETFL);
        if (flags < 0) {
            return LRPC2_ERR_SOCKET;
        }
        made_blocking = (flags & O_NONBLOCK) != 0;
        if (made_blocking && fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
            return LRPC2_ERR_SOCKET;
        }
    }
    int32_t status = 0;
    uint32_t done = 0;
    while (done < count) {
        lrpc2_sender piece = {};
        const ssize_t n = transfer_once(fd, data + done, count - done, is_socket, writing,
                                        sender != nullptr ? &piece : nullptr);
        if (n > 0) {
            if (sender != nullptr) {
                const bool first = frame_start && done == 0;
                *sender = first || same_sender(*sender, piece) ? piece : lrpc2_sender{};
            }
            done += static_cast<uint32_t>(n);
            continue;
        }
        if (n == 0) {
            status = LRPC2_ERR_CLOSED;
            break;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            status = wait_ready(fd, writing ? POLLOUT : POLLIN, timeout);
            if (status != 0) {
                break;
            }
            continue;
        }
        status = errno == EPIPE ? LRPC2_ERR_CLOSED : LRPC2_ERR_SOCKET;
        break;
    }
    if (made_blocking) {
        add_nonblock(fd);
    }
    return status;
}

lrpc2_conn* new_conn(int read_fd, int write_fd, const lrpc2_msg_table* table, int is_socket) {
    auto* conn = static_cast<lrpc2_conn*>(malloc(sizeof(lrpc2_conn)));
    if (conn != nullptr) {
        conn->read_fd = read_fd;
        conn->write_fd = write_fd;
        conn->table = table;
        conn->is_socket = is_socket;
        conn->sender = {};
    }
    return conn;
}

int32_t handshake(const lrpc2_conn* conn, int32_t timeout) {
    const uint32_t hello = LRPC2_HANDSHAKE_HELLO;
    // A failed send shows up in the read of the answer.
    (void)lrpc2_write_all(conn->write_fd, &hello, sizeof hello, timeout, conn->is_socket);
    uint32_t answer = 0;
    const int32_t status =
        lrpc2_read_all(conn->read_fd, &answer, sizeof answer, timeout, conn->is_socket);
    if (status != 0) {
        return status;
    }
    return answer == LRPC2_HANDSHAKE_ACCEPT ? 0 : LRPC2_ERR_OPEN;
}

// From here on the kernel attaches the writer's credentials to what the daemon sends. Only
// after the handshake: set before the connect, it would bind the socket to an address.
void pass_credentials(const lrpc2_conn* conn) {
    const int on = 1;
    if (conn->is_socket != 0) {
        (void)setsockopt(conn->read_fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    }
}

}  // namespace

extern "C" {

lrpc2_conn* lrpc2_connect_timeout(const char* path, const lrpc2_msg_table* table, int32_t timeout,
                                  int32_t* status) {
    if (path == nullptr || path[0] != '/') {
        return lrpc2_report(status, LRPC2_ERR_NOPATH);
    }
    const size_t path_len = strnlen(path, LRPC2_MAX_SOCKET_PATH + 1);
    if (path_len > LRPC2_MAX_SOCKET_PATH) {
        return lrpc2_report(status, LRPC2_ERR_NOPATH);
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return lrpc2_report(status, LRPC2_ERR_OPEN);
    }
    lrpc2_conn* conn = new_conn(fd, fd, table, 1);
    if (conn == nullptr) {
        close(fd);
        return lrpc2_report(status, LRPC2_ERR_NOMEM);
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, path_len);
    const auto address_len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_len);
    int32_t code = 0;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), address_len) != 0 ||
        !add_nonblock(fd)) {
        code = LRPC2_ERR_OPEN;
    } else {
        code = handshake(conn, timeout);
    }
    if (code != 0) {
        lrpc2_close(conn);
        return lrpc2_report(status, code);
    }
    pass_credentials(conn);
    lrpc2_report(status, 0);
    return conn;
}

lrpc2_conn* lrpc2_connect(const char* path, const lrpc2_msg_table* table, int32_t* status) {
    return lrpc2_connect_timeout(path, table, 0, status);
}

lrpc2_conn* lrpc2_attach(int32_t read_fd, int32_t write_fd, const lrpc2_msg_table* table,
                         int32_t timeout, int32_t* status) {
    struct stat read_st;
    struct stat write_st;
    if (fstat(read_fd, &read_st) != 0 || fstat(write_fd, &write_st) != 0) {
        return lrpc2_report(status, LRPC2_ERR_NOPATH);
    }
    lrpc2_conn* conn = new_conn(read_fd, write_fd, table, S_ISSOCK(write_st.st_mode) ? 1 : 0);
    if (conn == nullptr) {
        return lrpc2_report(status, LRPC2_ERR_NOMEM);
    }
    int32_t code = 0;
    if (!add_nonblock(read_fd) || !add_nonblock(write_fd)) {
        code = LRPC2_ERR_OPEN;
    } else {
        code = handshake(conn, timeout);
    }
    if (code != 0) {
        free(conn);
        return lrpc2_report(status, code);
    }
    pass_credentials(conn);
    lrpc2_report(status, 0);
    return conn;
}

void lrpc2_close(lrpc2_conn* conn) {
    if (conn == nullptr) {
        return;
    }
    if (conn->read_fd != -1) {
        close(conn->read_fd);
    }
    if (conn->write_fd != -1 && conn->write_fd != conn->read_fd) {
        close(conn->write_fd);
    }
    free(conn);
}

int32_t lrpc2_write_all(int32_t fd, const void* data, uint32_t count, int32_t timeout,
                        int32_t is_socket) {
    // The data is only read; the shared loop takes a mutable pointer for the read side.
    return transfer_all(fd, static_cast<uint8_t*>(const_cast<void*>(data)), count, timeout,
                        is_socket != 0, true);
}

int32_t lrpc2_read_all(int32_t fd, void* data, uint32_t count, int32_t timeout, int32_t is_socket) {
    return transfer_all(fd, static_cast<uint8_t*>(data), count, timeout, is_socket != 0, false);
}

int32_t lrpc2_last_sender(const lrpc2_conn* conn, lrpc2_sender* sender) {
    if (conn == nullptr || sender == nullptr) {
        return LRPC2_ERR_BADSESSION;
    }
    if (conn->sender.pid <= 0) {
        return LRPC2_ERR_NOIDENTITY;
    }
    *sender = conn->sender;
    return 0;
}

}  // extern "C"

int32_t lrpc2_read_frame(lrpc2_conn* conn, void* data, uint32_t count, int32_t timeout,
                         int32_t frame_start) {
    if (frame_start != 0) {
        conn->sender = {};
    }
    return transfer_all(conn->read_fd, static_cast<uint8_t*>(data), count, timeout,
                        conn->is_socket != 0, false, &conn->sender, frame_start != 0);
}
