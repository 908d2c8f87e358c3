// Parses arbitrary bytes as a configuration file, with and without expansion, then reads
// every stored key back through the getters and as a list. The host's configuration and
// settings are never read: the process-wide store is created empty up front and the
// join parameters come from a private settings directory.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <sstream>
#include <string>

#include "repeat.h"
#include "zfw/exception.h"
#include "zfw/properties.h"
#include "zfw/setting.h"

namespace {

void check(bool ok) {
    if (!ok) {
        abort();
    }
}

void writeSetting(const std::string& dir, const char* key, const char* value) {
    const std::string name = dir + "kset." + key;
    FILE* f = fopen(name.c_str(), "w");
    check(f != nullptr);
    fputs(value, f);
    fclose(f);
    // Read once with overrides off, so that every later read comes from the cache.
    check(zfw::getSetting(key, true) == value);
}

void exercise(const std::string& text, bool expand) {
    zfw::Properties props(expand, false);
    std::istringstream in(text);
    props.parse(in, expand);
    check(props.loaded());
    check(props.expanding() == expand);
    const std::string def = "x y";
    for (auto it = props.begin(); it != props.end(); ++it) {
        const std::string& key = it->first;
        check(props.get(key) == it->second);
        props.getInt(key, 1);
        props.getBool(key, true);
        // A list file could name anything on the host: lists are split only from values.
        if (it->second.compare(0, 5, "file:") == 0) {
            continue;
        }
        // From the stored value (or from nothing) a list is cached; from the default not.
        const auto list = props.getList(key);
        check(list && props.getList(key) == list && props.getList(key, &def) == list);
        zfw::Properties::const_iterator first;
        zfw::Properties::const_iterator last;
        if (!key.empty()) {
            check(props.findPrefix(key, first, last) && first == it);
        }
    }
    std::ostringstream out;
    props.write(out, "fuzz");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zfw::Properties::gZhubProperties = new zfw::Properties(true, false);
    char dir[] = "/tmp/kvfuzzpropsXXXXXX";
    check(mkdtemp(dir) != nullptr);
    const std::string dataDir = std::string(dir) + "/";
    zfw::changeDataDir(dataDir);
    writeSetting(dataDir, zfw::SETTING_HOST_NAME, "fuzzhost");
    writeSetting(dataDir, zfw::SETTING_MACHINE_SITE, "fuzzsite");
    writeSetting(dataDir, zfw::SETTING_DOMAIN_NAME, "fuzz.example");
    writeSetting(dataDir, zfw::SETTING_ZONE_REALNAME, "CN=zone,CN=Zones,DC=fuzz");
    for (const char* key : {zfw::SETTING_HOST_NAME, zfw::SETTING_MACHINE_SITE,
                            zfw::SETTING_DOMAIN_NAME, zfw::SETTING_ZONE_REALNAME}) {
        unlink((dataDir + "kset." + key).c_str());
    }
    rmdir(dir);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = repeatedInput(data, size, kMaxFileInput);
    exercise(text, true);
    exercise(text, false);
    return 0;
}
