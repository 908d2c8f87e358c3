#include "zkvfw/lrpc2client.h"

#include <sys/socket.h>

#include "lrpc2/conf.h"
#include "lrpc2/exchange.h"
#include "lrpc2/status.h"

namespace {

const char kConfigFile[] = "/etc/zantorkv/zantorkv.conf";
const int32_t kDefaultTimeout = 30;
const char kDefaultDataDir[] = "/var/zantorkv";
const char kDefaultSocket[] = "audit";
// What the daemon's reload answer is replaced by when the exchange fails.
const int32_t kReloadFailed = 501;

// The socket that the configuration file names; false when a value cannot be expanded.
bool configuredSocketPath(std::string& path) {
    conf_file* conf = conf_open(kConfigFile, nullptr, nullptr);
    const char* dir = conf_get_string(conf, "kvd.data.dir", kDefaultDataDir, nullptr);
    const std::string dataDir = dir != nullptr ? dir : "";
    const char* name = conf_get_string(conf, "kvd.socket", kDefaultSocket, nullptr);
    const std::string socketName = name != nullptr ? name : "";
    conf_free(conf);
    if (dir == nullptr || name == nullptr) {
        return false;
    }
    // Deliberately joined as they are: a trailing "/" doubles, an absolute name is appended.
    path = dataDir + "/" + socketName;
    return true;
}

}  // namespace

Lrpc2Client::Lrpc2Client()
    : m_messageTable(lrpc2_default_table()), m_connection(nullptr), m_timeout(kDefaultTimeout) {
    // The reader's status is deliberately ignored: a missing file gives the default, and a
    // value that fails to expand gives 0, which the library treats as no limit.
    conf_file* conf = conf_open(kConfigFile, nullptr, nullptr);
    m_timeout = conf_get_int(conf, "lrpc2.timeout", kDefaultTimeout, nullptr);
    conf_free(conf);
}

Lrpc2Client::~Lrpc2Client() {
    disconnect();
}

void Lrpc2Client::setSocketPath(const std::string& path) {
    m_socketPath = path;
}

void Lrpc2Client::setDefaultTimeout(int32_t seconds) {
    m_timeout = seconds;
}

std::string Lrpc2Client::socketPath() const {
    std::string path = m_socketPath;
    if (path.empty() && !configuredSocketPath(path)) {
        path.clear();
    }
    return path;
}

pid_t Lrpc2Client::replierPid() const {
    lrpc2_sender sender = {};
    return m_connection != nullptr && lrpc2_last_sender(m_connection, &sender) == 0 ? sender.pid
                                                                                    : -1;
}

pid_t Lrpc2Client::listenerPid() const {
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (m_connection == nullptr ||
        getsockopt(m_connection->read_fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
        peer.pid <= 0) {
        return -1;
    }
    return peer.pid;
}

bool Lrpc2Client::connect(int32_t timeout) {
    const std::string path = socketPath();
    if (path.empty()) {
        return false;
    }

    int32_t status = 0;
    // Deliberately overwrites a connection still open; callers connect only when not connected.
    m_connection = lrpc2_connect_timeout(path.c_str(), m_messageTable,
                                         timeout != 0 ? timeout : m_timeout, &status);
    if (status != 0) {
        lrpc2_close(m_connection);
        m_connection = nullptr;
        return false;
    }
    return m_connection != nullptr;
}

void Lrpc2Client::disconnect() {
    lrpc2_close(m_connection);
    m_connection = nullptr;
}

void Lrpc2Client::send(Lrpc2Message& request, Lrpc2Message& reply, int32_t timeout) {
    if (m_connection == nullptr) {
        ZFW_THROW(zfw::SystemException, 0, true, "Can't send an lrpc2 message yet, not connected");
    }
    int32_t status = 0;
    lrpc2_msg* answer = lrpc2_exchange_timeout(m_connection, request.handle(),
                                               timeout != 0 ? timeout : m_timeout, &status);
    if (status != 0) {
        lrpc2_msg_free(answer);
        ZFW_THROW(zfw::IOException, 0, true, "Unable to send lrpc2 message: %d (%s)", status,
                  lrpc2_status_text(status));
    }
    reply.adopt(answer);
}

void Lrpc2Client::sendDiscardReply(Lrpc2Message& request, int32_t timeout) {
    Lrpc2Message reply;
    send(request, reply, timeout);
}

void Lrpc2Client::ask(uint32_t id, Lrpc2Message& reply, int32_t timeout) {
    Lrpc2Message request(id, m_messageTable);
    request.complete();
    send(request, reply, timeout);
}

bool Lrpc2Client::isDaemonOnline() {
    Lrpc2Message reply;
    ask(LRPC2_ID_KV_QUERY_IS_DAEMON_ONLINE, reply);
    return reply.readBool();
}

std::string Lrpc2Client::queryCollectorStatus() {
    Lrpc2Message reply;
    ask(LRPC2_ID_KV_QUERY_COLLECTOR_STATUS, reply);
    return reply.readString();
}

void Lrpc2Client::queryCollectorStatus2(int32_t& code, std::string& state, std::string& name,
                                        bool& flag, std::string& source, std::string& note) {
    Lrpc2Message reply;
    ask(LRPC2_ID_KV_QUERY_COLLECTOR_STATUS2, reply);
    code = reply.readInt32();
    state = reply.readString();
    name = reply.readString();
    flag = reply.readBool();
    source = reply.readString();
    note = reply.readString();
}

std::string Lrpc2Client::queryDBSize() {
    Lrpc2Message reply;
    ask(LRPC2_ID_KV_QUERY_DB_SIZE, reply);
    return reply.readString();
}

std::string Lrpc2Client::queryDespoolRate() {
    Lrpc2Message reply;
    ask(LRPC2_ID_KV_QUERY_DESPOOL_RATE, reply);
    return reply.readString();
}

bool Lrpc2Client::ping(int32_t timeout, std::string* failure) {
    Lrpc2Message reply;
    try {
        ask(LRPC2_ID_KV_PING, reply, timeout);
    } catch (const zfw::IOException& e) {
        if (failure != nullptr) {
            *failure = e.what();
        }
        return false;
    }
    return true;
}

void Lrpc2Client::stopDaemon() {
    Lrpc2Message reply;  // released unread: any answer means the request was accepted
    ask(LRPC2_ID_KV_STOP, reply);
}

int32_t Lrpc2Client::reloadProperties(std::string* failure) {
    Lrpc2Message reply;
    try {
        ask(LRPC2_ID_KV_RELOAD_PROPS, reply);
    } catch (const zfw::IOException& e) {
        if (failure != nullptr) {
            *failure = e.what();
        }
        return kReloadFailed;
    }
    // Deliberately outside the handler: a reply without its int32 throws.
    return reply.readInt32();
}
