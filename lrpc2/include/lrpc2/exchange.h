/* Request/reply exchange on a connection, answering the daemon's process-authentication
 * challenge on the way. */
#ifndef LRPC2_EXCHANGE_H
#define LRPC2_EXCHANGE_H

#include <stdint.h>

#include "lrpc2/conn.h"
#include "lrpc2/msg.h"

#ifdef __cplusplus
extern "C" {
#endif

lrpc2_msg* lrpc2_exchange_timeout(lrpc2_conn* conn, lrpc2_msg* request, int32_t timeout,
                                  int32_t* status);
lrpc2_msg* lrpc2_exchange(lrpc2_conn* conn, lrpc2_msg* request, int32_t* status);
lrpc2_msg* lrpc2_process_auth(lrpc2_conn* conn, int32_t timeout, int32_t* status);
int lrpc2_read_proof_files(const char* path1, const char* path2, uint8_t** data1,
                           uint8_t** data2, uint32_t* size1, uint32_t* size2);

#ifdef __cplusplus
}
#endif

#endif
