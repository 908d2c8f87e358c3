// Paths of the framework: a value type holding a path as directory components, a final
// name and an absolute flag, with the file-system operations the framework needs.
//
// Both '/' and '\\' separate components on input; doubled separators collapse. The
// "system form" used for system calls writes '/' and replaces every space with '_'.
#ifndef ZFW_PATH_H
#define ZFW_PATH_H

#include <dirent.h>
#include <sys/types.h>

#include <cerrno>
#include <cstring>
#include <iosfwd>
#include <list>
#include <string>

#include "zfw/exception.h"

namespace zfw {

// Written before the components of an absolute path.
extern const std::string gPathRoot;
// Stands for every space in a path's system form.
extern const std::string gSpaceReplacement;

class path {
  public:
    path();
    path(const std::string& text);  // NOLINT(google-explicit-constructor): paths convert
    path(const char* text);         // NOLINT(google-explicit-constructor)

    // Appends a relative path: this path's name becomes its last directory. Appending an
    // absolute path throws zfw::BadDataException.
    path& append(const path& other);
    path& operator/=(const path& other) { return append(other); }

    // The components joined with separator (an absolute path starts with "/"); unless
    // keepSpaces, spaces become gSpaceReplacement. An empty path throws std::out_of_range.
    std::string toString(char separator = '/', bool keepSpaces = false) const;
    // The form every system call uses: toString('/', false).
    std::string systemForm() const { return toString('/', false); }

    // No components, no name, not absolute.
    bool empty() const { return m_dirs.empty() && m_name.empty() && !m_absolute; }
    bool isAbsolute() const { return m_absolute; }
    const std::list<std::string>& dirs() const { return m_dirs; }
    const std::string& name() const { return m_name; }

    // Whether the status of the path (spaces kept) can be read; false for an empty path.
    bool exists() const;
    // Throws zfw::NotFoundException when the status (spaces kept) cannot be read.
    bool isDirectory() const;
    // Creates the directory and any missing parents with mode (not narrowed by the
    // umask). A directory that already exists is an error.
    void createDirectories(mode_t mode) const;
    // Deletes the file or empty directory (with recursive, the directory's contents
    // first). A path that does not exist is left alone.
    void remove(bool recursive) const;
    void rename(const path& destination) const;
    void chown(uid_t user, gid_t group) const;
    void chmod(mode_t mode) const;

    // A name "/tmp/zhubXXXXXX" that did not exist when it was made (the file made to
    // reserve it is deleted again).
    static std::string uniqueTempName();

    // This path with one more component named exactly name (no parsing).
    path child(const std::string& name) const;

  private:
    void parse(const char* text);
    path parent() const;

    std::list<std::string> m_dirs;
    std::string m_name;
    bool m_absolute;
};

path operator/(const path& left, const path& right);
// Byte-wise order of the system forms.
bool operator<(const path& left, const path& right);
// Writes the system form.
std::ostream& operator<<(std::ostream& out, const path& p);

// Walks the entries of a directory ("." and ".." left out) in the order the system gives.
// Each entry is the directory with the entry's name appended.
class directory_iterator {
  public:
    // Throws zfw::NotFoundException when the directory does not exist and
    // zfw::SystemException when it cannot be opened.
    explicit directory_iterator(const path& dir) : m_dir(dir), m_handle(nullptr), m_entry(nullptr) {
        if (!m_dir.exists()) {
            ZFW_THROW(NotFoundException, 0, true, "%s: No such directory",
                      m_dir.systemForm().c_str());
        }
        m_handle = opendir(m_dir.systemForm().c_str());
        if (m_handle == nullptr) {
            const int err = errno;
            ZFW_THROW(SystemException, err, true, "%s: Failed to open", m_dir.systemForm().c_str());
        }
        advance();
    }
    ~directory_iterator() {
        if (m_handle != nullptr) {
            closedir(m_handle);
        }
    }
    directory_iterator(const directory_iterator&) = delete;
    directory_iterator& operator=(const directory_iterator&) = delete;

    // The iterator past the last entry of every directory.
    static const directory_iterator& end() {
        static const directory_iterator theEnd;
        return theEnd;
    }

    directory_iterator& operator++() {
        advance();
        return *this;
    }
    const path& operator*() const { return m_current; }
    const path* operator->() const { return &m_current; }
    bool operator==(const directory_iterator& other) const { return m_handle == other.m_handle; }
    bool operator!=(const directory_iterator& other) const { return !(*this == other); }

  private:
    directory_iterator() : m_handle(nullptr), m_entry(nullptr) {}

    void advance() {
        if (m_handle == nullptr) {
            return;
        }
        while ((m_entry = readdir(m_handle)) != nullptr) {
            if (strcmp(m_entry->d_name, ".") != 0 && strcmp(m_entry->d_name, "..") != 0) {
                // The name is taken whole: a backslash or ".." in it must not become
                // a separator or a step out of the directory.
                m_current = m_dir.child(m_entry->d_name);
                return;
            }
        }
        closedir(m_handle);
        m_handle = nullptr;
    }

    path m_dir;
    path m_current;
    DIR* m_handle;
    struct dirent* m_entry;
};

}  // namespace zfw

#endif
