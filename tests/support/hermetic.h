// Running a test process inside its own namespaces (tests/support/hermetic.sh), where
// "/etc/zantorkv", "/var/zantorkv" and "/var/zantormx" are private empty directories, and
// running programs there with their output captured.
#ifndef KV_TESTS_SUPPORT_HERMETIC_H
#define KV_TESTS_SUPPORT_HERMETIC_H

#include <string>
#include <vector>

namespace kvtest {

// Re-executes the calling test process under hermetic.sh unless it already runs there;
// each test that CTest starts then gets namespaces of its own. Listing the tests stays on
// the host. Call it from a static initializer of the test file. Returns true inside.
bool enterHermetic();

// True when the process runs under hermetic.sh and the daemon's directories are the
// private ones (never the host's).
bool isHermetic();

// Replaces "/etc/zantorkv/zantorkv.conf"; refuses (false) outside the namespace.
bool writeDaemonConfig(const std::string& text);

struct ProgramResult {
    int status = -1;  // exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
};

// Runs `argv` (argv[0] a path, relative to `cwd` when that is given) to its end with
// standard input from /dev/null. With `unprivileged`, as user and group 65534 with no
// supplementary groups.
ProgramResult runProgram(const std::vector<std::string>& argv, bool unprivileged = false,
                         const std::string& cwd = "");

}  // namespace kvtest

#endif
