// Real files for tests: a private temporary directory, and writing, reading and examining
// files in it.
#ifndef KV_TESTS_SUPPORT_FILES_H
#define KV_TESTS_SUPPORT_FILES_H

#include <sys/types.h>

#include <string>

namespace kvtest {

// A private directory under /tmp (mode 0755), removed with everything in it.
class TempDir {
  public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    // Writes file(name) with `content` and returns its path.
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::string m_path;
};

// Replaces the file with `content`; a failure fails the current test.
void writeFile(const std::string& name, const std::string& content);
// The whole file, "" when it cannot be read.
std::string readFile(const std::string& name);
// True when the name exists (a dangling link included).
bool present(const std::string& name);
// The permission bits (with set-id and sticky bits), 0 when the file cannot be examined.
mode_t modeOf(const std::string& name);

// The text of the exception of type E that f throws, "" when it throws nothing.
template <typename E, typename F>
std::string thrownText(F f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "";
}

}  // namespace kvtest

#endif
