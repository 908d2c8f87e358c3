#include "lrpc2/bytebuf.h"

#include <stddef.h>
#include <string.h>

#include "msgmem.h"

namespace {

constexpr uint32_t kDefaultCapacity = 512;

int reserve(lrpc2_bytebuf* b, uint32_t n, bool wipe) {
    if (b == nullptr) {
        return 0;
    }
    if (lrpc2_mem_room(b, n)) {
        return 1;
    }
    // Sizes are computed in 64 bits: the allocation must stay addressable by a 32-bit capacity.
    const uint64_t twice = 2 * static_cast<uint64_t>(n);
    if (b->start == nullptr) {
        const uint64_t size = twice > b->capacity ? twice : b->capacity;
        if (size > UINT32_MAX) {
            return 0;
        }
        uint8_t* block = lrpc2_mem_alloc(size, wipe);
        if (block == nullptr) {
            return 0;
        }
        b->start = block;
        b->pos = block;
        b->end = block + size;
        b->capacity = static_cast<uint32_t>(size);
        return 1;
    }
    const uint64_t size = b->capacity + twice;
    if (size > UINT32_MAX) {
        return 0;
    }
    const ptrdiff_t used = b->pos - b->start;
    uint8_t* block = lrpc2_mem_resize(b->start, static_cast<size_t>(used), size, wipe);
    if (block == nullptr) {
        return 0;
    }
    b->start = block;
    b->pos = block + used;
    b->end = block + size;
    b->capacity = static_cast<uint32_t>(size);
    return 1;
}

uint8_t* detach(lrpc2_bytebuf* b, bool wipe) {
    if (b == nullptr || b->start == nullptr) {
        return nullptr;
    }
    uint8_t* block = b->start;
    const uint32_t length = bytebuf_length(b);
    // realloc to 0 bytes may free the block, so an empty buffer keeps its allocation.
    if (length != 0) {
        uint8_t* shrunk = lrpc2_mem_resize(b->start, length, length, wipe);
        if (shrunk != nullptr) {
            block = shrunk;
        }
    }
    bytebuf_init(b, b->capacity);
    return block;
}

}  // namespace

extern "C" {

void bytebuf_init(lrpc2_bytebuf* b, uint32_t capacity) {
    if (b == nullptr) {
        return;
    }
    b->start = nullptr;
    b->pos = nullptr;
    b->end = nullptr;
    b->capacity = capacity != 0 ? capacity : kDefaultCapacity;
}

int bytebuf_reserve(lrpc2_bytebuf* b, uint32_t n) {
    return reserve(b, n, false);
}

int bytebuf_reserve_wipe(lrpc2_bytebuf* b, uint32_t n, int wipe) {
    return reserve(b, n, wipe != 0);
}

lrpc2_bytebuf* bytebuf_append(lrpc2_bytebuf* b, uint32_t n, const void* data) {
    if (b == nullptr || data == nullptr) {
        return b;
    }
    if (!bytebuf_reserve(b, n)) {
        return nullptr;
    }
    memcpy(b->pos, data, n);
    b->pos += n;
    return b;
}

lrpc2_bytebuf* bytebuf_append_byte(lrpc2_bytebuf* b, uint8_t byte) {
    if (b == nullptr) {
        return nullptr;
    }
    if (!bytebuf_reserve(b, 1)) {
        return nullptr;
    }
    *b->pos++ = byte;
    return b;
}

lrpc2_bytebuf* bytebuf_append_str(lrpc2_bytebuf* b, const char* text) {
    if (b == nullptr || text == nullptr) {
        return b;
    }
    const size_t n = strlen(text);
    if (n > UINT32_MAX) {
        return nullptr;
    }
    return bytebuf_append(b, static_cast<uint32_t>(n), text);
}

lrpc2_bytebuf* bytebuf_overwrite(lrpc2_bytebuf* b, uint32_t offset, uint32_t n, const void* data) {
    if (b == nullptr) {
        return nullptr;
    }
    if (static_cast<uint64_t>(offset) + n > bytebuf_length(b) || (data == nullptr && n != 0)) {
        return nullptr;
    }
    if (n != 0) {
        memcpy(b->start + offset, data, n);
    }
    return b;
}

uint32_t bytebuf_length(const lrpc2_bytebuf* b) {
    return b != nullptr ? static_cast<uint32_t>(b->pos - b->start) : 0;
}

uint8_t* bytebuf_detach(lrpc2_bytebuf* b) {
    return detach(b, false);
}

uint8_t* bytebuf_detach_wipe(lrpc2_bytebuf* b, int wipe) {
    return detach(b, wipe != 0);
}

uint8_t* bytebuf_data(const lrpc2_bytebuf* b) {
    return b != nullptr ? b->start : nullptr;
}

void bytebuf_release(lrpc2_bytebuf* b, int wipe) {
    if (b == nullptr || b->start == nullptr) {
        return;
    }
    lrpc2_mem_free(b->start, bytebuf_length(b), wipe != 0);
    bytebuf_init(b, b->capacity);
}

void bytebuf_unappend(lrpc2_bytebuf* b) {
    if (b != nullptr && b->pos != b->start) {
        --b->pos;
    }
}

}  // extern "C"
