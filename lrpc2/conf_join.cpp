// The configuration reader's built-in variables: the host's join parameters, read from the
// first line of their host setting files.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "conf_internal.h"

namespace {

const char kSettingPrefix[] = "/var/zantormx/kset.";
// A first line is read like fgets into 1024 bytes: at most 1023 of them.
constexpr size_t kMaxLine = 1023;

// The first line of the setting file, its line end included when it has one.
int32_t readFirstLine(const char* settingKey, char* line) {
    char path[sizeof kSettingPrefix + 256];
    const size_t keyLength = strlen(settingKey);
    if (keyLength >= sizeof path - sizeof kSettingPrefix) {
        return CONF_ERR_OPEN;
    }
    memcpy(path, kSettingPrefix, sizeof kSettingPrefix - 1);
    memcpy(path + sizeof kSettingPrefix - 1, settingKey, keyLength + 1);

    int32_t rc = 0;
    const int fd = conf::openRegular(path, &rc);
    if (fd < 0) {
        return rc;
    }
    size_t length = 0;
    while (rc == 0 && length < kMaxLine && memchr(line, '\n', length) == nullptr) {
        const long n = conf::readSome(fd, line + length, kMaxLine - length);
        if (n < 0) {
            rc = CONF_ERR_OPEN;
        } else if (n == 0) {
            break;
        } else {
            length += static_cast<size_t>(n);
        }
    }
    close(fd);
    if (rc != 0) {
        return rc;
    }
    const char* newline = static_cast<const char*>(memchr(line, '\n', length));
    line[newline != nullptr ? static_cast<size_t>(newline - line) + 1 : length] = '\0';
    return 0;
}

int32_t keep(const char* text, size_t n, char** value) {
    char* copy = strndup(text, n);
    if (copy == nullptr) {
        return CONF_ERR_NOMEM;
    }
    *value = copy;
    return 0;
}

int32_t resolveLine(const char* settingKey, char** value) {
    char line[kMaxLine + 1] = {};
    const int32_t rc = readFirstLine(settingKey, line);
    return rc != 0 ? rc : keep(line, strlen(line), value);
}

int32_t resolveZone(const char* settingKey, char** value) {
    char line[kMaxLine + 1] = {};
    const int32_t rc = readFirstLine(settingKey, line);
    if (rc != 0) {
        return rc;
    }
    if (line[0] == '\0') {
        return keep("", 0, value);
    }
    const char* name = strstr(line, "CN=");
    if (name == nullptr) {
        return keep("<unknown>", 9, value);
    }
    name += 3;
    return keep(name, strcspn(name, ",\r\n"), value);
}

}  // namespace

extern "C" const conf_join_param JoinParamResolveTable[CONF_JOIN_PARAM_COUNT] = {
    {"JOINNAME", "host", 0, resolveLine},
    {"SITE", "site", 1, resolveLine},
    {"DOMAIN", "domain", 2, resolveLine},
    {"ZONE", "zonename", 3, resolveZone},
};
