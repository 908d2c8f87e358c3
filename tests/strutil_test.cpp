// String utilities on their own.
#include "zfw/strutil.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using zfw::StringList;

TEST(StrUtil, Trim) {
    const struct {
        std::string in, out;
    } cases[] = {{" \ta b\n", "a b"},
                 {"\r\v\fx\f\v\r", "x"},
                 {"", ""},
                 {" \t\n\r\v\f", ""},
                 {"abc", "abc"},
                 {std::string("\0a\0", 3), std::string("\0a\0", 3)}};
    for (const auto& c : cases) {
        EXPECT_EQ(zfw::trim(c.in), c.out) << '"' << c.in << '"';
    }
}

TEST(StrUtil, Tokenize) {
    const struct {
        const char *text, *delimiters;
        std::vector<std::string> tokens;
    } cases[] = {{",a,,b,", ",", {"a", "b"}},
                 {"a b\tc", " \t", {"a", "b", "c"}},
                 {"", ",", {}},
                 {",,,", ",", {}},
                 {"abc", "", {"abc"}},
                 {"abc", ",", {"abc"}}};
    for (const auto& c : cases) {
        StringList out{"kept"};
        zfw::tokenize(c.text, c.delimiters, out);
        std::vector<std::string> want{"kept"};
        want.insert(want.end(), c.tokens.begin(), c.tokens.end());
        EXPECT_EQ(std::vector<std::string>(out.begin(), out.end()), want) << c.text;
    }
}

TEST(StrUtil, ParseUnsigned) {
    const struct {
        const char* text;
        uint32_t value;
    } cases[] = {{"0x10", 16},    {"010", 8}, {"4294967297", 1}, {"4294967295", 4294967295u},
                 {"  42abc", 42}, {"", 0},    {"junk", 0},       {"-1", 4294967295u},
                 {"0XFF", 255},   {"09", 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(zfw::parseUnsigned(c.text), c.value) << c.text;
    }
    EXPECT_EQ(zfw::parseUnsigned(nullptr), 0u);
}

TEST(StrUtil, RenderJoinSplitAndMatch) {
    EXPECT_EQ(zfw::printableOrHex("a\tb"), "a\tb");
    EXPECT_EQ(zfw::printableOrHex("\x01\xaf"), "01af");
    EXPECT_EQ(zfw::join(StringList{"", "a", "", "b"}, ","), "a,,b");
    std::vector<std::string> pieces;
    zfw::split(',', ",a,,b,", pieces);
    zfw::split(',', "", pieces);
    EXPECT_EQ(pieces, (std::vector<std::string>{"", "a", "", "b", "", ""}));
    EXPECT_EQ(zfw::toString(int32_t(-1), 16), "ffffffff");
    const char* const levels[] = {"INFO", "WARN", nullptr};
    EXPECT_TRUE(zfw::isOneOf(levels, "warn"));
    EXPECT_TRUE(zfw::containsIgnoreCase("kset.k.KSET.TEMP.x1", ".kset.temp"));
}

}  // namespace
