/* The message record and the bounded reader shared by the message sources. */
#ifndef LRPC2_MSG_INTERNAL_H
#define LRPC2_MSG_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "lrpc2/bytebuf.h"
#include "lrpc2/msg.h"
#include "msgmem.h"

#define LRPC2_MSGF_SECURE 0x1u

#define LRPC2_SET_STRINGS 0x1u
#define LRPC2_SET_KV 0x2u

/* Length value of a null string or blob. */
#define LRPC2_NULL_LEN 0xFFFFFFFFu

struct lrpc2_msg {
    uint32_t state;
    const lrpc2_msg_table* table;
    uint8_t flags;
    uint32_t header_len;
    union {
        struct {
            uint8_t open_set;
            uint32_t set_count;
            uint32_t count_pos;
            lrpc2_bytebuf buf;
        } build; /* LRPC2_STATE_BUILDING and LRPC2_STATE_FAILED */
        struct {
            uint8_t* data;
            uint8_t* end;
            uint8_t* read;
        } done; /* LRPC2_STATE_COMPLETE */
    } u;
};

/* Reads from [pos, end) and never past end; every read reports whether the bytes were there. */
struct lrpc2_reader {
    const uint8_t* pos;
    const uint8_t* end;

    size_t left() const { return static_cast<size_t>(end - pos); }

    bool skip(size_t n) {
        if (left() < n) {
            return false;
        }
        pos += n;
        return true;
    }

    bool u8(uint8_t* v) {
        if (left() < 1) {
            return false;
        }
        *v = *pos++;
        return true;
    }

    bool u32(uint32_t* v) {
        if (left() < 4) {
            return false;
        }
        memcpy(v, pos, 4);
        pos += 4;
        return true;
    }
};

inline bool lrpc2_msg_secure(const lrpc2_msg* msg) {
    return (msg->flags & LRPC2_MSGF_SECURE) != 0;
}

/* Wipes a message like a secure one whatever its id: for messages that carry secrets of the
 * library's own (the proof contents). */
inline void lrpc2_msg_set_secure(lrpc2_msg* msg) {
    msg->flags |= LRPC2_MSGF_SECURE;
}

/* Appends n bytes (none for null data) to a message under construction; a secure message's
 * buffer grows with its old block wiped. */
inline bool lrpc2_msg_append(lrpc2_msg* msg, uint32_t n, const void* data) {
    lrpc2_bytebuf* buf = &msg->u.build.buf;
    if (data == nullptr) {
        return true;
    }
    if (!lrpc2_mem_room(buf, n) && !bytebuf_reserve_wipe(buf, n, lrpc2_msg_secure(msg))) {
        return false;
    }
    memcpy(buf->pos, data, n);
    buf->pos += n;
    return true;
}

inline bool lrpc2_msg_append_byte(lrpc2_msg* msg, uint8_t byte) {
    return lrpc2_msg_append(msg, 1, &byte);
}

/* Status of a put-style operation before it touches the message: 0 when it may go on. */
int32_t lrpc2_msg_check_building(const lrpc2_msg* msg);

/* Writes the open set's count over its placeholder and closes the set. */
void lrpc2_msg_close_set(lrpc2_msg* msg);

/* Marks the message failed and hands back the status. */
int32_t lrpc2_msg_fail(lrpc2_msg* msg, int32_t status);

#endif
