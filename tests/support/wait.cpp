#include "support/wait.h"

#include <sched.h>

namespace kvtest {

bool eventually(const std::function<bool()>& cond) {
    for (int i = 0; i < 20000000; ++i) {
        if (cond()) {
            return true;
        }
        sched_yield();
    }
    return cond();
}

}  // namespace kvtest
