// kvctl check: a monitoring plugin for Nagios, Icinga and their kin. Thresholds use the
// plugins' range grammar on the ping round trip in seconds; a collector that is not running
// is a warning at least.
#include <strings.h>

#include <cmath>
#include <cstdlib>
#include <regex>

#include "kvctl.h"

namespace kvctl {

namespace {

// A bound of a range: a decimal number; "~" (start only) for minus infinity; empty for 0 as a
// start and for infinity as an end.
bool parseBound(const std::string& text, bool isStart, double& value) {
    static const std::regex kDecimal("[-+]?([0-9]+\\.?[0-9]*|\\.[0-9]+)");
    if (text.empty()) {
        value = isStart ? 0 : INFINITY;
        return true;
    }
    if (isStart && text == "~") {
        value = -INFINITY;
        return true;
    }
    if (!std::regex_match(text, kDecimal)) {
        return false;
    }
    value = strtod(text.c_str(), nullptr);
    return true;
}

const char* const kStateNames[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

}  // namespace

bool parseRange(const std::string& text, Range& range) {
    range = Range();
    range.text = text;
    range.inside = !text.empty() && text[0] == '@';
    const std::string body = text.substr(range.inside ? 1 : 0);
    const size_t colon = body.find(':');
    // Without a colon the text is the end, and the start is 0.
    const std::string start = colon == std::string::npos ? "" : body.substr(0, colon);
    const std::string end = colon == std::string::npos ? body : body.substr(colon + 1);
    range.set = !body.empty() && parseBound(start, true, range.start) &&
                parseBound(end, false, range.end) && range.start <= range.end;
    return range.set;
}

bool alerts(const Range& range, double value) {
    const bool outside = value < range.start || value > range.end;
    return range.set && outside != range.inside;
}

int parseState(const std::string& text) {
    for (int s = kOk; s <= kUnknown; ++s) {
        if (strcasecmp(text.c_str(), kStateNames[s]) == 0 || text == std::to_string(s)) {
            return s;
        }
    }
    return -1;
}

std::string checkLine(State state, const std::string& text, const std::string& perfdata) {
    std::string safe = safeText(text);
    for (char& c : safe) {
        c = c == '|' ? '?' : c;  // a '|' would start the performance data
    }
    return "KAVELO " + std::string(kStateNames[state]) + " - " + safe +
           (perfdata.empty() ? "" : " | " + perfdata) + "\n";
}

State checkState(const Health& h, const Range& w, const Range& c, std::string& line) {
    State state = alerts(c, h.roundTrip) ? kCritical : alerts(w, h.roundTrip) ? kWarning : kOk;
    const bool running = h.collector == "running";
    if (!running && state == kOk) {
        state = kWarning;
    }
    // The guidelines' performance data: 'label'=value[UOM];[warn];[crit];[min];[max]. An
    // inverted range ('@') is left out: the perfdata readers of the plugin libraries and
    // graphers lack it, and would lose the fields after it.
    const auto field = [](const Range& range) { return range.inside ? std::string() : range.text; };
    line = checkLine(state,
                     "round trip " + h.roundTripText + " s, collector " +
                         (running ? "running" : "not running: " + h.collector),
                     "'rtt'=" + h.roundTripText + "s;" + field(w) + ";" + field(c) + ";0;");
    return state;
}

}  // namespace kvctl
