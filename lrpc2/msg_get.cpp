/* Reading fields out of a complete message. A get works on a private reader and moves the
 * message's read position only when it succeeds, so a refused or failed get can be retried. */
#include <stdlib.h>

#include "lrpc2/status.h"
#include "msg_internal.h"
#include "msgmem.h"

namespace {

// Checks the message and the next tag; on success the reader stands after the tag.
int32_t begin_get(const lrpc2_msg* msg, uint8_t want, lrpc2_reader* r) {
    if (msg == nullptr || msg->state != LRPC2_STATE_COMPLETE) {
        return LRPC2_MSG_INVALID;
    }
    r->pos = msg->u.done.read;
    r->end = msg->u.done.end;
    uint8_t tag = 0;
    if (!r->u8(&tag)) {
        return LRPC2_MSG_NODATA;
    }
    if (tag != want) {
        return tag == LRPC2_T_END ? LRPC2_MSG_NODATA : LRPC2_MSG_BADTYPE;
    }
    return 0;
}

int32_t finish_get(lrpc2_msg* msg, const lrpc2_reader& r) {
    msg->u.done.read = const_cast<uint8_t*>(r.pos);
    return 0;
}

// A length-prefixed string: a zero-terminated copy, or null for the null string; `length`,
// when given, gets the bytes it was sent with (0 for the null string).
int32_t read_string(lrpc2_reader* r, char** out, uint32_t* length = nullptr) {
    uint32_t n = 0;
    if (!r->u32(&n)) {
        return LRPC2_MSG_NODATA;
    }
    if (n == LRPC2_NULL_LEN) {
        *out = nullptr;
        if (length != nullptr) {
            *length = 0;
        }
        return 0;
    }
    if (r->left() < n) {
        return LRPC2_MSG_NODATA;
    }
    char* text = reinterpret_cast<char*>(lrpc2_mem_alloc(static_cast<size_t>(n) + 1, false));
    if (text == nullptr) {
        return LRPC2_MSG_NOMEM;
    }
    memcpy(text, r->pos, n);
    text[n] = '\0';
    r->pos += n;
    *out = text;
    if (length != nullptr) {
        *length = n;
    }
    return 0;
}

// Set members that would end the handed-out array early (a null text in a string set, a pair of
// two nulls in a key-value set) are handed out as the empty text, so no member is lost.
int32_t empty_text(char** out) {
    *out = reinterpret_cast<char*>(lrpc2_mem_alloc(1, false));
    if (*out == nullptr) {
        return LRPC2_MSG_NOMEM;
    }
    **out = '\0';
    return 0;
}

// A string field, or the alternative string field, read whole.
int32_t get_text(lrpc2_msg* msg, uint8_t tag, char** text, uint32_t* length = nullptr) {
    lrpc2_reader r;
    int32_t rc = text != nullptr ? begin_get(msg, tag, &r) : LRPC2_MSG_INVALID;
    if (rc == 0) {
        rc = read_string(&r, text, length);
    }
    return rc != 0 ? rc : finish_get(msg, r);
}

// Starts a set get: positions at the field, reads its count and allocates the array of count
// entries and the terminating one (count is 32 bits wide, so the size cannot overflow). The
// parse's validation has seen every member the count names.
template <typename T>
int32_t begin_set(lrpc2_msg* msg, bool wanted, uint8_t tag, lrpc2_reader* r, uint32_t* count,
                  T** array) {
    int32_t rc = wanted ? begin_get(msg, tag, r) : LRPC2_MSG_INVALID;
    if (rc == 0 && !r->u32(count)) {
        rc = LRPC2_MSG_NODATA;
    }
    if (rc == 0) {
        *array = static_cast<T*>(malloc((static_cast<size_t>(*count) + 1) * sizeof(T)));
        rc = *array != nullptr ? 0 : LRPC2_MSG_NOMEM;
    }
    return rc;
}

template <typename T>
int32_t get_fixed(lrpc2_msg* msg, uint8_t tag, T* value) {
    lrpc2_reader r;
    int32_t rc = value != nullptr ? begin_get(msg, tag, &r) : LRPC2_MSG_INVALID;
    if (rc == 0 && r.left() < sizeof(T)) {
        rc = LRPC2_MSG_NODATA;
    }
    if (rc != 0) {
        return rc;
    }
    memcpy(value, r.pos, sizeof(T));
    r.pos += sizeof(T);
    return finish_get(msg, r);
}

}  // namespace

extern "C" {

int32_t lrpc2_get_bool(lrpc2_msg* msg, int32_t* value) {
    uint8_t byte = 0;
    const int32_t rc = get_fixed(msg, LRPC2_T_BOOL, value != nullptr ? &byte : nullptr);
    if (rc == 0) {
        *value = byte;
    }
    return rc;
}

int32_t lrpc2_get_int32(lrpc2_msg* msg, int32_t* value) {
    return get_fixed(msg, LRPC2_T_INT32, value);
}

int32_t lrpc2_get_uint32(lrpc2_msg* msg, uint32_t* value) {
    return get_fixed(msg, LRPC2_T_UINT32, value);
}

int32_t lrpc2_get_string(lrpc2_msg* msg, char** text) {
    return get_text(msg, LRPC2_T_STRING, text);
}

int32_t lrpc2_get_string_alt(lrpc2_msg* msg, char** text) {
    return get_text(msg, LRPC2_T_STRING_ALT, text);
}

int32_t lrpc2_get_string_len(lrpc2_msg* msg, char** text, uint32_t* length) {
    return length != nullptr ? get_text(msg, LRPC2_T_STRING, text, length) : LRPC2_MSG_INVALID;
}

int32_t lrpc2_get_blob(lrpc2_msg* msg, uint8_t** data, uint32_t* length) {
    lrpc2_reader r;
    uint32_t n = 0;
    int32_t rc =
        data != nullptr && length != nullptr ? begin_get(msg, LRPC2_T_BLOB, &r) : LRPC2_MSG_INVALID;
    if (rc == 0 && !r.u32(&n)) {
        rc = LRPC2_MSG_NODATA;
    }
    if (rc != 0) {
        return rc;
    }
    if (n == LRPC2_NULL_LEN) {
        *data = nullptr;
        *length = 0;
        return finish_get(msg, r);
    }
    if (r.left() < n) {
        return LRPC2_MSG_NODATA;
    }
    // An empty blob still gets a block of its own, so it stays distinct from the null blob.
    uint8_t* block = lrpc2_mem_alloc(n, false);
    if (block == nullptr) {
        return LRPC2_MSG_NOMEM;
    }
    memcpy(block, r.pos, n);
    r.pos += n;
    *data = block;
    *length = n;
    return finish_get(msg, r);
}

int32_t lrpc2_get_string_set(lrpc2_msg* msg, char*** texts) {
    lrpc2_reader r;
    uint32_t count = 0;
    char** array = nullptr;
    int32_t rc = begin_set(msg, texts != nullptr, LRPC2_T_STRINGSET, &r, &count, &array);
    if (rc != 0) {
        return rc;
    }
    array[count] = nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        // Null until read, so that a failure here ends the array for its release.
        array[i] = nullptr;
        rc = read_string(&r, &array[i]);
        if (rc == 0 && array[i] == nullptr) {
            rc = empty_text(&array[i]);
        }
        if (rc != 0) {
            lrpc2_free_string_set(array, lrpc2_msg_secure(msg));
            return rc;
        }
    }
    *texts = array;
    return finish_get(msg, r);
}

int32_t lrpc2_get_kv_set(lrpc2_msg* msg, lrpc2_kv** pairs) {
    lrpc2_reader r;
    uint32_t count = 0;
    lrpc2_kv* array = nullptr;
    int32_t rc = begin_set(msg, pairs != nullptr, LRPC2_T_KVSET, &r, &count, &array);
    if (rc != 0) {
        return rc;
    }
    array[count] = lrpc2_kv{nullptr, nullptr};
    for (uint32_t i = 0; i < count; ++i) {
        lrpc2_kv& pair = array[i];
        // Null until read: a pair that fails halfway keeps only what was read, and the array
        // ends after it for its release.
        pair = lrpc2_kv{nullptr, nullptr};
        rc = read_string(&r, &pair.key);
        if (rc == 0) {
            rc = read_string(&r, &pair.value);
        }
        if (rc == 0 && pair.key == nullptr && pair.value == nullptr) {
            rc = empty_text(&pair.key);
        }
        if (rc != 0) {
            array[i + 1] = lrpc2_kv{nullptr, nullptr};
            lrpc2_free_kv_set(array, lrpc2_msg_secure(msg));
            return rc;
        }
    }
    *pairs = array;
    return finish_get(msg, r);
}

}  // extern "C"
