// Every test executable starts here, and each run (CTest runs one case a process) gets a
// machine of its own before GoogleTest starts any thread:
// - a pid namespace: the cases run as its second process under a first one that only reaps,
//   and every process a case leaves behind dies when the case ends or is killed;
// - a network namespace with only the loopback interface, up;
// - a mount namespace in which /etc and /var are writable overlays, "/etc/zantorkv",
//   "/var/zantorkv" and "/var/zantormx" are empty tmpfs directories, /proc shows the pid
//   namespace, and /dev is a tmpfs holding the usual devices, so a case may bind "/dev/log".
// The host's files are never changed; only an empty directory in /tmp is made and removed.
#include "support/private_root.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Each step returns what failed, or nullptr.
using Step = const char*;

Step loopbackUp() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return "socket";
    }
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", sizeof ifr.ifr_name - 1);
    Step failed = nullptr;
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

bool mountTmpfs(const std::string& dir) {
    return mount(kvtest::kPrivateTmpfs, dir.c_str(), "tmpfs", 0, "mode=755") == 0;
}

bool overlay(const std::string& scratch, const std::string& dir) {
    const std::string up = scratch + dir + ".up", work = scratch + dir + ".wk";
    const std::string options = "lowerdir=" + dir + ",upperdir=" + up + ",workdir=" + work;
    return mkdir(up.c_str(), 0755) == 0 && mkdir(work.c_str(), 0755) == 0 &&
           mount("overlay", dir.c_str(), "overlay", 0, options.c_str()) == 0;
}

// /dev as a tmpfs with binds of the devices programs open, so that "/dev/log" is free.
Step privateDev(const std::string& scratch) {
    const std::string old = scratch + "/dev";
    if (mkdir(old.c_str(), 0755) != 0 ||
        mount("/dev", old.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0 ||
        !mountTmpfs("/dev")) {
        return "a tmpfs on /dev";
    }
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty", "ptmx"}) {
        const std::string from = old + "/" + name, to = std::string("/dev/") + name;
        struct stat st = {};
        if (stat(from.c_str(), &st) != 0) {
            continue;
        }
        const int fd = open(to.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0 || close(fd) != 0 ||
            mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            return "a device bind in /dev";
        }
    }
    for (const char* name : {"pts", "shm"}) {
        const std::string from = old + "/" + name, to = std::string("/dev/") + name;
        if (mkdir(to.c_str(), 0755) != 0 ||
            mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            return "/dev/pts or /dev/shm";
        }
    }
    if (symlink("/proc/self/fd", "/dev/fd") != 0 || symlink("/proc/self/fd/0", "/dev/stdin") != 0 ||
        symlink("/proc/self/fd/1", "/dev/stdout") != 0 ||
        symlink("/proc/self/fd/2", "/dev/stderr") != 0 || umount2(old.c_str(), MNT_DETACH) != 0) {
        return "the links in /dev";
    }
    return nullptr;
}

// In the new pid namespace, before any thread: its own mounts and network.
Step privateRoot(const std::string& scratch) {
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) {
        return "unshare(CLONE_NEWNS | CLONE_NEWNET)";
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return "private mount propagation";
    }
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        return "a /proc for the pid namespace";
    }
    if (!mountTmpfs(scratch) || mkdir((scratch + "/etc").c_str(), 0755) != 0 ||
        mkdir((scratch + "/var").c_str(), 0755) != 0 || !overlay(scratch, "/etc") ||
        !overlay(scratch, "/var")) {
        return "overlays on /etc and /var";
    }
    for (const char* dir : {"/etc/zantorkv", "/var/zantorkv", "/var/zantormx"}) {
        if ((mkdir(dir, 0755) != 0 && errno != EEXIST) || !mountTmpfs(dir)) {
            return "the private fixed directories";
        }
    }
    if (Step failed = privateDev(scratch)) {
        return failed;
    }
    return loopbackUp();
}

[[noreturn]] void fail(const char* self, Step failed) {
    fprintf(stderr, "%s: private namespaces need root: %s: %s\n", self, failed, strerror(errno));
    _exit(1);
}

// The exit status of a waited-for process, with a signal as 128 + its number.
int exitCode(int raw) {
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}

// The namespace's first process: sets the machine up, starts the cases and reaps every
// orphan until they end. Returns only in the process that runs the cases.
void firstProcess(const char* self, const std::string& scratch) {
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
        fail(self, "prctl");
    }
    if (Step failed = privateRoot(scratch)) {
        fail(self, failed);
    }
    const pid_t cases = fork();
    if (cases == 0) {
        return;
    }
    if (cases < 0) {
        fail(self, "fork");
    }
    for (;;) {
        int raw = 0;
        const pid_t pid = wait(&raw);
        if (pid == cases) {
            // Leaving ends everything else in the namespace.
            _exit(exitCode(raw));
        }
        if (pid < 0 && errno != EINTR) {
            _exit(1);
        }
    }
}

// Runs the rest of main in the private machine; returns there, or exits with its status.
void enterPrivateMachine(const char* self) {
    char scratch[] = "/tmp/kvroot.XXXXXX";
    if (mkdtemp(scratch) == nullptr) {
        fail(self, "mkdtemp");
    }
    if (unshare(CLONE_NEWPID) != 0) {
        rmdir(scratch);
        fail(self, "unshare(CLONE_NEWPID)");
    }
    const pid_t first = fork();
    if (first == 0) {
        firstProcess(self, scratch);
        return;
    }
    int raw = 0;
    while (first > 0 && waitpid(first, &raw, 0) < 0 && errno == EINTR) {
    }
    // The mounts went with the namespace: the directory is empty again.
    rmdir(scratch);
    if (first < 0) {
        fail(self, "fork");
    }
    _exit(exitCode(raw));
}

}  // namespace

int main(int argc, char** argv) {
    enterPrivateMachine(argv[0]);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
