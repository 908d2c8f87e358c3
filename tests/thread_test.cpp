// zfw::Thread with real threads: self and cancellation, sleeping, and the stack size property
// (in private namespaces with their own "/dev/log" and configuration file).
#include <pthread.h>
#include <signal.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "support/syslog_sink.h"
#include "support/wait.h"
#include "support/zfw_config.h"
#include "zfw/thread.h"

namespace {

using kvtest::eventually;

// Entry functions take a std::function so that each case can say what runs on the thread.
void* runFunction(void* arg) {
    (*static_cast<std::function<void()>*>(arg))();
    return nullptr;
}

void ignoreSignal(int) {}

TEST(Thread, SelfAndCancellation) {
    EXPECT_EQ(zfw::Thread::self(), nullptr);
    zfw::Thread thread;
    zfw::Thread* seen = nullptr;  // set before the first cancellation point
    std::function<void()> body = [&] {
        seen = zfw::Thread::self();
        zfw::Thread::sleep(60, 0, 0, 0);  // until cancelled
    };
    thread.start("cancelled", runFunction, &body);
    ASSERT_TRUE(eventually([&] { return thread.running(); }));
    thread.stop();
    EXPECT_EQ(seen, &thread);
    EXPECT_TRUE(thread.cancelRequested());
    EXPECT_FALSE(thread.running()) << "ended by cancellation";
}

TEST(Thread, SleepReportsInterruption) {
    EXPECT_TRUE(zfw::Thread::sleep(0, 50, 0, 0));
    EXPECT_TRUE(zfw::Thread::sleep(timespec{0, 1000}));

    struct sigaction action = {};
    action.sa_handler = ignoreSignal;
    sigemptyset(&action.sa_mask);
    struct sigaction old = {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);

    zfw::Thread thread;
    std::atomic<int> result{-1};
    std::function<void()> body = [&] { result = zfw::Thread::sleep(5, 0, 0, 0) ? 1 : 0; };
    thread.start("interrupted", runFunction, &body);
    // A signal that lands before the sleep begins is lost, so keep sending.
    ASSERT_TRUE(eventually([&] {
        if (thread.running()) {
            pthread_kill(thread.id(), SIGUSR1);
        }
        return result.load() != -1;
    }));
    thread.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(result, 0);
}

// The stack size that the thread library gives the calling thread.
size_t ownStackSize() {
    pthread_attr_t attr;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getstacksize(&attr, &size);
        pthread_attr_destroy(&attr);
    }
    return size;
}

size_t stackSizeOfNewThread() {
    zfw::Thread thread;
    size_t size = 0;
    std::function<void()> body = [&] { size = ownStackSize(); };
    thread.start("stack", runFunction, &body);
    thread.join();
    return size;
}

TEST(Thread, StackSizeFromProperties) {
    // The default follows the host's `ulimit -s`: this process sets its own.
    const size_t defaultSize = 8u << 20;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, defaultSize);
    ASSERT_EQ(pthread_setattr_default_np(&attr), 0);
    pthread_attr_destroy(&attr);

    kvtest::SyslogSink sink;
    struct Case {
        const char* value;
        size_t stack;         // 0: the default
        const char* message;  // null: no message
    };
    // The thread library may hand out a cached stack of up to four times the size asked
    // for, and ThreadSanitizer raises small sizes to its own minimum: the sizes used stay
    // above that minimum and below a quarter of the default.
    const Case cases[] = {
        {"", 0, nullptr},
        {"0", 0, nullptr},
        {"-4096", 0, nullptr},
        {"1048576", 1048576, "DEBUG util.thread Set the pthread stack size to 1048576"},
        {"1572864 bytes", 1572864, "DEBUG util.thread Set the pthread stack size to 1572864"},
        {"1", 0, "DEBUG util.thread Failed to set the thread stack size, using system default"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("stacksize '") + c.value + "'");
        kvtest::useProperties(std::string("log.util.thread=DEBUG\nzfw.clients.threads.stacksize=") +
                              c.value + "\n");
        sink.take();
        const size_t size = stackSizeOfNewThread();
        if (c.stack == 0) {
            EXPECT_EQ(size, defaultSize);
        } else {
            EXPECT_GE(size, c.stack);
            EXPECT_LE(size, 4 * c.stack);
        }
        const std::vector<std::string> texts = sink.takeTexts("util.thread");
        if (c.message == nullptr) {
            EXPECT_TRUE(texts.empty()) << texts.front();
        } else {
            ASSERT_EQ(texts.size(), 1u);
            EXPECT_EQ(texts[0], c.message);
        }
    }

    // Without DEBUG on "util.thread" the size still applies, silently.
    kvtest::useProperties("zfw.clients.threads.stacksize=1048576\n");
    sink.take();
    EXPECT_LE(stackSizeOfNewThread(), 4 * 1048576u);
    EXPECT_TRUE(sink.takeTexts("util.thread").empty());
}

}  // namespace
