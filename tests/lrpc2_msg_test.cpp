#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "lrpc2/bytebuf.h"
#include "lrpc2/msg.h"
#include "lrpc2/status.h"
#include "support/alloc_hooks.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Text = std::optional<std::string>;

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

lrpc2_msg* parse(Bytes bytes, int32_t* status) {
    return lrpc2_msg_parse(bytes.data(), static_cast<uint32_t>(bytes.size()), 1, table(),
                           LRPC2_HEADER_LEN, status);
}

uint8_t* malloc_copy(const Bytes& bytes) {
    uint8_t* block = static_cast<uint8_t*>(malloc(bytes.size()));
    memcpy(block, bytes.data(), bytes.size());
    return block;
}

Text take_string(char* s) {
    Text t = s != nullptr ? Text(s) : std::nullopt;
    lrpc2_free_string(s, 0);
    return t;
}

// ---- Byte images ---------------------------------------------------------------------------

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
    static const char* const kSetWithHole[] = {"a", nullptr, "b", nullptr};
    static const char* const kEmptySet[] = {nullptr};
    static const lrpc2_kv_in kPairs[] = {{"k", nullptr}, {nullptr, "v"}, {nullptr, nullptr}};
    static const lrpc2_kv_in kNoPairs[] = {{nullptr, nullptr}};
    static const uint8_t kBlob[] = {1, 2, 3};
    const Case cases[] = {
        {"no fields", [](lrpc2_msg*) {}, {}},
        {"bool 1", [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_bool(m, 1), 0); }, {1, 1}},
        {"bool 7 stores 1", [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_bool(m, 7), 0); }, {1, 1}},
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
        {"empty string",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_string(m, ""), 0); },
         {4, 0, 0, 0, 0}},
        {"null string",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_string(m, nullptr), 0); },
         {4, 0xFF, 0xFF, 0xFF, 0xFF}},
        {"alt string",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_string_alt(m, "ab"), 0); },
         {5, 2, 0, 0, 0, 'a', 'b'}},
        {"null alt string",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_string_alt(m, nullptr), 0); },
         {5, 0xFF, 0xFF, 0xFF, 0xFF}},
        {"blob",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_blob(m, kBlob, 3), 0); },
         {6, 3, 0, 0, 0, 1, 2, 3}},
        {"empty blob",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_blob(m, kBlob, 0), 0); },
         {6, 0, 0, 0, 0}},
        {"null blob ignores length",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_blob(m, nullptr, 5), 0); },
         {6, 0xFF, 0xFF, 0xFF, 0xFF}},
        {"whole string set",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_string_set(m, kSet), 0); },
         {7, 2, 0, 0, 0, 1, 0, 0, 0, 'a', 2, 0, 0, 0, 'b', 'c'}},
        {"whole string set ends at the first null",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_string_set(m, kSetWithHole), 0); },
         {7, 1, 0, 0, 0, 1, 0, 0, 0, 'a'}},
        {"empty whole string set",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_string_set(m, kEmptySet), 0); },
         {7, 0, 0, 0, 0}},
        {"string set by element, null added as empty",
         [](lrpc2_msg* m) {
             EXPECT_EQ(lrpc2_begin_string_set(m), 0);
             EXPECT_EQ(lrpc2_add_string(m, "x"), 0);
             EXPECT_EQ(lrpc2_add_string(m, nullptr), 0);
         },
         {7, 2, 0, 0, 0, 1, 0, 0, 0, 'x', 0, 0, 0, 0}},
        {"string set begun and left empty",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_begin_string_set(m), 0); },
         {7, 0, 0, 0, 0}},
        {"whole kv set with null members",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_kv_set(m, kPairs), 0); },
         {8,    2,    0,    0,    0,    1,    0, 0, 0, 'k', 0xFF, 0xFF,
          0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0,   'v'}},
        {"empty whole kv set",
         [](lrpc2_msg* m) { EXPECT_EQ(lrpc2_put_kv_set(m, kNoPairs), 0); },
         {8, 0, 0, 0, 0}},
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
         {7, 1, 0, 0, 0, 1, 0, 0, 0, 'x', 3, 5, 0, 0, 0}},
        {"set closed by the next begin",
         [](lrpc2_msg* m) {
             EXPECT_EQ(lrpc2_begin_string_set(m), 0);
             EXPECT_EQ(lrpc2_add_string(m, "x"), 0);
             EXPECT_EQ(lrpc2_add_string(m, "y"), 0);
             EXPECT_EQ(lrpc2_begin_kv_set(m), 0);
             EXPECT_EQ(lrpc2_add_kv(m, nullptr, "v"), 0);
         },
         {7, 2, 0, 0, 0, 1,    0,    0,    0,    'x', 1, 0, 0, 0,  'y',
          8, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1,   0, 0, 0, 'v'}},
        {"set closed by a whole set",
         [](lrpc2_msg* m) {
             EXPECT_EQ(lrpc2_begin_kv_set(m), 0);
             EXPECT_EQ(lrpc2_add_kv(m, "k", "v"), 0);
             EXPECT_EQ(lrpc2_put_string_set(m, kEmptySet), 0);
         },
         {8, 1, 0, 0, 0, 1, 0, 0, 0, 'k', 1, 0, 0, 0, 'v', 7, 0, 0, 0, 0}},
    };
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

// ---- State rules ---------------------------------------------------------------------------

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
        {"complete", [](lrpc2_msg* m) { return lrpc2_msg_complete(m); }},
    };
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
        {"next_type", [](lrpc2_msg* m) { return lrpc2_msg_next_type(m, &outs.u); }},
    };
    return ops;
}

TEST(Lrpc2MsgState, NullMessageIsInvalidEverywhere) {
    for (const auto& op : builders()) {
        EXPECT_EQ(op.second(nullptr), LRPC2_MSG_INVALID) << op.first;
    }
    for (const auto& op : readers()) {
        EXPECT_EQ(op.second(nullptr), LRPC2_MSG_INVALID) << op.first;
    }
    int32_t status = -1;
    uint32_t length = 99;
    EXPECT_EQ(lrpc2_msg_bytes(nullptr, &length, &status), nullptr);
    EXPECT_EQ(status, LRPC2_MSG_INVALID);
    lrpc2_msg_free(nullptr);
}

TEST(Lrpc2MsgState, CompleteMessageRefusesBuilding) {
    for (const auto& op : builders()) {
        Msg m(create());
        ASSERT_EQ(lrpc2_msg_complete(m), 0);
        EXPECT_EQ(op.second(m), LRPC2_MSG_NODATA) << op.first;
        EXPECT_EQ(image(m), ping_image({})) << op.first;
    }
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
         [](lrpc2_msg* m) { return lrpc2_add_kv(m, nullptr, nullptr); }, LRPC2_MSG_BADTYPE},
    };
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

TEST(Lrpc2MsgState, NullWholeSetIsRefusedButTheMessageStaysUsable) {
    Msg m(create());
    EXPECT_EQ(lrpc2_put_string_set(m, nullptr), LRPC2_MSG_NOSET);
    EXPECT_EQ(lrpc2_put_kv_set(m, nullptr), LRPC2_MSG_NOSET);
    EXPECT_EQ(lrpc2_put_bool(m, 0), 0);
    ASSERT_EQ(lrpc2_msg_complete(m), 0);
    EXPECT_EQ(image(m), ping_image({1, 0}));
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
    // The reserved argument changes nothing.
    Msg m(lrpc2_msg_create(LRPC2_ID_AUTH_RESPONSE, 1, table(), LRPC2_HEADER_LEN, nullptr));
    ASSERT_NE(m.m, nullptr);
    ASSERT_EQ(lrpc2_msg_complete(m), 0);
    EXPECT_EQ(image(m), (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0}));
}

// ---- Reading ---------------------------------------------------------------------------------

TEST(Lrpc2MsgGet, RefusedGetLeavesThePosition) {
    Msg m(create());
    ASSERT_EQ(lrpc2_put_string(m, "s"), 0);
    ASSERT_EQ(lrpc2_msg_complete(m), 0);
    uint32_t v = 0;
    uint32_t tag = 99;
    EXPECT_EQ(lrpc2_get_uint32(m, &v), LRPC2_MSG_BADTYPE);
    EXPECT_EQ(lrpc2_get_string_alt(m, nullptr), LRPC2_MSG_INVALID);
    char* alt = nullptr;
    EXPECT_EQ(lrpc2_get_string_alt(m, &alt), LRPC2_MSG_BADTYPE);
    EXPECT_EQ(lrpc2_msg_next_type(m, &tag), 0);
    EXPECT_EQ(tag, static_cast<uint32_t>(LRPC2_T_STRING));
    char* s = nullptr;
    ASSERT_EQ(lrpc2_get_string(m, &s), 0);
    EXPECT_EQ(take_string(s), "s");
    // At the end mark: no data, and the peek reports the end tag.
    EXPECT_EQ(lrpc2_get_uint32(m, &v), LRPC2_MSG_NODATA);
    EXPECT_EQ(lrpc2_get_string(m, &s), LRPC2_MSG_NODATA);
    EXPECT_EQ(lrpc2_msg_next_type(m, &tag), 0);
    EXPECT_EQ(tag, 0u);
}

TEST(Lrpc2MsgGet, ReceivedValuesAsTheyCame) {
    // bool 7, a string with a NUL inside, an empty blob, a null blob, a string set holding a null
    // string, a kv set holding a pair of two nulls.
    const Bytes fields = {1,    7,    4,    3,    0,    0,    0, 'a', 0, 'b', 6, 0,    0,    0,
                          0,    6,    0xFF, 0xFF, 0xFF, 0xFF, 7, 2,   0, 0,   0, 0xFF, 0xFF, 0xFF,
                          0xFF, 1,    0,    0,    0,    'z',  8, 2,   0, 0,   0, 0xFF, 0xFF, 0xFF,
                          0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1,    0, 0,   0, 'k', 0, 0,    0,    0};
    int32_t status = -1;
    Msg m(parse(ping_image(fields), &status));
    ASSERT_EQ(status, 0);

    int32_t b = 0;
    ASSERT_EQ(lrpc2_get_bool(m, &b), 0);
    EXPECT_EQ(b, 7);
    char* s = nullptr;
    ASSERT_EQ(lrpc2_get_string(m, &s), 0);
    EXPECT_EQ(memcmp(s, "a\0b\0", 4), 0);
    lrpc2_free_string(s, 0);
    uint8_t* blob = nullptr;
    uint32_t n = 99;
    ASSERT_EQ(lrpc2_get_blob(m, &blob, &n), 0);
    EXPECT_NE(blob, nullptr);  // empty, yet distinct from the null blob
    EXPECT_EQ(n, 0u);
    lrpc2_free_block(blob, n, 1);
    ASSERT_EQ(lrpc2_get_blob(m, &blob, &n), 0);
    EXPECT_EQ(blob, nullptr);
    EXPECT_EQ(n, 0u);
    // Null members are handed out as empty texts so the arrays keep all their members.
    char** texts = nullptr;
    ASSERT_EQ(lrpc2_get_string_set(m, &texts), 0);
    ASSERT_NE(texts[0], nullptr);
    EXPECT_STREQ(texts[0], "");
    EXPECT_STREQ(texts[1], "z");
    EXPECT_EQ(texts[2], nullptr);
    lrpc2_free_string_set(texts, 0);
    lrpc2_kv* pairs = nullptr;
    ASSERT_EQ(lrpc2_get_kv_set(m, &pairs), 0);
    EXPECT_STREQ(pairs[0].key, "");
    EXPECT_EQ(pairs[0].value, nullptr);
    EXPECT_STREQ(pairs[1].key, "k");
    EXPECT_STREQ(pairs[1].value, "");
    EXPECT_EQ(pairs[2].key, nullptr);
    EXPECT_EQ(pairs[2].value, nullptr);
    lrpc2_free_kv_set(pairs, 1);
    EXPECT_EQ(lrpc2_get_bool(m, &b), LRPC2_MSG_NODATA);
}

// ---- Parsing and validation ------------------------------------------------------------------

TEST(Lrpc2MsgValidate, Bodies) {
    struct Case {
        const char* name;
        Bytes body;  // after the header
        int valid;
    };
    const Case cases[] = {
        {"empty", {}, 0},
        {"one byte", {10}, 0},
        {"id only", {10, 0}, 0},
        {"id and end tag", {10, 0, 0}, 1},
        {"byte after the end tag", {10, 0, 0, 0}, 0},
        {"tag 9", {10, 0, 9, 0}, 0},
        {"tag 255", {10, 0, 0xFF, 0}, 0},
        {"bool without its byte", {10, 0, 1}, 0},
        {"bool and end", {10, 0, 1, 5, 0}, 1},
        {"uint32 cut short", {10, 0, 3, 1, 2, 3}, 0},
        {"int32 and end", {10, 0, 2, 1, 2, 3, 4, 0}, 1},
        {"length cut short", {10, 0, 4, 1, 0, 0}, 0},
        {"string running past the data", {10, 0, 4, 5, 0, 0, 0, 'a', 'b', 0}, 0},
        {"string filling up to the end tag", {10, 0, 4, 2, 0, 0, 0, 'a', 'b', 0}, 1},
        {"string eating the end tag", {10, 0, 4, 3, 0, 0, 0, 'a', 'b', 0}, 0},
        {"null string", {10, 0, 4, 0xFF, 0xFF, 0xFF, 0xFF, 0}, 1},
        {"length just below null", {10, 0, 4, 0xFE, 0xFF, 0xFF, 0xFF, 0}, 0},
        {"alt string", {10, 0, 5, 1, 0, 0, 0, 'a', 0}, 1},
        {"null blob", {10, 0, 6, 0xFF, 0xFF, 0xFF, 0xFF, 0}, 1},
        {"blob past the data", {10, 0, 6, 2, 0, 0, 0, 1, 0}, 0},
        {"set with huge count", {10, 0, 7, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0}, 0},
        {"set count beyond its members", {10, 0, 7, 2, 0, 0, 0, 0, 0, 0, 0, 0}, 0},
        {"set of null strings",
         {10, 0, 7, 2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0},
         1},
        {"kv count doubling past 32 bits", {10, 0, 8, 0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 0},
        {"kv pair missing its value", {10, 0, 8, 1, 0, 0, 0, 0, 0, 0, 0, 0}, 0},
        {"kv pair of empties", {10, 0, 8, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 1},
        {"no end tag after fields", {10, 0, 1, 1}, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(lrpc2_msg_validate(c.body.data(), static_cast<uint32_t>(c.body.size())), c.valid)
            << c.name;
        // Through parse, with the bytes in a block of exactly their size.
        Bytes img = {0, 0, 0, 0, 0, 0, 0, 0};
        img.insert(img.end(), c.body.begin(), c.body.end());
        uint8_t* exact = malloc_copy(img);
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
}

TEST(Lrpc2MsgValidate, HostileCountsAllocateNothing) {
    // A set count of 0x3FFFFFFF (and a kv count whose double passes 32 bits) with a few bytes.
    for (const Bytes& fields : {Bytes{7, 0xFF, 0xFF, 0xFF, 0x3F, 0, 0, 0, 0},
                                Bytes{8, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}) {
        Bytes img = ping_image(fields);
        int32_t status = -1;
        alloc_hooks::start();
        lrpc2_msg* m = lrpc2_msg_parse(img.data(), static_cast<uint32_t>(img.size()), 1, table(),
                                       LRPC2_HEADER_LEN, &status);
        alloc_hooks::stop();
        EXPECT_EQ(m, nullptr);
        EXPECT_EQ(status, LRPC2_MSG_INVALID);
        EXPECT_EQ(alloc_hooks::state().calls, 0u);
    }
}

TEST(Lrpc2MsgParse, RefusesNullEmptyAndShortInput) {
    int32_t status = -1;
    uint8_t one = 0;
    EXPECT_EQ(lrpc2_msg_parse(nullptr, 11, 1, table(), LRPC2_HEADER_LEN, &status), nullptr);
    EXPECT_EQ(status, LRPC2_MSG_INVALID);
    status = -1;
    EXPECT_EQ(lrpc2_msg_parse(&one, 0, 1, table(), LRPC2_HEADER_LEN, &status), nullptr);
    EXPECT_EQ(status, LRPC2_MSG_INVALID);
    status = -1;
    EXPECT_EQ(lrpc2_msg_parse(&one, 1, 1, table(), LRPC2_HEADER_LEN, &status), nullptr);
    EXPECT_EQ(status, LRPC2_MSG_INVALID);
    EXPECT_EQ(lrpc2_msg_parse(&one, 1, 1, table(), LRPC2_HEADER_LEN, nullptr), nullptr);
}

TEST(Lrpc2MsgParse, CopyKeepsTheCallersBytes) {
    Bytes img = {0x12, 0x80, 0xCD, 0xAB, 11, 0, 0, 0, 20, 0, 0};
    int32_t status = -1;
    Msg m(parse(img, &status));
    ASSERT_EQ(status, 0);
    uint32_t length = 0;
    const uint8_t* data = lrpc2_msg_bytes(m, &length, &status);
    EXPECT_NE(data, img.data());
    EXPECT_EQ(Bytes(data, data + length), img);
    uint32_t tag = 9;
    EXPECT_EQ(lrpc2_msg_next_type(m, &tag), 0);
    EXPECT_EQ(tag, 0u);
}

// ---- Memory: refused allocations and wiping ----------------------------------------------------

// The next field is still the one with this tag.
void expect_next(lrpc2_msg* m, int tag) {
    uint32_t next = 0;
    EXPECT_EQ(lrpc2_msg_next_type(m, &next), 0);
    EXPECT_EQ(next, static_cast<uint32_t>(tag));
}

// Runs op with the k-th allocation refused, for k = 1, 2, ... until op gets through all its
// allocations; check sees each outcome. Nothing allocated during op may outlive it.
void for_each_refused_allocation(const std::function<void()>& op,
                                 const std::function<void(unsigned)>& check) {
    for (unsigned k = 1;; ++k) {
        alloc_hooks::start(k);
        op();
        alloc_hooks::stop();
        if (!alloc_hooks::state().failed) {
            ASSERT_GT(k, 1u) << "op allocates nothing";
            return;
        }
        EXPECT_EQ(alloc_hooks::state().live, 0) << "leaked with allocation " << k << " refused";
        check(k);
    }
}

TEST(Lrpc2MsgMemory, CreateAndParseReportNoMemory) {
    lrpc2_msg* m = nullptr;
    int32_t status = -1;
    for_each_refused_allocation(
        [&] { m = lrpc2_msg_create(kStop, 0, table(), LRPC2_HEADER_LEN, &status); },
        [&](unsigned k) {
            EXPECT_EQ(m, nullptr) << k;
            EXPECT_EQ(status, LRPC2_MSG_NOMEM) << k;
        });
    lrpc2_msg_free(m);

    Bytes img = ping_image({4, 1, 0, 0, 0, 'x'});
    for_each_refused_allocation([&] { m = parse(img, &status); },
                                [&](unsigned k) {
                                    EXPECT_EQ(m, nullptr) << k;
                                    EXPECT_EQ(status, LRPC2_MSG_NOMEM) << k;
                                });
    lrpc2_msg_free(m);

    uint8_t* block = malloc_copy(img);
    alloc_hooks::start(1);
    m = lrpc2_msg_parse(block, static_cast<uint32_t>(img.size()), 0, table(), LRPC2_HEADER_LEN,
                        &status);
    alloc_hooks::stop();
    EXPECT_EQ(m, nullptr);
    EXPECT_EQ(status, LRPC2_MSG_NOMEM);
    free(block);  // not adopted
}

TEST(Lrpc2MsgMemory, RefusedGrowthFailsTheMessage) {
    const std::string big(1000, 'g');
    Msg m(create());
    ASSERT_EQ(lrpc2_put_bool(m, 1), 0);
    alloc_hooks::start(1);
    EXPECT_EQ(lrpc2_put_string(m, big.c_str()), LRPC2_MSG_NOMEM);
    alloc_hooks::stop();
    EXPECT_TRUE(alloc_hooks::state().failed);
    EXPECT_EQ(lrpc2_msg_complete(m), LRPC2_MSG_INVALID);
    EXPECT_EQ(lrpc2_put_bool(m, 1), LRPC2_MSG_INVALID);
}

TEST(Lrpc2MsgMemory, FailedGetsLeakNothingAndCanBeRetried) {
    static const char* const kSet[] = {"one", "two", "three", nullptr};
    static const lrpc2_kv_in kPairs[] = {
        {"k1", "v1"}, {"k2", nullptr}, {nullptr, "v3"}, {nullptr, nullptr}};
    Msg m(create(kStop));
    ASSERT_EQ(lrpc2_put_string(m, "text"), 0);
    ASSERT_EQ(lrpc2_put_blob(m, "blob", 4), 0);
    ASSERT_EQ(lrpc2_put_string_set(m, kSet), 0);
    ASSERT_EQ(lrpc2_put_kv_set(m, kPairs), 0);
    ASSERT_EQ(lrpc2_msg_complete(m), 0);

    int32_t rc = -1;
    char* s = nullptr;
    for_each_refused_allocation([&] { rc = lrpc2_get_string(m, &s); },
                                [&](unsigned k) {
                                    EXPECT_EQ(rc, LRPC2_MSG_NOMEM) << k;
                                    expect_next(m, LRPC2_T_STRING);
                                });
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(take_string(s), "text");

    uint8_t* blob = nullptr;
    uint32_t n = 0;
    for_each_refused_allocation([&] { rc = lrpc2_get_blob(m, &blob, &n); },
                                [&](unsigned k) {
                                    EXPECT_EQ(rc, LRPC2_MSG_NOMEM) << k;
                                    expect_next(m, LRPC2_T_BLOB);
                                });
    ASSERT_EQ(rc, 0);
    ASSERT_EQ(n, 4u);
    EXPECT_EQ(memcmp(blob, "blob", 4), 0);
    lrpc2_free_block(blob, n, 1);

    char** texts = nullptr;
    for_each_refused_allocation([&] { rc = lrpc2_get_string_set(m, &texts); },
                                [&](unsigned k) {
                                    EXPECT_EQ(rc, LRPC2_MSG_NOMEM) << k;
                                    expect_next(m, LRPC2_T_STRINGSET);
                                });
    ASSERT_EQ(rc, 0);
    EXPECT_STREQ(texts[2], "three");
    lrpc2_free_string_set(texts, 1);

    lrpc2_kv* pairs = nullptr;
    for_each_refused_allocation([&] { rc = lrpc2_get_kv_set(m, &pairs); },
                                [&](unsigned k) {
                                    EXPECT_EQ(rc, LRPC2_MSG_NOMEM) << k;
                                    expect_next(m, LRPC2_T_KVSET);
                                });
    ASSERT_EQ(rc, 0);
    EXPECT_STREQ(pairs[1].key, "k2");
    EXPECT_EQ(pairs[2].key, nullptr);
    EXPECT_STREQ(pairs[2].value, "v3");
    lrpc2_free_kv_set(pairs, 1);
}

// A text that no earlier test left in freed memory.
std::string fresh_secret() {
    static unsigned n = 0;
    return "secret-" + std::to_string(++n) + "-kVq7Zr";
}

// How many blocks freed during op still held the text.
unsigned freed_holding(const std::string& text, const std::function<void()>& op) {
    alloc_hooks::watch_pattern(text.data(), text.size());
    op();
    const unsigned n = alloc_hooks::state().pattern_frees;
    alloc_hooks::clear_pattern();
    return n;
}

TEST(Lrpc2MsgMemory, SecureMessagesAreWipedBeforeFree) {
    for (uint32_t id : {kPing, kStop}) {
        const unsigned expect = id == kStop ? 0 : 1;
        SCOPED_TRACE(id);
        // Under construction.
        std::string secret = fresh_secret();
        lrpc2_msg* m = create(id);
        ASSERT_EQ(lrpc2_put_string(m, secret.c_str()), 0);
        EXPECT_EQ(freed_holding(secret, [&] { lrpc2_msg_free(m); }), expect);
        // Failed.
        secret = fresh_secret();
        m = create(id);
        ASSERT_EQ(lrpc2_put_string(m, secret.c_str()), 0);
        ASSERT_EQ(lrpc2_add_string(m, "x"), LRPC2_MSG_NOSET);
        EXPECT_EQ(freed_holding(secret, [&] { lrpc2_msg_free(m); }), expect);
        // Complete; the record held the image's address.
        secret = fresh_secret();
        m = create(id);
        ASSERT_EQ(lrpc2_put_string(m, secret.c_str()), 0);
        ASSERT_EQ(lrpc2_msg_complete(m), 0);
        EXPECT_EQ(freed_holding(secret, [&] { lrpc2_msg_free(m); }), expect);
        // Parsed and adopted; the record is wiped too.
        secret = fresh_secret();
        Bytes fields = {4, static_cast<uint8_t>(secret.size()), 0, 0, 0};
        fields.insert(fields.end(), secret.begin(), secret.end());
        Bytes img = ping_image(fields);
        img[8] = static_cast<uint8_t>(id);
        uint8_t* block = malloc_copy(img);
        m = lrpc2_msg_parse(block, static_cast<uint32_t>(img.size()), 0, table(), LRPC2_HEADER_LEN,
                            nullptr);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(freed_holding(secret, [&] { lrpc2_msg_free(m); }), expect);
        m = lrpc2_msg_parse(img.data(), static_cast<uint32_t>(img.size()), 1, table(),
                            LRPC2_HEADER_LEN, nullptr);
        ASSERT_NE(m, nullptr);
        block = lrpc2_msg_bytes(m, nullptr, nullptr);
        const std::string data_address(reinterpret_cast<const char*>(&block), sizeof block);
        EXPECT_EQ(freed_holding(data_address, [&] { lrpc2_msg_free(m); }), expect);
    }
}

// A message that outgrows its first 512 bytes moves to larger blocks; a secure one leaves no
// copy of its bytes in a block given up on the way.
TEST(Lrpc2MsgMemory, GrowingSecureMessageLeavesNoCopyBehind) {
    const std::string filler(100, 'f');
    for (uint32_t id : {kPing, kStop}) {
        SCOPED_TRACE(id);
        const std::string secret = fresh_secret();
        alloc_hooks::watch_pattern(secret.data(), secret.size());
        lrpc2_msg* m = create(id);
        ASSERT_EQ(lrpc2_put_string(m, secret.c_str()), 0);
        for (int i = 0; i < 40; ++i) {
            ASSERT_EQ(lrpc2_put_string(m, filler.c_str()), 0);
        }
        ASSERT_EQ(lrpc2_msg_complete(m), 0);
        const Bytes img = image(m);
        lrpc2_msg_free(m);
        const alloc_hooks::State seen = alloc_hooks::state();
        alloc_hooks::clear_pattern();
        EXPECT_EQ(img.size(), 8 + 2 + (5 + secret.size()) + 40 * (5 + filler.size()) + 1);
        if (id == kStop) {
            EXPECT_EQ(seen.pattern_reallocs, 0u);
            EXPECT_EQ(seen.pattern_frees, 0u);
        } else {
            EXPECT_GT(seen.pattern_reallocs, 0u);
            EXPECT_EQ(seen.pattern_frees, 1u);
        }
    }
}

TEST(Lrpc2MsgMemory, ReleaseOperationsWipeWhenAsked) {
    for (int wipe : {0, 1}) {
        SCOPED_TRACE(wipe);
        const unsigned expect = wipe ? 0 : 1;
        std::string secret = fresh_secret();
        char* s = strdup(secret.c_str());
        EXPECT_EQ(freed_holding(secret, [&] { lrpc2_free_string(s, wipe); }), expect);

        secret = fresh_secret();
        uint8_t* block = reinterpret_cast<uint8_t*>(strdup(secret.c_str()));
        EXPECT_EQ(freed_holding(
                      secret,
                      [&] { lrpc2_free_block(block, static_cast<uint32_t>(secret.size()), wipe); }),
                  expect);

        // Sets as the gets hand them out; with wipe the pointer slots are zeroed as well.
        static const char* const kSet[] = {"a", "b", nullptr};
        Msg m(create());
        secret = fresh_secret();
        const lrpc2_kv_in pairs_in[] = {{secret.c_str(), secret.c_str()}, {nullptr, nullptr}};
        ASSERT_EQ(lrpc2_put_string_set(m, kSet), 0);
        ASSERT_EQ(lrpc2_put_kv_set(m, pairs_in), 0);
        ASSERT_EQ(lrpc2_msg_complete(m), 0);
        char** texts = nullptr;
        ASSERT_EQ(lrpc2_get_string_set(m, &texts), 0);
        const std::string slot(reinterpret_cast<const char*>(&texts[1]), sizeof texts[1]);
        EXPECT_EQ(freed_holding(slot, [&] { lrpc2_free_string_set(texts, wipe); }), expect);
        lrpc2_kv* pairs = nullptr;
        ASSERT_EQ(lrpc2_get_kv_set(m, &pairs), 0);
        EXPECT_EQ(freed_holding(secret, [&] { lrpc2_free_kv_set(pairs, wipe); }), 2 * expect);
    }
    const std::string secret = fresh_secret();
    void* block = strdup(secret.c_str());
    EXPECT_EQ(freed_holding(secret,
                            [&] { lrpc2_wipe_free(block, static_cast<uint32_t>(secret.size())); }),
              0u);
    lrpc2_wipe_free(nullptr, 5);
    lrpc2_free_block(nullptr, 5, 1);
    lrpc2_free_string(nullptr, 1);
    lrpc2_free_string_set(nullptr, 1);
    lrpc2_free_kv_set(nullptr, 1);
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
        EXPECT_EQ(seen.pattern_reallocs, wipe ? 0u : 2u);
        EXPECT_EQ(seen.pattern_frees, 0u);
        ASSERT_NE(block, nullptr);
        EXPECT_LT(malloc_usable_size(block), 1712u);
        EXPECT_EQ(memcmp(block, secret.data(), secret.size()), 0);
        EXPECT_EQ(buf.b.start, nullptr);
        EXPECT_EQ(buf.b.capacity, 1712u);
        explicit_bzero(block, secret.size());
        free(block);
    }
}

}  // namespace
