// A fuzzed daemon: after an accepted handshake, arbitrary bytes are the daemon's side of one
// exchange over a socket pair, process authentication included (the seeds name "/etc/passwd"
// and "/etc/group", small regular files on every host, as proof files). Every byte is queued
// before the client reads and the daemon's end is then shut for writing, so the exchange never
// has to wait: it must end in a reply or a failure status; a time-out, a crash, a leak or
// undefined behaviour is a bug.
#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "lrpc2/conn.h"
#include "lrpc2/exchange.h"
#include "lrpc2/msg.h"
#include "lrpc2/status.h"

namespace {

// Fits a socket's default buffer, so the whole input is queued at once.
constexpr size_t kMaxInput = 64 * 1024;

void check(bool ok) {
    if (!ok) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) {
        return 0;
    }
    int sv[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) == 0);
    // Room for all the client sends (requests and proof contents) while nobody reads them.
    const int room = 8 << 20;
    setsockopt(sv[0], SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room);
    const uint32_t accept = LRPC2_HANDSHAKE_ACCEPT;
    check(write(sv[1], &accept, sizeof accept) == sizeof accept);
    check(size == 0 || write(sv[1], data, size) == static_cast<ssize_t>(size));
    check(shutdown(sv[1], SHUT_WR) == 0);

    int32_t status = -1;
    lrpc2_conn* conn = lrpc2_attach(sv[0], sv[0], lrpc2_default_table(), 1, &status);
    check(conn != nullptr && status == 0);
    lrpc2_msg* request =
        lrpc2_msg_create(LRPC2_ID_KV_STOP, 0, lrpc2_default_table(), LRPC2_HEADER_LEN, nullptr);
    check(request != nullptr && lrpc2_msg_complete(request) == 0);
    lrpc2_msg* reply = lrpc2_exchange_timeout(conn, request, 1, &status);
    check((reply != nullptr) == (status == 0));
    check(status == 0 || status == LRPC2_ERR_CLOSED || status == LRPC2_ERR_SOCKET ||
          status == LRPC2_ERR_NOMEM || status == LRPC2_ERR_AUTH);
    if (reply != nullptr) {
        uint32_t id = 0;
        check(lrpc2_msg_id(reply, &id) == 0 && id != LRPC2_ID_AUTH_CHALLENGE);
    }
    lrpc2_msg_free(reply);
    lrpc2_msg_free(request);
    lrpc2_close(conn);
    close(sv[1]);
    return 0;
}
