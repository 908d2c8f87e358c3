#include "lrpc2/conf.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "support/alloc_hooks.h"  // the link wraps malloc and free
#include "support/child.h"
#include "support/files.h"

namespace {

using kvtest::TempDir;

// A parsed file that is freed at the end of the scope.
class Conf {
  public:
    explicit Conf(const std::string& path) : m_file(conf_open(path.c_str(), nullptr, nullptr)) {}
    ~Conf() { conf_free(m_file); }
    Conf(const Conf&) = delete;
    Conf& operator=(const Conf&) = delete;

    conf_file* get() const { return m_file; }
    // The value, "<default>" for the default; the lookup must succeed.
    std::string str(const char* key) {
        int32_t rc = -1;
        const char* v = conf_get_string(m_file, key, "<default>", &rc);
        EXPECT_EQ(rc, 0) << key;
        return v != nullptr ? v : "<null>";
    }
    int32_t num(const char* key, int32_t def) {
        int32_t rc = -1;
        const int32_t v = conf_get_int(m_file, key, def, &rc);
        EXPECT_EQ(rc, 0) << key;
        return v;
    }

  private:
    conf_file* m_file;
};

struct IntCase {
    std::string content;
    int32_t want;
};

TEST(Conf, TimeoutLines) {
    const IntCase cases[] = {{"lrpc2.timeout=45", 45},
                             {"lrpc2.timeout 45", 45},
                             {"lrpc2.timeout:=45", 45},
                             {"lrpc2.timeout = 0x2d", 45},
                             {"lrpc2.timeout\t=45\r\n", 45},
                             {"lrpc2.timeout=055", 45},
                             {"lrpc2.timeout=  -45 seconds", -45},
                             {"lrpc2.timeout=2147483647", 2147483647},
                             {"lrpc2.timeout=-2147483648", INT32_MIN},
                             // No leading number, or one that does not fit 32 bits: the default.
                             {"lrpc2.timeout = abc", 30},
                             {"lrpc2.timeout := 45", 30},
                             {"lrpc2.timeout=2147483648", 30},
                             {"lrpc2.timeout=-2147483649", 30}};
    TempDir dir;
    for (const IntCase& c : cases) {
        Conf conf(dir.write("c.conf", c.content));
        ASSERT_NE(conf.get(), nullptr) << c.content;
        EXPECT_EQ(conf.num("lrpc2.timeout", 30), c.want) << c.content;
        // The parsed number is kept.
        EXPECT_EQ(conf.num("lrpc2.timeout", 30), c.want) << c.content;
    }
}

// The text of one key: comments, separators, continuations, escapes, blanks around the value,
// "$" references and list files.
TEST(Conf, ValueSyntax) {
    const struct {
        std::string content;
        const char* key;
        std::string want;
    } cases[] = {{"#k=1\n", "#k", "<default>"},
                 {"!k=1\n", "!k", "<default>"},
                 {"  # note=1\n", "#", "note=1"},
                 {"a=1\fk=2", "k", "2"},
                 {"k==v", "k", "=v"},
                 {"k  =  w", "k", "=  w"},
                 {"k=one\\\n   two", "k", "one two"},
                 {"k=a\\tb\\", "k", "a\tb"},
                 {"a\\tb c", "a\tb", "c"},
                 {"k=\t x \t", "k", "x"},
                 {"k=x\\ \t", "k", "x "},
                 {"sp=\\ \nk=x$sp ", "k", "x "},
                 {"a.b_c=x\nk=$a.b_c", "k", "x"},
                 {"k=a $KV_UNSET_NAME", "k", "a $KV_UNSET_NAME"},
                 {"KV_CONF_NAME=file\nk=$KV_CONF_NAME", "k", "env"},
                 {"k=low\nK=up", "k", "low"}};
    setenv("KV_CONF_NAME", "env", 1);  // each case runs in a process of its own
    TempDir dir;
    for (const auto& c : cases) {
        Conf conf(dir.write("c.conf", c.content));
        EXPECT_EQ(conf.str(c.key), c.want) << c.content;
    }
    // A list file, after a blank: its items joined with ",", blanks inside them kept.
    Conf list(dir.write("c.conf", "k= file:" + dir.write("list", "x y\n# not an item\n\n  z\n")));
    EXPECT_EQ(list.str("k"), "x y,z");
    // A prefix list: other lines are skipped, and a prefix is tried only if it shares the start.
    const char* const pre[] = {"kvd.", "lrpc2.", nullptr};
    conf_file* some = conf_open(dir.write("p", "k=1\nlrpc2.k=2\nkrpc2.k=9").c_str(), pre, nullptr);
    EXPECT_STREQ(conf_get_string(some, "lrpc2.k", "", nullptr), "2");
    EXPECT_STREQ(conf_get_string(some, "k", "skipped", nullptr), "skipped");
    conf_free(some);
}

TEST(Conf, LongReferenceChains) {
    TempDir dir;
    std::string content = "k0=end\n";
    for (int i = 1; i <= 20000; ++i) {
        content += "k" + std::to_string(i) + "=$k" + std::to_string(i - 1) + "\n";
    }
    Conf conf(dir.write("c.conf", content));
    // 64 expansions nest; the reference made by the 64th stays literal.
    EXPECT_EQ(conf.str("k63"), "end");
    EXPECT_EQ(conf.str("k200"), "$k136");
    EXPECT_EQ(conf.str("k20000"), "$k19936");
}

// Memory and time in proportion to the file: at most 64 bytes per distinct key besides the
// file's bytes, and a lookup that does not walk every key. The memory bound is far above
// that and far below the 140 times the file that a block per text of each line took; the CPU
// bound far above a lookup naming 300,000 keys and far below walking all keys for each.
TEST(Conf, LinearInTheInput) {
    TempDir dir;
    std::string repeated, continued, joined;
    for (int i = 0; i < 1000000; ++i) {
        repeated += "a=b\n";
        continued += "a\\\n";
        joined += "a ";
    }
    std::string keys;
    std::string named = "k=";
    for (int i = 0; i < 300000; ++i) {
        keys += "k" + std::to_string(i) + "=x\n";
        named += "$k" + std::to_string(i);
    }
    struct Case {
        const char* name;
        std::string text;
        std::string value;  // of the key "k"
        long maxGrowthKb;   // 0: not bounded
    };
    const Case cases[] = {
        {"4 MB of a=b lines", repeated + "k=v\n", "v",
         static_cast<long>(repeated.size() * 12 / 1024)},
        {"a million continuation lines", "k=" + continued + "end\n", joined + "end", 0},
        {"a value naming 300,000 keys", keys + named + "\n", std::string(300000, 'x'), 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir.write("big.conf", c.text);
        kvtest::expectBounded(
            [&] {
                Conf conf(path);
                return conf.str("k") == c.value ? 0 : 1;
            },
            c.maxGrowthKb);
    }
}

TEST(Conf, OpenFailures) {
    TempDir dir;
    struct Case {
        const char* path;
        int32_t status;
    };
    const std::string missing = dir.file("missing");
    const std::string directory = dir.file("d");
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
    const Case cases[] = {{nullptr, CONF_ERR_NOFILE},           {"", CONF_ERR_NOFILE},
                          {"relative.conf", CONF_ERR_RELATIVE}, {missing.c_str(), CONF_ERR_NOFILE},
                          {directory.c_str(), CONF_ERR_OPEN},   {fifo.c_str(), CONF_ERR_OPEN},
                          {"/dev/null", CONF_ERR_OPEN}};
    for (const Case& c : cases) {
        int32_t rc = -1;
        EXPECT_EQ(conf_open(c.path, nullptr, &rc), nullptr) << (c.path ? c.path : "(null)");
        EXPECT_EQ(rc, c.status) << (c.path ? c.path : "(null)");
        EXPECT_EQ(conf_open(c.path, nullptr, nullptr), nullptr);
    }
    // Every lookup on a missing file gives its default.
    int32_t rc = -1;
    EXPECT_EQ(conf_get_int(nullptr, "lrpc2.timeout", 30, &rc), 30);
    EXPECT_EQ(rc, 0);
    rc = -1;
    EXPECT_STREQ(conf_get_string(nullptr, "kvd.socket", "audit", &rc), "audit");
    EXPECT_EQ(rc, 0);
    conf_free(nullptr);

    Conf empty(dir.write("empty.conf", ""));
    ASSERT_NE(empty.get(), nullptr);
    EXPECT_EQ(empty.str("a"), "<default>");
    EXPECT_EQ(conf_get_string(empty.get(), nullptr, "d", nullptr), std::string("d"));
    EXPECT_EQ(conf_get_int(empty.get(), nullptr, 4, nullptr), 4);
}

// Host settings live in "/var/zantormx", private to each run (support/main.cpp).
void writeSetting(const std::string& key, const std::string& content) {
    std::ofstream("/var/zantormx/kset." + key, std::ios::binary | std::ios::trunc) << content;
}

TEST(ConfJoinParams, ResolveFromSettingFiles) {
    setenv("JOINNAME", "from env", 1);
    writeSetting("host", "myhost\nsecond line\n");
    writeSetting("site", "site1");
    writeSetting("domain", "example.test\r\n");
    writeSetting("zonename", "OU=a,CN=zone1,DC=x\n");
    // All four in one file: each name has a slot and a setting file of its own.
    TempDir dir;
    Conf conf(dir.write("c.conf", "h=$JOINNAME\ns=[$SITE]\nd=$DOMAIN\nz=$ZONE/x\n"));
    EXPECT_EQ(conf.str("h"), "myhost\n");
    EXPECT_EQ(conf.str("s"), "[site1]");
    EXPECT_EQ(conf.str("d"), "example.test\r\n");
    EXPECT_EQ(conf.str("z"), "zone1/x");

    const struct {
        std::string content, zone;
    } zones[] = {{"CN=z2", "z2"},        {"CN=last\n", "last"},     {"cn=x,CN=y", "y"},
                 {"CN=,x", ""},          {"nozone\n", "<unknown>"}, {"", ""},
                 {"\nCN=z", "<unknown>"}};
    for (const auto& z : zones) {
        writeSetting("zonename", z.content);
        char* value = nullptr;
        ASSERT_EQ(JoinParamResolveTable[3].resolve("zonename", &value), 0) << z.content;
        EXPECT_STREQ(value, z.zone.c_str()) << z.content;
        free(value);
    }

    // A first line is cut at 1023 bytes; an empty file is the empty text.
    writeSetting("site", std::string(2000, 's'));
    char* value = nullptr;
    ASSERT_EQ(JoinParamResolveTable[1].resolve("site", &value), 0);
    EXPECT_EQ(std::string(value), std::string(1023, 's'));
    free(value);
    writeSetting("site", "");
    ASSERT_EQ(JoinParamResolveTable[1].resolve("site", &value), 0);
    EXPECT_STREQ(value, "");
    free(value);
}

}  // namespace
