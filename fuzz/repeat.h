// Inputs that stand for large files: an input whose first line is "#repeat N" stands for the
// rest of it repeated N times, cut at `limit` bytes. So a fuzzer reaches the sizes at which a
// cost above linear shows (a file of a million continuation lines) without mutating megabytes
// of bytes; to the readers the line is a comment, and any other input stands for itself.
#ifndef KV_FUZZ_REPEAT_H
#define KV_FUZZ_REPEAT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

// A large configuration or properties file.
constexpr size_t kMaxFileInput = 1u << 20;

inline std::string repeatedInput(const uint8_t* data, size_t size, size_t limit) {
    const char* text = reinterpret_cast<const char*>(data);
    const char kTag[] = "#repeat ";
    const size_t tag = sizeof kTag - 1;
    size_t count = 0;
    size_t at = tag;
    if (size > tag && memcmp(text, kTag, tag) == 0) {
        for (; at < size && text[at] >= '0' && text[at] <= '9' && count <= limit; ++at) {
            count = count * 10 + static_cast<size_t>(text[at] - '0');
        }
    }
    if (count == 0 || at >= size || text[at] != '\n' || at + 1 == size) {
        return std::string(text, size);
    }
    const std::string unit(text + at + 1, size - at - 1);
    std::string out;
    out.reserve(std::min(limit, unit.size() * count));
    for (; count > 0 && out.size() + unit.size() <= limit; --count) {
        out += unit;
    }
    return out;
}

#endif
