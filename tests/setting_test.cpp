// Host settings: kset files in "/var/zantormx/", the cache, property overrides, the data
// directory and the key-set checks.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "support/expect_throw.h"
#include "support/files.h"
#include "support/private_root.h"
#include "zfw/exception.h"
#include "zfw/mutex.h"
#include "zfw/path.h"
#include "zfw/properties.h"
#include "zfw/setting.h"

namespace {

using kvtest::modeOf;
using kvtest::present;
using kvtest::readFile;
using kvtest::thrownText;
using kvtest::writeFile;

const std::string kDir = "/var/zantormx/";

class SettingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(kvtest::clearPrivateDirs()) << "/etc/zantorkv or /var/zantormx is not private";
        zfw::Properties::destroyProperties();
        forget();
        zfw::changeDataDir(kDir);
    }
    void TearDown() override { zfw::Properties::destroyProperties(); }

    static void forget() {
        zfw::MutexLock lock(zfw::gSettingsMutex);
        zfw::clearSettingsCache();
    }
};

TEST_F(SettingTest, ReadKsetFileValues) {
    const struct {
        std::string content;
        const char* value;
    } cases[] = {{"dom1\n", "dom1"},
                 {"dom1", "dom1"},
                 {"  x  ", "x"},
                 {"", ""},
                 {"\n", ""},
                 {"a b c", "a b c"},
                 {std::string(1024, 'v'), nullptr},
                 {"caf\xc3\xa9", "caf\xc3\xa9"}};
    for (const auto& c : cases) {
        writeFile(kDir + "kset.k", c.content);
        const std::string expected = c.value != nullptr ? c.value : c.content;
        EXPECT_EQ(zfw::readKsetFile("k"), expected) << c.content;
        EXPECT_EQ(zfw::readKsetFile("k", kDir), expected) << c.content;
    }
}

TEST_F(SettingTest, ReadKsetFileErrors) {
    const std::string file = kDir + "kset.k";
    const std::string control = "Control character is disallowed in " + file + " file.";
    for (const std::string& content :
         {std::string("a\nb"), std::string("a\r"), std::string("a\tb"), std::string("a\n\n"),
          std::string("\x7f"), std::string("a\0b", 3)}) {
        writeFile(file, content);
        kvtest::expectThrow<zfw::BadDataException>([] { zfw::readKsetFile("k"); }, control, -1);
    }
    writeFile(file, std::string(1025, 'v'));
    kvtest::expectThrow<zfw::IOException>(
        [] { zfw::readKsetFile("k"); },
        "Size of kset file(" + file + ") exceeded max size(1024 bytes)", -1);
    kvtest::expectThrow<zfw::IOException>(
        [] { zfw::readKsetFile("missing"); },
        "Cannot open file " + kDir + "kset.missing: " + strerror(ENOENT), ENOENT);
    // A directory under the name cannot be read; a FIFO reads as empty without blocking.
    ASSERT_EQ(mkdir((kDir + "kset.dir").c_str(), 0755), 0);
    EXPECT_THROW(zfw::readKsetFile("dir"), zfw::IOException);
    ASSERT_EQ(mkfifo((kDir + "kset.fifo").c_str(), 0600), 0);
    EXPECT_EQ(zfw::readKsetFile("fifo"), "");
}

TEST_F(SettingTest, WriteKsetFile) {
    zfw::writeKsetFile("k", "  x  ", 0);
    EXPECT_EQ(readFile(kDir + "kset.k"), "x");
    EXPECT_EQ(modeOf(kDir + "kset.k"), 0600u);
    zfw::writeKsetFile("k", "shared", 1);
    EXPECT_EQ(readFile(kDir + "kset.k"), "shared");
    EXPECT_EQ(modeOf(kDir + "kset.k"), 0644u);
    zfw::writeKsetFile("k", "private", 2);
    EXPECT_EQ(modeOf(kDir + "kset.k"), 0600u);
    zfw::writeKsetFile("k", std::string(1024, 'v'), 0);
    EXPECT_EQ(readFile(kDir + "kset.k").size(), 1024u);

    const std::string over = "Size of kset file(" + kDir + "kset.k) exceeded max size(1024 bytes)";
    EXPECT_EQ(
        thrownText<zfw::IOException>([] { zfw::writeKsetFile("k", std::string(1025, 'v'), 0); }),
        over);
    EXPECT_EQ(readFile(kDir + "kset.k").size(), 1024u);

    for (const char* empty : {"", "   "}) {
        zfw::writeKsetFile("k", "x", 0);
        zfw::writeKsetFile("k", empty, 0);
        EXPECT_FALSE(present(kDir + "kset.k")) << "'" << empty << "'";
    }
    // Nothing temporary is left behind.
    int entries = 0;
    for (zfw::directory_iterator it{zfw::path(kDir)}; it != zfw::directory_iterator::end(); ++it) {
        ++entries;
    }
    EXPECT_EQ(entries, 0);
}

// Property overrides; a setting read once comes from the cache, and fixes the data directory.
TEST_F(SettingTest, OverridesAndCache) {
    writeFile("/etc/zantorkv/zantorkv.conf", "kset.host=override\n");
    writeFile(kDir + "kset.host", "fromfile");
    EXPECT_EQ(zfw::getSetting("host", false), "override");
    EXPECT_EQ(zfw::getSetting("host", true), "fromfile");
    writeFile(kDir + "kset.host", "changed");
    EXPECT_EQ(zfw::getSetting("host", true), "fromfile");
    kvtest::expectThrow<zfw::AlreadyException>([] { zfw::changeDataDir("/tmp/"); },
                                               "change data dir", -1);
}

TEST_F(SettingTest, VerifyKeySets) {
    const std::string autoZone = "00112233445566778899aabbccddeeff";
    // host, schema, zone and the error.
    const std::array<std::string, 4> cases[] = {
        {"", "", "", "Cannot find key sets of host."},
        {"h", "", "", "Cannot find key sets of zone schema."},
        {"h", "AD", autoZone, "Cannot find key sets of zone name or zone guid."},
        {"h", "NULL", "", ""},
        {"h", "NULL_AUTO", autoZone, ""},
        {"h", "NULL_AUTO", "00112233445566778899aabbccddeef0",
         "Incorrect key sets of zone guid for auto zone."}};
    for (const auto& c : cases) {
        forget();
        zfw::writeKsetFile("host", c[0], 0);
        zfw::writeKsetFile("schema", c[1], 0);
        zfw::writeKsetFile("zone", c[2], 0);
        EXPECT_EQ(thrownText<zfw::IOException>(zfw::verifyKeySets), c[3]) << c[1];
    }
}

}  // namespace
