// Checking the framework's exceptions: their type, text and result code.
#ifndef KV_TESTS_SUPPORT_EXPECT_THROW_H
#define KV_TESTS_SUPPORT_EXPECT_THROW_H

#include <gtest/gtest.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <string>

namespace kvtest {

// Runs `op` and checks that it throws an E (not just any exception) with `text` and `rc`.
template <typename E>
void expectThrow(const std::function<void()>& op, const std::string& text, int32_t rc = 0) {
    try {
        op();
        ADD_FAILURE() << "no exception, expected: " << text;
    } catch (const E& e) {
        EXPECT_STREQ(e.what(), text.c_str());
        EXPECT_EQ(e.rc(), rc) << text;
    } catch (const std::exception& e) {
        ADD_FAILURE() << "wrong exception type for: " << e.what();
    }
}

}  // namespace kvtest

#endif
