#include "support/hermetic.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace kvtest {

namespace {

const char kInsideVar[] = "KV_TEST_HERMETIC";
const char kConfig[] = "/etc/zantorkv/zantorkv.conf";

std::vector<std::string> ownArguments() {
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    const std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::string> args;
    size_t start = 0;
    while (start < all.size()) {
        const size_t end = all.find('\0', start);
        args.push_back(all.substr(start, end - start));
        start = end == std::string::npos ? all.size() : end + 1;
    }
    return args;
}

bool onTmpfs(const char* path) {
    struct statfs fs = {};
    return statfs(path, &fs) == 0 && fs.f_type == TMPFS_MAGIC;
}

std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    lseek(fd, 0, SEEK_SET);
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n > 0) {
            text.append(buffer, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            return text;
        }
    }
}

}  // namespace

bool enterHermetic() {
    if (isHermetic()) {
        return true;
    }
    std::vector<std::string> args = ownArguments();
    for (const std::string& arg : args) {
        if (arg.rfind("--gtest_list_tests", 0) == 0) {
            return false;
        }
    }
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0 || args.empty()) {
        return false;
    }
    self[n] = '\0';
    args[0] = self;
    const std::string script = KV_SOURCE_DIR "/tests/support/hermetic.sh";
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(script.c_str()));
    for (std::string& arg : args) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    setenv(kInsideVar, "1", 1);
    fflush(nullptr);
    execv(script.c_str(), argv.data());
    perror("hermetic.sh");
    _exit(127);
}

bool isHermetic() {
    const char* inside = getenv(kInsideVar);
    return inside != nullptr && strcmp(inside, "1") == 0 && onTmpfs("/etc/zantorkv") &&
           onTmpfs("/var/zantorkv") && onTmpfs("/var/zantormx");
}

bool writeDaemonConfig(const std::string& text) {
    if (!isHermetic()) {
        return false;
    }
    std::ofstream out(kConfig, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    return static_cast<bool>(out);
}

ProgramResult runProgram(const std::vector<std::string>& argv, bool unprivileged,
                         const std::string& cwd) {
    ProgramResult result;
    std::vector<std::string> command;
    if (unprivileged) {
        command = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    }
    command.insert(command.end(), argv.begin(), argv.end());
    std::vector<char*> args;
    for (std::string& arg : command) {
        args.push_back(&arg[0]);
    }
    args.push_back(nullptr);

    const int out = memfd_create("stdout", MFD_CLOEXEC);
    const int err = memfd_create("stderr", MFD_CLOEXEC);
    if (out < 0 || err < 0) {
        perror("memfd_create");
        return result;
    }
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int in = open("/dev/null", O_RDONLY);
        if (in < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0 ||
            (!cwd.empty() && chdir(cwd.c_str()) != 0)) {
            _exit(126);
        }
        execv(args[0], args.data());
        _exit(127);
    }
    int raw = 0;
    pid_t waited = -1;
    if (pid > 0) {
        do {
            waited = waitpid(pid, &raw, 0);
        } while (waited < 0 && errno == EINTR);
    }
    if (waited == pid) {
        result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        result.out = readAll(out);
        result.err = readAll(err);
    }
    close(out);
    close(err);
    return result;
}

}  // namespace kvtest
