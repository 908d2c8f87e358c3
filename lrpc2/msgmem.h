/* The one owner of the blocks that hold message bytes: a buffer under construction, a complete
 * image, a parse's copy and a get's copy. Every block comes from malloc, so a block handed to
 * a caller may still be freed with free(). The policy is written in msgmem.cpp. */
#ifndef LRPC2_MSGMEM_H
#define LRPC2_MSGMEM_H

#include <stddef.h>
#include <stdint.h>

/* A block of at least `size` bytes (one for 0), or null. A secure block is never a kept one. */
uint8_t* lrpc2_mem_alloc(size_t size, bool secure);

/* A block of `size` bytes holding the first `used` bytes of `block`, which is given up; null when
 * memory cannot be had, and then `block` is unchanged. */
uint8_t* lrpc2_mem_resize(uint8_t* block, size_t used, size_t size, bool secure);

/* Gives a block up; a secure one is zeroed over its first `used` bytes first. */
void lrpc2_mem_free(void* block, size_t used, bool secure);

#endif
