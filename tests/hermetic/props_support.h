// Helpers of the properties and host settings tests. These tests write the fixed files
// "/etc/zantorkv/zantorkv.conf" and "/var/zantormx/kset.*", so they only ever run inside
// tests/support/hermetic.sh (tests/cmake/props.cmake), where both directories are private.
#ifndef KV_TESTS_HERMETIC_PROPS_SUPPORT_H
#define KV_TESTS_HERMETIC_PROPS_SUPPORT_H

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

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

inline void writeFile(const std::string& name, const std::string& content) {
    std::ofstream out(name, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    ASSERT_TRUE(out.good()) << name;
}

inline std::string readFile(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline bool present(const std::string& name) {
    struct stat st;
    return lstat(name.c_str(), &st) == 0;
}

inline mode_t modeOf(const std::string& name) {
    struct stat st;
    return stat(name.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// The text of the exception of type E that f throws, "" when it throws nothing.
template <typename E, typename F>
std::string thrownText(F f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "";
}

}  // namespace propstest

#endif
