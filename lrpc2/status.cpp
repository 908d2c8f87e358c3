#include "lrpc2/status.h"

namespace {

struct StatusText {
    int32_t code;
    const char* text;
};

constexpr StatusText kTexts[] = {
#define LRPC2_STATUS_TEXT(name, value, text) {LRPC2_##name, text},
    LRPC2_STATUS_MAP(LRPC2_STATUS_TEXT)
#undef LRPC2_STATUS_TEXT
};

}  // namespace

extern "C" const char* lrpc2_status_text(int32_t code) {
    for (const StatusText& s : kTexts) {
        if (s.code == code) {
            return s.text;
        }
    }
    return nullptr;
}
