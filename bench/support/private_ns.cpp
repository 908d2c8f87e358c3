#include "private_ns.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace kvbench {

namespace {

const char kOuterVar[] = "KV_BENCH_OUTER_MNTNS";

std::string mountNamespace() {
    char buf[64] = {};
    const ssize_t n = readlink("/proc/self/ns/mnt", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

}  // namespace

void enterHermetic(int argc, char** argv, bool devlog) {
    const char* outer = getenv(kOuterVar);
    const std::string here = mountNamespace();
    if (outer != nullptr && !here.empty() && here != outer) {
        return;
    }
    if (outer != nullptr) {
        fprintf(stderr, "%s: still in the host's mount namespace\n", argv[0]);
        exit(2);
    }
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) {
        perror("/proc/self/exe");
        exit(2);
    }
    std::string script = KV_SOURCE_DIR "/scripts/hermetic.sh";
    std::string devlogOption = "--devlog";
    std::vector<char*> args = {&script[0]};
    if (devlog) {
        args.push_back(&devlogOption[0]);
    }
    args.push_back(self);
    args.insert(args.end(), argv + 1, argv + argc);
    args.push_back(nullptr);
    setenv(kOuterVar, here.c_str(), 1);
    execv(script.c_str(), args.data());
    perror("hermetic.sh");
    exit(2);
}

void startDevLogSink(std::atomic<long>& received) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, "/dev/log");
    unlink(addr.sun_path);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        chmod(addr.sun_path, 0666) != 0) {
        perror("/dev/log");
        exit(2);
    }
    std::thread([fd, &received] {
        char buf[1024];
        for (;;) {
            if (recv(fd, buf, sizeof buf, 0) >= 0) {
                received.fetch_add(1, std::memory_order_release);
            }
        }
    }).detach();
}

}  // namespace kvbench
