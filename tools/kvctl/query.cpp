// kvctl's daemon queries: the one gather for status, metrics and check, the ping timer, the
// number rule, connecting, and waiting for a state of the daemon.
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <regex>
#include <thread>

#include "kvctl.h"
#include "zfw/exception.h"

namespace kvctl {

std::string keptText(std::string text) {
    if (text.size() > kTextCap) {
        const std::string mark = "...[cut: " + std::to_string(text.size()) + " bytes in all]";
        text.resize(kTextCap);
        text += mark;
        text.shrink_to_fit();
    }
    return text;
}

bool isNumber(const std::string& text) {
    static const std::regex kNumber("-?(0|[1-9][0-9]*)(\\.[0-9]+)?");
    return text.size() < 64 && std::regex_match(text, kNumber);
}

nlohmann::json number(const std::string& text) {
    return isNumber(text) ? nlohmann::json::parse(text) : nlohmann::json();
}

double timedPing(Lrpc2Client& client) {
    const auto start = Clock::now();
    std::string failure;
    if (!client.ping(0, &failure)) {
        throw Failure(Kind::Failed, failure);
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

Health gather(Lrpc2Client& client, bool timed, bool all) {
    Health h;
    if (timed) {
        // What is compared with the thresholds is what is printed.
        char text[32];
        snprintf(text, sizeof text, "%.6f", timedPing(client));
        h.roundTripText = text;
        h.roundTrip = strtod(text, nullptr);
    }
    h.collector = keptText(client.queryCollectorStatus());
    if (!all) {
        return h;
    }
    h.online = client.isDaemonOnline();
    CollectorDetail& d = h.detail;
    client.queryCollectorStatus2(d.code, d.state, d.name, d.flag, d.source, d.note);
    for (std::string* text : {&d.state, &d.name, &d.source, &d.note}) {
        *text = keptText(std::move(*text));
    }
    h.dbSize = keptText(client.queryDBSize());
    h.despoolRate = keptText(client.queryDespoolRate());
    return h;
}

void connect(Session& session) {
    if (session.client.connect(0)) {
        return;
    }
    // Why nothing answered: a refused permission is the user's, not the daemon's.
    if (session.socket.empty()) {
        throw Failure(Kind::NotReachable, "the configured socket path cannot be expanded");
    }
    if (access(session.socket.c_str(), W_OK) != 0 && (errno == EACCES || errno == EPERM)) {
        throw Failure(Kind::Permission, "permission denied; the daemon's socket may need root");
    }
    throw Failure(Kind::NotReachable, "Kavelo daemon does not appear to be running or reachable");
}

double waitGone(int pidfd, pid_t pid, long limitSeconds) {
    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(limitSeconds);
    const bool progress = isatty(STDERR_FILENO) != 0;
    for (;;) {
        const auto now = Clock::now();
        const long left = limitSeconds == 0
                              ? -1
                              : std::chrono::ceil<std::chrono::milliseconds>(end - now).count();
        if (limitSeconds != 0 && left <= 0) {
            break;
        }
        pollfd p = {pidfd, POLLIN, 0};
        const long slice = progress ? (left < 0 ? 2000 : std::min<long>(left, 2000)) : left;
        const int n = poll(&p, 1, static_cast<int>(slice));
        if (n > 0) {
            return std::chrono::duration<double>(Clock::now() - start).count();
        }
        if (n < 0 && errno != EINTR) {
            throw Failure(Kind::Failed,
                          std::string("cannot wait for the daemon's process: ") + strerror(errno));
        }
        if (n == 0 && progress) {
            fprintf(stderr, "kvctl: pid %d still running after %.0f s\n", pid,
                    std::chrono::duration<double>(Clock::now() - start).count());
        }
    }
    throw Failure(Kind::Failed,
                  "still running after " + std::to_string(limitSeconds) + " s (pid " +
                      std::to_string(pid) + ")",
                  false, pid);
}

// The process whose end means the daemon is gone, learnt from the writers of ping replies (the
// session's connection has just been answered one):
// one process answering two connections at once serves the daemon (a plain daemon, or the
// child of a socket-activating parent that keeps the socket); a different writer for each
// connection is a worker per connection, whose listener is the daemon.
Serving serving(Session& session) {
    Serving s;
    const pid_t first = session.client.replierPid();
    const pid_t listener = session.client.listenerPid();
    s.pid = first;
    if (first > 0 && first != listener) {
        Lrpc2Client other;
        other.setDefaultTimeout(session.client.defaultTimeout());
        other.setSocketPath(session.socket);
        const bool answered = other.connect(0) && other.ping(0);
        s.pid = !answered ? -1 : other.replierPid() == first ? first : listener;
    }
    if (s.pid <= 0) {
        throw Failure(Kind::Failed,
                      "cannot learn which process serves the daemon, so it cannot be waited for");
    }
    s.pidfd = static_cast<int>(syscall(SYS_pidfd_open, s.pid, 0));
    if (s.pidfd < 0) {
        throw Failure(Kind::Failed,
                      std::string("cannot watch the daemon's process: ") + strerror(errno));
    }
    return s;
}

double waitState(Session& session, bool online) {
    if (!online && session.client.connect(0) && session.client.ping(0)) {
        // A daemon that answers is gone when the process that serves it is.
        const Serving s = serving(session);
        session.client.disconnect();
        const double waited = waitGone(s.pidfd, s.pid, 0);
        close(s.pidfd);
        return waited;
    }
    const auto start = Clock::now();
    // A short back-off: an answer is seen soon, and a daemon that is starting is not flooded.
    for (auto pause = std::chrono::milliseconds(50);;
         pause = std::min(pause * 2, decltype(pause)(1000))) {
        session.client.disconnect();
        bool answers = false;
        try {
            answers = session.client.connect(0) && session.client.ping(0);
        } catch (const ZFWException&) {
            // an answer that is not a ping's: not online, and not gone either
            answers = !online;
        }
        if (answers == online) {
            return std::chrono::duration<double>(Clock::now() - start).count();
        }
        std::this_thread::sleep_for(pause);
    }
}

}  // namespace kvctl
