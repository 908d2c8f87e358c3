#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "lrpc2/bytebuf.h"
#include "support/alloc_hooks.h"

namespace {

struct Buf {
    lrpc2_bytebuf b;
    explicit Buf(uint32_t capacity = 0) { bytebuf_init(&b, capacity); }
    ~Buf() { bytebuf_release(&b, 0); }
    std::string text() const {
        return std::string(reinterpret_cast<const char*>(bytebuf_data(&b)), bytebuf_length(&b));
    }
    size_t spare() const { return static_cast<size_t>(b.end - b.pos); }
};

TEST(Lrpc2Bytebuf, InitAllocatesNothing) {
    Buf zero;
    EXPECT_EQ(zero.b.start, nullptr);
    EXPECT_EQ(zero.b.pos, nullptr);
    EXPECT_EQ(zero.b.end, nullptr);
    EXPECT_EQ(zero.b.capacity, 512u);
    EXPECT_EQ(bytebuf_length(&zero.b), 0u);
    EXPECT_EQ(bytebuf_data(&zero.b), nullptr);
    EXPECT_EQ(bytebuf_detach(&zero.b), nullptr);
    Buf hundred(100);
    EXPECT_EQ(hundred.b.capacity, 100u);
}

TEST(Lrpc2Bytebuf, FirstReservationSize) {
    struct Case {
        uint32_t init;
        uint32_t n;
        uint32_t size;
    };
    const Case cases[] = {
        {0, 0, 512},   {0, 1, 512}, {0, 256, 512}, {0, 257, 514},
        {0, 300, 600}, {16, 1, 16}, {16, 8, 16},   {16, 9, 18},
    };
    for (const Case& c : cases) {
        Buf buf(c.init);
        ASSERT_NE(bytebuf_reserve(&buf.b, c.n), 0) << c.init << " " << c.n;
        EXPECT_EQ(buf.b.capacity, c.size) << c.init << " " << c.n;
        EXPECT_EQ(static_cast<uint32_t>(buf.b.end - buf.b.start), c.size);
        EXPECT_EQ(buf.b.pos, buf.b.start);
    }
}

TEST(Lrpc2Bytebuf, GrowsByWholeSizePlusTwiceTheRequestKeepingOneSpareByte) {
    struct Case {
        uint32_t written;  // bytes already in a 512-byte buffer
        uint32_t n;
        uint32_t size;  // capacity after reserving n more
    };
    const Case cases[] = {
        {500, 11, 512},  // 12 free > 11
        {500, 12, 536},  // exactly n free is not enough: one byte stays spare
        {500, 20, 552}, {511, 1, 514}, {0, 511, 512}, {0, 512, 1536},
    };
    const std::string fill(512, 'f');
    for (const Case& c : cases) {
        Buf buf;
        ASSERT_NE(bytebuf_reserve(&buf.b, 0), 0);
        ASSERT_NE(bytebuf_append(&buf.b, c.written, fill.data()), nullptr);
        ASSERT_NE(bytebuf_reserve(&buf.b, c.n), 0);
        EXPECT_EQ(buf.b.capacity, c.size) << c.written << "+" << c.n;
        EXPECT_GT(buf.spare(), c.n);
        EXPECT_EQ(buf.text(), fill.substr(0, c.written));
    }
}

TEST(Lrpc2Bytebuf, SizesThatDoNotFitThirtyTwoBitsAreRefused) {
    for (uint32_t n : {0x80000000u, 0xFFFFFFFFu}) {
        Buf fresh;
        EXPECT_EQ(bytebuf_reserve(&fresh.b, n), 0) << n;
        EXPECT_EQ(fresh.b.start, nullptr);
        EXPECT_EQ(fresh.b.capacity, 512u);
    }
    Buf used;
    ASSERT_NE(bytebuf_append_str(&used.b, "abc"), nullptr);
    EXPECT_EQ(bytebuf_reserve(&used.b, 0x7FFFFFFFu), 0);
    EXPECT_EQ(bytebuf_append(&used.b, 0xFFFFFFFFu, "x"), nullptr);
    EXPECT_EQ(used.b.capacity, 512u);
    EXPECT_EQ(used.text(), "abc");
}

TEST(Lrpc2Bytebuf, RefusedMemoryLeavesTheBufferAsItWas) {
    // Plain and wiping growth alike.
    for (const bool wipe : {false, true}) {
        SCOPED_TRACE(wipe ? "bytebuf_reserve_wipe" : "bytebuf_reserve");
        Buf buf;
        ASSERT_NE(bytebuf_append_str(&buf.b, "keep"), nullptr);
        const lrpc2_bytebuf before = buf.b;
        alloc_hooks::start(1);
        const int ok = wipe ? bytebuf_reserve_wipe(&buf.b, 600, 1) : bytebuf_reserve(&buf.b, 600);
        alloc_hooks::stop();
        EXPECT_TRUE(alloc_hooks::state().failed);
        EXPECT_EQ(ok, 0);
        EXPECT_EQ(buf.b.start, before.start);
        EXPECT_EQ(buf.b.pos, before.pos);
        EXPECT_EQ(buf.b.end, before.end);
        EXPECT_EQ(buf.b.capacity, before.capacity);
        EXPECT_EQ(buf.text(), "keep");
    }

    Buf fresh;
    alloc_hooks::start(1);
    EXPECT_EQ(bytebuf_append_byte(&fresh.b, 'x'), nullptr);
    alloc_hooks::stop();
    EXPECT_EQ(fresh.b.start, nullptr);
    EXPECT_EQ(fresh.b.capacity, 512u);
}

TEST(Lrpc2Bytebuf, AppendsKeepTheirBytesAcrossGrowth) {
    Buf buf(4);
    std::string expect;
    for (int i = 0; i < 200; ++i) {
        const std::string piece = std::to_string(i) + ",";
        ASSERT_EQ(bytebuf_append(&buf.b, static_cast<uint32_t>(piece.size()), piece.data()),
                  &buf.b);
        ASSERT_EQ(bytebuf_append_byte(&buf.b, ';'), &buf.b);
        ASSERT_EQ(bytebuf_append_str(&buf.b, "s"), &buf.b);
        expect += piece + ";s";
    }
    EXPECT_EQ(buf.text(), expect);
    EXPECT_EQ(bytebuf_length(&buf.b), expect.size());
}

TEST(Lrpc2Bytebuf, NullDataAndNullTextAppendNothing) {
    Buf buf;
    EXPECT_EQ(bytebuf_append(&buf.b, 5, nullptr), &buf.b);
    EXPECT_EQ(bytebuf_append_str(&buf.b, nullptr), &buf.b);
    EXPECT_EQ(buf.b.start, nullptr);
    EXPECT_EQ(bytebuf_append_str(&buf.b, "ab"), &buf.b);
    EXPECT_EQ(bytebuf_length(&buf.b), 2u);  // no terminator
}

TEST(Lrpc2Bytebuf, NullBufferIsIgnored) {
    EXPECT_EQ(bytebuf_reserve(nullptr, 1), 0);
    EXPECT_EQ(bytebuf_append(nullptr, 1, "x"), nullptr);
    EXPECT_EQ(bytebuf_append_byte(nullptr, 1), nullptr);
    EXPECT_EQ(bytebuf_append_str(nullptr, "x"), nullptr);
    EXPECT_EQ(bytebuf_overwrite(nullptr, 0, 1, "x"), nullptr);
    EXPECT_EQ(bytebuf_length(nullptr), 0u);
    EXPECT_EQ(bytebuf_detach(nullptr), nullptr);
    EXPECT_EQ(bytebuf_reserve_wipe(nullptr, 1, 1), 0);
    EXPECT_EQ(bytebuf_detach_wipe(nullptr, 1), nullptr);
    EXPECT_EQ(bytebuf_data(nullptr), nullptr);
    bytebuf_init(nullptr, 0);
    bytebuf_release(nullptr, 1);
    bytebuf_unappend(nullptr);
}

TEST(Lrpc2Bytebuf, OverwriteStaysInsideTheWrittenBytes) {
    struct Case {
        uint32_t offset;
        uint32_t n;
        bool ok;
        const char* after;
    };
    const Case cases[] = {
        {0, 4, true, "WXYZefgh"},
        {4, 4, true, "abcdWXYZ"},
        {5, 4, false, "abcdefgh"},
        {8, 0, true, "abcdefgh"},
        {9, 0, false, "abcdefgh"},
        {0xFFFFFFFFu, 4, false, "abcdefgh"},
        {4, 0xFFFFFFFDu, false, "abcdefgh"},
    };
    for (const Case& c : cases) {
        Buf buf;
        ASSERT_NE(bytebuf_append_str(&buf.b, "abcdefgh"), nullptr);
        const uint8_t* pos = buf.b.pos;
        lrpc2_bytebuf* r = bytebuf_overwrite(&buf.b, c.offset, c.n, "WXYZ");
        EXPECT_EQ(r != nullptr, c.ok) << c.offset << "+" << c.n;
        EXPECT_EQ(buf.text(), c.after) << c.offset << "+" << c.n;
        EXPECT_EQ(buf.b.pos, pos);
    }
}

TEST(Lrpc2Bytebuf, DetachHandsOverTheShrunkBlock) {
    Buf buf;
    ASSERT_NE(bytebuf_append_str(&buf.b, "hello"), nullptr);
    ASSERT_NE(bytebuf_reserve(&buf.b, 600), 0);
    EXPECT_EQ(buf.b.capacity, 1712u);
    uint8_t* block = bytebuf_detach(&buf.b);
    ASSERT_NE(block, nullptr);
    EXPECT_LT(malloc_usable_size(block), 1712u);
    EXPECT_EQ(memcmp(block, "hello", 5), 0);
    // The buffer starts over, remembering its size as the next minimum.
    EXPECT_EQ(buf.b.start, nullptr);
    EXPECT_EQ(buf.b.pos, nullptr);
    EXPECT_EQ(buf.b.capacity, 1712u);
    free(block);
}

TEST(Lrpc2Bytebuf, DetachKeepsTheBlockWhenShrinkingFails) {
    Buf buf;
    ASSERT_NE(bytebuf_append_str(&buf.b, "hello"), nullptr);
    uint8_t* start = buf.b.start;
    alloc_hooks::start(1);
    uint8_t* block = bytebuf_detach(&buf.b);
    alloc_hooks::stop();
    EXPECT_TRUE(alloc_hooks::state().failed);
    EXPECT_EQ(block, start);
    EXPECT_EQ(memcmp(block, "hello", 5), 0);
    free(block);
}

TEST(Lrpc2Bytebuf, UnappendAndRelease) {
    Buf buf;
    bytebuf_unappend(&buf.b);
    ASSERT_NE(bytebuf_append_str(&buf.b, "ab"), nullptr);
    bytebuf_unappend(&buf.b);
    EXPECT_EQ(buf.text(), "a");
    bytebuf_unappend(&buf.b);
    bytebuf_unappend(&buf.b);
    EXPECT_EQ(bytebuf_length(&buf.b), 0u);
    ASSERT_NE(bytebuf_reserve(&buf.b, 300), 0);
    bytebuf_release(&buf.b, 0);
    EXPECT_EQ(buf.b.start, nullptr);
    EXPECT_EQ(buf.b.capacity, 512u);
}

TEST(Lrpc2Bytebuf, ReleaseWipesTheWrittenBytesWhenAsked) {
    for (int wipe : {0, 1}) {
        const std::string secret = "bytebuf-secret-" + std::to_string(wipe);
        Buf buf;
        ASSERT_NE(bytebuf_append_str(&buf.b, secret.c_str()), nullptr);
        alloc_hooks::watch_pattern(secret.data(), secret.size());
        bytebuf_release(&buf.b, wipe);
        const unsigned seen = alloc_hooks::state().pattern_frees;
        alloc_hooks::clear_pattern();
        EXPECT_EQ(seen, wipe ? 0u : 1u) << wipe;
    }
}

// Growing and detaching a buffer of secrets: the same sizes, but the bytes move to new blocks and
// the old ones are zeroed before they are freed; realloc would free them as they are.
TEST(Lrpc2Bytebuf, WipingGrowthAndDetachLeaveNoCopyBehind) {
    for (int wipe : {0, 1}) {
        SCOPED_TRACE(wipe);
        const std::string secret = "bytebuf-grow-secret-" + std::to_string(wipe);
        Buf buf;
        ASSERT_NE(bytebuf_append_str(&buf.b, secret.c_str()), nullptr);
        alloc_hooks::watch_pattern(secret.data(), secret.size());
        ASSERT_NE(bytebuf_reserve_wipe(&buf.b, 600, wipe), 0);
        EXPECT_EQ(buf.b.capacity, 1712u);
        EXPECT_GT(buf.spare(), 600u);
        EXPECT_EQ(buf.text(), secret);
        uint8_t* block = bytebuf_detach_wipe(&buf.b, wipe);
        const alloc_hooks::State seen = alloc_hooks::state();
        alloc_hooks::clear_pattern();
        // Without wiping, the growth reallocates and the detach (a short buffer) copies to a
        // new block and frees the old one, both with the bytes left in.
        EXPECT_EQ(seen.pattern_reallocs, wipe ? 0u : 1u);
        EXPECT_EQ(seen.pattern_frees, wipe ? 0u : 1u);
        ASSERT_NE(block, nullptr);
        EXPECT_LT(malloc_usable_size(block), 1712u);
        EXPECT_EQ(memcmp(block, secret.data(), secret.size()), 0);
        EXPECT_EQ(buf.b.start, nullptr);
        EXPECT_EQ(buf.b.capacity, 1712u);
        explicit_bzero(block, secret.size());
        free(block);
    }
}

TEST(Lrpc2Bytebuf, WipingDetachKeepsTheBlockWhenMemoryIsRefused) {
    Buf buf;
    ASSERT_NE(bytebuf_append_str(&buf.b, "keep"), nullptr);
    const lrpc2_bytebuf before = buf.b;
    alloc_hooks::start(1);
    uint8_t* block = bytebuf_detach_wipe(&buf.b, 1);
    alloc_hooks::stop();
    EXPECT_TRUE(alloc_hooks::state().failed);
    EXPECT_EQ(block, before.start);
    EXPECT_EQ(memcmp(block, "keep", 4), 0);
    EXPECT_EQ(buf.b.start, nullptr);
    free(block);
}

}  // namespace
