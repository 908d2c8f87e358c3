// Where a benchmark's threads run: placement 0 leaves them to the scheduler, placement 1 pins
// the calling thread (and the threads and processes it starts meanwhile) to CPU 0.
#ifndef KV_BENCH_SUPPORT_PLACEMENT_H
#define KV_BENCH_SUPPORT_PLACEMENT_H

#include <sched.h>

namespace kvbench {

void pinToCpu0();

// Pins the calling thread for placement 1 and restores its mask at the end of the scope.
class Placement {
  public:
    explicit Placement(int placement);
    ~Placement();
    Placement(const Placement&) = delete;
    Placement& operator=(const Placement&) = delete;

  private:
    cpu_set_t m_saved;
};

}  // namespace kvbench

#endif
