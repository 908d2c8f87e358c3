#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/files.h"
#include "zfw/osport.h"

namespace {

// ---- program name ---------------------------------------------------------------------

// Each case runs in a child process, whose name it may change freely.
TEST(OsportProgramName, TakenFromTheStatusFileWhenMissing) {
    struct Case {
        const char* comm;      // the kernel's name for the process
        const char* progname;  // the C run time's name before the call; null stays null
        const char* expected;
    };
    const Case cases[] = {
        {"kvstop", "", "kvstop"}, {"kvstop", nullptr, "kvstop"}, {"kv stop", "", "kv stop"},
        {"a)b", "", "a"},         {"kvstop", "keep", "keep"},
    };
    for (const Case& c : cases) {
        kvtest::ChildProcess child([&c] {
            prctl(PR_SET_NAME, c.comm);
            program_invocation_short_name = const_cast<char*>(c.progname);
            zfw::ensureProgramName();
            return strcmp(program_invocation_short_name, c.expected) == 0 ? 0 : 1;
        });
        EXPECT_EQ(child.wait(), 0) << c.comm;
    }
}

TEST(OsportProgramName, UnknownWithoutStatusFile) {
    // A private mount namespace with an empty /proc: the status file cannot be opened.
    kvtest::ChildProcess child([] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", "/proc", "tmpfs", 0, nullptr) != 0) {
            return 2;
        }
        program_invocation_short_name = const_cast<char*>("");
        zfw::ensureProgramName();
        return strcmp(program_invocation_short_name, "unknown") == 0 ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
}

// ---- random numbers -------------------------------------------------------------------

std::vector<long> lrand48Sequence(long seed, size_t n) {
    srand48(seed);
    std::vector<long> values(n);
    for (long& v : values) {
        v = lrand48();
    }
    return values;
}

TEST(OsportRandom, RandomFollowsLrand48AfterTheSameSeed) {
    std::vector<long> expected = lrand48Sequence(7, 4);
    srandom(7);
    EXPECT_EQ(random(), expected[0]);
    EXPECT_EQ(random(), expected[1]);
    srand(7);
    EXPECT_EQ(rand(), expected[0]);
    EXPECT_EQ(rand(), expected[1]);
    // rand and random share one generator.
    srandom(7);
    EXPECT_EQ(rand(), expected[0]);
    EXPECT_EQ(random(), expected[1]);
    EXPECT_EQ(rand(), expected[2]);
    EXPECT_EQ(random(), expected[3]);
}

TEST(OsportRandom, ReachedThroughTheDynamicSymbolTable) {
    using Seed = void (*)(unsigned int);
    using IntDraw = int (*)();
    using LongDraw = long (*)();
    auto dynSrand = reinterpret_cast<Seed>(dlsym(RTLD_DEFAULT, "srand"));
    auto dynRand = reinterpret_cast<IntDraw>(dlsym(RTLD_DEFAULT, "rand"));
    auto dynSrandom = reinterpret_cast<Seed>(dlsym(RTLD_DEFAULT, "srandom"));
    auto dynRandom = reinterpret_cast<LongDraw>(dlsym(RTLD_DEFAULT, "random"));
    ASSERT_NE(dynSrand, nullptr);
    ASSERT_NE(dynRand, nullptr);
    ASSERT_NE(dynSrandom, nullptr);
    ASSERT_NE(dynRandom, nullptr);
    std::vector<long> expected = lrand48Sequence(12345, 3);
    dynSrand(12345);
    EXPECT_EQ(dynRand(), expected[0]);
    dynSrandom(12345);
    EXPECT_EQ(dynRandom(), expected[0]);
    EXPECT_EQ(dynRand(), expected[1]);
    EXPECT_EQ(random(), expected[2]);
}

TEST(OsportRandom, SharedLibraryDrawsFromTheSameGenerator) {
    void* probe = dlopen(KV_RAND_PROBE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(probe, nullptr) << dlerror();
    auto probeSrand = reinterpret_cast<void (*)(unsigned int)>(dlsym(probe, "probe_srand"));
    auto probeRand = reinterpret_cast<int (*)()>(dlsym(probe, "probe_rand"));
    auto probeSrandom = reinterpret_cast<void (*)(unsigned int)>(dlsym(probe, "probe_srandom"));
    auto probeRandom = reinterpret_cast<long (*)()>(dlsym(probe, "probe_random"));
    ASSERT_TRUE(probeSrand && probeRand && probeSrandom && probeRandom);

    std::vector<long> expected = lrand48Sequence(99, 4);
    probeSrand(99);
    EXPECT_EQ(probeRand(), expected[0]);
    EXPECT_EQ(rand(), expected[1]);
    EXPECT_EQ(probeRandom(), expected[2]);
    EXPECT_EQ(random(), expected[3]);
    // A seed set here is seen by the library's next draw.
    srandom(99);
    EXPECT_EQ(probeRandom(), expected[0]);
    probeSrandom(99);
    EXPECT_EQ(random(), expected[0]);
    dlclose(probe);
}

TEST(OsportRandom, ConcurrentCallersShareOneSequence) {
    constexpr size_t kThreads = 4;
    constexpr size_t kDraws = 2000;
    std::vector<long> expected = lrand48Sequence(42, kThreads * kDraws);
    srandom(42);
    std::vector<std::vector<long>> drawn(kThreads);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&drawn, t] {
            for (size_t i = 0; i < kDraws; ++i) {
                drawn[t].push_back(t % 2 == 0 ? random() : rand());
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    // Every value of the single sequence was handed out exactly once.
    std::vector<long> all;
    for (const auto& d : drawn) {
        all.insert(all.end(), d.begin(), d.end());
    }
    std::sort(all.begin(), all.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(all, expected);
    for (long v : all) {
        ASSERT_GE(v, 0);
        ASSERT_LE(v, 0x7fffffffL);
    }
}

// ---- helpers for files and processes --------------------------------------------------

using kvtest::TempDir;

struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;
    Pipe() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) == 0) {
            readEnd = fds[0];
            writeEnd = fds[1];
        }
    }
    ~Pipe() {
        closeRead();
        closeWrite();
    }
    void closeRead() {
        if (readEnd >= 0) {
            close(readEnd);
        }
        readEnd = -1;
    }
    void closeWrite() {
        if (writeEnd >= 0) {
            close(writeEnd);
        }
        writeEnd = -1;
    }
    // Everything until every writer has closed.
    std::string drain() {
        closeWrite();
        std::string text;
        char buf[256];
        ssize_t n;
        while ((n = read(readEnd, buf, sizeof buf)) > 0) {
            text.append(buf, static_cast<size_t>(n));
        }
        return text;
    }
};

// ---- file locks -----------------------------------------------------------------------

TEST(OsportLock, ReportsTheHolderPidUntilItExits) {
    TempDir dir;
    std::string path = dir.file("lock");
    Pipe ready;
    Pipe release;
    kvtest::ChildProcess holder([&] {
        int result = 99;
        int fd = zfw::openAndLock(path.c_str(), &result);
        char verdict = (fd >= 0 && result == 0) ? 'L' : 'F';
        release.closeWrite();
        char c;
        return kvtest::writeFully(ready.writeEnd, &verdict, 1) &&
                       !kvtest::readFully(release.readEnd, &c, 1)
                   ? 0
                   : 1;
    });
    ready.closeWrite();
    char verdict = 0;
    ASSERT_TRUE(kvtest::readFully(ready.readEnd, &verdict, 1));
    ASSERT_EQ(verdict, 'L');

    int result = 99;
    int fd = zfw::openAndLock(path.c_str(), &result);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(result, holder.pid());
    EXPECT_EQ(zfw::tryLockFile(fd), holder.pid());

    release.closeWrite();  // the holder reads end of file and exits
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_EQ(zfw::tryLockFile(fd), 0);
    // Taking it again in the holder's own process succeeds; unlocking reports success.
    EXPECT_EQ(zfw::tryLockFile(fd), 0);
    EXPECT_EQ(zfw::unlockFile(fd), 0);
    close(fd);
}

TEST(OsportLock, UnlockLetsAnotherProcessIn) {
    TempDir dir;
    std::string path = dir.file("lock");
    int result = 99;
    int fd = zfw::openAndLock(path.c_str(), &result);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(result, 0);

    // 1: the child sees this process as the holder, 0: it got the lock.
    auto childLockResult = [&path] {
        kvtest::ChildProcess child([&path] {
            int r = 99;
            int cfd = zfw::openAndLock(path.c_str(), &r);
            return cfd < 0 ? 100 : (r == getppid() ? 1 : (r == 0 ? 0 : 2));
        });
        return child.wait();
    };
    EXPECT_EQ(childLockResult(), 1);
    EXPECT_EQ(zfw::unlockFile(fd), 0);
    EXPECT_EQ(childLockResult(), 0);
    close(fd);
}

TEST(OsportLock, OpenAndLockModesAndFailures) {
    TempDir dir;
    mode_t old = umask(0);
    int result = 99;
    int fd = zfw::openAndLock(dir.file("default").c_str(), &result);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(result, 0);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    close(fd);

    fd = zfw::openAndLock(dir.file("moded").c_str(), &result, 0640);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    close(fd);
    umask(old);

    result = 99;
    EXPECT_EQ(zfw::openAndLock(dir.file("missing/dir/lock").c_str(), &result), -1);
    EXPECT_EQ(result, -1);
    result = 99;
    EXPECT_EQ(zfw::openAndLock(dir.file("missing/dir/lock").c_str(), &result, 0600), -1);
    EXPECT_EQ(result, -1);

    // A descriptor that is not open, or not open for writing, cannot be locked.
    EXPECT_EQ(zfw::tryLockFile(-1), -1);
    EXPECT_EQ(zfw::unlockFile(-1), -1);
    int readOnly = open(dir.file("default").c_str(), O_RDONLY);
    ASSERT_GE(readOnly, 0);
    EXPECT_EQ(zfw::tryLockFile(readOnly), -1);
    close(readOnly);
}

// ---- file-system ids ------------------------------------------------------------------

// The fourth field (the file-system id) of a line of /proc/thread-self/status.
long fsIdFromStatus(const char* key) {
    std::ifstream status("/proc/thread-self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, strlen(key), key) == 0) {
            long real, effective, saved, fs;
            if (sscanf(line.c_str() + strlen(key), "%ld %ld %ld %ld", &real, &effective, &saved,
                       &fs) == 4) {
                return fs;
            }
        }
    }
    return -1;
}

TEST(OsportFsIds, ReadWithoutChangingAndSet) {
    // The ids belong to the calling thread: change them on a thread of its own.
    std::thread worker([] {
        EXPECT_EQ(zfw::getFsUid(), geteuid());
        EXPECT_EQ(zfw::getFsGid(), getegid());
        EXPECT_EQ(fsIdFromStatus("Uid:"), static_cast<long>(geteuid()));

        EXPECT_EQ(zfw::setFsUid(4321), static_cast<int>(geteuid()));
        EXPECT_EQ(zfw::setFsGid(8765), static_cast<int>(getegid()));
        EXPECT_EQ(fsIdFromStatus("Uid:"), 4321);
        EXPECT_EQ(fsIdFromStatus("Gid:"), 8765);
        // Reading twice leaves the values where they were.
        EXPECT_EQ(zfw::getFsUid(), 4321u);
        EXPECT_EQ(zfw::getFsUid(), 4321u);
        EXPECT_EQ(zfw::getFsGid(), 8765u);
        EXPECT_EQ(zfw::getFsGid(), 8765u);
        EXPECT_EQ(fsIdFromStatus("Uid:"), 4321);
        EXPECT_EQ(fsIdFromStatus("Gid:"), 8765);

        EXPECT_EQ(zfw::setFsUid(geteuid()), 4321);
        EXPECT_EQ(zfw::setFsGid(getegid()), 8765);
        EXPECT_EQ(zfw::getFsUid(), geteuid());
        EXPECT_EQ(zfw::getFsGid(), getegid());
    });
    worker.join();
}

// ---- pselect --------------------------------------------------------------------------

TEST(OsportPselect, ResultAndErrorNumber) {
    Pipe p;
    ASSERT_GE(p.readEnd, 0);
    struct timespec zero = {0, 0};
    fd_set readable;
    int err = -7;

    FD_ZERO(&readable);
    FD_SET(p.readEnd, &readable);
    EXPECT_EQ(zfw::pselectErrno(p.readEnd + 1, &readable, nullptr, nullptr, &zero, nullptr, &err),
              0);
    EXPECT_EQ(err, 0);

    ASSERT_EQ(write(p.writeEnd, "x", 1), 1);
    FD_ZERO(&readable);
    FD_SET(p.readEnd, &readable);
    err = -7;
    EXPECT_EQ(zfw::pselectErrno(p.readEnd + 1, &readable, nullptr, nullptr, &zero, nullptr, &err),
              1);
    EXPECT_EQ(err, 0);
    EXPECT_TRUE(FD_ISSET(p.readEnd, &readable));

    int closedFd = dup(p.readEnd);
    ASSERT_GE(closedFd, 0);
    close(closedFd);
    FD_ZERO(&readable);
    FD_SET(closedFd, &readable);
    EXPECT_EQ(zfw::pselectErrno(closedFd + 1, &readable, nullptr, nullptr, &zero, nullptr, &err),
              -1);
    EXPECT_EQ(err, EBADF);

    struct timespec bad = {0, -1};
    EXPECT_EQ(zfw::pselectErrno(0, nullptr, nullptr, nullptr, &bad, nullptr, &err), -1);
    EXPECT_EQ(err, EINVAL);
}

// ---- spawn ----------------------------------------------------------------------------

// A shell script run with "sh -c": reports which of the descriptors 0 to 9 it has,
// after writing the given texts to the given descriptors.
std::vector<char*> shArgv(std::string& script) {
    static char sh[] = "sh";
    static char dashC[] = "-c";
    return {sh, dashC, &script[0], nullptr};
}

const char* const kOpenFdsScript =
    "open=; for f in 0 1 2 3 4 5 6 7 8 9; do [ -e /proc/$$/fd/$f ] && open=\"$open$f\"; done; ";

TEST(OsportSpawn, HandsListedDescriptorsToTheChild) {
    // spawn(0, 2, {pipe, -1}): the pipe becomes descriptor 0, descriptor 1 stays closed,
    // nothing else is inherited.
    Pipe out;
    ASSERT_GE(out.writeEnd, 0);
    std::string script = std::string(kOpenFdsScript) + "echo \"fds:$open\" >&0; exit 7";
    std::vector<char*> argv = shArgv(script);
    int fds[2] = {out.writeEnd, -1};
    int status = zfw::spawn(zfw::SPAWN_WAIT, 2, fds, "/bin/sh", argv.data());
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(out.drain(), "fds:0\n");
}

TEST(OsportSpawn, CrossedAndRepeatedDescriptors) {
    struct Case {
        const char* name;
        std::vector<int> pipeOf;  // per child descriptor: index of the pipe, or -1
    };
    const Case cases[] = {
        {"crossed", {1, 0}},
        {"gap", {-1, 0, -1, 1}},
        {"repeated", {0, 0, 1}},
        {"three", {2, 1, 0}},
    };
    for (const Case& c : cases) {
        Pipe pipes[3];
        std::vector<int> fds;
        for (int p : c.pipeOf) {
            fds.push_back(p < 0 ? -1 : pipes[p].writeEnd);
        }
        // Each open child descriptor writes its own number into the pipe it was given.
        std::string script = kOpenFdsScript;
        for (size_t i = 0; i < fds.size(); ++i) {
            if (fds[i] >= 0) {
                script += "printf " + std::to_string(i) + " >&" + std::to_string(i) + "; ";
            }
        }
        script += "[ \"$open\" = \"";
        for (size_t i = 0; i < fds.size(); ++i) {
            if (fds[i] >= 0) {
                script += std::to_string(i);
            }
        }
        script += "\" ]";
        std::vector<char*> argv = shArgv(script);
        int status = zfw::spawn(zfw::SPAWN_WAIT, static_cast<int>(fds.size()), fds.data(),
                                "/bin/sh", argv.data());
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << c.name << " " << status;
        for (int p = 0; p < 3; ++p) {
            std::string expected;
            for (size_t i = 0; i < c.pipeOf.size(); ++i) {
                if (c.pipeOf[i] == p) {
                    expected += std::to_string(i);
                }
            }
            EXPECT_EQ(pipes[p].drain(), expected) << c.name << " pipe " << p;
        }
    }
}

TEST(OsportSpawn, WithoutDescriptorListTheChildInheritsEverything) {
    Pipe out;
    int inherited = dup(out.writeEnd);  // without close-on-exec
    ASSERT_GE(inherited, 0);
    std::string script = "echo inherited >&" + std::to_string(inherited);
    std::vector<char*> argv = shArgv(script);
    int status = zfw::spawn(zfw::SPAWN_WAIT, 0, nullptr, "/bin/sh", argv.data());
    close(inherited);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(out.drain(), "inherited\n");
}

TEST(OsportSpawn, StartReturnsTheChildPid) {
    Pipe out;
    std::string script = "echo $$ >&0";
    std::vector<char*> argv = shArgv(script);
    int fds[1] = {out.writeEnd};
    int pid = zfw::spawn(zfw::SPAWN_START, 1, fds, "/bin/sh", argv.data());
    ASSERT_GT(pid, 0);
    EXPECT_EQ(out.drain(), std::to_string(pid) + "\n");
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
}

TEST(OsportSpawn, ExecReplacesTheCallingProcess) {
    Pipe out;
    kvtest::ChildProcess child([&out] {
        std::string script = "echo replaced $$ >&1; exit 5";
        std::vector<char*> argv = shArgv(script);
        int fds[2] = {-1, out.writeEnd};
        zfw::spawn(zfw::SPAWN_EXEC, 2, fds, "/bin/sh", argv.data());
        return 99;
    });
    EXPECT_EQ(child.wait(), 5);
    EXPECT_EQ(out.drain(), "replaced " + std::to_string(child.pid()) + "\n");
}

TEST(OsportSpawn, ProgramThatCannotRunEndsWithNegatedErrno) {
    TempDir dir;
    const std::string path = dir.write("not-a-program", "neither a binary nor a script\n");
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    char name[] = "not-a-program";
    char* argv[] = {name, nullptr};
    int status = zfw::spawn(zfw::SPAWN_WAIT, 0, nullptr, path.c_str(), argv);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), (-ENOEXEC) & 0xff);
}

TEST(OsportSpawn, BadRequestsFailWithoutStartingAnything) {
    TempDir dir;
    const std::string plainFile = dir.write("plain", "");
    char sh[] = "sh";
    char* argv[] = {sh, nullptr};
    int open1[1] = {0};
    int negative[2] = {0, -2};
    int notOpen[1] = {0};
    {
        int unused = dup(0);
        notOpen[0] = unused;
        close(unused);
    }
    long limit = sysconf(_SC_OPEN_MAX);
    int beyond[1] = {static_cast<int>(limit)};
    std::vector<int> tooMany(static_cast<size_t>(limit) + 1, -1);
    // Descriptor 0 parked above the largest entry would land beyond the limit.
    std::vector<int> noRoom(static_cast<size_t>(limit), -1);
    noRoom[0] = 0;

    struct Case {
        const char* name;
        int mode;
        int nfds;
        const int* fds;
        const char* path;
        char** argv;
        int error;
    };
    const Case cases[] = {
        {"missing program", zfw::SPAWN_WAIT, 0, nullptr, "/nonexistent/prog", argv, ENOENT},
        {"not executable", zfw::SPAWN_WAIT, 0, nullptr, plainFile.c_str(), argv, EACCES},
        {"null path", zfw::SPAWN_WAIT, 0, nullptr, nullptr, argv, EINVAL},
        {"null argv", zfw::SPAWN_WAIT, 0, nullptr, "/bin/sh", nullptr, EINVAL},
        {"unknown mode", 3, 0, nullptr, "/bin/sh", argv, EINVAL},
        {"negative count", zfw::SPAWN_WAIT, -1, open1, "/bin/sh", argv, EINVAL},
        {"null list", zfw::SPAWN_WAIT, 1, nullptr, "/bin/sh", argv, EINVAL},
        {"negative descriptor", zfw::SPAWN_WAIT, 2, negative, "/bin/sh", argv, EINVAL},
        {"closed descriptor", zfw::SPAWN_WAIT, 1, notOpen, "/bin/sh", argv, EBADF},
        {"descriptor at the limit", zfw::SPAWN_WAIT, 1, beyond, "/bin/sh", argv, EBADF},
        {"list beyond the limit", zfw::SPAWN_START, static_cast<int>(tooMany.size()),
         tooMany.data(), "/bin/sh", argv, EINVAL},
        {"no room to park", zfw::SPAWN_WAIT, static_cast<int>(noRoom.size()), noRoom.data(),
         "/bin/sh", argv, EBADF},
    };
    for (const Case& c : cases) {
        errno = 0;
        EXPECT_EQ(zfw::spawn(c.mode, c.nfds, c.fds, c.path, c.argv), -1) << c.name;
        EXPECT_EQ(errno, c.error) << c.name;
    }
    // Nothing was started.
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(OsportSpawn, ConcurrentSpawnsFromManyThreads) {
    constexpr int kThreads = 4;
    constexpr int kRuns = 5;
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < kRuns; ++i) {
                Pipe out;
                std::string script = "echo " + std::to_string(t * 100 + i) + " >&0";
                std::vector<char*> argv = shArgv(script);
                int fds[1] = {out.writeEnd};
                int status = zfw::spawn(zfw::SPAWN_WAIT, 1, fds, "/bin/sh", argv.data());
                if (status != 0 || out.drain() != std::to_string(t * 100 + i) + "\n") {
                    ++failures[t];
                }
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
}

}  // namespace
