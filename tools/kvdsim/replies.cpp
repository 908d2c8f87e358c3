#include "replies.h"

#include <cstring>

#include "lrpc2/exchange.h"
#include "lrpc2/table.h"

namespace kvdsim {

namespace {

void setU32(std::vector<uint8_t>& frame, size_t offset, uint32_t value) {
    memcpy(frame.data() + offset, &value, sizeof value);
}

// Fills in the fields that the reply to query `id` carries.
bool putQueryFields(lrpc2_msg* msg, uint32_t id, const Answers& a) {
    switch (id) {
        case LRPC2_ID_KV_QUERY_IS_DAEMON_ONLINE:
            return lrpc2_put_bool(msg, a.online ? 1 : 0) == 0;
        case LRPC2_ID_KV_QUERY_COLLECTOR_STATUS:
            return lrpc2_put_string(msg, a.collectorStatus.c_str()) == 0;
        case LRPC2_ID_KV_QUERY_COLLECTOR_STATUS2:
            return lrpc2_put_int32(msg, a.detail.code) == 0 &&
                   lrpc2_put_string(msg, a.detail.state.c_str()) == 0 &&
                   lrpc2_put_string(msg, a.detail.name.c_str()) == 0 &&
                   lrpc2_put_bool(msg, a.detail.flag ? 1 : 0) == 0 &&
                   lrpc2_put_string(msg, a.detail.source.c_str()) == 0 &&
                   lrpc2_put_string(msg, a.detail.note.c_str()) == 0;
        case LRPC2_ID_KV_QUERY_DB_SIZE:
            return lrpc2_put_string(msg, a.dbSize.c_str()) == 0;
        case LRPC2_ID_KV_QUERY_DESPOOL_RATE:
            return lrpc2_put_string(msg, a.despoolRate.c_str()) == 0;
        case LRPC2_ID_KV_RELOAD_PROPS:
            return lrpc2_put_int32(msg, a.reloadResult) == 0;
        default:
            return true;
    }
}

}  // namespace

lrpc2_msg* newMessage(uint32_t id) {
    return lrpc2_msg_create(id, 0, lrpc2_default_table(), LRPC2_HEADER_LEN, nullptr);
}

std::vector<uint8_t> frameOf(lrpc2_msg* msg) {
    std::vector<uint8_t> frame;
    uint32_t length = 0;
    if (msg != nullptr && lrpc2_msg_complete(msg) == 0) {
        uint8_t* image = lrpc2_msg_bytes(msg, &length, nullptr);
        if (image != nullptr) {
            lrpc2_frame_stamp(image, length);
            frame.assign(image, image + length);
        }
    }
    lrpc2_msg_free(msg);
    return frame;
}

std::vector<uint8_t> replyFor(uint32_t id, const Answers& answers) {
    lrpc2_msg* msg = newMessage(id);
    if (msg == nullptr || !putQueryFields(msg, id, answers)) {
        lrpc2_msg_free(msg);
        return {};
    }
    return frameOf(msg);
}

std::vector<uint8_t> replyWithFields(uint32_t id, const std::vector<uint8_t>& fields) {
    std::vector<uint8_t> frame(LRPC2_HEADER_LEN, 0);
    frame.push_back(static_cast<uint8_t>(id));
    frame.push_back(static_cast<uint8_t>(id >> 8));
    frame.insert(frame.end(), fields.begin(), fields.end());
    frame.push_back(LRPC2_T_END);
    lrpc2_frame_stamp(frame.data(), static_cast<uint32_t>(frame.size()));
    return frame;
}

void malform(Fault fault, std::vector<uint8_t>& frame) {
    switch (fault) {
        case Fault::BadMagic:
            setU32(frame, 0, 0xDEADBEEFu);
            break;
        case Fault::SwappedMagic:
            frame[0] = 0xAB;
            frame[1] = 0xCD;
            frame[2] = 0x80;
            frame[3] = 0x12;
            break;
        case Fault::BadTag:
            frame.insert(frame.end() - 1, 9);
            setU32(frame, 4, static_cast<uint32_t>(frame.size()));
            break;
        case Fault::TrailingByte:
            frame.push_back(0);
            setU32(frame, 4, static_cast<uint32_t>(frame.size()));
            break;
        case Fault::ShortLength:
            frame.resize(LRPC2_HEADER_LEN);
            setU32(frame, 4, LRPC2_HEADER_LEN - 1);
            break;
        case Fault::HugeLength:
            frame.resize(LRPC2_HEADER_LEN);
            setU32(frame, 4, LRPC2_MAX_REPLY_LEN + 1);
            break;
        default:
            break;
    }
}

}  // namespace kvdsim
