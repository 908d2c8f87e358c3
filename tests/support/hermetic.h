// Runs a test case inside tests/support/hermetic.sh, where "/etc/zantorkv", "/var/zantorkv"
// and "/var/zantormx" are private empty directories, so it may create files there.
#ifndef KV_TESTS_SUPPORT_HERMETIC_H
#define KV_TESTS_SUPPORT_HERMETIC_H

#include <gtest/gtest.h>

namespace kvtest {

// True inside hermetic.sh (its private tmpfs is mounted on "/var/zantormx").
bool insideHermetic();
// True inside hermetic.sh --devlog (its private tmpfs is mounted on "/dev").
bool insideHermeticDevLog();

// Empties "/etc/zantorkv" and "/var/zantormx" for the next case; refuses (false) outside
// hermetic.sh, so that the host's directories are never touched.
bool clearPrivateDirs();

// Runs the current test case again in this executable under hermetic.sh (with --devlog
// when asked) and returns its exit status.
int rerunInHermetic(bool devlog = false);

}  // namespace kvtest

// First statement of a test body that touches the fixed paths: outside hermetic.sh the test
// runs itself again inside it and passes or fails with that run.
#define KV_REQUIRE_HERMETIC()                                                     \
    do {                                                                          \
        if (!::kvtest::insideHermetic()) {                                        \
            ASSERT_EQ(::kvtest::rerunInHermetic(), 0) << "run under hermetic.sh"; \
            return;                                                               \
        }                                                                         \
    } while (0)

// The same for a test that binds its own "/dev/log" (hermetic.sh --devlog).
#define KV_REQUIRE_HERMETIC_DEVLOG()                                                           \
    do {                                                                                       \
        if (!::kvtest::insideHermeticDevLog()) {                                               \
            ASSERT_EQ(::kvtest::rerunInHermetic(true), 0) << "run under hermetic.sh --devlog"; \
            return;                                                                            \
        }                                                                                      \
    } while (0)

#endif
