// Cost of a log call: disabled (the cached level check only, against one bare comparison),
// guarded as kvstop writes it (isEnabled, then log only when enabled), in nanoseconds and in
// time-stamp counter cycles; and enabled, delivered directly to a syslog datagram socket. Run as
// root: the benchmark reruns itself under scripts/hermetic.sh --devlog and reads its records
// at its own
// "/dev/log"; the host's /dev/log is never touched.
#include <unistd.h>
#include <x86intrin.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "private_ns.h"
#include "zfw/logger.h"

namespace {

std::atomic<long> gReceived{0};

// Time-stamp counter cycles per iteration, as the counter "cycles".
class Cycles {
  public:
    explicit Cycles(benchmark::State& state) : m_state(state), m_start(__rdtsc()) {}
    ~Cycles() {
        const double n = static_cast<double>(m_state.iterations());
        m_state.counters["cycles"] = n > 0 ? static_cast<double>(__rdtsc() - m_start) / n : 0;
    }
    Cycles(const Cycles&) = delete;
    Cycles& operator=(const Cycles&) = delete;

  private:
    benchmark::State& m_state;
    const uint64_t m_start;
};

void BM_DisabledLogCall(benchmark::State& state) {
    const boost::shared_ptr<zfw::Logger> logger = zfw::Logger::get("bench.disabled");
    logger->setLevel(zfw::Logger::INFO);
    int value = 0;
    const Cycles cycles(state);
    for (auto _ : state) {
        logger->log(zfw::Logger::DEBUG, "value %d", ++value);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_DisabledLogCall);

// The call as kvstop makes it: the level test first, the log call only when it passes.
void BM_GuardedLogCall(benchmark::State& state) {
    const boost::shared_ptr<zfw::Logger> logger = zfw::Logger::get("bench.guarded");
    logger->setLevel(zfw::Logger::INFO);
    int value = 0;
    const Cycles cycles(state);
    for (auto _ : state) {
        if (logger->isEnabled(zfw::Logger::DEBUG)) {
            logger->log(zfw::Logger::DEBUG, "value %d", ++value);
        }
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_GuardedLogCall);

// The limit of a disabled call: one relaxed load of a level and one comparison.
void BM_LevelCompare(benchmark::State& state) {
    std::atomic<int32_t> level{zfw::Logger::INFO};
    int value = 0;
    const Cycles cycles(state);
    for (auto _ : state) {
        if (zfw::Logger::DEBUG >= level.load(std::memory_order_relaxed)) {
            ++value;
        }
        benchmark::DoNotOptimize(value);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_LevelCompare);

void BM_EnabledLogCallToSyslog(benchmark::State& state) {
    const boost::shared_ptr<zfw::Logger> logger = zfw::Logger::get("bench.enabled");
    logger->setLevel(zfw::Logger::INFO);
    const long before = gReceived.load();
    int value = 0;
    for (auto _ : state) {
        logger->log(zfw::Logger::INFO, "value %d", ++value);
    }
    state.counters["received"] = static_cast<double>(gReceived.load() - before);
}

}  // namespace

int main(int argc, char** argv) {
    if (geteuid() == 0) {
        kvbench::enterHermetic(argc, argv, true);
        kvbench::startDevLogSink(gReceived);
        BENCHMARK(BM_EnabledLogCallToSyslog);
    } else {
        fprintf(stderr, "not root: the enabled log call is not measured\n");
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
