// The log queue: records formatted on the logging thread and written to syslog by the
// background thread "com.zantor.logger".
#include "logqueue.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <stdexcept>

#include <boost/make_shared.hpp>

#include "zfw/exception.h"
#include "zfw/logger.h"
#include "zfw/properties.h"
#include "zfw/runqueue.h"
#include "zfw/thread.h"

namespace zfw {
namespace {

// Serialises startQueue and stopQueue. It comes first in the lock order: startQueue reads
// the properties and starts the thread (which reads them too) without the delivery lock,
// because a properties load configures the loggers and so logs under the registry lock.
Mutex* gControlMutex = nullptr;

// Changed under both the control lock and the delivery lock, so either lock is enough to
// read them. Both null while records go straight to syslog.
RunQueue* gLogQueue = nullptr;
Thread* gLogThread = nullptr;
// The logger "log", which reports dropped records. Looked up by startQueue: the lookup
// takes the registry lock, which must not be taken while the delivery lock is held.
boost::shared_ptr<Logger> gDropReporter;

void* logThreadBody(void* arg) {
    RunQueue* queue = static_cast<RunQueue*>(arg);
    try {
        queue->run(0);
    } catch (const QueueInterrupted&) {
        // stopQueue asked the thread to end.
    } catch (const std::exception& e) {
        syslog(LOG_WARNING, "Unexpected runqueue exception %s", e.what());
    }
    return nullptr;
}

}  // namespace

bool queueRecord(int32_t priority, const char* record, va_list args) {
    if (gLogQueue == nullptr) {
        return false;
    }
    const RunQueue::Item message = boost::make_shared<QueuedMessage>(priority, record, args);
    try {
        gLogQueue->add(message);
    } catch (const std::out_of_range& e) {
        // Full: the newest pending record goes as well, and the warning takes its place.
        gLogQueue->dropNewest();
        if (gDropReporter->isEnabled(Logger::ERROR)) {
            gDropReporter->log(Logger::ERROR,
                               "Warning: Zantor logger dropping messages:(%s) Please insure "
                               "syslog is running correctly or increase the value of %s in "
                               "zantormx.conf.",
                               e.what(), "logger.queue.size");
        }
        // Still holding the delivery lock: every logging thread waits while the log thread
        // catches up.
        usleep(10000);
    }
    return true;
}

void Logger::startQueue(const boost::shared_ptr<Logger>& reporter) {
    MutexLock control(lazyMutex(gControlMutex));
    if (gLogQueue != nullptr || gLogThread != nullptr) {
        return;
    }
    const int size = Properties::getProperties(false)->getInt("logger.queue.size", 256);
    if (size < 1) {
        if (reporter->isEnabled(WARN)) {
            reporter->log(WARN, "LogQueue disabled.  Recommended for debugging only.");
        }
        return;
    }
    if (reporter->isEnabled(DEBUG)) {
        reporter->log(DEBUG, "starting background log thread");
    }
    boost::shared_ptr<Logger> dropReporter = get("log");
    uint32_t capacity = static_cast<uint32_t>(size);
    if (dropReporter->isEnabled(DEBUG)) {
        capacity = capacity > UINT32_MAX / 4 ? UINT32_MAX : capacity * 4;
    }
    std::unique_ptr<RunQueue> queue(new RunQueue(capacity, true));
    std::unique_ptr<Thread> thread(new Thread());
    thread->start("com.zantor.logger", logThreadBody, queue.get());

    MutexLock lock(logDeliveryMutex());
    gDropReporter = dropReporter;
    gLogQueue = queue.release();
    gLogThread = thread.release();
}

void endLogQueue() {
    MutexLock control(lazyMutex(gControlMutex));
    MutexLock lock(logDeliveryMutex());
    if (gLogQueue != nullptr) {
        gLogQueue->interrupt();
    }
    if (gLogThread != nullptr) {
        gLogThread->join();
    }
    if (gLogQueue != nullptr) {
        try {
            gLogQueue->run(-1);
        } catch (const QueueInterrupted&) {
            // The log thread had already ended, so the interruption was still pending.
            gLogQueue->run(-1);
        }
    }
    delete gLogQueue;
    gLogQueue = nullptr;
    delete gLogThread;
    gLogThread = nullptr;
    gDropReporter.reset();
}

void Logger::stopQueue(const boost::shared_ptr<Logger>& reporter) {
    endLogQueue();
    if (reporter->isEnabled(DEBUG)) {
        reporter->log(DEBUG, "stopped background log thread");
    }
}

}  // namespace zfw
