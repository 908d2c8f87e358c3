// The configuration reader's texts, file reading and line syntax.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "conf_internal.h"
#include "kvsyntax/escape.h"

namespace conf {

namespace {

// The byte buffer grows by twice the request only, which makes texts built a character or
// a chunk at a time quadratic; asking for at least the current length doubles it instead.
// The caller has checked that length + n stays within CONF_MAX_TEXT.
bool appendGrowing(lrpc2_bytebuf* b, const void* data, uint32_t n) {
    const uint32_t length = bytebuf_length(b);
    if (b->start != nullptr && b->end - b->pos <= static_cast<ptrdiff_t>(n) &&
        !bytebuf_reserve(b, n > length ? n : length)) {
        return false;
    }
    return bytebuf_append(b, n, data) != nullptr;
}

}  // namespace

bool Text::add(char c) {
    return add(&c, 1);
}

bool Text::add(const char* text, size_t n) {
    if (m_failed || n > CONF_MAX_TEXT - length() ||
        !appendGrowing(&m_buf, text, static_cast<uint32_t>(n))) {
        m_failed = true;
    }
    return !m_failed;
}

bool Text::add(const char* text) {
    return add(text, strlen(text));
}

void Text::cut(uint32_t n) {
    while (length() > n) {
        bytebuf_unappend(&m_buf);
    }
}

char* Text::take() {
    if (!add('\0')) {
        return nullptr;
    }
    return reinterpret_cast<char*>(bytebuf_detach(&m_buf));
}

int32_t openStatus(int err) {
    switch (err) {
        case ENOMEM:
        case ENFILE:
        case EMFILE:
            return CONF_ERR_NOMEM;
        case EACCES:
            return CONF_ERR_ACCESS;
        case ENOENT:
            return CONF_ERR_NOFILE;
        default:
            return CONF_ERR_OPEN;
    }
}

int openRegular(const char* path, int32_t* rc) {
    // Non-blocking, so that a FIFO cannot stall the open; only regular files are read.
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        *rc = openStatus(errno);
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        *rc = CONF_ERR_OPEN;
        return -1;
    }
    *rc = 0;
    return fd;
}

long readSome(int fd, void* buf, size_t n) {
    ssize_t got;
    do {
        got = read(fd, buf, n);
    } while (got < 0 && errno == EINTR);
    return got;
}

int32_t readFile(const char* path, lrpc2_bytebuf* out) {
    int32_t rc = 0;
    const int fd = openRegular(path, &rc);
    if (fd < 0) {
        return rc;
    }
    char chunk[4096];
    while (rc == 0) {
        const long n = readSome(fd, chunk, sizeof chunk);
        if (n < 0) {
            rc = CONF_ERR_OPEN;
        } else if (n == 0) {
            break;
        } else if (static_cast<size_t>(n) > CONF_MAX_TEXT - bytebuf_length(out) ||
                   !appendGrowing(out, chunk, static_cast<uint32_t>(n))) {
            rc = CONF_ERR_NOMEM;
        }
    }
    close(fd);
    if (rc != 0) {
        bytebuf_release(out, 0);
    }
    return rc;
}

char mapEscape(char c) {
    const char control = kvsyntax::controlFor(c);
    return control != '\0' ? control : c;
}

bool skipToItem(Cursor& in) {
    bool lineStart = true;
    for (;;) {
        const int c = in.peek();
        if (c == kEnd) {
            return false;
        }
        if (isLineEnd(c)) {
            lineStart = true;
            in.advance();
        } else if (lineStart && (c == '#' || c == '!')) {
            skipRestOfLine(in);
        } else if (isSpace(c)) {
            lineStart = false;
            in.advance();
        } else {
            return true;
        }
    }
}

void skipRestOfLine(Cursor& in) {
    for (int c = in.peek(); c != kEnd && !isLineEnd(c); c = in.peek()) {
        in.advance();
    }
}

const char* matchPrefix(Cursor& in, const char* const* prefixes) {
    size_t matched = 0;
    for (const char* const* p = prefixes; *p != nullptr;) {
        const char* prefix = *p;
        if (prefix[matched] == '\0') {
            return prefix;
        }
        const int c = in.peek();
        if (c != kEnd && c == static_cast<unsigned char>(prefix[matched])) {
            in.advance();
            ++matched;
            continue;
        }
        // The next prefix must share what was consumed already.
        ++p;
        if (*p != nullptr && matched > 0 && strncmp(*p, prefix, matched) != 0) {
            return nullptr;
        }
    }
    return nullptr;
}

KeyResult readKey(Cursor& in, Text& key) {
    for (;;) {
        int c = in.peek();
        if (c == kEnd) {
            return KeyResult::END;
        }
        if (c == ':' || c == '=' || c == ' ' || c == '\t') {
            break;
        }
        in.advance();
        if (c == '\\') {
            c = in.peek();
            if (c == kEnd) {
                continue;
            }
            in.advance();
            c = static_cast<unsigned char>(mapEscape(static_cast<char>(c)));
        }
        if (!key.add(static_cast<char>(c))) {
            return KeyResult::FAILED;
        }
    }
    // One separator character; an "=" right after ":", a space or a tab belongs to it.
    const int separator = in.peek();
    in.advance();
    if (separator != '=' && in.peek() == '=') {
        in.advance();
    }
    return KeyResult::FOUND;
}

void readRawValue(Cursor& in, Text& value) {
    for (int c = in.peek(); c != kEnd && !isLineEnd(c); c = in.peek()) {
        if (c != '\\') {
            // The run of plain characters up to the next backslash or line end at once.
            const uint8_t* run = in.position();
            for (int r = c; r != kEnd && r != '\\' && !isLineEnd(r); r = in.peek()) {
                in.advance();
            }
            value.add(reinterpret_cast<const char*>(run), static_cast<size_t>(in.position() - run));
            continue;
        }
        in.advance();
        const int next = in.peek();
        if (next == kEnd) {
            break;
        }
        if (isLineEnd(next)) {
            // A continuation: the line end and the blanks and line ends after it become one space.
            for (int s = in.peek(); s == ' ' || s == '\t' || isLineEnd(s); s = in.peek()) {
                in.advance();
            }
            value.add(' ');
            continue;
        }
        in.advance();
        value.add('\\');
        value.add(static_cast<char>(next));
    }
}

}  // namespace conf
