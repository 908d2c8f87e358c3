// Run-queue throughput: one producer (the benchmark thread) adds small items to a bounded
// queue, one consumer zfw::Thread runs them. In the steady state the producer can only go
// as fast as the consumer takes items, so items added per second is the throughput.
#include <sched.h>

#include <benchmark/benchmark.h>

#include <atomic>

#include <boost/make_shared.hpp>

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

void* consume(void* queue) {
    try {
        static_cast<zfw::RunQueue*>(queue)->run(0);
    } catch (const zfw::QueueInterrupted&) {
    }
    return nullptr;
}

void BM_RunQueueOneProducerOneConsumer(benchmark::State& state) {
    const uint32_t bound = static_cast<uint32_t>(state.range(0));
    zfw::RunQueue queue(bound, true);
    zfw::Thread consumer;
    consumer.start("bench.consumer", consume, &queue);
    std::atomic<long> done{0};
    long added = 0;
    long refused = 0;
    for (auto _ : state) {
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
        ++added;
    }
    // The consumer trails the producer by at most the bound.
    while (done.load(std::memory_order_acquire) != added) {
        sched_yield();
    }
    queue.interrupt();
    consumer.join();
    state.SetItemsProcessed(added);
    state.counters["refused_per_item"] =
        benchmark::Counter(static_cast<double>(refused) / static_cast<double>(added));
}
BENCHMARK(BM_RunQueueOneProducerOneConsumer)->Arg(256)->Arg(4096)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
