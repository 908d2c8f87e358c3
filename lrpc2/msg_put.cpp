/* Building a message: puts, sets built whole or one member at a time. A put that fails leaves
 * the message failed: it can then only be released. */
#include "lrpc2/status.h"
#include "msg_internal.h"

namespace {

bool append_u32(lrpc2_msg* msg, uint32_t v) {
    return lrpc2_msg_append(msg, 4, &v);
}

// A length and the bytes, or the null length alone for a null text.
bool append_text(lrpc2_msg* msg, const char* text) {
    if (text == nullptr) {
        return append_u32(msg, LRPC2_NULL_LEN);
    }
    const size_t n = strlen(text);
    // The null length cannot double as a real one.
    if (n >= LRPC2_NULL_LEN) {
        return false;
    }
    return append_u32(msg, static_cast<uint32_t>(n)) &&
           lrpc2_msg_append(msg, static_cast<uint32_t>(n), text);
}

// Checks the message and closes an open set; 0 when the field may be appended.
int32_t start_put(lrpc2_msg* msg) {
    const int32_t rc = lrpc2_msg_check_building(msg);
    if (rc == 0) {
        lrpc2_msg_close_set(msg);
    }
    return rc;
}

int32_t put_fixed(lrpc2_msg* msg, uint8_t tag, const void* value, uint32_t n) {
    const int32_t rc = start_put(msg);
    if (rc != 0) {
        return rc;
    }
    if (!lrpc2_msg_append_byte(msg, tag) || !lrpc2_msg_append(msg, n, value)) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_NOMEM);
    }
    return 0;
}

int32_t put_text(lrpc2_msg* msg, uint8_t tag, const char* text) {
    const int32_t rc = start_put(msg);
    if (rc != 0) {
        return rc;
    }
    if (!lrpc2_msg_append_byte(msg, tag) || !append_text(msg, text)) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_NOMEM);
    }
    return 0;
}

int32_t begin_set(lrpc2_msg* msg, uint8_t tag, uint8_t kind) {
    const int32_t rc = start_put(msg);
    if (rc != 0) {
        return rc;
    }
    if (!lrpc2_msg_append_byte(msg, tag)) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_NOMEM);
    }
    msg->u.build.open_set = kind;
    msg->u.build.set_count = 0;
    msg->u.build.count_pos = bytebuf_length(&msg->u.build.buf);
    if (!append_u32(msg, 0)) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_NOMEM);
    }
    return 0;
}

// Whole-set puts count their members first; the count field is 32 bits wide.
int32_t put_count(lrpc2_msg* msg, uint8_t tag, size_t count) {
    if (count > UINT32_MAX || !lrpc2_msg_append_byte(msg, tag) ||
        !append_u32(msg, static_cast<uint32_t>(count))) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_NOMEM);
    }
    return 0;
}

}  // namespace

int32_t lrpc2_msg_check_building(const lrpc2_msg* msg) {
    if (msg == nullptr || msg->state == LRPC2_STATE_FAILED) {
        return LRPC2_MSG_INVALID;
    }
    return (msg->state & LRPC2_STATE_BUILDING) != 0 ? 0 : LRPC2_MSG_NODATA;
}

void lrpc2_msg_close_set(lrpc2_msg* msg) {
    if (msg->u.build.open_set == 0) {
        return;
    }
    // The placeholder lies inside the written bytes, so the overwrite cannot be refused.
    bytebuf_overwrite(&msg->u.build.buf, msg->u.build.count_pos, 4, &msg->u.build.set_count);
    msg->u.build.open_set = 0;
}

int32_t lrpc2_msg_fail(lrpc2_msg* msg, int32_t status) {
    msg->state = LRPC2_STATE_FAILED;
    return status;
}

extern "C" {

int32_t lrpc2_put_bool(lrpc2_msg* msg, int32_t value) {
    const uint8_t byte = value != 0 ? 1 : 0;
    return put_fixed(msg, LRPC2_T_BOOL, &byte, 1);
}

int32_t lrpc2_put_int32(lrpc2_msg* msg, int32_t value) {
    return put_fixed(msg, LRPC2_T_INT32, &value, 4);
}

int32_t lrpc2_put_uint32(lrpc2_msg* msg, uint32_t value) {
    return put_fixed(msg, LRPC2_T_UINT32, &value, 4);
}

int32_t lrpc2_put_string(lrpc2_msg* msg, const char* text) {
    return put_text(msg, LRPC2_T_STRING, text);
}

int32_t lrpc2_put_string_alt(lrpc2_msg* msg, const char* text) {
    return put_text(msg, LRPC2_T_STRING_ALT, text);
}

int32_t lrpc2_put_blob(lrpc2_msg* msg, const void* data, uint32_t length) {
    const int32_t rc = start_put(msg);
    if (rc != 0) {
        return rc;
    }
    // A null pointer is the null blob whatever the length says.
    const uint32_t n = data != nullptr ? length : LRPC2_NULL_LEN;
    if (!lrpc2_msg_append_byte(msg, LRPC2_T_BLOB) || !append_u32(msg, n) ||
        !lrpc2_msg_append(msg, length, data)) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_NOMEM);
    }
    return 0;
}

int32_t lrpc2_put_string_set(lrpc2_msg* msg, const char* const* texts) {
    int32_t rc = lrpc2_msg_check_building(msg);
    if (rc != 0) {
        return rc;
    }
    if (texts == nullptr) {
        return LRPC2_MSG_NOSET;
    }
    lrpc2_msg_close_set(msg);
    size_t count = 0;
    while (texts[count] != nullptr) {
        ++count;
    }
    rc = put_count(msg, LRPC2_T_STRINGSET, count);
    for (size_t i = 0; rc == 0 && i < count; ++i) {
        if (!append_text(msg, texts[i])) {
            rc = lrpc2_msg_fail(msg, LRPC2_MSG_NOMEM);
        }
    }
    return rc;
}

int32_t lrpc2_begin_string_set(lrpc2_msg* msg) {
    return begin_set(msg, LRPC2_T_STRINGSET, LRPC2_SET_STRINGS);
}

int32_t lrpc2_add_string(lrpc2_msg* msg, const char* text) {
    const int32_t rc = lrpc2_msg_check_building(msg);
    if (rc != 0) {
        return rc;
    }
    if ((msg->u.build.open_set & LRPC2_SET_STRINGS) == 0) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_NOSET);
    }
    ++msg->u.build.set_count;
    if (!append_text(msg, text != nullptr ? text : "")) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_NOMEM);
    }
    return 0;
}

int32_t lrpc2_put_kv_set(lrpc2_msg* msg, const lrpc2_kv_in* pairs) {
    int32_t rc = lrpc2_msg_check_building(msg);
    if (rc != 0) {
        return rc;
    }
    if (pairs == nullptr) {
        return LRPC2_MSG_NOSET;
    }
    lrpc2_msg_close_set(msg);
    size_t count = 0;
    while (pairs[count].key != nullptr || pairs[count].value != nullptr) {
        ++count;
    }
    rc = put_count(msg, LRPC2_T_KVSET, count);
    for (size_t i = 0; rc == 0 && i < count; ++i) {
        if (!append_text(msg, pairs[i].key) || !append_text(msg, pairs[i].value)) {
            rc = lrpc2_msg_fail(msg, LRPC2_MSG_NOMEM);
        }
    }
    return rc;
}

int32_t lrpc2_begin_kv_set(lrpc2_msg* msg) {
    return begin_set(msg, LRPC2_T_KVSET, LRPC2_SET_KV);
}

int32_t lrpc2_add_kv(lrpc2_msg* msg, const char* key, const char* value) {
    const int32_t rc = lrpc2_msg_check_building(msg);
    if (rc != 0) {
        return rc;
    }
    if ((msg->u.build.open_set & LRPC2_SET_KV) == 0) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_NOSET);
    }
    if (key == nullptr && value == nullptr) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_BADTYPE);
    }
    ++msg->u.build.set_count;
    if (!append_text(msg, key) || !append_text(msg, value)) {
        return lrpc2_msg_fail(msg, LRPC2_MSG_NOMEM);
    }
    return 0;
}

}  // extern "C"
