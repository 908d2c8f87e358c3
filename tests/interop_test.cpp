// kvctl's monitoring forms judged by the programs that read them: promtool checks `kvctl
// metrics`, node_exporter scrapes what `kvctl metrics --textfile` wrote (both unpacked by
// scripts/setup.sh, never installed), and the monitoring-plugin libraries (Perl and Python,
// tests/interop/) read every `kvctl check` line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/child.h"
#include "support/files.h"
#include "support/kvdsim.h"
#include "support/program.h"

namespace {

using Words = std::vector<std::string>;
const std::string kKvctl = KV_BIN_DIR "/tools/kvctl/kvctl";
const std::string kScripts = KV_INTEROP_SCRIPTS;
const std::string kPromtool = KV_INTEROP_TOOLS "/promtool";
const std::string kNodeExporter = KV_INTEROP_TOOLS "/prometheus-node-exporter";

// A label text with every kind of byte that needs care: backslash, double quote, line feed,
// non-ASCII, controls; and what kvctl makes of it (controls become '?').
const std::string kOdd = "back\\slash \"quoted\"\nline two \xc3\xa9 \x01\x7f end";
const std::string kOddShown = "back\\slash \"quoted\"\nline two \xc3\xa9 ?? end";

const Words kDown = {"down"};  // for a daemon's arguments: no daemon
const Words kOddDaemon = {"--collector-status", kOdd, "--collector-detail",
                          "9," + kOdd + "," + kOdd + ",no," + kOdd + "," + kOdd};

// kvctl with `args` against the simulated daemon started with `daemon` in `dir`.
kvtest::ProgramResult kvctl(const kvtest::TempDir& dir, const Words& daemon, const Words& args) {
    Words argv = {kKvctl, "-s", dir.file("sock")};
    argv.insert(argv.end(), args.begin(), args.end());
    if (daemon == kDown) {
        return kvtest::runProgram(argv);
    }
    kvtest::Kvdsim sim(dir, daemon);
    EXPECT_TRUE(sim.ready());
    return kvtest::runProgram(argv);
}

// A program's exit status and everything it wrote, as one text to compare.
std::string outcome(const kvtest::ProgramResult& r) {
    return std::to_string(r.status) + "\n" + r.out + r.err;
}

kvtest::ProgramResult promtool(const std::string& file) {
    return kvtest::runProgram(
        {"/bin/sh", "-c", "exec \"$0\" check metrics <\"$1\"", kPromtool, file});
}

// Every case of a table is named; its name also stands for it in ctest's list.
struct Named {
    std::string name;
    friend std::ostream& operator<<(std::ostream& os, const Named& n) { return os << n.name; }
};
template <typename Case>
std::string nameOf(const ::testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

struct MetricsCase : Named {
    Words daemon;
    int status;
};

class Promtool : public ::testing::TestWithParam<MetricsCase> {};

TEST_P(Promtool, AcceptsTheMetricsSilently) {
    ASSERT_EQ(access(kPromtool.c_str(), X_OK), 0) << kPromtool << ": run scripts/setup.sh";
    kvtest::TempDir dir;
    const kvtest::ProgramResult r = kvctl(dir, GetParam().daemon, {"-t", "10", "metrics"});
    EXPECT_EQ(r.status, GetParam().status) << r.err;
    EXPECT_EQ(outcome(promtool(dir.write("metrics", r.out))), "0\n");
}

INSTANTIATE_TEST_SUITE_P(
    Metrics, Promtool,
    ::testing::Values(MetricsCase{{"up"}, {}, 0},
                      MetricsCase{"collector_stopped",
                                  {"--collector-status", "stopped", "--collector-detail",
                                   "0,stopped,kvdsim,no,local,"},
                                  0},
                      MetricsCase{"numbers_as_text",
                                  {"--db-size", "42MB", "--despool-rate", "n/a", "--online", "no"},
                                  0},
                      MetricsCase{{"odd_label_text"}, kOddDaemon, 0},
                      MetricsCase{{"down"}, kDown, 1}),
    nameOf<MetricsCase>);

// The same output with a name broken is refused, or the acceptance above proves nothing.
TEST(PromtoolComplains, AboutBrokenNames) {
    ASSERT_EQ(access(kPromtool.c_str(), X_OK), 0) << kPromtool << ": run scripts/setup.sh";
    kvtest::TempDir dir;
    const std::string good = kvctl(dir, {}, {"-t", "10", "metrics"}).out;
    for (const auto& [from, to, complaint] :
         {std::tuple{"kavelo_ping_round_trip_seconds", "kavelo_ping_round_trip_ms",
                     "kavelo_ping_round_trip_ms metric names should not contain abbreviated units"},
          std::tuple{"# TYPE kavelo_up gauge", "# TYPE kavelo_up counter",
                     "kavelo_up counter metrics should have \"_total\" suffix"}}) {
        std::string broken = good;
        for (size_t at; (at = broken.find(from)) != std::string::npos;) {
            broken.replace(at, strlen(from), to);
        }
        EXPECT_EQ(outcome(promtool(dir.write("broken", broken))),
                  std::string("3\n") + complaint + "\n");
    }
}

struct TextfileCase : Named {
    Words daemon;
    const char* timeout;
    int status;
    const char* up;
};

class NodeExporter : public ::testing::TestWithParam<TextfileCase> {};

// The kavelo_ samples of a Prometheus text file, decoded (tests/interop/samples.py); the
// decoded status label goes to `status`.
std::string samples(const std::string& file, const std::string& status) {
    const kvtest::ProgramResult r =
        kvtest::runProgram({"/usr/bin/python3", kScripts + "/samples.py", file, status});
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
}

// What kvctl wrote, scraped through node_exporter's textfile collector: no scrape error, the
// same samples, and the odd collector status decoded as kvctl shows it.
TEST_P(NodeExporter, ScrapesTheTextfile) {
    ASSERT_EQ(access(kNodeExporter.c_str(), X_OK), 0) << kNodeExporter << ": run scripts/setup.sh";
    kvtest::TempDir dir, textfiles;
    const std::string url = "http://127.0.0.1:9100/metrics";
    kvtest::ChildProcess exporter([&] {
        const int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(quiet, 1);
        dup2(quiet, 2);
        const std::string collect = "--collector.textfile.directory=" + textfiles.path();
        execl(kNodeExporter.c_str(), kNodeExporter.c_str(), "--collector.disable-defaults",
              "--collector.textfile", collect.c_str(), "--web.listen-address=127.0.0.1:9100",
              nullptr);
        return 127;
    });
    const Words curl = {"/usr/bin/curl", "-sSf", "--max-time", "5", "-o"};
    const auto fetch = [&](const std::string& to) {
        Words argv = curl;
        argv.insert(argv.end(), {to, url});
        return kvtest::runProgram(argv).status == 0;
    };
    bool listening = false;
    for (int i = 0; i < 100 && !listening; ++i) {
        kvtest::sleepMs(100);
        listening = fetch("/dev/null");
    }
    ASSERT_TRUE(listening) << "node_exporter did not answer within 10 s";

    const TextfileCase& c = GetParam();
    const std::string prom = textfiles.file("kavelo.prom"), scrape = dir.file("scrape");
    const kvtest::ProgramResult r =
        kvctl(dir, c.daemon, {"-t", c.timeout, "metrics", "--textfile", prom});
    EXPECT_EQ(outcome(r), std::to_string(c.status) + "\n" + r.err);
    EXPECT_EQ(kvtest::modeOf(prom), 0644u);
    EXPECT_EQ(kvtest::runProgram({"/bin/ls", "-A", textfiles.path()}).out, "kavelo.prom\n");
    ASSERT_TRUE(fetch(scrape));
    EXPECT_NE(kvtest::readFile(scrape).find("\nnode_textfile_scrape_error 0\n"), std::string::npos);
    const std::string got = samples(scrape, dir.file("status.scraped"));
    EXPECT_EQ(got, samples(prom, dir.file("status.file")));
    EXPECT_NE(("\n" + got).find(std::string("\nkavelo_up [] ") + c.up + "\n"), std::string::npos)
        << got;
    if (c.daemon == kOddDaemon) {
        EXPECT_EQ(kvtest::readFile(dir.file("status.scraped")), kOddShown);
    }
}

// Up, down, and hung (no answer to the ping: the time-out commits kavelo_up 0 to the file).
INSTANTIATE_TEST_SUITE_P(
    Textfile, NodeExporter,
    ::testing::Values(TextfileCase{{"up"}, kOddDaemon, "10", 0, "1.0"},
                      TextfileCase{{"down"}, kDown, "10", 1, "0.0"},
                      TextfileCase{{"hung"}, {"--fault", "silent-request"}, "1", 2, "0.0"}),
    nameOf<TextfileCase>);

// Both libraries judge the `kvctl check` line in the file (tests/interop/judge.*) as kvctl did.
void expectJudgedAlike(const std::string& lines) {
    for (const auto& [judge, script] :
         {std::pair{"/usr/bin/perl", "/judge.pl"}, std::pair{"/usr/bin/python3", "/judge.py"}}) {
        EXPECT_EQ(outcome(kvtest::runProgram({judge, kScripts + script, lines})),
                  "0\n1 lines judged, 0 mismatched\n");
    }
}

struct CheckCase : Named {
    std::string warning, critical;
    bool slow;
};

class MonitoringPlugin : public ::testing::TestWithParam<CheckCase> {};

// One line; its state and performance data as the libraries read them. A slow daemon (a byte
// every 5 ms: a round trip of some 40 ms) and a fast one put values on both sides of every
// range form; the value is not chosen but measured, and the libraries judge the one printed.
TEST_P(MonitoringPlugin, LibrariesReadTheCheckLine) {
    const CheckCase& c = GetParam();
    kvtest::TempDir dir;
    Words args = {"-t", "10", "check"};
    for (const auto& [option, range] : {std::pair{"-w", c.warning}, std::pair{"-c", c.critical}}) {
        if (!range.empty()) {
            args.insert(args.end(), {option, range});
        }
    }
    const kvtest::ProgramResult r =
        kvctl(dir, c.slow ? Words{"--piece", "1", "--piece-delay", "5"} : Words{}, args);
    ASSERT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out << r.err;
    expectJudgedAlike(dir.write(
        "lines", c.warning + "\t" + c.critical + "\t" + std::to_string(r.status) + "\t" + r.out));
}

// Each range as warning, with another as critical, on a fast and on a slow daemon; named as
// "fast_w_0p01_1_c_at0p001_0p02" for -w 0.01:1 -c @0.001:0.02.
std::vector<CheckCase> checkCases() {
    const std::string ranges[] = {"",     "0.01:",    "~:0.01",  "0.01:1", "@0.01:1", "@~:0.01",
                                  "0.01", "@0.01",    "1:",      "~:",     "0:0.001", "@0.001:0.02",
                                  ".5",   "0.02:0.5", "@0:0.02", "~:1"};
    const auto tag = [](const std::string& range) {
        std::string out = range.empty() ? "none" : "";
        for (char ch : range) {
            out += ch == '@'   ? "at"
                   : ch == '~' ? "inf"
                   : ch == '.' ? "p"
                   : ch == ':' ? "_"
                               : std::string(1, ch);
        }
        return out;
    };
    std::vector<CheckCase> cases;
    for (const char* speed : {"fast", "slow"}) {
        for (size_t i = 0; i < std::size(ranges); ++i) {
            const std::string& w = ranges[i];
            const std::string& c = ranges[(i + 5) % std::size(ranges)];
            const std::string name = std::string(speed) + "_w_" + tag(w) + "_c_" + tag(c);
            cases.push_back({{name}, w, c, speed[0] == 's'});
        }
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Check, MonitoringPlugin, ::testing::ValuesIn(checkCases()),
                         nameOf<CheckCase>);

TEST(MonitoringPluginStates, StoppedCollectorIsWarningAndNoDaemonCritical) {
    kvtest::TempDir dir;
    const kvtest::ProgramResult stopped =
        kvctl(dir, {"--collector-status", "stopped"}, {"check", "-w", "5", "-c", "10"});
    EXPECT_EQ(stopped.status, 1);
    EXPECT_NE(stopped.out.find(" collector not running: stopped | "), std::string::npos);
    expectJudgedAlike(dir.write("lines", "5\t10\t1\t" + stopped.out));
    EXPECT_EQ(outcome(kvctl(dir, kDown, {"check"})),
              "2\nKAVELO CRITICAL - " + dir.file("sock") +
                  ": Kavelo daemon does not appear to be running or reachable\n");
}

}  // namespace
