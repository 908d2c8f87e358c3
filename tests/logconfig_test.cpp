// Logger configuration from properties, facilities and the one-time openlog decision,
// checked on the records that reach a private "/dev/log".
#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/files.h"
#include "support/hermetic.h"
#include "support/syslog_sink.h"
#include "zfw/logdelivery.h"
#include "zfw/logger.h"
#include "zfw/mutex.h"
#include "zfw/properties.h"

namespace {

using zfw::Logger;

kvtest::SyslogSink& sink() {
    static kvtest::SyslogSink s;
    return s;
}

// Loads text into a store of its own; every parse configures the loggers.
void configureFrom(const std::string& text) {
    zfw::Properties props(true, false);
    std::istringstream in(text);
    props.parse(in, true);
}

// The process-wide store loaded from an empty file, before the first record would load it
// (a missing file is reported at ERROR).
void loadEmptyConfigFile() {
    std::ofstream(zfw::Properties::gConfigPath).close();
    zfw::Properties::getProperties(false);
}

std::vector<std::string> complaints() {
    return sink().takeTexts("com.zantor.logger");
}

std::string complaint(const std::string& text) {
    return "WARN  com.zantor.logger " + text;
}

class LogConfigTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!kvtest::insideHermeticDevLog()) {
            return;  // the test body runs itself again inside
        }
        sink();
    }
};

TEST_F(LogConfigTest, LevelsFollowTheProperties) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    loadEmptyConfigFile();
    configureFrom("log=debug\nlog.a=ERROR\n");
    EXPECT_EQ(Logger::get("")->level(), Logger::DEBUG);
    EXPECT_EQ(Logger::get("a")->effectiveLevel(), Logger::ERROR);
    EXPECT_EQ(Logger::get("a.b")->effectiveLevel(), Logger::ERROR);
    EXPECT_EQ(Logger::get("zkv.cli.kvstop")->effectiveLevel(), Logger::DEBUG);
    sink().take();
    Logger::get("a.b")->log(Logger::WARN, "hidden");
    Logger::get("a.b")->log(Logger::ERROR, "shown");
    Logger::get("zkv.cli.kvstop")->log(Logger::DEBUG, "debug shown");
    EXPECT_EQ(sink().takeTexts(),
              (std::vector<std::string>{"ERROR a.b shown", "DEBUG zkv.cli.kvstop debug shown"}));
    EXPECT_TRUE(complaints().empty());
}

TEST_F(LogConfigTest, EachConfigurationStartsAfresh) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    configureFrom("log.r=ERROR\n");
    const boost::shared_ptr<Logger> child = Logger::get("r.child");
    EXPECT_FALSE(child->isEnabled(Logger::WARN));
    // The cached level survives a direct change of the parent, not a new configuration.
    Logger::get("r")->setLevel(Logger::DEBUG);
    EXPECT_FALSE(child->isEnabled(Logger::WARN));
    configureFrom("log=warn\n");
    EXPECT_EQ(Logger::get("r")->level(), Logger::UNSET);
    EXPECT_TRUE(child->isEnabled(Logger::WARN));
    EXPECT_FALSE(child->isEnabled(Logger::INFO));
    configureFrom("");
    EXPECT_EQ(Logger::get("")->level(), Logger::INFO);
}

TEST_F(LogConfigTest, BadLevelsAreReportedAndSkipped) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    configureFrom("log=verbose\nlog.=DEBUG\nlog.x=loud\nlog.ok=Warn\n");
    EXPECT_EQ(complaints(),
              (std::vector<std::string>{
                  complaint("Illegal value for property 'log': 'verbose'. Using 'INFO'."),
                  complaint("Illegal log name: 'log.'"),
                  complaint("Illegal log level. Property: 'log.x', value: 'loud'")}));
    EXPECT_EQ(Logger::get("")->level(), Logger::INFO);
    EXPECT_EQ(Logger::get("ok")->level(), Logger::WARN);
}

TEST_F(LogConfigTest, DisabledSilencesAllButTheComplaints) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    loadEmptyConfigFile();
    configureFrom("log=DISABLED\nlog.x=loud\n");
    Logger::get("zkv.cli.kvstop")->log(Logger::FATAL, "not written");
    const std::vector<kvtest::SyslogRecord> records = sink().takeRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, complaint("Illegal log level. Property: 'log.x', value: 'loud'"));
    EXPECT_EQ(records[0].priority, LOG_AUTH | LOG_WARNING);
}

TEST_F(LogConfigTest, FacilityNames) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const struct {
        const char* name;
        int32_t code;
    } cases[] = {{"auth", 32},    {"authpriv", 80}, {"cron", 72},    {"daemon", 24},
                 {"ftp", 88},     {"kern", 0},      {"lpr", 48},     {"mail", 16},
                 {"news", 56},    {"syslog", 40},   {"user", 8},     {"uucp", 64},
                 {"local0", 128}, {"local1", 136},  {"local2", 144}, {"local3", 152},
                 {"local4", 160}, {"local5", 168},  {"local6", 176}, {"local7", 184},
                 {"LOCAL3", 152}, {"Auth", 32},     {"", -1},        {"local8", -1},
                 {"auth ", -1},   {"bogus", -1}};
    for (const auto& c : cases) {
        EXPECT_EQ(zfw::parseFacility(c.name), c.code) << c.name;
    }
}

TEST_F(LogConfigTest, ProgramFacilityOverridesTheWildcard) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const std::string self = zfw::processName();
    configureFrom("logger.facility.*=daemon\nlogger.facility." + self + "=local1\n");
    EXPECT_EQ(Logger::get("")->facility(), LOG_LOCAL1);
    configureFrom("logger.facility.*=daemon\nlogger.facility.otherprog=local1\n");
    EXPECT_EQ(Logger::get("")->facility(), LOG_DAEMON);
    Logger::get("fac.any")->log(Logger::INFO, "x");
    const std::vector<kvtest::SyslogRecord> records = sink().takeRecords();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back().priority, LOG_DAEMON | LOG_INFO);
    EXPECT_TRUE(complaints().empty());
}

TEST_F(LogConfigTest, PerLoggerFacilitiesAndComplaints) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    loadEmptyConfigFile();
    configureFrom(
        "logger.facility.*=bogus\n"
        "logger.facility.*.=local2\n"
        "logger.facility.*.net.x=local3\n"
        "logger.facility.*.net.y=nope\n");
    EXPECT_EQ(complaints(),
              (std::vector<std::string>{
                  complaint("Illegal value facility name: 'bogus' for 'logger.facility.*'. "
                            "Using 'auth'."),
                  complaint("Illegal facility name: 'logger.facility.*.'"),
                  complaint("Illegal log facility. Property: 'logger.facility.*.net.y', value: "
                            "'nope'")}));
    EXPECT_EQ(Logger::get("")->facility(), LOG_AUTH);
    EXPECT_EQ(Logger::get("net.y")->facility(), Logger::UNSET);
    Logger::get("net.x.sub")->log(Logger::WARN, "w");
    Logger::get("net.y")->log(Logger::INFO, "i");
    std::vector<int> priorities;
    for (const kvtest::SyslogRecord& r : sink().takeRecords()) {
        priorities.push_back(r.priority);
    }
    EXPECT_EQ(priorities, (std::vector<int>{156, 38}));
}

// The first record of the process decides about openlog from "logger.openlog.<program>";
// turning it off or leaving it on is checked end to end with kvstop (kvstop_log_test.cpp),
// these cases are about which record decides.
struct OpenlogCase {
    const char* name;
    std::string configFile;
    bool privateStore;  // the complaint comes from a store of its own, after the load
    int expectPid;      // 1: every record carries "[pid]"; 0: none does
};

TEST_F(LogConfigTest, ComplaintsUnderTheLoadDecideAboutOpenlog) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const std::string off = "logger.openlog." + zfw::processName() + "=no\n";
    const OpenlogCase cases[] = {
        {"first load complains", "log.x=loud\n", false, 1},
        {"first load complains, openlog off", "log.x=loud\n" + off, false, 0},
        {"private store complains", "", true, 1},
    };
    for (const OpenlogCase& c : cases) {
        // Each case needs a process of its own: the decision is made once.
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            kvtest::writeFile(zfw::Properties::gConfigPath, c.configFile);
            zfw::Properties::getProperties(false);
            if (c.privateStore) {
                configureFrom("log.x=loud\n");
            }
            Logger::get("next")->log(Logger::ERROR, "after");
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0) << c.name;
        const std::vector<kvtest::SyslogRecord> records = sink().takeRecords();
        ASSERT_EQ(records.size(), 2u) << c.name;
        EXPECT_EQ(records[0].text, complaint("Illegal log level. Property: 'log.x', value: 'loud'"))
            << c.name;
        EXPECT_EQ(records[0].identity, zfw::processName()) << c.name;
        EXPECT_EQ(records[1].text, "ERROR next after") << c.name;
        for (const kvtest::SyslogRecord& r : records) {
            EXPECT_EQ(r.pid, c.expectPid != 0 ? child : -1) << c.name << ": " << r.raw;
        }
    }
}

TEST_F(LogConfigTest, ARecordUnderALockDoesNotDecideAboutOpenlog) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    zfw::Mutex someModuleLock;
    {
        zfw::MutexLock lock(someModuleLock);
        Logger::get("locked")->log(Logger::INFO, "under a lock");
    }
    Logger::get("free")->log(Logger::INFO, "decides");
    std::vector<kvtest::SyslogRecord> records = sink().takeRecords();
    // The decision loaded the (missing) configuration file and said so.
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].text, "INFO  locked under a lock");
    EXPECT_EQ(records[0].pid, -1);
    EXPECT_EQ(records[1].text,
              "ERROR util.properties Unable to open config file: /etc/zantorkv/zantorkv.conf");
    EXPECT_EQ(records[2].text, "INFO  free decides");
    EXPECT_EQ(records[2].pid, getpid());
}

TEST_F(LogConfigTest, FirstRecordLoadsTheProperties) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    kvtest::writeFile(zfw::Properties::gConfigPath, "log=warn\nlogger.facility.*=local0\n");
    // The load happens inside the first record's delivery and configures the loggers.
    Logger::get("early")->log(Logger::ERROR, "first");
    Logger::get("early")->setLevel(Logger::UNSET);
    Logger::get("early")->log(Logger::INFO, "hidden");
    Logger::get("early")->log(Logger::WARN, "second");
    const std::vector<kvtest::SyslogRecord> records = sink().takeRecords();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].text, "ERROR early first");
    EXPECT_EQ(records[1].text, "WARN  early second");
    EXPECT_EQ(records[1].priority, LOG_LOCAL0 | LOG_WARNING);
}

TEST_F(LogConfigTest, ConfiguringWhileOthersLogDoesNotDeadlock) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    for (int t = 0; t < 2; ++t) {
        loggers.emplace_back([t, &stop] {
            while (!stop) {
                Logger::get("busy." + std::to_string(t))->log(Logger::WARN, "record");
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        // Every round complains, so it delivers records while holding the registry lock.
        configureFrom("log=loud\nlogger.facility.*=bogus\n");
    }
    stop = true;
    for (std::thread& t : loggers) {
        t.join();
    }
    EXPECT_EQ(complaints().size(), 200u);
}

int countSockets() {
    int sockets = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* entry = readdir(dir)) {
        char target[64] = {};
        const std::string path = std::string("/proc/self/fd/") + entry->d_name;
        if (readlink(path.c_str(), target, sizeof target - 1) > 0 &&
            std::string(target).rfind("socket:", 0) == 0) {
            ++sockets;
        }
    }
    closedir(dir);
    return sockets;
}

TEST_F(LogConfigTest, ShutdownClosesTheSystemLog) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    Logger::get("last")->log(Logger::INFO, "before shutdown");
    EXPECT_EQ(sink().takeTexts("last").size(), 1u);
    const int before = countSockets();
    Logger::shutdown();
    EXPECT_EQ(countSockets(), before - 1);
}

}  // namespace
