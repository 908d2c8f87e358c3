// The real kvstop under valgrind, end to end against the simulated daemon: no memory error
// and no leak on any outcome. Built for the plain build only (valgrind cannot run a
// sanitizer build).
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "support/hermetic.h"
#include "support/kvdsim.h"
#include "support/program.h"

namespace {

const char kKvstop[] = KV_BIN_DIR "/tools/kvstop/kvstop";
const char kValgrind[] = "/usr/bin/valgrind";
// kvstop's own statuses are 0 to 2: a distinct one tells valgrind's findings apart.
constexpr int kValgrindError = 99;

struct ValgrindCase {
    const char* name;
    bool daemon;
    std::vector<std::string> kvdsimArgs;
    int status;
    std::string out;
    std::string err;
};

void PrintTo(const ValgrindCase& c, std::ostream* os) {
    *os << c.name;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class KvstopValgrind : public ::testing::TestWithParam<ValgrindCase> {};

TEST_P(KvstopValgrind, NoErrorsNoLeaks) {
    KV_REQUIRE_HERMETIC();
    const ValgrindCase& c = GetParam();
    kvtest::TempDir dir;
    ASSERT_TRUE(kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path() + "\nkvd.socket=sock\n"));
    std::unique_ptr<kvtest::Kvdsim> daemon;
    if (c.daemon) {
        daemon.reset(new kvtest::Kvdsim(dir, c.kvdsimArgs));
        ASSERT_TRUE(daemon->ready());
    }
    const std::string report = dir.file("valgrind.log");
    const kvtest::ProgramResult r = kvtest::runProgram(
        {kValgrind, "--error-exitcode=" + std::to_string(kValgrindError), "--leak-check=full",
         "--errors-for-leak-kinds=definite,indirect,possible", "--log-file=" + report, kKvstop});
    const std::string log = readFile(report);
    EXPECT_EQ(r.status, c.status) << log;
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
    EXPECT_NE(log.find("ERROR SUMMARY: 0 errors from 0 contexts"), std::string::npos) << log;
    if (daemon) {
        daemon->terminate();
    }
}

const char kStopped[] = "Zantor Kavelo daemon stopped successfully.\n";
const char kUnreachable[] = "Kavelo daemon does not appear to be running or reachable.\n";

INSTANTIATE_TEST_SUITE_P(
    Cases, KvstopValgrind,
    ::testing::Values(
        ValgrindCase{"stopped", true, {"--exit-on-stop"}, 0, kStopped, ""},
        ValgrindCase{"not_reachable", false, {}, 1, "", kUnreachable},
        ValgrindCase{"authentication_demanded",
                     true,
                     {"--auth", "--exit-on-stop", "--proof-size", "2000"},
                     0,
                     kStopped,
                     ""},
        ValgrindCase{"authentication_refused",
                     true,
                     {"--auth", "--auth-answer", "one-path"},
                     2,
                     "",
                     "Unable to stop Kavelo daemon: \"Unable to send lrpc2 message: 409 (Process "
                     "authentication failed)\"\n"}),
    [](const ::testing::TestParamInfo<ValgrindCase>& info) {
        return std::string(info.param.name);
    });

}  // namespace
