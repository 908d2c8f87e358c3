#include "support/zfw_config.h"

#include <linux/magic.h>
#include <sys/vfs.h>

#include <gtest/gtest.h>

#include <fstream>

#include "zfw/properties.h"

namespace kvtest {

void useProperties(const std::string& text) {
    // hermetic.sh mounts a tmpfs there; the host's directory never is one.
    struct statfs fs = {};
    if (statfs("/etc/zantorkv", &fs) != 0 || fs.f_type != TMPFS_MAGIC) {
        ADD_FAILURE() << "not in a private namespace: /etc/zantorkv is not a private tmpfs";
        return;
    }
    {
        std::ofstream out(zfw::Properties::gConfigPath, std::ios::trunc);
        out << text;
        ASSERT_TRUE(out.good()) << "cannot write " << zfw::Properties::gConfigPath;
    }
    ASSERT_TRUE(zfw::Properties::getProperties(false)->reload());
}

}  // namespace kvtest
