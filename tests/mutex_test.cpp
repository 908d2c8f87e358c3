// zfw::Mutex, zfw::MaxWaitMutex and zfw::MutexLock (with its timed wait) with real threads.
#include <pthread.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/expect_throw.h"
#include "support/wait.h"
#include "zfw/exception.h"
#include "zfw/mutex.h"

namespace {

using kvtest::eventually;

// Runs body on another thread and waits for it.
template <typename F>
void onOtherThread(F body) {
    std::thread t(body);
    t.join();
}

TEST(Mutex, NestingKeepsDepthAndOwner) {
    zfw::Mutex m;
    EXPECT_EQ(m.depth(), 0);
    EXPECT_EQ(m.owner(), pthread_t(0));
    const int32_t heldBefore = zfw::Mutex::heldByCallingThread();
    m.lock();
    m.lock();
    ASSERT_TRUE(m.trylock());
    EXPECT_EQ(zfw::Mutex::heldByCallingThread(), heldBefore + 3);
    m.unlock();
    m.unlock();
    EXPECT_EQ(m.depth(), 1);
    EXPECT_EQ(zfw::Mutex::heldByCallingThread(), heldBefore + 1);
    EXPECT_TRUE(pthread_equal(m.owner(), pthread_self()));
    onOtherThread([&] {
        EXPECT_FALSE(m.trylock());
        EXPECT_EQ(zfw::Mutex::heldByCallingThread(), 0);
    });
    m.unlock();
    EXPECT_EQ(zfw::Mutex::heldByCallingThread(), heldBefore);
    EXPECT_EQ(m.depth(), 0);
    EXPECT_EQ(m.owner(), pthread_t(0));
    onOtherThread([&] {
        EXPECT_TRUE(m.trylock());
        m.unlock();
    });
}

TEST(MaxWaitMutex, RefusesContendersBeyondTheLimit) {
    zfw::MaxWaitMutex m(2);
    m.lock();
    std::vector<std::thread> blocked;
    for (int i = 0; i < 2; ++i) {
        blocked.emplace_back([&] {
            m.lock();
            m.unlock();
        });
    }
    ASSERT_TRUE(eventually([&] { return m.waiting() == 2; }));
    onOtherThread([&] {
        kvtest::expectThrow<zfw::TryAgainException>(
            [&] { m.lock(); }, "too many clients waiting for mutex (configure more threads?)", 11);
        EXPECT_THROW(m.trylock(), zfw::TryAgainException);
    });
    EXPECT_EQ(m.waiting(), 2);
    // The holder is never counted and re-enters freely.
    m.lock();
    EXPECT_TRUE(m.trylock());
    EXPECT_EQ(m.depth(), 3);
    m.unlock();
    m.unlock();
    m.unlock();
    for (std::thread& t : blocked) {
        t.join();
    }
    EXPECT_EQ(m.waiting(), 0);
    EXPECT_EQ(m.depth(), 0);

    zfw::MaxWaitMutex unlimited(0);  // 0: no limit
    unlimited.lock();
    unlimited.unlock();
}

TEST(MutexLock, HoldsForTheScopeAndReleasesOnce) {
    zfw::Mutex m;
    {
        zfw::MutexLock lock(m);
        EXPECT_TRUE(lock.held());
        EXPECT_EQ(m.depth(), 1);
        lock.release();
        EXPECT_FALSE(lock.held());
        EXPECT_EQ(m.depth(), 0);
        lock.release();
        EXPECT_EQ(m.depth(), 0);
    }
    {
        zfw::MutexLock outer(m);
        zfw::MutexLock inner(m);
        // A deadline that has passed: false, with the mutex held as before the wait.
        EXPECT_FALSE(inner.wait(-1, 0));
        EXPECT_EQ(m.depth(), 2);
        EXPECT_TRUE(pthread_equal(m.owner(), pthread_self()));
    }
    EXPECT_EQ(m.depth(), 0);
    onOtherThread([&] {
        EXPECT_TRUE(m.trylock());
        m.unlock();
    });
}

}  // namespace
