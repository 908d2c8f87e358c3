// Recursive mutexes with a built-in condition, the waiter-limited variant and the guard.
#include "zfw/mutex.h"

#include <cerrno>
#include <ctime>

#include "zfw/exception.h"
#include "zfw/thread.h"

// Resolves to null when the thread library is not linked into the process.
#pragma weak pthread_mutexattr_init

namespace zfw {
namespace {

[[noreturn]] void raise(int err) {
    ZFW_THROW_ERRNO(SystemException, err, true, err, "OS call failed");
}

void check(int err) {
    if (err != 0) {
        raise(err);
    }
}

// Holds of framework mutexes by this thread: lets code that takes other locks (the first
// log record reads the properties) wait for a moment when the thread holds none.
thread_local int32_t tHeld = 0;

}  // namespace

int32_t Mutex::heldByCallingThread() {
    return tHeld;
}

bool threadsSupported() {
    if (!Thread::m_threadSupportKnown.load(std::memory_order_acquire)) {
        Thread::m_threadsSupported.store(&pthread_mutexattr_init != nullptr,
                                         std::memory_order_relaxed);
        Thread::m_threadSupportKnown.store(true, std::memory_order_release);
    }
    return Thread::m_threadsSupported.load(std::memory_order_relaxed);
}

Mutex::Mutex()
    : m_mutex(PTHREAD_MUTEX_INITIALIZER), m_cond(PTHREAD_COND_INITIALIZER), m_depth(0), m_owner(0) {
    if (!threadsSupported()) {
        return;
    }
    pthread_mutexattr_t attr;
    // threadsSupported() found the thread functions linked in.
    check(pthread_mutexattr_init(&attr));  // NOLINT(clang-analyzer-core.CallAndMessage)
    int err = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (err == 0) {
        err = pthread_mutex_init(&m_mutex, &attr);
    }
    pthread_mutexattr_destroy(&attr);
    check(err);
    err = pthread_cond_init(&m_cond, nullptr);
    if (err != 0) {
        pthread_mutex_destroy(&m_mutex);
        raise(err);
    }
}

Mutex::~Mutex() noexcept(false) {
    if (!threadsSupported()) {
        return;
    }
    check(pthread_mutex_destroy(&m_mutex));
    check(pthread_cond_destroy(&m_cond));
}

// Depth and owner change only under the mutex; they are atomic for the readers that do not
// hold it.
void Mutex::lock() {
    check(pthread_mutex_lock(&m_mutex));
    ++tHeld;
    ++m_depth;
    m_owner = pthread_self();
}

void Mutex::unlock() {
    if (--m_depth == 0) {
        m_owner = 0;
    }
    check(pthread_mutex_unlock(&m_mutex));
    --tHeld;
}

bool Mutex::trylock() {
    const int err = pthread_mutex_trylock(&m_mutex);
    if (err == EBUSY) {
        return false;
    }
    check(err);
    ++tHeld;
    ++m_depth;
    m_owner = pthread_self();
    return true;
}

bool Mutex::wait(const struct timespec* deadline) {
    // The condition wait releases the mutex, so it must not look held meanwhile.
    const int32_t depth = m_depth.exchange(0);
    const pthread_t owner = m_owner.exchange(0);
    const int err = deadline != nullptr ? pthread_cond_timedwait(&m_cond, &m_mutex, deadline)
                                        : pthread_cond_wait(&m_cond, &m_mutex);
    m_depth = depth;
    m_owner = owner;
    if (err == ETIMEDOUT && deadline != nullptr) {
        return false;
    }
    check(err);
    return true;
}

void Mutex::signal() {
    if (Thread::m_threadsActive.load(std::memory_order_relaxed) > 0) {
        check(pthread_cond_signal(&m_cond));
    }
}

void Mutex::broadcast() {
    if (threadsSupported()) {
        check(pthread_cond_broadcast(&m_cond));
    }
}

MaxWaitMutex::MaxWaitMutex(int32_t maxWaiters) : m_maxWaiters(maxWaiters) {}

// The waiter guard, a member, goes before the base mutex.
MaxWaitMutex::~MaxWaitMutex() noexcept(false) = default;

bool MaxWaitMutex::enterWait() {
    if (!threadsSupported() || m_maxWaiters == 0 || pthread_equal(owner(), pthread_self()) != 0) {
        return false;
    }
    MutexLock guard(m_waiterGuard);
    if (m_waiting >= m_maxWaiters) {
        ZFW_THROW(TryAgainException, EAGAIN, true,
                  "too many clients waiting for mutex (configure more threads?)");
    }
    ++m_waiting;
    return true;
}

void MaxWaitMutex::leaveWait() {
    MutexLock guard(m_waiterGuard);
    --m_waiting;
}

void MaxWaitMutex::lock() {
    if (!threadsSupported()) {
        return;
    }
    const bool counted = enterWait();
    Mutex::lock();
    if (counted) {
        leaveWait();
    }
}

bool MaxWaitMutex::trylock() {
    if (!threadsSupported()) {
        return true;
    }
    const bool counted = enterWait();
    const bool result = Mutex::trylock();
    if (counted) {
        leaveWait();
    }
    return result;
}

int32_t MaxWaitMutex::waiting() const {
    MutexLock guard(m_waiterGuard);
    return m_waiting;
}

MutexLock::MutexLock(Mutex& mutex) : m_mutex(&mutex) {
    if (!threadsSupported()) {
        return;
    }
    disableCancel();
    m_mutex->lock();
    m_held = true;
}

MutexLock::MutexLock(Mutex& mutex, long seconds, long nanoseconds) : m_mutex(&mutex) {
    if (!threadsSupported()) {
        return;
    }
    struct timespec pause = {seconds, nanoseconds};
    if (seconds == 0 && nanoseconds == 0) {
        pause.tv_nsec = 10000000L;  // 10 ms
    }
    disableCancel();
    while (!m_mutex->trylock()) {
        if (nanosleep(&pause, nullptr) != 0 && errno != EINTR) {
            const int err = errno;
            pthread_setcancelstate(m_savedCancelState, nullptr);
            raise(err);
        }
        testCancelWhileFree();
    }
    m_held = true;
}

MutexLock::~MutexLock() noexcept(false) {
    release();
}

void MutexLock::disableCancel() {
    // A cancellation already pending acts here, before the mutex is taken (this does
    // nothing when the caller has cancellation disabled already).
    pthread_testcancel();
    check(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_savedCancelState));
}

void MutexLock::testCancelWhileFree() {
    // Cancellation is disabled while polling; open it briefly between attempts, when the
    // mutex is not held, so that a polling thread can still be cancelled.
    if (m_savedCancelState == PTHREAD_CANCEL_ENABLE) {
        check(pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr));
        pthread_testcancel();
        check(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr));
    }
}

void MutexLock::release() {
    if (!m_held || !threadsSupported()) {
        return;
    }
    m_mutex->unlock();
    m_held = false;
    // A cancellation that arrived while the mutex was held acts now that it is free.
    if (m_savedCancelState == PTHREAD_CANCEL_ENABLE) {
        check(pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr));
        pthread_testcancel();
    }
}

bool MutexLock::wait(long seconds, long nanoseconds) {
    const struct timespec deadline = {time(nullptr) + seconds, nanoseconds};
    return m_mutex->wait(&deadline);
}

Mutex& lazyMutex(Mutex*& slot) {
    Mutex* current = __atomic_load_n(&slot, __ATOMIC_ACQUIRE);
    if (current != nullptr) {
        return *current;
    }
    // Two threads may both get here: the first to publish wins, the other drops its own.
    Mutex* created = new Mutex();
    if (__atomic_compare_exchange_n(&slot, &current, created, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
        return *created;
    }
    delete created;
    return *current;
}

}  // namespace zfw
