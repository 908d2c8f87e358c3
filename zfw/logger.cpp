// Named loggers: the registry, levels and cached levels, thread tags and records.
#include "zfw/logger.h"

#include <pthread.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <vector>

#include <boost/make_shared.hpp>

#include "logqueue.h"
#include "logregistry.h"
#include "zfw/logdelivery.h"
#include "zfw/mutex.h"
#include "zfw/strutil.h"

namespace zfw {
namespace {

// The registry lock. Lock order: it comes before the delivery lock (logdelivery.cpp).
// zfw::Logger::configure logs its complaints while it holds this lock, so delivery never
// takes it while holding its own.
Mutex* gRegistryMutex = nullptr;

struct Registry {
    std::unordered_map<std::string, boost::shared_ptr<Logger>> table;
    boost::shared_ptr<Logger> root;
};
Registry* gRegistry = nullptr;

const char* const kLevelNames[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL", "DISABLED"};
constexpr int32_t kLevelCount = sizeof kLevelNames / sizeof kLevelNames[0];

// Longest record, without its terminating NUL.
constexpr size_t kRecordLength = 511;

// Caller holds the registry lock.
Registry& registryLocked() {
    if (gRegistry == nullptr) {
        gRegistry = new Registry();
        gRegistry->table.reserve(100);
        gRegistry->root = boost::make_shared<Logger>(std::string(), boost::shared_ptr<Logger>(),
                                                     Logger::INFO, kFacilityAuth);
    }
    return *gRegistry;
}

std::string parentName(const std::string& name) {
    const size_t dot = name.rfind('.');
    return dot == std::string::npos ? std::string() : name.substr(0, dot);
}

// Caller holds the registry lock. Missing ancestors are created first, walking up to the
// nearest existing one (iteratively, so that a name with many dots cannot exhaust the stack).
boost::shared_ptr<Logger> getLocked(Registry& registry, const std::string& name) {
    std::vector<std::string> missing;
    std::string current = name;
    boost::shared_ptr<Logger> logger = registry.root;
    while (!current.empty()) {
        auto found = registry.table.find(current);
        if (found != registry.table.end()) {
            logger = found->second;
            break;
        }
        std::string parent = parentName(current);
        missing.push_back(std::move(current));
        current = std::move(parent);
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        logger = boost::make_shared<Logger>(*it, logger, Logger::UNSET, Logger::UNSET);
        registry.table.emplace(*it, logger);
    }
    return logger;
}

// Thread tags: thread-specific data, or one process-wide text without the thread library.
pthread_once_t gTagKeyOnce = PTHREAD_ONCE_INIT;
pthread_key_t gTagKey;
char* gProcessTag = nullptr;

void createTagKey() {
    pthread_key_create(&gTagKey, free);
}

class RecordBuffer {
  public:
    void append(const char* text) {
        const size_t n = strnlen(text, kRecordLength - m_length);
        std::memcpy(m_text + m_length, text, n);
        m_length += n;
        m_text[m_length] = '\0';
    }
    const char* text() const { return m_text; }

  private:
    char m_text[kRecordLength + 1] = {};
    size_t m_length = 0;
};

}  // namespace

Mutex& loggerRegistryMutex() {
    return lazyMutex(gRegistryMutex);
}

void resetLoggersLocked() {
    Registry& registry = registryLocked();
    // Quiet while the levels are rebuilt; complaints go to a logger with a level of its own.
    registry.root->setLevel(Logger::FATAL);
    for (auto& entry : registry.table) {
        entry.second->setLevel(Logger::UNSET);
        entry.second->setFacility(Logger::UNSET);
    }
}

Logger::Logger(const std::string& name, const boost::shared_ptr<Logger>& parent, int32_t level,
               int32_t facility)
    : m_name(name), m_parent(parent), m_level(level), m_facility(facility) {}

boost::shared_ptr<Logger> Logger::get(const std::string& name) {
    MutexLock lock(loggerRegistryMutex());
    return getLocked(registryLocked(), name);
}

int32_t Logger::resolveLevel() {
    int32_t level = UNSET;
    for (const Logger* l = this; l != nullptr && level == UNSET; l = l->m_parent.get()) {
        level = l->level();
    }
    // Cached: any thread racing here computes and stores the same value. Kept until configure
    // resets it, even when an ancestor's level changes in between: the logging rules require it.
    setLevel(level);
    return level;
}

int32_t Logger::effectiveFacility() const {
    int32_t facility = UNSET;
    for (const Logger* l = this; l != nullptr && facility == UNSET; l = l->m_parent.get()) {
        facility = l->facility();
    }
    return facility;
}

void Logger::write(int32_t level, int errnum, const char* format, va_list args) {
    RecordBuffer record;
    // The level name padded with blanks or cut to five characters, then a blank (DISABLED
    // shows as DISAB: the record format requires it).
    char levelField[] = "      ";
    const char* name = levelName(level);
    std::memcpy(levelField, name, strnlen(name, 5));
    record.append(levelField);
    if (const char* tag = threadTag()) {
        record.append("<");
        record.append(tag);
        record.append("> ");
    }
    // Records of the logger "client" carry no name.
    if (m_name != "client") {
        record.append(m_name.c_str());
        record.append(" ");
    }
    // The record as a whole is the format that delivery expands, as the record format
    // requires: a '%' in the logger's name or the thread tag is read as a conversion.
    record.append(format);
    if (errnum != 0) {
        record.append(": ");
        record.append(strerror(errnum));
    }
    deliver(effectiveFacility(), level, record.text(), args);
}

void Logger::log(int32_t level, const char* format, ...) {
    if (level < effectiveLevel()) {
        return;
    }
    va_list args;
    va_start(args, format);
    write(level, 0, format, args);
    va_end(args);
}

void Logger::logErrno(int32_t level, int errnum, const char* format, ...) {
    if (level < effectiveLevel()) {
        return;
    }
    va_list args;
    va_start(args, format);
    write(level, errnum, format, args);
    va_end(args);
}

void Logger::logDump(int32_t level, const char* header, const void* data, size_t length) {
    if (!isEnabled(level)) {
        return;
    }
    // The header is a format of its own (without arguments): the record format requires it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    log(level, header);
#pragma GCC diagnostic pop
    static const char kHex[] = "0123456789abcdef";
    constexpr size_t kRun = 16;
    constexpr size_t kCharColumn = 50;
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    for (size_t offset = 0; offset < length; offset += kRun) {
        const size_t n = length - offset < kRun ? length - offset : kRun;
        char line[81];
        std::memset(line, ' ', 80);
        for (size_t i = 0; i < n; ++i) {
            const unsigned char b = bytes[offset + i];
            line[3 * i] = kHex[b >> 4];
            line[3 * i + 1] = kHex[b & 0xf];
            line[kCharColumn + i] = b >= 0x20 && b <= 0x7f ? static_cast<char>(b) : '.';
        }
        // One blank after the characters ends the line.
        line[kCharColumn + n + 1] = '\0';
        log(level, "%s", line);
    }
}

void Logger::setThreadTag(const char* tag) {
    char* copy = tag != nullptr ? strdup(tag) : nullptr;
    if (!threadsSupported()) {
        free(gProcessTag);
        gProcessTag = copy;
        return;
    }
    pthread_once(&gTagKeyOnce, createTagKey);
    free(pthread_getspecific(gTagKey));
    pthread_setspecific(gTagKey, copy);
}

const char* Logger::threadTag() {
    if (!threadsSupported()) {
        return gProcessTag;
    }
    pthread_once(&gTagKeyOnce, createTagKey);
    return static_cast<const char*>(pthread_getspecific(gTagKey));
}

const char* Logger::levelName(int32_t level) {
    return level >= 0 && level < kLevelCount ? kLevelNames[level] : "";
}

int32_t Logger::parseLevel(const std::string& text) {
    if (text.empty()) {
        return INFO;
    }
    const std::string upper = toUpper(text);
    for (int32_t level = 0; level < kLevelCount; ++level) {
        if (upper == kLevelNames[level]) {
            return level;
        }
    }
    return UNSET;
}

void Logger::shutdown() {
    // Queued records are written while the system log is still open, and no log thread
    // outlives the loggers.
    endLogQueue();
    Mutex* mutex = &loggerRegistryMutex();
    {
        MutexLock lock(*mutex);
        delete gRegistry;
        gRegistry = nullptr;
        closeSystemLog();
        __atomic_store_n(&gRegistryMutex, nullptr, __ATOMIC_RELEASE);
    }
    delete mutex;
}

}  // namespace zfw
