/* Frame reads that keep track of the frame's writer. */
#ifndef LRPC2_CONN_INTERNAL_H
#define LRPC2_CONN_INTERNAL_H

#include <stdint.h>

#include "lrpc2/conn.h"

/* Reads exactly `count` bytes of a frame, as lrpc2_read_all does, and keeps in conn->sender
 * the one writer of all the bytes of the frame so far: `frame_start` (nonzero) begins a new
 * frame and forgets the last one's writer; bytes from another writer, or without
 * credentials, leave no writer known. */
int32_t lrpc2_read_frame(lrpc2_conn* conn, void* data, uint32_t count, int32_t timeout,
                         int32_t frame_start);

#endif
