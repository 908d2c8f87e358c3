/* The constant table of lrpc2 message ids, names and flags. */
#ifndef LRPC2_TABLE_H
#define LRPC2_TABLE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LRPC2_MF_SECURE 0x1u

typedef struct lrpc2_msg_entry {
    uint32_t id;
    const char* name;
    uint32_t flags;
} lrpc2_msg_entry;

/* Entries sorted by ascending id (lookups are a binary search). */
typedef struct lrpc2_msg_table {
    uint32_t count;
    const lrpc2_msg_entry* entries;
} lrpc2_msg_table;

/* Ids of the system's messages. */
enum {
    LRPC2_ID_DISCONNECT = 0,
    LRPC2_ID_AUTH_CHALLENGE = 1,
    LRPC2_ID_AUTH_RESPONSE = 2,
    LRPC2_ID_KV_PING = 10,
    LRPC2_ID_KV_STOP = 20,
    LRPC2_ID_KV_QUERY_IS_DAEMON_ONLINE = 80,
    LRPC2_ID_KV_QUERY_COLLECTOR_STATUS = 90,
    LRPC2_ID_KV_QUERY_COLLECTOR_STATUS2 = 91,
    LRPC2_ID_KV_QUERY_DB_SIZE = 100,
    LRPC2_ID_KV_QUERY_DESPOOL_RATE = 110,
    LRPC2_ID_KV_RELOAD_PROPS = 120
};

const lrpc2_msg_table* lrpc2_default_table(void);
const lrpc2_msg_entry* lrpc2_table_find(const lrpc2_msg_table* table, uint32_t id);
const char* lrpc2_table_name(const lrpc2_msg_table* table, uint32_t id);
int lrpc2_table_secure(const lrpc2_msg_table* table, uint32_t id);
int lrpc2_table_flags_both(const lrpc2_msg_table* table, uint32_t id);

#ifdef __cplusplus
}
#endif

#endif
