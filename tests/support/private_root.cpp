#include "support/private_root.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace kvtest {

bool isPrivate(const char* dir) {
    std::ifstream mounts("/proc/self/mountinfo");
    const std::string source = std::string(" - tmpfs ") + kPrivateTmpfs + " ";
    std::string line;
    while (std::getline(mounts, line)) {
        // "<id> <parent> <dev> <root> <mount point> <options...> - <type> <source> <options>"
        std::istringstream fields(line);
        std::string id, parent, dev, root, point;
        fields >> id >> parent >> dev >> root >> point;
        if (point == dir && line.find(source) != std::string::npos) {
            return true;
        }
    }
    return false;
}

bool clearPrivateDirs() {
    return isPrivate("/etc/zantorkv") && isPrivate("/var/zantormx") &&
           system(
               "rm -rf /etc/zantorkv/* /etc/zantorkv/.[!.]* /var/zantormx/* "
               "/var/zantormx/.[!.]*") == 0;
}

}  // namespace kvtest
