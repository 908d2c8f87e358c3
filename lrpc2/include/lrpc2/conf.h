/* Simple configuration reader for files of key and value lines such as
 * "/etc/zantorkv/zantorkv.conf". The whole file is parsed once; values are expanded on
 * their first lookup ("$NAME" references, "file:/" list files) and cached.
 *
 * Every function but conf_free sets *status (the pointer may be null) to 0 first and to
 * one of the CONF_ERR_ codes on failure; nothing throws. A null conf_file is accepted
 * everywhere: its lookups return their defaults.
 *
 * Bounds that keep any file harmless:
 *   - a "$" reference resolved through another key nests at most CONF_MAX_NESTING deep;
 *     a deeper one stays literal text, as a reference back to a key being expanded does;
 *   - a file read by the reader (the configuration file or a list file) must be a regular
 *     file (anything else gives CONF_ERR_OPEN) of at most CONF_MAX_TEXT bytes, and no key
 *     or value, expanded or not, may grow past CONF_MAX_TEXT bytes (CONF_ERR_NOMEM);
 *   - a list file is read once per key and its items are never list files themselves. */
#ifndef LRPC2_CONF_H
#define LRPC2_CONF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CONF_ERR_NOMEM 300    /* memory exhausted; ENOMEM, ENFILE or EMFILE from the open */
#define CONF_ERR_RELATIVE 301 /* the path does not begin with "/" */
#define CONF_ERR_ACCESS 302   /* EACCES from the open */
#define CONF_ERR_NOFILE 303   /* null or empty path; ENOENT from the open */
#define CONF_ERR_OPEN 304     /* any other open failure */

#define CONF_MAX_NESTING 64
#define CONF_MAX_TEXT (16u * 1024u * 1024u)

typedef struct conf_file conf_file;

/* Reads the host setting `setting_key` (the file "/var/zantormx/kset." + key) into a new
 * text the caller frees; 0 or a status. */
typedef int32_t (*conf_param_resolver)(const char* setting_key, char** value);

/* A built-in variable: its name after "$", its host setting and its cache slot. */
typedef struct conf_join_param {
    const char* name;
    const char* setting_key;
    int32_t slot;
    conf_param_resolver resolve;
} conf_join_param;

#define CONF_JOIN_PARAM_COUNT 4

/* JOINNAME ("host"), SITE ("site"), DOMAIN ("domain"): the setting file's first line, its
 * line end included; ZONE ("zonename"): the text after the first "CN=" of that line up to
 * a "," or the line end, "<unknown>" without "CN=". An empty setting file gives "". */
extern const conf_join_param JoinParamResolveTable[CONF_JOIN_PARAM_COUNT];

/* Opens and parses `path`. `prefixes` is null (every line) or a null-terminated list of key
 * prefixes; prefixes sharing a beginning must be next to each other. Null on failure. */
conf_file* conf_open(const char* path, const char* const* prefixes, int32_t* status);

/* The value parsed with strtol base 0 (trailing text ignored); `def` when the key is absent,
 * being expanded, or has no leading number that fits 32 bits. 0 when expansion fails. */
int32_t conf_get_int(conf_file* file, const char* key, int32_t def, int32_t* status);

/* The expanded value, owned by `file` until conf_free; `def` when the key is absent or
 * being expanded; null when expansion fails. */
const char* conf_get_string(conf_file* file, const char* key, const char* def, int32_t* status);

void conf_free(conf_file* file);

#ifdef __cplusplus
}
#endif

#endif
