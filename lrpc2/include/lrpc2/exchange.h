/* Request/reply exchange on a connection, answering the daemon's process-authentication
 * challenge on the way.
 *
 * A frame is the message image itself: magic, total length (header included), id,
 * fields, end tag. The request is stamped in place and sent in one write; the reply is
 * read into one block sized from its header and adopted by the reply message.
 *
 * Reply header checks: a wrong magic, or a length below LRPC2_HEADER_LEN or above
 * LRPC2_MAX_REPLY_LEN, gives 405 before anything is allocated or read further.
 *
 * Process authentication (the daemon answers a request with id 1):
 *  - it is answered only when the challenge frame was written, all of it, by one process
 *    running as root or as this process's effective user (its sender, see conn.h: a
 *    connection over pipes has none, so it never gets an answer);
 *  - the client then sends id 1 (effective uid, gid), reads the two paths of the answer,
 *    reads both proof files and sends id 2 with their contents; the daemon's reply to id 2
 *    is the reply to the original request;
 *  - a failure of one of these exchanges reports that exchange's status; a failure on the
 *    client's side (untrusted peer, message not buildable, answer without two paths,
 *    unreadable proof file) reports 409, as does a further challenge in answer to a
 *    message of the dialogue itself (the dialogue never nests);
 *  - paths, file contents and the messages holding them are zeroed before they are freed.
 *
 * Proof files (lrpc2_read_proof_files): only regular files of 1 to LRPC2_MAX_PROOF_LEN
 * bytes. A file is opened without following a final symbolic link and without blocking,
 * and the opened descriptor must be the same regular file that was examined, so a FIFO,
 * device, directory or swapped-in file fails at once instead of hanging. A file that ends
 * before its examined size fails. */
#ifndef LRPC2_EXCHANGE_H
#define LRPC2_EXCHANGE_H

#include <stdint.h>

#include "lrpc2/conn.h"
#include "lrpc2/msg.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Largest reply image accepted from the daemon (bytes, header included). */
#define LRPC2_MAX_REPLY_LEN (16u * 1024u * 1024u)
/* Largest proof file read during process authentication. */
#define LRPC2_MAX_PROOF_LEN (1024u * 1024u)

/* Writes the magic and the image length into the first LRPC2_HEADER_LEN bytes of a
 * message image of `length` bytes. */
void lrpc2_frame_stamp(uint8_t* image, uint32_t length);

/* Statuses: 411 null connection, 406 null or incomplete request, 404/405/408 from the
 * transport, 405 bad reply header or image, 407 no memory for the reply, 409 failed
 * process authentication. The request stays the caller's. */
lrpc2_msg* lrpc2_exchange_timeout(lrpc2_conn* conn, lrpc2_msg* request, int32_t timeout,
                                  int32_t* status);
lrpc2_msg* lrpc2_exchange(lrpc2_conn* conn, lrpc2_msg* request, int32_t* status);
/* The dialogue that follows a challenge, the last frame read on `conn`; used by the
 * exchange. */
lrpc2_msg* lrpc2_process_auth(lrpc2_conn* conn, int32_t timeout, int32_t* status);
/* Returns 0 on success, 1 on failure. Blocks handed out through `data1`/`data2` stay
 * there even on failure (sized by `size1`/`size2`); the caller wipes and frees them. */
int lrpc2_read_proof_files(const char* path1, const char* path2, uint8_t** data1, uint8_t** data2,
                           uint32_t* size1, uint32_t* size2);

#ifdef __cplusplus
}
#endif

#endif
