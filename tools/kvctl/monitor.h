// kvctl's two forms for monitoring systems: `metrics` (the Prometheus text exposition format,
// also as a file for node_exporter's textfile collector) and `check` (a monitoring plugin:
// one status line with performance data, and its exit status).
#ifndef KVCTL_MONITOR_H
#define KVCTL_MONITOR_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "zkvfw/collector.h"
#include "zkvfw/lrpc2client.h"

namespace kvctl {

// What metrics and check report of a daemon that answered.
struct Health {
    double roundTrip = 0;  // seconds, rounded to the microsecond as printed
    std::string roundTripText;
    bool online = false;
    std::string collector;
    CollectorDetail detail;
    std::string dbSize, despoolRate;
};

// The one gather of the daemon's health for status, metrics and check: with `timed`, a timed
// ping first; the collector status; with `all`, every other query. Texts are kept as
// keptText keeps them. Failures throw as the session does.
Health gather(Lrpc2Client& client, bool timed, bool all);

// The exposition: every family for a daemon that answered, only `kavelo_up 0` for null.
std::string metricsText(const Health* health);

// Monitoring-plugin states, which are also the exit statuses.
enum State { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

// A threshold range: alert when the value is outside [start, end], or inside with '@'.
struct Range {
    std::string text;  // as given, for the performance data
    bool set = false;
    bool inside = false;
    double start = 0;
    double end = 0;
};
bool parseRange(const std::string& text, Range& range);
bool alerts(const Range& range, double value);
// "ok", "warning", "critical", "unknown" (any case) or 0 to 3; -1 for anything else.
int parseState(const std::string& text);

// check's line: "KAVELO <STATE> - <text>\n", the text made safe and without '|'.
std::string checkLine(State state, const std::string& text, const std::string& perfdata = "");
// check's outcome for a daemon that answered, with the ranges as given on the command line.
State checkState(const Health& health, const Range& warning, const Range& critical,
                 std::string& line);

}  // namespace kvctl

#endif
