// Every test executable starts here. Each run (CTest runs one case a process) gets a network
// namespace of its own with only the loopback interface, up: the datagram queue length,
// 127.0.0.1:53 and every port are the case's own, whatever the host has set or runs.
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Empty on success, else what failed.
const char* privateNetwork() {
    if (unshare(CLONE_NEWNET) != 0) {
        return "unshare(CLONE_NEWNET)";
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return "socket";
    }
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", sizeof ifr.ifr_name - 1);
    const char* failed = "";
    if (ioctl(fd, SIOCGIFFLAGS, &ifr) != 0) {
        failed = "SIOCGIFFLAGS lo";
    } else {
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
        if (ioctl(fd, SIOCSIFFLAGS, &ifr) != 0) {
            failed = "SIOCSIFFLAGS lo";
        }
    }
    close(fd);
    return failed;
}

}  // namespace

int main(int argc, char** argv) {
    const char* failed = privateNetwork();
    if (*failed != '\0') {
        fprintf(stderr, "%s: a private network namespace needs root: %s: %s\n", argv[0], failed,
                strerror(errno));
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
