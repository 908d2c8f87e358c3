/* lrpc2 messages: built field by field, completed into a byte image, or parsed from
 * received bytes. Every operation reports a status code (status.h) and never throws. */
#ifndef LRPC2_MSG_H
#define LRPC2_MSG_H

#include <stdint.h>

#include "lrpc2/bytebuf.h"
#include "lrpc2/table.h"

#ifdef __cplusplus
extern "C" {
#endif

#define LRPC2_MAGIC 0xABCD8012u
#define LRPC2_HEADER_LEN 8u

/* Field tags. */
#define LRPC2_T_END 0
#define LRPC2_T_BOOL 1
#define LRPC2_T_INT32 2
#define LRPC2_T_UINT32 3
#define LRPC2_T_STRING 4
#define LRPC2_T_STRING_ALT 5
#define LRPC2_T_BLOB 6
#define LRPC2_T_STRINGSET 7
#define LRPC2_T_KVSET 8

/* Message states. */
#define LRPC2_STATE_BUILDING 0x10u
#define LRPC2_STATE_FAILED 0x11u
#define LRPC2_STATE_COMPLETE 0x20u
#define LRPC2_STATE_RELEASED 0u

typedef struct lrpc2_msg lrpc2_msg;

typedef struct lrpc2_kv {
    char* key;
    char* value;
} lrpc2_kv;

/* The same pair as handed in to a put (texts not owned). */
typedef struct lrpc2_kv_in {
    const char* key;
    const char* value;
} lrpc2_kv_in;

lrpc2_msg* lrpc2_msg_create(uint32_t id, uint32_t reserved, const lrpc2_msg_table* table,
                            uint32_t header_len, int32_t* status);
int32_t lrpc2_msg_complete(lrpc2_msg* msg);
/* Without the copy flag the message adopts `bytes` (a malloc'd block) on success; on failure the
 * bytes stay the caller's. Bytes shorter than the header are refused like malformed ones. */
lrpc2_msg* lrpc2_msg_parse(uint8_t* bytes, uint32_t length, int copy, const lrpc2_msg_table* table,
                           uint32_t header_len, int32_t* status);
void lrpc2_msg_free(lrpc2_msg* msg);
uint8_t* lrpc2_msg_bytes(lrpc2_msg* msg, uint32_t* length, int32_t* status);
int32_t lrpc2_msg_id(const lrpc2_msg* msg, uint32_t* id);
int32_t lrpc2_msg_next_type(const lrpc2_msg* msg, uint32_t* tag);
int lrpc2_msg_validate(const uint8_t* body, uint32_t length);

int32_t lrpc2_put_bool(lrpc2_msg* msg, int32_t value);
int32_t lrpc2_put_int32(lrpc2_msg* msg, int32_t value);
int32_t lrpc2_put_uint32(lrpc2_msg* msg, uint32_t value);
int32_t lrpc2_put_string(lrpc2_msg* msg, const char* text);
int32_t lrpc2_put_string_alt(lrpc2_msg* msg, const char* text);
int32_t lrpc2_put_blob(lrpc2_msg* msg, const void* data, uint32_t length);
int32_t lrpc2_put_string_set(lrpc2_msg* msg, const char* const* texts);
int32_t lrpc2_begin_string_set(lrpc2_msg* msg);
int32_t lrpc2_add_string(lrpc2_msg* msg, const char* text);
int32_t lrpc2_put_kv_set(lrpc2_msg* msg, const lrpc2_kv_in* pairs);
int32_t lrpc2_begin_kv_set(lrpc2_msg* msg);
int32_t lrpc2_add_kv(lrpc2_msg* msg, const char* key, const char* value);

int32_t lrpc2_get_bool(lrpc2_msg* msg, int32_t* value);
int32_t lrpc2_get_int32(lrpc2_msg* msg, int32_t* value);
int32_t lrpc2_get_uint32(lrpc2_msg* msg, uint32_t* value);
int32_t lrpc2_get_string(lrpc2_msg* msg, char** text);
int32_t lrpc2_get_string_alt(lrpc2_msg* msg, char** text);
/* As lrpc2_get_string, and `length` gets the number of bytes the string was sent with: a
 * string with a NUL byte inside is handed out whole (terminated after `length` bytes), so a
 * caller can keep what follows the NUL instead of losing it unseen. A null string gives a
 * null text and length 0. */
int32_t lrpc2_get_string_len(lrpc2_msg* msg, char** text, uint32_t* length);
int32_t lrpc2_get_blob(lrpc2_msg* msg, uint8_t** data, uint32_t* length);
/* Received set members that would end the handed-out array early (a null text in a string set,
 * a pair of two nulls in a key-value set) are handed out as the empty text (the pair's key). */
int32_t lrpc2_get_string_set(lrpc2_msg* msg, char*** texts);
int32_t lrpc2_get_kv_set(lrpc2_msg* msg, lrpc2_kv** pairs);

void lrpc2_free_string(char* text, int wipe);
void lrpc2_free_string_set(char** texts, int wipe);
void lrpc2_free_kv_set(lrpc2_kv* pairs, int wipe);
void lrpc2_free_block(void* block, uint32_t length, int wipe);
void lrpc2_wipe_free(void* block, uint32_t length);

#ifdef __cplusplus
}
#endif

#endif
