// Paths, directory iteration and file utilities, on real files in a temporary directory.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/expect_throw.h"
#include "support/files.h"
#include "zfw/exception.h"
#include "zfw/file_util.h"
#include "zfw/path.h"

namespace {

using zfw::path;

std::vector<std::string> dirsOf(const path& p) {
    return std::vector<std::string>(p.dirs().begin(), p.dirs().end());
}

using kvtest::present;
using kvtest::thrownText;

// A fresh temporary directory for each case.
class PathFiles : public ::testing::Test {
  protected:
    std::string at(const std::string& rest) const { return m_tmp.file(rest); }
    static void touch(const std::string& name, const std::string& content = "") {
        kvtest::writeFile(name, content);
    }

    kvtest::TempDir m_tmp;
    const std::string m_dir = m_tmp.path();
};

struct ParseCase {
    const char* text;
    bool absolute;
    std::vector<std::string> dirs;
    const char* name;
    const char* systemForm;
};

TEST(PathParse, ComponentsAndSystemForm) {
    const ParseCase cases[] = {
        {"/var/lib/x", true, {"var", "lib"}, "x", "/var/lib/x"},
        {"/var/lib/", true, {"var", "lib"}, "", "/var/lib"},
        {"a", false, {}, "a", "a"},
        {"a//b/", false, {"a", "b"}, "", "a/b"},
        {"C:\\x\\y", false, {"C:", "x"}, "y", "C:/x/y"},
        {"/", true, {}, "", "/"},
        {"//etc", true, {}, "etc", "/etc"},
        {"/tmp/my dir/f", true, {"tmp", "my dir"}, "f", "/tmp/my_dir/f"},
        {"a/ b", false, {"a"}, " b", "a/_b"},
        {"./x/../y", false, {".", "x", ".."}, "y", "./x/../y"},
    };
    for (const ParseCase& c : cases) {
        SCOPED_TRACE(c.text);
        const path fromText(c.text);
        const path fromString{std::string(c.text)};
        for (const path* p : {&fromText, &fromString}) {
            EXPECT_EQ(p->isAbsolute(), c.absolute);
            EXPECT_EQ(dirsOf(*p), c.dirs);
            EXPECT_EQ(p->name(), c.name);
            EXPECT_FALSE(p->empty());
            EXPECT_EQ(p->systemForm(), c.systemForm);
        }
    }
}

TEST(PathParse, OtherFormsAndOutput) {
    const path p("/tmp/my dir/f");
    EXPECT_EQ(p.toString('/', true), "/tmp/my dir/f");
    EXPECT_EQ(p.toString('\\', true), "/tmp\\my dir\\f");
    EXPECT_EQ(path("a/b/").toString('\\', true), "a\\b");
    EXPECT_EQ(path("/").toString('\\', true), "/");
    EXPECT_EQ(path("/a/").toString('\\', false), "/a");
    std::ostringstream out;
    out << p;
    EXPECT_EQ(out.str(), "/tmp/my_dir/f");
}

TEST(PathParse, EmptyPathHasNoStringForm) {
    const path empty;
    EXPECT_TRUE(empty.empty());
    EXPECT_TRUE(path("").empty());
    EXPECT_FALSE(path("/").empty());
    EXPECT_THROW(empty.toString(), std::out_of_range);
    std::ostringstream out;
    EXPECT_THROW(out << empty, std::out_of_range);
    EXPECT_THROW(empty.chmod(0644), std::out_of_range);
    EXPECT_THROW(empty.chown(0, 0), std::out_of_range);
    EXPECT_THROW((void)(empty < path("a")), std::out_of_range);
    EXPECT_THROW(zfw::directory_iterator it(empty), std::out_of_range);
}

TEST(PathAppend, JoinsRelativePaths) {
    EXPECT_EQ((path("/a/b") / path("c/d")).systemForm(), "/a/b/c/d");
    EXPECT_EQ((path("/a/b/") / path("c")).systemForm(), "/a/b/c");
    EXPECT_EQ((path("a") / path("b/")).systemForm(), "a/b");
    path p("x");
    p /= path("y");
    p.append(path("z"));
    EXPECT_EQ(p.systemForm(), "x/y/z");
    EXPECT_EQ(dirsOf(p), (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ(thrownText<zfw::BadDataException>([] { path("/a") / path("/b"); }),
              "Attempt to append root path");
    // The operand of a failed append is left as it was.
    path q("/a");
    EXPECT_THROW(q /= path("/b"), zfw::BadDataException);
    EXPECT_EQ(q.systemForm(), "/a");
}

TEST(PathOrder, ComparesSystemForms) {
    EXPECT_TRUE(path("/a/b") < path("/a/c"));
    EXPECT_FALSE(path("/a/c") < path("/a/b"));
    EXPECT_FALSE(path("a b") < path("a_b"));
    EXPECT_FALSE(path("a_b") < path("a b"));
    const std::set<path> ordered{path("b"), path("a/z"), path("a")};
    std::vector<std::string> forms;
    for (const path& p : ordered) {
        forms.push_back(p.systemForm());
    }
    EXPECT_EQ(forms, (std::vector<std::string>{"a", "a/z", "b"}));
}

TEST_F(PathFiles, ExistsAndIsDirectory) {
    touch(at("f"));
    EXPECT_TRUE(path("/").exists());
    EXPECT_TRUE(path("/").isDirectory());
    EXPECT_TRUE(path(m_dir).exists());
    EXPECT_TRUE(path(m_dir + "/").isDirectory());
    EXPECT_TRUE(path(at("f")).exists());
    EXPECT_FALSE(path(at("f")).isDirectory());
    EXPECT_FALSE(path(at("missing")).exists());
    EXPECT_FALSE(path().exists());
    EXPECT_EQ(thrownText<zfw::BadDataException>([] { path().isDirectory(); }), "Empty path");
    EXPECT_EQ(thrownText<zfw::NotFoundException>([&] { path(at("no such")).isDirectory(); }),
              "Cannot stat " + at("no_such") + ": " + strerror(ENOENT));
    // exists and isDirectory keep spaces; the system form does not.
    touch(at("with space"));
    EXPECT_TRUE(path(at("with space")).exists());
    EXPECT_FALSE(path(at("with space")).isDirectory());
    EXPECT_FALSE(path(at("with_space")).exists());
}

TEST_F(PathFiles, CreateDirectories) {
    const std::string deep = at("a/b/c");
    path(deep).createDirectories(0750);
    for (const char* d : {"a", "a/b", "a/b/c"}) {
        EXPECT_TRUE(path(at(d)).isDirectory()) << d;
        EXPECT_EQ(kvtest::modeOf(at(d)), 0750u) << d;
    }
    // The umask does not narrow the mode.
    const mode_t old = umask(077);
    path(at("wide/")).createDirectories(0755);
    umask(old);
    EXPECT_EQ(kvtest::modeOf(at("wide")), 0755u);
    // Spaces become '_' in what is created.
    path(at("my dir/sub")).createDirectories(0700);
    EXPECT_TRUE(path(at("my_dir/sub")).isDirectory());
    EXPECT_EQ(thrownText<zfw::IOException>([&] { path(deep).createDirectories(0750); }),
              "Cannot create directory " + deep + ": " + strerror(EEXIST));
    EXPECT_EQ(thrownText<zfw::BadDataException>([] { path().createDirectories(0755); }),
              "Empty path");
    // A relative one-component path has an empty parent.
    EXPECT_EQ(thrownText<zfw::BadDataException>([] { path("rel").createDirectories(0755); }),
              "Empty path");
    // A file in the way: the mode change after the failed mkdir reports first.
    touch(at("file"));
    EXPECT_EQ(thrownText<zfw::IOException>([&] { path(at("file/x")).createDirectories(0755); }),
              "can't change permissions of " + at("file/x") + " to 1ed: " + strerror(ENOTDIR));
}

TEST_F(PathFiles, Remove) {
    path(at("missing")).remove(false);
    path(at("missing")).remove(true);
    touch(at("f"));
    path(at("f")).remove(false);
    EXPECT_FALSE(present(at("f")));

    path(at("d/e/f")).createDirectories(0755);
    touch(at("d/e/f/file"));
    touch(at("d/top"));
    EXPECT_EQ(thrownText<zfw::IOException>([&] { path(at("d")).remove(false); }),
              "Cannot remove directory " + at("d") + ": " + strerror(ENOTEMPTY));
    path(at("d")).remove(true);
    EXPECT_FALSE(present(at("d")));

    path(at("empty")).createDirectories(0755);
    path(at("empty/")).remove(false);
    EXPECT_FALSE(present(at("empty")));
    EXPECT_EQ(thrownText<zfw::BadDataException>([] { path().remove(true); }), "Empty path");
}

TEST_F(PathFiles, RemoveTakesNamesWhole) {
    // Entry names with a backslash or a link to elsewhere: only the entries themselves go.
    path(at("victim")).createDirectories(0755);
    touch(at("victim/keep"));
    path(at("tree/a")).createDirectories(0755);
    touch(at("tree/a\\b"));
    ASSERT_EQ(symlink(at("victim").c_str(), at("tree/link").c_str()), 0);
    path(at("tree")).remove(true);
    EXPECT_FALSE(present(at("tree")));
    EXPECT_TRUE(present(at("victim/keep")));
}

TEST_F(PathFiles, RemoveReportsFailures) {
    // The existence test keeps spaces, the removal uses the system form ('_').
    touch(at("a b"));
    EXPECT_EQ(thrownText<zfw::IOException>([&] { path(at("a b")).remove(false); }),
              "Cannot remove file " + at("a_b") + ": " + strerror(ENOENT));
}

TEST_F(PathFiles, Rename) {
    touch(at("from"), "data");
    path(at("from")).rename(path(at("to")));
    EXPECT_FALSE(present(at("from")));
    EXPECT_TRUE(present(at("to")));
    EXPECT_EQ(thrownText<zfw::IOException>([&] { path(at("gone")).rename(path(at("x"))); }),
              "Cannot rename " + at("gone") + " to " + at("x") + ": " + strerror(ENOENT));
    EXPECT_EQ(thrownText<zfw::BadDataException>([&] { path().rename(path(at("x"))); }),
              "Empty path");
    EXPECT_EQ(thrownText<zfw::BadDataException>([&] { path(at("to")).rename(path()); }),
              "Empty path");
}

TEST_F(PathFiles, ChmodAndChown) {
    touch(at("f"));
    path(at("f")).chmod(0640);
    EXPECT_EQ(kvtest::modeOf(at("f")), 0640u);
    path(at("f")).chown(65534, 65534);
    struct stat st;
    ASSERT_EQ(stat(at("f").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 65534u);
    EXPECT_EQ(st.st_gid, 65534u);
    EXPECT_EQ(thrownText<zfw::IOException>([&] { path(at("missing")).chmod(0640); }),
              "can't change permissions of " + at("missing") + " to 1a0: " + strerror(ENOENT));
    EXPECT_EQ(thrownText<zfw::IOException>([&] { path(at("missing")).chown(1, 2); }),
              "can't change owner of " + at("missing") + " to 1/2: " + strerror(ENOENT));
}

TEST(PathTemp, UniqueTempName) {
    const std::string a = path::uniqueTempName();
    const std::string b = path::uniqueTempName();
    EXPECT_NE(a, b);
    for (const std::string& name : {a, b}) {
        ASSERT_EQ(name.size(), std::strlen("/tmp/zhubXXXXXX"));
        EXPECT_EQ(name.compare(0, 9, "/tmp/zhub"), 0) << name;
        EXPECT_FALSE(path(name).exists()) << name;
    }
}

TEST_F(PathFiles, DirectoryIterator) {
    touch(at("one"));
    touch(at("two"));
    path(at("sub")).createDirectories(0755);
    std::set<std::string> seen;
    for (zfw::directory_iterator it{path(m_dir)}; it != zfw::directory_iterator::end(); ++it) {
        EXPECT_EQ(dirsOf(*it).back(), path(m_dir).name());
        seen.insert(it->name());
    }
    EXPECT_EQ(seen, (std::set<std::string>{"one", "two", "sub"}));

    path(at("empty")).createDirectories(0755);
    zfw::directory_iterator none{path(at("empty"))};
    EXPECT_TRUE(none == zfw::directory_iterator::end());
    ++none;
    EXPECT_TRUE(none == zfw::directory_iterator::end());

    EXPECT_EQ(thrownText<zfw::NotFoundException>(
                  [&] { zfw::directory_iterator it{path(at("missing"))}; }),
              at("missing") + ": No such directory");
    kvtest::expectThrow<zfw::SystemException>([&] { zfw::directory_iterator it{path(at("one"))}; },
                                              at("one") + ": Failed to open", ENOTDIR);
}

TEST_F(PathFiles, MakeTempFile) {
    std::string templ = at("tmpXXXXXX");
    const int fd = zfw::makeTempFile(templ);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_NE(templ, at("tmpXXXXXX"));
    EXPECT_EQ(templ.compare(0, at("tmp").size(), at("tmp")), 0);
    EXPECT_TRUE(present(templ));

    std::string owned = at("ownXXXXXX");
    const int fd2 = zfw::makeTempFile(owned, 0640, 65534, 65534);
    ASSERT_GE(fd2, 0);
    close(fd2);
    struct stat st;
    ASSERT_EQ(stat(owned.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_EQ(st.st_uid, 65534u);

    // A failed chown (an unprivileged process giving a file to root): -1, and the file is
    // gone again.
    ASSERT_EQ(chmod(m_dir.c_str(), 0777), 0);
    const std::string dir = m_dir;
    EXPECT_EQ(kvtest::runAsNobody([&dir] {
                  std::string bad = dir + "/badXXXXXX";
                  if (zfw::makeTempFile(bad, 0640, 0, 0) != -1) {
                      return 11;
                  }
                  return bad != dir + "/badXXXXXX" && !present(bad) ? 0 : 12;
              }),
              0);

    std::string missing = at("nodir/tmpXXXXXX");
    kvtest::expectThrow<zfw::SystemException>([&] { zfw::makeTempFile(missing); },
                                              std::string("OS call failed: ") + strerror(ENOENT),
                                              -1);
    std::string noXs = at("plain");
    EXPECT_THROW(zfw::makeTempFile(noXs), zfw::SystemException);
}

TEST_F(PathFiles, OpenTempFile) {
    std::string templ = at("streamXXXXXX");
    std::ofstream out;
    zfw::openTempFile(&templ[0], 0604, out);
    ASSERT_TRUE(out.is_open());
    out << "hello";
    out.close();
    EXPECT_NE(templ, at("streamXXXXXX"));
    EXPECT_EQ(zfw::fileMode(templ), 0604u);
    EXPECT_EQ(zfw::fileSize(templ), 5);
    EXPECT_EQ(zfw::fileSize(templ.c_str()), 5);

    std::string owned = at("ownedXXXXXX");
    std::ofstream out2;
    zfw::openTempFile(&owned[0], 0600, 65534, 65534, out2);
    ASSERT_TRUE(out2.is_open());
    struct stat st;
    ASSERT_EQ(stat(owned.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 65534u);

    ASSERT_EQ(chmod(m_dir.c_str(), 0777), 0);
    const std::string dir = m_dir;
    EXPECT_EQ(
        kvtest::runAsNobody([&dir] {
            std::string bad = dir + "/badXXXXXX";
            std::ofstream out3;
            try {
                zfw::openTempFile(&bad[0], 0600, 0, 0, out3);
                return 11;
            } catch (const zfw::SystemException& e) {
                if (std::string(e.what()) != std::string("OS call failed: ") + strerror(EPERM)) {
                    return 12;
                }
            }
            return !out3.is_open() && !present(bad) ? 0 : 13;
        }),
        0);
}

TEST_F(PathFiles, FileModeAndSize) {
    touch(at("f"), "12345678");
    ASSERT_EQ(chmod(at("f").c_str(), 04751), 0);
    EXPECT_EQ(zfw::fileMode(at("f")), 0751u);
    EXPECT_EQ(zfw::fileMode(at("f").c_str()), 0751u);
    EXPECT_EQ(zfw::fileSize(at("f")), 8);
    EXPECT_EQ(thrownText<zfw::SystemException>([&] { zfw::fileMode(at("missing")); }),
              std::string("OS call failed: ") + strerror(ENOENT));
    EXPECT_THROW(zfw::fileSize(at("missing")), zfw::SystemException);
}

TEST_F(PathFiles, OpenDirectory) {
    touch(at("x"));
    std::set<std::string> names;
    {
        zfw::OpenDirectory dir(m_dir);
        while (struct dirent* entry = dir.next()) {
            names.insert(entry->d_name);
        }
    }
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "x"}));
    kvtest::expectThrow<zfw::NotFoundException>([&] { zfw::OpenDirectory dir(at("missing")); },
                                                "cannot open dir", ENOENT);
}

}  // namespace
