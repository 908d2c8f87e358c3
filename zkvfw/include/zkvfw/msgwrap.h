// Typed, exception-raising view of one lrpc2 message.
//
// The same class serves both sides of a conversation: reads are worded for a request
// arriving at the daemon, writes and completion for the daemon's reply. The client
// session uses it the other way round (it creates and completes requests and reads
// replies), so the exception texts name the daemon's side.
#ifndef ZKVFW_MSGWRAP_H
#define ZKVFW_MSGWRAP_H

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

#include "lrpc2/msg.h"
#include "lrpc2/table.h"
#include "zfw/exception.h"
#include "zfw/strutil.h"

class Lrpc2Message {
  public:
    // An empty wrapper, to be given a received message with `adopt`.
    Lrpc2Message() : m_msg(nullptr) {}

    // A new message under construction for `id`, looked up in `table`.
    Lrpc2Message(uint32_t id, const lrpc2_msg_table* table) : m_msg(nullptr) {
        int32_t status = 0;
        m_msg = lrpc2_msg_create(id, 0, table, LRPC2_HEADER_LEN, &status);
        if (status != 0 || m_msg == nullptr) {
            lrpc2_msg_free(m_msg);
            m_msg = nullptr;
            ZFW_THROW(zfw::SystemException, status, true, "Unable to create request message");
        }
    }

    ~Lrpc2Message() { lrpc2_msg_free(m_msg); }

    Lrpc2Message(const Lrpc2Message&) = delete;
    Lrpc2Message& operator=(const Lrpc2Message&) = delete;

    // Ends construction; the message becomes readable and can be sent.
    void complete() {
        const int32_t status = lrpc2_msg_complete(m_msg);
        if (status != 0) {
            ZFW_THROW(zfw::SystemException, status, true, "Unable to complete reply message");
        }
    }

    // Takes ownership of `msg` (null allowed), releasing the message held before.
    void adopt(lrpc2_msg* msg) {
        if (msg != m_msg) {
            lrpc2_msg_free(m_msg);
            m_msg = msg;
        }
    }

    // The library's handle; the wrapper keeps ownership.
    lrpc2_msg* handle() const { return m_msg; }

    // Each reader takes the next field, which must be of its type. End of data throws
    // zfw::EndOfFileException, any other failure zfw::SystemException.
    bool readBool();
    int32_t readInt32();
    uint32_t readUInt32();
    std::string readString();  // every byte, NULs inside kept; a null string reads as ""
    std::string readBlob();    // every byte of the blob; a null blob reads as ""

    // Each writer appends one field; a failure throws zfw::SystemException carrying the
    // library's status.
    void writeBool(bool value);
    void writeInt32(int32_t value);
    void writeUInt32(uint32_t value);
    void writeString(const std::string& value);  // "" travels as the null string
    void writeBlob(const void* data, uint32_t length);

    // The set stays open after these return; the next write or `complete` closes it.
    // Elements already added when an add fails stay in the message.
    void writeStringSet(const zfw::StringList& values);
    void writeKeyValueSet(const std::vector<std::pair<std::string, std::string>>& pairs);

  private:
    lrpc2_msg* m_msg;
};

#endif
