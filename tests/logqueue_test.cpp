// The log queue and its background thread, writing real syslog datagrams to a private
// "/dev/log": starting and stopping, records formatted on the logging thread, overflow
// while syslog blocks (records dropped, the warning in their place, no deadlock), and
// stopQueue and shutdown writing what is still queued. Every case runs in private namespaces.
#include <dirent.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/hermetic.h"
#include "support/syslog_sink.h"
#include "support/zfw_config.h"
#include "zfw/logger.h"
#include "zfw/thread.h"

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

// The task ids of this process's threads.
std::set<std::string> threadIds() {
    std::set<std::string> ids;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (const dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') {
                ids.insert(entry->d_name);
            }
        }
        closedir(dir);
    }
    return ids;
}

class LogQueueTest : public ::testing::Test {
  protected:
    boost::shared_ptr<zfw::Logger> m_reporter = zfw::Logger::get("test.reporter");
};

TEST_F(LogQueueTest, SizeBelowOneKeepsDeliveryDirect) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    for (const char* size : {"0", "-3"}) {
        SCOPED_TRACE(size);
        kvtest::SyslogSink sink;
        kvtest::useProperties(std::string("logger.queue.size=") + size + "\n");
        const int32_t threads = zfw::Thread::m_threadsActive;
        zfw::Logger::startQueue(m_reporter);
        EXPECT_EQ(zfw::Thread::m_threadsActive, threads) << "no log thread";
        EXPECT_EQ(sink.takeTexts("test.reporter"),
                  std::vector<std::string>{
                      "WARN  test.reporter LogQueue disabled.  Recommended for debugging only."});
        zfw::Logger::get("test.direct")->log(zfw::Logger::INFO, "direct %d", 1);
        EXPECT_EQ(sink.takeTexts("test.direct"),
                  std::vector<std::string>{"INFO  test.direct direct 1"});
        zfw::Logger::stopQueue(m_reporter);
    }
}

TEST_F(LogQueueTest, QueuedRecordsReachSyslogAndStopDrains) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    kvtest::SyslogSink sink;
    kvtest::useProperties("log.test.reporter=DEBUG\n");
    const int32_t threads = zfw::Thread::m_threadsActive;
    zfw::Logger::startQueue(m_reporter);
    zfw::Logger::startQueue(m_reporter);
    EXPECT_EQ(zfw::Thread::m_threadsActive, threads + 1) << "one log thread, started once";

    constexpr int kWriters = 3;
    constexpr int kRecords = 60;
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([w] {
            const auto logger = zfw::Logger::get("test.writer" + std::to_string(w));
            for (int i = 0; i < kRecords; ++i) {
                logger->log(zfw::Logger::INFO, "record %d of %s, 100%%", i, "writer");
            }
        });
    }
    for (std::thread& t : writers) {
        t.join();
    }
    // Formatted into the queue's 512 bytes: longer records are cut there.
    const std::string longText(600, 'x');
    zfw::Logger::get("test.long")->log(zfw::Logger::INFO, "%s", longText.c_str());
    zfw::Logger::stopQueue(m_reporter);
    EXPECT_EQ(zfw::Thread::m_threadsActive, threads);

    const std::vector<std::string> texts = sink.takeTexts();
    EXPECT_EQ(containing(texts, "test.reporter"),
              (std::vector<std::string>{"DEBUG test.reporter starting background log thread",
                                        "DEBUG test.reporter stopped background log thread"}));
    for (int w = 0; w < kWriters; ++w) {
        const std::string name = "test.writer" + std::to_string(w);
        std::vector<std::string> expected;
        for (int i = 0; i < kRecords; ++i) {
            expected.push_back("INFO  " + name + " record " + std::to_string(i) +
                               " of writer, 100%");
        }
        EXPECT_EQ(containing(texts, name + " "), expected);
    }
    const std::vector<std::string> cut = containing(texts, "test.long");
    ASSERT_EQ(cut.size(), 1u);
    EXPECT_EQ(cut[0], ("INFO  test.long " + longText).substr(0, 511));

    // Direct again: a record longer than the queue's text is not cut at 511.
    zfw::Logger::get("test.long")->log(zfw::Logger::INFO, "%s", longText.c_str());
    EXPECT_EQ(sink.takeTexts("test.long"), std::vector<std::string>{"INFO  test.long " + longText});
}

TEST_F(LogQueueTest, OverflowDropsRecordsWithAWarning) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    struct Case {
        const char* properties;
        unsigned capacity;
    };
    const Case cases[] = {
        {"logger.queue.size=4\n", 4},
        // The logger "log" at DEBUG makes the queue four times larger.
        {"logger.queue.size=10\nlog.log=DEBUG\n", 40},
    };
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

// Ten records fill the socket and one blocks the log thread; the last five wait in the queue.
// Stopping interrupts the queue and waits for the blocked log thread; the reader starts
// meanwhile, so the records still queued are written by the stop itself.
TEST_F(LogQueueTest, StoppingWritesEveryPendingRecord) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    for (const bool shutdown : {false, true}) {
        SCOPED_TRACE(shutdown ? "Logger::shutdown" : "Logger::stopQueue");
        kvtest::SyslogSink held(false);
        kvtest::useProperties("");
        const std::set<std::string> before = threadIds();
        zfw::Logger::startQueue(m_reporter);
        // The log thread, and any helper thread the runtime starts along with the first one.
        std::set<std::string> started;
        for (const std::string& id : threadIds()) {
            if (before.count(id) == 0) {
                started.insert(id);
            }
        }
        ASSERT_FALSE(started.empty());
        const auto logger = zfw::Logger::get("test.pending");
        std::vector<std::string> expected;
        for (int i = 0; i < 16; ++i) {
            logger->log(zfw::Logger::INFO, "pending %d", i);
            expected.push_back("INFO  test.pending pending " + std::to_string(i));
        }
        std::thread releaser([&held] {
            zfw::Thread::sleep(0, 100, 0, 0);
            held.startReading();
        });
        if (shutdown) {
            zfw::Logger::shutdown();
        } else {
            zfw::Logger::stopQueue(m_reporter);
        }
        releaser.join();
        const std::set<std::string> after = threadIds();
        EXPECT_TRUE(std::any_of(started.begin(), started.end(), [&after](const std::string& id) {
            return after.count(id) == 0;
        })) << "the log thread outlived the stop";
        EXPECT_EQ(containing(held.takeTexts(), "test.pending"), expected);
    }
}

}  // namespace
