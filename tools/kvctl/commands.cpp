// kvctl's commands, one function each; cli.h's table names them.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>

#include "kvctl.h"
#include "stopsequence.h"
#include "zfw/exception.h"
#include "zfw/logger.h"

namespace kvctl {

namespace {

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

double millis(double seconds) {
    return std::round(seconds * 1000) / 1000;
}

}  // namespace

Result status(Session& session, const Run& /*run*/) {
    connect(session);
    const Health h = gather(session.client, false, true);
    const CollectorDetail& d = h.detail;
    return {{{"online", h.online},
             {"collector_status", h.collector},
             {"collector_detail", {d.code, d.state, d.name, d.flag, d.source, d.note}},
             {"database_size", number(h.dbSize)},
             {"database_size_text", h.dbSize},
             {"despool_rate", number(h.despoolRate)},
             {"despool_rate_text", h.despoolRate}},
            "online:            " + std::string(yesNo(h.online)) + "\n" +
                "collector status:  " + safeText(h.collector) + "\n" +
                "collector detail:  " + std::to_string(d.code) + " | " + safeText(d.state) + " | " +
                safeText(d.name) + " | " + yesNo(d.flag) + " | " + safeText(d.source) + " | " +
                safeText(d.note) + "\n" + "database size:     " + safeText(h.dbSize) + "\n" +
                "despool rate:      " + safeText(h.despoolRate) + "\n"};
}

Result ping(Session& session, const Run& /*run*/) {
    connect(session);
    const double ms = timedPing(session.client) * 1000;
    char text[64];
    snprintf(text, sizeof text, "daemon answers, round trip %.3f ms\n", ms);
    return {{{"answers", true}, {"round_trip_ms", ms}}, text};
}

Result reload(Session& session, const Run& /*run*/) {
    connect(session);
    std::string failure;
    const int32_t answer = session.client.reloadProperties(&failure);
    if (!failure.empty()) {
        throw Failure(Kind::Failed, failure);
    }
    if (answer != 0) {
        throw Failure(Kind::Refused, "the daemon answered " + std::to_string(answer));
    }
    return {{{"reload_result", answer}}, "reload answered 0 (done)\n"};
}

Result stop(Session& session, const Run& run) {
    connect(session);
    Serving s;
    if (run.wait >= 0) {
        timedPing(session.client);
        s = serving(session);
    }
    try {
        session.client.stopDaemon();
        session.client.disconnect();
    } catch (const ZFWException& e) {
        throw Failure(Kind::Refused, e.what());
    }
    Result result = {{{"stop", "stopped"}}, "Zantor Kavelo daemon stopped successfully.\n"};
    if (s.pidfd < 0) {
        session.extend(1000);  // the fixed pause before the confirming ping is not the daemon's
        if (kvtools::stillAnswers(session.client)) {
            throw Failure(Kind::Failed, "the daemon still answers after the stop request");
        }
    } else {
        session.unlimit();  // --wait bounds what follows
        const double waited = waitGone(s.pidfd, s.pid, run.wait);
        close(s.pidfd);
        result.json["pid"] = s.pid;
        result.json["waited_seconds"] = millis(waited);
        char text[128];
        snprintf(text, sizeof text,
                 "Zantor Kavelo daemon stopped successfully (pid %d gone after %.1f s).\n", s.pid,
                 waited);
        result.text = text;
    }
    const boost::shared_ptr<zfw::Logger> logger = zfw::Logger::get("zkv.cli.kvctl");
    if (logger->isEnabled(zfw::Logger::INFO)) {
        logger->log(zfw::Logger::INFO, "Zantor Kavelo daemon stopped successfully.");
    }
    return result;
}

Result wait(Session& session, const Run& run) {
    const bool online = run.until == "online";
    const double waited = waitState(session, online);
    char text[96];
    snprintf(text, sizeof text, "daemon %s after %.1f s\n", online ? "online" : "gone", waited);
    return {{{"wait", run.until}, {"waited_seconds", millis(waited)}}, text};
}

Result metrics(Session& session, const Run& /*run*/) {
    connect(session);
    const Health health = gather(session.client, true, true);
    return {nullptr, metricsText(&health)};
}

Result check(Session& session, const Run& run) {
    connect(session);
    const Health health = gather(session.client, true, false);
    Result result;
    result.status = checkState(health, run.warning, run.critical, result.text);
    return result;
}

}  // namespace kvctl
