// Delivery of log records to the system log.
#include "zfw/logdelivery.h"

#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "logqueue.h"
#include "zfw/logger.h"
#include "zfw/mutex.h"
#include "zfw/osport.h"
#include "zfw/properties.h"
#include "zfw/strutil.h"

namespace zfw {
namespace {

// The delivery lock: one record at a time. Lock order: after the logger registry lock
// (logger.cpp), before a log queue's lock. Nothing done while it is held takes the registry
// lock or a properties lock: the openlog decision runs before it is taken, and the overflow
// warning of the log queue must use the logger "log" looked up before taking it (when the
// queue is started), not Logger::get.
Mutex* gDeliveryMutex = nullptr;

// Set by the first record, which decides whether to open the system log.
std::atomic<bool> gOpened{false};
// "logger.openlog.<process>" of the process-wide store once it is loaded: -1 until then, else
// 0 or 1. Records logged under a framework lock read it here instead of from the store.
std::atomic<int> gOpenlogChoice{-1};
// The identity handed to openlog must outlive it.
char* gIdentity = nullptr;

struct Facility {
    const char* name;
    int32_t code;
};
const Facility kFacilities[] = {
    {"auth", LOG_AUTH},     {"authpriv", LOG_AUTHPRIV}, {"cron", LOG_CRON},
    {"daemon", LOG_DAEMON}, {"ftp", LOG_FTP},           {"kern", LOG_KERN},
    {"lpr", LOG_LPR},       {"mail", LOG_MAIL},         {"news", LOG_NEWS},
    {"syslog", LOG_SYSLOG}, {"user", LOG_USER},         {"uucp", LOG_UUCP},
    {"local0", LOG_LOCAL0}, {"local1", LOG_LOCAL1},     {"local2", LOG_LOCAL2},
    {"local3", LOG_LOCAL3}, {"local4", LOG_LOCAL4},     {"local5", LOG_LOCAL5},
    {"local6", LOG_LOCAL6}, {"local7", LOG_LOCAL7},
};
static_assert(LOG_AUTH == kFacilityAuth, "facility codes are the shifted syslog codes");

std::string openlogKey() {
    return "logger.openlog." + processName();
}

// The first record decides, once per process, whether to call openlog. Loading the
// process-wide store takes the properties locks, the host settings lock and (to configure
// the loggers) the registry lock, so it is done without the delivery lock and only by a
// thread that holds no framework mutex. A record logged under a lock uses the choice that
// the store noted when it was loaded; before any load it goes out with syslog's defaults
// and leaves the decision to a later record.
void openOnce() {
    if (gOpened.load(std::memory_order_acquire)) {
        return;
    }
    int choice = gOpenlogChoice.load(std::memory_order_acquire);
    if (choice < 0) {
        if (Mutex::heldByCallingThread() != 0) {
            return;
        }
        choice = Properties::getProperties(false)->getBool(openlogKey(), true) ? 1 : 0;
    }
    if (gOpened.exchange(true)) {
        return;
    }
    if (choice != 0) {
        const std::string name = processName();
        gIdentity = strdup(name.c_str());
        openlog(gIdentity, LOG_PID, LOG_AUTH);
    }
}

}  // namespace

Mutex& logDeliveryMutex() {
    return lazyMutex(gDeliveryMutex);
}

std::string processName() {
    if (program_invocation_short_name == nullptr || program_invocation_short_name[0] == '\0') {
        ensureProgramName();
    }
    return program_invocation_short_name != nullptr ? program_invocation_short_name : "";
}

int32_t levelPriority(int32_t level) {
    switch (level) {
        case Logger::TRACE:
        case Logger::DEBUG:
            return LOG_DEBUG;
        case Logger::INFO:
            return LOG_INFO;
        case Logger::WARN:
            return LOG_WARNING;
        case Logger::ERROR:
            return LOG_ERR;
        default:
            return LOG_EMERG;
    }
}

void deliver(int32_t facility, int32_t level, const char* record, va_list args) {
    openOnce();
    MutexLock lock(logDeliveryMutex());
    const int32_t priority = levelPriority(level) | facility;
    if (!queueRecord(priority, record, args)) {
        vsyslog(priority, record, args);
    }
}

void noteOpenlogChoice(const Properties& store) {
    gOpenlogChoice.store(store.getBool(openlogKey(), true) ? 1 : 0, std::memory_order_release);
}

void closeSystemLog() {
    MutexLock lock(lazyMutex(gDeliveryMutex));
    closelog();
    free(gIdentity);
    gIdentity = nullptr;
}

int32_t parseFacility(const std::string& name) {
    const std::string lower = toLower(name);
    for (const Facility& f : kFacilities) {
        if (lower == f.name) {
            return f.code;
        }
    }
    return -1;
}

}  // namespace zfw
