// kvctl metrics: the daemon's health in the Prometheus text exposition format 0.0.4, on
// standard output or as a file for node_exporter's textfile collector.
#include "kvctl.h"

namespace kvctl {

namespace {

// A label value: backslash, double quote and line feed escaped as the format requires; other
// controls and invalid UTF-8 then become '?' as everywhere in kvctl.
std::string labelValue(const std::string& text) {
    std::string out;
    for (const char c : text) {
        out += c == '\\' ? "\\\\" : c == '"' ? "\\\"" : c == '\n' ? "\\n" : std::string(1, c);
    }
    return "\"" + safeText(out) + "\"";
}

void family(std::string& out, const char* name, const char* help, const std::string& sample) {
    out.append("# HELP ").append(name).append(" ").append(help).append("\n# TYPE ");
    out.append(name).append(" gauge\n").append(name).append(sample).append("\n");
}

}  // namespace

std::string metricsText(const Health* h) {
    std::string out;
    family(out, "kavelo_up", "1 when the daemon answered every query, else 0.",
           h != nullptr ? " 1" : " 0");
    if (h == nullptr) {
        return out;
    }
    family(out, "kavelo_online", "The daemon's online flag: 1 online, 0 not.",
           h->online ? " 1" : " 0");
    family(out, "kavelo_ping_round_trip_seconds", "Round trip of one ping to the daemon.",
           " " + h->roundTripText);
    if (isNumber(h->dbSize)) {
        family(out, "kavelo_database_size_bytes", "Size of the daemon's database.",
               " " + h->dbSize);
    }
    if (isNumber(h->despoolRate)) {
        family(out, "kavelo_despool_rate", "The daemon's despool rate, as it reports it.",
               " " + h->despoolRate);
    }
    family(out, "kavelo_collector_info",
           "The collector's status and detailed status as labels; always 1.",
           "{status=" + labelValue(h->collector) + ",code=\"" + std::to_string(h->detail.code) +
               "\",state=" + labelValue(h->detail.state) + ",name=" + labelValue(h->detail.name) +
               ",flag=\"" + (h->detail.flag ? "true" : "false") + "\",source=" +
               labelValue(h->detail.source) + ",note=" + labelValue(h->detail.note) + "} 1");
    return out;
}

}  // namespace kvctl
