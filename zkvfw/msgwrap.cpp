#include "zkvfw/msgwrap.h"

#include <cstdlib>

#include "lrpc2/status.h"

namespace {

// A reader's status: "no more data" is reported apart from every other failure, both
// with result code 0, as the wrapper's contract requires (the library's status is not passed on).
void checkRead(int32_t status, const char* typeName, const char* typeText) {
    if (status == 0) {
        return;
    }
    if (status == LRPC2_MSG_NODATA) {
        ZFW_THROW(zfw::EndOfFileException, 0, true, "No more data while reading %s", typeName);
    }
    ZFW_THROW(zfw::SystemException, 0, true, "Error reading %s from request message", typeText);
}

// A writer's status: a failure throws with it as result code.
void checkWrite(int32_t status, const char* text) {
    if (status != 0) {
        ZFW_THROW(zfw::SystemException, status, true, "%s", text);
    }
}

}  // namespace

bool Lrpc2Message::readBool() {
    int32_t value = 0;
    checkRead(lrpc2_get_bool(m_msg, &value), "Bool", "bool");
    return value != 0;
}

int32_t Lrpc2Message::readInt32() {
    int32_t value = 0;
    checkRead(lrpc2_get_int32(m_msg, &value), "Int32", "int32");
    return value;
}

uint32_t Lrpc2Message::readUInt32() {
    uint32_t value = 0;
    checkRead(lrpc2_get_uint32(m_msg, &value), "UInt32", "uint32");
    return value;
}

std::string Lrpc2Message::readString() {
    char* text = nullptr;
    uint32_t length = 0;
    checkRead(lrpc2_get_string_len(m_msg, &text, &length), "String", "string");
    std::string value = text != nullptr ? std::string(text, length) : std::string();
    lrpc2_free_string(text, 0);
    return value;
}

std::string Lrpc2Message::readBlob() {
    uint8_t* data = nullptr;
    uint32_t length = 0;
    checkRead(lrpc2_get_blob(m_msg, &data, &length), "blob", "blob");
    std::string value;
    if (data != nullptr) {
        value.assign(reinterpret_cast<const char*>(data), length);
    }
    std::free(data);
    return value;
}

void Lrpc2Message::writeBool(bool value) {
    checkWrite(lrpc2_put_bool(m_msg, value ? 1 : 0), "Unable to write bool to reply message");
}

void Lrpc2Message::writeInt32(int32_t value) {
    checkWrite(lrpc2_put_int32(m_msg, value), "Unable to write int32 to reply message");
}

void Lrpc2Message::writeUInt32(uint32_t value) {
    checkWrite(lrpc2_put_uint32(m_msg, value), "Unable to write uint32 to reply message");
}

void Lrpc2Message::writeString(const std::string& value) {
    // The null string for the empty one, as the protocol requires; a reader gives it back empty.
    checkWrite(lrpc2_put_string(m_msg, value.empty() ? nullptr : value.c_str()),
               "Unable to write string to reply message");
}

void Lrpc2Message::writeBlob(const void* data, uint32_t length) {
    checkWrite(lrpc2_put_blob(m_msg, data, length), "Unable to write blob to reply message");
}

void Lrpc2Message::writeStringSet(const zfw::StringList& values) {
    checkWrite(lrpc2_begin_string_set(m_msg),
               "Unable to begin writing string set to the reply message");
    for (const std::string& value : values) {
        // Inside a set the empty string is the empty text, never null.
        checkWrite(lrpc2_add_string(m_msg, value.c_str()),
                   "Unable to write string to reply message");
    }
}

void Lrpc2Message::writeKeyValueSet(const std::vector<std::pair<std::string, std::string>>& pairs) {
    checkWrite(lrpc2_begin_kv_set(m_msg),
               "Unable to begin writing key-value set to the reply message");
    for (const auto& pair : pairs) {
        checkWrite(lrpc2_add_kv(m_msg, pair.first.c_str(), pair.second.c_str()),
                   "Unable to write key-value to reply message");
    }
}
