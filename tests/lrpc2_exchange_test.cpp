// Request exchange and process authentication against the simulated daemon and against
// scripted peers over socket pairs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "lrpc2/conn.h"
#include "lrpc2/exchange.h"
#include "lrpc2/msg.h"
#include "lrpc2/status.h"
#include "support/alloc_hooks.h"
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

lrpc2_msg* completed(uint32_t id) {
    lrpc2_msg* msg = lrpc2_msg_create(id, 0, table(), LRPC2_HEADER_LEN, nullptr);
    EXPECT_NE(msg, nullptr);
    EXPECT_EQ(lrpc2_msg_complete(msg), 0);
    return msg;
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

// A whole reply frame of LRPC2_MAX_REPLY_LEN bytes: id 20, one blob filling it, the end tag.
std::vector<uint8_t> boundFrame() {
    std::vector<uint8_t> body(LRPC2_MAX_REPLY_LEN - 8, 0);
    const uint32_t blob = LRPC2_MAX_REPLY_LEN - 8 - 2 - 5 - 1;
    body[0] = 20;
    body[2] = LRPC2_T_BLOB;
    memcpy(&body[3], &blob, 4);
    return frame(LRPC2_MAGIC, LRPC2_MAX_REPLY_LEN, body);
}

TEST(Lrpc2Exchange, ScriptedReplies) {
    // Past the 1024 descriptors of a select() set, as far as the hard limit allows.
    rlimit files = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
    files.rlim_cur = files.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    const int high = static_cast<int>(std::min<rlim_t>(files.rlim_max, 2001) - 1);
    struct Case {
        const char* name;
        std::vector<uint8_t> reply;
        int32_t status;
        int high_fd;  // move the client's descriptor here first (0: leave it)
    };
    const std::vector<Case> cases = {
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
        {"on a high descriptor", frame(LRPC2_MAGIC, 11, {20, 0, 0}), 0, high}};
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
    // Refused before a descriptor is used: no connection, then a request not complete.
    lrpc2_conn unused = {-1, -1, table(), 1, {}};
    lrpc2_msg* building = lrpc2_msg_create(LRPC2_ID_KV_STOP, 0, table(), LRPC2_HEADER_LEN, nullptr);
    int32_t status = -1;
    EXPECT_EQ(lrpc2_exchange(nullptr, building, &status), nullptr);
    EXPECT_EQ(status, LRPC2_ERR_BADSESSION);
    EXPECT_EQ(lrpc2_exchange(&unused, building, &status), nullptr);
    EXPECT_EQ(status, LRPC2_ERR_BADMSG);
    lrpc2_msg_free(building);
}

// The name whose next open first has gSwapFrom renamed over it, or with no gSwapFrom is cut
// to 1 byte: a file replaced or shortened between its examination and its open.
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
        if (gSwapFrom.empty() ? truncate(path, 1) != 0 : rename(gSwapFrom.c_str(), path) != 0) {
            return -1;
        }
    }
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

namespace {

// The dialogue with the proof files that the daemon names: only regular files of 1 byte to
// 1 MiB that still hold what they held when examined are read. A further challenge ends the
// dialogue with 409, a failed exchange inside it with that exchange's status.
TEST(Lrpc2Auth, DialogueOutcomes) {
    TempDir files;
    const std::string good = files.file("good");
    writeFile(good, "1");  // the shortest proof
    writeFile(files.file("other"), "proof-two");
    writeFile(files.file("short"), "proof-short");
    writeFile(files.file("empty"), "");
    writeFile(files.file("max"), std::string(LRPC2_MAX_PROOF_LEN, 'm'));
    writeFile(files.file("over"), std::string(LRPC2_MAX_PROOF_LEN + 1, 'o'));
    ASSERT_EQ(mkfifo(files.file("fifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink(good.c_str(), files.file("link").c_str()), 0);
    struct Case {
        std::string second;
        int32_t status;
        std::string change = "";  // after the examination: "swapped" for a file of its size, "cut"
        std::vector<std::string> daemon = {};  // further options of the daemon
    };
    const std::vector<Case> cases = {
        {files.file("other"), 0},
        {files.file("other"), LRPC2_ERR_AUTH, "swapped"},
        {files.file("short"), LRPC2_ERR_AUTH, "cut"},
        {files.file("other"), LRPC2_ERR_AUTH, "", {"--auth-answer=nested"}},
        {files.file("other"), LRPC2_ERR_CLOSED, "", {"--fault=close-request", "--fault-frame=2"}},
        {files.file("max"), 0},
        {files.file("empty"), LRPC2_ERR_AUTH},
        {files.file("over"), LRPC2_ERR_AUTH},
        {files.file("fifo"), LRPC2_ERR_AUTH},
        {files.file("link"), LRPC2_ERR_AUTH},
        {files.file("missing"), LRPC2_ERR_AUTH},
        {"/dev/null", LRPC2_ERR_AUTH}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second + " " + c.change + (c.daemon.empty() ? "" : " " + c.daemon[0]));
        TempDir dir;
        std::vector<std::string> args = {"--auth", "--proof-file1", good, "--proof-file2",
                                         c.second};
        args.insert(args.end(), c.daemon.begin(), c.daemon.end());
        Kvdsim daemon(dir, args);
        ASSERT_TRUE(daemon.ready());
        gSwapFrom = c.change == "swapped" ? files.file("swap") : "";
        writeFile(files.file("swap"), "proof-new");
        gSwapAt = c.change.empty() ? "" : c.second;
        EXPECT_EQ(exchangeOnce(daemon, LRPC2_ID_KV_STOP, 2), c.status);
        EXPECT_TRUE(gSwapAt.empty());
        // hello, request, identity; the response only when the files could be read.
        EXPECT_EQ(daemon.log().size(), c.status == 0 ? 4u : 3u);
    }
}

// The proof is only given to a daemon whose challenge was written by a process running as
// root or as the client's own user, whoever listened: the daemon may drop to another user,
// fork a worker per connection, or serve from a child of a listener that keeps the socket.
// A daemon refused never gets the root-only file it names.
TEST(Lrpc2Auth, PeerIdentity) {
    TempDir files;
    const std::string secret = files.file("secret");
    writeFile(secret, "root-only-Qx7v");
    ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
    const std::string secretHex = "726f6f742d6f6e6c792d51783776";
    struct Case {
        const char* name;
        uid_t daemon_uid;  // 0: run as root
        uid_t client_uid;  // 0: stay root
        int32_t status;
        std::vector<std::string> daemon;  // further options
        bool names_secret;                // the daemon names the root-only file as proof
    };
    const std::vector<std::string> dropped = {"--serve-as", "65534"};
    const std::vector<std::string> forked = {"--shape=fork", "--serve-as=65534"};
    const std::vector<std::string> activated = {"--shape=activation", "--serve-as=65534"};
    const Case cases[] = {
        {"root daemon, root client", 0, 0, 0, {}, true},
        {"root daemon, other client", 0, 65534, 0, {}, false},
        {"daemon of the client's user", 65534, 65534, 0, {}, false},
        {"daemon of another user", 65534, 0, LRPC2_ERR_AUTH, {}, true},
        {"root listener serving as another user", 0, 0, LRPC2_ERR_AUTH, dropped, true},
        {"root listener serving as the client's user", 0, 65534, 0, dropped, false},
        {"root worker per connection", 0, 0, 0, {"--shape=fork"}, true},
        {"worker serving as another user", 0, 0, LRPC2_ERR_AUTH, forked, true},
        {"activated root server", 0, 0, 0, {"--shape=activation"}, true},
        {"activated server of another user", 0, 0, LRPC2_ERR_AUTH, activated, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        std::vector<std::string> prefix;
        std::vector<std::string> args = {"--auth"};
        args.insert(args.end(), c.daemon.begin(), c.daemon.end());
        if (c.names_secret) {
            args.insert(args.end(), {"--proof-file1", secret, "--proof-file2", secret});
        }
        // Room for the proof files a daemon of another user creates.
        ASSERT_EQ(chown(dir.path().c_str(), 65534, 65534), 0);
        if (c.daemon_uid != 0) {
            const std::string id = std::to_string(c.daemon_uid);
            prefix = {"setpriv", "--pdeathsig=KILL", "--reuid=" + id, "--regid=" + id,
                      "--clear-groups"};
        }
        Kvdsim daemon(dir, args, prefix);
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
        const std::vector<std::string> log = daemon.log();
        EXPECT_EQ(log.size(), c.status == 0 ? 4u : 2u);
        const bool sent = std::any_of(log.begin(), log.end(), [&](const std::string& line) {
            return line.find(secretHex) != std::string::npos;
        });
        EXPECT_EQ(sent, c.names_secret && c.status == 0);
    }
}

// The sender of a frame is the one process that wrote all of it; a challenge without one is
// refused before anything is read for it.
TEST(Lrpc2Auth, SenderOfTheLastFrame) {
    struct Case {
        const char* name;
        uint16_t id;
        bool split;  // a second process writes all but the header
        bool pipes;  // the connection is a pair of pipes
        int32_t status;
        int32_t sender;  // lrpc2_last_sender's status after the exchange
    };
    const Case cases[] = {
        {"reply from one process", 20, false, false, 0, 0},
        {"reply from two processes", 20, true, false, 0, LRPC2_ERR_NOIDENTITY},
        {"reply over pipes", 20, false, true, 0, LRPC2_ERR_NOIDENTITY},
        {"challenge from two processes", 1, true, false, LRPC2_ERR_AUTH, LRPC2_ERR_NOIDENTITY},
        {"challenge over pipes", 1, false, true, LRPC2_ERR_AUTH, LRPC2_ERR_NOIDENTITY}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        int down[2];
        int up[2];
        ASSERT_EQ(c.pipes ? pipe(down) : socketpair(AF_UNIX, SOCK_STREAM, 0, down), 0);
        if (c.pipes) {
            ASSERT_EQ(pipe(up), 0);
        } else {  // both ways over the one pair
            up[0] = dup(down[1]);
            up[1] = dup(down[0]);
        }
        const std::vector<uint8_t> reply =
            frame(LRPC2_MAGIC, 11, {static_cast<uint8_t>(c.id), 0, 0});
        ChildProcess peer([&] {
            close(down[0]);
            close(up[1]);
            uint32_t hello = 0;
            uint8_t request[11];
            const uint32_t accept = 1;
            if (!kvtest::readFully(up[0], &hello, 4) || !kvtest::writeFully(down[1], &accept, 4) ||
                !kvtest::readFully(up[0], request, sizeof request) ||
                !kvtest::writeFully(down[1], reply.data(), 8)) {
                return 1;
            }
            const auto writeBody = [&] {
                return kvtest::writeFully(down[1], &reply[8], 3) ? 0 : 1;
            };
            if ((c.split ? ChildProcess(writeBody).wait() : writeBody()) != 0) {
                return 1;
            }
            char rest = 0;
            while (read(up[0], &rest, 1) > 0) {
            }
            return 0;
        });
        close(down[1]);
        close(up[0]);
        int32_t status = -1;
        lrpc2_conn* conn = lrpc2_attach(down[0], up[1], table(), 2, &status);
        ASSERT_EQ(status, 0);
        lrpc2_sender sender = {};
        EXPECT_EQ(lrpc2_last_sender(conn, &sender), LRPC2_ERR_NOIDENTITY);
        lrpc2_msg* request = completed(LRPC2_ID_KV_STOP);
        lrpc2_msg* answer = lrpc2_exchange_timeout(conn, request, 2, &status);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(lrpc2_last_sender(conn, &sender), c.sender);
        if (c.sender == 0) {
            EXPECT_EQ(sender.pid, peer.pid());
            EXPECT_EQ(sender.uid, 0u);
        }
        // A read that fails at once (every wait fails) forgets the last frame's writer.
        if (status == 0) {
            EXPECT_EQ(lrpc2_exchange_timeout(conn, request, -1, &status), nullptr);
            EXPECT_EQ(status, LRPC2_ERR_SOCKET);
            EXPECT_EQ(lrpc2_last_sender(conn, &sender), LRPC2_ERR_NOIDENTITY);
        }
        lrpc2_msg_free(answer);
        lrpc2_msg_free(request);
        lrpc2_close(conn);
        EXPECT_EQ(peer.wait(), 0);
    }
    EXPECT_EQ(lrpc2_last_sender(nullptr, nullptr), LRPC2_ERR_BADSESSION);
}

// What a process authentication against the simulated daemon leaves in freed memory: the
// proof contents, the proof paths and the bytes of the secure request must all be zeroed
// before their blocks are freed. Every block the library frees or hands to realloc is
// searched (tests/support/alloc_hooks.h).
std::string repeated(const std::string& unit, size_t bytes) {
    std::string out;
    while (out.size() < bytes) {
        out += unit;
    }
    return out;
}

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
    // The first fits the response's first block; the second makes that block grow with it inside.
    const std::string content1 = repeated("P1-proof-q8Zk3w|", 300);
    const std::string content2 = repeated("P2-proof-Vt5nXe|", 40000);
    const std::string path1 = files.file("proof-first-Hw4b");
    const std::string path2 = files.file("proof-second-Jm7c");
    std::ofstream(path1, std::ios::binary) << content1;
    std::ofstream(path2, std::ios::binary) << content2;
    const std::string secret = "stop-secret-Rb2fYd";

    TempDir dir;
    // The reply to the stop request (secure like it) carries the secret back.
    Kvdsim daemon(dir, {"--auth", "--proof-file1", path1, "--proof-file2", path2, "--reply-fields",
                        "20=041200000073746f702d7365637265742d526232665964"});
    ASSERT_TRUE(daemon.ready());
    // Two units of a repeated content catch any piece of it longer than two units.
    // What, and the bytes searched for in every block freed during one stop request.
    const std::vector<std::pair<const char*, std::string>> watched = {
        {"first proof contents", content1.substr(0, 32)},
        {"second proof contents", content2.substr(0, 32)},
        {"first proof path", path1},
        {"second proof path", path2},
        {"secure request and reply", secret}};
    for (const auto& w : watched) {
        SCOPED_TRACE(w.first);
        const Seen seen = stopWatching(daemon, secret, w.second);
        ASSERT_EQ(seen.status, 0);
        EXPECT_EQ(seen.reply_id, LRPC2_ID_KV_STOP);
        EXPECT_EQ(seen.hooks.pattern_frees, 0u);
        EXPECT_EQ(seen.hooks.pattern_reallocs, 0u);
    }
    // Each request was challenged: hello, stop, identity and response on every connection.
    EXPECT_EQ(daemon.log().size(), 4 * watched.size());
}

}  // namespace
