// A typical message (a dozen fields of every type, about 200 bytes) built, completed,
// parsed and read back with lrpc2, against the same fields encoded and decoded with
// Protocol Buffers used at its best, and against memcpy of the image's bytes as the limit;
// and, with --sweep, one blob field from 16 bytes to 16 MiB both ways (below).
// lrpc2: each iteration is what a caller does for one message, a fresh message built or
// parsed, every field put or got (the getters hand out copies, which the caller frees).
// Protocol Buffers: one message reused (Clear(), so its strings keep their storage),
// serialised into a preallocated array, parsed into the reused message and read in place.
#include <benchmark/benchmark.h>

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
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

// The sweep: one blob field from 16 B to 16 MiB at four sizes per octave, the sizes in a shuffled
// (seeded), ascending or descending order. At each size, rounds alternate the five contenders:
// one malloc + memcpy + free of the blob's bytes, lrpc2 and Protocol Buffers encoding and
// decoding. A round runs a contender about a millisecond (at least once) and takes its thread
// CPU time per message; each contender's time is divided by the copy's of the same round.
// Printed per size: the copy's median time and, per contender, the median of the per-round
// ratios with the lowest and highest.
struct Blobs {
    std::vector<uint8_t> data;
    std::vector<uint8_t> image;  // lrpc2's
    std::string wire;            // Protocol Buffers'
    std::vector<uint8_t> received;
    std::vector<uint8_t> out;
    kvbench::Blob m;
};

volatile uint8_t gSink;

bool copyOnce(Blobs& b) {
    auto* block = static_cast<uint8_t*>(malloc(b.data.size()));
    if (block == nullptr) {
        return false;
    }
    memcpy(block, b.data.data(), b.data.size());
    gSink = block[b.data.size() - 1];
    free(block);
    return true;
}

bool encodeLrpc2(Blobs& b) {
    lrpc2_msg* msg = buildBlob(b.data);
    uint32_t length = 0;
    const uint8_t* bytes = lrpc2_msg_bytes(msg, &length, nullptr);
    const bool ok = bytes != nullptr && length == b.image.size();
    gSink = ok ? bytes[length - 1] : 0;
    lrpc2_msg_free(msg);
    return ok;
}

// Parsing copies the image into a block of its own, as a reply arrives in one.
bool decodeLrpc2(Blobs& b) {
    lrpc2_msg* msg = lrpc2_msg_parse(b.image.data(), static_cast<uint32_t>(b.image.size()), 1,
                                     lrpc2_default_table(), LRPC2_HEADER_LEN, nullptr);
    uint8_t* blob = nullptr;
    uint32_t length = 0;
    const bool ok =
        msg != nullptr && lrpc2_get_blob(msg, &blob, &length) == 0 && length == b.data.size();
    gSink = ok ? blob[length - 1] : 0;
    lrpc2_free_block(blob, length, 0);
    lrpc2_msg_free(msg);
    return ok;
}

// One message reused, serialised into a preallocated array.
bool encodeProtobuf(Blobs& b) {
    b.m.Clear();
    b.m.set_data(b.data.data(), b.data.size());
    const size_t length = b.m.ByteSizeLong();
    const bool ok = length == b.wire.size() &&
                    b.m.SerializeToArray(b.out.data(), static_cast<int>(b.out.size()));
    gSink = b.out[length - 1];
    return ok;
}

// The image arrives in a reused buffer and is parsed into the reused message.
bool decodeProtobuf(Blobs& b) {
    memcpy(b.received.data(), b.wire.data(), b.wire.size());
    const bool ok = b.m.ParseFromArray(b.received.data(), static_cast<int>(b.received.size())) &&
                    b.m.data().size() == b.data.size();
    gSink = static_cast<uint8_t>(b.m.data().back());
    return ok;
}

// The least any decoding that copies the image (a parse's copy, a reply's arrival) and hands
// the blob out in a block of its own can cost: two mallocs and memcpys, no format at all.
bool twoCopies(Blobs& b) {
    const size_t n = b.data.size();
    auto* image = static_cast<uint8_t*>(malloc(n));
    auto* blob = static_cast<uint8_t*>(malloc(n));
    if (image == nullptr || blob == nullptr) {
        free(image);
        free(blob);
        return false;
    }
    memcpy(image, b.data.data(), n);
    memcpy(blob, image, n);
    gSink = blob[n - 1];
    free(blob);
    free(image);
    return true;
}

using Contender = bool (*)(Blobs&);
struct Entry {
    const char* name;
    Contender run;
};
const Entry kContenders[] = {{"copy", copyOnce},
                             {"lrpc2-encode", encodeLrpc2},
                             {"protobuf-encode", encodeProtobuf},
                             {"lrpc2-decode", decodeLrpc2},
                             {"protobuf-decode", decodeProtobuf},
                             {"two-copies", twoCopies}};
constexpr size_t kContenderCount = sizeof kContenders / sizeof kContenders[0];

int64_t threadCpuNs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec;
}

// CPU time per message of `count` messages; negative when one failed.
double timed(const Entry& e, Blobs& b, int count) {
    const int64_t start = threadCpuNs();
    for (int i = 0; i < count; ++i) {
        if (!e.run(b)) {
            return -1;
        }
    }
    return static_cast<double>(threadCpuNs() - start) / count;
}

Blobs blobsOf(size_t n) {
    Blobs b;
    b.data.assign(n, 0x5a);
    for (size_t i = 0; i < n; i += 4096) {
        b.data[i] = static_cast<uint8_t>(i >> 12);
    }
    lrpc2_msg* msg = buildBlob(b.data);
    uint32_t length = 0;
    const uint8_t* bytes = msg != nullptr ? lrpc2_msg_bytes(msg, &length, nullptr) : nullptr;
    b.image.assign(bytes, bytes + (bytes != nullptr ? length : 0));
    lrpc2_msg_free(msg);
    b.m.set_data(b.data.data(), n);
    b.wire = b.m.SerializeAsString();
    b.received.resize(b.wire.size());
    b.out.resize(b.wire.size());
    return b;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t h = v.size() / 2;
    return v.size() % 2 != 0 ? v[h] : (v[h - 1] + v[h]) / 2;
}

int sweep(const std::string& order, uint64_t seed, int rounds) {
    std::vector<size_t> sizes;
    for (int quarter = 16; quarter <= 96; ++quarter) {
        sizes.push_back(static_cast<size_t>(std::llround(std::exp2(quarter / 4.0))));
    }
    if (order == "shuffled") {
        std::shuffle(sizes.begin(), sizes.end(), std::mt19937_64(seed));
    } else if (order == "descending") {
        std::reverse(sizes.begin(), sizes.end());
    } else if (order != "ascending") {
        fprintf(stderr, "message_bench: unknown order '%s'\n", order.c_str());
        return 2;
    }
    printf("# order %s, seed %llu, %d rounds per size; times in ns of thread CPU per message\n",
           order.c_str(), static_cast<unsigned long long>(seed), rounds);
    printf("# size copy_ns");
    for (size_t c = 1; c < kContenderCount; ++c) {
        printf(" %s %s_min %s_max", kContenders[c].name, kContenders[c].name, kContenders[c].name);
    }
    printf("\n");
    for (const size_t n : sizes) {
        Blobs b = blobsOf(n);
        // About a millisecond per round at a copy's pace of 10 GB/s, whatever the size.
        const int count = static_cast<int>(std::max<size_t>(1, 10000000 / (n + 1000)));
        std::vector<double> copy;
        std::vector<std::vector<double>> ratios(kContenderCount);
        for (int r = 0; r < rounds; ++r) {
            double copy_ns = 0;
            for (size_t c = 0; c < kContenderCount; ++c) {
                const double ns = timed(kContenders[c], b, count);
                if (ns < 0) {
                    fprintf(stderr, "message_bench: %s failed at %zu bytes\n", kContenders[c].name,
                            n);
                    return 1;
                }
                copy_ns = c == 0 ? ns : copy_ns;
                ratios[c].push_back(ns / copy_ns);
            }
            copy.push_back(copy_ns);
        }
        printf("%zu %.1f", n, median(copy));
        for (size_t c = 1; c < kContenderCount; ++c) {
            const auto& v = ratios[c];
            printf(" %.3f %.3f %.3f", median(v), *std::min_element(v.begin(), v.end()),
                   *std::max_element(v.begin(), v.end()));
        }
        printf("\n");
        fflush(stdout);
    }
    return 0;
}

}  // namespace

// With --sweep=ORDER (shuffled, ascending or descending), [--seed=N] and [--rounds=N]: the
// sweep alone, as a table on standard output; otherwise the typical message's benchmarks.
int main(int argc, char** argv) {
    std::string order;
    uint64_t seed = std::random_device()();
    int rounds = 15;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--sweep=", 0) == 0) {
            order = arg.substr(8);
        } else if (arg.rfind("--seed=", 0) == 0) {
            seed = std::stoull(arg.substr(7));
        } else if (arg.rfind("--rounds=", 0) == 0) {
            rounds = std::stoi(arg.substr(9));
        }
    }
    if (!order.empty()) {
        return sweep(order, seed, rounds);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
