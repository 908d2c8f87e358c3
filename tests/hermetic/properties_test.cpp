// The properties store: the reader's syntax, variables, lists, getters and the process-wide
// instance loaded from "/etc/zantorkv/zantorkv.conf".
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <termios.h>

#include <atomic>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "hermetic/props_support.h"
#include "support/child.h"
#include "zfw/logger.h"
#include "zfw/properties.h"
#include "zfw/setting.h"

namespace {

using kvtest::writeFile;
using zfw::Properties;
using zfw::StringList;

const char* const kConf = "/etc/zantorkv/zantorkv.conf";

class PropertiesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        PROPS_REQUIRE_PRIVATE_DIRS();
        propstest::clearPrivateDirs();
        Properties::destroyProperties();
        zfw::MutexLock lock(zfw::gSettingsMutex);
        zfw::clearSettingsCache();
    }
    void TearDown() override { Properties::destroyProperties(); }

    // A store parsed from text.
    static std::unique_ptr<Properties> parsed(const std::string& text, bool expand = true) {
        std::unique_ptr<Properties> props(new Properties(expand, false));
        std::istringstream in(text);
        props->parse(in, expand);
        return props;
    }
    static std::vector<std::string> listOf(const boost::shared_ptr<StringList>& list) {
        return std::vector<std::string>(list->begin(), list->end());
    }
};

struct LineCase {
    const char* line;
    const char* key;
    const char* value;
};

TEST_F(PropertiesTest, LinesAndValuesWithExpansion) {
    writeFile("/var/zantormx/kset.host", "myhost\n");
    setenv("PROPS_TEST_HOME", "/home/t", 1);
    const LineCase cases[] = {
        {"a=1", "a", "1"},
        {"a:1", "a", "1"},
        {"a 1", "a", "1"},
        {"a:=1", "a", "1"},
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
        {"a=x\\ ", "a", "x "},
        {"a=\\\\", "a", "\\"},
        {"'qk'=v", "qk", "v"},
        {"a=1 # not a comment", "a", "1 # not a comment"},
        {"a=x\r", "a", "x"},
        {"h=$JOINNAME", "h", "myhost"},
        {"p=$PROPS_TEST_HOME/x", "p", "/home/t/x"},
        {"c='$a'", "c", "$a"},
        {"d=\\$a", "d", "$a"},
        {"e=$nosuch", "e", ""},
        {"f=\"$PROPS_TEST_HOME\"", "f", "/home/t"},
        {"g=a$", "g", "a"},
        {"n=$1abc", "n", "abc"},
        {"w=$$", "w", ""},
        {"v=${PROPS_TEST_HOME}", "v", "{PROPS_TEST_HOME}"},
    };
    for (const LineCase& c : cases) {
        SCOPED_TRACE(c.line);
        const auto props = parsed(std::string(c.line) + "\n");
        EXPECT_EQ(props->get(c.key), c.value);
        std::ostringstream all;
        props->write(all, "");
        EXPECT_EQ(all.str(), std::string(c.key) + "=" + c.value + "\n");
    }
}

TEST_F(PropertiesTest, LinesWithoutEntries) {
    for (const char* text : {"#x=1", "!x=1", "", "   ", "\t\f", "''=x", "\"\""}) {
        SCOPED_TRACE(text);
        const auto props = parsed(std::string(text) + "\n");
        std::ostringstream all;
        props->write(all, "");
        EXPECT_EQ(all.str(), "");
        EXPECT_TRUE(props->loaded());
    }
}

TEST_F(PropertiesTest, LinesWithExpansionOff) {
    const LineCase cases[] = {
        {"x=$a", "x", "$a$"},
        {"y='$'", "y", "$$"},
        {"d=\\$a", "d", "$$a"},
        {"j=$JOINNAME/x", "j", "$JOINNAME$/x"},
        {"z=\"$a\"", "z", "$a$"},
        {"w=$$", "w", "$$$$"},
        {"n=$1abc", "n", "$1$abc"},
        {"m=$A$B", "m", "$A$$B$"},
        {"plain=text", "plain", "text"},
    };
    for (const LineCase& c : cases) {
        SCOPED_TRACE(c.line);
        const auto props = parsed(std::string(c.line) + "\n", false);
        EXPECT_FALSE(props->expanding());
        EXPECT_EQ(props->get(c.key), c.value);
    }
}

TEST_F(PropertiesTest, EarlierKeysAndReplacements) {
    setenv("PROPS_TEST_DOLLAR", "$PROPS_TEST_HOME", 1);
    setenv("PROPS_TEST_EMPTY", "", 1);
    const auto props = parsed(
        "a=5\n"
        "b=$a\n"
        "q=\"quoted value\"\n"
        "r=[$q]\n"
        // Replacements are not scanned again.
        "s=$PROPS_TEST_DOLLAR\n"
        // A set but empty environment variable wins over an earlier key.
        "PROPS_TEST_EMPTY=fromfile\n"
        "t=<$PROPS_TEST_EMPTY>\n"
        // A later definition is not seen by earlier lines.
        "u=$later\n"
        "later=1\n"
        "a=6\n"
        "v=$a\n");
    EXPECT_EQ(props->get("b"), "5");
    EXPECT_EQ(props->get("r"), "[quoted value]");
    EXPECT_EQ(props->get("s"), "$PROPS_TEST_HOME");
    EXPECT_EQ(props->get("t"), "<>");
    EXPECT_EQ(props->get("u"), "");
    EXPECT_EQ(props->get("a"), "6");
    EXPECT_EQ(props->get("v"), "6");
}

TEST_F(PropertiesTest, JoinParametersFromHostSettings) {
    writeFile("/var/zantormx/kset.host", "host1\n");
    writeFile("/var/zantormx/kset.site", "  site1  ");
    writeFile("/var/zantormx/kset.domain", "example.com");
    const struct {
        const char* zonename;
        const char* zone;
    } zones[] = {
        {"CN=zone1,CN=Zones,DC=example", "zone1"},
        {"OU=x,CN=zone2,DC=y", "zone2"},
        {"CN=last", "last"},
        {"plainzone", "plainzone"},
        {"CN=", ""},
    };
    for (const auto& z : zones) {
        SCOPED_TRACE(z.zonename);
        {
            zfw::MutexLock lock(zfw::gSettingsMutex);
            zfw::clearSettingsCache();
        }
        writeFile("/var/zantormx/kset.zonename", z.zonename);
        const auto props = parsed("h=$JOINNAME\ns=$SITE\nd=$DOMAIN\nz=$ZONE\n");
        EXPECT_EQ(props->get("h"), "host1");
        EXPECT_EQ(props->get("s"), "site1");
        EXPECT_EQ(props->get("d"), "example.com");
        EXPECT_EQ(props->get("z"), z.zone);
    }
}

TEST_F(PropertiesTest, UnreadableJoinParametersAreUnknown) {
    // No kset files at all; a bad one; an oversize one.
    writeFile("/var/zantormx/kset.site", "bad\x01value");
    writeFile("/var/zantormx/kset.domain", std::string(1025, 'd'));
    const auto props = parsed("h=$JOINNAME\ns=$SITE\nd=$DOMAIN\nz=$ZONE\n");
    for (const char* key : {"h", "s", "d", "z"}) {
        EXPECT_EQ(props->get(key), "<unknown>") << key;
    }
}

TEST_F(PropertiesTest, JoinParameterOverriddenByProperty) {
    writeFile("/var/zantormx/kset.host", "fromfile");
    writeFile(kConf, "kset.host=override\nh=$JOINNAME\n");
    Properties* props = Properties::getProperties();
    // The first load resolved the variables before its own override entry was read.
    EXPECT_EQ(props->get("h"), "fromfile");
    EXPECT_EQ(zfw::getSetting("host", false), "override");
    EXPECT_EQ(zfw::getSetting("host", true), "fromfile");
    // A later parse into the same instance sees the override.
    props->load(kConf, true);
    EXPECT_EQ(props->get("h"), "override");
}

TEST_F(PropertiesTest, ContinuationLines) {
    const auto props = parsed(
        "a=one \\\n"
        "    two\n"
        "b=x\\\\\n"
        "c=after\n"
        "#comment \\\n"
        "d=not joined\n"
        "e=three\\\n"
        "\\\n"
        "end\n"
        "f=last\\");
    EXPECT_EQ(props->get("a"), "one two");
    EXPECT_EQ(props->get("b"), "x\\");
    EXPECT_EQ(props->get("c"), "after");
    EXPECT_EQ(props->get("d"), "not joined");
    EXPECT_EQ(props->get("e"), "three end");
    EXPECT_EQ(props->get("f"), "last");
}

TEST_F(PropertiesTest, ReadLogicalLine) {
    std::istringstream in("a\\\n  b\n#c\\\nd\n\nlast\n");
    std::string line;
    std::string scratch;
    std::vector<std::string> lines;
    while (Properties::readLogicalLine(in, line, scratch, true)) {
        lines.push_back(line);
    }
    // A final line feed yields one more, empty, line.
    EXPECT_EQ(lines, (std::vector<std::string>{"a   b", "#c\\", "d", "", "last", ""}));

    std::istringstream in2("#c\\\nd\n");
    lines.clear();
    while (Properties::readLogicalLine(in2, line, scratch, false)) {
        lines.push_back(line);
    }
    EXPECT_EQ(lines, (std::vector<std::string>{"#c d", ""}));
}

struct TextCase {
    const char* in;
    const char* out;
};

TEST_F(PropertiesTest, TextRoutines) {
    EXPECT_TRUE(Properties::endsWithEscape("a\\"));
    EXPECT_FALSE(Properties::endsWithEscape("a\\\\"));
    EXPECT_TRUE(Properties::endsWithEscape("\\\\\\"));
    EXPECT_FALSE(Properties::endsWithEscape(""));

    EXPECT_TRUE(Properties::isInsideQuotes("a\"b"));
    EXPECT_FALSE(Properties::isInsideQuotes("a\"b\""));
    EXPECT_FALSE(Properties::isInsideQuotes("a\\\"b"));
    EXPECT_TRUE(Properties::isInsideQuotes("'\""));
    EXPECT_FALSE(Properties::isInsideQuotes("'\"'"));
    EXPECT_TRUE(Properties::isInsideQuotes("\"'\"'"));

    const TextCase removeEscapes[] = {
        {"\\\\", "\\"}, {"\\:", ":"},     {"\\\"a\\b", "\"a\\b"},     {"'a\\b'", "'a\\b'"},
        {"a\\", "a"},   {"x\\ y", "x y"}, {"\"q\\\"\"", "\"q\\\"\""},
    };
    for (const TextCase& c : removeEscapes) {
        std::string s = c.in;
        Properties::removeEscapes(s);
        EXPECT_EQ(s, c.out) << "removeEscapes " << c.in;
    }
    const TextCase normalise[] = {
        {"  a  b  ", "a b"}, {"\"a  b\"  c", "\"a  b\" c"}, {"a\\ ", "a\\ "}, {"a\\\\ ", "a\\\\"},
        {"\t\n", ""},        {"'x\t\ty'", "'x\t\ty'"},
    };
    for (const TextCase& c : normalise) {
        std::string s = c.in;
        Properties::normaliseWhitespace(s);
        EXPECT_EQ(s, c.out) << "normaliseWhitespace " << c.in;
    }
    const TextCase controls[] = {
        {"\\t\\n\\r\\v\\f", "\t\n\r\v\f"},
        {"\\\\t", "\\\\t"},
        {"'\\t'", "'\t'"},
        {"\\x", "\\x"},
        {"end\\", "end\\"},
    };
    for (const TextCase& c : controls) {
        std::string s = c.in;
        Properties::unescapeControlChars(s);
        EXPECT_EQ(s, c.out) << "unescapeControlChars " << c.in;
    }
    const TextCase strip[] = {
        {"\"a b\"", "a b"},
        {"'a b'", "a b"},
        {"\"a\"b\"", "\"a\"b\""},
        {"\"a\\\"b\"", "a\"b"},
        {"\"\\t\\q\"", "\tq"},
        {"'a\\tb'", "a\\tb"},
        {"\"a\" 'b'", "\"a\" 'b'"},
        {"\"", "\""},
        {"x\"y\"", "x\"y\""},
        {"\"it's\"", "it's"},
        {"''", ""},
    };
    for (const TextCase& c : strip) {
        std::string s = c.in;
        Properties::stripQuotes(s);
        EXPECT_EQ(s, c.out) << "stripQuotes " << c.in;
    }
}

TEST_F(PropertiesTest, Getters) {
    const auto props = parsed(
        "i1=12abc\ni2=abc\ni3=-7\ni4=\n"
        "b1=Yes\nb2=maybe\nb3=0\nb4=TRUE\nb5=No\nb6=\nb7=false\nb8=1\n");
    EXPECT_EQ(props->getInt("i1", 3), 12);
    EXPECT_EQ(props->getInt("i2", 3), 0);
    EXPECT_EQ(props->getInt("i3", 3), -7);
    EXPECT_EQ(props->getInt("i4", 3), 3);
    EXPECT_EQ(props->getInt("absent", 3), 3);
    const struct {
        const char* key;
        bool withFalse;
        bool withTrue;
    } bools[] = {
        {"b1", true, true},   {"b2", false, true},  {"b3", false, false},
        {"b4", true, true},   {"b5", false, false}, {"b6", false, true},
        {"b7", false, false}, {"b8", true, true},   {"absent", false, true},
    };
    for (const auto& b : bools) {
        EXPECT_EQ(props->getBool(b.key, false), b.withFalse) << b.key;
        EXPECT_EQ(props->getBool(b.key, true), b.withTrue) << b.key;
    }
    EXPECT_EQ(props->get("absent"), "");
}

TEST_F(PropertiesTest, Lists) {
    const struct {
        const char* line;
        std::vector<std::string> items;
    } cases[] = {
        {"l=a, b,c", {"a", "b", "c"}},
        {"l='a b' c", {"a b", "c"}},
        {"l=a\\ b c", {"a b", "c"}},
        {"l=\"x,y\",z", {"x,y", "z"}},
        {"l=,, a ,,", {"a"}},
        {"l=a\\,b", {"a,b"}},
        {"l=\"unclosed a b", {"\"unclosed a b"}},
        {"l=$nosuch", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const auto props = parsed(std::string(c.line) + "\n");
        EXPECT_EQ(listOf(props->getList("l")), c.items);
    }
}

TEST_F(PropertiesTest, ListFiles) {
    writeFile("/etc/zantorkv/list.txt", "  one  \n\n# comment\n! other\n'two three'\n\tfour\n");
    const auto props = parsed("l=file:/etc/zantorkv/list.txt\nm=file\\:/etc/zantorkv/list.txt\n");
    EXPECT_EQ(listOf(props->getList("l")), (std::vector<std::string>{"one", "two three", "four"}));
    EXPECT_EQ(listOf(props->getList("m")), (std::vector<std::string>{"one", "two three", "four"}));

    // A missing file, a FIFO, a directory: logged, and the default is used instead.
    ASSERT_EQ(mkfifo("/etc/zantorkv/fifo", 0600), 0);
    const std::string def = "d1 d2";
    for (const char* target : {"/etc/zantorkv/missing", "/etc/zantorkv/fifo", "/etc/zantorkv"}) {
        SCOPED_TRACE(target);
        const auto bad = parsed(std::string("l=file:") + target + "\n");
        EXPECT_EQ(listOf(bad->getList("l", &def)), (std::vector<std::string>{"d1", "d2"}));
        EXPECT_TRUE(bad->getList("l")->empty());
    }
    // "file:" with nothing after it names no file.
    const auto bare = parsed("l=file:\n");
    EXPECT_EQ(listOf(bare->getList("l", &def)), (std::vector<std::string>{"d1", "d2"}));
}

TEST_F(PropertiesTest, ListCaching) {
    writeFile("/etc/zantorkv/list.txt", "a\n");
    std::istringstream text("l=file:/etc/zantorkv/list.txt\nk=x y\n");
    Properties props(true, false);
    props.parse(text, true);
    const auto first = props.getList("l");
    writeFile("/etc/zantorkv/list.txt", "b\n");
    EXPECT_EQ(props.getList("l"), first);
    EXPECT_EQ(listOf(props.getList("l")), (std::vector<std::string>{"a"}));

    // A list from the default is not cached; nothing at all is an empty list, cached.
    const std::string def = "p q";
    const auto fromDefault = props.getList("absent", &def);
    EXPECT_EQ(listOf(fromDefault), (std::vector<std::string>{"p", "q"}));
    EXPECT_NE(props.getList("absent", &def), fromDefault);
    const auto none = props.getList("none");
    EXPECT_TRUE(none->empty());
    EXPECT_EQ(props.getList("none", &def), none);

    // Every parse empties the cache.
    std::istringstream again("l=file:/etc/zantorkv/list.txt\n");
    props.parse(again, true);
    EXPECT_EQ(listOf(props.getList("l")), (std::vector<std::string>{"b"}));
}

TEST_F(PropertiesTest, FindPrefix) {
    const auto props = parsed("log=INFO\nlog.a=1\nlog.b=2\nlogger.facility=auth\nlof=x\n");
    Properties::const_iterator first;
    Properties::const_iterator last;
    ASSERT_TRUE(props->findPrefix("log.", first, last));
    std::vector<std::string> keys;
    for (auto it = first; it != last; ++it) {
        keys.push_back(it->first);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{"log.a", "log.b"}));
    ASSERT_TRUE(props->findPrefix("log", first, last));
    EXPECT_EQ(std::distance(first, last), 4);
    EXPECT_FALSE(props->findPrefix("zzz", first, last));
    EXPECT_TRUE(first == props->end());
    EXPECT_TRUE(last == props->end());
    EXPECT_FALSE(props->findPrefix("log.c", first, last));

    EXPECT_EQ(props->findFirstStartingWith("logg")->first, "logger.facility");
    EXPECT_EQ(props->findFirstStartingWith("lo")->first, "lof");
    EXPECT_TRUE(props->findFirstStartingWith("none") == props->end());

    const auto high = parsed("a\xff=1\na\xff\xff=2\nb=3\n");
    ASSERT_TRUE(high->findPrefix("a\xff", first, last));
    EXPECT_EQ(std::distance(first, last), 2);
}

TEST_F(PropertiesTest, Write) {
    const auto props = parsed("b=2\na=one two\nc=\"q\"\n");
    std::ostringstream out;
    props->write(out, "comment");
    EXPECT_EQ(out.str(), "#comment\na=one two\nb=2\nc=q\n");
}

TEST_F(PropertiesTest, ParseKeepsOldKeysReloadForgetsThem) {
    writeFile(kConf, "a=1\nb=2\n");
    Properties* props = Properties::getProperties();
    EXPECT_TRUE(props->loaded());
    EXPECT_EQ(props->get("b"), "2");
    writeFile(kConf, "a=3\n");
    props->load(kConf, true);
    EXPECT_EQ(props->get("a"), "3");
    EXPECT_EQ(props->get("b"), "2");
    EXPECT_TRUE(props->reload());
    EXPECT_EQ(props->get("a"), "3");
    EXPECT_EQ(props->get("b"), "");
    EXPECT_EQ(Properties::getProperties(true), props);
}

TEST_F(PropertiesTest, UnreadableFiles) {
    // No configuration file: the instance exists, empty.
    Properties* props = Properties::getProperties();
    ASSERT_NE(props, nullptr);
    EXPECT_EQ(Properties::gZhubProperties, props);
    EXPECT_FALSE(props->loaded());
    EXPECT_TRUE(props->begin() == props->end());
    EXPECT_FALSE(props->reload());

    // A directory or FIFO in its place: no hang, nothing loaded.
    ASSERT_EQ(mkdir(kConf, 0755), 0);
    EXPECT_FALSE(props->reload());
    ASSERT_EQ(rmdir(kConf), 0);
    ASSERT_EQ(mkfifo(kConf, 0600), 0);
    EXPECT_FALSE(props->reload());
    ASSERT_EQ(unlink(kConf), 0);

    // A file that cannot be opened leaves what an earlier load stored.
    Properties local(true, false);
    writeFile("/etc/zantorkv/other.conf", "k=v\n");
    local.load("/etc/zantorkv/other.conf", true);
    local.load("/etc/zantorkv/missing.conf", true);
    EXPECT_EQ(local.get("k"), "v");

    // A failed stream.
    std::istringstream failed("k=w\n");
    failed.setstate(std::ios::failbit);
    local.parse(failed, true);
    EXPECT_FALSE(local.loaded());
    EXPECT_EQ(local.get("k"), "v");

    Properties::destroyProperties();
    EXPECT_EQ(Properties::gZhubProperties, nullptr);
}

TEST_F(PropertiesTest, OddBytesLoad) {
    std::string text = "k=a";
    text += '\0';
    text += "b\nnul";
    text += '\0';
    text += "key=v\n\xff\xfe=\x01\x02\n\\";
    const auto props = parsed(text);
    EXPECT_EQ(props->get("k"), std::string("a\0b", 3));
    EXPECT_EQ(props->get(std::string("nul\0key", 7)), "v");
    EXPECT_EQ(props->get("\xff\xfe"), "\x01\x02");
}

TEST_F(PropertiesTest, LoadConfiguresLoggers) {
    writeFile(kConf, "log=DEBUG\nlog.a=ERROR\n");
    Properties::getProperties();
    EXPECT_TRUE(zfw::Logger::get("zkv.cli.kvstop")->isEnabled(zfw::Logger::DEBUG));
    EXPECT_FALSE(zfw::Logger::get("a.b")->isEnabled(zfw::Logger::WARN));
    EXPECT_TRUE(zfw::Logger::get("a.b")->isEnabled(zfw::Logger::ERROR));
    writeFile(kConf, "log=WARN\n");
    Properties::getProperties()->reload();
    EXPECT_FALSE(zfw::Logger::get("zkv.cli.kvstop")->isEnabled(zfw::Logger::INFO));
    EXPECT_TRUE(zfw::Logger::get("a.b")->isEnabled(zfw::Logger::WARN));
}

TEST_F(PropertiesTest, DumpToTty) {
    writeFile(kConf, "b=2\na=1\n");
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const std::string slave = ptsname(master);
    kvtest::ChildProcess child([&slave] {
        // A new session whose controlling terminal is the pseudo-terminal.
        if (setsid() < 0) {
            return 10;
        }
        const int fd = open(slave.c_str(), O_RDWR);
        if (fd < 0) {
            return 11;
        }
        struct termios raw;
        tcgetattr(fd, &raw);
        cfmakeraw(&raw);
        tcsetattr(fd, TCSANOW, &raw);
        Properties::dumpToTty();
        return 0;
    });
    ASSERT_EQ(child.wait(), 0);
    std::string out;
    char buffer[256];
    const std::string expected = "#Properties dump\na=1\nb=2\n";
    while (out.size() < expected.size()) {
        const ssize_t n = read(master, buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        out.append(buffer, static_cast<size_t>(n));
    }
    close(master);
    EXPECT_EQ(out, expected);
}

TEST_F(PropertiesTest, ConcurrentReadersDuringReloads) {
    writeFile(kConf, "k=v\nl=a b c\nlog=INFO\n");
    Properties* props = Properties::getProperties();
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 2; ++t) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                const std::string v = props->get("k");
                if (!v.empty() && v != "v") {
                    ++bad;
                }
                const auto list = props->getList("l");
                if (!list->empty() && list->size() != 3) {
                    ++bad;
                }
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        props->reload();
    }
    stop = true;
    for (std::thread& t : readers) {
        t.join();
    }
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
