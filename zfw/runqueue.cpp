// Run queues and their registry.
#include "zfw/runqueue.h"

#include <syslog.h>

#include <cstdio>
#include <ctime>

#include "zfw/exception.h"
#include "zfw/logger.h"
#include "zfw/strutil.h"
#include "zfw/thread.h"

namespace zfw {

RunQueue::Registry RunQueue::gQueues;

const std::string& QueueAble::key() const {
    return EMPTY_STRING;
}

QueuedMessage::QueuedMessage(int32_t priority, const char* format, va_list args)
    : m_priority(priority) {
    vsnprintf(m_text, sizeof m_text, format, args);
}

void QueuedMessage::run() {
    syslog(m_priority, "%s", m_text);
}

RunQueue::RunQueue(uint32_t maxSize, bool quiet) : m_maxSize(maxSize), m_quiet(quiet) {}

RunQueue::~RunQueue() = default;

void RunQueue::add(const Item& item) {
    // Reported after the lock is released: logging takes the logger locks, which come
    // before a run queue's.
    Item replaced;
    {
        MutexLock lock(m_mutex);
        if (m_maxSize != 0 && m_items.size() >= m_maxSize) {
            const long count = static_cast<long>(m_items.size());
            lock.release();
            ZFW_THROW(BufferFullException, -1, !m_quiet, "runqueue full %ld", count);
        }
        if (item->isUnique()) {
            for (auto it = m_items.begin(); it != m_items.end(); ++it) {
                if ((*it)->key() == item->key()) {
                    replaced = *it;
                    m_items.erase(it);
                    break;
                }
            }
        }
        m_items.push_back(item);
        m_mutex.broadcast();
        // Half full: give the consumers a chance before producing more.
        if (m_maxSize != 0 && m_items.size() >= m_maxSize / 2) {
            Thread::yield();
        }
    }
    if (replaced && !m_quiet) {
        const boost::shared_ptr<Logger> logger = Logger::get("util.runqueue");
        if (logger->isEnabled(Logger::DEBUG)) {
            logger->log(Logger::DEBUG, "removed duplicate request %s", replaced->key().c_str());
        }
    }
}

void RunQueue::run(int timeoutSeconds) {
    const time_t start = time(nullptr);
    const struct timespec deadline = {start + timeoutSeconds, 0};
    for (;;) {
        Item item;
        {
            MutexLock lock(m_mutex);
            while (!m_interrupted && m_items.empty()) {
                m_mutex.wait(timeoutSeconds != 0 ? &deadline : nullptr);
                if (timeoutSeconds != 0) {
                    const time_t now = time(nullptr);
                    // A clock set back before the start ends the wait too.
                    if (now >= deadline.tv_sec || now < start) {
                        return;
                    }
                }
            }
            if (m_interrupted) {
                m_interrupted = false;
                lock.release();
                ZFW_THROW(QueueInterrupted, 0, !m_quiet, "QueueInterrupted");
            }
            item = std::move(m_items.front());
            m_items.pop_front();
        }
        try {
            item->run();
        } catch (const ZFWException& e) {
            if (!m_quiet) {
                const boost::shared_ptr<Logger> logger = Logger::get("util.runqueue");
                if (logger->isEnabled(Logger::DEBUG)) {
                    logger->log(Logger::DEBUG, "unhandled exception %s", e.what());
                }
            }
        }
    }
}

void RunQueue::interrupt() {
    MutexLock lock(m_mutex);
    m_interrupted = true;
    m_mutex.broadcast();
}

bool RunQueue::dropNewest() {
    MutexLock lock(m_mutex);
    if (m_items.empty()) {
        return false;
    }
    m_items.pop_back();
    return true;
}

size_t RunQueue::size() {
    MutexLock lock(m_mutex);
    return m_items.size();
}

RunQueue* RunQueue::find(const std::string& name, bool create, uint32_t maxSize) {
    const boost::shared_ptr<Logger> logger = Logger::get("util.runqueue");
    MutexLock lock(gQueues.mutex());
    auto found = gQueues.find(name);
    if (found != gQueues.end()) {
        return found->second;
    }
    if (!create) {
        return nullptr;
    }
    RunQueue* queue = new RunQueue(maxSize, false);
    if (logger->isEnabled(Logger::DEBUG)) {
        logger->log(Logger::DEBUG, "Created new RunQueue %s", name.c_str());
    }
    gQueues.insert(name, queue);
    return queue;
}

void RunQueue::remove(const std::string& name) {
    RunQueue* queue = nullptr;
    {
        MutexLock lock(gQueues.mutex());
        auto found = gQueues.find(name);
        if (found == gQueues.end()) {
            return;
        }
        queue = found->second;
        gQueues.erase(found);
    }
    delete queue;
}

}  // namespace zfw
