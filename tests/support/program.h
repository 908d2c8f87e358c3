// Running programs of the product from a test with their output captured, and writing the
// daemon's configuration file in the private "/etc/zantorkv" (support/private_root.h).
#ifndef KV_TESTS_SUPPORT_PROGRAM_H
#define KV_TESTS_SUPPORT_PROGRAM_H

#include <string>
#include <vector>

namespace kvtest {

// Replaces "/etc/zantorkv/zantorkv.conf"; refuses (false) when that directory is not
// private, so that the host's file is never touched.
bool writeDaemonConfig(const std::string& text);

struct ProgramResult {
    int status = -1;  // exit status, or 128 + the signal that ended it
    std::string out, err;
};

// Runs `argv` (argv[0] a path, relative to `cwd` when that is given) to its end with
// standard input from /dev/null. With `unprivileged`, as user and group 65534 with no
// supplementary groups. A program still running after `limitSeconds` is killed (status 137).
ProgramResult runProgram(const std::vector<std::string>& argv, bool unprivileged = false,
                         const std::string& cwd = "", int limitSeconds = 20);

}  // namespace kvtest

#endif
