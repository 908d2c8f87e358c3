// File utilities: temporary files, file modes and sizes, directory handles.
#include "zfw/file_util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "zfw/exception.h"

// Failed system calls: "OS call failed: <system error>", code -1.
#define FILE_UTIL_FAIL(err) ZFW_THROW_ERRNO(zfw::SystemException, -1, true, (err), "OS call failed")

namespace {

int createTemp(char* templ) {
    const int fd = mkstemp(templ);
    if (fd < 0) {
        const int err = errno;
        FILE_UTIL_FAIL(err);
    }
    return fd;
}

void setMode(int fd, mode_t mode) {
    if (fchmod(fd, mode) != 0) {
        const int err = errno;
        FILE_UTIL_FAIL(err);
    }
}

void setOwner(int fd, uid_t user, gid_t group) {
    if (fchown(fd, user, group) != 0) {
        const int err = errno;
        FILE_UTIL_FAIL(err);
    }
}

// Creates the file, sets its mode (and owner), then opens the stream on it. The
// descriptor is closed on every exit; a file that could not be set up is deleted.
void openTemp(char* templ, mode_t mode, const uid_t* user, gid_t group, std::ofstream& out) {
    const int fd = createTemp(templ);
    try {
        setMode(fd, mode);
        if (user != nullptr) {
            setOwner(fd, *user, group);
        }
    } catch (...) {
        close(fd);
        unlink(templ);
        throw;
    }
    out.open(templ, std::ios::out | std::ios::trunc);
    close(fd);
}

struct stat statOf(const char* fileName) {
    struct stat st;
    if (stat(fileName, &st) != 0) {
        const int err = errno;
        FILE_UTIL_FAIL(err);
    }
    return st;
}

}  // namespace

namespace zfw {

int makeTempFile(std::string& templ) {
    std::vector<char> name(templ.begin(), templ.end());
    name.push_back('\0');
    const int fd = createTemp(name.data());
    templ = name.data();
    return fd;
}

int makeTempFile(std::string& templ, mode_t mode, uid_t user, gid_t group) {
    const int fd = makeTempFile(templ);
    try {
        setMode(fd, mode);
        setOwner(fd, user, group);
    } catch (const SystemException&) {
        // Reported when it was built; the caller only sees -1.
        close(fd);
        unlink(templ.c_str());
        return -1;
    }
    return fd;
}

void openTempFile(char* templ, mode_t mode, std::ofstream& out) {
    openTemp(templ, mode, nullptr, 0, out);
}

void openTempFile(char* templ, mode_t mode, uid_t user, gid_t group, std::ofstream& out) {
    openTemp(templ, mode, &user, group, out);
}

mode_t fileMode(const char* fileName) {
    return statOf(fileName).st_mode & 0777;
}

mode_t fileMode(const std::string& fileName) {
    return fileMode(fileName.c_str());
}

off_t fileSize(const char* fileName) {
    return statOf(fileName).st_size;
}

off_t fileSize(const std::string& fileName) {
    return fileSize(fileName.c_str());
}

bool readRegularFile(const std::string& fileName, std::string& content) {
    const int fd = open(fileName.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    struct stat st;
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    content.clear();
    if (ok) {
        // Sized once: growing by doubling would hold up to twice the file for a moment.
        content.reserve(static_cast<size_t>(st.st_size));
    }
    char buffer[8192];
    while (ok) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n > 0) {
            content.append(buffer, static_cast<size_t>(n));
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            ok = false;
        }
    }
    close(fd);
    return ok;
}

void syncDirectory(const std::string& dirName) {
    const int fd = open(dirName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

namespace {

bool writeAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = EIO;
            }
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

ReplaceResult replaceFile(const std::string& path, const std::string& tempPath,
                          const std::string& content, mode_t mode) {
    // A temporary file left by a writer that died is deleted rather than written through: it
    // could be a link planted in its place.
    if (unlink(tempPath.c_str()) != 0 && errno != ENOENT) {
        return ReplaceResult::TempNotOpened;
    }
    const int fd =
        open(tempPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) {
        return ReplaceResult::TempNotOpened;
    }
    bool ok = writeAll(fd, content) && fchmod(fd, mode) == 0 && fsync(fd) == 0;
    int err = errno;
    if (close(fd) != 0 && ok) {
        ok = false;
        err = errno;
    }
    if (ok && rename(tempPath.c_str(), path.c_str()) != 0) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        unlink(tempPath.c_str());
        errno = err;
        return ReplaceResult::NotWritten;
    }
    const size_t slash = path.rfind('/');
    syncDirectory(slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash));
    return ReplaceResult::Replaced;
}

OpenDirectory::OpenDirectory(const std::string& dirName) : m_handle(opendir(dirName.c_str())) {
    if (m_handle == nullptr) {
        const int err = errno;
        ZFW_THROW(zfw::NotFoundException, err, true, "cannot open dir");
    }
}

OpenDirectory::~OpenDirectory() {
    closedir(m_handle);
}

struct dirent* OpenDirectory::next() {
    return readdir(m_handle);
}

}  // namespace zfw
