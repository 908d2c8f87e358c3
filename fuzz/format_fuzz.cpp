// Fuzzes the framework's formatter with formats taken from the input and arguments that are
// safe for every conversion it can reach: no "%n" (every "n" is removed), no long double
// (every "L" is removed), and each argument slot a pointer to a fixed text or a double.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zfw/format.h"

namespace {

// At most this many "%" and "*" in a format, so it never fetches more arguments than given.
constexpr int kMaxFetches = 24;
constexpr int64_t kMaxCompared = 1 << 20;

int64_t formatWithSafeArguments(char* buf, size_t size, const char* format) {
    const char* t = "fuzz text";
    const double d = 1234.5678;
    return zfw::snprintf64(buf, size, format, d, -d, d * 1e200, d / 1e7, -0.5, 2.5, 1e19, 0.125, t,
                           t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    // The first byte chooses the buffer size for the truncated run.
    const size_t cutSize = data[0];
    std::string format;
    int fetches = 0;
    for (size_t i = 1; i < size && data[i] != '\0'; ++i) {
        const char c = static_cast<char>(data[i]);
        if (c == 'n' || c == 'L') {
            continue;
        }
        if ((c == '%' || c == '*') && ++fetches > kMaxFetches) {
            break;
        }
        format += c;
    }

    const int64_t full = formatWithSafeArguments(nullptr, 0, format.c_str());
    // Huge widths are only counted: comparing their text would cost too much memory.
    if (full < 0 || full > kMaxCompared) {
        return 0;
    }
    std::string whole(static_cast<size_t>(full) + 1, '\0');
    if (formatWithSafeArguments(&whole[0], whole.size(), format.c_str()) != full ||
        whole[static_cast<size_t>(full)] != '\0') {
        abort();
    }
    // A cut run returns the same length and keeps a terminated prefix of the whole text.
    char cut[256];
    memset(cut, 'X', sizeof cut);
    if (formatWithSafeArguments(cut, cutSize, format.c_str()) != full) {
        abort();
    }
    if (cutSize > 0) {
        const size_t kept =
            cutSize - 1 < static_cast<size_t>(full) ? cutSize - 1 : static_cast<size_t>(full);
        if (memcmp(cut, whole.data(), kept) != 0 || cut[kept] != '\0') {
            abort();
        }
    }
    for (size_t i = cutSize; i < sizeof cut; ++i) {
        if (cut[i] != 'X') {
            abort();
        }
    }
    return 0;
}
