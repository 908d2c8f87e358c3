// Configuration of the loggers from the properties store.
#include <string>

#include "logregistry.h"
#include "zfw/logdelivery.h"
#include "zfw/logger.h"
#include "zfw/properties.h"

namespace zfw {

void Logger::configure(Properties& props) {
    MutexLock lock(loggerRegistryMutex());
    resetLoggersLocked();
    const boost::shared_ptr<Logger> root = get("");
    // Complaints go here; set first so that they pass whatever "log" says.
    const boost::shared_ptr<Logger> reporter = get("com.zantor.logger");
    reporter->setLevel(WARN);
    reporter->setFacility(kFacilityAuth);

    const std::string rootValue = props.get("log");
    int32_t rootLevel = parseLevel(rootValue);
    if (rootLevel == UNSET) {
        reporter->log(WARN, "Illegal value for property 'log': '%s'. Using 'INFO'.",
                      rootValue.c_str());
        rootLevel = INFO;
    }
    root->setLevel(rootLevel);

    const std::string prefix = "log.";
    Properties::const_iterator first;
    Properties::const_iterator last;
    if (props.findPrefix(prefix, first, last)) {
        for (auto it = first; it != last; ++it) {
            const std::string name = it->first.substr(prefix.size());
            if (name.empty()) {
                reporter->log(WARN, "Illegal log name: '%s'", it->first.c_str());
                continue;
            }
            const int32_t level = parseLevel(it->second);
            if (level == UNSET) {
                reporter->log(WARN, "Illegal log level. Property: '%s', value: '%s'",
                              it->first.c_str(), it->second.c_str());
                continue;
            }
            get(name)->setLevel(level);
        }
    }

    applyFacilities(props, "*", reporter);
    applyFacilities(props, processName(), reporter);
    if (root->facility() == UNSET) {
        root->setFacility(kFacilityAuth);
    }
}

void applyFacilities(Properties& props, const std::string& processKey,
                     const boost::shared_ptr<Logger>& reporter) {
    const std::string key = "logger.facility." + processKey;
    const std::string value = props.get(key);
    if (!value.empty()) {
        int32_t facility = parseFacility(value);
        if (facility == -1) {
            reporter->log(Logger::WARN, "Illegal value facility name: '%s' for '%s'. Using '%s'.",
                          value.c_str(), key.c_str(), "auth");
            facility = kFacilityAuth;
        }
        Logger::get("")->setFacility(facility);
    }

    const std::string prefix = key + ".";
    Properties::const_iterator first;
    Properties::const_iterator last;
    if (!props.findPrefix(prefix, first, last)) {
        return;
    }
    for (auto it = first; it != last; ++it) {
        const std::string name = it->first.substr(prefix.size());
        if (name.empty()) {
            reporter->log(Logger::WARN, "Illegal facility name: '%s'", it->first.c_str());
            continue;
        }
        const int32_t facility = parseFacility(it->second);
        if (facility == -1) {
            reporter->log(Logger::WARN, "Illegal log facility. Property: '%s', value: '%s'",
                          it->first.c_str(), it->second.c_str());
            continue;
        }
        Logger::get(name)->setFacility(facility);
    }
}

}  // namespace zfw
