#include "connection.h"

#include <errno.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "lrpc2/conn.h"
#include "lrpc2/exchange.h"
#include "lrpc2/table.h"
#include "replies.h"

namespace kvdsim {

namespace {

bool isHelloFault(Fault f) {
    return f == Fault::CloseHello || f == Fault::SilentHello;
}

uint32_t u32At(const std::vector<uint8_t>& bytes, size_t offset) {
    uint32_t v = 0;
    memcpy(&v, bytes.data() + offset, sizeof v);
    return v;
}

void complain(uint32_t conn, const char* what) {
    fprintf(stderr, "kvdsim: connection %u: %s\n", conn, what);
}

// Reads the client's claimed identity; true when its socket credentials confirm it.
bool identityMatches(int fd, lrpc2_msg* msg, uint32_t& uid, uint32_t& gid) {
    ucred cred = {};
    socklen_t len = sizeof cred;
    return lrpc2_get_uint32(msg, &uid) == 0 && lrpc2_get_uint32(msg, &gid) == 0 &&
           getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 && cred.uid == uid &&
           cred.gid == gid;
}

}  // namespace

Connection::Connection(int fd, uint32_t number, const Options& options, FrameLog& log,
                       std::function<void()> beforeStop)
    : m_fd(fd),
      m_number(number),
      m_options(options),
      m_log(log),
      m_beforeStop(std::move(beforeStop)),
      m_auth(options.auth ? Auth::Idle : Auth::Done) {}

Connection::~Connection() {
    close(m_fd);
}

Connection::Outcome Connection::onReadable() {
    uint8_t buf[65536];
    const ssize_t n = recv(m_fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0) {
        return errno == EAGAIN || errno == EINTR ? Outcome::Open : Outcome::Closed;
    }
    if (n == 0) {
        return Outcome::Closed;
    }
    if (m_phase == Phase::Silent) {
        return Outcome::Open;
    }
    m_input.insert(m_input.end(), buf, buf + n);
    for (;;) {
        if (m_phase == Phase::Hello) {
            if (m_input.size() < sizeof(uint32_t)) {
                return Outcome::Open;
            }
            const Outcome o = onHello();
            if (o != Outcome::Open) {
                return o;
            }
            continue;
        }
        if (m_phase == Phase::Silent || m_input.size() < LRPC2_HEADER_LEN) {
            return Outcome::Open;
        }
        const uint32_t length = u32At(m_input, 4);
        if (u32At(m_input, 0) != LRPC2_MAGIC || length < LRPC2_HEADER_LEN + 3 ||
            length > LRPC2_MAX_REPLY_LEN) {
            m_log.record(m_number, "junk", m_input.data(), m_input.size());
            complain(m_number, "not a frame");
            return Outcome::Closed;
        }
        if (m_input.size() < length) {
            return Outcome::Open;
        }
        std::vector<uint8_t> frame(m_input.begin(), m_input.begin() + length);
        m_input.erase(m_input.begin(), m_input.begin() + length);
        const Outcome o = onFrame(frame);
        if (o != Outcome::Open) {
            return o;
        }
    }
}

Connection::Outcome Connection::onHello() {
    m_log.record(m_number, "hello", m_input.data(), sizeof(uint32_t));
    m_input.erase(m_input.begin(), m_input.begin() + sizeof(uint32_t));
    if (faultHits(true)) {
        if (m_options.fault == Fault::CloseHello) {
            return Outcome::Closed;
        }
        m_phase = Phase::Silent;
        return Outcome::Open;
    }
    const uint32_t value = m_options.handshake;
    if (!send(reinterpret_cast<const uint8_t*>(&value), sizeof value) ||
        value != LRPC2_HANDSHAKE_ACCEPT) {
        return Outcome::Closed;
    }
    m_phase = Phase::Frames;
    return Outcome::Open;
}

Connection::Outcome Connection::onFrame(std::vector<uint8_t>& frame) {
    ++m_frames;
    m_log.record(m_number, "frame", frame.data(), frame.size());
    lrpc2_msg* request = lrpc2_msg_parse(frame.data(), static_cast<uint32_t>(frame.size()), 1,
                                         lrpc2_default_table(), LRPC2_HEADER_LEN, nullptr);
    explicit_bzero(frame.data(), frame.size());
    if (request == nullptr) {
        complain(m_number, "malformed frame");
        return Outcome::Closed;
    }
    uint32_t id = 0;
    lrpc2_msg_id(request, &id);
    uint32_t repliedTo = 0;
    std::vector<uint8_t> reply = answer(request, id, repliedTo);
    lrpc2_msg_free(request);
    if (reply.empty()) {
        return Outcome::Closed;
    }
    const bool stopping = m_options.exitOnStop && repliedTo == LRPC2_ID_KV_STOP;
    if (faultHits(false)) {
        switch (m_options.fault) {
            case Fault::CloseRequest:
                return Outcome::Closed;
            case Fault::SilentRequest:
                m_phase = Phase::Silent;
                return Outcome::Open;
            case Fault::CloseHeader:
                send(reply.data(), LRPC2_HEADER_LEN);
                return Outcome::Closed;
            case Fault::CloseBody:
                send(reply.data(), reply.size() - 1);
                return Outcome::Closed;
            case Fault::SilentBody:
                send(reply.data(), reply.size() - 1);
                m_phase = Phase::Silent;
                return Outcome::Open;
            default:
                malform(m_options.fault, reply);
                break;
        }
    }
    if (stopping && m_beforeStop) {
        m_beforeStop();
    }
    if (!send(reply.data(), reply.size())) {
        return Outcome::Closed;
    }
    return stopping ? Outcome::Exit : Outcome::Open;
}

std::vector<uint8_t> Connection::answer(lrpc2_msg* request, uint32_t id, uint32_t& repliedTo) {
    if (m_auth != Auth::Done) {
        return authStep(request, id, repliedTo);
    }
    repliedTo = id;
    const auto fields = m_options.replyFields.find(id);
    std::vector<uint8_t> reply = fields != m_options.replyFields.end()
                                     ? replyWithFields(id, fields->second)
                                     : replyFor(id, m_options.answers);
    if (reply.empty()) {
        complain(m_number, "request id not in the table");
    }
    return reply;
}

std::vector<uint8_t> Connection::authStep(lrpc2_msg* request, uint32_t id, uint32_t& repliedTo) {
    switch (m_auth) {
        case Auth::Idle:
            if (id == LRPC2_ID_AUTH_CHALLENGE || id == LRPC2_ID_AUTH_RESPONSE) {
                break;
            }
            m_pendingId = id;
            m_auth = Auth::Challenged;
            return frameOf(newMessage(LRPC2_ID_AUTH_CHALLENGE));
        case Auth::Challenged: {
            uint32_t uid = 0;
            uint32_t gid = 0;
            if (id != LRPC2_ID_AUTH_CHALLENGE || !identityMatches(m_fd, request, uid, gid)) {
                complain(m_number, "wrong identity in the authentication dialogue");
                break;
            }
            if (m_options.authAnswer == AuthAnswer::Nested) {
                return frameOf(newMessage(LRPC2_ID_AUTH_CHALLENGE));
            }
            if (!m_options.proofPath1.empty()) {
                m_proofs.name(m_options.proofPath1, m_options.proofPath2);
            } else if (!m_proofs.create(m_options.proofDir, m_options.proofSize, uid, gid)) {
                perror("kvdsim: proof file");
                break;
            }
            lrpc2_msg* paths = newMessage(LRPC2_ID_AUTH_RESPONSE);
            if (lrpc2_put_string(paths, m_proofs.path1().c_str()) != 0 ||
                (m_options.authAnswer == AuthAnswer::TwoPaths &&
                 lrpc2_put_string(paths, m_proofs.path2().c_str()) != 0)) {
                lrpc2_msg_free(paths);
                break;
            }
            m_auth = Auth::PathsSent;
            return frameOf(paths);
        }
        case Auth::PathsSent: {
            uint8_t* data1 = nullptr;
            uint8_t* data2 = nullptr;
            uint32_t size1 = 0;
            uint32_t size2 = 0;
            const bool proven = id == LRPC2_ID_AUTH_RESPONSE &&
                                lrpc2_get_blob(request, &data1, &size1) == 0 &&
                                lrpc2_get_blob(request, &data2, &size2) == 0 &&
                                m_proofs.matches(data1, size1, data2, size2);
            lrpc2_wipe_free(data1, size1);
            lrpc2_wipe_free(data2, size2);
            m_proofs.clear();
            if (!proven) {
                complain(m_number, "wrong proof in the authentication dialogue");
                break;
            }
            m_auth = Auth::Done;
            return answer(request, m_pendingId, repliedTo);
        }
        case Auth::Done:
            break;
    }
    return {};
}

bool Connection::faultHits(bool hello) const {
    if (m_options.fault == Fault::None || isHelloFault(m_options.fault) != hello ||
        (m_options.faultConn != 0 && m_options.faultConn != m_number)) {
        return false;
    }
    return hello || m_frames == m_options.faultFrame;
}

bool Connection::send(const uint8_t* data, size_t n) {
    const uint32_t piece = m_options.piece == 0 ? static_cast<uint32_t>(n) : m_options.piece;
    for (size_t off = 0; off < n; off += piece) {
        if (off > 0) {
            const uint32_t ms = m_options.pieceDelayMs;
            timespec pause = {static_cast<time_t>(ms / 1000),
                              static_cast<long>(ms % 1000) * 1000000L};
            while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
            }
        }
        const auto len = static_cast<uint32_t>(std::min<size_t>(piece, n - off));
        if (lrpc2_write_all(m_fd, data + off, len, 0, 1) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace kvdsim
