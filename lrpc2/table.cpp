#include "lrpc2/table.h"

namespace {

constexpr uint32_t kSecure = 3;  // secure, plus bit 1 which the library ignores

const lrpc2_msg_entry kEntries[] = {
    {0, "DISCONNECT", 0},
    {1, "_ProcessAuthChallenge", 0},
    {2, "_ProcessAuthResponse", 0},
    {10, "KVPing", 0},
    {20, "KVStop", kSecure},
    {30, "KVSessionStart", kSecure},
    {31, "KVSessionStart2", kSecure},
    {33, "KVSessionStart4", kSecure},
    {34, "KVSessionStart5", kSecure},
    {40, "KVSessionResume", 0},
    {50, "KVSessionData", 0},
    {60, "KVSessionWSizeChange", 0},
    {65, "KVSessionPGID", 0},
    {70, "KVSessionEnd", kSecure},
    {71, "KVSessionPause", kSecure},
    {72, "KVSessionContinue", kSecure},
    {73, "KVSessionKill", kSecure},
    {80, "KVQueryIsDaemonOnline", 0},
    {90, "KVQueryCollectorStatus", 0},
    {91, "KVQueryCollectorStatus2", 0},
    {100, "KVQueryDBSize", 0},
    {110, "KVQueryDespoolRate", 0},
    {120, "KVReloadProps", kSecure},
};

const lrpc2_msg_table kTable = {sizeof kEntries / sizeof kEntries[0], kEntries};

}  // namespace

extern "C" {

const lrpc2_msg_table* lrpc2_default_table(void) {
    return &kTable;
}

const lrpc2_msg_entry* lrpc2_table_find(const lrpc2_msg_table* table, uint32_t id) {
    if (table == nullptr || table->entries == nullptr) {
        return nullptr;
    }
    uint32_t lo = 0;
    uint32_t hi = table->count;
    while (lo < hi) {
        const uint32_t mid = lo + (hi - lo) / 2;
        // Ids stay below 2^31, so the signed difference never overflows.
        const int32_t diff = static_cast<int32_t>(id - table->entries[mid].id);
        if (diff == 0) {
            return &table->entries[mid];
        }
        if (diff < 0) {
            hi = mid;
        } else {
            lo = mid + 1;
        }
    }
    return nullptr;
}

const char* lrpc2_table_name(const lrpc2_msg_table* table, uint32_t id) {
    const lrpc2_msg_entry* e = lrpc2_table_find(table, id);
    return e != nullptr ? e->name : nullptr;
}

int lrpc2_table_secure(const lrpc2_msg_table* table, uint32_t id) {
    const lrpc2_msg_entry* e = lrpc2_table_find(table, id);
    return e != nullptr ? static_cast<int>(e->flags & LRPC2_MF_SECURE) : 0;
}

int lrpc2_table_flags_both(const lrpc2_msg_table* table, uint32_t id) {
    const lrpc2_msg_entry* e = lrpc2_table_find(table, id);
    return e != nullptr && e->flags == 3 ? 1 : 0;
}

}  // extern "C"
