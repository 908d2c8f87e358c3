// Threads of the framework.
//
// A zfw::Thread runs one entry function on its own POSIX thread. Code on any thread finds
// the zfw::Thread it runs in with Thread::self(). Every thread the framework starts takes
// its stack size from "zfw.clients.threads.stacksize" and, when
// "zfw.clients.threads.priority" is true, asks for the FIFO scheduling policy.
#ifndef ZFW_THREAD_H
#define ZFW_THREAD_H

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace zfw {

// Start routine handed to pthread_create; its argument is the zfw::Thread.
void* ThreadStart(void* arg);
// Destructor of the thread key: runs when a thread ends (cancelled or by pthread_exit)
// inside its entry function.
void ThreadCancelCleanup(void* arg);

class Thread {
  public:
    typedef void* (*Entry)(void*);

    // Set once the probe for the thread library has run (zfw::threadsSupported, mutex.h).
    static std::atomic<bool> m_threadSupportKnown;
    // The thread library is linked into the process.
    static std::atomic<bool> m_threadsSupported;
    // Number of zfw::Thread objects in existence.
    static std::atomic<int32_t> m_threadsActive;

    Thread();
    // Neither cancels nor joins: the owner joins first, or the thread keeps running with
    // a dangling object.
    virtual ~Thread();

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Runs on the thread itself when it ends by cancellation or pthread_exit while its
    // entry function runs.
    virtual void onCancel() {}

    // Creates the thread running entry(arg); name (may be null) only identifies it. A
    // thread object starts one thread only (zfw::AlreadyException otherwise).
    void start(const char* name, Entry entry, void* arg);
    // Waits for the thread to end. Does nothing after a join or detach, or before start.
    void join();
    void detach();
    // Requests cancellation if the entry function runs; it acts at the thread's next
    // cancellation point outside a zfw::MutexLock.
    void cancel();
    // cancel, then join.
    void stop();

    // Acting on the calling thread.
    static void disableCancel();
    static void enableCancel();
    static void yield();
    // True when the whole interval passed, false when a signal cut it short.
    static bool sleep(const struct timespec& interval);
    // The sub-second parts must add up to less than one second.
    static bool sleep(long seconds, int milliseconds, int microseconds, int nanoseconds);
    // The zfw::Thread the caller runs in; null on a thread the framework did not start.
    static Thread* self();

    // true adds one to m_threadsActive, false sets it to 0.
    static void setThreadsActive(bool active);

    const std::string& name() const { return m_name; }
    bool running() const { return m_running.load(std::memory_order_acquire); }
    bool joined() const { return m_joined.load(std::memory_order_acquire); }
    bool cancelRequested() const { return m_cancelRequested.load(std::memory_order_acquire); }
    // 0 until the thread has been created.
    pthread_t id() const { return m_id.load(std::memory_order_acquire); }

  private:
    friend void* ThreadStart(void* arg);
    friend void ThreadCancelCleanup(void* arg);

    // The flags are read by other threads without a lock, hence atomic.
    std::string m_name;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_joined{false};
    std::atomic<pthread_t> m_id{0};
    Entry m_entry = nullptr;
    std::atomic<bool> m_cancelRequested{false};
    void* m_arg = nullptr;
};

}  // namespace zfw

#endif
