// Feeds arbitrary bytes to the message parser as a received image (copied and adopted), reads
// every field with the get of its tag, and builds the values read into a new message that must
// again be well formed. Any broken promise of the message layer aborts.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "lrpc2/msg.h"
#include "lrpc2/status.h"

namespace {

void check(bool ok) {
    if (!ok) {
        abort();
    }
}

uint32_t next_type(const lrpc2_msg* m) {
    uint32_t tag = 0xFFFF;
    check(lrpc2_msg_next_type(m, &tag) == 0);
    return tag;
}

// A get of another type is refused at the tag and leaves the read position.
void expect_refused(lrpc2_msg* m, uint32_t tag) {
    uint32_t u = 0;
    int32_t i = 0;
    const int32_t rc = tag == LRPC2_T_UINT32 ? lrpc2_get_int32(m, &i) : lrpc2_get_uint32(m, &u);
    check(rc == (tag == LRPC2_T_END ? LRPC2_MSG_NODATA : LRPC2_MSG_BADTYPE));
    check(next_type(m) == tag);
}

// Reads one field of the given tag from m and puts its value into out.
void copy_field(lrpc2_msg* m, uint32_t tag, lrpc2_msg* out) {
    int32_t i = 0;
    uint32_t u = 0;
    char* s = nullptr;
    switch (tag) {
        case LRPC2_T_BOOL:
            check(lrpc2_get_bool(m, &i) == 0 && i >= 0 && i <= 255);
            check(lrpc2_put_bool(out, i) == 0);
            break;
        case LRPC2_T_INT32:
            check(lrpc2_get_int32(m, &i) == 0);
            check(lrpc2_put_int32(out, i) == 0);
            break;
        case LRPC2_T_UINT32:
            check(lrpc2_get_uint32(m, &u) == 0);
            check(lrpc2_put_uint32(out, u) == 0);
            break;
        case LRPC2_T_STRING:
        case LRPC2_T_STRING_ALT:
            if (tag == LRPC2_T_STRING) {
                check(lrpc2_get_string(m, &s) == 0);
                check(lrpc2_put_string(out, s) == 0);
            } else {
                check(lrpc2_get_string_alt(m, &s) == 0);
                check(lrpc2_put_string_alt(out, s) == 0);
            }
            lrpc2_free_string(s, 1);
            break;
        case LRPC2_T_BLOB: {
            uint8_t* data = nullptr;
            check(lrpc2_get_blob(m, &data, &u) == 0);
            check(data != nullptr || u == 0);
            check(lrpc2_put_blob(out, data, u) == 0);
            lrpc2_free_block(data, u, 1);
            break;
        }
        case LRPC2_T_STRINGSET: {
            char** texts = nullptr;
            check(lrpc2_get_string_set(m, &texts) == 0 && texts != nullptr);
            check(lrpc2_begin_string_set(out) == 0);
            for (char** t = texts; *t != nullptr; ++t) {
                check(lrpc2_add_string(out, *t) == 0);
            }
            lrpc2_free_string_set(texts, 1);
            break;
        }
        case LRPC2_T_KVSET: {
            lrpc2_kv* pairs = nullptr;
            check(lrpc2_get_kv_set(m, &pairs) == 0 && pairs != nullptr);
            check(lrpc2_put_kv_set(out, reinterpret_cast<const lrpc2_kv_in*>(pairs)) == 0);
            lrpc2_free_kv_set(pairs, 1);
            break;
        }
        default:
            check(false);  // the parser let an unknown tag through
    }
}

void read_all(lrpc2_msg* m) {
    uint32_t id = 0;
    check(lrpc2_msg_id(m, &id) == 0);
    const lrpc2_msg_table* table = lrpc2_default_table();
    lrpc2_msg* out =
        lrpc2_msg_create(lrpc2_table_name(table, id) != nullptr ? id : LRPC2_ID_KV_PING, 0, table,
                         LRPC2_HEADER_LEN, nullptr);
    check(out != nullptr);
    for (uint32_t tag = next_type(m); tag != LRPC2_T_END; tag = next_type(m)) {
        expect_refused(m, tag);
        copy_field(m, tag, out);
    }
    expect_refused(m, LRPC2_T_END);
    check(lrpc2_msg_complete(out) == 0);
    uint32_t length = 0;
    const uint8_t* image = lrpc2_msg_bytes(out, &length, nullptr);
    check(image != nullptr &&
          lrpc2_msg_validate(image + LRPC2_HEADER_LEN, length - LRPC2_HEADER_LEN));
    lrpc2_msg_free(out);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > UINT32_MAX) {
        return 0;
    }
    const uint32_t length = static_cast<uint32_t>(size);
    const bool valid = length >= LRPC2_HEADER_LEN &&
                       lrpc2_msg_validate(data + LRPC2_HEADER_LEN, length - LRPC2_HEADER_LEN) == 1;
    const lrpc2_msg_table* table = lrpc2_default_table();

    int32_t status = -1;
    lrpc2_msg* copied =
        lrpc2_msg_parse(const_cast<uint8_t*>(data), length, 1, table, LRPC2_HEADER_LEN, &status);
    check((copied != nullptr) == valid && status == (valid ? 0 : LRPC2_MSG_INVALID));

    // A block of exactly the input's size, so that a read past the end is caught.
    uint8_t* block = static_cast<uint8_t*>(malloc(size != 0 ? size : 1));
    check(block != nullptr);
    memcpy(block, data, size);
    lrpc2_msg* adopted = lrpc2_msg_parse(block, length, 0, table, LRPC2_HEADER_LEN, &status);
    check((adopted != nullptr) == valid);
    if (adopted == nullptr) {
        free(block);
        return 0;
    }
    uint32_t image_length = 0;
    check(lrpc2_msg_bytes(adopted, &image_length, nullptr) == block && image_length == length);
    read_all(copied);
    read_all(adopted);
    lrpc2_msg_free(copied);
    lrpc2_msg_free(adopted);
    return 0;
}
