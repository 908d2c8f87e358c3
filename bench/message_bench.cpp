// A typical message (a dozen fields of every type, about 200 bytes) built, completed,
// parsed and read back with lrpc2, against the same fields encoded and decoded with
// Protocol Buffers, and against memcpy of the image's bytes as the limit.
// Each iteration is what a caller does for one message: fresh objects, every field
// written or read back (texts copied out, as the lrpc2 getters hand out copies).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "lrpc2/msg.h"
#include "lrpc2/table.h"
#include "typical.pb.h"

namespace {

const char* const kCollectors[] = {"syscall", "file-integrity", "netflow", nullptr};
const lrpc2_kv_in kSettings[] = {
    {"spool.max", "512M"}, {"despool.rate", "400"}, {nullptr, nullptr}};
const uint8_t kToken[24] = {0x10, 0x32, 0x54, 0x76, 0x98, 0xba, 0xdc, 0xfe, 0x01, 0x23, 0x45, 0x67,
                            0x89, 0xab, 0xcd, 0xef, 0xf0, 0xe1, 0xd2, 0xc3, 0xb4, 0xa5, 0x96, 0x87};

lrpc2_msg* buildTypical() {
    int32_t status = 0;
    lrpc2_msg* msg = lrpc2_msg_create(LRPC2_ID_KV_QUERY_COLLECTOR_STATUS2, 1, lrpc2_default_table(),
                                      LRPC2_HEADER_LEN, &status);
    int32_t rc = status;
    rc |= lrpc2_put_bool(msg, 1);
    rc |= lrpc2_put_int32(msg, 400);
    rc |= lrpc2_put_int32(msg, -17);
    rc |= lrpc2_put_uint32(msg, 3500000000u);
    rc |= lrpc2_put_uint32(msg, 81234);
    rc |= lrpc2_put_string(msg, "audit01.example.org");
    rc |= lrpc2_put_string_alt(msg, "/var/zantorkv/spool");
    rc |= lrpc2_put_string(msg, "running");
    rc |= lrpc2_put_blob(msg, kToken, sizeof kToken);
    rc |= lrpc2_put_string_set(msg, kCollectors);
    rc |= lrpc2_put_kv_set(msg, kSettings);
    rc |= lrpc2_put_bool(msg, 0);
    rc |= lrpc2_msg_complete(msg);
    if (rc != 0) {
        lrpc2_msg_free(msg);
        return nullptr;
    }
    return msg;
}

kvbench::Typical buildProto() {
    kvbench::Typical m;
    m.set_online(true);
    m.set_rate(400);
    m.set_delta(-17);
    m.set_db_size(3500000000u);
    m.set_records(81234);
    m.set_host("audit01.example.org");
    m.set_spool_dir("/var/zantorkv/spool");
    m.set_state("running");
    m.set_token(kToken, sizeof kToken);
    for (const char* const* c = kCollectors; *c != nullptr; ++c) {
        m.add_collectors(*c);
    }
    for (const lrpc2_kv_in* kv = kSettings; kv->key != nullptr; ++kv) {
        kvbench::Pair* pair = m.add_settings();
        pair->set_key(kv->key);
        pair->set_value(kv->value);
    }
    m.set_paused(false);
    return m;
}

std::vector<uint8_t> typicalImage() {
    lrpc2_msg* msg = buildTypical();
    uint32_t length = 0;
    const uint8_t* bytes = msg != nullptr ? lrpc2_msg_bytes(msg, &length, nullptr) : nullptr;
    std::vector<uint8_t> image(bytes, bytes + (bytes != nullptr ? length : 0));
    lrpc2_msg_free(msg);
    return image;
}

void BM_EncodeLrpc2(benchmark::State& state) {
    uint32_t length = 0;
    for (auto _ : state) {
        lrpc2_msg* msg = buildTypical();
        const uint8_t* bytes = lrpc2_msg_bytes(msg, &length, nullptr);
        benchmark::DoNotOptimize(bytes);
        lrpc2_msg_free(msg);
    }
    state.counters["bytes"] = length;
}
BENCHMARK(BM_EncodeLrpc2);

void BM_EncodeProtobuf(benchmark::State& state) {
    std::string out;
    for (auto _ : state) {
        const kvbench::Typical m = buildProto();
        out.clear();
        m.SerializeToString(&out);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = static_cast<double>(out.size());
}
BENCHMARK(BM_EncodeProtobuf);

void BM_CopyImage(benchmark::State& state) {
    const std::vector<uint8_t> image = typicalImage();
    std::vector<uint8_t> copy(image.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(image.data());
        memcpy(copy.data(), image.data(), image.size());
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = static_cast<double>(image.size());
}
BENCHMARK(BM_CopyImage);

int64_t readBackLrpc2(lrpc2_msg* msg) {
    int64_t sum = 0;
    int32_t b = 0;
    int32_t i = 0;
    uint32_t u = 0;
    char* text = nullptr;
    uint8_t* blob = nullptr;
    uint32_t blob_len = 0;
    char** set = nullptr;
    lrpc2_kv* pairs = nullptr;
    lrpc2_get_bool(msg, &b);
    sum += b;
    lrpc2_get_int32(msg, &i);
    sum += i;
    lrpc2_get_int32(msg, &i);
    sum += i;
    lrpc2_get_uint32(msg, &u);
    sum += u;
    lrpc2_get_uint32(msg, &u);
    sum += u;
    for (int n = 0; n < 3; ++n) {
        if ((n == 1 ? lrpc2_get_string_alt(msg, &text) : lrpc2_get_string(msg, &text)) == 0) {
            sum += static_cast<int64_t>(strlen(text));
            lrpc2_free_string(text, 0);
        }
    }
    if (lrpc2_get_blob(msg, &blob, &blob_len) == 0) {
        sum += blob[0] + blob_len;
        lrpc2_free_block(blob, blob_len, 0);
    }
    if (lrpc2_get_string_set(msg, &set) == 0) {
        for (char** s = set; *s != nullptr; ++s) {
            sum += static_cast<int64_t>(strlen(*s));
        }
        lrpc2_free_string_set(set, 0);
    }
    if (lrpc2_get_kv_set(msg, &pairs) == 0) {
        for (lrpc2_kv* kv = pairs; kv->key != nullptr; ++kv) {
            sum += static_cast<int64_t>(strlen(kv->key) + strlen(kv->value));
        }
        lrpc2_free_kv_set(pairs, 0);
    }
    lrpc2_get_bool(msg, &b);
    return sum + b;
}

int64_t readBackProto(const kvbench::Typical& m) {
    int64_t sum = m.online() + m.rate() + m.delta() + m.db_size() + m.records();
    // Copied out, as the lrpc2 getters hand out copies.
    std::string text = m.host();
    sum += static_cast<int64_t>(text.size());
    text = m.spool_dir();
    sum += static_cast<int64_t>(text.size());
    text = m.state();
    sum += static_cast<int64_t>(text.size());
    const std::string token = m.token();
    sum += static_cast<uint8_t>(token[0]) + static_cast<int64_t>(token.size());
    const std::vector<std::string> collectors(m.collectors().begin(), m.collectors().end());
    for (const std::string& c : collectors) {
        sum += static_cast<int64_t>(c.size());
    }
    std::vector<std::pair<std::string, std::string>> settings;
    for (const kvbench::Pair& p : m.settings()) {
        settings.emplace_back(p.key(), p.value());
    }
    for (const auto& p : settings) {
        sum += static_cast<int64_t>(p.first.size() + p.second.size());
    }
    return sum + m.paused();
}

void BM_DecodeLrpc2(benchmark::State& state) {
    std::vector<uint8_t> image = typicalImage();
    const int64_t expected = [&] {
        lrpc2_msg* msg = lrpc2_msg_parse(image.data(), static_cast<uint32_t>(image.size()), 1,
                                         lrpc2_default_table(), LRPC2_HEADER_LEN, nullptr);
        const int64_t sum = msg != nullptr ? readBackLrpc2(msg) : -1;
        lrpc2_msg_free(msg);
        return sum;
    }();
    for (auto _ : state) {
        lrpc2_msg* msg = lrpc2_msg_parse(image.data(), static_cast<uint32_t>(image.size()), 1,
                                         lrpc2_default_table(), LRPC2_HEADER_LEN, nullptr);
        if (msg == nullptr || readBackLrpc2(msg) != expected) {
            state.SkipWithError("parse failed");
            break;
        }
        lrpc2_msg_free(msg);
    }
}
BENCHMARK(BM_DecodeLrpc2);

void BM_DecodeProtobuf(benchmark::State& state) {
    std::string wire;
    buildProto().SerializeToString(&wire);
    const int64_t expected = readBackProto(buildProto());
    for (auto _ : state) {
        kvbench::Typical m;
        if (!m.ParseFromArray(wire.data(), static_cast<int>(wire.size())) ||
            readBackProto(m) != expected) {
            state.SkipWithError("parse failed");
            break;
        }
    }
}
BENCHMARK(BM_DecodeProtobuf);

}  // namespace

BENCHMARK_MAIN();
