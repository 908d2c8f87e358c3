#include "server.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "connection.h"
#include "framelog.h"

namespace kvdsim {

namespace {

// A signal descriptor for the signals that end the daemon; they stay blocked otherwise.
int terminationSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0) {
        return -1;
    }
    signal(SIGPIPE, SIG_IGN);
    return signalfd(-1, &set, SFD_CLOEXEC);
}

// Binds and listens on `path`, replacing a stale socket; -1 with a message on failure.
// The socket is open to every user, so that clients of any identity can be tried.
int listenOn(const std::string& path) {
    sockaddr_un address = {};
    if (path.size() >= sizeof address.sun_path) {
        fprintf(stderr, "kvdsim: socket path too long: %s\n", path.c_str());
        return -1;
    }
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            fprintf(stderr, "kvdsim: %s exists and is not a socket\n", path.c_str());
            return -1;
        }
        unlink(path.c_str());
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size());
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), 0666) != 0 || listen(fd, 16) != 0) {
        fprintf(stderr, "kvdsim: cannot listen on %s: %s\n", path.c_str(), strerror(errno));
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    return fd;
}

bool signalReady(const Options& options) {
    printf("kvdsim: listening on %s\n", options.socket.c_str());
    fflush(stdout);
    if (options.readyFile.empty()) {
        return true;
    }
    const int fd = open(options.readyFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        fprintf(stderr, "kvdsim: cannot create %s: %s\n", options.readyFile.c_str(),
                strerror(errno));
        return false;
    }
    close(fd);
    return true;
}

// Turns this process into a serving one: the user and group of --serve-as, if any, and the
// signal `deathSignal` (0: none) when `parent` ends. A change of identity clears the signal,
// so it is set after it; false with a message when either fails or `parent` already ended.
bool becomeServer(const Options& options, pid_t parent, int deathSignal) {
    const uid_t id = options.serveAs;
    if (id != kKeepUser &&
        (setgroups(0, nullptr) != 0 || setresgid(id, id, id) != 0 || setresuid(id, id, id) != 0)) {
        fprintf(stderr, "kvdsim: cannot serve as %u: %s\n", id, strerror(errno));
        return false;
    }
    if (deathSignal != 0 && (prctl(PR_SET_PDEATHSIG, deathSignal) != 0 || getppid() != parent)) {
        fputs("kvdsim: the listener is gone\n", stderr);
        return false;
    }
    return true;
}

class Server {
  public:
    explicit Server(const Options& options) : m_options(options) {}
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server() {
        m_connections.clear();
        stopListening();
        if (m_signals >= 0) {
            close(m_signals);
        }
    }

    int run() {
        m_signals = terminationSignals();
        if (m_signals < 0) {
            perror("kvdsim: signals");
            return 1;
        }
        if (!m_log.open(m_options.logFile)) {
            fprintf(stderr, "kvdsim: cannot open %s: %s\n", m_options.logFile.c_str(),
                    strerror(errno));
            return 1;
        }
        m_listener = listenOn(m_options.socket);
        if (m_listener < 0 || !signalReady(m_options)) {
            return 1;
        }
        if (m_options.shape == Shape::Activation) {
            const pid_t listener = getpid();
            const pid_t server = fork();
            if (server != 0) {
                return server < 0 ? 1 : holdSocket(server);
            }
            if (!becomeServer(m_options, listener, SIGKILL)) {
                return 1;
            }
        } else if (m_options.shape == Shape::Detach) {
            const pid_t server = fork();
            if (server != 0) {
                m_listener = -1;  // the server's now: its path stays
                return server < 0 ? 1 : 0;
            }
            if (!becomeServer(m_options, 0, 0)) {
                return 1;
            }
        } else if (m_options.shape == Shape::Fork) {
            signal(SIGCHLD, SIG_IGN);  // workers are not waited for
        } else {
            int deathSignal = 0;
            const pid_t parent = getppid();
            if (prctl(PR_GET_PDEATHSIG, &deathSignal) != 0 ||
                !becomeServer(m_options, parent, deathSignal)) {
                return 1;
            }
        }
        while (serveOnce()) {
        }
        if (m_stopped && m_options.lingerMs > 0) {
            // Gone for clients, still there as a process; a signal ends the wait early.
            m_connections.clear();
            stopListening();
            pollfd p = {m_signals, POLLIN, 0};
            poll(&p, 1, static_cast<int>(m_options.lingerMs));
        }
        return 0;
    }

  private:
    // The listener of the activation shape: keeps the socket, serving nothing, until a
    // termination signal, then ends `server` too.
    int holdSocket(pid_t server) {
        pollfd p = {m_signals, POLLIN, 0};
        while (poll(&p, 1, -1) < 0 && errno == EINTR) {
        }
        kill(server, SIGTERM);
        waitpid(server, nullptr, 0);
        return 0;
    }

    // The worker of the fork shape for the connection `fd`: serves it alone and ends with
    // it; a stop it answered ends the listener too.
    [[noreturn]] void work(int fd, pid_t listener) {
        close(m_listener);  // the listener still owns the socket's path
        m_listener = -1;
        m_connections.clear();
        if (!becomeServer(m_options, listener, SIGKILL)) {
            _exit(1);
        }
        m_connections.push_back(
            std::make_unique<Connection>(fd, m_accepted, m_options, m_log, nullptr));
        while (serveOnce() && !m_connections.empty()) {
        }
        if (m_stopped) {
            kill(listener, SIGTERM);
        }
        m_connections.clear();
        _exit(0);
    }

    // Removes the socket so that no later connect reaches the daemon.
    void stopListening() {
        if (m_listener >= 0) {
            unlink(m_options.socket.c_str());
            close(m_listener);
            m_listener = -1;
        }
    }

    // Waits for one round of events; false when the daemon is to end.
    bool serveOnce() {
        std::vector<pollfd> fds;
        fds.push_back({m_signals, POLLIN, 0});
        fds.push_back({m_listener, POLLIN, 0});
        for (const auto& c : m_connections) {
            fds.push_back({c->fd(), POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), -1) < 0) {
            return errno == EINTR;
        }
        if (fds[0].revents != 0) {
            return false;
        }
        // Connections first: the set may change below.
        for (size_t i = fds.size(); i-- > 2;) {
            if (fds[i].revents == 0) {
                continue;
            }
            const Connection::Outcome outcome = m_connections[i - 2]->onReadable();
            if (outcome == Connection::Outcome::Exit) {
                m_stopped = true;
                return false;
            }
            if (outcome == Connection::Outcome::Closed) {
                m_connections.erase(m_connections.begin() + static_cast<long>(i - 2));
            }
        }
        if (m_listener >= 0 && fds[1].revents != 0) {
            const int fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0 && m_options.shape == Shape::Fork) {
                ++m_accepted;
                const pid_t listener = getpid();
                if (fork() == 0) {
                    work(fd, listener);
                }
                close(fd);
            } else if (fd >= 0) {
                m_connections.push_back(std::make_unique<Connection>(
                    fd, ++m_accepted, m_options, m_log, [this] { stopListening(); }));
            }
        }
        return true;
    }

    const Options& m_options;
    FrameLog m_log;
    int m_signals = -1;
    int m_listener = -1;
    uint32_t m_accepted = 0;
    bool m_stopped = false;  // ended by an answered stop request
    std::vector<std::unique_ptr<Connection>> m_connections;
};

}  // namespace

int serve(const Options& options) {
    Server server(options);
    return server.run();
}

}  // namespace kvdsim
