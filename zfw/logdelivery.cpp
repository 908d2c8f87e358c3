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

// The first record decides, once per process, whether to call openlog. Reading the
// properties may load them, which takes the properties locks, the host settings lock and
// (to configure the loggers) the registry lock. So the decision is made without the
// delivery lock, by the first record logged while its thread holds no framework mutex:
// records logged under a lock before that go out with syslog's defaults (as do other
// threads' records while the decision is being made).
void openOnce() {
    if (gOpened.load(std::memory_order_acquire) || Mutex::heldByCallingThread() != 0 ||
        gOpened.exchange(true)) {
        return;
    }
    const std::string name = processName();
    if (Properties::getProperties(false)->getBool("logger.openlog." + name, true)) {
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
