// kvctl end to end: the real binary against the simulated daemon, every command in both
// output forms, and its failures. Runs in namespaces of its own with a private
// "/etc/zantorkv/zantorkv.conf".
#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/hermetic.h"
#include "support/kvdsim.h"
#include "support/program.h"

namespace {

const std::string kKvctl = KV_BIN_DIR "/tools/kvctl/kvctl";
const char kSocket[] = "{socket}";  // replaced by the case's socket in kvctl's arguments

struct CtlCase {
    const char* name;
    const char* kvdsim;  // its arguments, separated by blanks; null: no daemon
    std::vector<std::string> args;
    int status;
    std::string
        out;  // exact text; a JSON text is compared as parsed; a regex when it starts with ^
    std::string err;  // exact text
};

std::vector<std::string> words(const char* text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

void expectOutput(const std::string& expected, const std::string& actual) {
    if (!expected.empty() && expected[0] == '{') {
        const nlohmann::json parsed = nlohmann::json::parse(actual, nullptr, false);
        ASSERT_FALSE(parsed.is_discarded()) << actual;
        EXPECT_EQ(parsed, nlohmann::json::parse(expected));
        EXPECT_EQ(std::count(actual.begin(), actual.end(), '\n'), 1) << "one object per run";
    } else if (!expected.empty() && expected[0] == '^') {
        EXPECT_TRUE(std::regex_match(actual, std::regex(expected))) << actual;
    } else {
        EXPECT_EQ(actual, expected);
    }
}

const char kDetail[] =
    "--collector-status busy --collector-detail 7,spooling,kv\"1,no,remote, "
    "--db-size 42MB --despool-rate 3/s --online no";
const char kUnreachable[] = "Kavelo daemon does not appear to be running or reachable";

TEST(Kvctl, CommandsAgainstTheSimulatedDaemon) {
    KV_REQUIRE_HERMETIC();
    // Usage errors print the text that --help prints after their own line.
    const kvtest::ProgramResult help = kvtest::runProgram({kKvctl, "--help"});
    ASSERT_EQ(help.status, 0);
    ASSERT_EQ(help.out.rfind("Usage: kvctl ", 0), 0u) << help.out;
    const CtlCase cases[] = {
        {"status",
         kDetail,
         {"--socket", kSocket, "status"},
         0,
         "online:            no\n"
         "collector status:  busy\n"
         "collector detail:  7 | spooling | kv\"1 | no | remote | \n"
         "database size:     42MB\n"
         "despool rate:      3/s\n",
         ""},
        {"status json",
         kDetail,
         {"--json", "--socket", kSocket, "status"},
         0,
         R"({"online": false, "collector_status": "busy",
             "collector_detail": [7, "spooling", "kv\"1", false, "remote", ""],
             "database_size": "42MB", "despool_rate": "3/s"})",
         ""},
        {"ping",
         "",
         {"--socket", kSocket, "ping"},
         0,
         "^daemon answers, round trip [0-9]+\\.[0-9]{3} ms\n$",
         ""},
        {"ping json",
         "",
         {"--socket", kSocket, "--json", "ping"},
         0,
         "^\\{\"answers\":true,\"round_trip_ms\":[0-9.e-]+\\}\n$",
         ""},
        {"reload", "", {"--socket", kSocket, "reload"}, 0, "reload answered 0 (done)\n", ""},
        {"reload refused json",
         "--reload-result 7",
         {"--socket", kSocket, "--json", "reload"},
         2,
         R"({"reload_result": 7})",
         "kvctl: reload: the daemon answered 7\n"},
        {"stop json",
         "--exit-on-stop",
         {"--json", "--socket", kSocket, "stop"},
         0,
         R"({"stop": "stopped"})",
         ""},
        {"stop, still answering",
         "",
         {"--json", "--socket", kSocket, "stop"},
         2,
         R"({"stop": "still answering"})",
         "kvctl: stop: the daemon still answers after the stop request\n"},
        {"socket from the configuration file", "", {"status"}, 0, "^online: +yes\n(.*\n){4}$", ""},
        {"not reachable",
         nullptr,
         {"--socket", kSocket, "status"},
         1,
         "",
         std::string("kvctl: status: ") + kUnreachable + "\n"},
        {"authentication refused",
         "--auth --auth-answer one-path",
         {"--socket", kSocket, "ping"},
         2,
         "",
         "kvctl: ping: Unable to send lrpc2 message: 409 (Process authentication failed)\n"},
        {"reply of the wrong shape",
         "--reply-fields 90=0301000000",
         {"--socket", kSocket, "status"},
         2,
         "",
         "kvctl: status: Error reading string from request message\n"},
        {"time-out of this run",
         "--fault silent-request",
         {"--timeout", "1", "--socket", kSocket, "ping"},
         2,
         "",
         "kvctl: ping: Unable to send lrpc2 message: 408 (Timeout during operation)\n"},
        {"unknown command",
         nullptr,
         {"restart"},
         2,
         "",
         std::string("kvctl: unknown command: 'restart'\n") + help.out},
        {"unknown option",
         nullptr,
         {"--force", "stop"},
         2,
         "",
         std::string("kvctl: unknown option or missing argument: --force\n") + help.out},
        {"bad time-out",
         nullptr,
         {"--timeout", "-1", "ping"},
         2,
         "",
         std::string("kvctl: bad time-out: '-1'\n") + help.out},
        {"two commands",
         nullptr,
         {"ping", "stop"},
         2,
         "",
         std::string("kvctl: one command only\n") + help.out},
    };
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
        std::vector<std::string> argv = {kKvctl};
        for (const std::string& a : c.args) {
            argv.push_back(a == kSocket ? dir.file("sock") : a);
        }
        const kvtest::ProgramResult r = kvtest::runProgram(argv);
        EXPECT_EQ(r.status, c.status);
        expectOutput(c.out, r.out);
        EXPECT_EQ(r.err, c.err);
    }
}

}  // namespace
