// The framework's bounded formatter.
//
// Every executable of the project carries it under the C library's names snprintf and
// vsnprintf, so the whole process (libstdc++, shared libraries, dlsym lookups) formats
// through it. Where it differs from the C library:
//   - a null "%s" prints "(NULL)";
//   - "%f", "%e", "%E", "%g" and "%G" all print fixed-point digits (precision at most 16,
//     rounded half up), never an exponent; every finite magnitude prints all its integer
//     digits, infinity and not-a-number print "inf" and "nan" ("INF", "NAN" for "%E", "%G");
//   - "%w" prints nothing and swallows the next character; any unknown conversion prints
//     nothing and is dropped;
//   - integers are fetched as 32-bit unless "l" or "ll" is given ("h" only affects "%n").
// The result is always the full length of the output; the text stored is cut at size - 1
// characters and terminated whenever size is not 0. A null buffer is never written, whatever
// the size; a null format prints nothing; a "%n" with a null pointer stores nothing.
#ifndef ZFW_FORMAT_H
#define ZFW_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace zfw {

// snprintf with the full length as a signed 64-bit count.
int64_t snprintf64(char* buf, size_t size, const char* format, ...) noexcept;

}  // namespace zfw

#endif
