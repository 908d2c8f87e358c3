// The client session against the simulated daemon, each test in namespaces of its own
// with its own "/etc/zantorkv/zantorkv.conf".
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/expect_throw.h"
#include "support/kvdsim.h"
#include "support/program.h"
#include "zfw/exception.h"
#include "zkvfw/lrpc2client.h"

namespace {

// What kvdsim logs for a client's hello and for an empty request of each id.
const char kHello[] = "hello 02000000";
std::string emptyRequest(const char* idHex) {
    return std::string("frame 1280cdab0b000000") + idHex + "0000";
}

TEST(SessionTest, TypedQueriesReadTheDaemonsAnswers) {
    kvtest::TempDir dir;
    ASSERT_TRUE(kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path() + "\nkvd.socket=sock\n"));
    kvtest::Kvdsim daemon(dir, {"--fault", "close-request", "--fault-conn", "2"});
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
    // The second connection's request is read, then the daemon closes it: the failed ping
    // says false, and the reload sent on that closed connection gives 501 and the text.
    ASSERT_TRUE(client.connect());
    std::string failure;
    EXPECT_FALSE(client.ping());
    EXPECT_EQ(client.reloadProperties(&failure), 501);
    EXPECT_EQ(failure, "Unable to send lrpc2 message: 404 (Socket closed)");

    EXPECT_EQ(daemon.log(),
              (std::vector<std::string>{std::string("1 ") + kHello,
                                        "1 " + emptyRequest("50"),  // 80
                                        "1 " + emptyRequest("5a"),  // 90
                                        "1 " + emptyRequest("5b"),  // 91
                                        "1 " + emptyRequest("64"),  // 100
                                        "1 " + emptyRequest("6e"),  // 110
                                        "1 " + emptyRequest("78"),  // 120
                                        "1 " + emptyRequest("0a"),  // 10
                                        "1 " + emptyRequest("14"),  // 20
                                        std::string("2 ") + kHello, "2 " + emptyRequest("0a")}));
}

enum Reached { kNone, kSock, kAudit, kDefault };

struct SocketConfig {
    const char* name;
    std::string config;  // "DIR" stands for the test's directory
    std::string path;    // the session's socket path ("" when refused)
    Reached reached;
};

TEST(SessionTest, SocketPathFromDataDirectoryAndName) {
    kvtest::TempDir dir;
    const std::vector<SocketConfig> cases = {
        {"directory and name", "kvd.data.dir=DIR\nkvd.socket=sock\n", "DIR/sock", kSock},
        {"trailing slash doubles it", "kvd.data.dir=DIR/\nkvd.socket=sock\n", "DIR//sock", kSock},
        {"absolute name is appended", "kvd.data.dir=DIR\nkvd.socket=/sock\n", "DIR//sock", kSock},
        {"last of repeated keys", "kvd.data.dir=/none\nkvd.data.dir=DIR\nkvd.socket=sock\n",
         "DIR/sock", kSock},
        {"expanded", "base=DIR\nkvd.data.dir=$base\nkvd.socket=sock\n", "DIR/sock", kSock},
        {"default name", "kvd.data.dir=DIR\n", "DIR/audit", kAudit},
        {"default directory and name", "lrpc2.timeout=5\n", "/var/zantorkv/audit", kDefault},
        {"relative directory", "kvd.data.dir=srv\nkvd.socket=sock\n", "srv/sock", kNone},
        // Set but unexpandable (no host settings here): no path, no fallback to the default.
        {"unexpandable directory", "kvd.data.dir=$JOINNAME\nkvd.socket=audit\n", "", kNone},
        {"unexpandable name", "kvd.data.dir=/var/zantorkv\nkvd.socket=$SITE\n", "", kNone}};
    kvtest::TempDir auditLog, defaultLog;
    kvtest::Kvdsim sock(dir, {});
    kvtest::Kvdsim audit(auditLog, {}, {}, dir.file("audit"));
    kvtest::Kvdsim byDefault(defaultLog, {}, {}, "/var/zantorkv/audit");
    ASSERT_TRUE(sock.ready() && audit.ready() && byDefault.ready());
    for (const SocketConfig& c : cases) {
        SCOPED_TRACE(c.name);
        std::string text = c.config, path = c.path;
        for (std::string* s : {&text, &path}) {
            for (size_t at; (at = s->find("DIR")) != std::string::npos;) {
                s->replace(at, 3, dir.path());
            }
        }
        ASSERT_TRUE(kvtest::writeDaemonConfig(text));
        const size_t before[] = {sock.log().size(), audit.log().size(), byDefault.log().size()};
        Lrpc2Client client;
        EXPECT_EQ(client.socketPath(), path);
        EXPECT_EQ(client.connect(), c.reached != kNone);
        EXPECT_EQ(sock.log().size(), before[0] + (c.reached == kSock ? 1 : 0));
        EXPECT_EQ(audit.log().size(), before[1] + (c.reached == kAudit ? 1 : 0));
        EXPECT_EQ(byDefault.log().size(), before[2] + (c.reached == kDefault ? 1 : 0));
    }
}

// The parent of process `pid`, or -1.
pid_t parentOf(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("PPid:", 0) == 0) {
            return std::stoi(line.substr(5));
        }
    }
    return -1;
}

// The replier is the process that wrote the reply; the listener the one that called
// listen(), which in a forking or socket-activated daemon serves nothing.
TEST(SessionTest, ReplierAndListenerPids) {
    for (const char* shape : {"single", "fork", "activation"}) {
        SCOPED_TRACE(shape);
        kvtest::TempDir dir;
        kvtest::Kvdsim daemon(dir, {"--shape", shape, "--serve-as", "65534"});
        ASSERT_TRUE(daemon.ready());
        Lrpc2Client client;
        client.setSocketPath(daemon.socket());
        EXPECT_EQ(client.replierPid(), -1);
        EXPECT_EQ(client.listenerPid(), -1);
        ASSERT_TRUE(client.connect());
        EXPECT_EQ(client.replierPid(), -1);
        EXPECT_EQ(client.listenerPid(), daemon.pid());
        EXPECT_TRUE(client.ping());
        const pid_t replier = client.replierPid();
        if (std::string(shape) == "single") {
            EXPECT_EQ(replier, daemon.pid());
        } else {
            EXPECT_NE(replier, daemon.pid());
            EXPECT_EQ(parentOf(replier), daemon.pid());
        }
        EXPECT_EQ(client.listenerPid(), daemon.pid());
        client.disconnect();
        EXPECT_EQ(client.replierPid(), -1);
    }
}

}  // namespace
