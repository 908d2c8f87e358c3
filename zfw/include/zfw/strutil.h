// The framework's text routines on std::string. Whitespace is " \t\n\r\v\f"; case rules
// are the C library's (toupper, tolower, strcasecmp, isprint, isspace).
#ifndef ZFW_STRUTIL_H
#define ZFW_STRUTIL_H

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace zfw {

// Strings in order; handed out through boost::shared_ptr<StringList>.
typedef std::list<std::string> StringList;

// An empty string for functions that return a reference when there is no value.
extern const std::string EMPTY_STRING;

std::string toUpper(const std::string& text);
std::string toLower(const std::string& text);

// Whitespace removed from both ends.
std::string trim(const std::string& text);

// The text itself when every byte is printable or whitespace, else every byte as two
// lower-case hexadecimal digits.
std::string printableOrHex(const std::string& text);

// Appends every maximal run of bytes not in `delimiters`; never an empty token.
void tokenize(const std::string& text, const std::string& delimiters, StringList& out);

// The items in order; the separator goes before an item only when the result so far is
// not empty.
std::string join(const StringList& items, const std::string& separator);

// Appends the pieces between delimiters, empty pieces included: "a," gives "a" and "".
void split(char delimiter, const std::string& text, std::vector<std::string>& out);

// printf-style formatting with the framework's formatter; the result is cut at 8191 bytes.
std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

// Plain substring search after upper-casing both sides.
bool containsIgnoreCase(const std::string& text, const std::string& part);
bool containsIgnoreCase(const std::string& text, const char* part);

// True when an entry of the null-terminated array equals `text` ignoring case.
bool isOneOf(const char* const* list, const std::string& text);

// Base 16 and 8 print the value's bits ("%x", "%o"); any other base prints decimal.
std::string toString(int32_t value, int base);
std::string toString(uint32_t value, int base);

// strtoul with base 0 ("0x" hexadecimal, leading "0" octal), no error check; keeps the low
// 32 bits of the result.
uint32_t parseUnsigned(const char* text);

}  // namespace zfw

#endif
