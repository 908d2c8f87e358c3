// Private namespaces for benchmarks that touch the fixed paths or "/dev/log": the
// benchmark executes itself again under scripts/hermetic.sh, so the host's files
// and its "/dev/log" are never touched. Needs root.
#ifndef KV_BENCH_SUPPORT_PRIVATE_NS_H
#define KV_BENCH_SUPPORT_PRIVATE_NS_H

#include <atomic>

namespace kvbench {

// Returns only inside hermetic.sh (started with --devlog when `devlog`); outside it, runs
// this executable again there with the same arguments and never returns.
void enterHermetic(int argc, char** argv, bool devlog);

// Binds a datagram socket at "/dev/log" (inside hermetic.sh --devlog) and counts the
// records that arrive on a thread of its own, until the process ends.
void startDevLogSink(std::atomic<long>& received);

}  // namespace kvbench

#endif
