// Threads of the framework.
#include "zfw/thread.h"

#include <errno.h>
#include <sched.h>

#include <boost/shared_ptr.hpp>

#include "zfw/exception.h"
#include "zfw/logger.h"
#include "zfw/mutex.h"
#include "zfw/properties.h"

namespace zfw {

std::atomic<bool> Thread::m_threadSupportKnown{false};
std::atomic<bool> Thread::m_threadsSupported{false};
std::atomic<int32_t> Thread::m_threadsActive{0};

namespace {

// Guards changes of m_threadsActive. Never destroyed, so that a zfw::Thread destroyed late
// in the process exit still finds it.
Mutex* gCountMutex = nullptr;

// The thread key: its value on a framework thread is that thread's zfw::Thread while the
// entry function runs.
pthread_once_t gKeyOnce = PTHREAD_ONCE_INIT;
pthread_key_t gKey;
int gKeyError = 0;

[[noreturn]] void raise(int err) {
    ZFW_THROW_ERRNO(SystemException, err, true, err, "OS call failed");
}

void check(int err) {
    if (err != 0) {
        raise(err);
    }
}

void createKey() {
    gKeyError = pthread_key_create(&gKey, ThreadCancelCleanup);
}

pthread_key_t threadKey() {
    check(pthread_once(&gKeyOnce, createKey));
    check(gKeyError);
    return gKey;
}

}  // namespace

void* ThreadStart(void* arg) {
    Thread* thread = static_cast<Thread*>(arg);
    // The creator stores the id after pthread_create has returned.
    while (thread->id() == 0) {
        sched_yield();
    }
    const pthread_key_t key = threadKey();
    pthread_setspecific(key, thread);
    thread->m_running.store(true, std::memory_order_release);
    void* result = thread->m_entry(thread->m_arg);
    // A normal return: the key's destructor (the cancellation hook) must not run.
    pthread_setspecific(key, nullptr);
    thread->m_running.store(false, std::memory_order_release);
    return result;
}

void ThreadCancelCleanup(void* arg) {
    Thread* thread = static_cast<Thread*>(arg);
    thread->onCancel();
    thread->m_running.store(false, std::memory_order_release);
}

Thread::Thread() {
    MutexLock lock(lazyMutex(gCountMutex));
    m_threadsActive.fetch_add(1, std::memory_order_relaxed);
}

Thread::~Thread() {
    MutexLock lock(lazyMutex(gCountMutex));
    m_threadsActive.fetch_sub(1, std::memory_order_relaxed);
}

void Thread::start(const char* name, Entry entry, void* arg) {
    const boost::shared_ptr<Logger> logger = Logger::get("util.thread");
    if (id() != 0) {
        ZFW_THROW(AlreadyException, -1, true, "thread %s already started", m_name.c_str());
    }
    m_entry = entry;
    m_arg = arg;
    if (name != nullptr) {
        m_name = name;
    }

    pthread_attr_t attr;
    check(pthread_attr_init(&attr));
    const Properties* props = Properties::getProperties(false);
    const int stackSize = props->getInt("zfw.clients.threads.stacksize", 0);
    if (stackSize > 0) {
        if (pthread_attr_setstacksize(&attr, static_cast<size_t>(stackSize)) != 0) {
            if (logger->isEnabled(Logger::DEBUG)) {
                logger->log(Logger::DEBUG,
                            "Failed to set the thread stack size, using system default");
            }
        } else if (logger->isEnabled(Logger::DEBUG)) {
            logger->log(Logger::DEBUG, "Set the pthread stack size to %d", stackSize);
        }
    }
    if (props->getBool("zfw.clients.threads.priority", false)) {
        // Not every system lets the caller ask for it; the thread then runs as usual.
        pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
    }

    pthread_t created = 0;
    const int err = pthread_create(&created, &attr, ThreadStart, this);
    pthread_attr_destroy(&attr);
    check(err);
    m_id.store(created, std::memory_order_release);
}

void Thread::join() {
    if (joined() || id() == 0) {
        return;
    }
    check(pthread_join(id(), nullptr));
    m_joined.store(true, std::memory_order_release);
}

void Thread::detach() {
    if (joined() || id() == 0) {
        return;
    }
    check(pthread_detach(id()));
    m_joined.store(true, std::memory_order_release);
}

void Thread::cancel() {
    if (!running()) {
        return;
    }
    m_cancelRequested.store(true, std::memory_order_release);
    check(pthread_cancel(id()));
}

void Thread::stop() {
    cancel();
    join();
}

void Thread::disableCancel() {
    check(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr));
}

void Thread::enableCancel() {
    check(pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr));
    pthread_testcancel();
}

void Thread::yield() {
    pthread_testcancel();
    if (sched_yield() != 0) {
        raise(errno);
    }
}

bool Thread::sleep(const struct timespec& interval) {
    pthread_testcancel();
    const int rc = nanosleep(&interval, nullptr);
    const int err = errno;
    pthread_testcancel();
    if (rc == 0) {
        return true;
    }
    if (err == EINTR) {
        return false;
    }
    raise(err);
}

bool Thread::sleep(long seconds, int milliseconds, int microseconds, int nanoseconds) {
    const struct timespec interval = {
        seconds, (static_cast<long>(milliseconds) * 1000 + microseconds) * 1000 + nanoseconds};
    return sleep(interval);
}

Thread* Thread::self() {
    return static_cast<Thread*>(pthread_getspecific(threadKey()));
}

void Thread::setThreadsActive(bool active) {
    MutexLock lock(lazyMutex(gCountMutex));
    if (active) {
        m_threadsActive.fetch_add(1, std::memory_order_relaxed);
    } else {
        m_threadsActive.store(0, std::memory_order_relaxed);
    }
}

}  // namespace zfw
