// The simple configuration reader: parsing, lazy expansion and lookups.
#include "lrpc2/conf.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "conf_internal.h"

namespace {

enum EntryFlag : uint8_t {
    IN_PROGRESS = 1,
    INT_PARSED = 2,
    INT_VALID = 4,
    FILE_CHECKED = 32,
};

// Longest "$" name; further name characters stay ordinary text.
constexpr size_t kMaxName = 1024;

}  // namespace

// What a lookup learns about an entry, made on its first lookup: most entries of a file
// are never looked up.
struct conf_lookup {
    char* list;      // the list file's text once a file reference was read
    char* expanded;  // cached expansion
    char* fileRef;   // expanded "file:/" reference
    int32_t fileStatus;
    uint8_t flags;
    int32_t integer;
};

// One block per key: this header, then the key and the raw value as read, each with its
// terminator; a later line of the same key replaces it. An index of the keys finds it in
// constant time. So the parsed file takes at most 64 bytes per distinct key besides the
// bytes of its last line (the header, the terminators, the C library's rounding and up to
// four index slots): a file of "k1234=v" lines at most 8 times its size, one of lines of 60
// bytes about twice, one of repeated "a=b" lines nothing at all. Reading holds the file's
// bytes once more, at most twice over while it grows.
struct conf_entry {
    conf_lookup* lookup;
};

struct conf_slot {
    conf_entry* entry;  // null: free
};

struct conf_file {
    conf_slot* index;    // open addressing, linear probing; at most half full
    uint32_t indexSize;  // a power of two, or 0
    uint32_t keys;
    char* slots[CONF_JOIN_PARAM_COUNT];
    int32_t nesting;  // expansions in progress
};

namespace {

void setStatus(int32_t* status, int32_t value) {
    if (status != nullptr) {
        *status = value;
    }
}

const char* keyOf(const conf_entry* e) {
    return reinterpret_cast<const char*>(e + 1);
}

// The list file's text once its reference was read, else the value as read.
const char* rawOf(const conf_entry* e) {
    if (e->lookup != nullptr && e->lookup->list != nullptr) {
        return e->lookup->list;
    }
    const char* key = keyOf(e);
    return key + strlen(key) + 1;
}

// FNV-1a: the index is only as good as its spread of similar keys.
uint32_t hashOf(const char* key) {
    uint32_t h = 2166136261u;
    for (const char* p = key; *p != '\0'; ++p) {
        h = (h ^ static_cast<unsigned char>(*p)) * 16777619u;
    }
    return h;
}

// The slot of `key` in an index of `size` slots: its entry's, or the empty one it would take.
conf_slot* slotOf(conf_slot* index, uint32_t size, const char* key) {
    uint32_t i = hashOf(key) & (size - 1);
    while (index[i].entry != nullptr && strcmp(keyOf(index[i].entry), key) != 0) {
        i = (i + 1) & (size - 1);
    }
    return &index[i];
}

conf_entry* findEntry(const conf_file* file, const char* key) {
    return file->indexSize != 0 ? slotOf(file->index, file->indexSize, key)->entry : nullptr;
}

void freeEntry(conf_entry* e) {
    if (e->lookup != nullptr) {
        free(e->lookup->list);
        free(e->lookup->expanded);
        free(e->lookup->fileRef);
        free(e->lookup);
    }
    free(e);
}

// Indexes `entry` in place of the older entry of its key, which is freed; false (and
// `entry` freed) when the index cannot grow.
bool addEntry(conf_file* file, conf_entry* entry) {
    if (2 * (file->keys + 1) > file->indexSize) {
        const uint32_t size = file->indexSize != 0 ? 2 * file->indexSize : 16;
        auto* index = static_cast<conf_slot*>(calloc(size, sizeof(conf_slot)));
        if (index == nullptr) {
            freeEntry(entry);
            return false;
        }
        for (uint32_t i = 0; i < file->indexSize; ++i) {
            if (file->index[i].entry != nullptr) {
                slotOf(index, size, keyOf(file->index[i].entry))->entry = file->index[i].entry;
            }
        }
        free(file->index);
        file->index = index;
        file->indexSize = size;
    }
    conf_slot* slot = slotOf(file->index, file->indexSize, keyOf(entry));
    if (slot->entry != nullptr) {
        freeEntry(slot->entry);
    } else {
        ++file->keys;
    }
    slot->entry = entry;
    return true;
}

// Copies the text with its terminator to `to`; the position after it.
char* copyOut(char* to, const conf::Text& text) {
    const uint32_t n = text.length();
    if (n != 0) {
        memcpy(to, text.data(), n);
    }
    to[n] = '\0';
    return to + n + 1;
}

int32_t parse(conf::Cursor in, const char* const* prefixes, conf_file* file) {
    // One key and one value buffer for the whole file: each entry is copied out at its size.
    conf::Text key;
    conf::Text raw;
    for (;;) {
        if (!conf::skipToItem(in)) {
            return 0;
        }
        key.cut(0);
        raw.cut(0);
        if (prefixes != nullptr) {
            const char* prefix = conf::matchPrefix(in, prefixes);
            if (prefix == nullptr) {
                conf::skipRestOfLine(in);
                continue;
            }
            key.add(prefix);
        }
        const conf::KeyResult found = conf::readKey(in, key);
        if (found == conf::KeyResult::END) {
            return 0;
        }
        conf::readRawValue(in, raw);
        if (found == conf::KeyResult::FAILED || key.failed() || raw.failed()) {
            return CONF_ERR_NOMEM;
        }
        const size_t keyLength = key.length();
        const size_t rawLength = raw.length();
        auto* entry =
            static_cast<conf_entry*>(malloc(sizeof(conf_entry) + keyLength + rawLength + 2));
        if (entry == nullptr) {
            return CONF_ERR_NOMEM;
        }
        copyOut(copyOut(reinterpret_cast<char*>(entry + 1), key), raw);
        entry->lookup = nullptr;
        if (!addEntry(file, entry)) {
            return CONF_ERR_NOMEM;
        }
    }
}

// A letter, a digit, '_' or '.': what a "$" name is made of here (a key such as
// kvd.data.dir can be named).
bool isDottedNameChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '.';
}

// The text of a "$" name, or null when it does not resolve; 0 or the status of a failed
// resolution.
int32_t lookupName(conf_file* file, const char* name, const char** value) {
    *value = nullptr;
    for (const conf_join_param& param : JoinParamResolveTable) {
        if (strcmp(name, param.name) != 0) {
            continue;
        }
        char*& slot = file->slots[param.slot];
        if (slot == nullptr) {
            const int32_t rc = param.resolve(param.setting_key, &slot);
            if (rc != 0) {
                return rc;
            }
        }
        *value = slot;
        return 0;
    }
    *value = getenv(name);
    if (*value != nullptr || file->nesting >= CONF_MAX_NESTING) {
        return 0;
    }
    int32_t rc = 0;
    *value = conf_get_string(file, name, nullptr, &rc);
    return rc;
}

// Skips leading blanks, replaces "$" names and backslash escapes, and cuts the blanks that
// end the value (an escaped character or an expanded name ends a run of blanks).
int32_t expandText(conf_file* file, const char* raw, char** out) {
    const char* p = raw;
    while (conf::isSpace(static_cast<unsigned char>(*p))) {
        ++p;
    }
    conf::Text text;
    uint32_t keep = 0;
    while (*p != '\0') {
        const char c = *p++;
        if (c == '$') {
            size_t n = 0;
            while (n < kMaxName && isDottedNameChar(p[n])) {
                ++n;
            }
            if (n > 0) {
                char name[kMaxName + 1];
                memcpy(name, p, n);
                name[n] = '\0';
                const char* value = nullptr;
                const int32_t rc = lookupName(file, name, &value);
                if (rc != 0) {
                    return rc;
                }
                if (value != nullptr) {
                    text.add(value);
                    keep = text.length();
                    p += n;
                    continue;
                }
            }
            // Unresolved: the "$" stays and the name follows as ordinary text.
            text.add('$');
            keep = text.length();
        } else if (c == '\\') {
            if (*p != '\0') {
                text.add(conf::mapEscape(*p++));
                keep = text.length();
            }
        } else {
            text.add(c);
            if (!conf::isSpace(static_cast<unsigned char>(c))) {
                keep = text.length();
            }
        }
        if (text.failed()) {
            return CONF_ERR_NOMEM;
        }
    }
    text.cut(keep);
    *out = text.take();
    return *out != nullptr ? 0 : CONF_ERR_NOMEM;
}

// Reads a list file: every item expanded, with "," blanks and line ends escaped, joined
// with ",".
int32_t readListFile(conf_file* file, const char* path, char** out) {
    lrpc2_bytebuf content;
    bytebuf_init(&content, 0);
    int32_t rc = conf::readFile(path, &content);
    if (rc != 0) {
        return rc;
    }
    conf::Cursor in(bytebuf_data(&content), bytebuf_data(&content) + bytebuf_length(&content));
    conf::Text joined;
    bool first = true;
    while (rc == 0 && conf::skipToItem(in)) {
        conf::Text item;
        conf::readRawValue(in, item);
        char* raw = item.take();
        char* expanded = nullptr;
        rc = raw != nullptr ? expandText(file, raw, &expanded) : CONF_ERR_NOMEM;
        free(raw);
        if (rc != 0) {
            break;
        }
        if (!first) {
            joined.add(',');
        }
        first = false;
        for (const char* p = expanded; *p != '\0'; ++p) {
            if (*p == ',' || *p == ' ' || *p == '\t' || conf::isLineEnd(*p)) {
                joined.add('\\');
            }
            joined.add(*p);
        }
        free(expanded);
        if (joined.failed()) {
            rc = CONF_ERR_NOMEM;
        }
    }
    bytebuf_release(&content, 0);
    if (rc == 0) {
        *out = joined.take();
        rc = *out != nullptr ? 0 : CONF_ERR_NOMEM;
    }
    return rc;
}

// Once per entry: a value beginning with "file:/" is replaced by its list file's text. A
// failure is kept in the entry.
void resolveFileReference(conf_file* file, conf_lookup* l, const char* raw) {
    if (l->flags & FILE_CHECKED) {
        return;
    }
    l->flags |= FILE_CHECKED;
    const char* p = raw;
    while (*p == ' ' || *p == '\t' || conf::isLineEnd(*p)) {
        ++p;
    }
    if (strncmp(p, "file:/", 6) != 0) {
        return;
    }
    l->fileStatus = expandText(file, raw, &l->fileRef);
    if (l->fileStatus != 0) {
        return;
    }
    l->fileStatus = readListFile(file, strchr(l->fileRef, '/'), &l->list);
}

int32_t expandEntry(conf_file* file, conf_entry* e) {
    if (e->lookup == nullptr) {
        e->lookup = static_cast<conf_lookup*>(calloc(1, sizeof(conf_lookup)));
        if (e->lookup == nullptr) {
            return CONF_ERR_NOMEM;
        }
    }
    conf_lookup* l = e->lookup;
    l->flags |= IN_PROGRESS;
    ++file->nesting;
    resolveFileReference(file, l, rawOf(e));
    int32_t rc = l->fileStatus;
    if (rc == 0) {
        rc = expandText(file, rawOf(e), &l->expanded);
    }
    --file->nesting;
    l->flags &= static_cast<uint8_t>(~IN_PROGRESS);
    return rc;
}

// The entry of `key` with its value expanded. Null for a key that is missing or being
// expanded (*rc 0), and for one whose expansion fails (*rc the status).
conf_entry* expandedEntry(conf_file* file, const char* key, int32_t* rc) {
    *rc = 0;
    conf_entry* e = file != nullptr && key != nullptr ? findEntry(file, key) : nullptr;
    if (e == nullptr || (e->lookup != nullptr && (e->lookup->flags & IN_PROGRESS))) {
        return nullptr;
    }
    if (e->lookup == nullptr || e->lookup->expanded == nullptr) {
        *rc = expandEntry(file, e);
    }
    return *rc == 0 ? e : nullptr;
}

}  // namespace

extern "C" {

conf_file* conf_open(const char* path, const char* const* prefixes, int32_t* status) {
    setStatus(status, 0);
    if (path == nullptr || path[0] == '\0') {
        setStatus(status, CONF_ERR_NOFILE);
        return nullptr;
    }
    if (path[0] != '/') {
        setStatus(status, CONF_ERR_RELATIVE);
        return nullptr;
    }
    lrpc2_bytebuf content;
    bytebuf_init(&content, 0);
    int32_t rc = conf::readFile(path, &content);
    conf_file* file = nullptr;
    if (rc == 0) {
        file = static_cast<conf_file*>(calloc(1, sizeof(conf_file)));
        rc = file != nullptr ? 0 : CONF_ERR_NOMEM;
    }
    if (rc == 0) {
        rc = parse(
            conf::Cursor(bytebuf_data(&content), bytebuf_data(&content) + bytebuf_length(&content)),
            prefixes, file);
    }
    bytebuf_release(&content, 0);
    if (rc != 0) {
        conf_free(file);
        setStatus(status, rc);
        return nullptr;
    }
    return file;
}

const char* conf_get_string(conf_file* file, const char* key, const char* def, int32_t* status) {
    int32_t rc = 0;
    const conf_entry* e = expandedEntry(file, key, &rc);
    setStatus(status, rc);
    if (rc != 0) {
        return nullptr;
    }
    return e != nullptr ? e->lookup->expanded : def;
}

int32_t conf_get_int(conf_file* file, const char* key, int32_t def, int32_t* status) {
    int32_t rc = 0;
    conf_entry* e = expandedEntry(file, key, &rc);
    setStatus(status, rc);
    if (rc != 0) {
        return 0;
    }
    if (e == nullptr) {
        return def;
    }
    conf_lookup* l = e->lookup;
    if (!(l->flags & INT_PARSED)) {
        char* end = nullptr;
        errno = 0;
        const long value = strtol(l->expanded, &end, 0);
        l->flags |= INT_PARSED;
        if (end != l->expanded && errno != ERANGE && value >= INT32_MIN && value <= INT32_MAX) {
            l->flags |= INT_VALID;
            l->integer = static_cast<int32_t>(value);
        }
    }
    return (l->flags & INT_VALID) ? l->integer : def;
}

void conf_free(conf_file* file) {
    if (file == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < file->indexSize; ++i) {
        if (file->index[i].entry != nullptr) {
            freeEntry(file->index[i].entry);
        }
    }
    free(file->index);
    for (char* slot : file->slots) {
        free(slot);
    }
    free(file);
}

}  // extern "C"
