// kvctl's parts: the run's settings, the session a command works in, failures and the one
// way they are shown, output, and the daemon queries that the commands share.
#ifndef KVCTL_KVCTL_H
#define KVCTL_KVCTL_H

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "cli.h"
#include "monitor.h"
#include "zkvfw/lrpc2client.h"

namespace kvctl {

using Clock = std::chrono::steady_clock;

const int kDone = 0;
const int kNotReachable = 1;
const int kFailed = 2;
const int kNoJson = -2;  // Run::json when writing text; else nlohmann's indent (-1: one line)

// The kinds of failure; their names are the JSON contract's `kind` values.
enum class Kind { NotReachable, Permission, Refused, Failed, Usage };
const char* kindName(Kind kind);

struct Failure : std::runtime_error {
    Failure(Kind k, const std::string& message, bool late = false, pid_t running = 0)
        : std::runtime_error(message), kind(k), timedOut(late), pid(running) {}
    Kind kind;
    bool timedOut;  // the command's time ran out
    pid_t pid;      // the daemon's process that is still running; 0: none known
};

struct Run {
    const Command* command = nullptr;
    std::string name;    // the command as given
    std::string socket;  // empty: the configured one
    long timeout = -1;   // -1: the configured one
    long wait = -1;      // -1: no --wait
    int json = kNoJson;
    Range warning, critical;
    int timeoutState = kCritical;  // check's state when the time runs out
    std::string textfile;
    std::string until;  // wait --for
    long watch = -1;    // status --watch SECONDS; -1: once
    long count = 0;     // samples of a watch; 0: no end
    std::string time;   // a watch's sample: its time stamp, for the JSON line
};

// What a successful command prints: `json` for --json, `text` otherwise.
struct Result {
    nlohmann::json json;
    std::string text;
    int status = kDone;
};

// One run of a command against the daemon, done by a thread of its own while the main thread
// keeps the time: the exchanges' own time-outs bound each wait, not a whole command.
class Session {
  public:
    explicit Session(long limitSeconds);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Lrpc2Client client;
    std::string socket;

    // The command's limit no longer counts the next `ms` (a fixed pause).
    void extend(long ms);
    // From now on the command bounds itself (--wait).
    void unlimit();
    // Milliseconds left, -1 for no limit; 0 once the time ran out.
    int left();
    // Readable once the command ended.
    int doneFd() const { return m_doneFd; }
    // The command's outcome: from its thread, then (once doneFd is readable) for the main one.
    void finish(Result result, std::unique_ptr<Failure> failure);
    Result result();
    std::unique_ptr<Failure> failure();

  private:
    Result m_result;
    std::unique_ptr<Failure> m_failure;
    std::mutex m_mutex;
    Clock::time_point m_end;
    bool m_limited;
    int m_doneFd;
};

// Runs the command of `run` with the session's limit (0: none) and writes its outcome; the
// exit status. `abandoned` becomes true when an exchange was left running (a time-out, or a
// watch's signal): the process must then end with _exit.
int runCommand(const Run& run, long limit, const std::string& socket, bool& abandoned);

// --- output.cpp
// Daemon bytes shown to people: controls and invalid UTF-8 become '?'.
std::string safeText(const std::string& text);
// JSON as kvctl writes it: ASCII only, invalid UTF-8 as U+FFFD, a line feed at the end.
std::string jsonText(const nlohmann::json& value, int indent);
// Writes what a run prints (or metrics' textfile): a full disk or a closed pipe is a failure.
int finish(const std::string& text, const Run& run, const std::string& socket, int status);
// The one way a failure is shown, logged and turned into an exit status.
int fail(const Failure& failure, const Run& run, const std::string& socket);
// Signals that end kvctl remove the textfile's temporary file first; with `watching`,
// SIGINT, SIGTERM and SIGHUP end a watch instead: stopRequested() and wakeFd() tell.
void handleSignals(bool watching);
bool stopRequested();
int wakeFd();

// --- query.cpp
// A daemon text as kvctl keeps it: at most kTextCap bytes, a longer one cut with a mark.
const size_t kTextCap = 4096;
std::string keptText(std::string text);
// The daemon text as a JSON number when it is one, else null.
nlohmann::json number(const std::string& text);
bool isNumber(const std::string& text);
// A ping's round trip in seconds; throws the session's failure text.
double timedPing(Lrpc2Client& client);
// Connects, or throws why nothing answered.
void connect(Session& session);
// Waits for the process behind `pidfd` to end, at most `limitSeconds` (0: no limit);
// the seconds it took. Throws a failure when it still runs.
double waitGone(int pidfd, pid_t pid, long limitSeconds);
// The daemon's serving process, for --wait: learnt from the reply just received on the
// session's connection, and watched through a pidfd opened while that connection is held. Throws when the
// process cannot be learnt.
struct Serving {
    pid_t pid = -1;
    int pidfd = -1;
};
Serving serving(Session& session);
// Until the daemon at the session's socket is gone or answers a ping; the seconds it took.
double waitState(Session& session, bool online);

}  // namespace kvctl

#endif
