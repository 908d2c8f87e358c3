#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "lrpc2/msg.h"
#include "lrpc2/status.h"
#include "lrpc2/table.h"
#include "support/alloc_hooks.h"
#include "support/expect_throw.h"
#include "zfw/exception.h"
#include "zkvfw/msgwrap.h"

namespace {

const lrpc2_msg_table* table() {
    return lrpc2_default_table();
}

using kvtest::expectThrow;

TEST(Lrpc2MessageCreate, UnknownIdOrNoTableThrows) {
    expectThrow<zfw::SystemException>([] { Lrpc2Message m(32, table()); },
                                      "Unable to create request message", LRPC2_MSG_INVALID);
    expectThrow<zfw::SystemException>([] { Lrpc2Message m(LRPC2_ID_KV_STOP, nullptr); },
                                      "Unable to create request message", LRPC2_MSG_INVALID);
}

TEST(Lrpc2MessageCreate, RefusedMemoryThrowsAndLeavesNothing) {
    alloc_hooks::start(1);
    expectThrow<zfw::SystemException>([] { Lrpc2Message m(LRPC2_ID_KV_PING, table()); },
                                      "Unable to create request message", LRPC2_MSG_NOMEM);
    alloc_hooks::start(2);  // the record is had, its buffer is not
    expectThrow<zfw::SystemException>([] { Lrpc2Message m(LRPC2_ID_KV_PING, table()); },
                                      "Unable to create request message", LRPC2_MSG_NOMEM);
    EXPECT_TRUE(alloc_hooks::state().failed);
    EXPECT_EQ(alloc_hooks::state().live, 0);
    alloc_hooks::stop();
}

TEST(Lrpc2MessageFields, WrittenFieldsReadBack) {
    const std::string blob("a\0b\0", 4);
    Lrpc2Message msg(LRPC2_ID_KV_QUERY_COLLECTOR_STATUS2, table());
    msg.writeBool(true);
    msg.writeBool(false);
    msg.writeInt32(-7);
    msg.writeUInt32(0xFFFFFFFEu);
    msg.writeString("collector up");
    msg.writeString("");
    msg.writeBlob(blob.data(), static_cast<uint32_t>(blob.size()));
    msg.writeBlob(nullptr, 5);
    msg.writeStringSet({"x", ""});
    msg.writeKeyValueSet({{"k", ""}});
    msg.complete();
    // "" is the null string, in a set the empty text; the literal's own zero is the end tag.
    const char image[] =
        "\0\0\0\0\0\0\0\0\x5b\0\1\1\1\0\2\xf9\xff\xff\xff\3\xfe\xff\xff\xff"
        "\4\x0c\0\0\0collector up\4\xff\xff\xff\xff\6\4\0\0\0a\0b\0\6\xff\xff\xff\xff"
        "\7\2\0\0\0\1\0\0\0x\0\0\0\0\x08\1\0\0\0\1\0\0\0k\0\0\0\0";
    uint32_t length = 0;
    const uint8_t* bytes = lrpc2_msg_bytes(msg.handle(), &length, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes), length),
              std::string(image, sizeof image));

    EXPECT_TRUE(msg.readBool());
    EXPECT_FALSE(msg.readBool());
    EXPECT_EQ(msg.readInt32(), -7);
    EXPECT_EQ(msg.readUInt32(), 0xFFFFFFFEu);
    EXPECT_EQ(msg.readString(), "collector up");
    EXPECT_EQ(msg.readString(), "");
    EXPECT_EQ(msg.readBlob(), blob);
    EXPECT_EQ(msg.readBlob(), "");
}

TEST(Lrpc2MessageFields, ReceivedBoolIsTrueForAnyNonZeroByte) {
    uint8_t image[] = {0, 0, 0, 0, 0, 0, 0, 0, 10, 0, LRPC2_T_BOOL, 7, 0};
    int32_t status = -1;
    Lrpc2Message msg;
    msg.adopt(lrpc2_msg_parse(image, sizeof image, 1, table(), LRPC2_HEADER_LEN, &status));
    ASSERT_EQ(status, 0);
    EXPECT_TRUE(msg.readBool());
}

struct ReaderCase {
    const char* name;
    std::function<void(Lrpc2Message&)> read;
    const char *endText, *errorText;
};

const std::vector<ReaderCase>& readerCases() {
    static const std::vector<ReaderCase> cases = {
        {"bool", [](Lrpc2Message& m) { m.readBool(); }, "No more data while reading Bool",
         "Error reading bool from request message"},
        {"int32", [](Lrpc2Message& m) { m.readInt32(); }, "No more data while reading Int32",
         "Error reading int32 from request message"},
        {"uint32", [](Lrpc2Message& m) { m.readUInt32(); }, "No more data while reading UInt32",
         "Error reading uint32 from request message"},
        {"string", [](Lrpc2Message& m) { m.readString(); }, "No more data while reading String",
         "Error reading string from request message"},
        {"blob", [](Lrpc2Message& m) { m.readBlob(); }, "No more data while reading blob",
         "Error reading blob from request message"}};
    return cases;
}

// Every reader: at the end of the data, before a field of another type, in a message still
// under construction, and in a wrapper that holds no message.
TEST(Lrpc2MessageReaders, RefusedReadsThrowWithCodeZero) {
    for (const ReaderCase& c : readerCases()) {
        SCOPED_TRACE(c.name);
        Lrpc2Message atEnd(LRPC2_ID_KV_PING, table());
        atEnd.complete();
        expectThrow<zfw::EndOfFileException>([&] { c.read(atEnd); }, c.endText, 0);

        Lrpc2Message wrongType(LRPC2_ID_KV_PING, table());
        // A key-value set is read by none of the readers.
        wrongType.writeKeyValueSet({{"k", "v"}});
        wrongType.complete();
        expectThrow<zfw::SystemException>([&] { c.read(wrongType); }, c.errorText, 0);

        Lrpc2Message building(LRPC2_ID_KV_PING, table());
        expectThrow<zfw::SystemException>([&] { c.read(building); }, c.errorText, 0);
        Lrpc2Message empty;
        expectThrow<zfw::SystemException>([&] { c.read(empty); }, c.errorText, 0);
    }
}

// Every writer and completion on a message already complete: the library's 203.
TEST(Lrpc2MessageWriters, RefusedWritesThrowWithTheStatus) {
    const std::vector<std::pair<const char*, std::function<void(Lrpc2Message&)>>> cases = {
        {"Unable to write bool to reply message", [](Lrpc2Message& m) { m.writeBool(true); }},
        {"Unable to write int32 to reply message", [](Lrpc2Message& m) { m.writeInt32(1); }},
        {"Unable to write uint32 to reply message", [](Lrpc2Message& m) { m.writeUInt32(1); }},
        {"Unable to write string to reply message", [](Lrpc2Message& m) { m.writeString("s"); }},
        {"Unable to write blob to reply message", [](Lrpc2Message& m) { m.writeBlob("b", 1); }},
        {"Unable to begin writing string set to the reply message",
         [](Lrpc2Message& m) { m.writeStringSet({}); }},
        {"Unable to begin writing key-value set to the reply message",
         [](Lrpc2Message& m) { m.writeKeyValueSet({}); }},
        {"Unable to complete reply message", [](Lrpc2Message& m) { m.complete(); }}};
    for (const auto& c : cases) {
        Lrpc2Message done(LRPC2_ID_KV_PING, table());
        done.complete();
        expectThrow<zfw::SystemException>([&] { c.second(done); }, c.first, LRPC2_MSG_NODATA);
    }
}

}  // namespace
