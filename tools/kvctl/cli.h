// kvctl's commands and options: the one table that the parser, the dispatch, the usage
// texts, the bash, zsh and fish completions and the manual page's check are made from.
#ifndef KVCTL_CLI_H
#define KVCTL_CLI_H

#include <cstddef>

namespace kvctl {

enum class Arg { None, Required, Optional };

// An option's bit in a command's row; every command takes the kOptGlobal ones.
enum Opt : unsigned {
    kOptSocket = 1U << 0,
    kOptTimeout = 1U << 1,
    kOptHelp = 1U << 2,
    kOptVersion = 1U << 3,
    kOptJson = 1U << 4,
    kOptWait = 1U << 5,
    kOptWarning = 1U << 6,
    kOptCritical = 1U << 7,
    kOptTextfile = 1U << 8,
    kOptFor = 1U << 9,
    kOptWatch = 1U << 10,
    kOptCount = 1U << 11,
    kOptGlobal = kOptSocket | kOptTimeout | kOptHelp | kOptVersion,
};

// A short name may stand for a different long option with each command (-w); the
// completions offer it with the first.
struct Option {
    char shortName;  // '\0': none
    const char* longName;
    Opt bit;
    Arg arg;
    const char* argName;  // in the usage text; null without an argument
    // What completes the argument: "@file" for a path, else blank-separated choices.
    const char* values;
    const char* help;  // one line
};

inline constexpr Option kOptions[] = {
    {'s', "socket", kOptSocket, Arg::Required, "PATH", "@file",
     "the daemon's socket (default: from /etc/zantorkv/zantorkv.conf)"},
    {'t', "timeout", kOptTimeout, Arg::Required, "SECONDS", "",
     "time allowed for the command's exchanges (0: no limit; default 30); check: "
     "SECONDS[:STATE]"},
    {'j', "json", kOptJson, Arg::Optional, "FORMAT", "short pretty",
     "JSON on standard output: short (one line) or pretty"},
    {'w', "wait", kOptWait, Arg::Required, "SECONDS", "",
     "stop: wait at most SECONDS until the daemon's process is gone (0: no limit)"},
    {'w', "warning", kOptWarning, Arg::Required, "RANGE", "",
     "check: warning range of the round trip in seconds (10, 10:, ~:10, 10:20, @10:20)"},
    {'c', "critical", kOptCritical, Arg::Required, "RANGE", "",
     "check: critical range of the round trip"},
    {'f', "textfile", kOptTextfile, Arg::Required, "PATH", "@file",
     "metrics: replace the file PATH instead of writing standard output"},
    {'\0', "for", kOptFor, Arg::Required, "STATE", "gone online",
     "wait: the state to wait for, gone or online"},
    {'\0', "watch", kOptWatch, Arg::Required, "SECONDS", "",
     "status: again every SECONDS until interrupted, one line of JSON each with --json"},
    {'\0', "count", kOptCount, Arg::Required, "N", "", "status --watch: stop after N samples"},
    {'h', "help", kOptHelp, Arg::None, nullptr, "", "print the usage (of COMMAND) and exit"},
    {'V', "version", kOptVersion, Arg::None, nullptr, "", "print the version and exit"},
};

// What a command can print.
enum Output : unsigned { kText = 1, kJsonOut = 2, kMetrics = 4, kPlugin = 8 };

struct Run;
struct Result;
class Session;

struct Command {
    const char* name;
    Result (*action)(Session& session, const Run& run);
    unsigned options;  // Opt bits
    bool daemon;       // talks to the daemon
    unsigned outputs;  // Output bits
    const char* help;  // one line
};

Result status(Session& session, const Run& run);
Result ping(Session& session, const Run& run);
Result reload(Session& session, const Run& run);
Result stop(Session& session, const Run& run);
Result wait(Session& session, const Run& run);
Result metrics(Session& session, const Run& run);
Result check(Session& session, const Run& run);

inline constexpr Command kCommands[] = {
    {"status", status, kOptJson | kOptWatch | kOptCount, true, kText | kJsonOut,
     "online flag, collector status and details, database size, despool rate"},
    {"ping", ping, kOptJson, true, kText | kJsonOut,
     "whether the daemon answers, and the round-trip time"},
    {"reload", reload, kOptJson, true, kText | kJsonOut,
     "have the daemon reload its properties; prints its answer"},
    {"stop", stop, kOptJson | kOptWait, true, kText | kJsonOut,
     "stop the daemon and confirm that it is gone (as kvstop does)"},
    {"wait", wait, kOptJson | kOptFor, true, kText | kJsonOut,
     "wait until the daemon is gone or online (--for), at most --timeout"},
    {"metrics", metrics, kOptTextfile, true, kMetrics,
     "the daemon's health for Prometheus (text exposition format)"},
    {"check", check, kOptWarning | kOptCritical, true, kPlugin,
     "a monitoring plugin: one status line, exit status 0 to 3"},
};

}  // namespace kvctl

#endif
