// Watches the C allocator calls of the code linked statically into a test: counts them, makes a
// chosen one fail, and looks into every block before it is freed (to see whether secrets were
// wiped). The test executable must be linked with
//   -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free
// (tests/CMakeLists.txt), and exactly one of its sources includes this header.
// Calls from shared libraries (libstdc++, libc itself) are not seen.
#ifndef KV_TESTS_ALLOC_HOOKS_H
#define KV_TESTS_ALLOC_HOOKS_H

#include <malloc.h>
#include <string.h>

#include <cstddef>

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
void __real_free(void* block);
}

namespace alloc_hooks {

struct State {
    bool active = false;
    unsigned fail_at = 0;  // 1-based index of the allocation to refuse; 0 refuses none
    unsigned calls = 0;    // allocation calls (malloc, calloc, realloc) while active
    bool failed = false;   // the chosen call was refused
    long live = 0;         // blocks allocated minus blocks freed while active
    const void* pattern = nullptr;
    size_t pattern_len = 0;
    unsigned pattern_frees = 0;  // freed blocks that still held the pattern
    // Blocks holding the pattern handed to realloc, which frees a block that it moves (it
    // always may) without wiping it.
    unsigned pattern_reallocs = 0;
};

inline State& state() {
    static State s;
    return s;
}

// Starts watching; the fail_at-th allocation call from now is refused (0: none).
inline void start(unsigned fail_at = 0) {
    State& s = state();
    const void* pattern = s.pattern;
    const size_t pattern_len = s.pattern_len;
    s = State();
    s.pattern = pattern;
    s.pattern_len = pattern_len;
    s.fail_at = fail_at;
    s.active = true;
}

inline void stop() {
    state().active = false;
}

// Counts the freed blocks that contain these bytes (whether watching or not) until cleared.
inline void watch_pattern(const void* bytes, size_t len) {
    state().pattern = bytes;
    state().pattern_len = len;
    state().pattern_frees = 0;
    state().pattern_reallocs = 0;
}

inline void clear_pattern() {
    watch_pattern(nullptr, 0);
}

inline bool refuse() {
    State& s = state();
    if (!s.active) {
        return false;
    }
    ++s.calls;
    if (s.calls == s.fail_at) {
        s.failed = true;
        return true;
    }
    return false;
}

inline bool holds_pattern(void* block) {
    const State& s = state();
    return block != nullptr && s.pattern != nullptr &&
           memmem(block, malloc_usable_size(block), s.pattern, s.pattern_len) != nullptr;
}

inline void note_alloc(const void* block, long delta) {
    if (block != nullptr && state().active) {
        state().live += delta;
    }
}

}  // namespace alloc_hooks

extern "C" {

void* __wrap_malloc(size_t size) {
    if (alloc_hooks::refuse()) {
        return nullptr;
    }
    void* block = __real_malloc(size);
    // A reused block may still hold what a test's own (unwatched) code freed into it: start
    // every block clean, so that a pattern found later was written by the code under test.
    if (block != nullptr) {
        memset(block, 0, malloc_usable_size(block));
    }
    alloc_hooks::note_alloc(block, 1);
    return block;
}

void* __wrap_calloc(size_t count, size_t size) {
    if (alloc_hooks::refuse()) {
        return nullptr;
    }
    void* block = __real_calloc(count, size);
    alloc_hooks::note_alloc(block, 1);
    return block;
}

void* __wrap_realloc(void* block, size_t size) {
    if (alloc_hooks::refuse()) {
        return nullptr;
    }
    if (alloc_hooks::holds_pattern(block)) {
        ++alloc_hooks::state().pattern_reallocs;
    }
    const size_t before = block != nullptr ? malloc_usable_size(block) : 0;
    void* moved = __real_realloc(block, size);
    if (moved != nullptr && malloc_usable_size(moved) > before) {
        // As for malloc: only the bytes carried over from the old block are the caller's.
        memset(static_cast<char*>(moved) + before, 0, malloc_usable_size(moved) - before);
    }
    if (block == nullptr) {
        alloc_hooks::note_alloc(moved, 1);
    }
    return moved;
}

void __wrap_free(void* block) {
    if (alloc_hooks::holds_pattern(block)) {
        ++alloc_hooks::state().pattern_frees;
    }
    alloc_hooks::note_alloc(block, -1);
    __real_free(block);
}

}  // extern "C"

#endif
