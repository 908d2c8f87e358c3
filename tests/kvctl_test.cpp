// kvctl end to end: the real binary against the simulated daemon, every command in its
// output forms (interop_test has the tools judge metrics and check), its failures, and
// every JSON output checked against the shipped schema with the jsonschema validator. Runs in
// namespaces of its own with a private "/etc/zantorkv/zantorkv.conf".
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/kvdsim.h"
#include "support/program.h"
#include "support/syslog_sink.h"

namespace {

const std::string kKvctl = KV_BIN_DIR "/tools/kvctl/kvctl";
const std::string kSchema = KV_BIN_DIR "/tools/kvctl/kvctl.schema.json";
const std::string kTry = "Try 'kvctl --help' for more information.\n";

// Shells around kvctl ("$@" runs it); each prints what its rows compare beside kvctl's
// output. kTextfile: the listing of tf/, then the mode and content of tf/k.prom.
const char kFullDisk[] = "exec \"$@\" >/dev/full";
const char kNoStdout[] = "exec \"$@\" >&-";
const char kTextfile[] =
    "mkdir tf && \"$@\"; s=$?; ls -A tf; stat -c %a tf/k.prom 2>/dev/null && cat tf/k.prom; "
    "exit $s";
// The same with a temporary file that a kvctl killed with SIGKILL left behind.
const char kStaleTemp[] = "mkdir tf && : >tf/.k.prom.new && \"$@\"; s=$?; ls -A tf; exit $s";
// SIGTERM a second after the start (a bound against a hang, not a measurement).
const char kTerm[] =
    "\"$@\" & sleep 1; kill -TERM $!; wait $!; s=$?; ls -A tf 2>/dev/null; exit $s";
// Standard output a pipe whose reader is gone.
const char kClosedPipe[] =
    "exec python3 -c 'import os, subprocess, sys\nr, w = os.pipe()\nos.close(r)\n"
    "sys.exit(subprocess.run(sys.argv[1:], stdout=w).returncode)' \"$@\"";
// Peak resident memory against a limit.
const char kPeak64MiB[] =
    "exec python3 -c 'import resource, subprocess, sys\n"
    "s = subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL).returncode\n"
    "peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss\n"
    "print(\"below 64 MiB\" if peak < 65536 else peak)\nsys.exit(s)' \"$@\"";

// A row: kvdsim's arguments separated by blanks (null: no daemon); exact texts with {socket}
// for the case's socket and {pid} for the daemon's pid (`out` is a regular expression when it
// starts with ^); the shell that runs kvctl (see above), kvctl's system log records, and a mode
// for the socket when kvctl runs as nobody.
struct CtlCase {
    CtlCase(const char* name_, const char* kvdsim_, std::vector<std::string> args_, int status_,
            std::string out_, std::string err_ = "", const char* shell_ = nullptr,
            std::vector<std::string> log_ = {}, int nobody_ = 0)
        : name(name_),
          kvdsim(kvdsim_),
          args(std::move(args_)),
          status(status_),
          out(std::move(out_)),
          err(std::move(err_)),
          shell(shell_),
          log(std::move(log_)),
          nobody(nobody_) {}
    const char *name, *kvdsim;
    std::vector<std::string> args;
    int status;
    std::string out, err;
    const char* shell;
    std::vector<std::string> log;
    int nobody;
};

void PrintTo(const CtlCase& c, std::ostream* os) {
    *os << c.name;
}

std::vector<std::string> words(const char* text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

std::string fill(std::string text, const std::string& socket, const std::string& pid) {
    for (const auto& [key, value] : {std::pair{"{socket}", socket}, std::pair{"{pid}", pid}}) {
        for (size_t at; (at = text.find(key)) != std::string::npos;) {
            text.replace(at, strlen(key), value);
        }
    }
    return text;
}

const char kDetail[] =
    "--collector-status busy --collector-detail 7,spooling,kv\"1,no,remote, "
    "--db-size 42MB --despool-rate 3.5 --online no";
// ESC, a raw 0x9B, U+009B, an invalid byte, DEL, then valid UTF-8.
const char kHostile[] = "--collector-status a\x1b[2J\x9b\xc2\x9b\xff\x7f\xc3\xa9";
const char kDown[] = "Kavelo daemon does not appear to be running or reachable";
const std::string kUp =
    "# HELP kavelo_up 1 when the daemon answered every query, else 0.\n"
    "# TYPE kavelo_up gauge\nkavelo_up ";
// kDetail's metrics, as a regular expression: the round trip varies; numbers only as numbers.
const std::string kMetrics =
    kUp +
    "1\n# HELP kavelo_online The daemon's online flag: 1 online, 0 not.\n"
    "# TYPE kavelo_online gauge\nkavelo_online 0\n"
    "# HELP kavelo_ping_round_trip_seconds Round trip of one ping to the daemon.\n"
    "# TYPE kavelo_ping_round_trip_seconds gauge\nkavelo_ping_round_trip_seconds 0\\.[0-9]{6}\n"
    "# HELP kavelo_despool_rate The daemon's despool rate, as it reports it.\n"
    "# TYPE kavelo_despool_rate gauge\nkavelo_despool_rate 3\\.5\n"
    "# HELP kavelo_collector_info The collector's status and detailed status as labels; always "
    "1.\n# TYPE kavelo_collector_info gauge\nkavelo_collector_info\\{status=\"busy\",code=\"7\","
    "state=\"spooling\",name=\"kv\\\\\"1\",flag=\"false\",source=\"remote\",note=\"\"\\} 1\n$";
const std::string kRtt = "round trip 0\\.[0-9]{6} s, collector running \\| 'rtt'=0\\.[0-9]{6}s;";
const char kStatusText[] =
    "online:            yes\ncollector status:  running\n"
    "collector detail:  1 | running | kvdsim | yes | local | \n"
    "database size:     1048576\ndespool rate:      0\n";
const char kStatusJson[] =
    R"({"collector_detail":[1,"running","kvdsim",true,"local",""],"collector_status":"running",)"
    R"("database_size":1048576,"database_size_text":"1048576","despool_rate":0,)"
    R"("despool_rate_text":"0","online":true})"
    "\n";

const std::string s = "{socket}";
const char kStopped[] = "Zantor Kavelo daemon stopped successfully.\n";
const char kStoppedRecord[] =
    "<38> kvctl: INFO  zkv.cli.kvctl Zantor Kavelo daemon stopped successfully.";
const std::string kStopFailed = "<35> kvctl: ERROR zkv.cli.kvctl Unable to stop Kavelo daemon: ";
// A watch's JSON line of the default status, time stamped.
const std::string kWatchLine =
    "\\{\"collector_detail\":\\[1,\"running\",\"kvdsim\",true,\"local\",\"\"\\],"
    "\"collector_status\":\"running\",\"database_size\":1048576,\"database_size_text\":"
    "\"1048576\",\"despool_rate\":0,\"despool_rate_text\":\"0\",\"online\":true,\"time\":"
    "\"20[0-9-]{8}T[0-9:]{8}\\.[0-9]{3}Z\"\\}\n";

const CtlCase kCases[] = {
    CtlCase("status", kDetail, {"-s", s, "status"}, 0,
            "online:            no\ncollector status:  busy\n"
            "collector detail:  7 | spooling | kv\"1 | no | remote | \n"
            "database size:     42MB\ndespool rate:      3.5\n"),
    CtlCase("status json: numbers beside their text", kDetail, {"--json", "--socket", s, "status"},
            0,
            R"({"collector_detail":[7,"spooling","kv\"1",false,"remote",""],"collector_status":)"
            R"("busy","database_size":null,"database_size_text":"42MB","despool_rate":3.5,)"
            R"("despool_rate_text":"3.5","online":false})"
            "\n"),
    CtlCase("options after the command", "", {"status", "--json", "--socket", s}, 0, kStatusJson),
    CtlCase("short forms", "", {"-j", "status", "-s", s}, 0, kStatusJson),
    CtlCase("relative socket", "", {"--socket=sock", "status"}, 0, kStatusText),
    CtlCase("pretty json", "", {"--json=pretty", "-s", s, "reload"}, 0,
            "{\n  \"reload_result\": 0\n}\n"),
    CtlCase("controls, C1 and invalid UTF-8", kHostile, {"--socket", s, "status"}, 0,
            "^online: +yes\ncollector status:  a\\?\\[2J\\?\\?\\?\\?\xc3\xa9\n(.*\n){3}$"),
    CtlCase("controls in JSON", kHostile, {"--json", "--socket", s, "status"}, 0,
            "^.*\"collector_status\":\"a\\\\u001b\\[2J\\\\ufffd\\\\u009b\\\\ufffd\\\\u007f"
            "\\\\u00e9\",.*\n$"),
    CtlCase("ping", "", {"ping", "-s", s}, 0,
            "^daemon answers, round trip [0-9]+\\.[0-9]{3} ms\n$"),
    CtlCase("ping json", "", {"-s", s, "-j", "ping"}, 0,
            "^\\{\"answers\":true,\"round_trip_ms\":[0-9.e-]+\\}\n$"),
    CtlCase("reload", "", {"--socket", s, "reload"}, 0, "reload answered 0 (done)\n"),
    CtlCase(
        "reload refused json",  // 501, what the session also gives for a failed exchange
        "--reload-result 501", {"--socket", s, "--json", "reload"}, 2,
        R"({"error":{"kind":"refused","message":"the daemon answered 501","socket":"{socket}"}})"
        "\n",
        "kvctl: reload: {socket}: the daemon answered 501\n"),
    CtlCase("reload, connection closed", "--fault close-request", {"--socket", s, "reload"}, 2, "",
            "kvctl: reload: {socket}: Unable to send lrpc2 message: 404 (Socket closed)\n"),
    CtlCase("stop", "--exit-on-stop", {"stop", "-s", s}, 0, kStopped, "", nullptr,
            {kStoppedRecord}),
    CtlCase("stop, still answering", "", {"--json", "--socket", s, "stop"}, 2,
            R"({"error":{"kind":"failed","message":"the daemon still answers after the stop )"
            R"(request","socket":"{socket}"}})"
            "\n",
            "kvctl: stop: {socket}: the daemon still answers after the stop request\n", nullptr,
            {kStopFailed + "the daemon still answers after the stop request"}),
    CtlCase("stop --wait", "--linger 300", {"stop", "-s", s, "--wait", "10", "-j"}, 0,
            "^\\{\"pid\":{pid},\"stop\":\"stopped\",\"waited_seconds\":[0-9.]+\\}\n$", "", nullptr,
            {kStoppedRecord}),
    CtlCase("stop --wait, still running", "--linger 20000", {"stop", "-w1", "-s", s}, 2, "",
            "kvctl: stop: {socket}: still running after 1 s (pid {pid})\n", nullptr,
            {kStopFailed + "still running after 1 s (pid {pid})"}),
    CtlCase("socket from the configuration file", "", {"status"}, 0, kStatusText),
    CtlCase("not reachable", nullptr, {"--socket", s, "status"}, 1, "",
            std::string("kvctl: status: {socket}: ") + kDown + "\n"),
    CtlCase("not reachable json", nullptr, {"--json", "--socket", s, "status"}, 1,
            std::string(R"({"error":{"kind":"not reachable","message":")") + kDown +
                R"(","socket":"{socket}"}})" + "\n",
            std::string("kvctl: status: {socket}: ") + kDown + "\n"),
    CtlCase("permission", "", {"--json", "--socket", s, "status"}, 2,
            R"({"error":{"kind":"permission","message":"permission denied; the daemon's socket )"
            R"(may need root","socket":"{socket}"}})"
            "\n",
            "kvctl: status: {socket}: permission denied; the daemon's socket may need root\n",
            nullptr, {}, 0600),
    CtlCase("output to a full disk", "", {"--socket", s, "status"}, 2, "",
            "kvctl: status: {socket}: cannot write standard output: No space left on device\n",
            kFullDisk),
    CtlCase("json to a full disk", "", {"--json", "--socket", s, "ping"}, 2, "",
            "kvctl: ping: {socket}: cannot write standard output: No space left on device\n",
            kFullDisk),
    CtlCase("authentication refused", "--auth --auth-answer one-path", {"--socket", s, "ping"}, 2,
            "",
            "kvctl: ping: {socket}: Unable to send lrpc2 message: 409 (Process authentication "
            "failed)\n"),
    CtlCase("reply of the wrong shape", "--reply-fields 90=0301000000", {"--socket", s, "status"},
            2, "", "kvctl: status: {socket}: Error reading string from request message\n"),
    CtlCase("time-out of the whole command", "--piece 1 --piece-delay 100",
            {"--timeout", "1", "--socket", s, "status"}, 2, "",
            "kvctl: status: {socket}: timed out after 1 s\n"),
    CtlCase("metrics", kDetail, {"metrics", "-s", s}, 0, "^" + kMetrics),
    CtlCase("metrics to a textfile", kDetail, {"metrics", "-f", "tf/k.prom"}, 0,
            "^k\\.prom\n644\n" + kMetrics, "", kTextfile),
    CtlCase("metrics, not reachable: kavelo_up 0", nullptr, {"metrics", "--textfile=tf/k.prom"}, 1,
            "k.prom\n644\n" + kUp + "0\n", std::string("kvctl: metrics: {socket}: ") + kDown + "\n",
            kTextfile),
    CtlCase(
        "metrics, escaped labels", "--collector-status a\\b\"c\x01\xff\xc3\xa9",
        {"metrics", "-s", s}, 0,
        "^(.*\n){17}kavelo_collector_info\\{status=\"a\\\\\\\\b\\\\\"c\\?\\?\xc3\xa9\",code=\"1\","
        ".*\\} 1\n$"),
    CtlCase("metrics to a directory that is not there", "", {"metrics", "-f", "{socket}/k.prom"}, 2,
            "", "kvctl: metrics: {socket}: cannot write {socket}/k.prom: Not a directory\n"),
    CtlCase("metrics: the temporary file goes when the rename fails", "", {"metrics", "-f", "tf/d"},
            2, "d\n", "kvctl: metrics: {socket}: cannot write tf/d: Is a directory\n",
            "mkdir -p tf/d && \"$@\"; s=$?; ls -A tf; exit $s"),
    CtlCase("check", "", {"check", "-s", s, "-w", "~:0", "--critical=10"}, 1,
            "^KAVELO WARNING - " + kRtt + "~:0;10;0;\n$"),
    CtlCase("check: inverted and open ranges", "", {"check", "-s", s, "-c", "@~:10", "-w", "10:"},
            2, "^KAVELO CRITICAL - " + kRtt + "10:;;0;\n$"),
    CtlCase("check: OK", "", {"check", "-s", s, "-w", "~:10", "-c", "@1:"}, 0,
            "^KAVELO OK - " + kRtt + "~:10;;0;\n$"),
    CtlCase("check: the collector not running", "--collector-status a|b", {"check", "-s", s}, 1,
            "^KAVELO WARNING - round trip 0\\.[0-9]{6} s, collector not running: a\\?b \\| "
            "'rtt'=0\\.[0-9]{6}s;;;0;\n$"),
    CtlCase("check: not reachable", nullptr, {"check", "-s", s}, 2,
            std::string("KAVELO CRITICAL - {socket}: ") + kDown + "\n"),
    CtlCase("check: time-out state", "--fault silent-request",
            {"check", "-s", s, "-t", "1:Warning"}, 1,
            "KAVELO WARNING - {socket}: timed out after 1 s\n"),
    CtlCase("check: bad range", nullptr, {"check", "-w", "5:1"}, 3,
            "KAVELO UNKNOWN - bad warning range: '5:1'\n"),
    CtlCase("check: bad time-out state", nullptr, {"-t", "5:never", "check"}, 3,
            "KAVELO UNKNOWN - bad time-out state: 'never' (ok, warning, critical or unknown)\n"),
    CtlCase("check: unknown option", nullptr, {"check", "-x"}, 3,
            "KAVELO UNKNOWN - unknown option '-x'\n"),
    CtlCase("time-out state without check", nullptr, {"metrics", "-t", "1:ok"}, 2, "",
            "kvctl: a time-out state goes with check only\n" + kTry),
    CtlCase("--warning is not --wait", nullptr, {"--socket", "/nowhere", "--warning", "5", "stop"},
            2, "", "kvctl: --warning goes with check only\n" + kTry),
    CtlCase("--wait is not --warning", nullptr, {"check", "--wait=5"}, 3,
            "KAVELO UNKNOWN - --wait goes with stop only\n"),
    CtlCase("help after the command", nullptr, {"status", "--help"}, 0, "^Usage: kvctl (.*\n)+$"),
    CtlCase("unknown command", nullptr, {"restart", "-j"}, 2,
            R"({"error":{"kind":"usage","message":"unknown command 'restart'","socket":null}})"
            "\n",
            "kvctl: unknown command 'restart'\n" + kTry),
    CtlCase("unknown option", nullptr, {"--force", "stop"}, 2, "",
            "kvctl: unknown option '--force'\n" + kTry),
    CtlCase("bad time-out", nullptr, {"ping", "--timeout=-1"}, 2, "",
            "kvctl: bad time-out: '-1'\n" + kTry),
    CtlCase("two commands", nullptr, {"ping", "stop"}, 2, "",
            "kvctl: one command only (also 'stop')\n" + kTry),
    // What was measured, then wait and watch.
    CtlCase("stop time-out: logged as every failed stop", "--fault silent-request",
            {"-t", "1", "-s", s, "stop"}, 2, "", "kvctl: stop: {socket}: timed out after 1 s\n",
            nullptr, {kStopFailed + "timed out after 1 s"}),
    CtlCase("stop -t 1: the fixed pause is not the daemon's time", "--exit-on-stop",
            {"-t", "1", "-s", s, "stop"}, 0, kStopped, "", nullptr, {kStoppedRecord}),
    CtlCase("stop --wait 0: no limit", "--linger 300", {"stop", "-s", s, "--wait", "0", "-j"}, 0,
            "^\\{\"pid\":{pid},\"stop\":\"stopped\",\"waited_seconds\":0\\.[0-9]+\\}\n$", "",
            nullptr, {kStoppedRecord}),
    CtlCase(
        "stop --wait bounds itself, not -t", "--linger 1500",
        {"stop", "-s", s, "-t", "1", "--wait", "10"}, 0,
        "^Zantor Kavelo daemon stopped successfully \\(pid {pid} gone after 1\\.[0-9] s\\)\\.\n$",
        "", nullptr, {kStoppedRecord}),
    CtlCase("stop --wait, socket activation: the serving child, not the parent that listened",
            "--shape activation --exit-on-stop", {"stop", "-s", s, "--wait", "10", "-j"}, 0,
            "^\\{\"pid\":[0-9]+,\"stop\":\"stopped\",\"waited_seconds\":[0-9.]+\\}\n$", "", nullptr,
            {kStoppedRecord}),
    CtlCase("stop --wait, a daemon that detached: the child, not the listener gone before",
            "--shape detach --exit-on-stop", {"stop", "-s", s, "--wait", "10", "-j"}, 0,
            "^\\{\"pid\":[0-9]+,\"stop\":\"stopped\",\"waited_seconds\":[0-9.]+\\}\n$", "", nullptr,
            {kStoppedRecord}),
    CtlCase("stop --wait, a worker per connection: the listener", "--shape fork --exit-on-stop",
            {"stop", "-s", s, "--wait", "10", "-j"}, 0,
            "^\\{\"pid\":{pid},\"stop\":\"stopped\",\"waited_seconds\":[0-9.]+\\}\n$", "", nullptr,
            {kStoppedRecord}),
    CtlCase("textfile in a directory the user may not write", "",
            {"metrics", "-s", s, "-f", "k.prom"}, 2, "",
            "kvctl: metrics: {socket}: cannot write k.prom: Permission denied\n", nullptr, {},
            0666),
    CtlCase("a temporary file left by SIGKILL goes with the next run", "",
            {"metrics", "-f", "tf/k.prom"}, 0, "k.prom\n", "", kStaleTemp),
    CtlCase("SIGTERM while the daemon is silent leaves no temporary file", "--fault silent-request",
            {"metrics", "-f", "tf/k.prom"}, 143, "", "",
            "mkdir tf && \"$@\" & sleep 1; kill -TERM $!; { wait $!; } 2>/dev/null; s=$?; ls -A "
            "tf; exit "
            "$s"),
    CtlCase("a text with a NUL inside is kept whole and is no number",
            "--reply-fields 100=04050000003132002034", {"--json", "-s", s, "status"}, 0,
            R"({"collector_detail":[1,"running","kvdsim",true,"local",""],"collector_status":)"
            R"("running","database_size":null,"database_size_text":"12\u0000 4","despool_rate":0,)"
            R"("despool_rate_text":"0","online":true})"
            "\n"),
    CtlCase("closed standard output", "", {"-s", s, "status"}, 2, "",
            "kvctl: status: {socket}: cannot write standard output: Bad file descriptor\n",
            kNoStdout),
    CtlCase("standard output a closed pipe", "", {"-s", s, "status"}, 2, "",
            "kvctl: status: {socket}: cannot write standard output: Broken pipe\n", kClosedPipe),
    CtlCase("replies at the frame limit", "--long-texts 16777152", {"-s", s, "status"}, 0,
            "below 64 MiB\n", "", kPeak64MiB),
    CtlCase("a long text is cut with a mark", "--long-texts 5000", {"-s", s, "check"}, 1,
            "^KAVELO WARNING - round trip 0\\.[0-9]{6} s, collector not running: "
            "x{4096}\\.\\.\\.\\[cut: "
            "5000 bytes in all\\] \\| 'rtt'=0\\.[0-9]{6}s;;;0;\n$"),
    CtlCase("wait for gone, nothing there", nullptr, {"wait", "--for=gone", "-j"}, 0,
            "^\\{\"wait\":\"gone\",\"waited_seconds\":0(\\.[0-9]+)?\\}\n$"),
    CtlCase("wait for online", "", {"wait", "--for", "online", "-s", s}, 0,
            "^daemon online after 0\\.[0-9] s\n$"),
    CtlCase("wait for gone, time-out", "", {"wait", "--for=gone", "-t", "1", "-j", "-s", s}, 2,
            R"({"error":{"kind":"failed","message":"timed out after 1 s","socket":"{socket}"}})"
            "\n",
            "kvctl: wait: {socket}: timed out after 1 s\n"),
    CtlCase("wait without --for", nullptr, {"wait"}, 2, "",
            "kvctl: wait needs --for=gone or --for=online\n" + kTry),
    CtlCase("watch: one JSON line a sample", "",
            {"status", "--watch=1", "--count=2", "--json=pretty", "-s", s}, 0,
            "^" + kWatchLine + kWatchLine + "$"),
    CtlCase("watch: a daemon that is gone gives error lines", nullptr,
            {"status", "--watch", "1", "--count", "2", "-j", "-s", s}, 1,
            "^(\\{\"error\":\\{\"kind\":\"not reachable\",\"message\":\"Kavelo daemon does not "
            "appear to be running or "
            "reachable\",\"socket\":\"{socket}\"\\},\"time\":\"[0-9TZ:.-]+\"\\}\n){2}$",
            std::string("kvctl: status: {socket}: ") + kDown + "\n" +
                "kvctl: status: {socket}: " + kDown + "\n"),
    CtlCase("watch: SIGTERM ends it, exit status 0", "", {"status", "--watch", "60", "-j", "-s", s},
            0, "^" + kWatchLine + "$", "", kTerm),
    CtlCase("--count without --watch", nullptr, {"status", "--count=2"}, 2, "",
            "kvctl: --count goes with --watch only\n" + kTry),
    CtlCase("--for goes with wait only", nullptr, {"status", "--for=gone"}, 2, "",
            "kvctl: --for goes with wait only\n" + kTry),
    CtlCase("per-command help", nullptr, {"wait", "--help"}, 0,
            "^Usage: kvctl \\[OPTION\\]\\.\\.\\. wait\n.*\n\nOptions .*\n( .*\n){6}\n(.*\n){3}$")};

std::string caseName(const ::testing::TestParamInfo<CtlCase>& info) {
    std::string name;
    for (const char c : std::string(info.param.name)) {
        name += isalnum(static_cast<unsigned char>(c)) ? c : '_';
    }
    return name;
}

class KvctlCommand : public ::testing::TestWithParam<CtlCase> {};

TEST_P(KvctlCommand, OutputStatusAndLog) {
    const CtlCase& c = GetParam();
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    if (c.shell == kPeak64MiB) {
        GTEST_SKIP() << "a sanitizer's own memory is not kvctl's";
    }
#endif
    kvtest::SyslogSink sink;
    kvtest::TempDir dir;
    ASSERT_TRUE(kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path() + "\nkvd.socket=sock\n"));
    std::unique_ptr<kvtest::Kvdsim> daemon;
    if (c.kvdsim != nullptr) {
        daemon.reset(new kvtest::Kvdsim(dir, words(c.kvdsim)));
        ASSERT_TRUE(daemon->ready());
    }
    const std::string pid = daemon ? std::to_string(daemon->pid()) : "";
    std::vector<std::string> argv = {kKvctl};
    if (c.shell != nullptr) {
        argv = {"/bin/sh", "-c", c.shell, "sh", kKvctl};
    }
    if (c.nobody != 0) {
        ASSERT_EQ(chmod(dir.file("sock").c_str(), c.nobody), 0);
    }
    for (const std::string& a : c.args) {
        argv.push_back(fill(a, dir.file("sock"), pid));
    }
    const kvtest::ProgramResult r = kvtest::runProgram(argv, c.nobody != 0, dir.path());
    EXPECT_EQ(r.status, c.status);
    const std::string out = fill(c.out, dir.file("sock"), pid);
    if (out.empty() || out[0] != '^') {
        EXPECT_EQ(r.out, out);
    } else {
        EXPECT_TRUE(std::regex_match(r.out, std::regex(out))) << r.out;
    }
    EXPECT_EQ(r.err, fill(c.err, dir.file("sock"), pid));
    std::vector<std::string> log;
    for (const kvtest::SyslogRecord& record : sink.takeRecords()) {
        log.push_back("<" + std::to_string(record.priority) + "> " + record.identity + ": " +
                      record.text);
    }
    std::vector<std::string> expected;
    for (const std::string& line : c.log) {
        expected.push_back(fill(line, dir.file("sock"), pid));
    }
    EXPECT_EQ(log, expected);
    if (r.out[0] == '{') {
        // The object, or each line of a watch, against the shipped schema.
        const kvtest::ProgramResult v =
            kvtest::runProgram({"/usr/bin/python3", "-c",
                                "import json, sys, jsonschema\n"
                                "schema = json.load(open(sys.argv[1]))\n"
                                "jsonschema.Draft202012Validator.check_schema(schema)\n"
                                "text = open(sys.argv[2]).read()\n"
                                "try:\n"
                                "    objects = [json.loads(text)]\n"
                                "except ValueError:\n"
                                "    objects = [json.loads(line) for line in text.splitlines()]\n"
                                "for o in objects:\n"
                                "    jsonschema.Draft202012Validator(schema).validate(o)\n",
                                kSchema, dir.write("out.json", r.out)});
        EXPECT_EQ(v.status, 0) << v.err;
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, KvctlCommand, ::testing::ValuesIn(kCases), caseName);

}  // namespace
