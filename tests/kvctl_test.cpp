// kvctl end to end: the real binary against the simulated daemon, every command in its
// output forms (interop_test.cpp has the tools judge metrics and check), its failures, and
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

namespace {

const std::string kKvctl = KV_BIN_DIR "/tools/kvctl/kvctl";
const std::string kSchema = KV_BIN_DIR "/tools/kvctl/kvctl.schema.json";
const std::string kTry = "Try 'kvctl --help' for more information.\n";

// kNobody: as nobody, the socket root's, mode 0600; kTextfile: standard output, then the
// listing of the directory tf/, the mode and content of tf/k.prom.
enum How { kPlain, kNobody, kFullDisk, kTextfile };

struct CtlCase {
    const char* name;
    const char* kvdsim;  // its arguments, separated by blanks; null: no daemon
    std::vector<std::string> args;
    int status;
    // Exact texts, with {socket} for the case's socket and {pid} for the daemon's pid; `out`
    // is a regular expression when it starts with ^.
    std::string out;
    std::string err = "";
    How how = kPlain;
};

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

TEST(Kvctl, CommandsAgainstTheSimulatedDaemon) {
    const std::string s = "{socket}";
    const CtlCase cases[] = {
        {"status",
         kDetail,
         {"-s", s, "status"},
         0,
         "online:            no\ncollector status:  busy\n"
         "collector detail:  7 | spooling | kv\"1 | no | remote | \n"
         "database size:     42MB\ndespool rate:      3.5\n"},
        {"status json: numbers beside their text",
         kDetail,
         {"--json", "--socket", s, "status"},
         0,
         R"({"collector_detail":[7,"spooling","kv\"1",false,"remote",""],"collector_status":)"
         R"("busy","database_size":null,"database_size_text":"42MB","despool_rate":3.5,)"
         R"("despool_rate_text":"3.5","online":false})"
         "\n"},
        {"options after the command", "", {"status", "--json", "--socket", s}, 0, kStatusJson},
        {"short forms", "", {"-j", "status", "-s", s}, 0, kStatusJson},
        {"relative socket", "", {"--socket=sock", "status"}, 0, kStatusText},
        {"pretty json",
         "",
         {"--json=pretty", "-s", s, "reload"},
         0,
         "{\n  \"reload_result\": 0\n}\n"},
        {"controls, C1 and invalid UTF-8",
         kHostile,
         {"--socket", s, "status"},
         0,
         "^online: +yes\ncollector status:  a\\?\\[2J\\?\\?\\?\\?\xc3\xa9\n(.*\n){3}$"},
        {"controls in JSON",
         kHostile,
         {"--json", "--socket", s, "status"},
         0,
         "^.*\"collector_status\":\"a\\\\u001b\\[2J\\\\ufffd\\\\u009b\\\\ufffd\\\\u007f"
         "\\\\u00e9\",.*\n$"},
        {"ping", "", {"ping", "-s", s}, 0, "^daemon answers, round trip [0-9]+\\.[0-9]{3} ms\n$"},
        {"ping json",
         "",
         {"-s", s, "-j", "ping"},
         0,
         "^\\{\"answers\":true,\"round_trip_ms\":[0-9.e-]+\\}\n$"},
        {"reload", "", {"--socket", s, "reload"}, 0, "reload answered 0 (done)\n"},
        {"reload refused json",  // 501, what the session also gives for a failed exchange
         "--reload-result 501",
         {"--socket", s, "--json", "reload"},
         2,
         R"({"error":{"kind":"refused","message":"the daemon answered 501","socket":"{socket}"}})"
         "\n",
         "kvctl: reload: {socket}: the daemon answered 501\n"},
        {"reload, connection closed",
         "--fault close-request",
         {"--socket", s, "reload"},
         2,
         "",
         "kvctl: reload: {socket}: Unable to send lrpc2 message: 404 (Socket closed)\n"},
        {"stop",
         "--exit-on-stop",
         {"stop", "-s", s},
         0,
         "Zantor Kavelo daemon stopped successfully.\n"},
        {"stop, still answering",
         "",
         {"--json", "--socket", s, "stop"},
         2,
         R"({"error":{"kind":"failed","message":"the daemon still answers after the stop )"
         R"(request","socket":"{socket}"}})"
         "\n",
         "kvctl: stop: {socket}: the daemon still answers after the stop request\n"},
        {"stop --wait",
         "--linger 300",
         {"stop", "-s", s, "--wait", "10", "-j"},
         0,
         "^\\{\"pid\":{pid},\"stop\":\"stopped\",\"waited_seconds\":[0-9.]+\\}\n$"},
        {"stop --wait, still running",
         "--linger 20000",
         {"stop", "-w1", "-s", s},
         2,
         "",
         "kvctl: stop: {socket}: still running after 1 s (pid {pid})\n"},
        {"socket from the configuration file", "", {"status"}, 0, kStatusText},
        {"not reachable",
         nullptr,
         {"--socket", s, "status"},
         1,
         "",
         std::string("kvctl: status: {socket}: ") + kDown + "\n"},
        {"not reachable json",
         nullptr,
         {"--json", "--socket", s, "status"},
         1,
         std::string(R"({"error":{"kind":"not reachable","message":")") + kDown +
             R"(","socket":"{socket}"}})" + "\n",
         std::string("kvctl: status: {socket}: ") + kDown + "\n"},
        {"permission",
         "",
         {"--json", "--socket", s, "status"},
         2,
         R"({"error":{"kind":"permission","message":"permission denied; the daemon's socket )"
         R"(may need root","socket":"{socket}"}})"
         "\n",
         "kvctl: status: {socket}: permission denied; the daemon's socket may need root\n",
         kNobody},
        {"output to a full disk",
         "",
         {"--socket", s, "status"},
         2,
         "",
         "kvctl: status: {socket}: cannot write standard output: No space left on device\n",
         kFullDisk},
        {"json to a full disk",
         "",
         {"--json", "--socket", s, "ping"},
         2,
         "",
         "kvctl: ping: {socket}: cannot write standard output: No space left on device\n",
         kFullDisk},
        {"authentication refused",
         "--auth --auth-answer one-path",
         {"--socket", s, "ping"},
         2,
         "",
         "kvctl: ping: {socket}: Unable to send lrpc2 message: 409 (Process authentication "
         "failed)\n"},
        {"reply of the wrong shape",
         "--reply-fields 90=0301000000",
         {"--socket", s, "status"},
         2,
         "",
         "kvctl: status: {socket}: Error reading string from request message\n"},
        {"time-out of the whole command",
         "--piece 1 --piece-delay 100",
         {"--timeout", "1", "--socket", s, "status"},
         2,
         "",
         "kvctl: status: {socket}: timed out after 1 s\n"},
        {"metrics", kDetail, {"metrics", "-s", s}, 0, "^" + kMetrics},
        {"metrics to a textfile",
         kDetail,
         {"metrics", "-f", "tf/k.prom"},
         0,
         "^k\\.prom\n644\n" + kMetrics,
         "",
         kTextfile},
        {"metrics, not reachable: kavelo_up 0",
         nullptr,
         {"metrics", "--textfile=tf/k.prom"},
         1,
         "k.prom\n644\n" + kUp + "0\n",
         std::string("kvctl: metrics: {socket}: ") + kDown + "\n",
         kTextfile},
        {"metrics, escaped labels",
         "--collector-status a\\b\"c\x01\xff\xc3\xa9",
         {"metrics", "-s", s},
         0,
         "^(.*\n){17}kavelo_collector_info\\{status=\"a\\\\\\\\b\\\\\"c\\?\\?\xc3\xa9\",code=\"1\","
         ".*\\} 1\n$"},
        {"metrics to a directory that is not there",
         "",
         {"metrics", "-f", "{socket}/k.prom"},
         2,
         "",
         "kvctl: metrics: {socket}: cannot write {socket}/k.prom: Not a directory\n"},
        {"metrics: the temporary file goes when the rename fails",
         "",
         {"metrics", "-f", "tf/."},
         2,
         "",
         "kvctl: metrics: {socket}: cannot write tf/.: Device or resource busy\n",
         kTextfile},
        {"check",
         "",
         {"check", "-s", s, "-w", "~:0", "--critical=10"},
         1,
         "^KAVELO WARNING - " + kRtt + "~:0;10;0;\n$"},
        {"check: inverted and open ranges",
         "",
         {"check", "-s", s, "-c", "@~:10", "-w", "10:"},
         2,
         "^KAVELO CRITICAL - " + kRtt + "10:;;0;\n$"},
        {"check: OK",
         "",
         {"check", "-s", s, "-w", "~:10", "-c", "@1:"},
         0,
         "^KAVELO OK - " + kRtt + "~:10;;0;\n$"},
        {"check: the collector not running",
         "--collector-status a|b",
         {"check", "-s", s},
         1,
         "^KAVELO WARNING - round trip 0\\.[0-9]{6} s, collector not running: a\\?b \\| "
         "'rtt'=0\\.[0-9]{6}s;;;0;\n$"},
        {"check: not reachable",
         nullptr,
         {"check", "-s", s},
         2,
         std::string("KAVELO CRITICAL - {socket}: ") + kDown + "\n"},
        {"check: time-out state",
         "--fault silent-request",
         {"check", "-s", s, "-t", "1:Warning"},
         1,
         "KAVELO WARNING - timed out after 1 s\n"},
        {"check: bad range",
         nullptr,
         {"check", "-w", "5:1"},
         3,
         "KAVELO UNKNOWN - bad warning range: '5:1'\n"},
        {"check: bad time-out state",
         nullptr,
         {"-t", "5:never", "check"},
         3,
         "KAVELO UNKNOWN - bad time-out state: 'never' (ok, warning, critical or unknown)\n"},
        {"check: unknown option",
         nullptr,
         {"check", "-x"},
         3,
         "KAVELO UNKNOWN - unknown option '-x'\n"},
        {"time-out state without check",
         nullptr,
         {"metrics", "-t", "1:ok"},
         2,
         "",
         "kvctl: a time-out state goes with check only\n" + kTry},
        {"--warning is not --wait",
         nullptr,
         {"--socket", "/nowhere", "--warning", "5", "stop"},
         2,
         "",
         "kvctl: --warning goes with check only\n" + kTry},
        {"--wait is not --warning",
         nullptr,
         {"check", "--wait=5"},
         3,
         "KAVELO UNKNOWN - --wait goes with stop only\n"},
        {"help after the command", nullptr, {"status", "--help"}, 0, "^Usage: kvctl (.*\n)+$"},
        {"unknown command",
         nullptr,
         {"restart", "-j"},
         2,
         R"({"error":{"kind":"usage","message":"unknown command 'restart'","socket":null}})"
         "\n",
         "kvctl: unknown command 'restart'\n" + kTry},
        {"unknown option",
         nullptr,
         {"--force", "stop"},
         2,
         "",
         "kvctl: unknown option '--force'\n" + kTry},
        {"bad time-out",
         nullptr,
         {"ping", "--timeout=-1"},
         2,
         "",
         "kvctl: bad time-out: '-1'\n" + kTry},
        {"two commands",
         nullptr,
         {"ping", "stop"},
         2,
         "",
         "kvctl: one command only (also 'stop')\n" + kTry},
    };
    std::string outputs;  // every JSON output, for the validator
    int jsonOutputs = 0;
    for (const CtlCase& c : cases) {
        SCOPED_TRACE(c.name);
        kvtest::TempDir dir;
        ASSERT_TRUE(
            kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path() + "\nkvd.socket=sock\n"));
        std::unique_ptr<kvtest::Kvdsim> daemon;
        if (c.kvdsim != nullptr) {
            daemon.reset(new kvtest::Kvdsim(dir, words(c.kvdsim)));
            ASSERT_TRUE(daemon->ready());
        }
        const std::string pid = daemon ? std::to_string(daemon->pid()) : "";
        std::vector<std::string> argv = {kKvctl};
        if (c.how == kFullDisk) {
            argv = {"/bin/sh", "-c", "exec \"$@\" >/dev/full", "sh", kKvctl};
        } else if (c.how == kTextfile) {
            argv = {"/bin/sh", "-c",
                    "mkdir tf && \"$@\"; s=$?; ls -A tf; stat -c %a tf/k.prom 2>/dev/null && cat "
                    "tf/k.prom; exit $s",
                    "sh", kKvctl};
        } else if (c.how == kNobody) {
            ASSERT_EQ(chmod(dir.file("sock").c_str(), 0600), 0);
        }
        for (const std::string& a : c.args) {
            argv.push_back(fill(a, dir.file("sock"), pid));
        }
        const kvtest::ProgramResult r = kvtest::runProgram(argv, c.how == kNobody, dir.path());
        EXPECT_EQ(r.status, c.status);
        const std::string out = fill(c.out, dir.file("sock"), pid);
        if (out.empty() || out[0] != '^') {
            EXPECT_EQ(r.out, out);
        } else {
            EXPECT_TRUE(std::regex_match(r.out, std::regex(out))) << r.out;
        }
        EXPECT_EQ(r.err, fill(c.err, dir.file("sock"), pid));
        if (r.out[0] == '{') {
            outputs += (jsonOutputs++ == 0 ? "[" : ",") + r.out;
        }
    }
    kvtest::TempDir dir;
    const kvtest::ProgramResult v =
        kvtest::runProgram({"/usr/bin/python3", "-c",
                            "import json, sys, jsonschema\n"
                            "schema = json.load(open(sys.argv[1]))\n"
                            "jsonschema.Draft202012Validator.check_schema(schema)\n"
                            "for o in json.load(open(sys.argv[2])):\n"
                            "    jsonschema.Draft202012Validator(schema).validate(o)\n",
                            kSchema, dir.write("outputs.json", outputs + "]")});
    EXPECT_EQ(v.status, 0) << v.err;
    EXPECT_EQ(jsonOutputs, 12);
}

}  // namespace
