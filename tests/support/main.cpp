// Every test executable starts here, and each run (CTest runs one case a process) gets a
// machine of its own before GoogleTest starts any thread:
// - a pid namespace: the cases run as its second process under a first one that only reaps,
//   and every process a case leaves behind dies when the case ends or is killed;
// - a network namespace with only the loopback interface, up; a mount namespace in which /etc
//   and /var are writable overlays, "/etc/zantorkv", "/var/zantorkv" and "/var/zantormx" empty
//   tmpfs directories, /proc the pid namespace's and /dev a tmpfs with the usual devices, so
//   that a case may bind "/dev/log". Only an empty directory in /tmp is made and removed.
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
#include <utility>

namespace {

// Each step says what failed, or nullptr.
using Step = const char*;

Step loopbackUp() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo", sizeof ifr.ifr_name - 1);
    bool up = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
    ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
    up = up && ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    close(fd);
    return up ? nullptr : "the loopback interface";
}

bool mountTmpfs(const std::string& dir) {
    return mount(kvtest::kPrivateTmpfs, dir.c_str(), "tmpfs", 0, "mode=755") == 0;
}

bool bindMount(const std::string& from, const std::string& to) {
    return mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
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
    bool ok = mkdir(old.c_str(), 0755) == 0 && bindMount("/dev", old) && mountTmpfs("/dev");
    for (const std::string name : {"null", "zero", "full", "random", "urandom", "tty", "ptmx"}) {
        if (ok && access((old + "/" + name).c_str(), F_OK) == 0) {
            const int fd = open(("/dev/" + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            ok = fd >= 0 && close(fd) == 0 && bindMount(old + "/" + name, "/dev/" + name);
        }
    }
    for (const std::string name : {"pts", "shm"}) {
        ok = ok && mkdir(("/dev/" + name).c_str(), 0755) == 0 &&
             bindMount(old + "/" + name, "/dev/" + name);
    }
    const std::pair<const char*, const char*> links[] = {{"/proc/self/fd", "/dev/fd"},
                                                         {"/proc/self/fd/0", "/dev/stdin"},
                                                         {"/proc/self/fd/1", "/dev/stdout"},
                                                         {"/proc/self/fd/2", "/dev/stderr"}};
    for (const auto& [target, link] : links) {
        ok = ok && symlink(target, link) == 0;
    }
    return ok && umount2(old.c_str(), MNT_DETACH) == 0 ? nullptr : "a private /dev";
}

// In the new pid namespace, before any thread: its own mounts and network.
Step privateRoot(const std::string& scratch) {
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        return "mount and network namespaces with a /proc of their own";
    }
    bool ok = mountTmpfs(scratch) && mkdir((scratch + "/etc").c_str(), 0755) == 0 &&
              mkdir((scratch + "/var").c_str(), 0755) == 0 && overlay(scratch, "/etc") &&
              overlay(scratch, "/var");
    for (const char* dir : {"/etc/zantorkv", "/var/zantorkv", "/var/zantormx"}) {
        ok = ok && (mkdir(dir, 0755) == 0 || errno == EEXIST) && mountTmpfs(dir);
    }
    if (!ok) {
        return "overlays on /etc and /var with the private fixed directories";
    }
    const Step failed = privateDev(scratch);
    return failed != nullptr ? failed : loopbackUp();
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
    for (;;) {
        int raw = 0;
        const pid_t pid = cases > 0 ? wait(&raw) : -1;
        if (pid == cases || (pid < 0 && errno != EINTR)) {
            // Leaving ends everything else in the namespace.
            _exit(pid == cases ? exitCode(raw) : 1);
        }
    }
}

// Runs the rest of main in the private machine; returns there, or exits with its status.
void enterPrivateMachine(const char* self) {
    char scratch[] = "/tmp/kvroot.XXXXXX";
    if (mkdtemp(scratch) == nullptr || unshare(CLONE_NEWPID) != 0) {
        rmdir(scratch);
        fail(self, "a pid namespace");
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
    _exit(first > 0 ? exitCode(raw) : 1);
}

}  // namespace

int main(int argc, char** argv) {
    enterPrivateMachine(argv[0]);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
