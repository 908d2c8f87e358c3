/* Status codes of the lrpc2 client library. 0 is success; no code is negative. */
#ifndef LRPC2_STATUS_H
#define LRPC2_STATUS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Every code: X(NAME, number, fixed text). The message layer's codes (200..205) have no
 * text; each connection and exchange code (400..416) has one, which the protocol fixes. */
#define LRPC2_STATUS_MAP(X)                                                                       \
    X(MSG_NOMEM, 200, NULL)                                                                       \
    X(MSG_NOSET, 201, NULL)                                                                       \
    X(MSG_BADTYPE, 202, NULL)                                                                     \
    X(MSG_NODATA, 203, NULL)                                                                      \
    X(MSG_BADSTATE, 204, NULL)                                                                    \
    X(MSG_INVALID, 205, NULL)                                                                     \
    X(ERR_NOPATH, 400, "Socket path does not exist")                                              \
    X(ERR_OPEN, 401, "Cannot open socket")                                                        \
    X(ERR_PROTOCOL, 402, "Wrong protocol in handshake")                                           \
    X(ERR_TABLEVERSION, 403, "Message table version mismatch")                                    \
    X(ERR_CLOSED, 404, "Socket closed")                                                           \
    X(ERR_SOCKET, 405, "Socket error")                                                            \
    X(ERR_BADMSG, 406, "Invalid message handle or operation")                                     \
    X(ERR_NOMEM, 407, "Out of memory")                                                            \
    X(ERR_TIMEOUT, 408, "Timeout during operation")                                               \
    X(ERR_AUTH, 409, "Process authentication failed")                                             \
    X(ERR_NOIDENTITY, 410, "Process identity is not known at this point")                         \
    X(ERR_BADSESSION, 411, "Bad or invalid session handle")                                       \
    X(ERR_NEEDTIMEOUT, 412, "A timeout value is required")                                        \
    X(ERR_MAGIC, 413, "Bad magic number in communication, potential network or byte order issue") \
    X(ERR_TMPSPACE, 414, "Temporary storage is running out of space")                             \
    X(ERR_FILEOPEN, 415, "Cannot open file")                                                      \
    X(ERR_FILEOP, 416, "File operation error")

/* LRPC2_MSG_NOMEM, ..., LRPC2_ERR_FILEOP. */
enum {
#define LRPC2_STATUS_NAME(name, code, text) LRPC2_##name = (code),
    LRPC2_STATUS_MAP(LRPC2_STATUS_NAME)
#undef LRPC2_STATUS_NAME
};

/* The fixed text of a code, or NULL for a code without one. */
const char* lrpc2_status_text(int32_t code);

#ifdef __cplusplus
}
#endif

#endif
