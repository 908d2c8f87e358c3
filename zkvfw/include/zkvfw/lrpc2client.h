// Client session with the local Kavelo audit daemon.
//
// The daemon's socket and the default time-out come from "/etc/zantorkv/zantorkv.conf":
// "lrpc2.timeout" (seconds, default 30; 0 means no limit), "kvd.data.dir" (default
// "/var/zantorkv") and "kvd.socket" (default "audit"); the socket path is the data
// directory, "/", and the socket name. A missing or unreadable file gives the defaults.
//
// A data directory or socket name that is set but cannot be expanded (for example a
// value naming $JOINNAME on a host without its setting file) makes `connect` fail
// without connecting anywhere: the configured socket is unknown, and a default path
// could reach some other daemon than the one the file names.
//
// Failures of the library reach the caller as exceptions: zfw::SystemException for
// local errors, zfw::IOException for a failed exchange, zfw::EndOfFileException or
// zfw::SystemException for a reply without the expected fields. Connecting never throws.
// One thread uses one session.
#ifndef ZKVFW_LRPC2CLIENT_H
#define ZKVFW_LRPC2CLIENT_H

#include <stdint.h>
#include <sys/types.h>

#include <string>

#include "lrpc2/conn.h"
#include "lrpc2/table.h"
#include "zkvfw/collector.h"
#include "zkvfw/msgwrap.h"

class Lrpc2Client {
  public:
    // Reads the default time-out; does not connect.
    Lrpc2Client();
    ~Lrpc2Client();

    Lrpc2Client(const Lrpc2Client&) = delete;
    Lrpc2Client& operator=(const Lrpc2Client&) = delete;

    // For this session only: connect to `path` instead of the configured socket.
    void setSocketPath(const std::string& path);
    // For this session only: `seconds` replaces the configured default time-out (0: no limit).
    void setDefaultTimeout(int32_t seconds);
    // The default time-out in seconds (0: no limit).
    int32_t defaultTimeout() const { return m_timeout; }
    // The socket `connect` goes to; empty when the configured one cannot be expanded.
    std::string socketPath() const;
    // The process that wrote the last reply, as the kernel recorded it: the daemon's
    // serving process (a per-connection worker for a daemon that forks one). -1 when not
    // connected, before the first reply, after a failed exchange, or when the reply's bytes
    // came from more than one process.
    pid_t replierPid() const;
    // The process that called listen() on the daemon's socket (SO_PEERCRED), or -1 when
    // not connected. Whoever listened need not serve: a socket handed down by a parent
    // that keeps it, or a listener whose workers answer.
    pid_t listenerPid() const;

    // Connects with `timeout` seconds (0: the default). True when connected. Call it only
    // while not connected: an existing connection is deliberately overwritten, not closed
    // (its descriptor stays open until the process ends).
    bool connect(int32_t timeout = 0);
    // Closes the connection, if any.
    void disconnect();

    // Exchanges the complete `request` (its header is stamped in place); `reply` receives
    // the daemon's answer.
    void send(Lrpc2Message& request, Lrpc2Message& reply, int32_t timeout = 0);
    void sendDiscardReply(Lrpc2Message& request, int32_t timeout = 0);

    bool isDaemonOnline();
    std::string queryCollectorStatus();
    // The six fields of the detailed collector status, in the daemon's order (see
    // CollectorDetail).
    void queryCollectorStatus2(int32_t& code, std::string& state, std::string& name, bool& flag,
                               std::string& source, std::string& note);
    std::string queryDBSize();
    std::string queryDespoolRate();
    // False when the exchange failed (zfw::IOException); `failure`, when given, then
    // receives the exception's text.
    bool ping(int32_t timeout = 0, std::string* failure = nullptr);
    void stopDaemon();
    // The daemon's result, or 501 when the exchange failed (`failure`, when given, then
    // receives the exception's text). A daemon that answers 501 is deliberately not told
    // apart from a failed exchange without `failure`.
    int32_t reloadProperties(std::string* failure = nullptr);

  private:
    // Exchanges an empty request of message `id`; `reply` receives the answer, its fields
    // left to read. Throws as send does.
    void ask(uint32_t id, Lrpc2Message& reply, int32_t timeout = 0);

    const lrpc2_msg_table* m_messageTable;
    lrpc2_conn* m_connection;
    int32_t m_timeout;
    std::string m_socketPath;  // empty: from the configuration file
};

#endif
