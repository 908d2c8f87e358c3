// Named loggers writing to the system log.
//
// Loggers form a tree by their dotted names ("a.b" is the parent of "a.b.c"; the root has
// the empty name). A logger without its own level or facility inherits its parent's. The
// effective level is cached in the logger on first use, so a disabled call costs one
// comparison; zfw::Logger::configure (run after every properties load) resets the cache.
#ifndef ZFW_LOGGER_H
#define ZFW_LOGGER_H

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zfw {

class Properties;

class Logger {
  public:
    static constexpr int32_t TRACE = 0;
    static constexpr int32_t DEBUG = 1;
    static constexpr int32_t INFO = 2;
    static constexpr int32_t WARN = 3;
    static constexpr int32_t ERROR = 4;
    static constexpr int32_t FATAL = 5;
    static constexpr int32_t DISABLED = 6;
    // A level or facility field that is not set and is inherited.
    static constexpr int32_t UNSET = -1;

    // The logger of that name, created with its missing ancestors; "" is the root.
    static boost::shared_ptr<Logger> get(const std::string& name);

    bool isEnabled(int32_t level) { return level >= effectiveLevel(); }

    // Writes one record "<LEVEL> <<tag>> <name> <message>" (at most 511 characters) to
    // log delivery, if the level is enabled.
    void log(int32_t level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    // As log, followed by ": " and the system's text for errnum.
    void logErrno(int32_t level, int errnum, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    // The header as a record of its own, then 16 bytes a line as hex and characters.
    void logDump(int32_t level, const char* header, const void* data, size_t length);

    // Rebuilds every level and facility from the properties ("log", "log.<name>",
    // "logger.facility.*[.<name>]", "logger.facility.<program>[.<name>]"). Bad values are
    // reported at WARN on "com.zantor.logger" and skipped. Called by the store's parse,
    // which holds the store's lock (that lock comes before the registry lock).
    static void configure(Properties& props);

    // The calling thread's tag shown in its records ("<tag>"); null for none.
    static void setThreadTag(const char* tag);
    static const char* threadTag();

    // "TRACE" .. "DISABLED" for 0 .. 6, "" otherwise.
    static const char* levelName(int32_t level);
    // The level of a name in any case, INFO for "", -1 for an unknown name.
    static int32_t parseLevel(const std::string& text);

    // Starts the log queue and its background thread, so that records are written to the
    // system log off the logging thread; stopQueue writes what is left and goes back to
    // direct delivery. Problems are reported on reporter.
    static void startQueue(const boost::shared_ptr<Logger>& reporter);
    static void stopQueue(const boost::shared_ptr<Logger>& reporter);
    // Ends logging for the process: stops the log queue (writing what it holds), destroys
    // every logger and closes the system log.
    static void shutdown();

    Logger(const std::string& name, const boost::shared_ptr<Logger>& parent, int32_t level,
           int32_t facility);
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    const std::string& name() const { return m_name; }
    const boost::shared_ptr<Logger>& parent() const { return m_parent; }
    // Own level (-1 when inherited and not yet cached) and own facility (-1: inherited).
    int32_t level() const { return m_level.load(std::memory_order_relaxed); }
    int32_t facility() const { return m_facility.load(std::memory_order_relaxed); }
    void setLevel(int32_t level) { m_level.store(level, std::memory_order_relaxed); }
    void setFacility(int32_t facility) { m_facility.store(facility, std::memory_order_relaxed); }

    int32_t effectiveLevel() {
        const int32_t level = m_level.load(std::memory_order_relaxed);
        return level != UNSET ? level : resolveLevel();
    }
    int32_t effectiveFacility() const;

  private:
    int32_t resolveLevel();
    void write(int32_t level, int errnum, const char* format, va_list args);

    std::string m_name;
    boost::shared_ptr<Logger> m_parent;
    // Also the cache of the effective level; relaxed atomics because any racing writer
    // stores the same value.
    std::atomic<int32_t> m_level;
    std::atomic<int32_t> m_facility;
};

}  // namespace zfw

#endif
