// A private system log for tests, whose "/dev" is their own (support/main.cpp): binds a datagram
// socket at "/dev/log" and reads the records that the C library's syslog sends there.
#ifndef KV_TESTS_SUPPORT_SYSLOG_SINK_H
#define KV_TESTS_SUPPORT_SYSLOG_SINK_H

#include <pthread.h>

#include <string>
#include <vector>

namespace kvtest {

// One datagram as syslog sends it: "<priority>Mmm dd hh:mm:ss ident[pid]: text".
struct SyslogRecord {
    int priority = -1;
    std::string identity;
    int pid = -1;  // -1 when the record carries no "[pid]"
    std::string text;
};

class SyslogSink {
  public:
    // Binds "/dev/log" (mode 0666) and starts reading it on a thread of its own, so that writers
    // never block on a full socket queue. Outside a private /dev it fails the current test and
    // binds nothing. A sink that is not `reading` reads nothing until startReading(): once ten
    // datagrams wait (the system's queue length for datagram sockets), syslog() blocks.
    explicit SyslogSink(bool reading = true);
    ~SyslogSink();
    SyslogSink(const SyslogSink&) = delete;
    SyslogSink& operator=(const SyslogSink&) = delete;

    // Starts the reading thread of a sink made without it.
    void startReading();
    // Every datagram received so far, oldest first; they are removed from the sink.
    // syslog() has queued its datagram before it returns, so a record logged before this
    // call is always included.
    std::vector<std::string> take();
    // As take(), parsed; a datagram that does not parse fails the current test.
    std::vector<SyslogRecord> takeRecords();
    // Only the texts of the records whose text contains `needle`.
    std::vector<std::string> takeTexts(const std::string& needle = "");

  private:
    static void* readerMain(void* self);
    void drainLocked();

    int m_fd = -1;
    int m_stopPipe[2] = {-1, -1};
    pthread_t m_reader{};
    bool m_reading = false;
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    std::vector<std::string> m_received;
};

}  // namespace kvtest

#endif
