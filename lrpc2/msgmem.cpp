/* Message memory.
 *
 * POLICY_PLACEHOLDER
 */
#include "msgmem.h"

#include <malloc.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr size_t kSmallest = size_t{64} * 1024;
constexpr size_t kLargest = size_t{64} * 1024 * 1024;
constexpr int kSlots = 3;

struct Kept {
    void* block[kSlots] = {};
    size_t size[kSlots] = {};
    int next = 0;

    Kept() = default;
    Kept(const Kept&) = delete;
    Kept& operator=(const Kept&) = delete;
    ~Kept() {
        for (void* b : block) {
            free(b);
        }
    }
};

thread_local Kept gKept;

// A kept block that holds `size` bytes and wastes at most a quarter of them and a page.
uint8_t* take(size_t size) {
    if (size < kSmallest || size > kLargest) {
        return nullptr;
    }
    Kept& k = gKept;
    const size_t most = size + size / 4 + 4096;
    for (int i = 0; i < kSlots; ++i) {
        if (k.block[i] != nullptr && k.size[i] >= size && k.size[i] <= most) {
            void* b = k.block[i];
            k.block[i] = nullptr;
            return static_cast<uint8_t*>(b);
        }
    }
    return nullptr;
}

// Keeps a large block in a free slot, or in place of the oldest kept one.
void keep(void* block) {
    const size_t size = malloc_usable_size(block);
    if (size < kSmallest || size > kLargest) {
        free(block);
        return;
    }
    Kept& k = gKept;
    int slot = -1;
    for (int i = 0; i < kSlots && slot < 0; ++i) {
        if (k.block[i] == nullptr) {
            slot = i;
        }
    }
    if (slot < 0) {
        slot = k.next;
        k.next = (k.next + 1) % kSlots;
        free(k.block[slot]);
    }
    k.block[slot] = block;
    k.size[slot] = size;
}

}  // namespace

uint8_t* lrpc2_mem_alloc(size_t size, bool secure) {
    uint8_t* block = secure ? nullptr : take(size);
    return block != nullptr ? block : static_cast<uint8_t*>(malloc(size != 0 ? size : 1));
}

uint8_t* lrpc2_mem_resize(uint8_t* block, size_t used, size_t size, bool secure) {
    uint8_t* moved = secure ? nullptr : take(size);
    if (moved == nullptr && !secure) {
        return static_cast<uint8_t*>(realloc(block, size));
    }
    // realloc would free a moved secure block unwiped.
    if (moved == nullptr && (moved = static_cast<uint8_t*>(malloc(size))) == nullptr) {
        return nullptr;
    }
    memcpy(moved, block, used);
    lrpc2_mem_free(block, used, secure);
    return moved;
}

void lrpc2_mem_free(void* block, size_t used, bool secure) {
    if (block == nullptr) {
        return;
    }
    if (secure) {
        explicit_bzero(block, used);
        free(block);
    } else {
        keep(block);
    }
}
