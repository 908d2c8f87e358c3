#include "support/program.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>

#include "support/child.h"
#include "support/private_root.h"

namespace kvtest {

namespace {

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

bool writeDaemonConfig(const std::string& text) {
    if (!isPrivate("/etc/zantorkv")) {
        return false;
    }
    std::ofstream out("/etc/zantorkv/zantorkv.conf", std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    return static_cast<bool>(out);
}

ProgramResult runProgram(const std::vector<std::string>& argv, bool unprivileged,
                         const std::string& cwd, int limitSeconds) {
    ProgramResult result;
    std::vector<std::string> command;
    if (unprivileged) {
        command = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                   "--pdeathsig=KILL"};
    }
    command.insert(command.end(), argv.begin(), argv.end());
    std::vector<char*> args;
    for (std::string& arg : command) {
        args.push_back(&arg[0]);
    }
    args.push_back(nullptr);

    // Memory files hold the output: no pipes to drain while the program runs.
    const int out = memfd_create("stdout", MFD_CLOEXEC);
    const int err = memfd_create("stderr", MFD_CLOEXEC);
    if (out < 0 || err < 0) {
        perror("memfd_create");
        return result;
    }
    fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        dieWithParent(parent);
        const int in = open("/dev/null", O_RDONLY);
        if (in < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0 ||
            (!cwd.empty() && chdir(cwd.c_str()) != 0)) {
            _exit(126);
        }
        execv(args[0], args.data());
        _exit(127);
    }
    result.status = pid > 0 ? waitExitWithin(pid, limitSeconds) : -1;
    if (result.status >= 0) {
        result.out = readAll(out);
        result.err = readAll(err);
    }
    close(out);
    close(err);
    return result;
}

}  // namespace kvtest
