// Delivery of log records to the system log.
#ifndef ZFW_LOGDELIVERY_H
#define ZFW_LOGDELIVERY_H

#include <boost/shared_ptr.hpp>

#include <cstdarg>
#include <cstdint>
#include <string>

namespace zfw {

class Logger;
class Properties;

// Facility code of "auth", the default everywhere.
constexpr int32_t kFacilityAuth = 32;

// Writes record (a format for args) with the priority of level or'ed with facility. The
// first record decides whether to open the system log ("logger.openlog.<program>").
void deliver(int32_t facility, int32_t level, const char* record, va_list args);

// Called by the process-wide store whenever it has been (re)loaded, before it logs: notes
// its "logger.openlog.<program>" for records that are logged while a framework lock is held.
void noteOpenlogChoice(const Properties& store);

// Closes the system log (the end of zfw::Logger::shutdown).
void closeSystemLog();

// The process name used as the syslog identity and in property keys: the C run time's
// short program name, from the process status file when that is missing, else "unknown".
std::string processName();

// syslog priority of a level: TRACE and DEBUG 7, INFO 6, WARN 4, ERROR 3, others 0.
int32_t levelPriority(int32_t level);

// The facility code of a name in any case ("auth", ..., "local7"); -1 when unknown.
int32_t parseFacility(const std::string& name);

// Applies "logger.facility.<processKey>" to the root and "logger.facility.<processKey>.<name>"
// to the logger <name>; bad values are reported on reporter at WARN.
void applyFacilities(Properties& props, const std::string& processKey,
                     const boost::shared_ptr<Logger>& reporter);

}  // namespace zfw

#endif
