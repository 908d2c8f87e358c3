// The listening daemon: accepts connections and serves them until a signal or a stop.
#ifndef KVDSIM_SERVER_H
#define KVDSIM_SERVER_H

#include "options.h"

namespace kvdsim {

// Listens on the configured socket, signals readiness and serves every connection.
// Returns the process exit status: 0 after SIGTERM/SIGINT/SIGHUP or a stop request,
// 1 when the daemon cannot start.
int serve(const Options& options);

}  // namespace kvdsim

#endif
