/* Connection to the daemon: a Unix-domain stream socket (or an adopted descriptor
 * pair), the 4-byte handshake, and exact-count transfers bounded by a time-out per wait.
 *
 * Time-outs are whole seconds; 0 means no limit (the descriptor is switched to blocking
 * mode for the length of the call). A negative time-out makes every wait fail (405).
 * The time-out bounds each wait for readiness, not a whole transfer.
 *
 * Waiting for readiness uses poll(), so descriptors of any number (1024 and above
 * included) work; interrupted waits and transfers are retried, a retried wait gets the
 * full time-out again.
 *
 * Handshake: the client sends the 32-bit value 2, the daemon answers 1 to accept; any
 * other answer is 401, a daemon that closes gives 404, one that stays silent 408.
 *
 * Senders: once the handshake is done on a socket, the kernel attaches to every byte the
 * daemon sends the credentials of the process that wrote it (SO_PASSCRED, SCM_CREDENTIALS),
 * as they were when it wrote. Frames are received with them; the writer of the last frame
 * read is the connection's sender. That is the process that serves, which need not be the
 * one that listened (a daemon that dropped its privileges, forked a worker, or inherited
 * its socket); SO_PEERCRED tells only the latter and is not used for trust. */
#ifndef LRPC2_CONN_H
#define LRPC2_CONN_H

#include <stdint.h>

#include "lrpc2/table.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Longest socket path accepted (bytes, without the terminator): the Unix socket
 * address holds 108 bytes with the terminator. A longer path is refused with 400
 * before any socket is created. */
#define LRPC2_MAX_SOCKET_PATH 107u

#define LRPC2_HANDSHAKE_HELLO 2u
#define LRPC2_HANDSHAKE_ACCEPT 1u

/* A writing process: its pid, real uid and real gid when it wrote. */
typedef struct lrpc2_sender {
    int32_t pid;
    uint32_t uid;
    uint32_t gid;
} lrpc2_sender;

typedef struct lrpc2_conn {
    int32_t read_fd;
    int32_t write_fd;
    const lrpc2_msg_table* table;
    int32_t is_socket;
    /* The one writer of every byte of the last frame read; pid 0: none known (no frame
     * yet, a failed read, not a socket, bytes without credentials or from several
     * writers). */
    lrpc2_sender sender;
} lrpc2_conn;

/* Opens `path` (absolute, at most LRPC2_MAX_SOCKET_PATH bytes; else 400) and performs
 * the handshake. The connect itself runs in blocking mode; the handshake's waits are
 * bounded by `timeout`. Credential passing is turned on once the daemon accepted.
 * Statuses: 400, 401 (socket, connect, or handshake refused), 404, 405, 407, 408. */
lrpc2_conn* lrpc2_connect_timeout(const char* path, const lrpc2_msg_table* table, int32_t timeout,
                                  int32_t* status);
lrpc2_conn* lrpc2_connect(const char* path, const lrpc2_msg_table* table, int32_t* status);
/* Adopts two descriptors (they may be the same one) and performs the handshake over
 * them; credential passing is turned on for a socket once the daemon accepted. A
 * descriptor that cannot be examined gives 400. On failure the descriptors stay open and
 * remain the caller's. */
lrpc2_conn* lrpc2_attach(int32_t read_fd, int32_t write_fd, const lrpc2_msg_table* table,
                         int32_t timeout, int32_t* status);
/* Closes every distinct descriptor of the connection once and frees it; null is ignored. */
void lrpc2_close(lrpc2_conn* conn);
/* Moves exactly `count` bytes; a count of 0 returns 0 at once. Sockets use
 * send/recv with MSG_NOSIGNAL, other descriptors write/read. Statuses: 404 (peer
 * closed, EPIPE), 405 (any other error, null data, bad descriptor), 408 (a wait ran out). */
int32_t lrpc2_write_all(int32_t fd, const void* data, uint32_t count, int32_t timeout,
                        int32_t is_socket);
int32_t lrpc2_read_all(int32_t fd, void* data, uint32_t count, int32_t timeout, int32_t is_socket);
/* Copies the writer of the last frame read into `sender`. Statuses: 0; 411 null
 * connection or `sender`; 410 when no single writer with credentials is known (then
 * `sender` is left as it was). */
int32_t lrpc2_last_sender(const lrpc2_conn* conn, lrpc2_sender* sender);

#ifdef __cplusplus
}
#endif

#endif
