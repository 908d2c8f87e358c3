// A typical message (a dozen fields of every type, about 200 bytes) built, completed,
// parsed and read back with lrpc2, against the same fields encoded and decoded with
// Protocol Buffers used at its best, and against memcpy of the image's bytes as the limit;
// then one blob field from 16 bytes to 16 MiB both ways.
// lrpc2: each iteration is what a caller does for one message, a fresh message built or
// parsed, every field put or got (the getters hand out copies, which the caller frees).
// Protocol Buffers: one message reused (Clear(), so its strings keep their storage),
// serialised into a preallocated array, parsed into the reused message and read in place.
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

void fillProto(kvbench::Typical& m) {
    m.Clear();
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
}

kvbench::Typical buildProto() {
    kvbench::Typical m;
    fillProto(m);
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
    kvbench::Typical m;
    std::vector<uint8_t> out(4096);
    size_t length = 0;
    for (auto _ : state) {
        fillProto(m);
        length = m.ByteSizeLong();
        m.SerializeToArray(out.data(), static_cast<int>(length));
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = static_cast<double>(length);
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

// Read in place: references to the message's own strings, nothing copied.
int64_t readBackProto(const kvbench::Typical& m) {
    int64_t sum = m.online() + m.rate() + m.delta() + m.db_size() + m.records();
    sum += static_cast<int64_t>(m.host().size() + m.spool_dir().size() + m.state().size());
    const std::string& token = m.token();
    sum += static_cast<uint8_t>(token[0]) + static_cast<int64_t>(token.size());
    for (const std::string& c : m.collectors()) {
        sum += static_cast<int64_t>(c.size());
    }
    for (const kvbench::Pair& p : m.settings()) {
        sum += static_cast<int64_t>(p.key().size() + p.value().size());
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
    kvbench::Typical m;
    std::vector<uint8_t> received(wire.size());
    for (auto _ : state) {
        // The image arrives in a buffer, as lrpc2's arrives in the block that parsing copies
        // it to.
        memcpy(received.data(), wire.data(), wire.size());
        if (!m.ParseFromArray(received.data(), static_cast<int>(received.size())) ||
            readBackProto(m) != expected) {
            state.SkipWithError("parse failed");
            break;
        }
    }
}
BENCHMARK(BM_DecodeProtobuf);

// One blob field of state.range(0) bytes.
void sizes(benchmark::internal::Benchmark* b) {
    for (const int64_t n : {16L, 256L, 4096L, 65536L, 1L << 20, 16L << 20}) {
        b->Arg(n);
    }
}

lrpc2_msg* buildBlob(const std::vector<uint8_t>& data) {
    int32_t status = 0;
    lrpc2_msg* msg = lrpc2_msg_create(LRPC2_ID_KV_QUERY_COLLECTOR_STATUS2, 1, lrpc2_default_table(),
                                      LRPC2_HEADER_LEN, &status);
    if (status != 0 || lrpc2_put_blob(msg, data.data(), static_cast<uint32_t>(data.size())) != 0 ||
        lrpc2_msg_complete(msg) != 0) {
        lrpc2_msg_free(msg);
        return nullptr;
    }
    return msg;
}

void BM_EncodeBlobLrpc2(benchmark::State& state) {
    const std::vector<uint8_t> data(static_cast<size_t>(state.range(0)), 0x5a);
    for (auto _ : state) {
        lrpc2_msg* msg = buildBlob(data);
        uint32_t length = 0;
        const uint8_t* bytes = lrpc2_msg_bytes(msg, &length, nullptr);
        if (bytes == nullptr) {
            state.SkipWithError("encode failed");
            break;
        }
        benchmark::DoNotOptimize(bytes);
        lrpc2_msg_free(msg);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_EncodeBlobLrpc2)->Apply(sizes);

void BM_EncodeBlobProtobuf(benchmark::State& state) {
    const std::vector<uint8_t> data(static_cast<size_t>(state.range(0)), 0x5a);
    kvbench::Blob m;
    std::vector<uint8_t> out(data.size() + 16);
    for (auto _ : state) {
        m.Clear();
        m.set_data(data.data(), data.size());
        const size_t length = m.ByteSizeLong();
        m.SerializeToArray(out.data(), static_cast<int>(length));
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_EncodeBlobProtobuf)->Apply(sizes);

void BM_DecodeBlobLrpc2(benchmark::State& state) {
    const std::vector<uint8_t> data(static_cast<size_t>(state.range(0)), 0x5a);
    lrpc2_msg* built = buildBlob(data);
    uint32_t length = 0;
    uint8_t* bytes = lrpc2_msg_bytes(built, &length, nullptr);
    for (auto _ : state) {
        // Parsing copies the image into a block of its own, as a reply arrives in one.
        lrpc2_msg* msg =
            lrpc2_msg_parse(bytes, length, 1, lrpc2_default_table(), LRPC2_HEADER_LEN, nullptr);
        uint8_t* blob = nullptr;
        uint32_t blob_len = 0;
        if (msg == nullptr || lrpc2_get_blob(msg, &blob, &blob_len) != 0 ||
            blob_len != data.size()) {
            state.SkipWithError("decode failed");
            lrpc2_msg_free(msg);
            break;
        }
        benchmark::DoNotOptimize(blob[blob_len - 1]);
        lrpc2_free_block(blob, blob_len, 0);
        lrpc2_msg_free(msg);
    }
    lrpc2_msg_free(built);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_DecodeBlobLrpc2)->Apply(sizes);

void BM_DecodeBlobProtobuf(benchmark::State& state) {
    kvbench::Blob source;
    source.set_data(std::string(static_cast<size_t>(state.range(0)), 0x5a));
    const std::string wire = source.SerializeAsString();
    kvbench::Blob m;
    std::vector<uint8_t> received(wire.size());
    for (auto _ : state) {
        // The image arrives in a buffer, reused from message to message.
        memcpy(received.data(), wire.data(), wire.size());
        if (!m.ParseFromArray(received.data(), static_cast<int>(received.size())) ||
            m.data().size() != static_cast<size_t>(state.range(0))) {
            state.SkipWithError("decode failed");
            break;
        }
        benchmark::DoNotOptimize(m.data()[m.data().size() - 1]);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_DecodeBlobProtobuf)->Apply(sizes);

// The limit: the bytes copied once into a preallocated buffer.
void BM_CopyBlob(benchmark::State& state) {
    const std::vector<uint8_t> data(static_cast<size_t>(state.range(0)), 0x5a);
    std::vector<uint8_t> copy(data.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(data.data());
        memcpy(copy.data(), data.data(), data.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CopyBlob)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
