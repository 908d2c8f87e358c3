// Waiting for another thread or process to reach a state, without timing assumptions.
#ifndef KV_TESTS_SUPPORT_WAIT_H
#define KV_TESTS_SUPPORT_WAIT_H

#include <functional>

namespace kvtest {

// Spins (yielding) until cond holds and returns true; the bound, many seconds of spinning,
// only keeps a broken build from hanging, and then the result is cond's last value.
bool eventually(const std::function<bool()>& cond);

}  // namespace kvtest

#endif
