// The framework's exceptions.
//
// Everything the framework and the layers above it throw derives from ZFWException and,
// below it, from zfw::Base_Exception, which carries a result code and a message of at most
// 511 bytes. Throw through ZFW_THROW or ZFW_THROW_ERRNO: they format the message with the
// framework's snprintf into 512 bytes, record the throw site, and (when the report flag
// is set) write one error report at DEBUG on the logger "util.except".
#ifndef ZFW_EXCEPTION_H
#define ZFW_EXCEPTION_H

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

class ZFWException : public std::exception {};

namespace zfw {

class Base_Exception : public ZFWException {
  public:
    // Stores message and rc; with report set writes
    // "<className> <message> (reference <file>:<line> rc: <rc>)" at DEBUG on "util.except",
    // except for the class name "EndOfFileException". Copies write no report.
    Base_Exception(const char* file, int32_t line, const char* message, const char* className,
                   int32_t rc, bool report);

    const char* what() const noexcept override;
    int32_t rc() const noexcept { return m_rc; }
    const std::string& message() const noexcept { return m_message; }

  protected:
    int32_t m_rc;
    std::string m_message;
};

// A class name cannot be parenthesised.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define ZFW_DECLARE_EXCEPTION(Name)           \
    class Name : public Base_Exception {      \
      public:                                 \
        using Base_Exception::Base_Exception; \
    }
// NOLINTEND(bugprone-macro-parentheses)

ZFW_DECLARE_EXCEPTION(SystemException);
ZFW_DECLARE_EXCEPTION(IOException);
ZFW_DECLARE_EXCEPTION(EndOfFileException);
ZFW_DECLARE_EXCEPTION(TryAgainException);
ZFW_DECLARE_EXCEPTION(QueueInterrupted);
ZFW_DECLARE_EXCEPTION(NotFoundException);
ZFW_DECLARE_EXCEPTION(AlreadyException);
ZFW_DECLARE_EXCEPTION(BadDataException);

#undef ZFW_DECLARE_EXCEPTION

// Also an std::out_of_range (whose own text stays empty), so that handlers of either base
// see the same message.
class BufferFullException : public Base_Exception, public std::out_of_range {
  public:
    BufferFullException(const char* file, int32_t line, const char* message, const char* className,
                        int32_t rc, bool report);
    const char* what() const noexcept override;
};

namespace detail {

// Size of every exception message buffer (the message keeps at most 511 bytes).
constexpr size_t kMessageSize = 512;

// The throw site's file as reported: the base name for sources, the path relative to the
// source tree for headers (the build maps the tree's prefix away).
constexpr const char* sourceName(const char* path) {
    const char* base = path;
    const char* end = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') {
            base = p + 1;
        }
        end = p + 1;
    }
    const bool header = end - path >= 2 && end[-2] == '.' && end[-1] == 'h';
    return header ? path : base;
}

// Never called: lets the compiler check a throw site's format against its arguments.
[[gnu::format(printf, 1, 2)]] inline void checkFormat(const char*, ...) {}

template <typename... Args>
void formatErrno(char* out, int errnum, const char* format, Args... args) {
    // First "<format>: %s", then that pattern with the caller's arguments and the error text.
    char pattern[kMessageSize];
    snprintf(pattern, sizeof pattern, "%s: %%s", format);
    snprintf(out, kMessageSize, pattern, args..., strerror(errnum));
}

}  // namespace detail
}  // namespace zfw

#define ZFW_SOURCE_FILE (::zfw::detail::sourceName(__FILE__))

// ZFW_THROW(Class, rc, report, format, args...): throws Class with the formatted message.
#define ZFW_THROW(cls, rc, report, ...)                                               \
    do {                                                                              \
        if (false) {                                                                  \
            ::zfw::detail::checkFormat(__VA_ARGS__);                                  \
        }                                                                             \
        char zfwThrowMessage_[::zfw::detail::kMessageSize];                           \
        snprintf(zfwThrowMessage_, sizeof zfwThrowMessage_, __VA_ARGS__);             \
        throw cls(ZFW_SOURCE_FILE, __LINE__, zfwThrowMessage_, #cls, (rc), (report)); \
    } while (0)

// ZFW_THROW_ERRNO(Class, rc, report, errnum, format, args...): as ZFW_THROW, the message
// followed by ": " and the system's text for errnum.
#define ZFW_THROW_ERRNO(cls, rc, report, errnum, ...)                                 \
    do {                                                                              \
        if (false) {                                                                  \
            ::zfw::detail::checkFormat(__VA_ARGS__);                                  \
        }                                                                             \
        char zfwThrowMessage_[::zfw::detail::kMessageSize];                           \
        ::zfw::detail::formatErrno(zfwThrowMessage_, (errnum), __VA_ARGS__);          \
        throw cls(ZFW_SOURCE_FILE, __LINE__, zfwThrowMessage_, #cls, (rc), (report)); \
    } while (0)

#endif
