// Cost of a log call: disabled (the cached level check only) and enabled, delivered
// directly to a syslog datagram socket. Run as root: the process gives itself a private
// /dev (its own mount namespace) and reads its records there; the host's /dev/log is
// never touched.
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>

#include "zfw/logger.h"

namespace {

std::atomic<long> gReceived{0};

// A private /dev with a datagram socket at /dev/log, drained by a thread of its own.
bool startPrivateSyslog() {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/dev", "tmpfs", 0, "mode=755") != 0) {
        perror("private /dev");
        return false;
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        perror("bind /dev/log");
        return false;
    }
    std::thread([fd] {
        char buf[2048];
        while (recv(fd, buf, sizeof buf, 0) >= 0) {
            gReceived.fetch_add(1, std::memory_order_relaxed);
        }
    }).detach();
    return true;
}

void BM_DisabledLogCall(benchmark::State& state) {
    const boost::shared_ptr<zfw::Logger> logger = zfw::Logger::get("bench.disabled");
    logger->setLevel(zfw::Logger::INFO);
    int value = 0;
    for (auto _ : state) {
        logger->log(zfw::Logger::DEBUG, "value %d", ++value);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_DisabledLogCall);

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
    benchmark::Initialize(&argc, argv);
    if (geteuid() == 0 && startPrivateSyslog()) {
        BENCHMARK(BM_EnabledLogCallToSyslog);
    } else {
        fprintf(stderr, "not root: the enabled log call is not measured\n");
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
