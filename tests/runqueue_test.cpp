// zfw::RunQueue: the bound, duplicate replacement, the time-out, draining, interruption and
// items that throw. The case that reads the queue's records runs in private namespaces with
// its own "/dev/log" and configuration file (for the levels).

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>

#include "support/syslog_sink.h"
#include "support/zfw_config.h"
#include "zfw/exception.h"
#include "zfw/runqueue.h"

namespace {

// Appends its name to a shared journal when run; optionally unique under its key.
class Step : public zfw::QueueAble {
  public:
    Step(std::vector<std::string>& journal, std::mutex& guard, const std::string& name, bool unique,
         const std::string& key)
        : m_journal(journal),
          m_guard(guard),
          m_name(name),
          m_unique(unique),
          m_key(key.empty() ? name : key) {}
    void run() override {
        std::lock_guard<std::mutex> lock(m_guard);
        m_journal.push_back(m_name);
    }
    bool isUnique() const override { return m_unique; }
    const std::string& key() const override { return m_key; }

  private:
    std::vector<std::string>& m_journal;
    std::mutex& m_guard;
    std::string m_name;
    bool m_unique;
    std::string m_key;
};

class Call : public zfw::QueueAble {
  public:
    explicit Call(std::function<void()> body) : m_body(std::move(body)) {}
    void run() override { m_body(); }

  private:
    std::function<void()> m_body;
};

class RunQueueTest : public ::testing::Test {
  protected:
    zfw::RunQueue::Item step(const std::string& name, bool unique = false,
                             const std::string& key = std::string()) {
        return boost::make_shared<Step>(m_journal, m_guard, name, unique, key);
    }
    std::vector<std::string> journal() {
        std::lock_guard<std::mutex> lock(m_guard);
        return m_journal;
    }

    std::mutex m_guard;
    std::vector<std::string> m_journal;
};

TEST_F(RunQueueTest, BoundRefusesWithBufferFull) {
    zfw::RunQueue queue(2, true);
    queue.add(step("a"));
    queue.add(step("b"));
    try {
        queue.add(step("c"));
        FAIL() << "a full queue took a third item";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "runqueue full 2");
        const auto* full = dynamic_cast<const zfw::BufferFullException*>(&e);
        ASSERT_NE(full, nullptr);
        EXPECT_EQ(full->rc(), -1);
        const ZFWException& base = *full;
        EXPECT_STREQ(base.what(), "runqueue full 2");
    }
    EXPECT_EQ(queue.size(), 2u);
    queue.run(-1);
    EXPECT_EQ(journal(), (std::vector<std::string>{"a", "b"}));

    zfw::RunQueue unbounded(0, true);
    for (int i = 0; i < 2000; ++i) {
        unbounded.add(step("x"));
    }
    EXPECT_EQ(unbounded.size(), 2000u);
}

TEST_F(RunQueueTest, UniqueItemsReplaceTheirPendingTwin) {
    kvtest::SyslogSink sink;
    kvtest::useProperties("log.util.runqueue=DEBUG\n");
    zfw::RunQueue queue(0, false);
    queue.add(step("a1", true, "a"));
    queue.add(step("b1", true, "b"));
    queue.add(step("a2", true, "a"));
    // Not unique: appended even though a pending item has the same key.
    queue.add(step("b2", false, "b"));
    queue.add(step("c1", true, "c"));
    EXPECT_EQ(queue.size(), 4u);
    queue.run(-1);
    EXPECT_EQ(journal(), (std::vector<std::string>{"b1", "a2", "b2", "c1"}));
    EXPECT_EQ(sink.takeTexts("util.runqueue"),
              std::vector<std::string>{"DEBUG util.runqueue removed duplicate request a"});

    // A quiet queue replaces just the same but says nothing.
    zfw::RunQueue quiet(0, true);
    quiet.add(step("q1", true, "q"));
    quiet.add(step("q2", true, "q"));
    EXPECT_EQ(quiet.size(), 1u);
    EXPECT_TRUE(sink.takeTexts("util.runqueue").empty());
}

TEST_F(RunQueueTest, TimeOutInterruptionAndFailingItems) {
    zfw::RunQueue queue(0, true);
    // The deadline is the start second plus one: run(1) returns only once the clock got there.
    const time_t before = time(nullptr);
    auto consumer = std::async(std::launch::async, [&] { queue.run(1); });
    if (consumer.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        queue.interrupt();  // ends the consumer, so that the future can be destroyed
        FAIL() << "run(1) on an empty queue did not return within 10 s";
    }
    EXPECT_GE(time(nullptr), before + 1);

    // An item that throws does not stop the consumer; an interruption keeps pending items.
    queue.add(boost::make_shared<Call>([] { ZFW_THROW(zfw::SystemException, 0, false, "x"); }));
    queue.add(step("after"));
    queue.run(-1);
    queue.add(step("kept"));
    queue.interrupt();
    EXPECT_THROW(queue.run(0), zfw::QueueInterrupted);
    queue.run(-1);
    EXPECT_EQ(journal(), (std::vector<std::string>{"after", "kept"}));
}

// Sleeps until the clock shows `second` (at most a few seconds ahead), then `ms` more.
void sleepInto(time_t second, int ms) {
    while (time(nullptr) < second) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// The time-out counts whole seconds: an item added in the last second before the deadline
// runs, one added once the deadline second has come stays pending.
TEST_F(RunQueueTest, TimeOutEndsWhenTheDeadlineSecondComes) {
    zfw::RunQueue queue(0, true);
    const time_t start = time(nullptr) + 1;
    sleepInto(start, 0);
    auto consumer = std::async(std::launch::async, [&] { queue.run(2); });
    sleepInto(start + 1, 200);
    queue.add(step("before the deadline"));
    sleepInto(start + 2, 200);
    queue.add(step("after the deadline"));
    if (consumer.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        queue.interrupt();
        FAIL() << "run(2) did not return within 10 s";
    }
    EXPECT_EQ(journal(), std::vector<std::string>{"before the deadline"});
    EXPECT_EQ(queue.size(), 1u);
}

}  // namespace
