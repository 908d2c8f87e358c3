#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "zfw/format.h"

namespace {

// Formats through the process's vsnprintf into a buffer that is large enough.
std::string F(const char* format, ...) {
    char buf[4096];
    va_list args;
    va_start(args, format);
    const int n = vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    EXPECT_LT(n, static_cast<int>(sizeof buf)) << format;
    return buf;
}

struct Row {
    const char* call;
    std::string got;
    const char* want;
};
#define ROW(want, ...)                     \
    Row {                                  \
#__VA_ARGS__, F(__VA_ARGS__), want \
    }

void expectRows(const std::vector<Row>& rows) {
    for (const Row& r : rows) {
        EXPECT_EQ(r.got, r.want) << "F(" << r.call << ")";
    }
}

TEST(Format, Integers) {
    expectRows({ROW("-0042", "%05d", -42), ROW("+7", "%+d", 7), ROW(" 7", "% d", 7),
                ROW("+7", "%+ d", 7), ROW("+0", "%+d", 0), ROW("7   |", "%-4d|", 7),
                ROW("   -7", "%5d", -7), ROW("ff", "%x", 255), ROW("FF", "%X", 255),
                ROW("ff", "%#x", 255), ROW("10", "%o", 8), ROW("42", "%i", 42),
                ROW("-9223372036854775808", "%ld", INT64_MIN),
                ROW("9223372036854775807", "%lld", INT64_MAX),
                ROW("18446744073709551615", "%lu", UINT64_MAX),
                ROW("1777777777777777777777", "%llo", UINT64_MAX),
                ROW("FFFFFFFFFFFFFFFF", "%lX", UINT64_MAX),
                // Without "l" integers are 32-bit; "h" only changes "%n".
                ROW("-1", "%d", -1), ROW("4294967295", "%u", 0xFFFFFFFFu),
                ROW("ffffffff", "%x", -1), ROW("70000", "%hd", 70000), ROW("-5", "%Ld", -5),
                // Signs only for signed conversions.
                ROW("7", "%+u", 7u), ROW("ff", "% x", 255)});
}

TEST(Format, Strings) {
    const char* null = nullptr;
    const char unterminated[4] = {'a', 'b', 'c', 'd'};
    expectRows(
        {ROW("abc", "%.3s", "abcdef"), ROW("", "%.0s", "abc"), ROW("abcdef", "%2s", "abcdef"),
         // A width above the precision raises the precision.
         ROW("abcdef", "%6.2s", "abcdef"), ROW("abcde", "%5.3s", "abcdef"),
         ROW("abc   ", "%-6.2s", "abc"), ROW("   ab", "%5.1s", "ab"), ROW("a  |", "%-3.5s|", "a"),
         ROW("     abc", "%8s", "abc"), ROW("abc     |", "%-8s|", "abc"),
         ROW("abc|", "%*s|", -6, "abc"), ROW("(NULL)", "%s", null), ROW("(NULL)", "%5s", null),
         ROW("    (NULL)", "%10s", null), ROW("(NU", "%.3s", null),
         // With a precision nothing past it is read.
         ROW("abcd", "%.4s", unterminated)});
}

TEST(Format, FloatsAreFixedPoint) {
    expectRows({ROW("1.05", "%.2f", 1.05), ROW("3", "%.0f", 2.5), ROW("1.00", "%.2f", 0.999),
                ROW("0.1", "%.1f", 0.14), ROW("0.9", "%.1f", 0.9), ROW("1234.500000", "%e", 1234.5),
                ROW("  -0.5", "%6.1f", -0.5), ROW("-001.50", "%07.2f", -1.5),
                ROW("+2.5  |", "%-+6.1f|", 2.5), ROW("0.5000000000000000", "%.20f", 0.5),
                ROW("0.250000", "%.Lf", 0.25L)});
}

struct Cut {
    int result;
    std::string text;
};

Cut cut(size_t size, const char* format, ...) {
    std::vector<char> buf(size + 8, 'X');
    va_list args;
    va_start(args, format);
    const int n = vsnprintf(buf.data(), size, format, args);
    va_end(args);
    // Nothing is written past the given size.
    for (size_t i = size; i < buf.size(); ++i) {
        EXPECT_EQ(buf[i], 'X') << format << " size " << size << " byte " << i;
    }
    if (size == 0) {
        EXPECT_EQ(buf[0], 'X');
        return {n, ""};
    }
    EXPECT_NE(memchr(buf.data(), '\0', size), nullptr);
    return {n, buf.data()};
}

TEST(Format, TruncationReturnsTheFullLength) {
    struct Case {
        size_t size;
        const char *format, *arg;
        int result;
        const char* text;
    };
    const Case cases[] = {{8, "%s", "hello world", 11, "hello w"},
                          {12, "%s", "hello world", 11, "hello world"},
                          {11, "%s", "hello world", 11, "hello worl"},
                          {1, "%s", "hello world", 11, ""},
                          {0, "%s", "hello world", 11, ""},
                          {4, "%10s", "x", 10, "   "},
                          {4, "%300000000s", "x", 300000000, "   "},
                          {4, "%s|xy", "ab", 5, "ab|"},
                          {3, "%s", nullptr, 6, "(N"},
                          {4, "a%qb%wcd", "", 3, "abd"}};
    for (const Case& c : cases) {
        const Cut got = cut(c.size, c.format, c.arg);
        EXPECT_EQ(got.result, c.result) << c.format << " size " << c.size;
        EXPECT_EQ(got.text, c.text) << c.format << " size " << c.size;
    }

    const Cut floats = cut(6, "%.3f|%d", 12.5, 7);
    EXPECT_EQ(floats.result, 8);
    EXPECT_EQ(floats.text, "12.50");

    EXPECT_EQ(snprintf(nullptr, 0, "%d-%s", 12345, "abc"), 9);
    // A null buffer is never written, whatever size comes with it.
    EXPECT_EQ(snprintf(nullptr, 100, "%d", 12345), 5);
}

}  // namespace
