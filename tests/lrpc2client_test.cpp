// The client session against the simulated daemon, each test in namespaces of its own
// with its own "/etc/zantorkv/zantorkv.conf".
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "lrpc2/status.h"
#include "lrpc2/table.h"
#include "support/expect_throw.h"
#include "support/hermetic.h"
#include "support/kvdsim.h"
#include "support/program.h"
#include "zfw/exception.h"
#include "zkvfw/lrpc2client.h"
#include "zkvfw/msgwrap.h"

namespace {

// What kvdsim logs for a client's hello and for an empty request of each id.
const char kHello[] = "hello 02000000";
std::string emptyRequest(const char* idHex) {
    return std::string("frame 1280cdab0b000000") + idHex + "0000";
}

class SessionTest : public ::testing::Test {
  protected:
    // The configuration naming the test's own socket, plus `extra` lines.
    void configure(const std::string& extra = "") {
        ASSERT_TRUE(kvtest::writeDaemonConfig("kvd.data.dir=" + m_dir.path() +
                                              "\nkvd.socket=sock\n" + extra));
    }

    kvtest::TempDir m_dir;
};

TEST_F(SessionTest, TypedQueriesReadTheDaemonsAnswers) {
    KV_REQUIRE_HERMETIC();
    configure();
    kvtest::Kvdsim daemon(m_dir, {});
    ASSERT_TRUE(daemon.ready());
    Lrpc2Client client;
    ASSERT_TRUE(client.connect());

    EXPECT_TRUE(client.isDaemonOnline());
    EXPECT_EQ(client.queryCollectorStatus(), "running");
    int32_t number = 0;
    std::string s2, s3, s5, s6 = "x";
    bool flag = false;
    client.queryCollectorStatus2(number, s2, s3, flag, s5, s6);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(s2, "running");
    EXPECT_EQ(s3, "kvdsim");
    EXPECT_TRUE(flag);
    EXPECT_EQ(s5, "local");
    EXPECT_EQ(s6, "");
    EXPECT_EQ(client.queryDBSize(), "1048576");
    EXPECT_EQ(client.queryDespoolRate(), "0");
    EXPECT_EQ(client.reloadProperties(), 0);
    EXPECT_TRUE(client.ping(0));
    client.stopDaemon();
    client.disconnect();
    kvtest::expectThrow<zfw::SystemException>([&] { client.stopDaemon(); },
                                              "Can't send an lrpc2 message yet, not connected");

    EXPECT_EQ(daemon.log(), (std::vector<std::string>{
                                std::string("1 ") + kHello,
                                "1 " + emptyRequest("50"),  // 80
                                "1 " + emptyRequest("5a"),  // 90
                                "1 " + emptyRequest("5b"),  // 91
                                "1 " + emptyRequest("64"),  // 100
                                "1 " + emptyRequest("6e"),  // 110
                                "1 " + emptyRequest("78"),  // 120
                                "1 " + emptyRequest("0a"),  // 10
                                "1 " + emptyRequest("14"),  // 20
                            }));
}

// Exchanges that fail as I/O: ping says false and reloadProperties gives 501.
TEST_F(SessionTest, FailedExchangesGiveFallbacks) {
    KV_REQUIRE_HERMETIC();
    configure();
    kvtest::Kvdsim daemon(m_dir, {"--fault", "close-request"});
    ASSERT_TRUE(daemon.ready());
    Lrpc2Client client;
    ASSERT_TRUE(client.connect());
    EXPECT_FALSE(client.ping());
    client.disconnect();
    ASSERT_TRUE(client.connect());
    EXPECT_EQ(client.reloadProperties(), 501);
}

enum Reached { kNone, kSock, kAudit, kDefault };

struct SocketConfig {
    const char* name;
    std::string config;  // "DIR" stands for the test's directory
    Reached reached;
};

TEST_F(SessionTest, SocketPathFromDataDirectoryAndName) {
    KV_REQUIRE_HERMETIC();
    const std::vector<SocketConfig> cases = {
        {"directory and name", "kvd.data.dir=DIR\nkvd.socket=sock\n", kSock},
        {"trailing slash doubles it", "kvd.data.dir=DIR/\nkvd.socket=sock\n", kSock},
        {"absolute name is appended", "kvd.data.dir=DIR\nkvd.socket=/sock\n", kSock},
        {"last of repeated keys", "kvd.data.dir=/none\nkvd.data.dir=DIR\nkvd.socket=sock\n", kSock},
        {"expanded from another key", "base=DIR\nkvd.data.dir=$base\nkvd.socket=sock\n", kSock},
        {"default name", "kvd.data.dir=DIR\n", kAudit},
        {"default directory and name", "lrpc2.timeout=5\n", kDefault},
        {"relative directory", "kvd.data.dir=DIR_RELATIVE\nkvd.socket=sock\n", kNone},
        // Set but unexpandable (no host settings here): no fallback to the default socket.
        {"unexpandable directory", "kvd.data.dir=$JOINNAME\nkvd.socket=audit\n", kNone},
        {"unexpandable name", "kvd.data.dir=/var/zantorkv\nkvd.socket=$SITE\n", kNone},
    };
    kvtest::TempDir auditLog, defaultLog;
    kvtest::Kvdsim sock(m_dir, {});
    kvtest::Kvdsim audit(auditLog, {}, {}, m_dir.file("audit"));
    kvtest::Kvdsim byDefault(defaultLog, {}, {}, "/var/zantorkv/audit");
    ASSERT_TRUE(sock.ready() && audit.ready() && byDefault.ready());
    for (const SocketConfig& c : cases) {
        SCOPED_TRACE(c.name);
        std::string text = c.config;
        for (size_t at; (at = text.find("DIR_RELATIVE")) != std::string::npos;) {
            text.replace(at, 12, m_dir.path().substr(1));
        }
        for (size_t at; (at = text.find("DIR")) != std::string::npos;) {
            text.replace(at, 3, m_dir.path());
        }
        ASSERT_TRUE(kvtest::writeDaemonConfig(text));
        const size_t before[] = {sock.log().size(), audit.log().size(), byDefault.log().size()};
        Lrpc2Client client;
        EXPECT_EQ(client.connect(), c.reached != kNone);
        EXPECT_EQ(sock.log().size(), before[0] + (c.reached == kSock ? 1 : 0));
        EXPECT_EQ(audit.log().size(), before[1] + (c.reached == kAudit ? 1 : 0));
        EXPECT_EQ(byDefault.log().size(), before[2] + (c.reached == kDefault ? 1 : 0));
    }
}

}  // namespace
