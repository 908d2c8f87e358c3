// kvctl metrics: the daemon's health in the Prometheus text exposition format 0.0.4, on
// standard output or as a file for node_exporter's textfile collector.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>

#include "monitor.h"
#include "zfw/exception.h"
#include "zfw/file_util.h"

namespace kvctl {

Health gather(Lrpc2Client& client, bool all) {
    Health h;
    const auto start = std::chrono::steady_clock::now();
    std::string failure;
    if (!client.ping(0, &failure)) {
        throw std::runtime_error(failure);
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // What is compared with the thresholds is what is printed.
    char text[32];
    snprintf(text, sizeof text, "%.6f", seconds);
    h.roundTripText = text;
    h.roundTrip = strtod(text, nullptr);
    h.collector = client.queryCollectorStatus();
    if (!all) {
        return h;
    }
    h.online = client.isDaemonOnline();
    CollectorDetail& d = h.detail;
    client.queryCollectorStatus2(d.code, d.state, d.name, d.flag, d.source, d.note);
    h.dbSize = client.queryDBSize();
    h.despoolRate = client.queryDespoolRate();
    return h;
}

namespace {

bool isNumber(const std::string& text) {
    static const std::regex kNumber("-?(0|[1-9][0-9]*)(\\.[0-9]+)?");
    return std::regex_match(text, kNumber);
}

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

namespace {

// The prepared textfile, in fixed storage: the time-out's signal handler commits it.
char gTemp[4096];
char gPath[4096];
int gFd = -1;
int gDir = -1;

}  // namespace

bool prepareTextfile(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "."
                            : slash == 0               ? "/"
                                                       : path.substr(0, slash);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    // A hidden name that does not end in ".prom": the collector never reads a partial file.
    std::string temp =
        (slash == std::string::npos ? "" : path.substr(0, slash + 1)) + "." + base + ".XXXXXX";
    if (base.empty() || temp.size() >= sizeof gTemp) {
        errno = base.empty() ? EISDIR : ENAMETOOLONG;
        return false;
    }
    gDir = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (gDir < 0) {
        return false;
    }
    try {
        gFd = zfw::makeTempFile(temp);
    } catch (const zfw::Base_Exception& e) {
        close(gDir);
        gDir = -1;
        errno = e.rc();
        return false;
    }
    memcpy(gTemp, temp.c_str(), temp.size() + 1);
    memcpy(gPath, path.c_str(), path.size() + 1);
    return true;
}

bool textfilePrepared() {
    return gFd >= 0;
}

bool commitTextfile(const char* text, size_t size) {
    const int fd = gFd;
    gFd = -1;  // one commit: a time-out during this one does not start another
    bool ok = true;
    for (size_t done = 0; ok && done < size;) {
        const ssize_t n = write(fd, text + done, size - done);
        if (n == 0) {
            errno = EIO;
        }
        ok = n > 0 || (n < 0 && errno == EINTR);
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    ok = ok && fchmod(fd, 0644) == 0 && fsync(fd) == 0;
    int err = errno;
    if (close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (ok && rename(gTemp, gPath) != 0) {
        ok = false;
        err = errno;
    }
    if (ok) {
        fsync(gDir);  // makes the rename durable; the data already is
    } else {
        unlink(gTemp);
    }
    close(gDir);
    errno = err;
    return ok;
}

}  // namespace kvctl
