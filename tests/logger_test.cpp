// Loggers: the registry, levels and their cache, thread tags, and the records that reach a
// private "/dev/log" as syslog datagrams.
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/hermetic.h"
#include "support/syslog_sink.h"
#include "zfw/logdelivery.h"
#include "zfw/logger.h"

namespace {

using zfw::Logger;

kvtest::SyslogSink& sink() {
    static kvtest::SyslogSink s;
    return s;
}

class LoggerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!kvtest::insideHermeticDevLog()) {
            return;  // the test body runs itself again inside
        }
        sink().take();
    }
};

TEST_F(LoggerTest, GetCreatesAncestorsOnce) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const boost::shared_ptr<Logger> c = Logger::get("tree.b.c");
    ASSERT_TRUE(c);
    EXPECT_EQ(c->name(), "tree.b.c");
    ASSERT_TRUE(c->parent());
    EXPECT_EQ(c->parent()->name(), "tree.b");
    ASSERT_TRUE(c->parent()->parent());
    EXPECT_EQ(c->parent()->parent()->name(), "tree");
    const boost::shared_ptr<Logger> root = c->parent()->parent()->parent();
    ASSERT_TRUE(root);
    EXPECT_EQ(root, Logger::get(""));
    EXPECT_EQ(root->name(), "");
    EXPECT_FALSE(root->parent());
    EXPECT_EQ(c, Logger::get("tree.b.c"));
    EXPECT_EQ(c->parent(), Logger::get("tree.b"));
    EXPECT_EQ(c->level(), Logger::UNSET);
    EXPECT_EQ(c->facility(), Logger::UNSET);
}

TEST_F(LoggerTest, EffectiveLevelIsInheritedAndCached) {
    KV_REQUIRE_HERMETIC_DEVLOG();
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

TEST_F(LoggerTest, LevelNamesAndParsing) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const char* names[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL", "DISABLED"};
    for (int32_t level = 0; level < 7; ++level) {
        EXPECT_STREQ(Logger::levelName(level), names[level]);
        EXPECT_EQ(Logger::parseLevel(names[level]), level);
    }
    EXPECT_STREQ(Logger::levelName(-1), "");
    EXPECT_STREQ(Logger::levelName(7), "");
    const struct {
        const char* text;
        int32_t level;
    } cases[] = {{"", Logger::INFO},     {"warn", Logger::WARN},
                 {"Warn", Logger::WARN}, {"debug", Logger::DEBUG},
                 {"disabled", 6},        {"verbose", -1},
                 {"WARN ", -1},          {"WAR", -1},
                 {"INFO\n", -1}};
    for (const auto& c : cases) {
        EXPECT_EQ(Logger::parseLevel(c.text), c.level) << c.text;
    }
    EXPECT_EQ(Logger::parseLevel(std::string("WARN\0x", 6)), -1);
}

TEST_F(LoggerTest, RecordLayoutAndPriority) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const std::string ident = program_invocation_short_name;
    struct Case {
        const char* logger;
        int32_t level;
        int32_t facility;
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
        {"layout.n", 9, Logger::UNSET, "      layout.n stopped 5", 32},
    };
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

TEST_F(LoggerTest, FacilityIsInheritedUncached) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const boost::shared_ptr<Logger> parent = Logger::get("fac");
    const boost::shared_ptr<Logger> child = Logger::get("fac.child");
    EXPECT_EQ(child->effectiveFacility(), zfw::kFacilityAuth);
    parent->setFacility(LOG_LOCAL1);
    EXPECT_EQ(child->effectiveFacility(), LOG_LOCAL1);
    child->log(Logger::WARN, "x");
    const std::vector<kvtest::SyslogRecord> records = sink().takeRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].priority, LOG_LOCAL1 | LOG_WARNING);
    EXPECT_EQ(child->facility(), Logger::UNSET);
}

TEST_F(LoggerTest, DisabledLevelsWriteNothing) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const boost::shared_ptr<Logger> logger = Logger::get("quiet");
    logger->setLevel(Logger::DISABLED);
    for (int32_t level = Logger::TRACE; level <= Logger::FATAL; ++level) {
        EXPECT_FALSE(logger->isEnabled(level));
        logger->log(level, "hidden");
        logger->logErrno(level, EIO, "hidden");
        logger->logDump(level, "hidden", "abc", 3);
    }
    EXPECT_TRUE(logger->isEnabled(Logger::DISABLED));
    EXPECT_TRUE(sink().take().empty());
}

TEST_F(LoggerTest, ThreadTagsArePerThread) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const boost::shared_ptr<Logger> logger = Logger::get("tagged");
    EXPECT_EQ(Logger::threadTag(), nullptr);
    char tag[] = "worker";
    Logger::setThreadTag(tag);
    tag[0] = 'X';
    EXPECT_STREQ(Logger::threadTag(), "worker");
    logger->log(Logger::INFO, "one");
    std::thread other([&] {
        EXPECT_EQ(Logger::threadTag(), nullptr);
        Logger::setThreadTag("other");
        logger->log(Logger::INFO, "two");
    });
    other.join();
    Logger::setThreadTag(nullptr);
    logger->log(Logger::INFO, "three");
    EXPECT_EQ(sink().takeTexts(),
              (std::vector<std::string>{"INFO  <worker> tagged one", "INFO  <other> tagged two",
                                        "INFO  tagged three"}));
}

TEST_F(LoggerTest, LogErrnoAppendsTheSystemText) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    Logger::get("util.x")->logErrno(Logger::ERROR, ENOENT, "open %s", "x");
    EXPECT_EQ(sink().takeTexts(),
              std::vector<std::string>{std::string("ERROR util.x open x: ") + strerror(ENOENT)});
}

TEST_F(LoggerTest, LogDumpWritesHexAndCharacters) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const boost::shared_ptr<Logger> logger = Logger::get("dump");
    const unsigned char data[20] = {'A', 'B', 'C', 'D', 'E', 'F', 'G',  'H',  'I',  'J',
                                    'K', 'L', 'M', 'N', 'O', ' ', 0x01, 0x7f, 0x80, 0xff};
    logger->logDump(Logger::INFO, "dump of %%d", data, sizeof data);
    const std::string line1 = "41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 20   ABCDEFGHIJKLMNO  ";
    const std::string line2 = "01 7f 80 ff" + std::string(39, ' ') + ".\x7f.. ";
    EXPECT_EQ(sink().takeTexts(),
              (std::vector<std::string>{"INFO  dump dump of %d", "INFO  dump " + line1,
                                        "INFO  dump " + line2}));
    logger->logDump(Logger::INFO, "empty", data, 0);
    EXPECT_EQ(sink().takeTexts(), std::vector<std::string>{"INFO  dump empty"});
}

TEST_F(LoggerTest, RecordIsCutAt511Characters) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    const boost::shared_ptr<Logger> logger = Logger::get("long");
    const std::string format(600, 'a');
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    logger->log(Logger::INFO, format.c_str());
#pragma GCC diagnostic pop
    // The format is cut with the record; the formatted arguments are not.
    logger->log(Logger::INFO, "%s", format.c_str());
    EXPECT_EQ(sink().takeTexts(),
              (std::vector<std::string>{"INFO  long " + std::string(511 - 11, 'a'),
                                        "INFO  long " + format}));
}

TEST_F(LoggerTest, ConcurrentLoggersDeliverEveryRecord) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    constexpr int kThreads = 4;
    constexpr int kRecords = 50;
    std::vector<std::thread> threads;
    std::vector<boost::shared_ptr<Logger>> seen(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &seen] {
            for (int i = 0; i < kRecords; ++i) {
                seen[t] = Logger::get("busy.same.name");
                if (seen[t]->isEnabled(Logger::INFO)) {
                    seen[t]->log(Logger::INFO, "thread %d record %d", t, i);
                }
                Logger::get("busy.own." + std::to_string(t))->log(Logger::INFO, "own");
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    for (int t = 1; t < kThreads; ++t) {
        EXPECT_EQ(seen[t], seen[0]);
    }
    EXPECT_EQ(sink().takeTexts("busy.same.name").size(), size_t(kThreads * kRecords));
}

}  // namespace
