// The properties store: syntax, quotes, variables, getters and lists; list editing, escaping
// into file syntax, and saving real files under a lock file, stale locks included.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>

#include "support/child.h"
#include "support/files.h"
#include "support/private_root.h"
#include "zfw/properties.h"
#include "zfw/setting.h"

namespace {

using kvtest::present;
using kvtest::readFile;
using kvtest::TempDir;
using kvtest::writeFile;
using zfw::Properties;
using zfw::StringList;

// A store holding exactly what the text says, read by the real parser.
std::unique_ptr<Properties> storeOf(const std::string& text, bool expand = true) {
    std::unique_ptr<Properties> props(new Properties(expand, false));
    std::istringstream in(text);
    props->parse(in, expand);
    return props;
}

StringList listOf(std::initializer_list<const char*> items) {
    return StringList(items.begin(), items.end());
}

class PropertiesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(kvtest::clearPrivateDirs()) << "/etc/zantorkv or /var/zantormx is not private";
        Properties::destroyProperties();
        zfw::MutexLock lock(zfw::gSettingsMutex);
        zfw::clearSettingsCache();
    }
    void TearDown() override { Properties::destroyProperties(); }
};

struct LineCase {
    const char *line, *key, *value;
};

TEST_F(PropertiesTest, LinesAndValuesWithExpansion) {
    writeFile("/var/zantormx/kset.host", "myhost\n");
    setenv("PROPS_TEST_HOME", "/home/t", 1);
    setenv("PROPS_TEST_QUOTED", "\"a\\tb\"", 1);
    const LineCase cases[] = {{"a=1", "a", "1"},
                              {"a:1", "a", "1"},
                              {"a 1", "a", "1"},
                              {"a:=1", "a", "1"},
                              {"a==1", "a", "=1"},
                              {"a =1", "a", "1"},
                              {"  a=1", "a", "1"},
                              {"a\t=\t1", "a", "1"},
                              {"a : 1", "a", ": 1"},
                              {"a=", "a", ""},
                              {"a", "a", ""},
                              {" #x=1", "#x", "1"},
                              {"  # text", "#", "text"},
                              {"key\\ name=v", "key name", "v"},
                              {"a\\:b=c", "a:b", "c"},
                              {"a=x\\,y", "a", "x,y"},
                              {"a=\"b  c\"", "a", "b  c"},
                              {"a=b   c", "a", "b c"},
                              {"a=b \t\f c  ", "a", "b c"},
                              {"a='x\\ty'", "a", "x\ty"},
                              {"a=x\\ty", "a", "x\ty"},
                              {"a=x\\\\ty", "a", "x\\ty"},
                              {"a=\"x\\\"y\"", "a", "x\"y"},
                              {"a=\"x\\\"  y\"", "a", "x\"  y"},
                              {"a=\"it's\"   b", "a", "\"it's\" b"},
                              {"a=\"b\" \"c\"", "a", "\"b\" \"c\""},
                              {"a=x\\ ", "a", "x "},
                              {"a=\\\\", "a", "\\"},
                              {"'qk'=v", "qk", "v"},
                              {"a=1 # not a comment", "a", "1 # not a comment"},
                              {"a=x\r", "a", "x"},
                              {"h=$JOINNAME", "h", "myhost"},
                              {"q=$PROPS_TEST_QUOTED", "q", "a\tb"},
                              {"p=$PROPS_TEST_HOME/x", "p", "/home/t/x"},
                              {"c='$a'", "c", "$a"},
                              {"d=\\$a", "d", "$a"},
                              {"e=$nosuch", "e", ""},
                              {"f=\"$PROPS_TEST_HOME\"", "f", "/home/t"},
                              {"g=a$", "g", "a"},
                              {"m=a$:b", "m", "a:b"},
                              {"n=$9abc", "n", "abc"},
                              {"w=$$", "w", ""},
                              {"v=${PROPS_TEST_HOME}", "v", "{PROPS_TEST_HOME}"}};
    for (const LineCase& c : cases) {
        SCOPED_TRACE(c.line);
        const auto props = storeOf(std::string(c.line) + "\n");
        EXPECT_EQ(props->get(c.key), c.value);
        std::ostringstream all;
        props->write(all, "");
        EXPECT_EQ(all.str(), std::string(c.key) + "=" + c.value + "\n");
    }
}

// Getters; variables naming earlier keys, after a set but empty environment variable.
TEST_F(PropertiesTest, GettersAndEarlierKeys) {
    setenv("PROPS_TEST_EMPTY", "", 1);
    const auto props = storeOf(
        "i1=12abc\ni2=abc\ni3=-7\ni4=\n"
        "b1=Yes\nb2=maybe\nb3=0\nb4=TRUE\nb5=No\nb6=\nb7=false\nb8=1\n"
        "x=5\ny=$x\nPROPS_TEST_EMPTY=raw\nz=[$PROPS_TEST_EMPTY]\n");
    EXPECT_EQ(props->get("y"), "5");
    EXPECT_EQ(props->get("z"), "[]");
    EXPECT_EQ(props->getInt("i1", 3), 12);
    EXPECT_EQ(props->getInt("i2", 3), 0);
    EXPECT_EQ(props->getInt("i3", 3), -7);
    EXPECT_EQ(props->getInt("i4", 3), 3);
    EXPECT_EQ(props->getInt("absent", 3), 3);
    const struct {
        const char* key;
        bool withFalse, withTrue;
    } bools[] = {{"b1", true, true},   {"b2", false, true},  {"b3", false, false},
                 {"b4", true, true},   {"b5", false, false}, {"b6", false, true},
                 {"b7", false, false}, {"b8", true, true},   {"absent", false, true}};
    for (const auto& b : bools) {
        EXPECT_EQ(props->getBool(b.key, false), b.withFalse) << b.key;
        EXPECT_EQ(props->getBool(b.key, true), b.withTrue) << b.key;
    }
    EXPECT_EQ(props->get("absent"), "");
}

// A second parse into the same store: keys it does not give keep their values, but neither
// variables nor lists see their text any more; keys it gives again are seen, with their
// text before processing.
TEST_F(PropertiesTest, KeysOfAnEarlierParse) {
    const auto props = storeOf("kept=a b\nquoted=\"q r\"\nplain=p\n");
    std::istringstream second("quoted=\"s t\"\nplain=n\nv=[$kept][$quoted][$plain]\n");
    props->parse(second, true);
    EXPECT_EQ(props->get("kept"), "a b");
    EXPECT_EQ(props->get("quoted"), "s t");
    EXPECT_EQ(props->get("v"), "[][s t][n]");
    EXPECT_EQ(*props->getList("kept"), listOf({}));
    EXPECT_EQ(*props->getList("quoted"), listOf({"s t"}));
    EXPECT_EQ(*props->getList("plain"), listOf({"n"}));
}

// Joining continuation lines takes time, and a loaded file memory, in proportion to the
// input. The bounds are many times what that takes and a fraction of what rescanning the
// joined line after each continuation, or keeping the file and each entry twice, took.
TEST_F(PropertiesTest, LinearInTheInput) {
    TempDir dir;
    std::string joined, continued;
    for (int i = 0; i < 1000000; ++i) {
        continued += "a\\\n";
        joined += "a ";
    }
    std::string distinct;
    char line[32];
    for (int i = 0; i < 320000; ++i) {
        snprintf(line, sizeof line, "key.%08d=value%06d\n", i, i);
        distinct += line;
    }
    struct Case {
        const char* name;
        std::string text;
        const char* key;
        std::string value;
        size_t entries;
        long maxGrowthKb;  // 0: not bounded
    };
    const Case cases[] = {
        {"a million continuation lines", "k=" + continued + "end\n", "k", joined + "end", 1, 0},
        {"8 MB of distinct keys", distinct, "key.00319999", "value319999", 320000,
         static_cast<long>(distinct.size() * 8 / 1024)}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir.write("big.conf", c.text);
        kvtest::expectBounded(
            [&] {
                Properties props(false, false);
                props.load(path, false);
                const auto size = static_cast<size_t>(std::distance(props.begin(), props.end()));
                return props.get(c.key) == c.value && size == c.entries ? 0 : 1;
            },
            c.maxGrowthKb);
    }
}

TEST_F(PropertiesTest, Lists) {
    TempDir dir;
    const std::string items = dir.write("items", "  one  \n\n# c\n!c\n\"a\\tb\"\n'x y'\n");
    const std::pair<std::string, StringList> cases[] = {{"a, b,c", {"a", "b", "c"}},
                                                        {"'a b' c", {"a b", "c"}},
                                                        {"file:" + items, {"one", "a\tb", "x y"}}};
    for (const auto& c : cases) {
        EXPECT_EQ(*storeOf("l=" + c.first + "\n")->getList("l"), c.second) << c.first;
    }
}

TEST(PropertiesEscape, ValuesInFileSyntax) {
    struct Case {
        const char* value;
        bool escapeDollars;
        const char* escaped;
    };
    const Case cases[] = {{"plain", false, "plain"},
                          {"a b", false, "\"a b\""},
                          {"a, b", false, "\"a, b\""},
                          {"a,b", false, "a\\,b"},
                          {"x\"y", false, "x\\\"y"},
                          {"it's", false, "it\\'s"},
                          {"a\\b", false, "a\\\\b"},
                          {"\t", false, "\\t"},
                          {"1\n2\r3\v4\f", false, "1\\n2\\r3\\v4\\f"},
                          {"$$", false, "\\$"},
                          {"$HOME$", false, "$HOME"},
                          {"$A$B", false, "$A\\B"},
                          {"$A$/b", false, "$A/b"},
                          {"$A$_b", false, "$A\\_b"},
                          {"x$", false, "x$"},
                          {"$$", true, "\\$\\$"},
                          {"$HOME$", true, "\\$HOME\\$"},
                          {"a $b", true, "\"a \\$b\""},
                          {"", false, ""}};
    for (const Case& c : cases) {
        EXPECT_EQ(Properties::escapeValue(c.value, c.escapeDollars), c.escaped)
            << "value [" << c.value << "] escapeDollars " << c.escapeDollars;
    }
    EXPECT_EQ(Properties::formatEntry("k.x", "a b", false), "k.x: \"a b\"");
    EXPECT_EQ(Properties::formatList(listOf({"a b", "c,d", "$e"}), true), "\"a b\" c\\,d \\$e");
    EXPECT_EQ(Properties::formatListEntry("l", listOf({"x", "y"}), false), "l: x y");
    EXPECT_EQ(Properties::formatList(StringList(), false), "");
}

TEST(PropertiesSave, UnchangedStoreKeepsTheFile) {
    TempDir dir;
    const std::string path = dir.file("p.conf");
    const std::string original =
        "# header\n"
        "\n"
        "\n"
        "a=1\n"
        "b = two   words\n"
        "  indented: yes\n"
        "c=x\\\n"
        "   y\n"
        "# a comment that ends with a backslash \\\n"
        "d=4\n"
        "\n"
        "\n"
        "\n"
        "e:5\n";
    writeFile(path, original);
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    Properties props(true, false);
    props.load(path, true);
    ASSERT_EQ(props.get("d"), "4");

    // The saved file is readable by all whatever the old file's mode and the umask.
    const mode_t umaskBefore = umask(077);
    ASSERT_EQ(props.save(path), 0);
    umask(umaskBefore);
    // Blank runs shrink to one, continued lines come out joined, the comment swallows the
    // line after it (so "d" is appended), and the final line feed yields one blank line.
    EXPECT_EQ(readFile(path),
              "# header\n"
              "\n"
              "a=1\n"
              "b = two   words\n"
              "  indented: yes\n"
              "c=x    y\n"
              "# a comment that ends with a backslash  d=4\n"
              "\n"
              "e:5\n"
              "\n"
              "d: 4\n");
    EXPECT_FALSE(present(path + ".lock"));
    EXPECT_FALSE(present(path + ".new"));
    EXPECT_EQ(kvtest::modeOf(path), 0644u);

    writeFile(path, "a=1\nb=2\n");
    Properties again(true, false);
    again.load(path, true);
    ASSERT_EQ(again.save(path), 0);
    EXPECT_EQ(readFile(path), "a=1\nb=2\n\n");
    ASSERT_EQ(again.save(path), 0);
    EXPECT_EQ(readFile(path), "a=1\nb=2\n\n");
}

TEST(PropertiesSave, ChangedNewAndRemovedKeys) {
    TempDir dir;
    const std::string path = dir.file("p.conf");
    writeFile(path, "# keep me\na=1\nb=2\nc=3\nl=x y\nq='$HOME'");
    std::unique_ptr<Properties> props =
        storeOf("a=1\nc=30\nn=new  value\nl=x y\nq='$HOME'\nr=x y x\n");
    EXPECT_TRUE(props->addToList("l", listOf({"w v"}), false));
    EXPECT_FALSE(props->addToList("l", listOf({"x"}), false));
    EXPECT_FALSE(props->removeFromList("r", listOf({"z"}), false));
    EXPECT_TRUE(props->removeFromList("r", listOf({"x", "z"}), false));
    EXPECT_EQ(props->save(dir.file("missing")), -1);
    EXPECT_FALSE(present(dir.file("missing")));

    ASSERT_EQ(props->save(path), 0);
    EXPECT_EQ(readFile(path),
              "# keep me\n"
              "a=1\n"
              "c: 30\n"
              "l: \"w v\" x y\n"
              "q='$HOME'\n"
              "n: new value\n"
              "r: y x\n");
    std::unique_ptr<Properties> reread(new Properties(true, false));
    reread->load(path, true);
    EXPECT_EQ(*reread->getList("l"), listOf({"w v", "x", "y"}));
}

// A lock last accessed over 60 s ago is stale and taken over; a recent one makes the save fail.
TEST(PropertiesLock, StaleLocksAreTakenOver) {
    TempDir dir;
    const std::string path = dir.write("p.conf", "a=1\n");
    for (const time_t accessedAgo : {0, 120}) {
        writeFile(path + ".lock", "");
        struct timespec times[2] = {{time(nullptr) - accessedAgo, 0}, {0, UTIME_NOW}};
        ASSERT_EQ(utimensat(AT_FDCWD, (path + ".lock").c_str(), times, 0), 0);
        EXPECT_EQ(Properties(true, false).save(path), accessedAgo > 60 ? 0 : -1) << accessedAgo;
        EXPECT_EQ(present(path + ".lock"), accessedAgo <= 60) << accessedAgo;
    }
}

// A lock file goes only with the descriptor that holds it: one that cannot be closed may
// not be ours, and its lock file stays.
TEST(PropertiesLock, RemovedOnlyWithItsDescriptor) {
    TempDir dir;
    const std::string lockPath = dir.file("p.conf.lock");
    const int fd = Properties::createLockFile(lockPath);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(Properties::removeLockFile(lockPath, -1), -1);
    EXPECT_TRUE(present(lockPath));
    EXPECT_EQ(Properties::removeLockFile(lockPath, fd), 0);
    EXPECT_FALSE(present(lockPath));
}

}  // namespace
