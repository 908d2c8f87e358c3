// Editing lists in the properties store and writing a store back to its file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <set>
#include <sstream>
#include <vector>

#include "zfw/file_util.h"
#include "zfw/logger.h"
#include "zfw/osport.h"
#include "zfw/properties.h"
#include "kvsyntax/escape.h"

namespace zfw {

namespace {

const int kLockAttempts = 100;
const long kLockWaitNanos = 10L * 1000 * 1000;
// A lock file last touched longer ago than this was left by a saver that died.
const time_t kStaleLockSeconds = 60;

// One character of a value in file syntax ('$' is handled by the caller).
void appendEscaped(std::string& out, char c, bool quoted) {
    const char letter = kvsyntax::letterFor(c);
    if (letter != '\0') {
        out += '\\';
        out += letter;
        return;
    }
    if (((c == ' ' || c == ',') && !quoted) || c == '"' || c == '\'' || c == '\\') {
        out += '\\';
    }
    out += c;
}

void sleepLockStep() {
    struct timespec step = {0, kLockWaitNanos};
    while (nanosleep(&step, &step) != 0 && errno == EINTR) {
    }
}

// The holder keeps a record lock on its lock file, so a lock that only looks abandoned
// (a save of a live process that took long) is never taken away from it. Waits only for
// another saver that is inspecting the new file.
bool holdRecordLock(int fd) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    while (fcntl(fd, F_SETLKW, &lock) != 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

enum LockCheck { LOCK_GONE, LOCK_BUSY, LOCK_FAILED };

// Looks at an existing lock file and deletes it when it is abandoned. The deletion happens
// while this process holds the file's record lock and after checking that the name still
// refers to that file, so two savers that find the same stale lock cannot delete the
// fresh lock of one another. Opened without blocking: a FIFO in its place cannot hang us.
LockCheck checkExistingLock(const std::string& lockPath) {
    const int fd = open(lockPath.c_str(), O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOENT ? LOCK_GONE : LOCK_FAILED;
    }
    LockCheck result = LOCK_BUSY;
    struct stat held;
    struct stat named;
    if (fstat(fd, &held) != 0) {
        result = LOCK_FAILED;
    } else if (time(nullptr) - held.st_atime <= kStaleLockSeconds || tryLockFile(fd) != 0) {
        result = LOCK_BUSY;
    } else if (stat(lockPath.c_str(), &named) != 0) {
        result = errno == ENOENT ? LOCK_GONE : LOCK_FAILED;
    } else if (named.st_dev != held.st_dev || named.st_ino != held.st_ino) {
        result = LOCK_GONE;
    } else {
        result = unlink(lockPath.c_str()) == 0 ? LOCK_GONE : LOCK_FAILED;
    }
    const int err = errno;
    close(fd);
    errno = err;
    return result;
}

}  // namespace

void Properties::setList(const std::string& key, const StringList& items, bool escapeDollars) {
    const std::string text = formatList(items, escapeDollars);
    MutexLock lock(m_mutex);
    storeList(key, text);
}

void Properties::storeList(const std::string& key, const std::string& text) {
    m_values[key] = text;
    m_raw.erase(key);
    m_stale.erase(key);
    m_listCache.erase(key);
}

bool Properties::addToList(const std::string& key, const StringList& items, bool escapeDollars) {
    const std::string none;
    const boost::shared_ptr<StringList> current = getList(key, &none);
    std::vector<std::string> added(items.begin(), items.end());
    std::vector<std::string> present(current->begin(), current->end());
    std::sort(added.begin(), added.end());
    std::sort(present.begin(), present.end());
    StringList merged;
    std::merge(added.begin(), added.end(), present.begin(), present.end(),
               std::back_inserter(merged));
    merged.unique();
    const std::string text = formatList(merged, escapeDollars);
    MutexLock lock(m_mutex);
    const auto stored = m_values.find(key);
    if (text == (stored == m_values.end() ? m_empty : stored->second)) {
        return false;
    }
    storeList(key, text);
    return true;
}

bool Properties::removeFromList(const std::string& key, const StringList& items,
                                bool escapeDollars) {
    const std::string none;
    StringList remaining(*getList(key, &none));
    bool removed = false;
    for (const std::string& item : items) {
        const auto found = std::find(remaining.begin(), remaining.end(), item);
        if (found != remaining.end()) {
            remaining.erase(found);
            removed = true;
        }
    }
    if (removed) {
        setList(key, remaining, escapeDollars);
    }
    return removed;
}

std::string Properties::escapeValue(const std::string& value, bool escapeDollars) {
    // A value with a space is written in double quotes, where spaces and commas need
    // no escaping.
    const bool quoted = value.find(' ') != std::string::npos;
    std::string out;
    out.reserve(value.size() + 8);
    if (quoted) {
        out += '"';
    }
    size_t i = 0;
    while (i < value.size()) {
        const char c = value[i];
        if (c != '$') {
            appendEscaped(out, c, quoted);
            ++i;
            continue;
        }
        if (escapeDollars) {
            out += "\\$";
            ++i;
            continue;
        }
        // The unexpanded form: "$$" is a literal dollar, "$NAME$" a reference.
        if (i + 1 < value.size() && value[i + 1] == '$') {
            out += "\\$";
            i += 2;
            continue;
        }
        const size_t close = value.find('$', i + 1);
        if (close == std::string::npos) {
            out += '$';
            ++i;
            continue;
        }
        out += '$';
        for (size_t k = i + 1; k < close; ++k) {
            appendEscaped(out, value[k], quoted);
        }
        i = close + 1;
        // The name must end where the closing '$' ended it.
        if (i < value.size() && isWordChar(value[i])) {
            out += '\\';
        }
    }
    if (quoted) {
        out += '"';
    }
    return out;
}

std::string Properties::formatList(const StringList& items, bool escapeDollars) {
    std::string out;
    bool first = true;
    for (const std::string& item : items) {
        if (!first) {
            out += ' ';
        }
        first = false;
        out += escapeValue(item, escapeDollars);
    }
    return out;
}

std::string Properties::formatEntry(const std::string& key, const std::string& value,
                                    bool escapeDollars) {
    return escapeValue(key, escapeDollars) + ": " + escapeValue(value, escapeDollars);
}

std::string Properties::formatListEntry(const std::string& key, const StringList& items,
                                        bool escapeDollars) {
    return escapeValue(key, escapeDollars) + ": " + formatList(items, escapeDollars);
}

int Properties::createLockFile(const std::string& lockPath) {
    for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
        const int fd = open(lockPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            if (holdRecordLock(fd)) {
                return fd;
            }
            const int err = errno;
            unlink(lockPath.c_str());
            close(fd);
            errno = err;
            return -1;
        }
        if (errno != EEXIST) {
            return -1;
        }
        switch (checkExistingLock(lockPath)) {
            case LOCK_GONE:
                break;
            case LOCK_BUSY:
                sleepLockStep();
                break;
            case LOCK_FAILED:
                return -1;
        }
    }
    errno = EEXIST;
    return -1;
}

int Properties::removeLockFile(const std::string& lockPath, int fd) {
    // A descriptor that does not close may not be this saver's: its name is left alone.
    if (close(fd) != 0) {
        return -1;
    }
    return unlink(lockPath.c_str()) == 0 ? 0 : -1;
}

std::string Properties::rewrittenContent(std::istream& in) {
    std::set<std::string> written;
    std::string out;
    std::string line;
    std::string scratch;
    std::string key;
    std::string value;
    bool afterBlank = false;
    while (readLogicalLine(in, line, scratch, false)) {
        if (line.empty()) {
            if (!afterBlank) {
                out += '\n';
            }
            afterBlank = true;
            continue;
        }
        afterBlank = false;
        if (!parseLine(line, key, value)) {
            out += line;
            out += '\n';
            continue;
        }
        const auto stored = m_values.find(key);
        if (stored == m_values.end()) {
            continue;
        }
        substituteVariables(value);
        removeEscapes(value);
        stripQuotes(value);
        if (value == stored->second) {
            out += line;
        } else {
            out += key + ": " + stored->second;
        }
        out += '\n';
        written.insert(key);
    }
    for (const auto& entry : m_values) {
        if (written.count(entry.first) == 0) {
            out += entry.first + ": " + entry.second + "\n";
        }
    }
    return out;
}

int Properties::save(const std::string& path) {
    MutexLock lock(m_mutex);
    const boost::shared_ptr<Logger> logger = storeLogger();
    const std::string lockPath = path + ".lock";
    const std::string newPath = path + ".new";
    logger->log(Logger::DEBUG, "Create lock file %s", lockPath.c_str());
    const int lockFd = createLockFile(lockPath);
    if (lockFd < 0) {
        logger->logErrno(Logger::ERROR, errno, "Unable to create lock file %s", lockPath.c_str());
        return -1;
    }
    int result = -1;
    std::string content;
    if (!readRegularFile(path, content)) {
        logger->log(Logger::ERROR, "Unable to open config file %s", path.c_str());
    } else {
        std::istringstream in(content);
        switch (replaceFile(path, newPath, rewrittenContent(in), 0644)) {
            case ReplaceResult::Replaced:
                result = 0;
                break;
            case ReplaceResult::TempNotOpened:
                logger->logErrno(Logger::ERROR, errno, "Unable to open temporary config file %s",
                                 newPath.c_str());
                break;
            case ReplaceResult::NotWritten:
                logger->logErrno(Logger::ERROR, errno, "Unable to write config file %s",
                                 path.c_str());
                break;
        }
    }
    logger->log(Logger::DEBUG, "Remove lock file %s", lockPath.c_str());
    if (removeLockFile(lockPath, lockFd) != 0) {
        logger->log(Logger::DEBUG, "Unable to remove lock file %s", lockPath.c_str());
    }
    return result;
}

}  // namespace zfw
