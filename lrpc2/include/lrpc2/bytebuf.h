/* Growable byte buffer: starts at 512 bytes, grows to its current size plus twice the
 * request, and always keeps one spare byte after a reservation. */
#ifndef LRPC2_BYTEBUF_H
#define LRPC2_BYTEBUF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lrpc2_bytebuf {
    uint8_t* start;
    uint8_t* pos;
    uint8_t* end;
    uint32_t capacity;
} lrpc2_bytebuf;

void bytebuf_init(lrpc2_bytebuf* b, uint32_t capacity);
int bytebuf_reserve(lrpc2_bytebuf* b, uint32_t n);
lrpc2_bytebuf* bytebuf_append(lrpc2_bytebuf* b, uint32_t n, const void* data);
lrpc2_bytebuf* bytebuf_append_byte(lrpc2_bytebuf* b, uint8_t byte);
lrpc2_bytebuf* bytebuf_append_str(lrpc2_bytebuf* b, const char* text);
lrpc2_bytebuf* bytebuf_overwrite(lrpc2_bytebuf* b, uint32_t offset, uint32_t n, const void* data);
uint32_t bytebuf_length(const lrpc2_bytebuf* b);
uint8_t* bytebuf_detach(lrpc2_bytebuf* b);
uint8_t* bytebuf_data(const lrpc2_bytebuf* b);
void bytebuf_release(lrpc2_bytebuf* b, int wipe);
void bytebuf_unappend(lrpc2_bytebuf* b);

#ifdef __cplusplus
}
#endif

#endif
