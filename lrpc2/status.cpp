#include "lrpc2/status.h"

extern "C" const char* lrpc2_status_text(int32_t code) {
    switch (code) {
#define LRPC2_STATUS_TEXT(name, value, text) \
    case LRPC2_##name:                       \
        return text;
        LRPC2_STATUS_MAP(LRPC2_STATUS_TEXT)
#undef LRPC2_STATUS_TEXT
        default:
            return nullptr;
    }
}
