#include "lrpc2/exchange.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "conn_internal.h"
#include "lrpc2/status.h"
#include "msg_internal.h"
#include "msgmem.h"
#include "status_out.h"

namespace {

// Reads one reply frame into a block sized from its header; the message adopts it.
lrpc2_msg* read_reply(lrpc2_conn* conn, int32_t timeout, int32_t* status) {
    uint8_t header[LRPC2_HEADER_LEN];
    int32_t code = lrpc2_read_frame(conn, header, sizeof header, timeout, 1);
    if (code != 0) {
        return lrpc2_report(status, code);
    }
    uint32_t magic = 0;
    uint32_t length = 0;
    memcpy(&magic, header, sizeof magic);
    memcpy(&length, header + sizeof magic, sizeof length);
    if (magic != LRPC2_MAGIC || length < LRPC2_HEADER_LEN || length > LRPC2_MAX_REPLY_LEN) {
        return lrpc2_report(status, LRPC2_ERR_SOCKET);
    }
    uint8_t* block = lrpc2_mem_alloc(length, false);
    if (block == nullptr) {
        return lrpc2_report(status, LRPC2_ERR_NOMEM);
    }
    code = lrpc2_read_frame(conn, block + LRPC2_HEADER_LEN, length - LRPC2_HEADER_LEN, timeout, 0);
    if (code != 0) {
        lrpc2_wipe_free(block, length);
        return lrpc2_report(status, code);
    }
    memcpy(block, header, sizeof header);
    lrpc2_msg* reply = lrpc2_msg_parse(block, length, 0, conn->table, LRPC2_HEADER_LEN, nullptr);
    if (reply == nullptr) {
        lrpc2_wipe_free(block, length);
        return lrpc2_report(status, LRPC2_ERR_SOCKET);
    }
    return reply;
}

// One request and its reply. A challenge in reply to a caller's request starts the
// authentication dialogue; one in reply to a message of the dialogue is refused.
lrpc2_msg* exchange(lrpc2_conn* conn, lrpc2_msg* request, int32_t timeout, int32_t* status,
                    bool in_dialogue) {
    if (conn == nullptr) {
        return lrpc2_report(status, LRPC2_ERR_BADSESSION);
    }
    uint32_t length = 0;
    uint8_t* image = request != nullptr ? lrpc2_msg_bytes(request, &length, nullptr) : nullptr;
    if (image == nullptr || length < LRPC2_HEADER_LEN) {
        return lrpc2_report(status, LRPC2_ERR_BADMSG);
    }
    lrpc2_frame_stamp(image, length);
    int32_t code = lrpc2_write_all(conn->write_fd, image, length, timeout, conn->is_socket);
    if (code != 0) {
        return lrpc2_report(status, code);
    }
    lrpc2_msg* reply = read_reply(conn, timeout, &code);
    if (reply == nullptr) {
        return lrpc2_report(status, code);
    }
    uint32_t id = 0;
    lrpc2_msg_id(reply, &id);
    if (id != LRPC2_ID_AUTH_CHALLENGE) {
        lrpc2_report(status, 0);
        return reply;
    }
    lrpc2_msg_free(reply);
    if (in_dialogue) {
        return lrpc2_report(status, LRPC2_ERR_AUTH);
    }
    return lrpc2_process_auth(conn, timeout, status);
}

// The proof files are read as root and sent to the daemon: only a challenge written by a
// process running as root or as our own effective user may lead to them.
bool sender_trusted(const lrpc2_conn* conn) {
    lrpc2_sender sender = {};
    return lrpc2_last_sender(conn, &sender) == 0 && (sender.uid == 0 || sender.uid == geteuid());
}

void wipe_msg_free(lrpc2_msg* msg) {
    uint32_t length = 0;
    uint8_t* image = lrpc2_msg_bytes(msg, &length, nullptr);
    if (image != nullptr) {
        explicit_bzero(image, length);
    }
    lrpc2_msg_free(msg);
}

void wipe_string_free(char* text) {
    if (text != nullptr) {
        lrpc2_wipe_free(text, static_cast<uint32_t>(strlen(text)));
    }
}

// Everything the dialogue holds; released (and zeroed) however the dialogue ends.
struct Dialogue {
    lrpc2_msg* challenge = nullptr;
    lrpc2_msg* answer = nullptr;
    lrpc2_msg* response = nullptr;
    char* path1 = nullptr;
    char* path2 = nullptr;
    uint8_t* data1 = nullptr;
    uint8_t* data2 = nullptr;
    uint32_t size1 = 0;
    uint32_t size2 = 0;

    Dialogue() = default;
    Dialogue(const Dialogue&) = delete;
    Dialogue& operator=(const Dialogue&) = delete;
    ~Dialogue() {
        lrpc2_msg_free(challenge);
        wipe_msg_free(answer);
        lrpc2_msg_free(response);
        wipe_string_free(path1);
        wipe_string_free(path2);
        lrpc2_wipe_free(data1, size1);
        lrpc2_wipe_free(data2, size2);
    }

    // Runs the dialogue; the reply to the response, or null with the status.
    lrpc2_msg* run(lrpc2_conn* conn, int32_t timeout, int32_t* status) {
        if (!sender_trusted(conn)) {
            return lrpc2_report(status, LRPC2_ERR_AUTH);
        }
        challenge =
            lrpc2_msg_create(LRPC2_ID_AUTH_CHALLENGE, 1, conn->table, LRPC2_HEADER_LEN, nullptr);
        if (challenge == nullptr || lrpc2_put_uint32(challenge, geteuid()) != 0 ||
            lrpc2_put_uint32(challenge, getegid()) != 0 || lrpc2_msg_complete(challenge) != 0) {
            return lrpc2_report(status, LRPC2_ERR_AUTH);
        }
        answer = exchange(conn, challenge, timeout, status, true);
        if (answer == nullptr) {
            return nullptr;
        }
        if (lrpc2_get_string(answer, &path1) != 0 || lrpc2_get_string(answer, &path2) != 0 ||
            path1 == nullptr || path2 == nullptr ||
            lrpc2_read_proof_files(path1, path2, &data1, &data2, &size1, &size2) != 0) {
            return lrpc2_report(status, LRPC2_ERR_AUTH);
        }
        response =
            lrpc2_msg_create(LRPC2_ID_AUTH_RESPONSE, 1, conn->table, LRPC2_HEADER_LEN, nullptr);
        if (response != nullptr) {
            // It carries the proof contents: wiped as it grows, if a put fails, and when freed.
            lrpc2_msg_set_secure(response);
        }
        if (response == nullptr || lrpc2_put_blob(response, data1, size1) != 0 ||
            lrpc2_put_blob(response, data2, size2) != 0 || lrpc2_msg_complete(response) != 0) {
            return lrpc2_report(status, LRPC2_ERR_AUTH);
        }
        return exchange(conn, response, timeout, status, true);
    }
};

}  // namespace

extern "C" {

void lrpc2_frame_stamp(uint8_t* image, uint32_t length) {
    if (image == nullptr || length < LRPC2_HEADER_LEN) {
        return;
    }
    const uint32_t magic = LRPC2_MAGIC;
    memcpy(image, &magic, sizeof magic);
    memcpy(image + sizeof magic, &length, sizeof length);
}

lrpc2_msg* lrpc2_exchange_timeout(lrpc2_conn* conn, lrpc2_msg* request, int32_t timeout,
                                  int32_t* status) {
    return exchange(conn, request, timeout, status, false);
}

lrpc2_msg* lrpc2_exchange(lrpc2_conn* conn, lrpc2_msg* request, int32_t* status) {
    return exchange(conn, request, 0, status, false);
}

lrpc2_msg* lrpc2_process_auth(lrpc2_conn* conn, int32_t timeout, int32_t* status) {
    if (conn == nullptr) {
        return lrpc2_report(status, LRPC2_ERR_BADSESSION);
    }
    Dialogue dialogue;
    return dialogue.run(conn, timeout, status);
}

}  // extern "C"
