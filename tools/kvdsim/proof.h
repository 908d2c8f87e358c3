// The two proof files of one authentication dialogue and the contents expected back.
#ifndef KVDSIM_PROOF_H
#define KVDSIM_PROOF_H

#include <cstdint>
#include <string>
#include <vector>

namespace kvdsim {

class ProofPair {
  public:
    ProofPair() = default;
    ProofPair(const ProofPair&) = delete;
    ProofPair& operator=(const ProofPair&) = delete;
    ~ProofPair() { clear(); }

    // Creates two files of `size` random bytes in `dir`, readable only by their owner:
    // the user and group `uid`/`gid` when the daemon may give them away, else itself.
    bool create(const std::string& dir, uint32_t size, uint32_t uid, uint32_t gid);
    // Names two existing files; the contents expected are what they hold now (nothing
    // when a file cannot be read, so no answer can match).
    void name(const std::string& path1, const std::string& path2);
    const std::string& path1() const { return m_path[0]; }
    const std::string& path2() const { return m_path[1]; }
    bool matches(const uint8_t* data1, uint32_t size1, const uint8_t* data2, uint32_t size2) const;
    // Removes the files this pair created and forgets everything.
    void clear();

  private:
    std::string m_path[2];
    std::vector<uint8_t> m_content[2];
    bool m_created = false;
};

}  // namespace kvdsim

#endif
