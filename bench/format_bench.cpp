// The framework's snprintf (which replaces the C library's in every executable of the
// project) against the C library's own, reached with dlsym(RTLD_NEXT), on the same formats
// and arguments into a 512-byte buffer: integers, strings, a mix, and floats apart.
#include <dlfcn.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

using SnprintfFn = int (*)(char*, size_t, const char*, ...);

enum Impl { kZfw, kLibc };

SnprintfFn gLibc = nullptr;

SnprintfFn pick(Impl impl) {
    return impl == kZfw ? &snprintf : gLibc;
}

template <typename... Args>
void runFormat(benchmark::State& state, Impl impl, const char* format, Args... args) {
    const SnprintfFn fn = pick(impl);
    if (fn == nullptr) {
        state.SkipWithError("the C library's snprintf was not found");
        return;
    }
    char buf[512];
    int n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(format);
        n = fn(buf, sizeof buf, format, args...);
        benchmark::DoNotOptimize(buf);
    }
    state.counters["chars"] = n;
}

void BM_FormatInt(benchmark::State& state, Impl impl) {
    runFormat(state, impl, "%d %u %ld %lu %x %5d %-8d|", -123456, 4000000000u, -9876543210L,
              18446744073709551615UL, 0xdeadbeefu, 42, -7);
}
BENCHMARK_CAPTURE(BM_FormatInt, zfw, kZfw);
BENCHMARK_CAPTURE(BM_FormatInt, libc, kLibc);

void BM_FormatString(benchmark::State& state, Impl impl) {
    runFormat(state, impl, "%s %s: %-12s|%.5s|%20s", "zkv.cli.kvstop", "Unable to stop daemon",
              "audit", "truncated text", "right");
}
BENCHMARK_CAPTURE(BM_FormatString, zfw, kZfw);
BENCHMARK_CAPTURE(BM_FormatString, libc, kLibc);

void BM_FormatMixed(benchmark::State& state, Impl impl) {
    runFormat(state, impl, "%s %s (reference %s:%d rc: %d) %c %08x %lld", "IOException",
              "Unable to send lrpc2 message: 408 (Timeout during operation)", "lrpc2client.cpp",
              217, 408, 'x', 0xbeefu, 123456789012LL);
}
BENCHMARK_CAPTURE(BM_FormatMixed, zfw, kZfw);
BENCHMARK_CAPTURE(BM_FormatMixed, libc, kLibc);

void BM_FormatFloat(benchmark::State& state, Impl impl) {
    // Fixed-point only: the framework prints every floating conversion that way.
    runFormat(state, impl, "%f %.3f %.1f %f %.10f", 3.14159265358979, -2.5e-3, 602214.076,
              1.0 / 3.0, 123456.789);
}
BENCHMARK_CAPTURE(BM_FormatFloat, zfw, kZfw);
BENCHMARK_CAPTURE(BM_FormatFloat, libc, kLibc);

}  // namespace

int main(int argc, char** argv) {
    gLibc = reinterpret_cast<SnprintfFn>(dlsym(RTLD_NEXT, "snprintf"));
    if (gLibc == &snprintf) {
        gLibc = nullptr;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
