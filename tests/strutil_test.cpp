#include "zfw/strutil.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using zfw::StringList;

TEST(StrUtil, Trim) {
    const struct {
        std::string in;
        std::string out;
    } cases[] = {
        {" \ta b\n", "a b"},
        {"\r\v\fx\f\v\r", "x"},
        {"", ""},
        {" \t\n\r\v\f", ""},
        {"abc", "abc"},
        {std::string("\0a\0", 3), std::string("\0a\0", 3)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(zfw::trim(c.in), c.out) << '"' << c.in << '"';
    }
}

TEST(StrUtil, PrintableOrHex) {
    const struct {
        std::string in;
        std::string out;
    } cases[] = {
        {"abc", "abc"},
        {"", ""},
        {"a\tb", "a\tb"},
        {"line\r\n", "line\r\n"},
        {"\x01\xff", "01ff"},
        {"ab\x7f", "61627f"},
        {std::string("a\0", 2), "6100"},
        {"\xc3\xa9", "c3a9"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(zfw::printableOrHex(c.in), c.out);
    }
}

TEST(StrUtil, Tokenize) {
    const struct {
        const char* text;
        const char* delimiters;
        std::vector<std::string> tokens;
    } cases[] = {
        {",a,,b,", ",", {"a", "b"}},
        {"a b\tc", " \t", {"a", "b", "c"}},
        {"", ",", {}},
        {",,,", ",", {}},
        {"abc", "", {"abc"}},
        {"abc", ",", {"abc"}},
    };
    for (const auto& c : cases) {
        StringList out{"kept"};
        zfw::tokenize(c.text, c.delimiters, out);
        std::vector<std::string> want{"kept"};
        want.insert(want.end(), c.tokens.begin(), c.tokens.end());
        EXPECT_EQ(std::vector<std::string>(out.begin(), out.end()), want) << c.text;
    }
}

TEST(StrUtil, Split) {
    const struct {
        const char* text;
        std::vector<std::string> pieces;
    } cases[] = {
        {",a,,b,", {"", "a", "", "b", ""}},
        {"a,,b", {"a", "", "b"}},
        {"a,", {"a", ""}},
        {"", {""}},
        {"abc", {"abc"}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> out{"kept"};
        zfw::split(',', c.text, out);
        std::vector<std::string> want{"kept"};
        want.insert(want.end(), c.pieces.begin(), c.pieces.end());
        EXPECT_EQ(out, want) << c.text;
    }
}

TEST(StrUtil, FormatUsesTheFrameworkFormatterAndCuts) {
    EXPECT_EQ(zfw::format("%s=%d", "a", 5), "a=5");
    EXPECT_EQ(zfw::format("%s|%e", "x", 2.5), "x|2.500000");
    const std::string longText(10000, 'x');
    const std::string cut = zfw::format("%s", longText.c_str());
    EXPECT_EQ(cut, std::string(8191, 'x'));
}

TEST(StrUtil, IsOneOf) {
    const char* const levels[] = {"INFO", "WARN", nullptr};
    const char* const empty[] = {nullptr};
    EXPECT_TRUE(zfw::isOneOf(levels, "info"));
    EXPECT_TRUE(zfw::isOneOf(levels, "WaRn"));
    EXPECT_FALSE(zfw::isOneOf(levels, "ERROR"));
    EXPECT_FALSE(zfw::isOneOf(levels, "INF"));
    EXPECT_FALSE(zfw::isOneOf(empty, ""));
    EXPECT_FALSE(zfw::isOneOf(nullptr, "info"));
}

TEST(StrUtil, ParseUnsigned) {
    const struct {
        const char* text;
        uint32_t value;
    } cases[] = {
        {"0x10", 16},    {"010", 8}, {"4294967297", 1}, {"4294967295", 4294967295u},
        {"  42abc", 42}, {"", 0},    {"junk", 0},       {"-1", 4294967295u},
        {"0XFF", 255},   {"09", 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(zfw::parseUnsigned(c.text), c.value) << c.text;
    }
    EXPECT_EQ(zfw::parseUnsigned(nullptr), 0u);
}

}  // namespace
