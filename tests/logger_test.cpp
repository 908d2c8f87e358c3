// Loggers: the registry, levels and their cache, and the records that reach a private
// "/dev/log" as syslog datagrams.
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/files.h"
#include "support/syslog_sink.h"
#include "support/zfw_config.h"
#include "zfw/logdelivery.h"
#include "zfw/logger.h"
#include "zfw/mutex.h"
#include "zfw/properties.h"
#include "zfw/thread.h"

namespace {

using zfw::Logger;

kvtest::SyslogSink& sink() {
    static kvtest::SyslogSink s;
    return s;
}

// The process-wide store loaded from an empty file, before the first record would load it
// (a missing file is reported at ERROR).
void loadEmptyConfigFile() {
    std::ofstream(zfw::Properties::gConfigPath).close();
    zfw::Properties::getProperties(false);
}

class LoggerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        loadEmptyConfigFile();
        sink().take();
    }
};

TEST_F(LoggerTest, EffectiveLevelIsInheritedAndCached) {
    const boost::shared_ptr<Logger> parent = Logger::get("cache");
    const boost::shared_ptr<Logger> child = Logger::get("cache.child");
    parent->setLevel(Logger::WARN);
    EXPECT_FALSE(child->isEnabled(Logger::INFO));
    EXPECT_TRUE(child->isEnabled(Logger::WARN));
    EXPECT_EQ(child->level(), Logger::WARN);
    // The child keeps the level it first saw.
    parent->setLevel(Logger::DEBUG);
    EXPECT_FALSE(child->isEnabled(Logger::INFO));
    child->log(Logger::INFO, "not written");
    EXPECT_TRUE(sink().takeTexts("not written").empty());
    child->setLevel(Logger::UNSET);
    EXPECT_TRUE(child->isEnabled(Logger::DEBUG));
}

TEST_F(LoggerTest, RecordLayoutAndPriority) {
    const std::string ident = program_invocation_short_name;
    struct Case {
        const char* logger;
        int32_t level, facility;
        std::string text;
        int priority;
    };
    const Case cases[] = {
        {"zkv.cli.kvstop", Logger::INFO, Logger::UNSET, "INFO  zkv.cli.kvstop stopped 5", 38},
        {"client", Logger::WARN, Logger::UNSET, "WARN  stopped 5", 36},
        {"", Logger::INFO, Logger::UNSET, "INFO   stopped 5", 38},
        {"layout.e", Logger::ERROR, Logger::UNSET, "ERROR layout.e stopped 5", 35},
        {"layout.f", Logger::FATAL, LOG_LOCAL3, "FATAL layout.f stopped 5", 152},
        {"layout.w", Logger::WARN, LOG_LOCAL3, "WARN  layout.w stopped 5", 156},
        {"layout.d", Logger::DISABLED, LOG_DAEMON, "DISAB layout.d stopped 5", 24},
        {"layout.t", Logger::TRACE, LOG_LOCAL7, "TRACE layout.t stopped 5", 191},
        {"layout.g", Logger::DEBUG, Logger::UNSET, "DEBUG layout.g stopped 5", 39},
        {"layout.n", 9, Logger::UNSET, "      layout.n stopped 5", 32}};
    for (const Case& c : cases) {
        const boost::shared_ptr<Logger> logger = Logger::get(c.logger);
        if (!std::string(c.logger).empty()) {
            logger->setLevel(Logger::TRACE);
            logger->setFacility(c.facility);
        }
        logger->log(c.level, "stopped %d", 5);
        const std::vector<kvtest::SyslogRecord> records = sink().takeRecords();
        ASSERT_EQ(records.size(), 1u) << c.logger;
        EXPECT_EQ(records[0].priority, c.priority) << c.logger;
        EXPECT_EQ(records[0].identity, ident);
        EXPECT_EQ(records[0].pid, getpid());
        EXPECT_EQ(records[0].text, c.text);
    }
}

// ---- Configuration from properties, facilities and the one-time openlog decision ----

// Loads text into a store of its own; every parse configures the loggers.
void configureFrom(const std::string& text) {
    zfw::Properties props(true, false);
    std::istringstream in(text);
    props.parse(in, true);
}

std::vector<std::string> complaints() {
    return sink().takeTexts("com.zantor.logger");
}

std::string complaint(const std::string& text) {
    return "WARN  com.zantor.logger " + text;
}

class LogConfigTest : public ::testing::Test {
  protected:
    void SetUp() override { sink(); }
};

TEST_F(LogConfigTest, LevelsFollowTheProperties) {
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
    // The next configuration forgets every level of the last, cached ones included.
    configureFrom("log=warn\n");
    EXPECT_EQ(Logger::get("a.b")->effectiveLevel(), Logger::WARN);
}

TEST_F(LogConfigTest, BadLevelsAreReportedAndSkipped) {
    configureFrom("log=verbose\nlog.=DEBUG\nlog.x=loud\nlog.ok=Warn\n");
    EXPECT_EQ(complaints(),
              (std::vector<std::string>{
                  complaint("Illegal value for property 'log': 'verbose'. Using 'INFO'."),
                  complaint("Illegal log name: 'log.'"),
                  complaint("Illegal log level. Property: 'log.x', value: 'loud'")}));
    EXPECT_EQ(Logger::get("")->level(), Logger::INFO);
    EXPECT_EQ(Logger::get("ok")->level(), Logger::WARN);
}

TEST_F(LogConfigTest, PerLoggerFacilitiesAndComplaints) {
    loadEmptyConfigFile();
    configureFrom(
        "logger.facility.*=bogus\n"
        "logger.facility.*.=local2\n"
        "logger.facility.*.net.x=Local3\n"
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
    // The program's own key comes after "*" and overrides it.
    configureFrom("logger.facility.*=daemon\nlogger.facility." + zfw::processName() + "=local1\n");
    EXPECT_EQ(Logger::get("")->facility(), LOG_LOCAL1);
}

// The first record of the process decides about openlog from "logger.openlog.<program>";
// complaints logged while the process-wide store loads already follow it.
struct OpenlogCase {
    const char* name;
    std::string configFile;
    bool privateStore;  // the complaint comes from a store of its own, after the load
    bool expectPid;     // every record carries "[pid]"; otherwise none does
};

TEST_F(LogConfigTest, ComplaintsUnderTheLoadDecideAboutOpenlog) {
    const std::string off = "logger.openlog." + zfw::processName() + "=no\n";
    const OpenlogCase cases[] = {
        {"first load complains", "log.x=loud\n", false, true},
        {"first load complains, openlog off", "log.x=loud\n" + off, false, false},
        {"private store complains", "", true, true}};
    for (const OpenlogCase& c : cases) {
        // Each case needs a process of its own: the decision is made once.
        kvtest::ChildProcess child([&c] {
            kvtest::writeFile(zfw::Properties::gConfigPath, c.configFile);
            zfw::Properties::getProperties(false);
            if (c.privateStore) {
                configureFrom("log.x=loud\n");
            }
            Logger::get("next")->log(Logger::ERROR, "after");
            return 0;
        });
        ASSERT_EQ(child.wait(), 0) << c.name;
        const std::vector<kvtest::SyslogRecord> records = sink().takeRecords();
        ASSERT_EQ(records.size(), 2u) << c.name;
        EXPECT_EQ(records[0].text, complaint("Illegal log level. Property: 'log.x', value: 'loud'"))
            << c.name;
        EXPECT_EQ(records[0].identity, zfw::processName()) << c.name;
        EXPECT_EQ(records[1].text, "ERROR next after") << c.name;
        for (const kvtest::SyslogRecord& r : records) {
            EXPECT_EQ(r.pid, c.expectPid ? child.pid() : -1) << c.name << ": " << r.text;
        }
    }
}

}  // namespace

// The log queue and its background thread, writing real syslog datagrams to a private "/dev/log": a
// size of 0 keeps delivery direct; overflow while syslog blocks drops records with the warning in
// their place, and stopQueue writes what is still queued. Every case runs in private namespaces.
namespace {

const char kDropWarning[] =
    "ERROR log Warning: Zantor logger dropping messages:(runqueue full %u) Please insure syslog "
    "is running correctly or increase the value of logger.queue.size in zantormx.conf.";

std::vector<std::string> containing(const std::vector<std::string>& texts,
                                    const std::string& needle) {
    std::vector<std::string> out;
    for (const std::string& t : texts) {
        if (t.find(needle) != std::string::npos) {
            out.push_back(t);
        }
    }
    return out;
}

class LogQueueTest : public ::testing::Test {
  protected:
    boost::shared_ptr<zfw::Logger> m_reporter = zfw::Logger::get("test.reporter");
};

TEST_F(LogQueueTest, SizeZeroKeepsDeliveryDirect) {
    kvtest::SyslogSink sink;
    kvtest::useProperties("logger.queue.size=0\n");
    const int32_t threads = zfw::Thread::m_threadsActive;
    zfw::Logger::startQueue(m_reporter);
    EXPECT_EQ(zfw::Thread::m_threadsActive, threads) << "no log thread";
    EXPECT_EQ(sink.takeTexts("test.reporter"),
              std::vector<std::string>{
                  "WARN  test.reporter LogQueue disabled.  Recommended for debugging only."});
    zfw::Logger::stopQueue(m_reporter);
}

TEST_F(LogQueueTest, OverflowDropsRecordsWithAWarning) {
    struct Case {
        const char* properties;
        unsigned capacity;
    };
    const Case cases[] = {{"logger.queue.size=1\n",
                           1},  // the smallest queue
                                // The logger "log" at DEBUG makes the queue four times larger.
                          {"logger.queue.size=10\nlog.log=DEBUG\n", 40}};
    // Writers block once ten datagrams wait at the socket: this namespace's own setting
    // (tests/support/main.cpp), not the host's, which may be far larger.
    std::ofstream qlen("/proc/sys/net/unix/max_dgram_qlen");
    ASSERT_TRUE(qlen << 10 << std::flush) << "net.unix.max_dgram_qlen";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.properties);
        kvtest::SyslogSink held(false);
        kvtest::useProperties(c.properties);
        zfw::Logger::startQueue(m_reporter);

        // Two writers, both far beyond what the socket and the queue can hold.
        const int records = static_cast<int>(c.capacity) + 40;
        std::vector<std::thread> writers;
        for (int w = 0; w < 2; ++w) {
            writers.emplace_back([w, records] {
                const auto logger = zfw::Logger::get("test.flood" + std::to_string(w));
                for (int i = 0; i < records; ++i) {
                    logger->log(zfw::Logger::WARN, "flood %d", i);
                }
            });
        }
        for (std::thread& t : writers) {
            t.join();
        }
        held.startReading();
        zfw::Logger::stopQueue(m_reporter);
        const std::vector<std::string> texts = held.takeTexts();

        char warning[512];
        snprintf(warning, sizeof warning, kDropWarning, c.capacity);
        const std::vector<std::string> warnings = containing(texts, "dropping messages");
        ASSERT_FALSE(warnings.empty());
        for (const std::string& w : warnings) {
            EXPECT_EQ(w, warning);
        }
        // The queue ended full and blocked: its newest record was the last warning.
        EXPECT_EQ(texts.back(), warning);

        size_t delivered = 0;
        for (int w = 0; w < 2; ++w) {
            const std::string prefix = "WARN  test.flood" + std::to_string(w) + " flood ";
            int last = -1;
            for (const std::string& t : containing(texts, prefix)) {
                const int index = std::stoi(t.substr(prefix.size()));
                EXPECT_GT(index, last) << "records keep their order";
                last = index;
                ++delivered;
            }
            EXPECT_LT(last, records - 1) << "the newest records were dropped";
        }
        EXPECT_LT(delivered, 2u * records);
        EXPECT_EQ(delivered + warnings.size(), texts.size()) << "nothing else was written";
    }
}

}  // namespace
