// Operating-system helpers.
#include "zfw/osport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <ctime>

#include "zfw/exception.h"
#include "zfw/logger.h"
#include "zfw/mutex.h"

namespace zfw {
namespace {

pthread_mutex_t gProgramNameMutex = PTHREAD_MUTEX_INITIALIZER;
// Holds the status file's text; the program name may end up pointing into it.
char gStatusText[4096];

bool programNameMissing() {
    return program_invocation_short_name == nullptr || program_invocation_short_name[0] == '\0';
}

}  // namespace

// program_invocation_short_name is the C run time's __progname (also syslog's default
// identity) under its documented name.
void ensureProgramName() {
    const int err = pthread_mutex_lock(&gProgramNameMutex);
    if (err != 0) {
        ZFW_THROW_ERRNO(SystemException, err, true, err, "OS call failed");
    }
    if (programNameMissing()) {
        const int fd = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            const ssize_t n = read(fd, gStatusText, sizeof gStatusText - 1);
            gStatusText[n > 0 ? n : 0] = '\0';
            char* name = std::strchr(gStatusText, '(');
            if (name != nullptr) {
                ++name;
                char* end = std::strchr(name, ')');
                if (end != nullptr) {
                    *end = '\0';
                }
                program_invocation_short_name = name;
            }
            close(fd);
        }
    }
    if (programNameMissing()) {
        program_invocation_short_name = const_cast<char*>("unknown");
    }
    pthread_mutex_unlock(&gProgramNameMutex);
}

namespace {

// Applies a whole-file record lock of the given type; on a conflict the holder's pid.
int setWholeFileLock(int fd, short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    if (fcntl(fd, F_SETLK, &lock) == 0) {
        return 0;
    }
    if (errno != EACCES && errno != EAGAIN) {
        return -1;
    }
    lock.l_type = type;
    if (fcntl(fd, F_GETLK, &lock) != 0) {
        return -1;
    }
    return lock.l_pid;
}

}  // namespace

int tryLockFile(int fd) {
    return setWholeFileLock(fd, F_WRLCK);
}

int unlockFile(int fd) {
    return setWholeFileLock(fd, F_UNLCK);
}

int openAndLock(const char* path, int* lockResult) {
    return openAndLock(path, lockResult, 0);
}

int openAndLock(const char* path, int* lockResult, mode_t mode) {
    *lockResult = -1;
    int fd = open(path, O_RDWR | O_CREAT, 0700);
    if (fd < 0) {
        return -1;
    }
    if (mode != 0) {
        (void)fchmod(fd, mode);
    }
    *lockResult = tryLockFile(fd);
    return fd;
}

uid_t getFsUid() {
    uid_t euid = geteuid();
    int previous = setfsuid(euid);
    if (static_cast<uid_t>(previous) != euid) {
        setfsuid(static_cast<uid_t>(previous));
    }
    return static_cast<uid_t>(previous);
}

gid_t getFsGid() {
    gid_t egid = getegid();
    int previous = setfsgid(egid);
    if (static_cast<gid_t>(previous) != egid) {
        setfsgid(static_cast<gid_t>(previous));
    }
    return static_cast<gid_t>(previous);
}

int setFsUid(uid_t uid) {
    return setfsuid(uid);
}

int setFsGid(gid_t gid) {
    return setfsgid(gid);
}

int pselectErrno(int nfds, fd_set* readFds, fd_set* writeFds, fd_set* errorFds,
                 const struct timespec* timeout, const sigset_t* sigmask, int* err) {
    *err = 0;
    int rc = pselect(nfds, readFds, writeFds, errorFds, timeout, sigmask);
    if (rc < 0) {
        *err = errno;
    }
    return rc;
}

namespace {

long descriptorLimit() {
    static const long limit = sysconf(_SC_OPEN_MAX);
    return limit;
}

Mutex& spawnMutex() {
    static Mutex mutex;
    return mutex;
}

// Checks a descriptor hand-over before anything is forked: every entry is -1 or an open
// descriptor, and the temporary copies above the largest one stay below the limit.
bool validHandOver(int nfds, const int* fds, long limit) {
    if (nfds < 0 || nfds > limit || (nfds > 0 && fds == nullptr)) {
        errno = EINVAL;
        return false;
    }
    int largest = -1;
    for (int i = 0; i < nfds; ++i) {
        if (fds[i] < -1) {
            errno = EINVAL;
            return false;
        }
        if (fds[i] >= 0 && fcntl(fds[i], F_GETFD) < 0) {
            errno = EBADF;
            return false;
        }
        if (fds[i] > largest) {
            largest = fds[i];
        }
    }
    if (static_cast<long>(largest) + nfds >= limit) {
        errno = EBADF;
        return false;
    }
    return true;
}

// Closes every descriptor that is not listed in fds. Runs between fork and exec, so it
// uses only async-signal-safe calls.
void closeUnlisted(int nfds, const int* fds, long limit) {
    unsigned int from = 0;
    for (;;) {
        // The next listed descriptor at or above from.
        long next = -1;
        for (int i = 0; i < nfds; ++i) {
            if (fds[i] >= 0 && static_cast<unsigned int>(fds[i]) >= from &&
                (next < 0 || fds[i] < next)) {
                next = fds[i];
            }
        }
        unsigned int to = next < 0 ? UINT_MAX : static_cast<unsigned int>(next);
        if (to > from && close_range(from, to - 1, 0) != 0) {
            // Kernels without close_range: one descriptor at a time up to the limit.
            for (long fd = from; fd < to && fd < limit; ++fd) {
                close(static_cast<int>(fd));
            }
        }
        if (next < 0) {
            return;
        }
        from = to + 1;
    }
}

// Becomes the program with the listed descriptors as 0..nfds-1. Only async-signal-safe
// calls: this runs in a freshly forked child of a possibly threaded process.
[[noreturn]] void execWithDescriptors(int nfds, const int* fds, long limit, const char* path,
                                      char* const argv[]) {
    if (nfds > 0) {
        closeUnlisted(nfds, fds, limit);
        int largest = -1;
        for (int i = 0; i < nfds; ++i) {
            if (fds[i] > largest) {
                largest = fds[i];
            }
        }
        // Park every descriptor above all listed ones first, so that moving one into place
        // never overwrites another that is still to be moved. The originals are closed only
        // after all copies exist, so one descriptor may be listed more than once.
        for (int i = 0; i < nfds; ++i) {
            if (fds[i] >= 0) {
                dup2(fds[i], largest + 1 + i);
            }
        }
        for (int i = 0; i < nfds; ++i) {
            if (fds[i] >= 0) {
                close(fds[i]);
            }
        }
        for (int i = 0; i < nfds; ++i) {
            if (fds[i] >= 0) {
                dup2(largest + 1 + i, i);
                close(largest + 1 + i);
            }
        }
    }
    execv(path, argv);
    _exit(-errno);
}

}  // namespace

int spawn(int mode, int nfds, const int* fds, const char* path, char* const argv[]) {
    if (path == nullptr || argv == nullptr ||
        (mode != SPAWN_WAIT && mode != SPAWN_START && mode != SPAWN_EXEC)) {
        errno = EINVAL;
        return -1;
    }
    if (access(path, X_OK) != 0) {
        return -1;
    }
    long limit = descriptorLimit();
    if (!validHandOver(nfds, fds, limit)) {
        return -1;
    }
    MutexLock lock(spawnMutex());
    pid_t pid = mode == SPAWN_EXEC ? 0 : fork();
    if (pid == 0) {
        execWithDescriptors(nfds, fds, limit, path, argv);
    }
    lock.release();
    if (pid < 0) {
        return -1;
    }
    if (mode == SPAWN_START) {
        return pid;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return status;
}

namespace {

const char* const kDnsLogger = "dns.state";

struct DnsState {
    Mutex mutex;
    bool up = true;
    time_t changedAt = 0;
    int32_t staleAfter = 300;
    bool overrideSet = false;
    pthread_t overrideThread = {};
    int32_t overrideStaleAfter = 60;
};

DnsState& dnsState() {
    static DnsState state;
    return state;
}

void logDns(const char* format, const char* arg) {
    boost::shared_ptr<Logger> logger = Logger::get(kDnsLogger);
    if (logger->isEnabled(Logger::INFO)) {
        logger->log(Logger::INFO, format, arg);
    }
}

}  // namespace

void setDnsState(bool up) {
    DnsState& dns = dnsState();
    MutexLock lock(dns.mutex);
    if (up != dns.up) {
        logDns("DNS is %s", up ? "up" : "down");
    }
    dns.up = up;
    dns.changedAt = time(nullptr);
}

bool isDnsUp() {
    DnsState& dns = dnsState();
    MutexLock lock(dns.mutex);
    if (dns.up) {
        return true;
    }
    time_t now = time(nullptr);
    if (dns.overrideSet && pthread_equal(dns.overrideThread, pthread_self())) {
        return now - dns.changedAt > dns.overrideStaleAfter;
    }
    if (dns.changedAt <= now && now - dns.changedAt <= dns.staleAfter) {
        return false;
    }
    logDns("Cached DNS state is stale, resetting to: DNS is %s", "up");
    dns.up = true;
    return true;
}

void setDnsOverrideThread() {
    DnsState& dns = dnsState();
    MutexLock lock(dns.mutex);
    dns.overrideSet = true;
    dns.overrideThread = pthread_self();
}

void setDnsStaleTimes(int32_t staleSeconds, int32_t overrideStaleSeconds) {
    DnsState& dns = dnsState();
    MutexLock lock(dns.mutex);
    dns.staleAfter = staleSeconds;
    dns.overrideStaleAfter = overrideStaleSeconds;
}

namespace {

// A failed lookup that took longer than this marks DNS down.
constexpr std::chrono::seconds kSlowLookup(10);

// Lays the answers out in buffer: the name at the start, the pointer array at the next
// multiple of 8, the addresses from the end downwards. Nothing is written outside
// [buffer, buffer + length); false with errno ENOSPC when the answers do not fit.
bool fillHostent(const struct addrinfo* answers, const char* name, struct hostent* result,
                 char* buffer, size_t length) {
    const char* canonical = answers->ai_canonname != nullptr ? answers->ai_canonname : name;
    size_t nameSize = strlen(canonical) + 1;
    if (nameSize > length) {
        errno = ENOSPC;
        return false;
    }
    const uintptr_t begin = reinterpret_cast<uintptr_t>(buffer);
    const uintptr_t slots = (begin + nameSize + 7) & ~static_cast<uintptr_t>(7);
    uintptr_t top = (begin + length) & ~static_cast<uintptr_t>(3);
    // Room for the array's terminating null pointer even without any address.
    if (top < slots || top - slots < sizeof(char*)) {
        errno = ENOSPC;
        return false;
    }
    memcpy(buffer, canonical, nameSize);
    char** list = reinterpret_cast<char**>(slots);
    size_t count = 0;
    for (const struct addrinfo* ai = answers; ai != nullptr; ai = ai->ai_next) {
        if (ai->ai_family != AF_INET || ai->ai_addr == nullptr ||
            ai->ai_addrlen < sizeof(struct sockaddr_in)) {
            continue;
        }
        const struct in_addr& address =
            reinterpret_cast<const struct sockaddr_in*>(ai->ai_addr)->sin_addr;
        bool known = false;
        for (size_t i = 0; i < count && !known; ++i) {
            known = memcmp(list[i], &address, sizeof(address)) == 0;
        }
        if (known) {
            continue;
        }
        // Below the new address there must stay room for its pointer and the final null.
        if (top - slots < (count + 2) * sizeof(char*) + sizeof(address)) {
            errno = ENOSPC;
            return false;
        }
        top -= sizeof(address);
        memcpy(reinterpret_cast<char*>(top), &address, sizeof(address));
        list[count++] = reinterpret_cast<char*>(top);
    }
    list[count] = nullptr;
    result->h_name = buffer;
    result->h_aliases = nullptr;
    result->h_addrtype = AF_INET;
    result->h_length = sizeof(struct in_addr);
    result->h_addr_list = list;
    return true;
}

int hostErrorOf(int gaiCode) {
    switch (gaiCode) {
        case EAI_SYSTEM:
            return -1;
        case EAI_NODATA:
            return NO_DATA;
        case EAI_AGAIN:
            return TRY_AGAIN;
        case EAI_NONAME:
            return HOST_NOT_FOUND;
        default:
            return NO_RECOVERY;
    }
}

}  // namespace

struct hostent* lookupHost(const char* name, struct hostent* result, char* buffer,
                           size_t bufferLength, int* hostError) {
    int ignoredError = 0;
    if (hostError == nullptr) {
        hostError = &ignoredError;
    }
    if (name == nullptr || result == nullptr || (buffer == nullptr && bufferLength > 0)) {
        *hostError = -1;
        errno = EINVAL;
        return nullptr;
    }
    if (!isDnsUp()) {
        *hostError = TRY_AGAIN;
        return nullptr;
    }
    const auto start = std::chrono::steady_clock::now();
    struct addrinfo hints = {};
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = AF_INET;
    struct addrinfo* answers = nullptr;
    int rc = getaddrinfo(name, nullptr, &hints, &answers);
    struct hostent* filled = nullptr;
    *hostError = 0;
    if (rc == 0 && answers != nullptr) {
        if (fillHostent(answers, name, result, buffer, bufferLength)) {
            filled = result;
        } else {
            *hostError = -1;
        }
    } else {
        *hostError = hostErrorOf(rc);
    }
    int savedErrno = errno;
    if (answers != nullptr) {
        freeaddrinfo(answers);
    }
    bool slow = std::chrono::steady_clock::now() - start > kSlowLookup;
    setDnsState(!(filled == nullptr && *hostError != 0 && slow));
    errno = savedErrno;
    return filled;
}

}  // namespace zfw
