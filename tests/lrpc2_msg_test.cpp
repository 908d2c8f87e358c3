#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "lrpc2/bytebuf.h"
#include "lrpc2/msg.h"
#include "lrpc2/status.h"
#include "support/alloc_hooks.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kPing = LRPC2_ID_KV_PING;  // not secure
constexpr uint32_t kStop = LRPC2_ID_KV_STOP;  // secure

const lrpc2_msg_table* table() {
    return lrpc2_default_table();
}

// Owns a message for the length of a test.
struct Msg {
    lrpc2_msg* m = nullptr;
    explicit Msg(lrpc2_msg* msg) : m(msg) {}
    Msg(const Msg&) = delete;
    Msg& operator=(const Msg&) = delete;
    ~Msg() { lrpc2_msg_free(m); }
    operator lrpc2_msg*() const { return m; }
};

lrpc2_msg* create(uint32_t id = kPing) {
    int32_t status = -1;
    lrpc2_msg* m = lrpc2_msg_create(id, 0, table(), LRPC2_HEADER_LEN, &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(m, nullptr);
    return m;
}

Bytes image(lrpc2_msg* m) {
    uint32_t length = 0;
    int32_t status = -1;
    const uint8_t* data = lrpc2_msg_bytes(m, &length, &status);
    EXPECT_EQ(status, 0);
    return data != nullptr ? Bytes(data, data + length) : Bytes();
}

// Header, id 10, the given field bytes and the end tag.
Bytes ping_image(const Bytes& fields) {
    Bytes out = {0, 0, 0, 0, 0, 0, 0, 0, 10, 0};
    out.insert(out.end(), fields.begin(), fields.end());
    out.push_back(0);
    return out;
}

TEST(Lrpc2MsgEncoding, SmallestMessageIsElevenBytes) {
    Msg m(create(kStop));
    ASSERT_EQ(lrpc2_msg_complete(m), 0);
    EXPECT_EQ(image(m), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0x14, 0, 0}));
    uint32_t id = 0;
    EXPECT_EQ(lrpc2_msg_id(m, &id), 0);
    EXPECT_EQ(id, 20u);
}

TEST(Lrpc2MsgEncoding, FieldImages) {
    struct Case {
        const char* name;
        std::function<void(lrpc2_msg*)> build;
        Bytes fields;
    };
    static const char* const kSet[] = {"a", "bc", nullptr};
    static const lrpc2_kv_in kPairs[] = {{"k", nullptr}, {nullptr, "v"}, {nullptr, nullptr}};
    static const uint8_t kBlob[] = {1, 2, 3};
    const Case cases[] = {
        {"no fields", [](lrpc2_msg*) {}, {}},
        {"bool -1", [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_bool(m, -1), 0); }, {1, 1}},
        {"bool 0", [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_bool(m, 0), 0); }, {1, 0}},
        {"int32 -2",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_int32(m, -2), 0); },
         {2, 0xFE, 0xFF, 0xFF, 0xFF}},
        {"uint32",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_uint32(m, 0x01020304), 0); },
         {3, 4, 3, 2, 1}},
        {"string",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_string(m, "ab"), 0); },
         {4, 2, 0, 0, 0, 'a', 'b'}},
        {"null string",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_string(m, nullptr), 0); },
         {4, 0xFF, 0xFF, 0xFF, 0xFF}},
        {"alt string",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_string_alt(m, "ab"), 0); },
         {5, 2, 0, 0, 0, 'a', 'b'}},
        {"blob",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_blob(m, kBlob, 3), 0); },
         {6, 3, 0, 0, 0, 1, 2, 3}},
        {"null blob ignores length",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_blob(m, nullptr, 5), 0); },
         {6, 0xFF, 0xFF, 0xFF, 0xFF}},
        {"whole string set",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_string_set(m, kSet), 0); },
         {7, 2, 0, 0, 0, 1, 0, 0, 0, 'a', 2, 0, 0, 0, 'b', 'c'}},
        {"string set by element, null added as empty",
         [](lrpc2_msg* m) {
             EXPECT_EQ(lrpc2_begin_string_set(m), 0);
             EXPECT_EQ(lrpc2_add_string(m, "x"), 0);
             EXPECT_EQ(lrpc2_add_string(m, nullptr), 0);
         },
         {7, 2, 0, 0, 0, 1, 0, 0, 0, 'x', 0, 0, 0, 0}},
        {"whole kv set with null members",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_kv_set(m, kPairs), 0); },
         {8,    2,    0,    0,    0,    1,    0, 0, 0, 'k', 0xFF, 0xFF,
          0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0,   'v'}},
        {"kv set by element",
         [](lrpc2_msg* m) {
             EXPECT_EQ(lrpc2_begin_kv_set(m), 0);
             EXPECT_EQ(lrpc2_add_kv(m, "a", "b"), 0);
             EXPECT_EQ(lrpc2_add_kv(m, "k", nullptr), 0);
         },
         {8, 2, 0,   0, 0, 1, 0, 0,   0,    'a',  1,    0,
          0, 0, 'b', 1, 0, 0, 0, 'k', 0xFF, 0xFF, 0xFF, 0xFF}},
        {"set closed by the next put",
         [](lrpc2_msg* m) {
             EXPECT_EQ(lrpc2_begin_string_set(m), 0);
             EXPECT_EQ(lrpc2_add_string(m, "x"), 0);
             EXPECT_EQ(lrpc2_put_uint32(m, 5), 0);
         },
         {7, 1, 0, 0, 0, 1, 0, 0, 0, 'x', 3, 5, 0, 0, 0}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Msg m(create());
        c.build(m);
        ASSERT_EQ(lrpc2_msg_complete(m), 0);
        const Bytes img = image(m);
        EXPECT_EQ(img, ping_image(c.fields));
        EXPECT_EQ(lrpc2_msg_validate(img.data() + 8, static_cast<uint32_t>(img.size() - 8)), 1);
    }
}

// Every operation that builds a message, with harmless arguments.
const std::vector<std::pair<const char*, std::function<int32_t(lrpc2_msg*)>>>& builders() {
    static const char* const kSet[] = {"a", nullptr};
    static const lrpc2_kv_in kPairs[] = {{"k", "v"}, {nullptr, nullptr}};
    static const std::vector<std::pair<const char*, std::function<int32_t(lrpc2_msg*)>>> ops = {
        {"put_bool", [](lrpc2_msg* m) { return lrpc2_put_bool(m, 1); }},
        {"put_int32", [](lrpc2_msg* m) { return lrpc2_put_int32(m, 1); }},
        {"put_uint32", [](lrpc2_msg* m) { return lrpc2_put_uint32(m, 1); }},
        {"put_string", [](lrpc2_msg* m) { return lrpc2_put_string(m, "s"); }},
        {"put_string_alt", [](lrpc2_msg* m) { return lrpc2_put_string_alt(m, "s"); }},
        {"put_blob", [](lrpc2_msg* m) { return lrpc2_put_blob(m, "b", 1); }},
        {"put_string_set", [](lrpc2_msg* m) { return lrpc2_put_string_set(m, kSet); }},
        {"begin_string_set", [](lrpc2_msg* m) { return lrpc2_begin_string_set(m); }},
        {"add_string", [](lrpc2_msg* m) { return lrpc2_add_string(m, "s"); }},
        {"put_kv_set", [](lrpc2_msg* m) { return lrpc2_put_kv_set(m, kPairs); }},
        {"begin_kv_set", [](lrpc2_msg* m) { return lrpc2_begin_kv_set(m); }},
        {"add_kv", [](lrpc2_msg* m) { return lrpc2_add_kv(m, "k", "v"); }},
        {"complete", [](lrpc2_msg* m) { return lrpc2_msg_complete(m); }}};
    return ops;
}

// Out-values for the readers below, which are only used where they are refused.
struct Outs {
    int32_t i;
    uint32_t u;
    char* s;
    uint8_t* b;
    char** ss;
    lrpc2_kv* kv;
} outs;

// Every operation that reads a message.
const std::vector<std::pair<const char*, std::function<int32_t(lrpc2_msg*)>>>& readers() {
    static const std::vector<std::pair<const char*, std::function<int32_t(lrpc2_msg*)>>> ops = {
        {"get_bool", [](lrpc2_msg* m) { return lrpc2_get_bool(m, &outs.i); }},
        {"get_int32", [](lrpc2_msg* m) { return lrpc2_get_int32(m, &outs.i); }},
        {"get_uint32", [](lrpc2_msg* m) { return lrpc2_get_uint32(m, &outs.u); }},
        {"get_string", [](lrpc2_msg* m) { return lrpc2_get_string(m, &outs.s); }},
        {"get_string_alt", [](lrpc2_msg* m) { return lrpc2_get_string_alt(m, &outs.s); }},
        {"get_blob", [](lrpc2_msg* m) { return lrpc2_get_blob(m, &outs.b, &outs.u); }},
        {"get_string_set", [](lrpc2_msg* m) { return lrpc2_get_string_set(m, &outs.ss); }},
        {"get_kv_set", [](lrpc2_msg* m) { return lrpc2_get_kv_set(m, &outs.kv); }},
        {"msg_id", [](lrpc2_msg* m) { return lrpc2_msg_id(m, &outs.u); }},
        {"next_type", [](lrpc2_msg* m) { return lrpc2_msg_next_type(m, &outs.u); }}};
    return ops;
}

// Null: 205 everywhere. Complete: 203 for every build step, the image unchanged. Under
// construction: 204 for the raw bytes, 201 for whole sets without a list, and still usable.
TEST(Lrpc2MsgState, RefusalsByState) {
    Msg done(create());
    ASSERT_EQ(lrpc2_msg_complete(done), 0);
    for (const auto& op : builders()) {
        EXPECT_EQ(op.second(nullptr), LRPC2_MSG_INVALID) << op.first;
        EXPECT_EQ(op.second(done), LRPC2_MSG_NODATA) << op.first;
    }
    EXPECT_EQ(image(done), ping_image({}));
    for (const auto& op : readers()) {
        EXPECT_EQ(op.second(nullptr), LRPC2_MSG_INVALID) << op.first;
    }
    int32_t status = -1;
    uint32_t length = 99;
    EXPECT_EQ(lrpc2_msg_bytes(nullptr, &length, &status), nullptr);
    EXPECT_EQ(status, LRPC2_MSG_INVALID);
    Msg building(create());
    EXPECT_EQ(lrpc2_msg_bytes(building, &length, &status), nullptr);
    EXPECT_EQ(status, LRPC2_MSG_BADSTATE);
    EXPECT_EQ(lrpc2_put_string_set(building, nullptr), LRPC2_MSG_NOSET);
    EXPECT_EQ(lrpc2_put_kv_set(building, nullptr), LRPC2_MSG_NOSET);
    EXPECT_EQ(lrpc2_msg_complete(building), 0);
    lrpc2_msg_free(nullptr);
}

TEST(Lrpc2MsgState, FailingOperationsFailTheMessage) {
    struct Case {
        const char* name;
        std::function<void(lrpc2_msg*)> before;
        std::function<int32_t(lrpc2_msg*)> op;
        int32_t status;
    };
    const Case cases[] = {
        {"add_string without a set", [](lrpc2_msg*) {},
         [](lrpc2_msg* m) { return lrpc2_add_string(m, "x"); }, LRPC2_MSG_NOSET},
        {"add_kv without a set", [](lrpc2_msg*) {},
         [](lrpc2_msg* m) { return lrpc2_add_kv(m, "k", "v"); }, LRPC2_MSG_NOSET},
        {"add_string to a kv set", [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_begin_kv_set(m), 0); },
         [](lrpc2_msg* m) { return lrpc2_add_string(m, "x"); }, LRPC2_MSG_NOSET},
        {"add_kv to a string set", [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_begin_string_set(m), 0); },
         [](lrpc2_msg* m) { return lrpc2_add_kv(m, "k", "v"); }, LRPC2_MSG_NOSET},
        {"add after the set was closed by a put",
         [](lrpc2_msg* m) {
             EXPECT_EQ(lrpc2_begin_string_set(m), 0);
             EXPECT_EQ(lrpc2_put_bool(m, 1), 0);
         },
         [](lrpc2_msg* m) { return lrpc2_add_string(m, "x"); }, LRPC2_MSG_NOSET},
        {"kv pair of two nulls", [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_begin_kv_set(m), 0); },
         [](lrpc2_msg* m) { return lrpc2_add_kv(m, nullptr, nullptr); }, LRPC2_MSG_BADTYPE}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Msg m(create());
        c.before(m);
        EXPECT_EQ(c.op(m), c.status);
        for (const auto& op : builders()) {
            EXPECT_EQ(op.second(m), LRPC2_MSG_INVALID) << op.first;
        }
        for (const auto& op : readers()) {
            EXPECT_EQ(op.second(m), LRPC2_MSG_INVALID) << op.first;
        }
        int32_t status = -1;
        EXPECT_EQ(lrpc2_msg_bytes(m, nullptr, &status), nullptr);
        EXPECT_EQ(status, LRPC2_MSG_INVALID);
    }
}

TEST(Lrpc2MsgState, CreateRefusesUnknownIdsAndNullTable) {
    for (uint32_t id : {3u, 32u, 121u, 0x10000u + 10u}) {
        int32_t status = -1;
        EXPECT_EQ(lrpc2_msg_create(id, 0, table(), LRPC2_HEADER_LEN, &status), nullptr) << id;
        EXPECT_EQ(status, LRPC2_MSG_INVALID) << id;
    }
    int32_t status = -1;
    EXPECT_EQ(lrpc2_msg_create(kPing, 0, nullptr, LRPC2_HEADER_LEN, &status), nullptr);
    EXPECT_EQ(status, LRPC2_MSG_INVALID);
    EXPECT_EQ(lrpc2_msg_create(3, 0, table(), LRPC2_HEADER_LEN, nullptr), nullptr);
}

// Received: a bool byte of 7, then a string.
TEST(Lrpc2MsgGet, RefusedGetLeavesThePosition) {
    Bytes received = ping_image({1, 7, 4, 1, 0, 0, 0, 's'});
    Msg m(lrpc2_msg_parse(received.data(), static_cast<uint32_t>(received.size()), 1, table(),
                          LRPC2_HEADER_LEN, nullptr));
    uint32_t v = 0;
    uint32_t tag = 99;
    int32_t flag = 0;
    EXPECT_EQ(lrpc2_get_uint32(m, &v), LRPC2_MSG_BADTYPE);
    ASSERT_EQ(lrpc2_get_bool(m, &flag), 0);
    EXPECT_EQ(flag, 7);
    EXPECT_EQ(lrpc2_get_string_alt(m, nullptr), LRPC2_MSG_INVALID);
    char* alt = nullptr;
    EXPECT_EQ(lrpc2_get_string_alt(m, &alt), LRPC2_MSG_BADTYPE);
    EXPECT_EQ(lrpc2_msg_next_type(m, &tag), 0);
    EXPECT_EQ(tag, static_cast<uint32_t>(LRPC2_T_STRING));
    char* s = nullptr;
    ASSERT_EQ(lrpc2_get_string(m, &s), 0);
    EXPECT_STREQ(s, "s");
    lrpc2_free_string(s, 0);
    // At the end mark: no data, and the peek reports the end tag.
    EXPECT_EQ(lrpc2_get_uint32(m, &v), LRPC2_MSG_NODATA);
    EXPECT_EQ(lrpc2_get_string(m, &s), LRPC2_MSG_NODATA);
    EXPECT_EQ(lrpc2_msg_next_type(m, &tag), 0);
    EXPECT_EQ(tag, 0u);
}

TEST(Lrpc2MsgValidate, Bodies) {
    struct Case {
        const char* name;
        Bytes body;  // after the header
        int valid;
    };
    const Case cases[] = {
        {"empty", {}, 0},
        {"id only", {10, 0}, 0},
        {"id and end tag", {10, 0, 0}, 1},
        {"byte after the end tag", {10, 0, 0, 0}, 0},
        {"tag 9", {10, 0, 9, 0}, 0},
        {"bool without its byte", {10, 0, 1}, 0},
        {"uint32 cut short", {10, 0, 3, 1, 2, 3}, 0},
        {"string running past the data", {10, 0, 4, 5, 0, 0, 0, 'a', 'b', 0}, 0},
        {"string eating the end tag", {10, 0, 4, 3, 0, 0, 0, 'a', 'b', 0}, 0},
        {"length just below null", {10, 0, 4, 0xFE, 0xFF, 0xFF, 0xFF, 0}, 0},
        {"blob past the data", {10, 0, 6, 2, 0, 0, 0, 1, 0}, 0},
        {"set with huge count", {10, 0, 7, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0}, 0},
        {"set count beyond its members", {10, 0, 7, 2, 0, 0, 0, 0, 0, 0, 0, 0}, 0},
        {"set of null strings",
         {10, 0, 7, 2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0},
         1},
        {"kv count doubling past 32 bits", {10, 0, 8, 0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 0},
        {"kv pair missing its value", {10, 0, 8, 1, 0, 0, 0, 0, 0, 0, 0, 0}, 0}};
    for (const Case& c : cases) {
        EXPECT_EQ(lrpc2_msg_validate(c.body.data(), static_cast<uint32_t>(c.body.size())), c.valid)
            << c.name;
        // Through parse, with the bytes in a block of exactly their size.
        Bytes img = {0, 0, 0, 0, 0, 0, 0, 0};
        img.insert(img.end(), c.body.begin(), c.body.end());
        auto* exact = static_cast<uint8_t*>(malloc(img.size()));
        memcpy(exact, img.data(), img.size());
        int32_t status = -1;
        lrpc2_msg* m = lrpc2_msg_parse(exact, static_cast<uint32_t>(img.size()), 0, table(),
                                       LRPC2_HEADER_LEN, &status);
        EXPECT_EQ(status, c.valid ? 0 : LRPC2_MSG_INVALID) << c.name;
        EXPECT_EQ(m != nullptr, c.valid == 1) << c.name;
        if (m != nullptr) {
            lrpc2_msg_free(m);  // adopted the block
        } else {
            free(exact);  // a refused block stays the caller's
        }
    }
    EXPECT_EQ(lrpc2_msg_validate(nullptr, 3), 0);
    // Bytes shorter than the header are refused unread: they end where an unreadable page begins.
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto* pages = static_cast<uint8_t*>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
    int32_t status = -1;
    EXPECT_EQ(lrpc2_msg_parse(pages + page - 4, 4, 1, table(), LRPC2_HEADER_LEN, &status), nullptr);
    EXPECT_EQ(status, LRPC2_MSG_INVALID);
    munmap(pages, 2 * page);
}

}  // namespace

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

TEST(Lrpc2Bytebuf, OverwriteStaysInsideTheWrittenBytes) {
    struct Case {
        uint32_t offset, n;
        bool ok;
        const char* after;
    };
    const Case cases[] = {{0, 4, true, "WXYZefgh"},           {4, 4, true, "abcdWXYZ"},
                          {5, 4, false, "abcdefgh"},          {8, 0, true, "abcdefgh"},
                          {9, 0, false, "abcdefgh"},          {0xFFFFFFFFu, 4, false, "abcdefgh"},
                          {4, 0xFFFFFFFDu, false, "abcdefgh"}};
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

// A released buffer and a freed text, zeroed first when asked. A large block that needs no
// wiping is kept for the next message; a wiped one is always freed.
TEST(Lrpc2Bytebuf, ReleaseWipesTheWrittenBytesWhenAsked) {
    struct Case {
        int wipe;
        size_t length;
        unsigned frees_seen;  // blocks freed with the secret still in them
        long freed;           // the buffer's block went back to the allocator
    };
    const Case cases[] = {{0, 32, 2, 1}, {1, 32, 0, 1}, {0, 100000, 1, 0}, {1, 100000, 0, 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.wipe << ", " << c.length);
        const std::string secret = "bytebuf-secret-" + std::to_string(c.wipe);
        Buf buf;
        const std::string bytes = secret + std::string(c.length - secret.size(), '.');
        ASSERT_NE(bytebuf_append_str(&buf.b, bytes.c_str()), nullptr);
        char* text = strdup(secret.c_str());
        alloc_hooks::watch_pattern(secret.data() + 1, secret.size() - 1);  // a wipe misses no byte
        alloc_hooks::start();
        bytebuf_release(&buf.b, c.wipe);
        EXPECT_EQ(-alloc_hooks::state().live, c.freed);
        alloc_hooks::stop();
        lrpc2_free_string(text, c.wipe);
        EXPECT_EQ(alloc_hooks::state().pattern_frees, c.frees_seen);
        alloc_hooks::clear_pattern();
    }
}

// Room for at least twice the request and always a byte spare; a detach hands out the written
// bytes in a block of their size. Wiped growth and detach: the process authentication's tests.
TEST(Lrpc2Bytebuf, ReserveAndDetach) {
    // Bytes written, bytes reserved, capacity after.
    const uint32_t cases[][3] = {
        {0, 1, 512}, {0, 300, 600}, {20, 600, 1712}, {500, 499, 1000}, {500, 500, 2000}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c[0] << " + " << c[1]);
        Buf buf;
        const std::string written(c[0], 'w');
        ASSERT_NE(bytebuf_append(&buf.b, c[0], c[0] != 0 ? written.data() : nullptr), nullptr);
        ASSERT_NE(bytebuf_reserve(&buf.b, c[1]), 0);
        EXPECT_EQ(buf.b.capacity, c[2]);
        EXPECT_GT(buf.spare(), c[1]);
        uint8_t* block = bytebuf_detach(&buf.b);
        EXPECT_EQ(buf.b.start, nullptr);
        EXPECT_EQ(buf.b.capacity, c[2]);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(block), c[0]), written);
        EXPECT_EQ(malloc_usable_size(block) < c[2], c[0] != 0);  // an empty buffer keeps its block
        free(block);
    }
}

}  // namespace
