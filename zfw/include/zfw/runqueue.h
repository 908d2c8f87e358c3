// Run queues: bounded first-in, first-out queues of work items that consumer threads take
// out and run.
//
// Producers add() under the queue's mutex; consumers sit in run(), which runs each item
// outside the lock, so an item may add to its own queue. Named queues are shared through
// the registry RunQueue::gQueues (find, remove). A queue's mutex comes last in the
// framework's lock order (after log delivery) and is never taken while the registry's
// mutex is held.
#ifndef ZFW_RUNQUEUE_H
#define ZFW_RUNQUEUE_H

#include <cstdarg>
#include <cstdint>
#include <list>
#include <string>

#include <boost/shared_ptr.hpp>

#include "zfw/container.h"
#include "zfw/mutex.h"

namespace zfw {

class Runnable {
  public:
    virtual void run() = 0;
    virtual ~Runnable() = default;
};

// What a run queue holds.
class QueueAble : public Runnable {
  public:
    // True when a queue should keep at most one pending item with this item's key: adding
    // it replaces the pending one.
    virtual bool isUnique() const { return false; }
    virtual const std::string& key() const;
};

// One syslog record, written by run().
class QueuedMessage : public QueueAble {
  public:
    static constexpr size_t kTextSize = 512;

    // The text is format with args, cut at kTextSize - 1 characters.
    QueuedMessage(int32_t priority, const char* format, va_list args);

    void run() override;

    int32_t priority() const { return m_priority; }
    const char* text() const { return m_text; }

  private:
    int32_t m_priority;
    char m_text[kTextSize];
};

class RunQueue {
  public:
    typedef boost::shared_ptr<QueueAble> Item;
    typedef Wrapper::Check<Wrapper::Locked, Map<std::string, RunQueue*>> Registry;

    // Named queues (see find); destroying it at exit frees the map, not the queues.
    static Registry gQueues;

    // maxSize 0: unbounded. quiet: the queue writes no records and its exceptions no
    // error reports.
    RunQueue(uint32_t maxSize, bool quiet);
    // Pending items are released without being run.
    ~RunQueue();

    RunQueue(const RunQueue&) = delete;
    RunQueue& operator=(const RunQueue&) = delete;

    // Appends the item and wakes the consumers. zfw::BufferFullException (also a
    // std::out_of_range) when the queue is full. A unique item replaces the oldest pending
    // item with the same key.
    void add(const Item& item);
    // The consumer loop: takes the oldest item and runs it, waiting for items while the
    // queue is empty. A framework exception of an item is logged and the loop goes on.
    // timeoutSeconds 0 waits without end; otherwise run returns once the deadline
    // (now + timeoutSeconds, in whole seconds) has passed with the queue empty, so a
    // negative time-out runs what is pending and returns. zfw::QueueInterrupted after
    // interrupt().
    void run(int timeoutSeconds);
    // Makes one consumer leave run() with zfw::QueueInterrupted (or the next one to enter
    // it). Pending items stay queued.
    void interrupt();

    // Removes the newest pending item; false when the queue is empty.
    bool dropNewest();
    size_t size();

    // The queue registered under name. When absent: created (not quiet) and registered if
    // create is set, null otherwise. The registry keeps ownership.
    static RunQueue* find(const std::string& name, bool create, uint32_t maxSize);
    // Unregisters and destroys the named queue; does nothing for an unknown name.
    static void remove(const std::string& name);

  private:
    std::list<Item> m_items;
    Mutex m_mutex;
    bool m_interrupted = false;
    uint32_t m_maxSize;
    bool m_quiet;
};

}  // namespace zfw

#endif
