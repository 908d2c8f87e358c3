// kvctl's commands and options: the one list that the parser, the usage text and the bash,
// zsh and fish completions are made from, so that they cannot disagree.
#ifndef KVCTL_CLI_H
#define KVCTL_CLI_H

namespace kvctl {

struct Command {
    const char* name;
    const char* help;
};

enum class Arg { None, Required, Optional };

// A short name may stand for a different long option with each command (-w); the
// completions offer it with the first.
struct Option {
    char shortName;
    const char* longName;
    Arg arg;
    const char* argName;  // in the usage text; null without an argument
    // What completes the argument: "@file" for a path, else blank-separated choices.
    const char* values;
    const char* help;  // one line
};

inline constexpr Command kCommands[] = {
    {"status", "online flag, collector status and details, database size, despool rate"},
    {"ping", "whether the daemon answers, and the round-trip time"},
    {"reload", "have the daemon reload its properties; prints its answer"},
    {"stop", "stop the daemon and confirm that it is gone (as kvstop does)"},
    {"metrics", "the daemon's health for Prometheus (text exposition format)"},
    {"check", "a monitoring plugin: one status line, exit status 0 to 3"},
};

inline constexpr Option kOptions[] = {
    {'s', "socket", Arg::Required, "PATH", "@file",
     "the daemon's socket (default: from /etc/zantorkv/zantorkv.conf)"},
    {'t', "timeout", Arg::Required, "SECONDS", "",
     "time allowed for the whole command (0: no limit; default 30); check: SECONDS[:STATE]"},
    {'j', "json", Arg::Optional, "FORMAT", "short pretty",
     "one JSON object on standard output: short (one line) or pretty"},
    {'w', "wait", Arg::Required, "SECONDS", "",
     "stop: wait at most SECONDS until the daemon's process is gone"},
    {'w', "warning", Arg::Required, "RANGE", "",
     "check: warning range of the round trip in seconds (10, 10:, ~:10, 10:20, @10:20)"},
    {'c', "critical", Arg::Required, "RANGE", "", "check: critical range of the round trip"},
    {'f', "textfile", Arg::Required, "PATH", "@file",
     "metrics: replace the file PATH instead of writing standard output"},
    {'h', "help", Arg::None, nullptr, "", "print this text and exit"},
    {'V', "version", Arg::None, nullptr, "", "print the version and exit"},
};

}  // namespace kvctl

#endif
