// kvctl: status, ping, reload and stop of the local Kavelo audit daemon, for people and,
// with --json, for monitoring.
//
// Exit status 0: done; 1: the daemon is not reachable; 2: refused, failed, or a usage error.
// Every failure writes one line to standard error.
#include <getopt.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "lrpc2/table.h"
#include "stopsequence.h"
#include "zfw/logger.h"
#include "zkvfw/lrpc2client.h"

namespace {

const char kUsage[] =
    "Usage: kvctl [--socket PATH] [--timeout SECONDS] [--json] COMMAND\n"
    "Asks the local Kavelo audit daemon how it is, reloads it, or stops it.\n"
    "\n"
    "Commands:\n"
    "  status   online flag, collector status and details, database size, despool rate\n"
    "  ping     whether the daemon answers, and the round-trip time\n"
    "  reload   have the daemon reload its properties; prints its answer\n"
    "  stop     stop the daemon and confirm that it is gone (as kvstop does)\n"
    "\n"
    "Options:\n"
    "  --socket PATH      the daemon's socket (default: from /etc/zantorkv/zantorkv.conf)\n"
    "  --timeout SECONDS  time allowed for connecting and for each exchange (0: no limit;\n"
    "                     default: lrpc2.timeout of the configuration, else 30)\n"
    "  --json             one JSON object on standard output instead of text\n"
    "  --help             print this text and exit\n"
    "  --version          print the version and exit\n"
    "\n"
    "Exit status: 0 done, 1 daemon not reachable, 2 refused, failed or usage error.\n";

const int kDone = 0;
const int kNotReachable = 1;
const int kFailed = 2;
// The longest time-out accepted: a day.
const long kMaxTimeout = 86400;

struct Options {
    std::string socket;
    long timeout = -1;  // -1: the session's default
    bool json = false;
    std::string command;
};

int usageError(const std::string& what) {
    std::cerr << "kvctl: " << what << "\n" << kUsage;
    return kFailed;
}

// Parses the command line; -1 to go on, else the exit status.
int parseOptions(int argc, char** argv, Options& o) {
    enum { kSocket = 256, kTimeout, kJson, kHelp, kVersion };
    const option longOptions[] = {
        {"socket", required_argument, nullptr, kSocket},
        {"timeout", required_argument, nullptr, kTimeout},
        {"json", no_argument, nullptr, kJson},
        {"help", no_argument, nullptr, kHelp},
        {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0;
    int opt = 0;
    while ((opt = getopt_long(argc, argv, "+", longOptions, nullptr)) != -1) {
        switch (opt) {
            case kSocket:
                o.socket = optarg;
                if (o.socket.empty()) {
                    return usageError("--socket needs a path");
                }
                break;
            case kTimeout: {
                char* end = nullptr;
                errno = 0;
                o.timeout = std::strtol(optarg, &end, 10);
                if (!std::isdigit(static_cast<unsigned char>(optarg[0])) || *end != '\0' ||
                    errno != 0 || o.timeout > kMaxTimeout) {
                    return usageError(std::string("bad time-out: '") + optarg + "'");
                }
                break;
            }
            case kJson:
                o.json = true;
                break;
            case kHelp:
                std::cout << kUsage;
                return kDone;
            case kVersion:
                std::cout << "kvctl " KV_VERSION "\n";
                return kDone;
            default:
                return usageError(std::string("unknown option or missing argument: ") +
                                  argv[optind - 1]);
        }
    }
    if (optind != argc - 1) {
        return usageError(optind == argc ? "no command" : "one command only");
    }
    o.command = argv[optind];
    return -1;
}

// Daemon texts shown to people: control characters would drive the terminal.
std::string printable(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        if (std::iscntrl(static_cast<unsigned char>(c))) {
            c = '?';
        }
    }
    return out;
}

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

void printJson(const nlohmann::json& object) {
    std::cout << object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
}

// A request without fields, exchanged on the session; the reply's fields are left to read.
void exchange(Lrpc2Client& client, uint32_t id, Lrpc2Message& reply) {
    Lrpc2Message request(id, lrpc2_default_table());
    request.complete();
    client.send(request, reply);
}

int status(Lrpc2Client& client, bool json) {
    const bool online = client.isDaemonOnline();
    const std::string collector = client.queryCollectorStatus();
    int32_t code = 0;
    std::string state, name, source, note;
    bool flag = false;
    client.queryCollectorStatus2(code, state, name, flag, source, note);
    const std::string dbSize = client.queryDBSize();
    const std::string despoolRate = client.queryDespoolRate();
    if (json) {
        printJson({{"online", online},
                   {"collector_status", collector},
                   {"collector_detail", {code, state, name, flag, source, note}},
                   {"database_size", dbSize},
                   {"despool_rate", despoolRate}});
        return kDone;
    }
    std::cout << "online:            " << yesNo(online) << "\n"
              << "collector status:  " << printable(collector) << "\n"
              << "collector detail:  " << code << " | " << printable(state) << " | "
              << printable(name) << " | " << yesNo(flag) << " | " << printable(source) << " | "
              << printable(note) << "\n"
              << "database size:     " << printable(dbSize) << "\n"
              << "despool rate:      " << printable(despoolRate) << "\n";
    return kDone;
}

int ping(Lrpc2Client& client, bool json) {
    const auto start = std::chrono::steady_clock::now();
    Lrpc2Message reply;
    exchange(client, LRPC2_ID_KV_PING, reply);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (json) {
        printJson({{"answers", true}, {"round_trip_ms", ms}});
    } else {
        std::cout << "daemon answers, round trip " << std::fixed << std::setprecision(3) << ms
                  << " ms\n";
    }
    return kDone;
}

int reload(Lrpc2Client& client, bool json) {
    Lrpc2Message reply;
    exchange(client, LRPC2_ID_KV_RELOAD_PROPS, reply);
    const int32_t answer = reply.readInt32();
    if (json) {
        printJson({{"reload_result", answer}});
    } else {
        std::cout << "reload answered " << answer << (answer == 0 ? " (done)" : " (refused)")
                  << "\n";
    }
    if (answer != 0) {
        std::cerr << "kvctl: reload: the daemon answered " << answer << "\n";
        return kFailed;
    }
    return kDone;
}

int stop(Lrpc2Client& client, bool json) {
    // With --json, standard output holds the JSON object only.
    std::ostream discard(nullptr);
    const kvtools::StopOutcome outcome = kvtools::stopAndConfirm(
        client, zfw::Logger::get("zkv.cli.kvctl"), json ? discard : std::cout);
    if (outcome == kvtools::StopOutcome::StillAnswering) {
        std::cerr << "kvctl: stop: the daemon still answers after the stop request" << std::endl;
    }
    if (json) {
        static const char* const kNames[] = {"stopped", "not reachable", "refused",
                                             "still answering"};
        printJson({{"stop", kNames[static_cast<int>(outcome)]}});
    }
    return kvtools::exitStatus(outcome);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int parsed = parseOptions(argc, argv, options);
    if (parsed >= 0) {
        return parsed;
    }
    int (*run)(Lrpc2Client&, bool) = nullptr;
    if (options.command == "status") {
        run = status;
    } else if (options.command == "ping") {
        run = ping;
    } else if (options.command == "reload") {
        run = reload;
    } else if (options.command == "stop") {
        run = stop;
    } else {
        return usageError("unknown command: '" + options.command + "'");
    }

    Lrpc2Client client;
    if (!options.socket.empty()) {
        client.setSocketPath(options.socket);
    }
    if (options.timeout >= 0) {
        client.setDefaultTimeout(static_cast<int32_t>(options.timeout));
    }
    if (run == stop) {
        return run(client, options.json);
    }
    if (!client.connect(0)) {
        std::cerr << "kvctl: " << options.command
                  << ": Kavelo daemon does not appear to be running or reachable" << std::endl;
        return kNotReachable;
    }
    try {
        return run(client, options.json);
    } catch (const std::exception& e) {
        std::cerr << "kvctl: " << options.command << ": " << e.what() << std::endl;
    }
    return kFailed;
}
