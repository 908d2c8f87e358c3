/* Status codes of the lrpc2 client library. 0 is success; no code is negative. */
#ifndef LRPC2_STATUS_H
#define LRPC2_STATUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Message layer (no text). */
#define LRPC2_MSG_NOMEM 200
#define LRPC2_MSG_NOSET 201
#define LRPC2_MSG_BADTYPE 202
#define LRPC2_MSG_NODATA 203
#define LRPC2_MSG_BADSTATE 204
#define LRPC2_MSG_INVALID 205

/* Connection and exchange (each has a fixed text). */
#define LRPC2_ERR_NOPATH 400
#define LRPC2_ERR_OPEN 401
#define LRPC2_ERR_PROTOCOL 402
#define LRPC2_ERR_TABLEVERSION 403
#define LRPC2_ERR_CLOSED 404
#define LRPC2_ERR_SOCKET 405
#define LRPC2_ERR_BADMSG 406
#define LRPC2_ERR_NOMEM 407
#define LRPC2_ERR_TIMEOUT 408
#define LRPC2_ERR_AUTH 409
#define LRPC2_ERR_NOIDENTITY 410
#define LRPC2_ERR_BADSESSION 411
#define LRPC2_ERR_NEEDTIMEOUT 412
#define LRPC2_ERR_MAGIC 413
#define LRPC2_ERR_TMPSPACE 414
#define LRPC2_ERR_FILEOPEN 415
#define LRPC2_ERR_FILEOP 416

/* The fixed text of a connection-level code (400..416), or NULL for any other code. */
const char* lrpc2_status_text(int32_t code);

#ifdef __cplusplus
}
#endif

#endif
