// Helpers of the properties and host settings tests. These tests write the fixed files
// "/etc/zantorkv/zantorkv.conf" and "/var/zantormx/kset.*", so they only ever run inside
// tests/support/hermetic.sh (tests/cmake/props.cmake), where both directories are private.
#ifndef KV_TESTS_HERMETIC_PROPS_SUPPORT_H
#define KV_TESTS_HERMETIC_PROPS_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/files.h"
#include "support/hermetic.h"

namespace propstest {

// Refuses to touch the fixed paths on the host.
#define PROPS_REQUIRE_PRIVATE_DIRS()        \
    ASSERT_TRUE(::kvtest::insideHermetic()) \
        << "run under tests/support/hermetic.sh: /etc/zantorkv and /var/zantormx must be private"

// Empties both private directories (call only after PROPS_REQUIRE_PRIVATE_DIRS).
inline void clearPrivateDirs() {
    ASSERT_EQ(system("rm -rf /etc/zantorkv/* /etc/zantorkv/.[!.]* /var/zantormx/* "
                     "/var/zantormx/.[!.]*"),
              0);
}

}  // namespace propstest

#endif
