// kvstop end to end: the real binary against the simulated daemon, each case in
// namespaces of its own with its own "/etc/zantorkv/zantorkv.conf" and socket directory.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/hermetic.h"
#include "support/kvdsim.h"
#include "support/program.h"
#include "support/syslog_sink.h"

namespace {

const char kBinDir[] = KV_BIN_DIR "/tools/kvstop";
const std::string kKvstop = std::string(kBinDir) + "/kvstop";

const char kNotRoot[] = "You must be root to stop the Kavelo daemon.\n";
const char kUnreachable[] = "Kavelo daemon does not appear to be running or reachable.\n";
const char kStopped[] = "Zantor Kavelo daemon stopped successfully.\n";

// kvdsim's log lines for the client's hello and the two requests kvstop sends.
const char kHello[] = "hello 02000000";
const char kStopFrame[] = "frame 1280cdab0b000000140000";
const char kPingFrame[] = "frame 1280cdab0b0000000a0000";

std::string on(int conn, const char* line) {
    return std::to_string(conn) + " " + line;
}

const char kErrorPrefix[] = "Unable to stop Kavelo daemon: ";

std::string failed(const std::string& text) {
    return kErrorPrefix + ("\"Unable to send lrpc2 message: " + text + "\"\n");
}

// The system log records kvstop writes, as "<priority> identity: text".
std::vector<std::string> records(kvtest::SyslogSink& sink) {
    std::vector<std::string> lines;
    for (const kvtest::SyslogRecord& r : sink.takeRecords()) {
        lines.push_back("<" + std::to_string(r.priority) + "> " + r.identity + ": " + r.text);
    }
    return lines;
}

// What the log holds for an outcome: the success at INFO (auth facility: 38), the error
// line's text at ERROR (35), nothing otherwise.
std::vector<std::string> recordsFor(const std::string& out, const std::string& err) {
    if (out == kStopped) {
        return {"<38> kvstop: INFO  zkv.cli.kvstop Zantor Kavelo daemon stopped successfully."};
    }
    if (err.rfind(kErrorPrefix, 0) == 0) {
        const std::string quoted = err.substr(sizeof kErrorPrefix - 1);
        return {"<35> kvstop: ERROR zkv.cli.kvstop " + std::string(kErrorPrefix) +
                quoted.substr(1, quoted.size() - 3)};
    }
    return {};
}

struct StopCase {
    const char* name;
    std::string config;  // lines after the socket's; "" keeps the test's socket
    const char* kvdsim;  // its arguments, separated by blanks; null: no daemon
    int status;
    std::string out;
    std::string err;
    std::vector<std::string> frames;  // what kvdsim received
};

void PrintTo(const StopCase& c, std::ostream* os) {
    *os << c.name;
}

class KvstopOutcome : public ::testing::TestWithParam<StopCase> {};

TEST_P(KvstopOutcome, OutputStatusLogAndFramesReceived) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    kvtest::SyslogSink sink;
    const StopCase& c = GetParam();
    kvtest::TempDir dir;
    ASSERT_TRUE(
        kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path() + "\nkvd.socket=sock\n" + c.config));
    std::unique_ptr<kvtest::Kvdsim> daemon;
    if (c.kvdsim != nullptr) {
        std::istringstream words(c.kvdsim);
        const std::vector<std::string> args{std::istream_iterator<std::string>(words), {}};
        daemon.reset(new kvtest::Kvdsim(dir, args));
        ASSERT_TRUE(daemon->ready());
    }

    const kvtest::ProgramResult r = kvtest::runProgram({kKvstop});
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(records(sink), recordsFor(c.out, c.err));
    if (daemon) {
        daemon->terminate();
        EXPECT_EQ(daemon->log(), c.frames);
    }
}

// What kvdsim receives: the stop request alone, or followed by the check whether the
// daemon still answers (a second connection and its ping).
const std::vector<std::string> kNothing;
const std::vector<std::string> kHelloOnly = {on(1, kHello)};
const std::vector<std::string> kStop = {on(1, kHello), on(1, kStopFrame)};
const std::vector<std::string> kStopThenHello = {on(1, kHello), on(1, kStopFrame), on(2, kHello)};
const std::vector<std::string> kStopThenPing = {on(1, kHello), on(1, kStopFrame), on(2, kHello),
                                                on(2, kPingFrame)};
const std::string kTimeout = "lrpc2.timeout=1\n";

INSTANTIATE_TEST_SUITE_P(
    Cases, KvstopOutcome,
    ::testing::Values(
        StopCase{"stopped", "", "--exit-on-stop", 0, kStopped, "", kStop},
        StopCase{"stop_reply_fields_ignored", "", "--exit-on-stop --reply-fields 20=0301000000", 0,
                 kStopped, "", kStop},
        StopCase{"no_socket", "", nullptr, 1, "", kUnreachable, kNothing},
        StopCase{"handshake_refused", "", "--handshake 0", 1, "", kUnreachable, kHelloOnly},
        StopCase{"stop_closed", "", "--fault close-request", 2, "", failed("404 (Socket closed)"),
                 kStop},
        StopCase{"stop_timed_out", kTimeout, "--fault silent-request", 2, "",
                 failed("408 (Timeout during operation)"), kStop},
        StopCase{"stop_bad_magic", "", "--fault bad-magic", 2, "", failed("405 (Socket error)"),
                 kStop},
        StopCase{"still_answering", "", "", 2, "", "", kStopThenPing},
        StopCase{"ping_closed", "", "--fault close-request --fault-conn 2", 0, kStopped, "",
                 kStopThenPing},
        StopCase{"handshake_never_completed_after_stop", kTimeout,
                 "--fault silent-hello --fault-conn 2", 0, kStopped, "", kStopThenHello},
        StopCase{"handshake_refused_after_stop", "", "--fault close-hello --fault-conn 2", 0,
                 kStopped, "", kStopThenHello}),
    [](const ::testing::TestParamInfo<StopCase>& info) { return std::string(info.param.name); });

std::string hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char b : bytes) {
        text += digits[b >> 4];
        text += digits[b & 15];
    }
    return text;
}

std::string le32(uint32_t v) {
    return std::string{static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
                       static_cast<char>(v >> 24)};
}

TEST(KvstopAuthentication, StopRequestAnswersTheChallenge) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    kvtest::SyslogSink sink;
    kvtest::TempDir dir;
    ASSERT_TRUE(kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path() + "\nkvd.socket=sock\n"));
    const std::string proof1 = "first proof", proof2("2nd\0proof", 9);
    {
        std::ofstream(dir.file("p1"), std::ios::binary) << proof1;
        std::ofstream(dir.file("p2"), std::ios::binary) << proof2;
    }
    kvtest::Kvdsim daemon(dir, {"--auth", "--exit-on-stop", "--proof-file1", dir.file("p1"),
                                "--proof-file2", dir.file("p2")});
    ASSERT_TRUE(daemon.ready());

    const kvtest::ProgramResult r = kvtest::runProgram({kKvstop});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kStopped);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(records(sink), recordsFor(r.out, r.err));
    daemon.wait();
    // Identity: id 1 with the effective uid and gid (0 and 0) as uint32 fields.
    const std::string identity =
        std::string("\x01\x00\x03", 3) + le32(0) + "\x03" + le32(0) + std::string(1, '\0');
    // Proof: id 2 with both files' contents as blobs.
    const std::string proof = std::string("\x02\x00\x06", 3) + le32(proof1.size()) + proof1 +
                              "\x06" + le32(proof2.size()) + proof2 + std::string(1, '\0');
    const auto frame = [](const std::string& body) {
        return "1 frame " + hex(le32(0xABCD8012u) + le32(8 + body.size()) + body);
    };
    EXPECT_EQ(daemon.log(), (std::vector<std::string>{on(1, kHello), on(1, kStopFrame),
                                                      frame(identity), frame(proof)}));
}

TEST(KvstopConfiguration, DefaultSocketWithoutConfigurationFile) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    kvtest::SyslogSink sink;
    kvtest::TempDir dir;
    kvtest::Kvdsim daemon(dir, {"--exit-on-stop"}, {}, "/var/zantorkv/audit");
    ASSERT_TRUE(daemon.ready());
    const kvtest::ProgramResult r = kvtest::runProgram({kKvstop});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kStopped);
    EXPECT_EQ(r.err, "");
    // The first record loads the framework's properties to decide about openlog; the
    // missing file is reported before the record itself.
    std::vector<std::string> expected = recordsFor(r.out, r.err);
    expected.insert(expected.begin(),
                    "<35> kvstop: ERROR util.properties Unable to open config "
                    "file: /etc/zantorkv/zantorkv.conf");
    EXPECT_EQ(records(sink), expected);
    daemon.wait();
    EXPECT_EQ(daemon.log(), (std::vector<std::string>{on(1, kHello), on(1, kStopFrame)}));
}

TEST(KvstopConfiguration, RelativeDataDirectoryIsNotReachable) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    kvtest::SyslogSink sink;
    kvtest::TempDir dir;
    // Relative to "/", where kvstop runs, this would name the daemon's socket.
    ASSERT_TRUE(
        kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path().substr(1) + "\nkvd.socket=sock\n"));
    kvtest::Kvdsim daemon(dir, {});
    ASSERT_TRUE(daemon.ready());
    const kvtest::ProgramResult r = kvtest::runProgram({kKvstop}, false, "/");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, kUnreachable);
    EXPECT_EQ(records(sink), std::vector<std::string>{});
    daemon.terminate();
    EXPECT_EQ(daemon.log(), std::vector<std::string>{});
}

// Refusals come before anything else: no connection is attempted, nothing is logged.
TEST(KvstopRefusals, NonRootOrArgumentsSeeOnlyTheRefusal) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    kvtest::SyslogSink sink;
    kvtest::TempDir dir;
    ASSERT_TRUE(kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path() + "\nkvd.socket=sock\n"));
    kvtest::Kvdsim daemon(dir, {"--exit-on-stop"});
    ASSERT_TRUE(daemon.ready());
    const auto usage = [](const std::string& name) {
        return "Usage: " + name + "\n  - Note that you must be root to stop the Kavelo daemon\n";
    };
    const struct {
        std::vector<std::string> argv;
        bool unprivileged;
        std::string cwd;
        std::string err;
    } cases[] = {
        {{kKvstop}, true, "", kNotRoot},
        {{kKvstop, "now"}, true, "", kNotRoot},
        {{kKvstop, "-h", "x"}, true, "", kNotRoot},
        {{kKvstop, "now"}, false, "", usage(kKvstop)},
        {{kKvstop, ""}, false, "", usage(kKvstop)},
        {{"./kvstop", "-h", "--help"}, false, kBinDir, usage("./kvstop")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.argv[0] + " with " + std::to_string(c.argv.size() - 1) + " arguments" +
                     (c.unprivileged ? ", not root" : ""));
        const kvtest::ProgramResult r = kvtest::runProgram(c.argv, c.unprivileged, c.cwd);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(records(sink), std::vector<std::string>{});
    }
    daemon.terminate();
    EXPECT_EQ(daemon.log(), std::vector<std::string>{});
}

}  // namespace

namespace {

// The loggers stay at INFO until the first record written loads the properties, so even
// with "log=DEBUG" the session's exception leaves no report: the error record is the first
// and only one.
TEST(KvstopLog, DebugLevelTakesEffectOnlyWithTheFirstRecord) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    kvtest::SyslogSink sink;
    kvtest::TempDir dir;
    ASSERT_TRUE(
        kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path() + "\nkvd.socket=sock\nlog=DEBUG\n"));
    kvtest::Kvdsim daemon(dir, {"--fault", "close-request"});
    ASSERT_TRUE(daemon.ready());
    const kvtest::ProgramResult r = kvtest::runProgram({kKvstop});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, failed("404 (Socket closed)"));
    EXPECT_EQ(records(sink), recordsFor(r.out, r.err));
}

}  // namespace
