/* Structural check of received message bytes: every field must lie inside the bytes, and the
 * end tag must be the last byte. The bytes come from another process and may be hostile. */
#include "msg_internal.h"

namespace {

// Steps over one length-prefixed string or blob value.
bool skip_item(lrpc2_reader* r) {
    uint32_t n = 0;
    if (!r->u32(&n)) {
        return false;
    }
    return n == LRPC2_NULL_LEN || r->skip(n);
}

// Every item takes at least its 4 length bytes, so a huge count runs out of bytes quickly.
bool skip_items(lrpc2_reader* r, uint64_t count) {
    for (uint64_t i = 0; i < count; ++i) {
        if (!skip_item(r)) {
            return false;
        }
    }
    return true;
}

bool skip_value(lrpc2_reader* r, uint8_t tag) {
    uint32_t count = 0;
    switch (tag) {
        case LRPC2_T_BOOL:
            return r->skip(1);
        case LRPC2_T_INT32:
        case LRPC2_T_UINT32:
            return r->skip(4);
        case LRPC2_T_STRING:
        case LRPC2_T_STRING_ALT:
        case LRPC2_T_BLOB:
            return skip_item(r);
        case LRPC2_T_STRINGSET:
            return r->u32(&count) && skip_items(r, count);
        case LRPC2_T_KVSET:
            return r->u32(&count) && skip_items(r, 2 * static_cast<uint64_t>(count));
        default:
            return false;
    }
}

}  // namespace

extern "C" int lrpc2_msg_validate(const uint8_t* body, uint32_t length) {
    if (body == nullptr) {
        return 0;
    }
    lrpc2_reader r = {body, body + length};
    if (!r.skip(2)) {
        return 0;
    }
    uint8_t tag = 0;
    while (r.u8(&tag)) {
        if (tag == LRPC2_T_END) {
            return r.left() == 0 ? 1 : 0;
        }
        if (!skip_value(&r, tag)) {
            return 0;
        }
    }
    return 0;
}
