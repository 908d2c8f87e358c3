// The daemon's side of one client connection: handshake, frames, authentication dialogue
// and the configured misbehaviour.
#ifndef KVDSIM_CONNECTION_H
#define KVDSIM_CONNECTION_H

#include <cstdint>
#include <functional>
#include <vector>

#include "framelog.h"
#include "lrpc2/msg.h"
#include "options.h"
#include "proof.h"

namespace kvdsim {

class Connection {
  public:
    enum class Outcome {
        Open,    // keep serving this connection
        Closed,  // close it
        Exit,    // the stop request was answered: the daemon ends
    };

    // `beforeStop` runs just before the reply to a stop request goes out when the daemon
    // is to exit, so that no later connect can reach it.
    Connection(int fd, uint32_t number, const Options& options, FrameLog& log,
               std::function<void()> beforeStop);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    int fd() const { return m_fd; }
    // Reads what the client sent and answers every complete hello or frame.
    Outcome onReadable();

  private:
    enum class Phase { Hello, Frames, Silent };
    enum class Auth { Idle, Challenged, PathsSent, Done };

    Outcome onHello();
    Outcome onFrame(std::vector<uint8_t>& frame);
    // The reply image for a request (with the authentication state applied); empty
    // when the connection is to be closed instead.
    std::vector<uint8_t> answer(lrpc2_msg* request, uint32_t id, uint32_t& repliedTo);
    std::vector<uint8_t> authStep(lrpc2_msg* request, uint32_t id, uint32_t& repliedTo);
    bool faultHits(bool hello) const;
    bool send(const uint8_t* data, size_t n);

    int m_fd;
    uint32_t m_number;
    const Options& m_options;
    FrameLog& m_log;
    std::function<void()> m_beforeStop;
    Phase m_phase = Phase::Hello;
    Auth m_auth = Auth::Idle;
    uint32_t m_frames = 0;
    uint32_t m_pendingId = 0;
    std::vector<uint8_t> m_input;
    ProofPair m_proofs;
};

}  // namespace kvdsim

#endif
