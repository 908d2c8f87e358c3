// A log call with the log queue started against direct delivery and a bare syslog() call,
// all writing to a datagram socket at a private "/dev/log" that a thread of its own reads.
// The benchmark reruns itself in private namespaces (tests/support/hermetic.sh --devlog),
// so it never binds the host's "/dev/log"; it needs root for that.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "zfw/logger.h"
#include "zfw/thread.h"

namespace {

const char kOuterVar[] = "KV_BENCH_OUTER_MNTNS";

std::string mountNamespace() {
    char buf[64] = {};
    const ssize_t n = readlink("/proc/self/ns/mnt", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

// Returns only inside a private mount namespace.
void enterPrivateDevLog(int argc, char** argv) {
    const char* outer = getenv(kOuterVar);
    const std::string here = mountNamespace();
    if (outer != nullptr && !here.empty() && here != outer) {
        return;
    }
    if (outer != nullptr) {
        fprintf(stderr, "logqueue_bench: still in the host's mount namespace\n");
        exit(2);
    }
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) {
        perror("logqueue_bench: /proc/self/exe");
        exit(2);
    }
    std::string script = KV_SOURCE_DIR "/tests/support/hermetic.sh";
    std::string devlog = "--devlog";
    std::vector<char*> args = {&script[0], &devlog[0], self};
    args.insert(args.end(), argv + 1, argv + argc);
    args.push_back(nullptr);
    setenv(kOuterVar, here.c_str(), 1);
    execv(script.c_str(), args.data());
    perror("logqueue_bench: hermetic.sh");
    exit(2);
}

// Datagrams received at "/dev/log" so far, and records written by the benchmarks.
std::atomic<long> gReceived{0};
long gSent = 0;

void startSink() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, "/dev/log");
    unlink(addr.sun_path);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        chmod(addr.sun_path, 0666) != 0) {
        perror("logqueue_bench: /dev/log");
        exit(2);
    }
    // Reads until the process ends.
    std::thread([fd] {
        char buf[1024];
        for (;;) {
            if (recv(fd, buf, sizeof buf, 0) >= 0) {
                gReceived.fetch_add(1, std::memory_order_release);
            }
        }
    }).detach();
}

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
BENCHMARK(BM_SyslogDirect)->UseRealTime();

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
BENCHMARK(BM_LogDirect)->UseRealTime();

// The caller's cost with the queue started. Bursts stay below half the default queue size
// of 256 (from there on every add yields), and the log thread catches up between bursts
// (untimed), so nothing is dropped.
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
        state.PauseTiming();
        gSent += kBurst;
        waitForSink();
        state.ResumeTiming();
    }
    zfw::Logger::stopQueue(reporter);
    state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(BM_LogQueued)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    enterPrivateDevLog(argc, argv);
    startSink();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
