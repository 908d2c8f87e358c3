// The framework's text routines.
#include "zfw/strutil.h"

#include <strings.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zfw {

// Constructed ahead of the other static objects, which may already use it.
__attribute__((init_priority(101))) const std::string EMPTY_STRING;

namespace {

const char kWhitespace[] = " \t\n\r\v\f";

}  // namespace

std::string toUpper(const std::string& text) {
    std::string out(text);
    for (char& c : out) {
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    return out;
}

std::string toLower(const std::string& text) {
    std::string out(text);
    for (char& c : out) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return out;
}

std::string trim(const std::string& text) {
    const size_t first = text.find_first_not_of(kWhitespace);
    if (first == std::string::npos) {
        return std::string();
    }
    const size_t last = text.find_last_not_of(kWhitespace);
    return text.substr(first, last - first + 1);
}

std::string printableOrHex(const std::string& text) {
    bool printable = true;
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (!isprint(u) && !isspace(u)) {
            printable = false;
            break;
        }
    }
    if (printable) {
        return text;
    }
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size() * 2);
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        out += kHex[u >> 4];
        out += kHex[u & 0x0f];
    }
    return out;
}

void tokenize(const std::string& text, const std::string& delimiters, StringList& out) {
    size_t start = text.find_first_not_of(delimiters);
    while (start != std::string::npos) {
        const size_t end = text.find_first_of(delimiters, start);
        if (end == std::string::npos) {
            out.push_back(text.substr(start));
            return;
        }
        out.push_back(text.substr(start, end - start));
        start = text.find_first_not_of(delimiters, end);
    }
}

std::string join(const StringList& items, const std::string& separator) {
    std::string out;
    for (const std::string& item : items) {
        if (!out.empty()) {
            out += separator;
        }
        out += item;
    }
    return out;
}

void split(char delimiter, const std::string& text, std::vector<std::string>& out) {
    size_t start = 0;
    for (size_t pos = text.find(delimiter); pos != std::string::npos;
         pos = text.find(delimiter, start)) {
        out.push_back(text.substr(start, pos - start));
        start = pos + 1;
    }
    out.push_back(text.substr(start));
}

std::string format(const char* pattern, ...) {
    char buf[8192];
    va_list args;
    va_start(args, pattern);
    vsnprintf(buf, sizeof buf, pattern, args);
    va_end(args);
    return buf;
}

bool containsIgnoreCase(const std::string& text, const std::string& part) {
    return toUpper(text).find(toUpper(part)) != std::string::npos;
}

bool containsIgnoreCase(const std::string& text, const char* part) {
    return part != nullptr && containsIgnoreCase(text, std::string(part));
}

bool isOneOf(const char* const* list, const std::string& text) {
    if (list == nullptr) {
        return false;
    }
    for (; *list != nullptr; ++list) {
        if (strcasecmp(*list, text.c_str()) == 0) {
            return true;
        }
    }
    return false;
}

std::string toString(int32_t value, int base) {
    char buf[13];
    const char* pattern = base == 16 ? "%x" : base == 8 ? "%o" : "%d";
    snprintf(buf, sizeof buf, pattern, value);
    return buf;
}

std::string toString(uint32_t value, int base) {
    char buf[12];
    const char* pattern = base == 16 ? "%x" : base == 8 ? "%o" : "%u";
    snprintf(buf, sizeof buf, pattern, value);
    return buf;
}

uint32_t parseUnsigned(const char* text) {
    if (text == nullptr) {
        return 0;
    }
    return static_cast<uint32_t>(strtoul(text, nullptr, 0));
}

}  // namespace zfw
