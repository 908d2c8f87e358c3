/* Message life: creation, completion, parsing of received bytes, queries and release. */
#include <stdlib.h>
#include <string.h>

#include "lrpc2/status.h"
#include "msg_internal.h"
#include "msgmem.h"
#include "status_out.h"

namespace {

lrpc2_msg* new_record(const lrpc2_msg_table* table, uint32_t header_len) {
    lrpc2_msg* msg = static_cast<lrpc2_msg*>(calloc(1, sizeof(lrpc2_msg)));
    if (msg != nullptr) {
        msg->table = table;
        msg->header_len = header_len;
        bytebuf_init(&msg->u.build.buf, 0);
    }
    return msg;
}

void make_complete(lrpc2_msg* msg, uint8_t* data, uint32_t length) {
    msg->state = LRPC2_STATE_COMPLETE;
    msg->u.done.data = data;
    msg->u.done.end = data + length;
    msg->u.done.read = data + msg->header_len + 2;
}

}  // namespace

extern "C" {

lrpc2_msg* lrpc2_msg_create(uint32_t id, uint32_t /*reserved*/, const lrpc2_msg_table* table,
                            uint32_t header_len, int32_t* status) {
    if (lrpc2_table_name(table, id) == nullptr) {
        return lrpc2_report(status, LRPC2_MSG_INVALID);
    }
    lrpc2_msg* msg = new_record(table, header_len);
    if (msg == nullptr) {
        return lrpc2_report(status, LRPC2_MSG_NOMEM);
    }
    msg->state = LRPC2_STATE_BUILDING;
    msg->flags = lrpc2_table_secure(table, id) ? LRPC2_MSGF_SECURE : 0;
    lrpc2_bytebuf* buf = &msg->u.build.buf;
    // The header stays zero until the exchange stamps magic and length in place.
    const uint16_t id16 = static_cast<uint16_t>(id);
    if (!bytebuf_reserve_wipe(buf, header_len, lrpc2_msg_secure(msg))) {
        lrpc2_msg_free(msg);
        return lrpc2_report(status, LRPC2_MSG_NOMEM);
    }
    memset(buf->pos, 0, header_len);
    buf->pos += header_len;
    if (!lrpc2_msg_append(msg, sizeof id16, &id16)) {
        lrpc2_msg_free(msg);
        return lrpc2_report(status, LRPC2_MSG_NOMEM);
    }
    lrpc2_report(status, 0);
    return msg;
}

int32_t lrpc2_msg_complete(lrpc2_msg* msg) {
    const int32_t rc = lrpc2_msg_check_building(msg);
    if (rc != 0) {
        return rc;
    }
    lrpc2_msg_close_set(msg);
    if (!lrpc2_msg_append_byte(msg, LRPC2_T_END)) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_NOMEM);
    }
    lrpc2_bytebuf* buf = &msg->u.build.buf;
    const uint32_t length = bytebuf_length(buf);
    uint8_t* data = bytebuf_detach_wipe(buf, lrpc2_msg_secure(msg));
    make_complete(msg, data, length);
    return 0;
}

lrpc2_msg* lrpc2_msg_parse(uint8_t* bytes, uint32_t length, int copy, const lrpc2_msg_table* table,
                           uint32_t header_len, int32_t* status) {
    if (bytes == nullptr || length == 0 || length < header_len ||
        !lrpc2_msg_validate(bytes + header_len, length - header_len)) {
        return lrpc2_report(status, LRPC2_MSG_INVALID);
    }
    lrpc2_msg* msg = new_record(table, header_len);
    if (msg == nullptr) {
        return lrpc2_report(status, LRPC2_MSG_NOMEM);
    }
    uint8_t* data = bytes;
    if (copy) {
        data = lrpc2_mem_alloc(length, false);
        if (data == nullptr) {
            free(msg);
            return lrpc2_report(status, LRPC2_MSG_NOMEM);
        }
        memcpy(data, bytes, length);
    }
    make_complete(msg, data, length);
    uint32_t id = 0;
    lrpc2_msg_id(msg, &id);
    msg->flags = lrpc2_table_secure(table, id) ? LRPC2_MSGF_SECURE : 0;
    lrpc2_report(status, 0);
    return msg;
}

void lrpc2_msg_free(lrpc2_msg* msg) {
    if (msg == nullptr) {
        return;
    }
    const int secure = lrpc2_msg_secure(msg);
    if (msg->state == LRPC2_STATE_COMPLETE) {
        lrpc2_mem_free(msg->u.done.data, static_cast<size_t>(msg->u.done.end - msg->u.done.data),
                       secure);
    } else {
        bytebuf_release(&msg->u.build.buf, secure);
    }
    msg->state = LRPC2_STATE_RELEASED;
    if (secure) {
        explicit_bzero(msg, sizeof *msg);
    }
    free(msg);
}

uint8_t* lrpc2_msg_bytes(lrpc2_msg* msg, uint32_t* length, int32_t* status) {
    if (msg == nullptr || msg->state == LRPC2_STATE_FAILED) {
        return lrpc2_report(status, LRPC2_MSG_INVALID);
    }
    if (msg->state != LRPC2_STATE_COMPLETE) {
        return lrpc2_report(status, LRPC2_MSG_BADSTATE);
    }
    if (length != nullptr) {
        *length = static_cast<uint32_t>(msg->u.done.end - msg->u.done.data);
    }
    lrpc2_report(status, 0);
    return msg->u.done.data;
}

int32_t lrpc2_msg_id(const lrpc2_msg* msg, uint32_t* id) {
    if (msg == nullptr || msg->state != LRPC2_STATE_COMPLETE || id == nullptr) {
        return LRPC2_MSG_INVALID;
    }
    uint16_t id16 = 0;
    memcpy(&id16, msg->u.done.data + msg->header_len, sizeof id16);
    *id = id16;
    return 0;
}

int32_t lrpc2_msg_next_type(const lrpc2_msg* msg, uint32_t* tag) {
    if (msg == nullptr || msg->state != LRPC2_STATE_COMPLETE || tag == nullptr) {
        return LRPC2_MSG_INVALID;
    }
    if (msg->u.done.read >= msg->u.done.end) {
        return LRPC2_MSG_NODATA;
    }
    *tag = *msg->u.done.read;
    return 0;
}

}  // extern "C"
