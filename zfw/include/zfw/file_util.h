// File utilities of the framework: temporary files with a chosen mode and owner, a file's
// permission bits and size, and a directory handle that closes itself.
//
// Failed system calls throw zfw::SystemException "OS call failed: <system error>".
#ifndef ZFW_FILE_UTIL_H
#define ZFW_FILE_UTIL_H

#include <dirent.h>
#include <sys/types.h>

#include <fstream>
#include <string>

namespace zfw {

// mkstemp on templ (ending in six 'X'), which is replaced by the created name.
int makeTempFile(std::string& templ);
// As above, then the mode and owner are set; if either fails the file is deleted and the
// result is -1 (the failure is reported, not thrown).
int makeTempFile(std::string& templ, mode_t mode, uid_t user, gid_t group);

// Creates a temporary file from templ (rewritten to the created name), sets its mode (and
// owner) and opens out on it for writing. A failed open only sets out's fail state.
void openTempFile(char* templ, mode_t mode, std::ofstream& out);
void openTempFile(char* templ, mode_t mode, uid_t user, gid_t group, std::ofstream& out);

// Permission bits (mode & 0777) and size of a file.
mode_t fileMode(const char* fileName);
mode_t fileMode(const std::string& fileName);
off_t fileSize(const char* fileName);
off_t fileSize(const std::string& fileName);

// Reads a whole regular file into content; false when it cannot be opened or read. FIFOs,
// devices and directories are refused (opened without blocking), so a misplaced name
// cannot hang or flood the reader.
bool readRegularFile(const std::string& fileName, std::string& content);
// Flushes a directory, making a completed rename or link in it durable. Failures are
// ignored: the data itself was already flushed.
void syncDirectory(const std::string& dirName);

// Replaces `path` crash-safe: writes `content` to `tempPath` (in the same directory; created
// afresh with `mode`, a stale one deleted first), flushes it, renames it over `path` and
// flushes the directory, so that `path` always names the old or the complete new content.
// On failure the temporary file is gone and errno tells why.
enum class ReplaceResult { Replaced, TempNotOpened, NotWritten };
ReplaceResult replaceFile(const std::string& path, const std::string& tempPath,
                          const std::string& content, mode_t mode);

// An open directory, closed when the object goes. Opening throws zfw::NotFoundException
// "cannot open dir" with the system error number as code.
class OpenDirectory {
  public:
    explicit OpenDirectory(const std::string& dirName);
    ~OpenDirectory();
    OpenDirectory(const OpenDirectory&) = delete;
    OpenDirectory& operator=(const OpenDirectory&) = delete;

    // The next entry ("." and ".." included), or null at the end.
    struct dirent* next();

  private:
    DIR* m_handle;
};

}  // namespace zfw

#endif
