// Reply frames of the simulated daemon, built with the lrpc2 message layer.
#ifndef KVDSIM_REPLIES_H
#define KVDSIM_REPLIES_H

#include <cstdint>
#include <vector>

#include "lrpc2/msg.h"
#include "options.h"

namespace kvdsim {

// Completes `msg` into a stamped frame and frees it; empty on any failure.
std::vector<uint8_t> frameOf(lrpc2_msg* msg);
// A new message `id` under construction (null when the table lacks the id).
lrpc2_msg* newMessage(uint32_t id);
// The daemon's reply to request `id`: the same id, with the fields its query returns.
std::vector<uint8_t> replyFor(uint32_t id, const Answers& answers);
// A reply `id` carrying exactly `fields` (raw tagged bytes) and the end tag.
std::vector<uint8_t> replyWithFields(uint32_t id, const std::vector<uint8_t>& fields);
// Turns a reply frame into the malformed one that `fault` describes; other faults
// leave it unchanged.
void malform(Fault fault, std::vector<uint8_t>& frame);

}  // namespace kvdsim

#endif
