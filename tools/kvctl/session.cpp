// One run of a command: its exchanges on a thread of their own, the command's time kept by
// the main thread, which alone writes the outcome. The library bounds each wait for the
// daemon, not a whole exchange, so a daemon that trickles its answer is cut off here.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "kvctl.h"

namespace kvctl {

Session::Session(long limitSeconds)
    : m_end(Clock::now() + std::chrono::seconds(limitSeconds)),
      m_limited(limitSeconds > 0),
      m_doneFd(eventfd(0, EFD_CLOEXEC)) {
    // Each wait gets a second more than the whole limit: an exchange left behind ends by
    // itself, and the command's limit is always what a silent daemon runs into first.
    client.setDefaultTimeout(static_cast<int32_t>(limitSeconds > 0 ? limitSeconds + 1 : 0));
}

Session::~Session() {
    if (m_doneFd >= 0) {
        close(m_doneFd);
    }
}

void Session::extend(long ms) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_end += std::chrono::milliseconds(ms);
}

void Session::unlimit() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_limited = false;
}

int Session::left() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_limited) {
        return -1;
    }
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(m_end - Clock::now()).count();
    return ms > 0 ? static_cast<int>(std::min<long>(ms, 60000)) : 0;
}

void Session::finish(Result result, std::unique_ptr<Failure> failure) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_result = std::move(result);
        m_failure = std::move(failure);
    }
    const uint64_t one = 1;
    (void)!write(m_doneFd, &one, sizeof one);
}

Result Session::result() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::move(m_result);
}

std::unique_ptr<Failure> Session::failure() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::move(m_failure);
}

int runCommand(const Run& run, long limit, const std::string& socket, bool& abandoned) {
    auto session = std::make_shared<Session>(limit);
    if (!run.socket.empty()) {
        session->client.setSocketPath(run.socket);
    }
    session->socket = socket;
    if (session->doneFd() < 0) {
        return fail(Failure(Kind::Failed, std::string("cannot start: ") + strerror(errno)), run,
                    socket);
    }
    std::thread worker([session, run] {
        Result result;
        std::unique_ptr<Failure> failure;
        try {
            result = run.command->action(*session, run);
        } catch (const Failure& f) {
            failure = std::make_unique<Failure>(f);
        } catch (const std::exception& e) {
            failure = std::make_unique<Failure>(Kind::Failed, e.what());
        }
        session->finish(std::move(result), std::move(failure));
    });
    for (;;) {
        pollfd p[2] = {{session->doneFd(), POLLIN, 0}, {wakeFd(), POLLIN, 0}};
        const int n = poll(p, wakeFd() >= 0 ? 2 : 1, session->left());
        if (n > 0 && (p[0].revents & POLLIN) != 0) {
            break;
        }
        if (stopRequested() || (n == 0 && session->left() == 0)) {
            // The exchange may stay blocked: it is left to its own time-out, and the run
            // ends without waiting for it.
            worker.detach();
            abandoned = true;
            return stopRequested()
                       ? kDone
                       : fail(Failure(Kind::Failed,
                                      "timed out after " + std::to_string(limit) + " s", true),
                              run, socket);
        }
    }
    worker.join();
    if (const std::unique_ptr<Failure> f = session->failure()) {
        return fail(*f, run, socket);
    }
    Result r = session->result();
    if (run.json != kNoJson && !run.time.empty()) {
        r.json["time"] = run.time;
    }
    return finish(run.json != kNoJson ? jsonText(r.json, run.json) : r.text, run, socket, r.status);
}

}  // namespace kvctl
