/* Release of the values that the gets hand out, with optional wiping of their memory. */
#include <stdlib.h>
#include <string.h>

#include "lrpc2/msg.h"
#include "msgmem.h"

extern "C" {

void lrpc2_free_string(char* text, int wipe) {
    if (text == nullptr) {
        return;
    }
    lrpc2_mem_free(text, wipe ? strlen(text) : 0, wipe != 0);
}

void lrpc2_free_string_set(char** texts, int wipe) {
    if (texts == nullptr) {
        return;
    }
    size_t count = 0;
    for (; texts[count] != nullptr; ++count) {
        lrpc2_free_string(texts[count], wipe);
    }
    if (wipe) {
        explicit_bzero(texts, count * sizeof *texts);
    }
    free(texts);
}

void lrpc2_free_kv_set(lrpc2_kv* pairs, int wipe) {
    if (pairs == nullptr) {
        return;
    }
    size_t count = 0;
    for (; pairs[count].key != nullptr || pairs[count].value != nullptr; ++count) {
        lrpc2_free_string(pairs[count].key, wipe);
        lrpc2_free_string(pairs[count].value, wipe);
    }
    if (wipe) {
        explicit_bzero(pairs, count * sizeof *pairs);
    }
    free(pairs);
}

void lrpc2_free_block(void* block, uint32_t length, int wipe) {
    if (block == nullptr) {
        return;
    }
    lrpc2_mem_free(block, length, wipe != 0);
}

void lrpc2_wipe_free(void* block, uint32_t length) {
    lrpc2_free_block(block, length, 1);
}

}  // extern "C"
