// Pieces shared by the configuration reader's sources: bounded texts on the library's byte
// buffer, reading whole files, and the line syntax used by configuration and list files.
#ifndef LRPC2_CONF_INTERNAL_H
#define LRPC2_CONF_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "lrpc2/bytebuf.h"
#include "lrpc2/conf.h"

namespace conf {

// A growing text of at most CONF_MAX_TEXT bytes. After a failed append (memory or size)
// every later append is refused too and take() gives null.
class Text {
  public:
    Text() { bytebuf_init(&m_buf, 0); }
    ~Text() { bytebuf_release(&m_buf, 0); }
    Text(const Text&) = delete;
    Text& operator=(const Text&) = delete;

    bool add(char c);
    bool add(const char* text, size_t n);
    bool add(const char* text);
    uint32_t length() const { return bytebuf_length(&m_buf); }
    // The bytes so far (not terminated); null while empty.
    const char* data() const { return reinterpret_cast<const char*>(bytebuf_data(&m_buf)); }
    // Drops everything after the first n bytes.
    void cut(uint32_t n);
    bool failed() const { return m_failed; }
    // The text as a new zero-terminated string the caller frees; null after a failure.
    char* take();

  private:
    lrpc2_bytebuf m_buf;
    bool m_failed = false;
};

// The status of a failed open(2).
int32_t openStatus(int err);

// Opens a regular file for reading: the descriptor, or -1 with *rc set to the status.
int openRegular(const char* path, int32_t* rc);

// One read(2), retried after interruptions: the bytes read, 0 at the end, -1 on an error.
long readSome(int fd, void* buf, size_t n);

// Reads a whole regular file into `out` (initialised by the caller); 0 or a status.
int32_t readFile(const char* path, lrpc2_bytebuf* out);

constexpr int kEnd = -1;

inline bool isLineEnd(int c) {
    return c == '\n' || c == '\r' || c == '\f';
}

inline bool isSpace(int c) {
    return c == ' ' || c == '\t' || c == '\v' || isLineEnd(c);
}

// "\f", "\n", "\r", "\t", "\v" as control characters; any other character stands for itself.
char mapEscape(char c);

// Reads bytes of a file held in memory.
class Cursor {
  public:
    Cursor(const uint8_t* begin, const uint8_t* end) : m_pos(begin), m_end(end) {}
    int peek() const { return m_pos < m_end ? *m_pos : kEnd; }
    void advance() { ++m_pos; }
    const uint8_t* position() const { return m_pos; }

  private:
    const uint8_t* m_pos;
    const uint8_t* m_end;
};

// Skips blanks, empty lines and comment lines ("#" or "!" as a line's first character);
// false at end of file. Starts at the beginning of a line.
bool skipToItem(Cursor& in);

// Skips to the next line end (not consumed).
void skipRestOfLine(Cursor& in);

// Matches the line against the prefix list, consuming the matched characters; the matched
// prefix, or null when the line matches none.
const char* matchPrefix(Cursor& in, const char* const* prefixes);

enum class KeyResult { FOUND, END, FAILED };

// Appends the key to `key` and consumes its separator. END: end of file before a separator
// (the key is dropped); FAILED: `key` refused the text.
KeyResult readKey(Cursor& in, Text& key);

// Appends the raw value up to the line end, joining continuation lines with one space.
void readRawValue(Cursor& in, Text& value);

}  // namespace conf

#endif
