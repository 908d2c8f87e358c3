// Paths, directory removal, temporary names and file utilities, on real files in a
// temporary directory.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/files.h"
#include "zfw/exception.h"
#include "zfw/file_util.h"
#include "zfw/path.h"

namespace {

using zfw::path;

std::vector<std::string> dirsOf(const path& p) {
    return std::vector<std::string>(p.dirs().begin(), p.dirs().end());
}

using kvtest::thrownText;

// A fresh temporary directory for each case.
class PathFiles : public ::testing::Test {
  protected:
    std::string at(const std::string& rest) const { return m_tmp.file(rest); }

    kvtest::TempDir m_tmp;
};

struct ParseCase {
    const char* text;
    bool absolute;
    std::vector<std::string> dirs;
    const char *name, *systemForm;
};

TEST(PathParse, ComponentsAndSystemForm) {
    const ParseCase cases[] = {{"/var/lib/x", true, {"var", "lib"}, "x", "/var/lib/x"},
                               {"/var/lib/", true, {"var", "lib"}, "", "/var/lib"},
                               {"a", false, {}, "a", "a"},
                               {"a//b/", false, {"a", "b"}, "", "a/b"},
                               {"C:\\x\\y", false, {"C:", "x"}, "y", "C:/x/y"},
                               {"/", true, {}, "", "/"},
                               {"//etc", true, {}, "etc", "/etc"},
                               {"/tmp/my dir/f", true, {"tmp", "my dir"}, "f", "/tmp/my_dir/f"},
                               {"a/ b", false, {"a"}, " b", "a/_b"},
                               {"./x/../y", false, {".", "x", ".."}, "y", "./x/../y"}};
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
    EXPECT_FALSE(path(at("my dir")).exists());
    EXPECT_EQ(thrownText<zfw::IOException>([&] { path(deep).createDirectories(0750); }),
              "Cannot create directory " + deep + ": " + strerror(EEXIST));
    EXPECT_EQ(thrownText<zfw::BadDataException>([] { path().createDirectories(0755); }),
              "Empty path");
    // A relative one-component path has an empty parent.
    EXPECT_EQ(thrownText<zfw::BadDataException>([] { path("rel").createDirectories(0755); }),
              "Empty path");
    // A file in the way: the mode change after the failed mkdir reports first.
    kvtest::writeFile(at("file"), "");
    EXPECT_EQ(thrownText<zfw::IOException>([&] { path(at("file/x")).createDirectories(0755); }),
              "can't change permissions of " + at("file/x") + " to 1ed: " + strerror(ENOTDIR));
}

TEST_F(PathFiles, Remove) {
    path(at("missing")).remove(false);
    path(at("d/e/")).createDirectories(0755);
    kvtest::writeFile(at("d/e/f"), "x");
    EXPECT_EQ(thrownText<zfw::IOException>([&] { path(at("d")).remove(false); }),
              "Cannot remove directory " + at("d") + ": " + strerror(ENOTEMPTY));
    path(at("d")).remove(true);
    EXPECT_FALSE(kvtest::present(at("d")));
}

TEST_F(PathFiles, TemporaryFiles) {
    const std::string name = path::uniqueTempName();
    EXPECT_EQ(name.compare(0, 9, "/tmp/zhub"), 0) << name;
    EXPECT_FALSE(kvtest::present(name)) << name;
    std::string made = at("tXXXXXX");
    const int fd = zfw::makeTempFile(made, 0640, getuid(), getgid());
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(zfw::fileMode(made), 0640u);
}

}  // namespace
