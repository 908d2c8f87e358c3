// kvstop end to end against kvdsim: the wall time of one run (which sleeps one second by
// design) against `sleep 1` started the same way, and kvstop's peak resident memory. Runs
// under scripts/hermetic.sh --devlog: the daemon's socket, the configuration file
// and "/dev/log" (drained by a thread here, as a syslog daemon would) are private.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "private_ns.h"

extern char** environ;

namespace {

const char kKvstop[] = KV_BIN_DIR "/tools/kvstop/kvstop";
const char kKvdsim[] = KV_BIN_DIR "/tools/kvdsim/kvdsim";
const char kReady[] = "/var/zantorkv/kvdsim.ready";

std::atomic<long> gReceived{0};

// Starts `argv` with standard output and error on /dev/null.
pid_t spawn(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// The process's own peak resident size so far (VmHWM), in KiB; 0 once it has exited.
long ownPeakKiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return 0;
}

// Waits for `pid` and returns its exit status, or -1. `peakKiB` gets its peak resident size
// as sampled every 2 ms while it runs. (The getrusage figure of a child is no use here: it
// starts from the resident size of the process that spawned it.) A pidfd reports the exit at
// once, so the sampling does not delay the end of the measurement.
// `cpuUs` gets the CPU time it used (user and system), which a loaded machine disturbs less
// than the wall time.
int reap(pid_t pid, long* peakKiB, long* cpuUs) {
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    *peakKiB = 0;
    pollfd exited = {pidfd, POLLIN, 0};
    do {
        const long now = ownPeakKiB(pid);
        *peakKiB = now > *peakKiB ? now : *peakKiB;
    } while (pidfd >= 0 && poll(&exited, 1, 2) == 0);
    if (pidfd >= 0) {
        close(pidfd);
    }
    int status = 0;
    rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status)) {
        return -1;
    }
    *cpuUs = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000L + usage.ru_utime.tv_usec +
             usage.ru_stime.tv_usec;
    return WEXITSTATUS(status);
}

pid_t startDaemon() {
    unlink(kReady);
    const pid_t pid = spawn({kKvdsim, "--exit-on-stop", "--ready-file", kReady});
    struct stat st;
    for (int i = 0; pid > 0 && i < 5000 && stat(kReady, &st) != 0; ++i) {
        usleep(1000);
    }
    return stat(kReady, &st) == 0 ? pid : -1;
}

void run(benchmark::State& state, const std::vector<std::string>& command, bool daemon) {
    long peakKiB = 0;
    long maxPeakKiB = 0;
    long cpuUs = 0;
    long totalCpuUs = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const pid_t daemonPid = daemon ? startDaemon() : 0;
        if (daemonPid < 0) {
            state.SkipWithError("kvdsim did not start");
            break;
        }
        state.ResumeTiming();
        const pid_t pid = spawn(command);
        const int status = pid > 0 ? reap(pid, &peakKiB, &cpuUs) : -1;
        state.PauseTiming();
        long ignored = 0;
        if (daemon) {
            kill(daemonPid, SIGTERM);
            reap(daemonPid, &ignored, &ignored);
        }
        if (status != 0) {
            state.SkipWithError("the command did not exit with 0");
            break;
        }
        maxPeakKiB = peakKiB > maxPeakKiB ? peakKiB : maxPeakKiB;
        totalCpuUs += cpuUs;
        state.ResumeTiming();
    }
    state.counters["peak_rss_mib"] = static_cast<double>(maxPeakKiB) / 1024.0;
    state.counters["cpu_ms"] = benchmark::Counter(static_cast<double>(totalCpuUs) / 1000.0,
                                                  benchmark::Counter::kAvgIterations);
}

void BM_Kvstop(benchmark::State& state) {
    run(state, {kKvstop}, true);
}
BENCHMARK(BM_Kvstop)->Iterations(1)->UseRealTime();

void BM_Sleep1(benchmark::State& state) {
    run(state, {"/bin/sleep", "1"}, false);
}
BENCHMARK(BM_Sleep1)->Iterations(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    kvbench::enterHermetic(argc, argv, true);
    kvbench::startDevLogSink(gReceived);
    // The defaults, written out as a real host has them.
    std::ofstream("/etc/zantorkv/zantorkv.conf")
        << "kvd.data.dir=/var/zantorkv\nkvd.socket=audit\nlrpc2.timeout=30\n";
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
