// A log call with the log queue started against direct delivery and a bare syslog() call,
// all writing to a datagram socket at a private "/dev/log" that a thread of its own reads.
// The benchmark reruns itself in private namespaces (scripts/hermetic.sh --devlog),
// so it never binds the host's "/dev/log"; it needs root for that.
#include <syslog.h>

#include <benchmark/benchmark.h>

#include <atomic>

#include "private_ns.h"
#include "zfw/logger.h"
#include "zfw/thread.h"

namespace {

// Datagrams received at "/dev/log" so far, and records written by the benchmarks.
std::atomic<long> gReceived{0};
long gSent = 0;

// Until the sink has read every record written so far.
void waitForSink() {
    while (gReceived.load(std::memory_order_acquire) < gSent) {
        zfw::Thread::yield();
    }
}

void BM_SyslogDirect(benchmark::State& state) {
    waitForSink();
    long i = 0;
    for (auto _ : state) {
        syslog(LOG_INFO | LOG_AUTH, "INFO  bench.log bench record %ld", ++i);
    }
    gSent += i;
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SyslogDirect)->UseRealTime()->MeasureProcessCPUTime();

void BM_LogDirect(benchmark::State& state) {
    const auto logger = zfw::Logger::get("bench.log");
    waitForSink();
    long i = 0;
    for (auto _ : state) {
        logger->log(zfw::Logger::INFO, "bench record %ld", ++i);
    }
    gSent += i;
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LogDirect)->UseRealTime()->MeasureProcessCPUTime();

// Throughput with the queue started: a burst of calls and the time until the log thread
// has delivered every record of it, in wall time and in CPU time of the whole process (the
// caller and the log thread). Bursts stay below half the default queue size of 256 (from
// there on every add yields), so nothing is dropped.
void BM_LogQueued(benchmark::State& state) {
    constexpr int kBurst = 100;
    const auto logger = zfw::Logger::get("bench.log");
    const auto reporter = zfw::Logger::get("bench.reporter");
    zfw::Logger::startQueue(reporter);
    waitForSink();
    long i = 0;
    for (auto _ : state) {
        for (int n = 0; n < kBurst; ++n) {
            logger->log(zfw::Logger::INFO, "bench record %ld", ++i);
        }
        gSent += kBurst;
        waitForSink();
    }
    zfw::Logger::stopQueue(reporter);
    state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_LogQueued)->UseRealTime()->MeasureProcessCPUTime();

}  // namespace

int main(int argc, char** argv) {
    kvbench::enterHermetic(argc, argv, true);
    kvbench::startDevLogSink(gReceived);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
