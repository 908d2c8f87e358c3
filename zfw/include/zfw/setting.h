// Host settings: one small file per setting, "kset.<key>" in the data directory
// "/var/zantormx/", kept by the directory-service agent. Every value read or written is
// cached for the rest of the process; a property "kset.<key>" overrides a setting; writes
// that fail can be deferred and retried by a later write.
//
// Locking: gSettingsMutex guards all state. getSetting consults the properties store
// before it takes gSettingsMutex and never holds both; the properties parse holds its
// own lock while it reads settings, so properties always come first.
#ifndef ZFW_SETTING_H
#define ZFW_SETTING_H

#include <ctime>
#include <string>

namespace zfw {

class Mutex;

// Setting keys.
extern const char* const SETTING_MACHINE_SITE;               // "site"
extern const char* const SETTING_DOMAIN_NAME;                // "domain"
extern const char* const SETTING_HOST_NAME;                  // "host"
extern const char* const SETTING_PREW2K_HOST;                // "prew2k.host"
extern const char* const SETTING_PASSWORD_CHANGE_TIMESTAMP;  // "password.change.timestamp"
extern const char* const SETTING_ZONE;                       // "zone"
extern const char* const SETTING_ZONE_REALNAME;              // "zonename"
extern const char* const SETTING_DOMAIN_CONTROLLER;          // "domaincontroller"
extern const char* const SETTING_SCHEMA;                     // "schema"
extern const char* const SETTING_SFU_DOMAIN;                 // "sfudomain"
extern const char* const SETTING_PREFERRED_ENCTYPE;          // "preferred.enctype"
extern const char* const SETTING_DES_SALT;                   // "des.salt"
extern const char* const SETTING_GLOBAL_CATALOG;             // "globalcatalog"
extern const char* const SETTING_FOREST;                     // "forest"
extern const char* const SETTING_HOST_SID;                   // "hostsid"
extern const char* const SETTING_CACHE_EXPIRED;              // "cache.expired"
extern const char* const SETTING_INSTALLATION_ID;            // "kv.installation.id"
// Exists while the host is being joined: "/var/zantormx//ZMX_BINDUP_IN_PROGRESS".
extern const char* const SETTING_BINDUP_MARKER;
// Part of the name of a kset file being written: ".KSET.TEMP".
extern const char* const SETTING_TEMP_SUFFIX;

// Largest kset file or value, in bytes.
constexpr int kMaxKsetSize = 1024;

// Guards everything below.
extern Mutex gSettingsMutex;

// The setting's value: a non-empty property "kset.<key>" (unless noOverride), else the
// cached value, else the file (then cached). A missing or bad file throws.
std::string getSetting(const std::string& key, bool noOverride = false);
// getSetting with overrides allowed; def when anything goes wrong.
std::string getSettingOr(const std::string& key, const std::string& def);
// Caches the value and writes it (mode 1: readable by all, else owner only). A failed
// write with deferOnFailure, in the default directory, is retried by a later setSetting.
void setSetting(const std::string& key, const std::string& value, int mode, bool deferOnFailure);

// Reads and checks one kset file of dir (gDataDir when empty): at most 1024 bytes, no
// control characters except one final line feed; the value comes back trimmed.
std::string readKsetFile(const std::string& key, const std::string& dir = std::string());
// Writes one kset file crash-safe (temporary file, rename); an empty value deletes it.
void writeKsetFile(const std::string& key, const std::string& value, int mode,
                   const std::string& dir = std::string());

bool settingExists(const std::string& key);
// Modification time of the setting's file, 0 when it cannot be read.
time_t settingModifiedTime(const std::string& key);

std::string getDataDir();
// Changes the data directory (with trailing slash); only possible before any setting was
// cached, else zfw::AlreadyException.
void changeDataDir(const std::string& dir);
void ensureDataDir();
void removeDataDir();
// Forgets every cached setting; the caller holds gSettingsMutex.
void clearSettingsCache();

// Writes deferred settings into "/var/zantormx/"; returns how many are still pending.
int flushPendingSettings();
// Deletes leftover temporary kset files in "/var/zantormx/".
void removeStaleTempFiles();

// The host is joined: no join in progress and both "domain" and "host" are set.
bool isJoined();
// Throws zfw::IOException (code 1) when the host or zone settings are incomplete.
void verifyKeySets();

}  // namespace zfw

#endif
