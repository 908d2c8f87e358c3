// kvstop against a daemon that still completes the handshake after the stop request but
// never answers the ping: the run waits out the fixed 60-second ping and succeeds.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/hermetic.h"
#include "support/kvdsim.h"
#include "support/program.h"
#include "support/syslog_sink.h"

namespace {

TEST(KvstopLong, PingNeverAnsweredMeansStopped) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    kvtest::SyslogSink sink;
    kvtest::TempDir dir;
    ASSERT_TRUE(kvtest::writeDaemonConfig("kvd.data.dir=" + dir.path() +
                                          "\nkvd.socket=sock\nlrpc2.timeout=1\n"));
    kvtest::Kvdsim daemon(dir, {"--fault", "silent-request", "--fault-conn", "2"});
    ASSERT_TRUE(daemon.ready());

    const kvtest::ProgramResult r = kvtest::runProgram({KV_BIN_DIR "/tools/kvstop/kvstop"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "Zantor Kavelo daemon stopped successfully.\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(sink.takeTexts(),
              std::vector<std::string>{
                  "INFO  zkv.cli.kvstop Zantor Kavelo daemon stopped successfully."});
    daemon.terminate();
    EXPECT_EQ(daemon.log(),
              (std::vector<std::string>{"1 hello 02000000", "1 frame 1280cdab0b000000140000",
                                        "2 hello 02000000", "2 frame 1280cdab0b0000000a0000"}));
}

}  // namespace
