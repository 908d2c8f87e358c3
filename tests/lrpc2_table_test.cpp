#include <gtest/gtest.h>

#include "lrpc2/status.h"
#include "lrpc2/table.h"

namespace {

TEST(Lrpc2Status, TextsOfConnectionCodesOnly) {
    EXPECT_STREQ(lrpc2_status_text(400), "Socket path does not exist");
    EXPECT_STREQ(lrpc2_status_text(405), "Socket error");
    EXPECT_STREQ(lrpc2_status_text(413),
                 "Bad magic number in communication, potential network or byte order issue");
    EXPECT_STREQ(lrpc2_status_text(416), "File operation error");
    for (int32_t code : {399, 417, 0, 203, -1, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(lrpc2_status_text(code), nullptr) << code;
    }
}

TEST(Lrpc2Table, Lookups) {
    const lrpc2_msg_table* t = lrpc2_default_table();
    struct Case {
        uint32_t id;
        const char* name;
        int secure, both;
    };
    const Case cases[] = {{0, "DISCONNECT", 0, 0},
                          {1, "_ProcessAuthChallenge", 0, 0},
                          {2, "_ProcessAuthResponse", 0, 0},
                          {20, "KVStop", 1, 1},
                          {120, "KVReloadProps", 1, 1},
                          {3, nullptr, 0, 0},
                          {32, nullptr, 0, 0},
                          {121, nullptr, 0, 0},
                          {0xFFFFFFFFu, nullptr, 0, 0}};
    for (const Case& c : cases) {
        const char* name = lrpc2_table_name(t, c.id);
        if (c.name == nullptr) {
            EXPECT_EQ(name, nullptr) << c.id;
        } else {
            EXPECT_STREQ(name, c.name) << c.id;
        }
        EXPECT_EQ(lrpc2_table_secure(t, c.id), c.secure) << c.id;
        EXPECT_EQ(lrpc2_table_flags_both(t, c.id), c.both) << c.id;
    }
    // Only bit 0 makes an entry secure; only both bits together count as both.
    const lrpc2_msg_entry odd[] = {{5, "secure", 1}, {6, "other", 2}};
    const lrpc2_msg_table oddTable = {2, odd};
    EXPECT_EQ(lrpc2_table_secure(&oddTable, 5) - lrpc2_table_secure(&oddTable, 6), 1);
    EXPECT_EQ(lrpc2_table_flags_both(&oddTable, 5) + lrpc2_table_flags_both(&oddTable, 6), 0);
    EXPECT_EQ(lrpc2_table_find(nullptr, 20), nullptr);
    EXPECT_EQ(lrpc2_table_name(nullptr, 20), nullptr);
}

}  // namespace
