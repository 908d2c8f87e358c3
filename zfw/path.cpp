// Paths: parsing, string forms and file-system operations.
#include "zfw/path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ostream>
#include <stdexcept>

namespace zfw {

const std::string gPathRoot("/");
const std::string gSpaceReplacement("_");

path::path() : m_absolute(false) {}

path::path(const std::string& text) : m_absolute(false) {
    parse(text.c_str());
}

path::path(const char* text) : m_absolute(false) {
    parse(text);
}

void path::parse(const char* text) {
    const std::string s(text);
    size_t pos = 0;
    if (s.compare(0, gPathRoot.size(), gPathRoot) == 0) {
        m_absolute = true;
        pos = gPathRoot.size();
    }
    for (;;) {
        const size_t sep = s.find_first_of("/\\", pos);
        if (sep == std::string::npos) {
            m_name = s.substr(pos);
            return;
        }
        if (sep > pos) {
            m_dirs.push_back(s.substr(pos, sep - pos));
        }
        pos = sep + 1;
    }
}

path& path::append(const path& other) {
    if (other.m_absolute) {
        ZFW_THROW(BadDataException, 0, true, "Attempt to append root path");
    }
    if (!m_name.empty()) {
        m_dirs.push_back(m_name);
    }
    m_dirs.insert(m_dirs.end(), other.m_dirs.begin(), other.m_dirs.end());
    m_name = other.m_name;
    return *this;
}

path path::child(const std::string& name) const {
    path result(*this);
    if (!result.m_name.empty()) {
        result.m_dirs.push_back(result.m_name);
    }
    result.m_name = name;
    return result;
}

std::string path::toString(char separator, bool keepSpaces) const {
    std::string result = m_absolute ? gPathRoot : std::string();
    for (const std::string& dir : m_dirs) {
        result += dir;
        result += separator;
    }
    if (m_name.empty()) {
        if (m_dirs.empty()) {
            // The root is "/" in every form; an empty path has no string form at all.
            if (!m_absolute) {
                throw std::out_of_range("path::toString: empty path");
            }
            return gPathRoot;
        }
        result.erase(result.rfind(separator));
    } else {
        result += m_name;
    }
    if (!keepSpaces) {
        std::string replaced;
        for (char c : result) {
            if (c == ' ') {
                replaced += gSpaceReplacement;
            } else {
                replaced += c;
            }
        }
        result.swap(replaced);
    }
    if (result.empty() && m_absolute) {
        result = gPathRoot;
    }
    return result;
}

path path::parent() const {
    path result(*this);
    if (!result.m_name.empty()) {
        result.m_name.clear();
    } else if (!result.m_dirs.empty()) {
        result.m_dirs.pop_back();
    }
    return result;
}

bool path::exists() const {
    if (empty()) {
        return false;
    }
    struct stat st;
    return stat(toString('/', true).c_str(), &st) == 0;
}

bool path::isDirectory() const {
    if (empty()) {
        ZFW_THROW(BadDataException, 0, true, "Empty path");
    }
    struct stat st;
    if (stat(toString('/', true).c_str(), &st) != 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(NotFoundException, -1, true, err, "Cannot stat %s", systemForm().c_str());
    }
    return S_ISDIR(st.st_mode);
}

void path::createDirectories(mode_t mode) const {
    if (empty()) {
        ZFW_THROW(BadDataException, 0, true, "Empty path");
    }
    const path up = parent();
    if (!up.exists()) {
        up.createDirectories(mode);
    }
    const std::string target = systemForm();
    const int rc = mkdir(target.c_str(), mode);
    const int mkdirErr = errno;
    // mkdir's mode is narrowed by the umask; the directory gets exactly mode.
    chmod(mode);
    if (rc != 0) {
        ZFW_THROW_ERRNO(IOException, -1, true, mkdirErr, "Cannot create directory %s",
                        target.c_str());
    }
}

void path::remove(bool recursive) const {
    if (empty()) {
        ZFW_THROW(BadDataException, 0, true, "Empty path");
    }
    if (!exists()) {
        return;
    }
    const std::string target = systemForm();
    // A symbolic link is removed itself, never followed: a recursive removal must not
    // reach into whatever the link points at.
    struct stat st;
    const bool isLink = lstat(target.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
    if (isLink || !isDirectory()) {
        if (unlink(target.c_str()) != 0) {
            const int err = errno;
            ZFW_THROW_ERRNO(IOException, -1, true, err, "Cannot remove file %s", target.c_str());
        }
        return;
    }
    if (recursive) {
        for (directory_iterator it(*this); it != directory_iterator::end(); ++it) {
            it->remove(true);
        }
    }
    if (rmdir(target.c_str()) != 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, -1, true, err, "Cannot remove directory %s", target.c_str());
    }
}

void path::rename(const path& destination) const {
    if (empty() || destination.empty()) {
        ZFW_THROW(BadDataException, 0, true, "Empty path");
    }
    const std::string from = systemForm();
    const std::string to = destination.systemForm();
    if (::rename(from.c_str(), to.c_str()) != 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, -1, true, err, "Cannot rename %s to %s", from.c_str(),
                        to.c_str());
    }
}

void path::chown(uid_t user, gid_t group) const {
    const std::string target = systemForm();
    if (::chown(target.c_str(), user, group) != 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, -1, true, err, "can't change owner of %s to %d/%d",
                        target.c_str(), static_cast<int>(user), static_cast<int>(group));
    }
}

void path::chmod(mode_t mode) const {
    const std::string target = systemForm();
    if (::chmod(target.c_str(), mode) != 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, -1, true, err, "can't change permissions of %s to %x",
                        target.c_str(), static_cast<unsigned>(mode));
    }
}

std::string path::uniqueTempName() {
    char name[] = "/tmp/zhubXXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, -1, true, err, "mkstemp() failed");
    }
    close(fd);
    unlink(name);
    return name;
}

path operator/(const path& left, const path& right) {
    path result(left);
    result /= right;
    return result;
}

bool operator<(const path& left, const path& right) {
    return left.systemForm() < right.systemForm();
}

std::ostream& operator<<(std::ostream& out, const path& p) {
    return out << p.systemForm();
}

}  // namespace zfw
