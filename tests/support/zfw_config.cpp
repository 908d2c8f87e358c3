#include "support/zfw_config.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/private_root.h"
#include "zfw/properties.h"

namespace kvtest {

void useProperties(const std::string& text) {
    if (!isPrivate("/etc/zantorkv")) {
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
