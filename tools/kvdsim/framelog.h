// The record of what clients sent: one line per handshake and per frame, in hex.
#ifndef KVDSIM_FRAMELOG_H
#define KVDSIM_FRAMELOG_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace kvdsim {

class FrameLog {
  public:
    FrameLog() = default;
    FrameLog(const FrameLog&) = delete;
    FrameLog& operator=(const FrameLog&) = delete;
    ~FrameLog();

    // Opens `path` for appending; an empty path keeps no log.
    bool open(const std::string& path);
    // Appends "<conn> <kind> <hex>" in one write, so readers never see half a line.
    void record(uint32_t conn, const char* kind, const uint8_t* data, size_t n);

  private:
    int m_fd = -1;
};

}  // namespace kvdsim

#endif
