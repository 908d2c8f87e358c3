/* Connection to the daemon: a Unix-domain stream socket (or an adopted descriptor
 * pair), the 4-byte handshake, and exact-count transfers bounded by a time-out per wait.
 * Time-outs are whole seconds; 0 means no limit. */
#ifndef LRPC2_CONN_H
#define LRPC2_CONN_H

#include <stdint.h>

#include "lrpc2/table.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lrpc2_conn {
    int32_t read_fd;
    int32_t write_fd;
    const lrpc2_msg_table* table;
    int32_t is_socket;
} lrpc2_conn;

lrpc2_conn* lrpc2_connect_timeout(const char* path, const lrpc2_msg_table* table,
                                  int32_t timeout, int32_t* status);
lrpc2_conn* lrpc2_connect(const char* path, const lrpc2_msg_table* table, int32_t* status);
lrpc2_conn* lrpc2_attach(int32_t read_fd, int32_t write_fd, const lrpc2_msg_table* table,
                         int32_t timeout, int32_t* status);
void lrpc2_close(lrpc2_conn* conn);
int32_t lrpc2_write_all(int32_t fd, const void* data, uint32_t count, int32_t timeout,
                        int32_t is_socket);
int32_t lrpc2_read_all(int32_t fd, void* data, uint32_t count, int32_t timeout,
                       int32_t is_socket);

#ifdef __cplusplus
}
#endif

#endif
