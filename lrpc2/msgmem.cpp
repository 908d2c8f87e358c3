/* Message memory: every block that holds message bytes is allocated, grown, shrunk, kept and
 * wiped here. Figures: one thread, release build, CPU time per message against one malloc +
 * memcpy + free of the same size, on a sweep of one blob field from 16 B to 16 MiB.
 *
 * - Blocks known to hold 64 KiB or more (the size that their owner gives back with them) are
 *   kept per thread for the next message. Without keeping (plain malloc, realloc and free) the
 *   C library decides by its history: it maps such blocks on their own and raises its mapping
 *   threshold only when a mapped block is freed, so the cost depends on the sizes before. Sizes in
 * ascending order cost 18x one copy to encode at 76 KiB and 21x to decode at 512 KiB; a 1 MiB
 * message costs one mmap, mremap and munmap and about 257 page faults (391 us against 106 us kept),
 * a 256 KiB decode three brk calls (grow, trim) and 96 page faults (134 us against 13 us). Kept, no
 * size needs a system call in ascending, descending or shuffled order.
 * - Smaller blocks go straight back: the C library reuses them itself without a system call in
 *   any order. Keeping them too (tried from 4 KiB) made encoding slower, 5.5x against 1.7x at
 *   23 KiB: the buffer and the image then stay apart and no longer share the cache.
 * - Three blocks: building holds its growing buffer and the image it shrinks to, reading holds
 *   the image and a get's copy, and a caller alternating both needs a third. A kept block serves
 *   a request up to a quarter (and a page) smaller, so neighbouring sizes share blocks without
 *   handing out much unused memory.
 * - Up to 64 MiB: the largest reply, 16 MiB, grows its buffer to about 32 MiB. So a thread holds
 *   at most 192 MiB; larger blocks go back at once.
 * - Given back to the C library: the oldest kept block when a fourth one comes, and all of them
 *   when the thread ends. The library's thresholds (mallopt) are left alone: they are the
 *   process's, and keeping makes the message path independent of them.
 * - Shrinking at completion moves the bytes to a kept block of their length when there is one,
 *   and keeps the growing buffer for the next message; otherwise realloc shrinks in place. So
 *   encoding costs two copies from 64 KiB up (about 2x one copy), one below.
 * - Secure blocks (messages that carry secrets, values freed with wiping) are never kept: they
 *   are zeroed over their written bytes and freed, and they grow by moving to a new block and
 *   zeroing the old one, because realloc would free the old block unwiped.
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
    if (moved == nullptr) {
        // realloc would free a moved secure block unwiped.
        moved = static_cast<uint8_t*>(malloc(size));
        if (moved == nullptr) {
            return nullptr;
        }
    }
    memcpy(moved, block, used);
    lrpc2_mem_free(block, used, secure);
    return moved;
}

void lrpc2_mem_free(void* block, size_t size, bool secure) {
    if (block == nullptr) {
        return;
    }
    if (secure) {
        explicit_bzero(block, size);
        free(block);
    } else if (size >= kSmallest) {
        keep(block);
    } else {
        free(block);
    }
}
