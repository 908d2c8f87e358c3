// kvctl: status, ping, reload and stop of the local Kavelo audit daemon, for people and,
// with --json, for monitoring (the contract: kvctl.schema.json); metrics and check for
// monitoring systems (monitor.h).
//
// Exit status 0: done; 1: the daemon is not reachable; 2: refused, failed, or a usage error.
// Every failure writes one line to standard error, and with --json an error object to
// standard output. check follows the monitoring plugins' rules instead: one line on standard
// output, exit status 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli.h"
#include "monitor.h"
#include "stopsequence.h"
#include "zfw/exception.h"
#include "zfw/logger.h"
#include "zkvfw/lrpc2client.h"

namespace {

using Clock = std::chrono::steady_clock;

const int kDone = 0;
const int kNotReachable = 1;
const int kFailed = 2;
// The longest time-out or wait accepted: a day.
const long kMaxSeconds = 86400;
const int kText = -2;  // Run::json when writing text; else nlohmann's indent (-1: one line)

// A failure of the run: its kind in the JSON contract, its text and the exit status.
struct Failure : std::runtime_error {
    Failure(const char* k, const std::string& message, int s)
        : std::runtime_error(message), kind(k), status(s) {}
    const char* kind;
    int status;
};

Failure notReachable(const std::string& m) {
    return {"not reachable", m, kNotReachable};
}
Failure permission(const std::string& m) {
    return {"permission", m, kFailed};
}
Failure refused(const std::string& m) {
    return {"refused", m, kFailed};
}
Failure failed(const std::string& m) {
    return {"failed", m, kFailed};
}
Failure usage(const std::string& m) {
    return {"usage", m, kFailed};
}

struct Run {
    std::string command;
    std::string socket;  // empty: the configured one
    long timeout = -1;   // -1: the configured one
    long wait = -1;      // -1: no --wait
    int json = kText;
    const char* w = nullptr;  // -w: --wait for stop, --warning for check
    const char* wName = "w";  // as given: "w", "wait" or "warning"
    const char* critical = nullptr;
    kvctl::Range warningRange, criticalRange;  // check's, parsed from w and critical
    const char* timeoutState = nullptr;        // check: -t SECONDS:STATE
    std::string textfile;
};

}  // namespace

// Daemon bytes shown to people: controls (C0, DEL, C1) and invalid UTF-8 could drive the
// terminal, so each is replaced by '?'; valid UTF-8 text passes unchanged.
std::string kvctl::safeText(const std::string& text) {
    std::string out;
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    for (size_t i = 0; i < n;) {
        const unsigned char c = s[i];
        size_t len = c < 0x80                 ? 1
                     : c >= 0xC2 && c <= 0xDF ? 2
                     : c >= 0xE0 && c <= 0xEF ? 3
                     : c >= 0xF0 && c <= 0xF4 ? 4
                                              : 0;
        uint32_t cp = len == 1 ? c : len == 2 ? c & 0x1F : len == 3 ? c & 0x0F : c & 0x07;
        for (size_t k = 1; k < len; ++k) {
            if (i + k >= n || (s[i + k] & 0xC0) != 0x80) {
                len = 0;
                break;
            }
            cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        // Overlong forms, surrogates and code points past U+10FFFF are invalid too.
        const bool valid = len == 1 || (len == 2 && cp >= 0x80) ||
                           (len == 3 && cp >= 0x800 && (cp < 0xD800 || cp > 0xDFFF)) ||
                           (len == 4 && cp >= 0x10000 && cp <= 0x10FFFF);
        if (!valid || cp < 0x20 || (cp >= 0x7F && cp <= 0x9F)) {
            out += '?';
            i += valid ? len : 1;
        } else {
            out.append(text, i, len);
            i += len;
        }
    }
    return out;
}

namespace {

using kvctl::safeText;

// The one way JSON is written: ASCII only, so every control character (C0, DEL, C1) is
// escaped, and invalid UTF-8 becomes U+FFFD.
std::string jsonText(const nlohmann::json& value, int indent) {
    return value.dump(indent, ' ', true, nlohmann::json::error_handler_t::replace) + "\n";
}

// A daemon text as a JSON number when it is one, else null; the text goes beside it.
nlohmann::json number(const std::string& text) {
    static const std::regex kNumber("-?(0|[1-9][0-9]*)(\\.[0-9]+)?");
    return std::regex_match(text, kNumber) ? nlohmann::json::parse(text) : nlohmann::json();
}

// Writes to standard output; false (errno set) when the bytes did not all reach it.
bool writeOut(const std::string& text) {
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
}

// What the alarm writes when the command's time runs out, prepared in advance: a signal
// handler may only write and exit.
char gAlarmErr[2048];
char gAlarmOut[2048];
size_t gAlarmErrLen = 0;
size_t gAlarmOutLen = 0;
int gAlarmStatus = kFailed;
extern "C" void onAlarm(int /*signal*/) {
    (void)!write(STDERR_FILENO, gAlarmErr, gAlarmErrLen);
    if (kvctl::textfilePrepared()) {
        (void)kvctl::commitTextfile(gAlarmOut, gAlarmOutLen);
    } else {
        (void)!write(STDOUT_FILENO, gAlarmOut, gAlarmOutLen);
    }
    _exit(gAlarmStatus);
}

// The text, cut to what the buffer holds; its length.
size_t prepare(char (&buffer)[2048], const std::string& text) {
    const size_t n = std::min(text.size(), sizeof buffer);
    memcpy(buffer, text.data(), n);
    return n;
}

std::string describe(const Failure& f, const Run& run, const std::string& socket) {
    if (strcmp(f.kind, "usage") == 0) {
        return "kvctl: " + safeText(f.what()) + "\nTry 'kvctl --help' for more information.\n";
    }
    return "kvctl: " + run.command + ": " + safeText(socket.empty() ? "(unknown socket)" : socket) +
           ": " + safeText(f.what()) + "\n";
}

nlohmann::json errorObject(const Failure& f, const std::string& socket) {
    return {{"error",
             {{"kind", f.kind},
              {"message", f.what()},
              {"socket", socket.empty() ? nlohmann::json() : nlohmann::json(socket)}}}};
}

int finish(const std::string& text, const Run& run, const std::string& socket, int status = kDone);

// check's line for a failure: what keeps it from judging the daemon is UNKNOWN, the rest
// CRITICAL.
int checkFailure(const Failure& f, const std::string& socket, std::string& line) {
    const bool unknown = strcmp(f.kind, "usage") == 0 || strcmp(f.kind, "permission") == 0;
    const kvctl::State state = unknown ? kvctl::kUnknown : kvctl::kCritical;
    line = kvctl::checkLine(state, (socket.empty() ? "" : socket + ": ") + f.what());
    return state;
}

int report(const Failure& f, const Run& run, const std::string& socket) {
    alarm(0);
    if (run.command == "check") {
        std::string line;
        const int state = checkFailure(f, strcmp(f.kind, "usage") == 0 ? "" : socket, line);
        return finish(line, run, socket, state);
    }
    const std::string line = describe(f, run, socket);
    fputs(line.c_str(), stderr);
    if (run.command == "metrics" && strcmp(f.kind, "usage") != 0) {
        // Not up, for the scraper too; a textfile that could not be made gets nothing.
        return run.textfile.empty() || kvctl::textfilePrepared()
                   ? finish(kvctl::metricsText(nullptr), run, socket, f.status)
                   : f.status;
    }
    if (run.json != kText && !writeOut(jsonText(errorObject(f, socket), run.json))) {
        fprintf(stderr, "kvctl: cannot write standard output: %s\n", strerror(errno));
    }
    return f.status;
}

// Writes what a run prints (or metrics' textfile) and closes standard output: a full disk or a
// closed pipe is a failure, not a silent success.
int finish(const std::string& text, const Run& run, const std::string& socket, int status) {
    if (kvctl::textfilePrepared() ? kvctl::commitTextfile(text.data(), text.size())
                                  : writeOut(text) && fclose(stdout) == 0) {
        return status;
    }
    const Failure f =
        failed("cannot write " + (run.textfile.empty() ? "standard output" : run.textfile) + ": " +
               strerror(errno));
    fputs(run.command.empty() ? ("kvctl: " + safeText(f.what()) + "\n").c_str()
                              : describe(f, run, socket).c_str(),
          stderr);
    return run.command == "check" ? kvctl::kUnknown : f.status;
}

std::string usageText() {
    std::string text =
        "Usage: kvctl [OPTION]... COMMAND\n"
        "Asks the local Kavelo audit daemon how it is, reloads it, or stops it.\n"
        "\nCommands:\n";
    for (const kvctl::Command& c : kvctl::kCommands) {
        text += "  " + std::string(c.name) + std::string(9 - strlen(c.name), ' ') + c.help + "\n";
    }
    text += "\nOptions (before or after the command):\n";
    for (const kvctl::Option& o : kvctl::kOptions) {
        std::string form = std::string("-") + o.shortName + ", --" + o.longName;
        if (o.arg != kvctl::Arg::None) {
            form += o.arg == kvctl::Arg::Optional ? std::string("[=") + o.argName + "]"
                                                  : std::string("=") + o.argName;
        }
        text +=
            "  " + form + std::string(form.size() < 22 ? 22 - form.size() : 1, ' ') + o.help + "\n";
    }
    return text +
           "\nExit status: 0 done, 1 daemon not reachable, 2 refused, failed or usage error.\n"
           "check's: 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN (bad arguments included).\n"
           "JSON contract: /usr/share/kvctl/kvctl.schema.json; more in kvctl(8).\n";
}

bool parseSeconds(const char* text, long& value) {
    char* end = nullptr;
    errno = 0;
    value = std::strtol(text, &end, 10);
    return text[0] >= '0' && text[0] <= '9' && *end == '\0' && errno == 0 && value <= kMaxSeconds;
}

// The options that go with one command only, checked once the command is known.
std::string commandOptions(Run& run) {
    const std::string& command = run.command;
    const std::string w = run.w != nullptr ? run.w : "";
    const std::string critical = run.critical != nullptr ? run.critical : "";
    if (run.w != nullptr && strcmp(run.wName, command == "check" ? "wait" : "warning") == 0) {
        return command == "check" ? "--wait goes with stop only" : "--warning goes with check only";
    }
    if (command == "check") {
        if (run.w != nullptr && !kvctl::parseRange(w, run.warningRange)) {
            return "bad warning range: '" + w + "'";
        }
        if (run.critical != nullptr && !kvctl::parseRange(critical, run.criticalRange)) {
            return "bad critical range: '" + critical + "'";
        }
        if (run.timeoutState != nullptr && kvctl::parseState(run.timeoutState) < 0) {
            return std::string("bad time-out state: '") + run.timeoutState +
                   "' (ok, warning, critical or unknown)";
        }
    } else if (run.w != nullptr && !parseSeconds(run.w, run.wait)) {
        return "bad wait: '" + w + "'";
    } else if (run.w != nullptr && command != "stop") {
        return "--wait goes with stop only";
    } else if (run.critical != nullptr) {
        return "--critical goes with check only";
    } else if (run.timeoutState != nullptr) {
        return "a time-out state goes with check only";
    }
    if (!run.textfile.empty() && command != "metrics") {
        return "--textfile goes with metrics only";
    }
    if (run.json != kText && (command == "check" || command == "metrics")) {
        return "--json does not go with " + command;
    }
    return "";
}

// Parses the command line (GNU style: options anywhere, "--" ends them). Returns -1 to go
// on, else the exit status; a usage error is reported after the whole line was read, so
// that --json applies wherever it stands.
int parseOptions(int argc, char** argv, Run& run) {
    std::string shortOptions = ":";
    std::vector<option> longOptions;
    for (const kvctl::Option& o : kvctl::kOptions) {
        const int has = o.arg == kvctl::Arg::None       ? no_argument
                        : o.arg == kvctl::Arg::Required ? required_argument
                                                        : optional_argument;
        shortOptions += std::string(1, o.shortName) + (has == no_argument         ? ""
                                                       : has == required_argument ? ":"
                                                                                  : "::");
        longOptions.push_back({o.longName, has, nullptr, o.shortName});
    }
    longOptions.push_back({nullptr, 0, nullptr, 0});
    std::string error;
    bool help = false;
    bool version = false;
    opterr = 0;
    int opt = 0;
    int index = -1;
    while ((opt = getopt_long(argc, argv, shortOptions.c_str(), longOptions.data(), &index)) !=
           -1) {
        const std::string given = argv[optind - 1];
        const std::string name = given.rfind("--", 0) == 0 ? given.substr(0, given.find('='))
                                                           : "-" + std::string(1, optopt);
        std::string bad;
        switch (opt) {
            case 's':
                run.socket = optarg;
                if (run.socket.empty()) {
                    bad = "--socket needs a path";
                }
                break;
            case 't': {
                const std::string seconds(optarg, strcspn(optarg, ":"));
                run.timeoutState =
                    optarg[seconds.size()] == ':' ? optarg + seconds.size() + 1 : nullptr;
                if (!parseSeconds(seconds.c_str(), run.timeout)) {
                    bad = std::string("bad time-out: '") + optarg + "'";
                }
                break;
            }
            case 'w':
                run.w = optarg;
                run.wName = index >= 0 ? longOptions[index].name : "w";
                break;
            case 'c':
                run.critical = optarg;
                break;
            case 'f':
                run.textfile = optarg;
                if (run.textfile.empty()) {
                    bad = "--textfile needs a path";
                }
                break;
            case 'j':
                if (optarg == nullptr || strcmp(optarg, "short") == 0) {
                    run.json = -1;
                } else if (strcmp(optarg, "pretty") == 0) {
                    run.json = 2;
                } else {
                    bad = std::string("bad JSON format: '") + optarg + "' (short or pretty)";
                }
                break;
            case 'h':
                help = true;
                break;
            case 'V':
                version = true;
                break;
            case ':':
                bad = "option '" + name + "' needs an argument";
                break;
            default:
                bad = "unknown option '" + name + "'";
                break;
        }
        if (error.empty()) {
            error = bad;
        }
        index = -1;  // getopt_long sets it for long options only
    }
    if (error.empty() && (help || version)) {
        return finish(help ? usageText() : "kvctl " KV_VERSION "\n", run, "");
    }
    if (optind < argc) {
        run.command = argv[optind];  // check reports even its usage errors its own way
    }
    if (error.empty() && optind == argc) {
        error = "no command";
    } else if (error.empty() && optind < argc - 1) {
        error = std::string("one command only (also '") + argv[optind + 1] + "')";
    }
    if (error.empty()) {
        error = commandOptions(run);
    }
    return error.empty() ? -1 : report(usage(error), run, "");
}

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

// What a successful command prints: `json` for --json, `text` otherwise.
struct Result {
    nlohmann::json json;
    std::string text;
    int status = kDone;
};

Result status(Lrpc2Client& client, const Run& /*run*/) {
    const bool online = client.isDaemonOnline();
    const std::string collector = client.queryCollectorStatus();
    CollectorDetail d;
    client.queryCollectorStatus2(d.code, d.state, d.name, d.flag, d.source, d.note);
    const std::string dbSize = client.queryDBSize();
    const std::string despoolRate = client.queryDespoolRate();
    return {{{"online", online},
             {"collector_status", collector},
             {"collector_detail", {d.code, d.state, d.name, d.flag, d.source, d.note}},
             {"database_size", number(dbSize)},
             {"database_size_text", dbSize},
             {"despool_rate", number(despoolRate)},
             {"despool_rate_text", despoolRate}},
            "online:            " + std::string(yesNo(online)) + "\n" +
                "collector status:  " + safeText(collector) + "\n" +
                "collector detail:  " + std::to_string(d.code) + " | " + safeText(d.state) + " | " +
                safeText(d.name) + " | " + yesNo(d.flag) + " | " + safeText(d.source) + " | " +
                safeText(d.note) + "\n" + "database size:     " + safeText(dbSize) + "\n" +
                "despool rate:      " + safeText(despoolRate) + "\n"};
}

Result ping(Lrpc2Client& client, const Run& /*run*/) {
    const auto start = Clock::now();
    std::string failure;
    if (!client.ping(0, &failure)) {
        throw failed(failure);
    }
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    char text[64];
    snprintf(text, sizeof text, "daemon answers, round trip %.3f ms\n", ms);
    return {{{"answers", true}, {"round_trip_ms", ms}}, text};
}

Result reload(Lrpc2Client& client, const Run& /*run*/) {
    std::string failure;
    const int32_t answer = client.reloadProperties(&failure);
    if (!failure.empty()) {
        throw failed(failure);
    }
    if (answer != 0) {
        throw refused("the daemon answered " + std::to_string(answer));
    }
    return {{{"reload_result", answer}}, "reload answered 0 (done)\n"};
}

Result metrics(Lrpc2Client& client, const Run& /*run*/) {
    const kvctl::Health health = kvctl::gather(client, true);
    return {nullptr, kvctl::metricsText(&health)};
}

Result check(Lrpc2Client& client, const Run& run) {
    const kvctl::Health health = kvctl::gather(client, false);
    Result result;
    result.status = kvctl::checkState(health, run.warningRange, run.criticalRange, result.text);
    return result;
}

// Seconds until the process behind `pidfd` ended; a failure when it still runs after
// `limit` seconds. On a terminal, says every two seconds that it is still waiting.
double waitGone(int pidfd, pid_t pid, long limit) {
    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(limit);
    const bool progress = isatty(STDERR_FILENO) != 0;
    for (auto now = start; now < end; now = Clock::now()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
        pollfd p = {pidfd, POLLIN, 0};
        const int n = poll(
            &p, 1, static_cast<int>(progress ? std::min<long>(left.count(), 2000) : left.count()));
        if (n > 0) {
            return std::chrono::duration<double>(Clock::now() - start).count();
        }
        if (n < 0 && errno != EINTR) {
            throw failed(std::string("cannot wait for the daemon's process: ") + strerror(errno));
        }
        if (n == 0 && progress && Clock::now() < end) {
            fprintf(stderr, "kvctl: stop: pid %d still running after %.0f s\n", pid,
                    std::chrono::duration<double>(Clock::now() - start).count());
        }
    }
    throw failed("still running after " + std::to_string(limit) + " s (pid " + std::to_string(pid) +
                 ")");
}

Result stop(Lrpc2Client& client, const Run& run) {
    const boost::shared_ptr<zfw::Logger> logger = zfw::Logger::get("zkv.cli.kvctl");
    pid_t pid = -1;
    int pidfd = -1;
    try {
        if (run.wait >= 0) {
            // Opened while the daemon holds the connection, so that the pid cannot name
            // another process by the time it is waited for.
            pid = client.listenerPid();
            pidfd = pid > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1;
            if (pidfd < 0) {
                throw failed("cannot watch the daemon's process: " +
                             std::string(pid > 0 ? strerror(errno) : "its pid is unknown"));
            }
        }
        client.stopDaemon();
        client.disconnect();
    } catch (const ZFWException& e) {
        if (logger->isEnabled(zfw::Logger::ERROR)) {
            logger->log(zfw::Logger::ERROR, "Unable to stop Kavelo daemon: %s", e.what());
        }
        throw refused(e.what());
    }
    Result result = {{{"stop", "stopped"}}, "Zantor Kavelo daemon stopped successfully.\n"};
    if (pidfd < 0) {
        if (kvtools::stillAnswers(client)) {
            throw failed("the daemon still answers after the stop request");
        }
    } else {
        alarm(0);  // --wait bounds what follows
        const double waited = waitGone(pidfd, pid, run.wait);
        close(pidfd);
        result.json["pid"] = pid;
        result.json["waited_seconds"] = std::round(waited * 1000) / 1000;
        char text[128];
        snprintf(text, sizeof text,
                 "Zantor Kavelo daemon stopped successfully (pid %d gone after %.1f s).\n", pid,
                 waited);
        result.text = text;
    }
    if (logger->isEnabled(zfw::Logger::INFO)) {
        logger->log(zfw::Logger::INFO, "Zantor Kavelo daemon stopped successfully.");
    }
    return result;
}

// Why nothing answered: a refused permission is the user's, not the daemon's.
Failure unreachable(const std::string& socket) {
    if (socket.empty()) {
        return notReachable("the configured socket path cannot be expanded");
    }
    if (access(socket.c_str(), W_OK) != 0 && (errno == EACCES || errno == EPERM)) {
        return permission("permission denied; the daemon's socket may need root");
    }
    return notReachable("Kavelo daemon does not appear to be running or reachable");
}

}  // namespace

int main(int argc, char** argv) {
    Run run;
    const int parsed = parseOptions(argc, argv, run);
    if (parsed >= 0) {
        return parsed;
    }
    Result (*command)(Lrpc2Client&, const Run&) = nullptr;
    if (run.command == "status") {
        command = status;
    } else if (run.command == "ping") {
        command = ping;
    } else if (run.command == "reload") {
        command = reload;
    } else if (run.command == "stop") {
        command = stop;
    } else if (run.command == "metrics") {
        command = metrics;
    } else if (run.command == "check") {
        command = check;
    } else {
        return report(usage("unknown command '" + run.command + "'"), run, "");
    }

    Lrpc2Client client;
    if (!run.socket.empty() && run.socket[0] != '/') {
        char* cwd = getcwd(nullptr, 0);
        if (cwd == nullptr) {
            return report(
                failed(std::string("cannot make the socket path absolute: ") + strerror(errno)),
                run, run.socket);
        }
        run.socket = std::string(cwd) + "/" + run.socket;
        free(cwd);
    }
    if (!run.socket.empty()) {
        client.setSocketPath(run.socket);
    }
    const std::string socket = client.socketPath();
    if (!run.textfile.empty() && !kvctl::prepareTextfile(run.textfile)) {
        return report(failed("cannot write " + run.textfile + ": " + strerror(errno)), run, socket);
    }
    // One limit for the whole command, instead of one per exchange.
    const long limit = run.timeout >= 0 ? run.timeout : client.defaultTimeout();
    client.setDefaultTimeout(0);
    if (limit > 0) {
        const Failure late = failed("timed out after " + std::to_string(limit) + " s");
        std::string out = run.json != kText          ? jsonText(errorObject(late, socket), run.json)
                          : run.command == "metrics" ? kvctl::metricsText(nullptr)
                                                     : "";
        if (run.command == "check") {
            gAlarmStatus = run.timeoutState != nullptr ? kvctl::parseState(run.timeoutState)
                                                       : kvctl::kCritical;
            out = kvctl::checkLine(static_cast<kvctl::State>(gAlarmStatus), late.what());
        } else {
            gAlarmErrLen = prepare(gAlarmErr, describe(late, run, socket));
        }
        gAlarmOutLen = prepare(gAlarmOut, out);
        signal(SIGALRM, onAlarm);
        alarm(static_cast<unsigned>(limit));
    }

    Result result;
    try {
        if (!client.connect(0)) {
            throw unreachable(socket);
        }
        result = command(client, run);
    } catch (const Failure& f) {
        return report(f, run, socket);
    } catch (const std::exception& e) {
        return report(failed(e.what()), run, socket);
    }
    alarm(0);
    return finish(run.json != kText ? jsonText(result.json, run.json) : result.text, run, socket,
                  result.status);
}
