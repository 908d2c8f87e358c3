#include "spare.h"

#include <malloc.h>
#include <stdlib.h>

namespace {

// From here up the allocator maps blocks on their own; smaller ones it recycles itself.
constexpr size_t kSmallest = size_t{64} * 1024;
// Kept memory stays resident for the thread's life: large blocks beyond this are let go.
constexpr size_t kLargest = size_t{64} * 1024 * 1024;
// Building a message needs its growing buffer and the image it shrinks to, reading one needs
// the image and a field's copy.
constexpr int kSlots = 3;

struct Spares {
    void* block[kSlots] = {};
    size_t size[kSlots] = {};
    int next = 0;

    Spares() = default;
    Spares(const Spares&) = delete;
    Spares& operator=(const Spares&) = delete;
    ~Spares() {
        for (void* b : block) {
            free(b);
        }
    }
};

thread_local Spares gSpares;

}  // namespace

uint8_t* lrpc2_spare_take(size_t size) {
    if (size < kSmallest || size > kLargest) {
        return nullptr;
    }
    Spares& s = gSpares;
    // A block up to a quarter larger (and a page) still fits: more would waste memory.
    const size_t most = size + size / 4 + 4096;
    for (int i = 0; i < kSlots; ++i) {
        if (s.block[i] != nullptr && s.size[i] >= size && s.size[i] <= most) {
            void* b = s.block[i];
            s.block[i] = nullptr;
            s.size[i] = 0;
            return static_cast<uint8_t*>(b);
        }
    }
    return nullptr;
}

uint8_t* lrpc2_spare_alloc(size_t size) {
    uint8_t* block = lrpc2_spare_take(size);
    return block != nullptr ? block : static_cast<uint8_t*>(malloc(size != 0 ? size : 1));
}

void lrpc2_spare_free(void* block, size_t size) {
    if (block == nullptr) {
        return;
    }
    // Small blocks go straight back: asking the allocator for their size costs more than
    // keeping them would save.
    if (size >= kSmallest) {
        size = malloc_usable_size(block);
    }
    if (size < kSmallest || size > kLargest) {
        free(block);
        return;
    }
    Spares& s = gSpares;
    int slot = -1;
    for (int i = 0; i < kSlots && slot < 0; ++i) {
        if (s.block[i] == nullptr) {
            slot = i;
        }
    }
    if (slot < 0) {
        slot = s.next;
        s.next = (s.next + 1) % kSlots;
        free(s.block[slot]);
    }
    s.block[slot] = block;
    s.size[slot] = size;
}
