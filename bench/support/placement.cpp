#include "placement.h"

namespace kvbench {

void pinToCpu0() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(0, &set);
    sched_setaffinity(0, sizeof set, &set);
}

Placement::Placement(int placement) {
    sched_getaffinity(0, sizeof m_saved, &m_saved);
    if (placement == 1) {
        pinToCpu0();
    }
}

Placement::~Placement() {
    sched_setaffinity(0, sizeof m_saved, &m_saved);
}

}  // namespace kvbench
