// Request exchange against its physical limit. A peer process (forked here, plain blocking
// reads and writes) answers every frame with an empty reply of the same id. Measured:
//  - KVPing round trips through lrpc2_exchange_timeout (time-out 30 s, as kvstop uses it)
//    against the same 11-byte frames written and read with blocking write/read;
//  - lrpc2_connect_timeout + lrpc2_close against socket/connect/4-byte hello/close.
// The argument picks the placement: 0 lets the scheduler spread client and peer over the
// cores, 1 pins both to CPU 0 (no cross-core wake-up, so the client's own system calls
// weigh more). Both loops report their system calls per round trip.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "lrpc2/conn.h"
#include "lrpc2/exchange.h"
#include "lrpc2/msg.h"
#include "lrpc2/table.h"
#include "placement.h"

// System calls that the client thread makes, counted by wrappers that take the place of the
// C library's functions in this executable (the library's calls reach them too). Only the
// calls of the thread that set gCounting are counted: the peers are other processes, and
// the benchmark library's own threads do not count.
enum Call { kSendmsg, kRecv, kPpoll, kWrite, kRead, kCalls };
const char* const kCallNames[kCalls] = {"sendmsg", "recv", "ppoll", "write", "read"};
thread_local bool gCounting = false;
thread_local long gCalls[kCalls] = {};

long counted(Call call, long result) {
    if (gCounting) {
        ++gCalls[call];
    }
    return result;
}

extern "C" {

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    return counted(kSendmsg, syscall(SYS_sendmsg, fd, message, flags));
}

ssize_t recv(int fd, void* data, size_t n, int flags) {
    return counted(kRecv, syscall(SYS_recvfrom, fd, data, n, flags, nullptr, nullptr));
}

int ppoll(pollfd* fds, nfds_t n, const timespec* limit, const sigset_t* mask) {
    return static_cast<int>(counted(kPpoll, syscall(SYS_ppoll, fds, n, limit, mask, _NSIG / 8)));
}

ssize_t write(int fd, const void* data, size_t n) {
    return counted(kWrite, syscall(SYS_write, fd, data, n));
}

ssize_t read(int fd, void* data, size_t n) {
    return counted(kRead, syscall(SYS_read, fd, data, n));
}

}  // extern "C"

namespace {

// Counts the calls of the timed loop and reports them per round trip.
class CallCount {
  public:
    explicit CallCount(benchmark::State& state) : m_state(state) {
        std::fill(std::begin(gCalls), std::end(gCalls), 0);
        gCounting = true;
    }
    ~CallCount() {
        gCounting = false;
        const double trips = static_cast<double>(m_state.iterations());
        long all = 0;
        for (int c = 0; c < kCalls; ++c) {
            all += gCalls[c];
            if (gCalls[c] != 0 && trips > 0) {
                m_state.counters[kCallNames[c]] = static_cast<double>(gCalls[c]) / trips;
            }
        }
        m_state.counters["syscalls"] = trips > 0 ? static_cast<double>(all) / trips : 0;
    }
    CallCount(const CallCount&) = delete;
    CallCount& operator=(const CallCount&) = delete;

  private:
    benchmark::State& m_state;
};

std::string gDir;
std::string gPath[2];
pid_t gPeer[2] = {-1, -1};

bool readExact(int fd, void* data, size_t n) {
    auto* p = static_cast<uint8_t*>(data);
    while (n > 0) {
        const ssize_t r = read(fd, p, n);
        if (r <= 0) {
            return false;
        }
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

bool writeExact(int fd, const void* data, size_t n) {
    const auto* p = static_cast<const uint8_t*>(data);
    while (n > 0) {
        const ssize_t r = write(fd, p, n);
        if (r <= 0) {
            return false;
        }
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

// The peer: one connection at a time; answers the hello with 1 and every frame with an
// empty reply of the frame's id.
[[noreturn]] void servePeer(int listener) {
    for (;;) {
        const int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) {
            continue;
        }
        uint32_t hello = 0;
        const uint32_t accept_value = 1;
        if (readExact(fd, &hello, sizeof hello) && writeExact(fd, &accept_value, 4)) {
            uint8_t header[LRPC2_HEADER_LEN];
            uint8_t body[256];
            uint32_t length = 0;
            while (readExact(fd, header, sizeof header)) {
                memcpy(&length, header + 4, sizeof length);
                if (length < 11 || length - LRPC2_HEADER_LEN > sizeof body ||
                    !readExact(fd, body, length - LRPC2_HEADER_LEN)) {
                    break;
                }
                uint8_t reply[11] = {};
                lrpc2_frame_stamp(reply, sizeof reply);
                memcpy(reply + 8, body, 2);
                if (!writeExact(fd, reply, sizeof reply)) {
                    break;
                }
            }
        }
        close(fd);
    }
}

bool startPeer(int placement) {
    gPath[placement] = gDir + "/peer" + std::to_string(placement);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, gPath[placement].c_str(), sizeof address.sun_path - 1);
    if (listener < 0 ||
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 64) != 0) {
        perror("exchange_bench: peer socket");
        return false;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        if (placement == 1) {
            kvbench::pinToCpu0();
        }
        servePeer(listener);
    }
    close(listener);
    gPeer[placement] = pid;
    return pid > 0;
}

void stopPeers() {
    for (const pid_t pid : gPeer) {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
    for (const std::string& path : gPath) {
        unlink(path.c_str());
    }
    rmdir(gDir.c_str());
}

int rawConnect(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    return fd;
}

void BM_PingExchange(benchmark::State& state) {
    const int placement = static_cast<int>(state.range(0));
    const kvbench::Placement pin(placement);
    int32_t status = 0;
    lrpc2_conn* conn =
        lrpc2_connect_timeout(gPath[placement].c_str(), lrpc2_default_table(), 30, &status);
    lrpc2_msg* ping =
        lrpc2_msg_create(LRPC2_ID_KV_PING, 1, lrpc2_default_table(), LRPC2_HEADER_LEN, &status);
    if (conn == nullptr || ping == nullptr || lrpc2_msg_complete(ping) != 0) {
        state.SkipWithError("no connection to the peer");
        return;
    }
    const CallCount calls(state);
    for (auto _ : state) {
        lrpc2_msg* reply = lrpc2_exchange_timeout(conn, ping, 30, &status);
        if (reply == nullptr) {
            state.SkipWithError("exchange failed");
            break;
        }
        lrpc2_msg_free(reply);
    }
    lrpc2_msg_free(ping);
    lrpc2_close(conn);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PingExchange)->Arg(0)->Arg(1)->UseRealTime();

// The same bytes with blocking write and read on a plain socket.
void BM_PingRawBlocking(benchmark::State& state) {
    const int placement = static_cast<int>(state.range(0));
    const kvbench::Placement pin(placement);
    const int fd = rawConnect(gPath[placement]);
    const uint32_t hello = 2;
    uint32_t answer = 0;
    if (fd < 0 || !writeExact(fd, &hello, 4) || !readExact(fd, &answer, 4)) {
        state.SkipWithError("no connection to the peer");
        return;
    }
    uint8_t frame[11] = {};
    lrpc2_frame_stamp(frame, sizeof frame);
    frame[8] = LRPC2_ID_KV_PING;
    uint8_t reply[11];
    const CallCount calls(state);
    for (auto _ : state) {
        if (write(fd, frame, sizeof frame) != sizeof frame || !readExact(fd, reply, sizeof reply)) {
            state.SkipWithError("ping-pong failed");
            break;
        }
    }
    close(fd);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PingRawBlocking)->Arg(0)->Arg(1)->UseRealTime();

void BM_ConnectHandshakeClose(benchmark::State& state) {
    const int placement = static_cast<int>(state.range(0));
    const kvbench::Placement pin(placement);
    int32_t status = 0;
    for (auto _ : state) {
        lrpc2_conn* conn =
            lrpc2_connect_timeout(gPath[placement].c_str(), lrpc2_default_table(), 30, &status);
        if (conn == nullptr) {
            state.SkipWithError("connect failed");
            break;
        }
        lrpc2_close(conn);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ConnectHandshakeClose)->Arg(0)->Arg(1)->UseRealTime();

void BM_ConnectRawBlocking(benchmark::State& state) {
    const int placement = static_cast<int>(state.range(0));
    const kvbench::Placement pin(placement);
    const uint32_t hello = 2;
    uint32_t answer = 0;
    for (auto _ : state) {
        const int fd = rawConnect(gPath[placement]);
        if (fd < 0 || !writeExact(fd, &hello, 4) || !readExact(fd, &answer, 4)) {
            state.SkipWithError("connect failed");
            break;
        }
        close(fd);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ConnectRawBlocking)->Arg(0)->Arg(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    char dir[] = "/tmp/kvbench.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        perror("exchange_bench: mkdtemp");
        return 2;
    }
    gDir = dir;
    if (!startPeer(0) || !startPeer(1)) {
        stopPeers();
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    stopPeers();
    return 0;
}
