// kvctl: status, ping, reload, stop and wait of the local Kavelo audit daemon, for people
// and, with --json, for scripts (the contract: kvctl.schema.json); metrics and check for
// monitoring systems (monitor.h). cli.h's table holds the commands and their options.
//
// Exit status 0: done; 1: the daemon is not reachable; 2: refused, failed, or a usage error.
// Every failure writes one line to standard error, and with --json an error object to
// standard output. check follows the monitoring plugins' rules instead: one line on standard
// output, exit status 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.
#include <getopt.h>
#include <malloc.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "kvctl.h"
#include "stdfds.h"

namespace {

using namespace kvctl;

// The longest time-out, wait or interval accepted: a day.
const long kMaxSeconds = 86400;

std::string usageText(const Command* c) {
    std::string text = std::string("Usage: kvctl [OPTION]... ") + (c ? c->name : "COMMAND") + "\n" +
                       (c ? c->help
                          : "Asks the local Kavelo audit daemon how it is, "
                            "reloads it, or stops it.") +
                       "\n";
    if (c == nullptr) {
        text += "\nCommands:\n";
        for (const Command& k : kCommands) {
            text +=
                "  " + std::string(k.name) + std::string(9 - strlen(k.name), ' ') + k.help + "\n";
        }
    }
    text += "\nOptions (before or after the command):\n";
    for (const Option& o : kOptions) {
        if (c != nullptr && (o.bit & (c->options | kOptGlobal)) == 0) {
            continue;
        }
        std::string form =
            (o.shortName ? std::string("-") + o.shortName + ", " : "    ") + "--" + o.longName;
        if (o.arg != Arg::None) {
            form += o.arg == Arg::Optional ? std::string("[=") + o.argName + "]"
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

bool parseSeconds(const std::string& text, long& value, long least = 0) {
    char* end = nullptr;
    errno = 0;
    value = std::strtol(text.c_str(), &end, 10);
    return !text.empty() && text[0] >= '0' && text[0] <= '9' && *end == '\0' && errno == 0 &&
           value >= least && value <= kMaxSeconds;
}

// The commands that take option `o`, for the message about one that does not.
std::string takers(const Option& o) {
    std::string names;
    for (const Command& c : kCommands) {
        names += (c.options & o.bit) != 0 ? (names.empty() ? "" : ", ") + std::string(c.name) : "";
    }
    return names;
}

// One option's value into `run`; an error text, or "".
std::string apply(const Option& o, const std::string& value, Run& run) {
    const std::string quoted = "'" + value + "'";
    switch (o.bit) {
        case kOptSocket:
            run.socket = value;
            return value.empty() ? "--socket needs a path" : "";
        case kOptTimeout: {
            const size_t colon = value.find(':');
            if (colon != std::string::npos) {
                if ((run.command->outputs & kPlugin) == 0) {
                    return "a time-out state goes with check only";
                }
                run.timeoutState = parseState(value.substr(colon + 1));
                if (run.timeoutState < 0) {
                    return "bad time-out state: '" + value.substr(colon + 1) +
                           "' (ok, warning, critical or unknown)";
                }
            }
            return parseSeconds(value.substr(0, colon), run.timeout) ? ""
                                                                     : "bad time-out: " + quoted;
        }
        case kOptJson:
            run.json = value.empty() || value == "short" ? -1 : value == "pretty" ? 2 : kNoJson;
            return run.json != kNoJson ? "" : "bad JSON format: " + quoted + " (short or pretty)";
        case kOptWait:
            return parseSeconds(value, run.wait) ? "" : "bad wait: " + quoted;
        case kOptWarning:
            return parseRange(value, run.warning) ? "" : "bad warning range: " + quoted;
        case kOptCritical:
            return parseRange(value, run.critical) ? "" : "bad critical range: " + quoted;
        case kOptTextfile:
            run.textfile = value;
            return value.empty() ? "--textfile needs a path" : "";
        case kOptFor:
            run.until = value;
            return value == "gone" || value == "online"
                       ? ""
                       : "bad state: " + quoted + " (gone or online)";
        case kOptWatch:
            return parseSeconds(value, run.watch, 1) ? "" : "bad interval: " + quoted;
        case kOptCount:
            return parseSeconds(value, run.count, 1) ? "" : "bad count: " + quoted;
        default:
            return "";
    }
}

struct Given {
    const Option* option;  // null: not an option of kvctl
    std::string name;      // as written
    std::string value;
    bool missing;  // its argument
};

// Parses the command line (GNU style: options anywhere, "--" ends them). Returns -1 to go
// on, else the exit status; a usage error is reported after the whole line was read, so
// that --json and the command apply wherever they stand.
int parse(int argc, char** argv, Run& run) {
    std::string shortOptions = ":";
    std::vector<option> longOptions;
    for (const Option& o : kOptions) {
        const int has = o.arg == Arg::None       ? no_argument
                        : o.arg == Arg::Required ? required_argument
                                                 : optional_argument;
        if (o.shortName != '\0' && shortOptions.find(o.shortName) == std::string::npos) {
            shortOptions += std::string(1, o.shortName) + (has == required_argument   ? ":"
                                                           : has == optional_argument ? "::"
                                                                                      : "");
        }
        longOptions.push_back({o.longName, has, nullptr, 256 + int(&o - kOptions)});
    }
    longOptions.push_back({nullptr, 0, nullptr, 0});
    std::vector<Given> given;
    opterr = 0;
    for (int opt; (opt = getopt_long(argc, argv, shortOptions.c_str(), longOptions.data(),
                                     nullptr)) != -1;) {
        const std::string word = argv[optind - 1];
        Given g = {nullptr, "", optarg ? optarg : "", opt == ':'};
        if (opt >= 256) {
            g.option = &kOptions[opt - 256];
            g.name = std::string("--") + g.option->longName;
        } else if (opt == ':' || opt == '?') {
            g.name = word.rfind("--", 0) == 0 ? word.substr(0, word.find('='))
                                              : "-" + std::string(1, char(optopt));
        } else {
            for (const Option& o : kOptions) {
                g.option = g.option == nullptr && opt == o.shortName ? &o : g.option;
            }
            g.name = "-" + std::string(1, char(opt));
        }
        given.push_back(g);
    }
    if (optind < argc) {
        run.name = argv[optind];
        for (const Command& c : kCommands) {
            run.command = run.name == c.name ? &c : run.command;
        }
    }
    std::string error;
    bool help = false, version = false;
    for (const Given& g : given) {
        if (g.option != nullptr && g.option->bit == kOptJson) {
            (void)apply(*g.option, g.value, run);  // a usage error's object too
        }
    }
    for (Given& g : given) {
        if (g.option == nullptr) {
            error = g.missing ? "option '" + g.name + "' needs an argument"
                              : "unknown option '" + g.name + "'";
            break;
        }
        // A short name stands for the option of that letter that the command takes.
        for (const Option& o : kOptions) {
            if (g.name.size() == 2 && o.shortName == g.option->shortName && run.command &&
                (o.bit & run.command->options) != 0) {
                g.option = &o;
            }
        }
        help = help || g.option->bit == kOptHelp;
        version = version || g.option->bit == kOptVersion;
    }
    if (error.empty() && (help || version)) {
        return finish(help ? usageText(run.command) : "kvctl " KV_VERSION "\n", run, "", kDone);
    }
    if (error.empty() && optind == argc) {
        error = "no command";
    } else if (error.empty() && optind < argc - 1) {
        error = std::string("one command only (also '") + argv[optind + 1] + "')";
    } else if (error.empty() && run.command == nullptr) {
        error = "unknown command '" + run.name + "'";
    }
    for (const Given& g : given) {
        if (!error.empty()) {
            break;
        }
        const unsigned bit = g.option->bit;
        error = (bit & (run.command->options | kOptGlobal)) == 0
                    ? "--" + std::string(g.option->longName) + " goes with " + takers(*g.option) +
                          " only"
                    : apply(*g.option, g.value, run);
    }
    if (error.empty() && run.command->action == &wait && run.until.empty()) {
        error = "wait needs --for=gone or --for=online";
    } else if (error.empty() && run.count > 0 && run.watch < 0) {
        error = "--count goes with --watch only";
    }
    return error.empty() ? -1 : fail(Failure(Kind::Usage, error), run, "");
}

// A watch: one sample every `run.watch` seconds until the count is reached or a signal ends
// it (exit status 0); with --json one object a line, each with its time stamp.
int watch(Run& run, long limit, const std::string& socket, bool& abandoned) {
    run.json = run.json == kNoJson ? kNoJson : -1;
    int status = kDone;
    for (long n = 0; (run.count == 0 || n < run.count) && !stopRequested(); ++n) {
        pollfd p = {wakeFd(), POLLIN, 0};
        if (n > 0 && poll(&p, 1, static_cast<int>(run.watch * 1000)) != 0) {
            continue;  // a signal: the loop ends
        }
        Run sample = run;
        char stamp[40];
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        tm utc = {};
        strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", gmtime_r(&now.tv_sec, &utc));
        snprintf(stamp + strlen(stamp), sizeof stamp - strlen(stamp), ".%03ldZ",
                 now.tv_nsec / 1000000);
        sample.time = stamp;
        status = runCommand(sample, limit, socket, abandoned);
    }
    return stopRequested() ? kDone : status;
}

}  // namespace

int main(int argc, char** argv) {
    kvtools::reserveStandardDescriptors();
    // Large blocks mapped on their own, whatever the sizes before, so that a reply at the
    // frame limit gives its memory back as soon as its text is cut (keptText): status against
    // replies at the 16 MiB limit peaks at 52 MiB with it, 69 MiB without.
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    Run run;
    const int parsed = parse(argc, argv, run);
    if (parsed >= 0) {
        return parsed;
    }
    handleSignals(run.watch >= 0);
    if (!run.socket.empty() && run.socket[0] != '/') {
        char* cwd = getcwd(nullptr, 0);
        if (cwd == nullptr) {
            return fail(
                Failure(Kind::Failed,
                        std::string("cannot make the socket path absolute: ") + strerror(errno)),
                run, run.socket);
        }
        run.socket = std::string(cwd) + "/" + run.socket;
        free(cwd);
    }
    std::string socket;  // stays empty for a command that does not talk to the daemon
    long limit = run.timeout;
    if (run.command->daemon) {
        Lrpc2Client configured;
        if (!run.socket.empty()) {
            configured.setSocketPath(run.socket);
        }
        socket = configured.socketPath();
        limit = limit >= 0 ? limit : configured.defaultTimeout();
    }
    bool abandoned = false;
    const int status = run.watch >= 0 ? watch(run, limit, socket, abandoned)
                                      : runCommand(run, limit, socket, abandoned);
    if (abandoned) {
        fflush(nullptr);
        _exit(status);  // an exchange still runs: no exit handlers under its feet
    }
    return status;
}
