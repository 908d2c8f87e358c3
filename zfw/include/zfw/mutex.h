// Mutexes of the framework: recursive, each with one built-in condition variable.
//
// Lock order of the framework's process-wide mutexes (take them only in this order):
//   log queue control lock (starting and stopping the log thread), properties creation
//   lock (Properties::gPropMtx), a properties store's own lock, host settings lock,
//   run-queue registry lock, logger registry lock, log delivery lock, a run queue's lock.
// The thread count lock is a leaf: nothing else is taken while it is held.
// Logging is allowed under any of them: a record takes only the delivery lock. (The one
// record that reads the properties to decide about openlog is one logged while its thread
// holds no framework mutex.)
#ifndef ZFW_MUTEX_H
#define ZFW_MUTEX_H

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstdint>

namespace zfw {

// True when the thread library is linked into the process (probed once; see thread.h).
bool threadsSupported();

class Mutex {
  public:
    Mutex();
    // Destroying a mutex that is still held raises zfw::SystemException.
    virtual ~Mutex() noexcept(false);

    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    virtual void lock();
    virtual void unlock();
    // False when another thread holds the mutex.
    virtual bool trylock();

    // The holder waits on the mutex's condition until woken (true) or until the absolute
    // wall-clock deadline passes (false); null waits without a deadline.
    bool wait(const struct timespec* deadline = nullptr);
    // Wakes one waiter; does nothing while no zfw::Thread object exists.
    void signal();
    // Wakes every waiter; does nothing only without the thread library.
    void broadcast();

    // Nesting count of the holder (0 when free) and the holding thread (0 when free).
    int32_t depth() const { return m_depth; }
    pthread_t owner() const { return m_owner; }

    // Holds of framework mutexes that the calling thread has taken and not given back
    // (each nested lock counts).
    static int32_t heldByCallingThread();

  protected:
    pthread_mutex_t m_mutex;
    pthread_cond_t m_cond;
    // Written only by the holder; atomic because others may look at them (MaxWaitMutex
    // lets the holder through by its owner field without taking the mutex).
    std::atomic<int32_t> m_depth;
    std::atomic<pthread_t> m_owner;
};

// A mutex that refuses new contenders with zfw::TryAgainException once maxWaiters threads
// are blocked waiting for it. The holder re-enters freely; 0 means no limit.
class MaxWaitMutex : public Mutex {
  public:
    explicit MaxWaitMutex(int32_t maxWaiters);
    ~MaxWaitMutex() noexcept(false) override;

    void lock() override;
    bool trylock() override;

    // Threads currently counted as waiting.
    int32_t waiting() const;

  private:
    bool enterWait();
    void leaveWait();

    int32_t m_maxWaiters;
    mutable Mutex m_waiterGuard;
    int32_t m_waiting = 0;
};

// Holds a mutex for the length of a scope. While it holds the mutex the thread cannot be
// cancelled; a cancellation that arrives meanwhile acts when the mutex is released.
// Without the thread library it takes and releases nothing.
class MutexLock {
  public:
    // Takes the mutex at once.
    explicit MutexLock(Mutex& mutex);
    // Takes the mutex by repeated trylock, sleeping the interval between attempts
    // (10 ms when both parts are 0).
    MutexLock(Mutex& mutex, long seconds, long nanoseconds);
    ~MutexLock() noexcept(false);

    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    // Gives the mutex back early; later calls do nothing.
    void release();
    // Waits on the mutex's condition until the current whole second plus seconds, with
    // nanoseconds as the deadline's sub-second part. False when the deadline passed.
    bool wait(long seconds, long nanoseconds);
    bool held() const { return m_held; }

  private:
    void disableCancel();
    void testCancelWhileFree();

    Mutex* m_mutex;
    int m_savedCancelState = PTHREAD_CANCEL_ENABLE;
    bool m_held = false;
};

// The mutex in slot, created on first use (also when several threads get there at once)
// and never destroyed.
Mutex& lazyMutex(Mutex*& slot);

}  // namespace zfw

#endif
