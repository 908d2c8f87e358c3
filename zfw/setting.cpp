// Host settings: kset files in the data directory, the settings cache and deferred writes.
#include "zfw/setting.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <map>
#include <vector>

#include "zfw/exception.h"
#include "zfw/file_util.h"
#include "zfw/logger.h"
#include "zfw/mutex.h"
#include "zfw/path.h"
#include "zfw/properties.h"
#include "zfw/strutil.h"

namespace zfw {

const char* const SETTING_MACHINE_SITE = "site";
const char* const SETTING_DOMAIN_NAME = "domain";
const char* const SETTING_HOST_NAME = "host";
const char* const SETTING_PREW2K_HOST = "prew2k.host";
const char* const SETTING_PASSWORD_CHANGE_TIMESTAMP = "password.change.timestamp";
const char* const SETTING_ZONE = "zone";
const char* const SETTING_ZONE_REALNAME = "zonename";
const char* const SETTING_DOMAIN_CONTROLLER = "domaincontroller";
const char* const SETTING_SCHEMA = "schema";
const char* const SETTING_SFU_DOMAIN = "sfudomain";
const char* const SETTING_PREFERRED_ENCTYPE = "preferred.enctype";
const char* const SETTING_DES_SALT = "des.salt";
const char* const SETTING_GLOBAL_CATALOG = "globalcatalog";
const char* const SETTING_FOREST = "forest";
const char* const SETTING_HOST_SID = "hostsid";
const char* const SETTING_CACHE_EXPIRED = "cache.expired";
const char* const SETTING_INSTALLATION_ID = "kv.installation.id";
const char* const SETTING_BINDUP_MARKER = "/var/zantormx//ZMX_BINDUP_IN_PROGRESS";
const char* const SETTING_TEMP_SUFFIX = ".KSET.TEMP";

Mutex gSettingsMutex;

namespace {

const char* const kDefaultDataDir = "/var/zantormx/";
const char* const kAutoZone = "00112233445566778899aabbccddeeff";

struct Setting {
    std::string value;
    int mode;
};

std::string gDataDir = kDefaultDataDir;
std::map<std::string, Setting> gSettingsMap;
std::vector<std::string> gPendingKeys;
bool gFirstFlush = true;

boost::shared_ptr<Logger> settingsLogger() {
    return Logger::get("util.settings");
}

std::string ksetPath(const std::string& key, const std::string& dir) {
    return (dir.empty() ? gDataDir : dir) + "kset." + key;
}

// Closes a descriptor on every exit.
class Descriptor {
  public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() { close(m_fd); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

  private:
    int m_fd;
};

// Deletes a temporary file on every exit that did not rename it into place.
class TempFileRemover {
  public:
    explicit TempFileRemover(const std::string& name) : m_name(name) {}
    ~TempFileRemover() {
        if (!m_renamed) {
            unlink(m_name.c_str());
        }
    }
    TempFileRemover(const TempFileRemover&) = delete;
    TempFileRemover& operator=(const TempFileRemover&) = delete;
    void renamed() { m_renamed = true; }

  private:
    const std::string& m_name;
    bool m_renamed = false;
};

}  // namespace

std::string getSetting(const std::string& key, bool noOverride) {
    if (!noOverride) {
        // The properties lock is taken and released before the settings lock.
        std::string override = Properties::getProperties(false)->get("kset." + key);
        if (!override.empty()) {
            return override;
        }
    }
    MutexLock lock(gSettingsMutex);
    const auto cached = gSettingsMap.find(key);
    if (cached != gSettingsMap.end()) {
        return cached->second.value;
    }
    std::string value = readKsetFile(key, gDataDir);
    gSettingsMap[key] = Setting{value, 0};
    return value;
}

std::string getSettingOr(const std::string& key, const std::string& def) {
    try {
        return getSetting(key, false);
    } catch (const std::exception&) {
        return def;
    }
}

void setSetting(const std::string& key, const std::string& value, int mode, bool deferOnFailure) {
    MutexLock lock(gSettingsMutex);
    gSettingsMap[key] = Setting{value, mode};
    boost::shared_ptr<Logger> logger = settingsLogger();
    if (logger->isEnabled(Logger::DEBUG)) {
        logger->log(Logger::DEBUG, "Setting %s to %s\n", key.c_str(), value.c_str());
    }
    try {
        writeKsetFile(key, value, mode, gDataDir);
        flushPendingSettings();
    } catch (const IOException&) {
        if (!deferOnFailure || gDataDir != kDefaultDataDir) {
            throw;
        }
        if (std::find(gPendingKeys.begin(), gPendingKeys.end(), key) == gPendingKeys.end()) {
            gPendingKeys.push_back(key);
        }
    }
}

std::string readKsetFile(const std::string& key, const std::string& dir) {
    MutexLock lock(gSettingsMutex);
    const std::string fileName = ksetPath(key, dir);
    // Without O_NONBLOCK a FIFO under the name would block the open.
    const int fd = open(fileName.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, err, true, err, "Cannot open file %s", fileName.c_str());
    }
    Descriptor closer(fd);
    struct stat st;
    if (fstat(fd, &st) != 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, err, true, err, "Cannot stat file to %s", fileName.c_str());
    }
    if (st.st_size == 0) {
        return std::string();
    }
    if (st.st_size > kMaxKsetSize) {
        ZFW_THROW(IOException, -1, true, "Size of kset file(%s) exceeded max size(%d bytes)",
                  fileName.c_str(), kMaxKsetSize);
    }
    char buffer[kMaxKsetSize];
    const ssize_t n = read(fd, buffer, static_cast<size_t>(st.st_size));
    if (n < 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, err, true, err, "Cannot read file %s", fileName.c_str());
    }
    if (n < st.st_size) {
        ZFW_THROW(IOException, -1, true, "Cannot read all data in file %s", fileName.c_str());
    }
    std::string value;
    for (ssize_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(buffer[i]);
        if (!std::iscntrl(c)) {
            value += static_cast<char>(c);
        } else if (!(c == '\n' && i == n - 1)) {
            ZFW_THROW(BadDataException, -1, true, "Control character is disallowed in %s file.",
                      fileName.c_str());
        }
    }
    return trim(value);
}

void writeKsetFile(const std::string& key, const std::string& value, int mode,
                   const std::string& dir) {
    MutexLock lock(gSettingsMutex);
    const std::string trimmed = trim(value);
    const std::string targetDir = dir.empty() ? gDataDir : dir;
    const std::string fileName = ksetPath(key, targetDir);
    // The directory the file goes to is created on demand (the default one included).
    const path dirPath(targetDir);
    if (!dirPath.exists()) {
        dirPath.createDirectories(0755);
    }
    if (trimmed.empty()) {
        // An empty setting is an absent file.
        unlink(fileName.c_str());
        return;
    }
    if (trimmed.size() > static_cast<size_t>(kMaxKsetSize)) {
        ZFW_THROW(IOException, -1, true, "Size of kset file(%s) exceeded max size(%d bytes)",
                  fileName.c_str(), kMaxKsetSize);
    }
    std::string tempName = fileName + SETTING_TEMP_SUFFIX + ".XXXXXX";
    const int fd = makeTempFile(tempName);
    Descriptor closer(fd);
    TempFileRemover remover(tempName);
    const ssize_t n = write(fd, trimmed.data(), trimmed.size());
    if (n < 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, err, true, err, "Cannot write file %s", tempName.c_str());
    }
    if (static_cast<size_t>(n) != trimmed.size()) {
        ZFW_THROW(IOException, -1, true, "Cannot write all data to file %s", tempName.c_str());
    }
    // The mode is set and the data flushed before the rename, so the name never shows a
    // file with the wrong mode or, after a crash, without its data.
    if (fchmod(fd, mode == 1 ? 0644 : 0600) != 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, err, true, err, "Cannot chmod file %s", fileName.c_str());
    }
    if (fsync(fd) != 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, err, true, err, "Cannot write file %s", tempName.c_str());
    }
    if (rename(tempName.c_str(), fileName.c_str()) != 0) {
        const int err = errno;
        ZFW_THROW_ERRNO(IOException, err, true, err, "Cannot rename file to %s", fileName.c_str());
    }
    remover.renamed();
    syncDirectory(dirPath.systemForm());
}

bool settingExists(const std::string& key) {
    MutexLock lock(gSettingsMutex);
    return path(ksetPath(key, gDataDir)).exists();
}

time_t settingModifiedTime(const std::string& key) {
    MutexLock lock(gSettingsMutex);
    struct stat st;
    if (stat(ksetPath(key, gDataDir).c_str(), &st) != 0) {
        return 0;
    }
    return st.st_mtime;
}

std::string getDataDir() {
    MutexLock lock(gSettingsMutex);
    return gDataDir;
}

void changeDataDir(const std::string& dir) {
    MutexLock lock(gSettingsMutex);
    boost::shared_ptr<Logger> logger = settingsLogger();
    if (!gSettingsMap.empty()) {
        logger->log(Logger::WARN,
                    "Settings Map already been created, cannot change root of data directory.");
        ZFW_THROW(AlreadyException, -1, true, "change data dir");
    }
    logger->log(Logger::INFO, "Change Root of Data directory to %s.", dir.c_str());
    gDataDir = dir;
}

void ensureDataDir() {
    MutexLock lock(gSettingsMutex);
    const path dir(gDataDir);
    if (!dir.exists()) {
        dir.createDirectories(0755);
    }
}

void removeDataDir() {
    MutexLock lock(gSettingsMutex);
    path(gDataDir).remove(true);
}

void clearSettingsCache() {
    gSettingsMap.clear();
}

int flushPendingSettings() {
    MutexLock lock(gSettingsMutex);
    if (gFirstFlush) {
        gFirstFlush = false;
        removeStaleTempFiles();
    }
    if (gPendingKeys.empty()) {
        return 0;
    }
    size_t walked = 0;
    for (; walked < gPendingKeys.size(); ++walked) {
        const auto cached = gSettingsMap.find(gPendingKeys[walked]);
        if (cached == gSettingsMap.end()) {
            continue;
        }
        try {
            writeKsetFile(cached->first, cached->second.value, cached->second.mode,
                          kDefaultDataDir);
        } catch (const std::exception&) {
            // Stays pending, with every key after it, for the next attempt.
            break;
        }
    }
    gPendingKeys.erase(gPendingKeys.begin(),
                       gPendingKeys.begin() + static_cast<std::ptrdiff_t>(walked));
    removeStaleTempFiles();
    return static_cast<int>(gPendingKeys.size());
}

void removeStaleTempFiles() {
    OpenDirectory dir(kDefaultDataDir);
    const path dirPath(kDefaultDataDir);
    while (struct dirent* entry = dir.next()) {
        const std::string name = entry->d_name;
        if (dirPath.child(name).isDirectory()) {
            continue;
        }
        if (containsIgnoreCase(name, SETTING_TEMP_SUFFIX)) {
            unlink((kDefaultDataDir + name).c_str());
        }
    }
}

bool isJoined() {
    try {
        if (path(SETTING_BINDUP_MARKER).exists()) {
            return false;
        }
        if (getSetting(SETTING_DOMAIN_NAME, false).empty()) {
            return false;
        }
        return !getSetting(SETTING_HOST_NAME, false).empty();
    } catch (const std::exception&) {
        return false;
    }
}

void verifyKeySets() {
    const std::string zoneName = getSettingOr(SETTING_ZONE_REALNAME, std::string());
    const std::string schema = getSettingOr(SETTING_SCHEMA, std::string());
    const std::string zone = getSettingOr(SETTING_ZONE, std::string());
    const std::string host = getSettingOr(SETTING_HOST_NAME, std::string());
    if (host.empty()) {
        ZFW_THROW(IOException, 1, true, "Cannot find key sets of host.");
    }
    if (schema.empty()) {
        ZFW_THROW(IOException, 1, true, "Cannot find key sets of zone schema.");
    }
    if (schema != "NULL_AUTO" && schema != "NULL") {
        if (zoneName.empty() || zone.empty()) {
            ZFW_THROW(IOException, 1, true, "Cannot find key sets of zone name or zone guid.");
        }
    } else if (schema == "NULL_AUTO" && zone != kAutoZone) {
        ZFW_THROW(IOException, 1, true, "Incorrect key sets of zone guid for auto zone.");
    }
}

}  // namespace zfw
