// kvstop end to end: the real binary against the simulated daemon, each case in namespaces of its
// own with its own "/etc/zantorkv/zantorkv.conf" and socket directory. With KV_VALGRIND set (the
// "valgrind" tests) kvstop runs under valgrind, which must find no memory error and no leak.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

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

// Runs kvstop, under valgrind in the valgrind mode: a finding turns the status into 99.
kvtest::ProgramResult runKvstop(const std::vector<std::string>& argv = {kKvstop},
                                bool unprivileged = false, const std::string& cwd = "",
                                int limitSeconds = 20) {
    if (getenv("KV_VALGRIND") == nullptr || unprivileged) {
        return kvtest::runProgram(argv, unprivileged, cwd, limitSeconds);
    }
    kvtest::TempDir dir;
    std::vector<std::string> command = {"/usr/bin/valgrind", "--error-exitcode=99",
                                        "--leak-check=full",
                                        "--errors-for-leak-kinds=definite,indirect,possible",
                                        "--log-file=" + dir.file("valgrind.log")};
    command.insert(command.end(), argv.begin(), argv.end());
    kvtest::ProgramResult r = kvtest::runProgram(command, false, cwd, limitSeconds);
    EXPECT_NE(r.status, 99) << kvtest::readFile(dir.file("valgrind.log"));
    return r;
}

std::string on(int conn, const char* line) {
    return std::to_string(conn) + " " + line;
}

const char kErrorPrefix[] = "Unable to stop Kavelo daemon: ";

std::string failed(const std::string& text) {
    return kErrorPrefix + ("\"Unable to send lrpc2 message: " + text + "\"\n");
}

// The system log records kvstop writes, as "<priority> identity: text" ("identity[pid]"
// when the record carries the pid and `pids` asks for it).
std::vector<std::string> records(kvtest::SyslogSink& sink, bool pids = false) {
    std::vector<std::string> lines;
    for (const kvtest::SyslogRecord& r : sink.takeRecords()) {
        lines.push_back("<" + std::to_string(r.priority) + "> " + r.identity +
                        (pids && r.pid != -1 ? "[pid]" : "") + ": " + r.text);
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
    std::string out, err;
    std::vector<std::string> frames;  // what kvdsim received
};

void PrintTo(const StopCase& c, std::ostream* os) {
    *os << c.name;
}

class KvstopOutcome : public ::testing::TestWithParam<StopCase> {};

TEST_P(KvstopOutcome, OutputStatusLogAndFramesReceived) {
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

    const kvtest::ProgramResult r = runKvstop();
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
        StopCase{"no_socket", "", nullptr, 1, "", kUnreachable, kNothing},
        StopCase{"silent_hello", kTimeout, "--fault silent-hello", 1, "", kUnreachable, kHelloOnly},
        StopCase{"stop_closed", "", "--fault close-request", 2, "", failed("404 (Socket closed)"),
                 kStop},
        StopCase{"stop_timed_out", kTimeout, "--fault silent-request", 2, "",
                 failed("408 (Timeout during operation)"), kStop},
        StopCase{"still_answering", "", "", 2, "", "", kStopThenPing},
        StopCase{"ping_closed", "", "--fault close-request --fault-conn 2", 0, kStopped, "",
                 kStopThenPing},
        StopCase{"handshake_refused_after_stop", "", "--fault close-hello --fault-conn 2", 0,
                 kStopped, "", kStopThenHello},
        // The loggers stay at INFO until the first record loads the properties: the
        // session's exception leaves no DEBUG report before the error record.
        StopCase{"debug_level_from_the_first_record", "log=DEBUG\n", "--fault close-request", 2, "",
                 failed("404 (Socket closed)"), kStop},
        StopCase{"auth_refused",
                 "",
                 "--auth --auth-answer one-path",
                 2,
                 "",
                 failed("409 (Process authentication failed)"),
                 {on(1, kHello), on(1, kStopFrame),
                  on(1, "frame 1280cdab1500000001000300000000030000000000")}},
        // Listening as root, serving as nobody: the root-only file it names is never read.
        StopCase{"auth_refused_to_a_server_that_dropped_root", "",
                 "--auth --serve-as 65534 --proof-file1 /etc/shadow --proof-file2 /etc/shadow", 2,
                 "", failed("409 (Process authentication failed)"), kStop}),
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

    const kvtest::ProgramResult r = runKvstop();
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

// Refusals come before anything else: no connection is attempted, nothing is logged.
TEST(KvstopRefusals, NonRootOrArgumentsSeeOnlyTheRefusal) {
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
        std::string cwd, err;
    } cases[] = {{{kKvstop}, true, "", kNotRoot},
                 {{kKvstop, "now"}, true, "", kNotRoot},
                 {{kKvstop, "now"}, false, "", usage(kKvstop)},
                 {{"./kvstop", "-h", "--help"}, false, kBinDir, usage("./kvstop")}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.argv[0] + " with " + std::to_string(c.argv.size() - 1) + " arguments" +
                     (c.unprivileged ? ", not root" : ""));
        const kvtest::ProgramResult r = runKvstop(c.argv, c.unprivileged, c.cwd);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(records(sink), std::vector<std::string>{});
    }
    daemon.terminate();
    EXPECT_EQ(daemon.log(), std::vector<std::string>{});
}

// The log follows "/etc/zantorkv/zantorkv.conf" as the properties store reads it. The success
// record is the first of the run: it passes its level check and gets its facility before the
// properties are loaded (while it is delivered), so it always goes out at INFO to "auth". Records
// logged during that load (the listing, complaints) already follow "logger.openlog.kvstop".
const std::string kSuccess =
    "<38> kvstop[pid]: INFO  zkv.cli.kvstop Zantor Kavelo daemon stopped successfully.";
const std::string kListing = " kvstop[pid]: TRACE util.properties property: ";
const std::string kNoOpen = "<38> kvstop: INFO  zkv.cli.kvstop " + std::string(kStopped, 42);

struct LogCase {
    const char* name;
    std::string config;                                      // after the socket lines
    std::vector<std::pair<std::string, std::string>> ksets;  // host settings files
    std::vector<std::string> records;  // "@DIR@" stands for the socket directory
};

void PrintTo(const LogCase& c, std::ostream* os) {
    *os << c.name;
}

class KvstopLogSettings : public ::testing::TestWithParam<LogCase> {};

TEST_P(KvstopLogSettings, RecordsFollowTheConfiguration) {
    const LogCase& c = GetParam();
    for (const auto& kset : c.ksets) {
        kvtest::writeFile("/var/zantormx/kset." + kset.first, kset.second);
    }
    kvtest::SyslogSink sink;
    kvtest::TempDir dir;
    ASSERT_TRUE(
        kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path() + "\nkvd.socket=sock\n" + c.config));
    kvtest::Kvdsim daemon(dir, {"--exit-on-stop"});
    ASSERT_TRUE(daemon.ready());
    const kvtest::ProgramResult r = runKvstop();
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kStopped);
    std::vector<std::string> expected;
    for (std::string line : c.records) {
        const size_t at = line.find("@DIR@");
        expected.push_back(at == std::string::npos ? line : line.replace(at, 5, dir.path()));
    }
    EXPECT_EQ(records(sink, true), expected);
}

// Priorities are facility + level (TRACE 7, WARN 4): auth 32, local3 152.
INSTANTIATE_TEST_SUITE_P(
    Cases, KvstopLogSettings,
    ::testing::Values(
        LogCase{"no_openlog", "logger.openlog.kvstop=No\n", {}, {kNoOpen}},
        LogCase{
            "facilities_for_kvstop_and_one_logger",
            "logger.facility.*=daemon\nlogger.facility.kvstop=local1\n"
            "logger.facility.kvstop.util=local3\nlog.util=TRACE\n",
            {},
            {"<159>" + kListing + "kvd.data.dir=@DIR@", "<159>" + kListing + "kvd.socket=sock",
             "<159>" + kListing + "log.util=TRACE", "<159>" + kListing + "logger.facility.*=daemon",
             "<159>" + kListing + "logger.facility.kvstop=local1",
             "<159>" + kListing + "logger.facility.kvstop.util=local3", kSuccess}},
        // Join parameters come from the host settings; the first load resolves them before
        // it reads the file's own override, so "kset.domain" does not count yet.
        LogCase{
            "values_from_host_settings",
            "kset.domain=override\nlog.util.properties=\\\n   $DOMAIN\n"
            "where=$JOINNAME@$SITE/$ZONE\n",
            {{"host", "host1\n"},
             {"site", "  site1 "},
             {"domain", "TRACE"},
             {"zonename", "CN=zone1,CN=Zones,DC=example"}},
            {"<39>" + kListing + "kset.domain=override", "<39>" + kListing + "kvd.data.dir=@DIR@",
             "<39>" + kListing + "kvd.socket=sock", "<39>" + kListing + "log.util.properties=TRACE",
             "<39>" + kListing + "where=host1@site1/zone1", kSuccess}},
        LogCase{"unreadable_setting_is_unknown",
                "log.util.properties=$DOMAIN\n",
                {{"domain", "bad\rvalue"}},
                {"<36> kvstop[pid]: WARN  com.zantor.logger Illegal log level. Property: "
                 "'log.util.properties', value: '<unknown>'",
                 kSuccess}}),
    [](const ::testing::TestParamInfo<LogCase>& info) { return std::string(info.param.name); });

// A daemon that still completes the handshake after the stop request but never answers the
// ping: kvstop waits out its fixed 60-second ping and succeeds (label "long").
TEST(KvstopLong, PingNeverAnsweredMeansStopped) {
    kvtest::SyslogSink sink;
    kvtest::TempDir dir;
    ASSERT_TRUE(kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path() +
                                          "\nkvd.socket=sock\nlrpc2.timeout=1\n"));
    kvtest::Kvdsim daemon(dir, {"--fault", "silent-request", "--fault-conn", "2"});
    ASSERT_TRUE(daemon.ready());
    const kvtest::ProgramResult r = runKvstop({kKvstop}, false, "", 80);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, kStopped);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(records(sink), recordsFor(r.out, r.err));
    daemon.terminate();
    EXPECT_EQ(daemon.log(), kStopThenPing);
}

}  // namespace
