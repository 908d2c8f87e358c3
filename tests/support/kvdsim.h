// The simulated daemon as a child process of a test.
#ifndef KV_TESTS_SUPPORT_KVDSIM_H
#define KV_TESTS_SUPPORT_KVDSIM_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/files.h"

namespace kvtest {

class Kvdsim {
  public:
    // Starts kvdsim with `--socket <dir>/sock --log <dir>/frames.log` and `args`, and
    // waits until it listens: not listening within five seconds fails the case (and
    // `ready`). `prefix` (for example setpriv and its options) runs it.
    Kvdsim(const TempDir& dir, const std::vector<std::string>& args,
           const std::vector<std::string>& prefix = {});
    // The same, listening on `socket` instead of <dir>/sock.
    Kvdsim(const TempDir& dir, const std::vector<std::string>& args,
           const std::vector<std::string>& prefix, const std::string& socket);
    Kvdsim(const Kvdsim&) = delete;
    Kvdsim& operator=(const Kvdsim&) = delete;
    // Ends it with SIGTERM if it still runs.
    ~Kvdsim();

    bool ready() const { return m_ready; }
    const std::string& socket() const { return m_socket; }
    pid_t pid() const { return m_pid; }
    // The lines of its frame log so far.
    std::vector<std::string> log() const;
    // Waits for it to exit: its exit status, or 128 + signal.
    int wait();
    // SIGTERM, then wait.
    int terminate();

  private:
    std::string m_socket, m_log;
    pid_t m_pid = -1;
    int m_status = -1;
    bool m_ready = false;
};

}  // namespace kvtest

#endif
