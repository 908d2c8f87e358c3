// A fuzzed daemon: after an accepted handshake, arbitrary bytes are the daemon's side of one
// exchange over a socket pair, process authentication included (the seeds name "/etc/passwd"
// and "/etc/group", small regular files on every host, as proof files). A thread of this
// process writes them all (up to a frame at the reply limit) and then shuts the daemon's end
// for writing, so the exchange never waits for nothing: it must end in a reply or a failure
// status; a time-out, a crash, a leak or undefined behaviour is a bug. The client passes
// credentials from the start, so every byte carries this process's: the challenge is trusted
// whatever the timing.
#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "lrpc2/conn.h"
#include "lrpc2/exchange.h"
#include "lrpc2/msg.h"
#include "lrpc2/status.h"

namespace {

// A reply frame at the limit, with the handshake answer's room to spare.
constexpr size_t kMaxInput = LRPC2_MAX_REPLY_LEN + 64;

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
    const int on = 1;
    check(setsockopt(sv[0], SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0);
    // The client may stop reading at any point: then its end closes and the writes fail.
    std::thread daemon([&] {
        const uint32_t accept = LRPC2_HANDSHAKE_ACCEPT;
        if (send(sv[1], &accept, sizeof accept, MSG_NOSIGNAL) == sizeof accept) {
            for (size_t done = 0; done < size;) {
                const ssize_t n = send(sv[1], data + done, size - done, MSG_NOSIGNAL);
                if (n <= 0) {
                    break;
                }
                done += static_cast<size_t>(n);
            }
        }
        shutdown(sv[1], SHUT_WR);
    });

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
    daemon.join();
    close(sv[1]);
    return 0;
}
