/* Large blocks kept per thread between messages. A message of tens of kilobytes or more is
 * built, sent and freed over and over; without this, every one of them would get fresh pages
 * from the kernel (the allocator maps blocks of that size on their own and unmaps them when
 * freed), which costs far more than the bytes themselves. Never used for wiped memory. */
#ifndef LRPC2_SPARE_H
#define LRPC2_SPARE_H

#include <stddef.h>
#include <stdint.h>

/* A kept block of at least `size` usable bytes and not much more, or null (small sizes
 * are never kept). The caller owns it and may free() it. */
uint8_t* lrpc2_spare_take(size_t size);

/* A block of at least `size` bytes (one for 0): a kept one when there is one, else from
 * malloc; null when that fails. */
uint8_t* lrpc2_spare_alloc(size_t size);

/* Frees a block from malloc of at least `size` bytes, keeping it for a later lrpc2_spare_take
 * when it is large. */
void lrpc2_spare_free(void* block, size_t size);

#endif
