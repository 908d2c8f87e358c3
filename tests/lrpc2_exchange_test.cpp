// Request exchange and process authentication against the simulated daemon and against
// scripted peers over socket pairs and pipes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "lrpc2/conn.h"
#include "lrpc2/exchange.h"
#include "lrpc2/msg.h"
#include "lrpc2/status.h"
#include "support/child.h"
#include "support/kvdsim.h"

namespace {

using kvtest::ChildProcess;
using kvtest::Kvdsim;
using kvtest::TempDir;
using kvtest::writeFile;

const lrpc2_msg_table* table() {
    return lrpc2_default_table();
}

// A sysfs attribute claims 4096 bytes but holds fewer: a file that ends early.
const char kShortFile[] = "/sys/kernel/mm/transparent_hugepage/enabled";

lrpc2_msg* completed(uint32_t id) {
    lrpc2_msg* msg = lrpc2_msg_create(id, 0, table(), LRPC2_HEADER_LEN, nullptr);
    EXPECT_NE(msg, nullptr);
    EXPECT_EQ(lrpc2_msg_complete(msg), 0);
    return msg;
}

std::string hex(const uint8_t* data, size_t n) {
    std::string s;
    char two[3];
    for (size_t i = 0; i < n; ++i) {
        snprintf(two, sizeof two, "%02x", data[i]);
        s += two;
    }
    return s;
}

std::string hexU32(uint32_t v) {
    return hex(reinterpret_cast<const uint8_t*>(&v), sizeof v);
}

uint32_t replyId(lrpc2_msg* reply) {
    uint32_t id = 0xFFFFFFFF;
    EXPECT_EQ(lrpc2_msg_id(reply, &id), 0);
    return id;
}

// Connects to `daemon` and exchanges one request of `id`; the status, and the reply's id
// in `id_out` when there is a reply.
int32_t exchangeOnce(const Kvdsim& daemon, uint32_t id, int32_t timeout,
                     uint32_t* id_out = nullptr) {
    int32_t status = -1;
    lrpc2_conn* conn = lrpc2_connect_timeout(daemon.socket().c_str(), table(), 2, &status);
    if (conn == nullptr) {
        ADD_FAILURE() << "connect: " << status;
        return status;
    }
    lrpc2_msg* request = completed(id);
    lrpc2_msg* reply = lrpc2_exchange_timeout(conn, request, timeout, &status);
    EXPECT_EQ(reply == nullptr, status != 0);
    if (reply != nullptr && id_out != nullptr) {
        *id_out = replyId(reply);
    }
    lrpc2_msg_free(reply);
    lrpc2_msg_free(request);
    lrpc2_close(conn);
    return status;
}

TEST(Lrpc2Exchange, StopRequestIsByteExactOnTheWire) {
    TempDir dir;
    Kvdsim daemon(dir, {});
    ASSERT_TRUE(daemon.ready());
    int32_t status = -1;
    lrpc2_conn* conn = lrpc2_connect_timeout(daemon.socket().c_str(), table(), 2, &status);
    ASSERT_EQ(status, 0);
    lrpc2_msg* request = completed(LRPC2_ID_KV_STOP);
    for (int round = 0; round < 2; ++round) {
        lrpc2_msg* reply = lrpc2_exchange_timeout(conn, request, 2, &status);
        ASSERT_EQ(status, 0);
        EXPECT_EQ(replyId(reply), 20u);
        uint32_t tag = 99;
        EXPECT_EQ(lrpc2_msg_next_type(reply, &tag), 0);
        EXPECT_EQ(tag, 0u);
        lrpc2_msg_free(reply);
    }
    // Stamped in place, the same way both times.
    uint32_t length = 0;
    const uint8_t* image = lrpc2_msg_bytes(request, &length, nullptr);
    EXPECT_EQ(hex(image, length), "1280cdab0b000000140000");
    lrpc2_msg_free(request);
    lrpc2_close(conn);
    const std::vector<std::string> expected = {"1 hello 02000000", "1 frame 1280cdab0b000000140000",
                                               "1 frame 1280cdab0b000000140000"};
    EXPECT_EQ(daemon.log(), expected);
}

TEST(Lrpc2Exchange, ReplyFieldsAreReadable) {
    TempDir dir;
    Kvdsim daemon(dir, {});
    ASSERT_TRUE(daemon.ready());
    int32_t status = -1;
    lrpc2_conn* conn = lrpc2_connect(daemon.socket().c_str(), table(), &status);
    ASSERT_EQ(status, 0);
    lrpc2_msg* online = completed(LRPC2_ID_KV_QUERY_IS_DAEMON_ONLINE);
    lrpc2_msg* reply = lrpc2_exchange(conn, online, &status);
    ASSERT_EQ(status, 0);
    int32_t flag = 0;
    EXPECT_EQ(lrpc2_get_bool(reply, &flag), 0);
    EXPECT_EQ(flag, 1);
    lrpc2_msg_free(reply);
    lrpc2_msg* collector = completed(LRPC2_ID_KV_QUERY_COLLECTOR_STATUS);
    reply = lrpc2_exchange(conn, collector, &status);
    ASSERT_EQ(status, 0);
    char* text = nullptr;
    EXPECT_EQ(lrpc2_get_string(reply, &text), 0);
    EXPECT_STREQ(text, "running");
    lrpc2_free_string(text, 0);
    lrpc2_msg_free(reply);
    lrpc2_msg_free(collector);
    lrpc2_msg_free(online);
    lrpc2_close(conn);
}

struct DaemonCase {
    std::vector<std::string> args;
    int32_t timeout;
    int32_t status;
};

std::string describe(const DaemonCase& c) {
    std::string s;
    for (const auto& a : c.args) {
        s += a + " ";
    }
    return s + "timeout " + std::to_string(c.timeout);
}

TEST(Lrpc2Exchange, ReplyFaults) {
    const std::vector<DaemonCase> cases = {
        {{"--fault", "bad-magic"}, 2, LRPC2_ERR_SOCKET},
        {{"--fault", "swapped-magic"}, 2, LRPC2_ERR_SOCKET},
        {{"--fault", "bad-tag"}, 2, LRPC2_ERR_SOCKET},
        {{"--fault", "trailing-byte"}, 2, LRPC2_ERR_SOCKET},
        {{"--fault", "short-length"}, 2, LRPC2_ERR_SOCKET},
        // Refused from the header alone: waiting for the body would time out instead.
        {{"--fault", "huge-length"}, 2, LRPC2_ERR_SOCKET},
        {{"--fault", "close-request"}, 2, LRPC2_ERR_CLOSED},
        {{"--fault", "close-header"}, 2, LRPC2_ERR_CLOSED},
        {{"--fault", "close-body"}, 2, LRPC2_ERR_CLOSED},
        {{"--fault", "close-body"}, 0, LRPC2_ERR_CLOSED},
        {{"--fault", "silent-request"}, 1, LRPC2_ERR_TIMEOUT},
        {{"--fault", "silent-body"}, 1, LRPC2_ERR_TIMEOUT},
        {{"--piece", "1"}, 2, 0},
        {{"--piece", "3", "--piece-delay", "20"}, 0, 0},
        {{"--piece", "2", "--fault", "close-body"}, 2, LRPC2_ERR_CLOSED},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(describe(c));
        TempDir dir;
        Kvdsim daemon(dir, c.args);
        ASSERT_TRUE(daemon.ready());
        uint32_t id = 0;
        EXPECT_EQ(exchangeOnce(daemon, LRPC2_ID_KV_STOP, c.timeout, &id), c.status);
        if (c.status == 0) {
            EXPECT_EQ(id, 20u);
        }
    }
}

TEST(Lrpc2Exchange, HandshakeFaults) {
    const std::vector<DaemonCase> cases = {
        {{"--handshake", "0"}, 1, LRPC2_ERR_OPEN},
        {{"--handshake", "2"}, 1, LRPC2_ERR_OPEN},
        {{"--fault", "close-hello"}, 1, LRPC2_ERR_CLOSED},
        {{"--fault", "silent-hello"}, 1, LRPC2_ERR_TIMEOUT},
        {{"--piece", "1"}, 1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(describe(c));
        TempDir dir;
        Kvdsim daemon(dir, c.args);
        ASSERT_TRUE(daemon.ready());
        int32_t status = -1;
        lrpc2_conn* conn =
            lrpc2_connect_timeout(daemon.socket().c_str(), table(), c.timeout, &status);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(conn == nullptr, c.status != 0);
        lrpc2_close(conn);
        EXPECT_EQ(daemon.log(), std::vector<std::string>{"1 hello 02000000"});
    }
}

TEST(Lrpc2Exchange, FaultOnALaterConnectionOnly) {
    TempDir dir;
    Kvdsim daemon(dir, {"--fault", "silent-request", "--fault-conn", "2"});
    ASSERT_TRUE(daemon.ready());
    EXPECT_EQ(exchangeOnce(daemon, LRPC2_ID_KV_STOP, 1), 0);
    EXPECT_EQ(exchangeOnce(daemon, LRPC2_ID_KV_PING, 1), LRPC2_ERR_TIMEOUT);
    EXPECT_EQ(exchangeOnce(daemon, LRPC2_ID_KV_PING, 1), 0);
}

TEST(Lrpc2Exchange, DaemonThatExitsOnStop) {
    TempDir dir;
    Kvdsim daemon(dir, {"--exit-on-stop"});
    ASSERT_TRUE(daemon.ready());
    EXPECT_EQ(exchangeOnce(daemon, LRPC2_ID_KV_PING, 2), 0);
    EXPECT_EQ(exchangeOnce(daemon, LRPC2_ID_KV_STOP, 2), 0);
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_FALSE(std::filesystem::exists(daemon.socket()));
    int32_t status = -1;
    EXPECT_EQ(lrpc2_connect_timeout(daemon.socket().c_str(), table(), 1, &status), nullptr);
    EXPECT_EQ(status, LRPC2_ERR_OPEN);
}

TEST(Lrpc2Exchange, DaemonEndsCleanlyOnSigterm) {
    TempDir dir;
    Kvdsim daemon(dir, {});
    ASSERT_TRUE(daemon.ready());
    EXPECT_EQ(exchangeOnce(daemon, LRPC2_ID_KV_STOP, 2), 0);  // keeps running
    EXPECT_TRUE(std::filesystem::exists(daemon.socket()));
    EXPECT_EQ(daemon.terminate(), 0);
    EXPECT_FALSE(std::filesystem::exists(daemon.socket()));
}

TEST(Lrpc2Exchange, BadArguments) {
    lrpc2_msg* request = completed(LRPC2_ID_KV_STOP);
    int32_t status = -1;
    EXPECT_EQ(lrpc2_exchange_timeout(nullptr, request, 1, &status), nullptr);
    EXPECT_EQ(status, LRPC2_ERR_BADSESSION);
    uint32_t length = 0;
    const uint8_t* image = lrpc2_msg_bytes(request, &length, nullptr);
    EXPECT_EQ(hex(image, length), "0000000000000000140000");  // untouched
    EXPECT_EQ(lrpc2_process_auth(nullptr, 1, &status), nullptr);
    EXPECT_EQ(status, LRPC2_ERR_BADSESSION);

    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    lrpc2_conn conn = {sv[0], sv[0], table(), 1};
    EXPECT_EQ(lrpc2_exchange_timeout(&conn, nullptr, 1, &status), nullptr);
    EXPECT_EQ(status, LRPC2_ERR_BADMSG);
    lrpc2_msg* building = lrpc2_msg_create(LRPC2_ID_KV_PING, 0, table(), LRPC2_HEADER_LEN, nullptr);
    EXPECT_EQ(lrpc2_exchange(&conn, building, &status), nullptr);
    EXPECT_EQ(status, LRPC2_ERR_BADMSG);
    // Nothing reached the peer.
    char byte = 0;
    EXPECT_EQ(recv(sv[1], &byte, 1, MSG_DONTWAIT), -1);
    lrpc2_msg_free(building);
    lrpc2_msg_free(request);
    close(sv[0]);
    close(sv[1]);
}

// A peer over a socket pair that accepts the handshake, reads one 11-byte request and
// answers with `reply`, then waits for the client to close.
int scriptedPeer(int fd, const std::vector<uint8_t>& reply) {
    uint32_t hello = 0;
    uint8_t request[11];
    const uint32_t accept = 1;
    if (!kvtest::readFully(fd, &hello, 4) || !kvtest::writeFully(fd, &accept, 4) ||
        !kvtest::readFully(fd, request, sizeof request) ||
        !kvtest::writeFully(fd, reply.data(), reply.size())) {
        return 1;
    }
    char rest = 0;
    while (read(fd, &rest, 1) > 0) {
    }
    return 0;
}

std::vector<uint8_t> frame(uint32_t magic, uint32_t length, const std::vector<uint8_t>& body) {
    std::vector<uint8_t> f(8 + body.size());
    memcpy(f.data(), &magic, 4);
    memcpy(f.data() + 4, &length, 4);
    std::copy(body.begin(), body.end(), f.begin() + 8);
    return f;
}

// A whole reply frame of LRPC2_MAX_REPLY_LEN bytes: id 20 and one blob filling it.
std::vector<uint8_t> boundFrame() {
    const uint32_t length = LRPC2_MAX_REPLY_LEN;
    const uint32_t blob = length - 8 - 2 - 5 - 1;
    std::vector<uint8_t> body = {20, 0, 6};
    body.resize(3 + 4);
    memcpy(&body[3], &blob, 4);
    body.resize(body.size() + blob, 'b');
    body.push_back(0);
    return frame(LRPC2_MAGIC, length, body);
}

TEST(Lrpc2Exchange, ScriptedReplies) {
    struct Case {
        const char* name;
        std::vector<uint8_t> reply;
        int32_t status;
        int high_fd;  // move the client's descriptor here first (0: leave it)
    };
    const std::vector<Case> cases = {
        {"length 0", frame(LRPC2_MAGIC, 0, {}), LRPC2_ERR_SOCKET, 0},
        {"length 7", frame(LRPC2_MAGIC, 7, {}), LRPC2_ERR_SOCKET, 0},
        {"header only", frame(LRPC2_MAGIC, 8, {}), LRPC2_ERR_SOCKET, 0},
        {"no end tag", frame(LRPC2_MAGIC, 10, {20, 0}), LRPC2_ERR_SOCKET, 0},
        {"length 2^32-1", frame(LRPC2_MAGIC, 0xFFFFFFFF, {}), LRPC2_ERR_SOCKET, 0},
        {"at the bound", boundFrame(), 0, 0},
        // Refused from the header alone: the client does not wait for a body.
        {"just above the bound", frame(LRPC2_MAGIC, LRPC2_MAX_REPLY_LEN + 1, {}), LRPC2_ERR_SOCKET,
         0},
        {"byte-swapped magic", frame(0x1280CDAB, 11, {20, 0, 0}), LRPC2_ERR_SOCKET, 0},
        {"id outside the table", frame(LRPC2_MAGIC, 11, {0xE7, 0x03, 0}), 0, 0},
        {"on a high descriptor", frame(LRPC2_MAGIC, 11, {20, 0, 0}), 0, 2000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        ChildProcess peer([&] {
            close(sv[0]);
            return scriptedPeer(sv[1], c.reply);
        });
        close(sv[1]);
        int fd = sv[0];
        if (c.high_fd != 0) {
            ASSERT_EQ(dup2(fd, c.high_fd), c.high_fd);
            close(fd);
            fd = c.high_fd;
        }
        int32_t status = -1;
        lrpc2_conn* conn = lrpc2_attach(fd, fd, table(), 2, &status);
        ASSERT_EQ(status, 0);
        lrpc2_msg* request = completed(LRPC2_ID_KV_STOP);
        lrpc2_msg* reply = lrpc2_exchange_timeout(conn, request, 2, &status);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(reply == nullptr, c.status != 0);
        if (reply != nullptr) {
            uint32_t id = 0;
            memcpy(&id, &c.reply[8], 2);
            EXPECT_EQ(replyId(reply), id);
        }
        lrpc2_msg_free(reply);
        lrpc2_msg_free(request);
        lrpc2_close(conn);
        EXPECT_EQ(peer.wait(), 0);
    }
}

std::string frameHeaderHex(uint32_t length, uint16_t id) {
    return "1280cdab" + hexU32(length) + hex(reinterpret_cast<const uint8_t*>(&id), 2);
}

TEST(Lrpc2Auth, FullDialogue) {
    TempDir dir;
    Kvdsim daemon(dir, {"--auth", "--proof-size", "48"});
    ASSERT_TRUE(daemon.ready());
    int32_t status = -1;
    lrpc2_conn* conn = lrpc2_connect_timeout(daemon.socket().c_str(), table(), 2, &status);
    ASSERT_EQ(status, 0);
    lrpc2_msg* stop = completed(LRPC2_ID_KV_STOP);
    lrpc2_msg* reply = lrpc2_exchange_timeout(conn, stop, 2, &status);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(replyId(reply), 20u);
    lrpc2_msg_free(reply);
    // Authenticated: the next request is answered at once.
    lrpc2_msg* ping = completed(LRPC2_ID_KV_PING);
    reply = lrpc2_exchange_timeout(conn, ping, 2, &status);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(replyId(reply), 10u);
    lrpc2_msg_free(reply);
    lrpc2_msg_free(ping);
    lrpc2_msg_free(stop);
    lrpc2_close(conn);

    const std::vector<std::string> log = daemon.log();
    ASSERT_EQ(log.size(), 5u);
    EXPECT_EQ(log[1], "1 frame 1280cdab0b000000140000");
    EXPECT_EQ(log[2], "1 frame " + frameHeaderHex(21, 1) + "03" + hexU32(geteuid()) + "03" +
                          hexU32(getegid()) + "00");
    // Two blobs of 48 bytes: tag 6, length 0x30, then the bytes.
    const std::string response = log[3].substr(8);
    ASSERT_EQ(response.size(), 2u * (8 + 2 + 2 * (1 + 4 + 48) + 1));
    EXPECT_EQ(response.substr(0, 20), frameHeaderHex(117, 2));
    EXPECT_EQ(response.substr(20, 10), "0630000000");
    EXPECT_EQ(response.substr(20 + 2 * 53, 10), "0630000000");
    EXPECT_EQ(response.substr(response.size() - 2), "00");
    EXPECT_EQ(log[4], "1 frame 1280cdab0b0000000a0000");
    // The daemon removed its proof files.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 2);
}

TEST(Lrpc2Auth, DialogueFailures) {
    const std::vector<DaemonCase> cases = {
        {{"--auth-answer", "one-path"}, 2, LRPC2_ERR_AUTH},
        {{"--auth-answer", "nested"}, 2, LRPC2_ERR_AUTH},
        {{"--fault", "close-body", "--fault-frame", "1"}, 2, LRPC2_ERR_CLOSED},
        {{"--fault", "close-request", "--fault-frame", "2"}, 2, LRPC2_ERR_CLOSED},
        {{"--fault", "silent-request", "--fault-frame", "2"}, 1, LRPC2_ERR_TIMEOUT},
        {{"--fault", "bad-magic", "--fault-frame", "2"}, 2, LRPC2_ERR_SOCKET},
        {{"--fault", "huge-length", "--fault-frame", "2"}, 2, LRPC2_ERR_SOCKET},
        {{"--fault", "close-request", "--fault-frame", "3"}, 2, LRPC2_ERR_CLOSED},
        {{"--fault", "trailing-byte", "--fault-frame", "3"}, 2, LRPC2_ERR_SOCKET},
        {{"--fault", "silent-body", "--fault-frame", "3"}, 1, LRPC2_ERR_TIMEOUT},
        {{"--piece", "1", "--piece-delay", "1"}, 2, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(describe(c));
        TempDir dir;
        std::vector<std::string> args = {"--auth"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        Kvdsim daemon(dir, args);
        ASSERT_TRUE(daemon.ready());
        EXPECT_EQ(exchangeOnce(daemon, LRPC2_ID_KV_STOP, c.timeout), c.status);
    }
}

// The name whose next open first has gSwapFrom renamed over it: a file replaced between
// its examination and its open.
std::string gSwapAt;
std::string gSwapFrom;

}  // namespace

// Every open of this process comes through here (the executable's definition wins over the
// C library's); all but the one armed above go straight to the system.
extern "C" int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list args;
        va_start(args, flags);
        mode = static_cast<mode_t>(va_arg(args, int));
        va_end(args);
    }
    if (!gSwapAt.empty() && gSwapAt == path) {
        gSwapAt.clear();
        if (rename(gSwapFrom.c_str(), path) != 0) {
            return -1;
        }
    }
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

namespace {

// Proof files named by the daemon: only regular files of 1 byte to 1 MiB are read.
TEST(Lrpc2Auth, ProofFileKinds) {
    TempDir files;
    const std::string good = files.file("good");
    writeFile(good, "proof-one");
    writeFile(files.file("other"), "proof-two");
    writeFile(files.file("empty"), "");
    writeFile(files.file("max"), std::string(LRPC2_MAX_PROOF_LEN, 'm'));
    writeFile(files.file("over"), std::string(LRPC2_MAX_PROOF_LEN + 1, 'o'));
    ASSERT_EQ(mkfifo(files.file("fifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink(good.c_str(), files.file("link").c_str()), 0);
    std::filesystem::create_directory(files.file("dir"));
    struct Case {
        std::string second;
        int32_t status;
        bool swapped = false;  // replaced by a regular file of its size after the examination
    };
    const std::vector<Case> cases = {
        {files.file("other"), 0},
        {files.file("other"), LRPC2_ERR_AUTH, true},
        {files.file("max"), 0},
        {files.file("empty"), LRPC2_ERR_AUTH},
        {files.file("over"), LRPC2_ERR_AUTH},
        {files.file("fifo"), LRPC2_ERR_AUTH},
        {files.file("link"), LRPC2_ERR_AUTH},
        {files.file("dir"), LRPC2_ERR_AUTH},
        {files.file("missing"), LRPC2_ERR_AUTH},
        {"/dev/null", LRPC2_ERR_AUTH},
        {kShortFile, LRPC2_ERR_AUTH},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second + (c.swapped ? " swapped" : ""));
        TempDir dir;
        Kvdsim daemon(dir, {"--auth", "--proof-file1", good, "--proof-file2", c.second});
        ASSERT_TRUE(daemon.ready());
        if (c.swapped) {
            gSwapFrom = files.file("swap");
            writeFile(gSwapFrom, "proof-new");
            gSwapAt = c.second;
        }
        EXPECT_EQ(exchangeOnce(daemon, LRPC2_ID_KV_STOP, 2), c.status);
        EXPECT_TRUE(gSwapAt.empty());
        // hello, request, identity; the response only when the files could be read.
        EXPECT_EQ(daemon.log().size(), c.status == 0 ? 4u : 3u);
    }
}

// The proof is only given to a peer running as root or as the client's own user.
TEST(Lrpc2Auth, PeerIdentity) {
    struct Case {
        const char* name;
        uid_t daemon_uid;  // 0: run as root
        uid_t client_uid;  // 0: stay root
        int32_t status;
    };
    const Case cases[] = {
        {"root daemon, root client", 0, 0, 0},
        {"root daemon, other client", 0, 65534, 0},
        {"daemon of the client's user", 65534, 65534, 0},
        {"daemon of another user", 65534, 0, LRPC2_ERR_AUTH},
        {"daemon of a third user", 65533, 65534, LRPC2_ERR_AUTH},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        std::vector<std::string> prefix;
        if (c.daemon_uid != 0) {
            ASSERT_EQ(chown(dir.path().c_str(), c.daemon_uid, c.daemon_uid), 0);
            const std::string id = std::to_string(c.daemon_uid);
            prefix = {"setpriv", "--reuid=" + id, "--regid=" + id, "--clear-groups"};
        }
        Kvdsim daemon(dir, {"--auth"}, prefix);
        ASSERT_TRUE(daemon.ready());
        ChildProcess client([&] {
            if (c.client_uid != 0 && (setresgid(c.client_uid, c.client_uid, c.client_uid) != 0 ||
                                      setresuid(c.client_uid, c.client_uid, c.client_uid) != 0)) {
                return 2;
            }
            const int32_t status = exchangeOnce(daemon, LRPC2_ID_KV_STOP, 2);
            return status == c.status ? 0 : 1;
        });
        EXPECT_EQ(client.wait(), 0);
        // Refused before the client named itself.
        EXPECT_EQ(daemon.log().size(), c.status == 0 ? 4u : 2u);
    }
}

// Over pipes the peer's identity cannot be known: the challenge is refused.
TEST(Lrpc2Auth, PipePeerIsNotTrusted) {
    int to_daemon[2];
    int to_client[2];
    ASSERT_EQ(pipe(to_daemon), 0);
    ASSERT_EQ(pipe(to_client), 0);
    ChildProcess daemon([&] {
        close(to_daemon[1]);
        close(to_client[0]);
        uint32_t hello = 0;
        uint8_t request[11];
        const uint32_t accept = 1;
        const std::vector<uint8_t> challenge = frame(LRPC2_MAGIC, 11, {1, 0, 0});
        if (!kvtest::readFully(to_daemon[0], &hello, 4) ||
            !kvtest::writeFully(to_client[1], &accept, 4) ||
            !kvtest::readFully(to_daemon[0], request, sizeof request) ||
            !kvtest::writeFully(to_client[1], challenge.data(), challenge.size())) {
            return 1;
        }
        char more = 0;
        return read(to_daemon[0], &more, 1) == 0 ? 0 : 3;  // nothing after the request
    });
    close(to_daemon[0]);
    close(to_client[1]);
    int32_t status = -1;
    lrpc2_conn* conn = lrpc2_attach(to_client[0], to_daemon[1], table(), 2, &status);
    ASSERT_EQ(status, 0);
    lrpc2_msg* request = completed(LRPC2_ID_KV_STOP);
    EXPECT_EQ(lrpc2_exchange_timeout(conn, request, 2, &status), nullptr);
    EXPECT_EQ(status, LRPC2_ERR_AUTH);
    lrpc2_msg_free(request);
    lrpc2_close(conn);
    EXPECT_EQ(daemon.wait(), 0);
}

TEST(Lrpc2ProofFiles, ReadsBothWhole) {
    TempDir dir;
    writeFile(dir.file("a"), std::string("first\0proof", 11));
    writeFile(dir.file("b"), "2");
    uint8_t* d1 = nullptr;
    uint8_t* d2 = nullptr;
    uint32_t n1 = 0;
    uint32_t n2 = 0;
    ASSERT_EQ(
        lrpc2_read_proof_files(dir.file("a").c_str(), dir.file("b").c_str(), &d1, &d2, &n1, &n2),
        0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(d1), n1), std::string("first\0proof", 11));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(d2), n2), "2");
    lrpc2_wipe_free(d1, n1);
    lrpc2_wipe_free(d2, n2);
}

TEST(Lrpc2ProofFiles, FailuresLeaveBlocksToTheCaller) {
    TempDir dir;
    const std::string a = dir.file("a");
    writeFile(a, "abc");
    uint8_t* d1 = nullptr;
    uint8_t* d2 = nullptr;
    uint32_t n1 = 0;
    uint32_t n2 = 0;
    EXPECT_EQ(lrpc2_read_proof_files(nullptr, a.c_str(), &d1, &d2, &n1, &n2), 1);
    EXPECT_EQ(lrpc2_read_proof_files(a.c_str(), nullptr, &d1, &d2, &n1, &n2), 1);
    EXPECT_EQ(lrpc2_read_proof_files(a.c_str(), a.c_str(), nullptr, &d2, &n1, &n2), 1);
    EXPECT_EQ(lrpc2_read_proof_files(a.c_str(), a.c_str(), &d1, nullptr, &n1, &n2), 1);
    EXPECT_EQ(d1, nullptr);
    // The short file is examined, opened and allocated for, then ends early.
    EXPECT_EQ(lrpc2_read_proof_files(a.c_str(), kShortFile, &d1, &d2, &n1, &n2), 1);
    EXPECT_EQ(n1, 3u);
    EXPECT_EQ(n2, 4096u);
    EXPECT_NE(d1, nullptr);
    EXPECT_NE(d2, nullptr);
    lrpc2_wipe_free(d1, n1);
    lrpc2_wipe_free(d2, n2);
}

}  // namespace
