#include "lrpc2/status.h"

namespace {

const char* const kTexts[] = {
    "Socket path does not exist",
    "Cannot open socket",
    "Wrong protocol in handshake",
    "Message table version mismatch",
    "Socket closed",
    "Socket error",
    "Invalid message handle or operation",
    "Out of memory",
    "Timeout during operation",
    "Process authentication failed",
    "Process identity is not known at this point",
    "Bad or invalid session handle",
    "A timeout value is required",
    "Bad magic number in communication, potential network or byte order issue",
    "Temporary storage is running out of space",
    "Cannot open file",
    "File operation error",
};

constexpr int32_t kFirst = LRPC2_ERR_NOPATH;
constexpr int32_t kCount = sizeof kTexts / sizeof kTexts[0];
static_assert(kFirst + kCount - 1 == LRPC2_ERR_FILEOP, "one text per connection-level code");

}  // namespace

extern "C" const char* lrpc2_status_text(int32_t code) {
    // Unsigned subtraction folds both range checks into one comparison.
    const uint32_t index = static_cast<uint32_t>(code) - static_cast<uint32_t>(kFirst);
    return index < static_cast<uint32_t>(kCount) ? kTexts[index] : nullptr;
}
