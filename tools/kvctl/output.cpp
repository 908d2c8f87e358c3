// kvctl's output: safe text, JSON text, writing (standard output or the textfile) and the
// one renderer of failures.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kvctl.h"
#include "zfw/file_util.h"
#include "zfw/logger.h"

namespace kvctl {

namespace {

struct KindRow {
    Kind kind;
    const char* name;
    int status;
};
const KindRow kKinds[] = {
    {Kind::NotReachable, "not reachable", kNotReachable},
    {Kind::Permission, "permission", kFailed},
    {Kind::Refused, "refused", kFailed},
    {Kind::Failed, "failed", kFailed},
    {Kind::Usage, "usage", kFailed},
};

const KindRow& row(Kind kind) {
    return kKinds[static_cast<int>(kind)];
}

// The textfile's temporary name while it exists, and the watch's state, for the handler.
char gTemp[4096];
std::atomic<bool> gTempSet(false);
bool gWatching = false;  // set before any thread starts
std::atomic<bool> gStop(false);
int gWake[2] = {-1, -1};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler sets it");

// Runs on any thread, at any point: it may only make async-signal-safe calls (unlink,
// write, signal, raise) and touch the lock-free flags above.
extern "C" void onSignal(int signal) {
    const int err = errno;
    if (gTempSet) {
        unlink(gTemp);
    }
    if (gWatching) {
        gStop = true;
        (void)!write(gWake[1], "", 1);
        errno = err;
        return;
    }
    ::signal(signal, SIG_DFL);
    raise(signal);
}

bool writeOut(const std::string& text) {
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
}

// Replaces the textfile with a hidden temporary file beside it that the collector never
// reads (not "*.prom"); a temporary file left by a kvctl killed with SIGKILL is replaced by
// the next run's.
bool writeTextfile(const std::string& path, const std::string& text) {
    const size_t slash = path.rfind('/');
    const std::string base = path.substr(slash == std::string::npos ? 0 : slash + 1);
    const std::string temp = path.substr(0, path.size() - base.size()) + "." + base + ".new";
    if (base.empty() || base == "." || base == "..") {
        errno = EISDIR;
        return false;
    }
    if (temp.size() >= sizeof gTemp) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(gTemp, temp.c_str(), temp.size() + 1);
    gTempSet = true;
    const bool ok = zfw::replaceFile(path, temp, text, 0644) == zfw::ReplaceResult::Replaced;
    gTempSet = false;
    return ok;
}

std::string failureLine(const Failure& f, const Run& run, const std::string& socket) {
    if (f.kind == Kind::Usage) {
        return "kvctl: " + safeText(f.what()) + "\nTry 'kvctl --help' for more information.\n";
    }
    return "kvctl: " + safeText(run.name) + ": " +
           safeText(socket.empty() ? "(unknown socket)" : socket) + ": " + safeText(f.what()) +
           "\n";
}

bool has(const Run& run, unsigned output) {
    return run.command != nullptr && (run.command->outputs & output) != 0;
}

}  // namespace

const char* kindName(Kind kind) {
    return row(kind).name;
}

void handleSignals(bool watching) {
    if (watching && pipe2(gWake, O_CLOEXEC | O_NONBLOCK) != 0) {
        watching = false;  // without the pipe a signal just ends the watch as any run
    }
    gWatching = watching;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    for (const int s : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(s, &action, nullptr);
    }
    signal(SIGPIPE, SIG_IGN);  // a closed pipe is a write failure, reported as such
}

bool stopRequested() {
    return gStop;
}

int wakeFd() {
    return gWake[0];
}

int finish(const std::string& text, const Run& run, const std::string& socket, int status) {
    const bool written = !run.textfile.empty() ? writeTextfile(run.textfile, text)
                         : run.watch >= 0      ? writeOut(text)
                                               : writeOut(text) && fclose(stdout) == 0;
    if (written) {
        return status;
    }
    const Failure f(Kind::Failed, "cannot write " +
                                      (run.textfile.empty() ? "standard output" : run.textfile) +
                                      ": " + strerror(errno));
    fputs((run.command == nullptr ? "kvctl: " + safeText(f.what()) + "\n"
                                  : failureLine(f, run, socket))
              .c_str(),
          stderr);
    return has(run, kPlugin) ? kUnknown : row(f.kind).status;
}

int fail(const Failure& f, const Run& run, const std::string& socket) {
    const bool usage = f.kind == Kind::Usage;
    if (run.command != nullptr && run.command->action == &stop && !usage) {
        const boost::shared_ptr<zfw::Logger> logger = zfw::Logger::get("zkv.cli.kvctl");
        if (logger->isEnabled(zfw::Logger::ERROR)) {
            logger->log(zfw::Logger::ERROR, "Unable to stop Kavelo daemon: %s", f.what());
        }
    }
    if (has(run, kPlugin)) {
        // What keeps check from judging the daemon is UNKNOWN, the rest CRITICAL.
        const State state = f.timedOut                            ? State(run.timeoutState)
                            : usage || f.kind == Kind::Permission ? kUnknown
                                                                  : kCritical;
        return finish(checkLine(state, (usage ? "" : socket + ": ") + f.what()), run, socket,
                      state);
    }
    fputs(failureLine(f, run, socket).c_str(), stderr);
    if (has(run, kMetrics) && !usage) {
        return finish(metricsText(nullptr), run, socket, row(f.kind).status);  // kavelo_up 0
    }
    if (run.json != kNoJson) {
        nlohmann::json object = {
            {"error",
             {{"kind", kindName(f.kind)},
              {"message", f.what()},
              {"socket", socket.empty() ? nlohmann::json() : nlohmann::json(socket)}}}};
        if (f.pid > 0) {
            object["error"]["pid"] = f.pid;
        }
        if (!run.time.empty()) {
            object["time"] = run.time;
        }
        return finish(jsonText(object, run.json), run, socket, row(f.kind).status);
    }
    return row(f.kind).status;
}

// Daemon bytes shown to people: controls (C0, DEL, C1) and invalid UTF-8 could drive the
// terminal, so each is replaced by '?'; valid UTF-8 text passes unchanged.
std::string safeText(const std::string& text) {
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

// ASCII only, so that every control character (C0, DEL, C1) is escaped.
std::string jsonText(const nlohmann::json& value, int indent) {
    return value.dump(indent, ' ', true, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace kvctl
