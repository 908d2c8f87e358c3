// What a process authentication against the simulated daemon leaves in freed memory: the
// proof contents, the proof paths and the bytes of the secure request must all be zeroed
// before their blocks are freed. Every block the library frees or hands to realloc is
// searched (tests/support/alloc_hooks.h).
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "lrpc2/conn.h"
#include "lrpc2/exchange.h"
#include "lrpc2/msg.h"
#include "lrpc2/status.h"
#include "support/alloc_hooks.h"
#include "support/kvdsim.h"

namespace {

using kvtest::Kvdsim;
using kvtest::TempDir;

std::string repeated(const std::string& unit, size_t bytes) {
    std::string out;
    while (out.size() < bytes) {
        out += unit;
    }
    return out;
}

// Searched for in every block freed during one authenticated stop request.
struct Watched {
    std::string what;
    std::string bytes;
};

struct Seen {
    int32_t status = -1;
    uint32_t reply_id = 0;
    alloc_hooks::State hooks;
};

// Connects, sends a secure stop request carrying `secret`, gets challenged and answers, and
// releases everything, watching for `pattern` from the connect to the close.
Seen stopWatching(const Kvdsim& daemon, const std::string& secret, const std::string& pattern) {
    Seen seen;
    alloc_hooks::watch_pattern(pattern.data(), pattern.size());
    lrpc2_conn* conn =
        lrpc2_connect_timeout(daemon.socket().c_str(), lrpc2_default_table(), 2, &seen.status);
    if (conn != nullptr) {
        lrpc2_msg* stop =
            lrpc2_msg_create(LRPC2_ID_KV_STOP, 0, lrpc2_default_table(), LRPC2_HEADER_LEN, nullptr);
        if (stop != nullptr && lrpc2_put_string(stop, secret.c_str()) == 0 &&
            lrpc2_msg_complete(stop) == 0) {
            lrpc2_msg* reply = lrpc2_exchange_timeout(conn, stop, 2, &seen.status);
            lrpc2_msg_id(reply, &seen.reply_id);
            lrpc2_msg_free(reply);
        }
        lrpc2_msg_free(stop);
        lrpc2_close(conn);
    }
    seen.hooks = alloc_hooks::state();
    alloc_hooks::clear_pattern();
    return seen;
}

TEST(Lrpc2AuthWipe, NothingSecretStaysInFreedMemory) {
    TempDir files;
    // Large enough that the response message grows past its first block several times.
    const std::string content1 = repeated("P1-proof-q8Zk3w|", 3000);
    const std::string content2 = repeated("P2-proof-Vt5nXe|", 2000);
    const std::string path1 = files.file("proof-first-Hw4b");
    const std::string path2 = files.file("proof-second-Jm7c");
    std::ofstream(path1, std::ios::binary) << content1;
    std::ofstream(path2, std::ios::binary) << content2;
    const std::string secret = "stop-secret-Rb2fYd";

    TempDir dir;
    Kvdsim daemon(dir, {"--auth", "--proof-file1", path1, "--proof-file2", path2});
    ASSERT_TRUE(daemon.ready());
    // Two units of a repeated content catch any piece of it longer than two units.
    const std::vector<Watched> watched = {
        {"first proof contents", content1.substr(0, 32)},
        {"second proof contents", content2.substr(0, 32)},
        {"first proof path", path1},
        {"second proof path", path2},
        {"secure request", secret},
    };
    for (const Watched& w : watched) {
        SCOPED_TRACE(w.what);
        const Seen seen = stopWatching(daemon, secret, w.bytes);
        ASSERT_EQ(seen.status, 0);
        EXPECT_EQ(seen.reply_id, LRPC2_ID_KV_STOP);
        EXPECT_EQ(seen.hooks.pattern_frees, 0u);
        EXPECT_EQ(seen.hooks.pattern_reallocs, 0u);
    }
    // Each request was challenged: hello, stop, identity and response on every connection.
    EXPECT_EQ(daemon.log().size(), 4 * watched.size());
}

// The watch does see bytes left in a freed block: a request that is not secure keeps them.
TEST(Lrpc2AuthWipe, PlainRequestBytesAreSeen) {
    const std::string secret = "ping-text-Lc9sWq";
    alloc_hooks::watch_pattern(secret.data(), secret.size());
    lrpc2_msg* ping =
        lrpc2_msg_create(LRPC2_ID_KV_PING, 0, lrpc2_default_table(), LRPC2_HEADER_LEN, nullptr);
    ASSERT_NE(ping, nullptr);
    ASSERT_EQ(lrpc2_put_string(ping, secret.c_str()), 0);
    ASSERT_EQ(lrpc2_msg_complete(ping), 0);
    lrpc2_msg_free(ping);
    // Twice: the buffer it was built in (completion moves a small image to a block of its own
    // length) and the image.
    EXPECT_EQ(alloc_hooks::state().pattern_frees, 2u);
    alloc_hooks::clear_pattern();
}

}  // namespace
