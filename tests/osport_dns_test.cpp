// DNS state and host lookups. Every case reruns itself inside private namespaces
// (KV_REQUIRE_HERMETIC_DEVLOG), where it writes its own /etc/hosts, /etc/resolv.conf and
// /etc/nsswitch.conf, answers DNS queries with a small server on a loopback address, and
// reads the "dns.state" records as syslog datagrams on its own /dev/log.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/hermetic.h"
#include "support/syslog_sink.h"
#include "zfw/osport.h"

namespace {

// ---- a DNS server on a loopback address ----------------------------------------------

struct DnsAnswer {
    int rcode = 0;        // 0 no error, 2 server failure, 3 no such name
    bool silent = false;  // never answer
    std::string cname;    // canonical name the query is an alias of
    std::vector<std::string> addresses;
};

void putName(std::string& out, const std::string& name) {
    size_t start = 0;
    while (start < name.size()) {
        size_t dot = name.find('.', start);
        if (dot == std::string::npos) {
            dot = name.size();
        }
        out += static_cast<char>(dot - start);
        out += name.substr(start, dot - start);
        start = dot + 1;
    }
    out += '\0';
}

void put16(std::string& out, unsigned value) {
    out += static_cast<char>((value >> 8) & 0xff);
    out += static_cast<char>(value & 0xff);
}

class DnsServer {
  public:
    explicit DnsServer(std::map<std::string, DnsAnswer> zone) : m_zone(std::move(zone)) {}
    ~DnsServer() {
        if (m_thread.joinable()) {
            m_stop = true;
            m_thread.join();
        }
        if (m_fd >= 0) {
            close(m_fd);
        }
    }

    // Binds port 53 on a free address of 127.0.0.0/8 and starts answering.
    bool start() {
        m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        std::random_device seed;
        std::mt19937 pick(seed());
        for (int attempt = 0; attempt < 50 && m_fd >= 0; ++attempt) {
            struct sockaddr_in sin = {};
            sin.sin_family = AF_INET;
            sin.sin_port = htons(53);
            sin.sin_addr.s_addr = htonl(0x7f000000u | ((pick() % 0xfffeu) + 0x100u) << 8 | 1u);
            if (bind(m_fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) == 0) {
                char text[INET_ADDRSTRLEN];
                m_address = inet_ntop(AF_INET, &sin.sin_addr, text, sizeof text);
                m_thread = std::thread([this] { serve(); });
                return true;
            }
        }
        return false;
    }
    const std::string& address() const { return m_address; }
    int queries() const { return m_queries; }

  private:
    void serve() {
        while (!m_stop) {
            struct pollfd pfd = {m_fd, POLLIN, 0};
            if (poll(&pfd, 1, 50) <= 0) {
                continue;
            }
            char query[512];
            struct sockaddr_in from = {};
            socklen_t fromLength = sizeof from;
            ssize_t n = recvfrom(m_fd, query, sizeof query, 0, reinterpret_cast<sockaddr*>(&from),
                                 &fromLength);
            if (n < 12) {
                continue;
            }
            ++m_queries;
            std::string reply = answer(std::string(query, static_cast<size_t>(n)));
            if (!reply.empty()) {
                sendto(m_fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from),
                       fromLength);
            }
        }
    }

    std::string answer(const std::string& query) const {
        // The question: labels, type, class.
        std::string name;
        size_t pos = 12;
        while (pos < query.size() && query[pos] != 0) {
            size_t length = static_cast<unsigned char>(query[pos]);
            if (!name.empty()) {
                name += '.';
            }
            name += query.substr(pos + 1, length);
            pos += length + 1;
        }
        pos += 5;
        if (pos > query.size()) {
            return "";
        }
        for (char& c : name) {
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        }
        unsigned qtype = (static_cast<unsigned char>(query[pos - 4]) << 8) |
                         static_cast<unsigned char>(query[pos - 3]);
        DnsAnswer a;
        auto it = m_zone.find(name);
        if (it == m_zone.end()) {
            a.rcode = 3;
        } else {
            a = it->second;
        }
        if (a.silent) {
            return "";
        }
        bool addresses = a.rcode == 0 && qtype == 1;
        size_t count = addresses ? a.addresses.size() + (a.cname.empty() ? 0 : 1) : 0;
        std::string reply = query.substr(0, 2);
        reply += static_cast<char>(0x81);  // response, recursion desired
        reply += static_cast<char>(0x80 | a.rcode);
        put16(reply, 1);
        put16(reply, static_cast<unsigned>(count));
        put16(reply, 0);
        put16(reply, 0);
        reply += query.substr(12, pos - 12);
        if (!addresses) {
            return reply;
        }
        std::string owner = "\xc0\x0c";  // the question's name
        if (!a.cname.empty()) {
            std::string target;
            putName(target, a.cname);
            reply += owner;
            put16(reply, 5);
            put16(reply, 1);
            put16(reply, 0);
            put16(reply, 60);
            put16(reply, static_cast<unsigned>(target.size()));
            reply += target;
            owner = target;
        }
        for (const std::string& address : a.addresses) {
            struct in_addr in;
            inet_pton(AF_INET, address.c_str(), &in);
            reply += owner;
            put16(reply, 1);
            put16(reply, 1);
            put16(reply, 0);
            put16(reply, 60);
            put16(reply, 4);
            reply.append(reinterpret_cast<const char*>(&in), 4);
        }
        return reply;
    }

    std::map<std::string, DnsAnswer> m_zone;
    int m_fd = -1;
    std::string m_address;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_queries{0};
};

// Runs functions on one thread of its own, one at a time, for the caller.
class Worker {
  public:
    Worker() : m_thread([this] { loop(); }) {}
    ~Worker() {
        run([this] { m_done = true; });
        m_thread.join();
    }
    void run(const std::function<void()>& job) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_job = job;
        m_ready.notify_all();
        m_ready.wait(lock, [this] { return !m_job; });
    }

  private:
    void loop() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_done) {
            m_ready.wait(lock, [this] { return static_cast<bool>(m_job); });
            m_job();
            m_job = nullptr;
            m_ready.notify_all();
        }
    }
    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::function<void()> m_job;
    bool m_done = false;
    std::thread m_thread;
};

// ---- the fixture ---------------------------------------------------------------------

const char* const kDown = "INFO  dns.state DNS is down";
const char* const kUp = "INFO  dns.state DNS is up";
const char* const kStale = "INFO  dns.state Cached DNS state is stale, resetting to: DNS is up";

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
    // Inside the private namespaces: the files, the server and /dev/log.
    bool prepare() {
        m_syslog.reset(new kvtest::SyslogSink());
        EXPECT_TRUE(m_dns.start());
        std::ofstream("/etc/hosts") << "127.0.0.1 localhost\n"
                                       "10.0.0.1 official.test nick.test\n"
                                    << hostsLines() << "10.7.0.1 " << longName() << "\n";
        std::ofstream("/etc/resolv.conf")
            << "nameserver " << m_dns.address() << "\noptions timeout:11 attempts:1\n";
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
        for (const std::string& a : multiAddresses()) {
            lines += a + " multi.test\n";
        }
        return lines + "10.1.0.5 multi.test\n10.1.0.40 multi.test\n";  // repeated addresses
    }
    static std::vector<std::string> multiAddresses() { return numbered("10.1.0.", 1, 40); }
    static std::vector<std::string> manyAddresses() { return numbered("10.2.0.", 1, 25); }

    static std::map<std::string, DnsAnswer> zone() {
        std::map<std::string, DnsAnswer> z;
        z["alias.test"].cname = "canonical.test";
        z["alias.test"].addresses = {"10.9.8.7"};
        z["many.test"].addresses = manyAddresses();
        for (const char* repeated : {"10.2.0.3", "10.2.0.7", "10.2.0.25"}) {
            z["many.test"].addresses.push_back(repeated);
        }
        z["empty.test"] = DnsAnswer();
        z["servfail.test"].rcode = 2;
        z["slow.test"].silent = true;
        return z;
    }

    std::unique_ptr<kvtest::SyslogSink> m_syslog;
    DnsServer m_dns{zone()};
};

// Waits until the wall clock has moved on by a whole second from now.
void nextSecond() {
    time_t start = time(nullptr);
    while (time(nullptr) <= start) {
        usleep(20000);
    }
}

TEST_F(OsportDns, StateChangesAreLoggedAndStaleDownStatesForgotten) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    ASSERT_TRUE(prepare());
    EXPECT_TRUE(zfw::isDnsUp());
    zfw::setDnsState(true);
    EXPECT_EQ(records().size(), 0u);

    zfw::setDnsState(false);
    EXPECT_EQ(count(kDown), 1);
    zfw::setDnsState(false);
    EXPECT_FALSE(zfw::isDnsUp());
    EXPECT_FALSE(zfw::isDnsUp());
    EXPECT_EQ(records().size(), 0u);

    // A stale time of 0: the down state is forgotten as soon as the second has passed.
    zfw::setDnsStaleTimes(0, 60);
    nextSecond();
    EXPECT_TRUE(zfw::isDnsUp());
    EXPECT_TRUE(zfw::isDnsUp());
    EXPECT_EQ(count(kStale), 1);

    zfw::setDnsStaleTimes(300, 60);
    zfw::setDnsState(false);
    nextSecond();
    EXPECT_FALSE(zfw::isDnsUp());
    zfw::setDnsState(true);
    EXPECT_EQ(records(), (std::vector<std::string>{kDown, kUp}));
}

TEST_F(OsportDns, OverrideThreadHasItsOwnLimit) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    ASSERT_TRUE(prepare());
    Worker overrideThread;
    bool up = true;
    overrideThread.run([] { zfw::setDnsOverrideThread(); });
    zfw::setDnsStaleTimes(300, 300);
    zfw::setDnsState(false);
    overrideThread.run([&up] { up = zfw::isDnsUp(); });
    EXPECT_FALSE(up);

    zfw::setDnsStaleTimes(300, 0);
    nextSecond();
    overrideThread.run([&up] { up = zfw::isDnsUp(); });
    EXPECT_TRUE(up);
    // Only the override thread sees it up: the cached state stays down, silently.
    EXPECT_FALSE(zfw::isDnsUp());
    EXPECT_EQ(count(kDown), 1);
    EXPECT_EQ(records().size(), 0u);

    // A lookup by the override thread that fails quickly marks DNS up for everybody.
    int hostError = 0;
    overrideThread.run([&hostError] {
        struct hostent he;
        char buffer[256];
        EXPECT_EQ(zfw::lookupHost("nxdomain.test", &he, buffer, sizeof buffer, &hostError),
                  nullptr);
    });
    EXPECT_EQ(hostError, HOST_NOT_FOUND);
    EXPECT_TRUE(zfw::isDnsUp());
    EXPECT_EQ(count(kUp), 1);
}

TEST_F(OsportDns, LookupWhileDownAsksNobody) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    ASSERT_TRUE(prepare());
    zfw::setDnsState(false);
    int before = m_dns.queries();
    struct hostent he;
    char buffer[512];
    int hostError = 0;
    EXPECT_EQ(zfw::lookupHost("alias.test", &he, buffer, sizeof buffer, &hostError), nullptr);
    EXPECT_EQ(hostError, TRY_AGAIN);
    EXPECT_EQ(zfw::lookupHost("localhost", &he, buffer, sizeof buffer, &hostError), nullptr);
    EXPECT_EQ(hostError, TRY_AGAIN);
    EXPECT_EQ(m_dns.queries(), before);
    EXPECT_FALSE(zfw::isDnsUp());
}

TEST_F(OsportDns, SlowFailureMarksDnsDown) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    ASSERT_TRUE(prepare());
    struct hostent he;
    char buffer[512];
    int hostError = 0;
    EXPECT_EQ(zfw::lookupHost("slow.test", &he, buffer, sizeof buffer, &hostError), nullptr);
    EXPECT_EQ(hostError, TRY_AGAIN);
    EXPECT_GE(m_dns.queries(), 1);
    EXPECT_FALSE(zfw::isDnsUp());
    EXPECT_EQ(count(kDown), 1);
}

TEST_F(OsportDns, ResolverErrorsBecomeHostErrors) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    ASSERT_TRUE(prepare());
    struct Case {
        const char* name;
        int hostError;
    };
    const Case cases[] = {
        {"nxdomain.test", HOST_NOT_FOUND},
        {"", HOST_NOT_FOUND},
        {"servfail.test", TRY_AGAIN},
        {"empty.test", NO_DATA},
    };
    for (const Case& c : cases) {
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

// ---- filling the caller's record -----------------------------------------------------

struct Expected {
    std::string query;
    std::string canonical;
    std::vector<std::string> addresses;
};

std::vector<Expected> lookups() {
    return {
        {"localhost", "localhost", {"127.0.0.1"}},
        {"nick.test", "official.test", {"10.0.0.1"}},
        {"multi.test", "multi.test", numbered("10.1.0.", 1, 40)},
        {"alias.test", "canonical.test", {"10.9.8.7"}},
        {"many.test", "many.test", numbered("10.2.0.", 1, 25)},
        {"10.3.2.1", "10.3.2.1", {"10.3.2.1"}},
        {longName(), longName(), {"10.7.0.1"}},
    };
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
    KV_REQUIRE_HERMETIC_DEVLOG();
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

TEST_F(OsportDns, NeverWritesOutsideTheBuffer) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    ASSERT_TRUE(prepare());
    const unsigned char kFill = 0xa5;
    const size_t kGuard = 64;
    for (const Expected& e : lookups()) {
        for (size_t offset : {0, 1, 3, 6}) {
            bool fitted = false;
            int fittedLengths = 0;
            for (size_t length = 0; length < 1024 && !HasFatalFailure(); ++length) {
                std::string where = e.query.substr(0, 20) + " offset " + std::to_string(offset) +
                                    " length " + std::to_string(length);
                // An allocation of exactly the buffer, so that a sanitizer sees any stray
                // write, inside guard bytes that must stay untouched.
                std::unique_ptr<char[]> exact(new char[offset + length]);
                std::vector<unsigned char> guarded(kGuard + length + kGuard, kFill);
                char* exactBuffer = exact.get() + offset;
                char* guardedBuffer = reinterpret_cast<char*>(guarded.data()) + kGuard;
                struct hostent he;
                int hostError = 7;
                errno = 0;
                struct hostent* r =
                    zfw::lookupHost(e.query.c_str(), &he, exactBuffer, length, &hostError);
                if (r == nullptr) {
                    EXPECT_FALSE(fitted) << where << ": failed after a shorter length fitted";
                    EXPECT_EQ(hostError, -1) << where;
                    EXPECT_EQ(errno, ENOSPC) << where;
                } else {
                    fitted = true;
                    checkRecord(r, e, exactBuffer, length, where);
                }
                r = zfw::lookupHost(e.query.c_str(), &he, guardedBuffer, length, &hostError);
                if (r != nullptr) {
                    checkRecord(r, e, guardedBuffer, length, where + " guarded");
                }
                for (size_t i = 0; i < kGuard; ++i) {
                    ASSERT_EQ(guarded[i], kFill) << where << " before the buffer";
                    ASSERT_EQ(guarded[kGuard + length + i], kFill) << where << " after it";
                }
                // Past the first fit, a few more lengths cover every alignment of the end.
                if (fitted && ++fittedLengths > 16) {
                    break;
                }
            }
            EXPECT_TRUE(fitted) << e.query;
        }
    }
}

TEST_F(OsportDns, RejectsMissingArguments) {
    KV_REQUIRE_HERMETIC_DEVLOG();
    ASSERT_TRUE(prepare());
    struct hostent he;
    char buffer[64];
    int hostError = 0;
    errno = 0;
    EXPECT_EQ(zfw::lookupHost("localhost", &he, nullptr, 0, &hostError), nullptr);
    EXPECT_EQ(hostError, -1);
    EXPECT_EQ(errno, ENOSPC);
    struct Case {
        const char* name;
        struct hostent* result;
        char* buffer;
        size_t length;
    };
    const Case cases[] = {
        {nullptr, &he, buffer, sizeof buffer},
        {"localhost", nullptr, buffer, sizeof buffer},
        {"localhost", &he, nullptr, sizeof buffer},
    };
    for (const Case& c : cases) {
        hostError = 0;
        errno = 0;
        EXPECT_EQ(zfw::lookupHost(c.name, c.result, c.buffer, c.length, &hostError), nullptr);
        EXPECT_EQ(hostError, -1);
        EXPECT_EQ(errno, EINVAL);
    }
    // The host error is optional.
    EXPECT_EQ(zfw::lookupHost("localhost", &he, buffer, sizeof buffer, nullptr), &he);
    EXPECT_STREQ(he.h_name, "localhost");
}

}  // namespace
