#include "support/hermetic.h"

#include "support/child.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kvtest {

namespace {

// True when hermetic.sh's private tmpfs is mounted on mountPoint.
bool hermeticMountOn(const std::string& mountPoint) {
    std::ifstream mounts("/proc/self/mountinfo");
    std::string line;
    while (std::getline(mounts, line)) {
        // "<id> <parent> <dev> <root> <mount point> <options...> - <type> <source> <options>"
        std::istringstream fields(line);
        std::string id, parent, dev, root, point;
        fields >> id >> parent >> dev >> root >> point;
        if (point == mountPoint && line.find(" - tmpfs kvhermetic ") != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool insideHermetic() {
    return hermeticMountOn("/var/zantormx");
}

bool insideHermeticDevLog() {
    return insideHermetic() && hermeticMountOn("/dev");
}

bool clearPrivateDirs() {
    return insideHermetic() && system(
                                   "rm -rf /etc/zantorkv/* /etc/zantorkv/.[!.]* /var/zantormx/* "
                                   "/var/zantormx/.[!.]*") == 0;
}

int rerunInHermetic(bool devlog) {
    // A run that was already started under hermetic.sh but does not see it must not nest again.
    if (getenv("KV_HERMETIC_RERUN") != nullptr) {
        return -1;
    }
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter =
        std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    std::vector<char> self(4096);
    const ssize_t n = readlink("/proc/self/exe", self.data(), self.size() - 1);
    if (n <= 0) {
        return -1;
    }
    self[static_cast<size_t>(n)] = '\0';
    const std::string script = KV_HERMETIC_SCRIPT;

    std::vector<const char*> argv{script.c_str()};
    if (devlog) {
        argv.push_back("--devlog");
    }
    argv.push_back(self.data());
    argv.push_back(filter.c_str());
    argv.push_back(nullptr);

    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        dieWithParent(parent);
        setenv("KV_HERMETIC_RERUN", "1", 1);
        execv(argv[0], const_cast<char* const*>(argv.data()));
        _exit(127);
    }
    if (pid < 0) {
        return -1;
    }
    return waitExit(pid);
}

}  // namespace kvtest
