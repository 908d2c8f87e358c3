#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"
#include "support/files.h"
#include "support/syslog_sink.h"
#include "zfw/osport.h"

namespace {

TEST(OsportRandom, RandomFollowsLrand48AfterTheSameSeed) {
    srand48(7);
    const std::vector<long> expected = {lrand48(), lrand48(), lrand48(), lrand48()};
    srandom(7);
    EXPECT_EQ(random(), expected[0]);
    EXPECT_EQ(random(), expected[1]);
    srand(7);
    EXPECT_EQ(rand(), expected[0]);
    EXPECT_EQ(rand(), expected[1]);
    // rand and random share one generator.
    srandom(7);
    EXPECT_EQ(rand(), expected[0]);
    EXPECT_EQ(random(), expected[1]);
    EXPECT_EQ(rand(), expected[2]);
    EXPECT_EQ(random(), expected[3]);
}

TEST(OsportLock, ReportsTheHolderPidUntilItExits) {
    kvtest::TempDir dir;
    const std::string path = dir.file("lock");
    int ready[2];
    int release[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(release), 0);
    kvtest::ChildProcess holder([&] {
        int result = 99;
        const char verdict =
            zfw::openAndLock(path.c_str(), &result) >= 0 && result == 0 ? 'L' : 'F';
        close(release[1]);
        char c;
        return kvtest::writeFully(ready[1], &verdict, 1) && !kvtest::readFully(release[0], &c, 1)
                   ? 0
                   : 1;
    });
    close(ready[1]);
    close(release[0]);
    char verdict = 0;
    ASSERT_TRUE(kvtest::readFully(ready[0], &verdict, 1));
    ASSERT_EQ(verdict, 'L');
    int result = 99;
    const int fd = zfw::openAndLock(path.c_str(), &result);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(result, holder.pid());
    EXPECT_EQ(zfw::tryLockFile(fd), holder.pid());
    close(release[1]);  // the holder reads end of file and exits
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_EQ(zfw::tryLockFile(fd), 0);
    EXPECT_EQ(zfw::unlockFile(fd), 0);
    close(fd);
    close(ready[0]);
}

// The fourth field (the file-system id) of a line of /proc/thread-self/status.
long fsIdFromStatus(const char* key) {
    std::ifstream status("/proc/thread-self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, strlen(key), key) == 0) {
            long real, effective, saved, fs;
            if (sscanf(line.c_str() + strlen(key), "%ld %ld %ld %ld", &real, &effective, &saved,
                       &fs) == 4) {
                return fs;
            }
        }
    }
    return -1;
}

TEST(OsportFsIds, ReadWithoutChangingAndSet) {
    // The ids belong to the calling thread: change them on a thread of its own.
    std::thread worker([] {
        EXPECT_EQ(zfw::getFsUid(), geteuid());
        EXPECT_EQ(zfw::getFsGid(), getegid());
        EXPECT_EQ(fsIdFromStatus("Uid:"), static_cast<long>(geteuid()));

        EXPECT_EQ(zfw::setFsUid(4321), static_cast<int>(geteuid()));
        EXPECT_EQ(zfw::setFsGid(8765), static_cast<int>(getegid()));
        EXPECT_EQ(fsIdFromStatus("Uid:"), 4321);
        EXPECT_EQ(fsIdFromStatus("Gid:"), 8765);
        // Reading twice leaves the values where they were.
        EXPECT_EQ(zfw::getFsUid(), 4321u);
        EXPECT_EQ(zfw::getFsUid(), 4321u);
        EXPECT_EQ(zfw::getFsGid(), 8765u);
        EXPECT_EQ(zfw::getFsGid(), 8765u);
        EXPECT_EQ(fsIdFromStatus("Uid:"), 4321);
        EXPECT_EQ(fsIdFromStatus("Gid:"), 8765);

        EXPECT_EQ(zfw::setFsUid(geteuid()), 4321);
        EXPECT_EQ(zfw::setFsGid(getegid()), 8765);
        EXPECT_EQ(zfw::getFsUid(), geteuid());
        EXPECT_EQ(zfw::getFsGid(), getegid());
    });
    worker.join();
}

// The cached down state expires after the stale limit, for the override thread after its own.
TEST(OsportCachedDns, DownStateExpires) {
    kvtest::SyslogSink sink;
    zfw::setDnsState(false);
    zfw::setDnsOverrideThread();
    EXPECT_FALSE(zfw::isDnsUp());
    zfw::setDnsStaleTimes(1000, -1);
    EXPECT_TRUE(zfw::isDnsUp());
    std::thread([] { EXPECT_FALSE(zfw::isDnsUp()); }).join();
    zfw::setDnsStaleTimes(-1, 1000);
    std::thread([] { EXPECT_TRUE(zfw::isDnsUp()); }).join();
    EXPECT_TRUE(zfw::isDnsUp()) << "the stale state was reset to up";
    EXPECT_EQ(sink.takeTexts(" dns.state "),
              (std::vector<std::string>{
                  "INFO  dns.state DNS is down",
                  "INFO  dns.state Cached DNS state is stale, resetting to: DNS is up"}));
}

}  // namespace

// Every case writes its own /etc/hosts, /etc/resolv.conf and /etc/nsswitch.conf (no lookup reaches
// a real name server) and reads the "dns.state" records on its own /dev/log.
namespace {

const char* const kDown = "INFO  dns.state DNS is down";

std::string longName() {
    return std::string(240, 'l') + ".test";
}

std::vector<std::string> numbered(const std::string& prefix, int from, int to) {
    std::vector<std::string> v;
    for (int i = from; i <= to; ++i) {
        v.push_back(prefix + std::to_string(i));
    }
    return v;
}

class OsportDns : public ::testing::Test {
  protected:
    // Inside the private namespaces: the hosts file, a name server at 127.0.0.1 that
    // refuses at once (nothing listens there) unless a test listens, and /dev/log.
    bool prepare() {
        m_syslog.reset(new kvtest::SyslogSink());
        std::ofstream("/etc/hosts") << "127.0.0.1 localhost\n"
                                       "10.0.0.1 official.test nick.test\n"
                                    << hostsLines() << "10.7.0.1 " << longName() << "\n";
        std::ofstream("/etc/resolv.conf")
            << "nameserver 127.0.0.1\noptions timeout:11 attempts:1\n";
        std::ofstream("/etc/nsswitch.conf") << "hosts: files dns\n";
        return !HasFailure();
    }

    // The "dns.state" records that arrived since the last call.
    std::vector<std::string> records() { return m_syslog->takeTexts(" dns.state "); }
    // How many of those records contain text.
    int count(const std::string& text) {
        int found = 0;
        for (const std::string& r : records()) {
            found += r.find(text) != std::string::npos ? 1 : 0;
        }
        return found;
    }

    static std::string hostsLines() {
        std::string lines;
        for (const std::string& a : numbered("10.1.0.", 1, 40)) {
            lines += a + " multi.test\n";
        }
        return lines + "10.1.0.5 multi.test\n10.1.0.40 multi.test\n";  // repeated addresses
    }

    std::unique_ptr<kvtest::SyslogSink> m_syslog;
};

// A name server at 127.0.0.1 that reads nothing and never answers.
int silentNameServer() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(53);
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin), 0);
    return fd;
}

// Waits out the ten seconds that make a failure slow: label "long".
using OsportDnsLong = OsportDns;

TEST_F(OsportDnsLong, SlowFailureMarksDnsDown) {
    ASSERT_TRUE(prepare());
    const int server = silentNameServer();
    struct hostent he;
    char buffer[512];
    int hostError = 0;
    EXPECT_EQ(zfw::lookupHost("slow.test", &he, buffer, sizeof buffer, &hostError), nullptr);
    EXPECT_EQ(hostError, TRY_AGAIN);
    EXPECT_FALSE(zfw::isDnsUp());
    EXPECT_EQ(count(kDown), 1);
    close(server);
}

TEST_F(OsportDns, ResolverErrorsBecomeHostErrors) {
    ASSERT_TRUE(prepare());
    struct Case {
        const char* sources;  // of /etc/nsswitch.conf
        const char* name;
        int hostError;
    };
    const Case cases[] = {
        {"files", "nxdomain.test", HOST_NOT_FOUND},
        {"files", "", HOST_NOT_FOUND},
        {"files dns", "nxdomain.test", TRY_AGAIN},  // the name server refuses
    };
    for (const Case& c : cases) {
        std::ofstream("/etc/nsswitch.conf") << "hosts: " << c.sources << "\n";
        struct hostent he;
        char buffer[512];
        int hostError = 0;
        EXPECT_EQ(zfw::lookupHost(c.name, &he, buffer, sizeof buffer, &hostError), nullptr)
            << c.name;
        EXPECT_EQ(hostError, c.hostError) << c.name;
        // Quick failures leave DNS up.
        EXPECT_TRUE(zfw::isDnsUp()) << c.name;
    }
    EXPECT_EQ(records().size(), 0u);
}

struct Expected {
    std::string query, canonical;
    std::vector<std::string> addresses;
};

std::vector<Expected> lookups() {
    return {{"localhost", "localhost", {"127.0.0.1"}},
            {"nick.test", "official.test", {"10.0.0.1"}},
            {"multi.test", "multi.test", numbered("10.1.0.", 1, 40)},
            {"10.3.2.1", "10.3.2.1", {"10.3.2.1"}},
            {longName(), longName(), {"10.7.0.1"}}};
}

// Checks a filled record against the expected answer and that all it points to lies
// inside [buffer, buffer + length) with the layout's alignment.
void checkRecord(const struct hostent* he, const Expected& e, const char* buffer, size_t length,
                 const std::string& where) {
    auto inside = [buffer, length](const void* p, size_t size) {
        auto at = reinterpret_cast<uintptr_t>(p);
        auto begin = reinterpret_cast<uintptr_t>(buffer);
        return at >= begin && at + size <= begin + length;
    };
    ASSERT_EQ(he->h_name, buffer) << where;
    EXPECT_EQ(std::string(he->h_name), e.canonical) << where;
    EXPECT_EQ(he->h_aliases, nullptr) << where;
    EXPECT_EQ(he->h_addrtype, AF_INET) << where;
    EXPECT_EQ(he->h_length, 4) << where;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(he->h_addr_list) % 8, 0u) << where;
    std::vector<std::string> got;
    for (size_t i = 0;; ++i) {
        ASSERT_TRUE(inside(he->h_addr_list + i, sizeof(char*))) << where;
        if (he->h_addr_list[i] == nullptr) {
            break;
        }
        ASSERT_TRUE(inside(he->h_addr_list[i], 4)) << where;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(he->h_addr_list[i]) % 4, 0u) << where;
        char text[INET_ADDRSTRLEN];
        got.push_back(inet_ntop(AF_INET, he->h_addr_list[i], text, sizeof text));
    }
    std::set<std::string> distinct(got.begin(), got.end());
    EXPECT_EQ(distinct.size(), got.size()) << where << ": an address is listed twice";
    EXPECT_EQ(distinct, std::set<std::string>(e.addresses.begin(), e.addresses.end())) << where;
}

TEST_F(OsportDns, FillsTheCallersRecord) {
    ASSERT_TRUE(prepare());
    for (const Expected& e : lookups()) {
        struct hostent he;
        alignas(8) char buffer[2048];
        int hostError = 7;
        ASSERT_EQ(zfw::lookupHost(e.query.c_str(), &he, buffer, sizeof buffer, &hostError), &he)
            << e.query << " " << hostError;
        EXPECT_EQ(hostError, 0);
        checkRecord(&he, e, buffer, sizeof buffer, e.query);
    }
    EXPECT_TRUE(zfw::isDnsUp());
}

}  // namespace
