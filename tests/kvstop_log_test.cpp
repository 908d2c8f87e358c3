// kvstop's system log follows "/etc/zantorkv/zantorkv.conf" as the properties store reads
// it: levels ("log", "log.<name>"), facilities ("logger.facility.*", ".kvstop", per logger),
// whether to call openlog ("logger.openlog.kvstop"), and values taken from the host settings
// in "/var/zantormx/". Each case stops a simulated daemon and reads the real datagrams.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/hermetic.h"
#include "support/kvdsim.h"
#include "support/program.h"
#include "support/syslog_sink.h"

namespace {

const std::string kKvstop = std::string(KV_BIN_DIR) + "/tools/kvstop/kvstop";
const char kStopped[] = "Zantor Kavelo daemon stopped successfully.";
// The success record: the first record of the run. It passes its level check and gets its
// facility before the properties are loaded (that happens while it is delivered), so it
// always goes out at INFO with the facility "auth". Records logged during that load (the
// listing, complaints) already follow "logger.openlog.kvstop".
const std::string kSuccess = std::string("<38> kvstop[pid]: INFO  zkv.cli.kvstop ") + kStopped;
const std::string kNoOpen = std::string("<38> kvstop: INFO  zkv.cli.kvstop ") + kStopped;

// The configuration lines every case starts with; "@DIR@" stands for the socket directory.
const char kSocketLines[] = "kvd.data.dir=@DIR@\nkvd.socket=sock\n";

struct LogCase {
    const char* name;
    std::string config;                                      // after the socket lines
    std::vector<std::pair<std::string, std::string>> ksets;  // host settings files
    std::vector<std::string> records;  // "<priority> identity[pid]: text", in order
};

void PrintTo(const LogCase& c, std::ostream* os) {
    *os << c.name;
}

std::string replaced(std::string text, const std::string& dir) {
    for (size_t at; (at = text.find("@DIR@")) != std::string::npos;) {
        text.replace(at, 5, dir);
    }
    return text;
}

// The listing lines of a case (keys in order), then the success record.
std::vector<std::string> with(std::vector<std::string> first, const std::string& last) {
    first.push_back(last);
    return first;
}

class KvstopLogSettings : public ::testing::TestWithParam<LogCase> {};

TEST_P(KvstopLogSettings, RecordsFollowTheConfiguration) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const LogCase& c = GetParam();
    for (const auto& kset : c.ksets) {
        std::ofstream out("/var/zantormx/kset." + kset.first);
        out << kset.second;
        ASSERT_TRUE(out.good());
    }
    kvtest::SyslogSink sink;
    kvtest::TempDir dir;
    ASSERT_TRUE(kvtest::writeDaemonConfig(replaced(kSocketLines + c.config, dir.path())));
    kvtest::Kvdsim daemon(dir, {"--exit-on-stop"});
    ASSERT_TRUE(daemon.ready());

    const kvtest::ProgramResult r = kvtest::runProgram({kKvstop});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, std::string(kStopped) + "\n");

    std::vector<std::string> records;
    for (const kvtest::SyslogRecord& record : sink.takeRecords()) {
        records.push_back("<" + std::to_string(record.priority) + "> " + record.identity +
                          (record.pid != -1 ? "[pid]" : "") + ": " + record.text);
    }
    std::vector<std::string> expected;
    for (const std::string& line : c.records) {
        expected.push_back(replaced(line, dir.path()));
    }
    EXPECT_EQ(records, expected);
}

const std::string kTrace = "log.util.properties=TRACE\n";

// Priorities are facility + level priority (TRACE 7, INFO 6, WARN 4): auth 32, daemon 24,
// local1 136, local3 152.
INSTANTIATE_TEST_SUITE_P(
    Cases, KvstopLogSettings,
    ::testing::Values(
        LogCase{"defaults", "", {}, {kSuccess}},
        LogCase{"root_level_is_no_filter_for_the_first_record", "log=DISABLED\n", {}, {kSuccess}},
        LogCase{"no_openlog", "logger.openlog.kvstop=No\n", {}, {kNoOpen}},
        LogCase{"openlog_unclear_means_yes", "logger.openlog.kvstop=maybe\n", {}, {kSuccess}},
        LogCase{"listing_at_trace",
                kTrace,
                {},
                with({"<39> kvstop[pid]: TRACE util.properties property: kvd.data.dir=@DIR@",
                      "<39> kvstop[pid]: TRACE util.properties property: kvd.socket=sock",
                      "<39> kvstop[pid]: TRACE util.properties property: log.util.properties=TRACE"},
                     kSuccess)},
        // The listing needs TRACE on its own logger; DEBUG there is not enough.
        LogCase{"no_listing_at_debug", "log=TRACE\nlog.util.properties=DEBUG\n", {}, {kSuccess}},
        LogCase{"listing_through_parent_level",
                "log=ERROR\nlog.util=TRACE\n",
                {},
                with({"<39> kvstop[pid]: TRACE util.properties property: kvd.data.dir=@DIR@",
                      "<39> kvstop[pid]: TRACE util.properties property: kvd.socket=sock",
                      "<39> kvstop[pid]: TRACE util.properties property: log=ERROR",
                      "<39> kvstop[pid]: TRACE util.properties property: log.util=TRACE"},
                     kSuccess)},
        LogCase{"facility_for_every_process",
                "logger.facility.*=daemon\n" + kTrace,
                {},
                with({"<31> kvstop[pid]: TRACE util.properties property: kvd.data.dir=@DIR@",
                      "<31> kvstop[pid]: TRACE util.properties property: kvd.socket=sock",
                      "<31> kvstop[pid]: TRACE util.properties property: log.util.properties=TRACE",
                      "<31> kvstop[pid]: TRACE util.properties property: logger.facility.*=daemon"},
                     kSuccess)},
        LogCase{"facilities_for_kvstop_and_one_logger",
                "logger.facility.*=daemon\nlogger.facility.kvstop=local1\n"
                "logger.facility.kvstop.util=local3\n" +
                    kTrace,
                {},
                with({"<159> kvstop[pid]: TRACE util.properties property: kvd.data.dir=@DIR@",
                      "<159> kvstop[pid]: TRACE util.properties property: kvd.socket=sock",
                      "<159> kvstop[pid]: TRACE util.properties property: log.util.properties=TRACE",
                      "<159> kvstop[pid]: TRACE util.properties property: logger.facility.*=daemon",
                      "<159> kvstop[pid]: TRACE util.properties property: "
                      "logger.facility.kvstop=local1",
                      "<159> kvstop[pid]: TRACE util.properties property: "
                      "logger.facility.kvstop.util=local3"},
                     kSuccess)},
        LogCase{"bad_facility_is_reported",
                "logger.facility.*=bogus\n",
                {},
                {"<36> kvstop[pid]: WARN  com.zantor.logger Illegal value facility name: 'bogus' for "
                 "'logger.facility.*'. Using 'auth'.",
                 kSuccess}},
        // Join parameters come from the host settings; the first load resolves them before
        // it reads the file's own override, so "kset.domain" does not count yet.
        LogCase{"values_from_host_settings",
                "kset.domain=override\nlog.util.properties=\\\n   $DOMAIN\n"
                "where=$JOINNAME@$SITE/$ZONE\n",
                {{"host", "host1\n"},
                 {"site", "  site1 "},
                 {"domain", "TRACE"},
                 {"zonename", "CN=zone1,CN=Zones,DC=example"}},
                with({"<39> kvstop[pid]: TRACE util.properties property: kset.domain=override",
                      "<39> kvstop[pid]: TRACE util.properties property: kvd.data.dir=@DIR@",
                      "<39> kvstop[pid]: TRACE util.properties property: kvd.socket=sock",
                      "<39> kvstop[pid]: TRACE util.properties property: log.util.properties=TRACE",
                      "<39> kvstop[pid]: TRACE util.properties property: where=host1@site1/zone1"},
                     kSuccess)},
        LogCase{"unreadable_setting_is_unknown",
                "log.util.properties=$DOMAIN\n",
                {{"domain", "bad\rvalue"}},
                {"<36> kvstop[pid]: WARN  com.zantor.logger Illegal log level. Property: "
                 "'log.util.properties', value: '<unknown>'",
                 kSuccess}},
        LogCase{"quoted_and_escaped_values",
                "log = \"warn\"\nlog.util\\.properties=\\\n 'trace'\n",
                {},
                with({"<39> kvstop[pid]: TRACE util.properties property: kvd.data.dir=@DIR@",
                      "<39> kvstop[pid]: TRACE util.properties property: kvd.socket=sock",
                      "<39> kvstop[pid]: TRACE util.properties property: log=warn",
                      "<39> kvstop[pid]: TRACE util.properties property: log.util.properties=trace"},
                     kSuccess)}),
    [](const ::testing::TestParamInfo<LogCase>& info) { return std::string(info.param.name); });

}  // namespace
