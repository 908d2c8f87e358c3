// Run-queue throughput: one producer (the benchmark thread) adds small items to a queue,
// unbounded (max size 0) or bounded, one consumer zfw::Thread runs them (a second argument
// of 1 puts both on CPU 0, where the scheduler's placement cannot swing the figure); the time
// runs until the consumer has run every item. Wall time and the CPU time of the whole process (both
// threads) per item. Beside them the two costs a bounded add may carry: a walk over a list of
// pending items and a yield of the CPU.
#include <sched.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <thread>

#include <boost/make_shared.hpp>

#include "placement.h"
#include "zfw/exception.h"
#include "zfw/runqueue.h"
#include "zfw/thread.h"

namespace {

class Counted : public zfw::QueueAble {
  public:
    explicit Counted(std::atomic<long>& done) : m_done(done) {}
    void run() override { m_done.fetch_add(1, std::memory_order_release); }

  private:
    std::atomic<long>& m_done;
};

// Items added per timed iteration; each iteration ends when the consumer has run them all,
// so the throughput includes the drain.
constexpr int kBurst = 1000;

void waitForConsumer(const std::atomic<long>& done, long added) {
    while (done.load(std::memory_order_acquire) != added) {
        sched_yield();
    }
}

void* consume(void* queue) {
    try {
        static_cast<zfw::RunQueue*>(queue)->run(0);
    } catch (const zfw::QueueInterrupted&) {
    }
    return nullptr;
}

// Both queues at the same sizes (max size, 0 unbounded) and placements (1: both threads on
// CPU 0).
void queueSizes(benchmark::internal::Benchmark* b) {
    b->Args({0, 0})->Args({0, 1})->Args({256, 0})->Args({4096, 0});
    b->MeasureProcessCPUTime()->UseRealTime();
}

void BM_RunQueueOneProducerOneConsumer(benchmark::State& state) {
    const uint32_t bound = static_cast<uint32_t>(state.range(0));
    const kvbench::Placement pin(static_cast<int>(state.range(1)));
    zfw::RunQueue queue(bound, true);
    zfw::Thread consumer;
    consumer.start("bench.consumer", consume, &queue);
    std::atomic<long> done{0};
    long added = 0;
    long refused = 0;
    for (auto _ : state) {
        for (int n = 0; n < kBurst; ++n) {
            const zfw::RunQueue::Item item = boost::make_shared<Counted>(done);
            for (;;) {
                try {
                    queue.add(item);
                    break;
                } catch (const zfw::BufferFullException&) {
                    ++refused;
                    sched_yield();
                }
            }
        }
        added += kBurst;
        waitForConsumer(done, added);
    }
    queue.interrupt();
    consumer.join();
    state.SetItemsProcessed(added);
    state.counters["refused_per_item"] =
        benchmark::Counter(static_cast<double>(refused) / static_cast<double>(added));
}
BENCHMARK(BM_RunQueueOneProducerOneConsumer)->Apply(queueSizes);

// What a user would otherwise write: a std::deque (bounded unless the bound is 0) under a
// std::mutex with two condition variables, the producer blocking while it is full, the consumer
// thread running the same items.
class StdRunQueue {
  public:
    explicit StdRunQueue(size_t bound) : m_bound(bound) {}

    void add(zfw::RunQueue::Item item) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_notFull.wait(lock, [this] { return m_bound == 0 || m_items.size() < m_bound; });
        m_items.push_back(std::move(item));
        m_notEmpty.notify_one();
    }

    // Runs items until stop() and an empty queue.
    void run() {
        for (;;) {
            zfw::RunQueue::Item item;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_notEmpty.wait(lock, [this] { return !m_items.empty() || m_stopped; });
                if (m_items.empty()) {
                    return;
                }
                item = std::move(m_items.front());
                m_items.pop_front();
                m_notFull.notify_one();
            }
            item->run();
        }
    }

    void stop() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        m_notEmpty.notify_one();
    }

  private:
    const size_t m_bound;
    std::mutex m_mutex;
    std::condition_variable m_notEmpty;
    std::condition_variable m_notFull;
    std::deque<zfw::RunQueue::Item> m_items;
    bool m_stopped = false;
};

void BM_StdQueueOneProducerOneConsumer(benchmark::State& state) {
    const kvbench::Placement pin(static_cast<int>(state.range(1)));
    StdRunQueue queue(static_cast<size_t>(state.range(0)));
    std::thread consumer([&queue] { queue.run(); });
    std::atomic<long> done{0};
    long added = 0;
    for (auto _ : state) {
        for (int n = 0; n < kBurst; ++n) {
            queue.add(boost::make_shared<Counted>(done));
        }
        added += kBurst;
        waitForConsumer(done, added);
    }
    queue.stop();
    consumer.join();
    state.SetItemsProcessed(added);
}
BENCHMARK(BM_StdQueueOneProducerOneConsumer)->Apply(queueSizes);

// Counting the pending items by walking a list of state.range(0) of them.
void BM_ListWalk(benchmark::State& state) {
    std::atomic<long> done{0};
    std::list<zfw::RunQueue::Item> items;
    for (int64_t i = 0; i < state.range(0); ++i) {
        items.push_back(boost::make_shared<Counted>(done));
    }
    for (auto _ : state) {
        long count = 0;
        for (auto it = items.begin(); it != items.end(); ++it) {
            ++count;
        }
        benchmark::DoNotOptimize(count);
    }
}
BENCHMARK(BM_ListWalk)->Arg(2048);

void BM_Yield(benchmark::State& state) {
    for (auto _ : state) {
        zfw::Thread::yield();
    }
}
BENCHMARK(BM_Yield);

}  // namespace

BENCHMARK_MAIN();
