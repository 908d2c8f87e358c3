// Properties list editing, escaping back into file syntax and saving to a file: real files
// in a private temporary directory, read back by the store's own parser, and real
// processes competing for the lock.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/files.h"
#include "zfw/file_util.h"
#include "zfw/properties.h"

namespace {

using zfw::Properties;
using zfw::StringList;

using kvtest::present;
using kvtest::readFile;
using kvtest::TempDir;
using kvtest::writeFile;

// A store holding exactly what the text says, read by the real parser.
std::unique_ptr<Properties> storeOf(const std::string& text, bool expand = true) {
    std::unique_ptr<Properties> props(new Properties(expand, false));
    std::istringstream in(text);
    props->parse(in, expand);
    return props;
}

StringList listOf(std::initializer_list<const char*> items) {
    StringList list;
    for (const char* item : items) {
        list.push_back(item);
    }
    return list;
}

TEST(PropertiesEscape, ValuesInFileSyntax) {
    struct Case {
        const char* value;
        bool escapeDollars;
        const char* escaped;
    };
    const Case cases[] = {
        {"plain", false, "plain"},
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
        {"x$", false, "x$"},
        {"$$", true, "\\$\\$"},
        {"$HOME$", true, "\\$HOME\\$"},
        {"a $b", true, "\"a \\$b\""},
        {"", false, ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Properties::escapeValue(c.value, c.escapeDollars), c.escaped)
            << "value [" << c.value << "] escapeDollars " << c.escapeDollars;
    }
    EXPECT_EQ(Properties::formatEntry("k.x", "a b", false), "k.x: \"a b\"");
    EXPECT_EQ(Properties::formatList(listOf({"a b", "c,d", "$e"}), true), "\"a b\" c\\,d \\$e");
    EXPECT_EQ(Properties::formatListEntry("l", listOf({"x", "y"}), false), "l: x y");
    EXPECT_EQ(Properties::formatList(StringList(), false), "");
}

// Values written as entries come back unchanged from the store's parser, with variables
// expanded (dollars escaped) and kept in their encoded form (dollars decoded).
TEST(PropertiesEscape, RoundTripThroughTheParser) {
    const char* expanded[] = {
        "plain",
        "two words",
        "  leading and trailing  ",
        "many   inner   spaces",
        "a,b,c",
        "comma, then space",
        "say \"hi\"",
        "\"",
        "it's",
        "it's a quote, here",
        "back\\slash",
        "trailing\\",
        "\\\\double",
        "back\\t not a tab",
        "tab\there",
        "\ttab first",
        "new\nline and\rreturn",
        "ff\fvt\v",
        "cost $5",
        "$HOME",
        "a=b:c#d!e",
        "x\\,y",
    };
    std::string file;
    for (size_t i = 0; i < sizeof expanded / sizeof expanded[0]; ++i) {
        file += Properties::formatEntry("k" + std::to_string(i), expanded[i], true) + "\n";
    }
    std::unique_ptr<Properties> props = storeOf(file);
    for (size_t i = 0; i < sizeof expanded / sizeof expanded[0]; ++i) {
        EXPECT_EQ(props->get("k" + std::to_string(i)), expanded[i]) << "file:\n" << file;
    }

    // The unexpanded encoding: "$$" a literal dollar, "$NAME$" a reference.
    const char* encoded[] = {"$HOME$/x", "$$5", "$A$B", "a $$ b", "$X$ y", "$$$V$$$", "p$1$q"};
    file.clear();
    for (size_t i = 0; i < sizeof encoded / sizeof encoded[0]; ++i) {
        file += Properties::formatEntry("k" + std::to_string(i), encoded[i], false) + "\n";
    }
    props = storeOf(file, false);
    for (size_t i = 0; i < sizeof encoded / sizeof encoded[0]; ++i) {
        EXPECT_EQ(props->get("k" + std::to_string(i)), encoded[i]) << "file:\n" << file;
    }
}

TEST(PropertiesEscape, ListRoundTripThroughGetList) {
    const StringList items = listOf({"a b", "c,d", "e\"f", "g\\h", "$i", "j'k"});
    std::unique_ptr<Properties> props =
        storeOf(Properties::formatListEntry("l", items, true) + "\n");
    EXPECT_EQ(*props->getList("l"), items);
}

TEST(PropertiesLists, AddAndRemove) {
    std::unique_ptr<Properties> props = storeOf("l=c a\nm=c a b a\n");

    EXPECT_TRUE(props->addToList("l", listOf({"b"}), false));
    EXPECT_EQ(props->get("l"), "a b c");
    EXPECT_EQ(*props->getList("l"), listOf({"a", "b", "c"}));
    EXPECT_FALSE(props->addToList("l", listOf({"a"}), false));
    EXPECT_EQ(props->get("l"), "a b c");
    EXPECT_TRUE(props->addToList("l", listOf({"z y", "d"}), false));
    EXPECT_EQ(props->get("l"), "a b c d \"z y\"");
    EXPECT_EQ(*props->getList("l"), listOf({"a", "b", "c", "d", "z y"}));

    EXPECT_FALSE(props->removeFromList("m", listOf({"x"}), false));
    EXPECT_EQ(props->get("m"), "c a b a");
    // The first equal item goes; the order of the rest stays.
    EXPECT_TRUE(props->removeFromList("m", listOf({"a", "x"}), false));
    EXPECT_EQ(props->get("m"), "c b a");
    EXPECT_EQ(*props->getList("m"), listOf({"c", "b", "a"}));

    EXPECT_TRUE(props->addToList("new", listOf({"q", "p", "q"}), false));
    EXPECT_EQ(props->get("new"), "p q");

    props->setList("s", listOf({"$x", "y z"}), true);
    EXPECT_EQ(props->get("s"), "\\$x \"y z\"");
    EXPECT_EQ(*props->getList("s"), listOf({"$x", "y z"}));
    props->setList("s", StringList(), true);
    EXPECT_TRUE(props->getList("s")->empty());
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
    Properties props(true, false);
    props.load(path, true);
    ASSERT_EQ(props.get("d"), "4");

    ASSERT_EQ(props.save(path), 0);
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
    std::unique_ptr<Properties> props = storeOf("a=1\nc=30\nn=new  value\nl=x y\nq='$HOME'\n");
    EXPECT_TRUE(props->addToList("l", listOf({"w v"}), false));

    ASSERT_EQ(props->save(path), 0);
    EXPECT_EQ(readFile(path),
              "# keep me\n"
              "a=1\n"
              "c: 30\n"
              "l: \"w v\" x y\n"
              "q='$HOME'\n"
              "n: new value\n");
    std::unique_ptr<Properties> reread(new Properties(true, false));
    reread->load(path, true);
    EXPECT_EQ(reread->get("b"), "");
    EXPECT_EQ(reread->get("c"), "30");
    EXPECT_EQ(reread->get("n"), "new value");
    EXPECT_EQ(*reread->getList("l"), listOf({"w v", "x", "y"}));
}

TEST(PropertiesSave, MissingFileIsNotCreated) {
    TempDir dir;
    const std::string path = dir.file("absent.conf");
    std::unique_ptr<Properties> props = storeOf("a=1\n");
    EXPECT_EQ(props->save(path), -1);
    EXPECT_FALSE(present(path));
    EXPECT_FALSE(present(path + ".new"));
    EXPECT_FALSE(present(path + ".lock"));
}

TEST(PropertiesSave, UnwritableNewFileLeavesTheFile) {
    TempDir dir;
    const std::string path = dir.file("p.conf");
    writeFile(path, "a=1\n");
    ASSERT_EQ(mkdir((path + ".new").c_str(), 0755), 0);
    std::unique_ptr<Properties> props = storeOf("a=2\n");
    EXPECT_EQ(props->save(path), -1);
    EXPECT_EQ(readFile(path), "a=1\n");
    EXPECT_FALSE(present(path + ".lock"));
}

TEST(PropertiesSave, UnwritableDirectoryFailsAsAnotherUser) {
    TempDir dir;
    const std::string path = dir.file("p.conf");
    writeFile(path, "a=1\n");
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    EXPECT_EQ(kvtest::runAsNobody([&path] { return storeOf("a=2\n")->save(path) == -1 ? 0 : 1; }),
              0);
    EXPECT_EQ(readFile(path), "a=1\n");
    EXPECT_FALSE(present(path + ".lock"));
    EXPECT_FALSE(present(path + ".new"));
}

// Sets a file's access and modification times to `age` seconds ago.
void ageFile(const std::string& name, int age) {
    struct timespec times[2];
    clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= age;
    times[1] = times[0];
    ASSERT_EQ(utimensat(AT_FDCWD, name.c_str(), times, 0), 0);
}

TEST(PropertiesLock, StaleLockFileIsTakenOver) {
    TempDir dir;
    const std::string path = dir.file("p.conf");
    writeFile(path, "a=1\n");
    writeFile(path + ".lock", "");
    ageFile(path + ".lock", 120);
    std::unique_ptr<Properties> props = storeOf("a=2\n");
    ASSERT_EQ(props->save(path), 0);
    EXPECT_EQ(readFile(path), "a: 2\n\n");
    EXPECT_FALSE(present(path + ".lock"));
}

// A child takes the lock with createLockFile and keeps it until the parent writes to
// the pipe; optionally the lock is made to look abandoned.
class LockHolder {
  public:
    LockHolder(const std::string& lockPath, int age) {
        EXPECT_EQ(pipe(m_release), 0);
        EXPECT_EQ(pipe(m_ready), 0);
        m_child.reset(new kvtest::ChildProcess([this, lockPath]() {
            const int fd = Properties::createLockFile(lockPath);
            if (fd < 0) {
                return 1;
            }
            char byte = 'r';
            if (!kvtest::writeFully(m_ready[1], &byte, 1) ||
                !kvtest::readFully(m_release[0], &byte, 1)) {
                return 2;
            }
            return Properties::removeLockFile(lockPath, fd) == 0 ? 0 : 3;
        }));
        char byte = 0;
        EXPECT_TRUE(kvtest::readFully(m_ready[0], &byte, 1));
        if (age > 0) {
            ageFile(lockPath, age);
        }
    }
    ~LockHolder() {
        for (int fd : {m_release[0], m_release[1], m_ready[0], m_ready[1]}) {
            close(fd);
        }
    }
    int release() {
        const char byte = 'x';
        EXPECT_TRUE(kvtest::writeFully(m_release[1], &byte, 1));
        return m_child->wait();
    }

  private:
    int m_release[2] = {-1, -1};
    int m_ready[2] = {-1, -1};
    std::unique_ptr<kvtest::ChildProcess> m_child;
};

TEST(PropertiesLock, HeldLockMakesSaveFailAndLeavesTheFile) {
    TempDir dir;
    const std::string path = dir.file("p.conf");
    writeFile(path, "a=1\n");
    // Fresh, and old but still held by a live process: neither may be broken.
    for (int age : {0, 120}) {
        LockHolder holder(path + ".lock", age);
        std::unique_ptr<Properties> props = storeOf("a=2\n");
        EXPECT_EQ(props->save(path), -1) << "lock age " << age;
        EXPECT_EQ(readFile(path), "a=1\n");
        EXPECT_TRUE(present(path + ".lock"));
        EXPECT_EQ(Properties::createLockFile(path + ".lock"), -1);
        EXPECT_EQ(holder.release(), 0);
        EXPECT_FALSE(present(path + ".lock"));
        EXPECT_FALSE(present(path + ".new"));
    }
}

TEST(PropertiesLock, CreateAndRemove) {
    TempDir dir;
    const std::string lockPath = dir.file("x.lock");
    const int fd = Properties::createLockFile(lockPath);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(present(lockPath));
    EXPECT_EQ(Properties::removeLockFile(lockPath, fd), 0);
    EXPECT_FALSE(present(lockPath));
    // A descriptor that cannot be closed may not be ours: its lock file stays.
    const int other = Properties::createLockFile(lockPath);
    ASSERT_GE(other, 0);
    EXPECT_EQ(Properties::removeLockFile(lockPath, -1), -1);
    EXPECT_TRUE(present(lockPath));
    EXPECT_EQ(Properties::removeLockFile(lockPath, other), 0);
    EXPECT_EQ(Properties::createLockFile(dir.file("no/such/dir.lock")), -1);
    // Something that is no lock file and cannot be judged is not waited for.
    ASSERT_EQ(mkfifo(lockPath.c_str(), 0600), 0);
    EXPECT_EQ(Properties::createLockFile(lockPath), -1);
}

// The content each saver of the concurrency case writes: its own number everywhere.
std::string saverContent(int owner) {
    std::string text = "owner=" + std::to_string(owner) + "\n";
    for (int k = 0; k < 40; ++k) {
        text += "k" + std::to_string(k) + "=" + std::to_string(owner) + " value " +
                std::to_string(k) + "\n";
    }
    return text;
}

// The owner whose complete content the file holds, or -1.
int ownerOf(const std::string& content) {
    std::unique_ptr<Properties> props = storeOf(content);
    const std::string owner = props->get("owner");
    if (owner.empty()) {
        return -1;
    }
    std::unique_ptr<Properties> expected = storeOf(saverContent(std::atoi(owner.c_str())));
    for (auto it = expected->begin(); it != expected->end(); ++it) {
        if (props->get(it->first) != it->second) {
            return -1;
        }
    }
    return std::atoi(owner.c_str());
}

TEST(PropertiesLock, ConcurrentSaversTakeTurns) {
    TempDir dir;
    const std::string path = dir.file("p.conf");
    const std::string inside = dir.file("inside");
    writeFile(path, saverContent(0));
    const int rounds = 100;
    std::vector<std::unique_ptr<kvtest::ChildProcess>> savers;
    for (int owner = 1; owner <= 2; ++owner) {
        savers.emplace_back(new kvtest::ChildProcess([&, owner]() {
            std::unique_ptr<Properties> props = storeOf(saverContent(owner));
            for (int round = 0; round < rounds; ++round) {
                if (props->save(path) != 0) {
                    return 10;
                }
                // A saver that took the lock again at once could keep the other one
                // polling past its attempts; real savers do not come back at once.
                kvtest::sleepMs(2);
                // Whoever holds the lock is alone: the marker can always be created.
                const int fd = Properties::createLockFile(path + ".lock");
                if (fd < 0) {
                    return 11;
                }
                const int marker = open(inside.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
                if (marker < 0) {
                    return 12;
                }
                close(marker);
                unlink(inside.c_str());
                if (Properties::removeLockFile(path + ".lock", fd) != 0) {
                    return 13;
                }
                kvtest::sleepMs(2);
            }
            return 0;
        }));
    }
    // Meanwhile the file always exists and holds one saver's complete content.
    for (int reads = 0; reads < 400; ++reads) {
        std::string content;
        ASSERT_TRUE(zfw::readRegularFile(path, content)) << "read " << reads;
        ASSERT_GE(ownerOf(content), 0) << content;
    }
    for (auto& saver : savers) {
        EXPECT_EQ(saver->wait(), 0);
    }
    const int last = ownerOf(readFile(path));
    EXPECT_TRUE(last == 1 || last == 2);
    EXPECT_FALSE(present(path + ".lock"));
    EXPECT_FALSE(present(path + ".new"));
}

}  // namespace
